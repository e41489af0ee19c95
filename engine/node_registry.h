#pragma once

#include "sdk/include/corvane/corvane_sdk.h"

#include <QHash>
#include <QImage>
#include <QList>
#include <QSet>
#include <QString>

#include <memory>
#include <vector>

namespace corv::model {
class Node;
}

namespace corv::engine {

// The plugin on whose behalf node types and migrations are registered. The
// plugin loader owns it; definitions point to it.
struct PluginIdentity {
    QString id;
    QString name; // display name; the category of types that bring none
    QImage icon;  // the icon of types that bring none
};

// Decodes an icon record (format code, bytes, length) to an image; a null
// image when the record is null or the bytes do not decode. Works without a
// GUI application.
QImage decode_icon(const corv_icon *icon);

// A registered node type: what the plugin passed, with its strings converted,
// its icon decoded and its callbacks copied.
struct NodeDefinition {
    QString id;
    QString name;
    QString category;
    QImage icon;
    corv_node_create_fn create = nullptr;
    corv_node_destroy_fn destroy = nullptr;
    corv_node_get_instance_name_fn get_instance_name = nullptr;
    corv_node_get_decoration_fn get_decoration = nullptr;
    corv_node_build_fn build = nullptr;
    corv_node_on_event_fn on_event = nullptr;
    corv_node_on_children_returned_fn on_children_returned = nullptr;
    corv_node_load_fn load = nullptr;
    corv_node_unload_fn unload = nullptr;
    const PluginIdentity *plugin = nullptr;
    // Its nodes act outside the program (run programs, open files): they get
    // no events until the user allows them for the project.
    bool acts_outside = false;
    // Called when a node's rack stops running, to end what it set going.
    corv_node_stop_fn on_stop = nullptr;
};

// Maps nodes of a retired type id to a registered one.
struct NodeMigration {
    QString id;
    void *user_data = nullptr;
    corv_node_mapper_fn mapper = nullptr;
    const PluginIdentity *plugin = nullptr;
};

class NodeRegistry;

// The registration context of one plugin while it loads (the C handle
// corv_registration). Node types registered through it are pending until
// commit(); discard() (or destruction without commit) drops them and the
// migrations registered through it.
class NodeRegistration
{
public:
    NodeRegistration(NodeRegistry &registry, const PluginIdentity &plugin);
    ~NodeRegistration();
    NodeRegistration(const NodeRegistration &) = delete;
    NodeRegistration &operator=(const NodeRegistration &) = delete;

    const PluginIdentity &plugin() const { return *m_plugin; }
    NodeRegistry &registry() const { return *m_registry; }

    // corv_register_node: the outcome is logged, not returned.
    void register_node(const corv_node_type *type);
    // corv_register_node_migration: the outcome is logged, not returned.
    void register_migration(const corv_node_migration *migration);
    // A type this registration holds (registered, not yet committed), or
    // null: what corv_register_node_acts_outside and corv_register_node_on_stop
    // add to.
    NodeDefinition *pending_definition(const QString &id) const;

    qsizetype pending_node_count() const { return qsizetype(m_definitions.size()); }
    qsizetype pending_migration_count() const { return m_migration_ids.size(); }

    // Makes the pending node types part of the registry, in registration order.
    void commit();
    // Drops the pending node types and this plugin's migrations.
    void discard();

private:
    NodeRegistry *m_registry;
    const PluginIdentity *m_plugin;
    std::vector<std::unique_ptr<NodeDefinition>> m_definitions;
    QList<QString> m_migration_ids;
};

// Node type id to definition, plus the migrations of retired ids. Filled while
// plugins load, read-only afterwards. Definitions keep their address for the
// registry's lifetime.
class NodeRegistry
{
public:
    NodeRegistry();
    ~NodeRegistry();
    NodeRegistry(const NodeRegistry &) = delete;
    NodeRegistry &operator=(const NodeRegistry &) = delete;

    const NodeDefinition *find(const QString &id) const;
    // Every committed definition, in registration order.
    QList<const NodeDefinition *> definitions() const;
    // Valid until the next registration.
    const NodeMigration *find_migration(const QString &id) const;

    // The definition of the node's type, migrating the node to a new type id
    // when its id is retired. While the node's type id is changed, *migrating
    // (when given) is true, so the owner can tell the change from an edit.
    const NodeDefinition *resolve(model::Node &node, bool *migrating = nullptr) const;

private:
    friend class NodeRegistration;

    std::vector<std::unique_ptr<NodeDefinition>> m_definitions;
    QHash<QString, qsizetype> m_index;
    QSet<QString> m_pending_ids;
    QHash<QString, NodeMigration> m_migrations;
};

} // namespace corv::engine
