#include "persistence/model_commands.h"

#include "model/project.h"
#include "persistence/logging.h"

#include <QQueue>
#include <QSet>

#include <algorithm>

namespace corv::engine {

QList<QUuid> subtree_ids(const model::Project &project, const QList<QUuid> &roots)
{
    QList<QUuid> ids;
    QSet<QUuid> seen;
    QQueue<QUuid> queue;
    for (const QUuid &root : roots)
        queue.enqueue(root);
    while (!queue.isEmpty()) {
        const QUuid id = queue.dequeue();
        const model::Node *node = project.find_node(id);
        if (!node || seen.contains(id))
            continue;
        seen.insert(id);
        ids.append(id);
        for (const QUuid &child : node->children()->ids())
            queue.enqueue(child);
    }
    return ids;
}

std::optional<NodePlace> find_node_place(const model::Project &project, const QUuid &node)
{
    for (const QUuid &rack_id : project.profile()->ids()) {
        const model::Rack *rack = project.find_rack(rack_id);
        if (!rack)
            continue;
        const qsizetype top = rack->top_level()->index_of(node);
        if (top >= 0)
            return NodePlace{rack_id, QUuid(), std::size_t(top)};
        for (const QUuid &id : subtree_ids(project, rack->top_level()->ids())) {
            const qsizetype index = project.find_node(id)->children()->index_of(node);
            if (index >= 0)
                return NodePlace{rack_id, id, std::size_t(index)};
        }
    }
    return std::nullopt;
}

NodeTable take_nodes(model::Project &project, const QList<QUuid> &ids)
{
    NodeTable table;
    table.reserve(std::size_t(ids.size()));
    for (const QUuid &id : ids) {
        if (std::unique_ptr<model::Node> node = project.take_node(id))
            table.emplace_back(id, std::move(node));
    }
    return table;
}

namespace {

bool any_node_exists(const model::Project &project, const NodeTable &nodes)
{
    return std::any_of(nodes.begin(), nodes.end(),
                       [&](const auto &entry) { return project.find_node(entry.first) != nullptr; });
}

// Deepest first, so that a node enters the table after its children.
void add_nodes(model::Project &project, NodeTable &nodes)
{
    for (auto it = nodes.rbegin(); it != nodes.rend(); ++it)
        project.add_node(it->first, std::move(it->second));
    nodes.clear();
}

} // namespace

// --- racks -----------------------------------------------------------------

AddRackCommand::AddRackCommand(model::Project *project, std::size_t index, const QString &name)
    : m_project(project), m_index(index), m_id(QUuid::createUuid()), m_rack(std::make_unique<model::Rack>())
{
    m_rack->set_name(name);
}

AddRackCommand::AddRackCommand(model::Project *project, std::size_t index, const QUuid &id,
                               std::unique_ptr<model::Rack> rack, NodeTable nodes)
    : m_project(project), m_index(index), m_id(id), m_rack(std::move(rack)), m_nodes(std::move(nodes))
{
}

AddRackCommand::~AddRackCommand() = default;

CommandPtr AddRackCommand::apply()
{
    if (!m_project || !m_rack || m_index > m_project->profile()->count() || m_project->find_rack(m_id)
        || any_node_exists(*m_project, m_nodes)) {
        qCDebug(lc_persistence, "Rack %s not added", qUtf8Printable(m_id.toString()));
        return nullptr;
    }
    add_nodes(*m_project, m_nodes);
    m_project->add_rack(m_id, std::move(m_rack));
    m_project->profile()->insert(m_index, m_id);
    return std::make_unique<RemoveRackCommand>(m_project, m_id);
}

RemoveRackCommand::RemoveRackCommand(model::Project *project, const QUuid &rack)
    : m_project(project), m_rack(rack)
{
}

CommandPtr RemoveRackCommand::apply()
{
    const qsizetype index = m_project ? m_project->profile()->index_of(m_rack) : -1;
    model::Rack *rack = m_project ? m_project->find_rack(m_rack) : nullptr;
    if (index < 0 || !rack)
        return nullptr;
    const QList<QUuid> ids = subtree_ids(*m_project, rack->top_level()->ids());
    m_project->profile()->remove(std::size_t(index));
    std::unique_ptr<model::Rack> taken = m_project->take_rack(m_rack);
    NodeTable nodes = take_nodes(*m_project, ids);
    return std::make_unique<AddRackCommand>(m_project, std::size_t(index), m_rack, std::move(taken),
                                            std::move(nodes));
}

MoveRacksCommand::MoveRacksCommand(model::Project *project, std::vector<Move> moves)
    : m_project(project), m_moves(std::move(moves))
{
}

CommandPtr MoveRacksCommand::apply()
{
    if (!m_project)
        return nullptr;
    model::Profile *profile = m_project->profile();
    std::vector<Move> inverses;
    for (const Move &move : m_moves) {
        if (move.from >= profile->count() || move.to > profile->count())
            continue;
        profile->move(move.from, move.to);
        const auto [from, to] = model::inverse_move(move.from, move.to);
        inverses.push_back({from, to});
    }
    if (inverses.empty())
        return nullptr;
    std::reverse(inverses.begin(), inverses.end());
    return std::make_unique<MoveRacksCommand>(m_project, std::move(inverses));
}

RenameRackCommand::RenameRackCommand(model::Project *project, const QUuid &rack, QString name)
    : m_project(project), m_rack(rack), m_name(std::move(name))
{
}

CommandPtr RenameRackCommand::apply()
{
    model::Rack *rack = m_project ? m_project->find_rack(m_rack) : nullptr;
    if (!rack || rack->name() == m_name)
        return nullptr;
    QString old = rack->name();
    rack->set_name(m_name);
    return std::make_unique<RenameRackCommand>(m_project, m_rack, std::move(old));
}

SetRackEnabledCommand::SetRackEnabledCommand(model::Project *project, const QUuid &rack, bool enabled)
    : m_project(project), m_rack(rack), m_enabled(enabled)
{
}

CommandPtr SetRackEnabledCommand::apply()
{
    model::Rack *rack = m_project ? m_project->find_rack(m_rack) : nullptr;
    if (!rack || rack->is_enabled() == m_enabled)
        return nullptr;
    rack->set_enabled(m_enabled);
    return std::make_unique<SetRackEnabledCommand>(m_project, m_rack, !m_enabled);
}

// --- nodes -----------------------------------------------------------------

AddNodeCommand::AddNodeCommand(model::Project *project, const NodePlace &place, const QString &impl_id)
    : m_project(project), m_place(place), m_id(QUuid::createUuid()), m_node(std::make_unique<model::Node>())
{
    m_node->set_impl_id(impl_id);
}

AddNodeCommand::AddNodeCommand(model::Project *project, const NodePlace &place, const QUuid &id,
                               std::unique_ptr<model::Node> node, NodeTable descendants)
    : m_project(project), m_place(place), m_id(id), m_node(std::move(node)), m_descendants(std::move(descendants))
{
}

AddNodeCommand::~AddNodeCommand() = default;

CommandPtr AddNodeCommand::apply()
{
    model::Children *list = m_project ? m_project->children_of(m_place.rack, m_place.parent) : nullptr;
    if (!list || m_place.index > list->count() || m_id.isNull() || (m_node && m_project->find_node(m_id))
        || any_node_exists(*m_project, m_descendants)) {
        qCDebug(lc_persistence, "Node %s not added", qUtf8Printable(m_id.toString()));
        return nullptr;
    }
    add_nodes(*m_project, m_descendants);
    if (m_node)
        m_project->add_node(m_id, std::move(m_node));
    list->insert(m_place.index, m_id);
    return std::make_unique<RemoveNodeCommand>(m_project, m_place);
}

RemoveNodeCommand::RemoveNodeCommand(model::Project *project, const NodePlace &place)
    : m_project(project), m_place(place)
{
}

CommandPtr RemoveNodeCommand::apply()
{
    model::Children *list = m_project ? m_project->children_of(m_place.rack, m_place.parent) : nullptr;
    if (!list || m_place.index >= list->count())
        return nullptr;
    const QUuid id = list->at(m_place.index);
    const QList<QUuid> ids = subtree_ids(*m_project, {id});
    list->remove(m_place.index);
    NodeTable nodes = take_nodes(*m_project, ids);
    std::unique_ptr<model::Node> root;
    if (!nodes.empty() && nodes.front().first == id) {
        root = std::move(nodes.front().second);
        nodes.erase(nodes.begin());
    }
    return std::make_unique<AddNodeCommand>(m_project, m_place, id, std::move(root), std::move(nodes));
}

MoveNodesCommand::MoveNodesCommand(model::Project *project, std::vector<NodeMove> moves)
    : m_project(project), m_moves(std::move(moves))
{
}

CommandPtr MoveNodesCommand::apply()
{
    if (!m_project)
        return nullptr;
    std::vector<NodeMove> inverses;
    for (const NodeMove &move : m_moves) {
        model::Children *source = m_project->children_of(move.from.rack, move.from.parent);
        model::Children *dest = m_project->children_of(move.to.rack, move.to.parent);
        if (!source || !dest || move.from.index >= source->count() || move.to.index > dest->count())
            continue;
        if (source == dest) {
            source->move(move.from.index, move.to.index);
            const auto [from, to] = model::inverse_move(move.from.index, move.to.index);
            inverses.push_back({{move.to.rack, move.to.parent, from}, {move.from.rack, move.from.parent, to}});
            continue;
        }
        const QUuid id = source->at(move.from.index);
        if (!move.to.parent.isNull() && subtree_ids(*m_project, {id}).contains(move.to.parent)) {
            qCDebug(lc_persistence, "Node %s not moved into its own subtree", qUtf8Printable(id.toString()));
            continue;
        }
        source->move_to(move.from.index, dest, move.to.index);
        inverses.push_back({move.to, move.from});
    }
    if (inverses.empty())
        return nullptr;
    std::reverse(inverses.begin(), inverses.end());
    return std::make_unique<MoveNodesCommand>(m_project, std::move(inverses));
}

} // namespace corv::engine
