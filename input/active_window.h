#pragma once

// The window that has the keyboard, as the desktop names it: its title and
// the program that shows it. One implementation per platform
// (active_window_unix.cpp: X11; active_window_windows.cpp). Qt-free.

#include <memory>
#include <optional>
#include <string>

namespace corv::input {

struct ActiveWindow {
    std::string title;   // UTF-8; may be empty
    std::string program; // the executable's full path where known
    std::string kind;    // X11: the window's class (WM_CLASS); Windows: the window class
};

class WindowLookup
{
public:
    virtual ~WindowLookup() = default;
    // The active window now; nothing when no window is active.
    virtual std::optional<ActiveWindow> active() = 0;
};

// A lookup for the calling thread: null with the reason when the desktop's
// windows cannot be seen (no display).
struct WindowLookupOpening {
    std::unique_ptr<WindowLookup> lookup;
    std::string problem;
};
WindowLookupOpening open_window_lookup();

} // namespace corv::input
