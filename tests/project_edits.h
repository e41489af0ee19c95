#pragma once
// Racks and nodes put into a project's model the way an edit does: into the
// table first, then into the list that shows them.

#include "model/project.h"

#include <QList>
#include <QUuid>

#include <memory>
#include <utility>

namespace corv::test {

using Settings = QList<std::pair<QString, model::Value>>;

// A rack at the end of the profile.
inline QUuid add_rack(model::Project &project, const QString &name)
{
    const QUuid id = QUuid::createUuid();
    auto rack = std::make_unique<model::Rack>();
    rack->set_name(name);
    project.add_rack(id, std::move(rack));
    project.profile()->insert(project.profile()->count(), id);
    return id;
}

// A node of `type` under a rack or node, at `index` (-1: the end), with
// settings stored as its panel would store them (keys relative to the type).
inline QUuid add_node(model::Project &project, const QUuid &parent, const QString &type,
                      const Settings &settings = {}, int index = -1)
{
    const QUuid id = QUuid::createUuid();
    auto node = std::make_unique<model::Node>();
    node->set_impl_id(type);
    const model::StoreView store(&node->properties(), node->key_prefix());
    for (const auto &[key, value] : settings)
        store.set(key, value);
    project.add_node(id, std::move(node));
    model::Rack *rack = project.find_rack(parent);
    model::Children *list = rack ? rack->top_level() : project.find_node(parent)->children();
    list->insert(index < 0 ? list->count() : std::size_t(index), id);
    return id;
}

} // namespace corv::test
