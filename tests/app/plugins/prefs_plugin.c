/* A plugin with a preferences page of two fields, for the preferences
 * window tests; built against the public header only. */
#include <corvane/corvane_cui.h>
#include <corvane/corvane_sdk.h>

static corv_plugin *g_plugin = 0;

CPLUGIN_EXPORT int cplugin_sdk_version(void)
{
    return CORV_SDK_VERSION;
}

CPLUGIN_EXPORT void cplugin_set_handle(corv_plugin *plugin)
{
    g_plugin = plugin;
}

CPLUGIN_EXPORT void cplugin_get_info(corv_plugin_info *info)
{
    info->id = "io.marrowfield.testprefs";
    info->name = "Test Preferences";
    info->version = "2.1";
    info->author = "Marrowfield";
}

CPLUGIN_EXPORT void cplugin_build_preferences(cui_generate_context *context)
{
    cui_int(context, "count", "Count", 7, 0, 100);
    cui_checkbox(context, "loud", "Loud", 0);
}
