#include "process_probe.h"

#include <QDir>

#include <windows.h>

#include <psapi.h>

bool process_alive(qint64 pid)
{
    HANDLE process = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, static_cast<DWORD>(pid));
    if (!process)
        return false;
    DWORD code = 0;
    const bool running = GetExitCodeProcess(process, &code) && code == STILL_ACTIVE;
    CloseHandle(process);
    return running;
}

qint64 resident_kib()
{
    PROCESS_MEMORY_COUNTERS counters = {};
    counters.cb = sizeof counters;
    if (!GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters))
        return 0;
    return static_cast<qint64>(counters.WorkingSetSize / 1024);
}

QString shell_command(const QString &program, const QString &arguments)
{
    return u'"' + QDir::toNativeSeparators(program) + QStringLiteral("\" ") + arguments;
}
