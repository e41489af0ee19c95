#pragma once

#include "update/dependency_graph.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QUrl>

#include <memory>

class QLocalServer;
class QSettings;

namespace corv::update {

struct HandOffRequest {
    // The update host program to copy (normally beside the executable).
    QString host_program;
    // The application: its install folder, its manifest's address, and the
    // program to start again when done, with its display name.
    QString base_path;
    QUrl base_url;
    QString return_to;
    QString return_to_name;
    QByteArray user_agent;
    QList<DependencyGraph::Install> installs;
    // Where the "corvupdate." folder is made; the system's temporary folder
    // when empty.
    QString temporary_root;
};

// What a successful hand-off leaves running: the host waits until this
// object is destroyed (normally when the program exits) before it changes
// any installed file.
struct HandOff {
    HandOff();
    ~HandOff();
    HandOff(HandOff &&) noexcept;
    HandOff &operator=(HandOff &&) noexcept;

    QString folder;
    QString manifest_file;
    std::unique_ptr<QLocalServer> running;
};

// Writes "update.json" into a new temporary folder named "corvupdate.*",
// copies the update host there and starts it. The folder is recorded in
// `settings` so that clean_up_after_update() removes it at the next start.
// Every step is logged ("updater: ..."); null on failure.
std::unique_ptr<HandOff> hand_off(const HandOffRequest &request, QSettings &settings);

// The document hand_off() writes, for tests and tools.
QByteArray update_description(const HandOffRequest &request, const QString &folder,
                              const QString &server_name);

// At start-up: deletes the files and folders recorded by an earlier
// hand-off ("updater: cleaned up %s"); those that cannot be deleted yet stay
// recorded for the next start. When the update did not install, its
// "updatehost.log" is first copied into `keep_logs_in` (when given) and a
// warning says so; the copy's path is returned (empty when all went well).
QString clean_up_after_update(QSettings &settings, const QString &keep_logs_in = {});

} // namespace corv::update
