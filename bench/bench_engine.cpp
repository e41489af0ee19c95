// Event hop cost of the engine against a bare posted QEvent, under both event
// dispatchers, and the time to build the runtime of a large project.
//
// Run without arguments: the program runs itself once with QT_NO_GLIB=1 (Qt's
// own Unix dispatcher) and once without it (the glib dispatcher), and prints
// one figure per line as "name: value unit".

#include "bench/bench_support.h"
#include "engine/activity_trace.h"
#include "engine/children_router.h"
#include "engine/event.h"
#include "engine/handles.h"
#include "engine/node_instance.h"
#include "engine/node_registry.h"
#include "engine/project_runtime.h"
#include "engine/rack_manager.h"
#include "model/project.h"

#ifdef CORV_BENCH_BUILTIN_NODES
#include "app/builtin_plugin.h"
#include "cui/property_surface.h"
#include "locale/translate.h"
#include "sdk/plugin_list.h"
#endif

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QLoggingCategory>
#include <QProcess>
#include <QProcessEnvironment>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <vector>

using namespace corv;
using namespace corv::engine;

using corv::bench::add_rack;

namespace {

constexpr int chain_length = 1000;
constexpr int events_in_flight = 10000;

// --- a bare posted QEvent through a chain of plain QObjects -----------------

class HopEvent : public QEvent
{
public:
    explicit HopEvent(int remaining) : QEvent(QEvent::User), remaining(remaining) {}
    int remaining;
};

class ChainLink : public QObject
{
public:
    ChainLink *next = nullptr;
    int *finished = nullptr;
    int in_flight = events_in_flight;

    bool event(QEvent *event) override
    {
        if (event->type() != QEvent::User)
            return QObject::event(event);
        const int remaining = static_cast<HopEvent *>(event)->remaining - 1;
        if (remaining > 0)
            QCoreApplication::postEvent(next, new HopEvent(remaining));
        else if (++*finished == in_flight)
            QCoreApplication::quit();
        return true;
    }
};

// Seconds per delivery: every event makes `length` hops.
double run_bare_chain(int length = chain_length, int in_flight = events_in_flight)
{
    std::vector<ChainLink> links(static_cast<std::size_t>(length));
    int finished = 0;
    for (int i = 0; i < length; ++i) {
        links[std::size_t(i)].next = &links[std::size_t((i + 1) % length)];
        links[std::size_t(i)].finished = &finished;
        links[std::size_t(i)].in_flight = in_flight;
    }
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < in_flight; ++i)
        QCoreApplication::postEvent(&links[0], new HopEvent(length));
    QCoreApplication::exec();
    const double seconds = double(timer.nsecsElapsed()) / 1e9;
    return seconds / (double(in_flight) * length);
}

// --- the engine: a rack of pass-on nodes -------------------------------------

long long hops = 0;

void *pass_create(corv_node *node)
{
    return node;
}

void pass_on_event(void *data, corv_event *event)
{
    // What corv_event_post(corv_node_parent_sink(node), event) and
    // corv_event_destroy(event) do.
    ++hops;
    EventSink::post(handles::node(static_cast<corv_node *>(data))->parent_sink(),
                    *handles::event(event));
    handles::release_event(event);
}

void load_nothing(void *, corv_store *) {}

struct Types {
    PluginIdentity plugin{QStringLiteral("bench"), QStringLiteral("Bench"), {}};
    NodeRegistry registry;

    Types()
    {
        NodeRegistration registration(registry, plugin);
        corv_node_type pass{};
        pass.id = "bench.pass";
        pass.name = "Pass on";
        pass.create = pass_create;
        pass.on_event = pass_on_event;
        pass.load = load_nothing;
        registration.register_node(&pass);
        registration.commit();
    }
};

QUuid add_node(model::Project &project, model::Children *list, const char *type)
{
    const QUuid id = QUuid::createUuid();
    auto node = std::make_unique<model::Node>();
    node->set_impl_id(QString::fromLatin1(type));
    project.add_node(id, std::move(node));
    list->insert(list->count(), id);
    return id;
}

// Seconds per hop: every event passes all chain_length nodes. `in_flight`
// events are posted at once.
double run_engine_chain(Types &types, int in_flight = events_in_flight)
{
    model::Project project;
    const QUuid rack_id = add_rack(project, 1);
    model::Rack *rack = project.find_rack(rack_id);
    for (int i = 0; i < chain_length; ++i)
        add_node(project, rack->top_level(), "bench.pass");

    ProjectRuntime runtime(project, types.registry);
    runtime.open();
    RackManager *rack_manager = runtime.find_rack_manager(rack_id);
    int finished = 0;
    QObject::connect(rack_manager->top_router(), &ChildrenEventRouter::event_returned,
                     [&finished, in_flight](const EventScope &) {
                         if (++finished == in_flight)
                             QCoreApplication::quit();
                     });

    hops = 0;
    EventScope event;
    event.set("key", "value");
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < in_flight; ++i)
        EventSink::post(rack_manager->sink(), event);
    QCoreApplication::exec();
    const double seconds = double(timer.nsecsElapsed()) / 1e9;
    if (hops != qint64(in_flight) * chain_length)
        std::fprintf(stderr, "unexpected hop count %lld\n", hops);
    return seconds / (double(in_flight) * chain_length);
}

// Seconds per hop as above, with every hop traced (`--trace`) into a
// temporary file, against the same run untraced.
std::pair<double, double> run_traced_chain(Types &types)
{
    constexpr int in_flight = 500; // half a million lines of about 90 bytes
    const double untraced = run_engine_chain(types, in_flight);
    std::FILE *out = std::tmpfile();
    if (!out)
        return {untraced, 0};
    double traced;
    {
        ActivityTap::set_trace_all(true);
        ActivityTrace trace(out);
        traced = run_engine_chain(types, in_flight);
        ActivityTap::set_trace_all(false);
    }
    std::fclose(out);
    return {untraced, traced};
}

// Milliseconds to build managers, routers and instances of a project with
// racks x nodes_per_rack nodes (a fifth of each rack's nodes at the top level,
// each with four children), and to tear them down again.
// With several types, the n-th node of a rack takes type n modulo their count.
// `prepare` runs on the runtime before it opens.
std::pair<double, double> run_runtime_build(NodeRegistry &registry, int racks, int nodes_per_rack,
                                            const std::vector<const char *> &types,
                                            const std::function<void(ProjectRuntime &)> &prepare = {})
{
    model::Project project;
    const auto type_of = [&](int n) { return types[std::size_t(n) % types.size()]; };
    for (int r = 0; r < racks; ++r) {
        model::Rack *rack = project.find_rack(add_rack(project, r + 1));
        for (int n = 0; n < nodes_per_rack; n += 5) {
            const QUuid parent = add_node(project, rack->top_level(), type_of(n));
            model::Children *children = project.find_node(parent)->children();
            for (int c = 1; c < 5 && n + c < nodes_per_rack; ++c)
                add_node(project, children, type_of(n + c));
        }
    }
    QElapsedTimer timer;
    timer.start();
    auto runtime = std::make_unique<ProjectRuntime>(project, registry);
    if (prepare)
        prepare(*runtime);
    runtime->open();
    const double build_ms = double(timer.nsecsElapsed()) / 1e6;
    if (runtime->node_managers().size() != racks * nodes_per_rack)
        std::fprintf(stderr, "unexpected node count %lld\n",
                     static_cast<long long>(runtime->node_managers().size()));
    timer.restart();
    runtime.reset();
    const double teardown_ms = double(timer.nsecsElapsed()) / 1e6;
    return {build_ms, teardown_ms};
}

#ifdef CORV_BENCH_BUILTIN_NODES
// The same project made of built-in node types, each with its property
// panel as the program gives it: delay, fork, sequential, debounce, on-custom.
void run_builtin_build(int rounds)
{
    locale::install_application_translator();
    install_builtin_nodes();
    PluginList plugins;
    plugins.add_builtin(builtin_plugin_entry_points(), QCoreApplication::applicationDirPath());
    NodeRegistry registry;
    plugins.initialize(registry);
    const std::vector<const char *> types{"io.marrowfield.delay", "io.marrowfield.fork",
                                          "io.marrowfield.sequential", "io.marrowfield.debounce",
                                          "io.marrowfield.custom"};
    double build = 1e9;
    double teardown = 1e9;
    for (int round = 0; round < rounds; ++round) {
        const auto [built, torn_down] = run_runtime_build(
            registry, 100, 100, types,
            [](ProjectRuntime &runtime) { cui::install_node_surfaces(runtime, nullptr); });
        build = std::min(build, built);
        teardown = std::min(teardown, torn_down);
    }
    std::printf("runtime_build_builtin_10000_nodes_100_racks: %.1f ms\n", build);
    std::printf("runtime_teardown_builtin_10000_nodes_100_racks: %.1f ms\n", teardown);
}

// Events through a rack of filter steps as a user builds them, each step a
// compare (x > 0, passes), an evaluate (y = {x + 1}) and a display, with
// their panels as the program has them; against a bare posted QEvent with
// the same number in flight. Seconds per step.
constexpr int filter_steps = 333;
constexpr int filter_events = 1000;

// Adds one configured node of a filter step to the list.
void add_filter_node(model::Project &project, model::Children *list, const char *type)
{
    const QUuid id = add_node(project, list, type);
    const model::Node *node = project.find_node(id);
    model::StoreView store(const_cast<model::PropertyCollection *>(&node->properties()), node->key_prefix());
    if (std::strcmp(type, "io.marrowfield.compare") == 0) {
        store.set(QStringLiteral("!property"), model::Value::string("x"));
        store.set(QStringLiteral("comparetype"), model::Value::integer(4));
    } else if (std::strcmp(type, "io.marrowfield.evaluate") == 0) {
        store.set(QStringLiteral("!key"), model::Value::string("y"));
        store.set(QStringLiteral("!expr"), model::Value::string("{x + 1}"));
    }
}

// Seconds per node: filter_events events through a rack of the given types
// repeated to filter_steps x 3 nodes.
double run_filter_chain(NodeRegistry &registry, const std::vector<const char *> &types)
{
    model::Project project;
    const QUuid rack_id = add_rack(project, 1);
    model::Children *list = project.find_rack(rack_id)->top_level();
    const int nodes = filter_steps * 3;
    for (int i = 0; i < nodes; ++i)
        add_filter_node(project, list, types[std::size_t(i) % types.size()]);
    ProjectRuntime runtime(project, registry);
    cui::install_node_surfaces(runtime, nullptr);
    runtime.open();
    RackManager *rack_manager = runtime.find_rack_manager(rack_id);
    int finished = 0;
    QObject::connect(rack_manager->top_router(), &ChildrenEventRouter::event_returned,
                     [&finished](const EventScope &) {
                         if (++finished == filter_events)
                             QCoreApplication::quit();
                     });
    EventScope event;
    event.set("x", "5");
    event.set("name", "bench");
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < filter_events; ++i)
        EventSink::post(rack_manager->sink(), event);
    QCoreApplication::exec();
    const double seconds = double(timer.nsecsElapsed()) / 1e9;
    if (finished != filter_events)
        std::fprintf(stderr, "unexpected event count %d\n", finished);
    return seconds / (double(filter_events) * nodes);
}

void run_filter_steps(const char *name, int rounds)
{
    PluginList plugins;
    plugins.add_builtin(builtin_plugin_entry_points(), QCoreApplication::applicationDirPath());
    NodeRegistry registry;
    plugins.initialize(registry);
    const std::vector<const char *> step{"io.marrowfield.compare", "io.marrowfield.evaluate",
                                         "io.marrowfield.display"};
    double bare = 1e9;
    double per_node = 1e9;
    std::vector<double> alone(step.size(), 1e9);
    for (int round = 0; round < rounds; ++round) {
        bare = std::min(bare, run_bare_chain(filter_steps * 3, filter_events));
        per_node = std::min(per_node, run_filter_chain(registry, step));
        for (std::size_t i = 0; i < step.size(); ++i)
            alone[i] = std::min(alone[i], run_filter_chain(registry, {step[i]}));
    }
    std::printf("bare_post_%d_in_flight_%s: %.4f us\n", filter_events, name, bare * 1e6);
    std::printf("compare_evaluate_display_step_%s: %.4f us\n", name, per_node * 3 * 1e6);
    std::printf("compare_evaluate_display_step_ratio_%s: %.2f x bare hop (goal 5x or less)\n", name,
                per_node * 3 / bare);
    std::printf("compare_evaluate_display_per_node_ratio_%s: %.2f x bare hop\n", name, per_node / bare);
    for (std::size_t i = 0; i < step.size(); ++i) {
        const char *type = step[i] + std::strlen("io.marrowfield.");
        std::printf("%s_node_%s: %.4f us, %.2f x bare hop%s\n", type, name, alone[i] * 1e6, alone[i] / bare,
                    std::strcmp(type, "evaluate") == 0 ? " (goal 2x or less)" : "");
    }
}
#endif

int run_measurements(int argc, char **argv, int rounds, bool filters_only)
{
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("corv.*.info=false\ncorv.*.debug=false"));
    const QByteArray dispatcher =
        QAbstractEventDispatcher::instance()->metaObject()->className();
    const char *name = dispatcher.contains("Glib") ? "glib" : dispatcher.contains("Win32") ? "win32" : "unix";
    std::printf("dispatcher_%s: %s\n", name, dispatcher.constData());

    Types types;
    double bare = 1e9;
    double hop = 1e9;
    for (int round = 0; round < rounds && !filters_only; ++round) {
        bare = std::min(bare, run_bare_chain());
        hop = std::min(hop, run_engine_chain(types));
    }
    if (!filters_only) {
        std::printf("bare_post_%s: %.4f us\n", name, bare * 1e6);
        std::printf("engine_hop_%s: %.4f us\n", name, hop * 1e6);
        std::printf("hop_ratio_%s: %.2f x (goal %s or less)\n", name, hop / bare,
                    std::strcmp(name, "glib") == 0 ? "1.1x" : "1.2x");
        double untraced = 1e9;
        double traced = 1e9;
        for (int round = 0; round < rounds; ++round) {
            const auto [plain, with_trace] = run_traced_chain(types);
            untraced = std::min(untraced, plain);
            traced = std::min(traced, with_trace);
        }
        std::printf("engine_hop_traced_%s: %.4f us (untraced %.4f us, trace %.4f us per hop; goal < 2)\n", name,
                    traced * 1e6, untraced * 1e6, (traced - untraced) * 1e6);
    }
    const bool build_figures = !filters_only && !dispatcher.contains("Glib");
    if (build_figures) {
        double build = 1e9;
        double teardown = 1e9;
        for (int round = 0; round < rounds; ++round) {
            const auto [built, torn_down] = run_runtime_build(types.registry, 100, 100, {"bench.pass"});
            build = std::min(build, built);
            teardown = std::min(teardown, torn_down);
        }
        std::printf("runtime_build_10000_nodes_100_racks: %.1f ms\n", build);
        std::printf("runtime_teardown_10000_nodes_100_racks: %.1f ms\n", teardown);
#ifdef CORV_BENCH_BUILTIN_NODES
        run_builtin_build(rounds);
#endif
    }
#ifdef CORV_BENCH_BUILTIN_NODES
    if (!build_figures) { // otherwise done for the build figure
        locale::install_application_translator();
        install_builtin_nodes();
    }
    run_filter_steps(name, rounds);
#endif
    std::fflush(stdout);
    return 0;
}

int run_both(const QString &program, const QStringList &extra)
{
    int status = 0;
    for (const bool glib : {false, true}) {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        if (glib)
            environment.remove(QStringLiteral("QT_NO_GLIB"));
        else
            environment.insert(QStringLiteral("QT_NO_GLIB"), QStringLiteral("1"));
        QProcess child;
        child.setProcessEnvironment(environment);
        child.setProcessChannelMode(QProcess::ForwardedChannels);
        child.start(program, QStringList{QStringLiteral("--measure")} + extra);
        if (!child.waitForFinished(-1) || child.exitCode() != 0)
            status = 1;
    }
    return status;
}

} // namespace

int main(int argc, char **argv)
{
    // bench_engine [--measure] [--rounds N] [--filters]
    // --filters: only the compare, evaluate and display figures.
    bool measure = false;
    bool filters_only = false;
    int rounds = 3;
    QStringList extra;
    for (int i = 1; i < argc; ++i) {
        const QByteArray arg(argv[i]);
        if (arg == "--measure") {
            measure = true;
        } else if (arg == "--filters") {
            filters_only = true;
            extra << QStringLiteral("--filters");
        } else if (arg == "--rounds" && i + 1 < argc) {
            rounds = std::max(1, QByteArray(argv[++i]).toInt());
            extra << QStringLiteral("--rounds") << QString::number(rounds);
        }
    }
    if (measure)
        return run_measurements(argc, argv, rounds, filters_only);
    return run_both(QString::fromLocal8Bit(argv[0]), extra);
}
