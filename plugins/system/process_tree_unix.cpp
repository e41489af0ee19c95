#include "process_tree.h"

#include <signal.h>
#include <unistd.h>

namespace corv_system {

ProcessTree::~ProcessTree() = default;

void ProcessTree::prepare(QProcess &process)
{
    // In the child between fork and exec: only async-signal-safe calls.
    process.setChildProcessModifier([] { ::setpgid(0, 0); });
}

void ProcessTree::adopt(QProcess &process)
{
    m_pid = process.processId();
}

void ProcessTree::kill()
{
    if (m_pid > 0)
        ::kill(-static_cast<pid_t>(m_pid), SIGKILL);
}

void set_shell_command(QProcess &process, const QString &command, const QStringList &arguments)
{
    process.setProgram(QStringLiteral("/bin/sh"));
    process.setArguments(QStringList{QStringLiteral("-c"), command, QStringLiteral("corvane")} +
                         arguments);
}

} // namespace corv_system
