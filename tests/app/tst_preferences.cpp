// The application preferences and the preferences window, over the program's
// own plugin and a real plugin library with a page of its own.

#include "app/builtin_plugin.h"
#include "cui/element.h"
#include "cui/fields.h"
#include "cui/property_surface.h"
#include "cui/store_editor.h"
#include "cui/surface.h"
#include "engine/config_manager.h"
#include "engine/node_registry.h"
#include "locale/locale_list.h"
#include "locale/translate.h"
#include "model/property.h"
#include "sdk/plugin_list.h"
#include "sdk/plugin_preferences.h"
#include "widgets/preferences_window.h"
#include "widgets/preferences_window_view_model.h"
#include "tests/panel_outline.h"

#include <QAbstractButton>
#include <QAbstractSpinBox>
#include <QApplication>
#include <QComboBox>
#include <QLabel>
#include <QScrollArea>
#include <QSystemTrayIcon>
#include <QDir>
#include <QFile>
#include <QListWidget>
#include <QLoggingCategory>
#include <QScopeGuard>
#include <QSettings>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTest>
#include <QTimer>

using namespace corv;

class TstPreferences : public QObject
{
    Q_OBJECT

    std::unique_ptr<engine::ConfigManager> m_config;
    std::unique_ptr<engine::PluginList> m_plugins;
    std::unique_ptr<engine::NodeRegistry> m_registry;

    engine::Plugin *application() const { return m_plugins->at(0); }
    engine::Plugin *plugin() const { return m_plugins->find(QStringLiteral("io.marrowfield.testprefs")); }

    static model::Value stored(engine::Plugin *plugin, const char *key)
    {
        const model::Property *p = plugin->preferences()->collection().find(QString::fromLatin1(key));
        return p ? p->value() : model::Value();
    }

    // An edit as a field makes it: through the page's editor.
    static void edit(widgets::PreferencesWindowViewModel &model, qsizetype page, const char *key,
                     const model::Value &value)
    {
        cui::Surface *surface = model.page_surface(page)->surface();
        surface->editor().write(surface->store().collection(), QString::fromLatin1(key), value, false);
    }

    static QString settings_file()
    {
        return QStandardPaths::writableLocation(QStandardPaths::AppDataLocation) + QStringLiteral("/settings.ini");
    }

private Q_SLOTS:
    void initTestCase()
    {
        QLoggingCategory::setFilterRules(QStringLiteral("corv.*.debug=false\ncorv.*.info=false"));
        QStandardPaths::setTestModeEnabled(true);
        QDir(QStandardPaths::writableLocation(QStandardPaths::AppDataLocation)).removeRecursively();
        locale::set_application_dir(QStringLiteral(CORV_TEST_RUNTIME_DIR));
        locale::install_application_translator();
        QTest::failOnWarning(QRegularExpression(QStringLiteral(".*")));

        m_config = std::make_unique<engine::ConfigManager>();
        set_builtin_config_manager(m_config.get());
        m_plugins = std::make_unique<engine::PluginList>();
        m_plugins->add_builtin(builtin_plugin_entry_points(), QStringLiteral(CORV_TEST_RUNTIME_DIR));
        QVERIFY(m_plugins->load_folder(QStringLiteral(CORV_TEST_PREFS_PLUGIN)));
        m_registry = std::make_unique<engine::NodeRegistry>();
        m_plugins->initialize(*m_registry);
    }

    void cleanupTestCase()
    {
        m_registry.reset();
        m_plugins.reset();
        set_builtin_config_manager(nullptr);
    }

    // With no file yet, the start-up build of the general page puts every
    // default into the preferences (general_page.txt shows them), and the
    // config manager takes them.
    void defaults_without_window()
    {
        QCOMPARE(m_config->save_versions(), 3);
        QCOMPARE(m_config->is_autosave_enabled(), true);
        QCOMPARE(m_config->autosave_minutes(), 5);
        QCOMPARE(m_config->input_poll_ms(), 16);
        QCOMPARE(m_config->input_gap_ms(), 50);
    }

    // The general page: each setting with its label, in its group under the
    // group's heading, and there with the note that explains it.
    void general_page_fields()
    {
        widgets::PreferencesWindowViewModel model(*m_plugins);
        const bool tray = QSystemTrayIcon::isSystemTrayAvailable(); // Windows always has one
        corv::test::compare_outline(corv::test::outline(*model.page_surface(0)->surface()),
                                    QStringLiteral(CORV_TEST_SOURCE_DIR "/tests/app/general_page") +
                                        (tray ? QStringLiteral("_tray.txt") : QStringLiteral(".txt")));
    }

    // Values of another type are not taken; a signal only for a change.
    void config_reads_exact_types()
    {
        model::PropertyCollection collection;
        const model::StoreView store(&collection, QString());
        store.set(QStringLiteral("saveversions"), model::Value::string("9"));
        store.set(QStringLiteral("autosave"), model::Value::integer(0));
        store.set(QStringLiteral("autosaveminutes"), model::Value::integer(5));
        store.set(QStringLiteral("inputgapms"), model::Value::integer(20));
        QSignalSpy minutes(m_config.get(), &engine::ConfigManager::autosave_minutes_changed);
        QSignalSpy gap(m_config.get(), &engine::ConfigManager::input_gap_ms_changed);
        m_config->read(collection);
        QCOMPARE(m_config->save_versions(), 3);
        QCOMPARE(m_config->is_autosave_enabled(), true);
        QCOMPARE(minutes.size(), 0);
        QCOMPARE(gap.size(), 1);
        m_config->read(application()->preferences()->collection());
        QCOMPARE(m_config->input_gap_ms(), 50);
    }

    void pages()
    {
        widgets::PreferencesWindow window(new widgets::PreferencesWindowViewModel(*m_plugins));
        QCOMPARE(window.windowTitle(), locale::translate("PreferencesWindow.Title"));
        QCOMPARE(window.size(), QSize(400, 300));
        QListWidget *list = window.page_list();
        QCOMPARE(list->count(), 3);
        QCOMPARE(list->item(0)->text(), locale::translate("PreferencesWindow.General"));
        QCOMPARE(list->item(1)->text(), locale::translate("PreferencesWindow.Plugins"));
        QCOMPARE(list->item(1)->flags(), Qt::NoItemFlags);
        QCOMPARE(list->item(2)->text(), QStringLiteral("Test Preferences"));
        QCOMPARE(list->currentRow(), 0);
        QCOMPARE(window.model()->page_subtitle(1),
                 locale::translate("PreferencesWindow.PluginSubtitle.%1.%2", QStringLiteral("Test Preferences"),
                                   QStringLiteral("2.1")));
        QCOMPARE(stored(plugin(), "count").to_int(), 7);

        // The minutes follow the autosave box within the same build.
        cui::PropertySurface *general = window.model()->page_surface(0);
        QVERIFY(general->surface()->field(QStringLiteral("autosaveminutes"))->is_enabled());
        edit(*window.model(), 0, "autosave", model::Value::boolean(false));
        general->rebuild();
        QVERIFY(!general->surface()->field(QStringLiteral("autosaveminutes"))->is_enabled());
        window.reject();
    }

    // Cancel undoes every page's edits; OK hands them over and writes them.
    void cancel_and_confirm()
    {
        const QString application_file = application()->preferences()->file_path();
        const QString plugin_file = plugin()->preferences()->file_path();
        {
            widgets::PreferencesWindow window(new widgets::PreferencesWindowViewModel(*m_plugins));
            edit(*window.model(), 0, "saveversions", model::Value::integer(9));
            edit(*window.model(), 1, "count", model::Value::integer(42));
            QVERIFY(window.model()->has_changes());
            window.reject();
        }
        QCOMPARE(stored(application(), "saveversions").to_int(), 3);
        QCOMPARE(stored(plugin(), "count").to_int(), 7);
        QCOMPARE(m_config->save_versions(), 3);
        QVERIFY(!QFile::exists(application_file));

        QSignalSpy versions(m_config.get(), &engine::ConfigManager::save_versions_changed);
        QSignalSpy autosave(m_config.get(), &engine::ConfigManager::is_autosave_enabled_changed);
        {
            widgets::PreferencesWindow window(new widgets::PreferencesWindowViewModel(*m_plugins));
            window.page_list()->setCurrentRow(2);
            QCOMPARE(window.current_page(), 1);
            edit(*window.model(), 0, "saveversions", model::Value::integer(9));
            edit(*window.model(), 0, "autosave", model::Value::boolean(false));
            edit(*window.model(), 1, "count", model::Value::integer(42));
            window.accept();
        }
        QCOMPARE(versions.size(), 1);
        QCOMPARE(autosave.size(), 1);
        QCOMPARE(m_config->save_versions(), 9);
        QVERIFY(!m_config->is_autosave_enabled());
        QVERIFY(corv::test::read_file(application_file).contains("<prop key=\"saveversions\" type=\"int\">9</prop>"));
        QVERIFY(QFile::exists(plugin_file));

        // The page that was open opens again, and the window's place is kept.
        QSettings settings(settings_file(), QSettings::IniFormat);
        QCOMPARE(settings.value(QStringLiteral("PreferencesWindow/OpenPanel")).toInt(), 2);
        QVERIFY(settings.contains(QStringLiteral("PreferencesWindow/Geometry")));
        QVERIFY(settings.contains(QStringLiteral("PreferencesWindow/State")));
        widgets::PreferencesWindow again(new widgets::PreferencesWindowViewModel(*m_plugins));
        QCOMPARE(again.page_list()->currentRow(), 2);
        again.reject();
    }

    // The entry point of the main window's menu: modal, closed by OK.
    void entry_point()
    {
        QTimer::singleShot(0, this, [] {
            auto *window = qobject_cast<widgets::PreferencesWindow *>(QApplication::activeModalWidget());
            QVERIFY(window);
            window->accept();
        });
        QCOMPARE(widgets::show_preferences_window(nullptr, *m_plugins), int(QDialog::Accepted));
    }

    void labels_fit_data()
    {
        QTest::addColumn<QByteArray>("language");
        QTest::newRow("English") << QByteArray("en-US");
        QTest::newRow("German") << QByteArray("de-DE");
    }

    // At the window's first size, in either language, every text of the
    // general page shows whole: it fits its width or wraps, and the page
    // scrolls down rather than sideways. Greyed out for want of a tray,
    // the tray option says why. A larger size comes back as it was left.
    void labels_fit()
    {
        QFETCH(QByteArray, language);
        QVERIFY(locale::apply_language_preference(locale::locale_list().index_of(language)));
        const auto english = qScopeGuard([] { locale::apply_language_preference(locale::default_language_position()); });
        QSettings(settings_file(), QSettings::IniFormat).remove(QStringLiteral("PreferencesWindow"));
        auto window = std::make_unique<widgets::PreferencesWindow>(new widgets::PreferencesWindowViewModel(*m_plugins));
        window->show();
        QVERIFY(QTest::qWaitForWindowExposed(window.get()));
        QCOMPARE(window->size(), QSize(400, 300));
        auto *page = window->findChild<QScrollArea *>()->widget();
        QVERIFY(page);
        QStringList clipped;
        for (QLabel *label : page->findChildren<QLabel *>()) {
            if (label->isVisibleTo(page) && !label->wordWrap() && label->sizeHint().width() > label->width())
                clipped << label->text();
        }
        for (QAbstractButton *button : page->findChildren<QAbstractButton *>()) {
            if (button->isVisibleTo(page) && button->sizeHint().width() > button->width())
                clipped << button->text();
        }
        for (QWidget *field : page->findChildren<QWidget *>()) {
            if ((qobject_cast<QAbstractSpinBox *>(field) || qobject_cast<QComboBox *>(field)) &&
                field->minimumSizeHint().width() > field->width())
                clipped << field->metaObject()->className();
        }
        QVERIFY2(clipped.isEmpty(), qPrintable(clipped.join(u'|')));
        // Long labels wrap: the page is never wider than its view.
        QScrollArea *scroll = window->findChild<QScrollArea *>();
        QVERIFY2(page->width() <= scroll->viewport()->width(),
                 qPrintable(QStringLiteral("%1 > %2").arg(page->width()).arg(scroll->viewport()->width())));

        const bool tray = QSystemTrayIcon::isSystemTrayAvailable();
        QCOMPARE(window->model()->page_surface(0)->surface()->field(QStringLiteral("minimizetotray"))->is_enabled(),
                 tray);
        const QString note = locale::translate("PreferencesWindow.NoSystemTray");
        const QList<QLabel *> labels = page->findChildren<QLabel *>();
        QCOMPARE(std::any_of(labels.begin(), labels.end(), [&](QLabel *l) { return l->text() == note; }), !tray);

        window->resize(700, 520);
        window->reject();
        window = std::make_unique<widgets::PreferencesWindow>(new widgets::PreferencesWindowViewModel(*m_plugins));
        QCOMPARE(window->size(), QSize(700, 520));
        window->reject();
    }

    // A confirmed language applies at once: the window's texts and the pages.
    void language_switches_live()
    {
        const qsizetype german = locale::locale_list().display_names().indexOf(QStringLiteral("Deutsch (Deutschland)"));
        QVERIFY(german >= 0);
        widgets::PreferencesWindow window(new widgets::PreferencesWindowViewModel(*m_plugins));
        QSignalSpy changed(window.model(), &widgets::PreferencesWindowViewModel::language_changed);
        edit(*window.model(), 0, "language", model::Value::integer(int(german)));
        window.model()->confirm();
        QCOMPARE(changed.size(), 1);
        QCOMPARE(window.windowTitle(), QStringLiteral("Einstellungen"));
        QCOMPARE(window.page_list()->item(0)->text(), QStringLiteral("Allgemein"));
        QCOMPARE(window.model()->page_surface(0)->surface()->field(QStringLiteral("saveversions"))->label(),
                 locale::translate("PreferencesWindow.SaveVersions"));

        // Out of range: nothing changes but a line in the log.
        widgets::PreferencesWindowViewModel model(*m_plugins);
        edit(model, 0, "language", model::Value::integer(99));
        QSignalSpy unchanged(&model, &widgets::PreferencesWindowViewModel::language_changed);
        QTest::ignoreMessage(QtWarningMsg, "Ignoring the stored language 99: the locale list has 2 languages");
        model.confirm();
        QCOMPARE(unchanged.size(), 0);
        QCOMPARE(locale::translate("PreferencesWindow.Title"), QStringLiteral("Einstellungen"));
        QVERIFY(locale::apply_language_preference(locale::default_language_position()));
    }
};


QTEST_MAIN(TstPreferences)
#include "tst_preferences.moc"
