#pragma once

#include "persistence/command.h"

#include <QList>
#include <QString>
#include <QUuid>

#include <cstddef>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace corv::model {
class Node;
class Project;
class Rack;
} // namespace corv::model

namespace corv::engine {

// A position in a rack's tree: the null parent means the rack's top-level
// list, any other parent the children of that node.
struct NodePlace
{
    QUuid rack;
    QUuid parent;
    std::size_t index = 0;
};

// A move within one list; `to` is counted before the element is taken out.
struct Move
{
    std::size_t from = 0;
    std::size_t to = 0;
};

// A node move. Within one list it follows the Move convention; between two
// lists `to.index` is the index in the destination list.
struct NodeMove
{
    NodePlace from;
    NodePlace to;
};

// Nodes taken out of a project with their ids, root first (breadth-first).
using NodeTable = std::vector<std::pair<QUuid, std::unique_ptr<model::Node>>>;

// The ids of the trees under roots, roots included, breadth-first, each once;
// references to missing nodes are left out.
QList<QUuid> subtree_ids(const model::Project &project, const QList<QUuid> &roots);

// Where a node stands in the trees of the project's racks, or nothing.
std::optional<NodePlace> find_node_place(const model::Project &project, const QUuid &node);

// Takes the nodes of ids out of the project's node table, in that order.
NodeTable take_nodes(model::Project &project, const QList<QUuid> &ids);

// Adds a rack with the nodes of its trees and puts it at index of the rack
// list. Refused (nothing changes) when the index is out of range or an id is
// already used. Inverse: RemoveRackCommand.
class AddRackCommand final : public Command
{
public:
    // A new empty, enabled rack with a fresh id.
    AddRackCommand(model::Project *project, std::size_t index, const QString &name);
    // A given rack and its nodes (a restored or pasted rack).
    AddRackCommand(model::Project *project, std::size_t index, const QUuid &id, std::unique_ptr<model::Rack> rack,
                   NodeTable nodes);
    ~AddRackCommand() override;

    const QUuid &rack_id() const { return m_id; }
    [[nodiscard]] CommandPtr apply() override;

private:
    model::Project *m_project;
    std::size_t m_index;
    QUuid m_id;
    std::unique_ptr<model::Rack> m_rack;
    NodeTable m_nodes;
};

// Takes a rack out of the rack list and the tables, with every node of its
// trees. Inverse: AddRackCommand holding them all, ids and properties intact.
class RemoveRackCommand final : public Command
{
public:
    RemoveRackCommand(model::Project *project, const QUuid &rack);
    [[nodiscard]] CommandPtr apply() override;

private:
    model::Project *m_project;
    QUuid m_rack;
};

// Moves racks in the rack list, one move after the other. The inverse holds
// the inverse of each move, last move first.
class MoveRacksCommand final : public Command
{
public:
    MoveRacksCommand(model::Project *project, std::vector<Move> moves);
    [[nodiscard]] CommandPtr apply() override;

private:
    model::Project *m_project;
    std::vector<Move> m_moves;
};

class RenameRackCommand final : public Command
{
public:
    RenameRackCommand(model::Project *project, const QUuid &rack, QString name);
    [[nodiscard]] CommandPtr apply() override;

private:
    model::Project *m_project;
    QUuid m_rack;
    QString m_name;
};

class SetRackEnabledCommand final : public Command
{
public:
    SetRackEnabledCommand(model::Project *project, const QUuid &rack, bool enabled);
    [[nodiscard]] CommandPtr apply() override;

private:
    model::Project *m_project;
    QUuid m_rack;
    bool m_enabled;
};

// Adds a node with its descendants and puts its id at place. Refused when the
// place does not exist, the index is out of range or an id is already used.
// Inverse: RemoveNodeCommand at the same place.
class AddNodeCommand final : public Command
{
public:
    // A new node of type impl_id, without properties or children, fresh id.
    AddNodeCommand(model::Project *project, const NodePlace &place, const QString &impl_id);
    // A given node and its descendants (a restored or pasted subtree). A null
    // node puts back only the reference.
    AddNodeCommand(model::Project *project, const NodePlace &place, const QUuid &id,
                   std::unique_ptr<model::Node> node, NodeTable descendants);
    ~AddNodeCommand() override;

    const QUuid &node_id() const { return m_id; }
    [[nodiscard]] CommandPtr apply() override;

private:
    model::Project *m_project;
    NodePlace m_place;
    QUuid m_id;
    std::unique_ptr<model::Node> m_node;
    NodeTable m_descendants;
};

// Takes the node at place out of its list, and it and all its descendants out
// of the node table. Inverse: AddNodeCommand holding the whole subtree.
class RemoveNodeCommand final : public Command
{
public:
    RemoveNodeCommand(model::Project *project, const NodePlace &place);
    [[nodiscard]] CommandPtr apply() override;

private:
    model::Project *m_project;
    NodePlace m_place;
};

// Moves nodes, one move after the other, within a list or between lists (the
// external move, so listeners see it as a move). A move that would put a node
// inside its own subtree, or names a missing place or index, is skipped. The
// inverse holds the inverse of each move made, last move first.
class MoveNodesCommand final : public Command
{
public:
    MoveNodesCommand(model::Project *project, std::vector<NodeMove> moves);
    [[nodiscard]] CommandPtr apply() override;

private:
    model::Project *m_project;
    std::vector<NodeMove> m_moves;
};

} // namespace corv::engine
