#include "input/x11_backend.h"

#include "input/key_table.h"

#include <X11/XKBlib.h>
#include <X11/Xlib.h>
#include <X11/extensions/XInput2.h>
#include <X11/extensions/XTest.h>

#include <array>
#include <utility>
#include <bitset>
#include <cstdlib>
#include <mutex>
#include <vector>

namespace corv::input {

namespace {

bool is_keypad_keysym(KeySym keysym)
{
    return keysym >= 0xffaa && keysym <= 0xffb9;
}

class X11Backend final : public KeyboardBackend
{
public:
    X11Backend(Display *display, bool xtest, int xi_opcode)
        : m_display(display), m_xtest(xtest), m_xi_opcode(xi_opcode)
    {
        // Layout changes: an XKB-aware client (as Xlib makes every client)
        // hears of them only through XKB's events.
        int opcode = 0, error_base = 0, major = XkbMajorVersion, minor = XkbMinorVersion;
        if (XkbQueryExtension(m_display, &opcode, &m_xkb_event, &error_base, &major, &minor)) {
            const unsigned mask = XkbNewKeyboardNotifyMask | XkbMapNotifyMask;
            XkbSelectEvents(m_display, XkbUseCoreKbd, mask, mask);
        } else {
            m_xkb_event = -1;
        }
        read_mapping();
    }
    ~X11Backend() override { XCloseDisplay(m_display); }

    bool snapshot(KeySet &down, const KeySet &, std::vector<KeyRecord> *edges) override
    {
        if (edges && !m_listening)
            listen_for_edges(true);
        else if (!edges && m_listening)
            listen_for_edges(false);
        // The key events that came after the last keymap was read, then
        // those before this one; the ones after it wait for the next read.
        // An event carries the number of the last request of ours the
        // server had handled, which puts it before or after the keymap.
        for (const KeyRecord &later : std::exchange(m_later, {}))
            key_changed(int(later.vk), later.up, edges);
        const unsigned long keymap_request = NextRequest(m_display);
        char keys[32];
        XQueryKeymap(m_display, keys);
        // What came with the reply, without another look at the socket:
        // anything still on its way is read with the next reply.
        handle_events(edges, keymap_request, QueuedAlready);
        down.reset();
        m_keycode_down.reset();
        m_vk_count.fill(0);
        for (int byte = 0; byte < 32; ++byte) {
            const auto bits = static_cast<unsigned char>(keys[byte]);
            if (!bits)
                continue;
            for (int bit = 0; bit < 8; ++bit) {
                if (!(bits & (1u << bit)))
                    continue;
                const std::size_t keycode = std::size_t(byte * 8 + bit);
                m_keycode_down.set(keycode);
                if (const std::uint8_t vk = m_vk_of_keycode[keycode]) {
                    down.set(vk);
                    ++m_vk_count[vk];
                }
            }
        }
        return true;
    }

    bool send(const KeyRecord *records, std::size_t count) override
    {
        if (!m_xtest)
            return false;
        bool all = true;
        for (std::size_t i = 0; i < count; ++i) {
            const unsigned keycode = records[i].vk < 256 ? m_keycode_of_vk[records[i].vk] : 0;
            if (!keycode) {
                all = false;
                continue;
            }
            XTestFakeKeyEvent(m_display, keycode, records[i].up ? False : True, CurrentTime);
        }
        // Once the server has answered, the events are in its key state.
        XSync(m_display, False);
        return all;
    }

    std::int32_t scan_char(char32_t ch) override
    {
        handle_events();
        const KeySym wanted = (ch >= 0x20 && ch < 0x7f) || (ch >= 0xa0 && ch <= 0xff) ? KeySym(ch)
                                                                                      : KeySym(0x01000000 | ch);
        for (int level = 0; level < 2 && level < m_per_keycode; ++level)
            for (int keycode = m_min_keycode; keycode <= m_max_keycode; ++keycode)
                if (sym(keycode, level) == wanted && m_vk_of_keycode[std::size_t(keycode)])
                    return std::int32_t(m_vk_of_keycode[std::size_t(keycode)]) | (level ? 0x100 : 0);
        return -1;
    }

private:
    // Raw key events from every keyboard, on the root window: they reach
    // this connection whatever other clients grab (XInput 2.1 and later).
    // Ending it drops the events on their way: the next read with edges
    // starts from its keymap.
    void listen_for_edges(bool listen)
    {
        m_listening = listen;
        if (m_xi_opcode < 0)
            return;
        unsigned char bits[XIMaskLen(XI_LASTEVENT)] = {};
        if (listen) {
            XISetMask(bits, XI_RawKeyPress);
            XISetMask(bits, XI_RawKeyRelease);
        }
        XIEventMask mask{XIAllMasterDevices, int(sizeof bits), bits};
        XISelectEvents(m_display, DefaultRootWindow(m_display), &mask, 1);
        if (!listen) {
            XSync(m_display, False);
            handle_events();
            m_later.clear();
        }
        XFlush(m_display);
    }

    // Reads the events that have arrived: layout changes, and key changes
    // as virtual-key edges on top of the last keymap (a key whose other
    // side stays down changes nothing); key changes from after
    // `before_request` are kept in m_later (by keycode).
    void handle_events(std::vector<KeyRecord> *edges = nullptr, unsigned long before_request = ~0ul,
                       int mode = QueuedAfterFlush)
    {
        bool remapped = false;
        for (int count = XEventsQueued(m_display, mode); count > 0; --count) {
            XEvent event;
            XNextEvent(m_display, &event);
            if (event.type == GenericEvent && event.xcookie.extension == m_xi_opcode) {
                if (XGetEventData(m_display, &event.xcookie)) {
                    const auto *raw = static_cast<const XIRawEvent *>(event.xcookie.data);
                    const bool up = event.xcookie.evtype == XI_RawKeyRelease;
                    if (event.xcookie.evtype == XI_RawKeyPress || up) {
                        if (event.xcookie.serial < before_request)
                            key_changed(raw->detail, up, edges);
                        else if (raw->detail >= 0 && raw->detail < 256)
                            m_later.push_back({std::uint32_t(raw->detail), up});
                    }
                    XFreeEventData(m_display, &event.xcookie);
                }
            } else if (event.type == m_xkb_event
                       || (event.type == MappingNotify && event.xmapping.request != MappingPointer)) {
                remapped = true;
            }
        }
        if (remapped)
            read_mapping();
    }

    void key_changed(int keycode, bool up, std::vector<KeyRecord> *edges)
    {
        if (keycode < 0 || keycode > 255 || m_keycode_down[std::size_t(keycode)] == !up)
            return;
        m_keycode_down[std::size_t(keycode)] = !up;
        const std::uint8_t vk = m_vk_of_keycode[std::size_t(keycode)];
        if (!vk)
            return;
        int &count = m_vk_count[vk];
        count += up ? -1 : 1;
        if (edges && count == (up ? 0 : 1))
            edges->push_back({vk, up});
    }

    KeySym sym(int keycode, int level) const
    {
        return m_syms[std::size_t((keycode - m_min_keycode) * m_per_keycode + level)];
    }

    // Keycode to virtual key by each key's first keysym (a keypad key by its
    // digit or operator); virtual key to the first keycode that has it.
    void read_mapping()
    {
        m_vk_of_keycode.fill(0);
        m_keycode_of_vk.fill(0);
        XDisplayKeycodes(m_display, &m_min_keycode, &m_max_keycode);
        KeySym *syms = XGetKeyboardMapping(m_display, KeyCode(m_min_keycode),
                                           m_max_keycode - m_min_keycode + 1, &m_per_keycode);
        if (!syms || m_per_keycode < 1) {
            m_max_keycode = m_min_keycode - 1;
            m_per_keycode = 1;
            return;
        }
        m_syms.assign(syms, syms + std::size_t(m_max_keycode - m_min_keycode + 1) * std::size_t(m_per_keycode));
        XFree(syms);
        for (int keycode = m_min_keycode; keycode <= m_max_keycode && keycode < 256; ++keycode) {
            KeySym keysym = sym(keycode, 0);
            if (m_per_keycode > 1 && is_keypad_keysym(sym(keycode, 1)))
                keysym = sym(keycode, 1);
            const std::uint32_t vk = vk_for_keysym(std::uint32_t(keysym));
            if (!vk || vk > 255)
                continue;
            m_vk_of_keycode[std::size_t(keycode)] = std::uint8_t(vk);
            if (!m_keycode_of_vk[vk])
                m_keycode_of_vk[vk] = std::uint8_t(keycode);
        }
        // Keys whose keysym sits on a later level of some key.
        for (const KeyRow &row : key_table()) {
            if (row.vk < 256 && !m_keycode_of_vk[row.vk] && row.keysym) {
                const KeyCode keycode = XKeysymToKeycode(m_display, row.keysym);
                if (keycode)
                    m_keycode_of_vk[row.vk] = keycode;
            }
        }
    }

    Display *m_display;
    bool m_xtest;
    int m_xi_opcode; // -1: no XInput 2.1, no edges
    bool m_listening = false;
    std::bitset<256> m_keycode_down; // the last keymap, changed by the events since
    std::array<int, 256> m_vk_count{}; // keycodes down per virtual key
    std::vector<KeyRecord> m_later;    // key events after the last keymap, by keycode
    int m_xkb_event = -1;
    int m_min_keycode = 8;
    int m_max_keycode = 7;
    int m_per_keycode = 1;
    std::vector<KeySym> m_syms;
    std::array<std::uint8_t, 256> m_vk_of_keycode{};
    std::array<std::uint8_t, 256> m_keycode_of_vk{};
};

} // namespace

Display *open_x11_display(std::string &problem)
{
    const char *name = std::getenv("DISPLAY");
    if (!name || !*name) {
        const char *wayland = std::getenv("WAYLAND_DISPLAY");
        problem = wayland && *wayland ? "this Wayland session offers no X11 display (DISPLAY is not set)"
                                      : "no X11 display (DISPLAY is not set)";
        return nullptr;
    }
    static std::once_flag handler_once;
    std::call_once(handler_once, [] { XSetErrorHandler([](Display *, XErrorEvent *) { return 0; }); });
    Display *display = XOpenDisplay(nullptr);
    if (!display)
        problem = std::string("cannot open the X11 display ") + name;
    return display;
}

NativeOpening open_native_backend()
{
    NativeOpening opening;
    Display *display = open_x11_display(opening.problem);
    if (!display)
        return opening;
    int event_base = 0, error_base = 0, major = 0, minor = 0;
    const bool xtest = XTestQueryExtension(display, &event_base, &error_base, &major, &minor);
    int xi_opcode = -1;
    if (XQueryExtension(display, "XInputExtension", &xi_opcode, &event_base, &error_base)) {
        int xi_major = 2, xi_minor = 2;
        if (XIQueryVersion(display, &xi_major, &xi_minor) != Success || xi_major < 2
            || (xi_major == 2 && xi_minor < 1))
            xi_opcode = -1;
    } else {
        xi_opcode = -1;
    }
    const char *wayland = std::getenv("WAYLAND_DISPLAY");
    if (!xtest)
        opening.problem = "the X server lacks the XTEST extension, so keys cannot be sent";
    else if (wayland && *wayland)
        opening.problem = "this Wayland session's X11 server (XWayland) shows hotkeys only while an X11 window "
                          "has the keyboard focus, and sends keys to X11 windows only";
    else if (xi_opcode < 0)
        opening.problem = "the X server lacks XInput 2.1, so presses shorter than one poll can be missed";
    opening.backend = std::make_unique<X11Backend>(display, xtest, xi_opcode);
    return opening;
}

} // namespace corv::input
