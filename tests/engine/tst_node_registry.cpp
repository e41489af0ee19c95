// Registration, duplicate refusal, pending lists per plugin, icons, and the
// resolve step with its migrations and log lines.

#include "engine/handles.h"
#include "engine/node_registry.h"
#include "model/node.h"

#include <QBuffer>
#include <QImage>
#include <QLoggingCategory>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>

#include <cstring>

using namespace corv;
using namespace corv::engine;

extern "C" void c_plugin_fill(corv_node_type *type, corv_node_migration *migration);

namespace {

corv_node_type node_type(const char *id)
{
    corv_node_type type{};
    type.id = id;
    type.name = "Name";
    return type;
}

QByteArray encoded(const char *format, QColor color = Qt::red)
{
    QImage image(4, 3, QImage::Format_RGB32);
    image.fill(color);
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, format);
    return bytes;
}

// The mapper of the resolve table: user data is the id to write (null:
// return false; "" : succeed without writing). It also moves a property to
// the new type's namespace, to show that it sees and edits full keys.
bool table_mapper(void *user_data, corv_store *store, char *out_id)
{
    if (!user_data)
        return false;
    model::StoreView *view = handles::store(store);
    const model::Value old = view->get(QStringLiteral("old.type.level"));
    view->set(QStringLiteral("test.new.level"), old);
    std::strncpy(out_id, static_cast<const char *>(user_data), 255);
    return true;
}

} // namespace

class TstNodeRegistry : public QObject
{
    Q_OBJECT

    PluginIdentity first{QStringLiteral("first.plugin"), QStringLiteral("First"), {}};
    PluginIdentity second{QStringLiteral("second.plugin"), QStringLiteral("Second"), {}};

private Q_SLOTS:
    void init() { QTest::failOnWarning(QRegularExpression(QStringLiteral(".*"))); }

    void registration_is_committed_in_order()
    {
        NodeRegistry registry;
        QTest::ignoreMessage(QtInfoMsg, "first.plugin registered node a.one");
        QTest::ignoreMessage(QtInfoMsg, "first.plugin registered node a.two");
        QTest::ignoreMessage(QtInfoMsg, "first.plugin registered migration a.old");
        QTest::ignoreMessage(QtInfoMsg, "second.plugin registered node b.one");
        {
            NodeRegistration registration(registry, first);
            const corv_node_type one = node_type("a.one");
            const corv_node_type two = node_type("a.two");
            registration.register_node(&one);
            registration.register_node(&two);
            const corv_node_migration old{"a.old", nullptr, nullptr};
            registration.register_migration(&old);
            QCOMPARE(registration.pending_node_count(), 2);
            QCOMPARE(registry.find(QStringLiteral("a.one")), nullptr); // pending until commit
            registration.commit();
        }
        {
            NodeRegistration registration(registry, second);
            const corv_node_type one = node_type("b.one");
            registration.register_node(&one);
            registration.commit();
        }
        QStringList ids;
        for (const NodeDefinition *definition : registry.definitions())
            ids << definition->id;
        QCOMPARE(ids, (QStringList{"a.one", "a.two", "b.one"}));
        QCOMPARE(registry.find(QStringLiteral("b.one"))->plugin, &second);
        QVERIFY(registry.find_migration(QStringLiteral("a.old")));
    }

    void duplicates_data()
    {
        QTest::addColumn<QString>("history");
        QTest::addColumn<bool>("refused");
        // What happens to "x" by the first plugin before the second registers it.
        QTest::newRow("committed") << "commit" << true;
        QTest::newRow("pending") << "pending" << true;
        QTest::newRow("discarded") << "discard" << false;
        QTest::newRow("same plugin twice") << "same" << true;
    }

    void duplicates()
    {
        QFETCH(QString, history);
        QFETCH(bool, refused);
        QLoggingCategory::setFilterRules(QStringLiteral("corv.engine.info=false"));
        NodeRegistry registry;
        const corv_node_type x = node_type("x");
        auto by_first = std::make_unique<NodeRegistration>(registry, first);
        by_first->register_node(&x);
        if (history == QLatin1String("commit"))
            by_first->commit();
        else if (history == QLatin1String("discard"))
            by_first->discard();

        NodeRegistration *later = by_first.get();
        std::unique_ptr<NodeRegistration> by_second;
        if (history != QLatin1String("same")) {
            by_second = std::make_unique<NodeRegistration>(registry, second);
            later = by_second.get();
        }
        if (refused)
            QTest::ignoreMessage(QtWarningMsg,
                                 qPrintable(later->plugin().id + QStringLiteral(" can't register node x: already exists")));
        later->register_node(&x);
        later->commit();
        by_first->commit();
        QLoggingCategory::setFilterRules(QString());

        QVERIFY(registry.find(QStringLiteral("x")));
        QCOMPARE(registry.find(QStringLiteral("x"))->plugin,
                 history == QLatin1String("discard") ? &second : &first);
        QCOMPARE(registry.definitions().size(), 1);
    }

    void migrations_are_unique_and_discarded_with_their_plugin()
    {
        QLoggingCategory::setFilterRules(QStringLiteral("corv.engine.info=false"));
        NodeRegistry registry;
        const corv_node_migration m{"m", nullptr, nullptr};
        {
            NodeRegistration registration(registry, first);
            registration.register_migration(&m);
            // Visible at once, so a second plugin loading meanwhile is refused.
            QTest::ignoreMessage(QtWarningMsg, "second.plugin can't register migration m: already exists");
            NodeRegistration other(registry, second);
            other.register_migration(&m);
            QCOMPARE(other.pending_migration_count(), 0);
            // A failing load takes its migrations along.
        }
        QCOMPARE(registry.find_migration(QStringLiteral("m")), nullptr);

        // A migration id may equal a node type id.
        NodeRegistration registration(registry, second);
        const corv_node_type m_type = node_type("m");
        registration.register_node(&m_type);
        registration.register_migration(&m);
        registration.commit();
        QLoggingCategory::setFilterRules(QString());
        QVERIFY(registry.find(QStringLiteral("m")));
        QCOMPARE(registry.find_migration(QStringLiteral("m"))->plugin, &second);
    }

    void record_from_c()
    {
        NodeRegistry registry;
        PluginIdentity plugin{QStringLiteral("c.plugin"), QStringLiteral("C Plugin"),
                              QImage(2, 2, QImage::Format_RGB32)};
        corv_node_type type;
        corv_node_migration migration;
        c_plugin_fill(&type, &migration);
        QTest::ignoreMessage(QtWarningMsg, "c.plugin: the icon of node c.node could not be decoded");
        QTest::ignoreMessage(QtInfoMsg, "c.plugin registered node c.node");
        QTest::ignoreMessage(QtInfoMsg, "c.plugin registered migration c.retired");
        NodeRegistration registration(registry, plugin);
        registration.register_node(&type);
        registration.register_migration(&migration);
        registration.commit();

        const NodeDefinition *definition = registry.find(QStringLiteral("c.node"));
        QVERIFY(definition);
        QCOMPARE(definition->name, QStringLiteral("C node"));
        QCOMPARE(definition->category, QStringLiteral("C Plugin"));
        QVERIFY(definition->icon.isNull()); // bytes given but not an image
        QVERIFY(definition->create == type.create);
        QVERIFY(definition->get_decoration == type.get_decoration);
        QCOMPARE(definition->get_decoration(nullptr), 10u);
        QVERIFY(!definition->on_event);

        model::Node node;
        node.set_impl_id(QStringLiteral("c.retired"));
        QTest::ignoreMessage(QtInfoMsg, "Node c.retired requires migration");
        QTest::ignoreMessage(QtInfoMsg, "  Migration to c.node succeeded");
        QCOMPARE(registry.resolve(node), definition);
        QCOMPARE(node.impl_id(), QStringLiteral("c.node"));
    }

    void category_and_icon_fallbacks()
    {
        QLoggingCategory::setFilterRules(QStringLiteral("corv.engine.info=false"));
        NodeRegistry registry;
        QImage plugin_icon(5, 5, QImage::Format_RGB32);
        plugin_icon.fill(Qt::blue);
        PluginIdentity plugin{QStringLiteral("p"), QStringLiteral("Plugin Name"), plugin_icon};
        const QByteArray png = encoded("PNG", Qt::green);
        const corv_icon icon{CORV_IMAGE_PNG, png.constData(), uint32_t(png.size())};
        corv_node_type own = node_type("own");
        own.category = "NodeCategory.Filters";
        own.icon = &icon;
        const corv_node_type fallback = node_type("fallback");
        NodeRegistration registration(registry, plugin);
        registration.register_node(&own);
        registration.register_node(&fallback);
        registration.commit();
        QLoggingCategory::setFilterRules(QString());

        QCOMPARE(registry.find(QStringLiteral("own"))->category, QStringLiteral("NodeCategory.Filters"));
        QCOMPARE(registry.find(QStringLiteral("own"))->icon.pixelColor(0, 0), QColor(Qt::green));
        QCOMPARE(registry.find(QStringLiteral("fallback"))->category, QStringLiteral("Plugin Name"));
        QCOMPARE(registry.find(QStringLiteral("fallback"))->icon, plugin_icon);
    }

    void icon_decoding_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<quint32>("format");
        QTest::addColumn<bool>("decodes");
        const QByteArray png = encoded("PNG");
        const QByteArray bmp = encoded("BMP");
        QTest::newRow("png as png") << png << quint32(CORV_IMAGE_PNG) << true;
        QTest::newRow("png detected (0)") << png << quint32(CORV_IMAGE_DETECT) << true;
        QTest::newRow("png detected (unknown code)") << png << quint32(77) << true;
        QTest::newRow("bmp as bmp") << bmp << quint32(CORV_IMAGE_BMP) << true;
        QTest::newRow("bmp detected") << bmp << quint32(0) << true;
        QTest::newRow("png named bmp") << png << quint32(CORV_IMAGE_BMP) << false;
        QTest::newRow("garbage") << QByteArray("not an image") << quint32(0) << false;
        QTest::newRow("empty") << QByteArray() << quint32(CORV_IMAGE_PNG) << false;
    }

    void icon_decoding()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(quint32, format);
        QFETCH(bool, decodes);
        const corv_icon icon{format, bytes.isEmpty() ? nullptr : bytes.constData(),
                             uint32_t(bytes.size())};
        const QImage image = decode_icon(&icon);
        QCOMPARE(!image.isNull(), decodes);
        if (decodes) {
            QCOMPARE(image.size(), QSize(4, 3));
            QCOMPARE(image.pixelColor(1, 1), QColor(Qt::red));
        }
        QVERIFY(decode_icon(nullptr).isNull());
    }

    void resolve_data()
    {
        QTest::addColumn<QString>("type");
        QTest::addColumn<QByteArray>("mapped"); // "-" for a false mapper, "null" for none
        QTest::addColumn<QStringList>("lines");  // "I text" info, "W text" warning
        QTest::addColumn<QString>("result");     // definition id, or empty
        QTest::newRow("registered") << "test.new" << QByteArray() << QStringList{} << "test.new";
        QTest::newRow("unknown") << "test.gone" << QByteArray() << QStringList{"W Unknown node test.gone"}
                                 << "";
        QTest::newRow("migrates")
            << "old.type" << QByteArray("test.new")
            << QStringList{"I Node old.type requires migration", "I   Migration to test.new succeeded"}
            << "test.new";
        QTest::newRow("mapper declines")
            << "old.type" << QByteArray("-")
            << QStringList{"I Node old.type requires migration",
                           "W   Migration failed: mapper did not succeed"}
            << "";
        QTest::newRow("no mapper")
            << "old.type" << QByteArray("null")
            << QStringList{"I Node old.type requires migration",
                           "W   Migration failed: mapper did not succeed"}
            << "";
        QTest::newRow("writes nothing")
            << "old.type" << QByteArray("")
            << QStringList{"I Node old.type requires migration",
                           "W   Migration failed: mapped node  is unknown"}
            << "";
        QTest::newRow("maps to another retired id")
            << "old.type" << QByteArray("older.type")
            << QStringList{"I Node old.type requires migration",
                           "W   Migration failed: mapped node older.type is unknown"}
            << "";
    }

    void resolve()
    {
        QFETCH(QString, type);
        QFETCH(QByteArray, mapped);
        QFETCH(QStringList, lines);
        QFETCH(QString, result);

        QLoggingCategory::setFilterRules(QStringLiteral("corv.engine.info=false"));
        NodeRegistry registry;
        {
            NodeRegistration registration(registry, first);
            const corv_node_type target = node_type("test.new");
            registration.register_node(&target);
            const QByteArray keep = mapped; // lives through the test
            corv_node_migration migration{"old.type", nullptr, table_mapper};
            if (mapped == "null")
                migration.mapper = nullptr;
            else if (mapped != "-")
                migration.user_data = const_cast<char *>(mapped.constData());
            registration.register_migration(&migration);
            const corv_node_migration older{"older.type", nullptr, table_mapper};
            registration.register_migration(&older);
            registration.commit();
            QLoggingCategory::setFilterRules(QString());

            model::Node node;
            node.set_impl_id(type);
            model::StoreView(&node.properties(), node.key_prefix())
                .set(QStringLiteral("level"), model::Value::integer(7));
            for (const QString &line : std::as_const(lines))
                QTest::ignoreMessage(line.startsWith(u'I') ? QtInfoMsg : QtWarningMsg,
                                     qPrintable(line.mid(2)));
            bool migrating = false;
            QList<bool> flag_during_change;
            connect(&node, &model::Node::impl_id_changed, this,
                    [&] { flag_during_change << migrating; });

            const NodeDefinition *definition = registry.resolve(node, &migrating);
            QCOMPARE(definition ? definition->id : QString(), result);
            QVERIFY(!migrating);
            const bool migrated = type == QLatin1String("old.type") && !result.isEmpty();
            QCOMPARE(node.impl_id(), migrated ? result : type);
            QCOMPARE(flag_during_change, migrated ? QList<bool>{true} : QList<bool>{});
            if (migrated) {
                const model::StoreView view(&node.properties(), node.key_prefix());
                QCOMPARE(view.get(QStringLiteral("level")).to_int(), 7);
            }
        }
    }
};

QTEST_GUILESS_MAIN(TstNodeRegistry)
#include "tst_node_registry.moc"
