#pragma once

// The X11 backend: XQueryKeymap reads the whole keyboard in one round trip,
// XInput 2 raw key events (selected on the first read with edges) tell the
// presses between two reads, XTestFakeKeyEvent injects. Each backend opens its own Display connection
// (from DISPLAY), so it works in a headless run as well, independent of Qt's
// platform plugin; use one backend per thread. Qt-free.

#include "input/keyboard_backend.h"

#include <memory>
#include <string>

struct _XDisplay;

namespace corv::input {

// The X11 backend is this platform's native one (open_native_backend).

// Opens a connection of its own to DISPLAY, after installing (once) an error
// handler that lets a failed request simply have no effect: Xlib's default
// handler ends the process. Returns null and says why in `problem` when
// there is no display to open.
_XDisplay *open_x11_display(std::string &problem);

} // namespace corv::input
