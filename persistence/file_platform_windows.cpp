#include "persistence/file_platform.h"

#include <QDir>
#include <QFile>

#include <io.h>
#include <windows.h>

namespace corv::engine::file_platform {

namespace {

bool fail(QString *error)
{
    if (error) {
        wchar_t *text = nullptr;
        FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                           FORMAT_MESSAGE_IGNORE_INSERTS,
                       nullptr, GetLastError(), 0, reinterpret_cast<wchar_t *>(&text), 0, nullptr);
        *error = text ? QString::fromWCharArray(text).trimmed() : QString();
        LocalFree(text);
    }
    return false;
}

std::wstring native(const QString &path)
{
    return QDir::toNativeSeparators(path).toStdWString();
}

} // namespace

bool flush_to_disk(QFileDevice &file, QString *error)
{
    const auto handle = reinterpret_cast<HANDLE>(_get_osfhandle(file.handle()));
    if (!FlushFileBuffers(handle))
        return fail(error);
    return true;
}

bool replace(const QString &from, const QString &to, QString *error)
{
    // A rename, on Windows as under Wine (ReplaceFileW is not one there).
    // Another program that has the old file open for a moment (a virus
    // scanner, the search indexer, a backup tool) makes the rename fail
    // with a sharing error: try again for about a second before giving up.
    const std::wstring source = native(from);
    const std::wstring target = native(to);
    for (int attempt = 0;; ++attempt) {
        if (MoveFileExW(source.c_str(), target.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH))
            return true;
        const DWORD code = GetLastError();
        const bool busy = code == ERROR_SHARING_VIOLATION || code == ERROR_LOCK_VIOLATION ||
                          code == ERROR_ACCESS_DENIED;
        if (!busy || attempt >= 20)
            return fail(error);
        Sleep(50);
    }
}

bool keep_as(const QString &path, const QString &backup, QString *error)
{
    const std::wstring from = native(path);
    const std::wstring to = native(backup);
    // Something at the name that the backup listing passed over: a rename
    // would replace a file there, and so does this. A folder stays, and the
    // link below then fails with the system's reason.
    const DWORD attributes = GetFileAttributesW(to.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY) &&
        !DeleteFileW(to.c_str()))
        return fail(error);
    if (CreateHardLinkW(to.c_str(), from.c_str(), nullptr))
        return true;
    if (GetLastError() == ERROR_ALREADY_EXISTS)
        return fail(error);
    if (!CopyFileW(from.c_str(), to.c_str(), TRUE))
        return fail(error);
    return true;
}

Qt::CaseSensitivity file_name_case()
{
    return Qt::CaseInsensitive;
}

bool open_new_like(QFile &file, const QString &, QString *error)
{
    // A new file inherits the ACL of its folder, as the old file did when
    // it was made; nothing to copy.
    if (file.open(QIODevice::WriteOnly | QIODevice::NewOnly | QIODevice::Unbuffered))
        return true;
    if (error)
        *error = file.errorString();
    return false;
}

void make_size_limit_an_error()
{
    // No file size signal on Windows: a write past a quota already fails.
}

} // namespace corv::engine::file_platform
