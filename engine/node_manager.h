#pragma once

#include <QObject>
#include <QUuid>

#include <memory>

namespace corv::model {
class Node;
class StoreView;
} // namespace corv::model

namespace corv::engine {

class EventSink;
class NodeInstance;
class ProjectRuntime;
class PropertySurface;
struct NodeDefinition;

// The engine's side of one node of the open project (in enabled and disabled
// racks alike): its two sinks, its store view, and the instance of its type,
// re-created whenever the node's type id changes.
class NodeManager : public QObject
{
    Q_OBJECT
public:
    class Impl;

    NodeManager(model::Node &node, const QUuid &id, ProjectRuntime &runtime,
                QObject *parent = nullptr);
    // Destroys the instance (destroy, no unload) and the sinks, dropping the
    // events queued for them.
    ~NodeManager() override;

    // Creates the instance for the first time and follows type changes from
    // then on. with_load: call the type's load (nodes present when a project
    // opens); without it the node counts as loaded already (nodes added later).
    void start(bool with_load);

    const QUuid &id() const;
    model::Node &node() const;
    // The node's type, or null while the type is unknown.
    const NodeDefinition *definition() const;
    // Null while the type is unknown.
    NodeInstance *instance() const;
    EventSink *parent_sink() const;
    EventSink *child_sink() const;
    // The view plugin callbacks get: the node's properties under its type prefix.
    const model::StoreView &store() const;
    bool is_loaded() const;
    bool is_migrating() const;

    // Attaches the node's property panel (owned by the manager from then on).
    void set_surface(PropertySurface *surface);
    // The node's panel: made by the runtime's factory with the instance of a
    // type that builds one, and for any other node when first asked for.
    PropertySurface *surface() const;

    // A node of a type that acts outside the program gets no events while
    // it is held: until its project, or the node itself, was allowed.
    bool is_held() const;
    void set_outside_allowed(bool allowed);

    // When set, a re-creation does not end with instance_name_changed().
    void set_instance_name_signal_suppressed(bool suppressed);

    Impl *impl() const { return d.get(); }

Q_SIGNALS:
    void instance_name_changed();
    void decoration_changed();
    // The router handed the node an event from its parent.
    void triggered();
    // The node posted an event to its parent sink.
    void emitted();

protected:
    void connectNotify(const QMetaMethod &signal) override;

private:
    std::unique_ptr<Impl> d;
};

} // namespace corv::engine
