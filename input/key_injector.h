#pragma once

#include "input/hotkey.h"

#include <QMutex>
#include <QThread>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>

namespace corv::input {

class KeyboardBackend;

// Sends key presses on a thread of its own, one job at a time, with a gap
// between the end of one job and the start of the next. A job presses the
// modifiers of its hotkey that are not down yet and then its key, holds
// them, and releases exactly what it pressed: a modifier the user holds is
// neither pressed nor released. A key that is already down when its job
// comes up is let go first, so the target sees a fresh press.
//
// Nothing stays held: cancelling a job (its owner goes away) or shutting
// down cuts a hold short and releases at once. Without global keyboard
// input the jobs still run their course (callbacks, hold, gap), sending
// nothing.
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
    };

    static KeyInjector &instance();
    static void shutdown();

    // Milliseconds between one job's release and the next job's press
    // (preference "inputgapms", 0 to 1000).
    void set_gap(int ms);
    int gap() const { return m_gap.load(); }

    // Queues a job; returns its id (0: refused, after shutdown).
    std::uint64_t queue(Job job);
    // Drops the owner's queued jobs and ends its running one: the hold is
    // cut short and the keys released. When this returns, none of the
    // owner's callbacks is running or will run.
    void cancel(const void *owner);
    // Queued jobs plus the running one.
    int pending() const;
    // Blocks until no job is queued or running, or ms pass; true when idle.
    bool wait_idle(int ms) const;

    ~KeyInjector();

private:
    KeyInjector();
    void run();
    void stop_thread();

    struct Queued {
        std::uint64_t id;
        Job job;
    };

    std::unique_ptr<QThread> m_thread;
    mutable QMutex m_mutex;
    // Condition variables of the standard library: they unlock and relock
    // m_mutex through QMutex's own inline calls, which thread checkers see.
    mutable std::condition_variable_any m_wake;    // a job came, a hold was cut, stop
    mutable std::condition_variable_any m_changed; // a job ended
    QMutex m_stop; // held by the owner from construction; unlocked to stop
    std::atomic<bool> m_stopping{false};
    bool m_stopped = false;
    std::deque<Queued> m_queue;
    const void *m_running_owner = nullptr;
    bool m_running = false;
    bool m_abandon = false;
    std::uint64_t m_next_id = 1;
    std::atomic<int> m_gap{50};
    // Injector thread only.
    std::unique_ptr<KeyboardBackend> m_backend;
    bool m_backend_tried = false;
};

} // namespace corv::input
