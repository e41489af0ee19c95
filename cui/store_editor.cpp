#include "cui/store_editor.h"

#include "locale/keys.h"
#include "model/property.h"
#include "persistence/command_manager.h"
#include "persistence/property_commands.h"

namespace corv::cui {

StoreEditor::StoreEditor(engine::CommandManager *commands, CommandMaker make_command, QByteArray name)
    : m_commands(commands), m_make(std::move(make_command)), m_name(std::move(name))
{
}

StoreEditor StoreEditor::for_node(engine::CommandManager *commands, model::Project *project,
                                  const QUuid *node)
{
    return StoreEditor(commands, [project, node](const QString &key, const model::Value &value) {
        return std::make_unique<engine::SetNodePropertyCommand>(project, *node, key, value);
    }, CORV_TR_KEY("Edit.ChangeNode"));
}

StoreEditor StoreEditor::for_collection(engine::PropertyCollectionCommandManager *commands)
{
    model::PropertyCollection *collection = commands ? commands->collection() : nullptr;
    return StoreEditor(commands, [collection](const QString &key, const model::Value &value) {
        return std::make_unique<engine::SetCollectionPropertyCommand>(collection, key, value);
    }, CORV_TR_KEY("Edit.ChangePreference"));
}

void StoreEditor::write(model::PropertyCollection *collection, const QString &full_key,
                        const model::Value &value, bool merge) const
{
    if (has_undo()) {
        std::unique_ptr<engine::SetPropertyCommand> command = m_make(full_key, value);
        if (merge)
            m_commands->execute_merged(std::move(command), m_name);
        else
            m_commands->execute(std::move(command), m_name);
        return;
    }
    if (!collection)
        return;
    collection->append_key(full_key);
    collection->find_or_create(full_key)->set(value);
}

void StoreEditor::end_run() const
{
    if (m_commands)
        m_commands->commit_pending();
}

} // namespace corv::cui
