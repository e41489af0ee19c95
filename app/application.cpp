#include "app/application.h"

#include "app/builtin_plugin.h"
#include "app/identity.h"
#include "app/project_session.h"
#include "app/paths.h"
#include "app/shutdown_signals.h"

#include "engine/node_registry.h"
#include "locale/translate.h"
#include "model/project.h"
#include "sdk/plugin_list.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <QIcon>
#include <QLoggingCategory>
#include <QMainWindow>
#include <QProxyStyle>
#include <QSysInfo>

#include <cstdio>
#include <cstdlib>

namespace corv {

Q_LOGGING_CATEGORY(lcApp, "corv.app")

namespace {

struct CommandLine {
    QCommandLineParser parser;
    QCommandLineOption help;
    QCommandLineOption version;
    QCommandLineOption headless{QStringLiteral("headless"),
                                QStringLiteral("Run without any window until interrupted.")};

    CommandLine() : help(parser.addHelpOption()), version(parser.addVersionOption())
    {
        parser.setApplicationDescription(QStringLiteral("Desktop event automation."));
        parser.addOption(headless);
        parser.addPositionalArgument(QStringLiteral("project"),
                                     QStringLiteral("Project file to open."),
                                     QStringLiteral("[project]"));
    }

    bool asks_for_help_or_version() const
    {
        return parser.isSet(help) || parser.isSet(version) ||
               parser.optionNames().contains(QLatin1StringView("help-all"));
    }

    // Ends the process on more than one project: only the first would open.
    StartOptions options() const
    {
        const QStringList projects = parser.positionalArguments();
        if (projects.size() > 1) {
            std::fprintf(stderr, "%s: expected at most one project, got %lld\n",
                         qUtf8Printable(QCoreApplication::applicationName().toLower()),
                         static_cast<long long>(projects.size()));
            std::exit(EXIT_FAILURE);
        }
        return {parser.isSet(headless), projects.value(0)};
    }
};

void apply_style_sheet(QApplication &app)
{
    app.setStyle(new QProxyStyle);
    // A missing style sheet leaves Qt's own look.
    QFile sheet(QStringLiteral(":/corv/style.css"));
    if (sheet.open(QIODevice::ReadOnly | QIODevice::Text))
        app.setStyleSheet(QString::fromUtf8(sheet.readAll()));
}

} // namespace

void set_identity()
{
    QCoreApplication::setOrganizationDomain(QString::fromLatin1(kOrganizationDomain));
    QCoreApplication::setApplicationName(QString::fromLatin1(kApplicationName));
    QCoreApplication::setApplicationVersion(QString::fromLatin1(kApplicationVersion));
}

void prefer_unix_event_dispatcher()
{
    // Read by Qt when the application object is created; platforms without
    // a glib dispatcher ignore it.
    if (!qEnvironmentVariableIsSet("QT_NO_GLIB"))
        qputenv("QT_NO_GLIB", "1");
}

StartOptions read_command_line(int &argc, char **argv)
{
    CommandLine line;
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments.append(QString::fromLocal8Bit(argv[i]));

    const bool parsed = line.parser.parse(arguments);
    if (parsed && !line.asks_for_help_or_version())
        return line.options();
    // A GUI run may carry Qt's own options (-platform, -style ...), which only
    // QApplication knows; such a command line is checked again once it exists.
    if (!parsed && !line.parser.isSet(line.headless))
        return {};

    QCoreApplication app(argc, argv);
    line.parser.process(app); // prints help, version or the error, and exits
    return line.options();
}

void log_banner()
{
    qInfo("%s on %s with CorvSDK v%i", kProductString,
          qUtf8Printable(QSysInfo::prettyProductName()), kSdkVersion);
    qInfo("Compiled on Qt %s, running on Qt %s", QT_VERSION_STR, qVersion());
}

struct Application::Impl {
    StartOptions options;
    // Declared in construction order; members are destroyed bottom-up.
    std::unique_ptr<QCoreApplication> qt;
    std::unique_ptr<ShutdownSignals> shutdown_signals;
    std::unique_ptr<engine::PluginList> plugins;
    std::unique_ptr<engine::NodeRegistry> registry;
    std::unique_ptr<ProjectSession> session;
    std::unique_ptr<QMainWindow> main_window;

    void create_application_object(int &argc, char **argv)
    {
        if (options.headless) {
            qt = std::make_unique<QCoreApplication>(argc, argv);
            return;
        }
        auto gui = std::make_unique<QApplication>(argc, argv);
        gui->setWindowIcon(QIcon(QStringLiteral(":/corv/icons/corvane.png")));
        apply_style_sheet(*gui);
        qt = std::move(gui);
    }

    // The final reading, against the arguments the application object left:
    // reports what the early reading let through (unknown options of a GUI run).
    void read_final_command_line()
    {
        CommandLine line;
        line.parser.process(*qt);
        options = line.options();
    }

    void watch_shutdown_signals()
    {
        shutdown_signals = std::make_unique<ShutdownSignals>();
        QObject::connect(shutdown_signals.get(), &ShutdownSignals::requested, qt.get(),
                         [](int signal_number) {
                             qCDebug(lcApp, "Received signal %i; shutting down", signal_number);
                             QCoreApplication::exit(0);
                         });
    }

    // The application's translator, and the names it proposes for new racks.
    void install_translation()
    {
        locale::install_application_translator();
        model::set_rack_name_source(&locale::rack_name);
    }

    // The plugin list with the executable's own node set first, then one
    // plugin per folder of the "plugins" folder; the node registry; and the
    // three initialisation passes (preferences, load, postload).
    void load_plugins()
    {
        install_builtin_nodes();
        plugins = std::make_unique<engine::PluginList>();
        plugins->add_builtin(builtin_plugin_entry_points(), paths::application_folder());
        plugins->scan(paths::plugins_folder());
        registry = std::make_unique<engine::NodeRegistry>();
        // The project engine joins here once projects are opened.
        plugins->initialize(*registry);
    }

    // The project named on the command line, running from the start.
    void open_project()
    {
        if (!options.project_path.isEmpty())
            session = ProjectSession::open(options.project_path, *registry);
    }

    void create_main_window()
    {
        if (options.headless)
            return;
        main_window = std::make_unique<QMainWindow>();
        main_window->setWindowTitle(QString::fromLatin1(kApplicationName));
    }
};

Application::Application(int &argc, char **argv, const StartOptions &options)
    : d(std::make_unique<Impl>())
{
    d->options = options;
    d->create_application_object(argc, argv);
    d->read_final_command_line();
    d->watch_shutdown_signals();
    d->install_translation();
    d->load_plugins();
    d->open_project();
    d->create_main_window();
}

Application::~Application()
{
    d->main_window.reset();
    d->session.reset();
    // The registry goes before the plugins whose callbacks it holds; the
    // plugins are unloaded here.
    d->registry.reset();
    d->plugins.reset();
    d->shutdown_signals.reset();
    d->qt.reset();
}

int Application::exec()
{
    qInfo("Initialization complete; starting UI");
    if (d->main_window)
        d->main_window->show();
    return QCoreApplication::exec();
}

const StartOptions &Application::options() const
{
    return d->options;
}

QMainWindow *Application::main_window() const
{
    return d->main_window.get();
}

} // namespace corv
