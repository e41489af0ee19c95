#include "persistence/file_platform.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace corv::engine::file_platform {

namespace {

bool fail(QString *error)
{
    if (error)
        *error = QString::fromLocal8Bit(std::strerror(errno));
    return false;
}

// Makes a rename or link in the folder of path survive a power loss too.
void flush_folder_of(const QString &path)
{
    const int fd = ::open(QFile::encodeName(QFileInfo(path).absolutePath()).constData(),
                          O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return;
    ::fsync(fd);
    ::close(fd);
}

} // namespace

bool flush_to_disk(QFileDevice &file, QString *error)
{
    if (::fsync(file.handle()) != 0)
        return fail(error);
    return true;
}

bool replace(const QString &from, const QString &to, QString *error)
{
    if (std::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) != 0)
        return fail(error);
    flush_folder_of(to);
    return true;
}

bool keep_as(const QString &path, const QString &backup, QString *error)
{
    if (::link(QFile::encodeName(path).constData(), QFile::encodeName(backup).constData()) == 0) {
        flush_folder_of(backup);
        return true;
    }
    // File systems without hard links get a copy, written out in full first.
    if (errno == EEXIST)
        return fail(error);
    QFile source(path);
    if (!QFile::copy(path, backup)) {
        if (error)
            *error = source.errorString().isEmpty() ? QFile(backup).errorString() : source.errorString();
        return false;
    }
    QFile copy(backup);
    if (copy.open(QIODevice::ReadWrite))
        ::fsync(copy.handle());
    return true;
}

Qt::CaseSensitivity file_name_case()
{
    return Qt::CaseSensitive;
}

} // namespace corv::engine::file_platform
