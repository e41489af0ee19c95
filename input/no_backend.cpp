#include "input/keyboard_backend.h"

// Builds without a keyboard backend for their platform (an X11 build
// without the XTest headers).
namespace corv::input {

NativeOpening open_native_backend()
{
    return {nullptr, "this build has no keyboard backend for the platform"};
}

} // namespace corv::input
