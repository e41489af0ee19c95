// The JSON of MQTT payloads: what the reader accepts as an object and hands
// on as members, and that what the writer makes reads back the same.
#include "mqtt_json.h"

#include <QTest>

namespace {

void collect(void *user, const char *key, const char *value)
{
    static_cast<QStringList *>(user)->append(QString::fromUtf8(key) + u'=' +
                                             QString::fromUtf8(value));
}

} // namespace

class tst_MqttJson : public QObject {
    Q_OBJECT

private slots:
    void read_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QStringList>("members"); // {"-1"}: refused whole
        const QStringList refused{QStringLiteral("-1")};
        QTest::newRow("empty object") << QByteArray(" {\n} ") << QStringList{};
        QTest::newRow("strings unescaped")
            << QByteArray("{\"a\":\"x\\\"y\\\\z\\/\\n\\t\", \"b\" : \"\"}")
            << QStringList{"a=x\"y\\z/\n\t", "b="};
        QTest::newRow("other values as their text")
            << QByteArray("{\"n\":-1.5e3,\"t\":true,\"f\":false,\"z\":null,\"o\":{\"k\":[1,{\"x\":"
                          "\"}\"}]},\"l\":[]}")
            << QStringList{"n=-1.5e3", "t=true", "f=false", "z=null", "o={\"k\":[1,{\"x\":\"}\"}]}",
                           "l=[]"};
        QTest::newRow("unicode escapes") << QByteArray("{\"s\":\"\\u00e9\\ud83d\\ude00\\u0041\"}")
                                         << QStringList{QStringLiteral("s=é\U0001F600A")};
        QTest::newRow("lone surrogate and NUL become U+FFFD")
            << QByteArray("{\"s\":\"a\\ud800b\\u0000\"}")
            << QStringList{QStringLiteral("s=a\uFFFDb\uFFFD")};
        QTest::newRow("members in document order, duplicates kept")
            << QByteArray("{\"b\":\"1\",\"a\":\"2\",\"b\":\"3\"}")
            << QStringList{"b=1", "a=2", "b=3"};
        QTest::newRow("raw UTF-8 passes") << QByteArray("{\"k\xc3\xa9\":\"v\xe2\x82\xac\"}")
                                          << QStringList{QStringLiteral("ké=v€")};
        QTest::newRow("array") << QByteArray("[1,2]") << refused;
        QTest::newRow("plain text") << QByteArray("not json") << refused;
        QTest::newRow("nothing") << QByteArray("") << refused;
        QTest::newRow("cut off") << QByteArray("{\"a\":1,") << refused;
        QTest::newRow("cut inside a string") << QByteArray("{\"a\":\"abc") << refused;
        QTest::newRow("missing value") << QByteArray("{\"a\":}") << refused;
        QTest::newRow("bare key") << QByteArray("{a:1}") << refused;
        QTest::newRow("trailing comma") << QByteArray("{\"a\":1,}") << refused;
        QTest::newRow("text after the object") << QByteArray("{\"a\":1} x") << refused;
        QTest::newRow("two objects") << QByteArray("{}{}") << refused;
        QTest::newRow("bad escape") << QByteArray("{\"a\":\"\\x\"}") << refused;
        QTest::newRow("short unicode escape") << QByteArray("{\"a\":\"\\u12\"}") << refused;
        QTest::newRow("control character in a string") << QByteArray("{\"a\":\"x\ny\"}") << refused;
        QTest::newRow("leading zero") << QByteArray("{\"a\":01}") << refused;
        QTest::newRow("bare minus") << QByteArray("{\"a\":-}") << refused;
        QTest::newRow("dot without digits") << QByteArray("{\"a\":1.}") << refused;
        QTest::newRow("misspelt literal") << QByteArray("{\"a\":tru}") << refused;
        QTest::newRow("unclosed nested array") << QByteArray("{\"a\":[1,2}") << refused;
        QTest::newRow("NUL byte inside") << QByteArray("{\"a\":1}\0", 8) << refused;
        QTest::newRow("deep but allowed")
            << QByteArray("{\"a\":" + QByteArray(255, '[') + QByteArray(255, ']') + "}")
            << QStringList{"a=" + QString(255, u'[') + QString(255, u']')};
        QTest::newRow("too deep, without overflowing the stack")
            << QByteArray("{\"a\":" + QByteArray(1000000, '[') + QByteArray(1000000, ']') + "}")
            << refused;
    }

    void read()
    {
        QFETCH(QByteArray, text);
        QFETCH(QStringList, members);
        QStringList seen;
        const long count =
            mqtt_json_read_object(text.constData(), size_t(text.size()), collect, &seen);
        if (members == QStringList{QStringLiteral("-1")}) {
            QCOMPARE(count, -1L);
            QVERIFY(seen.isEmpty()); // nothing of a refused document gets out
        } else {
            QCOMPARE(seen, members);
            QCOMPARE(count, long(members.size()));
        }
    }

    // Whatever an event holds goes out as valid JSON and comes back unchanged.
    void write_reads_back_data()
    {
        QTest::addColumn<QStringList>("pairs"); // key, value, key, value ...
        QTest::addColumn<QByteArray>("json");
        QTest::newRow("none") << QStringList{} << QByteArray("{}");
        QTest::newRow("plain") << QStringList{"who", "me", "n", "3"}
                               << QByteArray("{\"who\":\"me\",\"n\":\"3\"}");
        QTest::newRow("quotes and backslashes")
            << QStringList{"a\"b", "c\\d"} << QByteArray("{\"a\\\"b\":\"c\\\\d\"}");
        QTest::newRow("control characters")
            << QStringList{"k", QStringLiteral("\n\r\t\b\f\x01\x1f")}
            << QByteArray("{\"k\":\"\\n\\r\\t\\b\\f\\u0001\\u001f\"}");
        QTest::newRow("unicode as it is")
            << QStringList{QStringLiteral("ké"), QStringLiteral("€ 😀")}
            << QByteArray("{\"k\xc3\xa9\":\"\xe2\x82\xac \xf0\x9f\x98\x80\"}");
        QTest::newRow("empty key and value") << QStringList{"", ""} << QByteArray("{\"\":\"\"}");
    }

    void write_reads_back()
    {
        QFETCH(QStringList, pairs);
        QFETCH(QByteArray, json);
        mqtt_buffer buffer = {};
        QStringList expected;
        mqtt_json_begin(&buffer);
        for (qsizetype i = 0; i + 1 < pairs.size(); i += 2) {
            mqtt_json_member(&buffer, pairs[i].toUtf8().constData(),
                             pairs[i + 1].toUtf8().constData());
            expected.append(pairs[i] + u'=' + pairs[i + 1]);
        }
        mqtt_json_end(&buffer);
        QVERIFY(!buffer.failed);
        const QByteArray written(buffer.data, qsizetype(buffer.size));
        mqtt_buffer_free(&buffer);
        QCOMPARE(written, json);
        QStringList seen;
        QCOMPARE(mqtt_json_read_object(written.constData(), size_t(written.size()), collect, &seen),
                 long(expected.size()));
        QCOMPARE(seen, expected);
    }
};

QTEST_GUILESS_MAIN(tst_MqttJson)
#include "tst_mqtt_json.moc"
