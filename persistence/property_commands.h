#pragma once

#include "model/value.h"
#include "persistence/command.h"

#include <QString>
#include <QUuid>

namespace corv::model {
class Project;
class PropertyCollection;
} // namespace corv::model

namespace corv::engine {

// Writes one value under a full key of a property collection, through the
// change test of the property. The inverse writes the value held before
// (None for a key that had no property; the key then stays listed).
class SetPropertyCommand : public Command
{
public:
    ~SetPropertyCommand() override;

    const QString &key() const { return m_key; }
    const model::Value &value() const { return m_value; }

    // Whether other writes the same property (same collection and key).
    virtual bool same_target(const SetPropertyCommand &other) const = 0;
    // The same write with another value.
    virtual std::unique_ptr<SetPropertyCommand> with_value(const model::Value &value) const = 0;

    [[nodiscard]] CommandPtr apply() override;

protected:
    SetPropertyCommand(QString full_key, model::Value value);
    // The collection written to, or null when it no longer exists.
    virtual model::PropertyCollection *collection() const = 0;

private:
    QString m_key;
    model::Value m_value;
};

// A write into a collection that outlives the command (preferences).
class SetCollectionPropertyCommand final : public SetPropertyCommand
{
public:
    SetCollectionPropertyCommand(model::PropertyCollection *collection, QString full_key, model::Value value);

    bool same_target(const SetPropertyCommand &other) const override;
    std::unique_ptr<SetPropertyCommand> with_value(const model::Value &value) const override;

protected:
    model::PropertyCollection *collection() const override { return m_collection; }

private:
    model::PropertyCollection *m_collection;
};

// A write into the collection of a project's node, found by id when applied,
// so the command stays valid while the node is removed and restored.
class SetNodePropertyCommand final : public SetPropertyCommand
{
public:
    SetNodePropertyCommand(model::Project *project, const QUuid &node, QString full_key, model::Value value);

    const QUuid &node() const { return m_node; }
    bool same_target(const SetPropertyCommand &other) const override;
    std::unique_ptr<SetPropertyCommand> with_value(const model::Value &value) const override;

protected:
    model::PropertyCollection *collection() const override;

private:
    model::Project *m_project;
    QUuid m_node;
};

} // namespace corv::engine
