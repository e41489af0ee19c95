#pragma once

#include <QString>

#include <memory>

class QMainWindow;

namespace corv {

// What the command line asks for.
struct StartOptions {
    // Run the project without any window, until SIGINT or SIGTERM.
    bool headless = false;
    // The project to open at start; empty for none.
    QString project_path;
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

// The first information lines of every log: product, system, SDK and Qt versions.
void log_banner();

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
    // runs the event loop; returns its exit code.
    int exec();

    const StartOptions &options() const;
    // Null when headless.
    QMainWindow *main_window() const;

private:
    struct Impl;
    std::unique_ptr<Impl> d;
};

} // namespace corv
