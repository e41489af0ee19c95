#pragma once

#include "input/hotkey.h"

#include <QMutex>
#include <QThread>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <vector>

namespace corv::input {

class KeyboardBackend;

// Watches the keyboard for registered hotkeys on a thread of its own. Every
// poll reads the whole keyboard once, together with the key changes the
// platform saw since the last poll, and tells each listener when its
// hotkey becomes held (true) or stops being held (false): once per edge,
// never for a steady state, matching modifiers exactly. The changes are
// replayed one by one, so a press that came and went between two polls
// gives the listeners whose combination it completed a held and a released
// edge, as a long press does. A combination that only a release completes
// (Ctrl+K, when Shift of Ctrl+Shift+K goes first) counts once it has stayed
// held from one poll to the next. With no listeners the thread sleeps on a
// wait condition. Changes that the key injector sent (InjectionLedger)
// move listeners silently: the program never answers its own keys.
//
// One per process, made on first use; stopped by shutdown() or when the
// application object goes away.
class HotkeyPoller
{
public:
    // Runs on the poller thread while it holds the registry lock: it must
    // not add or remove listeners, and hands work on by posting.
    using Callback = std::function<void(bool held)>;

    static HotkeyPoller &instance();
    // Stops the thread, if one was made. Listeners are kept but never
    // called again.
    static void shutdown();

    // Milliseconds between polls (preference "inputpollms", 0 to 1000;
    // 0 polls without pause). Takes effect from the next poll.
    void set_poll_interval(int ms);
    int poll_interval() const { return m_interval.load(); }

    // Registers a listener (an empty hotkey registers nothing and gives 0);
    // returns its registration id. Its state starts as "not held", so a
    // hotkey held at registration fires at the next poll.
    std::uint64_t add(const Hotkey &hotkey, Callback callback);
    // Removes a listener; once this returns its callback is not running and
    // never runs again. 0 and unknown ids are ignored.
    void remove(std::uint64_t id);
    int listener_count() const;

    // Polls done since start (for tests and benchmarks).
    std::uint64_t poll_count() const { return m_polls.load(); }

    ~HotkeyPoller();

private:
    HotkeyPoller();
    void run();
    void poll(); // under m_registry
    // One key changes: the listeners follow, silently when it was injected.
    void change(std::uint32_t vk, bool down);
    // Every listener to the current state, called for each change; a
    // pending held edge waits for the end of the next poll.
    void update_listeners();
    void update_wanted();

    struct Listener {
        std::uint64_t id;
        Hotkey hotkey;
        std::uint8_t last_state = 0;
        // A release completed the combination: 1 in this poll, 2 held
        // through one poll's end (it fires at the next, if still held).
        std::uint8_t pending = 0;
    };

    std::unique_ptr<QThread> m_thread;
    mutable QMutex m_registry;
    // A condition variable of the standard library: it unlocks and relocks
    // m_registry through QMutex's own inline calls, which thread checkers see.
    std::condition_variable_any m_wake;
    QMutex m_stop; // held by the owner from construction; unlocked to stop
    bool m_stopped = false;
    std::vector<Listener> m_listeners; // in registration order, with...
    std::vector<Callback> m_callbacks; // ...their callbacks in the same order
    std::uint64_t m_next_id = 1;
    std::atomic<int> m_interval{16};
    std::atomic<std::uint64_t> m_polls{0};
    // Poller thread only.
    std::unique_ptr<KeyboardBackend> m_backend;
    bool m_backend_tried = false;
    KeySet m_wanted; // the keys the listeners look at (under m_registry)
    bool m_added = false; // a listener came since the last poll (under m_registry)
    bool m_pending = false; // a listener has a pending held edge
    bool m_collecting = false; // the backend collects changes for the next poll
    KeySet m_down;   // the last read
    KeySet m_state;  // the state the listeners have seen
    std::vector<KeyRecord> m_edges;
};

} // namespace corv::input
