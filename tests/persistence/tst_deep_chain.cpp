// A node chain far deeper than any call stack would take, generated here:
// it is saved, read back, run, routed through, cut and restored by undo, saved
// again and closed. Every walk over the tree must work without recursion.

#include "engine/children_router.h"
#include "engine/handles.h"
#include "engine/node_instance.h"
#include "engine/node_registry.h"
#include "engine/project_runtime.h"
#include "engine/rack_manager.h"
#include "model/project.h"
#include "persistence/model_commands.h"
#include "persistence/reader.h"
#include "persistence/writer.h"

#include <QEventLoop>
#include <QLoggingCategory>
#include <QTest>
#include <QTimer>

using namespace corv;
using namespace corv::engine;

namespace {

constexpr int kDepth = 100000;

int entered = 0;
int returned = 0;

// Runs its children with every event, and passes on what they give back.
void *chain_create(corv_node *node)
{
    return node;
}

void chain_on_event(void *data, corv_event *event)
{
    ++entered;
    EventSink::post(handles::node(static_cast<corv_node *>(data))->child_sink(), *handles::event(event));
    handles::release_event(event);
}

void chain_returned(void *data, corv_event *event)
{
    ++returned;
    EventSink::post(handles::node(static_cast<corv_node *>(data))->parent_sink(), *handles::event(event));
    handles::release_event(event);
}

} // namespace

class TstDeepChain : public QObject
{
    Q_OBJECT

    PluginIdentity m_plugin{QStringLiteral("chain"), QStringLiteral("Chain"), {}};
    NodeRegistry m_registry;

    // Posts one event into the rack and waits until it comes out at the top;
    // true when every node of `depth` saw it going down and coming back.
    bool run_through(ProjectRuntime &runtime, const QUuid &rack, int depth)
    {
        entered = returned = 0;
        // Every hop is a posted event: a loop of our own runs them without
        // the pauses of QTest::qWait.
        QEventLoop loop;
        RackManager *manager = runtime.find_rack_manager(rack);
        const QMetaObject::Connection done = connect(manager->top_router(), &ChildrenEventRouter::event_returned,
                                                     &loop, [&loop] { loop.exit(0); });
        QTimer::singleShot(120000, &loop, [&loop] { loop.exit(1); });
        EventScope event;
        event.set("key", "value");
        EventSink::post(manager->sink(), event);
        const bool finished = loop.exec() == 0;
        disconnect(done);
        return finished && entered == depth && returned == depth;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QLoggingCategory::setFilterRules(QStringLiteral("corv.*.debug=false\ncorv.*.info=false"));
        NodeRegistration registration(m_registry, m_plugin);
        corv_node_type chain{};
        chain.id = "test.chain";
        chain.name = "Chain";
        chain.create = chain_create;
        chain.on_event = chain_on_event;
        chain.on_children_returned = chain_returned;
        registration.register_node(&chain);
        registration.commit();
    }

    void open_route_save_undo_close()
    {
        // Saved from a generated model...
        QByteArray saved;
        QUuid rack_id = QUuid::createUuid();
        QList<QUuid> ids;
        {
            model::Project source;
            auto rack = std::make_unique<model::Rack>();
            model::Children *list = rack->top_level();
            source.add_rack(rack_id, std::move(rack));
            source.profile()->insert(0, rack_id);
            for (int depth = 0; depth < kDepth; ++depth) {
                const QUuid id = QUuid::createUuid();
                auto node = std::make_unique<model::Node>();
                node->set_impl_id(QStringLiteral("test.chain"));
                model::StoreView(&node->properties(), node->key_prefix())
                    .set(QStringLiteral("!depth"), model::Value::integer(depth));
                model::Children *next = node->children();
                source.add_node(id, std::move(node));
                list->insert(0, id);
                list = next;
                ids.append(id);
            }
            saved = write_project(source).document;
        }

        // ...read back and run.
        model::Project project;
        QCOMPARE(read_project(saved, project), ReadResult::Ok);
        auto runtime = std::make_unique<ProjectRuntime>(project, m_registry);
        runtime->open();
        QCOMPARE(runtime->node_managers().size(), kDepth);
        QVERIFY(run_through(*runtime, rack_id, kDepth));

        // Cutting the chain below its second node leaves two to run through;
        // undoing the cut brings every node back, wired as before.
        RemoveNodeCommand remove(&project, NodePlace{rack_id, ids.at(1), 0});
        CommandPtr undo = remove.apply();
        QVERIFY(undo);
        QCOMPARE(project.nodes().size(), 2);
        QCOMPARE(runtime->node_managers().size(), 2);
        QVERIFY(run_through(*runtime, rack_id, 2));
        QVERIFY(undo->apply());
        QCOMPARE(runtime->node_managers().size(), kDepth);
        QVERIFY(run_through(*runtime, rack_id, kDepth));

        // Saved again, the project is what it was; then it closes.
        QCOMPARE(write_project(project).document, saved);
        runtime.reset();
    }
};

QTEST_GUILESS_MAIN(TstDeepChain)
#include "tst_deep_chain.moc"
