#include "model/node.h"

namespace corv::model {

Children::Children(QObject *parent) : QObject(parent) {}

Children::~Children() = default;

void Children::insert(std::size_t index, const QUuid &id)
{
    Q_EMIT before_added(id, index);
    m_ids.insert(qsizetype(index), id);
    if (m_observer)
        m_observer->child_added(this, id, index);
    Q_EMIT added(id, index);
}

void Children::remove(std::size_t index)
{
    const QUuid id = m_ids.at(qsizetype(index));
    Q_EMIT before_removed(id, index);
    m_ids.removeAt(qsizetype(index));
    if (m_observer)
        m_observer->child_removed(this, id, index);
    Q_EMIT removed(id, index);
}

void Children::move(std::size_t from_index, std::size_t to_index)
{
    Q_EMIT before_moved(from_index, to_index);
    m_ids.move(qsizetype(from_index), qsizetype(moved_position(from_index, to_index)));
    Q_EMIT moved(from_index, to_index);
}

void Children::move_to(std::size_t src_index, Children *dest, std::size_t dest_index)
{
    const QUuid id = m_ids.at(qsizetype(src_index));
    Q_EMIT external_move_emitted(src_index, dest, dest_index);
    remove(src_index);
    dest->insert(dest_index, id);
    Q_EMIT dest->external_move_received(this, src_index, dest_index);
}

std::size_t moved_position(std::size_t from_index, std::size_t to_index)
{
    return from_index < to_index ? to_index - 1 : to_index;
}

std::pair<std::size_t, std::size_t> inverse_move(std::size_t from_index, std::size_t to_index)
{
    if (from_index < to_index)
        return {to_index - 1, from_index};
    return {to_index, from_index + 1};
}

Node::Node(QObject *parent) : QObject(parent) {}

Node::~Node() = default;

void Node::set_impl_id(const QString &impl_id)
{
    if (m_impl_id == impl_id)
        return;
    m_impl_id = shared_key(impl_id);
    if (m_observer)
        m_observer->impl_id_changed(this);
    Q_EMIT impl_id_changed();
}

} // namespace corv::model
