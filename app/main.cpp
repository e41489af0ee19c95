#include "app/application.h"
#include "app/console.h"
#include "app/logging.h"
#include "app/paths.h"

// Start-up and shutdown in order; each step is described where it is defined.
int main(int argc, char *argv[])
{
    corv::set_identity();
    corv::prefer_unix_event_dispatcher();
    const corv::StartOptions options = corv::read_command_line(argc, argv);

    // The command-line tools answer on the console and keep no log.
    switch (options.mode) {
    case corv::StartOptions::Mode::Post:
        return corv::run_post(argc, argv, options);
    case corv::StartOptions::Mode::Check:
        return corv::run_check(argc, argv, options);
    case corv::StartOptions::Mode::Run:
        break;
    }
    if (corv::hand_project_to_running_instance(options))
        return 0;

    if (!options.headless)
        corv::release_own_console();
    // A headless run's console is its log, also where Qt would otherwise
    // hand its messages to a debugger (Windows, output not a console window).
    else if (!qEnvironmentVariableIsSet("QT_FORCE_STDERR_LOGGING"))
        qputenv("QT_FORCE_STDERR_LOGGING", "1");
    corv::install_logging(corv::paths::log_folder());
    corv::log_banner();

    int exit_code = 0;
    {
        corv::Application application(argc, argv, options);
        exit_code = application.exec();
    }

    corv::log_farewell(exit_code);
    return exit_code;
}
