#include "app/application.h"

#include "app/builtin_plugin.h"
#include "app/control.h"
#include "app/identity.h"
#include "app/logging.h"
#include "app/paths.h"
#include "app/shutdown_signals.h"
#include "app/user_agent.h"

#include "cui/property_surface.h"
#include "engine/activity_trace.h"
#include "engine/config_manager.h"
#include "engine/node_registry.h"
#include "engine/project_runtime.h"
#include "input/hotkey_poller.h"
#include "input/key_injector.h"
#include "locale/translate.h"
#include "model/project.h"
#include "model/property.h"
#include "nodes/builtin_nodes.h"
#include "nodes/mailbox.h"
#include "persistence/command_manager.h"
#include "persistence/project_manager.h"
#include "persistence/project_trust.h"
#include "persistence/reader.h"
#include "sdk/plugin_list.h"
#include "sdk/plugin_preferences.h"
#include "update/hand_off.h"
#include "widgets/main_window.h"
#include "widgets/main_window_view_model.h"
#include "widgets/preferences_window.h"
#include "widgets/update_window.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QIcon>
#include <QJsonObject>
#include <QLibrary>
#include <QLoggingCategory>
#include <QMainWindow>
#include <QMessageBox>
#include <QPointer>
#include <QProxyStyle>
#include <QSettings>
#include <QSysInfo>
#include <QTimer>

#include <algorithm>

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
    QCommandLineOption post{QStringLiteral("post"),
                            QStringLiteral("Post an event made of the KEY=VALUE arguments to a mailbox "
                                           "of the running Corvane."),
                            QStringLiteral("mailbox")};
    QCommandLineOption autosave{QStringLiteral("autosave"),
                                QStringLiteral("With --headless: save the project on the autosave "
                                               "timer of the preferences, as a window does.")};
    QCommandLineOption trace{QStringLiteral("trace"),
                             QStringLiteral("With --headless: print every event a node receives to "
                                            "standard output, one JSON line each, instead of the "
                                            "display nodes' lines.")};
    QCommandLineOption allow_run{QStringLiteral("allow-run"),
                                 QStringLiteral("Let the project's nodes that act outside Corvane "
                                                "(run programs, open files) run, although it was "
                                                "not allowed on this machine.")};
    QCommandLineOption check{QStringLiteral("check"),
                             QStringLiteral("Read a project with every plugin, print each problem and "
                                            "exit with 0 only when there is none."),
                             QStringLiteral("project")};

    CommandLine() : help(parser.addHelpOption()), version(parser.addVersionOption())
    {
        parser.setApplicationDescription(QStringLiteral("Desktop event automation."));
        parser.addOption(headless);
        parser.addOption(autosave);
        parser.addOption(trace);
        parser.addOption(allow_run);
        parser.addOption(post);
        parser.addOption(check);
        parser.addPositionalArgument(QStringLiteral("project"),
                                     QStringLiteral("Project file to open (with --post: KEY=VALUE "
                                                    "pairs of the event)."),
                                     QStringLiteral("[project]"));
    }

    bool asks_for_help_or_version() const
    {
        return parser.isSet(help) || parser.isSet(version) ||
               parser.optionNames().contains(QLatin1StringView("help-all"));
    }

    bool runs_without_window() const
    {
        return parser.isSet(headless) || parser.isSet(post) || parser.isSet(check);
    }

    [[noreturn]] static void refuse(const QString &text)
    {
        std::fprintf(stderr, "%s: %s\n", qUtf8Printable(QCoreApplication::applicationName().toLower()),
                     qUtf8Printable(text));
        std::exit(EXIT_FAILURE);
    }

    // Ends the process on a command line that asks for two things at once.
    StartOptions options() const
    {
        StartOptions options;
        const QStringList arguments = parser.positionalArguments();
        if (int(parser.isSet(post)) + int(parser.isSet(check)) + int(parser.isSet(headless)) > 1)
            refuse(QStringLiteral("--post, --check and --headless can't be combined"));
        if (parser.isSet(post)) {
            options.mode = StartOptions::Mode::Post;
            options.mailbox = parser.value(post);
            for (const QString &argument : arguments) {
                if (!argument.contains(u'='))
                    refuse(QStringLiteral("expected KEY=VALUE, got \"%1\"").arg(argument));
            }
            options.values = arguments;
            return options;
        }
        if (arguments.size() > 1)
            refuse(QStringLiteral("expected at most one project, got %1").arg(arguments.size()));
        if (parser.isSet(check)) {
            if (!arguments.isEmpty())
                refuse(QStringLiteral("--check takes one project"));
            options.mode = StartOptions::Mode::Check;
            options.project_path = parser.value(check);
            return options;
        }
        options.headless = parser.isSet(headless);
        if (parser.isSet(autosave) && !options.headless)
            refuse(QStringLiteral("--autosave is for --headless runs; a window always follows the preferences"));
        options.autosave = parser.isSet(autosave);
        if (parser.isSet(trace) && !options.headless)
            refuse(QStringLiteral("--trace is for --headless runs; a window shows the activity panel"));
        options.trace = parser.isSet(trace);
        options.allow_run = parser.isSet(allow_run);
        options.project_path = arguments.value(0);
        return options;
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
    if (!parsed && !line.runs_without_window())
        return {};

    QCoreApplication app(argc, argv);
    line.parser.process(app); // prints help, version or the error, and exits
    return line.options();
}

namespace {

// The folders of a folder that hold a library named like the folder: the
// plugins that the plugin installer put there. Folders holding only a
// plugin's preferences are passed over without a word.
void scan_installed_plugins(engine::PluginList &plugins, const QString &folder)
{
    const QFileInfoList folders =
        QDir(folder).entryInfoList(QDir::Dirs | QDir::Readable | QDir::NoDotAndDotDot, QDir::Unsorted);
    for (const QFileInfo &plugin_folder : folders) {
        const QString id = plugin_folder.fileName();
        const QFileInfoList files = QDir(plugin_folder.filePath()).entryInfoList(QDir::Files);
        const bool has_library = std::any_of(files.begin(), files.end(), [&](const QFileInfo &file) {
            return file.completeBaseName() == id && QLibrary::isLibrary(file.fileName());
        });
        if (!has_library)
            continue;
        qCDebug(lcApp, "Found plugin in %s", qUtf8Printable(plugin_folder.filePath()));
        plugins.load_folder(plugin_folder.filePath());
    }
}

// The plugins of the program, as a run and --check load them: the built-in
// node set first, the folder beside the executable, then the plugins the
// user installed; and the three initialisation passes.
void load_all_plugins(engine::PluginList &plugins, engine::NodeRegistry &registry)
{
    install_builtin_nodes();
    plugins.add_builtin(builtin_plugin_entry_points(), paths::application_folder());
    plugins.scan(paths::plugins_folder());
    scan_installed_plugins(plugins, paths::installed_plugins_folder());
    plugins.initialize(registry);
}

void install_translation()
{
    locale::install_application_translator();
    model::set_rack_name_source(&locale::rack_name);
}

// Every node's rack, found by walking each rack's tree.
QHash<QUuid, QUuid> rack_of_nodes(const model::Project &project)
{
    QHash<QUuid, QUuid> rack_of;
    for (std::size_t r = 0; r < project.profile()->count(); ++r) {
        const QUuid rack_id = project.profile()->at(r);
        const model::Rack *rack = project.find_rack(rack_id);
        if (!rack)
            continue;
        QList<const model::Children *> pending{rack->top_level()};
        while (!pending.isEmpty()) {
            const model::Children *children = pending.takeLast();
            for (std::size_t i = 0; i < children->count(); ++i) {
                const QUuid id = children->at(i);
                if (rack_of.contains(id))
                    continue;
                rack_of.insert(id, rack_id);
                if (const model::Node *node = project.find_node(id))
                    pending.append(node->children());
            }
        }
    }
    return rack_of;
}

// Collects the warnings of --check and keeps the rest of the log quiet.
QStringList *g_check_messages = nullptr;

void check_message_handler(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    if (type == QtDebugMsg || type == QtInfoMsg)
        return;
    if (g_check_messages)
        g_check_messages->append(message);
    else
        std::fprintf(stderr, "%s\n", qUtf8Printable(message));
}

} // namespace

void log_banner()
{
    qInfo("%s on %s with CorvSDK v%i", kProductString,
          qUtf8Printable(QSysInfo::prettyProductName()), kSdkVersion);
    qInfo("Compiled on Qt %s, running on Qt %s", QT_VERSION_STR, qVersion());
}

void log_farewell(int exit_code)
{
    qInfo("Shutting down with exit code %i, call again soon!", exit_code);
}

bool hand_project_to_running_instance(const StartOptions &options)
{
    if (options.mode != StartOptions::Mode::Run || options.headless || options.project_path.isEmpty())
        return false;
    const control::Reply reply = control::send(
        {{QStringLiteral("open"), QFileInfo(options.project_path).absoluteFilePath()}}, 2000);
    return reply.status == control::Reply::Answered && reply.answer.value(QLatin1StringView("ok")).toBool();
}

int run_post(int &argc, char **argv, const StartOptions &options)
{
    QCoreApplication app(argc, argv);
    QJsonObject event;
    for (const QString &pair : options.values) {
        const qsizetype equals = pair.indexOf(u'=');
        event.insert(pair.left(equals), pair.mid(equals + 1));
    }
    const control::Reply reply =
        control::send({{QStringLiteral("post"), options.mailbox}, {QStringLiteral("event"), event}});
    switch (reply.status) {
    case control::Reply::NoInstance:
        std::fprintf(stderr, "No running Corvane to post to\n");
        return 1;
    case control::Reply::Failed:
        std::fprintf(stderr, "%s\n", qUtf8Printable(reply.error));
        return 2;
    case control::Reply::Answered:
        break;
    }
    if (!reply.answer.value(QLatin1StringView("ok")).toBool()) {
        std::fprintf(stderr, "%s\n", qUtf8Printable(reply.answer.value(QLatin1StringView("error")).toString()));
        return 2;
    }
    std::printf("Posted to %d receive node(s) of mailbox \"%s\"\n",
                reply.answer.value(QLatin1StringView("receivers")).toInt(), qUtf8Printable(options.mailbox));
    return 0;
}

namespace {
int check_project(const QString &path);
}

int run_check(int &argc, char **argv, const StartOptions &options)
{
    QCoreApplication app(argc, argv);
    qInstallMessageHandler(check_message_handler);
    install_translation();
    const int exit_code = check_project(options.project_path);
    std::fflush(stdout);
    return exit_code;
}

namespace {

int check_project(const QString &path)
{
    engine::PluginList plugins;
    engine::NodeRegistry registry;
    load_all_plugins(plugins, registry);

    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        std::printf("%s: %s\n", qUtf8Printable(path), qUtf8Printable(file.errorString()));
        return 1;
    }
    QStringList messages;
    model::Project project;
    g_check_messages = &messages;
    const engine::ReadResult result = engine::read_project(file.readAll(), project);
    g_check_messages = nullptr;

    qsizetype problems = messages.size();
    for (const QString &message : messages)
        std::printf("%s: %s\n", qUtf8Printable(path), qUtf8Printable(message));
    if (result == engine::ReadResult::Ok) {
        const QHash<QUuid, QUuid> rack_of = rack_of_nodes(project);
        QList<QUuid> ids = project.nodes().keys();
        std::sort(ids.begin(), ids.end(), [&](const QUuid &a, const QUuid &b) {
            return std::pair(rack_of.value(a), a) < std::pair(rack_of.value(b), b);
        });
        for (const QUuid &id : ids) {
            const QString type = project.find_node(id)->impl_id();
            if (registry.find(type) || registry.find_migration(type))
                continue;
            ++problems;
            const QUuid rack_id = rack_of.value(id);
            const model::Rack *rack = project.find_rack(rack_id);
            std::printf("%s: unknown node type \"%s\" in rack %s, node %s\n",
                        qUtf8Printable(path), qUtf8Printable(type),
                        rack ? qUtf8Printable(QStringLiteral("\"%1\" (%2)")
                                                  .arg(rack->name(), rack_id.toString(QUuid::WithoutBraces)))
                             : "(none)",
                        qUtf8Printable(id.toString(QUuid::WithoutBraces)));
        }
    } else if (messages.isEmpty()) {
        ++problems;
    }
    if (problems == 0)
        std::printf("%s: no problems\n", qUtf8Printable(path));
    return problems == 0 ? 0 : 1;
}

} // namespace

struct Application::Impl {
    StartOptions options;
    // Declared in construction order; members are destroyed bottom-up.
    std::unique_ptr<QCoreApplication> qt;
    std::unique_ptr<ShutdownSignals> shutdown_signals;
    std::unique_ptr<engine::ConfigManager> config;
    std::unique_ptr<engine::PluginList> plugins;
    std::unique_ptr<engine::NodeRegistry> registry;
    std::unique_ptr<engine::ProjectManager> projects;
    std::unique_ptr<control::Server> control;
    std::unique_ptr<widgets::MainWindow> main_window;
    std::unique_ptr<engine::ActivityTrace> trace;
    // Set when a headless run can't do what it was started for.
    int failed_exit_code = 0;

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
        // The session ends before the event loop could return: shut down
        // here, as far as can be done inside the loop.
        QObject::connect(shutdown_signals.get(), &ShutdownSignals::session_ending, qt.get(), [this] {
            qCDebug(lcApp, "The session ends; shutting down");
            tear_down();
            log_farewell(0);
        });
    }

    // Everything but the application object and the shutdown signals, in
    // the order the end of a run takes them down.
    void tear_down()
    {
        main_window.reset();
        control.reset();
        projects.reset();
        // The registry goes before the plugins whose callbacks it holds; the
        // plugins are unloaded here.
        registry.reset();
        plugins.reset();
        set_builtin_config_manager(nullptr);
        config.reset();
    }

    // What an update left behind at the last start goes now; the log of an
    // update that did not install is kept in the log folder.
    void clean_up_after_update()
    {
        QSettings settings(paths::settings_file(), QSettings::IniFormat);
        update::clean_up_after_update(settings, paths::log_folder());
    }

    // The plugin list, the node registry and the project engine, then the
    // three initialisation passes; the application's preferences reach the
    // config manager in the built-in plugin's postload.
    void load_plugins()
    {
        config = std::make_unique<engine::ConfigManager>();
        set_builtin_config_manager(config.get());
        plugins = std::make_unique<engine::PluginList>();
        registry = std::make_unique<engine::NodeRegistry>();
        // A headless run saves nothing unless told: without the config
        // manager there is no autosave timer.
        const bool saves = !options.headless || options.autosave;
        projects = std::make_unique<engine::ProjectManager>(*registry, saves ? config.get() : nullptr);
        projects->set_runtime_setup([](engine::ProjectRuntime &runtime, engine::CommandManager &commands) {
            cui::install_node_surfaces(runtime, &commands);
        });
        // A project without such nodes (a new one) lets those added later act;
        // an opened one is judged once its path is known.
        QObject::connect(projects.get(), &engine::ProjectManager::project_replaced, projects.get(), [this] {
            engine::ProjectRuntime *runtime = projects->runtime();
            if (runtime && runtime->outside_fingerprint().isEmpty())
                runtime->set_outside_allowed(true);
        });
        QObject::connect(projects.get(), &engine::ProjectManager::opened, projects.get(),
                         [this](const QString &path) { gate_outside_nodes(path); });
        // A project saved from an allowed window stays allowed as it now is.
        QObject::connect(projects.get(), &engine::ProjectManager::saved, projects.get(),
                         [this](const QString &path) {
                             engine::ProjectRuntime *runtime = projects->runtime();
                             if (!options.headless && runtime && runtime->is_outside_allowed())
                                 engine::remember_project_allowed(paths::settings_file(), path,
                                                                  runtime->outside_fingerprint());
                         });
        // The input threads follow the preferences from the first reading on.
        QObject::connect(config.get(), &engine::ConfigManager::input_poll_ms_changed, config.get(),
                         [](int ms) { input::HotkeyPoller::instance().set_poll_interval(ms); });
        QObject::connect(config.get(), &engine::ConfigManager::input_gap_ms_changed, config.get(),
                         [](int ms) { input::KeyInjector::instance().set_gap(ms); });
        load_all_plugins(*plugins, *registry);
    }

    // Nodes that act outside the program (run programs, open files) stay
    // held in a project from elsewhere until the user allows them: once per
    // project and machine in the window, with --allow-run headless.
    void gate_outside_nodes(const QString &path)
    {
        engine::ProjectRuntime *runtime = projects->runtime();
        if (!runtime)
            return;
        const qsizetype held =
            engine::allow_trusted_project(*runtime, paths::settings_file(), path, options.allow_run);
        if (held == 0)
            return;
        if (options.headless || !main_window) {
            qCWarning(lcApp,
                      "%lld node(s) of %s act outside Corvane (run programs, open files) and stay "
                      "held: the project was not allowed on this machine. Start with --allow-run "
                      "to run them.",
                      qlonglong(held), qUtf8Printable(path));
            return;
        }
        QPointer<engine::ProjectRuntime> asked(runtime);
        QWidget *window = main_window.get();
        QTimer::singleShot(0, window, [this, asked, window, path, held] {
            if (!asked || asked != projects->runtime() || asked->held_nodes().isEmpty())
                return;
            const auto answer = QMessageBox::question(
                window, locale::translate("AllowOutside.Caption"),
                locale::translate("AllowOutside.Body.%1.%2", QFileInfo(path).fileName(),
                                  int(held)),
                QMessageBox::Yes | QMessageBox::No, QMessageBox::No);
            if (answer != QMessageBox::Yes || !asked)
                return;
            asked->set_outside_allowed(true);
            engine::remember_project_allowed(paths::settings_file(), path,
                                             asked->outside_fingerprint());
            qCInfo(lcApp, "Allowed the nodes of %s that act outside Corvane", qUtf8Printable(path));
        });
    }

    void listen_for_commands()
    {
        control = std::make_unique<control::Server>();
        control->set_accepts_open(!options.headless);
        control->set_post_handler([](const QByteArray &mailbox, const QList<QPair<QByteArray, QByteArray>> &pairs) {
            corv_event *event = corv_event_create();
            for (const auto &[key, value] : pairs)
                corv_event_set(event, key.constData(), value.constData());
            nodes::MailboxRegistry &mailboxes = nodes::MailboxRegistry::instance();
            const int receivers = int(mailboxes.entry_count(mailbox));
            mailboxes.deliver(mailbox, event);
            corv_event_destroy(event);
            qCDebug(lcApp, "Posted to mailbox %s from the command line", mailbox.constData());
            return receivers;
        });
        QObject::connect(control.get(), &control::Server::open_requested, control.get(),
                         [](const QString &path) { qInfo("Asked to open %s", qUtf8Printable(path)); });
        control->listen();
    }

    // The project named on the command line, running from the start. A
    // headless run has nothing else to do, so a project it can't read ends it.
    void open_project()
    {
        // A window run opens it in the main window, which shows what fails.
        if (options.project_path.isEmpty() || !options.headless)
            return;
        if (!projects->open(options.project_path) && options.headless)
            failed_exit_code = 1;
    }

    // The main window: restores its layout, opens the project of the command
    // line or the last one, and takes the projects later command lines hand over.
    // Without a window, display nodes print their "%s: %s" lines to stdout.
    void create_main_window()
    {
        if (options.headless) {
            if (options.trace) {
                // Every event a node receives, as JSON lines; the display
                // nodes' events are among them.
                engine::ActivityTap::set_trace_all(true);
                trace = std::make_unique<engine::ActivityTrace>(stdout);
                return;
            }
            // Without a window, what display nodes show goes to the console.
            nodes::set_display_echo(true);
            return;
        }
        widgets::MainWindowContext context;
        context.projects = projects.get();
        context.plugins = plugins.get();
        context.user_agent = [] { return user_agent(); };
        context.settings_file = paths::settings_file();
        context.log_file = log_file_path();
        context.watch_log = [](widgets::MainWindowContext::LogWatch watch) {
            return set_log_listener(std::move(watch));
        };
        context.log_folder = paths::log_folder();
        context.minimize_to_tray = [] {
            engine::Plugin *application = engine::builtin_plugin();
            const model::Property *tray = application && application->preferences()
                ? application->preferences()->collection().find(QStringLiteral("minimizetotray"))
                : nullptr;
            return !tray || tray->value().to_bool();
        };
        engine::PluginList *list = plugins.get();
        context.open_preferences = [list](QWidget *parent) {
            widgets::show_preferences_window(parent, *list);
        };
        main_window = std::make_unique<widgets::MainWindow>(context);
        main_window->open_initial_project(options.project_path);
        widgets::MainWindow *window = main_window.get();
        QObject::connect(control.get(), &control::Server::open_requested, window,
                         [window](const QString &path) {
                             window->restore_from_tray();
                             window->view_model()->open(path);
                         });
    }

    // At start, when the "updatecheck" preference is set, once the window shows.
    void check_for_updates()
    {
        engine::Plugin *application = engine::builtin_plugin();
        if (!main_window || !application || !application->preferences())
            return;
        const model::Property *check =
            application->preferences()->collection().find(QStringLiteral("updatecheck"));
        if (!check || !check->value().to_bool())
            return;
        QMainWindow *window = main_window.get();
        engine::PluginList *list = plugins.get();
        QTimer::singleShot(0, window, [window, list] {
            widgets::check_for_updates_in_background(window, widgets::update_context(*list, user_agent()));
        });
    }
};

Application::Application(int &argc, char **argv, const StartOptions &options)
    : d(std::make_unique<Impl>())
{
    d->options = options;
    d->create_application_object(argc, argv);
    d->read_final_command_line();
    d->watch_shutdown_signals();
    install_translation();
    d->clean_up_after_update();
    d->load_plugins();
    d->listen_for_commands();
    // After the window, whose error boxes then show a failure.
    d->create_main_window();
    d->open_project();
    d->check_for_updates();
}

Application::~Application()
{
    d->tear_down();
    d->shutdown_signals.reset();
    d->qt.reset();
}

int Application::exec()
{
    if (d->failed_exit_code)
        return d->failed_exit_code;
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

engine::PluginList &Application::plugins() const
{
    return *d->plugins;
}

engine::NodeRegistry &Application::registry() const
{
    return *d->registry;
}

engine::ConfigManager &Application::config() const
{
    return *d->config;
}

engine::ProjectManager &Application::projects() const
{
    return *d->projects;
}

control::Server &Application::control() const
{
    return *d->control;
}

} // namespace corv
