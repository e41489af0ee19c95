#include "update/install_steps.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

namespace corv::update {

bool move_tree(const QString &source, const QString &destination, QString *error)
{
    const QDir from(source);
    if (!QDir().mkpath(destination)) {
        *error = QStringLiteral("could not create %1").arg(destination);
        return false;
    }
    QDirIterator it(source, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        const QFileInfo info = it.fileInfo();
        const QString relative = from.relativeFilePath(info.filePath());
        const QString target = QDir(destination).filePath(relative);
        if (info.isSymLink() || !(info.isFile() || info.isDir())) {
            *error = QStringLiteral("refused %1: not a regular file or folder").arg(relative);
            return false;
        }
        if (info.isDir()) {
            if (!QDir().mkpath(target)) {
                *error = QStringLiteral("could not create %1").arg(target);
                return false;
            }
            continue;
        }
        // Removing first lets a running program's file be replaced where the
        // system allows it, and never writes through an existing link.
        if (QFileInfo::exists(target) || QFileInfo(target).isSymLink()) {
            QFile old(target);
            if (!old.remove()) {
                *error = QStringLiteral("could not replace %1: %2").arg(target, old.errorString());
                return false;
            }
        }
        QFile file(info.filePath());
        if (!file.rename(target) && !file.copy(target)) {
            *error = QStringLiteral("could not write %1: %2").arg(target, file.errorString());
            return false;
        }
    }
    return true;
}

bool extract_archive(const QString &archive, const QString &destination, const QString &work_folder,
                     QString *error)
{
    QTemporaryDir staging(QDir(work_folder).filePath(QStringLiteral("extract.XXXXXX")));
    if (!staging.isValid()) {
        *error = QStringLiteral("could not create a folder in %1: %2")
                     .arg(work_folder, staging.errorString());
        return false;
    }
    QProcess tar;
    tar.setProgram(QStringLiteral("tar"));
    tar.setArguments({QStringLiteral("-xf"), archive, QStringLiteral("-C"), staging.path()});
    tar.setProcessChannelMode(QProcess::MergedChannels);
    tar.start();
    if (!tar.waitForStarted(10000)) {
        *error = QStringLiteral("could not start tar: %1").arg(tar.errorString());
        return false;
    }
    if (!tar.waitForFinished(600000) || tar.exitStatus() != QProcess::NormalExit ||
        tar.exitCode() != 0) {
        *error = QStringLiteral("tar failed on %1: %2")
                     .arg(archive, QString::fromLocal8Bit(tar.readAll()).trimmed());
        tar.kill();
        return false;
    }
    return move_tree(staging.path(), destination, error);
}

bool run_command(const QString &command, const QString &work_folder, const QString &base_path,
                 int timeout_ms, QString *error)
{
    QStringList words = QProcess::splitCommand(command);
    if (words.isEmpty()) {
        *error = QStringLiteral("empty command");
        return false;
    }
    QString program = words.takeFirst();
    if (!QDir::isAbsolutePath(program)) {
        for (const QString &folder : {work_folder, base_path}) {
            const QString candidate = QDir(folder).filePath(program);
            if (is_safe_relative_path(program) && QFileInfo(candidate).isFile()) {
                program = candidate;
                break;
            }
        }
        if (!QDir::isAbsolutePath(program)) {
            const QString found = QStandardPaths::findExecutable(program);
            if (found.isEmpty()) {
                *error = QStringLiteral("program %1 not found").arg(program);
                return false;
            }
            program = found;
        }
    }
    QProcess process;
    process.setProgram(program);
    process.setArguments(words);
    process.setWorkingDirectory(base_path);
    process.setProcessChannelMode(QProcess::ForwardedChannels);
    process.start();
    if (!process.waitForStarted(10000)) {
        *error = QStringLiteral("could not start %1: %2").arg(program, process.errorString());
        return false;
    }
    if (!process.waitForFinished(timeout_ms)) {
        process.kill();
        process.waitForFinished(2000);
        *error = QStringLiteral("%1 did not finish in %2 ms").arg(program).arg(timeout_ms);
        return false;
    }
    if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        *error = QStringLiteral("%1 failed with exit code %2").arg(program).arg(process.exitCode());
        return false;
    }
    return true;
}

} // namespace corv::update
