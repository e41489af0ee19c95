#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QString>
#include <QUrl>
#include <QVersionNumber>

#include <optional>

// Update manifests and plugin manifests: reading, validation and the data
// they describe. Nothing here touches the network.
namespace corv::update {

// What each download may grow to: a plugin's icon, a manifest (or a
// changelog), and a package named by a download step.
inline constexpr qint64 kMaxIconSize = 1024 * 1024;
inline constexpr qint64 kMaxManifestSize = 16 * 1024 * 1024;
inline constexpr qint64 kMaxPackageSize = 512 * 1024 * 1024;

// Versions are dotted numbers compared segment by segment; missing trailing
// segments count as 0, so 1.2 and 1.2.0 are the same version. A text that
// yields no numeric segment is no version (null).
QVersionNumber parse_version(const QString &text);
int compare_versions(const QVersionNumber &a, const QVersionNumber &b);

// One step of an install method. "download" fetches a file (relative to the
// manifest's address) into the update's work folder as "destination", checked
// against "sha256" and "size"; "extract" unpacks a downloaded archive into
// "destination" below the install folder; "run" starts a program.
struct Step {
    enum Kind { Download, Extract, Run };
    Kind kind = Run;
    QString value; // the download address, the archive to extract, the command
    QString destination;
    QByteArray sha256; // lower-case hex
    qint64 size = -1;

    QJsonObject to_json() const;
    // Reads a step written by to_json() (or taken from a validated manifest).
    static std::optional<Step> from_json(const QJsonObject &object);
};

struct Entry {
    QVersionNumber version;
    QString version_text;
    QString description_url;
    QDateTime release_date;
    QMap<QString, QVersionNumber> provides;
    QMap<QString, QVersionNumber> requirements; // "requires": minimum versions of other components
    QMap<QString, QList<Step>> methods;
};

struct Manifest {
    QList<Entry> entries;
};

// Parses and validates an update manifest. A download step may not be
// larger than kMaxPackageSize. The first failure rejects it and
// is logged as a warning ("<component> updater: failed to ..."); the same
// text goes to *error.
std::optional<Manifest> read_manifest(QByteArrayView json, const QString &component,
                                      QString *error = nullptr);

// A plugin manifest: who the plugin is, its icon (checked against the digest
// and size given with it) and the releases of its package, in the layout of
// an update manifest. The icon is optional: one without "iconSha256" and
// "iconSize", or larger than kMaxIconSize, is left out (with a warning) and
// the rest of the manifest kept.
struct PluginManifest {
    QString id;
    QString display_name;
    QUrl icon_url;
    QByteArray icon_sha256;
    qint64 icon_size = -1;
    Manifest package;
};

// Messages start with "plugin installer: "; the package's entries report as
// "<display name> updater: ...".
std::optional<PluginManifest> read_plugin_manifest(QByteArrayView json, QString *error = nullptr);

// A path below a folder: relative, no "..", no drive or root, not empty.
bool is_safe_relative_path(const QString &path);

} // namespace corv::update
