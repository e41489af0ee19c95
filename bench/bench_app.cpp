// The program as a user starts it, and a 10,000-node project opened and saved
// through the project manager, each against a bare Qt peer measured in the
// same run.
//
//   bench_app [--rounds N]      all figures; run it under Xvfb for the window
//                               start (xvfb-run -a bench_app)
//
// Printed, best of the rounds:
//   startup_headless_ms      `corvane --headless` spawned until it logs
//                            "Initialization complete; starting UI"
//   startup_window_ms        the same with a window (needs DISPLAY)
//   startup_bare_ms          a bare QApplication + QMainWindow shown, spawned
//                            until it says so (in this executable)
//   startup_*_ratio          against the bare start
//   open_ms, open_ratio      ProjectManager::open against one bare
//                            QXmlStreamReader pass over the same bytes
//   save_ms, save_ratio      ProjectManager::save (temporary file, fsync,
//                            backup, rename) against a bare QXmlStreamWriter
//                            pass writing the same elements into memory
//   peak_rss_mb              the headless process's peak resident memory
//                            after opening and saving

#include "bench/bench_project.h"
#include "bench/bench_support.h"
#include "app/builtin_plugin.h"
#include "engine/config_manager.h"
#include "engine/node_registry.h"
#include "engine/project_runtime.h"
#include "cui/property_surface.h"
#include "locale/translate.h"
#include "model/project.h"
#include "persistence/command_manager.h"
#include "persistence/project_manager.h"
#include "persistence/writer.h"
#include "sdk/plugin_list.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QMainWindow>
#include <QProcess>
#include <QSysInfo>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTimer>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include <cstdio>
#include <cstring>
#include <optional>
#include <vector>

using namespace corv;
using corv::bench::bare_read;

using corv::bench::peak_resident_mb;

namespace {

double ms(qint64 ns)
{
    return double(ns) / 1e6;
}

// --- the bare peers ---

struct Token {
    QXmlStreamReader::TokenType type;
    QString name;
    QXmlStreamAttributes attributes;
    QString text;
};

std::vector<Token> tokens_of(const QByteArray &document)
{
    std::vector<Token> tokens;
    QXmlStreamReader xml(document);
    while (!xml.atEnd()) {
        const auto type = xml.readNext();
        if (type == QXmlStreamReader::StartElement)
            tokens.push_back({type, xml.name().toString(), xml.attributes(), {}});
        else if (type == QXmlStreamReader::EndElement)
            tokens.push_back({type, {}, {}, {}});
        else if (type == QXmlStreamReader::Characters && !xml.isWhitespace())
            tokens.push_back({type, {}, {}, xml.text().toString()});
    }
    return tokens;
}

qsizetype bare_write(const std::vector<Token> &tokens)
{
    QByteArray out;
    QXmlStreamWriter xml(&out);
    xml.setAutoFormatting(true);
    xml.writeStartDocument();
    for (const Token &token : tokens) {
        if (token.type == QXmlStreamReader::StartElement) {
            xml.writeStartElement(token.name);
            xml.writeAttributes(token.attributes);
        } else if (token.type == QXmlStreamReader::EndElement) {
            xml.writeEndElement();
        } else {
            xml.writeCharacters(token.text);
        }
    }
    xml.writeEndDocument();
    return out.size();
}

// --- child modes ---

// A bare window start: prints "shown" once the window is exposed.
int run_bare(int argc, char **argv)
{
    QApplication app(argc, argv);
    QMainWindow window;
    window.show();
    QTimer::singleShot(0, &app, [] {
        std::fputs("shown\n", stderr);
        std::fflush(stderr);
    });
    return app.exec();
}

// Opens and saves the project at path as the headless program holds it,
// printing "open_ms save_ms bare_read_ms bare_write_ms peak_mb".
int run_project(int argc, char **argv, const QString &path)
{
    qputenv("QT_NO_GLIB", "1");
    QCoreApplication::setApplicationName(QStringLiteral("Corvane"));
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("corv.*.debug=false\ncorv.*.info=false\ndefault.info=false"));
    locale::install_application_translator();
    model::set_rack_name_source(&locale::rack_name);
    engine::ConfigManager config;
    set_builtin_config_manager(&config);
    install_builtin_nodes();
    auto plugins = std::make_unique<engine::PluginList>();
    plugins->add_builtin(builtin_plugin_entry_points(), QCoreApplication::applicationDirPath());
    auto registry = std::make_unique<engine::NodeRegistry>();
    plugins->initialize(*registry);

    // The program's part first, so that the peak memory is its own.
    engine::ProjectManager manager(*registry, &config);
    manager.set_runtime_setup([](engine::ProjectRuntime &runtime, engine::CommandManager &commands) {
        cui::install_node_surfaces(runtime, &commands);
    });
    QElapsedTimer timer;
    timer.start();
    if (!manager.open(path))
        return 3;
    const double open_ms = ms(timer.nsecsElapsed());
    double save_ms = 1e18;
    for (int i = 0; i < 3; ++i) {
        manager.set_modified(true);
        timer.restart();
        if (!manager.save())
            return 4;
        save_ms = std::min(save_ms, ms(timer.nsecsElapsed()));
    }
    const double peak_mb = peak_resident_mb();
    manager.close();

    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return 2;
    const QByteArray document = file.readAll();
    file.close();
    double read_ms = 1e18;
    double write_ms = 1e18;
    const std::vector<Token> tokens = tokens_of(document);
    for (int i = 0; i < 3; ++i) {
        timer.restart();
        bare_read(document);
        read_ms = std::min(read_ms, ms(timer.nsecsElapsed()));
        timer.restart();
        bare_write(tokens);
        write_ms = std::min(write_ms, ms(timer.nsecsElapsed()));
    }
    std::printf("%.3f %.3f %.3f %.3f %.1f\n", open_ms, save_ms, read_ms, write_ms, peak_mb);
    std::fflush(stdout);
    set_builtin_config_manager(nullptr);
    return 0;
}

// --- the parent ---

// The program as built (on Windows this benchmark is itself named
// corvane.exe, in a folder of its own, to host the plugins).
QString corvane_path()
{
    return QFileInfo(QStringLiteral(CORVANE_EXECUTABLE)).absoluteFilePath();
}

// Spawns program until it writes `line` to stderr; the elapsed wall time.
std::optional<double> time_to_line(const QString &program, const QStringList &arguments, const QByteArray &line,
                                   const QProcessEnvironment &env)
{
    QProcess process;
    process.setProcessEnvironment(env);
    process.setReadChannel(QProcess::StandardError);
    QElapsedTimer timer;
    timer.start();
    process.start(program, arguments);
    QByteArray console;
    while (!console.contains(line)) {
        if (!process.waitForReadyRead(10000))
            return std::nullopt;
        console += process.readAllStandardError();
    }
    const double elapsed = ms(timer.nsecsElapsed());
    process.kill();
    process.waitForFinished();
    return elapsed;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc >= 2 && qstrcmp(argv[1], "--bare") == 0)
        return run_bare(argc, argv);
    if (argc >= 3 && qstrcmp(argv[1], "--project") == 0)
        return run_project(argc, argv, QString::fromLocal8Bit(argv[2]));

    QCoreApplication app(argc, argv);
    int rounds = 5;
    for (int i = 1; i + 1 < argc; ++i) {
        if (qstrcmp(argv[i], "--rounds") == 0)
            rounds = std::max(1, atoi(argv[i + 1]));
    }
    QTemporaryDir home;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (const char *name : {"XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME"})
        env.insert(QString::fromLatin1(name), home.filePath(QString::fromLatin1(name)));
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), home.path());
    env.insert(QStringLiteral("QT_NO_GLIB"), QStringLiteral("1"));
    // A windowed program on Windows logs to the debugger, not to stderr.
    env.insert(QStringLiteral("QT_FORCE_STDERR_LOGGING"), QStringLiteral("1"));
    // No update check at start: there is no update server here.
    const QString preferences = home.filePath(QStringLiteral("XDG_DATA_HOME/Corvane/plugins/io.marrowfield.corvane"));
    QDir().mkpath(preferences);
    QFile prefs(preferences + QStringLiteral("/prefs.xml"));
    prefs.open(QIODevice::WriteOnly);
    prefs.write("<?xml version=\"1.0\"?>\n<preferences version=\"1\"><prop key=\"updatecheck\" type=\"bool\">false</prop></preferences>\n");
    prefs.close();

    // The window on the platform's own display: Windows (and Wine) has one
    // always, X11 where DISPLAY names one, the offscreen platform otherwise.
    const QString platform = QSysInfo::productType() == QLatin1String("windows") ? QStringLiteral("windows")
                             : qEnvironmentVariableIsSet("DISPLAY")               ? QStringLiteral("xcb")
                                                                                 : QStringLiteral("offscreen");
    QProcessEnvironment window_env = env;
    window_env.insert(QStringLiteral("QT_QPA_PLATFORM"), platform);
    double bare = 1e18, headless = 1e18, window = 1e18;
    for (int round = 0; round < rounds; ++round) {
        if (auto t = time_to_line(QCoreApplication::applicationFilePath(), {QStringLiteral("--bare")}, "shown", window_env))
            bare = std::min(bare, *t);
        if (auto t = time_to_line(corvane_path(), {QStringLiteral("--headless")},
                                  "Initialization complete; starting UI", env))
            headless = std::min(headless, *t);
        if (auto t = time_to_line(corvane_path(), {}, "Initialization complete; starting UI", window_env))
            window = std::min(window, *t);
    }
    std::printf("platform: %s\n", qPrintable(platform));
    std::printf("startup_bare_ms: %.1f ms\n", bare);
    std::printf("startup_headless_ms: %.1f ms\n", headless);
    std::printf("startup_window_ms: %.1f ms\n", window);
    std::printf("startup_headless_ratio: %.2fx (goal under 1x)\n", headless / bare);
    std::printf("startup_window_ratio: %.2fx (goal 1.5x or less)\n", window / bare);
    std::fflush(stdout);

    const QString path = home.filePath(QStringLiteral("big.corv"));
    {
        QFile file(path);
        file.open(QIODevice::WriteOnly);
        file.write(corv::bench::generate_racks(100, 100));
    }
    double open_ms = 1e18, save_ms = 1e18, ratio_open = 1e18, ratio_save = 1e18, peak = 1e18;
    for (int round = 0; round < rounds; ++round) {
        QProcess child;
        child.setProcessEnvironment(env);
        child.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        child.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--project"), path});
        child.waitForFinished(120000);
        const QList<QByteArray> f = child.readAllStandardOutput().trimmed().split(' ');
        if (child.exitCode() != 0 || f.size() != 5) {
            std::printf("project round failed (exit %d)\n", child.exitCode());
            return 1;
        }
        open_ms = std::min(open_ms, f[0].toDouble());
        save_ms = std::min(save_ms, f[1].toDouble());
        ratio_open = std::min(ratio_open, f[0].toDouble() / f[2].toDouble());
        ratio_save = std::min(ratio_save, f[1].toDouble() / f[3].toDouble());
        peak = std::min(peak, f[4].toDouble());
    }
    std::printf("project: %lld bytes, 10000 nodes, 100 racks\n", static_cast<long long>(QFileInfo(path).size()));
    std::printf("open_ms: %.1f ms\nopen_ratio: %.2fx (goal 2x or less)\n", open_ms, ratio_open);
    std::printf("save_ms: %.1f ms\nsave_ratio: %.2fx (goal 1.5x or less)\n", save_ms, ratio_save);
    std::printf("peak_rss_mb: %.1f MB (goal under 50 MB)\n", peak);
    return 0;
}
