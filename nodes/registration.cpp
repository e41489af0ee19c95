#include "nodes/builtin_nodes.h"

#include "nodes/compare.h"
#include "nodes/count.h"
#include "nodes/files.h"
#include "nodes/flow.h"
#include "nodes/hotkeys.h"
#include "locale/keys.h"
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
    {"io.marrowfield.compare", "CompareNode.Name", kFilters, CORV_TR_KEY("CompareNode.Description"),
     ":/corv/icons/nodes/compare.png", decoration<42>, &compare_node},
    {"io.marrowfield.countblock", "CountBlockNode.Name", kOperators, CORV_TR_KEY("CountBlockNode.Description"),
     ":/corv/icons/nodes/count.png", decoration<43>, &count_block_node},
    {"io.marrowfield.countdiscretetime", "CountDiscreteTimeNode.Name", kOperators, CORV_TR_KEY("CountDiscreteTimeNode.Description"),
     ":/corv/icons/nodes/count.png", decoration<43>, &count_discrete_time_node},
    {"io.marrowfield.countrollingtime", "CountRollingTimeNode.Name", kOperators, CORV_TR_KEY("CountRollingTimeNode.Description"),
     ":/corv/icons/nodes/count.png", decoration<43>, &count_rolling_time_node},
    {"io.marrowfield.countchildreset", "CountChildResetNode.Name", kOperators, CORV_TR_KEY("CountChildResetNode.Description"),
     ":/corv/icons/nodes/count.png", decoration<42>, &count_child_reset_node},
    {"io.marrowfield.debounce", "DebounceNode.Name", kQueues, CORV_TR_KEY("DebounceNode.Description"),
     ":/corv/icons/nodes/debounce.png", decoration<14>, &debounce_node},
    {"io.marrowfield.delay", "DelayNode.Name", kQueues, CORV_TR_KEY("DelayNode.Description"),
     ":/corv/icons/nodes/delay.png", decoration<14>, &delay_node},
    {"io.marrowfield.display", "DisplayNode.Name", kActions, CORV_TR_KEY("DisplayNode.Description"),
     ":/corv/icons/nodes/display.png", decoration<35>, &display_node},
    {"io.marrowfield.evaluate", "EvaluateNode.Name", kOperators, CORV_TR_KEY("EvaluateNode.Description"),
     ":/corv/icons/nodes/evaluate.png", decoration<38>, &evaluate_node},
    {"io.marrowfield.fork", "ForkNode.Name", kOperators, CORV_TR_KEY("ForkNode.Description"),
     ":/corv/icons/nodes/fork.png", decoration<11>, &fork_node},
    {"io.marrowfield.forward", "ForwardNode.Name", kActions, CORV_TR_KEY("ForwardNode.Description"),
     ":/corv/icons/nodes/forward.png", decoration<35>, &forward_node},
    {"io.marrowfield.loop", "LoopNode.Name", kOperators, CORV_TR_KEY("LoopNode.Description"),
     ":/corv/icons/nodes/loop.png", decoration<42>, &loop_node},
    {"io.marrowfield.custom", "OnCustomNode.Name", kSources, CORV_TR_KEY("OnCustomNode.Description"),
     ":/corv/icons/nodes/custom.png", decoration<41>, &on_custom_node},
    {"io.marrowfield.onfilechanged", "OnFileChangedNode.Name", kSources, CORV_TR_KEY("OnFileChangedNode.Description"),
     ":/corv/icons/nodes/file_changed.png", decoration<41>, &on_file_changed_node},
    {"io.marrowfield.onhotkey", "OnHotkeyNode.Name", kSources, CORV_TR_KEY("OnHotkeyNode.Description"),
     ":/corv/icons/nodes/hotkey.png", decoration<41>, &on_hotkey_node},
    {"io.marrowfield.ratelimitqueue", "RateLimitQueueNode.Name", kQueues, CORV_TR_KEY("RateLimitQueueNode.Description"),
     ":/corv/icons/nodes/rate_limit.png", decoration<14>, &rate_limit_queue_node},
    {"io.marrowfield.ratelimitearliest", "RateLimitEarliestNode.Name", kQueues, CORV_TR_KEY("RateLimitEarliestNode.Description"),
     ":/corv/icons/nodes/rate_limit.png", decoration<14>, &rate_limit_earliest_node},
    {"io.marrowfield.ratelimitlatest", "RateLimitLatestNode.Name", kQueues, CORV_TR_KEY("RateLimitLatestNode.Description"),
     ":/corv/icons/nodes/rate_limit.png", decoration<14>, &rate_limit_latest_node},
    {"io.marrowfield.readtext", "ReadTextFileNode.Name", kOperators, CORV_TR_KEY("ReadTextFileNode.Description"),
     ":/corv/icons/nodes/read_text.png", decoration<38>, &read_text_node},
    {"io.marrowfield.receive", "ReceiveNode.Name", kSources, CORV_TR_KEY("ReceiveNode.Description"),
     ":/corv/icons/nodes/receive.png", decoration<41>, &receive_node},
    {"io.marrowfield.send", "SendNode.Name", kActions, CORV_TR_KEY("SendNode.Description"),
     ":/corv/icons/nodes/send.png", decoration<35>, &send_node},
    {"io.marrowfield.sequential", "SequentialNode.Name", kQueues, CORV_TR_KEY("SequentialNode.Description"),
     ":/corv/icons/nodes/sequential.png", decoration<42>, &sequential_node},
    {"io.marrowfield.stop", "StopNode.Name", kOperators, CORV_TR_KEY("StopNode.Description"),
     ":/corv/icons/nodes/stop.png", decoration<2>, &stop_node},
    // 35 with wait mode none, else 38: the type's own callback decides.
    {"io.marrowfield.triggerhotkey", "TriggerHotkeyNode.Name", kActions, CORV_TR_KEY("TriggerHotkeyNode.Description"),
     ":/corv/icons/nodes/hotkey.png", decoration<35>, &trigger_hotkey_node},
    {"io.marrowfield.writetext", "WriteTextFileNode.Name", kActions, CORV_TR_KEY("WriteTextFileNode.Description"),
     ":/corv/icons/nodes/write_text.png", decoration<35>, &write_text_node},
};

// Types that came after the table; registered behind it, in this order.
constexpr BuiltinNodeRow kLater[] = {
    {"io.marrowfield.onschedule", "OnScheduleNode.Name", kSources, CORV_TR_KEY("OnScheduleNode.Description"),
     ":/corv/icons/nodes/schedule.png", decoration<41>, &on_schedule_node},
    {"io.marrowfield.activewindow", "ActiveWindowNode.Name", kFilters, CORV_TR_KEY("ActiveWindowNode.Description"),
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

const BuiltinNodeRow *find_builtin_node_row(QStringView id)
{
    for (std::span<const BuiltinNodeRow> rows : {std::span<const BuiltinNodeRow>(kTable),
                                                std::span<const BuiltinNodeRow>(kLater)}) {
        for (const BuiltinNodeRow &row : rows) {
            if (id == QLatin1StringView(row.id))
                return &row;
        }
    }
    return nullptr;
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
