#pragma once

#include "update/manifest.h"

#include <QString>

// Carrying out the extract and run steps of an install method; shared by the
// update host and the plugin installer. Downloads are made beforehand (see
// Fetch) into a work folder, and every one is checked before any step here
// changes an install folder.
namespace corv::update {

// Unpacks `archive` (a tar file, compressed or not, as `tar` reads it) into
// a fresh folder below `work_folder`, then moves its regular files and
// folders into `destination`, replacing files of the same name. Links and
// other special entries are refused. False with a reason in *error.
bool extract_archive(const QString &archive, const QString &destination, const QString &work_folder,
                     QString *error);

// Runs a command line of a run step and waits for it (at most
// `timeout_ms`). The program is looked for in `work_folder`, then in
// `base_path`, then on the PATH; it runs in `base_path`. A non-zero exit
// code is a failure.
bool run_command(const QString &command, const QString &work_folder, const QString &base_path,
                 int timeout_ms, QString *error);

// Copies every file below `source` into `destination`, keeping permissions.
bool move_tree(const QString &source, const QString &destination, QString *error);

} // namespace corv::update
