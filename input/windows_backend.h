#pragma once

// The Windows backend: GetAsyncKeyState for the key state, SendInput with
// the thread's GetMessageExtraInfo for injection, VkKeyScanW for characters.
// Qt-free, so a small test program can be built with it alone.

#include "input/keyboard_backend.h"

#include <memory>

namespace corv::input {

std::unique_ptr<KeyboardBackend> open_windows_backend();

} // namespace corv::input
