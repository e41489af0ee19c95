#include "persistence/file_platform.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
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

// Copies from into a new file at to, down to the disk; on failure the
// partial copy goes and errno tells why.
bool copy_file(const QByteArray &from, const QByteArray &to)
{
    const int in = ::open(from.constData(), O_RDONLY | O_CLOEXEC);
    if (in < 0)
        return false;
    struct stat info {};
    const int out = ::fstat(in, &info) == 0
        ? ::open(to.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, info.st_mode & 0777)
        : -1;
    bool ok = out >= 0;
    char buffer[65536];
    while (ok) {
        const ssize_t got = ::read(in, buffer, sizeof buffer);
        if (got == 0)
            break;
        if (got < 0) {
            ok = errno == EINTR;
            continue;
        }
        for (ssize_t done = 0; ok && done < got;) {
            const ssize_t put = ::write(out, buffer + done, std::size_t(got - done));
            if (put > 0)
                done += put;
            else
                ok = put < 0 && errno == EINTR;
        }
    }
    ok = ok && ::fsync(out) == 0;
    const int saved_errno = errno;
    if (out >= 0 && ::close(out) != 0 && ok)
        ok = false;
    ::close(in);
    if (!ok) {
        if (out >= 0)
            ::unlink(to.constData());
        errno = saved_errno;
    }
    return ok;
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
    const QByteArray from = QFile::encodeName(path);
    const QByteArray to = QFile::encodeName(backup);
    // Something at the name that the backup listing passed over: a rename
    // would replace a file there, and so does this. A folder stays, and the
    // link below then fails with the system's reason.
    struct stat info {};
    if (::lstat(to.constData(), &info) == 0 && !S_ISDIR(info.st_mode) && ::unlink(to.constData()) != 0)
        return fail(error);
    if (::link(from.constData(), to.constData()) == 0) {
        flush_folder_of(backup);
        return true;
    }
    if (errno == EEXIST)
        return fail(error);
    // File systems without hard links (or a file that refuses them) get a
    // copy, written out in full first.
    if (!copy_file(from, to))
        return fail(error);
    flush_folder_of(backup);
    return true;
}

Qt::CaseSensitivity file_name_case()
{
    return Qt::CaseSensitive;
}

bool open_new_like(QFile &file, const QString &like, QString *error)
{
    struct stat old {};
    const bool replacing = ::stat(QFile::encodeName(like).constData(), &old) == 0 && S_ISREG(old.st_mode);
    const QByteArray name = QFile::encodeName(file.fileName());
    const int fd = ::open(name.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, replacing ? 0600 : 0666);
    if (fd < 0)
        return fail(error);
    const auto give_up = [&] {
        const int saved_errno = errno;
        ::close(fd);
        ::unlink(name.constData());
        errno = saved_errno;
        return fail(error);
    };
    if (replacing) {
        // The owner first: a change of owner clears set-id bits. Only root
        // may give a file away; a group of one's own is allowed to anyone in it.
        if (::fchown(fd, old.st_uid, old.st_gid) != 0 && ::fchown(fd, uid_t(-1), old.st_gid) != 0) {
            // Neither: the new file stays the saver's, with the old mode below.
        }
        const mode_t wanted = old.st_mode & 07777;
        if (::fchmod(fd, wanted) != 0) {
            struct stat now {};
            // A file system that keeps no modes, or none wider, is fine.
            if (::fstat(fd, &now) != 0 || (now.st_mode & 07777 & ~wanted) != 0)
                return give_up();
        }
    }
    if (!file.open(fd, QIODevice::WriteOnly | QIODevice::Unbuffered, QFileDevice::AutoCloseHandle)) {
        errno = EBADF;
        return give_up();
    }
    return true;
}

void make_size_limit_an_error()
{
    std::signal(SIGXFSZ, SIG_IGN);
}

} // namespace corv::engine::file_platform
