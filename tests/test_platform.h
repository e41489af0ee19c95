#pragma once

// What tests of several folders need from the system they run on.

#include <optional>

class QProcess;
class QString;

namespace corv::test {

// Asks a program started by a test to stop, the way the system asks.
// Unix: sends the signal (SIGTERM, SIGINT, ...). Windows has no signals to
// send to another program: there every request is QProcess::terminate()'s
// WM_CLOSE, which the program treats as SIGTERM. False when nothing was sent.
bool ask_to_stop(QProcess &process, int unix_signal);

// Whether a library at path, or in the folder path, is loaded into this
// process.
bool library_is_loaded(const QString &path);

// Renames from over an existing to in one step, as editors save: rename()
// on Unix, MoveFileEx(MOVEFILE_REPLACE_EXISTING) on Windows.
bool rename_over(const QString &from, const QString &to);

// Whether this Windows program runs under Wine, which differs from Windows
// in a few documented behaviours (a missing import is given a stub instead
// of failing the load); never on Unix.
bool running_under_wine();

// For a test that needs a desktop of its own: on Unix, unless it already
// runs there (CORV_XVFB set), runs this test program again on a private
// session bus (dbus-run-session) and a private X server (xvfb_run, the
// tests' xvfb-run script) on the xcb platform, and gives its exit code.
// Nothing on Windows, whose tests run on the offscreen platform.
std::optional<int> rerun_on_private_desktop(int argc, char **argv, const char *xvfb_run);

} // namespace corv::test
