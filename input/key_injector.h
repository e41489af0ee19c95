#pragma once

#include "input/hotkey.h"

#include <QMutex>
#include <QThread>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace corv::input {

class KeyboardBackend;

// Sends key presses on a thread of its own, one job after another. A job
// presses the modifiers of its hotkey that are not down yet and then its
// key, holds them, and releases exactly what it pressed (Shift, Ctrl, Alt,
// left Win, then the key): a modifier the user holds is neither pressed
// nor released. A key that is already down when its job comes up is let go
// first, so the target sees a fresh press.
//
// The gap separates one job's release from the next job's press. A job
// still held a second after its press (or the gap, if longer) lets the next
// ones run meanwhile, its release coming at its time: a long hold delays
// the others by a second at most. A job whose key is held by such a job
// waits for its release.
//
// Nothing stays held: cancelling (an owner's jobs, or all of them when the
// racks pause or the project closes) or shutting down cuts holds short and
// releases at once. The queue holds at most queue_limit() jobs; beyond it
// jobs are refused, with one warning until it has drained. Without global
// keyboard input the jobs still run their course (callbacks, hold, gap),
// sending nothing.
//
// One per process, made on first use; stopped by shutdown() or when the
// application object goes away.
class KeyInjector
{
public:
    struct Job {
        const void *owner = nullptr; // for cancel()
        Hotkey hotkey;
        int hold_ms = 0;
        // Run on the injector thread: after the press was sent, and after
        // the release was sent. Not run for a cancelled job.
        std::function<void()> on_start;
        std::function<void()> on_finish;
        // Run instead of on_finish for a job that is cancelled or dropped:
        // on the thread that cancels for one still queued (cancel_all()
        // only), on the injector thread for one already pressed.
        std::function<void()> on_drop;
    };

    static constexpr int kDefaultQueueLimit = 1000;
    // How long a hold keeps the next job waiting at most (or the gap).
    static constexpr int kLongHoldMs = 1000;

    static KeyInjector &instance();
    static void shutdown();
    // cancel_all() on the injector, if one was made.
    static void cancel_everything();

    // Milliseconds between one job's release and the next job's press
    // (preference "inputgapms", 0 to 1000).
    void set_gap(int ms);
    int gap() const { return m_gap.load(); }

    void set_queue_limit(int jobs);
    int queue_limit() const { return m_limit.load(); }

    // Queues a job; returns its id (0: refused, after shutdown or with the
    // queue full).
    std::uint64_t queue(Job job);
    // Drops the owner's queued jobs and ends its running ones: holds are
    // cut short and the keys released. When this returns, none of the
    // owner's callbacks is running or will run.
    void cancel(const void *owner);
    // The same for every job: the queue is dropped (on_drop runs for each
    // job that had not finished) and whatever is held is released before
    // this returns.
    void cancel_all();
    // Queued jobs plus the running ones.
    int pending() const;
    // Blocks until no job is queued or running, or ms pass; true when idle.
    bool wait_idle(int ms) const;

    ~KeyInjector();

private:
    using Clock = std::chrono::steady_clock;

    struct Queued {
        std::uint64_t id;
        Job job;
    };
    struct Hold {
        std::uint64_t id;
        const void *owner;
        Injection injection;
        Clock::time_point until;
        std::function<void()> on_finish;
        std::function<void()> on_drop;
        bool abandoned = false;
    };

    KeyInjector();
    void run();
    void stop_thread();
    // On the injector thread, with m_mutex held through `lock` (unlocked
    // around the sending and the callbacks).
    void start_job(Queued queued, QMutexLocker<QMutex> &lock);
    void release_hold(std::size_t index, QMutexLocker<QMutex> &lock);
    void send(const std::vector<KeyRecord> &records);
    // When the head of the queue may start (under m_mutex); nothing while
    // its key is held by a running job.
    std::optional<Clock::time_point> next_start() const;
    bool idle() const; // under m_mutex

    std::unique_ptr<QThread> m_thread;
    mutable QMutex m_mutex;
    // Condition variables of the standard library: they unlock and relock
    // m_mutex through QMutex's own inline calls, which thread checkers see.
    mutable std::condition_variable_any m_wake;    // a job came, a hold was cut, stop
    mutable std::condition_variable_any m_changed; // a job ended
    bool m_stopping = false;
    bool m_stopped = false;
    std::deque<Queued> m_queue;
    std::vector<Hold> m_holds; // pressed, waiting for their release
    // The job being pressed (not in m_holds yet).
    const void *m_starting_owner = nullptr;
    bool m_starting = false;
    bool m_abandon_start = false;
    // The last started job: when it was pressed and, once let go, released.
    std::uint64_t m_last_id = 0;
    Clock::time_point m_last_press;
    Clock::time_point m_last_release;
    bool m_last_held = false;
    bool m_warned_full = false;
    std::uint64_t m_next_id = 1;
    std::atomic<int> m_gap{50};
    std::atomic<int> m_limit{kDefaultQueueLimit};
    // Injector thread only.
    std::unique_ptr<KeyboardBackend> m_backend;
    bool m_backend_tried = false;
};

} // namespace corv::input
