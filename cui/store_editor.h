#pragma once

#include "persistence/command_manager.h"

#include <QByteArray>
#include <QPointer>
#include <QString>
#include <QUuid>

#include <functional>
#include <memory>

namespace corv::model {
class Project;
class PropertyCollection;
class Value;
} // namespace corv::model

namespace corv::engine {
class SetPropertyCommand;
}

namespace corv::cui {

// How a surface writes what the user edits into its store: as undoable
// set-property commands through a command manager, or (with none) straight
// into the collection. Writes that come in runs (typing, dragging) are merged
// into one undo step until end_run().
class StoreEditor
{
public:
    using CommandMaker = std::function<std::unique_ptr<engine::SetPropertyCommand>(
        const QString &full_key, const model::Value &value)>;

    // Writes straight into the collection, with no undo.
    StoreEditor() = default;
    // `name` names the edits in the history ("Edit.ChangeNode").
    StoreEditor(engine::CommandManager *commands, CommandMaker make_command, QByteArray name = {});

    // Edits of a project node's properties, through the project's commands.
    // `node` must outlive the editor (a node manager's id): the editor keeps
    // only pointers, so a project's thousands of panels hold no copy each.
    static StoreEditor for_node(engine::CommandManager *commands, model::Project *project,
                                const QUuid *node);
    // Edits of a preferences collection, through its own command manager.
    static StoreEditor for_collection(engine::PropertyCollectionCommandManager *commands);

    engine::CommandManager *commands() const { return m_commands.data(); }
    bool has_undo() const { return m_commands && m_make; }

    // One user edit of full_key in collection. With merge, the write joins the
    // editing run in progress on the same key, or starts one.
    void write(model::PropertyCollection *collection, const QString &full_key,
               const model::Value &value, bool merge) const;
    // Ends the editing run in progress, if any.
    void end_run() const;

private:
    QPointer<engine::CommandManager> m_commands;
    CommandMaker m_make;
    QByteArray m_name;
};

} // namespace corv::cui
