#include "engine/children_router.h"

#include "engine/handles.h"
#include "engine/node_manager_p.h"
#include "engine/project_runtime.h"
#include "model/node.h"

#include <algorithm>

namespace corv::engine {

struct ChildrenEventRouter::Child {
    QUuid id;
    qsizetype hint = 0;
    // How often the id stands in the list; only a broken project has more than one.
    int occurrences = 1;
    NodeManager::Impl *manager = nullptr;
    ChildrenEventRouter *nested = nullptr; // owned
    QMetaObject::Connection from_parent_sink;
    QMetaObject::Connection from_child_sink;
};

ChildrenEventRouter::ChildrenEventRouter(model::Children *children, ProjectRuntime &runtime,
                                         const bool *running, QObject *parent)
    : QObject(parent), m_children(children), m_runtime(&runtime), m_running(running)
{
    if (m_children) {
        // A list that dies first (its node deleted without the runtime being
        // told) leaves an empty router behind, never a dangling one.
        connect(m_children, &QObject::destroyed, this, [this] { m_children = nullptr; });
    }
}

ChildrenEventRouter::~ChildrenEventRouter()
{
    for (Child *child : std::as_const(m_records)) {
        unbind(*child, false);
        delete child;
    }
}

void ChildrenEventRouter::build()
{
    if (m_built || !m_children)
        return;
    m_built = true;
    connect(m_children, &model::Children::added, this, &ChildrenEventRouter::on_added);
    connect(m_children, &model::Children::removed, this, &ChildrenEventRouter::on_removed);
    const QList<QUuid> &ids = m_children->ids();
    for (qsizetype i = 0; i < ids.size(); ++i)
        on_added(ids.at(i), std::size_t(i));
}

ChildrenEventRouter *ChildrenEventRouter::nested_router(const QUuid &child) const
{
    const Child *record = m_records.value(child, nullptr);
    return record ? record->nested : nullptr;
}

void ChildrenEventRouter::route(std::size_t start, const EventScope &event)
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
            if (child->manager->triggered_wired) // nobody listens otherwise
                Q_EMIT child->manager->triggered();
            if (instance->is_created())
                on_event(instance->data(), handles::new_event(event));
            return;
        }
    }
    Q_EMIT event_returned(event);
}

ChildrenEventRouter::Child *ChildrenEventRouter::child_at(qsizetype index, const QUuid &id)
{
    if (index < m_at.size()) {
        Child *cached = m_at.at(index);
        if (cached && cached->id == id)
            return cached;
    }
    Child *child = m_records.value(id, nullptr);
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
    if (hint < n && ids.at(hint) == child.id)
        return hint;
    // One insertion or removal ahead of the child moves it by one.
    if (hint + 1 < n && ids.at(hint + 1) == child.id)
        return child.hint = hint + 1;
    if (hint > 0 && hint - 1 < n && ids.at(hint - 1) == child.id)
        return child.hint = hint - 1;
    const qsizetype found = ids.indexOf(child.id);
    if (found < 0)
        return n;
    return child.hint = found;
}

void ChildrenEventRouter::on_added(const QUuid &id, std::size_t index)
{
    Child *child = m_records.value(id, nullptr);
    if (child) {
        ++child->occurrences;
    } else {
        child = new Child;
        child->id = id;
        child->hint = qsizetype(index);
        m_records.insert(id, child);
    }
    m_at.insert(std::min(qsizetype(index), m_at.size()), child);
    if (child->occurrences == 1)
        bind(*child);
}

void ChildrenEventRouter::on_removed(const QUuid &id, std::size_t index)
{
    if (qsizetype(index) < m_at.size())
        m_at.remove(qsizetype(index));
    auto it = m_records.find(id);
    if (it == m_records.end())
        return;
    Child *child = it.value();
    if (--child->occurrences > 0)
        return;
    m_records.erase(it);
    m_at.removeAll(child);
    unbind(*child, false);
    delete child;
}

void ChildrenEventRouter::bind(Child &child)
{
    NodeManager *manager = m_runtime->find_node_manager(child.id);
    if (!manager) {
        m_runtime->m_waiting.insert(child.id, this);
        return;
    }
    NodeManager::Impl *d = manager->impl();
    if (d->bound_router)
        return; // the node already runs in another list; here it stays transparent
    d->bound_router = this;
    child.manager = d;

    Child *record = &child;
    child.from_parent_sink = connect(&d->parent_sink, &EventSink::event_received, this,
                                     [this, record](const EventScope &event) {
                                         route(std::size_t(index_of(*record)) + 1, event);
                                     });

    child.nested = new ChildrenEventRouter(d->node->children(), *m_runtime, m_running);
    ChildrenEventRouter *nested = child.nested;
    child.from_child_sink = connect(&d->child_sink, &EventSink::event_received, nested,
                                    [nested](const EventScope &event) { nested->route(0, event); });
    connect(nested, &ChildrenEventRouter::event_returned, nested,
            [this, record](const EventScope &event) {
                if (!*m_running || !record->manager)
                    return;
                NodeInstance *instance = record->manager->instance.get();
                if (!instance || !instance->is_created())
                    return;
                if (const auto returned = instance->definition().on_children_returned)
                    returned(instance->data(), handles::new_event(event));
            });
    nested->build();
}

void ChildrenEventRouter::unbind(Child &child, bool wait)
{
    disconnect(child.from_parent_sink);
    disconnect(child.from_child_sink);
    delete child.nested;
    child.nested = nullptr;
    if (child.manager) {
        child.manager->bound_router = nullptr;
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
    Child *child = m_records.value(id, nullptr);
    if (child && !child->manager)
        bind(*child);
}

void ChildrenEventRouter::manager_leaving(const QUuid &id)
{
    if (Child *child = m_records.value(id, nullptr))
        unbind(*child, true);
}

} // namespace corv::engine
