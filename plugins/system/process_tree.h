#pragma once

// A started program and everything it starts in turn, ended together: on
// Unix the program leads a process group of its own, on Windows it is put in
// a job object. Also how a command line goes through the system's shell.

#include <QProcess>
#include <QString>
#include <QStringList>

namespace corv_system {

class ProcessTree
{
public:
    ProcessTree() = default;
    ~ProcessTree();
    ProcessTree(const ProcessTree &) = delete;
    ProcessTree &operator=(const ProcessTree &) = delete;

    // Before start: arranges for the program to head a tree of its own.
    void prepare(QProcess &process);
    // Once started: takes the program's tree in hand.
    void adopt(QProcess &process);
    // Ends the program and every process of its tree at once; nothing when
    // it was never adopted.
    void kill();
    // The same for a program whose start may not have been reported yet (a
    // rack stopped at once): its tree is taken in hand first, or its
    // programs would live on.
    void kill(QProcess &process)
    {
        if (m_pid <= 0 && process.state() != QProcess::NotRunning)
            adopt(process);
        kill();
    }

private:
    qint64 m_pid = 0;
    void *m_job = nullptr;
    void *m_started = nullptr; // Windows: what starting the program gave back
};

// Sets the program and arguments that run `command` through the system's
// shell (/bin/sh -c, cmd.exe /c), with `arguments` after it: as "$1", "$2"...
// for sh, appended quoted for cmd.
void set_shell_command(QProcess &process, const QString &command, const QStringList &arguments);

} // namespace corv_system
