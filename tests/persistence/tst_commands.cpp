// The command manager's history, and the model commands undone and redone.

#include "fixtures.h"
#include "persistence/command_manager.h"
#include "persistence/model_commands.h"
#include "persistence/property_commands.h"

#include <QLoggingCategory>
#include <QRandomGenerator>
#include <QSignalSpy>

#include <functional>

using namespace fixtures;
using engine::NodePlace;
using MakeCommand = std::function<engine::CommandPtr(model::Project *)>;
Q_DECLARE_METATYPE(MakeCommand)

namespace {

// Appends its word to state and trace; its inverse takes the word off again,
// tracing "-word". during runs inside the first apply only.
class Word : public engine::Command
{
public:
    Word(QStringList &state, QStringList &trace, QString word, std::function<void()> during = {}, bool undo = false)
        : m_state(state), m_trace(trace), m_word(std::move(word)), m_during(std::move(during)), m_undo(undo)
    {
    }
    engine::CommandPtr apply() override
    {
        if (m_undo)
            m_state.removeLast();
        else
            m_state << m_word;
        m_trace << (m_undo ? u'-' + m_word : m_word);
        if (m_during)
            m_during();
        return std::make_unique<Word>(m_state, m_trace, m_word, nullptr, !m_undo);
    }

private:
    QStringList &m_state;
    QStringList &m_trace;
    QString m_word;
    std::function<void()> m_during;
    bool m_undo;
};

// Runs a function while applied; the edits it executes make up the step.
class Batch : public engine::Command
{
public:
    explicit Batch(std::function<void()> body) : m_body(std::move(body)) {}
    engine::CommandPtr apply() override
    {
        m_body();
        return nullptr;
    }

private:
    std::function<void()> m_body;
};

QStringList rack_names(const model::Project &project)
{
    QStringList names;
    for (const QUuid &id : project.profile()->ids())
        names.append(project.find_rack(id)->name());
    return names;
}

// One random edit of any kind through the manager; returns true for a merged
// property write, which may change the state without a new history entry.
bool random_edit(model::Project &project, engine::CommandManager &manager, QRandomGenerator &random, int kind)
{
    const auto pick = [&](auto n) { return decltype(n)(random.bounded(quint32(n))); };
    model::Project *p = &project;
    const std::size_t racks = project.profile()->count();
    const QUuid rack = racks ? project.profile()->at(pick(racks)) : QUuid();
    // Every children list of the racks' trees, and those that hold a node.
    QList<NodePlace> lists;
    QList<NodePlace> occupied;
    for (const QUuid &r : project.profile()->ids()) {
        lists.append({r, QUuid(), 0});
        for (const QUuid &node : engine::subtree_ids(project, project.find_rack(r)->top_level()->ids()))
            lists.append({r, node, 0});
    }
    const auto size = [&](const NodePlace &place) { return project.children_of(place.rack, place.parent)->count(); };
    for (const NodePlace &place : std::as_const(lists))
        if (size(place))
            occupied.append(place);
    const auto somewhere = [&](const QList<NodePlace> &places, std::size_t extra) {
        NodePlace place = places.at(pick(places.size()));
        place.index = pick(size(place) + extra);
        return place;
    };
    if (kind >= 6 && occupied.isEmpty())
        return false;
    switch (kind) {
    case 0:
        manager.execute(std::make_unique<engine::AddRackCommand>(p, pick(racks + 1), QString::number(pick(100))));
        break;
    case 1:
        manager.execute(std::make_unique<engine::RemoveRackCommand>(p, rack));
        break;
    case 2: {
        std::vector<engine::Move> moves;
        for (int i = pick(3); i >= 0 && racks; --i)
            moves.push_back({pick(racks), pick(racks + 1)});
        manager.execute(std::make_unique<engine::MoveRacksCommand>(p, std::move(moves)));
        break;
    }
    case 3:
        manager.execute(std::make_unique<engine::RenameRackCommand>(p, rack, QString::number(pick(5))));
        break;
    case 4:
        manager.execute(std::make_unique<engine::SetRackEnabledCommand>(p, rack, pick(2)));
        break;
    case 5:
        if (!lists.isEmpty()) {
            auto node = std::make_unique<model::Node>();
            node->set_impl_id("u");
            set(node.get(), "!origin", model::Value::integer(pick(100)));
            manager.execute(std::make_unique<engine::AddNodeCommand>(p, somewhere(lists, 1), QUuid::createUuid(),
                                                                     std::move(node), engine::NodeTable()));
        }
        break;
    case 6:
        manager.execute(std::make_unique<engine::RemoveNodeCommand>(p, somewhere(occupied, 0)));
        break;
    case 7: { // there and back and there within one list
        const NodePlace from = somewhere(occupied, 0);
        NodePlace to = from;
        to.index = pick(size(to) + 1);
        manager.execute(std::make_unique<engine::MoveNodesCommand>(
            p, std::vector<engine::NodeMove>{{from, to}, {to, from}, {from, to}}));
        break;
    }
    case 8: // to any list, its own subtree included (that move is refused)
        manager.execute(std::make_unique<engine::MoveNodesCommand>(
            p, std::vector<engine::NodeMove>{{somewhere(occupied, 0), somewhere(lists, 1)}}));
        break;
    default: {
        // A key that exists: undoing the first write of a key would leave it
        // listed, holding None.
        const NodePlace place = somewhere(occupied, 0);
        const QUuid id = project.children_of(place.rack, place.parent)->at(place.index);
        const QStringList keys = project.find_node(id)->properties().keys();
        model::Value value = pick(2) ? model::Value::integer(pick(1000)) : model::Value::floating(pick(1000) / 7.0);
        auto command = std::make_unique<engine::SetNodePropertyCommand>(p, id, keys.at(pick(keys.size())), value);
        if (kind == 10 && !manager.is_recording()) {
            manager.execute_merged(std::move(command));
            return true;
        }
        manager.execute(std::move(command));
    }
    }
    return false;
}

} // namespace

class tst_Commands : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QLoggingCategory::setFilterRules(QStringLiteral("corv.persistence.debug=false")); }
    void init() { fail_on_warnings(); }

    // A new edit drops the redo tail; undo and redo at the ends do nothing
    // and announce nothing. Each entry keeps its edit's name both ways.
    void history()
    {
        QStringList state, trace;
        engine::CommandManager manager;
        QSignalSpy changed(&manager, &engine::CommandManager::changed);
        manager.undo();
        manager.redo();
        QCOMPARE(changed.count(), 0);
        manager.execute(std::make_unique<Word>(state, trace, "first"), "One");
        manager.redo();
        QCOMPARE(changed.count(), 1);
        manager.execute(std::make_unique<Word>(state, trace, "second"), "Two");
        manager.undo();
        QVERIFY(manager.can_redo());
        QCOMPARE(manager.undo_name(), QByteArray("One"));
        QCOMPARE(manager.redo_name(), QByteArray("Two"));
        manager.execute(std::make_unique<Batch>([] {}), "Nothing"); // changes nothing
        QCOMPARE(manager.redo_name(), QByteArray("Two"));
        manager.execute(std::make_unique<Word>(state, trace, "third"));
        QCOMPARE(manager.history_size(), std::size_t(2));
        QVERIFY(!manager.can_redo());
        QCOMPARE(manager.undo_name(), QByteArray());
        QCOMPARE(manager.redo_name(), QByteArray());
        for (int i = 0; i < 3; ++i)
            manager.undo();
        QCOMPARE(manager.redo_name(), QByteArray("One"));
        QVERIFY(state.isEmpty());
        QCOMPARE(manager.index(), std::size_t(0));
        QCOMPARE(changed.count(), 6);
        manager.redo();
        manager.redo();
        QCOMPARE(state, (QStringList{"first", "third"}));
        QCOMPARE(trace, (QStringList{"first", "second", "-second", "third", "-third", "-first", "first", "third"}));
    }

    // Undone last-first, redone in the original order, without running the
    // outer command's nested executes a second time.
    void nested_commands_are_one_step()
    {
        QStringList state, trace;
        engine::CommandManager manager;
        manager.execute(std::make_unique<Word>(state, trace, "outer", [&] {
            QVERIFY(manager.is_recording());
            manager.execute(std::make_unique<Word>(state, trace, "inner1"), "Inner");
            manager.execute(std::make_unique<Batch>([] {})); // changes nothing
            manager.execute(std::make_unique<Word>(state, trace, "inner2"));
        }), "Outer");
        QVERIFY(!manager.is_recording());
        QCOMPARE(manager.history_size(), std::size_t(1));
        QCOMPARE(manager.undo_name(), QByteArray("Outer"));
        manager.undo();
        QVERIFY(state.isEmpty());
        manager.redo();
        QCOMPARE(state, (QStringList{"outer", "inner1", "inner2"}));
        QCOMPARE(trace.mid(3), (QStringList{"-inner2", "-inner1", "-outer", "outer", "inner1", "inner2"}));
        QCOMPARE(manager.history_size(), std::size_t(1));
    }

    // Merged writes to one key are one step; the run ends with a commit,
    // another key, an unmerged write, an undo and a clear. A merged write that changes
    // nothing starts no run.
    void merged_runs()
    {
        model::PropertyCollection prefs;
        model::StoreView(&prefs, QString()).set("a", model::Value::integer(0));
        engine::PreferencesCommandManager manager(&prefs);
        const auto write = [&](const char *key, int v, bool merged = true) {
            manager.set_value(key, model::Value::integer(v), merged);
        };
        const auto value = [&](const char *key) { return prefs.find(key)->value().to_int(); };
        write("a", 0);
        QVERIFY(!manager.has_pending());
        QSignalSpy changed(&manager, &engine::CommandManager::changed);
        for (int v : {1, 2, 3})
            manager.set_value("a", model::Value::integer(v), true, v == 1 ? "Run" : "Later");
        QCOMPARE(manager.history_size(), std::size_t(1));
        QCOMPARE(manager.undo_name(), QByteArray("Run"));
        QVERIFY(manager.has_pending());
        QCOMPARE(changed.count(), 3);
        manager.commit_pending();
        write("a", 4); // a new run
        write("b", 1); // another key ends the run
        write("a", 5);
        write("a", 6, false); // an unmerged write is its own step
        write("a", 7);
        QCOMPARE(manager.history_size(), std::size_t(6));
        manager.undo(); // 7 -> 6, and the run is over
        QVERIFY(!manager.has_pending());
        write("a", 8);
        QCOMPARE(manager.history_size(), std::size_t(6));
        QVERIFY(!manager.can_redo());
        manager.undo();
        QCOMPARE(value("a"), 6);
        while (manager.can_undo())
            manager.undo();
        QCOMPARE(value("a"), 0);
        QVERIFY(prefs.find("b")->value().is_none());
        while (manager.can_redo())
            manager.redo();
        QCOMPARE(value("a"), 8);
        QCOMPARE(value("b"), 1);
        write("a", 9);
        manager.clear(); // clearing the history ends the run too
        write("a", 10);
        QVERIFY(manager.can_undo());
    }

    // A run of writes to a node's field goes on only for that node and key;
    // undoing every step takes every write back.
    void node_runs_are_per_node_and_key()
    {
        model::Project project;
        fill(project);
        engine::CommandManager manager;
        const auto write = [&](int node, const char *key, int v) {
            manager.execute_merged(std::make_unique<engine::SetNodePropertyCommand>(&project, make_id(node), key,
                                                                                    model::Value::integer(v)));
        };
        write(10, "!x", 1);
        write(10, "!x", 2);
        write(11, "!x", 3); // another node
        write(11, "!y", 4); // another key
        write(10, "!x", 5);
        QCOMPARE(manager.history_size(), std::size_t(4));
        while (manager.can_undo())
            manager.undo();
        for (int node : {10, 11})
            for (const char *key : {"!x", "!y"})
                QVERIFY(!project.find_node(make_id(node))->properties().find(key) ||
                        project.find_node(make_id(node))->properties().find(key)->value().is_none());
    }

    // The very node objects come back, each announced once.
    void removed_subtree_is_restored_whole()
    {
        model::Project project;
        fill(project);
        const Snapshot before = snapshot(project);
        const model::Node *node13 = project.find_node(make_id(13));
        engine::CommandManager manager;
        manager.execute(std::make_unique<engine::RemoveNodeCommand>(&project, NodePlace{make_id(1), make_id(10), 1}));
        for (int n : {12, 13, 14})
            QVERIFY(!project.find_node(make_id(n)));
        QCOMPARE(project.find_node(make_id(10))->children()->ids(), QList<QUuid>{make_id(11)});
        QSignalSpy added(&project, &model::Project::node_added);
        manager.undo();
        QCOMPARE(snapshot(project), before);
        QCOMPARE(project.find_node(make_id(13)), node13);
        QCOMPARE(added.count(), 3);
        manager.redo();
        QVERIFY(!project.find_node(make_id(14)));
        manager.undo();
        QCOMPARE(snapshot(project), before);

        manager.execute(std::make_unique<engine::RemoveRackCommand>(&project, make_id(1)));
        QCOMPARE(rack_names(project), (QStringList{"B", "C"}));
        QCOMPARE(project.nodes().size(), 2);
        manager.undo();
        QCOMPARE(snapshot(project), before);
    }

    // Moves apply in order and are undone in reverse (the list semantics are
    // the model test's).
    void rack_moves_data()
    {
        QTest::addColumn<QList<int>>("moves"); // pairs from, to
        QTest::addColumn<QString>("order");
        QTest::newRow("0 to 2 leaves it at 1") << QList<int>{0, 2} << "BACD";
        QTest::newRow("two moves") << QList<int>{0, 2, 3, 0} << "DBAC";
        QTest::newRow("three moves") << QList<int>{0, 4, 0, 4, 2, 0} << "ACDB";
        QTest::newRow("out of range skipped") << QList<int>{7, 0, 3, 1} << "ADBC";
    }

    void rack_moves()
    {
        QFETCH(QList<int>, moves);
        QFETCH(QString, order);
        model::Project project;
        for (QChar name : QStringLiteral("ABCD"))
            add_rack(project, name.unicode(), name);
        std::vector<engine::Move> list;
        for (qsizetype i = 0; i + 1 < moves.size(); i += 2)
            list.push_back({std::size_t(moves[i]), std::size_t(moves[i + 1])});
        engine::CommandManager manager;
        manager.execute(std::make_unique<engine::MoveRacksCommand>(&project, list));
        QCOMPARE(rack_names(project).join(QString()), order);
        manager.undo();
        QCOMPARE(rack_names(project).join(QString()), QStringLiteral("ABCD"));
        manager.redo();
        QCOMPARE(rack_names(project).join(QString()), order);
    }

    // Between lists a node moves as an external move, back too; into its own
    // subtree it does not move at all.
    void node_moves()
    {
        model::Project project;
        fill(project);
        const Snapshot before = snapshot(project);
        model::Children *source = project.find_node(make_id(12))->children();
        model::Children *dest = project.find_rack(make_id(2))->top_level();
        QSignalSpy emitted(source, &model::Children::external_move_emitted);
        QSignalSpy received(dest, &model::Children::external_move_received);
        QSignalSpy back_emitted(dest, &model::Children::external_move_emitted);
        engine::CommandManager manager;
        manager.execute(std::make_unique<engine::MoveNodesCommand>(
            &project, std::vector<engine::NodeMove>{{{make_id(1), make_id(12), 1}, {make_id(2), QUuid(), 0}}}));
        QCOMPARE(dest->ids(), (QList<QUuid>{make_id(14), make_id(30)}));
        QCOMPARE(source->ids(), QList<QUuid>{make_id(13)});
        QCOMPARE(emitted.count() + received.count(), 2);
        manager.undo();
        QCOMPARE(snapshot(project), before);
        QCOMPARE(back_emitted.count(), 1);
        QCOMPARE(back_emitted.at(0).at(1).value<model::Children *>(), source);

        // A move to where the node stands changes nothing: the undone move
        // stays redoable and nobody hears of it.
        QSignalSpy changed(&manager, &engine::CommandManager::changed);
        manager.execute(std::make_unique<engine::MoveNodesCommand>(
            &project, std::vector<engine::NodeMove>{{{make_id(1), QUuid(), 0}, {make_id(1), make_id(12), 0}}}));
        QCOMPARE(snapshot(project), before);
        QVERIFY(manager.can_redo() && manager.index() == 0);
        QCOMPARE(changed.count(), 0);
    }

    // An edit that changes nothing records nothing, announces nothing and
    // keeps an undone step redoable; its changing twin is one undoable step.
    void edits_that_change_nothing_record_nothing_data()
    {
        QTest::addColumn<MakeCommand>("make");
        QTest::addColumn<bool>("changes");
        using namespace engine;
        const auto node_key = [](model::Project *p) { return p->find_node(make_id(10))->properties().keys().first(); };
        const auto row = [](const char *name, bool changes, MakeCommand make) {
            QTest::newRow(name) << make << changes;
        };
        row("enable an enabled rack", false,
            [](model::Project *p) { return std::make_unique<SetRackEnabledCommand>(p, make_id(1), true); });
        row("disable an enabled rack", true,
            [](model::Project *p) { return std::make_unique<SetRackEnabledCommand>(p, make_id(1), false); });
        row("disable a disabled rack", false, [](model::Project *p) {
            p->find_rack(make_id(1))->set_enabled(false);
            return std::make_unique<SetRackEnabledCommand>(p, make_id(1), false);
        });
        row("enable a disabled rack", true, [](model::Project *p) {
            p->find_rack(make_id(1))->set_enabled(false);
            return std::make_unique<SetRackEnabledCommand>(p, make_id(1), true);
        });
        row("enable a missing rack", false,
            [](model::Project *p) { return std::make_unique<SetRackEnabledCommand>(p, make_id(99), false); });
        row("rename to its own name", false,
            [](model::Project *p) { return std::make_unique<RenameRackCommand>(p, make_id(1), "A"); });
        row("rename", true, [](model::Project *p) { return std::make_unique<RenameRackCommand>(p, make_id(1), "a"); });
        row("property to its own value", false, [=](model::Project *p) {
            return std::make_unique<SetNodePropertyCommand>(p, make_id(10), node_key(p), model::Value::integer(10));
        });
        row("property to another value", true, [=](model::Project *p) {
            return std::make_unique<SetNodePropertyCommand>(p, make_id(10), node_key(p), model::Value::integer(11));
        });
        row("none to a missing key", false, [](model::Project *p) {
            return std::make_unique<SetNodePropertyCommand>(p, make_id(10), "t.missing", model::Value());
        });
        row("property of a missing node", false, [](model::Project *p) {
            return std::make_unique<SetNodePropertyCommand>(p, make_id(99), "t.x", model::Value::integer(1));
        });
        row("remove a missing rack", false,
            [](model::Project *p) { return std::make_unique<RemoveRackCommand>(p, make_id(99)); });
        row("add a rack past the end", false,
            [](model::Project *p) { return std::make_unique<AddRackCommand>(p, 4, "D"); });
        row("add a rack at the end", true,
            [](model::Project *p) { return std::make_unique<AddRackCommand>(p, 3, "D"); });
        row("remove a node past the end", false, [](model::Project *p) {
            return std::make_unique<RemoveNodeCommand>(p, NodePlace{make_id(1), QUuid(), 2});
        });
        row("remove the last node", true, [](model::Project *p) {
            return std::make_unique<RemoveNodeCommand>(p, NodePlace{make_id(1), QUuid(), 1});
        });
        row("add a node past the end", false, [](model::Project *p) {
            return std::make_unique<AddNodeCommand>(p, NodePlace{make_id(1), QUuid(), 3}, "t");
        });
        row("add a node at the end", true, [](model::Project *p) {
            return std::make_unique<AddNodeCommand>(p, NodePlace{make_id(1), QUuid(), 2}, "t");
        });
        row("add a node into a missing rack", false, [](model::Project *p) {
            return std::make_unique<AddNodeCommand>(p, NodePlace{make_id(99), QUuid(), 0}, "t");
        });
        row("racks moved out of range", false, [](model::Project *p) {
            return std::make_unique<MoveRacksCommand>(p, std::vector<Move>{{3, 0}, {0, 4}});
        });
        row("a rack moved to the end", true, [](model::Project *p) {
            return std::make_unique<MoveRacksCommand>(p, std::vector<Move>{{0, 3}});
        });
        row("a node into its own subtree", false, [](model::Project *p) {
            return std::make_unique<MoveNodesCommand>(
                p, std::vector<NodeMove>{{{make_id(1), QUuid(), 0}, {make_id(1), make_id(12), 0}}});
        });
        row("a node moved past the end", false, [](model::Project *p) {
            return std::make_unique<MoveNodesCommand>(
                p, std::vector<NodeMove>{{{make_id(1), QUuid(), 2}, {make_id(2), QUuid(), 0}}});
        });
    }

    void edits_that_change_nothing_record_nothing()
    {
        QFETCH(MakeCommand, make);
        QFETCH(bool, changes);
        model::Project project;
        fill(project);
        engine::CommandManager manager;
        manager.execute(std::make_unique<engine::RenameRackCommand>(&project, make_id(3), "undone"));
        manager.undo();
        engine::CommandPtr command = make(&project);
        const Snapshot before = snapshot(project);
        QSignalSpy changed(&manager, &engine::CommandManager::changed);
        manager.execute(std::move(command));
        QCOMPARE(changed.count(), changes ? 1 : 0);
        QCOMPARE(manager.can_redo(), !changes);
        QCOMPARE(manager.can_undo(), changes);
        QCOMPARE(snapshot(project) == before, !changes);
        manager.undo();
        QCOMPARE(snapshot(project), before);
    }

    // Random edits, undos and redos; after each step the state equals the one
    // recorded for its history index, and undoing and redoing everything
    // lands on the first and last states.
    void random_edit_sequences_data()
    {
        QTest::addColumn<quint32>("seed");
        QTest::newRow("seed 1") << 1u;
        QTest::newRow("seed 7") << 7u;
        QTest::newRow("seed 2024") << 2024u;
    }

    void random_edit_sequences()
    {
        QFETCH(quint32, seed);
        model::Project project;
        fill(project);
        engine::CommandManager manager;
        QRandomGenerator random(seed);
        QList<Snapshot> states{snapshot(project)}; // states[i]: i history entries applied
        for (int i = 0; i < 500; ++i) {
            const int roll = int(random.bounded(14u));
            bool merged = false;
            if (roll == 12 && manager.can_undo()) {
                manager.undo();
            } else if (roll == 13 && manager.can_redo()) {
                manager.redo();
            } else if (roll < 12) {
                const std::size_t index = manager.index();
                if (roll == 0) {
                    manager.execute(std::make_unique<Batch>([&] {
                        for (int k = 0; k < 2; ++k)
                            random_edit(project, manager, random, int(random.bounded(10u)));
                    }));
                } else {
                    merged = random_edit(project, manager, random, roll - 1);
                }
                // An edit drops the redo tail (one that found no target keeps it).
                states.resize(qsizetype(manager.history_size()) + 1);
                if (manager.index() > index || merged)
                    states[qsizetype(manager.index())] = snapshot(project);
            }
            QVERIFY2(snapshot(project) == states.at(qsizetype(manager.index())), qPrintable(QString::number(i)));
        }
        QVERIFY(manager.history_size() > 150);
        while (manager.can_redo())
            manager.redo();
        QCOMPARE(snapshot(project), states.last());
        while (manager.can_undo())
            manager.undo();
        QCOMPARE(snapshot(project), states.first());
        while (manager.can_redo())
            manager.redo();
        QCOMPARE(snapshot(project), states.last());
    }
};

QTEST_GUILESS_MAIN(tst_Commands)
#include "tst_commands.moc"
