#include "app/control_platform.h"

#include <QCryptographicHash>
#include <QDir>
#include <QLocalSocket>

#include <windows.h>
#include <lmcons.h>

#include <memory>
#include <vector>

namespace corv::control::platform {

namespace {

// The user SID of a process's token, as bytes; empty when unreadable.
std::vector<unsigned char> token_user(HANDLE process)
{
    HANDLE token = nullptr;
    if (!OpenProcessToken(process, TOKEN_QUERY, &token))
        return {};
    DWORD size = 0;
    GetTokenInformation(token, TokenUser, nullptr, 0, &size);
    std::vector<unsigned char> buffer(size);
    std::vector<unsigned char> sid;
    if (size && GetTokenInformation(token, TokenUser, buffer.data(), size, &size)) {
        const PSID user = reinterpret_cast<TOKEN_USER *>(buffer.data())->User.Sid;
        const auto *bytes = static_cast<const unsigned char *>(user);
        sid.assign(bytes, bytes + GetLengthSid(user));
    }
    CloseHandle(token);
    return sid;
}

} // namespace

QString user_name()
{
    wchar_t name[UNLEN + 1] = {};
    DWORD size = UNLEN + 1;
    if (GetUserNameW(name, &size) && size > 1)
        return QString::fromWCharArray(name, int(size - 1));
    return QStringLiteral("user");
}

QStringList socket_names()
{
    // A pipe has a name only; the server gives it a DACL for this user.
    QString name = QStringLiteral("corvane-") + user_name();
    const QString test_folder = qEnvironmentVariable(kTestFolderVariable);
    if (!test_folder.isEmpty())
        name += u'-' + QString::fromLatin1(
                           QCryptographicHash::hash(test_folder.toUtf8(), QCryptographicHash::Sha1).toHex().left(12));
    return {name};
}

QString listen_lock_file()
{
    // The user's own temporary folder (%TEMP% lies in the profile).
    return QDir::temp().filePath(socket_names().first() + QLatin1StringView(".lock"));
}

QLocalServer::SocketOptions server_options()
{
    return QLocalServer::UserAccessOption;
}

bool peer_is_same_user(QLocalSocket &socket)
{
    // Qt creates pipes without FILE_FLAG_FIRST_PIPE_INSTANCE, so another
    // account's server could hold the name: ask the pipe whose it is.
    const auto pipe = reinterpret_cast<HANDLE>(socket.socketDescriptor());
    ULONG pid = 0;
    if (!GetNamedPipeServerProcessId(pipe, &pid))
        return false;
    HANDLE server = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid);
    if (!server)
        return false;
    const std::vector<unsigned char> theirs = token_user(server);
    CloseHandle(server);
    const std::vector<unsigned char> ours = token_user(GetCurrentProcess());
    return !ours.empty() && theirs == ours;
}

} // namespace corv::control::platform
