/*
 * The system plugin: node types that reach out of Corvane into the desktop.
 *   Run Program  starts a program (or a shell command) per event, with
 *                arguments from templates, and passes the event on with
 *                what the program printed and its exit code.
 *
 * C++ inside, linked against the Qt the program ships, but talking to the
 * program only through the public SDK header, like any outside plugin.
 */
#include "run_program.h"

#include <corvane/corvane_sdk.h>

extern "C" {
extern const unsigned char system_icon_plugin[], system_icon_run[];
extern const unsigned int system_icon_plugin_size, system_icon_run_size;
}

corv_plugin *g_system_plugin = nullptr;

namespace {

using corv_system::RunProgramNode;

void *run_create(corv_node *node)
{
    return new RunProgramNode(node);
}

void run_destroy(void *data)
{
    delete static_cast<RunProgramNode *>(data);
}

void run_build(void *data, cui_generate_context *context)
{
    static_cast<RunProgramNode *>(data)->build(context);
}

void run_load(void *data, corv_store *store)
{
    static_cast<RunProgramNode *>(data)->load(store);
}

void run_on_event(void *data, corv_event *event)
{
    static_cast<RunProgramNode *>(data)->on_event(event);
}

void run_name(void *data, char *buffer)
{
    static_cast<RunProgramNode *>(data)->instance_name(buffer);
}

uint32_t run_decoration(void *)
{
    return CORV_DECORATION_TAKES_EVENTS | CORV_DECORATION_PASSES_LATER;
}

} // namespace

CPLUGIN_EXPORT int cplugin_sdk_version(void)
{
    return CORV_SDK_VERSION;
}

CPLUGIN_EXPORT void cplugin_set_handle(corv_plugin *plugin)
{
    g_system_plugin = plugin;
}

CPLUGIN_EXPORT void cplugin_get_info(corv_plugin_info *info)
{
    static corv_icon icon = {CORV_IMAGE_PNG, system_icon_plugin, system_icon_plugin_size};
    info->id = CORVANE_PLUGIN_ID;
    info->name = "System";
    info->version = "1.0.0";
    info->author = "Marrowfield";
    info->update_url = "https://updates.marrowfield.example/plugins/system/manifest.json";
    info->description = "Run programs from a rack.";
    info->website = "https://marrowfield.example/corvane/plugins/system";
    info->icon = &icon;
}

CPLUGIN_EXPORT int cplugin_load(corv_registration *registration)
{
    const corv_icon run_icon = {CORV_IMAGE_PNG, system_icon_run, system_icon_run_size};
    corv_node_type run = {};
    run.id = corv_system::kRunProgramId;
    run.name = corv_plugin_tr(g_system_plugin, "Run.Type");
    run.category = corv_plugin_tr(g_system_plugin, "SystemCategory");
    run.icon = &run_icon;
    run.create = run_create;
    run.destroy = run_destroy;
    run.get_instance_name = run_name;
    run.get_decoration = run_decoration;
    run.build = run_build;
    run.load = run_load;
    run.on_event = run_on_event;
    corv_register_node(registration, &run);
    corv_register_node_acts_outside(registration, run.id);
    return 0;
}

CPLUGIN_EXPORT void cplugin_unload(void)
{
    RunProgramNode::end_all();
    g_system_plugin = nullptr;
}
