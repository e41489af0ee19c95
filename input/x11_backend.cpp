#include "input/x11_backend.h"

#include "input/key_table.h"

#include <X11/XKBlib.h>
#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>

#include <array>
#include <cstdlib>
#include <mutex>
#include <vector>

namespace corv::input {

namespace {

// A protocol error must not end the process (Xlib's default handler exits);
// the affected request simply has no effect.
int ignore_error(Display *, XErrorEvent *)
{
    return 0;
}

bool is_keypad_keysym(KeySym keysym)
{
    return keysym >= 0xffaa && keysym <= 0xffb9;
}

class X11Backend final : public KeyboardBackend
{
public:
    X11Backend(Display *display, bool xtest) : m_display(display), m_xtest(xtest)
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

    bool snapshot(KeySet &down, const KeySet &) override
    {
        char keys[32];
        XQueryKeymap(m_display, keys);
        // Word of a changed keyboard mapping (another layout) arrives with
        // the replies.
        if (XQLength(m_display) > 0)
            handle_events();
        down.reset();
        for (int byte = 0; byte < 32; ++byte) {
            const auto bits = static_cast<unsigned char>(keys[byte]);
            if (!bits)
                continue;
            for (int bit = 0; bit < 8; ++bit)
                if (bits & (1u << bit))
                    if (const std::uint8_t vk = m_vk_of_keycode[std::size_t(byte * 8 + bit)])
                        down.set(vk);
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
    void handle_events()
    {
        bool remapped = false;
        while (XPending(m_display) > 0) {
            XEvent event;
            XNextEvent(m_display, &event);
            if (event.type == m_xkb_event
                || (event.type == MappingNotify && event.xmapping.request != MappingPointer))
                remapped = true;
        }
        if (remapped)
            read_mapping();
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
    int m_xkb_event = -1;
    int m_min_keycode = 8;
    int m_max_keycode = 7;
    int m_per_keycode = 1;
    std::vector<KeySym> m_syms;
    std::array<std::uint8_t, 256> m_vk_of_keycode{};
    std::array<std::uint8_t, 256> m_keycode_of_vk{};
};

} // namespace

NativeOpening open_native_backend()
{
    NativeOpening opening;
    const char *name = std::getenv("DISPLAY");
    if (!name || !*name) {
        const char *wayland = std::getenv("WAYLAND_DISPLAY");
        opening.problem = wayland && *wayland
                              ? "this Wayland session offers no X11 display (DISPLAY is not set)"
                              : "no X11 display (DISPLAY is not set)";
        return opening;
    }
    static std::once_flag handler_once;
    std::call_once(handler_once, [] { XSetErrorHandler(ignore_error); });
    Display *display = XOpenDisplay(nullptr);
    if (!display) {
        opening.problem = std::string("cannot open the X11 display ") + name;
        return opening;
    }
    int event_base = 0, error_base = 0, major = 0, minor = 0;
    const bool xtest = XTestQueryExtension(display, &event_base, &error_base, &major, &minor);
    const char *wayland = std::getenv("WAYLAND_DISPLAY");
    if (!xtest)
        opening.problem = "the X server lacks the XTEST extension, so keys cannot be sent";
    else if (wayland && *wayland)
        opening.problem = "this Wayland session's X11 server (XWayland) shows hotkeys only while an X11 window "
                          "has the keyboard focus, and sends keys to X11 windows only";
    opening.backend = std::make_unique<X11Backend>(display, xtest);
    return opening;
}

} // namespace corv::input
