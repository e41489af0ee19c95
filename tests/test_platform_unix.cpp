#include "tests/test_platform.h"

#include <QFile>
#include <QProcess>

#include <cstdio>

#include <signal.h>
#include <sys/types.h>

namespace corv::test {

bool ask_to_stop(QProcess &process, int unix_signal)
{
    return process.processId() > 0 && ::kill(pid_t(process.processId()), unix_signal) == 0;
}

bool library_is_loaded(const QString &path)
{
    QFile maps(QStringLiteral("/proc/self/maps"));
    if (!maps.open(QIODevice::ReadOnly))
        return false;
    return QString::fromUtf8(maps.readAll()).contains(path);
}

bool rename_over(const QString &from, const QString &to)
{
    return std::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) == 0;
}

bool running_under_wine()
{
    return false;
}

} // namespace corv::test
