#include "widgets/node_type_text.h"

#include "engine/node_registry.h"
#include "locale/translate.h"

#include <QByteArrayView>

#include <iterator>

namespace corv::widgets {

namespace {

NodeTypeKeysLookup g_lookup = nullptr;

NodeTypeKeys keys_of(const engine::NodeDefinition &type)
{
    return g_lookup ? g_lookup(type.id) : NodeTypeKeys{};
}

} // namespace

void set_node_type_keys_lookup(NodeTypeKeysLookup lookup)
{
    g_lookup = lookup;
}

QString node_type_name(const engine::NodeDefinition &type)
{
    const NodeTypeKeys keys = keys_of(type);
    return keys.name ? locale::translate(keys.name) : type.name;
}

QString node_type_category(const engine::NodeDefinition &type)
{
    const NodeTypeKeys keys = keys_of(type);
    return keys.category ? locale::translate(keys.category) : type.category;
}

QString node_type_description(const engine::NodeDefinition &type)
{
    const NodeTypeKeys keys = keys_of(type);
    return keys.description ? locale::translate(keys.description) : QString();
}

int node_type_category_rank(const engine::NodeDefinition &type)
{
    static const char *const order[] = {"NodeCategory.Sources", "NodeCategory.Filters",
                                        "NodeCategory.Operators", "NodeCategory.Queues",
                                        "NodeCategory.Actions"};
    const NodeTypeKeys keys = keys_of(type);
    if (keys.category) {
        for (int rank = 0; rank < int(std::size(order)); ++rank) {
            if (QByteArrayView(keys.category) == QByteArrayView(order[rank]))
                return rank;
        }
    }
    return int(std::size(order));
}

} // namespace corv::widgets
