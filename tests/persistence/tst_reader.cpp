#include "model/project.h"
#include "persistence/reader.h"
#include "persistence/writer.h"

#include <QFile>
#include <QRegularExpression>
#include <QTest>

#include <cmath>

using namespace corv;
using corv::engine::ReadResult;

Q_DECLARE_METATYPE(corv::engine::ReadResult)

namespace {

const QString kR1 = QStringLiteral("10000000-0000-0000-0000-000000000001");
const QString kR2 = QStringLiteral("10000000-0000-0000-0000-000000000002");
const QString kN1 = QStringLiteral("20000000-0000-0000-0000-000000000001");
const QString kN2 = QStringLiteral("20000000-0000-0000-0000-000000000002");
const QString kN3 = QStringLiteral("20000000-0000-0000-0000-000000000003");

QUuid uuid(const QString &text)
{
    return QUuid::fromString(text);
}

// A one-line project document around body.
QByteArray project_doc(const QString &body)
{
    return QStringLiteral("<project version=\"1\">%1</project>").arg(body).toUtf8();
}

// The value a `prop` of type and text reads as, inside a node of type a.b.
model::Value read_prop(const QString &type, const QString &text, ReadResult *result = nullptr)
{
    const QString type_attr = type.isNull() ? QString() : QStringLiteral(" type=\"%1\"").arg(type);
    const QByteArray doc =
        project_doc(QStringLiteral("<node id=\"%1\" component=\"a.b\"><prop key=\"k\"%2>%3</prop></node>")
                        .arg(kN1, type_attr, text));
    model::Project project;
    const ReadResult r = engine::read_project(doc, project);
    if (result)
        *result = r;
    const model::Node *node = project.find_node(uuid(kN1));
    const model::Property *p = node ? node->properties().find(QStringLiteral("a.b.k")) : nullptr;
    return p ? p->value() : model::Value();
}

enum class Root { Project, Racks, Nodes, Preferences };

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
    void init() { QTest::failOnWarning(QRegularExpression(QStringLiteral(".*"))); }

    void failures_data();
    void failures();
    void values_data();
    void values();
    void disabled_attribute_data();
    void disabled_attribute();
    void ids_with_and_without_braces();
    void references_may_run_ahead_of_definitions();
    void keys_get_the_node_prefix();
    void nodes_clipboard_lists_top_nodes();
    void preferences_keys_are_whole_and_hook_runs_on_success();
    void demo_project_reads_cleanly();
};

void tst_Reader::failures_data()
{
    QTest::addColumn<Root>("root");
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<ReadResult>("result");
    QTest::addColumn<QString>("log");

    const auto parse = [](int line, const QString &message) {
        return QStringLiteral("(while parsing project; line %1) %2").arg(line).arg(message);
    };
    const auto load = [](int line, const QString &message) {
        return QStringLiteral("(while loading project; line %1) %2").arg(line).arg(message);
    };
    const QString rack_open = QStringLiteral("<rack id=\"%1\" name=\"r\">").arg(kR1);
    const QString node_open = QStringLiteral("<node id=\"%1\" component=\"a.b\">").arg(kN1);

    QTest::newRow("empty document") << Root::Project << QByteArray() << ReadResult::ParseError
                                    << parse(1, "can't find root tag");
    QTest::newRow("declaration only") << Root::Project << QByteArray("<?xml version=\"1.0\"?>\n")
                                      << ReadResult::ParseError << parse(2, "can't find root tag");
    QTest::newRow("not xml") << Root::Project << QByteArray("hello") << ReadResult::ParseError
                             << parse(1, "Start tag expected.");
    QTest::newRow("wrong root") << Root::Project << QByteArray("<?xml version=\"1.0\"?>\n<racks/>")
                                << ReadResult::ParseError << parse(2, "expected root <project>, got <racks>");
    QTest::newRow("racks reader, project root") << Root::Racks << project_doc(QString()) << ReadResult::ParseError
                                                << parse(1, "expected root <racks>, got <project>");
    QTest::newRow("version missing") << Root::Project << QByteArray("<project/>") << ReadResult::ParseError
                                     << parse(1, "attribute <project version> is missing");
    QTest::newRow("version not a number") << Root::Project << QByteArray("<project version=\"one\"/>")
                                          << ReadResult::ParseError
                                          << parse(1, "attribute <project version> has an invalid value");
    QTest::newRow("version beyond 32 bits") << Root::Project << QByteArray("<project version=\"4294967297\"/>")
                                            << ReadResult::ParseError
                                            << parse(1, "attribute <project version> has an invalid value");
    QTest::newRow("version 0") << Root::Project << QByteArray("<project version=\"0\"/>") << ReadResult::TooOld
                               << load(1, "project format is too old: expected a version at or above 1, got version 0");
    QTest::newRow("version -7") << Root::Project << QByteArray("<project version=\"-7\"/>") << ReadResult::TooOld
                                << load(1, "project format is too old: expected a version at or above 1, got version -7");
    QTest::newRow("version 2") << Root::Project << QByteArray("<project\n version=\"2\"/>") << ReadResult::TooNew
                               << load(2, "project format is too new: expected a version at or below 1, got version 2");
    QTest::newRow("preferences version 2") << Root::Preferences << QByteArray("<preferences version=\"2\"/>")
                                           << ReadResult::TooNew
                                           << load(1, "project format is too new: expected a version at or below 1, got version 2");
    QTest::newRow("stray element in project")
        << Root::Project << QByteArray("<project version=\"1\">\n\n<racks/></project>") << ReadResult::ParseError
        << parse(3, "expected <rack> or <node>, got <racks>");
    QTest::newRow("rack without id") << Root::Project << project_doc("<rack name=\"r\"/>") << ReadResult::ParseError
                                     << parse(1, "attribute <rack id> has an invalid value");
    QTest::newRow("rack with a bad id") << Root::Project << project_doc("<rack id=\"12\" name=\"r\"/>")
                                        << ReadResult::ParseError << parse(1, "attribute <rack id> has an invalid value");
    QTest::newRow("rack with the null id")
        << Root::Project << project_doc("<rack id=\"00000000-0000-0000-0000-000000000000\" name=\"r\"/>")
        << ReadResult::ParseError << parse(1, "attribute <rack id> has an invalid value");
    QTest::newRow("rack without name") << Root::Project << project_doc(QStringLiteral("<rack id=\"%1\"/>").arg(kR1))
                                       << ReadResult::ParseError << parse(1, "attribute <rack name> is missing");
    QTest::newRow("prop in a rack") << Root::Project << project_doc(rack_open + "\n<prop key=\"k\"/></rack>")
                                    << ReadResult::ParseError << parse(2, "expected <node>, got <prop>");
    QTest::newRow("bad reference") << Root::Project << project_doc(rack_open + "<node>\nnot-an-id</node></rack>")
                                   << ReadResult::ParseError << parse(2, "<node> has an invalid body");
    QTest::newRow("element in a reference")
        << Root::Project << project_doc(rack_open + "<node><b/></node></rack>") << ReadResult::ParseError
        << parse(1, "unexpected text");
    QTest::newRow("node without id") << Root::Project << project_doc("<node component=\"a.b\"/>")
                                     << ReadResult::ParseError << parse(1, "attribute <node id> has an invalid value");
    QTest::newRow("node without component") << Root::Project << project_doc(QStringLiteral("<node id=\"%1\"/>").arg(kN1))
                                            << ReadResult::ParseError
                                            << parse(1, "attribute <node component> is missing");
    QTest::newRow("rack in a node") << Root::Project << project_doc(node_open + "<rack/></node>")
                                    << ReadResult::ParseError << parse(1, "expected <prop> or <node>, got <rack>");
    QTest::newRow("prop without key") << Root::Project << project_doc(node_open + "<prop type=\"int\">1</prop></node>")
                                      << ReadResult::ParseError << parse(1, "attribute <prop key> is missing");
    QTest::newRow("prop of unknown type")
        << Root::Project << project_doc(node_open + "<prop key=\"k\" type=\"double\">1</prop></node>")
        << ReadResult::ParseError << parse(1, "attribute <prop type> has an invalid value");
    QTest::newRow("element in a prop")
        << Root::Project << project_doc(node_open + "<prop key=\"k\" type=\"string\"><b/></prop></node>")
        << ReadResult::ParseError << parse(1, "unexpected text");
    QTest::newRow("bool True") << Root::Project
                               << project_doc(node_open + "<prop key=\"k\" type=\"bool\">True</prop></node>")
                               << ReadResult::ParseError << parse(1, "<prop> has an invalid body");
    QTest::newRow("text between racks")
        << Root::Project
        << project_doc(QStringLiteral("<rack id=\"%1\" name=\"a\"/>\nhello\n<rack id=\"%2\" name=\"b\"/>").arg(kR1, kR2))
        << ReadResult::ParseError << parse(3, "unexpected text");
    QTest::newRow("text in a node") << Root::Project << project_doc(node_open + "\nstray</node>")
                                    << ReadResult::ParseError << parse(2, "unexpected text");
    QTest::newRow("text after the root") << Root::Project << QByteArray("<project version=\"1\"/>\nhello")
                                         << ReadResult::ParseError << parse(2, "unexpected text");
    QTest::newRow("element after the root") << Root::Project << QByteArray("<project version=\"1\"/><project/>")
                                            << ReadResult::ParseError << parse(1, "unexpected text");
    QTest::newRow("premature end") << Root::Project << QByteArray("<project version=\"1\">\n<rack")
                                   << ReadResult::ParseError << parse(2, "Premature end of document.");
    QTest::newRow("tag mismatch") << Root::Project << QByteArray("<project version=\"1\">\n</rack>")
                                  << ReadResult::ParseError << parse(2, "Opening and ending tag mismatch.");
    QTest::newRow("duplicate node")
        << Root::Project
        << project_doc(QStringLiteral("<node id=\"%1\" component=\"a\"/>\n\n<node id=\"{%1}\" component=\"b\"/>").arg(kN1))
        << ReadResult::LoadError
        << load(3, QStringLiteral("a node with the id {%1} already exists").arg(kN1));
    QTest::newRow("duplicate rack")
        << Root::Project
        << project_doc(QStringLiteral("<rack id=\"%1\" name=\"a\"/>\n<rack id=\"%1\" name=\"b\">\n</rack>").arg(kR1))
        << ReadResult::LoadError
        << load(3, QStringLiteral("a rack with the id {%1} already exists").arg(kR1));
    QTest::newRow("stray element in nodes") << Root::Nodes << QByteArray("<nodes><rack/></nodes>")
                                            << ReadResult::ParseError
                                            << parse(1, "expected <definitions> or <node>, got <rack>");
    QTest::newRow("prop in definitions") << Root::Nodes << QByteArray("<nodes><definitions><prop/></definitions></nodes>")
                                         << ReadResult::ParseError << parse(1, "expected <node>, got <prop>");
    QTest::newRow("node in preferences") << Root::Preferences << QByteArray("<preferences version=\"1\"><node/></preferences>")
                                         << ReadResult::ParseError << parse(1, "expected <prop>, got <node>");
}

void tst_Reader::failures()
{
    QFETCH(Root, root);
    QFETCH(QByteArray, document);
    QFETCH(ReadResult, result);
    QFETCH(QString, log);

    QTest::ignoreMessage(QtWarningMsg, qPrintable(log));
    QCOMPARE(read_as(root, document), result);
}

void tst_Reader::values_data()
{
    QTest::addColumn<QString>("type");
    QTest::addColumn<QString>("text");
    QTest::addColumn<model::Value>("value");

    const QUuid rack = uuid(kR1);
    QTest::newRow("none ignores its text") << QString() << "anything" << model::Value();
    QTest::newRow("empty type is none") << "" << "" << model::Value();
    QTest::newRow("string") << "string" << "a &lt;b&gt; &amp; \u00e9" << model::Value::string("a <b> & \xc3\xa9");
    QTest::newRow("empty string") << "string" << "" << model::Value::string("");
    QTest::newRow("bool true") << "bool" << "true" << model::Value::boolean(true);
    QTest::newRow("bool false") << "bool" << "false" << model::Value::boolean(false);
    QTest::newRow("int") << "int" << "-2147483648" << model::Value::integer(-2147483647 - 1);
    QTest::newRow("float") << "float" << "3.14159265" << model::Value::floating(3.14159265);
    QTest::newRow("float exponent") << "float" << "-1.5e-3" << model::Value::floating(-0.0015);
    QTest::newRow("vec2") << "vec2" << "1,-2.5" << model::Value::vec2({1, -2.5});
    QTest::newRow("vec3") << "vec3" << "1,2,3e2" << model::Value::vec3({1, 2, 300});
    QTest::newRow("color") << "color" << "0.5,0,1" << model::Value::color({0.5, 0, 1});
    QTest::newRow("buffer") << "buffer" << "AAEC/w==" << model::Value::buffer(QByteArray("\x00\x01\x02\xff", 4));
    QTest::newRow("buffer skips strangers") << "buffer" << "aGVs\n bG8=!" << model::Value::buffer("hello");
    QTest::newRow("rack") << "rack" << kR1 << model::Value::rack(rack);
    QTest::newRow("rack in braces") << "rack" << "{" + kR1 + "}" << model::Value::rack(rack);
    QTest::newRow("rack garbage is null") << "rack" << "garbage" << model::Value::rack(QUuid());
}

void tst_Reader::values()
{
    QFETCH(QString, type);
    QFETCH(QString, text);
    QFETCH(model::Value, value);

    ReadResult result = ReadResult::ParseError;
    const model::Value read = read_prop(type, text, &result);
    QCOMPARE(result, ReadResult::Ok);
    QCOMPARE(read.type(), value.type());
    QVERIFY(read == value);
}

void tst_Reader::disabled_attribute_data()
{
    QTest::addColumn<QString>("attribute");
    QTest::addColumn<bool>("enabled");
    QTest::newRow("absent") << QString() << true;
    QTest::newRow("empty") << "disabled=\"\"" << true;
    QTest::newRow("disabled") << "disabled=\"disabled\"" << false;
    QTest::newRow("false still disables") << "disabled=\"false\"" << false;
}

void tst_Reader::disabled_attribute()
{
    QFETCH(QString, attribute);
    QFETCH(bool, enabled);
    model::Project project;
    QCOMPARE(engine::read_project(project_doc(QStringLiteral("<rack id=\"%1\" name=\"\" %2/>").arg(kR1, attribute)), project),
             ReadResult::Ok);
    QVERIFY(project.find_rack(uuid(kR1)));
    QCOMPARE(project.find_rack(uuid(kR1))->is_enabled(), enabled);
    QCOMPARE(project.find_rack(uuid(kR1))->name(), QString());
}

void tst_Reader::ids_with_and_without_braces()
{
    const QByteArray doc = project_doc(QStringLiteral("<rack id=\"{%1}\" name=\"r\"><node>{%2}</node><node> %3 </node></rack>"
                                                      "<node id=\"%2\" component=\"x\"><node>%4</node></node>"
                                                      "<node id=\"{%3}\" component=\"x\"/>"
                                                      "<node id=\"%4\" component=\"x\"/>")
                                           .arg(kR1, kN1, kN2.toUpper(), kN3));
    model::Project project;
    QCOMPARE(engine::read_project(doc, project), ReadResult::Ok);
    const model::Rack *rack = project.find_rack(uuid(kR1));
    QVERIFY(rack);
    QCOMPARE(rack->top_level()->ids(), (QList<QUuid>{uuid(kN1), uuid(kN2)}));
    QVERIFY(project.find_node(uuid(kN2)));
    QCOMPARE(project.find_node(uuid(kN1))->children()->ids(), QList<QUuid>{uuid(kN3)});
    QVERIFY(project.find_node(uuid(kN3)));
}

void tst_Reader::references_may_run_ahead_of_definitions()
{
    // The rack names a node defined after it, which names a child defined
    // after it and one defined nowhere.
    const QString missing = QStringLiteral("30000000-0000-0000-0000-000000000009");
    const QByteArray doc = project_doc(QStringLiteral("<rack id=\"%1\" name=\"r\"><node>%2</node></rack>"
                                                      "<node id=\"%2\" component=\"x\"><node>%3</node><node>%4</node></node>"
                                                      "<node id=\"%3\" component=\"x\"/>")
                                           .arg(kR1, kN1, kN2, missing));
    model::Project project;
    QCOMPARE(engine::read_project(doc, project), ReadResult::Ok);
    QCOMPARE(project.find_node(uuid(kN1))->children()->ids(), (QList<QUuid>{uuid(kN2), uuid(missing)}));
    QCOMPARE(project.nodes().size(), 2);
}

void tst_Reader::keys_get_the_node_prefix()
{
    const QByteArray doc = project_doc(QStringLiteral("<node id=\"%1\" component=\"io.x.delay\">"
                                                      "<prop key=\"ms\" type=\"int\">5</prop>"
                                                      "<prop key=\"!shared\" type=\"int\">6</prop>"
                                                      "<prop key=\"\" type=\"int\">7</prop>"
                                                      "<prop key=\"ms\" type=\"int\">8</prop></node>")
                                           .arg(kN1));
    model::Project project;
    QCOMPARE(engine::read_project(doc, project), ReadResult::Ok);
    const model::PropertyCollection &props = project.find_node(uuid(kN1))->properties();
    QCOMPARE(props.keys(), (QStringList{"io.x.delay.ms", "!shared", "io.x.delay."}));
    QCOMPARE(props.find("io.x.delay.ms")->value().to_int(), 8);
    QCOMPARE(props.find("!shared")->value().to_int(), 6);
    QCOMPARE(props.find("io.x.delay.")->value().to_int(), 7);
}

void tst_Reader::nodes_clipboard_lists_top_nodes()
{
    const QByteArray doc = QStringLiteral("<nodes><definitions><node id=\"%1\" component=\"x\"><node>%2</node></node>"
                                          "<node id=\"%2\" component=\"y\"/><node id=\"%3\" component=\"z\"/></definitions>"
                                          "<node>%3</node><node>%1</node></nodes>")
                               .arg(kN1, kN2, kN3)
                               .toUtf8();
    model::Project project;
    QList<QUuid> top;
    QCOMPARE(engine::read_nodes_clipboard(doc, project, engine::IdTranslator(), &top), ReadResult::Ok);
    QCOMPARE(top, (QList<QUuid>{uuid(kN3), uuid(kN1)}));
    QCOMPARE(project.nodes().size(), 3);
    QCOMPARE(project.profile()->count(), std::size_t(0));
}

void tst_Reader::preferences_keys_are_whole_and_hook_runs_on_success()
{
    const QByteArray doc = "<?xml version=\"1.0\"?><preferences version=\"1\">"
                           "<prop key=\"language\" type=\"int\">2</prop><prop key=\"!x\" type=\"bool\">true</prop>"
                           "<prop key=\"empty\"/></preferences>";
    model::PropertyCollection prefs;
    int hooked = 0;
    QCOMPARE(engine::read_preferences(doc, prefs, [&](model::PropertyCollection &c) {
                 ++hooked;
                 QCOMPARE(&c, &prefs);
             }),
             ReadResult::Ok);
    QCOMPARE(hooked, 1);
    QCOMPARE(prefs.keys(), (QStringList{"language", "!x", "empty"}));
    QCOMPARE(prefs.find("language")->value().to_int(), 2);
    QVERIFY(prefs.find("empty")->value().is_none());

    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^\\(while parsing project; line 1\\) ")));
    QCOMPARE(engine::read_preferences("<preferences version=\"1\"><prop/></preferences>", prefs,
                                      [&](model::PropertyCollection &) { ++hooked; }),
             ReadResult::ParseError);
    QCOMPARE(hooked, 1);
}

void tst_Reader::demo_project_reads_cleanly()
{
    QFile file(qEnvironmentVariable("CORV_SOURCE_DIR") + QStringLiteral("/examples/demo.corv"));
    QVERIFY2(file.open(QIODevice::ReadOnly), qPrintable(file.fileName()));
    const QByteArray bytes = file.readAll();
    model::Project project;
    QCOMPARE(engine::read_project(bytes, project), ReadResult::Ok);
    QVERIFY(project.profile()->count() >= 2);
    // Every reference names a definition, and the file is in the writer's form.
    for (const model::Rack *rack : project.racks())
        for (const QUuid &id : rack->top_level()->ids())
            QVERIFY(project.find_node(id));
    for (const model::Node *node : project.nodes()) {
        QVERIFY(node->impl_id().startsWith(QStringLiteral("io.marrowfield.")));
        for (const QUuid &id : node->children()->ids())
            QVERIFY(project.find_node(id));
    }
    QCOMPARE(QString::fromUtf8(engine::write_project(project)), QString::fromUtf8(bytes));
}

QTEST_GUILESS_MAIN(tst_Reader)
#include "tst_reader.moc"
