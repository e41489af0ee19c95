#include "nodes/count.h"

#include "nodes/node_support.h"
#include "sdk/include/corvane/corvane_cui.h"

#include <QByteArray>
#include <QObject>
#include <QTimer>

#include <chrono>
#include <climits>
#include <cmath>
#include <deque>
#include <limits>
#include <memory>

namespace corv::nodes {

namespace {

constexpr char kOldPrefix[] = "io.marrowfield.count.";

// Copies the old prefixed key to its "!" form, keeping the value's type.
void move_key(corv_store *store, const char *stem)
{
    const QByteArray old_key = QByteArray(kOldPrefix) + stem;
    const QByteArray new_key = QByteArray("!") + stem;
    const char *from = old_key.constData();
    const char *to = new_key.constData();
    if (corv_store_has_int(store, from))
        corv_store_set_int(store, to, corv_store_get_int(store, from));
    else if (corv_store_has_float(store, from))
        corv_store_set_float(store, to, corv_store_get_float(store, from));
    else if (corv_store_has_string(store, from))
        corv_store_set_string(store, to, corv_store_get_string(store, from));
}

// --- What the four count types share -----------------------------------------

struct Count : NodeState {
    using NodeState::NodeState;
    virtual ~Count() = default;
    // Back to 0, with whatever the type keeps beside the count.
    virtual void reset() { count = 0; }

    // The count changed: the panel shows it (and countchildreset's name).
    void changed()
    {
        corv_node_invalidate_properties(node);
        if (names_count)
            corv_node_invalidate_name(node);
    }
    // Adds one and writes the new count into the event.
    void count_into(corv_event *event)
    {
        ++count;
        corv_event_set(event, key.constData(), QByteArray::number(count).constData());
        changed();
    }

    QByteArray key = "count";
    qint64 count = 0;
    bool names_count = false;
};

int clamp_int(qint64 value)
{
    return value > INT_MAX ? INT_MAX : int(value);
}

void count_destroy(void *data)
{
    delete state_of<Count>(data);
}

// The key field first; the type's own fields follow.
void build_key(Count *count, cui_generate_context *context)
{
    count->key =
        owned(cui_text(context, "!key", corv_plugin_tr(plugin(), "CountNode.KeyField"), "count"));
}

// The current count and the reset button close every count panel.
void build_current(Count *count, cui_generate_context *context)
{
    char text[CORV_TEXT_SIZE];
    corv_tr_end_str(
        corv_tr_int(corv_plugin_tr_arg(plugin(), "CountNode.Current.%1"), clamp_int(count->count)),
        text);
    cui_label(context, "", text);
    if (cui_button(context, "", corv_plugin_tr(plugin(), "CountNode.Reset"))) {
        count->reset();
        count->changed();
    }
    corv_node_invalidate_name(count->node);
}

double read_seconds(cui_generate_context *context, const char *label_key)
{
    return cui_float(context, "!seconds", corv_plugin_tr(plugin(), label_key), 1.0, 0.0,
                     std::numeric_limits<double>::infinity());
}

// --- Count in blocks ----------------------------------------------------------
// Every size-th event runs the children; the others go on at once.

struct CountBlock : Count {
    using Count::Count;
    std::int32_t size = 3;
};

void count_block_name(void *data, char *buffer)
{
    corv_tr_end_str(corv_tr_int_plural(corv_plugin_tr_arg(plugin(), "CountBlockNode.Name.%1"),
                                       state_of<CountBlock>(data)->size),
                    buffer);
}

void count_block_build(void *data, cui_generate_context *context)
{
    auto *block = state_of<CountBlock>(data);
    build_key(block, context);
    block->size = cui_int(context, "!size", corv_plugin_tr(plugin(), "CountBlockNode.SizeField"), 3,
                          1, INT_MAX);
    build_current(block, context);
}

void count_block_on_event(void *data, corv_event *event)
{
    auto *block = state_of<CountBlock>(data);
    block->count_into(event);
    if (block->count >= block->size) {
        block->count = 0;
        post_to_children(block->node, event);
    } else {
        post_to_parent(block->node, event);
    }
}

// --- Count in a rolling window --------------------------------------------------
// The events of the last `seconds`; reaching the threshold runs the children
// once and empties the window.

using Clock = std::chrono::steady_clock;

struct CountRollingTime : Count {
    using Count::Count;
    void reset() override
    {
        Count::reset();
        arrivals.clear();
    }
    double seconds = 1.0;
    std::int32_t threshold = 2;
    std::deque<Clock::time_point> arrivals;
};

void count_rolling_time_name(void *data, char *buffer)
{
    const auto *rolling = state_of<CountRollingTime>(data);
    corv_tr_end_str(
        corv_tr_float(
            corv_tr_int_plural(corv_plugin_tr_arg(plugin(), "CountRollingTimeNode.Name.%1.%2"),
                               rolling->threshold),
            rolling->seconds),
        buffer);
}

void count_rolling_time_build(void *data, cui_generate_context *context)
{
    auto *rolling = state_of<CountRollingTime>(data);
    build_key(rolling, context);
    rolling->seconds = read_seconds(context, "CountRollingTimeNode.SecondsField");
    rolling->threshold =
        cui_int(context, "!threshold",
                corv_plugin_tr(plugin(), "CountRollingTimeNode.ThresholdField"), 2, 1, INT_MAX);
    build_current(rolling, context);
}

void count_rolling_time_on_event(void *data, corv_event *event)
{
    auto *rolling = state_of<CountRollingTime>(data);
    const Clock::time_point now = Clock::now();
    const auto window =
        std::chrono::duration<double>(std::isfinite(rolling->seconds) ? rolling->seconds : 1e12);
    while (!rolling->arrivals.empty() && now - rolling->arrivals.front() >= window)
        rolling->arrivals.pop_front();
    rolling->arrivals.push_back(now);
    rolling->count = qint64(rolling->arrivals.size()) - 1;
    rolling->count_into(event);
    if (rolling->count >= rolling->threshold) {
        rolling->reset();
        post_to_children(rolling->node, event);
    } else {
        post_to_parent(rolling->node, event);
    }
}

// --- Count per time window --------------------------------------------------------
// The first event opens a window; when it closes, the children get one event
// with the total.

struct CountDiscreteTime : Count {
    using Count::Count;
    void reset() override
    {
        Count::reset();
        if (timer)
            timer->stop();
    }
    // Made with the first event: a project holds many idle nodes.
    QTimer &clock()
    {
        if (!timer) {
            timer = std::make_unique<QTimer>();
            timer->setSingleShot(true);
            timer->setTimerType(Qt::PreciseTimer);
            QObject::connect(timer.get(), &QTimer::timeout, timer.get(),
                             [this] { close_window(); });
        }
        return *timer;
    }
    void close_window()
    {
        corv_event *event = corv_event_create();
        corv_event_set(event, key.constData(), QByteArray::number(count).constData());
        count = 0;
        changed();
        post_to_children(node, event);
    }

    double seconds = 1.0;
    std::unique_ptr<QTimer> timer;
};

void count_discrete_time_name(void *data, char *buffer)
{
    corv_tr_end_str(corv_tr_float(corv_plugin_tr_arg(plugin(), "CountDiscreteTimeNode.Name.%1"),
                                  state_of<CountDiscreteTime>(data)->seconds),
                    buffer);
}

void count_discrete_time_build(void *data, cui_generate_context *context)
{
    auto *discrete = state_of<CountDiscreteTime>(data);
    build_key(discrete, context);
    discrete->seconds = read_seconds(context, "CountDiscreteTimeNode.SecondsField");
    build_current(discrete, context);
}

void count_discrete_time_on_event(void *data, corv_event *event)
{
    auto *discrete = state_of<CountDiscreteTime>(data);
    if (!discrete->timer || !discrete->timer->isActive())
        discrete->clock().start(to_milliseconds(discrete->seconds));
    discrete->count_into(event);
    post_to_parent(discrete->node, event);
}

// --- Count until the children hand back ---------------------------------------------

struct CountChildReset : Count {
    explicit CountChildReset(corv_node *node) : Count(node) { names_count = true; }
};

void count_child_reset_name(void *data, char *buffer)
{
    corv_tr_end_str(corv_tr_int_plural(corv_plugin_tr_arg(plugin(), "CountChildResetNode.Name.%1"),
                                       clamp_int(state_of<CountChildReset>(data)->count)),
                    buffer);
}

void count_child_reset_build(void *data, cui_generate_context *context)
{
    auto *counter = state_of<CountChildReset>(data);
    build_key(counter, context);
    build_current(counter, context);
}

void count_child_reset_on_event(void *data, corv_event *event)
{
    auto *counter = state_of<CountChildReset>(data);
    counter->count_into(event);
    post_to_children(counter->node, event);
}

void count_child_reset_returned(void *data, corv_event *event)
{
    auto *counter = state_of<CountChildReset>(data);
    counter->reset();
    counter->changed();
    post_to_parent(counter->node, event);
}

} // namespace

const corv_node_type count_block_node = {
    nullptr,       nullptr,          nullptr, nullptr,           create_state<CountBlock>,
    count_destroy, count_block_name, nullptr, count_block_build, count_block_on_event,
    pass_on,       nullptr,          nullptr};

const corv_node_type count_discrete_time_node = {nullptr,
                                                 nullptr,
                                                 nullptr,
                                                 nullptr,
                                                 create_state<CountDiscreteTime>,
                                                 count_destroy,
                                                 count_discrete_time_name,
                                                 nullptr,
                                                 count_discrete_time_build,
                                                 count_discrete_time_on_event,
                                                 pass_on,
                                                 nullptr,
                                                 nullptr};

const corv_node_type count_rolling_time_node = {nullptr,
                                                nullptr,
                                                nullptr,
                                                nullptr,
                                                create_state<CountRollingTime>,
                                                count_destroy,
                                                count_rolling_time_name,
                                                nullptr,
                                                count_rolling_time_build,
                                                count_rolling_time_on_event,
                                                pass_on,
                                                nullptr,
                                                nullptr};

const corv_node_type count_child_reset_node = {nullptr,
                                               nullptr,
                                               nullptr,
                                               nullptr,
                                               create_state<CountChildReset>,
                                               count_destroy,
                                               count_child_reset_name,
                                               nullptr,
                                               count_child_reset_build,
                                               count_child_reset_on_event,
                                               count_child_reset_returned,
                                               nullptr,
                                               nullptr};

bool migrate_count(void *, corv_store *store, char *out_id)
{
    static const char *const ids[] = {
        "io.marrowfield.countblock", "io.marrowfield.countdiscretetime",
        "io.marrowfield.countrollingtime", "io.marrowfield.countchildreset"};
    std::int32_t mode = 0;
    for (const char *key : {"io.marrowfield.count.mode", "!mode"}) {
        if (corv_store_has_int(store, key)) {
            mode = corv_store_get_int(store, key);
            break;
        }
    }
    if (mode < 0 || mode > 3)
        return false;
    for (const char *stem : {"size", "seconds", "threshold", "key"})
        move_key(store, stem);
    write_name(out_id, ids[mode]);
    return true;
}

} // namespace corv::nodes
