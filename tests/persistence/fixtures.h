#pragma once

// Small projects for the persistence tests, built straight on the model.

#include "model/project.h"
#include "persistence/reader.h"
#include "persistence/writer.h"

#include <QRegularExpression>
#include <QTest>

namespace fixtures {

using namespace corv;
using corv::engine::ReadResult;

inline QUuid make_id(int n)
{
    return QUuid::fromString(QStringLiteral("00000000-0000-0000-0000-%1").arg(n, 12, 10, QLatin1Char('0')));
}

inline QString id_text(int n)
{
    return make_id(n).toString(QUuid::WithoutBraces);
}

inline model::Rack *add_rack(model::Project &project, int n, const QString &name)
{
    auto rack = std::make_unique<model::Rack>();
    rack->set_name(name);
    model::Rack *raw = rack.get();
    project.add_rack(make_id(n), std::move(rack));
    project.profile()->insert(project.profile()->count(), make_id(n));
    return raw;
}

// A node of impl_id, in the table and (unless into is null) at the end of into.
inline model::Node *add_node(model::Project &project, int n, const QString &impl_id, model::Children *into)
{
    auto node = std::make_unique<model::Node>();
    node->set_impl_id(impl_id);
    model::Node *raw = node.get();
    project.add_node(make_id(n), std::move(node));
    if (into)
        into->insert(into->count(), make_id(n));
    return raw;
}

inline void set(model::Node *node, const QString &local_key, const model::Value &value)
{
    model::StoreView(&node->properties(), node->key_prefix()).set(local_key, value);
}

// Racks 1 "A": 10 (11, 12 (13, 14)), 20; 2 "B": 30 (31); 3 "C": empty. Every
// node is of type "t" and holds "!origin" = its number, so a copy can be traced.
inline void fill(model::Project &project)
{
    const auto add = [&](int n, model::Children *into) {
        model::Node *node = add_node(project, n, QStringLiteral("t"), into);
        set(node, QStringLiteral("!origin"), model::Value::integer(n));
        return node->children();
    };
    model::Children *c10 = add(10, add_rack(project, 1, QStringLiteral("A"))->top_level());
    add(11, c10);
    model::Children *c12 = add(12, c10);
    add(13, c12);
    add(14, c12);
    add(20, project.find_rack(make_id(1))->top_level());
    add(31, add(30, add_rack(project, 2, QStringLiteral("B"))->top_level()));
    add_rack(project, 3, QStringLiteral("C"));
}

inline int origin(const model::Project &project, const QUuid &id)
{
    return project.find_node(id)->properties().find(QStringLiteral("!origin"))->value().to_int();
}

// The state compared through the writer's bytes, plus the table sizes, so that
// a node left behind in the table without a place shows too.
struct Snapshot {
    QByteArray bytes;
    qsizetype nodes = 0;
    qsizetype racks = 0;
    bool operator==(const Snapshot &) const = default;
};

inline Snapshot snapshot(const model::Project &project)
{
    return {engine::write_project(project).document, project.nodes().size(), project.racks().size()};
}

inline void fail_on_warnings()
{
    QTest::failOnWarning(QRegularExpression(QStringLiteral(".*")));
}

} // namespace fixtures
