#include "nodes/builtin_nodes.h"

#include "nodes/compare.h"
#include "nodes/count.h"
#include "nodes/files.h"
#include "nodes/flow.h"
#include "nodes/hotkeys.h"
#include "nodes/node_support.h"
#include "nodes/schedule.h"
#include "nodes/timing.h"

#include <QByteArray>
#include <QFile>

namespace corv::nodes {

namespace {

template <std::uint32_t flags>
std::uint32_t decoration(void *)
{
    return flags;
}

// Each icon is read from its resource path and handed over as bytes whose
// format the host detects. No resource (a build without the icons): the
// plugin's icon.
QByteArray read_icon(const char *path)
{
    QFile file(QString::fromLatin1(path));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

constexpr char kActions[] = "NodeCategory.Actions";
constexpr char kFilters[] = "NodeCategory.Filters";
constexpr char kOperators[] = "NodeCategory.Operators";
constexpr char kQueues[] = "NodeCategory.Queues";
constexpr char kSources[] = "NodeCategory.Sources";

// The count types are registered right after compare.
constexpr BuiltinNodeRow kTable[] = {
    {"io.marrowfield.compare", "CompareNode.Name", kFilters,
     ":/corv/icons/nodes/compare.png", decoration<42>, &compare_node},
    {"io.marrowfield.countblock", "CountBlockNode.Name", kOperators,
     ":/corv/icons/nodes/count.png", decoration<43>, &count_block_node},
    {"io.marrowfield.countdiscretetime", "CountDiscreteTimeNode.Name", kOperators,
     ":/corv/icons/nodes/count.png", decoration<43>, &count_discrete_time_node},
    {"io.marrowfield.countrollingtime", "CountRollingTimeNode.Name", kOperators,
     ":/corv/icons/nodes/count.png", decoration<43>, &count_rolling_time_node},
    {"io.marrowfield.countchildreset", "CountChildResetNode.Name", kOperators,
     ":/corv/icons/nodes/count.png", decoration<42>, &count_child_reset_node},
    {"io.marrowfield.debounce", "DebounceNode.Name", kQueues,
     ":/corv/icons/nodes/debounce.png", decoration<14>, &debounce_node},
    {"io.marrowfield.delay", "DelayNode.Name", kQueues,
     ":/corv/icons/nodes/delay.png", decoration<14>, &delay_node},
    {"io.marrowfield.display", "DisplayNode.Name", kActions,
     ":/corv/icons/nodes/display.png", decoration<35>, &display_node},
    {"io.marrowfield.evaluate", "EvaluateNode.Name", kOperators,
     ":/corv/icons/nodes/evaluate.png", decoration<38>, &evaluate_node},
    {"io.marrowfield.fork", "ForkNode.Name", kOperators,
     ":/corv/icons/nodes/fork.png", decoration<11>, &fork_node},
    {"io.marrowfield.forward", "ForwardNode.Name", kActions,
     ":/corv/icons/nodes/forward.png", decoration<35>, &forward_node},
    {"io.marrowfield.loop", "LoopNode.Name", kOperators,
     ":/corv/icons/nodes/loop.png", decoration<42>, &loop_node},
    {"io.marrowfield.custom", "OnCustomNode.Name", kSources,
     ":/corv/icons/nodes/custom.png", decoration<41>, &on_custom_node},
    {"io.marrowfield.onfilechanged", "OnFileChangedNode.Name", kSources,
     ":/corv/icons/nodes/file_changed.png", decoration<41>, &on_file_changed_node},
    {"io.marrowfield.onhotkey", "OnHotkeyNode.Name", kSources,
     ":/corv/icons/nodes/hotkey.png", decoration<41>, &on_hotkey_node},
    {"io.marrowfield.ratelimitqueue", "RateLimitQueueNode.Name", kQueues,
     ":/corv/icons/nodes/rate_limit.png", decoration<14>, &rate_limit_queue_node},
    {"io.marrowfield.ratelimitearliest", "RateLimitEarliestNode.Name", kQueues,
     ":/corv/icons/nodes/rate_limit.png", decoration<14>, &rate_limit_earliest_node},
    {"io.marrowfield.ratelimitlatest", "RateLimitLatestNode.Name", kQueues,
     ":/corv/icons/nodes/rate_limit.png", decoration<14>, &rate_limit_latest_node},
    {"io.marrowfield.readtext", "ReadTextFileNode.Name", kOperators,
     ":/corv/icons/nodes/read_text.png", decoration<38>, &read_text_node},
    {"io.marrowfield.receive", "ReceiveNode.Name", kSources,
     ":/corv/icons/nodes/receive.png", decoration<41>, &receive_node},
    {"io.marrowfield.send", "SendNode.Name", kActions,
     ":/corv/icons/nodes/send.png", decoration<35>, &send_node},
    {"io.marrowfield.sequential", "SequentialNode.Name", kQueues,
     ":/corv/icons/nodes/sequential.png", decoration<42>, &sequential_node},
    {"io.marrowfield.stop", "StopNode.Name", kOperators,
     ":/corv/icons/nodes/stop.png", decoration<2>, &stop_node},
    // 35 with wait mode none, else 38: the type's own callback decides.
    {"io.marrowfield.triggerhotkey", "TriggerHotkeyNode.Name", kActions,
     ":/corv/icons/nodes/hotkey.png", decoration<35>, &trigger_hotkey_node},
    {"io.marrowfield.writetext", "WriteTextFileNode.Name", kActions,
     ":/corv/icons/nodes/write_text.png", decoration<35>, &write_text_node},
};

// Types that came after the table; registered behind it, in this order.
constexpr BuiltinNodeRow kLater[] = {
    {"io.marrowfield.onschedule", "OnScheduleNode.Name", kSources,
     ":/corv/icons/nodes/schedule.png", decoration<41>, &on_schedule_node},
    {"io.marrowfield.activewindow", "ActiveWindowNode.Name", kFilters,
     ":/corv/icons/nodes/active_window.png", decoration<42>, &active_window_node},
};

void register_row(corv_plugin *plugin, corv_registration *registration, const BuiltinNodeRow &row)
{
    if (!row.callbacks)
        return;
    const QByteArray icon_bytes = read_icon(row.icon);
    const corv_icon icon{CORV_IMAGE_DETECT, icon_bytes.constData(), std::uint32_t(icon_bytes.size())};
    corv_node_type type = *row.callbacks;
    type.id = row.id;
    type.name = corv_plugin_tr(plugin, row.name_key);
    type.category = corv_plugin_tr(plugin, row.category_key);
    type.icon = icon_bytes.isEmpty() ? nullptr : &icon;
    if (!type.get_decoration)
        type.get_decoration = row.decoration;
    corv_register_node(registration, &type);
}

} // namespace

std::span<const BuiltinNodeRow> builtin_node_table()
{
    return kTable;
}

void register_builtin_nodes(corv_plugin *plugin, corv_registration *registration)
{
    set_plugin(plugin);
    for (const BuiltinNodeRow &row : kTable)
        register_row(plugin, registration, row);
    for (const BuiltinNodeRow &row : kLater)
        register_row(plugin, registration, row);

    const corv_node_migration rate_limit{"io.marrowfield.ratelimit", nullptr, migrate_rate_limit};
    corv_register_node_migration(registration, &rate_limit);
    const corv_node_migration count{"io.marrowfield.count", nullptr, migrate_count};
    corv_register_node_migration(registration, &count);
}

} // namespace corv::nodes
