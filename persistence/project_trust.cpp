#include "persistence/project_trust.h"

#include "engine/project_runtime.h"

#include <QCryptographicHash>
#include <QFileInfo>
#include <QSettings>

namespace corv::engine {

namespace {

// Settings keys can't hold every character of a path: its digest stands in.
QString key_of(const QString &project_path)
{
    const QString path = QFileInfo(project_path).absoluteFilePath();
    return QStringLiteral("AllowedProjects/") +
           QString::fromLatin1(
               QCryptographicHash::hash(path.toUtf8(), QCryptographicHash::Sha256).toHex());
}

} // namespace

bool is_project_allowed(const QString &settings_file, const QString &project_path,
                        const QByteArray &fingerprint)
{
    if (settings_file.isEmpty() || project_path.isEmpty() || fingerprint.isEmpty())
        return false;
    QSettings settings(settings_file, QSettings::IniFormat);
    return settings.value(key_of(project_path)).toByteArray() == fingerprint;
}

void remember_project_allowed(const QString &settings_file, const QString &project_path,
                              const QByteArray &fingerprint)
{
    if (settings_file.isEmpty() || project_path.isEmpty() || fingerprint.isEmpty())
        return;
    QSettings settings(settings_file, QSettings::IniFormat);
    settings.setValue(key_of(project_path), fingerprint);
}

qsizetype allow_trusted_project(ProjectRuntime &runtime, const QString &settings_file,
                                const QString &project_path, bool allow_run)
{
    const QByteArray fingerprint = runtime.outside_fingerprint();
    if (fingerprint.isEmpty() || project_path.isEmpty() || allow_run ||
        is_project_allowed(settings_file, project_path, fingerprint))
        runtime.set_outside_allowed(true);
    return runtime.held_nodes().size();
}

} // namespace corv::engine
