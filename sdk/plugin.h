#pragma once

#include "engine/node_registry.h"
#include "sdk/include/corvane/corvane_sdk.h"

#include <QByteArray>
#include <QImage>
#include <QString>
#include <QVersionNumber>

#include <memory>

class QLibrary;

// The executable's own required entry points, exported like a plugin's: the
// built-in node set is loaded through them (see PluginList::add_builtin).
CPLUGIN_EXPORT int cplugin_sdk_version(void);
CPLUGIN_EXPORT void cplugin_set_handle(corv_plugin *plugin);

namespace corv::locale {
class Translator;
}

namespace corv::engine {

class PluginPreferences;
class PluginList;

// The entry points of a plugin, as resolved from its library (or, for the
// executable's own node set, given directly). The first three are required.
struct PluginEntryPoints {
    cplugin_sdk_version_fn sdk_version = nullptr;
    cplugin_set_handle_fn set_handle = nullptr;
    cplugin_get_info_fn get_info = nullptr;
    cplugin_load_fn load = nullptr;
    cplugin_postload_fn postload = nullptr;
    cplugin_unload_fn unload = nullptr;
    cplugin_build_preferences_fn build_preferences = nullptr;
    cplugin_confirm_preferences_fn confirm_preferences = nullptr;
    cplugin_migrate_load_preferences_fn migrate_load_preferences = nullptr;
    cplugin_migrate_save_preferences_fn migrate_save_preferences = nullptr;
};

// One loaded plugin: its library, folders, info, translator and preferences.
// A pointer to it is the plugin handle of the C interface (corv_plugin).
// Owned by the PluginList, which also drives its entry points.
class Plugin
{
public:
    // library: null for the executable's own node set.
    Plugin(const QString &folder_name, const QString &install_dir, std::unique_ptr<QLibrary> library,
           const PluginEntryPoints &entry_points);
    // Does not unload: see PluginList.
    ~Plugin();
    Plugin(const Plugin &) = delete;
    Plugin &operator=(const Plugin &) = delete;

    corv_plugin *handle() { return reinterpret_cast<corv_plugin *>(this); }
    static Plugin *from_handle(corv_plugin *handle) { return reinterpret_cast<Plugin *>(handle); }

    // Copies the strings of the info record, parses the version and decodes
    // the icon. The data folder, "<application data>/plugins/<id>", is known
    // from construction for a plugin with a folder (whose name is the id),
    // and from here for the executable's own node set.
    void set_info(const corv_plugin_info &info);

    // What the node registry records as the registering plugin.
    const PluginIdentity &identity() const { return m_identity; }
    const QString &id() const { return m_identity.id; }
    const QByteArray &id_utf8() const { return m_id; }
    const QByteArray &name() const { return m_name; }
    const QByteArray &version_text() const { return m_version_text; }
    const QVersionNumber &version() const { return m_version; }
    const QByteArray &author() const { return m_author; }
    const QByteArray &update_url() const { return m_update_url; }
    const QByteArray &description() const { return m_description; }
    const QByteArray &website() const { return m_website; }
    const QImage &icon() const { return m_identity.icon; }

    const QString &folder_name() const { return m_folder_name; }
    const QString &install_dir() const { return m_install_dir; }
    const QByteArray &install_dir_utf8() const { return m_install_dir_utf8; }
    const QString &data_dir() const { return m_data_dir; }
    const QByteArray &data_dir_utf8() const { return m_data_dir_utf8; }

    const PluginEntryPoints &entry_points() const { return m_entry_points; }
    // Null for the executable's own node set.
    QLibrary *library() const { return m_library.get(); }
    bool is_builtin() const { return !m_library; }

    // The translator over "<install dir>/locale", made on first use; the
    // executable's own node set uses the application's translator.
    locale::Translator *translator();
    // Loads a locale into the plugin's translator, when it has one already
    // and speaks another (a new one starts in the application's language).
    void load_language(QByteArrayView locale_id);

    // The list that holds the plugin; null before it is admitted.
    PluginList *list() const { return m_list; }
    void set_list(PluginList *list) { m_list = list; }

    // Set while cplugin_load runs.
    bool is_loading() const { return m_loading; }
    void set_loading(bool loading) { m_loading = loading; }

    // Null when the plugin has no preferences page.
    PluginPreferences *preferences() const { return m_preferences.get(); }
    // Gives the plugin preferences when it declares a preferences page.
    void make_preferences();

private:
    QString m_folder_name;
    QString m_install_dir;
    QByteArray m_install_dir_utf8;
    QString m_data_dir;
    QByteArray m_data_dir_utf8;
    std::unique_ptr<QLibrary> m_library;
    PluginEntryPoints m_entry_points;

    PluginIdentity m_identity;
    QByteArray m_id;
    QByteArray m_name;
    QByteArray m_version_text;
    QVersionNumber m_version;
    QByteArray m_author;
    QByteArray m_update_url;
    QByteArray m_description;
    QByteArray m_website;

    std::unique_ptr<locale::Translator> m_translator;
    std::unique_ptr<PluginPreferences> m_preferences;
    bool m_loading = false;
    PluginList *m_list = nullptr;
};

// The plugin that cplugin_set_handle of the executable itself was given (the
// built-in node set); null before, and again once that plugin is deleted.
Plugin *builtin_plugin();
void set_builtin_plugin(Plugin *plugin);

} // namespace corv::engine
