// Values, observable properties, and store views with their key rule.

#include "model/property.h"

#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>

#include <limits>

using namespace corv::model;

namespace {
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Each typed getter of v, rebuilt into a value of that getter's type.
QList<Value> through_getters(const Value &v)
{
    return {Value::string(v.to_string()), Value::boolean(v.to_bool()), Value::integer(v.to_int()),
            Value::floating(v.to_float()), Value::vec2(v.to_vec2()), Value::vec3(v.to_vec3()),
            Value::color(v.to_color()), Value::buffer(v.to_buffer()), Value::rack(v.to_rack())};
}

// Every listed full key holds a String of its own key, so a lookup shows what it found.
void fill(PropertyCollection &c, const QStringList &keys)
{
    for (const QString &key : keys)
        c.find_or_create(key)->set(Value::string(key.toUtf8()));
}
} // namespace

class TstValue : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QTest::failOnWarning(QRegularExpression(QStringLiteral(".*"))); }

    void equality_data()
    {
        QTest::addColumn<Value>("a");
        QTest::addColumn<Value>("b");
        QTest::addColumn<bool>("equal");
        const QUuid id = QUuid::createUuid();
        const auto row = [](const char *name, const Value &a, const Value &b, bool equal) {
            QTest::newRow(name) << a << b << equal;
        };
        row("none/int 0", Value(), Value::integer(0), false);
        row("bool false/int 0", Value::boolean(false), Value::integer(0), false);
        row("int 1/float 1", Value::integer(1), Value::floating(1.0), false);
        row("vec3/color same parts", Value::vec3({1, 2, 3}), Value::color({1, 2, 3}), false);
        row("string/buffer same bytes", Value::string("abc"), Value::buffer("abc"), false);
        row("string differs after NUL", Value::string(QByteArray("a\0b", 3)),
            Value::string(QByteArray("a\0c", 3)), false);
        row("buffer trailing NUL", Value::buffer(QByteArray("ab\0", 3)), Value::buffer("ab"), false);
        row("float NaN", Value::floating(kNaN), Value::floating(kNaN), false);
        row("float -0/+0", Value::floating(-0.0), Value::floating(0.0), true);
        row("float no tolerance", Value::floating(0.1 + 0.2), Value::floating(0.3), false);
        row("vec2 NaN y", Value::vec2({1, kNaN}), Value::vec2({1, kNaN}), false);
        row("vec2 signed zeros", Value::vec2({-0.0, 0.0}), Value::vec2({0.0, -0.0}), true);
        row("vec3 differs in z", Value::vec3({1, 2, 3}), Value::vec3({1, 2, 4}), false);
        row("color NaN blue", Value::color({0, 0, kNaN}), Value::color({0, 0, kNaN}), false);
        row("color differs in blue", Value::color({1, 1, 1}), Value::color({1, 1, 0.5}), false);
        row("rack same", Value::rack(id), Value::rack(id), true);
        row("rack differ", Value::rack(id), Value::rack(QUuid::createUuid()), false);
    }

    void equality()
    {
        QFETCH(Value, a);
        QFETCH(Value, b);
        QFETCH(bool, equal);
        QCOMPARE(a == b, equal);
        QCOMPARE(b == a, equal);
        QCOMPARE(a != b, !equal);
        const Value nan = Value::vec3({0, kNaN, 0});
        QVERIFY(!(nan == nan)); // no shortcut on identity
    }

    // A value's own getter gives it back whole; any other getter gives its
    // zero value, never a conversion.
    void getters_never_convert()
    {
        const QList<Value> values{Value(), Value::string(QByteArray("7\0x", 3)),
                                  Value::boolean(true), Value::integer(INT_MIN),
                                  Value::floating(-7.5), Value::vec2({7, 8}),
                                  Value::vec3({7, 8, 9}), Value::color({0.25, 0.5, 0.75}),
                                  Value::buffer(QByteArray("\0\xff", 2)), Value::rack(QUuid::createUuid())};
        const QList<Value> zero = through_getters(Value());
        for (const Value &value : values) {
            const QList<Value> got = through_getters(value);
            for (int i = 0; i < got.size(); ++i) {
                if (int(value.type()) != i + 1)
                    QVERIFY(got[i] == zero[i]);
                else
                    QCOMPARE(got[i], value);
            }
            if (value.type() != ValueType::String && value.type() != ValueType::Buffer)
                QVERIFY(value.bytes().isEmpty());
        }
    }

    void change_notification_data()
    {
        QTest::addColumn<Value>("initial");
        QTest::addColumn<Value>("next");
        QTest::addColumn<int>("emits");
        QTest::newRow("none to none") << Value() << Value() << 0;
        QTest::newRow("none to int 0") << Value() << Value::integer(0) << 1;
        QTest::newRow("int same") << Value::integer(5) << Value::integer(5) << 0;
        QTest::newRow("int to float same number") << Value::integer(5) << Value::floating(5) << 1;
        QTest::newRow("float NaN again") << Value::floating(kNaN) << Value::floating(kNaN) << 1;
        QTest::newRow("float +0 to -0") << Value::floating(0.0) << Value::floating(-0.0) << 0;
        QTest::newRow("string to buffer") << Value::string("a") << Value::buffer("a") << 1;
        QTest::newRow("int to none") << Value::integer(1) << Value() << 1;
    }

    void change_notification()
    {
        QFETCH(Value, initial);
        QFETCH(Value, next);
        QFETCH(int, emits);
        Property p;
        p.set(initial);
        QList<ValueType> seen; // the value is stored before the signal
        connect(&p, &Property::value_changed, this, [&] { seen << p.value().type(); });
        p.set(next);
        QCOMPARE(seen, emits ? QList<ValueType>{next.type()} : QList<ValueType>{});
        QCOMPARE(p.value().type(), emits ? next.type() : initial.type());
    }

    // Keys are listed once, at the first set, before the value changes; a
    // find_or_create is no set. Full keys: prefix + key, or a "!" key as it stands.
    void key_list_and_full_keys()
    {
        PropertyCollection c;
        QVERIFY(!c.find("a.b.x"));
        Property *p = c.find_or_create("a.b.x");
        QVERIFY(c.find_or_create("a.b.x") == p && c.find("a.b.x") == p && c.keys().isEmpty());
        bool listed = false;
        connect(p, &Property::value_changed, this, [&] { listed = c.keys().contains("a.b.x"); });
        const StoreView v(&c, QStringLiteral("a.b."));
        v.set("x", Value::integer(1));
        QVERIFY(listed);
        for (const char *key : {"y", "x", "!z", "y"})
            v.set(key, Value());
        QCOMPARE(c.keys(), (QStringList{"a.b.x", "a.b.y", "!z"}));
        QCOMPARE(c.size(), 3);
        const QList<std::pair<const char *, const char *>> keys{
            {"ms", "a.b.ms"}, {"!s", "!s"}, {"!", "!"}, {"", ""}, {"x!y", "a.b.x!y"}, {" !x", "a.b. !x"}};
        for (const auto &[local, full] : keys)
            QCOMPARE(v.full_key(local), QString::fromLatin1(full));
        QCOMPARE(StoreView(&c, QString()).full_key("language"), QStringLiteral("language"));

        const StoreView detached; // no collection: reads and writes do nothing
        detached.set("x", Value::integer(1));
        QVERIFY(detached.get("x").is_none());
    }

    // Two node types on one collection meet only at "!" keys.
    // Values change type through copies and moves; a large collection finds
    // its keys through an index and keeps their listing order.
    void copies_and_large_collections()
    {
        Value v = Value::string("text");
        const Value copy = v;
        v = Value::floating(2.5);
        QCOMPARE(copy.bytes(), QByteArray("text"));
        QVERIFY(v.bytes().isEmpty() && v.to_float() == 2.5);
        v = copy;
        Value moved = std::move(v);
        QCOMPARE(moved, copy);
        moved = Value::rack(QUuid::fromString(QStringLiteral("{00000000-0000-0000-0000-000000000001}")));
        QVERIFY(!moved.to_rack().isNull());

        PropertyCollection c;
        c.find_or_create("unlisted");
        const StoreView view(&c, QStringLiteral("p."));
        QStringList expected;
        for (int i = 39; i >= 0; --i) {
            view.set(QString::number(i), Value::integer(i));
            expected << QStringLiteral("p.%1").arg(i);
        }
        c.append_key("unlisted");
        expected << "unlisted";
        QCOMPARE(c.keys(), expected);
        QCOMPARE(c.size(), 41);
        for (int i = 0; i < 40; ++i)
            QCOMPARE(view.get(QString::number(i)), Value::integer(i));
        QVERIFY(!c.find("p.40"));
    }

    void absolute_keys_shared_between_prefixes()
    {
        PropertyCollection c;
        const StoreView one(&c, QStringLiteral("t.one."));
        const StoreView two(&c, QStringLiteral("t.two."));
        one.set("!shared", Value::integer(1));
        QCOMPARE(two.resolve("!shared"), one.resolve("!shared"));
        QSignalSpy spy(c.find("!shared"), &Property::value_changed);
        two.set("!shared", Value::integer(2));
        QCOMPARE(spy.count(), 1);
        QCOMPARE(one.get("!shared").to_int(), 2);
        one.set("x", Value::integer(10));
        QVERIFY(!two.has("x", ValueType::Int));
        QCOMPARE(c.size(), 2);
    }

    // Own full key; then "!key" for a plain key, or prefix + key-without-"!"
    // for an absolute one; then the parent view (with its own prefix).
    void resolution_data()
    {
        QTest::addColumn<QStringList>("child_keys");
        QTest::addColumn<QStringList>("parent_keys");
        QTest::addColumn<QString>("local");
        QTest::addColumn<QString>("expected"); // "-": nothing found
        const QStringList none;
        QTest::newRow("own before bang") << QStringList{"c.x", "!x"} << none << "x" << "c.x";
        QTest::newRow("plain falls back to bang") << QStringList{"!x"} << none << "x" << "!x";
        QTest::newRow("bang before prefixed") << QStringList{"!x", "c.x"} << none << "!x" << "!x";
        QTest::newRow("bang falls back to prefixed") << QStringList{"c.x"} << none << "!x" << "c.x";
        QTest::newRow("other prefix not seen") << QStringList{"d.x"} << none << "x" << "-";
        QTest::newRow("parent prefixed") << none << QStringList{"p.x"} << "x" << "p.x";
        QTest::newRow("parent for absolute") << none << QStringList{"p.x"} << "!x" << "p.x";
        QTest::newRow("child fallback first") << QStringList{"!x"} << QStringList{"p.x"} << "x" << "!x";
        QTest::newRow("parent uses own prefix") << none << QStringList{"c.x"} << "x" << "-";
        QTest::newRow("empty key, bang form") << QStringList{"!"} << none << "" << "!";
        QTest::newRow("null key has no bang form") << QStringList{"!"} << none << QString() << "-";
    }

    void resolution()
    {
        QFETCH(QStringList, child_keys);
        QFETCH(QStringList, parent_keys);
        QFETCH(QString, local);
        QFETCH(QString, expected);
        PropertyCollection child_store;
        PropertyCollection parent_store;
        fill(child_store, child_keys);
        fill(parent_store, parent_keys);
        const StoreView parent(&parent_store, QStringLiteral("p."));
        const StoreView child(&child_store, QStringLiteral("c."), &parent);
        const Property *p = child.resolve(local);
        QCOMPARE(p ? QString::fromUtf8(p->value().to_string()) : QStringLiteral("-"), expected);
        QCOMPARE(child.has(local, ValueType::String), p != nullptr);
        QVERIFY(!child.has(local, ValueType::Int)); // typed access never converts
        QCOMPARE(child.get(local).is_none(), p == nullptr);
    }

    // Writing forms the full key only: no fallback to "!" forms or the parent.
    void set_never_falls_back()
    {
        PropertyCollection parent_store;
        PropertyCollection child_store;
        fill(parent_store, {"p.x"});
        fill(child_store, {"!y", "c.z"});
        const StoreView parent(&parent_store, QStringLiteral("p."));
        const StoreView child(&child_store, QStringLiteral("c."), &parent);
        child.set("x", Value::integer(1));
        child.set("y", Value::integer(2));
        child.set("!z", Value::integer(3));
        for (const char *key : {"!y", "c.z"})
            QCOMPARE(child_store.find(key)->value().to_string(), QByteArray(key));
        QCOMPARE(child_store.keys(), (QStringList{"c.x", "c.y", "!z"}));
        QCOMPARE(child_store.find("!z")->value().to_int(), 3);
        QVERIFY(parent_store.keys().isEmpty());
        QCOMPARE(parent_store.find("p.x")->value().type(), ValueType::String);
    }
};

QTEST_GUILESS_MAIN(TstValue)
#include "tst_value.moc"
