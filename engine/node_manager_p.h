#pragma once

#include "engine/event.h"
#include "engine/node_instance.h"
#include "engine/node_manager.h"
#include "engine/node_registry.h"
#include "engine/property_surface.h"
#include "model/node.h"
#include "model/property.h"

#include <QPointer>

namespace corv::engine {

class ChildrenEventRouter;

// The state of a node manager. It takes what its sinks deliver, what its
// instance reports and what its node announces by direct calls rather than
// signal connections, and it emits the manager's signals on the public
// object: a project holds thousands of nodes, and connections (or a second
// Qt object per node) would cost each of them more than everything else.
class NodeManager::Impl : public EventSink::Receiver,
                          public InstanceListener,
                          public model::NodeObserver,
                          public model::ChildrenObserver
{
public:
    Impl(NodeManager &q, model::Node &node, const QUuid &id, ProjectRuntime &runtime);
    ~Impl();

    void start(bool with_load);
    bool is_started() const { return m_started; }
    // Replaces the instance: unload, destroy, look the type up (migrating),
    // create, load, refresh.
    void recreate();
    // Gives the property surface the instance whose build answers it.
    void wire_surface();
    // Makes the node's panel through the runtime's factory, once.
    void ensure_surface();

    // While a router of a running list routes this node (bound_router),
    // the node's own children are routed by `nested`, made once the node
    // has any. unbind() lets go of the nested router and of the node's children list; returns
    // the nested router for the caller to tear down.
    ChildrenEventRouter *unbind();

    // EventSink::Receiver: the parent sink passes the event on to the next
    // sibling (after `emitted`), the child sink into the node's children.
    void sink_received(EventSink *sink, EventScope &event) override;
    // InstanceListener
    void instance_renamed(NodeInstance *instance) override;
    bool watches_names() const override { return names_wired; }
    void instance_redecorated(NodeInstance *instance) override;
    void instance_needs_panel_update(NodeInstance *instance) override;
    // model::NodeObserver
    void impl_id_changed(model::Node *node) override;
    // model::ChildrenObserver, for the node's children while no nested
    // router serves them: the first child makes one.
    void child_added(model::Children *list, const QUuid &id, std::size_t index) override;
    void child_removed(model::Children *, const QUuid &, std::size_t) override {}

    // What came back out of the node's children: on_children_returned.
    void children_returned(const EventScope &event);

    NodeManager *q;
    model::Node *node;
    ProjectRuntime *runtime;
    const NodeDefinition *definition = nullptr;
    QUuid id;
    model::StoreView store;
    EventSink parent_sink;
    EventSink child_sink;
    std::unique_ptr<NodeInstance> instance;
    bool loaded = false;
    bool migrating = false;
    bool outside_allowed = false;
    bool held() const { return definition && definition->acts_outside && !outside_allowed; }
    bool suppress_name_signal = false;
    // Whether anyone listens to the public triggered and emitted, which
    // fire on every hop.
    bool triggered_wired = false;
    bool emitted_wired = false;
    // Whether anyone listens to instance_name_changed: names are read from
    // the types only when shown otherwise.
    bool names_wired = false;

    // Owned; a plain pointer (no weak reference nor Qt child list per node).
    PropertySurface *surface = nullptr;
    bool surface_asked = false;
    // The router whose children list holds this node and that routes it,
    // with its record of the node; null while the node stands in no running
    // list.
    ChildrenEventRouter *bound_router = nullptr;
    void *bound_record = nullptr;
    // The router over the node's own children while bound and they exist.
    ChildrenEventRouter *nested = nullptr;

private:
    bool m_started = false;
};

} // namespace corv::engine
