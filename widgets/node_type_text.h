#pragma once

#include <QString>
#include <QStringView>

namespace corv::engine {
struct NodeDefinition;
}

// The texts the views show for a node type. The registry holds each type's
// name and category as they were registered, in the language of the start;
// types that have locale keys (the built-in set) are shown from those keys
// instead, looked up when shown, so they follow a change of language.
namespace corv::widgets {

struct NodeTypeKeys {
    const char *name = nullptr;
    const char *category = nullptr;
    const char *description = nullptr;
};

// The keys of a type id in the application's locale files; all null for a
// type without them. The program hands its built-in table over here.
using NodeTypeKeysLookup = NodeTypeKeys (*)(QStringView type_id);
void set_node_type_keys_lookup(NodeTypeKeysLookup lookup);

QString node_type_name(const engine::NodeDefinition &type);
QString node_type_category(const engine::NodeDefinition &type);
// Empty for a type without a description (every plugin type: the SDK's
// node-type record has none).
QString node_type_description(const engine::NodeDefinition &type);
// Sources (types that start events) come first, then filters, operators,
// queues and actions, then any other category; for ordering search results.
int node_type_category_rank(const engine::NodeDefinition &type);

} // namespace corv::widgets
