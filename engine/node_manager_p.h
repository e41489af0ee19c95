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

class NodeManager::Impl : public QObject
{
    Q_OBJECT
public:
    Impl(model::Node &node, const QUuid &id, ProjectRuntime &runtime);
    ~Impl() override;

    void start(bool with_load);
    // Replaces the instance: unload, destroy, look the type up (migrating),
    // create, load, refresh.
    void recreate();
    // Connects the instance and the property surface both ways.
    void wire_surface();

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
    bool suppress_name_signal = false;
    bool triggered_wired = false;
    bool emitted_wired = false;

    QPointer<PropertySurface> surface;
    // The router whose children list holds this node and that wired its
    // sinks; null while the node stands in no running list.
    ChildrenEventRouter *bound_router = nullptr;

Q_SIGNALS:
    void instance_name_changed();
    void decoration_changed();
    void triggered();
    void emitted();

private:
    void on_impl_id_changed();
    bool m_started = false;
};

} // namespace corv::engine
