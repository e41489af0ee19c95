// Real events through real trees on the real event loop: the order in which
// nodes see events, returns to parents, transparent nodes, disabled racks,
// copy-on-write between clones, and edits while events are in flight.

#include "engine/activity_trace.h"
#include "engine/children_router.h"
#include "engine/node_manager.h"
#include "engine/rack_manager.h"
#include "test_nodes.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QThread>

#include <cstdio>
#include <memory>

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

// The label of every node as the router triggers it, and every event that
// leaves the top level of any rack.
struct Trace {
    Fixture &f;
    QStringList triggered;
    QList<EventScope> returned;
    QHash<QUuid, int> returned_per_rack;

    explicit Trace(Fixture &fixture) : f(fixture)
    {
        for (NodeManager *manager : f.runtime->node_managers())
            watch(manager);
        QObject::connect(f.runtime.get(), &ProjectRuntime::node_added,
                         [this](const QUuid &id) { watch(f.runtime->find_node_manager(id)); });
        for (RackManager *rack : f.runtime->rack_managers()) {
            QObject::connect(rack->top_router(), &ChildrenEventRouter::event_returned,
                             [this, id = rack->id()](const EventScope &event) {
                                 returned.append(event);
                                 ++returned_per_rack[id];
                             });
        }
    }

    void watch(NodeManager *manager)
    {
        QObject::connect(manager, &NodeManager::triggered,
                         [this, label = f.label(manager->id())] { triggered.append(label); });
    }

    QStringList values(const QByteArray &key) const
    {
        QStringList values;
        for (const EventScope &event : returned)
            values << QString::fromUtf8(event.value(key));
        return values;
    }
};

// A rack of the given top-level nodes, "type:label" each, "X>Y" giving X a
// child of type Y labelled with X's label and "c".
QUuid build(Fixture &f, const QStringList &nodes)
{
    const QUuid rack = f.add_rack(QStringLiteral("R"));
    for (const QString &node_text : nodes) {
        const QStringList parts = node_text.split(u'>');
        const QString label = parts[0].section(u':', 1);
        const QUuid node = f.add_node(rack, qPrintable(parts[0].section(u':', 0, 0)), label);
        if (parts.size() > 1)
            f.add_node(node, qPrintable(parts[1]), label + u'c');
    }
    return rack;
}

} // namespace

class TstEventRouting : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { fail_on_warnings(); }

    // A, B[B1, B2[B21]], C: B and B2 run their children, which return to them.
    void order_of_a_tree()
    {
        Fixture f;
        const QUuid rack = f.add_rack(QStringLiteral("R"));
        f.add_node(rack, mark_type, QStringLiteral("A"));
        const QUuid b = f.add_node(rack, runner_type, QStringLiteral("B"));
        const QUuid b1 = f.add_node(b, mark_type, QStringLiteral("B1"));
        const QUuid b2 = f.add_node(b, runner_type, QStringLiteral("B2"));
        f.add_node(b2, mark_type, QStringLiteral("B21"));
        f.add_node(rack, mark_type, QStringLiteral("C"));
        f.open();
        Trace trace(f);
        // emitted counts what a node posts to its parent, not into its children.
        QSignalSpy b_emitted(f.runtime->find_node_manager(b), &NodeManager::emitted);
        QSignalSpy b1_emitted(f.runtime->find_node_manager(b1), &NodeManager::emitted);
        f.post_to_rack(rack, "1");
        settle();
        QCOMPARE(trace.triggered, (QStringList{"A", "B", "B1", "B2", "B21", "C"}));
        QCOMPARE(trace.values("path"), QStringList{"A,B1,B21,C,"});
        QCOMPARE(trace.values("id"), QStringList{"1"});
        QCOMPARE(b_emitted.size(), 1);
        QCOMPARE(b1_emitted.size(), 1);
    }

    // What a node passes on counts as emitted before its next sibling is
    // triggered, however late the listeners connect.
    void emitted_before_next_triggered()
    {
        Fixture f;
        const QUuid rack = f.add_rack(QStringLiteral("R"));
        const QUuid a = f.add_node(rack, pass_type, QStringLiteral("A"));
        const QUuid b = f.add_node(rack, pass_type, QStringLiteral("B"));
        f.open();
        QStringList order;
        for (const QUuid &id : {a, b}) {
            NodeManager *manager = f.runtime->find_node_manager(id);
            const QString label = f.label(id);
            connect(manager, &NodeManager::triggered, this, [&order, label] { order << label + " triggered"; });
            connect(manager, &NodeManager::emitted, this, [&order, label] { order << label + " emitted"; });
        }
        f.post_to_rack(rack, "1");
        settle();
        QCOMPARE(order, (QStringList{"A triggered", "A emitted", "B triggered", "B emitted"}));
    }

    void transparent_nodes_data()
    {
        QTest::addColumn<QStringList>("nodes");
        QTest::addColumn<QStringList>("seen");
        QTest::addColumn<QStringList>("paths");
        QTest::newRow("unknown type between") << QStringList{"test.mark:0", "test.gone:1", "test.mark:2"}
                                              << QStringList{"0", "2"} << QStringList{"0,2,"};
        QTest::newRow("no on_event, children never run")
            << QStringList{"test.mark:0", "test.silent:1>test.mark", "test.mark:2"} << QStringList{"0", "2"}
            << QStringList{"0,2,"};
        QTest::newRow("all unknown") << QStringList{"test.gone:0", "test.gone:1"} << QStringList{}
                                     << QStringList{""};
        QTest::newRow("empty rack") << QStringList{} << QStringList{} << QStringList{""};
        QTest::newRow("runner with empty children returns at once")
            << QStringList{"test.runner:0", "test.mark:1"} << QStringList{"0", "1"} << QStringList{"1,"};
        QTest::newRow("runner over unknown children")
            << QStringList{"test.runner:0>test.gone", "test.mark:1"} << QStringList{"0", "1"} << QStringList{"1,"};
        QTest::newRow("dropping node ends the event") << QStringList{"test.mark:0", "test.drop:1", "test.mark:2"}
                                                      << QStringList{"0", "1"} << QStringList{};
    }

    void transparent_nodes()
    {
        QFETCH(QStringList, nodes);
        QFETCH(QStringList, seen);
        QFETCH(QStringList, paths);
        Fixture f;
        const QUuid rack = build(f, nodes);
        for (int i = 0; i < nodes.join(QString()).count(QStringLiteral("test.gone")); ++i)
            QTest::ignoreMessage(QtWarningMsg, "Unknown node test.gone");
        f.open();
        Trace trace(f);
        f.post_to_rack(rack, "1");
        settle();
        QCOMPARE(trace.triggered, seen);
        QCOMPARE(trace.values("path"), paths);
    }

    // Order is read from the list when routing. An event waits in A's parent
    // sink while the list changes around A, so A's position hint is stale.
    void moves_while_waiting_data()
    {
        QTest::addColumn<QString>("edit");
        QTest::addColumn<QString>("path");
        QTest::newRow("moves before the event") << "before" << "D,B,C,A,";
        QTest::newRow("A moved to the end") << "move" << "A,";
        QTest::newRow("three inserted in front") << "insert" << "A,B,C,D,";
        QTest::newRow("A moved up past two") << "moveup" << "A,C,D,";
    }

    void moves_while_waiting()
    {
        QFETCH(QString, edit);
        QFETCH(QString, path);
        Fixture f;
        const QUuid rack = build(f, {"test.mark:A", "test.mark:B", "test.mark:C", "test.mark:D"});
        f.open();
        Trace trace(f);
        model::Children *top = f.list_of(rack);
        if (edit == QLatin1String("before")) {
            top->move(0, 4); // B C D A
            top->move(2, 0); // D B C A
        }
        f.post_to_rack(rack, "1");
        QCoreApplication::sendPostedEvents(); // A has it and posted it on
        if (edit == QLatin1String("move"))
            top->move(0, 4);
        for (int i = 0; i < 3 && (edit == QLatin1String("insert") || edit == QLatin1String("moveup")); ++i)
            f.add_node(rack, mark_type, QStringLiteral("new%1").arg(i), 0);
        if (edit == QLatin1String("moveup"))
            top->move(3, 5); // new0 new1 new2 B A C D
        settle();
        QCOMPARE(trace.values("path"), QStringList{path});
    }

    // A disabled rack takes nothing; switched off while events travel, its
    // events stop at their next hop, nothing is re-created, and the other
    // rack loses nothing.
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
        f.project.find_rack(one)->set_enabled(false);
        f.post_to_rack(one, "x");
        settle();
        QVERIFY(trace.triggered.isEmpty());

        f.project.find_rack(one)->set_enabled(true);
        const QStringList lifecycle_before = lifecycle;
        for (int i = 0; i < 20; ++i) {
            f.post_to_rack(one, QByteArray::number(i));
            f.post_to_rack(two, QByteArray::number(i));
        }
        QCoreApplication::sendPostedEvents(); // rack sinks -> first nodes
        QCoreApplication::sendPostedEvents(); // first nodes -> second nodes
        f.project.find_rack(one)->set_enabled(false);
        settle();
        QCOMPARE(trace.returned_per_rack.value(one), 0);
        QCOMPARE(trace.returned_per_rack.value(two), 20);
        QCOMPARE(trace.values("path"), QStringList(20, QStringLiteral("t0,t1,t2,t3,t4,")));
        QCOMPARE(trace.triggered.count(QStringLiteral("o4")), 0);
        QCOMPARE(lifecycle, lifecycle_before);
        QVERIFY(f.runtime->find_node_manager(f.id(QStringLiteral("o4")))->instance());
    }

    // F forks: its children see the event as it came, its siblings the
    // changed original; a queued event is not changed by later writes.
    void clones_are_copy_on_write()
    {
        Fixture f;
        const QUuid rack = build(f, {"test.fork:F>test.drop", "test.mark:S"});
        f.open();
        Trace trace(f);
        QList<QByteArray> child_saw;
        QObject::connect(f.runtime->find_node_manager(f.id(QStringLiteral("F")))->child_sink(),
                         &EventSink::event_received,
                         [&](const EventScope &event) { child_saw << event.value("forked"); });
        EventScope event;
        event.set("k", "first");
        EventSink *sink = f.runtime->find_rack_manager(rack)->sink();
        EventSink::post(sink, event);
        EventSink::post(sink, event);
        event.set("k", "second");
        settle();
        QCOMPARE(child_saw, (QList<QByteArray>{QByteArray(), QByteArray()}));
        QVERIFY(trace.triggered.contains(QStringLiteral("Fc")));
        QCOMPARE(trace.values("forked"), (QStringList{"yes", "yes"}));
        QCOMPARE(trace.values("k"), (QStringList{"first", "first"}));
        QCOMPARE(event.value("k"), QByteArray("second"));
    }

    // Posted from worker threads that keep writing their own copies.
    void events_from_worker_threads_arrive_whole()
    {
        Fixture f;
        const QUuid rack = build(f, {"test.mark:A", "test.fork:B>test.mark", "test.mark:C"});
        f.open();
        Trace trace(f);
        EventSink *sink = f.runtime->find_rack_manager(rack)->sink();
        QList<QThread *> workers;
        for (int t = 0; t < 4; ++t) {
            workers << QThread::create([sink, t] {
                for (int i = 0; i < 250; ++i) {
                    EventScope event;
                    for (int k = 0; k < 8; ++k)
                        event.set("k" + QByteArray::number(k), QByteArray::number(t * 1000 + i));
                    event.set("thread", QByteArray::number(t));
                    EventScope kept = event;
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
        QTRY_COMPARE(trace.returned.size(), 1000);
        QMap<QByteArray, int> per_thread;
        for (const EventScope &event : std::as_const(trace.returned)) {
            QCOMPARE(event.count(), 11); // k0..k7, thread, path, forked
            for (int k = 1; k < 8; ++k)
                QCOMPARE(event.value("k" + QByteArray::number(k)), event.value("k0"));
            QCOMPARE(event.value("path"), QByteArray("A,C,"));
            ++per_thread[event.value("thread")];
        }
        QCOMPARE(per_thread, (QMap<QByteArray, int>{{"0", 250}, {"1", 250}, {"2", 250}, {"3", 250}}));
    }

    void edits_while_events_are_in_flight()
    {
        Fixture f;
        const QUuid rack = build(f, {"test.mark:n0", "test.mark:n1", "test.mark:n2", "test.mark:n3",
                                     "test.mark:n4", "test.mark:n5"});
        f.open();
        Trace trace(f);
        // Six batches, each one hop behind the one before: batch k waits in
        // the parent sink of node n(5-k).
        for (int batch = 0; batch < 6; ++batch) {
            for (int i = 0; i < 10; ++i)
                f.post_to_rack(rack, QByteArray::number(batch));
            QCoreApplication::sendPostedEvents();
        }
        // Insert at the front and in the middle; take n1 out of the list (it
        // stays in the project) and n3 out of the project altogether.
        model::Children *top = f.list_of(rack);
        f.add_node(rack, mark_type, QStringLiteral("x"), 0);
        f.add_node(rack, mark_type, QStringLiteral("y"), 4);
        const QUuid n1 = f.id(QStringLiteral("n1"));
        const QUuid n3 = f.id(QStringLiteral("n3"));
        top->remove(std::size_t(top->index_of(n1)));
        top->remove(std::size_t(top->index_of(n3)));
        f.project.take_node(n3);
        QCOMPARE(f.runtime->find_node_manager(n3), nullptr);
        settle();
        // What waited in n1's and n3's sinks ends there; the rest goes on in the new order.
        QMap<QString, int> paths;
        for (const QString &path : trace.values("path"))
            ++paths[path];
        QCOMPARE(paths, (QMap<QString, int>{{"n0,n1,n2,n3,n4,n5,", 20}, {"n0,n1,n2,y,n4,n5,", 10},
                                            {"n0,n2,y,n4,n5,", 10}}));
        f.post_to_rack(rack, "late");
        settle();
        QCOMPARE(trace.returned.last().value("path"), QByteArray("x,n0,n2,y,n4,n5,"));
    }

    // A node may reach its list before its manager exists (list first, table
    // second) and may leave the table while still listed (transparent).
    void node_table_edits_in_either_order()
    {
        Fixture f;
        const QUuid rack = build(f, {"test.mark:A"});
        f.open();
        Trace trace(f);
        const QUuid late = QUuid::createUuid();
        f.list_of(rack)->insert(0, late);
        auto node = std::make_unique<model::Node>();
        node->set_impl_id(QString::fromLatin1(runner_type));
        f.project.add_node(late, std::move(node));
        f.add_node(late, mark_type, QStringLiteral("L1"));
        const auto path_now = [&] {
            f.post_to_rack(rack, "1");
            settle();
            return trace.values("path").last();
        };
        QCOMPARE(path_now(), QStringLiteral("L1,A,"));
        std::unique_ptr<model::Node> taken = f.project.take_node(late);
        QCOMPARE(path_now(), QStringLiteral("A,"));
        f.project.add_node(late, std::move(taken));
        QCOMPARE(path_now(), QStringLiteral("L1,A,"));
    }

    void external_move_keeps_the_subtree()
    {
        Fixture f;
        const QUuid rack = build(f, {"test.runner:A", "test.runner:B>test.mark"});
        f.open();
        Trace trace(f);
        f.list_of(rack)->move_to(1, f.list_of(f.id(QStringLiteral("A"))), 0);
        f.post_to_rack(rack, "1");
        settle();
        QCOMPARE(trace.triggered, (QStringList{"A", "B", "Bc"}));
        QCOMPARE(trace.values("path"), QStringList{"Bc,"});
    }

    void removing_a_rack_discards_its_queue()
    {
        Fixture f;
        const QUuid rack = build(f, {"test.mark:A"});
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

    // A broken project whose node is its own child: built once, routed once.
    void cycles_do_not_hang()
    {
        Fixture f;
        const QUuid rack = build(f, {"test.runner:A"});
        f.list_of(f.id(QStringLiteral("A")))->insert(0, f.id(QStringLiteral("A")));
        f.open();
        Trace trace(f);
        f.post_to_rack(rack, "1");
        settle();
        QCOMPARE(trace.triggered, QStringList{"A"});
        QCOMPARE(trace.returned.size(), 1);
    }

    // A trace line is one JSON object that reads back to the same texts:
    // quotes, backslashes and every control character escaped.
    void trace_lines_read_back_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::newRow("plain") << QByteArray("door open");
        QTest::newRow("quote and backslash") << QByteArray("say \"hi\" C:\\dir\\");
        QTest::newRow("line breaks and tab") << QByteArray("a\nb\r\nc\td");
        QByteArray controls;
        for (char c = 1; c < 0x20; ++c)
            controls += c;
        QTest::newRow("every control character") << controls;
        QTest::newRow("delete and beyond ASCII") << QByteArray("\x7f caf\xc3\xa9 \xe2\x82\xac");
        QTest::newRow("empty") << QByteArray();
    }

    // What --trace prints: one JSON line per node an event enters, written
    // to the file once the event loop runs, read back as it was sent.
    void trace_lines_read_back()
    {
        QFETCH(QByteArray, text);
        Fixture f;
        const QUuid rack = f.add_rack(QString::fromUtf8(text));
        f.add_node(rack, mark_type, QStringLiteral("N"));
        f.open();
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("trace.jsonl"));
        std::FILE *out = std::fopen(QFile::encodeName(path).constData(), "wb");
        QVERIFY(out);
        ActivityTap::set_trace_all(true);
        auto trace = std::make_unique<ActivityTrace>(out);
        const qint64 before = QDateTime::currentMSecsSinceEpoch();
        EventScope event;
        event.set("first", text);
        event.set(text + "key", "v");
        EventSink::post(f.runtime->find_rack_manager(rack)->sink(), event);
        const auto written = [&path] {
            QFile file(path);
            return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
        };
        QTRY_VERIFY(written().endsWith('\n')); // flushed while the trace still runs
        const qint64 after = QDateTime::currentMSecsSinceEpoch();
        ActivityTap::set_trace_all(false);
        trace.reset();
        std::fclose(out);
        const QByteArray line = written();
        QCOMPARE(line.count('\n'), 1);
        QJsonParseError error;
        const QJsonObject object = QJsonDocument::fromJson(line, &error).object();
        QCOMPARE(error.error, QJsonParseError::NoError);
        const qint64 time = object.value(QStringLiteral("time")).toInteger();
        QVERIFY(time >= before && time <= after);
        QCOMPARE(object.value(QStringLiteral("rack")).toString(), QString::fromUtf8(text));
        const QJsonObject data = object.value(QStringLiteral("event")).toObject();
        QCOMPARE(data.keys().size(), qsizetype(2));
        QCOMPARE(data.value(QStringLiteral("first")).toString(), QString::fromUtf8(text));
        QCOMPARE(data.value(QString::fromUtf8(text + "key")).toString(), QStringLiteral("v"));
    }
};

QTEST_GUILESS_MAIN(TstEventRouting)
#include "tst_event_routing.moc"
