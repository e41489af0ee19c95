// Compare, evaluate, display and the count nodes in real racks: what passes,
// what the events carry, what the panels show.

#include "node_rig.h"
#include "nodes/builtin_nodes.h"

#include <QTemporaryFile>
#include <QTest>

#include <cstdio>
#include <unistd.h>

using model::Value;
using Keys = QList<std::pair<QByteArray, QByteArray>>;

namespace {

// A rack of one node of `type` with a probe "inside" among its children and
// a probe "after" behind it.
QUuid one_node_rack(Rig &rig, const char *type, const Settings &settings, QUuid *node)
{
    const QUuid rack = rig.add_rack(QStringLiteral("R"));
    *node = rig.add_node(rack, type, settings);
    rig.add_probe(*node, QStringLiteral("inside"));
    rig.add_probe(rack, QStringLiteral("after"));
    return rack;
}

// The value of key in a probe's record of an event ("a=1;b=2").
QByteArray value_of(const Hit &hit, const QByteArray &key)
{
    for (const QByteArray &pair : hit.keys.split(';'))
        if (pair.startsWith(key + '='))
            return pair.mid(key.size() + 1);
    return {};
}

QList<QByteArray> values_at(const Rig &rig, const QString &probe, const QByteArray &key)
{
    QList<QByteArray> values;
    for (const Hit &hit : rig.hits_at(probe))
        values << value_of(hit, key);
    return values;
}

} // namespace

class TstEventNodes : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { fail_on_warnings(); }

    void compare_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<double>("a");
        QTest::addColumn<double>("b");
        QTest::addColumn<QByteArray>("text"); // the event's "x"; null: no such key
        QTest::addColumn<bool>("passes");
        QTest::addColumn<QString>("name");
        QTest::newRow("gt reads 12abc as 12")
            << 4 << 10.0 << 0.0 << QByteArray("12abc") << true << "If x > 10";
        QTest::newRow("gt reads abc as 0") << 4 << 10.0 << 0.0 << QByteArray("abc") << false << "";
        QTest::newRow("missing key dropped") << 4 << -1.0 << 0.0 << QByteArray() << false << "";
        QTest::newRow("is compares text")
            << 0 << 0.0 << 0.0 << QByteArray("1.0") << false << "If x is “1”";
        QTest::newRow("is same text") << 0 << 0.0 << 0.0 << QByteArray("1") << true << "";
        QTest::newRow("is not") << 1 << 0.0 << 0.0 << QByteArray("1.0") << true
                                << "If x is not “1”";
        QTest::newRow("between low end")
            << 8 << 1.0 << 3.0 << QByteArray("1") << true << "If x is between 1 and 3";
        QTest::newRow("between high end") << 8 << 1.0 << 3.0 << QByteArray(" 3") << true << "";
        QTest::newRow("between above") << 8 << 1.0 << 3.0 << QByteArray("3.01") << false << "";
        QTest::newRow("between nan") << 8 << 1.0 << 3.0 << QByteArray("nan") << false << "";
        QTest::newRow("not equal nan")
            << 3 << 0.0 << 0.0 << QByteArray("nan") << true << "If x ≠ 0";
        QTest::newRow("equal nan") << 2 << 0.0 << 0.0 << QByteArray("NaN") << false << "";
        QTest::newRow("equal hex, blanks")
            << 2 << 26.0 << 0.0 << QByteArray("\t 0x1A") << true << "";
        QTest::newRow("equal hex, every digit's edge")
            << 2 << 698879.0 << 0.0 << QByteArray("0x0aA9fF") << true << "";
        QTest::newRow("equal decimal point")
            << 2 << 1.5 << 0.0 << QByteArray("1.5e0x") << true << "";
        QTest::newRow("two signs read 0") << 2 << 0.0 << 0.0 << QByteArray("+-5") << true << "";
        QTest::newRow("too large is infinite")
            << 4 << 1e308 << 0.0 << QByteArray("1e999") << true << "";
        QTest::newRow("too small is 0") << 2 << 0.0 << 0.0 << QByteArray("-1e-999") << true << "";
        QTest::newRow("gte") << 5 << 2.0 << 0.0 << QByteArray("2") << true << "If x ≥ 2";
        QTest::newRow("lt") << 6 << 2.0 << 0.0 << QByteArray("2") << false << "";
        QTest::newRow("lte") << 7 << 2.0 << 0.0 << QByteArray("-3e0") << true << "";
    }

    // A failing event goes no further in the rack; a passing one runs the
    // children and then the rest of the sequence.
    void compare()
    {
        QFETCH(int, type);
        QFETCH(double, a);
        QFETCH(double, b);
        QFETCH(QByteArray, text);
        QFETCH(bool, passes);
        QFETCH(QString, name);
        Rig rig;
        QUuid node;
        const QUuid rack = one_node_rack(rig, "io.marrowfield.compare",
                                         {{"comparetype", Value::integer(type)},
                                          {"!property", Value::string("x")},
                                          {"!value", Value::string("1")},
                                          {"!num a", Value::floating(a)},
                                          {"!num b", Value::floating(b)}},
                                         &node);
        rig.open();
        if (!name.isEmpty())
            QCOMPARE(rig.name(node), name);
        Keys keys{{"id", "1"}};
        if (!text.isNull())
            keys.append({"x", text});
        rig.post(rack, keys);
        rig.turns(20);
        const QList<QByteArray> expected = passes ? QList<QByteArray>{"1"} : QList<QByteArray>{};
        QCOMPARE(rig.seen("inside"), expected);
        QCOMPARE(rig.seen("after"), expected);
    }

    void evaluate_data()
    {
        QTest::addColumn<QByteArray>("key");
        QTest::addColumn<QByteArray>("expression");
        QTest::addColumn<QByteArray>("keys");
        QTest::newRow("in place") << QByteArray("x") << QByteArray("{x * 2}")
                                  << QByteArray("id=1;x=24;y=b");
        QTest::newRow("appended") << QByteArray("z") << QByteArray("{upper(y)}-{x}")
                                  << QByteArray("id=1;x=12;y=b;z=B-12");
        QTest::newRow("missing key reads empty")
            << QByteArray("z") << QByteArray("[{nothing}]") << QByteArray("id=1;x=12;y=b;z=[]");
        QTest::newRow("empty expression")
            << QByteArray("x") << QByteArray() << QByteArray("id=1;x=;y=b");
    }

    void evaluate()
    {
        QFETCH(QByteArray, key);
        QFETCH(QByteArray, expression);
        QFETCH(QByteArray, keys);
        Rig rig;
        QUuid node;
        const QUuid rack = one_node_rack(
            rig, "io.marrowfield.evaluate",
            {{"!key", Value::string(key)}, {"!expr", Value::string(expression)}}, &node);
        rig.open();
        QCOMPARE(rig.name(node), QStringLiteral("Set %1 = %2").arg(key, expression));
        rig.post(rack, {{"id", "1"}, {"x", "12"}, {"y", "b"}});
        QTRY_COMPARE(rig.hits_at("after").size(), 1);
        QCOMPARE(rig.hits_at("after")[0].keys, keys);
        QVERIFY(rig.seen("inside").isEmpty());
    }

    // Keys in the order they were first set, lines cut at 255 bytes; "Clear"
    // empties the panel until the next event.
    void display_shows_the_last_event()
    {
        Rig rig;
        QUuid node;
        const QUuid rack = one_node_rack(rig, "io.marrowfield.display", {}, &node);
        rig.open();
        const QByteArray long_value(300, 'v');
        rig.post(rack, {{"id", "1"}});
        rig.post(rack, {{"zeta", "last"}, {"alpha", long_value}, {"id", "2"}});
        QTRY_COMPARE(rig.seen("after").size(), 2);
        QTRY_COMPARE(rig.labels(node).size(), 3);
        const QStringList lines = rig.labels(node);
        QCOMPARE(lines[0], QStringLiteral("zeta: last"));
        QCOMPARE(lines[1], QStringLiteral("alpha: ") + QString(255 - 7, u'v'));
        QCOMPARE(lines[2], QStringLiteral("id: 2"));
        rig.click(node);
        QTRY_VERIFY(rig.labels(node).isEmpty());
        // A cut never splits a character, and a line with no whole one is empty.
        QByteArray accents;
        for (int i = 0; i < 200; ++i)
            accents += "\xc3\xa9";
        rig.post(rack, {{"beta", accents}, {QByteArray(300, '\x80'), "x"}});
        QTRY_COMPARE(rig.labels(node).size(), 2);
        QCOMPARE(rig.labels(node), (QStringList{QStringLiteral("beta: ") + QString(124, QChar(0xe9)), QString()}));
        rig.post(rack, {{"id", "3"}});
        QTRY_COMPARE(rig.labels(node), QStringList{QStringLiteral("id: 3")});
    }

    // With the echo on (headless runs), each shown event is also printed.
    void display_echo_prints_the_lines()
    {
        Rig rig;
        QUuid node;
        const QUuid rack = one_node_rack(rig, "io.marrowfield.display", {}, &node);
        rig.open();
        QTemporaryFile out;
        QVERIFY(out.open());
        std::fflush(stdout);
        const int saved = ::dup(STDOUT_FILENO);
        ::dup2(out.handle(), STDOUT_FILENO);
        corv::nodes::set_display_echo(true);
        rig.post(rack, {{"id", "1"}, {"text", QByteArray(300, 'w')}});
        rig.turns(10);
        corv::nodes::set_display_echo(false);
        rig.post(rack, {{"id", "2"}});
        rig.turns(10);
        std::fflush(stdout);
        ::dup2(saved, STDOUT_FILENO);
        ::close(saved);
        QCOMPARE(rig.seen("after"), (QList<QByteArray>{"1", "2"}));
        QVERIFY(out.seek(0));
        QCOMPARE(out.readAll(), "id: 1\ntext: " + QByteArray(255 - 6, 'w') + '\n');
    }

    // Every third event runs the children; the others go on at once, and
    // each carries its place in the block.
    void count_block()
    {
        Rig rig;
        QUuid node;
        const QUuid rack =
            one_node_rack(rig, "io.marrowfield.countblock",
                          {{"!size", Value::integer(3)}, {"!key", Value::string("n")}}, &node);
        rig.open();
        QCOMPARE(rig.name(node), QStringLiteral("Blocks of 3 events"));
        for (int i = 1; i <= 7; ++i)
            rig.post(rack, QByteArray::number(i));
        QTRY_COMPARE(rig.seen("after").size(), 7);
        QCOMPARE(rig.seen("inside"), (QList<QByteArray>{"3", "6"}));
        QCOMPARE(values_at(rig, "inside", "n"), (QList<QByteArray>{"3", "3"}));
        QTRY_COMPARE(rig.labels(node), QStringList{QStringLiteral("Current count: 1")});
        rig.click(node);
        QTRY_COMPARE(rig.labels(node), QStringList{QStringLiteral("Current count: 0")});
    }

    // A triple press inside the window fires once; the window then starts
    // empty, and presses further apart than the window never fire.
    void count_rolling_time()
    {
        Rig rig;
        QUuid node;
        const QUuid rack = one_node_rack(
            rig, "io.marrowfield.countrollingtime",
            {{"!seconds", Value::floating(0.3)}, {"!threshold", Value::integer(3)}}, &node);
        rig.open();
        QCOMPARE(rig.name(node), QStringLiteral("3 events within 0.3 s"));
        for (const QByteArray id : {"1", "2", "3", "4"})
            rig.post(rack, id);
        QTRY_COMPARE(rig.seen("after").size(), 4);
        QCOMPARE(rig.seen("inside"), QList<QByteArray>{"3"});
        // The third comes back from the children after the fourth went by.
        QCOMPARE(values_at(rig, "after", "count"), (QList<QByteArray>{"1", "2", "1", "3"}));
        rig.wait(350); // 4 leaves the window
        rig.post(rack, "5");
        rig.post(rack, "6");
        rig.wait(350);
        rig.post(rack, "7");
        QTRY_COMPARE(rig.seen("after").size(), 7);
        QCOMPARE(rig.seen("inside"), QList<QByteArray>{"3"});
        QCOMPARE(values_at(rig, "after", "count").mid(4), (QList<QByteArray>{"1", "2", "1"}));
    }

    // Events go on at once with the running count; the window's end posts
    // one new event with the total into the children.
    void count_discrete_time()
    {
        Rig rig;
        QUuid node;
        const QUuid rack = one_node_rack(rig, "io.marrowfield.countdiscretetime",
                                         {{"!seconds", Value::floating(0.2)}}, &node);
        rig.open();
        QCOMPARE(rig.name(node), QStringLiteral("Count per 0.2 s window"));
        for (const QByteArray id : {"1", "2", "3"})
            rig.post(rack, id);
        QTRY_COMPARE(rig.seen("after").size(), 3);
        QCOMPARE(values_at(rig, "after", "count"), (QList<QByteArray>{"1", "2", "3"}));
        QVERIFY(rig.hits_at("inside").isEmpty());
        QTRY_COMPARE(rig.hits_at("inside").size(), 1);
        const Hit total = rig.hits_at("inside")[0];
        QCOMPARE(total.keys, QByteArray("count=3"));
        QVERIFY2(total.ms - rig.hits_at("after")[0].ms >= 190,
                 qPrintable(QString::number(total.ms)));
        rig.post(rack, "4");
        QTRY_COMPARE(rig.hits_at("inside").size(), 2);
        QCOMPARE(rig.hits_at("inside")[1].keys, QByteArray("count=1"));
        // The reset button empties an open window: it closes with nothing.
        rig.post(rack, "5");
        QTRY_COMPARE(rig.labels(node), QStringList{QStringLiteral("Current count: 1")});
        rig.click(node);
        QTRY_COMPARE(rig.labels(node), QStringList{QStringLiteral("Current count: 0")});
        rig.wait(300);
        QCOMPARE(rig.hits_at("inside").size(), 2);
    }

    // Counts while the children keep the events; one handed back resets.
    void count_child_reset()
    {
        Rig rig;
        QUuid node;
        const QUuid rack = one_node_rack(rig, "io.marrowfield.countchildreset", {}, &node);
        const QUuid gate =
            rig.add_node(node, "io.marrowfield.compare",
                         {{"!property", Value::string("x")}, {"!value", Value::string("go")}});
        Q_UNUSED(gate);
        rig.open();
        for (const QByteArray x : {"no", "no", "go"})
            rig.post(rack, {{"id", x}, {"x", x}});
        QTRY_COMPARE(rig.seen("after"), QList<QByteArray>{"go"});
        rig.post(rack, {{"id", "no"}, {"x", "no"}});
        QTRY_COMPARE(rig.seen("inside").size(), 4);
        QCOMPARE(values_at(rig, "inside", "count"), (QList<QByteArray>{"1", "2", "3", "1"}));
        QTRY_COMPARE(rig.name(node), QStringLiteral("Counted 1 event"));
    }
};

QTEST_GUILESS_MAIN(TstEventNodes)
#include "tst_event_nodes.moc"
