#include "process_tree.h"

#include <windows.h>

namespace corv_system {

ProcessTree::~ProcessTree()
{
    if (m_job)
        ::CloseHandle(static_cast<HANDLE>(m_job));
}

void ProcessTree::prepare(QProcess &process)
{
    Q_UNUSED(process);
}

void ProcessTree::adopt(QProcess &process)
{
    // A job that ends its processes when its last handle closes, so that a
    // crash of the program takes the tree along too.
    HANDLE job = ::CreateJobObjectW(nullptr, nullptr);
    if (!job)
        return;
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits = {};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    ::SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits, sizeof limits);
    HANDLE child = ::OpenProcess(PROCESS_SET_QUOTA | PROCESS_TERMINATE, FALSE,
                                 static_cast<DWORD>(process.processId()));
    if (!child || !::AssignProcessToJobObject(job, child)) {
        if (child)
            ::CloseHandle(child);
        ::CloseHandle(job);
        m_pid = process.processId();
        return;
    }
    ::CloseHandle(child);
    m_job = job;
    m_pid = process.processId();
}

void ProcessTree::kill()
{
    if (m_job) {
        ::TerminateJobObject(static_cast<HANDLE>(m_job), 1);
    } else if (m_pid > 0) {
        HANDLE child = ::OpenProcess(PROCESS_TERMINATE, FALSE, static_cast<DWORD>(m_pid));
        if (child) {
            ::TerminateProcess(child, 1);
            ::CloseHandle(child);
        }
    }
}

void set_shell_command(QProcess &process, const QString &command, const QStringList &arguments)
{
    // cmd.exe reads its command line as it stands: no QProcess quoting of
    // the command itself, the arguments quoted after it.
    QString line = QStringLiteral("/d /s /c \"") + command;
    for (const QString &argument : arguments)
        line += QStringLiteral(" \"") + QString(argument).replace(QLatin1Char('"'), QStringLiteral("\"\"")) + QLatin1Char('"');
    line += QLatin1Char('"');
    process.setProgram(QStringLiteral("cmd.exe"));
    process.setArguments({});
    process.setNativeArguments(line);
}

} // namespace corv_system
