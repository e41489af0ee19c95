// Real events through real trees on the real event loop: the order in which
// nodes see events, returns to parents, transparent nodes, disabled racks,
// copy-on-write between clones, and edits while events are in flight.

#include "engine/children_router.h"
#include "engine/event.h"
#include "engine/node_instance.h"
#include "engine/node_manager.h"
#include "engine/rack_manager.h"
#include "test_nodes.h"

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QMap>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>
#include <QThread>

using namespace corv;
using namespace corv::engine;
using namespace test_nodes;

namespace {

// Lets the queue run until nothing is left to deliver.
void settle()
{
    for (int i = 0; i < 50; ++i)
        QCoreApplication::sendPostedEvents();
}

// Records the label of every node as the router triggers it, and every event
// that leaves the top level of any rack.
struct Trace {
    Fixture &fixture;
    QStringList triggered;
    QList<EventScope> returned;
    QHash<QUuid, int> returned_per_rack;

    explicit Trace(Fixture &f) : fixture(f)
    {
        for (NodeManager *manager : fixture.runtime->node_managers())
            watch(manager);
        QObject::connect(fixture.runtime.get(), &ProjectRuntime::node_added,
                         [this](const QUuid &id) { watch(fixture.runtime->find_node_manager(id)); });
        for (RackManager *rack : fixture.runtime->rack_managers()) {
            const QUuid rack_id = rack->id();
            QObject::connect(rack->top_router(), &ChildrenEventRouter::event_returned,
                             [this, rack_id](const EventScope &event) {
                                 returned.append(event);
                                 ++returned_per_rack[rack_id];
                             });
        }
    }

    void watch(NodeManager *manager)
    {
        const QString label = fixture.label(manager->id());
        QObject::connect(manager, &NodeManager::triggered,
                         [this, label] { triggered.append(label); });
    }

    QStringList returned_values(const QByteArray &key) const
    {
        QStringList values;
        for (const EventScope &event : returned)
            values << QString::fromUtf8(event.value(key));
        return values;
    }
};

} // namespace

class TstEventRouting : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        QTest::failOnWarning(QRegularExpression(QStringLiteral(".*")));
    }

    void initTestCase()
    {
        // Registration lines are the registry test's business.
        QLoggingCategory::setFilterRules(QStringLiteral("corv.engine.info=false"));
    }

    void order_of_a_tree()
    {
        // A, B[B1, B2[B21]], C: B and B2 run their children, which return to them.
        Fixture f;
        const QUuid rack = f.add_rack(QStringLiteral("R"));
        f.add_node(rack, mark_type, QStringLiteral("A"));
        const QUuid b = f.add_node(rack, runner_type, QStringLiteral("B"));
        f.add_node(b, mark_type, QStringLiteral("B1"));
        const QUuid b2 = f.add_node(b, runner_type, QStringLiteral("B2"));
        f.add_node(b2, mark_type, QStringLiteral("B21"));
        f.add_node(rack, mark_type, QStringLiteral("C"));
        f.open();
        Trace trace(f);

        f.post_to_rack(rack, "1");
        settle();
        QCOMPARE(trace.triggered, (QStringList{"A", "B", "B1", "B2", "B21", "C"}));
        QCOMPARE(trace.returned_values("path"), QStringList{"A,B1,B21,C,"});
        QCOMPARE(trace.returned_values("id"), QStringList{"1"});
    }

    void transparent_nodes_data()
    {
        QTest::addColumn<QStringList>("types");
        QTest::addColumn<QStringList>("seen");
        QTest::addColumn<QString>("path");
        // Each entry is a top-level node; "X>Y" gives X a child of type Y.
        QTest::newRow("unknown type between") << QStringList{"test.mark", "test.gone", "test.mark"}
                                              << QStringList{"0", "2"} << "0,2,";
        QTest::newRow("no on_event, children never run")
            << QStringList{"test.mark", "test.silent>test.mark", "test.mark"}
            << QStringList{"0", "2"} << "0,2,";
        QTest::newRow("all unknown") << QStringList{"test.gone", "test.gone"} << QStringList{}
                                     << "";
        QTest::newRow("empty rack") << QStringList{} << QStringList{} << "";
        QTest::newRow("runner with empty children returns at once")
            << QStringList{"test.runner", "test.mark"} << QStringList{"0", "1"} << "1,";
        QTest::newRow("runner over unknown children")
            << QStringList{"test.runner>test.gone", "test.mark"} << QStringList{"0", "1"} << "1,";
    }

    void transparent_nodes()
    {
        QFETCH(QStringList, types);
        QFETCH(QStringList, seen);
        QFETCH(QString, path);
        Fixture f;
        const QUuid rack = f.add_rack(QStringLiteral("R"));
        for (int i = 0; i < types.size(); ++i) {
            const QStringList parts = types.at(i).split(u'>');
            const QUuid node = f.add_node(rack, qPrintable(parts.at(0)), QString::number(i));
            if (parts.size() > 1)
                f.add_node(node, qPrintable(parts.at(1)), QString::number(i) + QStringLiteral("c"));
        }
        for (const QString &type : types) {
            for (const QString &part : type.split(u'>')) {
                if (part == QLatin1String("test.gone"))
                    QTest::ignoreMessage(QtWarningMsg, "Unknown node test.gone");
            }
        }
        f.open();
        Trace trace(f);

        f.post_to_rack(rack, "1");
        settle();
        QCOMPARE(trace.triggered, seen);
        QCOMPARE(trace.returned_values("path"), QStringList{path});
    }

    void dropping_node_ends_the_event()
    {
        Fixture f;
        const QUuid rack = f.add_rack(QStringLiteral("R"));
        f.add_node(rack, mark_type, QStringLiteral("A"));
        f.add_node(rack, drop_type, QStringLiteral("D"));
        f.add_node(rack, mark_type, QStringLiteral("C"));
        f.open();
        Trace trace(f);
        f.post_to_rack(rack, "1");
        settle();
        QCOMPARE(trace.triggered, (QStringList{"A", "D"}));
        QVERIFY(trace.returned.isEmpty());
    }

    void emitted_counts_posts_to_the_parent()
    {
        Fixture f;
        const QUuid rack = f.add_rack(QStringLiteral("R"));
        const QUuid a = f.add_node(rack, runner_type, QStringLiteral("A"));
        const QUuid a1 = f.add_node(a, pass_type, QStringLiteral("A1"));
        f.open();
        QSignalSpy a_emitted(f.runtime->find_node_manager(a), &NodeManager::emitted);
        QSignalSpy a1_emitted(f.runtime->find_node_manager(a1), &NodeManager::emitted);
        QSignalSpy a1_triggered(f.runtime->find_node_manager(a1), &NodeManager::triggered);
        f.post_to_rack(rack, "1");
        f.post_to_rack(rack, "2");
        settle();
        // A posts into its children (not emitted), gets them back and passes on.
        QCOMPARE(a_emitted.size(), 2);
        QCOMPARE(a1_emitted.size(), 2);
        QCOMPARE(a1_triggered.size(), 2);
    }

    void moves_are_read_live()
    {
        Fixture f;
        const QUuid rack = f.add_rack(QStringLiteral("R"));
        for (const char *label : {"A", "B", "C", "D"})
            f.add_node(rack, mark_type, QString::fromLatin1(label));
        f.open();
        Trace trace(f);
        model::Children *top = f.list_of(rack);
        top->move(0, 4); // B C D A
        top->move(2, 0); // D B C A
        f.post_to_rack(rack, "1");
        settle();
        QCOMPARE(trace.returned_values("path"), QStringList{"D,B,C,A,"});
    }

    void far_moves_while_waiting_data()
    {
        QTest::addColumn<QString>("edit");
        QTest::addColumn<QString>("path");
        // An event waits in A's parent sink while the list changes around A.
        QTest::newRow("A moved to the end") << "move" << "A,";
        QTest::newRow("three inserted in front") << "insert" << "A,B,C,";
        QTest::newRow("A moved up past two") << "moveup" << "A,C,";
    }

    void far_moves_while_waiting()
    {
        QFETCH(QString, edit);
        QFETCH(QString, path);
        Fixture f;
        const QUuid rack = f.add_rack(QStringLiteral("R"));
        for (const char *label : {"A", "B", "C"})
            f.add_node(rack, mark_type, QString::fromLatin1(label));
        f.open();
        Trace trace(f);
        f.post_to_rack(rack, "1");
        QCoreApplication::sendPostedEvents(); // A has it and posted it on
        model::Children *top = f.list_of(rack);
        if (edit == QLatin1String("move")) {
            top->move(0, 3);
        } else if (edit == QLatin1String("insert")) {
            for (int i = 0; i < 3; ++i)
                f.add_node(rack, mark_type, QStringLiteral("new%1").arg(i), 0);
        } else {
            for (int i = 0; i < 3; ++i)
                f.add_node(rack, mark_type, QStringLiteral("new%1").arg(i), 0);
            top->move(3, 5); // new0 new1 new2 B A C
        }
        settle();
        QCOMPARE(trace.returned_values("path"), QStringList{path});
    }

    void disabled_rack_drops_at_next_hop()
    {
        Fixture f;
        const QUuid one = f.add_rack(QStringLiteral("One"));
        const QUuid two = f.add_rack(QStringLiteral("Two"));
        for (int i = 0; i < 5; ++i) {
            f.add_node(one, mark_type, QStringLiteral("o%1").arg(i));
            f.add_node(two, mark_type, QStringLiteral("t%1").arg(i));
        }
        f.open();
        Trace trace(f);

        // A disabled rack takes nothing: no node flashes.
        f.project.find_rack(one)->set_enabled(false);
        f.post_to_rack(one, "x");
        settle();
        QVERIFY(trace.triggered.isEmpty());

        // Enabled again: events flow, nothing was re-created.
        f.project.find_rack(one)->set_enabled(true);
        const int creates = lifecycle.filter(QStringLiteral("create")).size();
        for (int i = 0; i < 20; ++i) {
            f.post_to_rack(one, QByteArray::number(i));
            f.post_to_rack(two, QByteArray::number(i));
        }
        // Two hops in, rack One goes off: its events stop where they are.
        QCoreApplication::sendPostedEvents(); // rack sinks -> first nodes
        QCoreApplication::sendPostedEvents(); // first nodes -> second nodes
        f.project.find_rack(one)->set_enabled(false);
        settle();
        QCOMPARE(trace.returned_per_rack.value(one), 0);
        QCOMPARE(trace.returned_per_rack.value(two), 20);
        for (const EventScope &event : std::as_const(trace.returned))
            QCOMPARE(event.value("path"), QByteArray("t0,t1,t2,t3,t4,"));
        QCOMPARE(lifecycle.filter(QStringLiteral("create")).size(), creates);
        QVERIFY(f.runtime->find_node_manager(f.id(QStringLiteral("o4")))->instance());
        QCOMPARE(trace.triggered.count(QStringLiteral("o4")), 0);
    }

    void clones_are_copy_on_write()
    {
        // F forks: its children see the event as it came, its siblings the
        // changed original.
        Fixture f;
        const QUuid rack = f.add_rack(QStringLiteral("R"));
        const QUuid fork_id = f.add_node(rack, fork_type, QStringLiteral("F"));
        const QUuid child = f.add_node(fork_id, drop_type, QStringLiteral("F1"));
        f.add_node(rack, mark_type, QStringLiteral("S"));
        f.open();
        Trace trace(f);

        QList<QByteArray> child_saw;
        // Watch what F1 receives through the router of F's children.
        QObject::connect(f.runtime->find_node_manager(fork_id)->child_sink(),
                         &EventSink::event_received, [&](const EventScope &event) {
                             child_saw << event.value("forked");
                         });
        f.post_to_rack(rack, "1");
        settle();
        QCOMPARE(child_saw, QList<QByteArray>{QByteArray()});
        QCOMPARE(trace.returned_values("forked"), QStringList{"yes"});
        QVERIFY(trace.triggered.contains(f.label(child)));
    }

    void queued_reference_is_not_changed_by_later_writes()
    {
        Fixture f;
        const QUuid rack = f.add_rack(QStringLiteral("R"));
        f.add_node(rack, pass_type, QStringLiteral("A"));
        f.open();
        Trace trace(f);

        EventScope event;
        event.set("k", "first");
        EventSink *sink = f.runtime->find_rack_manager(rack)->sink();
        EventSink::post(sink, event);
        EventSink::post(sink, event);
        event.set("k", "second");
        settle();
        QCOMPARE(trace.returned_values("k"), (QStringList{"first", "first"}));
        QCOMPARE(trace.returned.at(0).data(), trace.returned.at(1).data());
        QCOMPARE(event.value("k"), QByteArray("second"));
    }

    void events_from_worker_threads_arrive_whole()
    {
        Fixture f;
        const QUuid rack = f.add_rack(QStringLiteral("R"));
        f.add_node(rack, mark_type, QStringLiteral("A"));
        const QUuid b = f.add_node(rack, fork_type, QStringLiteral("B"));
        f.add_node(b, mark_type, QStringLiteral("B1"));
        f.add_node(rack, mark_type, QStringLiteral("C"));
        f.open();
        Trace trace(f);

        constexpr int threads = 4;
        constexpr int per_thread = 250;
        EventSink *sink = f.runtime->find_rack_manager(rack)->sink();
        QList<QThread *> workers;
        for (int t = 0; t < threads; ++t) {
            workers << QThread::create([sink, t] {
                for (int i = 0; i < per_thread; ++i) {
                    EventScope event;
                    for (int k = 0; k < 8; ++k)
                        event.set("k" + QByteArray::number(k), QByteArray::number(t * 1000 + i));
                    event.set("thread", QByteArray::number(t));
                    EventScope kept = event; // a second holder that keeps writing
                    EventSink::post(sink, event);
                    kept.set("k0", "changed after posting");
                }
            });
            workers.last()->start();
        }
        for (QThread *worker : std::as_const(workers)) {
            QVERIFY(worker->wait(10000));
            delete worker;
        }
        QTRY_COMPARE(trace.returned.size(), threads * per_thread);
        QHash<QByteArray, int> per_thread_count;
        for (const EventScope &event : std::as_const(trace.returned)) {
            QCOMPARE(event.count(), 11); // k0..k7, thread, path, forked
            const QByteArray value = event.value("k0");
            for (int k = 1; k < 8; ++k)
                QCOMPARE(event.value("k" + QByteArray::number(k)), value);
            QCOMPARE(event.value("path"), QByteArray("A,C,"));
            ++per_thread_count[event.value("thread")];
        }
        for (int t = 0; t < threads; ++t)
            QCOMPARE(per_thread_count.value(QByteArray::number(t)), per_thread);
    }

    void edits_while_events_are_in_flight()
    {
        Fixture f;
        const QUuid rack = f.add_rack(QStringLiteral("R"));
        for (int i = 0; i < 6; ++i)
            f.add_node(rack, mark_type, QStringLiteral("n%1").arg(i));
        f.open();
        Trace trace(f);

        // Six batches, each one hop behind the one before: batch k waits in
        // the parent sink of node n(5-k).
        for (int batch = 0; batch < 6; ++batch) {
            for (int i = 0; i < 10; ++i)
                f.post_to_rack(rack, QByteArray::number(batch));
            QCoreApplication::sendPostedEvents(); // one hop for everything queued
        }

        model::Children *top = f.list_of(rack);
        // Insert at the front and in the middle; take n1 out of the list (it
        // stays in the project) and n3 out of the project altogether.
        f.add_node(rack, mark_type, QStringLiteral("x"), 0);
        f.add_node(rack, mark_type, QStringLiteral("y"), 4);
        const QUuid n1 = f.id(QStringLiteral("n1"));
        top->remove(std::size_t(top->index_of(n1)));
        const QUuid n3 = f.id(QStringLiteral("n3"));
        top->remove(std::size_t(top->index_of(n3)));
        f.project.take_node(n3);
        QCOMPARE(f.runtime->find_node_manager(n3), nullptr);
        settle();

        // What waited in n1's and n3's sinks ends there; everything else goes
        // on in the new order.
        QMap<QString, int> paths;
        for (const QString &path : trace.returned_values("path"))
            ++paths[path];
        const QMap<QString, int> expected{{QStringLiteral("n0,n1,n2,n3,n4,n5,"), 20},
                                          {QStringLiteral("n0,n1,n2,y,n4,n5,"), 10},
                                          {QStringLiteral("n0,n2,y,n4,n5,"), 10}};
        QCOMPARE(paths, expected);

        f.post_to_rack(rack, "late");
        settle();
        QCOMPARE(trace.returned.last().value("path"), QByteArray("x,n0,n2,y,n4,n5,"));
    }

    void node_table_edits_in_either_order()
    {
        // A node may reach its list before its manager exists (list first,
        // table second) and may leave the table while still listed.
        Fixture f;
        const QUuid rack = f.add_rack(QStringLiteral("R"));
        f.add_node(rack, mark_type, QStringLiteral("A"));
        f.open();
        Trace trace(f);

        const QUuid late = QUuid::createUuid();
        f.labels.insert(late, QStringLiteral("L"));
        f.list_of(rack)->insert(0, late);
        auto node = std::make_unique<model::Node>();
        node->set_impl_id(QString::fromLatin1(runner_type));
        model::StoreView(&node->properties(), node->key_prefix())
            .set(QStringLiteral("!label"), model::Value::string("L"));
        f.project.add_node(late, std::move(node));
        f.add_node(late, mark_type, QStringLiteral("L1"));

        f.post_to_rack(rack, "1");
        settle();
        QCOMPARE(trace.returned_values("path"), QStringList{"L1,A,"});

        // Out of the table but still listed: transparent, and back again.
        std::unique_ptr<model::Node> taken = f.project.take_node(late);
        f.post_to_rack(rack, "2");
        settle();
        QCOMPARE(trace.returned_values("path").last(), QStringLiteral("A,"));
        f.project.add_node(late, std::move(taken));
        f.post_to_rack(rack, "3");
        settle();
        QCOMPARE(trace.returned_values("path").last(), QStringLiteral("L1,A,"));
    }

    void external_move_keeps_the_subtree()
    {
        Fixture f;
        const QUuid rack = f.add_rack(QStringLiteral("R"));
        const QUuid a = f.add_node(rack, runner_type, QStringLiteral("A"));
        const QUuid b = f.add_node(rack, runner_type, QStringLiteral("B"));
        f.add_node(b, mark_type, QStringLiteral("B1"));
        f.open();
        Trace trace(f);

        // Move B (with B1) into A's children.
        f.list_of(rack)->move_to(1, f.list_of(a), 0);
        f.post_to_rack(rack, "1");
        settle();
        QCOMPARE(trace.triggered, (QStringList{"A", "B", "B1"}));
        QCOMPARE(trace.returned_values("path"), QStringList{"B1,"});
    }

    void removing_a_rack_discards_its_queue()
    {
        Fixture f;
        const QUuid rack = f.add_rack(QStringLiteral("R"));
        f.add_node(rack, mark_type, QStringLiteral("A"));
        f.open();
        QSignalSpy removed(f.runtime.get(), &ProjectRuntime::rack_removed);
        f.post_to_rack(rack, "1");
        f.project.profile()->remove(0);
        std::unique_ptr<model::Rack> taken = f.project.take_rack(rack);
        QCOMPARE(removed.size(), 1);
        QCOMPARE(f.runtime->find_rack_manager(rack), nullptr);
        settle();
        QCOMPARE(on_event_calls.load(), 0);
    }

    void cycles_do_not_hang()
    {
        // A broken project whose node is its own child: built once, routed once.
        Fixture f;
        const QUuid rack = f.add_rack(QStringLiteral("R"));
        const QUuid a = f.add_node(rack, runner_type, QStringLiteral("A"));
        f.list_of(a)->insert(0, a);
        f.open();
        Trace trace(f);
        f.post_to_rack(rack, "1");
        settle();
        QCOMPARE(trace.triggered, QStringList{"A"});
        QCOMPARE(trace.returned.size(), 1);
    }
};

QTEST_GUILESS_MAIN(TstEventRouting)
#include "tst_event_routing.moc"
