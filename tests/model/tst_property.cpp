#include "model/property.h"

#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>

#include <limits>

using corv::model::Property;
using corv::model::PropertyCollection;
using corv::model::StoreView;
using corv::model::Value;
using corv::model::ValueType;

namespace {
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Gives each listed full key a String property holding its own key, so a
// lookup shows which one it found.
void fill(PropertyCollection &c, const QStringList &keys)
{
    for (const QString &key : keys)
        c.find_or_create(key)->set(Value::string(key.toUtf8()));
}

QString found(const Property *p)
{
    return p ? QString::fromUtf8(p->value().to_string()) : QStringLiteral("<none>");
}
} // namespace

class TstProperty : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QTest::failOnWarning(QRegularExpression(QStringLiteral(".*"))); }

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
        QTest::newRow("string same") << Value::string("a") << Value::string("a") << 0;
        QTest::newRow("string longer") << Value::string("a") << Value::string("ab") << 1;
        QTest::newRow("color component")
            << Value::color({1, 1, 1}) << Value::color({1, 1, 0.5}) << 1;
        QTest::newRow("int to none") << Value::integer(1) << Value() << 1;
    }

    void change_notification()
    {
        QFETCH(Value, initial);
        QFETCH(Value, next);
        QFETCH(int, emits);

        Property p;
        p.set(initial);
        QSignalSpy spy(&p, &Property::value_changed);
        p.set(next);
        QCOMPARE(spy.count(), emits);
        QCOMPARE(p.value().type(), emits ? next.type() : initial.type());
    }

    void nan_set_twice_emits_twice()
    {
        Property p;
        QSignalSpy spy(&p, &Property::value_changed);
        p.set(Value::floating(kNaN));
        p.set(Value::floating(kNaN));
        QCOMPARE(spy.count(), 2);
    }

    void listener_reads_new_value()
    {
        Property p;
        p.set(Value::integer(1));
        qint32 seen = -1;
        connect(&p, &Property::value_changed, this, [&] { seen = p.value().to_int(); });
        p.set(Value::integer(2));
        QCOMPARE(seen, 2);
    }

    void find_never_creates()
    {
        PropertyCollection c;
        QVERIFY(!c.find(QStringLiteral("x")));
        QCOMPARE(c.size(), 0);
        Property *p = c.find_or_create(QStringLiteral("x"));
        QVERIFY(p);
        QVERIFY(p->value().is_none());
        QCOMPARE(c.find(QStringLiteral("x")), p);
        QCOMPARE(c.find_or_create(QStringLiteral("x")), p);
        QCOMPARE(c.size(), 1);
        // A read of a property is not a set: the key list is untouched.
        QVERIFY(c.keys().isEmpty());
    }

    void key_list_first_position_once()
    {
        PropertyCollection c;
        StoreView v(&c, QStringLiteral("a.b."));
        v.set(QStringLiteral("x"), Value::integer(1));
        v.set(QStringLiteral("y"), Value::integer(1));
        v.set(QStringLiteral("x"), Value::integer(2));
        v.set(QStringLiteral("!z"), Value::integer(1));
        v.set(QStringLiteral("y"), Value::integer(1)); // equal value, still a set
        v.set(QStringLiteral("x"), Value::string("now text"));
        const QStringList expected{QStringLiteral("a.b.x"), QStringLiteral("a.b.y"),
                                   QStringLiteral("!z")};
        QCOMPARE(c.keys(), expected);
    }

    // Setting None on a fresh key still lists it and creates the property.
    void set_none_lists_key()
    {
        PropertyCollection c;
        StoreView v(&c, QStringLiteral("t."));
        v.set(QStringLiteral("k"), Value());
        QCOMPARE(c.keys(), QStringList{QStringLiteral("t.k")});
        QVERIFY(c.find(QStringLiteral("t.k")));
    }

    // The key is listed before the value is stored, so a listener of the
    // change already finds it in the list.
    void key_listed_before_value_changes()
    {
        PropertyCollection c;
        Property *p = c.find_or_create(QStringLiteral("t.k"));
        bool listed = false;
        connect(p, &Property::value_changed, this,
                [&] { listed = c.keys().contains(QStringLiteral("t.k")); });
        StoreView(&c, QStringLiteral("t.")).set(QStringLiteral("k"), Value::integer(3));
        QVERIFY(listed);
    }

    void full_key_data()
    {
        QTest::addColumn<QString>("prefix");
        QTest::addColumn<QString>("local");
        QTest::addColumn<QString>("full");

        QTest::newRow("plain") << "io.marrowfield.delay." << "ms" << "io.marrowfield.delay.ms";
        QTest::newRow("absolute") << "io.marrowfield.delay." << "!shared" << "!shared";
        QTest::newRow("bare bang") << "a.b." << "!" << "!";
        QTest::newRow("empty key") << "a.b." << "" << "";
        QTest::newRow("bang inside") << "a.b." << "x!y" << "a.b.x!y";
        QTest::newRow("space before bang") << "a.b." << " !x" << "a.b. !x";
        QTest::newRow("no prefix") << "" << "language" << "language";
        QTest::newRow("no prefix, absolute") << "" << "!x" << "!x";
    }

    void full_key()
    {
        QFETCH(QString, prefix);
        QFETCH(QString, local);
        QFETCH(QString, full);
        PropertyCollection c;
        StoreView v(&c, prefix);
        QCOMPARE(v.full_key(local), full);
        v.set(local, Value::boolean(true));
        QCOMPARE(c.keys(), QStringList{full});
        QVERIFY(c.find(full));
        QCOMPARE(c.size(), 1);
    }

    // Two node types addressing one collection meet only at "!" keys.
    void absolute_keys_shared_between_prefixes()
    {
        PropertyCollection c;
        StoreView one(&c, QStringLiteral("t.one."));
        StoreView two(&c, QStringLiteral("t.two."));

        one.set(QStringLiteral("!shared"), Value::integer(1));
        QCOMPARE(two.resolve(QStringLiteral("!shared")), one.resolve(QStringLiteral("!shared")));
        QCOMPARE(two.get(QStringLiteral("!shared")).to_int(), 1);

        QSignalSpy spy(c.find(QStringLiteral("!shared")), &Property::value_changed);
        two.set(QStringLiteral("!shared"), Value::integer(2));
        QCOMPARE(spy.count(), 1);
        QCOMPARE(one.get(QStringLiteral("!shared")).to_int(), 2);

        one.set(QStringLiteral("x"), Value::integer(10));
        QVERIFY(!two.has(QStringLiteral("x"), ValueType::Int));
        QCOMPARE(c.size(), 2);
    }

    // Lookup order: own full key; then "!key" for a plain key or
    // prefix + key-without-"!" for an absolute one; then the parent view.
    void resolution_data()
    {
        QTest::addColumn<QStringList>("child_keys");
        QTest::addColumn<QStringList>("parent_keys");
        QTest::addColumn<QString>("local");
        QTest::addColumn<QString>("expected");

        const QStringList none;
        QTest::newRow("own before bang") << QStringList{"c.x", "!x"} << none << "x" << "c.x";
        QTest::newRow("plain falls back to bang") << QStringList{"!x"} << none << "x" << "!x";
        QTest::newRow("bang before prefixed") << QStringList{"!x", "c.x"} << none << "!x" << "!x";
        QTest::newRow("bang falls back to prefixed") << QStringList{"c.x"} << none << "!x" << "c.x";
        QTest::newRow("other prefix not seen") << QStringList{"d.x"} << none << "x" << "<none>";
        QTest::newRow("missing") << none << none << "x" << "<none>";
        QTest::newRow("parent prefixed") << none << QStringList{"p.x"} << "x" << "p.x";
        QTest::newRow("parent bang") << none << QStringList{"!x"} << "x" << "!x";
        QTest::newRow("parent for absolute") << none << QStringList{"p.x"} << "!x" << "p.x";
        QTest::newRow("child fallback before parent")
            << QStringList{"!x"} << QStringList{"p.x"} << "x" << "!x";
        QTest::newRow("parent uses own prefix")
            << none << QStringList{"c.x"} << "x" << "<none>";
        QTest::newRow("empty key") << QStringList{""} << none << "" << "";
        QTest::newRow("empty key, bang form") << QStringList{"!"} << none << "" << "!";
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
        QCOMPARE(found(child.resolve(local)), expected);
        QCOMPARE(child.has(local, ValueType::String), expected != QLatin1String("<none>"));
    }

    // A null key (a null C string) has no "!" form, unlike an empty one.
    void null_key_has_no_bang_form()
    {
        PropertyCollection c;
        fill(c, {QStringLiteral("!")});
        const StoreView v(&c, QStringLiteral("c."));
        QVERIFY(!v.resolve(QString()));
        QVERIFY(v.resolve(QStringLiteral("")));
    }

    // Writing forms the full key only: no fallback to "!" forms or the parent.
    void set_never_falls_back()
    {
        PropertyCollection parent_store;
        PropertyCollection child_store;
        fill(parent_store, {QStringLiteral("p.x")});
        fill(child_store, {QStringLiteral("!y"), QStringLiteral("c.z")});
        const StoreView parent(&parent_store, QStringLiteral("p."));
        const StoreView child(&child_store, QStringLiteral("c."), &parent);

        child.set(QStringLiteral("x"), Value::integer(1));
        child.set(QStringLiteral("y"), Value::integer(2));
        child.set(QStringLiteral("!z"), Value::integer(3));

        QCOMPARE(found(parent_store.find(QStringLiteral("p.x"))), QStringLiteral("p.x"));
        QCOMPARE(found(child_store.find(QStringLiteral("!y"))), QStringLiteral("!y"));
        QCOMPARE(found(child_store.find(QStringLiteral("c.z"))), QStringLiteral("c.z"));
        QCOMPARE(child_store.find(QStringLiteral("c.x"))->value().to_int(), 1);
        QCOMPARE(child_store.find(QStringLiteral("c.y"))->value().to_int(), 2);
        QCOMPARE(child_store.find(QStringLiteral("!z"))->value().to_int(), 3);
        const QStringList expected{QStringLiteral("c.x"), QStringLiteral("c.y"),
                                   QStringLiteral("!z")};
        QCOMPARE(child_store.keys(), expected);
        QVERIFY(parent_store.keys().isEmpty());
    }

    void typed_access_never_converts()
    {
        PropertyCollection c;
        const StoreView v(&c, QStringLiteral("t."));
        v.set(QStringLiteral("f"), Value::floating(3.0));
        QVERIFY(v.has(QStringLiteral("f"), ValueType::Float));
        QVERIFY(!v.has(QStringLiteral("f"), ValueType::Int));
        QCOMPARE(v.get(QStringLiteral("f")).to_int(), 0);
        QCOMPARE(v.get(QStringLiteral("f")).to_float(), 3.0);

        QVERIFY(!v.has(QStringLiteral("missing"), ValueType::None));
        QVERIFY(v.get(QStringLiteral("missing")).is_none());
    }

    void value_is_copied_in()
    {
        PropertyCollection c;
        const StoreView v(&c, QString());
        QByteArray text("before");
        v.set(QStringLiteral("s"), Value::string(text));
        text.replace("before", "after!");
        QCOMPARE(v.get(QStringLiteral("s")).to_string(), QByteArray("before"));
    }

    void view_without_collection()
    {
        const StoreView v;
        v.set(QStringLiteral("x"), Value::integer(1));
        QVERIFY(!v.resolve(QStringLiteral("x")));
        QVERIFY(v.get(QStringLiteral("x")).is_none());
    }
};

QTEST_GUILESS_MAIN(TstProperty)
#include "tst_property.moc"
