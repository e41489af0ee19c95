#pragma once

// What the system plugin's test asks of the system it runs on about
// processes: whether one still runs, this one's memory, and how a command
// line for the system's shell hands on the arguments the node appends.

#include <QString>

// Whether the process still runs (not one that ended and waits to be reaped).
bool process_alive(qint64 pid);

// This process's resident memory (its working set on Windows), in KiB.
qint64 resident_kib();

// A command for "Run through the shell" that runs program with its
// arguments first, then the node's own: sh gets those as "$@", cmd.exe
// finds them appended.
QString shell_command(const QString &program, const QString &arguments);
