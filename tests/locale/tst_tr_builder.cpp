// Singular keys, argument formatting under a German system locale, the
// 255-byte caller buffer, and the C functions of the SDK over a translator.

#include "locale/c_api.h"
#include "locale/tr_builder.h"
#include "locale/translator.h"
#include "tests/test_files.h"

#include <QFile>
#include <QLocale>
#include <QRegularExpression>
#include <QStringDecoder>
#include <QTemporaryDir>
#include <QTest>

#include <cmath>
#include <cstdlib>
#include <cstring>

using namespace corv::locale;

namespace {

// Arguments written as "s:text", "null", "i:3", "pi:1", "f:1.5", "pf:nan".
void add_args(TrBuilder &builder, const QStringList &written)
{
    for (const QString &item : written) {
        const QString kind = item.section(u':', 0, 0);
        const QString value = item.section(u':', 1);
        const double real = value == QLatin1String("nan") ? std::nan("") : value.toDouble();
        if (kind == QLatin1String("s"))
            builder.add_string(QStringView(value));
        else if (kind == QLatin1String("null"))
            builder.add_string(static_cast<const char *>(nullptr));
        else if (kind == QLatin1String("i") || kind == QLatin1String("pi"))
            kind.size() == 1 ? builder.add_int(value.toInt()) : builder.add_plural_int(value.toInt());
        else
            kind.size() == 1 ? builder.add_float(real) : builder.add_plural_float(real);
    }
}

// Ends a builder into a caller buffer.
QByteArray end_str(TrBuilder *builder)
{
    char buffer[kTextBufferSize] = "junk";
    tr_end_str(builder, buffer);
    return buffer;
}

} // namespace

class TstTrBuilder : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    std::unique_ptr<Translator> m_tr;

private Q_SLOTS:
    void initTestCase()
    {
        QTest::failOnWarning(QRegularExpression(QStringLiteral(".*")));
        // The test runs under a German system locale (see main()).
        QCOMPARE(QLocale::system().name(), QStringLiteral("de_DE"));
        corv::test::write_file(m_dir.filePath(QStringLiteral("en-US.ini")),
                               "Files.Count.%1 = %1 files\nFiles.Count.Singular = one file\n"
                               "Requires.%1.%2 = %2 needs %1 parts\nRequires.Singular.%2 = %2 needs one part\n"
                               "Wait.%1 = wait %1 seconds\nWait.Singular = wait a second\n"
                               "Plain = plain text\n");
        m_tr = std::make_unique<Translator>("test", m_dir.path());
    }

    // A plural argument equal to 1 (int or float) turns its "%N" into "Singular".
    void singular_key_data()
    {
        QTest::addColumn<QByteArray>("key");
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QByteArray>("expected");
        const auto row = [](const char *name, const char *key, const QStringList &args, const char *expected) {
            QTest::newRow(name) << QByteArray(key) << args << QByteArray(expected);
        };
        row("plural int 1", "K.%1", {"pi:1"}, "K.Singular");
        row("plural int 2", "K.%1", {"pi:2"}, "K.%1");
        row("plural int 0", "K.%1", {"pi:0"}, "K.%1");
        row("plain int 1", "K.%1", {"i:1"}, "K.%1");
        row("plural float 1.0", "K.%1", {"pf:1.0"}, "K.Singular");
        row("plural float 1.5", "K.%1", {"pf:1.5"}, "K.%1");
        row("plural float NaN", "K.%1", {"pf:nan"}, "K.%1");
        row("plain float 1.0", "K.%1", {"f:1"}, "K.%1");
        row("first of two", "U.%1.%2", {"pi:1", "s:x"}, "U.Singular.%2");
        row("second of two", "K.%1.%2", {"pi:5", "pf:1"}, "K.%1.Singular");
        row("both", "K.%1.%2", {"pi:1", "pf:1"}, "K.Singular.Singular");
        row("placeholder past the arguments", "K.%1.%3", {"pi:1"}, "K.Singular.%3");
        row("two digits are one number", "K.%10", {"pi:1"}, "K.%10");
        row("zero is no placeholder", "K.%0.%1", {"pi:1"}, "K.%0.Singular");
        row("backslash skips the percent", "K.\\%1.%1", {"pi:1"}, "K.\\%1.Singular");
        row("percent without digits", "K.%.%1", {"pi:1"}, "K.%.Singular");
    }

    void singular_key()
    {
        QFETCH(QByteArray, key);
        QFETCH(QStringList, args);
        QFETCH(QByteArray, expected);
        TrBuilder builder(nullptr, key.constData());
        add_args(builder, args);
        QCOMPARE(builder.lookup_key(), expected);
    }

    void format_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QByteArray>("expected");
        const auto row = [](const char *name, const char *text, const QStringList &args, const char *expected) {
            QTest::newRow(name) << QByteArray(text) << args << QByteArray(expected);
        };
        row("reordered and used twice", "%2 %1%1!", {"s:a", "s:b"}, "b aa!");
        row("%3 with two arguments", "%1 %2 %3", {"s:a", "s:b"}, "a b %3");
        row("%0 stays", "%0", {"s:a"}, "%0");
        row("%12 with two arguments", "%12", {"s:a", "s:b"}, "%12");
        row("%10 with ten arguments", "%10", {"s:1", "s:2", "s:3", "s:4", "s:5", "s:6", "s:7", "s:8", "s:9", "s:ten"},
            "ten");
        row("bare percents", "100% sure, 50%", {"s:a"}, "100% sure, 50%");
        row("escaped percent", "\\%1 is %1", {"s:x"}, "%1 is x");
        row("escaped backslash and letter", "a\\\\b\\n", {}, "a\\bn");
        row("backslash at the end", "ab\\", {}, "ab");
        row("null string", "[%1]", {"null"}, "[]");
        row("placeholder in argument is not expanded", "%1", {"s:%1"}, "%1");
        row("int with group separators", "%1 %2", {"i:1234567", "i:-42"}, "1.234.567 -42");
        row("plural int like int", "%1", {"pi:2500"}, "2.500");
        row("float, six digits", "%1", {"f:3.14159265"}, "3,14159");
        row("float, integral", "%1 s", {"f:2"}, "2 s");
        row("float, exponent", "%1", {"f:1e20"}, "1E+20");
        row("plural float like float", "%1", {"pf:0.5"}, "0,5");
        row("utf-8 text", "Gr\xC3\xBC\xC3\x9F" "e, %1", {"s:Welt"}, "Gr\xC3\xBC\xC3\x9F" "e, Welt");
    }

    void format()
    {
        QFETCH(QByteArray, text);
        QFETCH(QStringList, args);
        QFETCH(QByteArray, expected);
        TrBuilder builder(nullptr, "");
        add_args(builder, args);
        QCOMPARE(format_text(text, builder.args()), expected);
    }

    // The caller's buffer holds at most 255 bytes and a NUL; a character that
    // would not fit whole is left out, so the text stays valid UTF-8.
    void caller_buffer_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<int>("expected_length");
        QTest::newRow("short") << QByteArray("short") << 5;
        QTest::newRow("exactly 255") << QByteArray(255, 'a') << 255;
        QTest::newRow("ascii over") << QByteArray(300, 'a') << 255;
        QTest::newRow("two-byte characters") << QByteArray("\xC3\xA9").repeated(200) << 254;
        QTest::newRow("three-byte characters fit") << QByteArray("\xE2\x82\xAC").repeated(100) << 255;
        QTest::newRow("four-byte characters") << QByteArray("\xF0\x9F\x98\x80").repeated(70) << 252;
        QTest::newRow("three-byte straddles") << QByteArray(253, 'a') + "\xE2\x82\xAC" << 253;
        QTest::newRow("two-byte ends at 255") << QByteArray(253, 'a') + "\xC3\xA9" "b" << 255;
    }

    void caller_buffer()
    {
        QFETCH(QByteArray, text);
        QFETCH(int, expected_length);
        char buffer[300];
        std::memset(buffer, 0x7F, sizeof buffer);
        TrBuilder builder(nullptr, "%1");
        builder.add_string(QByteArrayView(text));
        builder.write_to(buffer);
        QCOMPARE(QByteArray(buffer), text.left(expected_length));
        QStringDecoder decoder(QStringDecoder::Utf8);
        (void)decoder.decode(QByteArrayView(buffer, expected_length));
        QVERIFY(!decoder.hasError());
        QCOMPARE(QByteArray(buffer + kTextBufferSize, sizeof buffer - kTextBufferSize),
                 QByteArray(sizeof buffer - kTextBufferSize, '\x7F'));
        QCOMPARE(builder.text(), text); // the growing buffer has no limit
    }

    void c_functions_look_up_and_format()
    {
        const Translator *tr = m_tr.get();
        QCOMPARE(plugin_tr(tr, "Plain"), "plain text");
        QCOMPARE(plugin_tr(tr, nullptr), "");
        QCOMPARE(plugin_tr(nullptr, "Plain"), "Plain");
        char *text = plugin_tr_plural(tr, "Files.Count.%1", 1);
        QCOMPARE(text, "one file");
        std::free(text);
        text = plugin_tr_plural(tr, "Files.Count.%1", 1200);
        QCOMPARE(text, "1.200 files");
        std::free(text);
        char buffer[kTextBufferSize];
        plugin_tr_plural_str(tr, "Files.Count.%1", 0, buffer);
        QCOMPARE(buffer, "0 files");
        text = tr_end(tr_str(tr_int_plural(plugin_tr_arg(tr, "Requires.%1.%2"), 1), "Engine"));
        QCOMPARE(text, "Engine needs one part");
        std::free(text);
        // A plain int never selects the singular.
        QCOMPARE(end_str(tr_str(tr_int(plugin_tr_arg(tr, "Requires.%1.%2"), 1), "Engine")), "Engine needs 1 parts");
        QCOMPARE(end_str(tr_float_plural(plugin_tr_arg(tr, "Wait.%1"), 1.0)), "wait a second");
        QCOMPARE(end_str(tr_float(plugin_tr_arg(tr, "Wait.%1"), 0.25)), "wait 0,25 seconds");
        QCOMPARE(m_tr->translate("Requires.%1.%2", plural(1), QStringLiteral("Engine")),
                 QStringLiteral("Engine needs one part"));
        QCOMPARE(m_tr->translate("Requires.%1.%2", plural(3), "Engine"), QStringLiteral("Engine needs 3 parts"));

        // A missing key shows the key looked up.
        QTest::ignoreMessage(QtWarningMsg, "test locale: Gone.Singular = ??");
        QCOMPARE(end_str(tr_int_plural(plugin_tr_arg(tr, "Gone.%1"), 1)), "Gone.Singular");
        QTest::ignoreMessage(QtWarningMsg, "test locale: Gone.%1 = ??");
        QCOMPARE(end_str(tr_int_plural(plugin_tr_arg(tr, "Gone.%1"), 2)), "Gone.2");
    }

    void c_functions_tolerate_null()
    {
        QVERIFY(!tr_str(nullptr, "x"));
        QVERIFY(!tr_int_plural(nullptr, 1));
        char *text = tr_end(nullptr);
        QCOMPARE(text, "");
        std::free(text);
        QCOMPARE(end_str(nullptr), "");
        // A null key formats as nothing, without a lookup or a warning.
        text = tr_end(tr_str(plugin_tr_arg(m_tr.get(), nullptr), "x"));
        QCOMPARE(text, "");
        std::free(text);
        tr_end_str(plugin_tr_arg(m_tr.get(), "Plain"), nullptr); // frees, writes nothing
    }
};

// The test runs under a German system locale, set here so that it does so on
// its own as well as under CTest.
int main(int argc, char **argv)
{
    qputenv("LC_ALL", "de_DE.UTF-8");
    qputenv("LANG", "de_DE.UTF-8");
    QCoreApplication app(argc, argv);
    TstTrBuilder test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_tr_builder.moc"
