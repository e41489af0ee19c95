#include "process_tree.h"

#include <windows.h>

namespace corv_system {

namespace {

// The exit code QProcess::kill() ends a program with, which QProcess then
// reports as a crash: an ended tree looks the same to the node.
constexpr UINT kKilledExitCode = 0xf291;

// An argument as a program's C runtime reads it back from its command line
// (in quotes; a quote as \", the backslashes before it doubled), then with
// every character cmd.exe would act on escaped by ^, so that cmd.exe sees no
// quote of it and hands it on as it stands (an & or | in it starts nothing).
// A %NAME% in it is still expanded: cmd.exe has no escape for that on its
// command line.
QString cmd_argument(const QString &argument)
{
    QString quoted = QStringLiteral("\"");
    qsizetype backslashes = 0;
    for (const QChar c : argument) {
        if (c == QLatin1Char('\\')) {
            ++backslashes;
            continue;
        }
        quoted += QString(c == QLatin1Char('"') ? backslashes * 2 + 1 : backslashes, QLatin1Char('\\'));
        backslashes = 0;
        quoted += c;
    }
    quoted += QString(backslashes * 2, QLatin1Char('\\')) + QLatin1Char('"');
    QString escaped;
    for (const QChar c : quoted) {
        if (QStringView(u"()%!^\"<>&|").contains(c))
            escaped += QLatin1Char('^');
        escaped += c;
    }
    return escaped;
}

} // namespace

ProcessTree::~ProcessTree()
{
    if (m_job)
        ::CloseHandle(static_cast<HANDLE>(m_job));
}

void ProcessTree::prepare(QProcess &process)
{
    // Started suspended, so that nothing it starts can come before the job
    // and escape it; adopt() lets it run. QProcess keeps the handles it
    // fills in until the program ended.
    process.setCreateProcessArgumentsModifier([this](QProcess::CreateProcessArguments *arguments) {
        arguments->flags |= CREATE_SUSPENDED;
        m_started = arguments->processInformation;
    });
}

void ProcessTree::adopt(QProcess &process)
{
    m_pid = process.processId();
    const auto *started = static_cast<const PROCESS_INFORMATION *>(m_started);
    if (!started)
        return;
    // A job that ends its processes when its last handle closes, so that a
    // crash of the program takes the tree along too.
    HANDLE job = ::CreateJobObjectW(nullptr, nullptr);
    if (job) {
        JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits = {};
        limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
        ::SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits, sizeof limits);
        if (::AssignProcessToJobObject(job, started->hProcess))
            m_job = job;
        else
            ::CloseHandle(job);
    }
    ::ResumeThread(started->hThread);
    m_started = nullptr;
}

void ProcessTree::kill()
{
    if (m_job) {
        ::TerminateJobObject(static_cast<HANDLE>(m_job), kKilledExitCode);
    } else if (m_pid > 0) {
        HANDLE child = ::OpenProcess(PROCESS_TERMINATE, FALSE, static_cast<DWORD>(m_pid));
        if (child) {
            ::TerminateProcess(child, kKilledExitCode);
            ::CloseHandle(child);
        }
    }
}

void set_shell_command(QProcess &process, const QString &command, const QStringList &arguments)
{
    // cmd.exe reads its command line as it stands: no QProcess quoting of
    // the command itself, the arguments after it each a word of their own.
    QString line = QStringLiteral("/d /s /c \"") + command;
    for (const QString &argument : arguments)
        line += QLatin1Char(' ') + cmd_argument(argument);
    line += QLatin1Char('"');
    process.setProgram(QStringLiteral("cmd.exe"));
    process.setArguments({});
    process.setNativeArguments(line);
}

} // namespace corv_system
