// The rack panel under load, on the offscreen platform with the built-in
// node set. Prints:
//   show_flat_1000_ms      a rack of 1,000 top-level nodes, from choosing it
//                          to its first complete paint (median and worst of
//                          the rounds)
//   show_tree_1000_ms      1,000 nodes as 250 forks with 3 children each,
//                          fully expanded, the same way
//   open_10000_ms          a 10,000-node, 100-rack project handed to the
//                          racks and rack panels, to the first paint of both
//   stall_max_ms           the longest gap of a 1 ms timer while 10,000
//                          events a second reach the nodes of the visible
//                          1,000-node rack (each lights its row), with the
//                          99th percentile and the events delivered
//   activity_stall_max_ms  the same gap while the events run through a rack
//                          of three nodes with "trace all" on and the
//                          activity panel shown (three rows an event), for
//                          --activity-seconds (10)
//   activity_rss_mb        resident memory when the panel's ring first holds
//                          its 10,000 rows, the most after that, and at the end
//
//   bench_panels [--rounds N] [--seconds S] [--rate EVENTS_PER_SECOND]
//                [--activity-seconds S] [--shot PATH]
//
// --shot saves a picture of the expanded tree with some rows lit to PATH.

#include "../tests/widgets/panel_rig.h"

#include "bench/bench_platform.h"
#include "engine/activity_tap.h"
#include "engine/event.h"
#include "engine/node_manager.h"
#include "engine/rack_manager.h"
#include "widgets/activity_panel.h"
#include "widgets/activity_view_model.h"
#include "widgets/rack_panel.h"
#include "widgets/rack_panel_view_model.h"
#include "widgets/racks_panel.h"
#include "widgets/racks_panel_view_model.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QRandomGenerator>
#include <QTimer>
#include <QTreeView>

#include <QEventLoop>

#include <algorithm>
#include <cstdio>
#include <functional>

using namespace corv;

namespace {

double median(QList<double> values)
{
    std::sort(values.begin(), values.end());
    return values.isEmpty() ? 0 : values.at(values.size() / 2);
}

// Chooses the rack in a shown panel and waits for its first paint.
double show_ms(widgets::RackPanel &panel, const QUuid &rack, bool expand)
{
    panel.set_rack({});
    QCoreApplication::processEvents();
    QElapsedTimer clock;
    clock.start();
    panel.set_rack(rack);
    if (expand)
        panel.tree()->expandAll();
    panel.tree()->viewport()->repaint();
    QCoreApplication::processEvents();
    return double(clock.nsecsElapsed()) / 1e6;
}

int argument(const QStringList &args, const char *name, int fallback)
{
    const qsizetype at = args.indexOf(QString::fromLatin1(name));
    return at >= 0 && at + 1 < args.size() ? args.at(at + 1).toInt() : fallback;
}

// Posts to one of `sinks` at `rate` events a second while the event loop
// runs for `seconds`, and keeps the gaps of a 1 ms timer meanwhile (sorted).
// `sample` runs every 100 ms.
QList<double> run_load(const QList<engine::EventSink *> &sinks, int rate, int seconds, qint64 &posted,
                       const std::function<void()> &sample = {})
{
    QElapsedTimer clock;
    posted = 0;
    QTimer feeder;
    feeder.setTimerType(Qt::PreciseTimer);
    feeder.setInterval(1);
    QObject::connect(&feeder, &QTimer::timeout, [&] {
        const qint64 due = clock.nsecsElapsed() * rate / 1000000000;
        for (; posted < due; ++posted)
            engine::EventSink::post(sinks.at(QRandomGenerator::global()->bounded(int(sinks.size()))), engine::EventScope());
    });
    QList<double> gaps;
    qint64 last = 0;
    QTimer watch;
    watch.setTimerType(Qt::PreciseTimer);
    watch.setInterval(1);
    QObject::connect(&watch, &QTimer::timeout, [&] {
        const qint64 now = clock.nsecsElapsed();
        gaps << double(now - last) / 1e6;
        last = now;
    });
    QTimer sampler;
    sampler.setInterval(100);
    if (sample)
        QObject::connect(&sampler, &QTimer::timeout, sample);
    QEventLoop loop;
    clock.start();
    feeder.start();
    watch.start();
    sampler.start();
    QTimer::singleShot(seconds * 1000, &loop, &QEventLoop::quit);
    loop.exec();
    std::sort(gaps.begin(), gaps.end());
    return gaps;
}

// 10,000 events a second through a traced rack of three nodes with the
// activity panel shown: the longest stall, and the memory once the ring is
// full against the memory after.
void run_activity(int rate, int seconds)
{
    PanelRig rig;
    const QUuid rack = rig.add_rack(QStringLiteral("Traced"));
    rig.add_node(rack, QStringLiteral("io.marrowfield.evaluate"), QStringLiteral("First"));
    rig.add_node(rack, QStringLiteral("io.marrowfield.fork"), QStringLiteral("Second"));
    rig.add_node(rack, QStringLiteral("io.marrowfield.display"), QStringLiteral("Shown"));
    rig.open();
    widgets::ActivityViewModel model;
    widgets::ActivityPanel panel(&model);
    panel.resize(900, 400);
    panel.show();
    model.set_listening(true);
    engine::ActivityTap::set_trace_all(true);
    QCoreApplication::processEvents();

    double at_full = -1;
    double most_after = 0;
    qint64 posted = 0;
    const QList<double> gaps =
        run_load({rig.runtime->find_rack_manager(rack)->sink()}, rate, seconds, posted, [&] {
            const double rss = bench::resident_mb();
            if (at_full < 0 && model.rowCount() >= widgets::ActivityViewModel::kCapacity)
                at_full = rss;
            else if (at_full >= 0)
                most_after = std::max(most_after, rss);
        });
    const double at_end = bench::resident_mb();
    engine::ActivityTap::set_trace_all(false);
    model.set_listening(false);
    std::printf("activity_stall_max_ms: %.2f (p99 %.2f; goal < 50) with %lld events posted, %llu rows fell off, "
                "%d shown\n",
                gaps.isEmpty() ? 0 : gaps.last(), gaps.isEmpty() ? 0 : gaps.at(gaps.size() * 99 / 100),
                static_cast<long long>(posted), static_cast<unsigned long long>(model.fallen_off()), model.rowCount());
    std::printf("activity_rss_mb: %.1f when the ring was full, %.1f at most after, %.1f at the end "
                "(goal: flat after full)\n",
                at_full, most_after, at_end);
}

} // namespace

int main(int argc, char **argv)
{
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    const QStringList args = app.arguments();
    const int rounds = argument(args, "--rounds", 7);
    const int seconds = argument(args, "--seconds", 3);
    const int rate = argument(args, "--rate", 10000);

    PanelRig rig;
    const QUuid flat = rig.add_rack(QStringLiteral("Flat"));
    QList<QUuid> flat_nodes;
    for (int i = 0; i < 1000; ++i)
        flat_nodes << rig.add_node(flat, QStringLiteral("io.marrowfield.stop"));
    const QUuid tree = rig.add_rack(QStringLiteral("Tree"));
    for (int i = 0; i < 250; ++i) {
        const QUuid fork = rig.add_node(tree, QStringLiteral("io.marrowfield.fork"));
        for (const char *type : {"io.marrowfield.delay", "io.marrowfield.stop", "io.marrowfield.custom"})
            rig.add_node(fork, QString::fromLatin1(type));
    }
    rig.open();

    widgets::RackPanelViewModel vm;
    vm.set_context(rig.context());
    widgets::RackPanel panel(&vm);
    panel.resize(420, 900);
    panel.show();
    QCoreApplication::processEvents();

    QList<double> flat_ms, tree_ms;
    for (int i = 0; i < rounds; ++i) {
        flat_ms << show_ms(panel, flat, false);
        tree_ms << show_ms(panel, tree, true);
    }
    const qsizetype shot = args.indexOf(QStringLiteral("--shot"));
    if (shot >= 0 && shot + 1 < args.size()) {
        panel.set_rack(tree);
        panel.tree()->expandAll();
        const QUuid first = rig.project.find_rack(tree)->top_level()->at(0);
        engine::EventSink::post(rig.runtime->find_rack_manager(tree)->sink(), engine::EventScope());
        QElapsedTimer wait;
        wait.start();
        while (wait.elapsed() < 100)
            QCoreApplication::processEvents();
        panel.select_node(first);
        panel.grab().save(args.at(shot + 1));
    }
    std::printf("show_flat_1000_ms: %.2f median, %.2f worst (goal < 300)\n", median(flat_ms),
                *std::max_element(flat_ms.cbegin(), flat_ms.cend()));
    std::printf("show_tree_1000_ms: %.2f median, %.2f worst (goal < 300)\n", median(tree_ms),
                *std::max_element(tree_ms.cbegin(), tree_ms.cend()));

    // A project of 10,000 nodes in 100 racks handed to both panels.
    {
        PanelRig big;
        QUuid first;
        for (int r = 0; r < 100; ++r) {
            const QUuid rack = big.add_rack(QStringLiteral("Rack %1").arg(r));
            first = first.isNull() ? rack : first;
            for (int n = 0; n < 25; ++n) {
                const QUuid fork = big.add_node(rack, QStringLiteral("io.marrowfield.fork"));
                for (int c = 0; c < 3; ++c)
                    big.add_node(fork, QStringLiteral("io.marrowfield.delay"));
            }
        }
        big.open();
        QElapsedTimer clock;
        clock.start();
        widgets::RacksPanelViewModel racks_vm;
        racks_vm.set_context(big.context());
        widgets::RacksPanel racks(&racks_vm);
        widgets::RackPanelViewModel rack_vm;
        rack_vm.set_context(big.context());
        widgets::RackPanel rack(&rack_vm);
        QObject::connect(&racks, &widgets::RacksPanel::selected_rack_changed, &rack, &widgets::RackPanel::set_rack);
        racks.resize(240, 900);
        rack.resize(420, 900);
        racks.show();
        rack.show();
        racks_vm.set_selected_rack(first);
        racks.repaint();
        rack.tree()->viewport()->repaint();
        QCoreApplication::processEvents();
        std::printf("open_10000_ms: %.2f (both panels to their first paint)\n", double(clock.nsecsElapsed()) / 1e6);
    }

    // Events at `rate` per second, each handed to a random node of the
    // visible flat rack: posted to the sink before it (the rack's own sink
    // for the first node), so the router hands it on and the row lights.
    panel.set_rack(flat);
    QCoreApplication::processEvents();
    QList<engine::EventSink *> sinks;
    sinks << rig.runtime->find_rack_manager(flat)->sink();
    for (int i = 0; i + 1 < flat_nodes.size(); ++i)
        sinks << rig.runtime->find_node_manager(flat_nodes.at(i))->parent_sink();
    qint64 triggers = 0;
    for (const QUuid &id : std::as_const(flat_nodes))
        QObject::connect(rig.runtime->find_node_manager(id), &engine::NodeManager::triggered, [&triggers] { ++triggers; });

    QElapsedTimer clock;
    clock.start();
    qint64 posted = 0;
    const QList<double> gaps = run_load(sinks, rate, seconds, posted);
    std::printf("stall_max_ms: %.2f (p99 %.2f; goal < 50) with %lld events posted, %lld rows lit, %.0f events/s\n",
                gaps.isEmpty() ? 0 : gaps.last(), gaps.isEmpty() ? 0 : gaps.at(gaps.size() * 99 / 100),
                static_cast<long long>(posted), static_cast<long long>(triggers),
                double(triggers) / (double(clock.nsecsElapsed()) / 1e9));

    run_activity(rate, argument(args, "--activity-seconds", 10));
    return 0;
}
