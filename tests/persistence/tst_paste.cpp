#include "model/project.h"
#include "persistence/command_manager.h"
#include "persistence/paste.h"
#include "persistence/reader.h"
#include "persistence/writer.h"

#include <QRegularExpression>
#include <QSet>
#include <QTest>

using namespace corv;
using corv::engine::ReadResult;

namespace {

QUuid make_id(int n)
{
    return QUuid::fromString(QStringLiteral("00000000-0000-0000-0000-%1").arg(n, 12, 10, QLatin1Char('0')));
}

// Rack 1 "source": node 10 (children 11, 12 (child 13)), node 20.
// Every node holds "!origin" = its number, so a copy can be traced.
void fill(model::Project &project)
{
    auto rack = std::make_unique<model::Rack>();
    rack->set_name("source");
    model::Children *top = rack->top_level();
    project.add_rack(make_id(1), std::move(rack));
    project.profile()->insert(0, make_id(1));
    const auto add = [&](int n, model::Children *into) {
        auto node = std::make_unique<model::Node>();
        node->set_impl_id("t");
        model::StoreView(&node->properties(), "t.").set("!origin", model::Value::integer(n));
        model::Children *children = node->children();
        project.add_node(make_id(n), std::move(node));
        into->insert(into->count(), make_id(n));
        return children;
    };
    model::Children *c10 = add(10, top);
    add(11, c10);
    model::Children *c12 = add(12, c10);
    add(13, c12);
    add(20, top);
}

int origin(const model::Project &project, const QUuid &id)
{
    return project.find_node(id)->properties().find("!origin")->value().to_int();
}

} // namespace

class tst_Paste : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { QTest::failOnWarning(QRegularExpression(QStringLiteral(".*"))); }

    void translator_replaces_only_colliding_definitions();
    void pasted_nodes_get_fresh_ids_consistently();
    void pasted_racks_get_fresh_ids_when_they_collide();
    void paste_of_an_unreadable_document();
};

void tst_Paste::translator_replaces_only_colliding_definitions()
{
    model::Project target;
    fill(target);
    // 10 and 13 collide, 77 does not; the reference-only id 12 is no definition.
    const QByteArray doc = QStringLiteral("<nodes><definitions>"
                                          "<node id=\"{%1}\" component=\"t\"><node>%2</node></node>"
                                          "<node id=\"%3\" component=\"t\"/><node id=\"%4\" component=\"t\"/>"
                                          "</definitions><node>%1</node></nodes>")
                               .arg(make_id(10).toString(QUuid::WithoutBraces), make_id(12).toString(QUuid::WithoutBraces),
                                    make_id(13).toString(QUuid::WithoutBraces), make_id(77).toString(QUuid::WithoutBraces))
                               .toUtf8();
    const engine::IdTranslator translator = engine::IdTranslator::for_paste(doc, target);
    QCOMPARE(QSet<QUuid>(translator.node_table().keyBegin(), translator.node_table().keyEnd()),
             (QSet<QUuid>{make_id(10), make_id(13)}));
    QVERIFY(translator.rack_table().isEmpty());
    QCOMPARE(translator.node(make_id(12)), make_id(12));
    QCOMPARE(translator.node(make_id(77)), make_id(77));
    const QUuid fresh10 = translator.node(make_id(10));
    const QUuid fresh13 = translator.node(make_id(13));
    QVERIFY(!fresh10.isNull() && fresh10 != fresh13);
    QVERIFY(!target.find_node(fresh10) && !target.find_node(fresh13));
    QVERIFY(fresh10 != make_id(77) && fresh13 != make_id(77));
}

void tst_Paste::pasted_nodes_get_fresh_ids_consistently()
{
    model::Project target;
    fill(target);
    const QByteArray before = engine::write_project(target);
    const QByteArray clip = engine::write_nodes_clipboard(target, {make_id(10), make_id(20)});

    ReadResult result = ReadResult::ParseError;
    // Paste into node 12, behind its child 13.
    engine::CommandPtr paste = engine::paste_nodes_command(clip, target, {make_id(1), make_id(12), 1}, &result);
    QCOMPARE(result, ReadResult::Ok);
    QVERIFY(paste);
    QCOMPARE(engine::write_project(target), before); // reading touched nothing

    engine::CommandManager manager;
    manager.execute(std::move(paste));
    QCOMPARE(target.nodes().size(), 10);

    const QList<QUuid> under12 = target.find_node(make_id(12))->children()->ids();
    QCOMPARE(under12.size(), 3);
    QCOMPARE(under12.at(0), make_id(13));
    const QUuid copy10 = under12.at(1);
    const QUuid copy20 = under12.at(2);
    QCOMPARE(origin(target, copy10), 10);
    QCOMPARE(origin(target, copy20), 20);

    // Every pasted node has an id of its own, and references follow it.
    const QList<QUuid> kids = target.find_node(copy10)->children()->ids();
    QCOMPARE(kids.size(), 2);
    QCOMPARE(origin(target, kids.at(0)), 11);
    QCOMPARE(origin(target, kids.at(1)), 12);
    const QList<QUuid> grandkids = target.find_node(kids.at(1))->children()->ids();
    QCOMPARE(grandkids.size(), 1);
    QCOMPARE(origin(target, grandkids.at(0)), 13);
    const QSet<QUuid> copies{copy10, copy20, kids.at(0), kids.at(1), grandkids.at(0)};
    QCOMPARE(copies.size(), 5);
    for (int n : {10, 11, 12, 13, 20})
        QVERIFY(!copies.contains(make_id(n)));

    // The originals are untouched, and undo takes the whole paste back.
    QCOMPARE(target.find_node(make_id(10))->children()->ids(), (QList<QUuid>{make_id(11), make_id(12)}));
    manager.undo();
    QCOMPARE(engine::write_project(target), before);
    QCOMPARE(target.nodes().size(), 5);
    manager.redo();
    QCOMPARE(target.find_node(make_id(12))->children()->ids(), under12);
}

void tst_Paste::pasted_racks_get_fresh_ids_when_they_collide()
{
    model::Project target;
    fill(target);
    const QByteArray clip = engine::write_racks_clipboard(target, {make_id(1)});

    // Into an empty project nothing collides: ids stay as copied.
    model::Project empty;
    engine::CommandManager manager;
    manager.execute(engine::paste_racks_command(clip, empty, 0));
    QCOMPARE(empty.profile()->ids(), QList<QUuid>{make_id(1)});
    QVERIFY(empty.find_node(make_id(13)));

    // Into the source project everything collides.
    manager.execute(engine::paste_racks_command(clip, target, 0));
    QCOMPARE(target.profile()->count(), std::size_t(2));
    const QUuid copy = target.profile()->at(0);
    QVERIFY(copy != make_id(1));
    QCOMPARE(target.profile()->at(1), make_id(1));
    QCOMPARE(target.find_rack(copy)->name(), QStringLiteral("source"));
    const QList<QUuid> top = target.find_rack(copy)->top_level()->ids();
    QCOMPARE(top.size(), 2);
    QCOMPARE(origin(target, top.at(0)), 10);
    QCOMPARE(origin(target, top.at(1)), 20);
    QVERIFY(!top.contains(make_id(10)) && !top.contains(make_id(20)));
    QCOMPARE(target.nodes().size(), 10);

    // The copy's tree is its own: no pasted node refers to an original.
    const QList<QUuid> kids = target.find_node(top.at(0))->children()->ids();
    QCOMPARE(origin(target, kids.at(1)), 12);
    QVERIFY(kids.at(1) != make_id(12));
    QCOMPARE(origin(target, target.find_node(kids.at(1))->children()->at(0)), 13);
}

void tst_Paste::paste_of_an_unreadable_document()
{
    model::Project target;
    fill(target);
    ReadResult result = ReadResult::Ok;
    QTest::ignoreMessage(QtWarningMsg, "(while parsing project; line 1) expected root <nodes>, got <racks>");
    QVERIFY(!engine::paste_nodes_command("<racks/>", target, {make_id(1), QUuid(), 0}, &result));
    QCOMPARE(result, ReadResult::ParseError);
    QCOMPARE(target.nodes().size(), 5);
}

QTEST_GUILESS_MAIN(tst_Paste)
#include "tst_paste.moc"
