#include "bench/bench_platform.h"

#include <QByteArray>
#include <QFile>

#include <csignal>
#include <cstring>

#include <sys/resource.h>
#include <unistd.h>

namespace corv::bench {

namespace {

// A figure of /proc/self/status such as "VmHWM:", in MiB.
double status_mb(const char *field)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith(field))
            return line.mid(qsizetype(std::strlen(field))).trimmed().split(' ').value(0).toDouble() / 1024.0;
    }
    return -1;
}

} // namespace

double cpu_seconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval &t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double resident_mb()
{
    return status_mb("VmRSS:");
}

double peak_resident_mb()
{
    return status_mb("VmHWM:");
}

void ask_to_stop()
{
    ::kill(::getpid(), SIGTERM);
}

} // namespace corv::bench
