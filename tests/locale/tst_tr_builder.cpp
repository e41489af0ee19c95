#include "locale/c_api.h"
#include "locale/tr_builder.h"
#include "locale/translator.h"

#include <QFile>
#include <QLocale>
#include <QRegularExpression>
#include <QStringDecoder>
#include <QTemporaryDir>
#include <QTest>

#include <cmath>
#include <cstdlib>
#include <cstring>

using corv::locale::TrArg;
using corv::locale::TrBuilder;

namespace {

// Arguments written as "s:text", "null", "i:3", "pi:1", "f:1.5", "pf:nan".
void add_args(TrBuilder &builder, const QStringList &spec)
{
    for (const QString &item : spec) {
        const QString kind = item.section(QLatin1Char(':'), 0, 0);
        const QString value = item.section(QLatin1Char(':'), 1);
        const double real = value == QLatin1String("nan") ? std::nan("") : value.toDouble();
        if (kind == QLatin1String("s"))
            builder.add_string(QStringView(value));
        else if (kind == QLatin1String("null"))
            builder.add_string(static_cast<const char *>(nullptr));
        else if (kind == QLatin1String("i"))
            builder.add_int(value.toInt());
        else if (kind == QLatin1String("pi"))
            builder.add_plural_int(value.toInt());
        else if (kind == QLatin1String("f"))
            builder.add_float(real);
        else if (kind == QLatin1String("pf"))
            builder.add_plural_float(real);
        else
            QFAIL(qPrintable(QStringLiteral("bad argument spec ") + item));
    }
}

bool is_valid_utf8(QByteArrayView bytes)
{
    QStringDecoder decoder(QStringDecoder::Utf8);
    const QString text = decoder.decode(bytes);
    Q_UNUSED(text);
    return !decoder.hasError();
}

QByteArray repeated(const char *unit, int count)
{
    QByteArray out;
    for (int i = 0; i < count; ++i)
        out += unit;
    return out;
}

} // namespace

class TstTrBuilder : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    std::unique_ptr<corv::locale::Translator> m_tr;

private Q_SLOTS:
    void initTestCase()
    {
        QTest::failOnWarning(QRegularExpression(QStringLiteral(".*")));
        // The test runs under a German system locale (see CMakeLists.txt).
        QCOMPARE(QLocale::system().name(), QStringLiteral("de_DE"));

        QVERIFY(m_dir.isValid());
        QFile file(m_dir.filePath(QStringLiteral("en-US.ini")));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("Files.Count.%1 = %1 files\n"
                   "Files.Count.Singular = one file\n"
                   "Requires.%1.%2 = %2 needs %1 parts\n"
                   "Requires.Singular.%2 = %2 needs one part\n"
                   "Wait.%1 = wait %1 seconds\n"
                   "Wait.Singular = wait a second\n"
                   "Literal.%1 = \\\\%1 stays, %1 goes\n"
                   "Plain = plain text\n");
        file.close();
        m_tr = std::make_unique<corv::locale::Translator>("test", m_dir.path());
    }

    void singular_key_data()
    {
        QTest::addColumn<QByteArray>("key");
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QByteArray>("expected");

        QTest::newRow("plural int 1") << QByteArray("K.%1") << QStringList{"pi:1"} << QByteArray("K.Singular");
        QTest::newRow("plural int 2") << QByteArray("K.%1") << QStringList{"pi:2"} << QByteArray("K.%1");
        QTest::newRow("plural int 0") << QByteArray("K.%1") << QStringList{"pi:0"} << QByteArray("K.%1");
        QTest::newRow("plain int 1") << QByteArray("K.%1") << QStringList{"i:1"} << QByteArray("K.%1");
        QTest::newRow("plural float 1.0") << QByteArray("K.%1") << QStringList{"pf:1.0"} << QByteArray("K.Singular");
        QTest::newRow("plural float 1.5") << QByteArray("K.%1") << QStringList{"pf:1.5"} << QByteArray("K.%1");
        QTest::newRow("plural float NaN") << QByteArray("K.%1") << QStringList{"pf:nan"} << QByteArray("K.%1");
        QTest::newRow("plain float 1.0") << QByteArray("K.%1") << QStringList{"f:1"} << QByteArray("K.%1");
        QTest::newRow("first of two") << QByteArray("UpdateWindow.RequiresCaption.%1.%2")
                                      << QStringList{"pi:1", "s:x"}
                                      << QByteArray("UpdateWindow.RequiresCaption.Singular.%2");
        QTest::newRow("second of two") << QByteArray("K.%1.%2") << QStringList{"pi:5", "pf:1"}
                                       << QByteArray("K.%1.Singular");
        QTest::newRow("both") << QByteArray("K.%1.%2") << QStringList{"pi:1", "pf:1"}
                              << QByteArray("K.Singular.Singular");
        QTest::newRow("placeholder past the arguments") << QByteArray("K.%1.%3") << QStringList{"pi:1"}
                                                        << QByteArray("K.Singular.%3");
        QTest::newRow("two digits are one number") << QByteArray("K.%10") << QStringList{"pi:1"}
                                                   << QByteArray("K.%10");
        QTest::newRow("zero is no placeholder") << QByteArray("K.%0.%1") << QStringList{"pi:1"}
                                                << QByteArray("K.%0.Singular");
        QTest::newRow("backslash skips the percent") << QByteArray("K.\\%1.%1") << QStringList{"pi:1"}
                                                     << QByteArray("K.\\%1.Singular");
        QTest::newRow("key without placeholders") << QByteArray("Plain") << QStringList{"pi:1"}
                                                  << QByteArray("Plain");
        QTest::newRow("percent without digits") << QByteArray("K.%.%1") << QStringList{"pi:1"}
                                                << QByteArray("K.%.Singular");
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

        QTest::newRow("string") << QByteArray("Hello %1!") << QStringList{"s:World"} << QByteArray("Hello World!");
        QTest::newRow("reordered") << QByteArray("%2 %1") << QStringList{"s:a", "s:b"} << QByteArray("b a");
        QTest::newRow("used twice") << QByteArray("%1%1") << QStringList{"s:ab"} << QByteArray("abab");
        QTest::newRow("%3 with two arguments") << QByteArray("%1 %2 %3") << QStringList{"s:a", "s:b"}
                                               << QByteArray("a b %3");
        QTest::newRow("%0 stays") << QByteArray("%0") << QStringList{"s:a"} << QByteArray("%0");
        QTest::newRow("%12 with two arguments") << QByteArray("%12") << QStringList{"s:a", "s:b"}
                                                << QByteArray("%12");
        QTest::newRow("%10 with ten arguments")
            << QByteArray("%10") << QStringList{"s:1", "s:2", "s:3", "s:4", "s:5", "s:6", "s:7", "s:8", "s:9", "s:ten"}
            << QByteArray("ten");
        QTest::newRow("bare percent") << QByteArray("100% sure") << QStringList{"s:a"} << QByteArray("100% sure");
        QTest::newRow("percent at the end") << QByteArray("50%") << QStringList{} << QByteArray("50%");
        QTest::newRow("escaped percent") << QByteArray("\\%1 is %1") << QStringList{"s:x"} << QByteArray("%1 is x");
        QTest::newRow("escaped backslash") << QByteArray("a\\\\b") << QStringList{} << QByteArray("a\\b");
        QTest::newRow("escaped letter") << QByteArray("\\n") << QStringList{} << QByteArray("n");
        QTest::newRow("backslash at the end") << QByteArray("ab\\") << QStringList{} << QByteArray("ab");
        QTest::newRow("null string") << QByteArray("[%1]") << QStringList{"null"} << QByteArray("[]");
        QTest::newRow("placeholder in argument is not expanded") << QByteArray("%1") << QStringList{"s:%1"}
                                                                 << QByteArray("%1");
        QTest::newRow("int with group separators") << QByteArray("%1") << QStringList{"i:1234567"}
                                                   << QByteArray("1.234.567");
        QTest::newRow("negative int") << QByteArray("%1") << QStringList{"i:-42"} << QByteArray("-42");
        QTest::newRow("plural int like int") << QByteArray("%1") << QStringList{"pi:2500"} << QByteArray("2.500");
        QTest::newRow("float, six digits") << QByteArray("%1") << QStringList{"f:3.14159265"}
                                           << QByteArray("3,14159");
        QTest::newRow("float, integral") << QByteArray("%1 s") << QStringList{"f:2"} << QByteArray("2 s");
        QTest::newRow("float, exponent") << QByteArray("%1") << QStringList{"f:1e20"} << QByteArray("1E+20");
        QTest::newRow("plural float like float") << QByteArray("%1") << QStringList{"pf:0.5"} << QByteArray("0,5");
        QTest::newRow("utf-8 text") << QByteArray("Gr\xC3\xBC\xC3\x9F" "e, %1") << QStringList{"s:Welt"}
                                    << QByteArray("Gr\xC3\xBC\xC3\x9F" "e, Welt");
    }

    void format()
    {
        QFETCH(QByteArray, text);
        QFETCH(QStringList, args);
        QFETCH(QByteArray, expected);
        TrBuilder builder(nullptr, "");
        add_args(builder, args);
        QCOMPARE(corv::locale::format_text(text, builder.args()), expected);
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
        QTest::newRow("two-byte characters") << repeated("\xC3\xA9", 200) << 254;
        QTest::newRow("three-byte characters fit") << repeated("\xE2\x82\xAC", 100) << 255;
        QTest::newRow("four-byte characters") << repeated("\xF0\x9F\x98\x80", 70) << 252;
        QTest::newRow("last character straddles") << QByteArray(254, 'a') + "\xC3\xA9" << 254;
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

        QCOMPARE(int(std::strlen(buffer)), expected_length);
        QCOMPARE(QByteArray(buffer), text.left(expected_length));
        QVERIFY(is_valid_utf8(QByteArrayView(buffer, expected_length)));
        for (std::size_t i = corv::locale::kTextBufferSize; i < sizeof buffer; ++i)
            QCOMPARE(buffer[i], '\x7F');

        // The growing buffer has no limit.
        QCOMPARE(builder.text(), text);
    }

    void c_functions_look_up_and_format()
    {
        const corv::locale::Translator *tr = m_tr.get();
        QCOMPARE(corv::locale::plugin_tr(tr, "Plain"), "plain text");
        QCOMPARE(corv::locale::plugin_tr(tr, nullptr), "");
        QCOMPARE(corv::locale::plugin_tr(nullptr, "Plain"), "Plain");

        char *text = corv::locale::plugin_tr_plural(tr, "Files.Count.%1", 1);
        QCOMPARE(text, "one file");
        std::free(text);
        text = corv::locale::plugin_tr_plural(tr, "Files.Count.%1", 1200);
        QCOMPARE(text, "1.200 files");
        std::free(text);

        char buffer[corv::locale::kTextBufferSize];
        corv::locale::plugin_tr_plural_str(tr, "Files.Count.%1", 0, buffer);
        QCOMPARE(buffer, "0 files");

        using namespace corv::locale;
        text = tr_end(tr_str(tr_int_plural(plugin_tr_arg(tr, "Requires.%1.%2"), 1), "Engine"));
        QCOMPARE(text, "Engine needs one part");
        std::free(text);
        tr_end_str(tr_str(tr_int(plugin_tr_arg(tr, "Requires.%1.%2"), 1), "Engine"), buffer);
        QCOMPARE(buffer, "Engine needs 1 parts"); // a plain int never selects the singular
        tr_end_str(tr_float_plural(plugin_tr_arg(tr, "Wait.%1"), 1.0), buffer);
        QCOMPARE(buffer, "wait a second");
        tr_end_str(tr_float_plural(plugin_tr_arg(tr, "Wait.%1"), 1.5), buffer);
        QCOMPARE(buffer, "wait 1,5 seconds");
        tr_end_str(tr_float(plugin_tr_arg(tr, "Wait.%1"), 0.25), buffer);
        QCOMPARE(buffer, "wait 0,25 seconds");
        tr_end_str(tr_str(plugin_tr_arg(tr, "Literal.%1"), "x"), buffer);
        QCOMPARE(buffer, "%1 stays, x goes");

        QCOMPARE(m_tr->translate("Requires.%1.%2", corv::locale::plural(1), QStringLiteral("Engine")),
                 QStringLiteral("Engine needs one part"));
        QCOMPARE(m_tr->translate("Requires.%1.%2", corv::locale::plural(3), "Engine"),
                 QStringLiteral("Engine needs 3 parts"));
    }

    void missing_key_shows_the_looked_up_key()
    {
        using namespace corv::locale;
        char buffer[kTextBufferSize];
        QTest::ignoreMessage(QtWarningMsg, "test locale: Gone.Singular = ??");
        tr_end_str(tr_int_plural(plugin_tr_arg(m_tr.get(), "Gone.%1"), 1), buffer);
        QCOMPARE(buffer, "Gone.Singular");
        QTest::ignoreMessage(QtWarningMsg, "test locale: Gone.%1 = ??");
        tr_end_str(tr_int_plural(plugin_tr_arg(m_tr.get(), "Gone.%1"), 2), buffer);
        QCOMPARE(buffer, "Gone.2");
    }

    void c_functions_tolerate_null()
    {
        using namespace corv::locale;
        QVERIFY(!tr_str(nullptr, "x"));
        QVERIFY(!tr_int_plural(nullptr, 1));
        char *text = tr_end(nullptr);
        QVERIFY(text);
        QCOMPARE(text, "");
        std::free(text);

        char buffer[kTextBufferSize] = "junk";
        tr_end_str(nullptr, buffer);
        QCOMPARE(buffer, "");

        // A null key formats as nothing, without a lookup or a warning.
        text = tr_end(tr_str(plugin_tr_arg(m_tr.get(), nullptr), "x"));
        QCOMPARE(text, "");
        std::free(text);
        tr_end_str(plugin_tr_arg(m_tr.get(), "Plain"), nullptr); // frees, writes nothing
    }
};

QTEST_GUILESS_MAIN(TstTrBuilder)
#include "tst_tr_builder.moc"
