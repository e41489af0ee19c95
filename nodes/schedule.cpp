#include "nodes/schedule.h"

#include "nodes/node_support.h"
#include "sdk/include/corvane/corvane_cui.h"

#include <QDateTime>
#include <QObject>
#include <QTime>
#include <QTimer>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cmath>
#include <memory>

namespace corv::nodes {

namespace {

enum Mode : std::int32_t { Every = 0, DailyAt = 1, OnceAfterOpen = 2 };

constexpr double kMinSeconds = 0.05;
constexpr double kMaxSeconds = 31536000.0; // a year
constexpr double kDefaultSeconds = 60.0;
// The longest a daily schedule sleeps before it looks at the wall clock
// again, so that a clock change moves its next firing.
constexpr qint64 kClockCheckMs = 60000;

// Milliseconds of the monotonic clock.
double steady_ms()
{
    using namespace std::chrono;
    return duration<double, std::milli>(steady_clock::now().time_since_epoch()).count();
}

// "HH:mm" or "HH:mm:ss" (a one-digit hour too); invalid for anything else.
QTime parse_time(const QByteArray &text)
{
    const QString trimmed = QString::fromUtf8(text).trimmed();
    for (const char *format : {"HH:mm:ss", "HH:mm", "H:mm:ss", "H:mm"}) {
        const QTime time = QTime::fromString(trimmed, QLatin1StringView(format));
        if (time.isValid())
            return time;
    }
    return {};
}

// The first local date and time after `now` whose time of day is `time`.
QDateTime next_occurrence(const QDateTime &now, QTime time)
{
    QDateTime next(now.date(), time);
    if (next <= now)
        next = QDateTime(now.date().addDays(1), time);
    return next;
}

struct Schedule : NodeState {
    using NodeState::NodeState;

    // Starts the schedule anew with the current settings.
    void restart();
    // The timer went off: fires when due, then sleeps until the next firing.
    void tick();
    void fire();
    void arm(double wait_ms);
    void stop()
    {
        if (timer)
            timer->stop();
        next = QDateTime();
    }

    std::int32_t mode = Every;
    double seconds = kDefaultSeconds;
    QByteArray time_text = "09:00";
    bool started = false;

    qint64 count = 0;      // firings since the node started
    double start_ms = 0.0; // every: the steady time of firing 0
    qint64 round = 0;      // every: the index of the next firing
    double due_ms = 0.0;   // every, once: the steady time of the next firing
    QTime time_of_day;     // daily
    QDateTime next;        // the next firing in local time; invalid: none
    std::unique_ptr<QTimer> timer;
};

void Schedule::restart()
{
    if (!timer) {
        timer = std::make_unique<QTimer>();
        timer->setSingleShot(true);
        timer->setTimerType(Qt::PreciseTimer);
        QObject::connect(timer.get(), &QTimer::timeout, timer.get(), [this] { tick(); });
    }
    stop();
    const double now = steady_ms();
    switch (mode) {
    case Every:
        start_ms = now;
        round = 1;
        due_ms = start_ms + seconds * 1000.0;
        next = QDateTime::currentDateTime().addMSecs(qint64(seconds * 1000.0));
        arm(due_ms - now);
        break;
    case OnceAfterOpen:
        due_ms = now + seconds * 1000.0;
        next = QDateTime::currentDateTime().addMSecs(qint64(seconds * 1000.0));
        arm(due_ms - now);
        break;
    case DailyAt:
        time_of_day = parse_time(time_text);
        if (!time_of_day.isValid())
            break;
        next = next_occurrence(QDateTime::currentDateTime(), time_of_day);
        arm(double(QDateTime::currentDateTime().msecsTo(next)));
        break;
    default:
        break;
    }
}

void Schedule::arm(double wait_ms)
{
    if (mode == DailyAt)
        wait_ms = std::min(wait_ms, double(kClockCheckMs));
    const double clamped = std::clamp(std::ceil(wait_ms), 0.0, double(INT_MAX));
    timer->start(int(clamped));
}

void Schedule::tick()
{
    const double now = steady_ms();
    switch (mode) {
    case Every: {
        if (now < due_ms) {
            arm(due_ms - now);
            return;
        }
        fire();
        // After a stall the missed firings are skipped: one firing, then
        // the next due time on the same grid.
        const double interval = seconds * 1000.0;
        round = std::max(round + 1, qint64(std::floor((now - start_ms) / interval)) + 1);
        due_ms = start_ms + double(round) * interval;
        next = QDateTime::currentDateTime().addMSecs(qint64(due_ms - now));
        arm(due_ms - now);
        break;
    }
    case OnceAfterOpen:
        if (now < due_ms) {
            arm(due_ms - now);
            return;
        }
        fire();
        next = QDateTime();
        break;
    case DailyAt: {
        const QDateTime wall = QDateTime::currentDateTime();
        if (wall >= next) {
            fire();
            next = next_occurrence(wall, time_of_day);
        } else if (wall.msecsTo(next) > 24 * 3600 * 1000 + kClockCheckMs) {
            // The clock went back by more than a day: take the next
            // occurrence from the time it shows now.
            next = next_occurrence(wall, time_of_day);
        }
        arm(double(QDateTime::currentDateTime().msecsTo(next)));
        break;
    }
    default:
        return;
    }
    corv_node_invalidate_properties(node);
}

void Schedule::fire()
{
    ++count;
    corv_event *event = corv_event_create();
    corv_event_set(event, "time",
                   QDateTime::currentDateTime().toString(Qt::ISODate).toUtf8().constData());
    corv_event_set(event, "count", QByteArray::number(count).constData());
    post_to_children(node, event);
}

void schedule_name(void *data, char *buffer)
{
    const Schedule *schedule = state_of<Schedule>(data);
    switch (schedule->mode) {
    case Every:
        corv_tr_end_str(corv_tr_float(corv_plugin_tr_arg(plugin(), "OnScheduleNode.Name.Every.%1"),
                                      schedule->seconds),
                        buffer);
        break;
    case DailyAt:
        corv_tr_end_str(corv_tr_str(corv_plugin_tr_arg(plugin(), "OnScheduleNode.Name.Daily.%1"),
                                    schedule->time_text.constData()),
                        buffer);
        break;
    case OnceAfterOpen:
        corv_tr_end_str(corv_tr_float(corv_plugin_tr_arg(plugin(), "OnScheduleNode.Name.Once.%1"),
                                      schedule->seconds),
                        buffer);
        break;
    default:
        write_name(buffer, corv_plugin_tr(plugin(), "OnScheduleNode.Name"));
        break;
    }
}

void schedule_build(void *data, cui_generate_context *context)
{
    Schedule *schedule = state_of<Schedule>(data);
    const char *const modes[] = {corv_plugin_tr(plugin(), "OnScheduleNode.Every"),
                                 corv_plugin_tr(plugin(), "OnScheduleNode.DailyAt"),
                                 corv_plugin_tr(plugin(), "OnScheduleNode.OnceAfterOpen")};
    std::int32_t mode = cui_radio_group(context, "!mode", "", modes, 3, Every);
    if (mode < Every || mode > OnceAfterOpen)
        mode = Every;
    double seconds = schedule->seconds;
    QByteArray time_text = schedule->time_text;
    if (mode == DailyAt) {
        time_text = owned(cui_text(context, "!time",
                                   corv_plugin_tr(plugin(), "OnScheduleNode.TimeField"), "09:00"));
    } else {
        seconds =
            cui_float(context, "!seconds", corv_plugin_tr(plugin(), "OnScheduleNode.SecondsField"),
                      kDefaultSeconds, kMinSeconds, kMaxSeconds);
        seconds =
            std::isnan(seconds) ? kDefaultSeconds : std::clamp(seconds, kMinSeconds, kMaxSeconds);
    }
    const bool changed =
        !schedule->started || mode != schedule->mode ||
        (mode == DailyAt ? time_text != schedule->time_text : seconds != schedule->seconds);
    schedule->mode = mode;
    schedule->seconds = seconds;
    schedule->time_text = time_text;
    if (changed) {
        schedule->started = true;
        schedule->restart();
    }
    if (schedule->next.isValid()) {
        char text[CORV_TEXT_SIZE];
        const QByteArray when =
            schedule->next.toString(QStringLiteral("yyyy-MM-dd HH:mm:ss")).toUtf8();
        corv_tr_end_str(
            corv_tr_str(corv_plugin_tr_arg(plugin(), "OnScheduleNode.Next.%1"), when.constData()),
            text);
        cui_label(context, "", text);
    } else {
        cui_label(context, "", corv_plugin_tr(plugin(), "OnScheduleNode.NotScheduled"));
    }
    corv_node_invalidate_name(schedule->node);
}

} // namespace

const corv_node_type on_schedule_node = {nullptr,
                                         nullptr,
                                         nullptr,
                                         nullptr,
                                         create_state<Schedule>,
                                         destroy_state<Schedule>,
                                         schedule_name,
                                         nullptr,
                                         schedule_build,
                                         pass_on,
                                         pass_on,
                                         nullptr,
                                         nullptr};

} // namespace corv::nodes
