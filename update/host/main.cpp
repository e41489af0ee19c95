// The update host: started by Corvane from a temporary "corvupdate." folder
// with the path of its "update.json". The update is all or nothing:
//  1. every step is checked (paths, sizes, what each extracts, the programs
//     it runs) before anything is fetched;
//  2. once Corvane has exited, every file is downloaded and checked against
//     its sha256 and size, and every archive unpacked into a staging folder;
//  3. only then are the steps carried out, each file that is replaced moved
//     aside first; when a step fails, everything is moved back.
// Windows installer packages (".msi") go to the system's installer, which
// undoes its own work when it fails. In every case the program named by
// "returnTo" is started again, updated or as it was. The log is
// "updatehost.log" beside the description (and standard error); a failed
// update also leaves "updatehost.failed" there, for Corvane to report and
// keep the log at its next start.
#include "update/fetcher.h"
#include "update/install_steps.h"
#include "update/manifest.h"
#include "update/archive.h"
#include "update/platform.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalSocket>
#include <QMap>
#include <QNetworkAccessManager>
#include <QProcess>
#include <QSet>

#include <cstdio>

using namespace corv::update;

namespace {

QFile *g_log = nullptr;

void log_line(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    const QByteArray line =
        QDateTime::currentDateTime().toString(Qt::ISODateWithMs).toUtf8() +
        (type == QtWarningMsg || type == QtCriticalMsg || type == QtFatalMsg ? " warning: " : " ") +
        message.toUtf8() + '\n';
    std::fputs(line.constData(), stderr);
    if (g_log) {
        g_log->write(line);
        g_log->flush();
    }
}

struct Target {
    QString base_path;
    QUrl base_url;
};

struct Update {
    QString folder;
    QList<std::pair<QString, Step>> steps; // component id, step
    QMap<QString, Target> targets;
    Target application;
    QString return_to;
    QString return_to_name;
    QString wait_for;
    QByteArray user_agent;

    const Target &target(const QString &component) const
    {
        const auto it = targets.find(component);
        return it != targets.end() ? *it : application;
    }
    QString downloads(const QString &component) const
    {
        return QDir(folder).filePath(QStringLiteral("downloads/") +
                                     (component.isEmpty() ? QStringLiteral("_") : component));
    }
};

bool read_update(const QString &path, Update &update)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        qWarning().noquote()
            << QStringLiteral("updater: failed to read %1: %2").arg(path, file.errorString());
        return false;
    }
    QJsonParseError error{};
    const QJsonObject root = QJsonDocument::fromJson(file.readAll(), &error).object();
    if (error.error != QJsonParseError::NoError) {
        qWarning().noquote()
            << QStringLiteral("updater: failed to parse %1: %2").arg(path, error.errorString());
        return false;
    }
    update.folder = QFileInfo(path).absolutePath();
    update.application = {root.value(QLatin1StringView("basePath")).toString(),
                          QUrl(root.value(QLatin1StringView("baseUrl")).toString())};
    // Read first: whatever else is wrong, the program is started again.
    update.return_to = root.value(QLatin1StringView("returnTo")).toString();
    update.return_to_name = root.value(QLatin1StringView("returnToName")).toString();
    update.wait_for = root.value(QLatin1StringView("waitFor")).toString();
    update.user_agent = root.value(QLatin1StringView("userAgent")).toString().toUtf8();
    for (const QJsonValue &value : root.value(QLatin1StringView("components")).toArray()) {
        const QJsonObject component = value.toObject();
        update.targets.insert(component.value(QLatin1StringView("id")).toString(),
                              {component.value(QLatin1StringView("basePath")).toString(),
                               QUrl(component.value(QLatin1StringView("baseUrl")).toString())});
    }
    const QJsonArray steps = root.value(QLatin1StringView("steps")).toArray();
    for (qsizetype i = 0; i < steps.size(); ++i) {
        const std::optional<Step> step = Step::from_json(steps[i].toObject());
        if (!step) {
            qWarning().noquote()
                << QStringLiteral("updater: step %1 of %2 is not valid").arg(i).arg(path);
            return false;
        }
        update.steps.append(
            {steps[i].toObject().value(QLatin1StringView("component")).toString(), *step});
    }
    if (update.application.base_path.isEmpty() || update.return_to.isEmpty()) {
        qWarning().noquote() << QStringLiteral("updater: %1 lacks basePath or returnTo").arg(path);
        return false;
    }
    return true;
}

// Everything that can be known before anything is fetched or touched.
bool check_steps(const Update &update)
{
    QSet<QString> downloaded;
    for (qsizetype i = 0; i < update.steps.size(); ++i) {
        const auto &[component, step] = update.steps[i];
        const Target &target = update.target(component);
        auto refuse = [i](const QString &why) {
            qWarning().noquote() << QStringLiteral("updater: step %1 is refused: %2").arg(i).arg(why);
            return false;
        };
        if (target.base_path.isEmpty() || !QFileInfo(target.base_path).isDir())
            return refuse(QStringLiteral("its install folder %1 does not exist").arg(target.base_path));
        switch (step.kind) {
        case Step::Download:
            if (!is_safe_relative_path(step.destination))
                return refuse(QStringLiteral("unsafe destination %1").arg(step.destination));
            if (step.size > kMaxPackageSize)
                return refuse(QStringLiteral("%1 is over the limit of %2 bytes")
                                  .arg(step.value)
                                  .arg(kMaxPackageSize));
            downloaded.insert(component + u'/' + QDir::cleanPath(step.destination));
            break;
        case Step::Extract:
            if (!is_safe_relative_path(step.destination))
                return refuse(QStringLiteral("unsafe destination %1").arg(step.destination));
            if (!is_safe_relative_path(step.value))
                return refuse(QStringLiteral("extracts an unsafe path %1").arg(step.value));
            if (!downloaded.contains(component + u'/' + QDir::cleanPath(step.value)))
                return refuse(QStringLiteral("%1 is not downloaded before").arg(step.value));
            if (platform::is_system_package(step.value)) {
                if (const QString why = platform::system_package_refusal(step.value);
                    !why.isEmpty())
                    return refuse(why);
            }
            break;
        case Step::Run: {
            const QString program = QProcess::splitCommand(step.value).value(0);
            if (program.isEmpty())
                return refuse(QStringLiteral("empty command"));
            // A program that a download brings is there once downloaded.
            if (!downloaded.contains(component + u'/' + QDir::cleanPath(program)) &&
                find_program(step.value, update.downloads(component), target.base_path).isEmpty())
                return refuse(QStringLiteral("program %1 not found").arg(program));
            break;
        }
        }
    }
    return true;
}

// The program ends by closing its local server; a missing one has ended.
void wait_for_program(const QString &name)
{
    if (name.isEmpty())
        return;
    QLocalSocket socket;
    socket.connectToServer(name);
    if (!socket.waitForConnected(3000))
        return;
    qInfo().noquote() << QStringLiteral("updater: waiting for the program to exit");
    while (socket.state() == QLocalSocket::ConnectedState) {
        if (!socket.waitForDisconnected(120000)) {
            if (socket.state() == QLocalSocket::ConnectedState) {
                qWarning().noquote()
                    << QStringLiteral("updater: the program is still running; going on");
                return;
            }
        }
    }
}

bool download_all(const Update &update)
{
    QNetworkAccessManager network;
    FetchOptions options;
    options.user_agent = update.user_agent;
    for (const auto &[component, step] : update.steps) {
        if (step.kind != Step::Download)
            continue;
        const QUrl url = update.target(component).base_url.resolved(QUrl(step.value));
        const QString path = QDir(update.downloads(component)).filePath(step.destination);
        QDir().mkpath(QFileInfo(path).absolutePath());
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
            qWarning().noquote()
                << QStringLiteral("updater: failed to create %1: %2").arg(path, file.errorString());
            return false;
        }
        qInfo().noquote() << QStringLiteral("updater: downloading %1").arg(url.toDisplayString());
        const FetchResult result =
            fetch_blocking(&network, options, url, step.sha256, step.size, &file);
        file.close();
        if (!result.ok()) {
            file.remove();
            qWarning().noquote() << QStringLiteral("updater: refused %1: %2")
                                        .arg(url.toDisplayString(), result.error);
            return false;
        }
        qInfo().noquote() << QStringLiteral("updater: written data to %1").arg(path);
    }
    return true;
}

QString staging_folder(const Update &update, qsizetype step)
{
    return QDir(update.folder).filePath(QStringLiteral("staged/%1").arg(step));
}

// Every archive unpacked, beside the install folders, before any is changed.
bool stage_all(const Update &update)
{
    for (qsizetype i = 0; i < update.steps.size(); ++i) {
        const auto &[component, step] = update.steps[i];
        if (step.kind != Step::Extract || platform::is_system_package(step.value))
            continue;
        const QString archive = QDir(update.downloads(component)).filePath(step.value);
        QString error;
        if (!unpack_archive(archive, staging_folder(update, i), ArchiveLimits(), &error)) {
            qWarning().noquote()
                << QStringLiteral("updater: failed to extract %1: %2").arg(archive, error);
            return false;
        }
    }
    return true;
}

bool install_all(const Update &update, FileTransaction &changes)
{
    for (qsizetype i = 0; i < update.steps.size(); ++i) {
        const auto &[component, step] = update.steps[i];
        const Target &target = update.target(component);
        QString error;
        if (step.kind == Step::Extract && platform::is_system_package(step.value)) {
            const QString package = QDir(update.downloads(component)).filePath(step.value);
            if (!platform::install_system_package(package, 3600000, &error)) {
                qWarning().noquote()
                    << QStringLiteral("updater: failed to install %1: %2").arg(package, error);
                return false;
            }
            qInfo().noquote() << QStringLiteral("updater: installed %1").arg(package);
        } else if (step.kind == Step::Extract) {
            const QString destination = QDir(target.base_path).filePath(step.destination);
            if (!changes.move_in(staging_folder(update, i), destination, &error)) {
                qWarning().noquote()
                    << QStringLiteral("updater: failed to extract %1: %2").arg(step.value, error);
                return false;
            }
            qInfo().noquote()
                << QStringLiteral("updater: extracted %1 to %2").arg(step.value, destination);
        } else if (step.kind == Step::Run) {
            if (!run_command(step.value, update.downloads(component), target.base_path, 600000,
                             &error)) {
                qWarning().noquote()
                    << QStringLiteral("updater: failed to run %1: %2").arg(step.value, error);
                return false;
            }
            qInfo().noquote() << QStringLiteral("updater: ran %1").arg(step.value);
        }
    }
    return true;
}

bool update_all(const Update &update)
{
    if (!check_steps(update))
        return false;
    if (!download_all(update) || !stage_all(update))
        return false;
    FileTransaction changes(QDir(update.folder).filePath(QStringLiteral("replaced")));
    if (install_all(update, changes))
        return true;
    QString error;
    if (changes.roll_back(&error))
        qInfo().noquote() << QStringLiteral("updater: every replaced file was restored");
    else
        qWarning().noquote() << QStringLiteral("updater: failed to roll back: %1").arg(error);
    return false;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList arguments = app.arguments();
    if (arguments.size() != 2) {
        std::fputs("usage: updatehost UPDATE_JSON\n", stderr);
        return 2;
    }
    const QDir folder(QFileInfo(arguments[1]).absolutePath());
    QFile log(folder.filePath(QStringLiteral("updatehost.log")));
    if (log.open(QIODevice::Append))
        g_log = &log;
    qInstallMessageHandler(log_line);

    Update update;
    const bool readable = read_update(arguments[1], update);
    // Even a refused update waits: the program is started again only once
    // the running one has gone.
    wait_for_program(update.wait_for);
    const bool ok = readable && update_all(update);
    if (!ok) {
        QFile marker(folder.filePath(QLatin1StringView(kUpdateFailedMarker)));
        if (!marker.open(QIODevice::WriteOnly))
            qWarning().noquote() << QStringLiteral("updater: failed to create %1: %2")
                                        .arg(marker.fileName(), marker.errorString());
    }
    qInfo().noquote()
        << (ok ? QStringLiteral("updater: update installed")
               : QStringLiteral("updater: update not installed; starting the installed program"));
    if (update.return_to.isEmpty())
        return 1;

    QProcess process;
    process.setProgram(update.return_to);
    process.setWorkingDirectory(QFileInfo(update.return_to).absolutePath());
    if (!process.startDetached()) {
        qWarning().noquote() << QStringLiteral("updater: failed to start %1: %2")
                                    .arg(update.return_to, process.errorString());
        return 1;
    }
    qInfo().noquote() << QStringLiteral("updater: started %1").arg(update.return_to);
    return ok ? 0 : 1;
}
