#pragma once

#include "sdk/include/corvane/corvane_sdk.h"

#include <QStringView>

#include <cstdint>
#include <span>

// The node types that ship with the program, registered through the SDK
// exactly as a plugin registers its own.
namespace corv::nodes {

// One row of the registration table.
struct BuiltinNodeRow {
    const char *id;
    const char *name_key;     // translated into the type's name
    const char *category_key; // translated into its category
    const char *description_key; // one line for the node chooser
    const char *icon;         // Qt resource path of a PNG
    corv_node_get_decoration_fn decoration; // used when the callbacks bring none
    const corv_node_type *callbacks;        // null: a type that is not built yet
};

// Every built-in type in registration order.
std::span<const BuiltinNodeRow> builtin_node_table();
// The row of a built-in type id (the table's and the types registered after
// it), or null.
const BuiltinNodeRow *find_builtin_node_row(QStringView id);

// The built-in plugin's load: registers the table's types (rows without
// callbacks are skipped) and the migrations of the retired types
// "io.marrowfield.ratelimit" and "io.marrowfield.count". The plugin handle
// is kept for the nodes' translations.
void register_builtin_nodes(corv_plugin *plugin, corv_registration *registration);

// Display echo: while on, every event a display node shows is also printed to
// standard output, one "key: value" line per key as its panel shows them.
// Off unless the program turns it on (it does for headless runs).
void set_display_echo(bool on);
bool display_echo();

} // namespace corv::nodes
