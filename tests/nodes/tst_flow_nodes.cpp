// Fork, forward, loop, stop, send, receive and on-custom in real racks, and
// the registration of the built-in set.

#include "engine/node_instance.h"
#include "engine/node_manager.h"
#include "engine/handles.h"
#include "nodes/builtin_nodes.h"
#include "nodes/count.h"
#include "nodes/flow.h"
#include "nodes/mailbox.h"
#include "node_rig.h"

#include <QImage>
#include <QSignalSpy>
#include <QTest>

#include <functional>

using model::Value;

class TstFlowNodes : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { fail_on_warnings(); }

    // The registry holds the built types in table order, each with its
    // name, category, icon and decoration, as stated here.
    void registration()
    {
        struct Expected {
            const char *id, *name_key, *name, *category, *icon;
            quint32 decoration;
        };
        const Expected table[] = {
            {"compare", "CompareNode.Name", "Compare", "Filters", "compare", 42},
            {"countblock", "CountBlockNode.Name", "Count in Blocks", "Operators", "count", 43},
            {"countdiscretetime", "CountDiscreteTimeNode.Name", "Count per Time Window", "Operators", "count", 43},
            {"countrollingtime", "CountRollingTimeNode.Name", "Count in Rolling Window", "Operators", "count", 43},
            {"countchildreset", "CountChildResetNode.Name", "Count Until Reset", "Operators", "count", 42},
            {"debounce", "DebounceNode.Name", "Debounce", "Queues", "debounce", 14},
            {"delay", "DelayNode.Name", "Delay", "Queues", "delay", 14},
            {"display", "DisplayNode.Name", "Display", "Actions", "display", 35},
            {"evaluate", "EvaluateNode.Name", "Evaluate", "Operators", "evaluate", 38},
            {"fork", "ForkNode.Name", "Fork", "Operators", "fork", 11},
            {"forward", "ForwardNode.Name", "Forward to Rack", "Actions", "forward", 35},
            {"loop", "LoopNode.Name", "Loop", "Operators", "loop", 42},
            {"custom", "OnCustomNode.Name", "Custom Event", "Sources", "custom", 41},
            {"onfilechanged", "OnFileChangedNode.Name", "On File Change", "Sources", "file_changed", 41},
            {"onhotkey", "OnHotkeyNode.Name", "On Hotkey", "Sources", "hotkey", 41},
            {"ratelimitqueue", "RateLimitQueueNode.Name", "Rate Limit (Queue)", "Queues", "rate_limit", 14},
            {"ratelimitearliest", "RateLimitEarliestNode.Name", "Rate Limit (Keep Earliest)", "Queues", "rate_limit",
             14},
            {"ratelimitlatest", "RateLimitLatestNode.Name", "Rate Limit (Keep Latest)", "Queues", "rate_limit", 14},
            {"readtext", "ReadTextFileNode.Name", "Read Text File", "Operators", "read_text", 38},
            {"receive", "ReceiveNode.Name", "Receive", "Sources", "receive", 41},
            {"send", "SendNode.Name", "Send", "Actions", "send", 35},
            {"sequential", "SequentialNode.Name", "One at a Time", "Queues", "sequential", 42},
            {"stop", "StopNode.Name", "Stop", "Operators", "stop", 2},
            {"triggerhotkey", "TriggerHotkeyNode.Name", "Press Hotkey", "Actions", "hotkey", 35},
            {"writetext", "WriteTextFileNode.Name", "Write Text File", "Actions", "write_text", 35},
            {"onschedule", "OnScheduleNode.Name", "On Schedule", "Sources", "schedule", 41},
            {"activewindow", "ActiveWindowNode.Name", "Active Window", "Filters", "active_window", 42},
        };
        Rig rig;
        QStringList ids;
        for (const engine::NodeDefinition *definition : rig.registry.definitions())
            if (definition->id.startsWith(u"io.marrowfield."))
                ids << definition->id;
        QStringList expected;
        for (const Expected &row : table)
            expected << QStringLiteral("io.marrowfield.") + QLatin1StringView(row.id);
        QCOMPARE(ids, expected);
        QVERIFY(rig.registry.find_migration(QStringLiteral("io.marrowfield.ratelimit")));
        QVERIFY(rig.registry.find_migration(QStringLiteral("io.marrowfield.count")));

        const QUuid rack = rig.add_rack(QStringLiteral("R"));
        QList<QUuid> nodes;
        for (const Expected &row : table) {
            const QString id = QStringLiteral("io.marrowfield.") + QLatin1StringView(row.id);
            const engine::NodeDefinition *definition = rig.registry.find(id);
            QCOMPARE(definition->name, QString::fromUtf8(row.name));
            QCOMPARE(definition->category, QString::fromUtf8(row.category));
            const QImage icon(QStringLiteral(":/corv/icons/nodes/%1.png").arg(QLatin1StringView(row.icon)));
            QVERIFY2(!icon.isNull() && definition->icon == icon.convertToFormat(definition->icon.format()), row.id);
            for (const corv::nodes::BuiltinNodeRow &built : corv::nodes::builtin_node_table())
                if (id == QLatin1StringView(built.id))
                    QCOMPARE(QByteArray(built.name_key), QByteArray(row.name_key));
            nodes << rig.add_node(rack, id.toLatin1().constData());
        }
        rig.open();
        for (qsizetype i = 0; i < nodes.size(); ++i)
            QCOMPARE(rig.decoration(nodes[i]), table[i].decoration);
    }

    // Both children and the sibling see the event; what the children hand
    // back does not come out of the fork.
    void fork_runs_children_beside_the_sequence()
    {
        Rig rig;
        const QUuid rack = rig.add_rack(QStringLiteral("R"));
        const QUuid fork = rig.add_node(rack, "io.marrowfield.fork", {{"name", text("Split")}});
        rig.add_probe(fork, QStringLiteral("c1"));
        rig.add_probe(fork, QStringLiteral("c2"));
        rig.add_probe(rack, QStringLiteral("after"));
        rig.open();
        QCOMPARE(rig.name(fork), QStringLiteral("Split"));
        rig.post(rack, "1");
        rig.turns(20);
        QCOMPARE(rig.seen("c1"), QList<QByteArray>{"1"});
        QCOMPARE(rig.seen("c2"), QList<QByteArray>{"1"});
        QCOMPARE(rig.seen("after"), QList<QByteArray>{"1"});
    }

    // A stop among a sequential node's children: only the first event ever
    // enters, the rest wait for good.
    void stop_blocks_a_sequential_node()
    {
        Rig rig;
        const QUuid rack = rig.add_rack(QStringLiteral("R"));
        const QUuid sequential = rig.add_node(rack, "io.marrowfield.sequential");
        rig.add_probe(sequential, QStringLiteral("inside"));
        rig.add_node(sequential, "io.marrowfield.stop");
        rig.add_probe(rack, QStringLiteral("after"));
        rig.open();
        for (const QByteArray id : {"1", "2", "3"})
            rig.post(rack, id);
        rig.turns(30);
        QCOMPARE(rig.seen("inside"), QList<QByteArray>{"1"});
        QVERIFY(rig.seen("after").isEmpty());
    }

    // An event circles through the children and is handed on every round;
    // of two back in the same turn only the first goes round again. "Stop
    // next" (the panel's button, with a note while set; a second click takes
    // it back) ends the loop after the round in progress.
    void loop_circles_until_stopped()
    {
        Rig rig;
        const QUuid rack = rig.add_rack(QStringLiteral("R"));
        const QUuid loop = rig.add_node(rack, "io.marrowfield.loop");
        rig.add_probe(loop, QStringLiteral("inside"));
        rig.add_probe(rack, QStringLiteral("after"));
        rig.open();
        const QString says = QStringLiteral("The loop stops after the current round.");
        for (const char *name : {"Loop (stopping)", "Loop"}) {
            rig.click(loop); // the note before the second click is no button
            QTRY_COMPARE(rig.name(loop), QString::fromUtf8(name));
            rig.turns(2);
            QCOMPARE(rig.labels(loop).contains(says), qstrcmp(name, "Loop") != 0);
        }
        QSignalSpy names(rig.runtime->find_node_manager(loop)->instance(),
                         &engine::NodeInstance::instance_name_changed);
        rig.post(rack, "1");
        rig.post(rack, "2");
        QTRY_VERIFY(rig.seen("inside").count("1") >= 4);
        QCOMPARE(rig.seen("inside").count("2"), 1);
        QCOMPARE(rig.seen("after").count("2"), 1);
        QVERIFY(qAbs(rig.seen("inside").size() - rig.seen("after").size()) <= 1);

        rig.click(loop); // "Stop After This Round"
        rig.turns(30);
        const qsizetype rounds = rig.seen("inside").size();
        rig.turns(30);
        QCOMPARE(rig.seen("inside").size(), rounds);
        QCOMPARE(rig.seen("after").size(), rounds);
        QCOMPARE(names.size(), 2);
        QCOMPARE(names[0][0].toString(), QStringLiteral("Loop (stopping)"));
        QCOMPARE(names[1][0].toString(), QStringLiteral("Loop"));
    }

    // Receivers get a send in subscription order, across racks; the sender
    // passes its own event on.
    void send_reaches_receivers_in_order()
    {
        Rig rig;
        const QUuid a = rig.add_rack(QStringLiteral("A"));
        const QUuid send = rig.add_node(a, "io.marrowfield.send", {{"!mailbox", text("box")}});
        rig.add_probe(a, QStringLiteral("after send"));
        const QUuid b = rig.add_rack(QStringLiteral("B"));
        const QUuid first = rig.add_node(b, "io.marrowfield.receive");
        rig.add_probe(first, QStringLiteral("first"));
        const QUuid second = rig.add_node(b, "io.marrowfield.receive");
        rig.add_probe(second, QStringLiteral("second"));
        const QUuid other = rig.add_node(a, "io.marrowfield.receive", {{"!mailbox", text("Box")}});
        rig.add_probe(other, QStringLiteral("other"));
        const QUuid unnamed = rig.add_node(a, "io.marrowfield.receive");
        rig.add_probe(unnamed, QStringLiteral("unnamed"));
        rig.open();
        QCOMPARE(rig.name(send), QStringLiteral("Send to “box”"));
        QCOMPARE(rig.name(first), QStringLiteral("Receive"));
        // "second" joins first.
        rig.set(second, QStringLiteral("!mailbox"), text("box"));
        rig.turns(2);
        rig.set(first, QStringLiteral("!mailbox"), text("box"));
        rig.turns(2);
        QCOMPARE(rig.name(first), QStringLiteral("Receive from “box”"));

        rig.post(a, "1");
        rig.turns(20);
        QStringList order;
        for (const Hit &hit : rig.hits())
            order << hit.at;
        // Delivery runs inside the send, before it passes its own event on.
        QCOMPARE(order, (QStringList{"second", "first", "after send"}));

        // The mailbox "" is one like any other.
        rig.set(send, QStringLiteral("!mailbox"), text(""));
        rig.turns(2);
        rig.post(a, "2");
        rig.turns(20);
        order.clear();
        for (const Hit &hit : rig.hits())
            order << hit.at;
        QCOMPARE(order.mid(3), (QStringList{"unnamed", "after send"}));
    }

    void count_migration_data()
    {
        QTest::addColumn<Value>("mode");
        QTest::addColumn<QString>("type");
        QTest::newRow("missing") << Value() << "io.marrowfield.countblock";
        QTest::newRow("rolling") << Value::integer(2) << "io.marrowfield.countrollingtime";
        QTest::newRow("child reset") << Value::integer(3) << "io.marrowfield.countchildreset";
        QTest::newRow("unknown") << Value::integer(4) << "";
    }

    // Retired counts map by mode and keep their settings under "!" keys.
    void count_migration()
    {
        QFETCH(Value, mode);
        QFETCH(QString, type);
        model::PropertyCollection properties;
        const model::StoreView store(&properties, QString());
        if (!mode.is_none())
            store.set(QStringLiteral("io.marrowfield.count.mode"), mode);
        store.set(QStringLiteral("io.marrowfield.count.size"), Value::integer(5));
        char out[CORV_TEXT_SIZE] = {};
        const bool mapped = corv::nodes::migrate_count(nullptr, engine::handles::to_handle(&store), out);
        QCOMPARE(mapped ? QString::fromUtf8(out) : QString(), type);
        if (mapped)
            QCOMPARE(store.get(QStringLiteral("!size")), Value::integer(5));
    }

    // A receiver that changes mailbox during a delivery: nobody else is
    // skipped or reached twice, and the blanked entry goes afterwards.
    void mailbox_changes_during_delivery_data()
    {
        QTest::addColumn<int>("actor");  // whose handler acts (0, 1, 2)
        QTest::addColumn<int>("target"); // whose subscription it moves
        QTest::addColumn<QByteArray>("to");
        QTest::addColumn<QList<int>>("deliveries");
        QTest::addColumn<int>("entries_after");
        QTest::newRow("first leaves itself") << 0 << 0 << QByteArray("b") << QList<int>{1, 1, 1} << 2;
        QTest::newRow("middle leaves itself") << 1 << 1 << QByteArray("b") << QList<int>{1, 1, 1} << 2;
        QTest::newRow("first moves the middle") << 0 << 1 << QByteArray("b") << QList<int>{1, 0, 1} << 2;
        QTest::newRow("first moves the last") << 0 << 2 << QByteArray("") << QList<int>{1, 1, 0} << 2;
        QTest::newRow("last leaves and rejoins")
            << 2 << 2 << QByteArray("a") << QList<int>{1, 1, 1} << 3;
    }

    void mailbox_changes_during_delivery()
    {
        QFETCH(int, actor);
        QFETCH(int, target);
        QFETCH(QByteArray, to);
        QFETCH(QList<int>, deliveries);
        QFETCH(int, entries_after);
        using corv::nodes::MailboxRegistry;
        MailboxRegistry registry;
        struct Receiver {
            MailboxRegistry *registry;
            MailboxRegistry::Subscription subscription;
            int count = 0;
            std::function<void()> act;
        };
        Receiver receivers[3];
        const auto deliver = [](void *subscriber, corv_event *) {
            auto *receiver = static_cast<Receiver *>(subscriber);
            ++receiver->count;
            if (receiver->act)
                std::exchange(receiver->act, nullptr)();
        };
        for (Receiver &receiver : receivers)
            registry.subscribe(receiver.subscription, "a", &receiver, deliver);
        Receiver &moved = receivers[target];
        receivers[actor].act = [&] {
            if (to == "a") // leave and come back: joins at the end
                registry.unsubscribe(moved.subscription);
            registry.subscribe(moved.subscription, to, &moved, deliver);
            QCOMPARE(registry.delivering(), QByteArray("a"));
        };
        registry.deliver("a", nullptr);
        QCOMPARE((QList<int>{receivers[0].count, receivers[1].count, receivers[2].count}), deliveries);
        QCOMPARE(registry.entry_count("a"), entries_after);
        QVERIFY(registry.delivering().isEmpty());
        for (Receiver &receiver : receivers)
            registry.unsubscribe(receiver.subscription);
        QCOMPARE(registry.entry_count("a"), 0);
    }

    void custom_scope_data()
    {
        QTest::addColumn<QByteArray>("scope");
        QTest::addColumn<QList<QByteArray>>("pairs"); // key, value, key, value ...
        QTest::newRow("blanks, no colon, tight")
            << QByteArray("  level : 3  \nno colon here\nname:x") << QList<QByteArray>{"level", "3", "name", "x"};
        QTest::newRow("later line wins in place")
            << QByteArray("a: 1\nb: 2\na: 3\n") << QList<QByteArray>{"a", "3", "b", "2"};
        QTest::newRow("value keeps later colons")
            << QByteArray("url: http://x:80/") << QList<QByteArray>{"url", "http://x:80/"};
        QTest::newRow("only spaces are blanks") << QByteArray("\tk:\tv ") << QList<QByteArray>{"\tk", "\tv"};
        QTest::newRow("empty value") << QByteArray("k:   ") << QList<QByteArray>{"k", ""};
        QTest::newRow("empty") << QByteArray() << QList<QByteArray>{};
    }

    void custom_scope()
    {
        QFETCH(QByteArray, scope);
        QFETCH(QList<QByteArray>, pairs);
        corv_event *event = corv_event_create();
        corv::nodes::apply_scope(event, scope.constData());
        QList<QByteArray> got;
        for (uint64_t i = 0; i < corv_event_count(event); ++i) {
            const char *key = corv_event_get_key(event, i);
            got << key << corv_event_get(event, key);
        }
        corv_event_destroy(event);
        QCOMPARE(got, pairs);
    }

    // The trigger button fires the scope into the children.
    void custom_fires_from_its_panel()
    {
        Rig rig;
        const QUuid rack = rig.add_rack(QStringLiteral("R"));
        const QUuid custom = rig.add_node(rack, "io.marrowfield.custom",
                                          {{"!name", text("Ping")}, {"!scope", text("id: 7\nx: y")}});
        rig.add_probe(custom, QStringLiteral("inside"));
        rig.open();
        QCOMPARE(rig.name(custom), QStringLiteral("Custom Event: Ping"));
        rig.click(custom);
        QTRY_COMPARE(rig.seen("inside"), QList<QByteArray>{"7"});
        rig.set(custom, QStringLiteral("!name"), text(""));
        QTRY_COMPARE(rig.name(custom), QString());
    }

    // Forward starts the event again in the target rack and passes it on;
    // its name follows the rack's.
    void forward_to_another_rack()
    {
        Rig rig;
        const QUuid a = rig.add_rack(QStringLiteral("A"));
        const QUuid b = rig.add_rack(QStringLiteral("B"));
        const QUuid forward = rig.add_node(a, "io.marrowfield.forward", {{"!rack", Value::rack(b)}});
        rig.add_node(a, "io.marrowfield.forward"); // no rack: passes events on
        rig.add_probe(a, QStringLiteral("after"));
        rig.add_probe(b, QStringLiteral("in B"));
        rig.open();
        QCOMPARE(rig.name(forward), QStringLiteral("B"));
        rig.post(a, "1");
        rig.turns(20);
        QCOMPARE(rig.seen("in B"), QList<QByteArray>{"1"});
        QCOMPARE(rig.seen("after"), QList<QByteArray>{"1"});
        rig.project.find_rack(b)->set_name(QStringLiteral("Target"));
        QTRY_COMPARE(rig.name(forward), QStringLiteral("Target"));
    }
};

QTEST_GUILESS_MAIN(TstFlowNodes)
#include "tst_flow_nodes.moc"
