#include "update/plugin_installer.h"

#include "update/logging.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLibrary>
#include <QNetworkAccessManager>
#include <QSaveFile>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>

namespace corv::update {

namespace {

// What the installer records in the folders it installs: the id, the
// version, and the top-level names its package brought (everything else in
// the folder is the plugin's own data).
const QString kRecord = QStringLiteral("installed.json");
const QString kPreferences = QStringLiteral("prefs.xml");

struct Record {
    QVersionNumber version;
    QStringList files;
    bool found = false;
};

Record read_record(const QString &folder, const QString &id)
{
    Record record;
    QFile file(QDir(folder).filePath(kRecord));
    if (file.size() > 1024 * 1024 || !file.open(QIODevice::ReadOnly))
        return record;
    const QJsonObject root = QJsonDocument::fromJson(file.readAll()).object();
    if (root.value(QLatin1StringView("id")).toString() != id)
        return record;
    record.version = parse_version(root.value(QLatin1StringView("version")).toString());
    for (const QJsonValue &name : root.value(QLatin1StringView("files")).toArray())
        record.files.append(name.toString());
    record.found = !record.version.isNull();
    return record;
}

QStringList top_level_names(const QString &folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden |
                                  QDir::System);
}

bool has_library(const QString &folder, const QString &id)
{
    const QFileInfoList files = QDir(folder).entryInfoList(QDir::Files | QDir::Hidden);
    return std::any_of(files.begin(), files.end(), [&](const QFileInfo &file) {
        return file.completeBaseName() == id && QLibrary::isLibrary(file.fileName());
    });
}

// Copies a file or a folder below `from` to `to`; no links.
bool copy_entry(const QString &from, const QString &to)
{
    const QFileInfo info(from);
    if (info.isSymLink())
        return true;
    if (info.isFile())
        return QFile::copy(from, to);
    if (!QDir().mkpath(to))
        return false;
    QDirIterator it(from, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System);
    while (it.hasNext()) {
        it.next();
        if (!copy_entry(it.filePath(), QDir(to).filePath(it.fileName())))
            return false;
    }
    return true;
}

} // namespace

bool is_first_party_plugin_id(const QString &id)
{
    // Compared without case: Windows' folder names ignore it.
    return id.startsWith(QLatin1StringView("io.marrowfield."), Qt::CaseInsensitive);
}

PluginInstaller::PluginInstaller(const FetchOptions &options, const QString &plugins_folder,
                                 const QString &method, QObject *parent)
    : QObject(parent), m_options(options), m_plugins_folder(plugins_folder), m_method(method),
      m_network(new QNetworkAccessManager(this)), m_fetch(new Fetch(m_network, options, this)),
      m_icon_fetch(nullptr)
{
    FetchOptions icon = options;
    icon.max_size = kMaxIconSize;
    m_icon_fetch = new Fetch(m_network, icon, this);
}

PluginInstaller::~PluginInstaller()
{
    cancel();
}

bool PluginInstaller::busy() const
{
    return m_fetch->running() || m_work != nullptr;
}

void PluginInstaller::fail(const QString &message)
{
    qCWarning(lc_update).noquote() << message;
    m_download.reset();
    m_work.reset();
    emit failed(message);
}

void PluginInstaller::cancel()
{
    m_fetch->abort();
    m_icon_fetch->abort();
    if (m_thread) {
        // The unpacking stops at its next piece; its folder goes with m_work.
        m_cancel->store(true);
        m_thread->disconnect(this);
        m_thread->wait();
        delete m_thread;
        m_thread = nullptr;
    }
    m_download.reset();
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
            fail(QStringLiteral("plugin installer: could not get manifest from %1: %2")
                     .arg(m_url.toDisplayString(), result.error));
            return;
        }
        QString error;
        m_manifest = read_plugin_manifest(result.data, &error);
        if (!m_manifest) {
            emit failed(error);
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

const Entry *PluginInstaller::release() const
{
    if (!m_manifest)
        return nullptr;
    const Entry *newest = nullptr;
    for (const Entry &entry : m_manifest->package.entries) {
        if (entry.methods.contains(m_method) &&
            (!newest || compare_versions(entry.version, newest->version) > 0))
            newest = &entry;
    }
    return newest;
}

QVersionNumber PluginInstaller::installed_version() const
{
    if (!m_manifest)
        return {};
    // The running plugin, or a newer one installed since it was loaded.
    const QString &id = m_manifest->id;
    QVersionNumber version = read_record(QDir(m_plugins_folder).filePath(id), id).version;
    for (const LoadedPlugin &plugin : m_loaded) {
        if (plugin.id == id && compare_versions(plugin.version, version) > 0)
            version = plugin.version;
    }
    return version;
}

QString PluginInstaller::refusal() const
{
    const PluginManifest &manifest = *m_manifest;
    const QString &id = manifest.id;
    if (is_first_party_plugin_id(id))
        return QStringLiteral("%1 is one of Corvane's own; it updates only through its own "
                              "update manifest")
            .arg(id);
    const Entry *newest = release();
    if (!newest)
        return QStringLiteral("no release has the method %1").arg(m_method);
    const QString folder = QDir(m_plugins_folder).filePath(id);
    for (const LoadedPlugin &plugin : m_loaded) {
        if (plugin.id.compare(id, Qt::CaseInsensitive) != 0)
            continue;
        if (QFileInfo(plugin.install_folder).canonicalFilePath() !=
                QFileInfo(folder).canonicalFilePath() ||
            plugin.id != id)
            return QStringLiteral("%1 is installed in %2; it updates only through its own "
                                  "update manifest")
                .arg(plugin.id, plugin.install_folder);
    }
    const QVersionNumber installed = installed_version();
    if (installed.isNull() && has_library(folder, id))
        return QStringLiteral("a plugin %1 of unknown version is installed in %2").arg(id, folder);
    if (!installed.isNull() && compare_versions(newest->version, installed) <= 0)
        return QStringLiteral("%1 %2 is installed; %3 is not newer")
            .arg(id, installed.toString(), newest->version_text);
    return {};
}

void PluginInstaller::install()
{
    if (!m_manifest || m_work || m_fetch->running())
        return;
    const PluginManifest &manifest = *m_manifest;
    const QString prefix =
        QStringLiteral("plugin installer: failed to install %1: ").arg(manifest.id);
    if (const QString why = refusal(); !why.isEmpty())
        return fail(prefix + why);
    const Entry *newest = release();
    m_steps = newest->methods.value(m_method);
    QStringList downloads;
    for (const Step &step : std::as_const(m_steps)) {
        if (step.kind == Step::Run)
            return fail(prefix + QStringLiteral("a plugin release may not run %1").arg(step.value));
        if (!is_safe_relative_path(step.destination) ||
            (step.kind == Step::Extract && !is_safe_relative_path(step.value)))
            return fail(prefix + QStringLiteral("unsafe path in a step"));
        if (step.kind == Step::Download && step.size > kMaxPackageSize)
            return fail(prefix + QStringLiteral("%1 is over the limit of %2 bytes")
                                     .arg(step.value)
                                     .arg(kMaxPackageSize));
        if (step.kind == Step::Download)
            downloads.append(QDir::cleanPath(step.destination));
        if (step.kind == Step::Extract && !downloads.contains(QDir::cleanPath(step.value)))
            return fail(prefix + QStringLiteral("%1 is extracted but not downloaded before")
                                     .arg(step.value));
    }
    if (!QDir().mkpath(m_plugins_folder))
        return fail(prefix + QStringLiteral("could not create %1").arg(m_plugins_folder));
    // In the plugins folder, so that the final move is a rename.
    m_work = std::make_unique<QTemporaryDir>(
        QDir(m_plugins_folder).filePath(QStringLiteral(".install.XXXXXX")));
    if (!m_work->isValid())
        return fail(prefix + m_work->errorString());
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
    const QString prefix =
        QStringLiteral("plugin installer: failed to install %1: ").arg(m_manifest->id);
    const QString path =
        QDir(m_work->path()).filePath(QStringLiteral("downloads/") + step.destination);
    QDir().mkpath(QFileInfo(path).absolutePath());
    m_download = std::make_unique<QFile>(path);
    if (!m_download->open(QIODevice::WriteOnly))
        return fail(prefix +
                    QStringLiteral("could not write %1: %2").arg(path, m_download->errorString()));
    m_fetch->start(
        url,
        [this, url, prefix](const FetchResult &result) {
            if (!result.ok())
                return fail(prefix + QStringLiteral("refused %1: %2")
                                         .arg(url.toDisplayString(), result.error));
            m_download->close();
            if (m_download->error() != QFileDevice::NoError)
                return fail(prefix + QStringLiteral("could not write %1: %2")
                                         .arg(m_download->fileName(), m_download->errorString()));
            m_download.reset();
            next_download();
        },
        step.sha256, step.size, m_download.get());
}

void PluginInstaller::unpack()
{
    // Every archive into the staging folder, on a thread of its own.
    QList<std::pair<QString, QString>> archives;
    const QDir work(m_work->path());
    for (const Step &step : std::as_const(m_steps)) {
        if (step.kind == Step::Extract)
            archives.append({work.filePath(QStringLiteral("downloads/") + step.value),
                             work.filePath(QStringLiteral("stage/") + step.destination)});
    }
    QDir().mkpath(work.filePath(QStringLiteral("stage")));
    m_cancel = std::make_shared<std::atomic_bool>(false);
    auto error = std::make_shared<QString>();
    m_thread = QThread::create([archives, limits = m_limits, cancel = m_cancel, error] {
        for (const auto &[archive, folder] : archives) {
            if (!unpack_archive(archive, folder, limits, error.get(), cancel.get()))
                return;
        }
    });
    connect(m_thread, &QThread::finished, this, [this, error] {
        m_thread->wait();
        delete m_thread;
        m_thread = nullptr;
        unpacked(*error);
    });
    m_thread->start();
}

void PluginInstaller::unpacked(const QString &unpack_error)
{
    const QString id = m_manifest->id;
    const QString prefix = QStringLiteral("plugin installer: failed to install %1: ").arg(id);
    if (!unpack_error.isEmpty())
        return fail(prefix + unpack_error);
    const QString stage = QDir(m_work->path()).filePath(QStringLiteral("stage"));
    if (!has_library(stage, id))
        return fail(prefix + QStringLiteral("the package holds no library named %1").arg(id));
    QString error;
    if (!move_in(&error))
        return fail(prefix + error);
    m_work.reset();
    const QString folder = QDir(m_plugins_folder).filePath(id);
    qCInfo(lc_update).noquote()
        << QStringLiteral("plugin installer: installed %1 into %2").arg(id, folder);
    emit installed(folder);
}

bool PluginInstaller::move_in(QString *error)
{
    const QString id = m_manifest->id;
    const QDir work(m_work->path());
    const QString stage = work.filePath(QStringLiteral("stage"));
    const QString folder = QDir(m_plugins_folder).filePath(id);
    const QStringList package = top_level_names(stage);

    // The plugin's own data comes along: whatever the folder holds that the
    // last package did not bring, and its preferences always.
    const bool update = QFileInfo(folder).isDir();
    if (update) {
        const Record record = read_record(folder, id);
        for (const QString &name : top_level_names(folder)) {
            const bool data = name == kPreferences ||
                              (name != kRecord && !record.files.contains(name) &&
                               (record.found || !package.contains(name)));
            if (!data)
                continue;
            const QString target = QDir(stage).filePath(name);
            if (QFileInfo::exists(target) &&
                !(QFileInfo(target).isDir() ? QDir(target).removeRecursively()
                                            : QFile::remove(target))) {
                *error = QStringLiteral("could not keep %1").arg(name);
                return false;
            }
            if (!copy_entry(QDir(folder).filePath(name), target)) {
                *error = QStringLiteral("could not keep %1").arg(name);
                return false;
            }
        }
    }
    QSaveFile record(QDir(stage).filePath(kRecord));
    const QJsonObject root{{QStringLiteral("id"), id},
                           {QStringLiteral("version"), release()->version_text},
                           {QStringLiteral("files"), QJsonArray::fromStringList(package)}};
    if (!record.open(QIODevice::WriteOnly) || record.write(QJsonDocument(root).toJson()) < 0 ||
        !record.commit()) {
        *error = QStringLiteral("could not write %1: %2").arg(record.fileName(), record.errorString());
        return false;
    }

    const QString previous = work.filePath(QStringLiteral("previous"));
    if (update && !QDir().rename(folder, previous)) {
        *error = QStringLiteral("could not move %1 aside (is it in use?)").arg(folder);
        return false;
    }
    if (!QDir().rename(stage, folder)) {
        *error = QStringLiteral("could not move the plugin into %1").arg(folder);
        if (update && !QDir().rename(previous, folder))
            *error += QStringLiteral("; the old plugin is kept in %1").arg(previous);
        if (update && QFileInfo(previous).isDir())
            m_work->setAutoRemove(false);
        return false;
    }
    return true;
}

} // namespace corv::update
