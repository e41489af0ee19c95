#include "engine/children_router.h"

#include "engine/activity_tap.h"
#include "engine/handles.h"
#include "engine/node_manager_p.h"
#include "engine/project_runtime.h"
#include "model/node.h"

#include <algorithm>
#include <cstring>

namespace corv::engine {

namespace {
// Lists longer than this find their records through a hash.
constexpr std::size_t kIndexFrom = 16;

// QUuid's own == compares its last eight bytes one at a time; a hop asks
// twice, so compare the sixteen bytes at once.
inline bool same_id(const QUuid &a, const QUuid &b)
{
    static_assert(sizeof(QUuid) == 16);
    return std::memcmp(&a, &b, sizeof(QUuid)) == 0;
}
} // namespace

struct ChildrenEventRouter::Child {
    QUuid id;
    qsizetype hint = 0;
    // How often the id stands in the list; only a broken project has more than one.
    int occurrences = 1;
    NodeManager::Impl *manager = nullptr;
};

ChildrenEventRouter::ChildrenEventRouter(model::Children *children, ProjectRuntime &runtime,
                                         const bool *running, const RackManager *rack,
                                         QObject *parent)
    : QObject(parent), m_children(children), m_runtime(&runtime), m_running(running),
      m_rack(rack)
{
}

ChildrenEventRouter::~ChildrenEventRouter()
{
    if (m_released)
        return; // torn down by destroy_all()
    Work below;
    release(below);
    destroy_all(std::move(below));
}

void ChildrenEventRouter::build()
{
    if (m_built)
        return;
    build_all({this});
}

void ChildrenEventRouter::build_all(Work work)
{
    while (!work.empty()) {
        ChildrenEventRouter *router = work.back();
        work.pop_back();
        router->wire(work);
    }
}

void ChildrenEventRouter::wire(Work &to_build)
{
    if (m_built || !m_children)
        return;
    m_built = true;
    m_children->set_observer(this);
    const QList<QUuid> &ids = m_children->ids();
    for (qsizetype i = 0; i < ids.size(); ++i)
        add(ids.at(i), std::size_t(i), to_build);
}

void ChildrenEventRouter::destroy_all(Work work)
{
    while (!work.empty()) {
        ChildrenEventRouter *router = work.back();
        work.pop_back();
        router->release(work);
        delete router;
    }
}

void ChildrenEventRouter::release(Work &to_destroy)
{
    m_released = true;
    if (m_children && m_children->observer() == this)
        m_children->set_observer(nullptr);
    for (Child *child : m_records) {
        unbind(*child, false, to_destroy);
        delete child;
    }
    m_records.clear();
    m_index.reset();
    m_at.clear();
}

ChildrenEventRouter *ChildrenEventRouter::nested_router(const QUuid &child) const
{
    const Child *record = find(child);
    return record && record->manager ? record->manager->nested : nullptr;
}

ChildrenEventRouter::Child *ChildrenEventRouter::find(const QUuid &id) const
{
    if (m_index)
        return m_index->value(id, nullptr);
    for (Child *child : m_records) {
        if (child->id == id)
            return child;
    }
    return nullptr;
}

void ChildrenEventRouter::route(std::size_t start, const EventScope &event)
{
    EventScope reference(event);
    route_taking(start, reference);
}

void ChildrenEventRouter::route_taking(std::size_t start, EventScope &event)
{
    if (!*m_running)
        return;
    if (m_children) {
        const QList<QUuid> &ids = m_children->ids();
        for (qsizetype i = qsizetype(start), n = ids.size(); i < n; ++i) {
            Child *child = child_at(i, ids.at(i));
            if (!child || !child->manager)
                continue;
            NodeInstance *instance = child->manager->instance.get();
            if (!instance)
                continue;
            const corv_node_on_event_fn on_event = instance->definition().on_event;
            if (!on_event)
                continue;
            child->hint = i;
            if (ActivityTap::active()) [[unlikely]]
                ActivityTap::enter(m_rack, *child->manager->q, event);
            if (child->manager->triggered_wired) // nobody listens otherwise
                Q_EMIT child->manager->q->triggered();
            if (child->manager->held())
                return; // not allowed to act outside the program yet: dropped
            if (instance->is_created())
                on_event(instance->data(), handles::new_event(std::move(event)));
            return;
        }
    }
    if (m_owner)
        m_owner->children_returned(event);
    Q_EMIT event_returned(event);
}

void ChildrenEventRouter::route_after(void *record, EventScope &event)
{
    route_taking(std::size_t(index_of(*static_cast<Child *>(record))) + 1, event);
}

ChildrenEventRouter::Child *ChildrenEventRouter::child_at(qsizetype index, const QUuid &id)
{
    if (index < m_at.size()) {
        Child *cached = m_at.at(index);
        if (cached && same_id(cached->id, id))
            return cached;
    }
    Child *child = find(id);
    if (child) {
        if (index >= m_at.size())
            m_at.resize(index + 1);
        m_at[index] = child;
    }
    return child;
}

qsizetype ChildrenEventRouter::index_of(Child &child) const
{
    if (!m_children)
        return 0;
    const QList<QUuid> &ids = m_children->ids();
    const qsizetype n = ids.size();
    const qsizetype hint = child.hint;
    if (hint < n && same_id(ids.at(hint), child.id))
        return hint;
    // One insertion or removal ahead of the child moves it by one.
    if (hint + 1 < n && same_id(ids.at(hint + 1), child.id))
        return child.hint = hint + 1;
    if (hint > 0 && hint - 1 < n && same_id(ids.at(hint - 1), child.id))
        return child.hint = hint - 1;
    const qsizetype found = ids.indexOf(child.id);
    if (found < 0)
        return n;
    return child.hint = found;
}

void ChildrenEventRouter::child_added(model::Children *, const QUuid &id, std::size_t index)
{
    Work to_build;
    add(id, index, to_build);
    build_all(std::move(to_build));
}

void ChildrenEventRouter::add(const QUuid &id, std::size_t index, Work &to_build)
{
    Child *child = find(id);
    if (child) {
        ++child->occurrences;
    } else {
        child = new Child;
        child->id = id;
        child->hint = qsizetype(index);
        m_records.push_back(child);
        if (m_index) {
            m_index->insert(id, child);
        } else if (m_records.size() > kIndexFrom) {
            m_index = std::make_unique<QHash<QUuid, Child *>>();
            for (Child *record : m_records)
                m_index->insert(record->id, record);
        }
    }
    m_at.insert(std::min(qsizetype(index), m_at.size()), child);
    if (child->occurrences == 1)
        bind(*child, to_build);
}

void ChildrenEventRouter::child_removed(model::Children *, const QUuid &id, std::size_t index)
{
    if (qsizetype(index) < m_at.size())
        m_at.remove(qsizetype(index));
    Child *child = find(id);
    if (!child || --child->occurrences > 0)
        return;
    m_records.erase(std::find(m_records.begin(), m_records.end(), child));
    if (m_index)
        m_index->remove(id);
    m_at.removeAll(child);
    Work to_destroy;
    unbind(*child, false, to_destroy);
    delete child;
    destroy_all(std::move(to_destroy));
}

void ChildrenEventRouter::bind(Child &child, Work &to_build)
{
    NodeManager *manager = m_runtime->find_node_manager(child.id);
    if (!manager) {
        m_runtime->m_waiting.insert(child.id, this);
        return;
    }
    NodeManager::Impl *d = manager->impl();
    if (d->bound_router)
        return; // the node already runs in another list; here it stays transparent
    child.manager = d;
    d->bound_router = this;
    d->bound_record = &child;
    // A node outside every rack when the project opened gets its instance
    // once a rack reaches it.
    if (m_runtime->m_instances_started && !d->is_started())
        d->start(true);
    model::Children *own = d->node->children();
    if (own->count() == 0) {
        // The first child of the node will make its router.
        own->set_observer(d);
        return;
    }
    d->nested = new ChildrenEventRouter(own, *m_runtime, m_running, m_rack);
    d->nested->set_owner(d);
    to_build.push_back(d->nested);
}

void ChildrenEventRouter::unbind(Child &child, bool wait, Work &to_destroy)
{
    if (NodeManager::Impl *d = child.manager) {
        if (ChildrenEventRouter *nested = d->unbind())
            to_destroy.push_back(nested);
        child.manager = nullptr;
    } else {
        auto it = m_runtime->m_waiting.find(child.id);
        if (it != m_runtime->m_waiting.end() && it.value() == this)
            m_runtime->m_waiting.erase(it);
    }
    if (wait)
        m_runtime->m_waiting.insert(child.id, this);
}

void ChildrenEventRouter::manager_arrived(const QUuid &id)
{
    Child *child = find(id);
    if (!child || child->manager)
        return;
    Work to_build;
    bind(*child, to_build);
    build_all(std::move(to_build));
}

void ChildrenEventRouter::manager_leaving(const QUuid &id)
{
    Child *child = find(id);
    if (!child)
        return;
    Work to_destroy;
    unbind(*child, true, to_destroy);
    destroy_all(std::move(to_destroy));
}

} // namespace corv::engine
