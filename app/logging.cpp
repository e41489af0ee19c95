#include "app/logging.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMutex>
#include <QMutexLocker>

#include <memory>

namespace corv {

namespace {

struct LogState {
    // Guards everything below: messages arrive from any thread.
    QMutex mutex;
    std::unique_ptr<QFile> file;
    QString path;
    QtMessageHandler previous = nullptr;
    bool installed = false;
    QList<LogLine> recent;
    LogListener listener;
};

Q_GLOBAL_STATIC(LogState, g_log)

void handle_message(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (g_log.isDestroyed())
        return;
    QtMessageHandler previous;
    {
        QMutexLocker lock(&g_log->mutex);
        if (type != QtDebugMsg && g_log->file) {
            const QString text = qFormatLogMessage(type, context, message);
            QByteArray line = text.toUtf8();
            line.append('\n');
            g_log->file->write(line);
            g_log->file->flush();
            if (g_log->recent.size() >= kKeptLogLines)
                g_log->recent.removeFirst();
            g_log->recent.append({type, text});
            if (g_log->listener)
                g_log->listener(type, text);
        }
        previous = g_log->previous;
    }
    if (previous)
        previous(type, context, message);
}

} // namespace

QString log_file_name(const QDateTime &start)
{
    return start.toUTC().toString(QStringLiteral("yyyy-MM-dd HH-mm-ss")) +
           QLatin1StringView(".txt");
}

void prune_log_folder(const QString &folder, int keep)
{
    const QFileInfoList files = QDir(folder).entryInfoList(QDir::Files | QDir::Hidden, QDir::Time);
    for (qsizetype i = keep; i < files.size(); ++i)
        QFile::remove(files.at(i).absoluteFilePath());
}

QString install_logging(const QString &folder, const QDateTime &start)
{
    uninstall_logging();

    auto file = std::make_unique<QFile>(QDir(folder).filePath(log_file_name(start)));
    if (QDir().mkpath(folder)) {
        prune_log_folder(folder);
        if (!file->open(QIODevice::WriteOnly | QIODevice::Append))
            file.reset();
    } else {
        file.reset();
    }

    qSetMessagePattern(QString::fromLatin1(kLogMessagePattern));

    QMutexLocker lock(&g_log->mutex);
    g_log->path = file ? file->fileName() : QString();
    g_log->file = std::move(file);
    g_log->installed = true;
    // Installing returns the previous handler; it must be stored before a
    // message can arrive through the new one, hence under the lock.
    g_log->previous = qInstallMessageHandler(handle_message);
    return g_log->path;
}

void uninstall_logging()
{
    if (g_log.isDestroyed())
        return;
    QMutexLocker lock(&g_log->mutex);
    if (!g_log->installed)
        return;
    qInstallMessageHandler(g_log->previous);
    g_log->previous = nullptr;
    g_log->file.reset();
    g_log->path.clear();
    g_log->recent.clear();
    g_log->installed = false;
}

QList<LogLine> set_log_listener(LogListener listener)
{
    if (g_log.isDestroyed())
        return {};
    QMutexLocker lock(&g_log->mutex);
    g_log->listener = std::move(listener);
    return g_log->recent;
}

QString log_file_path()
{
    if (g_log.isDestroyed())
        return {};
    QMutexLocker lock(&g_log->mutex);
    return g_log->path;
}

} // namespace corv
