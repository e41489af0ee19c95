#include "model/project.h"
#include "persistence/command_manager.h"
#include "persistence/model_commands.h"
#include "persistence/property_commands.h"
#include "persistence/writer.h"

#include <QLoggingCategory>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>

#include <functional>

using namespace corv;
using engine::NodePlace;

namespace {

QUuid make_id(int n)
{
    return QUuid::fromString(QStringLiteral("00000000-0000-0000-0000-%1").arg(n, 12, 10, QLatin1Char('0')));
}

std::unique_ptr<model::Node> make_node(const QString &impl_id, int mark)
{
    auto node = std::make_unique<model::Node>();
    node->set_impl_id(impl_id);
    const model::StoreView view(&node->properties(), node->key_prefix());
    view.set("mark", model::Value::integer(mark));
    view.set("!label", model::Value::string(QByteArray::number(mark)));
    return node;
}

model::Children *add(model::Project &project, int n, model::Children *into)
{
    auto node = make_node("t", n);
    model::Children *children = node->children();
    project.add_node(make_id(n), std::move(node));
    into->insert(into->count(), make_id(n));
    return children;
}

model::Children *add_rack(model::Project &project, int n, const QString &name)
{
    auto rack = std::make_unique<model::Rack>();
    rack->set_name(name);
    model::Children *top = rack->top_level();
    project.add_rack(make_id(n), std::move(rack));
    project.profile()->insert(project.profile()->count(), make_id(n));
    return top;
}

// Racks 1 "A": 10 (11, 12 (13, 14)), 20; 2 "B": 30 (31); 3 "C": empty.
void fill(model::Project &project)
{
    model::Children *a = add_rack(project, 1, "A");
    model::Children *c10 = add(project, 10, a);
    add(project, 11, c10);
    model::Children *c12 = add(project, 12, c10);
    add(project, 13, c12);
    add(project, 14, c12);
    add(project, 20, a);
    model::Children *b = add_rack(project, 2, "B");
    add(project, 31, add(project, 30, b));
    add_rack(project, 3, "C");
}

QStringList rack_names(const model::Project &project)
{
    QStringList names;
    for (const QUuid &id : project.profile()->ids())
        names.append(project.find_rack(id)->name());
    return names;
}

// The state compared through the writer's bytes, plus the table sizes, so
// that a node left behind in the table without a place shows too.
struct Snapshot
{
    QByteArray bytes;
    qsizetype nodes = 0;
    qsizetype racks = 0;
    bool operator==(const Snapshot &) const = default;
};

Snapshot snapshot(const model::Project &project)
{
    return {engine::write_project(project), project.nodes().size(), project.racks().size()};
}

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

// Random edits on a project through a command manager.
class RandomEditor
{
public:
    RandomEditor(model::Project &project, engine::CommandManager &manager, quint32 seed)
        : m_project(project), m_manager(manager), m_random(seed)
    {
    }

    // One random edit. merged is set when it was a merged property write,
    // which may change the state without a new history entry.
    void edit(bool &merged)
    {
        merged = false;
        const int kind = bounded(12);
        if (kind == 10) {
            m_manager.execute(std::make_unique<Batch>([this] {
                bool unused = false;
                for (int i = 0; i < 2; ++i)
                    plain_edit(bounded(10), unused);
            }));
            return;
        }
        plain_edit(kind, merged);
    }

private:
    int bounded(int n) { return int(m_random.bounded(quint32(n))); }
    std::size_t bounded(std::size_t n) { return std::size_t(m_random.bounded(quint32(n))); }

    QUuid random_rack()
    {
        const model::Profile *profile = m_project.profile();
        return profile->count() ? profile->at(bounded(profile->count())) : QUuid();
    }

    // Every children list of the racks' trees, as a place without index.
    QList<NodePlace> lists()
    {
        QList<NodePlace> places;
        for (const QUuid &rack : m_project.profile()->ids()) {
            places.append({rack, QUuid(), 0});
            for (const QUuid &node : engine::subtree_ids(m_project, m_project.find_rack(rack)->top_level()->ids()))
                places.append({rack, node, 0});
        }
        return places;
    }

    model::Children *list(const NodePlace &place) { return m_project.children_of(place.rack, place.parent); }

    // A place that holds a node, or nothing.
    std::optional<NodePlace> occupied()
    {
        QList<NodePlace> places;
        for (const NodePlace &p : lists())
            if (list(p)->count())
                places.append(p);
        if (places.isEmpty())
            return std::nullopt;
        NodePlace place = places.at(bounded(int(places.size())));
        place.index = bounded(list(place)->count());
        return place;
    }

    model::Value random_value()
    {
        switch (bounded(5)) {
        case 0:
            return model::Value::integer(bounded(1000) - 500);
        case 1:
            return model::Value::string(QByteArray::number(bounded(100)) + " words");
        case 2:
            return model::Value::floating(bounded(10000) / 7.0);
        case 3:
            return model::Value::boolean(bounded(2));
        default:
            return model::Value::vec2({double(bounded(10)), -double(bounded(10))});
        }
    }

    void plain_edit(int kind, bool &merged)
    {
        model::Project *project = &m_project;
        const std::size_t racks = m_project.profile()->count();
        switch (kind) {
        case 0:
            m_manager.execute(std::make_unique<engine::AddRackCommand>(project, bounded(racks + 1),
                                                                       QStringLiteral("rack %1").arg(bounded(100))));
            break;
        case 1:
            m_manager.execute(std::make_unique<engine::RemoveRackCommand>(project, random_rack()));
            break;
        case 2: {
            std::vector<engine::Move> moves;
            for (int i = bounded(3); i >= 0 && racks; --i)
                moves.push_back({bounded(racks), bounded(racks + 1)});
            m_manager.execute(std::make_unique<engine::MoveRacksCommand>(project, std::move(moves)));
            break;
        }
        case 3:
            m_manager.execute(std::make_unique<engine::RenameRackCommand>(project, random_rack(),
                                                                          QStringLiteral("renamed %1").arg(bounded(5))));
            break;
        case 4:
            m_manager.execute(std::make_unique<engine::SetRackEnabledCommand>(project, random_rack(), bounded(2)));
            break;
        case 5: {
            const QList<NodePlace> places = lists();
            if (places.isEmpty())
                break;
            NodePlace place = places.at(bounded(int(places.size())));
            place.index = bounded(list(place)->count() + 1);
            m_manager.execute(std::make_unique<engine::AddNodeCommand>(project, place, QUuid::createUuid(),
                                                                       make_node("u", bounded(100)), engine::NodeTable()));
            break;
        }
        case 6:
            if (const auto place = occupied())
                m_manager.execute(std::make_unique<engine::RemoveNodeCommand>(project, *place));
            break;
        case 7:
            if (const auto place = occupied()) {
                NodePlace to = *place;
                to.index = bounded(list(to)->count() + 1);
                m_manager.execute(std::make_unique<engine::MoveNodesCommand>(
                    project, std::vector<engine::NodeMove>{{*place, to}, {to, *place}, {*place, to}}));
            }
            break;
        case 8:
            if (const auto place = occupied()) {
                // Any list, its own subtree included (that move is refused).
                const QList<NodePlace> places = lists();
                NodePlace to = places.at(bounded(int(places.size())));
                to.index = bounded(list(to)->count() + 1);
                m_manager.execute(
                    std::make_unique<engine::MoveNodesCommand>(project, std::vector<engine::NodeMove>{{*place, to}}));
            }
            break;
        case 9:
        case 11:
            if (const auto place = occupied()) {
                // Properties that exist: undoing the first write of a key
                // would leave it listed, holding None.
                const QUuid id = list(*place)->at(place->index);
                const QStringList keys = m_project.find_node(id)->properties().keys();
                auto command = std::make_unique<engine::SetNodePropertyCommand>(
                    project, id, keys.at(bounded(int(keys.size()))), random_value());
                if (kind == 11 && !m_manager.is_recording()) {
                    merged = true;
                    m_manager.execute_merged(std::move(command));
                } else {
                    m_manager.execute(std::move(command));
                }
            }
            break;
        }
    }

    model::Project &m_project;
    engine::CommandManager &m_manager;
    QRandomGenerator m_random;
};

} // namespace

class tst_ModelCommands : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QLoggingCategory::setFilterRules(QStringLiteral("corv.persistence.debug=false")); }
    void init() { QTest::failOnWarning(QRegularExpression(QStringLiteral(".*"))); }

    void removed_subtree_is_restored_whole();
    void removed_rack_takes_its_nodes_along();
    void rack_moves_data();
    void rack_moves();
    void node_move_between_lists_is_an_external_move();
    void node_cannot_move_into_its_own_subtree();
    void random_edit_sequences_data();
    void random_edit_sequences();
};

void tst_ModelCommands::removed_subtree_is_restored_whole()
{
    model::Project project;
    fill(project);
    const Snapshot before = snapshot(project);
    const model::Node *node12 = project.find_node(make_id(12));
    const model::Node *node13 = project.find_node(make_id(13));

    engine::CommandManager manager;
    manager.execute(std::make_unique<engine::RemoveNodeCommand>(&project, NodePlace{make_id(1), make_id(10), 1}));
    for (int n : {12, 13, 14})
        QVERIFY(!project.find_node(make_id(n)));
    QCOMPARE(project.find_node(make_id(10))->children()->ids(), QList<QUuid>{make_id(11)});

    QSignalSpy added(&project, &model::Project::node_added);
    manager.undo();
    QCOMPARE(snapshot(project), before);
    // The very node objects come back, each announced once.
    QCOMPARE(project.find_node(make_id(12)), node12);
    QCOMPARE(project.find_node(make_id(13)), node13);
    QCOMPARE(added.count(), 3);
    QCOMPARE(node13->properties().find("t.mark")->value().to_int(), 13);

    manager.redo();
    QVERIFY(!project.find_node(make_id(14)));
    manager.undo();
    QCOMPARE(snapshot(project), before);
}

void tst_ModelCommands::removed_rack_takes_its_nodes_along()
{
    model::Project project;
    fill(project);
    const Snapshot before = snapshot(project);
    engine::CommandManager manager;
    manager.execute(std::make_unique<engine::RemoveRackCommand>(&project, make_id(1)));
    QCOMPARE(rack_names(project), (QStringList{"B", "C"}));
    QCOMPARE(project.nodes().size(), 2);
    manager.undo();
    QCOMPARE(snapshot(project), before);
    QCOMPARE(rack_names(project), (QStringList{"A", "B", "C"}));
}

void tst_ModelCommands::rack_moves_data()
{
    QTest::addColumn<QList<int>>("moves"); // pairs from, to
    QTest::addColumn<QStringList>("order");

    QTest::newRow("0 to 2 leaves it at 1") << QList<int>{0, 2} << QStringList{"B", "A", "C", "D"};
    QTest::newRow("2 to 0") << QList<int>{2, 0} << QStringList{"C", "A", "B", "D"};
    QTest::newRow("to the end") << QList<int>{0, 4} << QStringList{"B", "C", "D", "A"};
    QTest::newRow("onto itself") << QList<int>{1, 1} << QStringList{"A", "B", "C", "D"};
    QTest::newRow("in front of the next") << QList<int>{1, 2} << QStringList{"A", "B", "C", "D"};
    QTest::newRow("two moves") << QList<int>{0, 2, 3, 0} << QStringList{"D", "B", "A", "C"};
    QTest::newRow("three moves") << QList<int>{0, 4, 0, 4, 2, 0} << QStringList{"A", "C", "D", "B"};
    QTest::newRow("out of range skipped") << QList<int>{7, 0, 3, 1} << QStringList{"A", "D", "B", "C"};
}

void tst_ModelCommands::rack_moves()
{
    QFETCH(QList<int>, moves);
    QFETCH(QStringList, order);
    model::Project project;
    for (int i = 0; i < 4; ++i)
        add_rack(project, i + 1, QString(QChar(u'A' + i)));
    std::vector<engine::Move> list;
    for (qsizetype i = 0; i + 1 < moves.size(); i += 2)
        list.push_back({std::size_t(moves[i]), std::size_t(moves[i + 1])});

    engine::CommandManager manager;
    manager.execute(std::make_unique<engine::MoveRacksCommand>(&project, list));
    QCOMPARE(rack_names(project), order);
    manager.undo();
    QCOMPARE(rack_names(project), (QStringList{"A", "B", "C", "D"}));
    manager.redo();
    QCOMPARE(rack_names(project), order);
}

void tst_ModelCommands::node_move_between_lists_is_an_external_move()
{
    model::Project project;
    fill(project);
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
    QCOMPARE(emitted.count(), 1);
    QCOMPARE(received.count(), 1);

    manager.undo();
    QCOMPARE(source->ids(), (QList<QUuid>{make_id(13), make_id(14)}));
    QCOMPARE(dest->ids(), QList<QUuid>{make_id(30)});
    QCOMPARE(back_emitted.count(), 1);
    QCOMPARE(back_emitted.at(0).at(1).value<model::Children *>(), source);
}

void tst_ModelCommands::node_cannot_move_into_its_own_subtree()
{
    model::Project project;
    fill(project);
    const Snapshot before = snapshot(project);
    engine::CommandManager manager;
    manager.execute(std::make_unique<engine::MoveNodesCommand>(
        &project, std::vector<engine::NodeMove>{{{make_id(1), QUuid(), 0}, {make_id(1), make_id(12), 0}}}));
    QCOMPARE(snapshot(project), before);
    QVERIFY(!manager.can_undo());
}

void tst_ModelCommands::random_edit_sequences_data()
{
    QTest::addColumn<quint32>("seed");
    QTest::addColumn<int>("edits");
    QTest::newRow("seed 1") << 1u << 500;
    QTest::newRow("seed 7") << 7u << 500;
    QTest::newRow("seed 2024") << 2024u << 500;
}

void tst_ModelCommands::random_edit_sequences()
{
    QFETCH(quint32, seed);
    QFETCH(int, edits);

    model::Project project;
    fill(project);
    engine::CommandManager manager;
    RandomEditor editor(project, manager, seed);
    QRandomGenerator steps(seed ^ 0x5eedu);

    // states[i] is the state with i history entries applied.
    QList<Snapshot> states{snapshot(project)};
    for (int i = 0; i < edits; ++i) {
        const int roll = int(steps.bounded(10u));
        if (roll == 0 && manager.can_undo()) {
            manager.undo();
        } else if (roll == 1 && manager.can_redo()) {
            manager.redo();
        } else {
            const std::size_t index = manager.index();
            bool merged = false;
            editor.edit(merged);
            // An edit drops the redo tail (an edit that found no target
            // executes nothing and keeps it).
            states.resize(qsizetype(manager.history_size()) + 1);
            if (manager.index() > index || merged)
                states[qsizetype(manager.index())] = snapshot(project);
        }
        QVERIFY2(snapshot(project) == states.at(qsizetype(manager.index())), qPrintable(QString::number(i)));
    }
    QVERIFY(manager.history_size() > std::size_t(edits / 3));

    while (manager.can_redo())
        manager.redo();
    const Snapshot end = snapshot(project);
    QCOMPARE(end, states.last());
    while (manager.can_undo())
        manager.undo();
    QCOMPARE(snapshot(project), states.first());
    while (manager.can_redo())
        manager.redo();
    QCOMPARE(snapshot(project), end);
}

QTEST_GUILESS_MAIN(tst_ModelCommands)
#include "tst_model_commands.moc"
