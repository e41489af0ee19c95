#include "locale/locale_file.h"
#include "locale/translator.h"

#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

using corv::locale::LocaleFileItem;

namespace {
// Items written as "[section]" or "key => value", so a table row reads like
// the file it came from.
QByteArrayList describe(const QList<LocaleFileItem> &items)
{
    QByteArrayList out;
    for (const LocaleFileItem &item : items) {
        if (item.kind == LocaleFileItem::Kind::Section)
            out.append('[' + item.name + ']');
        else
            out.append(item.name + " => " + item.value);
    }
    return out;
}
} // namespace

class TstLocaleFile : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QTest::failOnWarning(QRegularExpression(QStringLiteral(".*"))); }

    void lines_data()
    {
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<QByteArrayList>("expected");

        QTest::newRow("comments") << QByteArray("# one\n; two\n \t# indented\nk=v\n")
                                  << QByteArrayList{"k => v"};
        QTest::newRow("blanks around key and value") << QByteArray("  key \t=  \tsome value \t\n")
                                                     << QByteArrayList{"key => some value"};
        QTest::newRow("crlf") << QByteArray("a = 1\r\nb = 2\r\n") << QByteArrayList{"a => 1", "b => 2"};
        QTest::newRow("no final line end") << QByteArray("a = 1") << QByteArrayList{"a => 1"};
        QTest::newRow("byte order mark") << QByteArray("\xEF\xBB\xBF" "a = 1") << QByteArrayList{"a => 1"};
        QTest::newRow("line without equals is ignored") << QByteArray("just words\nk = v")
                                                        << QByteArrayList{"k => v"};
        QTest::newRow("empty value") << QByteArray("k =\n") << QByteArrayList{"k => "};
        QTest::newRow("empty key") << QByteArray("= v\n") << QByteArrayList{" => v"};
        QTest::newRow("equals in value") << QByteArray("k = a = b\n") << QByteArrayList{"k => a = b"};
        QTest::newRow("quote inside a plain value") << QByteArray("k = say \"hi\" twice\n")
                                                    << QByteArrayList{"k => say \"hi\" twice"};
        QTest::newRow("quoted value keeps blanks") << QByteArray("k = \"  two  \" ignored\n")
                                                   << QByteArrayList{"k =>   two  "};
        QTest::newRow("escaped quote in quoted value") << QByteArray("k = \"a \\\"b\\\" c\"\n")
                                                       << QByteArrayList{"k => a \"b\" c"};
        QTest::newRow("unterminated quote runs to line end") << QByteArray("k = \"open \nn = 1")
                                                             << QByteArrayList{"k => open ", "n => 1"};
        QTest::newRow("letter escapes") << QByteArray("k = a\\tb\\nc\\rd\\be\\ff\n")
                                        << QByteArrayList{"k => a\tb\nc\rd\be\ff"};
        QTest::newRow("escaped backslash") << QByteArray("k = a\\\\b\n") << QByteArrayList{"k => a\\b"};
        QTest::newRow("escaped other character") << QByteArray("k = \\q\\%1\n") << QByteArrayList{"k => q%1"};
        QTest::newRow("escaped trailing blank is kept") << QByteArray("k = v\\ \n")
                                                        << QByteArrayList{"k => v "};
        QTest::newRow("unicode escape") << QByteArray("k = \\u00e9\\u20AC\n")
                                        << QByteArrayList{"k => \xC3\xA9\xE2\x82\xAC"};
        QTest::newRow("surrogate pair") << QByteArray("k = \\ud83d\\ude00\n")
                                        << QByteArrayList{"k => \xF0\x9F\x98\x80"};
        QTest::newRow("lone surrogate") << QByteArray("k = \\ud800x\n")
                                        << QByteArrayList{"k => \xEF\xBF\xBDx"};
        QTest::newRow("hex escape") << QByteArray("k = \\x41\\x7e\\xe9\n")
                                    << QByteArrayList{"k => A~\xC3\xA9"};
        QTest::newRow("bad hex digit ends the value") << QByteArray("k = ab\\x4gcd\nn = 1")
                                                      << QByteArrayList{"k => ab", "n => 1"};
        QTest::newRow("short unicode escape ends the value") << QByteArray("k = ab \\u12\nn = 1")
                                                             << QByteArrayList{"k => ab", "n => 1"};
        QTest::newRow("bad escape in quoted value") << QByteArray("k = \"a \\uzzzz b\"\n")
                                                    << QByteArrayList{"k => a "};
        QTest::newRow("bad escape in key drops the line") << QByteArray("k\\x4g = v\nn = 1")
                                                          << QByteArrayList{"n => 1"};
        QTest::newRow("escaped equals in key") << QByteArray("a\\=b = c\n") << QByteArrayList{"a=b => c"};
        QTest::newRow("escaped hash starts a key") << QByteArray("\\#k = v\n") << QByteArrayList{"#k => v"};
        QTest::newRow("escaped semicolon starts a key") << QByteArray("\\;k = v\n") << QByteArrayList{";k => v"};
        QTest::newRow("continuation") << QByteArray("k = first \\\nsecond\nn = 1")
                                      << QByteArrayList{"k => first second", "n => 1"};
        QTest::newRow("continuation with crlf") << QByteArray("k = a\\\r\nb\r\n") << QByteArrayList{"k => ab"};
        QTest::newRow("continuation keeps next line's blanks") << QByteArray("k = a\\\n  b\n")
                                                               << QByteArrayList{"k => a  b"};
        QTest::newRow("continuation inside a key") << QByteArray("lo\\\nng = v\n") << QByteArrayList{"long => v"};
        QTest::newRow("continuation of quoted value") << QByteArray("k = \"a\\\nb\"\n")
                                                      << QByteArrayList{"k => ab"};
        QTest::newRow("backslash ending the data") << QByteArray("k = v\\") << QByteArrayList{"k => v"};
        QTest::newRow("lone carriage return is text") << QByteArray("k = a\rb\n") << QByteArrayList{"k => a\rb"};
        QTest::newRow("utf-8 passes through") << QByteArray("Gr\xC3\xBC\xC3\x9F" "e = Stra\xC3\x9F" "e\n")
                                              << QByteArrayList{"Gr\xC3\xBC\xC3\x9F" "e => Stra\xC3\x9F" "e"};
        QTest::newRow("section") << QByteArray("[en-US]\nName = English\n")
                                 << QByteArrayList{"[en-US]", "Name => English"};
        QTest::newRow("section drops blanks before bracket") << QByteArray("[ a b \t]\n")
                                                             << QByteArrayList{"[ a b]"};
        QTest::newRow("section ignores rest of line") << QByteArray("[a] junk = 1\n") << QByteArrayList{"[a]"};
        QTest::newRow("section without bracket runs to line end") << QByteArray("[open  \n")
                                                                  << QByteArrayList{"[open]"};
        QTest::newRow("escaped bracket in section") << QByteArray("[a\\]b]\n") << QByteArrayList{"[a]b]"};
        QTest::newRow("bad escape cuts section name") << QByteArray("[ab\\xq]\n") << QByteArrayList{"[ab]"};
        QTest::newRow("duplicates are all reported") << QByteArray("k = 1\nk = 2\n")
                                                     << QByteArrayList{"k => 1", "k => 2"};
    }

    void lines()
    {
        QFETCH(QByteArray, input);
        QFETCH(QByteArrayList, expected);
        QCOMPARE(describe(corv::locale::parse_locale_file(input)), expected);
    }

    // Within one load the first occurrence of a key wins, and sections do not
    // prefix keys.
    void file_into_table()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        const QString path = dir.filePath(QStringLiteral("x.ini"));
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("[Menu]\nMenu.File = first\nMenu.File = second\n[Other]\nOther.Key = \"quoted\"\n");
        file.close();

        corv::locale::Table table;
        table.emplace("Other.Key", "already there");
        QVERIFY(corv::locale::read_locale_file(path, table));
        QCOMPARE(table.size(), std::size_t(2));
        QCOMPARE(table.at("Menu.File"), QByteArray("first"));
        QCOMPARE(table.at("Other.Key"), QByteArray("already there"));

        QString error;
        QVERIFY(!corv::locale::read_locale_file(dir.filePath(QStringLiteral("none.ini")), table, &error));
        QVERIFY(!error.isEmpty());
    }

    void fnv1a_reference_values()
    {
        // Published FNV-1a 64 test vectors.
        QCOMPARE(corv::locale::Fnv1a64::hash(""), 0xcbf29ce484222325ull);
        QCOMPARE(corv::locale::Fnv1a64::hash("a"), 0xaf63dc4c8601ec8cull);
        QCOMPARE(corv::locale::Fnv1a64::hash("foobar"), 0x85944171f73967e8ull);
    }
};

QTEST_GUILESS_MAIN(TstLocaleFile)
#include "tst_locale_file.moc"
