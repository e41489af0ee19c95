// The main window under the offscreen platform, over a real project manager
// and real files: the title, the unsaved-changes question with its three
// answers in front of New, Open and closing, error boxes, undo and redo
// through the actions, saving, the log actions, the pause of every rack,
// the tray and the settings file.

#include "engine/config_manager.h"
#include "engine/node_registry.h"
#include "engine/project_runtime.h"
#include "engine/rack_manager.h"
#include "locale/locale_list.h"
#include "locale/translate.h"
#include "model/project.h"
#include "persistence/command_manager.h"
#include "persistence/model_commands.h"
#include "persistence/project_manager.h"
#include "widgets/about_window.h"
#include "widgets/activity_panel.h"
#include "widgets/activity_view_model.h"
#include "widgets/log_view_model.h"
#include "widgets/main_window.h"
#include "widgets/main_window_view_model.h"
#include "widgets/rack_panel.h"
#include "widgets/rack_panel_view_model.h"
#include "widgets/racks_panel.h"
#include "widgets/racks_panel_view_model.h"
#include "tests/test_files.h"

#include <QAbstractButton>
#include <QAction>
#include <QBrush>
#include <QApplication>
#include <QDesktopServices>
#include <QDir>
#include <QDockWidget>
#include <QFile>
#include <QIcon>
#include <QLineEdit>
#include <QListView>
#include <QMenuBar>
#include <QMessageBox>
#include <QMimeData>
#include <QPixmap>
#include <QSettings>
#include <QSignalSpy>
#include <QSplitter>
#include <QPushButton>
#include <QStatusBar>
#include <QSysInfo>
#include <QSystemTrayIcon>
#include <QTemporaryDir>
#include <QTest>
#include <QTextBrowser>
#include <QTimer>

#include <thread>

using namespace corv;
using widgets::MainWindow;
using Action = widgets::MainWindow::Action;

namespace {

// Answers the next modal message box (or, repeating, every one) with a
// button and keeps what the last one showed.
class BoxAnswerer : public QObject {
public:
    explicit BoxAnswerer(QMessageBox::StandardButton answer, bool repeat = false) : m_answer(answer)
    {
        connect(&m_timer, &QTimer::timeout, this, [this, repeat] {
            auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
            if (!box)
                return;
            if (!repeat)
                m_timer.stop();
            title = box->windowTitle();
            text = box->text();
            icon = box->icon();
            buttons = box->standardButtons();
            ++count;
            box->button(m_answer)->click();
        });
        m_timer.start(5);
    }

    QString title;
    QString text;
    QMessageBox::Icon icon = QMessageBox::NoIcon;
    QMessageBox::StandardButtons buttons;
    int count = 0;

private:
    QMessageBox::StandardButton m_answer;
    QTimer m_timer;
};

using corv::test::read_file;

} // namespace

class TstMainWindow : public QObject {
    Q_OBJECT

    engine::NodeRegistry m_registry;
    engine::ConfigManager m_config;
    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<engine::ProjectManager> m_projects;
    std::unique_ptr<MainWindow> m_window;
    QList<QUrl> m_opened_urls;
    widgets::MainWindowContext::LogWatch m_log_watch;

    QString path(const char *name) const { return m_dir->filePath(QString::fromLatin1(name)); }

    widgets::MainWindowContext context() const
    {
        widgets::MainWindowContext c;
        c.projects = m_projects.get();
        c.settings_file = path("settings.ini");
        c.log_file = path("logs/run.txt");
        c.log_folder = path("logs");
        c.watch_log = [this](widgets::MainWindowContext::LogWatch watch) {
            const_cast<TstMainWindow *>(this)->m_log_watch = std::move(watch);
            return QList<std::pair<QtMsgType, QString>>{{QtInfoMsg, QStringLiteral("[0.001] started")}};
        };
        return c;
    }

    void make_window()
    {
        m_window = std::make_unique<MainWindow>(context());
        m_window->open_initial_project();
        m_window->show();
        QVERIFY(QTest::qWaitForWindowExposed(m_window.get()));
    }

    // An edit through the history: the project becomes modified.
    void add_rack(const QString &name)
    {
        m_projects->commands()->execute(std::make_unique<engine::AddRackCommand>(
            m_projects->project(), m_projects->project()->profile()->count(), name));
    }

    std::size_t rack_count() const { return m_projects->project()->profile()->count(); }

    // A saved project with one rack at name, open and unmodified.
    void open_saved(const char *name)
    {
        add_rack(QStringLiteral("A"));
        QVERIFY(m_window->view_model()->save_as(path(name)));
        QVERIFY(!m_projects->is_modified());
    }

public Q_SLOTS:
    void open_url(const QUrl &url) { m_opened_urls.append(url); }

private Q_SLOTS:
    void initTestCase()
    {
        QCoreApplication::setApplicationName(QStringLiteral("Corvane"));
        QCoreApplication::setApplicationVersion(QStringLiteral("0.9.4"));
        QPixmap icon(32, 32);
        icon.fill(Qt::darkCyan);
        QApplication::setWindowIcon(QIcon(icon));
        m_config.set_save_versions(3);
        QDesktopServices::setUrlHandler(QStringLiteral("file"), this, "open_url");
    }

    void init()
    {
        // The offscreen platform's own notes are not ours.
        QTest::failOnWarning(
            QRegularExpression(QStringLiteral("^(?!This plugin does not support ).*")));
        m_dir = std::make_unique<QTemporaryDir>();
        m_projects = std::make_unique<engine::ProjectManager>(m_registry, &m_config);
        make_window();
    }

    void cleanupTestCase() { QDesktopServices::unsetUrlHandler(QStringLiteral("file")); }

    void cleanup()
    {
        m_window.reset();
        m_projects.reset();
        m_dir.reset();
        m_opened_urls.clear();
    }

    // Menus in order, with standard shortcuts and roles.
    void menus()
    {
        QStringList seen;
        for (QAction *menu : m_window->menuBar()->actions()) {
            seen.append(menu->text());
            for (QAction *action : menu->menu()->actions()) {
                if (!action->isSeparator())
                    seen.append(action->objectName());
            }
        }
        QCOMPARE(seen, QStringList({"&File",
                                    "Menu.File.New",
                                    "Menu.File.Open",
                                    "Menu.File.Save",
                                    "Menu.File.SaveAs",
                                    "Menu.File.Preferences",
                                    "Menu.File.Quit",
                                    "&Edit",
                                    "Menu.Edit.Undo",
                                    "Menu.Edit.Redo",
                                    "Menu.Edit.Cut",
                                    "Menu.Edit.Copy",
                                    "Menu.Edit.Paste",
                                    "Menu.Edit.Delete",
                                    "Menu.Edit.SelectAll",
                                    "&Run",
                                    "Menu.Run.PauseAll",
                                    "Rac&k",
                                    "Action.Add",
                                    "Action.Rename",
                                    "Action.Enabled",
                                    "&Node",
                                    "Action.AddInside",
                                    "Action.Replace",
                                    "Action.Edit",
                                    "&View",
                                    "Menu.View.Activity",
                                    "Menu.View.Hotkeys",
                                    "&Help",
                                    "Menu.Help.CurrentLogFile",
                                    "Menu.Help.OpenLogDirectory",
                                    "Menu.Help.InstallPlugin",
                                    "Menu.Help.CheckForUpdates",
                                    "Menu.Help.About"}));
        QCOMPARE(m_window->objectName(), QStringLiteral("CorvMainWindow"));
        QCOMPARE(m_window->action(Action::SaveAs)->shortcuts(),
                 QKeySequence::keyBindings(QKeySequence::SaveAs));
        QCOMPARE(m_window->action(Action::Preferences)->menuRole(), QAction::PreferencesRole);
        QCOMPARE(m_window->action(Action::Quit)->menuRole(), QAction::QuitRole);
        QCOMPARE(m_window->action(Action::About)->menuRole(), QAction::AboutRole);

        // About lists the open-source projects, Qt with the version it runs on.
        m_window->action(Action::About)->trigger();
        auto *about = m_window->findChild<widgets::AboutWindow *>();
        QVERIFY(about && about->isVisible());
        QCOMPARE(about->windowTitle(), QStringLiteral("About Corvane"));
        QVERIFY(about->projects_view()->toPlainText().contains(
            QStringLiteral("Qt %1").arg(qVersion())));
    }

    // Without a file, with one, modified, paused: the model and the window agree.
    void title()
    {
        auto *model = m_window->view_model();
        QSignalSpy titles(model, &widgets::MainWindowViewModel::title_changed);
        QCOMPARE(m_window->windowTitle(), QStringLiteral("Untitled Project – Corvane 0.9.4"));
        add_rack(QStringLiteral("A"));
        QVERIFY(model->save_as(path("show.corv")));
        add_rack(QStringLiteral("B"));
        model->set_paused(true);
        model->set_paused(false);
        // Saving links the file, then clears the mark.
        QCOMPARE(titles, (QList<QVariantList>{{"Untitled Project* – Corvane 0.9.4"},
                                              {"show* – Corvane 0.9.4"},
                                              {"show – Corvane 0.9.4"},
                                              {"show* – Corvane 0.9.4"},
                                              {"show* (paused) – Corvane 0.9.4"},
                                              {"show* – Corvane 0.9.4"}}));
        QCOMPARE(m_window->windowTitle(), model->title());
    }

    void unsaved_question_data()
    {
        QTest::addColumn<QString>("operation");
        QTest::addColumn<int>("answer");
        QTest::addColumn<bool>("goes_on");
        QTest::addColumn<bool>("saved");
        for (const char *operation : {"new", "open", "close"}) {
            const QByteArray op(operation);
            QTest::newRow((op + " save").constData())
                << QString::fromLatin1(operation) << int(QMessageBox::Save) << true << true;
            QTest::newRow((op + " discard").constData())
                << QString::fromLatin1(operation) << int(QMessageBox::Discard) << true << false;
            QTest::newRow((op + " cancel").constData())
                << QString::fromLatin1(operation) << int(QMessageBox::Cancel) << false << false;
        }
    }

    // The information box with Save, Discard and Cancel in front of each
    // operation that drops the project; Save writes the file first.
    void unsaved_question()
    {
        QFETCH(QString, operation);
        QFETCH(int, answer);
        QFETCH(bool, goes_on);
        QFETCH(bool, saved);
        open_saved("show.corv");
        add_rack(QStringLiteral("unsaved"));
        const QByteArray before = read_file(path("show.corv"));
        QVERIFY(QFile::copy(path("show.corv"), path("other.corv")));

        BoxAnswerer box{QMessageBox::StandardButton(answer)};
        bool went_on = false;
        if (operation == QLatin1String("new")) {
            m_window->action(Action::New)->trigger();
            went_on = rack_count() == 0;
        } else if (operation == QLatin1String("open")) {
            QVERIFY(!m_window->view_model()->open(path("other.corv")) || goes_on);
            went_on = rack_count() == 1;
        } else {
            went_on = m_window->close();
        }
        QCOMPARE(box.count, 1);
        QCOMPARE(box.title, QStringLiteral("Unsaved Changes"));
        QCOMPARE(box.text,
                 QStringLiteral("The project has unsaved changes. Do you want to save them?"));
        QCOMPARE(box.icon, QMessageBox::Information);
        QCOMPARE(box.buttons, QMessageBox::Save | QMessageBox::Discard | QMessageBox::Cancel);
        QCOMPARE(went_on, goes_on);
        QCOMPARE(read_file(path("show.corv")) != before, saved);
        QCOMPARE(read_file(path("show.corv")).contains("unsaved"), saved);
        if (!goes_on)
            QVERIFY(m_projects->is_modified());
    }

    // Two command lines hand over a project each while there are unsaved
    // changes; the second arrives while the question about the first is up.
    // One question; its Save saves once, and the second project then opens
    // without a question nor a save (which would back up the first).
    void queued_hand_overs_ask_once()
    {
        open_saved("show.corv");
        add_rack(QStringLiteral("unsaved"));
        QVERIFY(QFile::copy(path("show.corv"), path("a.corv")));
        QVERIFY(QFile::copy(path("show.corv"), path("b.corv")));
        widgets::MainWindowViewModel *model = m_window->view_model();
        for (const char *name : {"a.corv", "b.corv"})
            QMetaObject::invokeMethod(model, [model, file = path(name)] { model->open(file); }, Qt::QueuedConnection);
        BoxAnswerer box{QMessageBox::Save, true};
        QTRY_COMPARE(m_projects->linked_file(), path("b.corv"));
        QTRY_VERIFY(!QApplication::activeModalWidget());
        QCOMPARE(box.count, 1);
        QVERIFY(read_file(path("show.corv")).contains("unsaved"));
        QVERIFY(!m_projects->is_modified());
        QCOMPARE(QDir(m_dir->path()).entryList({QStringLiteral("*.0*.corv")}), QStringList());
    }

    // A project file dropped on the window opens; other drops are refused.
    void drop_opens()
    {
        open_saved("show.corv");
        QVERIFY(QFile::copy(path("show.corv"), path("other.corv")));
        QMimeData data;
        data.setUrls({QUrl::fromLocalFile(path("other.corv"))});
        const QPoint at = m_window->rect().center();
        QDragEnterEvent enter(at, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QCoreApplication::sendEvent(m_window.get(), &enter);
        QVERIFY(enter.isAccepted());
        QDropEvent drop(at, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QCoreApplication::sendEvent(m_window.get(), &drop);
        QTRY_COMPARE(m_window->view_model()->linked_file(), path("other.corv"));
        data.setUrls({QUrl::fromLocalFile(path("missing.corv"))});
        QDragEnterEvent refused(at, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QCoreApplication::sendEvent(m_window.get(), &refused);
        QVERIFY(!refused.isAccepted());
    }

    void open_error_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("body");
        // The reader's own line and the error itself, both logged.
        QTest::addColumn<int>("warnings");
        // The system's own words for a missing file ("No such file or
        // directory" on Linux, "File not found." on Windows).
        QFile missing(QStringLiteral("no such file.corv"));
        missing.open(QIODevice::ReadOnly);
        QTest::newRow("missing")
            << QByteArray()
            << QStringLiteral("The project file couldn't be opened:\n") + missing.errorString()
            << 1;
        QTest::newRow("not xml") << QByteArray("hello")
                                 << QStringLiteral(
                                        "The file is not a Corvane project, or it is damaged.")
                                 << 2;
        QTest::newRow("too new") << QByteArray("<?xml version=\"1.0\"?><project version=\"2\"/>")
                                 << QStringLiteral("The project was saved by a newer version of "
                                                   "Corvane. Update Corvane to open it.")
                                 << 2;
    }

    // A critical box with the reason; the open project stays.
    void open_error()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, body);
        QFETCH(int, warnings);
        for (int i = 0; i < warnings; ++i)
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral(".")));
        open_saved("show.corv");
        const QString bad = path("bad.corv");
        if (!bytes.isEmpty())
            corv::test::write_file(bad, bytes);
        BoxAnswerer box(QMessageBox::Ok);
        QVERIFY(!m_window->view_model()->open(bad));
        QCOMPARE(box.count, 1);
        QCOMPARE(box.icon, QMessageBox::Critical);
        QCOMPARE(box.title, QStringLiteral("Couldn't Open Project"));
        QCOMPARE(box.text, body);
        QCOMPARE(box.buttons, QMessageBox::StandardButtons(QMessageBox::Ok));
        QCOMPARE(m_window->view_model()->linked_file(), path("show.corv"));
        QCOMPARE(rack_count(), 1);
    }

    // A first project that can't be read: start-up goes on with a new one,
    // and the box waits until the window shows.
    void startup_error_waits_for_window()
    {
        m_window.reset();
        m_projects = std::make_unique<engine::ProjectManager>(m_registry, &m_config);
        m_window = std::make_unique<MainWindow>(context());
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression(QStringLiteral("^Couldn't Open Project")));
        BoxAnswerer box(QMessageBox::Ok);
        m_window->open_initial_project(path("missing.corv"));
        QTest::qWait(30);
        QCOMPARE(box.count, 0);
        QVERIFY(m_projects->has_project());
        m_window->show();
        QTRY_COMPARE(box.count, 1);
        QCOMPARE(box.title, QStringLiteral("Couldn't Open Project"));
    }

    // A save into a folder that does not exist shows the save error.
    void save_error()
    {
        add_rack(QStringLiteral("A"));
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression(QStringLiteral("^Couldn't save project")));
        BoxAnswerer box(QMessageBox::Ok);
        QVERIFY(!m_window->view_model()->save_as(path("no/such/folder/show.corv")));
        QCOMPARE(box.count, 1);
        QCOMPARE(box.title, QStringLiteral("Couldn't Save Project"));
        QVERIFY(box.text.startsWith(QStringLiteral("The project couldn't be saved:\n")));
        QVERIFY(m_projects->is_modified());
    }

    // Undo and Redo follow the history and act on it, and say what they
    // undo and redo, in the language of the moment.
    void undo_redo()
    {
        QAction *undo = m_window->action(Action::Undo);
        QAction *redo = m_window->action(Action::Redo);
        QVERIFY(!undo->isEnabled());
        QVERIFY(!redo->isEnabled());
        QCOMPARE(undo->text(), QStringLiteral("Undo"));
        QVERIFY(m_window->racks_panel()->add_action()->isEnabled());
        m_window->racks_panel()->add_action()->trigger();
        QCOMPARE(rack_count(), 1u);
        QVERIFY(undo->isEnabled());
        QCOMPARE(undo->text(), QStringLiteral("Undo Add Rack"));
        undo->trigger();
        QCOMPARE(rack_count(), 0);
        QVERIFY(!undo->isEnabled());
        QVERIFY(redo->isEnabled());
        QCOMPARE(undo->text(), QStringLiteral("Undo"));
        QCOMPARE(redo->text(), QStringLiteral("Redo Add Rack"));
        QVERIFY(locale::apply_language_preference(locale::locale_list().index_of("de-DE")));
        QEvent change(QEvent::LanguageChange);
        QCoreApplication::sendEvent(m_window.get(), &change);
        QCOMPARE(redo->text(), QStringLiteral("Wiederholen: Rack hinzufügen"));
        QVERIFY(locale::apply_language_preference(locale::default_language_position()));
        QCoreApplication::sendEvent(m_window.get(), &change);
        redo->trigger();
        QCOMPARE(rack_count(), 1);
        // An edit given no name says only "Undo".
        add_rack(QStringLiteral("A"));
        QCOMPARE(undo->text(), QStringLiteral("Undo"));
        // A new project brings a new, empty history.
        BoxAnswerer box(QMessageBox::Discard);
        m_window->action(Action::New)->trigger();
        QVERIFY(!undo->isEnabled());
        add_rack(QStringLiteral("B"));
        m_window->activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(m_window.get()));
        QTest::keySequence(m_window.get(), QKeySequence::Undo);
        QCOMPARE(rack_count(), 0);
    }

    // Ctrl+S writes the linked file and clears the modified mark.
    void save_shortcut()
    {
        open_saved("show.corv");
        add_rack(QStringLiteral("second"));
        QVERIFY(m_window->windowTitle().startsWith(QStringLiteral("show*")));
        QTest::keySequence(m_window.get(), QKeySequence::Save);
        QVERIFY(read_file(path("show.corv")).contains("second"));
        QCOMPARE(m_window->windowTitle(), QStringLiteral("show – Corvane 0.9.4"));
    }

    // Edit actions go to the focused widget: a panel, or a text field.
    void edit_actions_reach_focus()
    {
        add_rack(QStringLiteral("A"));
        add_rack(QStringLiteral("B"));
        QListView *racks = m_window->racks_panel()->list();
        racks->setFocus();
        QTRY_VERIFY(racks->hasFocus());
        m_window->action(Action::SelectAll)->trigger();
        m_window->action(Action::Copy)->trigger();
        m_window->action(Action::Paste)->trigger();
        QCOMPARE(rack_count(), 4u);
        m_window->action(Action::SelectAll)->trigger();
        m_window->action(Action::Delete)->trigger();
        QCOMPARE(rack_count(), 0u);
        m_window->action(Action::Undo)->trigger();
        QCOMPARE(rack_count(), 4u);

        auto *field = new QLineEdit(QStringLiteral("hello"), m_window.get());
        field->show();
        field->setFocus();
        QTRY_VERIFY(field->hasFocus());
        m_window->action(Action::SelectAll)->trigger();
        QCOMPARE(field->selectedText(), QStringLiteral("hello"));
        m_window->action(Action::Delete)->trigger();
        QCOMPARE(field->text(), QString());
    }

    void log_actions()
    {
        m_window->action(Action::CurrentLogFile)->trigger();
        m_window->action(Action::OpenLogDirectory)->trigger();
        QCOMPARE(m_opened_urls, (QList<QUrl>{QUrl::fromLocalFile(path("logs/run.txt")),
                                             QUrl::fromLocalFile(path("logs"))}));
        QVERIFY(m_opened_urls.first().toString().startsWith(QStringLiteral("file:///")));
    }

    // The pause holds every rack, racks added later and the racks of a
    // project opened later, and leaves the saved project alone.
    void pause_all()
    {
        open_saved("show.corv");
        auto running = [this] {
            QList<bool> flags;
            for (const QUuid &id : m_projects->project()->profile()->ids())
                flags.append(m_projects->runtime()->find_rack_manager(id)->is_running());
            return flags;
        };
        QSignalSpy paused(m_window->view_model(), &widgets::MainWindowViewModel::is_paused_changed);
        QTest::keyClick(m_window.get(), Qt::Key_P, Qt::ControlModifier | Qt::ShiftModifier);
        QCOMPARE(paused.count(), 1);
        QVERIFY(m_window->action(Action::PauseAll)->isChecked());
        QVERIFY(m_window->paused_banner()->isVisible());
        const auto status = [this](int row) {
            auto *racks = m_window->racks_panel()->view_model();
            return racks->index(row).data(widgets::RacksPanelViewModel::StatusRole).toString();
        };
        QCOMPARE(status(0), QStringLiteral("paused"));
        add_rack(QStringLiteral("later"));
        QCOMPARE(running(), (QList<bool>{false, false}));
        QVERIFY(m_window->view_model()->save());
        QVERIFY(!read_file(path("show.corv")).contains("enabled=\"false\""));
        QVERIFY(m_window->view_model()->open(path("show.corv")));
        QCOMPARE(running(), (QList<bool>{false, false}));
        m_window->action(Action::PauseAll)->trigger();
        QCOMPARE(running(), (QList<bool>{true, true}));
        QCOMPARE(paused.count(), 2);
        QVERIFY(!m_window->paused_banner()->isVisible());
        QCOMPARE(status(0), QStringLiteral("running"));

        // The banner's button resumes; a disabled rack says so.
        m_window->action(Action::PauseAll)->trigger();
        m_window->paused_banner()->findChild<QPushButton *>()->click();
        QVERIFY(!m_window->view_model()->is_paused());
        QVERIFY(m_window->racks_panel()->view_model()->set_rack_enabled(
            m_projects->project()->profile()->at(1), false));
        QCOMPARE(status(1), QStringLiteral("disabled"));
    }

    // A confirmed language change reaches the window as LanguageChange.
    void language_change()
    {
        const auto switch_to = [this](const char *id) {
            QVERIFY(locale::apply_language_preference(locale::locale_list().index_of(id)));
            QEvent change(QEvent::LanguageChange);
            QCoreApplication::sendEvent(m_window.get(), &change);
        };
        switch_to("de-DE");
        const QList<QAction *> menus = m_window->menuBar()->actions();
        QCOMPARE(menus.first()->text(), QStringLiteral("&Datei"));
        QCOMPARE(m_window->action(Action::Open)->text(), QStringLiteral("Öffnen…"));
        QVERIFY(m_window->windowTitle().startsWith(QStringLiteral("Unbenanntes Projekt")));
        const QStringList texts{m_window->rack_panel()->edit_action()->text(), m_window->activity_dock()->windowTitle(),
                                m_window->hotkeys_dock()->windowTitle()};
        QCOMPARE(texts, (QStringList{"Bearbeiten", "Aktivität", "Tastenkürzel"}));
        switch_to("en-US");
        QCOMPARE(menus.first()->text(), QStringLiteral("&File"));
    }

    // Into the tray with its menu and tooltip (also while paused), and back.
    void tray()
    {
        // Qt's tray code for X11 warns on the offscreen platform; Windows' does not.
        if (QSysInfo::kernelType() != QLatin1StringView("winnt"))
            QTest::ignoreMessage(QtWarningMsg,
                                 QRegularExpression(QStringLiteral("systemTrayWindowChanged")));
        m_window->hide_to_tray();
        QSystemTrayIcon *icon = m_window->tray_icon();
        QVERIFY(icon);
        QTRY_VERIFY(!m_window->isVisible());
        QCOMPARE(icon->toolTip(), QStringLiteral("Corvane is running in the background"));
        QMenu *menu = icon->contextMenu();
        QCOMPARE(menu->title(), QStringLiteral("Corvane"));
        QList<QAction *> actions = menu->actions();
        actions.removeIf([](QAction *a) { return a->isSeparator(); });
        QCOMPARE(actions.size(), 3);
        actions[1]->trigger();
        QVERIFY(m_window->view_model()->is_paused());
        QCOMPARE(icon->toolTip(), QStringLiteral("Corvane is paused in the background"));
        QCOMPARE(actions[2]->menuRole(), QAction::QuitRole);
        actions[0]->trigger();
        QVERIFY(m_window->isVisible());
        QVERIFY(!m_window->tray_icon());
    }

    // The last project, the splitter and the geometry come back.
    // The View menu's shortcut opens the dock, whose model listens only
    // while it is open; a row's rack and node become the selection.
    void activity_dock()
    {
        QAction *toggle = m_window->action(Action::Activity);
        QCOMPARE(toggle->shortcut(), QKeySequence(QStringLiteral("Ctrl+Shift+A")));
        QVERIFY(m_window->activity_dock()->isHidden());
        widgets::ActivityViewModel *model = m_window->activity_panel()->view_model();
        QVERIFY(!model->is_listening());
        QTest::keyClick(m_window.get(), Qt::Key_A, Qt::ControlModifier | Qt::ShiftModifier);
        QVERIFY(m_window->activity_dock()->isVisible());
        QVERIFY(model->is_listening());

        add_rack(QStringLiteral("A"));
        add_rack(QStringLiteral("B"));
        const QUuid b = m_projects->project()->profile()->at(1);
        Q_EMIT m_window->activity_panel()->node_activated(b, QUuid());
        QCOMPARE(m_window->racks_panel()->view_model()->selected_rack(), b);

        toggle->trigger();
        QVERIFY(!model->is_listening());

        // The log tab: the lines so far, then each new one from any thread,
        // warnings and errors marked; a closed window stops watching.
        QAbstractItemModel *log = m_window->log_view()->model();
        QVERIFY(m_log_watch);
        std::thread([watch = m_log_watch] {
            watch(QtWarningMsg, QStringLiteral("[0.002] WARNING careful"));
            watch(QtCriticalMsg, QStringLiteral("[0.003] CRITICAL broken"));
        }).join();
        QTRY_COMPARE(log->rowCount(), 3);
        QCOMPARE(log->index(2, 0).data().toString(), QStringLiteral("[0.003] CRITICAL broken"));
        QVERIFY(!log->index(0, 0).data(Qt::BackgroundRole).isValid());
        const QVariant warning = log->index(1, 0).data(Qt::BackgroundRole);
        const QVariant error = log->index(2, 0).data(Qt::BackgroundRole);
        QVERIFY(warning.isValid() && error.isValid() && warning != error);
        m_window.reset();
        QVERIFY(!m_log_watch);
    }

    // A new project shows how to begin; the Rack menu and a save say what
    // they do.
    void first_steps()
    {
        widgets::RacksPanel *racks = m_window->racks_panel();
        QVERIFY(racks->empty_hint()->isVisible());
        QVERIFY(!racks->list()->isVisible());
        racks->empty_hint_button()->click();
        QCOMPARE(rack_count(), 1u);
        QVERIFY(!racks->empty_hint()->isVisible());
        QVERIFY(racks->list()->isVisible());
        m_projects->commands()->undo();
        QVERIFY(racks->empty_hint()->isVisible());

        QCOMPARE(racks->add_action()->shortcut(), QKeySequence(QStringLiteral("Ctrl+Shift+R")));
        QTest::keyClick(m_window.get(), Qt::Key_R, Qt::ControlModifier | Qt::ShiftModifier);
        QCOMPARE(rack_count(), 1u);
        QVERIFY(racks->enabled_action()->isCheckable());

        QVERIFY(m_window->view_model()->save_as(path("first.corv")));
        QVERIFY(m_window->statusBar()->currentMessage().startsWith(QStringLiteral("Saved at ")));
    }

    void settings_restored()
    {
        add_rack(QStringLiteral("first"));
        open_saved("show.corv");
        const QUuid second = m_projects->project()->profile()->at(1);
        m_window->racks_panel()->view_model()->set_selected_rack(second);
        m_window->splitter()->setSizes({100, 500, 300});
        const QList<int> sizes = m_window->splitter()->sizes();
        m_window.reset();
        QSettings settings(path("settings.ini"), QSettings::IniFormat);
        QCOMPARE(settings.value(QStringLiteral("LastOpenPath")).toString(), path("show.corv"));
        QVERIFY(!settings.value(QStringLiteral("MainWindow/Geometry")).toByteArray().isEmpty());

        m_projects = std::make_unique<engine::ProjectManager>(m_registry, &m_config);
        make_window();
        QCOMPARE(m_window->view_model()->linked_file(), path("show.corv"));
        QCOMPARE(rack_count(), 2u);
        QCOMPARE(m_window->racks_panel()->view_model()->selected_rack(), second);
        QCOMPARE(m_window->rack_panel()->view_model()->title(), QStringLiteral("Rack: A"));
        QCOMPARE(m_window->splitter()->sizes(), sizes);
    }

    // Log lines arrive from any thread, in order; warnings and errors are
    // marked, the rest plain.
    void log_lines_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<QColor>("foreground"); // invalid: none
        QTest::addColumn<QColor>("background");
        QTest::newRow("debug") << int(QtDebugMsg) << QColor() << QColor();
        QTest::newRow("info") << int(QtInfoMsg) << QColor() << QColor();
        QTest::newRow("warning") << int(QtWarningMsg) << QColor(0x8a, 0x50, 0x00) << QColor(0xff, 0xf4, 0xd6);
        QTest::newRow("critical") << int(QtCriticalMsg) << QColor(0xb0, 0x00, 0x20) << QColor(0xfd, 0xe2, 0xe4);
        QTest::newRow("fatal") << int(QtFatalMsg) << QColor(0xb0, 0x00, 0x20) << QColor(0xfd, 0xe2, 0xe4);
    }

    void log_lines()
    {
        QFETCH(int, type);
        QFETCH(QColor, foreground);
        QFETCH(QColor, background);
        widgets::LogViewModel log;
        std::thread writer([&] {
            log.add(QtInfoMsg, QStringLiteral("first"));
            log.add(QtMsgType(type), QStringLiteral("second"));
        });
        writer.join();
        QCOMPARE(log.rowCount(), 0); // not before the model's thread takes them
        QTRY_COMPARE(log.rowCount(), 2);
        const QModelIndex row = log.index(1);
        QCOMPARE(row.data().toString(), QStringLiteral("second"));
        QCOMPARE(row.data(widgets::LogViewModel::TypeRole).toInt(), type);
        const auto color = [&](int role) {
            const QVariant brush = row.data(role);
            return brush.isValid() ? brush.value<QBrush>().color() : QColor();
        };
        QCOMPARE(color(Qt::ForegroundRole), foreground);
        QCOMPARE(color(Qt::BackgroundRole), background);
        QVERIFY(!log.index(0).data(Qt::ForegroundRole).isValid());
        QVERIFY(!log.index(2).data().isValid());
    }

    // Past its capacity the log lets the oldest lines go.
    void log_keeps_the_latest_lines()
    {
        widgets::LogViewModel log;
        QList<std::pair<QtMsgType, QString>> lines;
        for (int i = 0; i < widgets::LogViewModel::kCapacity; ++i)
            lines.append({QtInfoMsg, QString::number(i)});
        log.append(lines);
        log.append({});
        QCOMPARE(log.rowCount(), widgets::LogViewModel::kCapacity);
        QSignalSpy removed(&log, &QAbstractItemModel::rowsRemoved);
        log.append({{QtInfoMsg, QStringLiteral("a")}, {QtWarningMsg, QStringLiteral("b")}});
        QCOMPARE(log.rowCount(), widgets::LogViewModel::kCapacity);
        QCOMPARE(removed.count(), 1);
        QCOMPARE(removed.first().at(2).toInt(), 1); // rows 0 and 1 went
        QCOMPARE(log.index(0).data().toString(), QStringLiteral("2"));
        QCOMPARE(log.index(widgets::LogViewModel::kCapacity - 1).data().toString(), QStringLiteral("b"));
    }
};

QTEST_MAIN(TstMainWindow)
#include "tst_main_window.moc"
