#include "app/control_platform.h"

#include <QFile>
#include <QLocalSocket>

#include <cerrno>
#include <cstring>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

namespace corv::control::platform {

namespace {

// Whether path is a folder (not a link to one) of this user's that nobody
// else may enter; the reason when not.
bool is_private_folder(const QString &path, QString *why)
{
    struct stat info {};
    if (::lstat(QFile::encodeName(path).constData(), &info) != 0) {
        *why = QString::fromLocal8Bit(std::strerror(errno));
        return false;
    }
    if (!S_ISDIR(info.st_mode))
        *why = QStringLiteral("not a folder");
    else if (info.st_uid != ::getuid())
        *why = QStringLiteral("owned by user id %1").arg(info.st_uid);
    else if ((info.st_mode & 077) != 0)
        *why = QStringLiteral("mode %1 lets others in").arg(info.st_mode & 07777, 4, 8, QLatin1Char('0'));
    else
        return true;
    return false;
}

// The folders to use, best first, each checked.
QStringList private_folders()
{
    const uid_t uid = ::getuid();
    QStringList candidates;
    const QString test_folder = qEnvironmentVariable(kTestFolderVariable);
    if (!test_folder.isEmpty()) {
        candidates << test_folder;
    } else {
        const QString runtime = QStringLiteral("/run/user/%1").arg(uid);
        if (QFile::exists(runtime))
            candidates << runtime;
        const QString shared = QStringLiteral("/tmp/corvane-%1").arg(uid);
        // Made private from the start; an existing one is checked below.
        if (::mkdir(QFile::encodeName(shared).constData(), 0700) != 0 && errno != EEXIST)
            qWarning("Can't make %s for the control socket: %s", qUtf8Printable(shared), std::strerror(errno));
        candidates << shared;
    }
    QStringList folders;
    for (const QString &folder : candidates) {
        QString why;
        if (is_private_folder(folder, &why))
            folders << folder;
        else
            qWarning("Not using %s for the control socket: %s", qUtf8Printable(folder), qUtf8Printable(why));
    }
    return folders;
}

} // namespace

QString user_name()
{
    const uid_t uid = ::getuid();
    long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? std::size_t(size) : 16384);
    struct passwd entry {};
    struct passwd *found = nullptr;
    while (::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) == ERANGE && buffer.size() < (1u << 20))
        buffer.resize(buffer.size() * 2);
    if (found && found->pw_name && *found->pw_name)
        return QString::fromLocal8Bit(found->pw_name);
    // An account without a name (a container's user, say): its number.
    return QString::number(uid);
}

QStringList socket_names()
{
    const QString name = QStringLiteral("corvane-") + user_name();
    QStringList names;
    for (const QString &folder : private_folders())
        names << folder + u'/' + name;
    return names;
}

QString listen_lock_file()
{
    const QStringList names = socket_names();
    return names.isEmpty() ? QString() : names.first() + QLatin1StringView(".lock");
}

QLocalServer::SocketOptions server_options()
{
    return QLocalServer::NoOptions;
}

bool peer_is_same_user(QLocalSocket &socket)
{
    struct ucred credentials {};
    socklen_t size = sizeof credentials;
    if (::getsockopt(int(socket.socketDescriptor()), SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0)
        return false;
    return credentials.uid == ::getuid();
}

} // namespace corv::control::platform
