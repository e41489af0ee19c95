#pragma once

#include "update/manifest.h"

#include <QByteArrayView>
#include <QString>
#include <QtGlobal>

#include <atomic>
#include <functional>

class QIODevice;

// Reading tar archives (plain or gzip-compressed) in-process, so that
// packages unpack the same way where no `tar` program exists. Only regular
// files and folders are taken out: links, devices and pipes are refused, as
// are paths that leave the destination. Owners and modes in the archive are
// ignored: files are written 0644, or 0755 when the archive marks them
// executable for anyone; folders are 0755.
namespace corv::update {

struct ArchiveLimits {
    // The sum of the sizes of all files (as large as a package may be).
    qint64 max_unpacked = kMaxPackageSize;
    // Headers of every kind, folders and files.
    int max_entries = 20000;
};

struct ArchiveEntry {
    enum Kind { File, Folder };
    Kind kind = File;
    QString path; // relative, "/"-separated, without "./"
    qint64 size = 0;
    bool executable = false;
};

// Walks the archive on `source`: on_entry for each file and folder, then
// on_data for each piece of a file's content (nothing for an empty file). A
// callback returning false stops the walk; it sets *error itself. False with
// the reason in *error when the archive is damaged, refused or past a limit,
// or when *cancel turns true.
bool read_archive(QIODevice &source, const ArchiveLimits &limits,
                  const std::function<bool(const ArchiveEntry &)> &on_entry,
                  const std::function<bool(QByteArrayView)> &on_data, QString *error,
                  const std::atomic_bool *cancel = nullptr);

// Unpacks the archive file into `folder` (created when missing), with the
// modes described above. On failure *error says why and what was written so
// far stays in `folder` for the caller to remove.
bool unpack_archive(const QString &archive, const QString &folder, const ArchiveLimits &limits,
                    QString *error, const std::atomic_bool *cancel = nullptr);

} // namespace corv::update
