#include "update/hand_off.h"

#include "update/install_steps.h"
#include "update/logging.h"
#include "update/platform.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalServer>
#include <QLocalSocket>
#include <QProcess>
#include <QSaveFile>
#include <QSettings>
#include <QTemporaryDir>
#include <QUuid>

namespace corv::update {

namespace {
const QString kCleanupKey = QStringLiteral("Updates/CleanupFiles");
}

HandOff::HandOff() = default;
HandOff::~HandOff() = default;
HandOff::HandOff(HandOff &&) noexcept = default;
HandOff &HandOff::operator=(HandOff &&) noexcept = default;

QByteArray update_description(const HandOffRequest &request, const QString &folder,
                              const QString &server_name)
{
    QJsonArray steps;
    QJsonArray components;
    for (const DependencyGraph::Install &install : request.installs) {
        const Component &component = install.update.component;
        const QUrl base_url = component.manifest_url.adjusted(QUrl::RemoveFragment);
        for (const Step &step : install.entry.methods.value(component.method())) {
            QJsonObject object = step.to_json();
            object[QLatin1StringView("component")] = component.id;
            steps.append(object);
        }
        components.append(QJsonObject{
            {QStringLiteral("id"), component.id},
            {QStringLiteral("name"), component.name},
            {QStringLiteral("fromVersion"), component.current.toString()},
            {QStringLiteral("version"), install.entry.version_text},
            {QStringLiteral("method"), component.method()},
            {QStringLiteral("baseUrl"), base_url.toString()},
            {QStringLiteral("basePath"), component.base_path},
        });
    }
    const QJsonObject root{
        {QStringLiteral("formatVersion"), 1},
        {QStringLiteral("baseUrl"), request.base_url.adjusted(QUrl::RemoveFragment).toString()},
        {QStringLiteral("basePath"), request.base_path},
        {QStringLiteral("steps"), steps},
        {QStringLiteral("components"), components},
        {QStringLiteral("returnTo"), request.return_to},
        {QStringLiteral("returnToName"), request.return_to_name},
        {QStringLiteral("cleanupFiles"), QJsonArray{folder}},
        {QStringLiteral("userAgent"), QString::fromUtf8(request.user_agent)},
        {QStringLiteral("waitFor"), server_name},
    };
    return QJsonDocument(root).toJson(QJsonDocument::Indented);
}

std::unique_ptr<HandOff> hand_off(const HandOffRequest &request, QSettings &settings)
{
    const QString root =
        request.temporary_root.isEmpty() ? QDir::tempPath() : request.temporary_root;
    QTemporaryDir temporary(QDir(root).filePath(QStringLiteral("corvupdate.XXXXXX")));
    if (!temporary.isValid()) {
        qCWarning(lc_update).noquote() << QStringLiteral("updater: failed to create %1: %2")
                                              .arg(temporary.path(), temporary.errorString());
        return nullptr;
    }
    temporary.setAutoRemove(false);
    auto result = std::make_unique<HandOff>();
    result->folder = temporary.path();

    // Recorded first, so that even a hand-off that fails half-way is cleaned up.
    QStringList cleanup = settings.value(kCleanupKey).toStringList();
    cleanup.append(result->folder);
    settings.setValue(kCleanupKey, cleanup);
    settings.sync();

    // The host waits for this server to go away, that is for the program to end.
    result->running = std::make_unique<QLocalServer>();
    const QString server_name =
        QStringLiteral("corvupdate-") + QUuid::createUuid().toString(QUuid::Id128);
    result->running->setSocketOptions(QLocalServer::UserAccessOption);
    if (!result->running->listen(server_name)) {
        qCWarning(lc_update).noquote() << QStringLiteral("updater: failed to create %1: %2")
                                              .arg(server_name, result->running->errorString());
        return nullptr;
    }
    // Connections stay open (owned by the server) until the program ends.
    QLocalServer *server = result->running.get();
    QObject::connect(server, &QLocalServer::newConnection, server, [server] {
        while (QLocalSocket *socket = server->nextPendingConnection())
            socket->setParent(server);
    });

    result->manifest_file = QDir(result->folder).filePath(QStringLiteral("update.json"));
    QSaveFile manifest(result->manifest_file);
    if (!manifest.open(QIODevice::WriteOnly) ||
        manifest.write(update_description(request, result->folder, server_name)) < 0 ||
        !manifest.commit()) {
        qCWarning(lc_update).noquote()
            << QStringLiteral("updater: failed to create manifest file: %1")
                   .arg(manifest.errorString());
        return nullptr;
    }
    qCInfo(lc_update).noquote()
        << QStringLiteral("updater: written manifest to %1").arg(result->manifest_file);

    const QString host = QDir(result->folder).filePath(platform::update_host_file_name());
    QFile source(request.host_program);
    if (!source.copy(host)) {
        qCWarning(lc_update).noquote()
            << QStringLiteral("updater: failed to copy %1 to %2: %3")
                   .arg(request.host_program, host, source.errorString());
        return nullptr;
    }
    qCInfo(lc_update).noquote()
        << QStringLiteral("updater: copied %1 to %2").arg(request.host_program, host);
    // What the host needs beside it to run there.
    const QDir program_folder = QFileInfo(request.host_program).absoluteDir();
    for (const QString &companion : platform::update_host_companions()) {
        const QString from = program_folder.filePath(companion);
        if (!QFileInfo::exists(from))
            continue;
        const QString to = QDir(result->folder).filePath(companion);
        QDir().mkpath(QFileInfo(to).absolutePath());
        if (!QFile::copy(from, to)) {
            qCWarning(lc_update).noquote()
                << QStringLiteral("updater: failed to copy %1 to %2: %3")
                       .arg(from, to, QStringLiteral("could not write"));
            return nullptr;
        }
        qCInfo(lc_update).noquote() << QStringLiteral("updater: copied %1 to %2").arg(from, to);
    }

    QProcess process;
    process.setProgram(host);
    process.setArguments({result->manifest_file});
    process.setWorkingDirectory(result->folder);
    if (!process.startDetached()) {
        qCWarning(lc_update).noquote()
            << QStringLiteral("updater: failed to start %1: %2").arg(host, process.errorString());
        return nullptr;
    }
    qCInfo(lc_update).noquote() << QStringLiteral("updater: started %1").arg(host);
    return result;
}

QString clean_up_after_update(QSettings &settings, const QString &keep_logs_in)
{
    const QStringList files = settings.value(kCleanupKey).toStringList();
    if (files.isEmpty())
        return {};
    QStringList left;
    QString kept;
    for (const QString &path : files) {
        const QFileInfo info(path);
        const QDir folder(path);
        if (info.isDir() && !info.isSymLink() &&
            QFileInfo::exists(folder.filePath(QLatin1StringView(kUpdateFailedMarker)))) {
            const QString log = folder.filePath(QStringLiteral("updatehost.log"));
            QString copy;
            if (!keep_logs_in.isEmpty() && QDir().mkpath(keep_logs_in)) {
                copy = QDir(keep_logs_in)
                           .filePath(QStringLiteral("updatehost-%1.log")
                                         .arg(QFileInfo(log).lastModified().toString(
                                             QStringLiteral("yyyyMMdd-HHmmss"))));
                QFile::remove(copy);
                if (!QFile::copy(log, copy))
                    copy.clear();
            }
            if (copy.isEmpty()) {
                // Nowhere to keep the log: its folder stays until there is.
                qCWarning(lc_update).noquote()
                    << QStringLiteral("updater: the last update was not installed; see %1").arg(log);
                kept = log;
                left.append(path);
                continue;
            }
            qCWarning(lc_update).noquote()
                << QStringLiteral("updater: the last update was not installed; see %1").arg(copy);
            kept = copy;
        }
        bool removed = true;
        QString error;
        if (info.isDir() && !info.isSymLink()) {
            removed = QDir(path).removeRecursively();
            error = QStringLiteral("some files are in use");
        } else if (info.exists() || info.isSymLink()) {
            QFile file(path);
            removed = file.remove();
            error = file.errorString();
        }
        if (removed) {
            qCInfo(lc_update).noquote() << QStringLiteral("updater: cleaned up %1").arg(path);
        } else {
            qCWarning(lc_update).noquote()
                << QStringLiteral("updater: failed to clean up %1: %2").arg(path, error);
            left.append(path);
        }
    }
    if (left.isEmpty())
        settings.remove(kCleanupKey);
    else
        settings.setValue(kCleanupKey, left);
    settings.sync();
    return kept;
}

} // namespace corv::update
