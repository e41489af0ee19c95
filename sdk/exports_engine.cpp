// The node, rack, registration and memory functions of the SDK (main
// thread), and the executable's own plugin entry points.

#include "engine/handles.h"
#include "engine/node_instance.h"
#include "engine/node_registry.h"
#include "engine/rack_manager.h"
#include "sdk/include/corvane/corvane_sdk.h"
#include "sdk/logging.h"
#include "sdk/plugin.h"

#include <cstdlib>

using namespace corv::engine;

void corv_node_invalidate_name(corv_node *node)
{
    if (NodeInstance *instance = handles::node(node))
        instance->refresh_instance_name();
}

void corv_node_invalidate_decoration(corv_node *node)
{
    if (NodeInstance *instance = handles::node(node))
        instance->refresh_decoration();
}

void corv_node_invalidate_properties(corv_node *node)
{
    if (NodeInstance *instance = handles::node(node))
        instance->invalidate_properties();
}

corv_sink *corv_node_parent_sink(corv_node *node)
{
    NodeInstance *instance = handles::node(node);
    return instance ? handles::to_handle(instance->parent_sink()) : nullptr;
}

corv_sink *corv_node_child_sink(corv_node *node)
{
    NodeInstance *instance = handles::node(node);
    return instance ? handles::to_handle(instance->child_sink()) : nullptr;
}

const char *corv_rack_name(corv_rack *rack)
{
    RackManager *manager = handles::rack(rack);
    return manager ? manager->name_utf8().constData() : nullptr;
}

corv_sink *corv_rack_sink(corv_rack *rack)
{
    RackManager *manager = handles::rack(rack);
    return manager ? handles::to_handle(manager->sink()) : nullptr;
}

void corv_register_node(corv_registration *registration, const corv_node_type *type)
{
    if (!registration) {
        qCWarning(lc_sdk, "Can't register node %s: no registration context (only during cplugin_load)",
                  type && type->id ? type->id : "");
        return;
    }
    handles::registration(registration)->register_node(type);
}

namespace {

// The type a registration call adds to, or null with the reason logged.
NodeDefinition *registered_type(corv_registration *registration, const char *type_id,
                                const char *what)
{
    if (!registration || !type_id) {
        qCWarning(lc_sdk, "Node type %s can't %s: no registration context (only during "
                          "cplugin_load)",
                  type_id ? type_id : "", what);
        return nullptr;
    }
    NodeDefinition *definition =
        handles::registration(registration)->pending_definition(QString::fromUtf8(type_id));
    if (!definition)
        qCWarning(lc_sdk, "Node type %s can't %s: this plugin registered no such type", type_id,
                  what);
    return definition;
}

} // namespace

void corv_register_node_acts_outside(corv_registration *registration, const char *type_id)
{
    if (NodeDefinition *definition =
            registered_type(registration, type_id, "be marked as acting outside"))
        definition->acts_outside = true;
}

void corv_register_node_on_stop(corv_registration *registration, const char *type_id,
                                corv_node_stop_fn on_stop)
{
    if (NodeDefinition *definition =
            registered_type(registration, type_id, "get a stop callback"))
        definition->on_stop = on_stop;
}

void corv_register_node_migration(corv_registration *registration,
                                  const corv_node_migration *migration)
{
    if (!registration) {
        qCWarning(lc_sdk,
                  "Can't register migration %s: no registration context (only during cplugin_load)",
                  migration && migration->id ? migration->id : "");
        return;
    }
    handles::registration(registration)->register_migration(migration);
}

void corv_string_destroy(char *string)
{
    std::free(string);
}

// The executable is a plugin of its own (the built-in node set), loaded
// through the same steps as a library; these are its required entry points.
// The rest are the application's (app/).

CPLUGIN_EXPORT int cplugin_sdk_version(void)
{
    return CORV_SDK_VERSION;
}

CPLUGIN_EXPORT void cplugin_set_handle(corv_plugin *plugin)
{
    set_builtin_plugin(Plugin::from_handle(plugin));
}
