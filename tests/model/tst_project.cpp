#include "model/project.h"

#include <QPointer>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>

using corv::model::Children;
using corv::model::Node;
using corv::model::Profile;
using corv::model::Project;
using corv::model::Rack;

namespace {
QUuid letter_id(QChar c)
{
    return QUuid(0x2000u + c.unicode(), 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
}

QString letters(const Profile &profile)
{
    QString out;
    for (const QUuid &id : profile.ids())
        out += QChar(char16_t(id.data1 - 0x2000u));
    return out;
}

// Adds racks with the given names to the table and, in order, to the profile.
QList<QUuid> add_named_racks(Project &project, const QStringList &names)
{
    QList<QUuid> ids;
    for (const QString &name : names) {
        auto rack = std::make_unique<Rack>();
        rack->set_name(name);
        const QUuid id = QUuid::createUuid();
        project.add_rack(id, std::move(rack));
        project.profile()->insert(project.profile()->count(), id);
        ids << id;
    }
    return ids;
}
} // namespace

class TstProject : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QTest::failOnWarning(QRegularExpression(QStringLiteral(".*"))); }
    void cleanup() { corv::model::set_rack_name_source({}); }

    // to_index is counted before the rack is taken out; the inverse move,
    // as undo records it, restores the list.
    void rack_move_data()
    {
        QTest::addColumn<QString>("initial");
        QTest::addColumn<int>("from");
        QTest::addColumn<int>("to");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<int>("inverse_from");
        QTest::addColumn<int>("inverse_to");

        QTest::newRow("1: 0 to 0") << "a" << 0 << 0 << "a" << 0 << 1;
        QTest::newRow("1: 0 to 1") << "a" << 0 << 1 << "a" << 0 << 0;
        QTest::newRow("2: 0 to 2") << "ab" << 0 << 2 << "ba" << 1 << 0;
        QTest::newRow("2: 1 to 0") << "ab" << 1 << 0 << "ba" << 0 << 2;
        QTest::newRow("3: 0 to 2") << "abc" << 0 << 2 << "bac" << 1 << 0;
        QTest::newRow("3: 2 to 0") << "abc" << 2 << 0 << "cab" << 0 << 3;
        QTest::newRow("3: 0 to 3") << "abc" << 0 << 3 << "bca" << 2 << 0;
        QTest::newRow("3: 2 to 1") << "abc" << 2 << 1 << "acb" << 1 << 3;
        QTest::newRow("4: 1 to 3") << "abcd" << 1 << 3 << "acbd" << 2 << 1;
        QTest::newRow("4: 3 to 1") << "abcd" << 3 << 1 << "adbc" << 1 << 4;
        QTest::newRow("5: 4 to 0") << "abcde" << 4 << 0 << "eabcd" << 0 << 5;
        QTest::newRow("5: 0 to 5") << "abcde" << 0 << 5 << "bcdea" << 4 << 0;
        QTest::newRow("5: 2 to 2") << "abcde" << 2 << 2 << "abcde" << 2 << 3;
        QTest::newRow("5: 2 to 3") << "abcde" << 2 << 3 << "abcde" << 2 << 2;
    }

    void rack_move()
    {
        QFETCH(QString, initial);
        QFETCH(int, from);
        QFETCH(int, to);
        QFETCH(QString, expected);
        QFETCH(int, inverse_from);
        QFETCH(int, inverse_to);

        Profile profile;
        for (QChar c : initial)
            profile.insert(profile.count(), letter_id(c));
        QString before_state;
        QString after_state;
        connect(&profile, &Profile::before_rack_moved, this,
                [&] { before_state = letters(profile); });
        connect(&profile, &Profile::rack_moved, this, [&] { after_state = letters(profile); });
        QSignalSpy before(&profile, &Profile::before_rack_moved);
        QSignalSpy after(&profile, &Profile::rack_moved);

        profile.move(std::size_t(from), std::size_t(to));
        QCOMPARE(letters(profile), expected);
        QCOMPARE(before_state, initial);
        QCOMPARE(after_state, expected);
        for (const QSignalSpy *spy : {&before, &after}) {
            QCOMPARE(spy->count(), 1);
            QCOMPARE(spy->at(0).at(0).value<std::size_t>(), std::size_t(from));
            QCOMPARE(spy->at(0).at(1).value<std::size_t>(), std::size_t(to));
        }
        QCOMPARE(profile.index_of(letter_id(initial.at(from))),
                 qsizetype(corv::model::moved_position(from, to)));

        const auto inverse = corv::model::inverse_move(from, to);
        QCOMPARE(inverse, std::make_pair(std::size_t(inverse_from), std::size_t(inverse_to)));
        profile.move(inverse.first, inverse.second);
        QCOMPARE(letters(profile), initial);
    }

    void profile_insert_remove_signals()
    {
        Profile profile;
        for (QChar c : QStringLiteral("abc"))
            profile.insert(profile.count(), letter_id(c));

        QStringList trace;
        connect(&profile, &Profile::before_rack_added, this, [&](const QUuid &id, std::size_t i) {
            trace << QStringLiteral("before_added %1 %2 %3")
                         .arg(id == letter_id(u'x')).arg(i).arg(letters(profile));
        });
        connect(&profile, &Profile::rack_added, this, [&](const QUuid &id, std::size_t i) {
            trace << QStringLiteral("added %1 %2 %3")
                         .arg(id == letter_id(u'x')).arg(i).arg(letters(profile));
        });
        connect(&profile, &Profile::before_rack_removed, this,
                [&](const QUuid &id, std::size_t i) {
                    trace << QStringLiteral("before_removed %1 %2 %3")
                                 .arg(id == letter_id(u'b')).arg(i).arg(letters(profile));
                });
        connect(&profile, &Profile::rack_removed, this, [&](const QUuid &id, std::size_t i) {
            trace << QStringLiteral("removed %1 %2 %3")
                         .arg(id == letter_id(u'b')).arg(i).arg(letters(profile));
        });

        profile.insert(3, letter_id(u'x'));
        profile.remove(1);

        const QStringList expected{
            QStringLiteral("before_added 1 3 abc"), QStringLiteral("added 1 3 abcx"),
            QStringLiteral("before_removed 1 1 abcx"), QStringLiteral("removed 1 1 acx")};
        QCOMPARE(trace, expected);
    }

    void children_of()
    {
        Project project;
        const QUuid rack_id = QUuid::createUuid();
        const QUuid node_id = QUuid::createUuid();
        auto rack = std::make_unique<Rack>();
        auto node = std::make_unique<Node>();
        Children *top = rack->top_level();
        Children *kids = node->children();
        QVERIFY(project.add_rack(rack_id, std::move(rack)));
        QVERIFY(project.add_node(node_id, std::move(node)));

        QCOMPARE(project.children_of(rack_id, QUuid()), top);
        QCOMPARE(project.children_of(rack_id, node_id), kids);
        QVERIFY(!project.children_of(QUuid::createUuid(), QUuid()));
        QVERIFY(!project.children_of(rack_id, QUuid::createUuid()));
        // A rack id that names no rack leaves no top-level list, but a node is
        // found by its id alone.
        QVERIFY(!project.children_of(QUuid(), QUuid()));
        QCOMPARE(project.children_of(QUuid(), node_id), kids);
    }

    void add_refuses_duplicates_and_null_ids()
    {
        Project project;
        QSignalSpy racks_added(&project, &Project::rack_added);
        QSignalSpy nodes_added(&project, &Project::node_added);
        const QUuid id = QUuid::createUuid();

        auto first = std::make_unique<Rack>();
        Rack *kept = first.get();
        QVERIFY(project.add_rack(id, std::move(first)));
        auto second = std::make_unique<Rack>();
        QPointer<Rack> refused = second.get();
        QVERIFY(!project.add_rack(id, std::move(second)));
        QVERIFY(!project.add_rack(QUuid(), std::make_unique<Rack>()));
        QVERIFY(!project.add_rack(QUuid::createUuid(), nullptr));
        QCOMPARE(project.find_rack(id), kept);
        QCOMPARE(project.racks().size(), 1);
        QVERIFY(refused.isNull());
        QCOMPARE(racks_added.count(), 1);
        QCOMPARE(racks_added.at(0).at(0).value<QUuid>(), id);

        auto node = std::make_unique<Node>();
        Node *kept_node = node.get();
        QVERIFY(project.add_node(id, std::move(node)));
        QVERIFY(!project.add_node(id, std::make_unique<Node>()));
        QVERIFY(!project.add_node(QUuid(), std::make_unique<Node>()));
        QCOMPARE(project.find_node(id), kept_node);
        QCOMPARE(project.nodes().size(), 1);
        QCOMPARE(nodes_added.count(), 1);
    }

    // rack_added and node_added come once the item can be found by its id.
    void added_item_findable_in_signal()
    {
        Project project;
        const QUuid id = QUuid::createUuid();
        bool rack_found = false;
        bool node_found = false;
        connect(&project, &Project::rack_added, this,
                [&](const QUuid &added) { rack_found = project.find_rack(added) != nullptr; });
        connect(&project, &Project::node_added, this,
                [&](const QUuid &added) { node_found = project.find_node(added) != nullptr; });
        project.add_rack(id, std::make_unique<Rack>());
        project.add_node(id, std::make_unique<Node>());
        QVERIFY(rack_found);
        QVERIFY(node_found);
    }

    // Removal hands the item back and announces it while it is still alive,
    // so listeners may read it one last time.
    void take_emits_while_alive()
    {
        Project project;
        const QUuid id = QUuid::createUuid();
        auto rack = std::make_unique<Rack>();
        rack->set_name(QStringLiteral("Going"));
        QPointer<Rack> rack_ptr = rack.get();
        project.add_rack(id, std::move(rack));
        auto node = std::make_unique<Node>();
        node->set_impl_id(QStringLiteral("io.marrowfield.delay"));
        QPointer<Node> node_ptr = node.get();
        project.add_node(id, std::move(node));

        QString seen_name;
        QString seen_impl;
        connect(&project, &Project::rack_removed, this, [&](const QUuid &removed) {
            QCOMPARE(removed, id);
            if (rack_ptr)
                seen_name = rack_ptr->name();
        });
        connect(&project, &Project::node_removed, this, [&](const QUuid &removed) {
            QCOMPARE(removed, id);
            if (node_ptr)
                seen_impl = node_ptr->impl_id();
        });
        QSignalSpy racks_removed(&project, &Project::rack_removed);
        QSignalSpy nodes_removed(&project, &Project::node_removed);

        std::unique_ptr<Rack> taken_rack = project.take_rack(id);
        std::unique_ptr<Node> taken_node = project.take_node(id);
        QCOMPARE(taken_rack.get(), rack_ptr.data());
        QCOMPARE(taken_node.get(), node_ptr.data());
        QCOMPARE(seen_name, QStringLiteral("Going"));
        QCOMPARE(seen_impl, QStringLiteral("io.marrowfield.delay"));
        QVERIFY(!project.find_rack(id));
        QVERIFY(!project.find_node(id));

        QVERIFY(!project.take_rack(id));
        QVERIFY(!project.take_node(QUuid::createUuid()));
        QCOMPARE(racks_removed.count(), 1);
        QCOMPARE(nodes_removed.count(), 1);

        // Handed back, the rack can be entered again (as undo does).
        QVERIFY(project.add_rack(id, std::move(taken_rack)));
        QCOMPARE(project.find_rack(id), rack_ptr.data());
    }

    void project_destroys_what_it_owns()
    {
        QPointer<Rack> rack;
        QPointer<Node> node;
        {
            Project project;
            auto r = std::make_unique<Rack>();
            auto n = std::make_unique<Node>();
            rack = r.get();
            node = n.get();
            project.add_rack(QUuid::createUuid(), std::move(r));
            project.add_node(QUuid::createUuid(), std::move(n));
        }
        QVERIFY(rack.isNull());
        QVERIFY(node.isNull());
    }

    void new_rack_name_data()
    {
        QTest::addColumn<bool>("custom");
        QTest::newRow("default source") << false;
        QTest::newRow("custom source") << true;
    }

    // With the first three names taken and the second renamed, the second
    // name is proposed again.
    void new_rack_name()
    {
        QFETCH(bool, custom);
        if (custom) {
            corv::model::set_rack_name_source(
                [](int n) { return QStringLiteral("Gestell %1").arg(n); });
        }
        const auto name = [custom](int n) {
            return (custom ? QStringLiteral("Gestell %1") : QStringLiteral("Rack %1")).arg(n);
        };

        Project project;
        QCOMPARE(project.new_rack_name(), name(1));
        const QList<QUuid> ids = add_named_racks(project, {name(1), name(2), name(3)});
        QCOMPARE(project.new_rack_name(), name(4));
        project.find_rack(ids.at(1))->set_name(QStringLiteral("Renamed"));
        QCOMPARE(project.new_rack_name(), name(2));
    }

    void new_rack_name_rules()
    {
        Project project;
        // Exact and case-sensitive: near misses do not take the name.
        add_named_racks(project, {QStringLiteral("rack 1"), QStringLiteral("Rack 1 "),
                                  QStringLiteral("Rack 01")});
        QCOMPARE(project.new_rack_name(), QStringLiteral("Rack 1"));

        // Only racks in the profile count.
        auto loose = std::make_unique<Rack>();
        loose->set_name(QStringLiteral("Rack 1"));
        project.add_rack(QUuid::createUuid(), std::move(loose));
        QCOMPARE(project.new_rack_name(), QStringLiteral("Rack 1"));

        // Racks may share a name; the proposal skips it all the same.
        add_named_racks(project, {QStringLiteral("Rack 1"), QStringLiteral("Rack 1")});
        QCOMPARE(project.new_rack_name(), QStringLiteral("Rack 2"));
    }

    // A translation that leaves out the number gives the same text for every
    // n; the proposal must still come back.
    void new_rack_name_with_constant_source()
    {
        corv::model::set_rack_name_source([](int) { return QStringLiteral("New rack"); });
        Project project;
        QCOMPARE(project.new_rack_name(), QStringLiteral("New rack"));
        add_named_racks(project, {QStringLiteral("New rack"), QStringLiteral("Other")});
        QCOMPARE(project.new_rack_name(), QStringLiteral("New rack"));
    }

    void rack_fields()
    {
        Rack rack;
        QVERIFY(rack.is_enabled());
        QVERIFY(rack.name().isEmpty());
        QCOMPARE(rack.property("is_enabled").toBool(), true);

        QSignalSpy names(&rack, &Rack::name_changed);
        QSignalSpy enabled(&rack, &Rack::is_enabled_changed);
        rack.set_enabled(true);
        rack.set_name(QString());
        QCOMPARE(enabled.count(), 0);
        QCOMPARE(names.count(), 0);

        rack.set_enabled(false);
        rack.set_enabled(false);
        rack.set_name(QStringLiteral("Main"));
        rack.set_name(QStringLiteral("Ma") + QStringLiteral("in"));
        QCOMPARE(enabled.count(), 1);
        QCOMPARE(enabled.at(0).at(0).toBool(), false);
        QCOMPARE(names.count(), 1);
        QCOMPARE(names.at(0).at(0).toString(), QStringLiteral("Main"));
        QCOMPARE(rack.property("is_enabled").toBool(), false);
        QCOMPARE(rack.property("name").toString(), QStringLiteral("Main"));
    }

    void node_impl_id()
    {
        Node node;
        QVERIFY(node.impl_id().isEmpty());
        QCOMPARE(node.children()->count(), std::size_t(0));
        QCOMPARE(node.properties().size(), 0);

        QSignalSpy spy(&node, &Node::impl_id_changed);
        node.set_impl_id(QString());
        QCOMPARE(spy.count(), 0);
        node.set_impl_id(QStringLiteral("io.marrowfield.delay"));
        QCOMPARE(spy.count(), 1);
        node.set_impl_id(QStringLiteral("io.marrowfield.") + QStringLiteral("delay"));
        QCOMPARE(spy.count(), 1);
        QCOMPARE(node.property("impl_id").toString(), QStringLiteral("io.marrowfield.delay"));
        QCOMPARE(node.key_prefix(), QStringLiteral("io.marrowfield.delay."));
    }
};

QTEST_GUILESS_MAIN(TstProject)
#include "tst_project.moc"
