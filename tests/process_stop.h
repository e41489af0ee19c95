#pragma once

// Asking a program started by a test to stop, the way the system asks.

class QProcess;

namespace corv::test {

// Unix: sends the signal (SIGTERM, SIGINT, ...). Windows has no signals to
// send to another program: there every request is QProcess::terminate()'s
// WM_CLOSE, which the program treats as SIGTERM. False when nothing was sent.
bool ask_to_stop(QProcess &process, int unix_signal);

} // namespace corv::test
