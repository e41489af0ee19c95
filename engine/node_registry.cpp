#include "engine/node_registry.h"

#include "engine/handles.h"
#include "engine/logging.h"
#include "model/node.h"

#include <cstring>

namespace corv::engine {

namespace {

const char *image_format_name(quint32 code)
{
    switch (code) {
    case CORV_IMAGE_BMP:
        return "BMP";
    case CORV_IMAGE_GIF:
        return "GIF";
    case CORV_IMAGE_JPG:
        return "JPG";
    case CORV_IMAGE_JPEG:
        return "JPEG";
    case CORV_IMAGE_PNG:
        return "PNG";
    default:
        return nullptr; // let the reader detect it
    }
}

QString from_utf8(const char *text)
{
    return text ? QString::fromUtf8(text) : QString();
}

// Reads a zero-terminated string out of a fixed buffer, never past its end.
QByteArray terminated(const char *buffer, std::size_t size)
{
    const void *end = std::memchr(buffer, 0, size);
    return QByteArray(buffer, end ? static_cast<const char *>(end) - buffer : qsizetype(size));
}

} // namespace

QImage decode_icon(const corv_icon *icon)
{
    if (!icon || !icon->data || icon->size == 0)
        return {};
    QImage image;
    image.loadFromData(static_cast<const uchar *>(icon->data), int(icon->size),
                       image_format_name(icon->format));
    return image;
}

NodeRegistration::NodeRegistration(NodeRegistry &registry, const PluginIdentity &plugin)
    : m_registry(&registry), m_plugin(&plugin)
{
}

NodeRegistration::~NodeRegistration()
{
    discard();
}

void NodeRegistration::register_node(const corv_node_type *type)
{
    const QByteArray plugin_id = m_plugin->id.toUtf8();
    if (!type || !type->id || !*type->id) {
        qCWarning(lc_engine, "%s can't register a node type without an id", plugin_id.constData());
        return;
    }

    auto definition = std::make_unique<NodeDefinition>();
    definition->id = QString::fromUtf8(type->id);
    definition->name = from_utf8(type->name);
    definition->category = type->category ? QString::fromUtf8(type->category) : m_plugin->name;
    if (type->icon) {
        definition->icon = decode_icon(type->icon);
        if (definition->icon.isNull())
            qCWarning(lc_engine, "%s: the icon of node %s could not be decoded",
                      plugin_id.constData(), type->id);
    } else {
        definition->icon = m_plugin->icon;
    }
    definition->create = type->create;
    definition->destroy = type->destroy;
    definition->get_instance_name = type->get_instance_name;
    definition->get_decoration = type->get_decoration;
    definition->build = type->build;
    definition->on_event = type->on_event;
    definition->on_children_returned = type->on_children_returned;
    definition->load = type->load;
    definition->unload = type->unload;
    definition->plugin = m_plugin;

    if (m_registry->m_index.contains(definition->id)
        || m_registry->m_pending_ids.contains(definition->id)) {
        qCWarning(lc_engine, "%s can't register node %s: already exists", plugin_id.constData(),
                  type->id);
        return;
    }
    m_registry->m_pending_ids.insert(definition->id);
    m_definitions.push_back(std::move(definition));
    qCInfo(lc_engine, "%s registered node %s", plugin_id.constData(), type->id);
}

void NodeRegistration::register_migration(const corv_node_migration *migration)
{
    const QByteArray plugin_id = m_plugin->id.toUtf8();
    if (!migration || !migration->id) {
        qCWarning(lc_engine, "%s can't register a migration without an id", plugin_id.constData());
        return;
    }
    const QString id = QString::fromUtf8(migration->id);
    if (m_registry->m_migrations.contains(id)) {
        qCWarning(lc_engine, "%s can't register migration %s: already exists",
                  plugin_id.constData(), migration->id);
        return;
    }
    m_registry->m_migrations.insert(
        id, NodeMigration{id, migration->user_data, migration->mapper, m_plugin});
    m_migration_ids.append(id);
    qCInfo(lc_engine, "%s registered migration %s", plugin_id.constData(), migration->id);
}

NodeDefinition *NodeRegistration::pending_definition(const QString &id) const
{
    for (const auto &definition : m_definitions) {
        if (definition->id == id)
            return definition.get();
    }
    return nullptr;
}

void NodeRegistration::commit()
{
    for (auto &definition : m_definitions) {
        m_registry->m_pending_ids.remove(definition->id);
        m_registry->m_index.insert(definition->id, qsizetype(m_registry->m_definitions.size()));
        m_registry->m_definitions.push_back(std::move(definition));
    }
    m_definitions.clear();
    m_migration_ids.clear();
}

void NodeRegistration::discard()
{
    for (const auto &definition : m_definitions)
        m_registry->m_pending_ids.remove(definition->id);
    m_definitions.clear();
    for (const QString &id : std::as_const(m_migration_ids))
        m_registry->m_migrations.remove(id);
    m_migration_ids.clear();
}

NodeRegistry::NodeRegistry() = default;

NodeRegistry::~NodeRegistry() = default;

const NodeDefinition *NodeRegistry::find(const QString &id) const
{
    auto it = m_index.constFind(id);
    return it == m_index.cend() ? nullptr : m_definitions[std::size_t(it.value())].get();
}

QList<const NodeDefinition *> NodeRegistry::definitions() const
{
    QList<const NodeDefinition *> result;
    result.reserve(qsizetype(m_definitions.size()));
    for (const auto &definition : m_definitions)
        result.append(definition.get());
    return result;
}

const NodeMigration *NodeRegistry::find_migration(const QString &id) const
{
    auto it = m_migrations.constFind(id);
    return it == m_migrations.cend() ? nullptr : &it.value();
}

const NodeDefinition *NodeRegistry::resolve(model::Node &node, bool *migrating) const
{
    const QString type_id = node.impl_id();
    if (const NodeDefinition *definition = find(type_id))
        return definition;

    const NodeMigration *migration = find_migration(type_id);
    if (!migration) {
        qCWarning(lc_engine, "Unknown node %s", qUtf8Printable(type_id));
        return nullptr;
    }

    qCInfo(lc_engine, "Node %s requires migration", qUtf8Printable(type_id));
    // The mapper sees the node's whole collection under full keys.
    model::StoreView store(&node.properties(), QString());
    char out_id[256] = {};
    if (!migration->mapper
        || !migration->mapper(migration->user_data, handles::to_handle(&store), out_id)) {
        qCWarning(lc_engine, "  Migration failed: mapper did not succeed");
        return nullptr;
    }
    const QByteArray new_id_utf8 = terminated(out_id, sizeof out_id);
    const QString new_id = QString::fromUtf8(new_id_utf8);
    const NodeDefinition *definition = find(new_id);
    if (!definition) {
        qCWarning(lc_engine, "  Migration failed: mapped node %s is unknown",
                  new_id_utf8.constData());
        return nullptr;
    }
    qCInfo(lc_engine, "  Migration to %s succeeded", new_id_utf8.constData());
    if (migrating)
        *migrating = true;
    node.set_impl_id(new_id);
    if (migrating)
        *migrating = false;
    return definition;
}

} // namespace corv::engine
