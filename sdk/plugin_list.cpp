#include "sdk/plugin_list.h"

#include "engine/handles.h"
#include "engine/node_registry.h"
#include "sdk/logging.h"
#include "sdk/plugin_preferences.h"
#include "locale/translate.h"
#include "locale/translator.h"

#include <QDir>
#include <QFileInfo>
#include <QLibrary>

namespace corv::engine {

namespace {

template <typename Fn>
Fn resolve(QLibrary &library, const char *name)
{
    return reinterpret_cast<Fn>(library.resolve(name));
}

PluginEntryPoints resolve_entry_points(QLibrary &library)
{
    PluginEntryPoints entry;
    entry.sdk_version = resolve<cplugin_sdk_version_fn>(library, CPLUGIN_SDK_VERSION_NAME);
    entry.set_handle = resolve<cplugin_set_handle_fn>(library, CPLUGIN_SET_HANDLE_NAME);
    entry.get_info = resolve<cplugin_get_info_fn>(library, CPLUGIN_GET_INFO_NAME);
    entry.load = resolve<cplugin_load_fn>(library, CPLUGIN_LOAD_NAME);
    entry.postload = resolve<cplugin_postload_fn>(library, CPLUGIN_POSTLOAD_NAME);
    entry.unload = resolve<cplugin_unload_fn>(library, CPLUGIN_UNLOAD_NAME);
    entry.build_preferences =
        resolve<cplugin_build_preferences_fn>(library, CPLUGIN_BUILD_PREFERENCES_NAME);
    entry.confirm_preferences =
        resolve<cplugin_confirm_preferences_fn>(library, CPLUGIN_CONFIRM_PREFERENCES_NAME);
    entry.migrate_load_preferences = resolve<cplugin_migrate_load_preferences_fn>(
        library, CPLUGIN_MIGRATE_LOAD_PREFERENCES_NAME);
    entry.migrate_save_preferences = resolve<cplugin_migrate_save_preferences_fn>(
        library, CPLUGIN_MIGRATE_SAVE_PREFERENCES_NAME);
    return entry;
}

// Unloads a library that failed one of the load steps.
void unload_refused(QLibrary *library, const QString &path)
{
    if (library && library->isLoaded() && !library->unload())
        qCWarning(lc_sdk, "Failed to unload plugin at %s: %s", qUtf8Printable(path),
                  qUtf8Printable(library->errorString()));
}

} // namespace

PluginList::PluginList(QObject *parent) : QObject(parent) {}

PluginList::~PluginList()
{
    unload_all();
}

Plugin *PluginList::add_builtin(const PluginEntryPoints &entry_points, const QString &install_dir)
{
    return admit(install_dir, QString(), install_dir, nullptr, entry_points);
}

void PluginList::scan(const QString &plugins_folder)
{
    const QFileInfoList folders = QDir(plugins_folder).entryInfoList(
        QDir::Dirs | QDir::Readable | QDir::NoDotAndDotDot, QDir::Unsorted);
    for (const QFileInfo &folder : folders) {
        const QString path = folder.filePath();
        qCDebug(lc_sdk, "Found plugin in %s", qUtf8Printable(path));
        load_folder(path);
    }
}

Plugin *PluginList::load_folder(const QString &folder)
{
    const QString folder_name = QFileInfo(folder).fileName();
    const QString path = folder + u'/' + folder_name;

    // Exactly "<folder>/<folder>" and the platform's suffix: given the whole
    // file name of an existing file, QLibrary tries no other (such as one
    // with a "lib" prefix).
    const QString file = path + QLatin1StringView(CORV_PLUGIN_SUFFIX);
    if (!QFileInfo(file).isFile()) {
        qCWarning(lc_sdk, "Failed to load plugin at %s: %s", qUtf8Printable(path),
                  qUtf8Printable(QStringLiteral("Cannot load library %1: No such file or directory").arg(file)));
        return nullptr;
    }
    auto library = std::make_unique<QLibrary>(file);
    // Every undefined symbol is bound now, so a plugin that needs an export
    // this program lacks fails here rather than at its first call.
    library->setLoadHints(QLibrary::ResolveAllSymbolsHint);
    if (!library->load()) {
        qCWarning(lc_sdk, "Failed to load plugin at %s: %s", qUtf8Printable(path),
                  qUtf8Printable(library->errorString()));
        return nullptr;
    }
    const PluginEntryPoints entry_points = resolve_entry_points(*library);
    return admit(path, folder_name, folder, std::move(library), entry_points);
}

Plugin *PluginList::admit(const QString &path, const QString &folder_name,
                          const QString &install_dir, std::unique_ptr<QLibrary> library,
                          const PluginEntryPoints &entry_points)
{
    const QByteArray path_utf8 = path.toUtf8();
    const auto refuse = [&](const char *reason) {
        qCWarning(lc_sdk, "Failed to load plugin at %s: %s", path_utf8.constData(), reason);
        unload_refused(library.get(), path);
        return nullptr;
    };

    if (!entry_points.sdk_version)
        return refuse("missing required cplugin_sdk_version function");
    const int version = entry_points.sdk_version();
    qCDebug(lc_sdk, "  Supports SDK version: %i", version);
    if (version != CORV_SDK_VERSION) {
        qCWarning(lc_sdk,
                  "Failed to load plugin at %s: required SDK version is not supported (got %i, "
                  "supports %i)",
                  path_utf8.constData(), version, CORV_SDK_VERSION);
        unload_refused(library.get(), path);
        return nullptr;
    }
    if (!entry_points.set_handle)
        return refuse("missing required cplugin_set_handle function");
    if (!entry_points.get_info)
        return refuse("missing required cplugin_info function");

    QLibrary *const library_ptr = library.get();
    auto plugin = std::make_unique<Plugin>(folder_name, install_dir, std::move(library),
                                           entry_points);
    entry_points.set_handle(plugin->handle());
    corv_plugin_info info = {};
    entry_points.get_info(&info);

    // The executable's own node set has no folder to match.
    if (library_ptr) {
        const QByteArray id = info.id ? QByteArray(info.id) : QByteArray();
        if (id != folder_name.toUtf8()) {
            qCWarning(lc_sdk,
                      "Failed to load plugin at %s: the plugin ID and directory do not match (ID "
                      "is %s, directory is %s)",
                      path_utf8.constData(), id.constData(), qUtf8Printable(folder_name));
            unload_refused(library_ptr, path);
            return nullptr;
        }
    }

    plugin->set_info(info);
    qCInfo(lc_sdk, "Found plugin %s: \"%s\" by %s (%s)", plugin->id_utf8().constData(),
           plugin->name().constData(), plugin->author().constData(),
           plugin->update_url().constData());

    if (const Plugin *first = find(plugin->id())) {
        qCWarning(lc_sdk, "Failed to load plugin at %s: a plugin with the ID %s already exists in %s",
                  path_utf8.constData(), plugin->id_utf8().constData(),
                  first->install_dir_utf8().constData());
        unload_refused(library_ptr, path);
        return nullptr;
    }

    plugin->make_preferences();
    if (PluginPreferences *preferences = plugin->preferences()) {
        Plugin *raw = plugin.get();
        connect(preferences, &PluginPreferences::rebuild_requested, this,
                [this, raw] { Q_EMIT preferences_rebuild_requested(raw); });
    }
    plugin->set_list(this);
    m_plugins.push_back(std::move(plugin));
    return m_plugins.back().get();
}

void PluginList::initialize(NodeRegistry &registry)
{
    qCInfo(lc_sdk, "Initializing all plugins");

    qCDebug(lc_sdk, "Initializing plugin preferences:");
    for (const auto &plugin : m_plugins) {
        qCDebug(lc_sdk, "  Initialize %s preferences", plugin->id_utf8().constData());
        if (PluginPreferences *preferences = plugin->preferences())
            preferences->read();
    }

    qCDebug(lc_sdk, "Loading plugins:");
    for (std::size_t i = 0; i < m_plugins.size();) {
        Plugin &plugin = *m_plugins[i];
        qCDebug(lc_sdk, "  Loading %s", plugin.id_utf8().constData());
        const cplugin_load_fn load = plugin.entry_points().load;
        if (!load) {
            ++i;
            continue;
        }
        NodeRegistration registration(registry, plugin.identity());
        plugin.set_loading(true);
        const int result = load(handles::to_handle(&registration));
        plugin.set_loading(false);
        if (result == 0) {
            registration.commit();
            ++i;
            continue;
        }
        qCDebug(lc_sdk, "  Plugin failed to load.");
        registration.discard();
        // The following plugins move up; the pass goes on at the same position.
        std::unique_ptr<Plugin> removed = std::move(m_plugins[i]);
        m_plugins.erase(m_plugins.begin() + std::ptrdiff_t(i));
        unload(*removed);
    }

    qCDebug(lc_sdk, "Calling postload on plugins:");
    for (const auto &plugin : m_plugins) {
        qCDebug(lc_sdk, "  Postload %s", plugin->id_utf8().constData());
        if (const cplugin_postload_fn postload = plugin->entry_points().postload)
            postload();
    }
}

void PluginList::unload(Plugin &plugin)
{
    qCDebug(lc_sdk, "Unloading %s", plugin.id_utf8().constData());
    if (const cplugin_unload_fn unload = plugin.entry_points().unload)
        unload();
    if (QLibrary *library = plugin.library(); library && !library->unload())
        qCWarning(lc_sdk, "Failed to unload %s: %s", plugin.id_utf8().constData(),
                  qUtf8Printable(library->errorString()));
}

void PluginList::unload_all()
{
    std::vector<std::unique_ptr<Plugin>> plugins = std::move(m_plugins);
    m_plugins.clear();
    for (const auto &plugin : plugins)
        unload(*plugin);
}

Plugin *PluginList::find(const QString &id) const
{
    for (const auto &plugin : m_plugins) {
        if (plugin->id() == id)
            return plugin.get();
    }
    return nullptr;
}

void PluginList::load_language(QByteArrayView locale_id)
{
    for (const auto &plugin : m_plugins)
        plugin->load_language(locale_id);
}

bool PluginList::apply_language_preference(qsizetype position)
{
    if (!locale::apply_language_preference(position))
        return false;
    load_language(locale::application_translator()->locale());
    return true;
}

void PluginList::confirm_preferences()
{
    for (const auto &plugin : m_plugins) {
        PluginPreferences *preferences = plugin->preferences();
        if (!preferences)
            continue;
        if (const cplugin_confirm_preferences_fn confirm = plugin->entry_points().confirm_preferences)
            confirm(preferences->store_handle());
        preferences->write();
    }
}

} // namespace corv::engine
