#include "persistence/property_commands.h"

#include "model/project.h"
#include "persistence/logging.h"

namespace corv::engine {

SetPropertyCommand::SetPropertyCommand(QString full_key, model::Value value)
    : m_key(std::move(full_key)), m_value(std::move(value))
{
}

SetPropertyCommand::~SetPropertyCommand() = default;

CommandPtr SetPropertyCommand::apply()
{
    model::PropertyCollection *target = collection();
    if (!target) {
        qCDebug(lc_persistence, "Property %s not set: its collection is gone", qUtf8Printable(m_key));
        return nullptr;
    }
    model::Property *property = target->find(m_key);
    const model::Value old = property ? property->value() : model::Value();
    if (property ? old == m_value : m_value.is_none())
        return nullptr;
    target->append_key(m_key);
    if (!property)
        property = target->find_or_create(m_key);
    property->set(m_value);
    return with_value(old);
}

SetCollectionPropertyCommand::SetCollectionPropertyCommand(model::PropertyCollection *collection,
                                                           QString full_key, model::Value value)
    : SetPropertyCommand(std::move(full_key), std::move(value)), m_collection(collection)
{
}

bool SetCollectionPropertyCommand::same_target(const SetPropertyCommand &other) const
{
    const auto *o = dynamic_cast<const SetCollectionPropertyCommand *>(&other);
    return o && o->m_collection == m_collection && o->key() == key();
}

std::unique_ptr<SetPropertyCommand> SetCollectionPropertyCommand::with_value(const model::Value &value) const
{
    return std::make_unique<SetCollectionPropertyCommand>(m_collection, key(), value);
}

SetNodePropertyCommand::SetNodePropertyCommand(model::Project *project, const QUuid &node, QString full_key,
                                               model::Value value)
    : SetPropertyCommand(std::move(full_key), std::move(value)), m_project(project), m_node(node)
{
}

bool SetNodePropertyCommand::same_target(const SetPropertyCommand &other) const
{
    const auto *o = dynamic_cast<const SetNodePropertyCommand *>(&other);
    return o && o->m_project == m_project && o->m_node == m_node && o->key() == key();
}

std::unique_ptr<SetPropertyCommand> SetNodePropertyCommand::with_value(const model::Value &value) const
{
    return std::make_unique<SetNodePropertyCommand>(m_project, m_node, key(), value);
}

model::PropertyCollection *SetNodePropertyCommand::collection() const
{
    model::Node *node = m_project ? m_project->find_node(m_node) : nullptr;
    return node ? &node->properties() : nullptr;
}

} // namespace corv::engine
