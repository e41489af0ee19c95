#include "widgets/main_window.h"

#include "locale/translate.h"
#include "model/project.h"
#include "persistence/project_manager.h"
#include "widgets/about_window.h"
#include "widgets/activity_panel.h"
#include "widgets/activity_view_model.h"
#include "widgets/hotkeys_panel.h"
#include "widgets/hotkeys_view_model.h"
#include "widgets/install_plugin_window.h"
#include "widgets/log_view_model.h"
#include "widgets/main_window_view_model.h"
#include "widgets/node_panel.h"
#include "widgets/node_panel_view_model.h"
#include "widgets/rack_panel.h"
#include "widgets/rack_panel_view_model.h"
#include "widgets/racks_panel.h"
#include "widgets/racks_panel_view_model.h"
#include "widgets/update_window.h"

#include <QAbstractSpinBox>
#include <QAction>
#include <QApplication>
#include <QCloseEvent>
#include <QDesktopServices>
#include <QDir>
#include <QDockWidget>
#include <QFontDatabase>
#include <QScrollBar>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFileDialog>
#include <QFileInfo>
#include <QFrame>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QMenuBar>
#include <QMessageBox>
#include <QMimeData>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QRegularExpression>
#include <QSettings>
#include <QSplitter>
#include <QStatusBar>
#include <QTime>
#include <QSystemTrayIcon>
#include <QTabWidget>
#include <QTextEdit>
#include <QTimer>
#include <QUrl>
#include <QVBoxLayout>

#include <utility>

namespace corv::widgets {

namespace {

// The one local file of a drag, or empty.
QString dropped_file(const QMimeData *data)
{
    if (!data || !data->hasUrls() || data->urls().size() != 1)
        return {};
    const QUrl url = data->urls().constFirst();
    return url.isLocalFile() && QFileInfo(url.toLocalFile()).isFile() ? url.toLocalFile()
                                                                      : QString();
}

// The first "*.ext" pattern of the project filter text, as ".ext"; empty
// when the filter names none.
QString default_suffix()
{
    static const QRegularExpression pattern(QStringLiteral("\\*(\\.[A-Za-z0-9_]+)"));
    const QRegularExpressionMatch match = pattern.match(locale::translate("FileDialog.Filter"));
    return match.hasMatch() ? match.captured(1) : QString();
}

// A panel under its title; the title label is returned.
QLabel *add_titled(QSplitter *splitter, QWidget *panel, const QString &title)
{
    auto *frame = new QWidget(splitter);
    auto *label = new QLabel(title, frame);
    label->setObjectName(QStringLiteral("PanelTitle"));
    label->setContentsMargins(6, 4, 6, 2);
    QFont font = label->font();
    font.setBold(true);
    label->setFont(font);
    auto *layout = new QVBoxLayout(frame);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(label);
    layout->addWidget(panel, 1);
    splitter->addWidget(frame);
    return label;
}

// Calls the first of `methods` that the widget or one of its parents offers.
bool invoke_on_focus_chain(QWidget *widget, std::initializer_list<const char *> methods)
{
    for (QWidget *w = widget; w; w = w->parentWidget()) {
        if (w->isWindow() && qobject_cast<QMainWindow *>(w))
            return false;
        for (const char *method : methods) {
            const QByteArray signature = QByteArray(method) + "()";
            if (w->metaObject()->indexOfMethod(signature.constData()) >= 0)
                return QMetaObject::invokeMethod(w, method);
        }
    }
    return false;
}

} // namespace

MainWindow::MainWindow(const MainWindowContext &context, QWidget *parent)
    : QMainWindow(parent), m_context(context),
      m_model(new MainWindowViewModel(*context.projects, this))
{
    setObjectName(QStringLiteral("CorvMainWindow"));
    setAcceptDrops(true);
    resize(1100, 680);

    m_critical_box = [this](const QString &title, const QString &body) {
        QMessageBox::critical(this, title, body, QMessageBox::Ok);
    };
    m_model->set_unsaved_question([this] {
        QMessageBox box(QMessageBox::Information, locale::translate("UnsavedChanges.Caption"),
                        locale::translate("UnsavedChanges.Body"),
                        QMessageBox::Save | QMessageBox::Discard | QMessageBox::Cancel, this);
        box.setObjectName(QStringLiteral("UnsavedChangesBox"));
        box.setDefaultButton(QMessageBox::Save);
        switch (box.exec()) {
        case QMessageBox::Save:
            return MainWindowViewModel::UnsavedAnswer::Save;
        case QMessageBox::Discard:
            return MainWindowViewModel::UnsavedAnswer::Discard;
        default:
            return MainWindowViewModel::UnsavedAnswer::Cancel;
        }
    });
    m_model->set_open_path_question([this] { return ask_open_path(); });
    m_model->set_save_path_question([this] { return ask_save_path(); });

    connect(m_model, &MainWindowViewModel::title_changed, this, &QWidget::setWindowTitle);
    connect(m_model, &MainWindowViewModel::error_occurred, this,
            [this](const QString &title, const QString &body) {
                // Failures before the window shows (the first project) wait
                // for it, so that start-up is never held by a box.
                if (!isVisible()) {
                    m_pending_errors.append({title, body});
                    return;
                }
                if (m_critical_box)
                    m_critical_box(title, body);
            });
    connect(m_model, &MainWindowViewModel::can_undo_redo_changed, this,
            &MainWindow::refresh_undo_redo);
    connect(m_model, &MainWindowViewModel::is_paused_changed, this, &MainWindow::refresh_pause);
    // A save, by hand or by the autosave timer, says when in the status bar.
    connect(&m_model->project_manager(), &engine::ProjectManager::saved, this, [this] {
        statusBar()->showMessage(locale::translate(
            "MainWindow.SavedAt.%1", QLocale().toString(QTime::currentTime(), QLocale::ShortFormat)));
    });
    connect(m_model, &MainWindowViewModel::linked_project_file_changed, this,
            [this](const QString &path) {
                if (m_context.settings_file.isEmpty() || path.isEmpty())
                    return;
                QSettings(m_context.settings_file, QSettings::IniFormat)
                    .setValue(QStringLiteral("LastOpenPath"), path);
            });

    create_actions();
    create_menus();
    create_panels();
    create_activity_dock();
    create_hotkeys_dock();
    create_panel_menus();
    setWindowTitle(m_model->title());
    refresh_undo_redo();
    refresh_pause();
    restore_settings();
}

MainWindow::~MainWindow()
{
    if (m_log_model)
        m_context.watch_log(nullptr);
    save_settings();
    delete m_tray;
}

void MainWindow::create_actions()
{
    struct Row {
        Action which;
        const char *key;
        QKeySequence::StandardKey shortcut;
        QAction::MenuRole role;
    };
    const Row rows[] = {
        {Action::New, CORV_TR_KEY("Menu.File.New"), QKeySequence::New, QAction::NoRole},
        {Action::Open, CORV_TR_KEY("Menu.File.Open"), QKeySequence::Open, QAction::NoRole},
        {Action::Save, CORV_TR_KEY("Menu.File.Save"), QKeySequence::Save, QAction::NoRole},
        {Action::SaveAs, CORV_TR_KEY("Menu.File.SaveAs"), QKeySequence::SaveAs, QAction::NoRole},
        {Action::Preferences, CORV_TR_KEY("Menu.File.Preferences"), QKeySequence::Preferences,
         QAction::PreferencesRole},
        {Action::Quit, CORV_TR_KEY("Menu.File.Quit"), QKeySequence::Quit, QAction::QuitRole},
        {Action::Undo, CORV_TR_KEY("Menu.Edit.Undo"), QKeySequence::Undo, QAction::NoRole},
        {Action::Redo, CORV_TR_KEY("Menu.Edit.Redo"), QKeySequence::Redo, QAction::NoRole},
        {Action::Cut, CORV_TR_KEY("Menu.Edit.Cut"), QKeySequence::Cut, QAction::NoRole},
        {Action::Copy, CORV_TR_KEY("Menu.Edit.Copy"), QKeySequence::Copy, QAction::NoRole},
        {Action::Paste, CORV_TR_KEY("Menu.Edit.Paste"), QKeySequence::Paste, QAction::NoRole},
        {Action::Delete, CORV_TR_KEY("Menu.Edit.Delete"), QKeySequence::Delete, QAction::NoRole},
        {Action::SelectAll, CORV_TR_KEY("Menu.Edit.SelectAll"), QKeySequence::SelectAll,
         QAction::NoRole},
        {Action::PauseAll, CORV_TR_KEY("Menu.Run.PauseAll"), QKeySequence::UnknownKey,
         QAction::NoRole},
        {Action::CurrentLogFile, CORV_TR_KEY("Menu.Help.CurrentLogFile"), QKeySequence::UnknownKey,
         QAction::NoRole},
        {Action::OpenLogDirectory, CORV_TR_KEY("Menu.Help.OpenLogDirectory"),
         QKeySequence::UnknownKey, QAction::NoRole},
        {Action::InstallPlugin, CORV_TR_KEY("Menu.Help.InstallPlugin"), QKeySequence::UnknownKey,
         QAction::NoRole},
        {Action::CheckForUpdates, CORV_TR_KEY("Menu.Help.CheckForUpdates"),
         QKeySequence::UnknownKey, QAction::NoRole},
        {Action::About, CORV_TR_KEY("Menu.Help.About"), QKeySequence::HelpContents,
         QAction::AboutRole},
    };
    for (const Row &row : rows) {
        auto *action = new QAction(locale::translate(row.key), this);
        action->setObjectName(QString::fromLatin1(row.key));
        if (row.shortcut != QKeySequence::UnknownKey)
            action->setShortcuts(row.shortcut);
        action->setMenuRole(row.role);
        m_actions.insert(row.which, action);
    }
    QAction *pause = m_actions[Action::PauseAll];
    pause->setCheckable(true);
    pause->setShortcut(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_P));

    connect(m_actions[Action::New], &QAction::triggered, m_model,
            [this] { m_model->new_project(); });
    connect(m_actions[Action::Open], &QAction::triggered, m_model, [this] { m_model->open(); });
    connect(m_actions[Action::Save], &QAction::triggered, m_model, [this] { m_model->save(); });
    connect(m_actions[Action::SaveAs], &QAction::triggered, m_model,
            [this] { m_model->save_as(); });
    connect(m_actions[Action::Preferences], &QAction::triggered, this, [this] {
        if (m_context.open_preferences)
            m_context.open_preferences(this);
    });
    m_actions[Action::Preferences]->setEnabled(bool(m_context.open_preferences));
    connect(m_actions[Action::Quit], &QAction::triggered, this, &MainWindow::quit);
    connect(m_actions[Action::Undo], &QAction::triggered, m_model, &MainWindowViewModel::undo);
    connect(m_actions[Action::Redo], &QAction::triggered, m_model, &MainWindowViewModel::redo);
    for (Action edit :
         {Action::Cut, Action::Copy, Action::Paste, Action::Delete, Action::SelectAll})
        connect(m_actions[edit], &QAction::triggered, this, [this, edit] { dispatch_edit(edit); });
    connect(pause, &QAction::triggered, m_model, &MainWindowViewModel::set_paused);
    connect(m_actions[Action::CurrentLogFile], &QAction::triggered, this,
            [this] { QDesktopServices::openUrl(QUrl::fromLocalFile(m_context.log_file)); });
    m_actions[Action::CurrentLogFile]->setEnabled(!m_context.log_file.isEmpty());
    connect(m_actions[Action::OpenLogDirectory], &QAction::triggered, this, [this] {
        QDir().mkpath(m_context.log_folder);
        QDesktopServices::openUrl(QUrl::fromLocalFile(m_context.log_folder));
    });
    m_actions[Action::OpenLogDirectory]->setEnabled(!m_context.log_folder.isEmpty());

    const auto update_context = [this] {
        UpdateContext context = widgets::update_context(
            *m_context.plugins, m_context.user_agent ? m_context.user_agent() : QByteArray());
        if (!m_context.settings_file.isEmpty())
            context.settings_file = m_context.settings_file;
        context.confirm_quit = [this] { return m_model->confirm_unsaved_changes(); };
        context.quit = [this] {
            m_quit_confirmed = true;
            QCoreApplication::quit();
        };
        return context;
    };
    connect(m_actions[Action::InstallPlugin], &QAction::triggered, this,
            [this, update_context] { show_install_plugin_window(this, update_context()); });
    connect(m_actions[Action::CheckForUpdates], &QAction::triggered, this,
            [this, update_context] { check_for_updates(this, update_context()); });
    m_actions[Action::InstallPlugin]->setEnabled(m_context.plugins != nullptr);
    m_actions[Action::CheckForUpdates]->setEnabled(m_context.plugins != nullptr);
    connect(m_actions[Action::About], &QAction::triggered, this, &MainWindow::show_about);
}

void MainWindow::create_menus()
{
    QMenu *file = menuBar()->addMenu(locale::translate("Menu.File"));
    m_menus.append({file, CORV_TR_KEY("Menu.File")});
    file->addAction(m_actions[Action::New]);
    file->addAction(m_actions[Action::Open]);
    file->addSeparator();
    file->addAction(m_actions[Action::Save]);
    file->addAction(m_actions[Action::SaveAs]);
    file->addSeparator();
    file->addAction(m_actions[Action::Preferences]);
    file->addSeparator();
    file->addAction(m_actions[Action::Quit]);

    QMenu *edit = menuBar()->addMenu(locale::translate("Menu.Edit"));
    m_menus.append({edit, CORV_TR_KEY("Menu.Edit")});
    edit->addAction(m_actions[Action::Undo]);
    edit->addAction(m_actions[Action::Redo]);
    edit->addSeparator();
    edit->addAction(m_actions[Action::Cut]);
    edit->addAction(m_actions[Action::Copy]);
    edit->addAction(m_actions[Action::Paste]);
    edit->addAction(m_actions[Action::Delete]);
    edit->addSeparator();
    edit->addAction(m_actions[Action::SelectAll]);

    QMenu *run = menuBar()->addMenu(locale::translate("Menu.Run"));
    m_menus.append({run, CORV_TR_KEY("Menu.Run")});
    run->addAction(m_actions[Action::PauseAll]);

    QMenu *view = menuBar()->addMenu(locale::translate("Menu.View"));
    m_menus.append({view, CORV_TR_KEY("Menu.View")});
    m_view_menu = view;

    QMenu *help = menuBar()->addMenu(locale::translate("Menu.Help"));
    m_menus.append({help, CORV_TR_KEY("Menu.Help")});
    help->addAction(m_actions[Action::CurrentLogFile]);
    help->addAction(m_actions[Action::OpenLogDirectory]);
    help->addSeparator();
    help->addAction(m_actions[Action::InstallPlugin]);
    help->addAction(m_actions[Action::CheckForUpdates]);
    help->addSeparator();
    help->addAction(m_actions[Action::About]);
}

void MainWindow::create_panels()
{
    m_splitter = new QSplitter(Qt::Horizontal, this);
    m_splitter->setObjectName(QStringLiteral("MainSplitter"));
    m_splitter->setChildrenCollapsible(false);

    m_racks_model = new RacksPanelViewModel(this);
    m_rack_model = new RackPanelViewModel(this);
    m_node_model = new NodePanelViewModel(this);
    m_racks_panel = new RacksPanel(m_racks_model);
    m_rack_panel = new RackPanel(m_rack_model);
    m_node_panel = new NodePanel(m_node_model);
    m_racks_title = add_titled(m_splitter, m_racks_panel, locale::translate("RacksPanel.Title"));
    m_rack_title = add_titled(m_splitter, m_rack_panel, m_rack_model->title());
    m_node_title = add_titled(m_splitter, m_node_panel, m_node_model->title());
    connect(m_rack_panel, &RackPanel::title_changed, m_rack_title, &QLabel::setText);
    connect(m_node_panel, &NodePanel::title_changed, m_node_title, &QLabel::setText);

    connect(m_racks_panel, &RacksPanel::selected_rack_changed, this, [this](const QUuid &rack) {
        m_rack_panel->set_rack(rack);
        m_node_model->set_node(m_rack_panel->current_node());
    });
    connect(m_rack_panel, &RackPanel::selected_node_changed, m_node_model,
            &NodePanelViewModel::set_node);
    connect(m_rack_panel, &RackPanel::edit_requested, this, [this](const QUuid &node) {
        m_node_model->set_node(node);
        m_node_panel->setFocus();
    });

    // Panels let go of a project before it goes and take up the next one.
    connect(m_model, &MainWindowViewModel::before_project_replaced, this, [this] {
        m_node_model->set_node({});
        m_rack_panel->set_rack({});
        const PanelContext none;
        m_node_model->set_context(none);
        m_rack_model->set_context(none);
        m_racks_model->set_context(none);
    });
    connect(m_model, &MainWindowViewModel::project_replaced, this, &MainWindow::bind_panels);
    bind_panels();

    m_splitter->setStretchFactor(0, 0);
    m_splitter->setStretchFactor(1, 1);
    m_splitter->setStretchFactor(2, 1);
    m_splitter->setSizes({240, 480, 380});

    // While paused, a banner above the panels says so and resumes.
    auto *central = new QWidget(this);
    auto *layout = new QVBoxLayout(central);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    m_paused_banner = new QFrame(central);
    m_paused_banner->setObjectName(QStringLiteral("PausedBanner"));
    m_paused_banner->setStyleSheet(
        QStringLiteral("#PausedBanner { background: #fff1c2; border-bottom: 1px solid #d8b84a; }"
                       "#PausedBanner QLabel { color: #4a3b00; }"));
    auto *banner = new QHBoxLayout(m_paused_banner);
    banner->setContentsMargins(8, 4, 8, 4);
    m_paused_label = new QLabel(locale::translate("MainWindow.PausedBanner"), m_paused_banner);
    m_paused_label->setWordWrap(true);
    m_resume = new QPushButton(locale::translate("MainWindow.Resume"), m_paused_banner);
    connect(m_resume, &QPushButton::clicked, m_model, [this] { m_model->set_paused(false); });
    banner->addWidget(m_paused_label, 1);
    banner->addWidget(m_resume);
    m_paused_banner->hide();
    layout->addWidget(m_paused_banner);
    layout->addWidget(m_splitter, 1);
    setCentralWidget(central);
}

// The Rack and Node menus: the panels' own context actions (the clipboard
// ones are the Edit menu's), with shortcuts that the context menus show too.
void MainWindow::create_panel_menus()
{
    struct Row {
        const char *menu;
        QAction *action;
        const char *key;
        QKeySequence shortcut;
    };
    const Row rows[] = {
        {CORV_TR_KEY("Menu.Rack"), m_racks_panel->add_action(), CORV_TR_KEY("Action.Add"),
         QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_R)},
        {CORV_TR_KEY("Menu.Rack"), m_racks_panel->rename_action(), CORV_TR_KEY("Action.Rename"),
         QKeySequence(Qt::Key_F2)},
        {CORV_TR_KEY("Menu.Rack"), m_racks_panel->enabled_action(), CORV_TR_KEY("Action.Enabled"),
         QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_E)},
        {CORV_TR_KEY("Menu.Node"), m_rack_panel->add_inside_action(), CORV_TR_KEY("Action.AddInside"),
         QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_N)},
        {CORV_TR_KEY("Menu.Node"), m_rack_panel->replace_action(), CORV_TR_KEY("Action.Replace"),
         QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_T)},
        {CORV_TR_KEY("Menu.Node"), m_rack_panel->edit_action(), CORV_TR_KEY("Action.Edit"),
         QKeySequence(Qt::CTRL | Qt::Key_Return)},
    };
    QMenu *menu = nullptr;
    const char *menu_key = nullptr;
    for (const Row &row : rows) {
        if (!menu_key || qstrcmp(menu_key, row.menu) != 0) {
            menu_key = row.menu;
            menu = new QMenu(locale::translate(row.menu), this);
            menuBar()->insertMenu(m_view_menu->menuAction(), menu);
            m_menus.append({menu, row.menu});
        }
        row.action->setObjectName(QString::fromLatin1(row.key));
        row.action->setShortcut(row.shortcut);
        menu->addAction(row.action);
        m_panel_actions.append(row.action);
    }
}

void MainWindow::create_activity_dock()
{
    m_activity_model = new ActivityViewModel(this);
    m_activity_panel = new ActivityPanel(m_activity_model);
    m_activity_tabs = new QTabWidget;
    m_activity_tabs->addTab(m_activity_panel, locale::translate("ActivityPanel.Events"));
    if (m_context.watch_log) {
        m_log_model = new LogViewModel(this);
        m_log_view = new QListView;
        m_log_view->setObjectName(QStringLiteral("LogView"));
        m_log_view->setModel(m_log_model);
        m_log_view->setUniformItemSizes(true);
        m_log_view->setEditTriggers(QAbstractItemView::NoEditTriggers);
        m_log_view->setSelectionMode(QAbstractItemView::ExtendedSelection);
        m_log_view->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
        m_activity_tabs->addTab(m_log_view, locale::translate("ActivityPanel.Log"));
        // New lines keep the view at the bottom while it is there.
        connect(m_log_model, &QAbstractItemModel::rowsAboutToBeInserted, m_log_view, [this] {
            m_log_follows = m_log_view->verticalScrollBar()->value() ==
                            m_log_view->verticalScrollBar()->maximum();
        });
        connect(m_log_model, &QAbstractItemModel::rowsInserted, m_log_view, [this] {
            if (m_log_follows)
                m_log_view->scrollToBottom();
        });
        LogViewModel *model = m_log_model;
        m_log_model->append(m_context.watch_log(
            [model](QtMsgType type, const QString &line) { model->add(type, line); }));
    }
    m_activity_dock = new QDockWidget(locale::translate("ActivityPanel.Title"), this);
    m_activity_dock->setObjectName(QStringLiteral("ActivityDock"));
    m_activity_dock->setWidget(m_activity_tabs);
    addDockWidget(Qt::BottomDockWidgetArea, m_activity_dock);
    m_activity_dock->hide();

    // The dock's own show/hide action, named after its text's key like the others.
    QAction *toggle = m_activity_dock->toggleViewAction();
    toggle->setObjectName(QStringLiteral("Menu.View.Activity"));
    toggle->setText(locale::translate("Menu.View.Activity"));
    toggle->setShortcut(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_A));
    m_actions.insert(Action::Activity, toggle);
    m_view_menu->addAction(toggle);
    // The tap is listened to only while the dock is open: a closed panel costs the engine nothing.
    connect(toggle, &QAction::toggled, m_activity_model, &ActivityViewModel::set_listening);
    connect(m_activity_panel, &ActivityPanel::node_activated, this,
            [this](const QUuid &rack, const QUuid &node) { restore_selection(rack, node); });
}

void MainWindow::create_hotkeys_dock()
{
    m_hotkeys_model = new HotkeysViewModel(this);
    m_hotkeys_panel = new HotkeysPanel(m_hotkeys_model);
    m_hotkeys_dock = new QDockWidget(locale::translate("HotkeysPanel.Title"), this);
    m_hotkeys_dock->setObjectName(QStringLiteral("HotkeysDock"));
    m_hotkeys_dock->setWidget(m_hotkeys_panel);
    addDockWidget(Qt::RightDockWidgetArea, m_hotkeys_dock);
    m_hotkeys_dock->hide();

    QAction *toggle = m_hotkeys_dock->toggleViewAction();
    toggle->setObjectName(QStringLiteral("Menu.View.Hotkeys"));
    toggle->setText(locale::translate("Menu.View.Hotkeys"));
    toggle->setShortcut(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_H));
    m_actions.insert(Action::Hotkeys, toggle);
    m_view_menu->addAction(toggle);
    // The table follows the project only while it is shown.
    connect(toggle, &QAction::toggled, m_hotkeys_model, &HotkeysViewModel::set_listening);
    connect(m_model, &MainWindowViewModel::before_project_replaced, m_hotkeys_model,
            [this] { m_hotkeys_model->set_context({}); });
    connect(m_hotkeys_panel, &HotkeysPanel::node_activated, this,
            [this](const QUuid &rack, const QUuid &node) { restore_selection(rack, node); });
    m_hotkeys_model->set_context(m_rack_model->context());
}

void MainWindow::bind_panels()
{
    engine::ProjectManager &projects = m_model->project_manager();
    PanelContext context;
    if (projects.has_project()) {
        context.project = projects.project();
        context.commands = projects.commands();
        context.runtime = projects.runtime();
        context.registry = &projects.registry();
    }
    m_racks_model->set_context(context);
    m_rack_model->set_context(context);
    m_node_model->set_context(context);
    if (m_hotkeys_model)
        m_hotkeys_model->set_context(context);
    // The first rack is open from the start.
    if (context.project && m_racks_model->rowCount() > 0)
        m_racks_model->set_selected_rack(m_racks_model->rack_at(0));
}

void MainWindow::restore_settings()
{
    if (m_context.settings_file.isEmpty())
        return;
    QSettings settings(m_context.settings_file, QSettings::IniFormat);
    restoreGeometry(settings.value(QStringLiteral("MainWindow/Geometry")).toByteArray());
    m_splitter->restoreState(settings.value(QStringLiteral("MainWindow/State")).toByteArray());
    restoreState(settings.value(QStringLiteral("MainWindow/Docks")).toByteArray());
}

void MainWindow::save_settings() const
{
    if (m_context.settings_file.isEmpty())
        return;
    QSettings settings(m_context.settings_file, QSettings::IniFormat);
    settings.setValue(QStringLiteral("MainWindow/Geometry"), saveGeometry());
    settings.setValue(QStringLiteral("MainWindow/State"), m_splitter->saveState());
    settings.setValue(QStringLiteral("MainWindow/Docks"), saveState());
    const QString linked = m_model->linked_file();
    if (linked.isEmpty())
        return;
    settings.setValue(QStringLiteral("LastOpenPath"), linked);
    settings.setValue(QStringLiteral("LastOpenRack"),
                      m_racks_model->selected_rack().toString(QUuid::WithoutBraces));
    settings.setValue(QStringLiteral("LastOpenNode"),
                      m_rack_panel->current_node().toString(QUuid::WithoutBraces));
}

void MainWindow::open_initial_project(const QString &path)
{
    QString last;
    QUuid rack;
    QUuid node;
    if (!m_context.settings_file.isEmpty()) {
        QSettings settings(m_context.settings_file, QSettings::IniFormat);
        last = settings.value(QStringLiteral("LastOpenPath")).toString();
        rack = QUuid(settings.value(QStringLiteral("LastOpenRack")).toString());
        node = QUuid(settings.value(QStringLiteral("LastOpenNode")).toString());
    }
    engine::ProjectManager &projects = m_model->project_manager();
    // A project opened before the window came stays.
    if (!projects.has_project()) {
        QString chosen = path;
        if (chosen.isEmpty() && !last.isEmpty() && QFileInfo(last).isFile())
            chosen = last;
        if (chosen.isEmpty() || !projects.open(chosen))
            projects.new_project();
    }
    const QString linked = m_model->linked_file();
    if (!linked.isEmpty() && QFileInfo(linked) == QFileInfo(last))
        restore_selection(rack, node);
}

void MainWindow::restore_selection(const QUuid &rack, const QUuid &node)
{
    if (rack.isNull() || m_racks_model->row_of(rack) < 0)
        return;
    m_racks_model->set_selected_rack(rack);
    const model::Project *project = m_rack_model->context().project;
    if (!node.isNull() && project && project->find_node(node))
        m_rack_panel->select_node(node);
}

void MainWindow::refresh_undo_redo()
{
    m_actions[Action::Undo]->setEnabled(m_model->can_undo());
    m_actions[Action::Redo]->setEnabled(m_model->can_redo());
    m_actions[Action::Undo]->setText(m_model->undo_text());
    m_actions[Action::Redo]->setText(m_model->redo_text());
}

void MainWindow::refresh_pause()
{
    const bool paused = m_model->is_paused();
    if (m_paused_banner) {
        m_paused_banner->setVisible(paused);
        m_racks_model->refresh_status();
    }
    m_actions[Action::PauseAll]->setChecked(paused);
    if (m_tray_pause)
        m_tray_pause->setChecked(paused);
    if (m_tray)
        m_tray->setToolTip(paused ? locale::translate("MainWindow.Tray.TooltipPaused")
                                  : locale::translate("MainWindow.Tray.Tooltip"));
}

void MainWindow::dispatch_edit(Action which)
{
    QWidget *focus = QApplication::focusWidget();
    if (!focus || focus->window() != this)
        return;
    // A text field (also inside a spin box or an item being renamed) does
    // its own editing: it gets the key of the action, never the panel.
    const bool text_input = qobject_cast<QLineEdit *>(focus) || qobject_cast<QTextEdit *>(focus) ||
                            qobject_cast<QPlainTextEdit *>(focus) ||
                            qobject_cast<QAbstractSpinBox *>(focus);
    if (text_input) {
        const QList<QKeySequence> keys = m_actions[which]->shortcuts();
        if (keys.isEmpty() || keys.first().isEmpty())
            return;
        const QKeyCombination key = keys.first()[0];
        QKeyEvent press(QEvent::KeyPress, key.key(), key.keyboardModifiers());
        QKeyEvent release(QEvent::KeyRelease, key.key(), key.keyboardModifiers());
        QCoreApplication::sendEvent(focus, &press);
        QCoreApplication::sendEvent(focus, &release);
        return;
    }
    switch (which) {
    case Action::Cut:
        invoke_on_focus_chain(focus, {"cut"});
        break;
    case Action::Copy:
        invoke_on_focus_chain(focus, {"copy"});
        break;
    case Action::Paste:
        invoke_on_focus_chain(focus, {"paste"});
        break;
    case Action::SelectAll:
        invoke_on_focus_chain(focus, {"select_all", "selectAll"});
        break;
    case Action::Delete:
        invoke_on_focus_chain(focus, {"remove_selected", "delete_selected"});
        break;
    default:
        break;
    }
}

void MainWindow::show_about()
{
    if (!m_about) {
        m_about = new AboutWindow(this);
        m_about->setAttribute(Qt::WA_DeleteOnClose);
    }
    m_about->show();
    m_about->raise();
    m_about->activateWindow();
}

void MainWindow::quit()
{
    if (!m_quit_confirmed && !m_model->confirm_unsaved_changes())
        return;
    m_quit_confirmed = true;
    close();
    QCoreApplication::quit();
}

void MainWindow::dragEnterEvent(QDragEnterEvent *event)
{
    if (!dropped_file(event->mimeData()).isEmpty())
        event->acceptProposedAction();
}

void MainWindow::dropEvent(QDropEvent *event)
{
    const QString path = dropped_file(event->mimeData());
    if (path.isEmpty())
        return;
    event->acceptProposedAction();
    // Not inside the drop: the question is modal and the drag source waits.
    QTimer::singleShot(0, this, [this, path] { m_model->open(path); });
}

void MainWindow::showEvent(QShowEvent *event)
{
    QMainWindow::showEvent(event);
    if (m_pending_errors.isEmpty())
        return;
    QTimer::singleShot(0, this, [this] {
        const QList<std::pair<QString, QString>> errors = std::exchange(m_pending_errors, {});
        for (const auto &[title, body] : errors) {
            if (m_critical_box)
                m_critical_box(title, body);
        }
    });
}

void MainWindow::closeEvent(QCloseEvent *event)
{
    if (!m_quit_confirmed && !m_model->confirm_unsaved_changes()) {
        event->ignore();
        return;
    }
    m_quit_confirmed = true;
    save_settings();
    event->accept();
}

bool MainWindow::should_minimize_to_tray() const
{
    if (!QSystemTrayIcon::isSystemTrayAvailable())
        return false;
    return !m_context.minimize_to_tray || m_context.minimize_to_tray();
}

void MainWindow::retranslate()
{
    for (const auto &[menu, key] : std::as_const(m_menus))
        menu->setTitle(locale::translate(key));
    // Each action is named after its text's key.
    for (QAction *action : std::as_const(m_actions))
        action->setText(locale::translate(action->objectName().toUtf8().constData()));
    m_racks_title->setText(locale::translate("RacksPanel.Title"));
    m_rack_title->setText(m_rack_model->title());
    m_node_title->setText(m_node_model->title());
    for (QAction *action : std::as_const(m_panel_actions))
        action->setText(locale::translate(action->objectName().toUtf8().constData()));
    m_paused_label->setText(locale::translate("MainWindow.PausedBanner"));
    m_resume->setText(locale::translate("MainWindow.Resume"));
    m_activity_dock->setWindowTitle(locale::translate("ActivityPanel.Title"));
    m_activity_dock->toggleViewAction()->setText(locale::translate("Menu.View.Activity"));
    m_activity_tabs->setTabText(0, locale::translate("ActivityPanel.Events"));
    if (m_log_view)
        m_activity_tabs->setTabText(1, locale::translate("ActivityPanel.Log"));
    m_activity_panel->retranslate();
    m_hotkeys_dock->setWindowTitle(locale::translate("HotkeysPanel.Title"));
    m_hotkeys_panel->retranslate();
    refresh_undo_redo();
    setWindowTitle(m_model->title());
    if (m_tray_menu) {
        m_tray_menu->setTitle(
            locale::translate("MainWindow.Tray.Caption.%1", QCoreApplication::applicationName()));
        for (QAction *action : m_tray_menu->actions()) {
            if (!action->objectName().isEmpty())
                action->setText(locale::translate(action->objectName().toUtf8().constData()));
        }
    }
    refresh_pause();
}

void MainWindow::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::LanguageChange)
        retranslate();
    QMainWindow::changeEvent(event);
    if (event->type() == QEvent::WindowStateChange && isMinimized() && !m_tray &&
        should_minimize_to_tray())
        hide_to_tray();
}

void MainWindow::hide_to_tray()
{
    if (!m_tray) {
        m_tray_menu = new QMenu(this);
        m_tray_menu->setTitle(
            locale::translate("MainWindow.Tray.Caption.%1", QCoreApplication::applicationName()));
        QAction *open = m_tray_menu->addAction(locale::translate("MainWindow.Tray.Open"));
        open->setObjectName(QStringLiteral("MainWindow.Tray.Open"));
        connect(open, &QAction::triggered, this, &MainWindow::restore_from_tray);
        m_tray_pause = m_tray_menu->addAction(locale::translate("MainWindow.Tray.Pause"));
        m_tray_pause->setObjectName(QStringLiteral("MainWindow.Tray.Pause"));
        m_tray_pause->setCheckable(true);
        connect(m_tray_pause, &QAction::triggered, m_model, &MainWindowViewModel::set_paused);
        m_tray_menu->addSeparator();
        QAction *quit = m_tray_menu->addAction(locale::translate("MainWindow.Tray.Quit"));
        quit->setObjectName(QStringLiteral("MainWindow.Tray.Quit"));
        quit->setMenuRole(QAction::QuitRole);
        connect(quit, &QAction::triggered, this, [this] {
            restore_from_tray();
            MainWindow::quit();
        });

        m_tray = new QSystemTrayIcon(QApplication::windowIcon(), this);
        m_tray->setContextMenu(m_tray_menu);
        connect(m_tray, &QSystemTrayIcon::activated, this,
                [this](QSystemTrayIcon::ActivationReason reason) {
                    if (reason == QSystemTrayIcon::Trigger ||
                        reason == QSystemTrayIcon::DoubleClick)
                        restore_from_tray();
                });
        refresh_pause();
        m_tray->show();
    }
    // Hiding inside the state change would leave the window system's
    // minimised state behind; the next turn of the loop hides cleanly.
    QTimer::singleShot(0, this, [this] {
        if (m_tray)
            hide();
    });
}

void MainWindow::restore_from_tray()
{
    if (m_tray) {
        m_tray->hide();
        m_tray->deleteLater();
        m_tray = nullptr;
        m_tray_menu->deleteLater();
        m_tray_menu = nullptr;
        m_tray_pause = nullptr;
    }
    showNormal();
    raise();
    activateWindow();
}

QString MainWindow::dialog_folder() const
{
    const QString linked = m_model->linked_file();
    return linked.isEmpty() ? QDir::homePath() : QFileInfo(linked).absolutePath();
}

QString MainWindow::ask_open_path()
{
    return QFileDialog::getOpenFileName(this, locale::translate("OpenProject.Caption"),
                                        dialog_folder(), locale::translate("FileDialog.Filter"));
}

QString MainWindow::ask_save_path()
{
    QString path =
        QFileDialog::getSaveFileName(this, locale::translate("SaveProject.Caption"),
                                     dialog_folder(), locale::translate("FileDialog.Filter"));
    if (!path.isEmpty() && QFileInfo(path).suffix().isEmpty())
        path += default_suffix();
    return path;
}

} // namespace corv::widgets
