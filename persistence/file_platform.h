#pragma once

#include <QString>
#include <Qt>

class QFile;
class QFileDevice;

// The few file operations whose system calls differ between platforms, for
// saving files so that a crash at any moment leaves either the old or the
// new file in place.
namespace corv::engine::file_platform {

// Pushes what was written to file down to the disk (fsync; FlushFileBuffers
// on Windows). The file must be open and flushed. False with the system's
// reason in error.
bool flush_to_disk(QFileDevice &file, QString *error);

// Puts the file at from in place of the file at to in one step: a reader
// sees either the old or the new file, never none. to need not exist.
bool replace(const QString &from, const QString &to, QString *error);

// Makes backup hold what path holds while path stays in place: a second
// name for the same file where the file system has them, a copy otherwise.
// A file already at backup is replaced, as a rename onto it would be; a
// folder there is not. On failure error holds the system's reason.
bool keep_as(const QString &path, const QString &backup, QString *error);

// How the platform's file systems compare file names: Windows ignores
// case ("Show.CORV" is "show.corv"), Unix does not.
Qt::CaseSensitivity file_name_case();

// Creates the file named by file (which must not exist) and opens it for
// writing, unbuffered (so a failed write reports its reason at once), letting the same people at it as the file at like does: on unix
// made 0600 and then given like's permission bits and, where the system
// allows, its owner and group, so a private project is never readable by
// others, not even for a moment as the temporary file; without a file at
// like, what the umask gives. On Windows a new file inherits the ACL of its
// folder, as the old one did. Fails with the system's reason in error, also
// when the new file would end up open to more people than the old one.
bool open_new_like(QFile &file, const QString &like, QString *error);

// Makes a write past the process's file size limit (ulimit -f) fail with an
// error that the save reports (EFBIG) rather than end the process (SIGXFSZ
// on unix; Windows has no such signal). Process-wide; harmless to repeat.
void make_size_limit_an_error();

} // namespace corv::engine::file_platform
