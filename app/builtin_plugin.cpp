#include "app/builtin_plugin.h"

#include "app/identity.h"
#include "engine/config_manager.h"
#include "engine/project_runtime.h"
#include "input/key_injector.h"
#include "input/platform.h"
#include "nodes/hotkeys.h"
#include "widgets/rack_panel_view_model.h"
#include "locale/locale_list.h"
#include "locale/translate.h"
#include "nodes/builtin_nodes.h"
#include "sdk/plugin_list.h"
#include "sdk/plugin_preferences.h"
#include "cui/property_surface.h"
#include "widgets/node_type_text.h"
#include "widgets/preferences_window_view_model.h"

#include <QGuiApplication>
#include <QLibraryInfo>
#include <QLocale>
#include <QLoggingCategory>
#include <QTranslator>
#include <QSystemTrayIcon>

#include <memory>
#include <vector>

namespace corv {

namespace {

Q_LOGGING_CATEGORY(lcBuiltin, "corv.app")

BuiltinNodeRegistrar g_registrar = nullptr;
engine::ConfigManager *g_config = nullptr;

// The application preferences as the config manager sees them.
void read_config()
{
    engine::Plugin *plugin = engine::builtin_plugin();
    if (g_config && plugin && plugin->preferences())
        g_config->read(plugin->preferences()->collection());
}

// A translated text as the cui calls take it.
QByteArray utf8(const QString &text)
{
    return text.toUtf8();
}

bool system_tray_available()
{
    // Only a window system can have a tray; asking without one is not safe.
    return qobject_cast<QGuiApplication *>(QCoreApplication::instance()) &&
           QSystemTrayIcon::isSystemTrayAvailable();
}

corv_store *preferences_store()
{
    engine::Plugin *plugin = engine::builtin_plugin();
    return plugin ? corv_plugin_preferences_store(plugin->handle()) : nullptr;
}

// Qt's own texts (the standard buttons of dialogs, the menus of text fields)
// in the locale's language: "qtbase_<language>.qm" from "translations" beside
// the program or from Qt's own translations folder. English needs none.
void apply_qt_translation(const QByteArray &locale_id)
{
    static QTranslator *installed = nullptr;
    if (!QCoreApplication::instance())
        return;
    if (installed) {
        QCoreApplication::removeTranslator(installed);
        delete installed;
        installed = nullptr;
    }
    const QLocale language(QString::fromLatin1(locale_id).replace(u'-', u'_'));
    if (language.language() == QLocale::English || language.language() == QLocale::C)
        return;
    auto translator = std::make_unique<QTranslator>();
    const QString folders[] = {QCoreApplication::applicationDirPath() + QStringLiteral("/translations"),
                               QLibraryInfo::path(QLibraryInfo::TranslationsPath)};
    for (const QString &folder : folders) {
        if (translator->load(language, QStringLiteral("qtbase"), QStringLiteral("_"), folder)) {
            installed = translator.release();
            QCoreApplication::installTranslator(installed);
            return;
        }
    }
    qCInfo(lcBuiltin, "No translation of Qt's own texts for %s", locale_id.constData());
}

// The "language" preference, when one is stored: a position in the locale
// list, applied to the application's translator and every plugin's. A
// position outside the list is ignored: the language stays as it is, and the
// stored value becomes the default's position, so that the language field
// shows the language in use instead of standing in its first row for it.
void apply_language(corv_store *store)
{
    if (!store || !corv_store_has_int(store, "language"))
        return;
    const int position = corv_store_get_int(store, "language");
    const qsizetype count = locale::locale_list().size();
    if (position < 0 || position >= count) {
        qCWarning(lcBuiltin, "Ignoring the stored language %d: the locale list has %lld languages",
                  position, qlonglong(count));
        corv_store_set_int(store, "language", std::int32_t(locale::default_language_position()));
        return;
    }
    engine::Plugin *plugin = engine::builtin_plugin();
    const QByteArray before = locale::application_translator()->locale();
    if (plugin && plugin->list())
        plugin->list()->apply_language_preference(position);
    else
        locale::apply_language_preference(position);
    const QByteArray now = locale::application_translator()->locale();
    if (now != before)
        apply_qt_translation(now);
}

void builtin_get_info(corv_plugin_info *info)
{
    info->id = kBuiltinPluginId;
    info->name = kApplicationName;
    info->version = kApplicationVersion;
    info->author = kAuthor;
    info->update_url = update_manifest();
}

int builtin_load(corv_registration *registration)
{
    // The built-in plugin loads first: with the stored language applied here,
    // every node type (this node set's and each plugin's) registers its name
    // and category in it.
    apply_language(preferences_store());
    if (g_registrar)
        g_registrar(registration);
    return 0;
}

void builtin_postload()
{
    // One build of the general page, without any window, puts the default
    // of every field that the file did not hold into the preferences.
    if (engine::Plugin *plugin = engine::builtin_plugin())
        widgets::make_preferences_surface(*plugin);
    read_config();
}

void builtin_unload() {}

void builtin_confirm_preferences(corv_store *store)
{
    apply_language(store);
    read_config();
}

void builtin_migrate_load_preferences(corv_store *) {}
void builtin_migrate_save_preferences(corv_store *) {}

} // namespace

void set_builtin_config_manager(engine::ConfigManager *config)
{
    g_config = config;
}

void build_application_preferences(cui_generate_context *context)
{
    const QStringList names = locale::locale_list().display_names();
    std::vector<QByteArray> name_bytes;
    std::vector<const char *> items;
    for (const QString &name : names)
        name_bytes.push_back(name.toUtf8());
    for (const QByteArray &name : name_bytes)
        items.push_back(name.constData());
    cui_select(context, "language", utf8(locale::translate("PreferencesWindow.LanguageField")).constData(), items.data(), nullptr,
               std::uint32_t(items.size()), std::int32_t(locale::default_language_position()));
    cui_checkbox(context, "updatecheck", utf8(locale::translate("PreferencesWindow.CheckForUpdatesField")).constData(), true);
    cui_checkbox(context, "minimizetotray", utf8(locale::translate("PreferencesWindow.MinimizeToTray")).constData(), true);
    const bool tray = system_tray_available();
    cui_set_enabled(context, tray);
    // Greyed out, the option says why.
    if (!tray)
        cui_label(context, "", utf8(locale::translate("PreferencesWindow.NoSystemTray")).constData());
    cui_int(context, "saveversions", utf8(locale::translate("PreferencesWindow.SaveVersions")).constData(), 3, 1, 1000);

    cui_start_group(context, utf8(locale::translate("PreferencesWindow.AutoSave")).constData());
    const bool autosave = cui_checkbox(context, "autosave", utf8(locale::translate("PreferencesWindow.AutoSaveEnabled")).constData(), true);
    cui_int(context, "autosaveminutes", utf8(locale::translate("PreferencesWindow.AutoSaveMinutes")).constData(), 5, 1, 2147483647);
    cui_set_enabled(context, autosave);
    cui_end_group(context);

    cui_start_group(context, utf8(locale::translate("PreferencesWindow.Advanced")).constData());
    cui_int(context, "inputpollms", utf8(locale::translate("PreferencesWindow.InputPollRate")).constData(), 16, 0, 1000);
    cui_label(context, "", utf8(locale::translate("PreferencesWindow.InputPollRateDescription")).constData());
    cui_int(context, "inputgapms", utf8(locale::translate("PreferencesWindow.InputGap")).constData(), 50, 0, 1000);
    cui_label(context, "", utf8(locale::translate("PreferencesWindow.InputGapDescription")).constData());
    cui_end_group(context);
}

void set_builtin_node_registrar(BuiltinNodeRegistrar registrar)
{
    g_registrar = registrar;
}

void install_builtin_nodes()
{
    // Pausing every rack and closing a project let go of every key.
    engine::ProjectRuntime::set_halt_hook([] { input::KeyInjector::cancel_everything(); });
    // Without global keyboard input the hotkey nodes carry a mark.
    widgets::RackPanelViewModel::set_idle_note([](const QString &type_id) {
        if (!nodes::needs_global_input(type_id.toUtf8().constData()) || input::global_input_available())
            return QString();
        return locale::translate("RackPanel.NoGlobalInput");
    });
    // The views show the built-in types' texts from their keys, in the language of the moment.
    widgets::set_node_type_keys_lookup([](QStringView type_id) {
        const nodes::BuiltinNodeRow *row = nodes::find_builtin_node_row(type_id);
        return row ? widgets::NodeTypeKeys{row->name_key, row->category_key, row->description_key}
                   : widgets::NodeTypeKeys{};
    });
    set_builtin_node_registrar([](corv_registration *registration) {
        engine::Plugin *plugin = engine::builtin_plugin();
        nodes::register_builtin_nodes(plugin ? plugin->handle() : nullptr, registration);
    });
}

engine::PluginEntryPoints builtin_plugin_entry_points()
{
    engine::PluginEntryPoints entry;
    entry.sdk_version = &::cplugin_sdk_version;
    entry.set_handle = &::cplugin_set_handle;
    entry.get_info = &builtin_get_info;
    entry.load = &builtin_load;
    entry.postload = &builtin_postload;
    entry.unload = &builtin_unload;
    entry.build_preferences = &build_application_preferences;
    entry.confirm_preferences = &builtin_confirm_preferences;
    entry.migrate_load_preferences = &builtin_migrate_load_preferences;
    entry.migrate_save_preferences = &builtin_migrate_save_preferences;
    return entry;
}

} // namespace corv
