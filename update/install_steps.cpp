#include "update/install_steps.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>

#include <algorithm>

namespace corv::update {

QString find_program(const QString &command, const QString &work_folder, const QString &base_path)
{
    const QStringList words = QProcess::splitCommand(command);
    if (words.isEmpty())
        return {};
    const QString program = words.first();
    if (QDir::isAbsolutePath(program))
        return QFileInfo(program).isFile() ? program : QString();
    if (is_safe_relative_path(program)) {
        for (const QString &folder : {work_folder, base_path}) {
            const QString candidate = QDir(folder).filePath(program);
            if (QFileInfo(candidate).isFile())
                return candidate;
        }
    }
    return QStandardPaths::findExecutable(program);
}

bool run_command(const QString &command, const QString &work_folder, const QString &base_path,
                 int timeout_ms, QString *error)
{
    QStringList words = QProcess::splitCommand(command);
    const QString program = find_program(command, work_folder, base_path);
    if (words.isEmpty() || program.isEmpty()) {
        *error = QStringLiteral("program %1 not found").arg(words.value(0));
        return false;
    }
    words.removeFirst();
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

FileTransaction::FileTransaction(const QString &backup_folder) : m_backup_folder(backup_folder) {}

bool FileTransaction::move_in(const QString &source, const QString &destination, QString *error)
{
    const QDir from(source);
    // Folders first, from the top, so that each file's folder exists.
    QStringList folders{QString()};
    QStringList files;
    QDirIterator it(source, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        const QFileInfo info = it.fileInfo();
        const QString relative = from.relativeFilePath(info.filePath());
        if (info.isSymLink() || !(info.isFile() || info.isDir())) {
            *error = QStringLiteral("refused %1: not a regular file or folder").arg(relative);
            return false;
        }
        (info.isDir() ? folders : files).append(relative);
    }
    std::sort(folders.begin(), folders.end());
    for (const QString &relative : std::as_const(folders)) {
        const QString target = QDir(destination).filePath(relative);
        const QFileInfo info(target);
        if (info.isDir() && !info.isSymLink())
            continue;
        if (info.exists() || info.isSymLink()) {
            *error = QStringLiteral("could not create the folder %1: a file is in the way").arg(target);
            return false;
        }
        // Made one level at a time, so that each can be taken back.
        if (!QDir().mkdir(target)) {
            *error = QStringLiteral("could not create %1").arg(target);
            return false;
        }
        m_changes.append({target, QString(), true});
    }
    for (const QString &relative : std::as_const(files)) {
        const QString target = QDir(destination).filePath(relative);
        const QFileInfo info(target);
        Change change{target, QString(), false};
        if (info.isDir() && !info.isSymLink()) {
            *error = QStringLiteral("could not replace %1: it is a folder").arg(target);
            return false;
        }
        if (info.exists() || info.isSymLink()) {
            change.backup = QDir(m_backup_folder).filePath(QString::number(m_backups++));
            if (!QDir().mkpath(m_backup_folder) || !QFile::rename(target, change.backup)) {
                *error = QStringLiteral("could not move %1 aside").arg(target);
                return false;
            }
        }
        // Recorded before the move, so that a half-done move is undone too.
        m_changes.append(change);
        QFile file(from.filePath(relative));
        if (!file.rename(target)) {
            *error = QStringLiteral("could not write %1: %2").arg(target, file.errorString());
            return false;
        }
    }
    return true;
}

bool FileTransaction::roll_back(QString *error)
{
    bool ok = true;
    while (!m_changes.isEmpty()) {
        const Change change = m_changes.takeLast();
        if (change.folder) {
            // Empty by now, unless something else wrote into it.
            QDir().rmdir(change.target);
            continue;
        }
        if (QFileInfo::exists(change.target) || QFileInfo(change.target).isSymLink())
            QFile::remove(change.target);
        if (!change.backup.isEmpty() && !QFile::rename(change.backup, change.target)) {
            ok = false;
            *error = QStringLiteral("could not restore %1 (kept as %2)")
                         .arg(change.target, change.backup);
        }
    }
    return ok;
}

} // namespace corv::update
