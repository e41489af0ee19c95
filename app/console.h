#pragma once

namespace corv {

// A window run started from the desktop should show no console. On Windows
// corvane.exe is a console program (so --headless, --post and --check answer
// in the console they were started from); a window run lets go of a console
// that the system made for it alone. Elsewhere there is nothing to do.
void release_own_console();

} // namespace corv
