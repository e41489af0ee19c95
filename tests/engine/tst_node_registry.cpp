// Registration with every log line, duplicate refusal, pending lists per
// plugin, icons, and the resolve step with its migrations.

#include "engine/handles.h"
#include "engine/node_registry.h"
#include "model/node.h"

#include <QBuffer>
#include <QImage>
#include <QLoggingCategory>
#include <QRegularExpression>
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

// Expects each line, "I text" as info and "W text" as a warning.
void expect(const QStringList &lines)
{
    for (const QString &line : lines)
        QTest::ignoreMessage(line.startsWith(u'I') ? QtInfoMsg : QtWarningMsg, qUtf8Printable(line.mid(2)));
}

void quiet(bool on)
{
    QLoggingCategory::setFilterRules(on ? QStringLiteral("corv.engine.info=false") : QString());
}

// The mapper of the resolve table: user data is the id to write (null: return
// false; "": succeed without writing). It also moves a property to the new
// type's namespace, to show that it sees and edits full keys.
bool table_mapper(void *user_data, corv_store *store, char *out_id)
{
    if (!user_data)
        return false;
    model::StoreView *view = handles::store(store);
    view->set(QStringLiteral("test.new.level"), view->get(QStringLiteral("old.type.level")));
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
    void cleanup() { quiet(false); }

    // Pending until commit, then in order, each with its line.
    void registration_is_committed_in_order()
    {
        NodeRegistry registry;
        expect({"I first.plugin registered node a.one", "I first.plugin registered node a.two",
                "I first.plugin registered migration a.old", "I second.plugin registered node b.one",
                "W first.plugin can't register a node type without an id",
                "W first.plugin can't register a migration without an id"});
        NodeRegistration registration(registry, first);
        const corv_node_type one = node_type("a.one");
        const corv_node_type two = node_type("a.two");
        const corv_node_type nameless = node_type(nullptr);
        const corv_node_migration old{"a.old", nullptr, nullptr};
        const corv_node_migration nameless_migration{nullptr, nullptr, nullptr};
        for (const corv_node_type *type : {&one, &two, &nameless})
            registration.register_node(type);
        registration.register_migration(&old);
        registration.register_migration(&nameless_migration);
        QCOMPARE(registration.pending_node_count(), 2);
        QCOMPARE(registry.find(QStringLiteral("a.one")), nullptr);
        registration.commit();
        NodeRegistration by_second(registry, second);
        const corv_node_type b = node_type("b.one");
        by_second.register_node(&b);
        by_second.commit();
        QStringList ids;
        for (const NodeDefinition *definition : registry.definitions())
            ids << definition->id;
        QCOMPARE(ids, (QStringList{"a.one", "a.two", "b.one"}));
        QCOMPARE(registry.find(QStringLiteral("b.one"))->plugin, &second);
        QVERIFY(registry.find_migration(QStringLiteral("a.old")));
    }

    void duplicates_data()
    {
        QTest::addColumn<QString>("history"); // of "x" by the first plugin before the second registers it
        QTest::addColumn<bool>("refused");
        QTest::newRow("committed") << "commit" << true;
        QTest::newRow("pending") << "pending" << true;
        QTest::newRow("discarded") << "discard" << false;
        QTest::newRow("same plugin twice") << "same" << true;
    }

    void duplicates()
    {
        QFETCH(QString, history);
        QFETCH(bool, refused);
        quiet(true);
        NodeRegistry registry;
        const corv_node_type x = node_type("x");
        NodeRegistration by_first(registry, first);
        by_first.register_node(&x);
        if (history == QLatin1String("commit"))
            by_first.commit();
        else if (history == QLatin1String("discard"))
            by_first.discard();
        NodeRegistration by_second(registry, second);
        NodeRegistration &later = history == QLatin1String("same") ? by_first : by_second;
        if (refused)
            expect({"W " + later.plugin().id + " can't register node x: already exists"});
        later.register_node(&x);
        later.commit();
        by_first.commit();
        QCOMPARE(registry.find(QStringLiteral("x"))->plugin, history == QLatin1String("discard") ? &second : &first);
        QCOMPARE(registry.definitions().size(), 1);
    }

    // A pending migration is visible at once, so another plugin's is refused;
    // a failing load takes its migrations along. A migration id may equal a
    // node type id.
    void migrations_are_unique_and_discarded_with_their_plugin()
    {
        quiet(true);
        NodeRegistry registry;
        const corv_node_migration m{"m", nullptr, nullptr};
        {
            NodeRegistration registration(registry, first);
            registration.register_migration(&m);
            expect({"W second.plugin can't register migration m: already exists"});
            NodeRegistration other(registry, second);
            other.register_migration(&m);
            QCOMPARE(other.pending_migration_count(), 0);
        }
        QCOMPARE(registry.find_migration(QStringLiteral("m")), nullptr);
        NodeRegistration registration(registry, second);
        const corv_node_type m_type = node_type("m");
        registration.register_node(&m_type);
        registration.register_migration(&m);
        registration.commit();
        QVERIFY(registry.find(QStringLiteral("m")));
        QCOMPARE(registry.find_migration(QStringLiteral("m"))->plugin, &second);
    }

    // A type and migration filled in by plain C code; an icon that does not
    // decode is dropped with its line.
    void record_from_c()
    {
        NodeRegistry registry;
        PluginIdentity plugin{QStringLiteral("c.plugin"), QStringLiteral("C Plugin"), QImage(2, 2, QImage::Format_RGB32)};
        corv_node_type type;
        corv_node_migration migration;
        c_plugin_fill(&type, &migration);
        expect({"W c.plugin: the icon of node c.node could not be decoded", "I c.plugin registered node c.node",
                "I c.plugin registered migration c.retired"});
        NodeRegistration registration(registry, plugin);
        registration.register_node(&type);
        registration.register_migration(&migration);
        registration.commit();
        const NodeDefinition *definition = registry.find(QStringLiteral("c.node"));
        QVERIFY(definition);
        QCOMPARE(definition->name, QStringLiteral("C node"));
        QCOMPARE(definition->category, QStringLiteral("C Plugin"));
        QVERIFY(definition->icon.isNull());
        QVERIFY(definition->create == type.create && !definition->on_event);
        QCOMPARE(definition->get_decoration(nullptr), 10u);
        model::Node node;
        node.set_impl_id(QStringLiteral("c.retired"));
        expect({"I Node c.retired requires migration", "I   Migration to c.node succeeded"});
        QCOMPARE(registry.resolve(node), definition);
        QCOMPARE(node.impl_id(), QStringLiteral("c.node"));
    }

    // Category and icon of the type, else the plugin's.
    void category_and_icon_fallbacks()
    {
        quiet(true);
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
        QTest::newRow("png detected (unknown code)") << png << quint32(77) << true;
        QTest::newRow("bmp as bmp") << bmp << quint32(CORV_IMAGE_BMP) << true;
        QTest::newRow("bmp detected") << bmp << quint32(CORV_IMAGE_DETECT) << true;
        QTest::newRow("png named bmp") << png << quint32(CORV_IMAGE_BMP) << false;
        QTest::newRow("garbage") << QByteArray("not an image") << quint32(0) << false;
    }

    void icon_decoding()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(quint32, format);
        QFETCH(bool, decodes);
        const corv_icon icon{format, bytes.isEmpty() ? nullptr : bytes.constData(), uint32_t(bytes.size())};
        const QImage image = decode_icon(&icon);
        QCOMPARE(!image.isNull(), decodes);
        if (decodes)
            QCOMPARE(image.pixelColor(1, 1), QColor(Qt::red));
        QVERIFY(decode_icon(nullptr).isNull());
    }

    void resolve_data()
    {
        QTest::addColumn<QString>("type");
        QTest::addColumn<QByteArray>("mapped"); // "-" for a false mapper, "null" for none
        QTest::addColumn<QStringList>("lines");  // "I text" info, "W text" warning
        QTest::addColumn<QString>("result");     // definition id, or empty
        const QString needs = QStringLiteral("I Node old.type requires migration");
        const QString declined = QStringLiteral("W   Migration failed: mapper did not succeed");
        QTest::newRow("registered") << "test.new" << QByteArray() << QStringList{} << "test.new";
        QTest::newRow("unknown") << "test.gone" << QByteArray() << QStringList{"W Unknown node test.gone"} << "";
        QTest::newRow("migrates") << "old.type" << QByteArray("test.new")
                                  << QStringList{needs, "I   Migration to test.new succeeded"} << "test.new";
        QTest::newRow("mapper declines") << "old.type" << QByteArray("-") << QStringList{needs, declined} << "";
        QTest::newRow("no mapper") << "old.type" << QByteArray("null") << QStringList{needs, declined} << "";
        QTest::newRow("writes nothing") << "old.type" << QByteArray("")
                                        << QStringList{needs, "W   Migration failed: mapped node  is unknown"} << "";
        QTest::newRow("maps to another retired id")
            << "old.type" << QByteArray("older.type")
            << QStringList{needs, "W   Migration failed: mapped node older.type is unknown"} << "";
    }

    // The node's impl_id changes (flagged as migrating during the change) only
    // when the mapped type is registered.
    void resolve()
    {
        QFETCH(QString, type);
        QFETCH(QByteArray, mapped);
        QFETCH(QStringList, lines);
        QFETCH(QString, result);
        quiet(true);
        NodeRegistry registry;
        NodeRegistration registration(registry, first);
        const corv_node_type target = node_type("test.new");
        registration.register_node(&target);
        corv_node_migration migration{"old.type", nullptr, table_mapper};
        if (mapped == "null")
            migration.mapper = nullptr;
        else if (mapped != "-")
            migration.user_data = const_cast<char *>(mapped.constData());
        registration.register_migration(&migration);
        const corv_node_migration older{"older.type", nullptr, table_mapper};
        registration.register_migration(&older);
        registration.commit();
        quiet(false);

        model::Node node;
        node.set_impl_id(type);
        model::StoreView(&node.properties(), node.key_prefix()).set(QStringLiteral("level"), model::Value::integer(7));
        expect(lines);
        bool migrating = false;
        QList<bool> flag_during_change;
        connect(&node, &model::Node::impl_id_changed, this, [&] { flag_during_change << migrating; });
        const NodeDefinition *definition = registry.resolve(node, &migrating);
        QCOMPARE(definition ? definition->id : QString(), result);
        QVERIFY(!migrating);
        const bool migrated = type == QLatin1String("old.type") && !result.isEmpty();
        QCOMPARE(node.impl_id(), migrated ? result : type);
        QCOMPARE(flag_during_change, migrated ? QList<bool>{true} : QList<bool>{});
        if (migrated)
            QCOMPARE(model::StoreView(&node.properties(), node.key_prefix()).get(QStringLiteral("level")).to_int(), 7);
    }
};

QTEST_GUILESS_MAIN(TstNodeRegistry)
#include "tst_node_registry.moc"
