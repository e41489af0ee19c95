#include "app/builtin_plugin.h"

#include "app/identity.h"
#include "locale/translate.h"
#include "nodes/builtin_nodes.h"
#include "sdk/plugin_list.h"

namespace corv {

namespace {

BuiltinNodeRegistrar g_registrar = nullptr;

corv_store *preferences_store()
{
    engine::Plugin *plugin = engine::builtin_plugin();
    return plugin ? corv_plugin_preferences_store(plugin->handle()) : nullptr;
}

// The "language" preference, when one is stored: a position in the locale
// list, applied to the application's translator and every plugin's.
void apply_language(corv_store *store)
{
    if (!store || !corv_store_has_int(store, "language"))
        return;
    const int position = corv_store_get_int(store, "language");
    engine::Plugin *plugin = engine::builtin_plugin();
    if (plugin && plugin->list())
        plugin->list()->apply_language_preference(position);
    else
        locale::apply_language_preference(position);
}

void builtin_get_info(corv_plugin_info *info)
{
    info->id = kBuiltinPluginId;
    info->name = kApplicationName;
    info->version = kApplicationVersion;
    info->author = kAuthor;
    info->update_url = kUpdateManifest;
}

int builtin_load(corv_registration *registration)
{
    if (g_registrar)
        g_registrar(registration);
    return 0;
}

void builtin_postload()
{
    apply_language(preferences_store());
}

void builtin_unload() {}

// The general page of the preferences window is declared by the window.
void builtin_build_preferences(cui_generate_context *) {}

void builtin_confirm_preferences(corv_store *store)
{
    apply_language(store);
}

void builtin_migrate_load_preferences(corv_store *) {}
void builtin_migrate_save_preferences(corv_store *) {}

} // namespace

void set_builtin_node_registrar(BuiltinNodeRegistrar registrar)
{
    g_registrar = registrar;
}

void install_builtin_nodes()
{
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
    entry.build_preferences = &builtin_build_preferences;
    entry.confirm_preferences = &builtin_confirm_preferences;
    entry.migrate_load_preferences = &builtin_migrate_load_preferences;
    entry.migrate_save_preferences = &builtin_migrate_save_preferences;
    return entry;
}

} // namespace corv
