// Locale files, the locale list, and translators with their fallback and
// "Extends" walk.

#include "locale/locale_file.h"
#include "locale/locale_list.h"
#include "locale/translate.h"
#include "locale/translator.h"
#include "tests/test_files.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

using corv::locale::LocaleFileItem;
using corv::locale::Translator;

namespace {

using corv::test::write_file;

// Collects the locale library's messages in order; others go on to QtTest.
QStringList g_lines;
QtMessageHandler g_previous = nullptr;
void collect(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    if (context.category && qstrcmp(context.category, "corv.locale") == 0)
        g_lines << text;
    else
        g_previous(type, context, text);
}

} // namespace

class TstTranslator : public QObject
{
    Q_OBJECT

    // The application directory: "locale.ini", and the locale files in "locale/".
    std::unique_ptr<QTemporaryDir> m_dir;

    QString locale_dir() const { return m_dir->filePath(QStringLiteral("locale")); }
    void write_list(const QByteArray &content) { write_file(m_dir->filePath(QStringLiteral("locale.ini")), content); }
    void write_locale(const char *id, const QByteArray &content)
    {
        write_file(locale_dir() + u'/' + QLatin1String(id) + QStringLiteral(".ini"), content);
    }

private Q_SLOTS:
    void initTestCase() { QTest::failOnWarning(QRegularExpression(QStringLiteral(".*"))); }

    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        corv::locale::set_application_dir(m_dir->path());
        write_list("[en-US]\nName = English\n[de-DE]\nName = Deutsch\n"
                   "[de-AT]\nName = \"Deutsch (\\u00d6sterreich)\"\nExtends = de-DE\n[fr-FR]\nName = Fran\\u00e7ais\n");
        write_locale("en-US", "Greeting = Hello\nFarewell = Goodbye\nOnly.English = English only\n");
        write_locale("de-DE", "Greeting = Hallo\nFarewell = Tsch\\u00fcss\nGerman.Only = nur Deutsch\n");
        write_locale("de-AT", "Greeting = Servus\nAustrian.Only = nur hier\n");
    }

    // Items written as "[section]" or "key => value".
    void parser_data()
    {
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<QByteArrayList>("expected");
        const auto row = [](const char *name, const QByteArray &input, const QByteArrayList &expected) {
            QTest::newRow(name) << input << expected;
        };
        row("comments", "# one\n; two\n \t# indented\nk=v\n", {"k => v"});
        row("blanks around key and value", "  key \t=  \tsome value \t\n", {"key => some value"});
        row("crlf, no final line end", "a = 1\r\nb = 2", {"a => 1", "b => 2"});
        row("byte order mark", "\xEF\xBB\xBF" "a = 1", {"a => 1"});
        row("line without equals is ignored", "just words\nk = v", {"k => v"});
        row("empty key and value", "k =\n= v\n", {"k => ", " => v"});
        row("equals and quotes in a plain value", "k = a = \"b\"\n", {"k => a = \"b\""});
        row("quoted value keeps blanks", "k = \"  two  \" ignored\n", {"k =>   two  "});
        row("escaped quote in quoted value", "k = \"a \\\"b\\\" c\"\n", {"k => a \"b\" c"});
        row("unterminated quote runs to line end", "k = \"open \nn = 1", {"k => open ", "n => 1"});
        row("letter escapes", "k = a\\tb\\nc\\rd\\be\\ff\n", {"k => a\tb\nc\rd\be\ff"});
        row("escaped backslash and others", "k = a\\\\b\\q\\%1\n", {"k => a\\bq%1"});
        row("escaped trailing blank is kept", "k = v\\ \n", {"k => v "});
        row("unicode escape", "k = \\u00e9\\u20AC\n", {"k => \xC3\xA9\xE2\x82\xAC"});
        row("surrogate pair", "k = \\ud83d\\ude00\n", {"k => \xF0\x9F\x98\x80"});
        row("lone surrogate", "k = \\ud800x\n", {"k => \xEF\xBF\xBDx"});
        row("escapes at the edges of each UTF-8 length", "k = \\u0000\\u007f\\u0080\\u07ff\\u0800\\uFFFF\\x00\\xff\n",
            {"k => " + QByteArray::fromHex("007fc280dfbfe0a080efbfbf00c3bf")});
        row("hex escape", "k = \\x41\\x7e\\xe9\n", {"k => A~\xC3\xA9"});
        row("bad hex digit ends the value", "k = ab\\x4gcd\nn = 1", {"k => ab", "n => 1"});
        row("short unicode escape ends the value", "k = ab \\u12\nn = 1", {"k => ab", "n => 1"});
        row("bad escape in quoted value", "k = \"a \\uzzzz b\"\n", {"k => a "});
        row("bad escape in key drops the line", "k\\x4g = v\nn = 1", {"n => 1"});
        row("escaped equals and hash in key", "a\\=b = c\n\\#k = v\n", {"a=b => c", "#k => v"});
        row("continuation", "k = first \\\nsecond\nn = 1", {"k => first second", "n => 1"});
        row("continuation with crlf", "k = a\\\r\nb\r\n", {"k => ab"});
        row("continuation keeps next line's blanks", "k = a\\\n  b\n", {"k => a  b"});
        row("continuation inside a key", "lo\\\nng = v\n", {"long => v"});
        row("continuation of quoted value", "k = \"a\\\nb\"\n", {"k => ab"});
        row("backslash ending the data", "k = v\\", {"k => v"});
        row("lone carriage return is text", "k = a\rb\n", {"k => a\rb"});
        row("sections", "[en-US]\nName = x\n[ a b \t]\n[a] junk = 1\n[open  \n[a\\]b]\n[ab\\xq]\n",
            {"[en-US]", "Name => x", "[ a b]", "[a]", "[open]", "[a]b]", "[ab]"});
        row("duplicates are all reported", "k = 1\nk = 2\n", {"k => 1", "k => 2"});
    }

    void parser()
    {
        QFETCH(QByteArray, input);
        QFETCH(QByteArrayList, expected);
        QByteArrayList items;
        for (const LocaleFileItem &item : corv::locale::parse_locale_file(input))
            items << (item.kind == LocaleFileItem::Kind::Section ? '[' + item.name + ']' : item.name + " => " + item.value);
        QCOMPARE(items, expected);
    }

    // Within one load the first occurrence of a key wins, keys already there
    // are kept, and sections do not prefix keys.
    void file_into_table()
    {
        const QString path = m_dir->filePath(QStringLiteral("x.ini"));
        write_file(path, "[Menu]\nMenu.File = first\nMenu.File = second\n[Other]\nOther.Key = \"quoted\"\n");
        corv::locale::Table table;
        table.emplace("Other.Key", "already there");
        QVERIFY(corv::locale::read_locale_file(path, table));
        QCOMPARE(table.size(), std::size_t(2));
        QCOMPARE(table.at("Menu.File"), QByteArray("first"));
        QCOMPARE(table.at("Other.Key"), QByteArray("already there"));
        QString error;
        QVERIFY(!corv::locale::read_locale_file(m_dir->filePath(QStringLiteral("none.ini")), table, &error));
        QVERIFY(!error.isEmpty());
    }

    // Sorted by id; a section named again adds to the first. Read once until
    // the application directory is set again; missing, it is empty.
    void locale_list()
    {
        QCOMPARE(corv::locale::locale_list().size(), 4);
        write_list("[fr-FR]\nName = Fran\\u00e7ais\nExtends =\n[de-AT]\nName = \xC3\x96sterreich\nExtends = de-DE  en-US\n"
                   "[de-DE]\nName = Deutsch\nColour = blue\nExtends = \" en-US\t\"\n[de-AT]\nExtends = fr-FR\n");
        QCOMPARE(corv::locale::locale_list().size(), 4);
        QTest::ignoreMessage(QtDebugMsg, "Unknown key Colour in locale list file");
        corv::locale::set_application_dir(m_dir->path());
        const corv::locale::LocaleList &list = corv::locale::locale_list();
        QCOMPARE(list.display_names(), (QStringList{"Österreich", "Deutsch", "Français"}));
        QCOMPARE(list.locales().at(0).id, QByteArray("de-AT"));
        QCOMPARE(list.find("de-AT")->parents, (QList<QByteArray>{"de-DE", "en-US", "fr-FR"}));
        QCOMPARE(list.find("de-DE")->parents, QList<QByteArray>{"en-US"}); // blanks are no ids
        QVERIFY(list.find("fr-FR")->parents.isEmpty());
        QCOMPARE(list.index_of("fr-FR"), 2);
        QCOMPARE(list.index_of("xx-XX"), -1);

        corv::locale::set_application_dir(m_dir->filePath(QStringLiteral("nowhere")));
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^Couldn't read locale list file: .+")));
        QCOMPARE(corv::locale::locale_list().size(), 0);
    }

    // The current table first, then the en-US fallback loaded at creation;
    // a key in neither warns and shows itself.
    void lookup()
    {
        Translator tr("test", locale_dir());
        QCOMPARE(tr.fallback_size(), std::size_t(3));
        QCOMPARE(tr.current_size(), std::size_t(0));
        QTest::ignoreMessage(QtInfoMsg, "test locale: Loaded 3 strings for de-DE");
        tr.load("de-DE");
        QCOMPARE(tr.locale(), QByteArray("de-DE"));
        QCOMPARE(tr.lookup(QByteArrayView("Farewell")), QByteArray("Tsch\xC3\xBC" "ss"));
        QCOMPARE(tr.lookup(QByteArrayView("Only.English")), QByteArray("English only"));
        QCOMPARE(tr.translate("German.Only"), QStringLiteral("nur Deutsch"));
        QTest::ignoreMessage(QtWarningMsg, "test locale: Nowhere.%1 = ??");
        QCOMPARE(tr.lookup(QByteArrayView("Nowhere.%1")), QByteArray("Nowhere.%1"));
        const char *key = "Also.Missing";
        QTest::ignoreMessage(QtWarningMsg, "test locale: Also.Missing = ??");
        QVERIFY(tr.lookup(key) == key); // the caller's own pointer
        QCOMPARE(tr.lookup(static_cast<const char *>(nullptr)), "");
        QVERIFY(tr.lookup("Greeting") == tr.lookup("Greeting")); // borrowed from the table
        QCOMPARE(tr.lookup("Greeting"), "Hallo");

        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression(QStringLiteral("^x locale: Couldn't find locale file for en-US: .+")));
        Translator empty("x", m_dir->filePath(QStringLiteral("empty")));
        QCOMPARE(empty.fallback_size(), std::size_t(0));
    }

    // Unknown locales change nothing; a listed one without a file falls back;
    // en-US copies the fallback; positions follow the sorted list.
    void loads()
    {
        Translator tr("test", locale_dir());
        tr.load("de-DE");
        QTest::ignoreMessage(QtWarningMsg, "Couldn't load unknown locale xx-XX");
        tr.load("xx-XX");
        QCOMPARE(tr.locale(), QByteArray("de-DE"));
        QCOMPARE(tr.lookup(QByteArrayView("Greeting")), QByteArray("Hallo"));
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression(QStringLiteral("^test locale: Couldn't find locale file for fr-FR: .+")));
        QTest::ignoreMessage(QtInfoMsg, "test locale: Loaded 0 strings for fr-FR");
        tr.load("fr-FR");
        QCOMPARE(tr.lookup(QByteArrayView("Greeting")), QByteArray("Hello"));
        QTest::ignoreMessage(QtInfoMsg, "test locale: Loaded 3 strings for en-US");
        tr.load("en-US");
        QCOMPARE(tr.current_size(), std::size_t(3));
        QVERIFY(tr.load_at(1)); // de-AT, de-DE, en-US, fr-FR
        QCOMPARE(tr.locale(), QByteArray("de-DE"));
        QVERIFY(!tr.load_at(-1));
        QVERIFY(!tr.load_at(4));
        QCOMPARE(tr.locale(), QByteArray("de-DE"));
    }

    // "Extends" loads the parents after the child, depth first, each load
    // starting from an empty table: the last one's strings are what remains.
    void extends_data()
    {
        QTest::addColumn<QByteArray>("list");
        QTest::addColumn<QByteArray>("locale");
        QTest::addColumn<QStringList>("lines");
        QTest::addColumn<QByteArray>("who");
        QTest::newRow("parent replaces child") << QByteArray() << QByteArray("de-AT")
                                               << QStringList{"Loaded 2 strings for de-AT", "Loaded 3 strings for de-DE"}
                                               << QByteArray("Hallo");
        QTest::newRow("depth first") << QByteArray("[en-US]\n[a]\nExtends = b c\n[b]\nExtends = d\n[c]\n[d]\n")
                                     << QByteArray("a")
                                     << QStringList{"Loaded 1 strings for a", "Loaded 1 strings for b",
                                                    "Loaded 1 strings for d", "Loaded 2 strings for c"}
                                     << QByteArray("c");
        QTest::newRow("circular and unknown parents")
            << QByteArray("[en-US]\n[a]\nExtends = b missing\n[b]\nExtends = a\n") << QByteArray("a")
            << QStringList{"Loaded 1 strings for a", "Loaded 1 strings for b", "Ignoring circular Extends of a",
                           "!Couldn't load unknown locale missing"}
            << QByteArray("b");
    }

    void extends()
    {
        QFETCH(QByteArray, list);
        QFETCH(QByteArray, locale);
        QFETCH(QStringList, lines);
        QFETCH(QByteArray, who);
        if (!list.isEmpty()) {
            write_list(list);
            for (const char *id : {"a", "b", "c", "d"})
                write_locale(id, QByteArray("Greeting = ") + id + "\n" + (id[0] == 'c' ? "C.Only = c\n" : ""));
        }
        Translator tr("test", locale_dir());
        g_lines.clear();
        g_previous = qInstallMessageHandler(collect);
        tr.load(locale);
        qInstallMessageHandler(g_previous);
        QStringList expected;
        for (const QString &line : lines)
            expected << (line.startsWith(u'!') ? line.mid(1) : QStringLiteral("test locale: ") + line);
        QCOMPARE(g_lines, expected);
        QCOMPARE(tr.locale(), locale);
        QCOMPARE(tr.lookup(QByteArrayView("Greeting")), who);
        QVERIFY(!tr.find("Austrian.Only"));
    }

    // The application's translator over the locale files shipped beside the
    // executable in the build tree.
    void application_translator_uses_shipped_files()
    {
        const QString runtime = QStringLiteral(CORV_TEST_RUNTIME_DIR);
        corv::locale::set_application_dir(runtime);
        Translator *app = corv::locale::install_application_translator();
        QCOMPARE(corv::locale::application_translator(), app);
        QCOMPARE(app->name(), QByteArray("io.marrowfield.corvane"));
        QCOMPARE(app->locale_dir(), runtime + QStringLiteral("/locale"));
        const corv::locale::LocaleList &list = corv::locale::locale_list();
        QCOMPARE(corv::locale::default_language_position(), list.index_of("en-US"));
        QCOMPARE(corv::locale::translate("Menu.File.Open"), QStringLiteral("Open…"));
        QCOMPARE(corv::locale::rack_name(3), QStringLiteral("Rack 3"));
        QVERIFY(corv::locale::apply_language_preference(list.index_of("de-DE")));
        QCOMPARE(corv::locale::translate("OpenProject.ErrorBody.%1", QStringLiteral("Zugriff verweigert")),
                 QStringLiteral("Die Projektdatei konnte nicht geöffnet werden:\nZugriff verweigert"));
        QVERIFY(!corv::locale::apply_language_preference(list.size()));
        // Another translator can be made the application's one, and back.
        Translator other("other", locale_dir());
        corv::locale::set_application_translator(&other);
        QCOMPARE(corv::locale::translate("Greeting"), QStringLiteral("Hello"));
        corv::locale::set_application_translator(app);
    }
};

QTEST_GUILESS_MAIN(TstTranslator)
#include "tst_translator.moc"
