#include "engine/node_manager.h"

#include "engine/handles.h"
#include "engine/node_manager_p.h"
#include "engine/project_runtime.h"

#include <QMetaMethod>

namespace corv::engine {

NodeManager::Impl::Impl(model::Node &node, const QUuid &id, ProjectRuntime &runtime)
    : node(&node), runtime(&runtime), id(id), store(&node.properties(), node.key_prefix())
{
}

NodeManager::Impl::~Impl()
{
    // destroy without unload; the sinks (and their queued events) go after.
    instance.reset();
}

void NodeManager::Impl::start(bool with_load)
{
    if (m_started)
        return;
    m_started = true;
    loaded = !with_load;
    connect(node, &model::Node::impl_id_changed, this, &Impl::on_impl_id_changed);
    recreate();
}

void NodeManager::Impl::on_impl_id_changed()
{
    if (!migrating)
        recreate();
}

void NodeManager::Impl::wire_surface()
{
    NodeInstance *owner = instance.get();
    PropertySurface *panel = surface;
    if (!owner || !panel)
        return;
    // Both connections die with the instance, so a re-created node wires anew.
    connect(owner, &NodeInstance::properties_need_update, panel,
            [panel] { panel->invalidate(PropertySurface::Deferred); });
    connect(panel, &PropertySurface::build, owner, [owner](cui::GenerateContext &context) {
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
    instance.reset();
    definition = runtime->registry().resolve(*node, &migrating);
    if (!definition) {
        if (surface)
            surface->refresh(nullptr);
        return;
    }

    instance = std::make_unique<NodeInstance>(*definition, &parent_sink, &child_sink);
    store = model::StoreView(&node->properties(), definition->id + u'.');
    NodeInstance *created = instance.get();
    connect(created, &NodeInstance::instance_name_changed, this, &Impl::instance_name_changed);
    connect(created, &NodeInstance::decoration_changed, this, &Impl::decoration_changed);
    wire_surface();

    created->create();
    if (!loaded) {
        loaded = true;
        if (definition->load)
            definition->load(created->data(), handles::to_handle(&store));
    }

    if (surface)
        surface->refresh(created);
    created->refresh_instance_name();
    created->refresh_decoration();
    if (!suppress_name_signal)
        Q_EMIT instance_name_changed();
}

NodeManager::NodeManager(model::Node &node, const QUuid &id, ProjectRuntime &runtime,
                         QObject *parent)
    : QObject(parent), d(std::make_unique<Impl>(node, id, runtime))
{
    connect(d.get(), &Impl::instance_name_changed, this, &NodeManager::instance_name_changed);
    connect(d.get(), &Impl::decoration_changed, this, &NodeManager::decoration_changed);
    // triggered and emitted fire on every hop; they are wired on their first
    // listener (connectNotify), so a hop past an unobserved node costs no
    // signal delivery.
}

NodeManager::~NodeManager() = default;

void NodeManager::connectNotify(const QMetaMethod &signal)
{
    if (!d->triggered_wired && signal == QMetaMethod::fromSignal(&NodeManager::triggered)) {
        d->triggered_wired = true;
        connect(d.get(), &Impl::triggered, this, &NodeManager::triggered);
    } else if (!d->emitted_wired && signal == QMetaMethod::fromSignal(&NodeManager::emitted)) {
        d->emitted_wired = true;
        // Everything the node posts towards its parent counts as emitted.
        connect(&d->parent_sink, &EventSink::event_received, d.get(), &Impl::emitted);
        connect(d.get(), &Impl::emitted, this, &NodeManager::emitted);
    }
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

bool NodeManager::is_migrating() const
{
    return d->migrating;
}

void NodeManager::set_surface(PropertySurface *surface)
{
    if (d->surface == surface)
        return;
    delete d->surface.data();
    d->surface = surface;
    if (!surface)
        return;
    surface->setParent(d.get());
    if (d->instance) {
        d->wire_surface();
        surface->refresh(d->instance.get());
    }
}

PropertySurface *NodeManager::surface() const
{
    return d->surface.data();
}

void NodeManager::set_instance_name_signal_suppressed(bool suppressed)
{
    d->suppress_name_signal = suppressed;
}

} // namespace corv::engine
