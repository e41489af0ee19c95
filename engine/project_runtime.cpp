#include "engine/project_runtime.h"

#include "engine/children_router.h"
#include "engine/node_instance.h"
#include "engine/node_manager.h"
#include "engine/node_manager_p.h"
#include "engine/rack_manager.h"
#include "model/project.h"

#include <QCryptographicHash>
#include <QSet>

#include <algorithm>

namespace corv::engine {

ProjectRuntime::ProjectRuntime(model::Project &project, NodeRegistry &registry, QObject *parent)
    : QObject(parent), m_project(&project), m_registry(&registry)
{
}

namespace {
std::function<void()> &halt_hook()
{
    static std::function<void()> hook;
    return hook;
}
} // namespace

void ProjectRuntime::set_halt_hook(std::function<void()> hook)
{
    halt_hook() = std::move(hook);
}

ProjectRuntime::~ProjectRuntime()
{
    if (halt_hook())
        halt_hook()();
    disconnect(m_project, nullptr, this, nullptr);
    // Racks first: their routers let go of every node manager.
    const QHash<QUuid, RackManager *> racks = std::exchange(m_racks, {});
    qDeleteAll(racks);
    const QHash<QUuid, NodeManager *> nodes = std::exchange(m_nodes, {});
    qDeleteAll(nodes);
    m_waiting.clear();
}

void ProjectRuntime::set_surface_factory(SurfaceFactory factory)
{
    m_surface_factory = std::move(factory);
}

namespace {
ProjectRuntime::DefaultSurfaceFactory &default_surface_factory()
{
    static ProjectRuntime::DefaultSurfaceFactory factory;
    return factory;
}
} // namespace

void ProjectRuntime::set_default_surface_factory(DefaultSurfaceFactory factory)
{
    default_surface_factory() = std::move(factory);
}

QList<QUuid> ProjectRuntime::rack_nodes(const model::Rack &rack) const
{
    QList<QUuid> order;
    QSet<QUuid> seen;
    // Depth first without recursion, so deep trees and broken (cyclic) ones are safe.
    QList<QUuid> stack;
    const QList<QUuid> &top = rack.top_level()->ids();
    for (auto it = top.crbegin(); it != top.crend(); ++it)
        stack.append(*it);
    while (!stack.isEmpty()) {
        const QUuid id = stack.takeLast();
        if (seen.contains(id))
            continue;
        seen.insert(id);
        order.append(id);
        if (const model::Node *node = m_project->find_node(id)) {
            const QList<QUuid> &children = node->children()->ids();
            for (auto it = children.crbegin(); it != children.crend(); ++it)
                stack.append(*it);
        }
    }
    return order;
}

void ProjectRuntime::open()
{
    if (m_open)
        return;
    m_open = true;

    // Racks in profile order, then any rack of the table that the profile lacks.
    QList<QUuid> rack_order;
    QSet<QUuid> listed;
    for (const QUuid &id : m_project->profile()->ids()) {
        if (m_project->find_rack(id) && !listed.contains(id)) {
            listed.insert(id);
            rack_order.append(id);
        }
    }
    QList<QUuid> unlisted;
    for (auto it = m_project->racks().cbegin(); it != m_project->racks().cend(); ++it) {
        if (!listed.contains(it.key()))
            unlisted.append(it.key());
    }
    std::sort(unlisted.begin(), unlisted.end());
    rack_order.append(unlisted);

    // Pass one: managers, sinks and routers for everything.
    QList<QList<NodeManager *>> starts;
    starts.reserve(rack_order.size() + 1);
    for (const QUuid &rack_id : std::as_const(rack_order)) {
        model::Rack *rack = m_project->find_rack(rack_id);
        RackManager *rack_manager = make_rack_manager(rack_id, *rack);
        QList<NodeManager *> managers;
        for (const QUuid &node_id : rack_nodes(*rack)) {
            if (!m_nodes.contains(node_id) && m_project->find_node(node_id))
                managers.append(make_node_manager(node_id));
        }
        rack_manager->build_router();
        starts.append(managers);
    }
    // Nodes in no rack's tree get their manager, but no instance: no event
    // can reach them, and a source among them would run for nothing.
    QList<QUuid> loose;
    for (auto it = m_project->nodes().cbegin(); it != m_project->nodes().cend(); ++it) {
        if (!m_nodes.contains(it.key()))
            loose.append(it.key());
    }
    std::sort(loose.begin(), loose.end());
    for (const QUuid &node_id : std::as_const(loose))
        make_node_manager(node_id);

    // Pass two: instances, each rack's last node first.
    for (const QList<NodeManager *> &managers : std::as_const(starts)) {
        for (auto it = managers.crbegin(); it != managers.crend(); ++it)
            (*it)->start(true);
    }
    m_instances_started = true;

    connect(m_project, &model::Project::rack_added, this, &ProjectRuntime::on_rack_added);
    connect(m_project, &model::Project::rack_removed, this, &ProjectRuntime::on_rack_removed);
    connect(m_project, &model::Project::node_added, this, &ProjectRuntime::on_node_added);
    connect(m_project, &model::Project::node_removed, this, &ProjectRuntime::on_node_removed);
}

RackManager *ProjectRuntime::make_rack_manager(const QUuid &id, model::Rack &rack)
{
    auto *manager = new RackManager(rack, id, *this);
    // A rack that stands still ends what its nodes set going outside.
    connect(manager, &RackManager::stopped, this, [this, manager] {
        for (const QUuid &node_id : rack_nodes(manager->rack())) {
            const NodeManager *node = m_nodes.value(node_id);
            const NodeInstance *instance = node ? node->instance() : nullptr;
            if (instance && instance->is_created() && instance->definition().on_stop)
                instance->definition().on_stop(instance->data());
        }
    });
    manager->set_paused(m_paused);
    m_racks.insert(id, manager);
    return manager;
}

void ProjectRuntime::set_paused(bool paused)
{
    if (paused && !m_paused && halt_hook())
        halt_hook()();
    m_paused = paused;
    for (RackManager *rack : std::as_const(m_racks))
        rack->set_paused(paused);
}

NodeManager *ProjectRuntime::make_node_manager(const QUuid &id)
{
    auto *manager = new NodeManager(*m_project->find_node(id), id, *this);
    manager->set_outside_allowed(m_outside_allowed);
    m_nodes.insert(id, manager);
    return manager;
}

PropertySurface *ProjectRuntime::make_surface(NodeManager &manager)
{
    if (m_surface_factory)
        return m_surface_factory(manager);
    if (default_surface_factory())
        return default_surface_factory()(*this, manager);
    return nullptr;
}

void ProjectRuntime::on_rack_added(const QUuid &id)
{
    model::Rack *rack = m_project->find_rack(id);
    if (!rack || m_racks.contains(id))
        return;
    make_rack_manager(id, *rack)->build_router();
    Q_EMIT rack_added(id);
}

void ProjectRuntime::on_rack_removed(const QUuid &id)
{
    if (!m_racks.contains(id))
        return;
    Q_EMIT rack_removed(id);
    delete m_racks.take(id);
}

void ProjectRuntime::on_node_added(const QUuid &id)
{
    if (!m_project->find_node(id) || m_nodes.contains(id))
        return;
    NodeManager *manager = make_node_manager(id);
    manager->start(false);
    // The node may already stand in a running list that waits for it.
    if (ChildrenEventRouter *router = m_waiting.take(id))
        router->manager_arrived(id);
    Q_EMIT node_added(id);
}

void ProjectRuntime::on_node_removed(const QUuid &id)
{
    if (!m_nodes.contains(id))
        return;
    Q_EMIT node_removed(id);
    NodeManager *manager = m_nodes.take(id);
    if (ChildrenEventRouter *router = manager->impl()->bound_router)
        router->manager_leaving(id);
    delete manager;
}

} // namespace corv::engine

namespace corv::engine {

void ProjectRuntime::set_outside_allowed(bool allowed)
{
    m_outside_allowed = allowed;
    for (NodeManager *manager : std::as_const(m_nodes))
        manager->set_outside_allowed(allowed);
}

void ProjectRuntime::allow_node(const QUuid &id)
{
    if (NodeManager *manager = find_node_manager(id))
        manager->set_outside_allowed(true);
}

QList<QUuid> ProjectRuntime::held_nodes() const
{
    QList<QUuid> held;
    for (NodeManager *manager : std::as_const(m_nodes)) {
        if (manager->is_held())
            held.append(manager->id());
    }
    std::sort(held.begin(), held.end());
    return held;
}

QByteArray ProjectRuntime::outside_fingerprint() const
{
    QList<NodeManager *> outside;
    for (NodeManager *manager : std::as_const(m_nodes)) {
        if (manager->definition() && manager->definition()->acts_outside)
            outside.append(manager);
    }
    if (outside.isEmpty())
        return {};
    std::sort(outside.begin(), outside.end(),
              [](NodeManager *a, NodeManager *b) { return a->id() < b->id(); });
    QCryptographicHash hash(QCryptographicHash::Sha256);
    const auto add = [&hash](const QByteArray &bytes) {
        hash.addData(QByteArray::number(bytes.size()) + ':');
        hash.addData(bytes);
    };
    for (NodeManager *manager : std::as_const(outside)) {
        add(manager->id().toByteArray());
        add(manager->definition()->id.toUtf8());
        const model::PropertyCollection &properties = manager->node().properties();
        QStringList keys = properties.all_keys();
        keys.sort();
        for (const QString &key : std::as_const(keys)) {
            const model::Value &value = properties.find(key)->value();
            add(key.toUtf8());
            add(QByteArray::number(int(value.type())));
            add(value.to_string());
            add(value.to_buffer());
            add(QByteArray::number(value.to_float(), 'g', 17));
            add(QByteArray::number(value.to_int()));
        }
    }
    return hash.result().toHex();
}

} // namespace corv::engine
