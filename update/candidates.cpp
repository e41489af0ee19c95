#include "update/candidates.h"

#include "update/logging.h"

#include <QSettings>

#include <algorithm>

namespace corv::update {

QList<Entry> choose_candidates(const Component &component, const Manifest &manifest,
                               const QVersionNumber &ignored)
{
    const QString method = component.method();
    QList<Entry> candidates;
    for (const Entry &entry : manifest.entries) {
        const bool newer = compare_versions(entry.version, component.current) > 0 &&
                           (ignored.isNull() || compare_versions(entry.version, ignored) > 0);
        if (!newer) {
            qCDebug(lc_update).noquote()
                << QStringLiteral(
                       "%1 updater: skipping entry %2 (current version=%3, ignored version=%4)")
                       .arg(component.name, entry.version_text, component.current.toString(),
                            ignored.isNull() ? QStringLiteral("none") : ignored.toString());
            continue;
        }
        if (!entry.methods.contains(method)) {
            qCDebug(lc_update).noquote()
                << QStringLiteral(
                       "%1 updater: skipping entry %2 as it doesn't have the required method %3")
                       .arg(component.name, entry.version_text, method);
            continue;
        }
        candidates.append(entry);
    }
    std::stable_sort(candidates.begin(), candidates.end(), [](const Entry &a, const Entry &b) {
        return compare_versions(a.version, b.version) > 0;
    });
    if (candidates.isEmpty())
        qCDebug(lc_update).noquote()
            << QStringLiteral("%1 updater: skipping component as it has no candidate entries")
                   .arg(component.name);
    return candidates;
}

namespace {
struct Ignored {
    QString id;
    QString version;
};

QList<Ignored> read_ignored(QSettings &settings)
{
    QList<Ignored> list;
    const int count = settings.beginReadArray(QStringLiteral("Updates/IgnoredVersions"));
    for (int i = 0; i < count; ++i) {
        settings.setArrayIndex(i);
        list.append({settings.value(QStringLiteral("PluginId")).toString(),
                     settings.value(QStringLiteral("Version")).toString()});
    }
    settings.endArray();
    return list;
}
} // namespace

QVersionNumber ignored_version(QSettings &settings, const QString &component_id)
{
    for (const Ignored &ignored : read_ignored(settings)) {
        if (ignored.id == component_id)
            return parse_version(ignored.version);
    }
    return {};
}

void set_ignored_version(QSettings &settings, const QString &component_id,
                         const QVersionNumber &version)
{
    QList<Ignored> list = read_ignored(settings);
    list.removeIf([&](const Ignored &ignored) { return ignored.id == component_id; });
    if (!version.isNull())
        list.append({component_id, version.toString()});
    settings.remove(QStringLiteral("Updates/IgnoredVersions"));
    settings.beginWriteArray(QStringLiteral("Updates/IgnoredVersions"), int(list.size()));
    for (int i = 0; i < list.size(); ++i) {
        settings.setArrayIndex(i);
        settings.setValue(QStringLiteral("PluginId"), list[i].id);
        settings.setValue(QStringLiteral("Version"), list[i].version);
    }
    settings.endArray();
    settings.sync();
}

} // namespace corv::update
