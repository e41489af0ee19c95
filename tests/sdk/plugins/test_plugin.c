/*
 * The plugin the loader tests load, built in variants that each break one
 * rule (see tests/sdk/CMakeLists.txt). Every entry point that runs reports
 * "<id> <what>" to the test executable's tst_sdk_record(), so the tests see
 * which calls were made and in what order.
 *
 *   TP_ID                  the plugin's id (its folder and file name)
 *   TP_INFO_ID             the id cplugin_get_info reports (default TP_ID)
 *   TP_SDK_VERSION         what cplugin_sdk_version returns (default 1)
 *   TP_WITHOUT_SDK_VERSION, TP_WITHOUT_SET_HANDLE, TP_WITHOUT_GET_INFO
 *                          leave out a required entry point
 *   TP_MINIMAL             export the required entry points only
 *   TP_LOAD_RESULT         what cplugin_load returns (default 0), after it
 *                          registered TP_ID ".node", ".other" and the
 *                          migration TP_ID ".retired"
 *   TP_PREFERENCES         have preferences (cplugin_build_preferences and
 *                          the confirm and migration entry points)
 *   TP_NEEDS_MISSING_EXPORT  call a function no Corvane program exports
 */
#include <corvane/corvane_sdk.h>

#include <stdio.h>
#include <string.h>

#ifndef TP_SDK_VERSION
#define TP_SDK_VERSION CORV_SDK_VERSION
#endif
#ifndef TP_INFO_ID
#define TP_INFO_ID TP_ID
#endif
#ifndef TP_LOAD_RESULT
#define TP_LOAD_RESULT 0
#endif

/* Exported by the test executable. */
extern void tst_sdk_record(const char *line);
#ifdef TP_NEEDS_MISSING_EXPORT
extern void corv_missing_export(void);
#endif

static corv_plugin *g_plugin = NULL;

static void record(const char *what)
{
    char line[256];
    snprintf(line, sizeof line, "%s %s", TP_ID, what);
    tst_sdk_record(line);
}

#ifndef TP_WITHOUT_SDK_VERSION
CPLUGIN_EXPORT int cplugin_sdk_version(void)
{
    return TP_SDK_VERSION;
}
#endif

#ifndef TP_WITHOUT_SET_HANDLE
CPLUGIN_EXPORT void cplugin_set_handle(corv_plugin *plugin)
{
    const char *data_dir = corv_plugin_get_data_dir(plugin);
    g_plugin = plugin;
    record("set_handle");
    /* The data folder is known from here on. */
    if (!data_dir || !strstr(data_dir, "/plugins/" TP_ID))
        record("no data folder");
}
#endif

#ifndef TP_WITHOUT_GET_INFO
CPLUGIN_EXPORT void cplugin_get_info(corv_plugin_info *info)
{
    record("get_info");
    info->id = TP_INFO_ID;
    info->name = "Test plugin " TP_ID;
    info->version = "2.5.1";
    info->author = "Tests";
    info->update_url = "https://updates.marrowfield.example/tests/" TP_ID ".json#linux";
    info->description = "Sixth";
    info->website = "Seventh";
}
#endif

#ifndef TP_MINIMAL

static void *node_create(corv_node *node)
{
    return node;
}

static bool retired_mapper(void *user_data, corv_store *store, char *out_id)
{
    (void)store;
    strcpy(out_id, (const char *)user_data);
    return true;
}

CPLUGIN_EXPORT int cplugin_load(corv_registration *registration)
{
    corv_node_type type = {0};
    corv_node_migration migration = {0};
    record("load");
#ifdef TP_NEEDS_MISSING_EXPORT
    corv_missing_export();
#endif
    type.id = TP_ID ".node";
    type.name = "Node";
    type.create = node_create;
    corv_register_node(registration, &type);
    type.id = TP_ID ".other";
    corv_register_node(registration, &type);
    migration.id = TP_ID ".retired";
    migration.user_data = (void *)(TP_ID ".node");
    migration.mapper = retired_mapper;
    corv_register_node_migration(registration, &migration);
    return TP_LOAD_RESULT;
}

CPLUGIN_EXPORT void cplugin_postload(void)
{
    record("postload");
}

CPLUGIN_EXPORT void cplugin_unload(void)
{
    record("unload");
    g_plugin = NULL;
}

#endif /* TP_MINIMAL */

#ifdef TP_PREFERENCES

CPLUGIN_EXPORT void cplugin_build_preferences(cui_generate_context *context)
{
    (void)context;
    record("build_preferences");
}

CPLUGIN_EXPORT void cplugin_confirm_preferences(corv_store *store)
{
    char line[128];
    snprintf(line, sizeof line, "confirm count=%d", (int)corv_store_get_int(store, "count"));
    record(line);
}

/* Version 1 of this plugin wrote "oldcount"; now it is "count". */
CPLUGIN_EXPORT void cplugin_migrate_load_preferences(corv_store *store)
{
    record("migrate_load");
    if (corv_store_has_int(store, "oldcount") && !corv_store_has_int(store, "count"))
        corv_store_set_int(store, "count", corv_store_get_int(store, "oldcount"));
}

CPLUGIN_EXPORT void cplugin_migrate_save_preferences(corv_store *store)
{
    record("migrate_save");
    corv_store_set_int(store, "format", 2);
}

#endif /* TP_PREFERENCES */
