// Many events held in built-in delay nodes at once: a generated project of
// 100 racks, each with one delay node, gets 100 events per rack (10,000
// pending in all). Prints how late the latest release was against the set
// delay, and the CPU time the process used while the events waited.
//
//   bench_nodes [delay seconds, default 3]

#include "bench/bench_support.h"
#include "app/builtin_plugin.h"
#include "cui/property_surface.h"
#include "engine/event.h"
#include "engine/handles.h"
#include "engine/node_manager.h"
#include "engine/node_registry.h"
#include "engine/project_runtime.h"
#include "engine/rack_manager.h"
#include "model/project.h"
#include "sdk/plugin_list.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QLoggingCategory>
#include <QQueue>
#include <QStandardPaths>

#include <cstdio>
#include <memory>

using namespace corv;

using corv::bench::cpu_seconds;

namespace {

constexpr int kRacks = 100;
constexpr int kEventsPerRack = 100;

} // namespace

int main(int argc, char *argv[])
{
    qputenv("QT_NO_GLIB", "1");
    QCoreApplication app(argc, argv);
    QStandardPaths::setTestModeEnabled(true);
    QLoggingCategory::setFilterRules(QStringLiteral("corv.*.debug=false\ncorv.*.info=false"));
    const double delay = argc > 1 ? QByteArray(argv[1]).toDouble() : 3.0;
    const qint64 delay_ms = qint64(delay * 1000);

    install_builtin_nodes();
    cui::install_default_node_surfaces();
    engine::PluginList plugins;
    plugins.add_builtin(builtin_plugin_entry_points(), QCoreApplication::applicationDirPath());
    engine::NodeRegistry registry;
    plugins.initialize(registry);

    model::Project project;
    QList<QUuid> racks;
    QList<QUuid> delays;
    for (int r = 0; r < kRacks; ++r) {
        const QUuid rack_id = QUuid::createUuid();
        auto rack = std::make_unique<model::Rack>();
        rack->set_name(QStringLiteral("Rack %1").arg(r));
        project.add_rack(rack_id, std::move(rack));
        project.profile()->insert(project.profile()->count(), rack_id);
        const QUuid node_id = QUuid::createUuid();
        auto node = std::make_unique<model::Node>();
        node->set_impl_id(QStringLiteral("io.marrowfield.delay"));
        model::StoreView(&node->properties(), node->key_prefix())
            .set(QStringLiteral("!delay"), model::Value::floating(delay));
        project.add_node(node_id, std::move(node));
        project.find_rack(rack_id)->top_level()->insert(0, node_id);
        racks << rack_id;
        delays << node_id;
    }
    engine::ProjectRuntime runtime(project, registry);
    runtime.open();

    // Each node's arrivals in order; each release is matched with the oldest.
    QElapsedTimer clock;
    clock.start();
    int released = 0;
    qint64 worst_late = -1000000;
    qint64 earliest_late = 1000000;
    std::vector<QQueue<qint64>> arrivals(kRacks);
    for (int r = 0; r < kRacks; ++r) {
        engine::NodeManager *manager = runtime.find_node_manager(delays[r]);
        QQueue<qint64> *queue = &arrivals[std::size_t(r)];
        QObject::connect(manager, &engine::NodeManager::triggered, [queue, &clock] {
            queue->enqueue(clock.nsecsElapsed() / 1000);
        });
        QObject::connect(manager, &engine::NodeManager::emitted, [&, queue] {
            const qint64 late = clock.nsecsElapsed() / 1000 - queue->dequeue() - delay_ms * 1000;
            worst_late = std::max(worst_late, late);
            earliest_late = std::min(earliest_late, late);
            if (++released == kRacks * kEventsPerRack)
                QCoreApplication::quit();
        });
    }

    const double cpu_before = cpu_seconds();
    const qint64 start = clock.elapsed();
    for (int e = 0; e < kEventsPerRack; ++e) {
        for (const QUuid &rack : racks) {
            engine::EventScope event;
            event.set("id", QByteArray::number(e));
            engine::EventSink::post(runtime.find_rack_manager(rack)->sink(), event);
        }
    }
    QCoreApplication::exec();
    const double cpu = cpu_seconds() - cpu_before;
    const qint64 wall = clock.elapsed() - start;

    std::printf("pending events: %d\n", kRacks * kEventsPerRack);
    std::printf("delay: %.3f s\n", delay);
    std::printf("max lateness: %.2f ms (%.2f %% of the delay)\n", worst_late / 1000.0,
                100.0 * double(worst_late) / 1000.0 / double(delay_ms));
    std::printf("min lateness: %.2f ms\n", earliest_late / 1000.0);
    std::printf("wall time: %lld ms\n", static_cast<long long>(wall));
    std::printf("cpu time while waiting: %.0f ms (%.2f %% of the wall time)\n", cpu * 1000.0,
                100.0 * cpu * 1000.0 / double(wall));
    return worst_late <= delay_ms * 50 ? 0 : 1; // within 5%
}
