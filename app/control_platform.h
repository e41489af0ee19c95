#pragma once

#include <QLocalServer>
#include <QString>
#include <QStringList>

class QLocalSocket;

// Where a user's control socket lives and who may use it: the parts of
// app/control that differ between systems. Nothing here reads the user's
// name or folders from the environment, so a command line started by cron,
// by a service or with a stripped environment finds the same instance.
namespace corv::control::platform {

// Folder of the control socket for tests only: set, it replaces the folders
// below (on Windows it gives the pipe name a suffix of its own), so that tests
// running at the same time never reach each other's instances. Must be a
// folder only this user can open.
inline constexpr char kTestFolderVariable[] = "CORV_TEST_CONTROL_DIR";

// The account the process runs as: the real user id's account on unix, the
// one GetUserNameW names on Windows; its number or "user" when the system
// names none.
QString user_name();

// The addresses of the control socket, best first; a server listens on the
// first, a client tries each. On unix full paths "<folder>/corvane-<user>",
// the folder /run/user/<uid> when it exists and is the user's own and
// private, then /tmp/corvane-<uid> (made with mode 0700 when missing). A
// folder of someone else's or open to others is passed over with a warning.
// On Windows the one pipe name "corvane-<user>". Empty when there is no
// private place at all.
QStringList socket_names();

// Taken around "is anybody listening? then listen" so that two instances
// starting at once don't both listen: a lock file only this user can reach.
QString listen_lock_file();

// The options a listening server needs: a pipe only this user can open on
// Windows; nothing on unix, where the folder keeps others out (and where
// Qt's user-only option would bind elsewhere and rename over a live socket).
QLocalServer::SocketOptions server_options();

// Whether the process at the other end of a connected socket runs as this
// user (SO_PEERCRED on unix; the pipe server's process token on Windows).
bool peer_is_same_user(QLocalSocket &socket);

} // namespace corv::control::platform
