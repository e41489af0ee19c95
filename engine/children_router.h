#pragma once

#include "engine/event.h"

#include <QHash>
#include <QObject>
#include <QUuid>

#include <cstddef>

namespace corv::model {
class Children;
}

namespace corv::engine {

class ProjectRuntime;

// Decides which node of one children list (a rack's top level or a node's
// children) receives an event next. Order and membership are read from the
// list at the moment of routing. Each child present in the list is wired:
// what it posts to its parent sink goes on to its next sibling, what it posts
// to its child sink enters its own nested router, and what comes back out of
// that router is handed to its on_children_returned.
class ChildrenEventRouter : public QObject
{
    Q_OBJECT
public:
    // running: the rack's running flag, shared by all routers of one rack.
    ChildrenEventRouter(model::Children *children, ProjectRuntime &runtime, const bool *running,
                        QObject *parent = nullptr);
    ~ChildrenEventRouter() override;

    // Wires every child in the list (recursively) and follows the list's
    // insertions and removals from then on.
    void build();

    // Hands event to the first eligible child at or after start; emits
    // event_returned when none is left. Dropped when the rack is not running.
    void route(std::size_t start, const EventScope &event);

    model::Children *children() const { return m_children; }
    // The router over a wired child's own children, or null.
    ChildrenEventRouter *nested_router(const QUuid &child) const;

Q_SIGNALS:
    void event_returned(const corv::engine::EventScope &event);

private:
    friend class ProjectRuntime;
    struct Child;

    void on_added(const QUuid &id, std::size_t index);
    void on_removed(const QUuid &id, std::size_t index);
    void bind(Child &child);
    // wait: the child stays in the list and is bound again when its node
    // manager returns.
    void unbind(Child &child, bool wait);
    // Called by the runtime around the life of a node manager.
    void manager_arrived(const QUuid &id);
    void manager_leaving(const QUuid &id);
    // The child's index in the live list: the position hint when it still
    // holds, else the neighbours of the hint, else a linear search. The list
    // size when the child is gone.
    qsizetype index_of(Child &child) const;
    // The record of the id at index: the position cache when it still holds
    // that id, else the hash (refreshing the cache).
    Child *child_at(qsizetype index, const QUuid &id);

    model::Children *m_children;
    ProjectRuntime *m_runtime;
    const bool *m_running;
    QHash<QUuid, Child *> m_records;
    // Records by list position, a cache checked against the live list.
    QList<Child *> m_at;
    bool m_built = false;
};

} // namespace corv::engine
