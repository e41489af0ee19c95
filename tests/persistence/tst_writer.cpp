// The writer's documents, read back; pastes of what it copies.

#include "fixtures.h"
#include "persistence/command_manager.h"
#include "persistence/paste.h"
#include "persistence/value_text.h"
#include "tests/test_files.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QXmlStreamReader>

#include <limits>

using namespace fixtures;

namespace {

// The ids of the `node` definitions of a document, in document order.
QList<QUuid> definition_order(const QByteArray &doc)
{
    QList<QUuid> ids;
    QXmlStreamReader xml(doc);
    while (!xml.atEnd()) {
        if (xml.readNext() == QXmlStreamReader::StartElement && xml.name() == QLatin1StringView("node")
            && xml.attributes().hasAttribute(QLatin1StringView("id")))
            ids.append(QUuid::fromString(xml.attributes().value(QLatin1StringView("id"))));
    }
    return ids;
}

// The `prop` elements of a document, as written.
QStringList written_props(const QByteArray &doc)
{
    QStringList props;
    static const QRegularExpression prop(QStringLiteral("<prop [^>]*?(/>|>[^<]*</prop>)"));
    for (auto it = prop.globalMatch(QString::fromUtf8(doc)); it.hasNext();)
        props.append(it.next().captured(0));
    return props;
}

// The origins of ids and all their descendants, checking that none of them is
// an original node (whose id equals make_id(origin)).
QList<int> copied_origins(const model::Project &project, const QList<QUuid> &ids)
{
    QList<int> origins;
    const QList<QUuid> all = engine::subtree_ids(project, ids);
    for (const QUuid &id : all)
        origins << (id == make_id(origin(project, id)) ? -1 : origin(project, id));
    std::sort(origins.begin(), origins.end());
    return origins;
}

} // namespace

class tst_Writer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { fail_on_warnings(); }

    void value_text_data()
    {
        QTest::addColumn<model::Value>("value");
        QTest::addColumn<QString>("text");
        const double nan = std::numeric_limits<double>::quiet_NaN();
        QTest::newRow("six digits") << model::Value::floating(0.1234567) << "0.123457";
        QTest::newRow("a million") << model::Value::floating(1e6) << "1e+06";
        QTest::newRow("integral float") << model::Value::floating(100) << "100";
        QTest::newRow("small") << model::Value::floating(0.00001234) << "1.234e-05";
        QTest::newRow("nan") << model::Value::floating(nan) << "nan";
        QTest::newRow("-inf") << model::Value::floating(-std::numeric_limits<double>::infinity()) << "-inf";
        QTest::newRow("vec2") << model::Value::vec2({1.0 / 3, -2}) << "0.333333,-2";
        QTest::newRow("vec3") << model::Value::vec3({1, 2, 1234567}) << "1,2,1.23457e+06";
        QTest::newRow("color") << model::Value::color({0.5, 0, 1}) << "0.5,0,1";
        QTest::newRow("int") << model::Value::integer(-17) << "-17";
        QTest::newRow("bool") << model::Value::boolean(false) << "false";
        QTest::newRow("buffer") << model::Value::buffer("hello") << "aGVsbG8=";
        QTest::newRow("rack") << model::Value::rack(make_id(7)) << id_text(7);
        QTest::newRow("string") << model::Value::string("\xc3\xa9t\xc3\xa9") << "\u00e9t\u00e9";
        QTest::newRow("none") << model::Value() << QString();
    }

    // The text reads back as the same type (floats only to six digits).
    void value_text()
    {
        QFETCH(model::Value, value);
        QFETCH(QString, text);
        QCOMPARE(engine::value_text(value), text);
        const std::optional<model::Value> back = engine::parse_value(value.type(), text);
        QVERIFY(back);
        QCOMPARE(back->type(), value.type());
        QCOMPARE(engine::value_text(*back), text);
    }

    void key_shortening_data()
    {
        QTest::addColumn<QString>("full_key");
        QTest::addColumn<QString>("written"); // for a node of type "io.x"
        QTest::newRow("own namespace") << "io.x.ms" << "ms";
        QTest::newRow("absolute") << "!ms" << "!ms";
        QTest::newRow("empty local key") << "io.x." << "";
        QTest::newRow("longer type id") << "io.xy.ms" << "io.xy.ms";
        QTest::newRow("the bare type id") << "io.x" << "io.x";
        QTest::newRow("case matters") << "IO.X.ms" << "IO.X.ms";
        QTest::newRow("foreign key") << "other.ms" << "other.ms";
    }

    void key_shortening()
    {
        QFETCH(QString, full_key);
        QFETCH(QString, written);
        model::Project project;
        model::Node *node = add_node(project, 2, "io.x", add_rack(project, 1, "r")->top_level());
        node->properties().append_key(full_key);
        node->properties().find_or_create(full_key)->set(model::Value::integer(1));
        QCOMPARE(written_props(engine::write_project(project).document),
                 QStringList{QStringLiteral("<prop key=\"%1\" type=\"int\">1</prop>").arg(written)});
    }

    void write_read_write_gives_the_same_bytes()
    {
        model::Project project;
        model::Rack *a = add_rack(project, 1, "Ampersand & <angle> \"quoted\"\ttab\nline");
        model::Rack *b = add_rack(project, 2, QString::fromUtf8("\xe6\x97\xa5\xe6\x9c\xac"));
        b->set_enabled(false);
        model::Node *n1 = add_node(project, 10, "io.marrowfield.custom", a->top_level());
        set(n1, "!scope", model::Value::string("key: value\r\nother: x <&> ]]> \xf0\x9f\x98\x80"));
        set(n1, "plain", model::Value::string("  padded  "));
        set(n1, "", model::Value::integer(3));
        set(n1, "f", model::Value::floating(2.718281828));
        set(n1, "v2", model::Value::vec2({-0.0, 1e-300}));
        set(n1, "c", model::Value::color({0.1, 0.2, 0.3}));
        set(n1, "buf", model::Value::buffer(QByteArray("\x00\xff\r\n", 4)));
        set(n1, "rack", model::Value::rack(make_id(2)));
        set(n1, "none", model::Value());
        set(n1, "nan", model::Value::floating(std::numeric_limits<double>::quiet_NaN()));
        model::Node *n2 = add_node(project, 11, "com.example.unknown", n1->children());
        set(n2, "!b", model::Value::boolean(true));
        add_node(project, 12, "", n2->children());
        add_node(project, 13, "io.marrowfield.display", b->top_level());

        const QByteArray first = engine::write_project(project).document;
        model::Project again;
        QCOMPARE(engine::read_project(first, again), ReadResult::Ok);
        QCOMPARE(QString::fromUtf8(engine::write_project(again).document), QString::fromUtf8(first));
        // Values other than floats come back exactly, the carriage return too;
        // floats to six digits.
        const model::PropertyCollection &read = again.find_node(make_id(10))->properties();
        for (const char *key : {"!scope", "io.marrowfield.custom.buf"})
            QVERIFY(read.find(key)->value() == n1->properties().find(key)->value());
        QCOMPARE(read.find("io.marrowfield.custom.f")->value().to_float(), 2.71828);
        QCOMPARE(again.find_rack(make_id(1))->name(), a->name());
        QCOMPARE(again.find_rack(make_id(2))->is_enabled(), false);
    }

    // Text XML can carry comes back byte for byte; what it can't is left
    // out with one warning naming the node or rack and the key, and the
    // document still reads back.
    void texts_xml_cannot_carry_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("rack_name");
        QTest::addColumn<QByteArray>("read_back");
        QTest::addColumn<QString>("warning");
        const QString none;
        const QString value_lost = QStringLiteral("^Node \\{%1\\}, key \"k\": .*XML can't carry").arg(id_text(10));
        QTest::newRow("leading BOM, U+FFFD, tab")
            << QByteArray("\xef\xbb\xbf" "a\xef\xbf\xbd\tb") << "r" << QByteArray("\xef\xbb\xbf" "a\xef\xbf\xbd\tb") << none;
        QTest::newRow("NUL, 0x01, 0x0B") << QByteArray("a\0b\x01" "c\x0b", 6) << "r" << QByteArray("abc") << value_lost;
        QTest::newRow("U+FFFE") << QByteArray("a\xef\xbf\xbe") << "r" << QByteArray("a") << value_lost;
        QTest::newRow("not UTF-8") << QByteArray("a\xff") << "r" << QByteArray("a\xef\xbf\xbd") << value_lost;
        QTest::newRow("lone surrogate in a rack name")
            << QByteArray("x") << QString(QChar(0xd800)) + QStringLiteral("n") << QByteArray("x")
            << QStringLiteral("^Rack \\{%1\\}, attribute \"name\": ").arg(id_text(1));
    }

    void texts_xml_cannot_carry()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, rack_name);
        QFETCH(QByteArray, read_back);
        QFETCH(QString, warning);
        model::Project project;
        set(add_node(project, 10, "io.x", add_rack(project, 1, rack_name)->top_level()), "k",
            model::Value::string(bytes));
        if (!warning.isEmpty())
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(warning));
        const engine::WriteResult written = engine::write_project(project);
        QVERIFY(written.ok());
        model::Project again;
        QCOMPARE(engine::read_project(written.document, again), ReadResult::Ok);
        QCOMPARE(again.find_node(make_id(10))->properties().find("io.x.k")->value().bytes(), read_back);
        QCOMPARE(again.find_rack(make_id(1))->name().endsWith(u'n'), rack_name.endsWith(u'n'));
    }

    void unknown_node_types_are_written_back_unchanged()
    {
        const QByteArray doc =
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<project version=\"1\">\n"
            "    <rack id=\"00000000-0000-0000-0000-000000000001\" name=\"r\">\n"
            "        <node>00000000-0000-0000-0000-000000000002</node>\n"
            "    </rack>\n"
            "    <node id=\"00000000-0000-0000-0000-000000000002\" component=\"com.example.plugin.gizmo\">\n"
            "        <prop key=\"speed\" type=\"float\">1.5</prop>\n"
            "        <prop key=\"!mode\" type=\"int\">2</prop>\n"
            "        <prop key=\"blob\" type=\"buffer\">AQID</prop>\n"
            "        <prop key=\"unset\"/>\n"
            "        <prop key=\"target\" type=\"rack\">00000000-0000-0000-0000-000000000001</prop>\n"
            "        <node>00000000-0000-0000-0000-000000000003</node>\n"
            "        <node>00000000-0000-0000-0000-000000000009</node>\n"
            "    </node>\n"
            "    <node id=\"00000000-0000-0000-0000-000000000003\" component=\"com.example.other\">\n"
            "        <prop key=\"tint\" type=\"color\">1,0.5,0</prop>\n"
            "    </node>\n"
            "</project>\n";
        model::Project project;
        QCOMPARE(engine::read_project(doc, project), ReadResult::Ok);
        QCOMPARE(QString::fromUtf8(engine::write_project(project).document), QString::fromUtf8(doc));
    }

    // Definitions breadth-first over all racks, each once, only when reached.
    void nodes_are_written_breadth_first_once_and_only_when_reached()
    {
        model::Project project;
        fill(project);
        project.find_node(make_id(30))->children()->insert(1, make_id(12)); // a second reference
        add_node(project, 99, "orphan", nullptr);
        const QByteArray doc = engine::write_project(project).document;
        const QList<int> order{10, 20, 30, 11, 12, 31, 13, 14};
        QList<QUuid> expected;
        for (int n : order)
            expected << make_id(n);
        QCOMPARE(definition_order(doc), expected);
        model::Project again;
        QCOMPARE(engine::read_project(doc, again), ReadResult::Ok);
        QCOMPARE(again.find_node(make_id(30))->children()->ids(), (QList<QUuid>{make_id(31), make_id(12)}));
        QVERIFY(!again.find_node(make_id(99)));
    }

    // An engine-side collection's keys come first and win over the node's own.
    void secondary_collection_is_written_first()
    {
        model::Project project;
        model::Node *node = add_node(project, 2, "io.x", add_rack(project, 1, "r")->top_level());
        set(node, "a", model::Value::integer(1));
        set(node, "b", model::Value::integer(2));
        set(node, "!c", model::Value::integer(3));
        model::PropertyCollection engine_side;
        const model::StoreView view(&engine_side, QStringLiteral("io.x."));
        view.set("!c", model::Value::integer(30));
        view.set("d", model::Value::integer(40));
        view.set("a", model::Value::integer(10));
        const QByteArray doc = engine::write_project(project, [&](const QUuid &id) {
            return id == make_id(2) ? &engine_side : nullptr;
        }).document;
        QCOMPARE(written_props(doc), (QStringList{"<prop key=\"!c\" type=\"int\">30</prop>",
                                                  "<prop key=\"d\" type=\"int\">40</prop>",
                                                  "<prop key=\"a\" type=\"int\">10</prop>",
                                                  "<prop key=\"b\" type=\"int\">2</prop>"}));
    }

    void clipboard_documents()
    {
        model::Project project;
        model::Children *top = add_rack(project, 1, "one")->top_level();
        add_rack(project, 2, "two");
        model::Node *n = add_node(project, 10, "t", top);
        set(n, "k", model::Value::string("v"));
        add_node(project, 11, "t", n->children());
        add_node(project, 12, "t", top);

        const QByteArray racks = engine::write_racks_clipboard(project, {make_id(1)}).document;
        QVERIFY(racks.startsWith("<?xml version=\"1.0\" encoding=\"UTF-8\"?><racks><rack "));
        QVERIFY(!racks.trimmed().contains('\n'));
        model::Project pasted;
        QCOMPARE(engine::read_racks_clipboard(racks, pasted), ReadResult::Ok);
        QCOMPARE(pasted.profile()->ids(), QList<QUuid>{make_id(1)});
        QCOMPARE(pasted.nodes().size(), 3);

        QCOMPARE(QString::fromUtf8(engine::write_nodes_clipboard(project, {make_id(12), make_id(10)}).document),
                 QStringLiteral("<?xml version=\"1.0\" encoding=\"UTF-8\"?><nodes><definitions>"
                                "<node id=\"%1\" component=\"t\"/><node id=\"%2\" component=\"t\"><prop key=\"k\" "
                                "type=\"string\">v</prop><node>%3</node></node><node id=\"%3\" component=\"t\"/>"
                                "</definitions><node>%1</node><node>%2</node></nodes>\n")
                     .arg(id_text(12), id_text(10), id_text(11)));
    }

    void preferences_file()
    {
        QTemporaryDir dir;
        const QString path = dir.path() + QStringLiteral("/plugins/io.example/prefs.xml");
        model::PropertyCollection primary;
        model::PropertyCollection secondary;
        model::StoreView(&primary, QString()).set("language", model::Value::integer(1));
        model::StoreView(&primary, QString()).set("!abs", model::Value::boolean(true));
        model::StoreView(&secondary, QString()).set("language", model::Value::integer(9));
        model::StoreView(&secondary, QString()).set("extra", model::Value::string("x"));
        QVERIFY(engine::write_preferences_file(path, primary, &secondary));
        const QByteArray bytes = corv::test::read_file(path);
        QCOMPARE(bytes, engine::write_preferences(primary, &secondary));
        QVERIFY(bytes.startsWith("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<preferences version=\"1\">\n"));
        model::PropertyCollection back;
        QCOMPARE(engine::read_preferences(bytes, back), ReadResult::Ok);
        QCOMPARE(back.keys(), (QStringList{"language", "!abs", "extra"}));
        QCOMPARE(back.find("language")->value().to_int(), 1);

        // A folder in the way, which no file can replace.
        const QString blocked = dir.path() + QStringLiteral("/prefs.xml");
        QVERIFY(QDir().mkpath(blocked));
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^Can't write preferences to %1: .+$")
                                                                  .arg(QRegularExpression::escape(blocked))));
        QVERIFY(!engine::write_preferences_file(blocked, primary));

        // A file that opens but takes nothing (a full disk) fails with the reason.
        QString error;
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^Can't write preferences to /dev/full: ")));
        QVERIFY(!engine::write_preferences_file(QStringLiteral("/dev/full"), primary, nullptr, &error));
        QVERIFY(!error.isEmpty());
    }

    // Every pasted node gets a fresh id, references follow it, and undo takes
    // the whole paste back; reading alone changes nothing.
    void pasted_nodes_get_fresh_ids_consistently()
    {
        model::Project target;
        fill(target);
        const Snapshot before = snapshot(target);
        const QByteArray clip = engine::write_nodes_clipboard(target, {make_id(10), make_id(20)}).document;
        ReadResult result = ReadResult::ParseError;
        engine::CommandPtr paste = engine::paste_nodes_command(clip, target, {make_id(1), make_id(12), 1}, &result);
        QCOMPARE(result, ReadResult::Ok);
        QVERIFY(paste);
        QCOMPARE(snapshot(target), before);

        engine::CommandManager manager;
        manager.execute(std::move(paste));
        const QList<QUuid> under12 = target.find_node(make_id(12))->children()->ids();
        QCOMPARE(under12.size(), 4);
        QCOMPARE(under12.at(0), make_id(13));
        QCOMPARE(under12.at(3), make_id(14));
        QCOMPARE(copied_origins(target, under12.mid(1, 2)), (QList<int>{10, 11, 12, 13, 14, 20}));
        const model::Children *copy10 = target.find_node(under12.at(1))->children();
        QCOMPARE(origin(target, copy10->at(1)), 12);
        QCOMPARE(copied_origins(target, target.find_node(copy10->at(1))->children()->ids()), (QList<int>{13, 14}));
        QCOMPARE(target.nodes().size(), 14);
        manager.undo();
        QCOMPARE(snapshot(target), before);
        manager.redo();
        QCOMPARE(target.find_node(make_id(12))->children()->ids(), under12);

        QTest::ignoreMessage(QtWarningMsg, "(while parsing project; line 1) expected root <nodes>, got <racks>");
        QVERIFY(!engine::paste_nodes_command("<racks/>", target, {make_id(1), QUuid(), 0}, &result));
        QCOMPARE(result, ReadResult::ParseError);
    }

    // Into an empty project nothing collides; into the source everything does.
    void pasted_racks_get_fresh_ids_when_they_collide()
    {
        model::Project target;
        fill(target);
        const QByteArray clip = engine::write_racks_clipboard(target, {make_id(1)}).document;
        model::Project empty;
        engine::CommandManager manager;
        manager.execute(engine::paste_racks_command(clip, empty, 0));
        QCOMPARE(empty.profile()->ids(), QList<QUuid>{make_id(1)});
        QCOMPARE(empty.nodes().size(), 6);
        QVERIFY(empty.find_node(make_id(13)));

        manager.execute(engine::paste_racks_command(clip, target, 0));
        QCOMPARE(target.profile()->count(), std::size_t(4));
        const QUuid copy = target.profile()->at(0);
        QVERIFY(copy != make_id(1) && target.profile()->at(1) == make_id(1));
        QCOMPARE(target.find_rack(copy)->name(), QStringLiteral("A"));
        const QList<QUuid> top = target.find_rack(copy)->top_level()->ids();
        QCOMPARE(copied_origins(target, top), (QList<int>{10, 11, 12, 13, 14, 20}));
        QCOMPARE(origin(target, top.at(0)), 10);
        QCOMPARE(target.nodes().size(), 14);
    }
};

QTEST_GUILESS_MAIN(tst_Writer)
#include "tst_writer.moc"
