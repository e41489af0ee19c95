#include "nodes/timing.h"

#include "nodes/node_support.h"

#include <QDeadlineTimer>
#include <QHash>
#include <QObject>
#include <QSet>
#include <QTimer>

#include <algorithm>
#include <climits>
#include <cmath>
#include <deque>
#include <map>
#include <memory>
#include <utility>

namespace corv::nodes {

namespace {

constexpr double kUnbounded = INFINITY;

// A whole, non-negative count of a duration part (floor), kept finite.
qint64 whole(double x)
{
    if (!(x > 0.0))
        return 0;
    return x >= 1e15 ? qint64(1e15) : qint64(std::floor(x));
}

int to_int(qint64 value)
{
    return value > INT_MAX ? INT_MAX : int(value);
}

// A duration's parts as the delay shows them: seconds within the minute,
// minutes within the hour, and the hours unreduced.
struct Parts {
    double seconds;
    int minutes;
    int hours;
};

Parts split(double total)
{
    return {std::isfinite(total) ? std::fmod(total, 60.0) : 0.0, int(whole(total / 60.0) % 60),
            to_int(whole(total / 3600.0))};
}

// --- Delay ------------------------------------------------------------------
// Every event goes on to the parent after the same delay; any number wait
// at once. Each pending record has two timers of its own: the delay (single
// shot) and the one-second refresh of the time shown in the name. They are
// kept on the node's own schedule in deadline order and run by one precise
// Qt timer armed for the soonest, since Qt's timer list costs time linear
// in its length for every timer started or stopped, and a delay node may
// hold thousands of events.

struct DelayRecord;

struct Due {
    DelayRecord *record;
    bool refresh; // the refresh timer; otherwise the delay timer
};

// Due entries by deadline (ms of the monotonic clock); entries due at the
// same time run in the order they were set.
using Schedule = std::multimap<qint64, Due>;

struct DelayRecord {
    QDeadlineTimer deadline; // now + the delay, at arrival
    corv_event *event = nullptr;
    Schedule::iterator delay_timer;
    Schedule::iterator refresh_timer;
};

constexpr qint64 kRefreshMs = 1000;

struct Delay : NodeState {
    explicit Delay(corv_node *node);
    ~Delay()
    {
        for (DelayRecord *record : std::as_const(pending)) {
            corv_event_destroy(record->event);
            delete record;
        }
    }

    void start(DelayRecord *record, qint64 delay_ms);
    void run_due();
    void arm();
    void release(DelayRecord *record);
    void set_shown_remaining(double seconds)
    {
        shown_remaining = seconds;
        corv_node_invalidate_name(node);
    }

    double delay = 1.0;
    double shown_remaining = 0.0; // of the record that leaves soonest; 0: idle
    QSet<DelayRecord *> pending;
    Schedule schedule;
    // Made with the first event: a project holds many idle nodes.
    std::unique_ptr<QTimer> timer;
    qint64 armed_for = 0; // the due time the timer was started for
};

Delay::Delay(corv_node *node) : NodeState(node) {}

qint64 now_ms()
{
    return QDeadlineTimer::current(Qt::PreciseTimer).deadline();
}

void Delay::start(DelayRecord *record, qint64 delay_ms)
{
    const qint64 now = now_ms();
    record->deadline = QDeadlineTimer(delay_ms, Qt::PreciseTimer);
    record->delay_timer = schedule.emplace(now + delay_ms, Due{record, false});
    record->refresh_timer = schedule.emplace(now + kRefreshMs, Due{record, true});
    pending.insert(record);
    arm();
}

// Arms the Qt timer for the soonest entry (timers take at most INT_MAX ms;
// a longer wait is taken in steps).
void Delay::arm()
{
    if (schedule.empty()) {
        if (timer)
            timer->stop();
        return;
    }
    if (!timer) {
        timer = std::make_unique<QTimer>();
        timer->setSingleShot(true);
        timer->setTimerType(Qt::PreciseTimer);
        QObject::connect(timer.get(), &QTimer::timeout, timer.get(), [this] { run_due(); });
    }
    const qint64 due = schedule.begin()->first;
    if (timer->isActive() && armed_for == due)
        return;
    const qint64 wait = std::max<qint64>(0, due - now_ms());
    armed_for = due;
    timer->start(wait > INT_MAX ? INT_MAX : int(wait));
}

void Delay::run_due()
{
    const qint64 now = now_ms();
    while (!schedule.empty() && schedule.begin()->first <= now) {
        const qint64 due = schedule.begin()->first;
        const Due entry = schedule.begin()->second;
        schedule.erase(schedule.begin());
        DelayRecord *record = entry.record;
        if (!entry.refresh) {
            release(record);
            continue;
        }
        // The display always shows the record that leaves soonest.
        record->refresh_timer = schedule.emplace(due + kRefreshMs, Due{record, true});
        const double left = double(record->deadline.remainingTime()) / 1000.0;
        if (shown_remaining == 0.0 || left < shown_remaining)
            set_shown_remaining(left);
    }
    arm();
}

void Delay::release(DelayRecord *record)
{
    // Cleared even while others are pending; the next refresh of one of
    // them shows its time again.
    set_shown_remaining(0.0);
    corv_event_post(corv_node_parent_sink(node), record->event);
    pending.remove(record);
    schedule.erase(record->refresh_timer);
    corv_event_destroy(record->event);
    delete record;
}

void delay_name(void *data, char *buffer)
{
    const Delay *delay = state_of<Delay>(data);
    const double d = delay->delay;
    const double r = delay->shown_remaining;
    const Parts total = split(d);
    const Parts left = split(r);
    const bool running = r > 0.0;
    QByteArray key = running ? "DelayNode.Name.Running.%1" : "DelayNode.Name.NotRunning.%1";
    if (total.minutes > 0 || total.hours > 0)
        key += ".%2";
    if (total.hours > 0)
        key += ".%3";
    if (running) {
        key += ".%4";
        if (left.minutes > 0 || left.hours > 0)
            key += ".%5";
        if (left.hours > 0)
            key += ".%6";
    }
    corv_tr_builder *builder = corv_plugin_tr_arg(plugin(), key.constData());
    corv_tr_float(builder, std::round(total.seconds * 100.0) / 100.0);
    corv_tr_int(builder, total.minutes);
    corv_tr_int(builder, total.hours);
    corv_tr_float(builder, std::round(left.seconds));
    corv_tr_int(builder, left.minutes);
    corv_tr_int(builder, left.hours);
    corv_tr_end_str(builder, buffer);
}

void delay_build(void *data, cui_generate_context *context)
{
    Delay *delay = state_of<Delay>(data);
    const Parts parts = split(delay->delay);
    cui_label(context, "", corv_plugin_tr(plugin(), "DelayNode.Delay"));
    cui_start_columns(context, "");
    const int hours = cui_int(context, "!hours", "", parts.hours, 0, INT_MAX);
    const int minutes = cui_int(context, "!minutes", "", parts.minutes, 0, INT_MAX);
    const double seconds = cui_float(context, "!seconds", "", parts.seconds, 0.0, kUnbounded);
    cui_end_columns(context);
    delay->delay = minutes * 60.0 + seconds + hours * 3600.0;
    corv_node_invalidate_name(delay->node);
}

void delay_on_event(void *data, corv_event *event)
{
    Delay *delay = state_of<Delay>(data);
    corv_event_post(corv_node_child_sink(delay->node), event);

    const double ms = std::trunc(delay->delay * 1000.0);
    auto *record = new DelayRecord;
    record->event = event; // the node's reference from here on
    delay->start(record, ms > 0.0 ? (ms >= 1e15 ? qint64(1e15) : qint64(ms)) : 0);

    if (delay->shown_remaining == 0.0 || delay->shown_remaining > delay->delay)
        delay->set_shown_remaining(delay->delay);
}

// Store conversions between the total "!delay" and the split fields. Each
// key is looked up in its "!" form first, then as the plain stem, so that
// stores written before the split still load.
double read_float(corv_store *store, const char *absolute, const char *stem)
{
    if (corv_store_has_float(store, absolute))
        return corv_store_get_float(store, absolute);
    return corv_store_has_float(store, stem) ? corv_store_get_float(store, stem) : 0.0;
}

int read_int(corv_store *store, const char *absolute, const char *stem)
{
    if (corv_store_has_int(store, absolute))
        return corv_store_get_int(store, absolute);
    return corv_store_has_int(store, stem) ? corv_store_get_int(store, stem) : 0;
}

bool has_parts(corv_store *store)
{
    return corv_store_has_float(store, "!seconds") || corv_store_has_float(store, "seconds") ||
           corv_store_has_int(store, "!minutes") || corv_store_has_int(store, "minutes") ||
           corv_store_has_int(store, "!hours") || corv_store_has_int(store, "hours");
}

void total_from_parts(corv_store *store)
{
    const double seconds = read_float(store, "!seconds", "seconds");
    const int minutes = read_int(store, "!minutes", "minutes");
    const int hours = read_int(store, "!hours", "hours");
    corv_store_set_float(store, "!delay", minutes * 60.0 + seconds + hours * 3600.0);
}

void parts_from_total(Delay *delay, corv_store *store)
{
    const double total = read_float(store, "!delay", "delay");
    const Parts parts = split(total);
    corv_store_set_float(store, "!seconds", parts.seconds);
    corv_store_set_int(store, "!minutes", parts.minutes);
    corv_store_set_int(store, "!hours", parts.hours);
    delay->delay = total;
}

void delay_load(void *data, corv_store *store)
{
    // The panel edits the split fields, and "!delay" is brought up to date
    // only when the node is unloaded; so when a store has them, they are
    // the newer form.
    if (has_parts(store))
        total_from_parts(store);
    parts_from_total(state_of<Delay>(data), store);
}

void delay_unload(void *, corv_store *store)
{
    total_from_parts(store);
}

// --- Debounce ---------------------------------------------------------------
// Passes on the last event of each burst, once no event came for the delay.

struct Debounce : NodeState {
    using NodeState::NodeState;
    ~Debounce() { corv_event_destroy(held); }

    // Made with the first event: a project holds many idle nodes.
    QTimer &clock()
    {
        if (!timer) {
            timer = std::make_unique<QTimer>();
            timer->setSingleShot(true);
            timer->setTimerType(Qt::PreciseTimer);
            QObject::connect(timer.get(), &QTimer::timeout, timer.get(), [this] {
                if (corv_event *event = std::exchange(held, nullptr))
                    post_to_parent(this->node, event);
            });
        }
        return *timer;
    }

    double delay = 0.1;
    std::unique_ptr<QTimer> timer;
    corv_event *held = nullptr;
};

void debounce_name(void *data, char *buffer)
{
    corv_tr_end_str(corv_tr_float(corv_plugin_tr_arg(plugin(), "DebounceNode.Name.%1"),
                                  state_of<Debounce>(data)->delay),
                    buffer);
}

void debounce_build(void *data, cui_generate_context *context)
{
    Debounce *debounce = state_of<Debounce>(data);
    debounce->delay = cui_float(context, "!delay", corv_plugin_tr(plugin(), "DebounceNode.Delay"),
                                debounce->delay, 0.0, kUnbounded);
    corv_node_invalidate_name(debounce->node);
}

void debounce_on_event(void *data, corv_event *event)
{
    Debounce *debounce = state_of<Debounce>(data);
    corv_event_post(corv_node_child_sink(debounce->node), event);
    corv_event_destroy(std::exchange(debounce->held, event));
    debounce->clock().start(to_milliseconds(debounce->delay));
}

// --- Rate limits ------------------------------------------------------------
// At most one event per interval goes on: the first at once, then (queue)
// every held one in turn, or (earliest, latest) the one kept of those that
// came during the interval.

enum RateLimitMode : std::int32_t { Queue = 0, Earliest = 1, Latest = 2 };

struct RateLimit : NodeState {
    RateLimit(corv_node *node, RateLimitMode m) : NodeState(node), mode(m) {}

    // Made with the first event: a project holds many idle nodes.
    QTimer &clock()
    {
        if (!timer) {
            timer = std::make_unique<QTimer>();
            timer->setTimerType(Qt::PreciseTimer);
            timer->setInterval(interval);
            QObject::connect(timer.get(), &QTimer::timeout, timer.get(), [this] { tick(); });
        }
        return *timer;
    }
    bool active() const { return timer && timer->isActive(); }
    ~RateLimit()
    {
        for (corv_event *event : held)
            corv_event_destroy(event);
    }

    void tick()
    {
        if (held.empty()) {
            timer->stop();
            return;
        }
        corv_event *event = held.takeFirst();
        post_to_parent(node, event);
        // Earliest and latest start a new interval only with the next
        // event, so two events may leave less than an interval apart.
        if (mode != Queue)
            timer->stop();
    }

    std::int32_t mode;
    double delay = 1.0;
    int interval = 0;
    std::unique_ptr<QTimer> timer;
    QList<corv_event *> held;
};

void *rate_limit_queue_create(corv_node *node)
{
    return to_data(new RateLimit(node, Queue));
}

void *rate_limit_earliest_create(corv_node *node)
{
    return to_data(new RateLimit(node, Earliest));
}

void *rate_limit_latest_create(corv_node *node)
{
    return to_data(new RateLimit(node, Latest));
}

void rate_limit_destroy(void *data)
{
    delete state_of<RateLimit>(data);
}

void rate_limit_name(void *data, char *buffer)
{
    const RateLimit *limit = state_of<RateLimit>(data);
    corv_tr_builder *builder = nullptr;
    switch (limit->mode) {
    case Queue:
        builder = corv_plugin_tr_arg(plugin(), "RateLimitQueueNode.Name.%1");
        break;
    case Earliest:
        builder = corv_plugin_tr_arg(plugin(), "RateLimitEarliestNode.Name.%1");
        break;
    case Latest:
        builder = corv_plugin_tr_arg(plugin(), "RateLimitLatestNode.Name.%1");
        break;
    default:
        return;
    }
    corv_tr_end_str(corv_tr_float(builder, limit->delay), buffer);
}

void rate_limit_build(void *data, cui_generate_context *context)
{
    RateLimit *limit = state_of<RateLimit>(data);
    limit->delay = cui_float(context, "!delay", corv_plugin_tr(plugin(), "RateLimit.Delay"),
                             limit->delay, 0.0, kUnbounded);
    const int interval = to_milliseconds(limit->delay);
    // Setting a running timer's interval restarts it; only a change may.
    limit->interval = interval;
    if (limit->timer && limit->timer->interval() != interval)
        limit->timer->setInterval(interval);
    corv_node_invalidate_name(limit->node);
}

void rate_limit_on_event(void *data, corv_event *event)
{
    RateLimit *limit = state_of<RateLimit>(data);
    corv_event_post(corv_node_child_sink(limit->node), event);
    if (!limit->active()) {
        post_to_parent(limit->node, event);
        limit->clock().start(to_milliseconds(limit->delay));
        return;
    }
    switch (limit->mode) {
    case Queue:
        limit->held.push_back(event);
        break;
    case Earliest:
        if (limit->held.empty())
            limit->held.push_back(event);
        else
            corv_event_destroy(event);
        break;
    default:
        if (limit->held.empty())
            limit->held.push_back(event);
        else
            corv_event_destroy(std::exchange(limit->held.front(), event));
        break;
    }
}

// --- Sequential -------------------------------------------------------------
// One event at a time inside its children; the others wait in order.

struct Sequential : NodeState {
    using NodeState::NodeState;
    ~Sequential()
    {
        for (corv_event *event : waiting)
            corv_event_destroy(event);
    }

    bool running = false;
    QList<corv_event *> waiting;
};

void sequential_name(void *, char *buffer)
{
    write_name(buffer, corv_plugin_tr(plugin(), "SequentialNode.Name"));
}

void sequential_on_event(void *data, corv_event *event)
{
    Sequential *sequential = state_of<Sequential>(data);
    if (sequential->running) {
        sequential->waiting.push_back(event);
        return;
    }
    sequential->running = true;
    post_to_children(sequential->node, event);
}

void sequential_on_children_returned(void *data, corv_event *event)
{
    Sequential *sequential = state_of<Sequential>(data);
    post_to_parent(sequential->node, event);
    if (sequential->waiting.empty()) {
        sequential->running = false;
        return;
    }
    corv_event *next = sequential->waiting.takeFirst();
    post_to_children(sequential->node, next);
}

} // namespace

bool migrate_rate_limit(void *, corv_store *store, char *out_id)
{
    corv_store_set_float(store, "!delay",
                         corv_store_get_float(store, "io.marrowfield.ratelimit.delay"));
    const char *mode_key = "io.marrowfield.ratelimit.mode";
    const std::int32_t mode =
        corv_store_has_int(store, mode_key) ? corv_store_get_int(store, mode_key) : 0;
    switch (mode) {
    case Queue:
        write_name(out_id, "io.marrowfield.ratelimitqueue");
        return true;
    case Earliest:
        write_name(out_id, "io.marrowfield.ratelimitearliest");
        return true;
    case Latest:
        write_name(out_id, "io.marrowfield.ratelimitlatest");
        return true;
    default:
        return false;
    }
}

const corv_node_type delay_node = {nullptr,
                                   nullptr,
                                   nullptr,
                                   nullptr,
                                   create_state<Delay>,
                                   destroy_state<Delay>,
                                   delay_name,
                                   nullptr,
                                   delay_build,
                                   delay_on_event,
                                   drop,
                                   delay_load,
                                   delay_unload};

const corv_node_type debounce_node = {nullptr,
                                      nullptr,
                                      nullptr,
                                      nullptr,
                                      create_state<Debounce>,
                                      destroy_state<Debounce>,
                                      debounce_name,
                                      nullptr,
                                      debounce_build,
                                      debounce_on_event,
                                      drop,
                                      nullptr,
                                      nullptr};

const corv_node_type rate_limit_queue_node = {nullptr,
                                              nullptr,
                                              nullptr,
                                              nullptr,
                                              rate_limit_queue_create,
                                              rate_limit_destroy,
                                              rate_limit_name,
                                              nullptr,
                                              rate_limit_build,
                                              rate_limit_on_event,
                                              drop,
                                              nullptr,
                                              nullptr};

const corv_node_type rate_limit_earliest_node = {nullptr,
                                                 nullptr,
                                                 nullptr,
                                                 nullptr,
                                                 rate_limit_earliest_create,
                                                 rate_limit_destroy,
                                                 rate_limit_name,
                                                 nullptr,
                                                 rate_limit_build,
                                                 rate_limit_on_event,
                                                 drop,
                                                 nullptr,
                                                 nullptr};

const corv_node_type rate_limit_latest_node = {nullptr,
                                               nullptr,
                                               nullptr,
                                               nullptr,
                                               rate_limit_latest_create,
                                               rate_limit_destroy,
                                               rate_limit_name,
                                               nullptr,
                                               rate_limit_build,
                                               rate_limit_on_event,
                                               drop,
                                               nullptr,
                                               nullptr};

const corv_node_type sequential_node = {nullptr,
                                        nullptr,
                                        nullptr,
                                        nullptr,
                                        create_state<Sequential>,
                                        destroy_state<Sequential>,
                                        sequential_name,
                                        nullptr,
                                        nullptr,
                                        sequential_on_event,
                                        sequential_on_children_returned,
                                        nullptr,
                                        nullptr};

} // namespace corv::nodes
