#include "locale/locale_list.h"
#include "locale/translate.h"
#include "locale/translator.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

using corv::locale::LocaleList;
using corv::locale::Translator;

namespace {

void write_file(const QString &path, const QByteArray &content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    QVERIFY2(file.open(QIODevice::WriteOnly), qPrintable(path));
    file.write(content);
}

// Records the locale library's messages in order, for checks on the order of
// loads; other messages go on to the test's handler.
class LogRecorder
{
public:
    LogRecorder() { s_lines.clear(); s_previous = qInstallMessageHandler(&handle); }
    ~LogRecorder() { qInstallMessageHandler(s_previous); }
    static QStringList lines() { return s_lines; }

private:
    static void handle(QtMsgType type, const QMessageLogContext &context, const QString &text)
    {
        if (context.category && qstrcmp(context.category, "corv.locale") == 0)
            s_lines.append(text);
        else
            s_previous(type, context, text);
    }
    static inline QStringList s_lines;
    static inline QtMessageHandler s_previous = nullptr;
};

} // namespace

class TstTranslator : public QObject
{
    Q_OBJECT

private:
    // A folder with "locale.ini" and the locale files of a translator in
    // "locale/", made the application directory.
    QTemporaryDir *m_dir = nullptr;

    QString locale_dir() const { return m_dir->filePath(QStringLiteral("locale")); }
    void write_list(const QByteArray &content) { write_file(m_dir->filePath(QStringLiteral("locale.ini")), content); }
    void write_locale(const char *id, const QByteArray &content)
    {
        write_file(locale_dir() + QLatin1Char('/') + QLatin1String(id) + QLatin1String(".ini"), content);
    }

private Q_SLOTS:
    void initTestCase() { QTest::failOnWarning(QRegularExpression(QStringLiteral(".*"))); }

    void init()
    {
        m_dir = new QTemporaryDir;
        QVERIFY(m_dir->isValid());
        corv::locale::set_application_dir(m_dir->path());
        write_list("[en-US]\nName = English\n"
                   "[de-DE]\nName = Deutsch\n"
                   "[de-AT]\nName = \"Deutsch (\\u00d6sterreich)\"\nExtends = de-DE\n"
                   "[fr-FR]\nName = Fran\\u00e7ais\n");
        write_locale("en-US", "Greeting = Hello\nFarewell = Goodbye\nOnly.English = English only\n");
        write_locale("de-DE", "Greeting = Hallo\nFarewell = Tsch\\u00fcss\nGerman.Only = nur Deutsch\n");
        write_locale("de-AT", "Greeting = Servus\nAustrian.Only = nur hier\n");
    }

    void cleanup()
    {
        delete m_dir;
        m_dir = nullptr;
    }

    void locale_list_is_sorted_with_names_and_parents()
    {
        write_list("[fr-FR]\nName = Fran\\u00e7ais\n"
                   "[de-AT]\nName = \xC3\x96sterreich\nExtends = de-DE  en-US\n"
                   "[de-DE]\nName = Deutsch\nColour = blue\n"
                   "[de-AT]\nExtends = fr-FR\n");
        QTest::ignoreMessage(QtDebugMsg, "Unknown key Colour in locale list file");
        const LocaleList &list = corv::locale::locale_list();
        QCOMPARE(list.size(), 3);
        QCOMPARE(list.locales().at(0).id, QByteArray("de-AT"));
        QCOMPARE(list.locales().at(1).id, QByteArray("de-DE"));
        QCOMPARE(list.locales().at(2).id, QByteArray("fr-FR"));
        QCOMPARE(list.display_names(),
                 (QStringList{QStringLiteral("Österreich"), QStringLiteral("Deutsch"), QStringLiteral("Français")}));
        // A section named again adds to the first one.
        QCOMPARE(list.find("de-AT")->parents, (QList<QByteArray>{"de-DE", "en-US", "fr-FR"}));
        QCOMPARE(list.index_of("fr-FR"), 2);
        QCOMPARE(list.index_of("xx-XX"), -1);
    }

    void locale_list_is_read_once_until_the_directory_changes()
    {
        QCOMPARE(corv::locale::locale_list().size(), 4);
        write_list("[en-US]\n");
        QCOMPARE(corv::locale::locale_list().size(), 4);
        corv::locale::set_application_dir(m_dir->path());
        QCOMPARE(corv::locale::locale_list().size(), 1);
    }

    void missing_locale_list_gives_empty_list()
    {
        corv::locale::set_application_dir(m_dir->filePath(QStringLiteral("nowhere")));
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^Couldn't read locale list file: .+")));
        QCOMPARE(corv::locale::locale_list().size(), 0);
    }

    void fallback_is_loaded_at_creation()
    {
        Translator tr("test", locale_dir());
        QCOMPARE(tr.fallback_size(), std::size_t(3));
        QCOMPARE(tr.current_size(), std::size_t(0));
        QCOMPARE(tr.lookup(QByteArrayView("Greeting")), QByteArray("Hello"));
    }

    void missing_fallback_file_warns()
    {
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression(QStringLiteral("^plugin\\.x locale: Couldn't find locale file for en-US: .+")));
        Translator tr("plugin.x", m_dir->filePath(QStringLiteral("empty")));
        QCOMPARE(tr.fallback_size(), std::size_t(0));
    }

    void lookup_prefers_current_then_fallback()
    {
        Translator tr("test", locale_dir());
        QTest::ignoreMessage(QtInfoMsg, "test locale: Loaded 3 strings for de-DE");
        tr.load("de-DE");
        QCOMPARE(tr.locale(), QByteArray("de-DE"));
        QCOMPARE(tr.lookup(QByteArrayView("Greeting")), QByteArray("Hallo"));
        QCOMPARE(tr.lookup(QByteArrayView("Farewell")), QByteArray("Tsch\xC3\xBC" "ss"));
        // Only in en-US: the English text, without a warning.
        QCOMPARE(tr.lookup(QByteArrayView("Only.English")), QByteArray("English only"));
        QCOMPARE(tr.translate("German.Only"), QStringLiteral("nur Deutsch"));
    }

    void missing_key_warns_and_shows_the_key()
    {
        Translator tr("io.example.plugin", locale_dir());
        QTest::ignoreMessage(QtWarningMsg, "io.example.plugin locale: Nowhere.%1 = ??");
        QCOMPARE(tr.lookup(QByteArrayView("Nowhere.%1")), QByteArray("Nowhere.%1"));

        const char *key = "Also.Missing";
        QTest::ignoreMessage(QtWarningMsg, "io.example.plugin locale: Also.Missing = ??");
        QVERIFY(tr.lookup(key) == key); // the caller's own pointer

        QCOMPARE(tr.lookup(static_cast<const char *>(nullptr)), "");
        // Texts are borrowed from the table: the same pointer every time.
        QVERIFY(tr.lookup("Greeting") == tr.lookup("Greeting"));
        QCOMPARE(tr.lookup("Greeting"), "Hello");
    }

    void unknown_locale_changes_nothing()
    {
        Translator tr("test", locale_dir());
        tr.load("de-DE");
        QTest::ignoreMessage(QtWarningMsg, "Couldn't load unknown locale xx-XX");
        tr.load("xx-XX");
        QCOMPARE(tr.locale(), QByteArray("de-DE"));
        QCOMPARE(tr.lookup(QByteArrayView("Greeting")), QByteArray("Hallo"));
    }

    void listed_locale_without_file_warns_and_falls_back()
    {
        Translator tr("test", locale_dir());
        tr.load("de-DE");
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression(QStringLiteral("^test locale: Couldn't find locale file for fr-FR: .+")));
        QTest::ignoreMessage(QtInfoMsg, "test locale: Loaded 0 strings for fr-FR");
        tr.load("fr-FR");
        QCOMPARE(tr.current_size(), std::size_t(0));
        QCOMPARE(tr.lookup(QByteArrayView("Greeting")), QByteArray("Hello"));
    }

    void loading_en_us_copies_the_fallback()
    {
        Translator tr("test", locale_dir());
        tr.load("de-DE");
        QTest::ignoreMessage(QtInfoMsg, "test locale: Loaded 3 strings for en-US");
        tr.load("en-US");
        QCOMPARE(tr.current_size(), std::size_t(3));
        QCOMPARE(tr.lookup(QByteArrayView("Greeting")), QByteArray("Hello"));
    }

    // "Extends" loads the parent after the child, each load starting from an
    // empty table: the parent's strings replace the child's entirely.
    void extends_takes_over_the_parents_strings()
    {
        Translator tr("test", locale_dir());
        QTest::ignoreMessage(QtInfoMsg, "test locale: Loaded 2 strings for de-AT");
        QTest::ignoreMessage(QtInfoMsg, "test locale: Loaded 3 strings for de-DE");
        tr.load("de-AT");
        QCOMPARE(tr.locale(), QByteArray("de-AT"));
        QCOMPARE(tr.current_size(), std::size_t(3));
        QCOMPARE(tr.lookup(QByteArrayView("Greeting")), QByteArray("Hallo"));
        QVERIFY(!tr.find("Austrian.Only"));
        QTest::ignoreMessage(QtWarningMsg, "test locale: Austrian.Only = ??");
        QCOMPARE(tr.lookup(QByteArrayView("Austrian.Only")), QByteArray("Austrian.Only"));
    }

    void extends_walks_depth_first()
    {
        write_list("[en-US]\n[a]\nExtends = b c\n[b]\nExtends = d\n[c]\n[d]\n");
        write_locale("a", "Who = a\n");
        write_locale("b", "Who = b\n");
        write_locale("c", "Who = c\nC.Only = c\n");
        write_locale("d", "Who = d\n");
        Translator tr("test", locale_dir());
        {
            LogRecorder recorder;
            tr.load("a");
            QCOMPARE(LogRecorder::lines(), (QStringList{
                QStringLiteral("test locale: Loaded 1 strings for a"),
                QStringLiteral("test locale: Loaded 1 strings for b"),
                QStringLiteral("test locale: Loaded 1 strings for d"),
                QStringLiteral("test locale: Loaded 2 strings for c"),
            }));
        }
        QCOMPARE(tr.lookup(QByteArrayView("Who")), QByteArray("c"));
    }

    void extends_problems_are_logged_not_fatal()
    {
        write_list("[en-US]\n[a]\nExtends = b missing\n[b]\nExtends = a\n");
        write_locale("a", "Who = a\n");
        write_locale("b", "Who = b\n");
        Translator tr("test", locale_dir());
        QTest::ignoreMessage(QtWarningMsg, "test locale: Ignoring circular Extends of a");
        QTest::ignoreMessage(QtWarningMsg, "Couldn't load unknown locale missing");
        tr.load("a");
        QCOMPARE(tr.lookup(QByteArrayView("Who")), QByteArray("b"));
    }

    void load_at_uses_list_positions()
    {
        Translator tr("test", locale_dir());
        // Sorted: de-AT, de-DE, en-US, fr-FR.
        QVERIFY(tr.load_at(1));
        QCOMPARE(tr.locale(), QByteArray("de-DE"));
        QVERIFY(!tr.load_at(-1));
        QVERIFY(!tr.load_at(4));
        QCOMPARE(tr.locale(), QByteArray("de-DE"));
    }

    // The application's translator over the locale files shipped beside the
    // executable in the build tree.
    void application_translator_uses_shipped_files()
    {
        const QString runtime = qEnvironmentVariable("CORV_RUNTIME_DIR");
        if (runtime.isEmpty())
            QSKIP("CORV_RUNTIME_DIR is not set");
        corv::locale::set_application_dir(runtime);
        Translator *app = corv::locale::install_application_translator();
        QCOMPARE(corv::locale::application_translator(), app);
        QCOMPARE(app->name(), QByteArray("io.marrowfield.corvane"));
        QCOMPARE(app->locale_dir(), runtime + QStringLiteral("/locale"));

        const LocaleList &list = corv::locale::locale_list();
        QVERIFY(list.display_names().contains(QStringLiteral("English (United States)")));
        QVERIFY(list.display_names().contains(QStringLiteral("Deutsch (Deutschland)")));
        QCOMPARE(corv::locale::default_language_position(), list.index_of("en-US"));

        QCOMPARE(corv::locale::translate("Menu.File.Open"), QStringLiteral("Open…"));
        QCOMPARE(corv::locale::rack_name(3), QStringLiteral("Rack 3"));
        QVERIFY(corv::locale::apply_language_preference(list.index_of("de-DE")));
        QCOMPARE(corv::locale::translate("Menu.File.Open"), QStringLiteral("Öffnen…"));
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
