#include "persistence/paste.h"

#include "model/project.h"
#include "persistence/id_translator.h"
#include "persistence/reader.h"

namespace corv::engine {

namespace {

CommandPtr single_or_composite(std::vector<CommandPtr> commands)
{
    if (commands.empty())
        return nullptr;
    if (commands.size() == 1)
        return std::move(commands.front());
    return std::make_unique<CompositeCommand>(std::move(commands));
}

} // namespace

CommandPtr paste_racks_command(const QByteArray &document, model::Project &target, std::size_t index,
                               ReadResult *result)
{
    model::Project scratch;
    const ReadResult read = read_racks_clipboard(document, scratch, IdTranslator::for_paste(document, target));
    if (result)
        *result = read;
    if (read != ReadResult::Ok)
        return nullptr;

    std::vector<CommandPtr> commands;
    const QList<QUuid> racks = scratch.profile()->ids();
    for (const QUuid &id : racks) {
        const QList<QUuid> ids = subtree_ids(scratch, scratch.find_rack(id)->top_level()->ids());
        std::unique_ptr<model::Rack> rack = scratch.take_rack(id);
        commands.push_back(std::make_unique<AddRackCommand>(&target, index + commands.size(), id, std::move(rack),
                                                            take_nodes(scratch, ids)));
    }
    return single_or_composite(std::move(commands));
}

CommandPtr paste_nodes_command(const QByteArray &document, model::Project &target, const NodePlace &place,
                               ReadResult *result)
{
    model::Project scratch;
    QList<QUuid> top_nodes;
    const ReadResult read =
        read_nodes_clipboard(document, scratch, IdTranslator::for_paste(document, target), &top_nodes);
    if (result)
        *result = read;
    if (read != ReadResult::Ok)
        return nullptr;

    std::vector<CommandPtr> commands;
    for (const QUuid &id : std::as_const(top_nodes)) {
        // A node copied twice is pasted once.
        std::unique_ptr<model::Node> node = scratch.take_node(id);
        if (!node)
            continue;
        const QList<QUuid> descendants = subtree_ids(scratch, node->children()->ids());
        NodePlace at = place;
        at.index += commands.size();
        commands.push_back(
            std::make_unique<AddNodeCommand>(&target, at, id, std::move(node), take_nodes(scratch, descendants)));
    }
    return single_or_composite(std::move(commands));
}

} // namespace corv::engine
