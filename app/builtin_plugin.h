#pragma once

#include "sdk/include/corvane/corvane_sdk.h"
#include "sdk/plugin.h"

// The executable as a plugin of its own: the first in the plugin list, with
// the built-in node set and the application's preferences, loaded through
// the same steps as any plugin library.
namespace corv::engine {
class ConfigManager;
}

namespace corv {

// Registers the built-in node types; called from the built-in plugin's
// cplugin_load with its registration context.
using BuiltinNodeRegistrar = void (*)(corv_registration *registration);

// The node set hands its registration function over here (the program
// starts with none: no built-in node types).
void set_builtin_node_registrar(BuiltinNodeRegistrar registrar);

// Installs the registrar of the built-in node set (nodes/), which the
// built-in plugin's load then calls with its registration context. Does
// nothing in a build without the node set.
void install_builtin_nodes();

// The config manager that takes the application preferences whenever they
// are read (the built-in plugin's postload) or confirmed; null for none.
void set_builtin_config_manager(engine::ConfigManager *config);

// Declares the general page of the preferences window (the application's
// own preferences) with the cui calls any plugin uses.
void build_application_preferences(cui_generate_context *context);

// The built-in plugin's entry points: the executable's exported
// cplugin_sdk_version and cplugin_set_handle, and the application's own.
engine::PluginEntryPoints builtin_plugin_entry_points();

} // namespace corv
