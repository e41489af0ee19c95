#pragma once

#include "model/property.h"

#include <QList>
#include <QObject>
#include <QUuid>

#include <cstddef>

namespace corv::model {

class Children;
class Node;

// The one listener a children list tells about insertions and removals
// without a signal connection: the engine, which follows every list of an
// open project (connections would cost each list far more than it holds).
// Called after the change, before the signal.
class ChildrenObserver
{
public:
    virtual void child_added(Children *list, const QUuid &id, std::size_t index) = 0;
    virtual void child_removed(Children *list, const QUuid &id, std::size_t index) = 0;

protected:
    ~ChildrenObserver() = default;
};

// The same for a node's type id.
class NodeObserver
{
public:
    virtual void impl_id_changed(Node *node) = 0;

protected:
    ~NodeObserver() = default;
};

// An ordered list of node ids: a rack's top-level list or a node's children.
// Indexes are the caller's to keep in range.
class Children : public QObject
{
    Q_OBJECT
public:
    explicit Children(QObject *parent = nullptr);
    ~Children() override;

    std::size_t count() const { return std::size_t(m_ids.size()); }
    QUuid at(std::size_t index) const { return m_ids.at(qsizetype(index)); }
    const QList<QUuid> &ids() const { return m_ids; }
    // Index of id, or -1.
    qsizetype index_of(const QUuid &id) const { return m_ids.indexOf(id); }

    // index may equal count() to append.
    void insert(std::size_t index, const QUuid &id);
    void remove(std::size_t index);
    // to_index is counted before the id is taken out, like rack moves: moving
    // from f to t with f < t leaves the id at t - 1.
    void move(std::size_t from_index, std::size_t to_index);
    // Moves the id at src_index into dest at dest_index, announcing the move
    // on both lists around the plain remove and insert.
    void move_to(std::size_t src_index, Children *dest, std::size_t dest_index);

    ChildrenObserver *observer() const { return m_observer; }
    void set_observer(ChildrenObserver *observer) { m_observer = observer; }

Q_SIGNALS:
    void before_added(const QUuid &id, std::size_t index);
    void added(const QUuid &id, std::size_t index);
    void before_moved(std::size_t from_index, std::size_t to_index);
    void moved(std::size_t from_index, std::size_t to_index);
    void before_removed(const QUuid &id, std::size_t index);
    void removed(const QUuid &id, std::size_t index);
    void external_move_emitted(std::size_t src_index, corv::model::Children *dest_parent,
                               std::size_t dest_index);
    void external_move_received(corv::model::Children *src_parent, std::size_t src_index,
                                std::size_t dest_index);

private:
    QList<QUuid> m_ids;
    ChildrenObserver *m_observer = nullptr;
};

// The position a move leaves an element at, and the move that undoes it.
std::size_t moved_position(std::size_t from_index, std::size_t to_index);
std::pair<std::size_t, std::size_t> inverse_move(std::size_t from_index, std::size_t to_index);

// The persistent description of one node: its type id, settings and children.
// The node's own id is its key in the project's node table.
class Node : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString impl_id READ impl_id WRITE set_impl_id NOTIFY impl_id_changed)
public:
    explicit Node(QObject *parent = nullptr);
    ~Node() override;

    const QString &impl_id() const { return m_impl_id; }
    void set_impl_id(const QString &impl_id);

    PropertyCollection &properties() { return m_properties; }
    const PropertyCollection &properties() const { return m_properties; }
    Children *children() { return &m_children; }
    const Children *children() const { return &m_children; }

    // The store prefix of this node's own keys: impl_id followed by ".".
    QString key_prefix() const { return m_impl_id + u'.'; }

    NodeObserver *observer() const { return m_observer; }
    void set_observer(NodeObserver *observer) { m_observer = observer; }

Q_SIGNALS:
    void impl_id_changed();

private:
    QString m_impl_id;
    PropertyCollection m_properties;
    Children m_children;
    NodeObserver *m_observer = nullptr;
};

} // namespace corv::model
