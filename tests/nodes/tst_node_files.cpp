// A project of built-in nodes saved and opened again behaves the same; the
// node icons, the application icon and the style sheet are embedded.

#include "cui/fields.h"
#include "cui/property_surface.h"
#include "cui/surface_p.h"
#include "engine/node_manager.h"
#include "engine/project_runtime.h"
#include "nodes/builtin_nodes.h"
#include "node_rig.h"
#include "tests/test_files.h"

#include <QFile>
#include <QImage>
#include <QRegularExpression>
#include <QTest>

using model::Value;
using namespace corv::cui;

namespace {

// One line an element of a panel: its kind, key (none for keyless ones),
// label, and its text, range, items or value; a container's elements below
// it, indented.
void outline(const Element &element, int depth, QByteArray &out)
{
    static const char *const kinds[] = {"root", "group", "columns", "label", "spacer", "separator", "button",
                                        "checkbox", "radio", "list", "select", "rack", "text", "textarea",
                                        "file", "slider", "int", "float", "color", "hotkey"};
    QByteArray line = QByteArray(depth * 2, ' ') + kinds[int(element.kind())];
    if (!element.id().contains(QStringLiteral(".anonymous.")))
        line += ' ' + element.id().toUtf8();
    if (!element.label().isEmpty())
        line += " \"" + element.label().toUtf8() + '"';
    if (const auto *label = dynamic_cast<const LabelField *>(&element))
        line += ": " + label->text().toUtf8();
    if (const auto *button = dynamic_cast<const ButtonField *>(&element))
        line += ": " + button->text().toUtf8();
    if (const auto *group = dynamic_cast<const GroupContainer *>(&element))
        line += ": " + group->title().toUtf8();
    if (const auto *radio = dynamic_cast<const RadioGroupField *>(&element))
        line += " [" + radio->items().join(u'|').toUtf8() + ']';
    if (const auto *items = dynamic_cast<const ItemsField *>(&element)) {
        QByteArrayList texts;
        for (const Item &item : items->items())
            texts << item.label.toUtf8() + '=' + QByteArray::number(item.value);
        line += " [" + texts.join('|') + ']';
    }
    if (const auto *number = dynamic_cast<const IntField *>(&element))
        line += " " + QByteArray::number(number->minimum()) + ".." + QByteArray::number(number->maximum());
    if (const auto *number = dynamic_cast<const FloatField *>(&element))
        line += " " + QByteArray::number(number->minimum()) + ".." + QByteArray::number(number->maximum());
    if (const auto *slider = dynamic_cast<const SliderField *>(&element))
        line += " " + QByteArray::number(slider->minimum()) + ".." + QByteArray::number(slider->maximum()) + " by " +
                QByteArray::number(slider->step());
    if (auto *field = const_cast<Element &>(element).as_field(); field && field->is_bound()) {
        const Value &value = field->value();
        const QByteArray shown = value.type() == corv::model::ValueType::Int     ? QByteArray::number(value.to_int())
                                 : value.type() == corv::model::ValueType::Float ? QByteArray::number(value.to_float())
                                 : value.type() == corv::model::ValueType::Bool  ? QByteArray(value.to_bool() ? "yes" : "no")
                                                                                 : value.to_string();
        line += " = " + shown + (field->is_enabled() ? "" : " (disabled)");
    }
    out += line + '\n';
    if (auto *container = const_cast<Element &>(element).as_container())
        for (const Element *child : container->children())
            outline(*child, depth + 1, out);
}

} // namespace

class TstNodeFiles : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { fail_on_warnings(); }

    void saved_and_reopened()
    {
        QByteArray document;
        QHash<QUuid, QString> names;
        QUuid a, delay, fork;
        {
            Rig rig;
            a = rig.add_rack(QStringLiteral("A"));
            const QUuid b = rig.add_rack(QStringLiteral("B"));
            fork = rig.add_node(a, "io.marrowfield.fork", {{"name", Value::string("Left")}});
            rig.add_node(a, "io.marrowfield.forward", {{"!rack", Value::rack(b)}});
            rig.add_node(a, "io.marrowfield.send", {{"!mailbox", Value::string("box")}});
            rig.add_node(a, "io.marrowfield.custom", {{"!name", Value::string("Ping")}});
            rig.add_node(a, "io.marrowfield.loop");
            delay = rig.add_node(a, "io.marrowfield.delay", {{"!delay", Value::floating(3725.5)}});
            rig.add_node(a, "io.marrowfield.debounce", {{"!delay", Value::floating(0.3)}});
            rig.add_node(a, "io.marrowfield.ratelimitlatest", {{"!delay", Value::floating(0.7)}});
            const QUuid sequential = rig.add_node(a, "io.marrowfield.sequential");
            rig.add_node(sequential, "io.marrowfield.stop");
            const QUuid receive = rig.add_node(b, "io.marrowfield.receive", {{"!mailbox", Value::string("box")}});
            rig.add_probe(receive, QStringLiteral("received"));
            rig.open();
            // An edit in the panel after opening, as a user makes it.
            rig.set(delay, QStringLiteral("!seconds"), Value::floating(7.0));
            QTRY_COMPARE(rig.name(delay), QStringLiteral("Delay 1 h 2 min 7 s"));
            for (auto it = rig.runtime->node_managers().cbegin(); it != rig.runtime->node_managers().cend(); ++it)
                names.insert(it.key(), rig.name(it.key()));
            document = rig.write();
        }
        // The fork's key is stored without "!", under its type.
        QVERIFY(document.contains("\"name\""));

        Rig rig;
        QVERIFY(rig.read(document));
        rig.open();
        QCOMPARE(rig.runtime->node_managers().size(), names.size());
        for (auto it = names.cbegin(); it != names.cend(); ++it)
            QCOMPARE(rig.name(it.key()), it.value());
        QCOMPARE(rig.name(fork), QStringLiteral("Left"));
        QCOMPARE(rig.name(delay), QStringLiteral("Delay 1 h 2 min 7 s"));
        QCOMPARE(rig.get(fork, QStringLiteral("name")), Value::string("Left"));
        // The mailbox still connects the racks.
        rig.post(a, "1");
        QTRY_COMPARE(rig.seen("received"), QList<QByteArray>{"1"});
    }

    // Every built-in type's name and panel as a new node shows them, against
    // tests/nodes/panels.txt (CORV_WRITE_PANELS=1 writes it anew).
    void panels_as_declared()
    {
        Rig rig;
        const QUuid rack = rig.add_rack(QStringLiteral("R"));
        QStringList types;
        for (const corv::engine::NodeDefinition *definition : rig.registry.definitions())
            types << definition->id;
        types.sort();
        types.removeIf([](const QString &type) { return !type.startsWith(u"io.marrowfield."); });
        QList<QUuid> nodes;
        for (const QString &type : std::as_const(types))
            nodes << rig.add_node(rack, type.toUtf8().constData());
        rig.open();
        QByteArray panels;
        for (const QUuid &node : std::as_const(nodes)) {
            const Surface *surface =
                static_cast<corv::cui::PropertySurface *>(rig.runtime->find_node_manager(node)->surface())->surface();
            panels += "== " + types.at(nodes.indexOf(node)).toUtf8() + " (" + rig.name(node).toUtf8() + ")\n";
            for (const Element *element : surface->impl()->root.children())
                outline(*element, 0, panels);
        }
        // The schedule's next time is the clock's.
        const QString shown = QString::fromUtf8(panels).replace(
            QRegularExpression(QStringLiteral("\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d")), QStringLiteral("<time>"));
        const QString file = QStringLiteral(CORV_TEST_SOURCE_DIR) + QStringLiteral("/tests/nodes/panels.txt");
        if (qEnvironmentVariableIsSet("CORV_WRITE_PANELS"))
            corv::test::write_file(file, shown.toUtf8());
        const QStringList lines = shown.split(u'\n');
        const QStringList expected = QString::fromUtf8(corv::test::read_file(file)).split(u'\n');
        for (qsizetype i = 0; i < std::max(lines.size(), expected.size()); ++i) // the first line that differs
            QCOMPARE(lines.value(i), expected.value(i));
    }

    void icons_and_style_sheet()
    {
        for (const corv::nodes::BuiltinNodeRow &row : corv::nodes::builtin_node_table()) {
            const QImage icon(QString::fromLatin1(row.icon));
            QVERIFY2(!icon.isNull() && icon.hasAlphaChannel(), row.icon);
            QCOMPARE(icon.size(), QSize(64, 64));
        }
        QCOMPARE(QImage(QStringLiteral(":/corv/icons/corvane.png")).size(), QSize(256, 256));
        QVERIFY(QFile::exists(QStringLiteral(":/corv/icons/corvane.svg")));
        QFile style(QStringLiteral(":/corv/style.css"));
        QVERIFY(style.open(QIODevice::ReadOnly));
        QVERIFY(style.readAll().contains("QToolTip"));
    }
};

QTEST_GUILESS_MAIN(TstNodeFiles)
#include "tst_node_files.moc"
