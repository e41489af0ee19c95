// A project of built-in nodes saved and opened again behaves the same; each
// built-in type's panel is as its outline file says; the node icons, the
// application icon and the style sheet are embedded.

#include "cui/property_surface.h"
#include "engine/node_manager.h"
#include "engine/project_runtime.h"
#include "nodes/builtin_nodes.h"
#include "node_rig.h"
#include "tests/panel_outline.h"

#include <QFile>
#include <QImage>
#include <QTest>

using model::Value;

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

    // Every built-in type's name and panel as a new node shows them.
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
        for (qsizetype i = 0; i < nodes.size(); ++i) {
            panels += "== " + types.at(i).toUtf8() + " (" + rig.name(nodes.at(i)).toUtf8() + ")\n";
            panels += corv::test::outline(
                *static_cast<corv::cui::PropertySurface *>(rig.runtime->find_node_manager(nodes.at(i))->surface())->surface());
        }
        corv::test::compare_outline(panels, QStringLiteral(CORV_TEST_SOURCE_DIR "/tests/nodes/panels.txt"));
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
