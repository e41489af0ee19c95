#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QMainWindow>
#include <QMap>
#include <QPointer>
#include <QUuid>

#include <functional>
#include <utility>

class QDockWidget;
class QLabel;
class QListView;
class QSplitter;
class QTabWidget;
class QSystemTrayIcon;
class QMenu;
class QPushButton;

namespace corv::engine {
class PluginList;
class ProjectManager;
} // namespace corv::engine

namespace corv::widgets {

class AboutWindow;
class ActivityPanel;
class ActivityViewModel;
class HotkeysPanel;
class HotkeysViewModel;
class LogViewModel;
class MainWindowViewModel;
class NodePanel;
class NodePanelViewModel;
class RackPanel;
class RackPanelViewModel;
class RacksPanel;
class RacksPanelViewModel;

// What the main window needs from the running program.
struct MainWindowContext {
    // The open project; must outlive the window.
    engine::ProjectManager *projects = nullptr;
    // For the update check and the plugin installer; both are off without it.
    const engine::PluginList *plugins = nullptr;
    // The "User-Agent" header of update requests, asked for when needed.
    std::function<QByteArray()> user_agent;
    // "settings.ini": geometry, splitter state, last project, rack and node.
    // Empty keeps nothing.
    QString settings_file;
    // The running log file and the log folder ("Menu.Help.*Log*").
    QString log_file;
    QString log_folder;
    // The "minimizetotray" preference; true when not given.
    std::function<bool()> minimize_to_tray;
    // Opens the preferences window.
    std::function<void(QWidget *parent)> open_preferences;
    // Hands each new line of the program's log to the given function (on any
    // thread; null: stop) and returns the lines written so far. Without it
    // the activity dock has no log tab.
    using LogWatch = std::function<void(QtMsgType type, const QString &line)>;
    std::function<QList<std::pair<QtMsgType, QString>>(LogWatch watch)> watch_log;
};

// The application's single main window ("CorvMainWindow"): the File, Edit,
// Run and Help menus, the three panels side by side in a splitter, the
// title, the questions and error boxes around project operations, and the
// tray icon while the window is minimised to the tray.
class MainWindow : public QMainWindow {
    Q_OBJECT
public:
    // Every action of the menus, named after its text's key.
    enum class Action {
        New,
        Open,
        Save,
        SaveAs,
        Preferences,
        Quit,
        Undo,
        Redo,
        Cut,
        Copy,
        Paste,
        Delete,
        SelectAll,
        PauseAll,
        CurrentLogFile,
        OpenLogDirectory,
        InstallPlugin,
        CheckForUpdates,
        About,
        Activity, // View menu: shows or hides the activity dock
        Hotkeys,  // View menu: shows or hides the hotkeys dock
    };

    explicit MainWindow(const MainWindowContext &context, QWidget *parent = nullptr);
    // Saves the window settings.
    ~MainWindow() override;

    MainWindowViewModel *view_model() const { return m_model; }
    QAction *action(Action which) const { return m_actions.value(which); }
    QSplitter *splitter() const { return m_splitter; }
    // Shown above the panels while every rack is paused.
    QWidget *paused_banner() const { return m_paused_banner; }
    RacksPanel *racks_panel() const { return m_racks_panel; }
    RackPanel *rack_panel() const { return m_rack_panel; }
    NodePanel *node_panel() const { return m_node_panel; }
    QDockWidget *activity_dock() const { return m_activity_dock; }
    ActivityPanel *activity_panel() const { return m_activity_panel; }
    QDockWidget *hotkeys_dock() const { return m_hotkeys_dock; }
    HotkeysPanel *hotkeys_panel() const { return m_hotkeys_panel; }
    // The log tab's view and model; null without MainWindowContext::watch_log.
    QListView *log_view() const { return m_log_view; }

    // The first project: `path` when given, else "LastOpenPath" when that
    // file exists, else a new one; a project the manager holds already stays.
    // No question is asked (nothing is open yet). The last project comes back with "LastOpenRack"
    // and "LastOpenNode" selected.
    void open_initial_project(const QString &path = {});

    // Writes geometry, splitter state and the last project to "settings.ini".
    void save_settings() const;

    // Minimised to the tray: the tray icon is shown and the window hidden.
    // Null while the window is not in the tray.
    QSystemTrayIcon *tray_icon() const { return m_tray; }
    void hide_to_tray();
    // Back from the tray: shows the window and removes the tray icon.
    void restore_from_tray();

    // The modal boxes of this window; replaceable so that tests and scripts
    // can answer them.
    using CriticalBox = std::function<void(const QString &title, const QString &body)>;
    void set_critical_box(CriticalBox box) { m_critical_box = std::move(box); }

protected:
    void showEvent(QShowEvent *event) override;
    // A project file dropped on the window opens (after the unsaved-changes
    // question).
    void dragEnterEvent(QDragEnterEvent *event) override;
    void dropEvent(QDropEvent *event) override;
    void closeEvent(QCloseEvent *event) override;
    void changeEvent(QEvent *event) override;

private:
    void create_actions();
    void create_menus();
    void create_panels();
    void create_activity_dock();
    void create_hotkeys_dock();
    void create_panel_menus();
    void bind_panels();
    void restore_settings();
    void restore_selection(const QUuid &rack, const QUuid &node);
    // Every text again, after a change of language.
    void retranslate();
    void refresh_undo_redo();
    void refresh_pause();
    void dispatch_edit(Action which);
    void show_about();
    void quit();
    bool should_minimize_to_tray() const;
    QString ask_open_path();
    QString ask_save_path();
    QString dialog_folder() const;

    MainWindowContext m_context;
    MainWindowViewModel *m_model;
    QMap<Action, QAction *> m_actions;
    QSplitter *m_splitter = nullptr;
    QWidget *m_paused_banner = nullptr;
    QLabel *m_paused_label = nullptr;
    QPushButton *m_resume = nullptr;
    QList<std::pair<QMenu *, const char *>> m_menus;
    QLabel *m_racks_title = nullptr;
    QLabel *m_rack_title = nullptr;
    QLabel *m_node_title = nullptr;
    RacksPanelViewModel *m_racks_model = nullptr;
    RackPanelViewModel *m_rack_model = nullptr;
    NodePanelViewModel *m_node_model = nullptr;
    RacksPanel *m_racks_panel = nullptr;
    RackPanel *m_rack_panel = nullptr;
    NodePanel *m_node_panel = nullptr;
    QDockWidget *m_activity_dock = nullptr;
    QTabWidget *m_activity_tabs = nullptr;
    ActivityViewModel *m_activity_model = nullptr;
    ActivityPanel *m_activity_panel = nullptr;
    QDockWidget *m_hotkeys_dock = nullptr;
    HotkeysViewModel *m_hotkeys_model = nullptr;
    HotkeysPanel *m_hotkeys_panel = nullptr;
    LogViewModel *m_log_model = nullptr;
    QListView *m_log_view = nullptr;
    bool m_log_follows = true;
    QSystemTrayIcon *m_tray = nullptr;
    QMenu *m_tray_menu = nullptr;
    QMenu *m_view_menu = nullptr;
    // The panels' actions in the Rack and Node menus, named after their keys.
    QList<QAction *> m_panel_actions;
    QAction *m_tray_pause = nullptr;
    QPointer<AboutWindow> m_about;
    CriticalBox m_critical_box;
    // Errors that came while the window was hidden, shown once it is shown.
    QList<std::pair<QString, QString>> m_pending_errors;
    // Set once quitting was confirmed, so closing asks no second time.
    bool m_quit_confirmed = false;
};

} // namespace corv::widgets
