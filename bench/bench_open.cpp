// Opening, holding and closing a generated 10,000-node, 100-rack project the
// way the headless program does: the built-in node set loaded through the
// plugin list, the file opened by the project manager (read, runtime,
// instances, first builds, names), a SIGTERM handled by the shutdown signals,
// then the teardown in the program's order.
//
// Each round runs in a fresh child process, so memory figures are that
// process's own. Printed, best of the rounds:
//   open_ratio     the open against one bare QXmlStreamReader pass over the
//                  same bytes, both measured in the child
//   peak_rss_mb    the child's peak resident memory once the project is open
//   steady_rss_mb  its resident memory after the open has settled
//   close_ms       SIGTERM to the end of the teardown
//
//   bench_open [--rounds N] [--racks R] [--nodes-per-rack N] [--chain DEPTH]
//              [--nodes N]... [--write PATH] [--child PATH]
//
// --nodes N (given once or more) measures projects of N nodes in racks of
// 100, each size in turn, its figures prefixed with "nodes_N_", to show how
// open time and memory grow with the project; --chain builds one rack
// holding a single chain DEPTH nodes deep instead;
// --write only writes the generated project to PATH (to open it with
// `corvane --headless PATH` or under a profiler); --child runs one round on
// the project at PATH in this process.

#include "bench/bench_project.h"
#include "app/builtin_plugin.h"
#include "app/shutdown_signals.h"
#include "cui/property_surface.h"
#include "engine/node_registry.h"
#include "locale/translate.h"
#include "model/project.h"
#include "persistence/project_manager.h"
#include "persistence/writer.h"
#include "sdk/plugin_list.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QLoggingCategory>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTimer>
#include <QXmlStreamReader>

#include <cstdio>
#include <map>
#include <vector>

using namespace corv;

using corv::bench::generate_chain;
using corv::bench::generate_racks;
using corv::bench::bare_read;

using corv::bench::peak_resident_mb;
using corv::bench::resident_mb;

namespace {

// VmHWM or VmRSS of this process, in MB.
double ms_since(const QElapsedTimer &timer)
{
    return double(timer.nsecsElapsed()) / 1e6;
}

// One round, in a process of its own, as the headless program runs.
int run_child(int argc, char **argv, const QString &path)
{
    qputenv("QT_NO_GLIB", "1");
    QCoreApplication::setApplicationName(QStringLiteral("Corvane"));
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("corv.*.debug=false\ncorv.*.info=false"));
    auto shutdown = std::make_unique<ShutdownSignals>();
    QObject::connect(shutdown.get(), &ShutdownSignals::requested, &app,
                     [] { QCoreApplication::exit(0); });
    locale::install_application_translator();
    model::set_rack_name_source(&locale::rack_name);

    install_builtin_nodes();
    auto plugins = std::make_unique<engine::PluginList>();
    plugins->add_builtin(builtin_plugin_entry_points(), QCoreApplication::applicationDirPath());
    auto registry = std::make_unique<engine::NodeRegistry>();
    plugins->initialize(*registry);

    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return 2;
    QByteArray document = file.readAll();
    file.close();
    double bare_ms = 1e18;
    for (int i = 0; i < 3; ++i) {
        QElapsedTimer timer;
        timer.start();
        bare_read(document);
        bare_ms = std::min(bare_ms, ms_since(timer));
    }
    document = QByteArray(); // the open reads the file itself, as the program does

    QElapsedTimer timer;
    timer.start();
    auto session = std::make_unique<engine::ProjectManager>(*registry);
    session->set_runtime_setup([](engine::ProjectRuntime &runtime, engine::CommandManager &commands) {
        cui::install_node_surfaces(runtime, &commands);
    });
    if (!session->open(path))
        return 3;
    const double open_ms = ms_since(timer);

    // Let what the open scheduled run, then stop the way a user does.
    double steady_mb = 0;
    double peak_mb = 0;
    QElapsedTimer close_timer;
    QTimer::singleShot(500, &app, [&] {
        steady_mb = resident_mb();
        peak_mb = peak_resident_mb();
        close_timer.start();
        corv::bench::ask_to_stop();
    });
    QCoreApplication::exec();
    session.reset();
    registry.reset();
    plugins.reset();
    shutdown.reset();
    const double close_ms = ms_since(close_timer);

    std::printf("bare_read_ms: %.2f\n", bare_ms);
    std::printf("open_ms: %.2f\n", open_ms);
    std::printf("open_ratio: %.3f\n", open_ms / bare_ms);
    std::printf("peak_rss_mb: %.1f\n", peak_mb);
    std::printf("steady_rss_mb: %.1f\n", steady_mb);
    std::printf("close_ms: %.2f\n", close_ms);
    std::fflush(stdout);
    return 0;
}

} // namespace

namespace {

// The goal printed beside a figure; the memory and close goals hold for the
// 10,000-node project, and for 100,000 nodes the growth goals.
QByteArray goal_of(const QByteArray &name, long long nodes)
{
    if (name == "open_ratio")
        return "goal 2x or less";
    if (name == "peak_rss_mb")
        return nodes >= 100000 ? "goal under 150" : nodes <= 10000 ? "goal under 50" : QByteArray();
    if (name == "steady_rss_mb")
        return nodes <= 10000 ? "goal under 45" : QByteArray();
    if (name == "close_ms")
        return nodes >= 100000 ? "goal under 200" : nodes <= 10000 ? "goal under 20" : QByteArray();
    return {};
}

// Rounds of fresh child processes on the project at `path`; prints the best
// of each figure, prefixed.
int measure(const QString &path, int rounds, const QProcessEnvironment &environment, const QByteArray &prefix,
            long long nodes)
{
    std::map<QByteArray, double> best;
    std::vector<QByteArray> order;
    for (int round = 0; round < rounds; ++round) {
        QProcess child;
        child.setProcessEnvironment(environment);
        child.setProcessChannelMode(QProcess::SeparateChannels);
        child.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--child"), path});
        if (!child.waitForFinished(-1) || child.exitStatus() != QProcess::NormalExit
            || child.exitCode() != 0) {
            std::fprintf(stderr, "round %d failed (exit %d):\n%s\n", round, child.exitCode(),
                         child.readAllStandardError().constData());
            return 1;
        }
        for (const QByteArray &line : child.readAllStandardOutput().split('\n')) {
            const qsizetype colon = line.indexOf(':');
            if (colon < 0)
                continue;
            const QByteArray name = line.left(colon);
            const double value = line.mid(colon + 1).trimmed().toDouble();
            auto it = best.find(name);
            if (it == best.end()) {
                best.emplace(name, value);
                order.push_back(name);
            } else {
                it->second = std::min(it->second, value);
            }
        }
    }
    for (const QByteArray &name : order) {
        const QByteArray goal = goal_of(name, nodes);
        std::printf("%s%s: %.2f%s\n", prefix.constData(), name.constData(), best[name],
                    goal.isEmpty() ? "" : (" (" + goal + ")").constData());
    }
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    int rounds = 5;
    int racks = 100;
    int nodes_per_rack = 100;
    int chain = 0;
    std::vector<int> sizes;
    QString write_path;
    for (int i = 1; i + 1 < argc; ++i) {
        const QByteArray arg(argv[i]);
        if (arg == "--child")
            return run_child(argc, argv, QString::fromLocal8Bit(argv[i + 1]));
        if (arg == "--write") {
            write_path = QString::fromLocal8Bit(argv[++i]);
            continue;
        }
        const int value = QByteArray(argv[i + 1]).toInt();
        if (arg == "--rounds")
            rounds = std::max(1, value);
        else if (arg == "--racks")
            racks = value;
        else if (arg == "--nodes-per-rack")
            nodes_per_rack = value;
        else if (arg == "--chain")
            chain = value;
        else if (arg == "--nodes")
            sizes.push_back(std::max(100, value));
        else
            continue;
        ++i;
    }

    QCoreApplication app(argc, argv);
    QTemporaryDir folder;
    // Private application data, so the child touches nothing of the user's.
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char *name : {"XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME", "XDG_RUNTIME_DIR"}) {
        const QString sub = folder.filePath(QString::fromLatin1(name));
        QDir().mkpath(sub);
        environment.insert(QString::fromLatin1(name), sub);
    }
    const auto write = [](const QString &path, const QByteArray &document, const QByteArray &prefix) {
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(document) != document.size())
            return false;
        std::printf("%sproject_bytes: %lld\n", prefix.constData(), static_cast<long long>(document.size()));
        return true;
    };

    if (!sizes.empty()) {
        const QString path = folder.filePath(QStringLiteral("generated.corv"));
        for (int nodes : sizes) {
            const QByteArray prefix = "nodes_" + QByteArray::number(nodes) + "_";
            if (!write(path, generate_racks(std::max(1, nodes / 100), 100), prefix) ||
                measure(path, rounds, environment, prefix, nodes) != 0)
                return 1;
        }
        return 0;
    }
    const QString path =
        write_path.isEmpty() ? folder.filePath(QStringLiteral("generated.corv")) : write_path;
    if (!write(path, chain > 0 ? generate_chain(chain) : generate_racks(racks, nodes_per_rack), {}))
        return 1;
    if (!write_path.isEmpty())
        return 0;
    return measure(path, rounds, environment, {}, chain > 0 ? chain : static_cast<long long>(racks) * nodes_per_rack);
}
