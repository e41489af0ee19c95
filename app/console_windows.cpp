#include "app/console.h"

#include <windows.h>

namespace corv {

void release_own_console()
{
    // One process on the console: it was made for this one (started from
    // Explorer or a shortcut), not inherited from a command prompt.
    DWORD processes[2];
    if (::GetConsoleProcessList(processes, 2) == 1)
        ::FreeConsole();
}

} // namespace corv
