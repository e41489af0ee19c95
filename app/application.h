#pragma once

#include <QString>
#include <QStringList>

#include <memory>

class QMainWindow;

namespace corv::engine {
class ConfigManager;
class NodeRegistry;
class PluginList;
class ProjectManager;
} // namespace corv::engine

namespace corv::control {
class Server;
}

namespace corv {

// What the command line asks for.
struct StartOptions {
    enum class Mode {
        // The program: a window, or with `headless` none.
        Run,
        // --post MAILBOX [KEY=VALUE ...]: deliver to the running instance.
        Post,
        // --check PROJECT: read the project with every plugin and report.
        Check,
    };
    Mode mode = Mode::Run;
    // Run the project without any window, until SIGINT or SIGTERM.
    bool headless = false;
    // Headless runs save nothing unless asked to autosave (--autosave): then
    // the autosave and backup preferences apply as in a window run.
    bool autosave = false;
    // With headless: every event a node receives goes to stdout as a JSON line.
    bool trace = false;
    // --allow-run: nodes that act outside the program (run programs, open
    // files) run without the project having been allowed on this machine.
    bool allow_run = false;
    // The project to open at start (or to check); empty for none.
    QString project_path;
    // The mailbox and the KEY=VALUE arguments of --post.
    QString mailbox;
    QStringList values;
};

// The steps ahead of the application object, in the order main() takes them.

// Organisation domain, application name and version. Comes first: the
// application data folder, and so the log folder, depends on them.
void set_identity();

// Chooses Qt's own Unix event dispatcher over the glib one (posted events
// cost several times less there), unless the user has set QT_NO_GLIB.
void prefer_unix_event_dispatcher();

// Reads the command line without creating a window system connection:
// --help, --version and malformed command lines are answered on the console
// and end the process here, so they work on a machine without a display.
StartOptions read_command_line(int &argc, char **argv);

// A window run with a project, while another instance with a window runs:
// hands the project to it. True when it took it (this process then ends).
bool hand_project_to_running_instance(const StartOptions &options);

// --post: exit code 0 when delivered, 1 when no instance runs, 2 when the
// instance refused the message.
int run_post(int &argc, char **argv, const StartOptions &options);

// --check: exit code 0 only when the project reads without any message and
// every node type is known.
int run_check(int &argc, char **argv, const StartOptions &options);

// The first information lines of every log: product, system, SDK and Qt versions.
void log_banner();

// The last line of every run's log.
void log_farewell(int exit_code);

// The running program, from the application object to the end of the event
// loop. Plain runs get a QApplication and the main window; headless runs a
// QCoreApplication only and never touch QGuiApplication.
class Application {
public:
    Application(int &argc, char **argv, const StartOptions &options);
    // Tears down in reverse order of construction: main window first, the
    // application object last.
    ~Application();

    Application(const Application &) = delete;
    Application &operator=(const Application &) = delete;

    // Logs "Initialization complete; starting UI", shows the main window and
    // runs the event loop; returns its exit code. A headless run whose
    // project can't be read returns 1 at once.
    int exec();

    const StartOptions &options() const;
    // Null when headless.
    QMainWindow *main_window() const;
    engine::PluginList &plugins() const;
    engine::NodeRegistry &registry() const;
    engine::ConfigManager &config() const;
    engine::ProjectManager &projects() const;
    // The control socket (listening only in the user's first instance).
    control::Server &control() const;

private:
    struct Impl;
    std::unique_ptr<Impl> d;
};

} // namespace corv
