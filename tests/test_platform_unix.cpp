#include "tests/test_platform.h"

#include <QFile>
#include <QProcess>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <signal.h>
#include <sys/types.h>
#include <unistd.h>

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

std::optional<int> rerun_on_private_desktop(int argc, char **argv, const char *xvfb_run)
{
    if (!qEnvironmentVariableIsEmpty("CORV_XVFB")) {
        qputenv("QT_QPA_PLATFORM", "xcb");
        return std::nullopt;
    }
    std::vector<char *> arguments{const_cast<char *>("dbus-run-session"), const_cast<char *>("--"),
                                  const_cast<char *>(xvfb_run)};
    for (int i = 0; i < argc; ++i)
        arguments.push_back(argv[i]);
    arguments.push_back(nullptr);
    ::execvp(arguments[0], arguments.data());
    std::fprintf(stderr, "could not run dbus-run-session (package dbus-daemon): %s\n", std::strerror(errno));
    return 1;
}

} // namespace corv::test
