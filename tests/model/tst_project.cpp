// Children lists, the profile, racks, nodes and the project's tables.

#include "model/project.h"

#include <QPointer>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>

#include <functional>

using namespace corv::model;

namespace {
// Fixed ids named by one letter, so lists can be written as "abc".
QUuid letter_id(QChar c)
{
    return QUuid(0x1000u + c.unicode(), 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
}

template <typename List> QString letters(const List &list)
{
    QString out;
    for (const QUuid &id : list.ids())
        out += QChar(char16_t(id.data1 - 0x1000u));
    return out;
}

template <typename List> void fill(List &list, const QString &ids)
{
    const QSignalBlocker block(&list);
    for (QChar c : ids)
        list.insert(list.count(), letter_id(c));
}

QString text(const QUuid &id)
{
    return QChar(char16_t(id.data1 - 0x1000u));
}
QString text(std::size_t n)
{
    return QString::number(n);
}

// Appends "<name> <signal> <arguments> [<state>]" to trace for each structural
// signal of a Children list or the Profile, the state read while it is emitted.
template <typename List, typename... Signals>
void watch_signals(List &list, const QString &name, QStringList &trace,
                   const std::function<QString()> &state, Signals... sigs)
{
    const char *names[] = {"before_added", "added", "before_moved", "moved", "before_removed",
                           "removed"};
    int i = 0;
    (QObject::connect(&list, sigs, [=, &trace, what = names[i++]](const auto &a, std::size_t b) {
         trace << QStringLiteral("%1 %2 %3 %4 [%5]").arg(name, what, text(a)).arg(b).arg(state());
     }),
     ...);
}

void watch(Children &l, const QString &name, QStringList &trace, std::function<QString()> state)
{
    watch_signals(l, name, trace, state, &Children::before_added, &Children::added,
                  &Children::before_moved, &Children::moved, &Children::before_removed,
                  &Children::removed);
}

void watch(Profile &l, const QString &name, QStringList &trace, std::function<QString()> state)
{
    watch_signals(l, name, trace, state, &Profile::before_rack_added, &Profile::rack_added,
                  &Profile::before_rack_moved, &Profile::rack_moved, &Profile::before_rack_removed,
                  &Profile::rack_removed);
}

// Runs edit on a fresh list of each kind holding initial; both traces must match.
QStringList traced(const QString &initial, const std::function<void(Children &)> &on_children,
                   const std::function<void(Profile &)> &on_profile)
{
    Children children;
    Profile profile;
    fill(children, initial);
    fill(profile, initial);
    QStringList trace;
    QStringList profile_trace;
    watch(children, "l", trace, [&] { return letters(children); });
    watch(profile, "l", profile_trace, [&] { return letters(profile); });
    on_children(children);
    on_profile(profile);
    return trace == profile_trace ? trace : QStringList{"differ:"} + trace + profile_trace;
}

QList<QUuid> add_named_racks(Project &project, const QStringList &names, bool in_profile = true)
{
    QList<QUuid> ids;
    for (const QString &name : names) {
        auto rack = std::make_unique<Rack>();
        rack->set_name(name);
        ids << QUuid::createUuid();
        project.add_rack(ids.last(), std::move(rack));
        if (in_profile)
            project.profile()->insert(project.profile()->count(), ids.last());
    }
    return ids;
}
} // namespace

class TstProject : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QTest::failOnWarning(QRegularExpression(QStringLiteral(".*"))); }
    void cleanup() { set_rack_name_source({}); }

    // Ops: "+i" inserts x at i, "-i" removes at i, "f>t" moves from f to t
    // (t counted before the id is taken out; the inverse move, as undo
    // records it, restores the list). Children and the profile agree.
    void edits_data()
    {
        QTest::addColumn<QString>("initial");
        QTest::addColumn<QString>("op");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<QString>("inverse");
        QTest::newRow("insert into empty") << "" << "+0" << "x" << "";
        QTest::newRow("insert in front") << "abc" << "+0" << "xabc" << "";
        QTest::newRow("insert in the middle") << "abc" << "+1" << "axbc" << "";
        QTest::newRow("append at count") << "abc" << "+3" << "abcx" << "";
        QTest::newRow("remove the only") << "a" << "-0" << "" << "";
        QTest::newRow("remove the middle") << "abc" << "-1" << "ac" << "";
        QTest::newRow("remove the last") << "abc" << "-2" << "ab" << "";
        QTest::newRow("1: 0 to 0") << "a" << "0>0" << "a" << "0>1";
        QTest::newRow("1: 0 to 1") << "a" << "0>1" << "a" << "0>0";
        QTest::newRow("2: 1 to 0") << "ab" << "1>0" << "ba" << "0>2";
        QTest::newRow("3: 0 to 2") << "abc" << "0>2" << "bac" << "1>0";
        QTest::newRow("3: 2 to 0") << "abc" << "2>0" << "cab" << "0>3";
        QTest::newRow("3: 0 to end") << "abc" << "0>3" << "bca" << "2>0";
        QTest::newRow("3: 2 to 1") << "abc" << "2>1" << "acb" << "1>3";
        QTest::newRow("4: 1 to 3") << "abcd" << "1>3" << "acbd" << "2>1";
        QTest::newRow("5: 1 to 4") << "abcde" << "1>4" << "acdbe" << "3>1";
        QTest::newRow("5: 4 to 0") << "abcde" << "4>0" << "eabcd" << "0>5";
        QTest::newRow("5: 2 to 3, no change") << "abcde" << "2>3" << "abcde" << "2>2";
    }

    void edits()
    {
        QFETCH(QString, initial);
        QFETCH(QString, op);
        QFETCH(QString, expected);
        QFETCH(QString, inverse);
        const std::size_t a = op.section(u'>', 0, 0).toUInt();
        const std::size_t b = op.section(u'>', 1, 1).toUInt();
        const std::size_t i = op.mid(1).toUInt();
        QString what = QStringLiteral("moved");
        QString args = QStringLiteral("%1 %2").arg(a).arg(b);
        if (op.startsWith(u'+')) {
            what = QStringLiteral("added");
            args = QStringLiteral("x %1").arg(i);
        } else if (op.startsWith(u'-')) {
            what = QStringLiteral("removed");
            args = initial.mid(qsizetype(i), 1) + QStringLiteral(" %1").arg(i);
        }
        QString restored = initial;
        const auto edit = [&](auto &list) {
            if (op.startsWith(u'+'))
                list.insert(i, letter_id(u'x'));
            else if (op.startsWith(u'-'))
                list.remove(i);
            if (what != QLatin1String("moved"))
                return;
            list.move(a, b);
            QCOMPARE(list.index_of(letter_id(initial.at(a))), qsizetype(moved_position(a, b)));
            const auto [back_from, back_to] = inverse_move(a, b);
            QCOMPARE(QStringLiteral("%1>%2").arg(back_from).arg(back_to), inverse);
            list.move(back_from, back_to);
            restored = letters(list);
        };
        const QStringList trace = traced(initial, edit, edit);
        QCOMPARE(trace.mid(0, 2),
                 (QStringList{QStringLiteral("l before_%1 %2 [%3]").arg(what, args, initial),
                              QStringLiteral("l %1 %2 [%3]").arg(what, args, expected)}));
        QCOMPARE(restored, initial);
    }

    void external_move_data()
    {
        QTest::addColumn<QString>("source");
        QTest::addColumn<QString>("dest");
        QTest::addColumn<int>("src_index");
        QTest::addColumn<int>("dest_index");
        QTest::addColumn<QString>("source_after");
        QTest::addColumn<QString>("dest_after");
        QTest::newRow("middle to front") << "abc" << "xy" << 1 << 0 << "ac" << "bxy";
        QTest::newRow("append at count") << "abc" << "xy" << 0 << 2 << "bc" << "xya";
        QTest::newRow("into empty") << "a" << "" << 0 << 0 << "" << "a";
    }

    // The pair of external signals stands around a plain remove and insert,
    // in order across the two lists, each carrying the other list.
    void external_move()
    {
        QFETCH(QString, source);
        QFETCH(QString, dest);
        QFETCH(int, src_index);
        QFETCH(int, dest_index);
        QFETCH(QString, source_after);
        QFETCH(QString, dest_after);
        Children src;
        Children dst;
        fill(src, source);
        fill(dst, dest);
        QStringList trace;
        const auto state = [&] { return letters(src) + u'|' + letters(dst); };
        const auto name = [&](Children *list) {
            return QString::fromLatin1(list == &src ? "src" : list == &dst ? "dst" : "?");
        };
        for (Children *list : {&src, &dst}) {
            const QString n = name(list);
            watch(*list, n, trace, state);
            connect(list, &Children::external_move_emitted, this,
                    [=, &trace](std::size_t si, Children *d, std::size_t di) {
                        trace << QStringLiteral("%1 emitted %2 %3 %4 [%5]")
                                     .arg(n, text(si), name(d), text(di), state());
                    });
            connect(list, &Children::external_move_received, this,
                    [=, &trace](Children *s, std::size_t si, std::size_t di) {
                        trace << QStringLiteral("%1 received %2 %3 %4 [%5]")
                                     .arg(n, name(s), text(si), text(di), state());
                    });
        }
        src.move_to(std::size_t(src_index), &dst, std::size_t(dest_index));

        const QString start = source + u'|' + dest;
        const QString removed = source_after + u'|' + dest;
        const QString end = source_after + u'|' + dest_after;
        const QString m = source.mid(src_index, 1);
        const QStringList expected{
            QStringLiteral("src emitted %1 dst %2 [%3]").arg(src_index).arg(dest_index).arg(start),
            QStringLiteral("src before_removed %1 %2 [%3]").arg(m).arg(src_index).arg(start),
            QStringLiteral("src removed %1 %2 [%3]").arg(m).arg(src_index).arg(removed),
            QStringLiteral("dst before_added %1 %2 [%3]").arg(m).arg(dest_index).arg(removed),
            QStringLiteral("dst added %1 %2 [%3]").arg(m).arg(dest_index).arg(end),
            QStringLiteral("dst received src %1 %2 [%3]").arg(src_index).arg(dest_index).arg(end),
        };
        QCOMPARE(trace, expected);
    }

    // Items are found by id while added and while announced removed; a taken
    // item comes back to the caller alive and can be added again.
    void tables()
    {
        Project project;
        const QUuid id = QUuid::createUuid();
        QStringList seen;
        QPointer<Rack> rack_ptr;
        QPointer<Node> node_ptr;
        connect(&project, &Project::rack_added, this,
                [&](const QUuid &r) { seen << "+rack " + project.find_rack(r)->name(); });
        connect(&project, &Project::node_added, this,
                [&](const QUuid &n) { seen << "+node " + project.find_node(n)->impl_id(); });
        connect(&project, &Project::rack_removed, this,
                [&] { seen << "-rack " + rack_ptr->name(); });
        connect(&project, &Project::node_removed, this,
                [&] { seen << "-node " + node_ptr->impl_id(); });
        auto rack = std::make_unique<Rack>();
        rack->set_name("R");
        rack_ptr = rack.get();
        QVERIFY(project.add_rack(id, std::move(rack)));
        auto node = std::make_unique<Node>();
        node->set_impl_id("io.x");
        node_ptr = node.get();
        Children *kids = node->children();
        QVERIFY(project.add_node(id, std::move(node)));

        QPointer<Rack> refused = new Rack; // destroyed when refused
        QVERIFY(!project.add_rack(id, std::unique_ptr<Rack>(refused.data())));
        QVERIFY(refused.isNull());
        QVERIFY(!project.add_rack(QUuid(), std::make_unique<Rack>()));
        QVERIFY(!project.add_rack(QUuid::createUuid(), nullptr));
        QVERIFY(!project.add_node(id, std::make_unique<Node>()));
        QVERIFY(!project.add_node(QUuid(), std::make_unique<Node>()));
        QCOMPARE(project.racks().size(), 1);
        QCOMPARE(project.nodes().size(), 1);

        QCOMPARE(project.children_of(id, QUuid()), project.find_rack(id)->top_level());
        QCOMPARE(project.children_of(id, id), kids);
        QVERIFY(!project.children_of(QUuid::createUuid(), QUuid()));
        QVERIFY(!project.children_of(id, QUuid::createUuid()));
        QCOMPARE(project.children_of(QUuid(), id), kids); // a node is found by its id alone

        std::unique_ptr<Rack> taken = project.take_rack(id);
        std::unique_ptr<Node> taken_node = project.take_node(id);
        QVERIFY(taken && taken_node && !project.find_rack(id) && !project.find_node(id));
        QVERIFY(!project.take_rack(id));
        QCOMPARE(seen, (QStringList{"+rack R", "+node io.x", "-rack R", "-node io.x"}));
        Rack *raw = taken.get();
        QVERIFY(project.add_rack(id, std::move(taken)));
        QCOMPARE(project.find_rack(id), raw);
    }

    // The first name n = 1, 2, ... that no rack in the profile has exactly.
    void new_rack_name_data()
    {
        QTest::addColumn<QString>("pattern"); // the name source's text; empty: the default
        QTest::addColumn<QStringList>("listed");
        QTest::addColumn<QStringList>("loose"); // in the table, not in the profile
        QTest::addColumn<QString>("expected");
        const QStringList none;
        QTest::newRow("empty project") << "" << none << none << "Rack 1";
        const QStringList three{"Rack 1", "Rack 2", "Rack 3"};
        QTest::newRow("first three taken") << "" << three << none << "Rack 4";
        QTest::newRow("gap") << "" << QStringList{"Rack 1", "Renamed", "Rack 3"} << none << "Rack 2";
        QTest::newRow("near misses") << "" << QStringList{"rack 1", "Rack 1 ", "Rack 01"} << none
                                     << "Rack 1";
        QTest::newRow("only the profile counts") << "" << none << QStringList{"Rack 1"} << "Rack 1";
        QTest::newRow("shared names") << "" << QStringList{"Rack 1", "Rack 1"} << none << "Rack 2";
        QTest::newRow("custom source") << "Gestell %1" << QStringList{"Gestell 1"} << none
                                       << "Gestell 2";
        QTest::newRow("source without number") << "New" << QStringList{"New", "Other"} << none
                                               << "New";
    }

    void new_rack_name()
    {
        QFETCH(QString, pattern);
        QFETCH(QStringList, listed);
        QFETCH(QStringList, loose);
        QFETCH(QString, expected);
        if (!pattern.isEmpty())
            set_rack_name_source(
                [pattern](int n) { return QString(pattern).replace("%1", QString::number(n)); });
        Project project;
        add_named_racks(project, listed);
        add_named_racks(project, loose, false);
        QCOMPARE(project.new_rack_name(), expected);
    }

    // Setters announce real changes only.
    void field_signals()
    {
        Rack rack;
        Node node;
        QSignalSpy names(&rack, &Rack::name_changed);
        QSignalSpy enabled(&rack, &Rack::is_enabled_changed);
        QSignalSpy impl(&node, &Node::impl_id_changed);
        rack.set_enabled(true);
        rack.set_name(QString());
        node.set_impl_id(QString());
        for (int i = 0; i < 2; ++i) {
            rack.set_enabled(false);
            rack.set_name(QStringLiteral("Main"));
            node.set_impl_id(QStringLiteral("io.x"));
        }
        QCOMPARE(enabled.count(), 1);
        QCOMPARE(enabled.at(0).at(0).toBool(), false);
        QCOMPARE(names.count(), 1);
        QCOMPARE(names.at(0).at(0).toString(), QStringLiteral("Main"));
        QCOMPARE(impl.count(), 1);
        QCOMPARE(node.key_prefix(), QStringLiteral("io.x."));
    }
};

QTEST_GUILESS_MAIN(TstProject)
#include "tst_project.moc"
