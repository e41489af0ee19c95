#pragma once

#include "update/manifest.h"

#include <QList>
#include <QString>

// Carrying out the extract and run steps of an install method; shared by the
// update host and the plugin installer. Downloads are made beforehand (see
// Fetch) into a work folder, archives are unpacked into staging folders
// there (see unpack_archive), and every one is checked before any step here
// changes an install folder.
namespace corv::update {

// The update host leaves this file beside its "updatehost.log" when an
// update did not install.
inline constexpr char kUpdateFailedMarker[] = "updatehost.failed";

// The program of a run step's command line: looked for in `work_folder`,
// then in `base_path`, then on the PATH. Empty when none is found.
QString find_program(const QString &command, const QString &work_folder, const QString &base_path);

// Runs a command line of a run step and waits for it (at most
// `timeout_ms`); it runs in `base_path`. A non-zero exit code is a failure.
bool run_command(const QString &command, const QString &work_folder, const QString &base_path,
                 int timeout_ms, QString *error);

// Changes to install folders that can be taken back: every file moved in
// replaces the old one only after the old one was moved aside into
// `backup_folder`, and roll_back() restores each, newest first.
class FileTransaction {
public:
    explicit FileTransaction(const QString &backup_folder);
    FileTransaction(const FileTransaction &) = delete;
    FileTransaction &operator=(const FileTransaction &) = delete;

    // Moves every file below `source` into the same place below
    // `destination`, making the folders on the way.
    bool move_in(const QString &source, const QString &destination, QString *error);
    // Restores what was there before; true when all of it came back.
    bool roll_back(QString *error);

private:
    struct Change {
        QString target;
        QString backup; // where the old file went; empty when there was none
        bool folder = false;
    };
    QString m_backup_folder;
    QList<Change> m_changes;
    int m_backups = 0;
};

} // namespace corv::update
