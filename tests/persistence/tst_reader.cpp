#include "fixtures.h"
#include "tests/test_files.h"

#include <QFile>

using namespace fixtures;

Q_DECLARE_METATYPE(corv::engine::ReadResult)

namespace {

enum class Root { Project, Racks, Nodes, Preferences };

// A one-line project document around body.
QByteArray project_doc(const QString &body)
{
    return QStringLiteral("<project version=\"1\">%1</project>").arg(body).toUtf8();
}

ReadResult read_as(Root root, const QByteArray &doc)
{
    model::Project project;
    model::PropertyCollection collection;
    QList<QUuid> top;
    switch (root) {
    case Root::Project:
        return engine::read_project(doc, project);
    case Root::Racks:
        return engine::read_racks_clipboard(doc, project);
    case Root::Nodes:
        return engine::read_nodes_clipboard(doc, project, engine::IdTranslator(), &top);
    case Root::Preferences:
        return engine::read_preferences(doc, collection);
    }
    return ReadResult::Ok;
}

} // namespace

Q_DECLARE_METATYPE(Root)

class tst_Reader : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { fail_on_warnings(); }

    // One warning with the line number, and the matching result.
    void failures_data()
    {
        QTest::addColumn<Root>("root");
        QTest::addColumn<QByteArray>("document");
        QTest::addColumn<ReadResult>("result");
        QTest::addColumn<QString>("log");
        const auto row = [](const char *name, Root root, const QByteArray &doc, ReadResult result, int line,
                            const QString &message) {
            const char *stage = result == ReadResult::ParseError ? "parsing" : "loading";
            QTest::newRow(name) << root << doc << result
                                << QStringLiteral("(while %1 project; line %2) %3").arg(stage).arg(line).arg(message);
        };
        const auto too = [](const char *what, const char *bound, int version) {
            return QStringLiteral("project format is too %1: expected a version at %2 1, got version %3")
                .arg(what, bound).arg(version);
        };
        const auto P = Root::Project;
        const auto parse = ReadResult::ParseError;
        const QString r1 = id_text(1), n1 = id_text(10);
        const QString rack = QStringLiteral("<rack id=\"%1\" name=\"r\">").arg(r1);
        const QString node = QStringLiteral("<node id=\"%1\" component=\"a.b\">").arg(n1);
        const QString bad_attribute = QStringLiteral("attribute <%1> has an invalid value");
        row("empty document", P, "", parse, 1, "can't find root tag");
        row("declaration only", P, "<?xml version=\"1.0\"?>\n", parse, 2, "can't find root tag");
        row("not xml", P, "hello", parse, 1, "Start tag expected.");
        row("wrong root", P, "<?xml version=\"1.0\"?>\n<racks/>", parse, 2, "expected root <project>, got <racks>");
        row("racks reader, project root", Root::Racks, project_doc({}), parse, 1,
            "expected root <racks>, got <project>");
        row("version missing", P, "<project/>", parse, 1, "attribute <project version> is missing");
        row("version not a number", P, "<project version=\"one\"/>", parse, 1, bad_attribute.arg("project version"));
        row("version beyond 32 bits", P, "<project version=\"4294967297\"/>", parse, 1,
            bad_attribute.arg("project version"));
        row("version 0", P, "<project version=\"0\"/>", ReadResult::TooOld, 1, too("old", "or above", 0));
        row("version -7", P, "<project version=\"-7\"/>", ReadResult::TooOld, 1, too("old", "or above", -7));
        row("version 2", P, "<project\n version=\"2\"/>", ReadResult::TooNew, 2, too("new", "or below", 2));
        row("preferences version 2", Root::Preferences, "<preferences version=\"2\"/>", ReadResult::TooNew, 1,
            too("new", "or below", 2));
        row("stray element in project", P, "<project version=\"1\">\n\n<racks/></project>", parse, 3,
            "expected <rack> or <node>, got <racks>");
        row("rack without id", P, project_doc("<rack name=\"r\"/>"), parse, 1, bad_attribute.arg("rack id"));
        row("rack with a bad id", P, project_doc("<rack id=\"12\" name=\"r\"/>"), parse, 1,
            bad_attribute.arg("rack id"));
        row("rack with the null id", P, project_doc("<rack id=\"" + QUuid().toString() + "\" name=\"r\"/>"), parse,
            1, bad_attribute.arg("rack id"));
        row("rack without name", P, project_doc("<rack id=\"" + r1 + "\"/>"), parse, 1,
            "attribute <rack name> is missing");
        row("prop in a rack", P, project_doc(rack + "\n<prop key=\"k\"/></rack>"), parse, 2,
            "expected <node>, got <prop>");
        row("bad reference", P, project_doc(rack + "<node>\nnot-an-id</node></rack>"), parse, 2,
            "<node> has an invalid body");
        row("element in a reference", P, project_doc(rack + "<node><b/></node></rack>"), parse, 1, "unexpected text");
        row("node without id", P, project_doc("<node component=\"a.b\"/>"), parse, 1, bad_attribute.arg("node id"));
        row("node without component", P, project_doc("<node id=\"" + n1 + "\"/>"), parse, 1,
            "attribute <node component> is missing");
        row("rack in a node", P, project_doc(node + "<rack/></node>"), parse, 1, "expected <prop> or <node>, got <rack>");
        row("prop without key", P, project_doc(node + "<prop type=\"int\">1</prop></node>"), parse, 1,
            "attribute <prop key> is missing");
        row("prop of unknown type", P, project_doc(node + "<prop key=\"k\" type=\"double\">1</prop></node>"), parse,
            1, bad_attribute.arg("prop type"));
        row("element in a prop", P, project_doc(node + "<prop key=\"k\" type=\"string\"><b/></prop></node>"), parse,
            1, "unexpected text");
        row("bool True", P, project_doc(node + "<prop key=\"k\" type=\"bool\">True</prop></node>"), parse, 1,
            "<prop> has an invalid body");
        row("text between racks", P,
            project_doc(QStringLiteral("<rack id=\"%1\" name=\"a\"/>\nhello\n<rack id=\"%2\" name=\"b\"/>")
                            .arg(r1, id_text(2))),
            parse, 3, "unexpected text");
        row("text in a node", P, project_doc(node + "\nstray</node>"), parse, 2, "unexpected text");
        row("text after the root", P, "<project version=\"1\"/>\nhello", parse, 2, "unexpected text");
        row("element after the root", P, "<project version=\"1\"/><project/>", parse, 1, "unexpected text");
        row("premature end", P, "<project version=\"1\">\n<rack", parse, 2, "Premature end of document.");
        row("tag mismatch", P, "<project version=\"1\">\n</rack>", parse, 2, "Opening and ending tag mismatch.");
        row("duplicate node", P,
            project_doc(QStringLiteral("<node id=\"%1\" component=\"a\"/>\n\n<node id=\"{%1}\" component=\"b\">\n</node>")
                            .arg(n1)),
            ReadResult::LoadError, 3, "a node with the id {" + n1 + "} already exists");
        row("duplicate rack", P,
            project_doc(QStringLiteral("<rack id=\"%1\" name=\"a\"/>\n<rack id=\"%1\" name=\"b\">\n</rack>").arg(r1)),
            ReadResult::LoadError, 2, "a rack with the id {" + r1 + "} already exists");
        row("stray element in nodes", Root::Nodes, "<nodes><rack/></nodes>", parse, 1,
            "expected <definitions> or <node>, got <rack>");
        row("prop in definitions", Root::Nodes, "<nodes><definitions><prop/></definitions></nodes>", parse, 1,
            "expected <node>, got <prop>");
        row("node in preferences", Root::Preferences, "<preferences version=\"1\"><node/></preferences>", parse, 1,
            "expected <prop>, got <node>");
    }

    void failures()
    {
        QFETCH(Root, root);
        QFETCH(QByteArray, document);
        QFETCH(ReadResult, result);
        QFETCH(QString, log);
        QTest::ignoreMessage(QtWarningMsg, qUtf8Printable(log));
        QCOMPARE(read_as(root, document), result);
    }

    // What a `prop` of a type and text reads as, every type name among them;
    // the plain text forms are the writer test's round trip.
    void values_data()
    {
        QTest::addColumn<QString>("type");
        QTest::addColumn<QString>("text");
        QTest::addColumn<model::Value>("value");
        const QUuid rack = make_id(1);
        QTest::newRow("none ignores its text") << QString() << "anything" << model::Value();
        QTest::newRow("none ignores its elements") << QString() << "a<b>c<d/></b>" << model::Value();
        QTest::newRow("empty type is none") << "" << "" << model::Value();
        QTest::newRow("string") << "string" << "a &lt;b&gt; &amp; \u00e9" << model::Value::string("a <b> & \xc3\xa9");
        QTest::newRow("empty string") << "string" << "" << model::Value::string("");
        QTest::newRow("int") << "int" << "-2147483648" << model::Value::integer(INT_MIN);
        QTest::newRow("bool") << "bool" << "true" << model::Value::boolean(true);
        QTest::newRow("float exponent") << "float" << "-1.5e-3" << model::Value::floating(-0.0015);
        QTest::newRow("vec2") << "vec2" << "1,-2.5" << model::Value::vec2({1, -2.5});
        QTest::newRow("vec3") << "vec3" << "1,2,3e2" << model::Value::vec3({1, 2, 300});
        QTest::newRow("color") << "color" << "0.5,0,1" << model::Value::color({0.5, 0, 1});
        QTest::newRow("buffer skips strangers") << "buffer" << "aGVs\n bG8=!" << model::Value::buffer("hello");
        QTest::newRow("rack in braces") << "rack" << "{" + id_text(1) + "}" << model::Value::rack(rack);
        QTest::newRow("rack garbage is null") << "rack" << "garbage" << model::Value::rack(QUuid());
    }

    void values()
    {
        QFETCH(QString, type);
        QFETCH(QString, text);
        QFETCH(model::Value, value);
        const QString type_attr = type.isNull() ? QString() : QStringLiteral(" type=\"%1\"").arg(type);
        model::Project project;
        QCOMPARE(engine::read_project(project_doc(QStringLiteral("<node id=\"%1\" component=\"a.b\"><prop key=\"k\"%2>"
                                                                 "%3</prop></node>")
                                                      .arg(id_text(10), type_attr, text)),
                                      project),
                 ReadResult::Ok);
        const model::Value read = project.find_node(make_id(10))->properties().find("a.b.k")->value();
        QCOMPARE(read.type(), value.type());
        QVERIFY(read == value);
    }

    // Ids are read with or without braces; references may run ahead of their
    // definitions or name none; "disabled" disables whatever its value.
    void ids_references_and_racks()
    {
        const QString missing = id_text(99);
        const QByteArray doc =
            project_doc(QStringLiteral("<rack id=\"{%1}\" name=\"r\"><node>{%2}</node><node> %3 </node></rack>"
                                       "<rack id=\"%5\" name=\"\" disabled=\"false\"/><rack id=\"%6\" name=\"e\" "
                                       "disabled=\"\"/>"
                                       "<node id=\"%2\" component=\"x\"><node>%4</node><node>%7</node></node>"
                                       "<node id=\"{%3}\" component=\"x\"/><node id=\"%4\" component=\"x\"/>")
                            .arg(id_text(1), id_text(10), id_text(11).toUpper(), id_text(12), id_text(2), id_text(3),
                                 missing));
        model::Project project;
        QCOMPARE(engine::read_project(doc, project), ReadResult::Ok);
        QCOMPARE(project.profile()->ids(), (QList<QUuid>{make_id(1), make_id(2), make_id(3)}));
        QCOMPARE(project.find_rack(make_id(1))->top_level()->ids(), (QList<QUuid>{make_id(10), make_id(11)}));
        QCOMPARE(project.find_node(make_id(10))->children()->ids(), (QList<QUuid>{make_id(12), make_id(99)}));
        QCOMPARE(project.nodes().size(), 3);
        QVERIFY(project.find_rack(make_id(1))->is_enabled());
        QVERIFY(!project.find_rack(make_id(2))->is_enabled());
        QVERIFY(project.find_rack(make_id(3))->is_enabled());
        QCOMPARE(project.find_rack(make_id(2))->name(), QString());
    }

    // Node keys get the node's prefix unless absolute; the last value of a
    // key wins but the first position stays. Preferences keys are whole.
    void keys()
    {
        const QByteArray doc = project_doc(QStringLiteral("<node id=\"%1\" component=\"io.x.delay\">"
                                                          "<prop key=\"ms\" type=\"int\">5</prop>"
                                                          "<prop key=\"!shared\" type=\"int\">6</prop>"
                                                          "<prop key=\"\" type=\"int\">7</prop>"
                                                          "<prop key=\"ms\" type=\"int\">8</prop></node>")
                                               .arg(id_text(10)));
        model::Project project;
        QCOMPARE(engine::read_project(doc, project), ReadResult::Ok);
        const model::PropertyCollection &props = project.find_node(make_id(10))->properties();
        QCOMPARE(props.keys(), (QStringList{"io.x.delay.ms", "!shared", "io.x.delay."}));
        QCOMPARE(props.find("io.x.delay.ms")->value().to_int(), 8);
        QCOMPARE(props.find("io.x.delay.")->value().to_int(), 7);

        const QByteArray prefs_doc = "<?xml version=\"1.0\"?><preferences version=\"1\">"
                                     "<prop key=\"language\" type=\"int\">2</prop><prop key=\"!x\" type=\"bool\">true"
                                     "</prop><prop key=\"empty\"/></preferences>";
        model::PropertyCollection prefs;
        int hooked = 0;
        const auto hook = [&](model::PropertyCollection &c) { hooked += &c == &prefs; };
        QCOMPARE(engine::read_preferences(prefs_doc, prefs, hook), ReadResult::Ok);
        QCOMPARE(prefs.keys(), (QStringList{"language", "!x", "empty"}));
        QVERIFY(prefs.find("empty")->value().is_none());
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^\\(while parsing project; line 1\\) ")));
        QCOMPARE(engine::read_preferences("<preferences version=\"1\"><prop/></preferences>", prefs, hook),
                 ReadResult::ParseError);
        QCOMPARE(hooked, 1); // only on success
    }

    void nodes_clipboard_lists_top_nodes()
    {
        const QByteArray doc = QStringLiteral("<nodes><definitions><node id=\"%1\" component=\"x\"><node>%2</node></node>"
                                              "<node id=\"%2\" component=\"y\"/><node id=\"%3\" component=\"z\"/>"
                                              "</definitions><node>%3</node><node>%1</node></nodes>")
                                   .arg(id_text(1), id_text(2), id_text(3))
                                   .toUtf8();
        model::Project project;
        QList<QUuid> top;
        QCOMPARE(engine::read_nodes_clipboard(doc, project, engine::IdTranslator(), &top), ReadResult::Ok);
        QCOMPARE(top, (QList<QUuid>{make_id(3), make_id(1)}));
        QCOMPARE(project.nodes().size(), 3);
        QCOMPARE(project.profile()->count(), std::size_t(0));
    }

    // Read without a warning; every reference names a definition, and the
    // file is in the writer's form.
    void demo_project_reads_cleanly()
    {
        const QByteArray bytes = corv::test::read_file(QStringLiteral(CORV_TEST_SOURCE_DIR) + QStringLiteral("/examples/demo.corv"));
        model::Project project;
        QCOMPARE(engine::read_project(bytes, project), ReadResult::Ok);
        QVERIFY(project.profile()->count() >= 2);
        QList<QUuid> references;
        for (const model::Rack *rack : project.racks())
            references += rack->top_level()->ids();
        for (const model::Node *node : project.nodes()) {
            QVERIFY(node->impl_id().startsWith(QStringLiteral("io.marrowfield.")));
            references += node->children()->ids();
        }
        for (const QUuid &id : references)
            QVERIFY(project.find_node(id));
        QCOMPARE(QString::fromUtf8(engine::write_project(project).document), QString::fromUtf8(bytes));
    }
};

QTEST_GUILESS_MAIN(tst_Reader)
#include "tst_reader.moc"
