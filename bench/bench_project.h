#pragma once

// The generated project the open, save and start-up benchmarks share: racks of
// delay, fork, sequential, debounce and on-custom nodes with their settings.

#include "bench/bench_support.h"
#include "model/node.h"
#include "model/project.h"
#include "model/property.h"
#include "persistence/writer.h"

#include <QByteArray>
#include <QUuid>

#include <memory>

namespace corv::bench {

// The node types of the generated project, in turn, with the settings each
// keeps.
inline void fill_node(model::Node &node, int n)
{
    static const char *const types[] = {"io.marrowfield.delay", "io.marrowfield.fork",
                                        "io.marrowfield.sequential", "io.marrowfield.debounce",
                                        "io.marrowfield.custom"};
    const int kind = n % 5;
    node.set_impl_id(QString::fromLatin1(types[kind]));
    const model::StoreView store(&node.properties(), node.key_prefix());
    switch (kind) {
    case 0:
        store.set(QStringLiteral("!delay"), model::Value::floating(1.5 + n));
        break;
    case 1:
        store.set(QStringLiteral("name"), model::Value::string("fork " + QByteArray::number(n)));
        break;
    case 3:
        store.set(QStringLiteral("!delay"), model::Value::floating(0.25));
        break;
    case 4:
        store.set(QStringLiteral("!name"), model::Value::string("custom " + QByteArray::number(n)));
        store.set(QStringLiteral("!scope"), model::Value::string("{\n  \"key\": \"value\"\n}"));
        break;
    default:
        break;
    }
    store.set(QStringLiteral("!note"), model::Value::string("node " + QByteArray::number(n)));
    store.set(QStringLiteral("count"), model::Value::integer(n));
}

inline QUuid add_node(model::Project &project, model::Children *list, int n)
{
    const QUuid id = QUuid::createUuid();
    auto node = std::make_unique<model::Node>();
    fill_node(*node, n);
    project.add_node(id, std::move(node));
    list->insert(list->count(), id);
    return id;
}

// Racks whose top-level nodes hold four children each.
inline QByteArray generate_racks(int racks, int nodes_per_rack)
{
    model::Project project;
    for (int r = 0; r < racks; ++r) {
        model::Children *top = project.find_rack(add_rack(project, r + 1))->top_level();
        model::Children *children = top;
        for (int n = 0; n < nodes_per_rack; ++n) {
            const QUuid id = add_node(project, n % 5 == 0 ? top : children, n);
            if (n % 5 == 0)
                children = project.find_node(id)->children();
        }
    }
    return engine::write_project(project).document;
}

inline QByteArray generate_chain(int depth)
{
    model::Project project;
    model::Children *list = project.find_rack(add_rack(project, 1))->top_level();
    for (int n = 0; n < depth; ++n)
        list = project.find_node(add_node(project, list, n))->children();
    return engine::write_project(project).document;
}

} // namespace corv::bench
