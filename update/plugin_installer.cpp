#include "update/plugin_installer.h"

#include "update/install_steps.h"
#include "update/logging.h"

#include <QDir>
#include <QFile>
#include <QNetworkAccessManager>
#include <QTemporaryDir>

namespace corv::update {

PluginInstaller::PluginInstaller(const FetchOptions &options, const QString &plugins_folder,
                                 const QString &method, QObject *parent)
    : QObject(parent), m_options(options), m_plugins_folder(plugins_folder), m_method(method),
      m_network(new QNetworkAccessManager(this)), m_fetch(new Fetch(m_network, options, this)),
      m_icon_fetch(new Fetch(m_network, options, this))
{}

PluginInstaller::~PluginInstaller() = default;

bool PluginInstaller::busy() const
{
    return m_fetch->running() || m_work != nullptr;
}

void PluginInstaller::fail(const QString &message)
{
    m_work.reset();
    emit failed(message);
}

void PluginInstaller::cancel()
{
    m_fetch->abort();
    m_icon_fetch->abort();
    m_work.reset();
}

void PluginInstaller::fetch_manifest(const QUrl &url)
{
    cancel();
    m_manifest.reset();
    m_url = url;
    qCDebug(lc_update).noquote()
        << QStringLiteral("plugin installer: fetching manifest from %1").arg(url.toDisplayString());
    m_fetch->start(url, [this](const FetchResult &result) {
        if (!result.ok()) {
            const QString message =
                QStringLiteral("plugin installer: could not get manifest from %1: %2")
                    .arg(m_url.toDisplayString(), result.error);
            qCWarning(lc_update).noquote() << message;
            fail(message);
            return;
        }
        QString error;
        m_manifest = read_plugin_manifest(result.data, &error);
        if (!m_manifest) {
            fail(error);
            return;
        }
        emit manifest_ready();
        if (m_manifest->icon_url.isEmpty())
            return;
        const QUrl icon = m_url.resolved(m_manifest->icon_url);
        const QString name = m_manifest->display_name;
        qCDebug(lc_update).noquote() << QStringLiteral("%1 installer: fetching icon from %2")
                                            .arg(name, icon.toDisplayString());
        m_icon_fetch->start(
            icon,
            [this, name, icon](const FetchResult &result) {
                if (result.ok()) {
                    emit icon_ready(result.data);
                    return;
                }
                qCWarning(lc_update).noquote()
                    << QStringLiteral("%1 installer: could not get icon from %2: %3")
                           .arg(name, icon.toDisplayString(), result.error);
            },
            m_manifest->icon_sha256, m_manifest->icon_size);
    });
}

void PluginInstaller::install()
{
    if (!m_manifest || m_work)
        return;
    const PluginManifest &manifest = *m_manifest;
    const Entry *newest = nullptr;
    for (const Entry &entry : manifest.package.entries) {
        if (entry.methods.contains(m_method) &&
            (!newest || compare_versions(entry.version, newest->version) > 0))
            newest = &entry;
    }
    const QString prefix =
        QStringLiteral("plugin installer: failed to install %1: ").arg(manifest.id);
    auto refuse = [&](const QString &why) {
        qCWarning(lc_update).noquote() << prefix + why;
        fail(prefix + why);
    };
    if (!newest)
        return refuse(QStringLiteral("no release has the method %1").arg(m_method));
    m_steps = newest->methods.value(m_method);
    for (const Step &step : std::as_const(m_steps)) {
        if (step.kind == Step::Run)
            return refuse(QStringLiteral("a plugin release may not run %1").arg(step.value));
        if (!is_safe_relative_path(step.destination) ||
            (step.kind == Step::Extract && !is_safe_relative_path(step.value)))
            return refuse(QStringLiteral("unsafe path in a step"));
    }
    if (!QDir().mkpath(m_plugins_folder))
        return refuse(QStringLiteral("could not create %1").arg(m_plugins_folder));
    m_work = std::make_unique<QTemporaryDir>(
        QDir(m_plugins_folder).filePath(QStringLiteral(".install.XXXXXX")));
    if (!m_work->isValid())
        return refuse(m_work->errorString());
    qCInfo(lc_update).noquote() << QStringLiteral("plugin installer: installing %1 %2")
                                       .arg(manifest.id, newest->version_text);
    m_next = 0;
    next_download();
}

void PluginInstaller::next_download()
{
    while (m_next < m_steps.size() && m_steps[m_next].kind != Step::Download)
        ++m_next;
    if (m_next == m_steps.size()) {
        unpack();
        return;
    }
    const Step step = m_steps[m_next++];
    const QUrl url = m_url.resolved(QUrl(step.value));
    const QString id = m_manifest->id;
    m_fetch->start(
        url,
        [this, url, step, id](const FetchResult &result) {
            const QString prefix =
                QStringLiteral("plugin installer: failed to install %1: ").arg(id);
            if (!result.ok()) {
                const QString message =
                    prefix +
                    QStringLiteral("refused %1: %2").arg(url.toDisplayString(), result.error);
                qCWarning(lc_update).noquote() << message;
                fail(message);
                return;
            }
            const QString path =
                QDir(m_work->path()).filePath(QStringLiteral("downloads/") + step.destination);
            QDir().mkpath(QFileInfo(path).absolutePath());
            QFile file(path);
            if (!file.open(QIODevice::WriteOnly) || file.write(result.data) != result.data.size()) {
                const QString message =
                    prefix + QStringLiteral("could not write %1: %2").arg(path, file.errorString());
                qCWarning(lc_update).noquote() << message;
                fail(message);
                return;
            }
            file.close();
            next_download();
        },
        step.sha256, step.size);
}

void PluginInstaller::unpack()
{
    const QString id = m_manifest->id;
    const QString folder = QDir(m_plugins_folder).filePath(id);
    for (const Step &step : std::as_const(m_steps)) {
        if (step.kind != Step::Extract)
            continue;
        QString error;
        const QString archive =
            QDir(m_work->path()).filePath(QStringLiteral("downloads/") + step.value);
        if (!extract_archive(archive, QDir(folder).filePath(step.destination), m_work->path(),
                             &error)) {
            const QString message =
                QStringLiteral("plugin installer: failed to install %1: %2").arg(id, error);
            qCWarning(lc_update).noquote() << message;
            fail(message);
            return;
        }
    }
    m_work.reset();
    qCInfo(lc_update).noquote()
        << QStringLiteral("plugin installer: installed %1 into %2").arg(id, folder);
    emit installed(folder);
}

} // namespace corv::update
