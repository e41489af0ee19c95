#pragma once

#include "update/archive.h"
#include "update/fetcher.h"
#include "update/manifest.h"

#include <QList>
#include <QObject>
#include <QString>
#include <QUrl>
#include <QVersionNumber>

#include <atomic>
#include <memory>
#include <optional>

class QFile;
class QNetworkAccessManager;
class QTemporaryDir;
class QThread;

namespace corv::update {

// The maker's own plugins ("io.marrowfield." ids, the application's own
// "io.marrowfield.corvane" among them) update only through their update
// manifests, never through the plugin installer.
bool is_first_party_plugin_id(const QString &id);

// A plugin the program has loaded.
struct LoadedPlugin {
    QString id;
    QVersionNumber version;
    QString install_folder;
};

// Installs a plugin from a plugin manifest into the "plugins" folder of the
// application data folder, as "<plugins>/<id>/"; the program loads it at its
// next start. The newest release with the required method is taken; its
// downloads are streamed to disk and checked against their sha256 and size,
// unpacked off the GUI thread into a staging folder with the limits given,
// and the staging folder then moved in whole with one rename. A refused
// install leaves nothing behind. A plugin's release may not run programs.
//
// An id that exists already is only ever updated: the plugin must have been
// installed here (by this installer, or loaded from this folder), the new
// version must be newer than the installed one, and what the plugin keeps in
// its folder beside its package (its "prefs.xml") stays.
class PluginInstaller : public QObject {
    Q_OBJECT
public:
    PluginInstaller(const FetchOptions &options, const QString &plugins_folder,
                    const QString &method, QObject *parent = nullptr);
    ~PluginInstaller() override;

    // The plugins the program runs with (an id among them is only updated).
    void set_loaded_plugins(const QList<LoadedPlugin> &plugins) { m_loaded = plugins; }
    void set_limits(const ArchiveLimits &limits) { m_limits = limits; }

    // Fetches and validates the manifest, then its icon when it names one.
    // Ends with manifest_ready() (icon_ready() may follow) or failed().
    void fetch_manifest(const QUrl &url);
    const std::optional<PluginManifest> &manifest() const { return m_manifest; }
    // After manifest_ready(): the release that install() takes, and the
    // version of the same plugin installed now (null when there is none).
    const Entry *release() const;
    QVersionNumber installed_version() const;

    // Installs the release of the fetched manifest: installed() or failed().
    void install();
    void cancel();
    bool busy() const;

Q_SIGNALS:
    void manifest_ready();
    // The icon's bytes, already checked against the manifest.
    void icon_ready(const QByteArray &bytes);
    void installed(const QString &folder);
    void failed(const QString &message);

private:
    void fail(const QString &message);
    // Empty when the fetched manifest's release may be installed here.
    QString refusal() const;
    void next_download();
    void unpack();
    void unpacked(const QString &error);
    bool move_in(QString *error);

    FetchOptions m_options;
    QString m_plugins_folder;
    QString m_method;
    QList<LoadedPlugin> m_loaded;
    ArchiveLimits m_limits;
    QNetworkAccessManager *m_network;
    Fetch *m_fetch;
    Fetch *m_icon_fetch;
    QUrl m_url;
    std::optional<PluginManifest> m_manifest;
    // The install in progress: its work folder, its steps and the unpacking.
    std::unique_ptr<QTemporaryDir> m_work;
    QList<Step> m_steps;
    qsizetype m_next = 0;
    std::unique_ptr<QFile> m_download;
    QThread *m_thread = nullptr;
    std::shared_ptr<std::atomic_bool> m_cancel;
};

} // namespace corv::update
