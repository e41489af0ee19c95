#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

#include <functional>

namespace corv::engine {
class CommandManager;
class ProjectManager;
} // namespace corv::engine

namespace corv::widgets {

// The Undo item's text: "Menu.Edit.Undo.%1" with the name of the edit that
// undo would take back ("Undo Rename Rack"), the plain "Menu.Edit.Undo" when
// there is none or it has no name. The Redo item's likewise.
QString undo_text(const engine::CommandManager *history);
QString redo_text(const engine::CommandManager *history);

// The main window's state without any widget: the project operations with
// the unsaved-changes question in front of them, the window title, undo and
// redo, and the pause of all racks. The questions it has to ask (unsaved
// changes, a file to open or save to) go through hooks that the window
// fills with message boxes and file dialogs.
class MainWindowViewModel : public QObject {
    Q_OBJECT
public:
    // The three answers of "UnsavedChanges.Body".
    enum class UnsavedAnswer { Save, Discard, Cancel };
    using UnsavedQuestion = std::function<UnsavedAnswer()>;
    // Asks for a file; an empty path cancels.
    using PathQuestion = std::function<QString()>;

    // `projects` must outlive the view model.
    explicit MainWindowViewModel(engine::ProjectManager &projects, QObject *parent = nullptr);
    ~MainWindowViewModel() override;

    engine::ProjectManager &project_manager() const { return *m_projects; }

    // Without a question the answer is Cancel, so nothing is ever lost.
    void set_unsaved_question(UnsavedQuestion question);
    void set_open_path_question(PathQuestion question);
    void set_save_path_question(PathQuestion question);

    // True when there is nothing unsaved, or the user saved (and it worked)
    // or chose to discard; false when cancelled or the save failed. The
    // state is read again after the answer (the question's dialog runs the
    // event loop): what got saved meanwhile is not saved again. False while
    // another question is up: one question at a time.
    bool confirm_unsaved_changes();

    // Each of these asks about unsaved changes first; false when it did not
    // go through (cancelled, or the failure was announced by error_occurred).
    bool new_project();
    // Asks for a file when path is empty. A path that arrives while the
    // unsaved-changes question is up (another command line handing over a
    // project) waits for its answer and then goes through open() on the
    // state that answer left, asking again only if there still is
    // something unsaved; false for it now.
    bool open(const QString &path = {});
    // Saves to the linked file; without one, asks as save_as() does.
    bool save();
    // Asks for a file when path is empty.
    bool save_as(const QString &path = {});

    // "MainWindow.Title.%1.%2": the project's name (the linked file's base
    // name, or "MainWindow.UnnamedProjectTitle") with "*" while modified and
    // the pause mark while paused, then the product name and version.
    QString title() const;
    QString project_name() const;
    QString linked_file() const;
    bool is_project_modified() const;

    bool can_undo() const;
    bool can_redo() const;
    // The Undo and Redo items' texts for the project's history (see below).
    QString undo_text() const;
    QString redo_text() const;
    void undo();
    void redo();

    // Holds every rack of the open project (and of any project opened later)
    // without changing what is saved; resuming lets events through again.
    bool is_paused() const { return m_paused; }
    void set_paused(bool paused);
    void toggle_paused() { set_paused(!m_paused); }

Q_SIGNALS:
    void title_changed(const QString &title);
    void linked_project_file_changed(const QString &path);
    void is_project_modified_changed(bool modified);
    void can_undo_redo_changed();
    void is_paused_changed(bool paused);
    // Between these two the project, its history and runtime are replaced.
    void before_project_replaced();
    void project_replaced();
    // A failed open or save, translated, to show as a critical message box.
    void error_occurred(const QString &title, const QString &body);

private:
    void bind_history();
    void refresh_title();

    engine::ProjectManager *m_projects;
    engine::CommandManager *m_history = nullptr;
    UnsavedQuestion m_unsaved_question;
    PathQuestion m_open_path_question;
    PathQuestion m_save_path_question;
    QString m_title;
    bool m_paused = false;
    bool m_asking = false;
    QStringList m_waiting_opens;
};

} // namespace corv::widgets
