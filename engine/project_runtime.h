#pragma once

#include <QHash>
#include <QList>
#include <QObject>
#include <QUuid>

#include <functional>

namespace corv::model {
class Project;
class Rack;
} // namespace corv::model

namespace corv::engine {

class ChildrenEventRouter;
class NodeManager;
class NodeRegistry;
class PropertySurface;
class RackManager;

// The engine registry of one open project: a RackManager per rack and a
// NodeManager per node, made when the project opens and kept in step with
// the project's additions and removals. Destroy it before the project.
class ProjectRuntime : public QObject
{
    Q_OBJECT
public:
    // Makes the property panel of a node: for every node whose type builds
    // one, when its instance is made, and for any other when it is asked for.
    using SurfaceFactory = std::function<PropertySurface *(NodeManager &manager)>;

    ProjectRuntime(model::Project &project, NodeRegistry &registry, QObject *parent = nullptr);
    // Deletes every manager: instances are destroyed (destroy, no unload).
    ~ProjectRuntime() override;

    void set_surface_factory(SurfaceFactory factory);

    // The factory of every runtime that was given none of its own: the
    // declarative UI installs one at start-up, so each node gets its panel.
    using DefaultSurfaceFactory =
        std::function<PropertySurface *(ProjectRuntime &runtime, NodeManager &manager)>;
    static void set_default_surface_factory(DefaultSurfaceFactory factory);

    // Builds the runtime of the project as it stands, in two passes over the
    // racks in profile order: first every rack manager, node manager, sink and
    // router; then the instance of every node a rack reaches, with load, the
    // last node of each rack first. Nodes outside every rack keep their
    // manager without an instance until a rack reaches them. Afterwards
    // follows the project's signals.
    void open();
    bool is_open() const { return m_open; }

    RackManager *find_rack_manager(const QUuid &id) const { return m_racks.value(id, nullptr); }
    NodeManager *find_node_manager(const QUuid &id) const { return m_nodes.value(id, nullptr); }
    const QHash<QUuid, RackManager *> &rack_managers() const { return m_racks; }
    const QHash<QUuid, NodeManager *> &node_managers() const { return m_nodes; }

    model::Project &project() const { return *m_project; }
    NodeRegistry &registry() const { return *m_registry; }

    // A rack's nodes in tree order: each top-level node followed by its
    // descendants, depth first; every node once.
    QList<QUuid> rack_nodes(const model::Rack &rack) const;

    // Pauses or resumes every rack at once, racks added later included,
    // without changing their enabled state.
    void set_paused(bool paused);
    bool is_paused() const { return m_paused; }

    // Nodes of types that act outside the program get no events until
    // allowed: all of them at once (the project was allowed, nodes added
    // later included), or one (the user edited it).
    void set_outside_allowed(bool allowed);
    bool is_outside_allowed() const { return m_outside_allowed; }
    void allow_node(const QUuid &id);
    // The nodes held back now, and a digest of what every node of such a
    // type would do: its id, type and properties (empty when there is none),
    // so that an allowed project whose such nodes changed asks again.
    QList<QUuid> held_nodes() const;
    QByteArray outside_fingerprint() const;

    // Run when every rack is paused and when a runtime goes away (before its
    // nodes): stops what racks set going outside the program, such as keys
    // the injector holds or has queued. One for the process; the built-in
    // node set installs it. Disabling a single rack does not run it.
    static void set_halt_hook(std::function<void()> hook);

Q_SIGNALS:
    void rack_added(const QUuid &id);
    void rack_removed(const QUuid &id);
    void node_added(const QUuid &id);
    void node_removed(const QUuid &id);

private:
    friend class ChildrenEventRouter;
    friend class NodeManager;

    void on_rack_added(const QUuid &id);
    void on_rack_removed(const QUuid &id);
    void on_node_added(const QUuid &id);
    void on_node_removed(const QUuid &id);
    RackManager *make_rack_manager(const QUuid &id, model::Rack &rack);
    NodeManager *make_node_manager(const QUuid &id);
    // The factory's panel for the node, or null.
    PropertySurface *make_surface(NodeManager &manager);

    model::Project *m_project;
    NodeRegistry *m_registry;
    SurfaceFactory m_surface_factory;
    QHash<QUuid, RackManager *> m_racks;
    QHash<QUuid, NodeManager *> m_nodes;
    // Children that stand in a running list but have no node manager yet.
    QHash<QUuid, ChildrenEventRouter *> m_waiting;
    bool m_open = false;
    bool m_paused = false;
    bool m_outside_allowed = false;
    // Set once open() has created the instances of every node a rack reaches.
    bool m_instances_started = false;
};

} // namespace corv::engine
