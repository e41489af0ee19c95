#pragma once

#include "update/manifest.h"

#include <QList>
#include <QString>
#include <QUrl>
#include <QVersionNumber>

class QSettings;

namespace corv::update {

// Something that can be updated: the application itself or a plugin.
struct Component {
    QString id;
    QString name;
    QVersionNumber current;
    // The update manifest; its fragment names the install method this build
    // needs ("#linux64.tar.gz").
    QUrl manifest_url;
    // The folder the component is installed in; install steps write below it.
    QString base_path;

    QString method() const { return manifest_url.fragment(); }
};

// The entries of a manifest worth offering for one component, newest first:
// newer than the installed version and than the ignored one, and carrying
// the required method. Each skipped entry is logged, as is a component left
// with nothing.
QList<Entry> choose_candidates(const Component &component, const Manifest &manifest,
                               const QVersionNumber &ignored);

// A component with something to offer.
struct ComponentUpdate {
    Component component;
    QVersionNumber ignored;
    QList<Entry> candidates; // newest first, never empty
};

// The versions the user chose to skip: the settings array
// "Updates/IgnoredVersions" with one "PluginId" and "Version" per component.
QVersionNumber ignored_version(QSettings &settings, const QString &component_id);
void set_ignored_version(QSettings &settings, const QString &component_id,
                         const QVersionNumber &version);

} // namespace corv::update
