// The store functions of the SDK, through the C interface as a plugin calls
// them, over a node's store view (prefix "io.x.node.") with a parent view.

#include "engine/handles.h"
#include "model/property.h"
#include "sdk/include/corvane/corvane_sdk.h"

#include <QRegularExpression>
#include <QTest>


using namespace corv;
using namespace corv::engine;
using model::Value;
using model::ValueType;

Q_DECLARE_METATYPE(ValueType)

namespace {

struct Stores {
    model::PropertyCollection parent_collection;
    model::PropertyCollection collection;
    model::StoreView parent{&parent_collection, QStringLiteral("parent.")};
    model::StoreView node{&collection, QStringLiteral("io.x.node."), &parent};

    corv_store *handle() { return handles::to_handle(&node); }
    corv_store *parent_handle() { return handles::to_handle(&parent); }
};

// Writes one value of the given type under key through the C setters.
void set_typed(corv_store *store, const char *key, ValueType type)
{
    switch (type) {
    case ValueType::String:
        corv_store_set_string(store, key, "text");
        break;
    case ValueType::Bool:
        corv_store_set_bool(store, key, true);
        break;
    case ValueType::Int:
        corv_store_set_int(store, key, -7);
        break;
    case ValueType::Float:
        corv_store_set_float(store, key, 2.5);
        break;
    case ValueType::Vec2:
        corv_store_set_vec2(store, key, corv_vec2{1.5, -2.5});
        break;
    case ValueType::Vec3:
        corv_store_set_vec3(store, key, corv_vec3{1.0, 2.0, 3.0});
        break;
    case ValueType::Buffer:
        corv_store_set_buffer(store, key, "\x01\x00\x02", 3);
        break;
    default:
        QFAIL("not a store type");
    }
}

} // namespace

class TstSdkStores : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { QTest::failOnWarning(QRegularExpression(QStringLiteral(".*"))); }

    void typed_reads_data()
    {
        QTest::addColumn<ValueType>("type");
        QTest::newRow("string") << ValueType::String;
        QTest::newRow("bool") << ValueType::Bool;
        QTest::newRow("int") << ValueType::Int;
        QTest::newRow("float") << ValueType::Float;
        QTest::newRow("vec2") << ValueType::Vec2;
        QTest::newRow("vec3") << ValueType::Vec3;
        QTest::newRow("buffer") << ValueType::Buffer;
    }

    void typed_reads()
    {
        // A value answers only to its own type; every other getter gives its
        // zero value, and a string getter "" rather than null.
        QFETCH(ValueType, type);
        Stores s;
        corv_store *store = s.handle();
        set_typed(store, "k", type);

        QCOMPARE(corv_store_has_string(store, "k"), type == ValueType::String);
        QCOMPARE(corv_store_has_bool(store, "k"), type == ValueType::Bool);
        QCOMPARE(corv_store_has_int(store, "k"), type == ValueType::Int);
        QCOMPARE(corv_store_has_float(store, "k"), type == ValueType::Float);
        QCOMPARE(corv_store_has_vec2(store, "k"), type == ValueType::Vec2);
        QCOMPARE(corv_store_has_vec3(store, "k"), type == ValueType::Vec3);
        QCOMPARE(corv_store_has_buffer(store, "k"), type == ValueType::Buffer);

        QCOMPARE(corv_store_get_string(store, "k"), type == ValueType::String ? "text" : "");
        QCOMPARE(corv_store_get_bool(store, "k"), type == ValueType::Bool);
        QCOMPARE(corv_store_get_int(store, "k"), type == ValueType::Int ? -7 : 0);
        QCOMPARE(corv_store_get_float(store, "k"), type == ValueType::Float ? 2.5 : 0.0);
        const corv_vec2 v2 = corv_store_get_vec2(store, "k");
        QCOMPARE(v2.x, type == ValueType::Vec2 ? 1.5 : 0.0);
        QCOMPARE(v2.y, type == ValueType::Vec2 ? -2.5 : 0.0);
        const corv_vec3 v3 = corv_store_get_vec3(store, "k");
        QCOMPARE(v3.x, type == ValueType::Vec3 ? 1.0 : 0.0);
        QCOMPARE(v3.y, type == ValueType::Vec3 ? 2.0 : 0.0);
        QCOMPARE(v3.z, 0.0);
        const void *data = nullptr;
        const uint64_t size = corv_store_get_buffer(store, "k", &data);
        QVERIFY(data); // present: never null, even when of another type
        QCOMPARE(size, type == ValueType::Buffer ? uint64_t(3) : uint64_t(0));
        // The C getter leaves z out; the store keeps it.
        if (type == ValueType::Vec3)
            QCOMPARE(s.node.get(QStringLiteral("k")).to_vec3().z, 3.0);

        // Stored under the node's prefix, with the type the setter gave.
        QCOMPARE(s.collection.keys(), QStringList{"io.x.node.k"});
        QCOMPARE(s.collection.find(QStringLiteral("io.x.node.k"))->value().type(), type);
    }

    void missing_keys()
    {
        Stores s;
        corv_store *store = s.handle();
        QVERIFY(!corv_store_get_string(store, "gone"));
        QVERIFY(!corv_store_has_string(store, "gone"));
        QCOMPARE(corv_store_get_int(store, "gone"), 0);
        const void *data = &s;
        QCOMPARE(corv_store_get_buffer(store, "gone", &data), uint64_t(0));
        QVERIFY(!data);
        const corv_vec3 v3 = corv_store_get_vec3(store, "gone");
        QVERIFY(v3.x == 0.0 && v3.y == 0.0 && v3.z == 0.0);
        QCOMPARE(s.collection.size(), 0); // reading creates nothing
    }

    void buffers_data()
    {
        QTest::addColumn<QByteArray>("data");
        QTest::addColumn<quint64>("size");
        QTest::addColumn<QByteArray>("stored");
        const QByteArray bytes("ab\0cd\0", 6);
        QTest::newRow("zero bytes inside") << bytes << quint64(6) << bytes;
        QTest::newRow("empty") << bytes << quint64(0) << QByteArray();
        // Only the low 32 bits of the size count.
        QTest::newRow("high bits ignored") << bytes << (quint64(1) << 32 | 4) << bytes.left(4);
        // A length with the sign bit set reads up to the first zero byte.
        QTest::newRow("negative length") << bytes << quint64(0xFFFFFFFFu) << QByteArray("ab");
    }

    void buffers()
    {
        QFETCH(QByteArray, data);
        QFETCH(quint64, size);
        QFETCH(QByteArray, stored);
        Stores s;
        corv_store_set_buffer(s.handle(), "!b", data.constData(), size);
        const void *out = nullptr;
        const uint64_t length = corv_store_get_buffer(s.handle(), "!b", &out);
        QVERIFY(out);
        QCOMPARE(QByteArray(static_cast<const char *>(out), qsizetype(length)), stored);
        QVERIFY(corv_store_has_buffer(s.handle(), "!b"));
    }

    void key_resolution_data()
    {
        QTest::addColumn<QStringList>("stored"); // full keys of the node's collection
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("found");      // the full key read, or empty for none

        QTest::newRow("plain key under the prefix")
            << QStringList{"io.x.node.k"} << "k" << "io.x.node.k";
        QTest::newRow("plain key falls back to !key") << QStringList{"!k"} << "k" << "!k";
        QTest::newRow("own key before !key")
            << QStringList{"!k", "io.x.node.k"} << "k" << "io.x.node.k";
        QTest::newRow("!key as it stands") << QStringList{"!k", "io.x.node.k"} << "!k" << "!k";
        QTest::newRow("!key falls back to the prefixed key")
            << QStringList{"io.x.node.k"} << "!k" << "io.x.node.k";
        QTest::newRow("another node's key is not seen") << QStringList{"io.y.node.k"} << "k" << "";
        QTest::newRow("a full key is prefixed again")
            << QStringList{"io.x.node.k"} << "io.x.node.k" << "";
    }

    void key_resolution()
    {
        QFETCH(QStringList, stored);
        QFETCH(QString, key);
        QFETCH(QString, found);
        Stores s;
        for (const QString &full_key : stored) {
            s.collection.append_key(full_key);
            s.collection.find_or_create(full_key)->set(Value::string(full_key.toUtf8()));
        }
        const char *value = corv_store_get_string(s.handle(), key.toUtf8().constData());
        if (found.isEmpty())
            QVERIFY2(!value, value);
        else
            QCOMPARE(QString::fromUtf8(value), found);
    }

    void parent_view_is_read_not_written()
    {
        Stores s;
        corv_store_set_int(s.parent_handle(), "k", 1);
        QCOMPARE(corv_store_get_int(s.handle(), "k"), 1); // "parent.k" through the parent
        corv_store_set_int(s.handle(), "k", 2);
        QCOMPARE(corv_store_get_int(s.handle(), "k"), 2);
        QCOMPARE(corv_store_get_int(s.parent_handle(), "k"), 1);
        QCOMPARE(s.parent_collection.keys(), QStringList{"parent.k"});
        QCOMPARE(s.collection.keys(), QStringList{"io.x.node.k"});
    }

    void writes_never_fall_back()
    {
        Stores s;
        corv_store_set_string(s.handle(), "!k", "absolute");
        corv_store_set_string(s.handle(), "k", "own");
        corv_store_set_string(s.handle(), "!k", nullptr);
        QCOMPARE(s.collection.keys(), (QStringList{"!k", "io.x.node.k"}));
        QCOMPARE(corv_store_get_string(s.handle(), "!k"), "");
        QCOMPARE(corv_store_get_string(s.handle(), "k"), "own");
    }

    void a_set_replaces_the_type()
    {
        Stores s;
        corv_store_set_int(s.handle(), "k", 3);
        corv_store_set_string(s.handle(), "k", "3");
        QVERIFY(!corv_store_has_int(s.handle(), "k"));
        QCOMPARE(corv_store_get_string(s.handle(), "k"), "3");
        QCOMPARE(s.collection.size(), 1);
    }
};

QTEST_GUILESS_MAIN(TstSdkStores)
#include "tst_sdk_stores.moc"
