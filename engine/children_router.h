#pragma once

#include "engine/event.h"
#include "engine/node_manager.h"
#include "model/node.h"

#include <QHash>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QUuid>

#include <cstddef>
#include <memory>
#include <vector>

namespace corv::engine {

class ProjectRuntime;
class RackManager;

// Decides which node of one children list (a rack's top level or a node's
// children) receives an event next. Order and membership are read from the
// list at the moment of routing. Each child present in the list is wired:
// what it posts to its parent sink goes on to its next sibling, what it posts
// to its child sink enters its own children (through a nested router, made
// once the child has any), and what comes back out of those is handed to its
// on_children_returned.
//
// Trees may be arbitrarily deep: building and tearing down walk them with a
// work list, never by recursion.
class ChildrenEventRouter : public QObject, public model::ChildrenObserver
{
    Q_OBJECT
public:
    // running: the rack's running flag, shared by all routers of one rack;
    // rack: that rack's manager, named in what the activity tap reports.
    ChildrenEventRouter(model::Children *children, ProjectRuntime &runtime, const bool *running,
                        const RackManager *rack = nullptr, QObject *parent = nullptr);
    // Lets go of every child and tears down the routers below.
    ~ChildrenEventRouter() override;

    // Wires every child in the list (and their children, all the way down)
    // and follows the list's insertions and removals from then on.
    void build();

    // Hands event to the first eligible child at or after start; emits
    // event_returned when none is left. Dropped when the rack is not running.
    void route(std::size_t start, const EventScope &event);

    model::Children *children() const { return m_children.data(); }
    // The router over a wired child's own children, or null (also while
    // the child has none).
    ChildrenEventRouter *nested_router(const QUuid &child) const;

    // model::ChildrenObserver
    void child_added(model::Children *list, const QUuid &id, std::size_t index) override;
    void child_removed(model::Children *list, const QUuid &id, std::size_t index) override;

Q_SIGNALS:
    void event_returned(const corv::engine::EventScope &event);

private:
    friend class ProjectRuntime;
    friend class NodeManager::Impl;
    struct Child;
    using Work = std::vector<ChildrenEventRouter *>;

    // The node manager whose children this router serves; null at a rack's top.
    void set_owner(NodeManager::Impl *owner) { m_owner = owner; }
    // Routes what the child of `record` passed on to the next sibling.
    void route_after(void *record, EventScope &event);
    // route() that hands the reference itself to the child that gets it
    // (event is empty afterwards in that case).
    void route_taking(std::size_t start, EventScope &event);

    // Builds the queued routers, queueing the nested routers their children
    // need, until none is left.
    static void build_all(Work work);
    // Lets go of the queued routers' children and deletes them, queueing the
    // nested routers of those children, until none is left.
    static void destroy_all(Work work);
    void wire(Work &to_build);
    void release(Work &to_destroy);

    void add(const QUuid &id, std::size_t index, Work &to_build);
    void bind(Child &child, Work &to_build);
    // wait: the child stays in the list and is bound again when its node
    // manager returns.
    void unbind(Child &child, bool wait, Work &to_destroy);
    // Called by the runtime around the life of a node manager.
    void manager_arrived(const QUuid &id);
    void manager_leaving(const QUuid &id);

    Child *find(const QUuid &id) const;
    // The child's index in the live list: the position hint when it still
    // holds, else the neighbours of the hint, else a linear search. The list
    // size when the child is gone.
    qsizetype index_of(Child &child) const;
    // The record of the id at index: the position cache when it still holds
    // that id, else a lookup (refreshing the cache).
    Child *child_at(qsizetype index, const QUuid &id);

    QPointer<model::Children> m_children;
    ProjectRuntime *m_runtime;
    const bool *m_running;
    const RackManager *m_rack;
    NodeManager::Impl *m_owner = nullptr;
    // One record per distinct child id.
    std::vector<Child *> m_records;
    // Records by id, made once a list grows long.
    std::unique_ptr<QHash<QUuid, Child *>> m_index;
    // Records by list position, a cache checked against the live list.
    QList<Child *> m_at;
    bool m_built = false;
    bool m_released = false;
};

} // namespace corv::engine
