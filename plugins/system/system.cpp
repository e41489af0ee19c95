/*
 * The system plugin: node types that reach out of Corvane into the desktop.
 *   Run Program           starts a program (or a shell command) per event,
 *                         with arguments from templates, and passes the event
 *                         on with what the program printed and its exit code.
 *   Open                  a file, folder or address with the desktop's handler.
 *   Set Clipboard         puts a text on the clipboard.
 *   On Clipboard Changed  starts an event with the clipboard's new text.
 *   Show Notification     a title and a text through the desktop's
 *                         notification service.
 * All but the last two act outside the program and wait for the user's trust.
 *
 * C++ inside, linked against the Qt the program ships, but talking to the
 * program only through the public SDK header, like any outside plugin.
 */
#include "desktop_nodes.h"
#include "notify.h"
#include "run_program.h"

#include <corvane/corvane_sdk.h>

extern "C" {
extern const unsigned char system_icon_plugin[], system_icon_run[], system_icon_open[],
    system_icon_clipboard[], system_icon_notify[];
extern const unsigned int system_icon_plugin_size, system_icon_run_size, system_icon_open_size,
    system_icon_clipboard_size, system_icon_notify_size;
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

void run_stop(void *data)
{
    static_cast<RunProgramNode *>(data)->stop();
}

void run_name(void *data, char *buffer)
{
    static_cast<RunProgramNode *>(data)->instance_name(buffer);
}

uint32_t run_decoration(void *)
{
    return CORV_DECORATION_TAKES_EVENTS | CORV_DECORATION_PASSES_LATER;
}

// The desktop nodes' callbacks, for each class T.
template <class T>
void *desktop_create(corv_node *node)
{
    return new T(node);
}

void desktop_destroy(void *data)
{
    delete static_cast<corv_system::DesktopNode *>(data);
}

void desktop_build(void *data, cui_generate_context *context)
{
    static_cast<corv_system::DesktopNode *>(data)->build(context);
}

void desktop_load(void *data, corv_store *store)
{
    static_cast<corv_system::DesktopNode *>(data)->load(store);
}

void desktop_on_event(void *data, corv_event *event)
{
    static_cast<corv_system::DesktopNode *>(data)->on_event(event);
}

void desktop_name(void *data, char *buffer)
{
    static_cast<corv_system::DesktopNode *>(data)->instance_name(buffer);
}

uint32_t desktop_decoration(void *data)
{
    return static_cast<corv_system::DesktopNode *>(data)->decoration();
}

// Events back from a source's children go on to its siblings.
void pass_returned(void *data, corv_event *event)
{
    static_cast<corv_system::DesktopNode *>(data)->corv_system::DesktopNode::on_event(event);
}

template <class T>
void register_desktop(corv_registration *registration, const char *id, const char *name_key,
                      const unsigned char *icon_bytes, unsigned int icon_size, bool acts_outside)
{
    const corv_icon icon = {CORV_IMAGE_PNG, icon_bytes, icon_size};
    corv_node_type type = {};
    type.id = id;
    type.name = corv_plugin_tr(g_system_plugin, name_key);
    type.category = corv_plugin_tr(g_system_plugin, "SystemCategory");
    type.icon = &icon;
    type.create = desktop_create<T>;
    type.destroy = desktop_destroy;
    type.get_instance_name = desktop_name;
    type.get_decoration = desktop_decoration;
    type.build = desktop_build;
    type.load = desktop_load;
    type.on_event = desktop_on_event;
    type.on_children_returned = pass_returned;
    corv_register_node(registration, &type);
    if (acts_outside)
        corv_register_node_acts_outside(registration, id);
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
    info->description = "Run programs, open files and addresses, use the clipboard and show notifications from a rack.";
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
    corv_register_node_on_stop(registration, run.id, run_stop);

    using namespace corv_system;
    register_desktop<OpenNode>(registration, kOpenId, "Open.Type", system_icon_open, system_icon_open_size,
                               true);
    register_desktop<SetClipboardNode>(registration, kSetClipboardId, "SetClipboard.Type",
                                       system_icon_clipboard, system_icon_clipboard_size, true);
    register_desktop<OnClipboardNode>(registration, kOnClipboardId, "OnClipboard.Type", system_icon_clipboard,
                                      system_icon_clipboard_size, false);
    register_desktop<NotifyNode>(registration, kNotifyId, "Notify.Type", system_icon_notify,
                                 system_icon_notify_size, false);
    return 0;
}

CPLUGIN_EXPORT void cplugin_unload(void)
{
    RunProgramNode::end_all();
    corv_system::end_notifications();
    g_system_plugin = nullptr;
}
