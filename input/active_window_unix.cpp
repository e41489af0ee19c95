#include "input/active_window.h"

#include "input/x11_backend.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <climits>
#include <cstdlib>
#include <mutex>
#include <unistd.h>

namespace corv::input {

namespace {

std::string latin1_to_utf8(const unsigned char *text, unsigned long length)
{
    std::string out;
    for (unsigned long i = 0; i < length; ++i) {
        const unsigned char c = text[i];
        if (c < 0x80) {
            out += char(c);
        } else {
            out += char(0xC0 | (c >> 6));
            out += char(0x80 | (c & 0x3F));
        }
    }
    return out;
}

class X11WindowLookup final : public WindowLookup
{
public:
    explicit X11WindowLookup(Display *display)
        : m_display(display), m_active(XInternAtom(display, "_NET_ACTIVE_WINDOW", False)),
          m_name(XInternAtom(display, "_NET_WM_NAME", False)), m_utf8(XInternAtom(display, "UTF8_STRING", False)),
          m_pid(XInternAtom(display, "_NET_WM_PID", False))
    {
    }
    ~X11WindowLookup() override { XCloseDisplay(m_display); }

    std::optional<ActiveWindow> active() override
    {
        Window window = active_window();
        if (!window)
            return std::nullopt;
        ActiveWindow found;
        found.title = text_property(window, m_name, m_utf8);
        if (found.title.empty())
            found.title = text_property(window, XA_WM_NAME, XA_STRING);
        XClassHint hint{nullptr, nullptr};
        if (XGetClassHint(m_display, window, &hint)) {
            if (hint.res_class)
                found.kind = hint.res_class;
            XFree(hint.res_name);
            XFree(hint.res_class);
        }
        found.program = program_of(window);
        return found;
    }

private:
    // The window manager's active window (_NET_ACTIVE_WINDOW); without a
    // window manager that names one, the top-level window that holds the
    // input focus.
    Window active_window()
    {
        const Window root = DefaultRootWindow(m_display);
        if (const std::optional<unsigned long> active = cardinal(root, m_active, XA_WINDOW); active && *active)
            return Window(*active);
        Window focus = 0;
        int revert = 0;
        XGetInputFocus(m_display, &focus, &revert);
        if (focus == None || focus == PointerRoot || focus == root)
            return 0;
        // Up to the child of the root, then down to the client window that
        // carries the name when a frame sits in between.
        for (;;) {
            Window root_return = 0, parent = 0;
            Window *children = nullptr;
            unsigned count = 0;
            if (!XQueryTree(m_display, focus, &root_return, &parent, &children, &count))
                return 0;
            if (children)
                XFree(children);
            if (parent == root_return || parent == 0)
                break;
            focus = parent;
        }
        return focus;
    }

    std::optional<unsigned long> cardinal(Window window, Atom property, Atom type)
    {
        Atom actual = None;
        int format = 0;
        unsigned long count = 0, after = 0;
        unsigned char *data = nullptr;
        if (XGetWindowProperty(m_display, window, property, 0, 1, False, type, &actual, &format, &count, &after,
                               &data) != Success)
            return std::nullopt;
        std::optional<unsigned long> value;
        if (data && actual == type && format == 32 && count == 1)
            value = *reinterpret_cast<unsigned long *>(data);
        if (data)
            XFree(data);
        return value;
    }

    std::string text_property(Window window, Atom property, Atom type)
    {
        Atom actual = None;
        int format = 0;
        unsigned long count = 0, after = 0;
        unsigned char *data = nullptr;
        if (XGetWindowProperty(m_display, window, property, 0, 4096, False, type, &actual, &format, &count, &after,
                               &data) != Success)
            return {};
        std::string text;
        if (data && format == 8 && actual == type)
            text = type == XA_STRING ? latin1_to_utf8(data, count) : std::string(reinterpret_cast<char *>(data), count);
        if (data)
            XFree(data);
        return text;
    }

    // The executable of the window's process (_NET_WM_PID), when it runs
    // on this machine and may be read.
    std::string program_of(Window window)
    {
        const std::optional<unsigned long> pid = cardinal(window, m_pid, XA_CARDINAL);
        if (!pid || !*pid)
            return {};
        const std::string link = "/proc/" + std::to_string(*pid) + "/exe";
        char path[PATH_MAX];
        const ssize_t length = readlink(link.c_str(), path, sizeof path - 1);
        return length > 0 ? std::string(path, std::size_t(length)) : std::string();
    }

    Display *m_display;
    Atom m_active;
    Atom m_name;
    Atom m_utf8;
    Atom m_pid;
};

} // namespace

WindowLookupOpening open_window_lookup()
{
    WindowLookupOpening opening;
    // A window that goes away between two requests must not end the process:
    // the display's error handler lets the request fail quietly.
    Display *display = open_x11_display(opening.problem);
    if (!display)
        return opening;
    opening.lookup = std::make_unique<X11WindowLookup>(display);
    return opening;
}

} // namespace corv::input
