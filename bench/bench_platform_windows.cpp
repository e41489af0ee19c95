#include "bench/bench_platform.h"

#include <QCoreApplication>
#include <QMetaObject>

#include <windows.h>

#include <psapi.h>

namespace corv::bench {

namespace {

double seconds(const FILETIME &time)
{
    ULARGE_INTEGER value;
    value.LowPart = time.dwLowDateTime;
    value.HighPart = time.dwHighDateTime;
    return double(value.QuadPart) / 1e7;
}

PROCESS_MEMORY_COUNTERS memory()
{
    PROCESS_MEMORY_COUNTERS counters{};
    counters.cb = sizeof counters;
    if (!GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters))
        counters.cb = 0;
    return counters;
}

} // namespace

double cpu_seconds()
{
    FILETIME created, exited, kernel, user;
    if (!GetProcessTimes(GetCurrentProcess(), &created, &exited, &kernel, &user))
        return 0;
    return seconds(kernel) + seconds(user);
}

double resident_mb()
{
    const PROCESS_MEMORY_COUNTERS counters = memory();
    return counters.cb ? double(counters.WorkingSetSize) / (1024.0 * 1024.0) : -1;
}

double peak_resident_mb()
{
    const PROCESS_MEMORY_COUNTERS counters = memory();
    return counters.cb ? double(counters.PeakWorkingSetSize) / (1024.0 * 1024.0) : -1;
}

void ask_to_stop()
{
    QMetaObject::invokeMethod(QCoreApplication::instance(), &QCoreApplication::quit, Qt::QueuedConnection);
}

} // namespace corv::bench
