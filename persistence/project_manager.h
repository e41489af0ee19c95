#pragma once

#include <QObject>
#include <QString>

#include <functional>
#include <memory>

namespace corv::model {
class Project;
}

namespace corv::engine {

class CommandManager;
class ConfigManager;
class NodeRegistry;
class ProjectRuntime;

// The open project and its file: opening, saving through a temporary file
// with numbered backups beside it, and saving on a timer. Owns the project,
// its undo history and its runtime (every rack and node live). Works without
// any window: failures are announced through error_occurred(), which the
// main window shows as a critical message box and a headless run logs.
class ProjectManager : public QObject
{
    Q_OBJECT
public:
    class Impl;

    // Called with every new runtime (and the history its edits go through)
    // before it starts, e.g. to give each node its property panel.
    using RuntimeSetup = std::function<void(ProjectRuntime &runtime, CommandManager &commands)>;

    // `config` steers backups and autosave; without one no backup is kept
    // and autosave stays off. Both must outlive the manager.
    explicit ProjectManager(NodeRegistry &registry, ConfigManager *config = nullptr,
                            QObject *parent = nullptr);
    // Closes the project (runtime first, then history and project).
    ~ProjectManager() override;

    void set_runtime_setup(RuntimeSetup setup);

    // The open project, its undo history and its runtime; null while no
    // project is loaded. They change only between before_project_replaced()
    // and project_replaced().
    model::Project *project() const;
    CommandManager *commands() const;
    ProjectRuntime *runtime() const;
    bool has_project() const { return project() != nullptr; }
    NodeRegistry &registry() const;
    ConfigManager *config() const;

    // Replaces the project with an empty, running one: no linked file, not
    // modified. (The unsaved-changes question is the caller's.)
    void new_project();
    // Reads the project at path and installs it. On failure emits
    // error_occurred() with "OpenProject.ErrorTitle" and one of the bodies
    // "OpenProject.ErrorBody.%1" (system error text), ".InvalidProject",
    // ".TooOld", ".TooNew", keeps the current project and returns false.
    bool open(const QString &path);
    // Drops the project, leaving none loaded (at shutdown).
    void close();

    // Saves to the linked file; does nothing and returns false when no
    // project is loaded or no file is linked.
    bool save();
    // Saves to path and links it. On failure emits error_occurred() with
    // "SaveProject.ErrorTitle", "SaveProject.ErrorBody.%1"; the project stays
    // modified and the linked file unchanged.
    bool save_as(const QString &path);
    // Saves to the linked file only when modified, loaded and linked.
    void autosave_tick();
    // Sets the autosave timer's interval from "autosaveminutes" and starts or
    // stops it after "autosave"; called on the config manager's signals.
    void apply_autosave_settings();
    bool is_autosave_timer_active() const;
    int autosave_interval_ms() const;

    // The file Save writes to; empty when none.
    QString linked_file() const;
    // The project differs from the linked file. Set by every change of the
    // undo history and by callers that edit outside it.
    bool is_modified() const;
    void set_modified(bool modified);
    // A backup of the linked file was made since the file was last linked.
    bool is_backed_up() const;

Q_SIGNALS:
    void linked_project_file_changed(const QString &path);
    void is_project_modified_changed(bool modified);
    // Around a change of project (new, open, close): panels drop their
    // bindings before and rebind to project() after.
    void before_project_replaced();
    void project_replaced();
    // A project was read from path and runs: after project_replaced() and the
    // linked file's change, before any of its events is delivered.
    void opened(const QString &path);
    // A successful save to path.
    void saved(const QString &path);
    // A failure to show: translated title and body.
    void error_occurred(const QString &title, const QString &body);

private:
    std::unique_ptr<Impl> d;
};

} // namespace corv::engine
