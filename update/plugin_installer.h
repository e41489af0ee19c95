#pragma once

#include "update/fetcher.h"
#include "update/manifest.h"

#include <QObject>
#include <QString>
#include <QUrl>

#include <memory>
#include <optional>

class QNetworkAccessManager;
class QTemporaryDir;

namespace corv::update {

// Installs a plugin from a plugin manifest into the "plugins" folder of the
// application data folder, as "<plugins>/<id>/"; the program loads it at its
// next start. The newest release with the required method is taken; its
// downloads are checked against their sha256 and size before anything is
// unpacked, and a plugin's release may not run programs.
class PluginInstaller : public QObject {
    Q_OBJECT
public:
    PluginInstaller(const FetchOptions &options, const QString &plugins_folder,
                    const QString &method, QObject *parent = nullptr);
    ~PluginInstaller() override;

    // Fetches and validates the manifest, then its icon when it names one.
    // Ends with manifest_ready() (icon_ready() may follow) or failed().
    void fetch_manifest(const QUrl &url);
    const std::optional<PluginManifest> &manifest() const { return m_manifest; }

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
    void next_download();
    void unpack();

    FetchOptions m_options;
    QString m_plugins_folder;
    QString m_method;
    QNetworkAccessManager *m_network;
    Fetch *m_fetch;
    Fetch *m_icon_fetch;
    QUrl m_url;
    std::optional<PluginManifest> m_manifest;
    // The install in progress.
    std::unique_ptr<QTemporaryDir> m_work;
    QList<Step> m_steps;
    qsizetype m_next = 0;
};

} // namespace corv::update
