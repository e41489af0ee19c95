#include "input/active_window.h"
#include "input/keyboard_backend.h"

// Builds without a keyboard backend for their platform (an X11 build
// without the XTest or XInput headers), which see no windows either.
namespace corv::input {

NativeOpening open_native_backend()
{
    return {nullptr, "this build has no keyboard backend for the platform"};
}

WindowLookupOpening open_window_lookup()
{
    return {nullptr, "this build cannot see the desktop's windows"};
}

} // namespace corv::input
