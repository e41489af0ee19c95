#pragma once

// Node types for the engine tests, written as a plugin writes them: static
// C-callable callbacks in a corv_node_type record, acting through the engine
// calls that the SDK functions wrap.

#include "engine/event.h"
#include "engine/node_registry.h"
#include "engine/project_runtime.h"
#include "model/project.h"
#include "tests/project_edits.h"

#include <QHash>
#include <QLoggingCategory>
#include <QRegularExpression>
#include <QStringList>
#include <QTest>
#include <QUuid>

#include <atomic>
#include <memory>

namespace test_nodes {

// "test.pass"    passes each event on, and what its children return
// "test.runner"  runs its children with each event; passes on what they return
// "test.mark"    appends its label and "," to the event's "path", then passes it on
// "test.fork"    a clone runs the children; the original gets "forked"="yes" and
//                passes on; what the children return is dropped
// "test.silent"  no on_event, no on_children_returned
// "test.drop"    drops everything
// "test.named"   pass, with the instance name and decoration of its "!name"
//                and "!decoration"
inline const char *const pass_type = "test.pass";
inline const char *const runner_type = "test.runner";
inline const char *const mark_type = "test.mark";
inline const char *const fork_type = "test.fork";
inline const char *const drop_type = "test.drop";
inline const char *const named_type = "test.named";

// One line per lifecycle callback: "create A", "load A", "unload A", "destroy A".
extern QStringList lifecycle;
// Every on_event call, counted across threads.
extern std::atomic<int> on_event_calls;

struct Fixture {
    corv::engine::PluginIdentity plugin{QStringLiteral("tests"), QStringLiteral("Tests"), {}};
    corv::engine::NodeRegistry registry;
    corv::model::Project project;
    std::unique_ptr<corv::engine::ProjectRuntime> runtime;
    QHash<QUuid, QString> labels;

    // Registers every test type; the engine's info lines are filtered out.
    Fixture();
    ~Fixture();

    QUuid add_rack(const QString &name)
    {
        const QUuid id = corv::test::add_rack(project, name);
        labels.insert(id, name);
        return id;
    }
    // A node of type under parent (a rack or node id), at the end or at index;
    // its label is stored under "!label".
    QUuid add_node(const QUuid &parent, const char *type, const QString &label, int index = -1);
    void open();

    corv::model::Children *list_of(const QUuid &parent) const;
    QString label(const QUuid &id) const { return labels.value(id); }
    QUuid id(const QString &label) const { return labels.key(label); }
    // Posts an event with "id"=tag into a rack.
    void post_to_rack(const QUuid &rack, const QByteArray &tag);
};

inline void fail_on_warnings()
{
    QTest::failOnWarning(QRegularExpression(QStringLiteral(".*")));
}

} // namespace test_nodes
