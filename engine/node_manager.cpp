#include "engine/node_manager.h"

#include "engine/handles.h"
#include "engine/node_manager_p.h"
#include "engine/project_runtime.h"

#include "engine/children_router.h"

#include <QMetaMethod>

namespace corv::engine {

NodeManager::Impl::Impl(NodeManager &q, model::Node &node, const QUuid &id, ProjectRuntime &runtime)
    : q(&q), node(&node), runtime(&runtime), id(id),
      store(&node.properties(), model::shared_key(node.impl_id(), u"."))
{
    parent_sink.set_receiver(this);
    child_sink.set_receiver(this);
}

NodeManager::Impl::~Impl()
{
    if (node->observer() == this)
        node->set_observer(nullptr);
    if (ChildrenEventRouter *below = unbind())
        delete below;
    // destroy without unload; the sinks (and their queued events) go after.
    if (surface)
        surface->set_build_owner(nullptr);
    instance.reset();
    delete surface;
}

void NodeManager::Impl::start(bool with_load)
{
    if (m_started)
        return;
    m_started = true;
    loaded = !with_load;
    node->set_observer(this);
    recreate();
}

void NodeManager::Impl::impl_id_changed(model::Node *)
{
    if (!migrating)
        recreate();
}

ChildrenEventRouter *NodeManager::Impl::unbind()
{
    model::Children *own = node->children();
    if (own->observer() == this)
        own->set_observer(nullptr);
    bound_router = nullptr;
    bound_record = nullptr;
    return std::exchange(nested, nullptr);
}

void NodeManager::Impl::child_added(model::Children *list, const QUuid &, std::size_t)
{
    if (!bound_router || nested)
        return;
    // The router reads the list as it stands, the new child included.
    nested = new ChildrenEventRouter(list, *runtime, bound_router->m_running,
                                     bound_router->m_rack);
    nested->set_owner(this);
    nested->build();
}

void NodeManager::Impl::sink_received(EventSink *sink, EventScope &event)
{
    if (sink == &parent_sink) {
        // Everything the node posts towards its parent counts as emitted,
        // before the next sibling is triggered.
        if (emitted_wired)
            Q_EMIT q->emitted();
        if (bound_router)
            bound_router->route_after(bound_record, event);
    } else if (bound_router) {
        if (nested)
            nested->route_taking(0, event);
        else if (*bound_router->m_running)
            children_returned(event); // no children: straight back
    }
}

void NodeManager::Impl::children_returned(const EventScope &event)
{
    if (!bound_router || !*bound_router->m_running)
        return;
    NodeInstance *current = instance.get();
    if (!current || !current->is_created())
        return;
    if (const auto returned = current->definition().on_children_returned)
        returned(current->data(), handles::new_event(event));
}

void NodeManager::Impl::instance_renamed(NodeInstance *)
{
    Q_EMIT q->instance_name_changed();
}

void NodeManager::Impl::instance_redecorated(NodeInstance *)
{
    Q_EMIT q->decoration_changed();
}

void NodeManager::Impl::instance_needs_panel_update(NodeInstance *)
{
    if (surface)
        surface->invalidate(PropertySurface::Deferred);
}

void NodeManager::Impl::ensure_surface()
{
    if (surface || surface_asked)
        return;
    surface_asked = true;
    surface = runtime->make_surface(*q);
}

void NodeManager::Impl::wire_surface()
{
    NodeInstance *owner = instance.get();
    PropertySurface *panel = surface;
    if (!owner || !panel)
        return;
    panel->set_build_owner(owner);
    if (panel->runs_build_owner())
        return;
    // A surface that only emits build: the connection dies with the instance.
    QObject::connect(panel, &PropertySurface::build, owner, [owner](cui::GenerateContext &context) {
        const NodeDefinition &type = owner->definition();
        if (owner->is_created() && type.build)
            type.build(owner->data(), reinterpret_cast<cui_generate_context *>(&context));
    });
}

void NodeManager::Impl::recreate()
{
    if (loaded && instance) {
        loaded = false;
        if (instance->is_created() && definition && definition->unload)
            definition->unload(instance->data(), handles::to_handle(&store));
    }
    if (surface)
        surface->set_build_owner(nullptr);
    instance.reset();
    definition = runtime->registry().resolve(*node, &migrating);
    if (!definition) {
        if (surface)
            surface->refresh(nullptr);
        return;
    }

    instance = std::make_unique<NodeInstance>(*definition, &parent_sink, &child_sink);
    store = model::StoreView(&node->properties(), model::shared_key(definition->id, u"."));
    NodeInstance *created = instance.get();
    created->set_listener(this);
    // A type without a build callback has an empty panel: made only when asked for.
    if (definition->build)
        ensure_surface();

    created->create();
    if (!loaded) {
        loaded = true;
        if (definition->load)
            definition->load(created->data(), handles::to_handle(&store));
    }

    if (surface) {
        wire_surface();
        surface->refresh(created);
    }
    created->refresh_instance_name();
    created->refresh_decoration();
    if (!suppress_name_signal) {
        Q_EMIT q->instance_name_changed();
    }
}

NodeManager::NodeManager(model::Node &node, const QUuid &id, ProjectRuntime &runtime,
                         QObject *parent)
    : QObject(parent), d(std::make_unique<Impl>(*this, node, id, runtime))
{
    // The private part emits this object's signals. triggered and emitted
    // fire on every hop; they are emitted only once they have a listener
    // (connectNotify), so a hop past an unobserved node costs nothing.
}

NodeManager::~NodeManager() = default;

void NodeManager::connectNotify(const QMetaMethod &signal)
{
    if (signal == QMetaMethod::fromSignal(&NodeManager::triggered))
        d->triggered_wired = true;
    else if (signal == QMetaMethod::fromSignal(&NodeManager::emitted))
        d->emitted_wired = true;
    else if (signal == QMetaMethod::fromSignal(&NodeManager::instance_name_changed))
        d->names_wired = true;
    QObject::connectNotify(signal);
}

void NodeManager::start(bool with_load)
{
    d->start(with_load);
}

const QUuid &NodeManager::id() const
{
    return d->id;
}

model::Node &NodeManager::node() const
{
    return *d->node;
}

const NodeDefinition *NodeManager::definition() const
{
    return d->definition;
}

NodeInstance *NodeManager::instance() const
{
    return d->instance.get();
}

EventSink *NodeManager::parent_sink() const
{
    return &d->parent_sink;
}

EventSink *NodeManager::child_sink() const
{
    return &d->child_sink;
}

const model::StoreView &NodeManager::store() const
{
    return d->store;
}

bool NodeManager::is_loaded() const
{
    return d->loaded;
}

bool NodeManager::is_held() const
{
    return d->held();
}

void NodeManager::set_outside_allowed(bool allowed)
{
    if (d->outside_allowed == allowed)
        return;
    const bool was_held = d->held();
    d->outside_allowed = allowed;
    if (was_held != d->held())
        Q_EMIT decoration_changed(); // the rack panel marks held nodes
}

bool NodeManager::is_migrating() const
{
    return d->migrating;
}

void NodeManager::set_surface(PropertySurface *surface)
{
    d->surface_asked = true;
    if (d->surface == surface)
        return;
    delete d->surface;
    d->surface = surface;
    if (!surface)
        return;
    if (d->instance) {
        d->wire_surface();
        surface->refresh(d->instance.get());
    }
}

PropertySurface *NodeManager::surface() const
{
    if (!d->surface && !d->surface_asked) {
        d->ensure_surface();
        if (d->surface && d->instance) {
            d->wire_surface();
            d->surface->refresh(d->instance.get());
        }
    }
    return d->surface;
}

void NodeManager::set_instance_name_signal_suppressed(bool suppressed)
{
    d->suppress_name_signal = suppressed;
}

} // namespace corv::engine
