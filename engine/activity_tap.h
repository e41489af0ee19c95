#pragma once

#include "engine/event.h"

#include <QString>

#include <atomic>
#include <vector>

namespace corv::engine {

class NodeManager;
class RackManager;

// One event entering one node, as the activity panel and `--trace` see it.
// Valid only during the call that hands it over: a listener copies what it
// keeps (the event handle is shared, so keeping it costs one reference).
struct ActivityHop {
    qint64 msecs = 0; // since the epoch
    const RackManager *rack = nullptr; // null for a list outside every rack
    const NodeManager *node = nullptr;
    const EventScope *event = nullptr;
};

// The engine's one tap on the road of events. Routers report every event a
// node receives, but only while someone listens: the check before anything
// else is one relaxed atomic load, so an unwatched hop costs nothing more.
// Reported are the nodes of the reported type (display nodes) and, while
// "trace all" is on, every node. Listeners are called on the thread that
// routes (the main thread), synchronously.
class ActivityTap
{
public:
    class Listener
    {
    public:
        virtual ~Listener() = default;
        virtual void hop(const ActivityHop &hop) = 0;
    };

    static bool active() { return s_listeners.load(std::memory_order_relaxed) != 0; }

    static void add_listener(Listener *listener);
    static void remove_listener(Listener *listener);

    // Every node a routed event enters, not only display nodes.
    static void set_trace_all(bool on);
    static bool trace_all();

    // The type whose nodes always report ("io.marrowfield.display").
    static const QString &reported_type();

    // Called by the routers, only when active().
    static void enter(const RackManager *rack, const NodeManager &node, const EventScope &event);

private:
    static std::atomic<int> s_listeners;
};

} // namespace corv::engine
