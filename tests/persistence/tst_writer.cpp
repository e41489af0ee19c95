#include "model/project.h"
#include "persistence/reader.h"
#include "persistence/value_text.h"
#include "persistence/writer.h"

#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QXmlStreamReader>

#include <limits>

using namespace corv;
using corv::engine::ReadResult;

namespace {

QUuid make_id(int n)
{
    return QUuid::fromString(QStringLiteral("00000000-0000-0000-0000-%1").arg(n, 12, 10, QLatin1Char('0')));
}

model::Node *add_node(model::Project &project, const QUuid &id, const QString &impl_id, model::Children *into)
{
    auto node = std::make_unique<model::Node>();
    node->set_impl_id(impl_id);
    model::Node *raw = node.get();
    project.add_node(id, std::move(node));
    if (into)
        into->insert(into->count(), id);
    return raw;
}

model::Rack *add_rack(model::Project &project, const QUuid &id, const QString &name)
{
    auto rack = std::make_unique<model::Rack>();
    rack->set_name(name);
    model::Rack *raw = rack.get();
    project.add_rack(id, std::move(rack));
    project.profile()->insert(project.profile()->count(), id);
    return raw;
}

void set(model::Node *node, const QString &local_key, const model::Value &value)
{
    model::StoreView(&node->properties(), node->key_prefix()).set(local_key, value);
}

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

// The `prop` elements of the single node of a document, as written.
QStringList written_props(const QByteArray &doc)
{
    const QString text = QString::fromUtf8(doc);
    QStringList props;
    static const QRegularExpression prop(QStringLiteral("<prop [^>]*?(/>|>[^<]*</prop>)"));
    for (auto it = prop.globalMatch(text); it.hasNext();)
        props.append(it.next().captured(0));
    return props;
}

} // namespace

class tst_Writer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { QTest::failOnWarning(QRegularExpression(QStringLiteral(".*"))); }

    void value_text_data();
    void value_text();
    void key_shortening_data();
    void key_shortening();
    void write_read_write_gives_the_same_bytes();
    void unknown_node_types_are_written_back_unchanged();
    void nodes_are_written_breadth_first_once_and_only_when_reached();
    void secondary_collection_is_written_first();
    void clipboard_documents();
    void preferences_file();
    void preferences_file_that_cannot_be_opened();
};

void tst_Writer::value_text_data()
{
    QTest::addColumn<model::Value>("value");
    QTest::addColumn<QString>("text");

    QTest::newRow("six digits") << model::Value::floating(0.1234567) << "0.123457";
    QTest::newRow("pi") << model::Value::floating(3.14159265) << "3.14159";
    QTest::newRow("a million") << model::Value::floating(1e6) << "1e+06";
    QTest::newRow("integral float") << model::Value::floating(100) << "100";
    QTest::newRow("small") << model::Value::floating(0.00001234) << "1.234e-05";
    QTest::newRow("nan") << model::Value::floating(std::numeric_limits<double>::quiet_NaN()) << "nan";
    QTest::newRow("-inf") << model::Value::floating(-std::numeric_limits<double>::infinity()) << "-inf";
    QTest::newRow("vec2") << model::Value::vec2({1.0 / 3, -2}) << "0.333333,-2";
    QTest::newRow("vec3") << model::Value::vec3({1, 2, 1234567}) << "1,2,1.23457e+06";
    QTest::newRow("color") << model::Value::color({0.5, 0, 1}) << "0.5,0,1";
    QTest::newRow("int") << model::Value::integer(-17) << "-17";
    QTest::newRow("bool") << model::Value::boolean(false) << "false";
    QTest::newRow("buffer") << model::Value::buffer("hello") << "aGVsbG8=";
    QTest::newRow("rack") << model::Value::rack(make_id(7)) << "00000000-0000-0000-0000-000000000007";
    QTest::newRow("string") << model::Value::string("\xc3\xa9t\xc3\xa9") << "\u00e9t\u00e9";
    QTest::newRow("none") << model::Value() << QString();
}

void tst_Writer::value_text()
{
    QFETCH(model::Value, value);
    QFETCH(QString, text);
    QCOMPARE(engine::value_text(value), text);
    // The text reads back as the same type (floats only to six digits).
    const std::optional<model::Value> back = engine::parse_value(value.type(), text);
    QVERIFY(back);
    QCOMPARE(back->type(), value.type());
    QCOMPARE(engine::value_text(*back), text);
}

void tst_Writer::key_shortening_data()
{
    QTest::addColumn<QString>("impl_id");
    QTest::addColumn<QString>("full_key");
    QTest::addColumn<QString>("written");

    QTest::newRow("own namespace") << "io.x" << "io.x.ms" << "ms";
    QTest::newRow("absolute") << "io.x" << "!ms" << "!ms";
    QTest::newRow("empty local key") << "io.x" << "io.x." << "";
    QTest::newRow("longer type id") << "io.x" << "io.xy.ms" << "io.xy.ms";
    QTest::newRow("the bare type id") << "io.x" << "io.x" << "io.x";
    QTest::newRow("case matters") << "io.x" << "IO.X.ms" << "IO.X.ms";
    QTest::newRow("foreign key") << "io.x" << "other.ms" << "other.ms";
}

void tst_Writer::key_shortening()
{
    QFETCH(QString, impl_id);
    QFETCH(QString, full_key);
    QFETCH(QString, written);

    model::Project project;
    model::Rack *rack = add_rack(project, make_id(1), "r");
    model::Node *node = add_node(project, make_id(2), impl_id, rack->top_level());
    node->properties().append_key(full_key);
    node->properties().find_or_create(full_key)->set(model::Value::integer(1));

    const QStringList props = written_props(engine::write_project(project));
    QCOMPARE(props, QStringList{QStringLiteral("<prop key=\"%1\" type=\"int\">1</prop>").arg(written)});
}

void tst_Writer::write_read_write_gives_the_same_bytes()
{
    model::Project project;
    model::Rack *a = add_rack(project, make_id(1), "Ampersand & <angle> \"quoted\"\ttab\nline");
    model::Rack *b = add_rack(project, make_id(2), QString::fromUtf8("\xe6\x97\xa5\xe6\x9c\xac"));
    b->set_enabled(false);
    model::Node *n1 = add_node(project, make_id(10), "io.marrowfield.custom", a->top_level());
    set(n1, "!scope", model::Value::string("key: value\r\nother: x <&> ]]> \xf0\x9f\x98\x80"));
    set(n1, "plain", model::Value::string("  padded  "));
    set(n1, "", model::Value::integer(3));
    set(n1, "f", model::Value::floating(2.718281828));
    set(n1, "v2", model::Value::vec2({-0.0, 1e-300}));
    set(n1, "v3", model::Value::vec3({1, 2, 3}));
    set(n1, "c", model::Value::color({0.1, 0.2, 0.3}));
    set(n1, "buf", model::Value::buffer(QByteArray("\x00\xff\r\n", 4)));
    set(n1, "rack", model::Value::rack(make_id(2)));
    set(n1, "none", model::Value());
    set(n1, "nan", model::Value::floating(std::numeric_limits<double>::quiet_NaN()));
    model::Node *n2 = add_node(project, make_id(11), "com.example.unknown", n1->children());
    set(n2, "!b", model::Value::boolean(true));
    add_node(project, make_id(12), "", n2->children());
    add_node(project, make_id(13), "io.marrowfield.display", b->top_level());

    const QByteArray first = engine::write_project(project);
    model::Project again;
    QCOMPARE(engine::read_project(first, again), ReadResult::Ok);
    const QByteArray second = engine::write_project(again);
    QCOMPARE(QString::fromUtf8(second), QString::fromUtf8(first));

    // Values other than floats come back exactly; the carriage return too.
    const model::Node *read_n1 = again.find_node(make_id(10));
    QVERIFY(read_n1->properties().find("!scope")->value() == n1->properties().find("!scope")->value());
    QVERIFY(read_n1->properties().find("io.marrowfield.custom.buf")->value()
            == n1->properties().find("io.marrowfield.custom.buf")->value());
    QCOMPARE(again.find_rack(make_id(1))->name(), a->name());
    QCOMPARE(again.find_rack(make_id(2))->is_enabled(), false);
    // The lossy float form: e is kept to six digits.
    QCOMPARE(read_n1->properties().find("io.marrowfield.custom.f")->value().to_float(), 2.71828);
}

void tst_Writer::unknown_node_types_are_written_back_unchanged()
{
    const QByteArray doc = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
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
    QCOMPARE(QString::fromUtf8(engine::write_project(project)), QString::fromUtf8(doc));
}

void tst_Writer::nodes_are_written_breadth_first_once_and_only_when_reached()
{
    // Rack A: a1 (a11 (a111)), a2. Rack B: b1 (b11, and a second reference to a11).
    model::Project project;
    model::Rack *a = add_rack(project, make_id(1), "A");
    model::Rack *b = add_rack(project, make_id(2), "B");
    model::Node *a1 = add_node(project, make_id(10), "t", a->top_level());
    add_node(project, make_id(20), "t", a->top_level());
    model::Node *b1 = add_node(project, make_id(30), "t", b->top_level());
    model::Node *a11 = add_node(project, make_id(11), "t", a1->children());
    add_node(project, make_id(111), "t", a11->children());
    add_node(project, make_id(31), "t", b1->children());
    b1->children()->insert(1, make_id(11));
    add_node(project, make_id(99), "orphan", nullptr);

    const QByteArray doc = engine::write_project(project);
    QCOMPARE(definition_order(doc),
             (QList<QUuid>{make_id(10), make_id(20), make_id(30), make_id(11), make_id(31), make_id(111)}));
    model::Project again;
    QCOMPARE(engine::read_project(doc, again), ReadResult::Ok);
    QCOMPARE(again.find_node(make_id(30))->children()->ids(), (QList<QUuid>{make_id(31), make_id(11)}));
    QVERIFY(!again.find_node(make_id(99)));
}

void tst_Writer::secondary_collection_is_written_first()
{
    model::Project project;
    model::Rack *rack = add_rack(project, make_id(1), "r");
    model::Node *node = add_node(project, make_id(2), "io.x", rack->top_level());
    set(node, "a", model::Value::integer(1));
    set(node, "b", model::Value::integer(2));
    set(node, "!c", model::Value::integer(3));

    model::PropertyCollection engine_side;
    model::StoreView view(&engine_side, QStringLiteral("io.x."));
    view.set("!c", model::Value::integer(30));
    view.set("d", model::Value::integer(40));
    view.set("a", model::Value::integer(10));

    const QByteArray doc = engine::write_project(project, [&](const QUuid &id) -> const model::PropertyCollection * {
        return id == make_id(2) ? &engine_side : nullptr;
    });
    QCOMPARE(written_props(doc), (QStringList{
                                     "<prop key=\"!c\" type=\"int\">30</prop>",
                                     "<prop key=\"d\" type=\"int\">40</prop>",
                                     "<prop key=\"a\" type=\"int\">10</prop>",
                                     "<prop key=\"b\" type=\"int\">2</prop>",
                                 }));
}

void tst_Writer::clipboard_documents()
{
    model::Project project;
    model::Rack *r1 = add_rack(project, make_id(1), "one");
    add_rack(project, make_id(2), "two");
    model::Node *n = add_node(project, make_id(10), "t", r1->top_level());
    set(n, "k", model::Value::string("v"));
    add_node(project, make_id(11), "t", n->children());
    add_node(project, make_id(12), "t", r1->top_level());

    const QByteArray racks = engine::write_racks_clipboard(project, {make_id(1)});
    QVERIFY(racks.startsWith("<?xml version=\"1.0\" encoding=\"UTF-8\"?><racks><rack "));
    QVERIFY(!racks.trimmed().contains('\n'));
    model::Project pasted;
    QCOMPARE(engine::read_racks_clipboard(racks, pasted), ReadResult::Ok);
    QCOMPARE(pasted.profile()->ids(), QList<QUuid>{make_id(1)});
    QCOMPARE(pasted.nodes().size(), 3);

    const QByteArray nodes = engine::write_nodes_clipboard(project, {make_id(12), make_id(10)});
    QVERIFY(!nodes.trimmed().contains('\n'));
    QCOMPARE(QString::fromUtf8(nodes),
             QStringLiteral("<?xml version=\"1.0\" encoding=\"UTF-8\"?><nodes><definitions>"
                            "<node id=\"%1\" component=\"t\"/>"
                            "<node id=\"%2\" component=\"t\"><prop key=\"k\" type=\"string\">v</prop><node>%3</node></node>"
                            "<node id=\"%3\" component=\"t\"/>"
                            "</definitions><node>%1</node><node>%2</node></nodes>\n")
                 .arg(make_id(12).toString(QUuid::WithoutBraces), make_id(10).toString(QUuid::WithoutBraces),
                      make_id(11).toString(QUuid::WithoutBraces)));
}

void tst_Writer::preferences_file()
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
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QByteArray bytes = file.readAll();
    QCOMPARE(bytes, engine::write_preferences(primary, &secondary));
    QVERIFY(bytes.startsWith("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<preferences version=\"1\">\n"));

    model::PropertyCollection back;
    QCOMPARE(engine::read_preferences(bytes, back), ReadResult::Ok);
    QCOMPARE(back.keys(), (QStringList{"language", "!abs", "extra"}));
    QCOMPARE(back.find("language")->value().to_int(), 1);
}

void tst_Writer::preferences_file_that_cannot_be_opened()
{
    QTemporaryDir dir;
    // The target is a folder, which no file can replace.
    const QString path = dir.path() + QStringLiteral("/prefs.xml");
    QVERIFY(QDir().mkpath(path));
    model::PropertyCollection primary;
    QTest::ignoreMessage(QtWarningMsg,
                         QRegularExpression(QStringLiteral("^Can't write preferences to %1: .+$")
                                                .arg(QRegularExpression::escape(path))));
    QVERIFY(!engine::write_preferences_file(path, primary));
}

QTEST_GUILESS_MAIN(tst_Writer)
#include "tst_writer.moc"
