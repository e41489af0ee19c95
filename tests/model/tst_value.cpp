#include "model/value.h"

#include <QRegularExpression>
#include <QTest>

#include <cmath>
#include <limits>

using corv::model::Color;
using corv::model::Value;
using corv::model::ValueType;
using corv::model::Vec2;
using corv::model::Vec3;

namespace {
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

QByteArray bytes(const char *data, qsizetype size)
{
    return QByteArray(data, size);
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

        const QUuid id1 = QUuid::createUuid();
        const QUuid id2 = QUuid::createUuid();

        QTest::newRow("none/none") << Value() << Value() << true;
        QTest::newRow("none/int 0") << Value() << Value::integer(0) << false;
        QTest::newRow("none/empty string") << Value() << Value::string({}) << false;
        QTest::newRow("none/null rack") << Value() << Value::rack(QUuid()) << false;

        QTest::newRow("bool false/int 0") << Value::boolean(false) << Value::integer(0) << false;
        QTest::newRow("bool true/int 1") << Value::boolean(true) << Value::integer(1) << false;
        QTest::newRow("int 1/float 1") << Value::integer(1) << Value::floating(1.0) << false;
        QTest::newRow("vec3/color same parts")
            << Value::vec3({1, 2, 3}) << Value::color({1, 2, 3}) << false;
        QTest::newRow("vec2/vec3 zero") << Value::vec2({}) << Value::vec3({}) << false;

        QTest::newRow("string/buffer same bytes")
            << Value::string("abc") << Value::buffer("abc") << false;
        QTest::newRow("string same") << Value::string("abc") << Value::string("abc") << true;
        QTest::newRow("string case") << Value::string("A") << Value::string("a") << false;
        QTest::newRow("string null/empty")
            << Value::string(QByteArray()) << Value::string(QByteArray("")) << true;
        QTest::newRow("string differs after NUL")
            << Value::string(bytes("a\0b", 3)) << Value::string(bytes("a\0c", 3)) << false;
        QTest::newRow("string prefix up to NUL")
            << Value::string(bytes("a\0b", 3)) << Value::string("a") << false;
        QTest::newRow("string utf8 vs latin1")
            << Value::string("\xc3\xa9") << Value::string("\xe9") << false;
        QTest::newRow("buffer same binary")
            << Value::buffer(bytes("\0\xff\x01", 3)) << Value::buffer(bytes("\0\xff\x01", 3))
            << true;
        QTest::newRow("buffer trailing NUL")
            << Value::buffer(bytes("ab\0", 3)) << Value::buffer("ab") << false;

        QTest::newRow("bool same") << Value::boolean(true) << Value::boolean(true) << true;
        QTest::newRow("bool differ") << Value::boolean(true) << Value::boolean(false) << false;
        QTest::newRow("int min") << Value::integer(std::numeric_limits<qint32>::min())
                                 << Value::integer(std::numeric_limits<qint32>::min()) << true;
        QTest::newRow("int sign") << Value::integer(-1) << Value::integer(1) << false;

        QTest::newRow("float NaN") << Value::floating(kNaN) << Value::floating(kNaN) << false;
        QTest::newRow("float -0/+0") << Value::floating(-0.0) << Value::floating(0.0) << true;
        QTest::newRow("float no tolerance")
            << Value::floating(0.1 + 0.2) << Value::floating(0.3) << false;
        QTest::newRow("float inf") << Value::floating(INFINITY) << Value::floating(INFINITY)
                                   << true;
        QTest::newRow("vec2 swapped") << Value::vec2({1, 2}) << Value::vec2({2, 1}) << false;
        QTest::newRow("vec2 NaN y") << Value::vec2({1, kNaN}) << Value::vec2({1, kNaN}) << false;
        QTest::newRow("vec2 signed zeros")
            << Value::vec2({-0.0, 0.0}) << Value::vec2({0.0, -0.0}) << true;
        QTest::newRow("vec3 differs in z")
            << Value::vec3({1, 2, 3}) << Value::vec3({1, 2, 4}) << false;
        QTest::newRow("vec3 same") << Value::vec3({1, 2, 3}) << Value::vec3({1, 2, 3}) << true;
        QTest::newRow("color differs in blue")
            << Value::color({0.5, 0.5, 0.5}) << Value::color({0.5, 0.5, 0.25}) << false;
        QTest::newRow("color NaN blue")
            << Value::color({0, 0, kNaN}) << Value::color({0, 0, kNaN}) << false;
        QTest::newRow("color out of range kept")
            << Value::color({-2, 300, 1e9}) << Value::color({-2, 300, 1e9}) << true;

        QTest::newRow("rack same") << Value::rack(id1) << Value::rack(id1) << true;
        QTest::newRow("rack differ") << Value::rack(id1) << Value::rack(id2) << false;
        QTest::newRow("rack null") << Value::rack(QUuid()) << Value::rack(QUuid()) << true;
    }

    void equality()
    {
        QFETCH(Value, a);
        QFETCH(Value, b);
        QFETCH(bool, equal);
        QCOMPARE(a == b, equal);
        QCOMPARE(b == a, equal);
        QCOMPARE(a != b, !equal);
    }

    void nan_unequal_to_itself()
    {
        const Value v = Value::vec3({0, kNaN, 0});
        QVERIFY(!(v == v));
        const Value copy = v;
        QVERIFY(copy != v);
    }

    // Asking for another type than the tag gives that type's zero value, never
    // a conversion.
    void getters_zero_on_mismatch_data()
    {
        QTest::addColumn<Value>("value");
        QTest::newRow("none") << Value();
        QTest::newRow("string") << Value::string("7");
        QTest::newRow("bool") << Value::boolean(true);
        QTest::newRow("int") << Value::integer(7);
        QTest::newRow("float") << Value::floating(7.5);
        QTest::newRow("vec2") << Value::vec2({7, 8});
        QTest::newRow("vec3") << Value::vec3({7, 8, 9});
        QTest::newRow("color") << Value::color({7, 8, 9});
        QTest::newRow("buffer") << Value::buffer("7");
        QTest::newRow("rack") << Value::rack(QUuid::createUuid());
    }

    void getters_zero_on_mismatch()
    {
        QFETCH(Value, value);
        const ValueType t = value.type();
        if (t != ValueType::String)
            QVERIFY(value.to_string().isEmpty());
        if (t != ValueType::Bool)
            QCOMPARE(value.to_bool(), false);
        if (t != ValueType::Int)
            QCOMPARE(value.to_int(), 0);
        if (t != ValueType::Float)
            QCOMPARE(value.to_float(), 0.0);
        if (t != ValueType::Vec2) {
            QCOMPARE(value.to_vec2().x, 0.0);
            QCOMPARE(value.to_vec2().y, 0.0);
        }
        if (t != ValueType::Vec3) {
            const Vec3 v = value.to_vec3();
            QVERIFY(v.x == 0 && v.y == 0 && v.z == 0);
        }
        if (t != ValueType::Color) {
            const Color c = value.to_color();
            QVERIFY(c.red == 0 && c.green == 0 && c.blue == 0);
        }
        if (t != ValueType::Buffer)
            QVERIFY(value.to_buffer().isEmpty());
        if (t != ValueType::Rack)
            QVERIFY(value.to_rack().isNull());
        if (t != ValueType::String && t != ValueType::Buffer)
            QVERIFY(value.bytes().isEmpty());
    }

    void getters_return_payload()
    {
        QCOMPARE(Value::string(bytes("a\0b", 3)).to_string(), bytes("a\0b", 3));
        QCOMPARE(Value::buffer(bytes("\0\1", 2)).to_buffer(), bytes("\0\1", 2));
        QCOMPARE(Value::boolean(true).to_bool(), true);
        QCOMPARE(Value::integer(-42).to_int(), -42);
        QCOMPARE(Value::floating(-2.5).to_float(), -2.5);
        const Vec3 v = Value::vec3({1, 2, 3}).to_vec3();
        QVERIFY(v.x == 1 && v.y == 2 && v.z == 3);
        const Color c = Value::color({0.25, 0.5, 0.75}).to_color();
        QVERIFY(c.red == 0.25 && c.green == 0.5 && c.blue == 0.75);
        const Vec2 w = Value::vec2({-1, 1}).to_vec2();
        QVERIFY(w.x == -1 && w.y == 1);
        const QUuid id = QUuid::createUuid();
        QCOMPARE(Value::rack(id).to_rack(), id);
    }

    void default_is_none()
    {
        const Value v;
        QVERIFY(v.is_none());
        QCOMPARE(v.type(), ValueType::None);
    }

    // Changing the caller's bytes afterwards must not reach into the value.
    void bytes_are_not_shared_with_caller()
    {
        QByteArray source("abc");
        const Value v = Value::string(source);
        source[0] = 'x';
        QCOMPARE(v.to_string(), QByteArray("abc"));

        Value copy = v;
        copy = Value::buffer("zzz");
        QCOMPARE(v.to_string(), QByteArray("abc"));
    }

    // The type names are the file format's; the tag numbers are the SDK's.
    void type_names_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<int>("tag");
        QTest::newRow("string") << QStringLiteral("string") << 1;
        QTest::newRow("bool") << QStringLiteral("bool") << 2;
        QTest::newRow("int") << QStringLiteral("int") << 3;
        QTest::newRow("float") << QStringLiteral("float") << 4;
        QTest::newRow("vec2") << QStringLiteral("vec2") << 5;
        QTest::newRow("vec3") << QStringLiteral("vec3") << 6;
        QTest::newRow("color") << QStringLiteral("color") << 7;
        QTest::newRow("buffer") << QStringLiteral("buffer") << 8;
        QTest::newRow("rack") << QStringLiteral("rack") << 9;
    }

    void type_names()
    {
        QFETCH(QString, name);
        QFETCH(int, tag);
        const ValueType type = corv::model::type_from_name(name);
        QCOMPARE(int(type), tag);
        QCOMPARE(QString(corv::model::type_name(type)), name);
    }

    void unknown_type_names()
    {
        using corv::model::type_from_name;
        QCOMPARE(type_from_name(u""), ValueType::None);
        QCOMPARE(type_from_name(u"Int"), ValueType::None);
        QCOMPARE(type_from_name(u"none"), ValueType::None);
        QCOMPARE(type_from_name(u"integer"), ValueType::None);
        QVERIFY(corv::model::type_name(ValueType::None).isEmpty());
        QVERIFY(corv::model::type_name(static_cast<ValueType>(200)).isEmpty());
    }
};

QTEST_GUILESS_MAIN(TstValue)
#include "tst_value.moc"
