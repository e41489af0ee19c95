// The update host: started by Corvane from a temporary "corvupdate." folder
// with the path of its "update.json". It waits until Corvane has exited,
// downloads every file of the update and checks each against its sha256 and
// size, and only when all of them are good unpacks and runs the steps into
// the install folders. Then it starts the program named by "returnTo" again,
// updated or (after a failure) as it was. Its log is "updatehost.log" beside
// the description, and standard error.
#include "update/fetcher.h"
#include "update/install_steps.h"
#include "update/manifest.h"

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
        if (step->kind != Step::Run && !is_safe_relative_path(step->destination)) {
            qWarning().noquote() << QStringLiteral("updater: step %1 has an unsafe destination %2")
                                        .arg(i)
                                        .arg(step->destination);
            return false;
        }
        if (step->kind == Step::Extract && !is_safe_relative_path(step->value)) {
            qWarning().noquote() << QStringLiteral("updater: step %1 extracts an unsafe path %2")
                                        .arg(i)
                                        .arg(step->value);
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

bool install_all(const Update &update)
{
    for (const auto &[component, step] : update.steps) {
        const Target &target = update.target(component);
        QString error;
        if (step.kind == Step::Extract) {
            const QString archive = QDir(update.downloads(component)).filePath(step.value);
            const QString destination = QDir(target.base_path).filePath(step.destination);
            if (!extract_archive(archive, destination, update.folder, &error)) {
                qWarning().noquote()
                    << QStringLiteral("updater: failed to extract %1: %2").arg(archive, error);
                return false;
            }
            qInfo().noquote()
                << QStringLiteral("updater: extracted %1 to %2").arg(archive, destination);
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

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList arguments = app.arguments();
    if (arguments.size() != 2) {
        std::fputs("usage: updatehost UPDATE_JSON\n", stderr);
        return 2;
    }
    QFile log(
        QDir(QFileInfo(arguments[1]).absolutePath()).filePath(QStringLiteral("updatehost.log")));
    if (log.open(QIODevice::Append))
        g_log = &log;
    qInstallMessageHandler(log_line);

    Update update;
    if (!read_update(arguments[1], update))
        return 1;
    wait_for_program(update.wait_for);
    const bool ok = download_all(update) && install_all(update);
    qInfo().noquote()
        << (ok ? QStringLiteral("updater: update installed")
               : QStringLiteral("updater: update not installed; starting the installed program"));

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
