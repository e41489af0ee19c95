#include "sdk/plugin.h"

#include "locale/translate.h"
#include "locale/translator.h"
#include "sdk/plugin_preferences.h"

#include <QLibrary>
#include <QStandardPaths>

namespace corv::engine {

namespace {

QString data_dir_for(const QString &id)
{
    return QStandardPaths::writableLocation(QStandardPaths::AppDataLocation) + QLatin1StringView("/plugins/") + id;
}

QByteArray copy(const char *text)
{
    return text ? QByteArray(text) : QByteArray("");
}

Plugin *g_builtin_plugin = nullptr;

} // namespace

Plugin::Plugin(const QString &folder_name, const QString &install_dir,
               std::unique_ptr<QLibrary> library, const PluginEntryPoints &entry_points)
    : m_folder_name(folder_name),
      m_install_dir(install_dir),
      m_install_dir_utf8(install_dir.toUtf8()),
      m_library(std::move(library)),
      m_entry_points(entry_points)
{
    m_identity.id = folder_name;
    // The folder is named like the plugin, so the data folder is known
    // before cplugin_set_handle (the id is checked against it later).
    if (!folder_name.isEmpty()) {
        m_data_dir = data_dir_for(folder_name);
        m_data_dir_utf8 = m_data_dir.toUtf8();
    }
}

Plugin::~Plugin()
{
    if (g_builtin_plugin == this)
        g_builtin_plugin = nullptr;
}

void Plugin::set_info(const corv_plugin_info &info)
{
    m_id = copy(info.id);
    m_name = copy(info.name);
    m_version_text = copy(info.version);
    m_author = copy(info.author);
    m_update_url = copy(info.update_url);
    m_description = copy(info.description);
    m_website = copy(info.website);
    m_version = QVersionNumber::fromString(QString::fromUtf8(m_version_text));
    m_identity.id = QString::fromUtf8(m_id);
    m_identity.name = QString::fromUtf8(m_name);
    m_identity.icon = decode_icon(info.icon);
    // The executable's own node set has no folder: its data folder follows
    // its id.
    if (m_folder_name.isEmpty()) {
        m_data_dir = data_dir_for(m_identity.id);
        m_data_dir_utf8 = m_data_dir.toUtf8();
    }
}

locale::Translator *Plugin::translator()
{
    if (is_builtin())
        return locale::application_translator();
    if (!m_translator) {
        m_translator = std::make_unique<locale::Translator>(m_id, m_install_dir
                                                                      + QLatin1StringView("/locale"));
        // Start in the language the program speaks; "en-US" is the fallback anyway.
        const QByteArray language = locale::application_translator()->locale();
        if (!language.isEmpty() && language != "en-US")
            m_translator->load(language);
    }
    return m_translator.get();
}

void Plugin::load_language(QByteArrayView locale_id)
{
    if (m_translator && m_translator->locale() != locale_id)
        m_translator->load(locale_id);
}

void Plugin::make_preferences()
{
    if (m_preferences || !m_entry_points.build_preferences)
        return;
    m_preferences = std::make_unique<PluginPreferences>(
        PluginPreferences::file_path_for(m_identity.id),
        PluginPreferences::Migrations{m_entry_points.migrate_load_preferences,
                                      m_entry_points.migrate_save_preferences});
}

Plugin *builtin_plugin()
{
    return g_builtin_plugin;
}

void set_builtin_plugin(Plugin *plugin)
{
    g_builtin_plugin = plugin;
}

} // namespace corv::engine
