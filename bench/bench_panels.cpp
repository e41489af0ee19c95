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
//
//   bench_panels [--rounds N] [--seconds S] [--rate EVENTS_PER_SECOND]
//                [--shot PATH]
//
// --shot saves a picture of the expanded tree with some rows lit to PATH.

#include "../tests/widgets/panel_rig.h"

#include "engine/event.h"
#include "engine/node_manager.h"
#include "engine/rack_manager.h"
#include "widgets/rack_panel.h"
#include "widgets/rack_panel_view_model.h"
#include "widgets/racks_panel.h"
#include "widgets/racks_panel_view_model.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QRandomGenerator>
#include <QTimer>
#include <QTreeView>

#include <algorithm>
#include <cstdio>

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
    qint64 posted = 0;
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
    clock.start();
    feeder.start();
    watch.start();
    QTimer::singleShot(seconds * 1000, &app, &QCoreApplication::quit);
    app.exec();
    std::sort(gaps.begin(), gaps.end());
    std::printf("stall_max_ms: %.2f (p99 %.2f; goal < 50) with %lld events posted, %lld rows lit, %.0f events/s\n",
                gaps.isEmpty() ? 0 : gaps.last(), gaps.isEmpty() ? 0 : gaps.at(gaps.size() * 99 / 100),
                static_cast<long long>(posted), static_cast<long long>(triggers),
                double(triggers) / (double(clock.nsecsElapsed()) / 1e9));
    return 0;
}
