#pragma once

// The X11 backend: XQueryKeymap reads the whole keyboard in one round trip,
// XInput 2 raw key events (selected on the first read with edges) tell the
// presses between two reads, XTestFakeKeyEvent injects. Each backend opens its own Display connection
// (from DISPLAY), so it works in a headless run as well, independent of Qt's
// platform plugin; use one backend per thread. Qt-free.

#include "input/keyboard_backend.h"

#include <memory>
#include <string>

namespace corv::input {

// The X11 backend is this platform's native one (open_native_backend).

} // namespace corv::input
