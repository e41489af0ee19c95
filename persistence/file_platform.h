#pragma once

#include <QString>
#include <Qt>

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
// Fails when backup exists.
bool keep_as(const QString &path, const QString &backup, QString *error);

// How the platform's file systems compare file names: Windows ignores
// case ("Show.CORV" is "show.corv"), Unix does not.
Qt::CaseSensitivity file_name_case();

} // namespace corv::engine::file_platform
