#include "engine/activity_tap.h"

#include "engine/node_manager.h"
#include "engine/node_registry.h"

#include <QDateTime>

#include <algorithm>

namespace corv::engine {

std::atomic<int> ActivityTap::s_listeners{0};

namespace {

// Touched on the routing thread only, as the listeners are added there.
std::vector<ActivityTap::Listener *> &listeners()
{
    static std::vector<ActivityTap::Listener *> list;
    return list;
}

bool g_trace_all = false;

} // namespace

void ActivityTap::add_listener(Listener *listener)
{
    auto &list = listeners();
    if (std::find(list.begin(), list.end(), listener) != list.end())
        return;
    list.push_back(listener);
    s_listeners.store(int(list.size()), std::memory_order_relaxed);
}

void ActivityTap::remove_listener(Listener *listener)
{
    auto &list = listeners();
    list.erase(std::remove(list.begin(), list.end(), listener), list.end());
    s_listeners.store(int(list.size()), std::memory_order_relaxed);
}

void ActivityTap::set_trace_all(bool on)
{
    g_trace_all = on;
}

bool ActivityTap::trace_all()
{
    return g_trace_all;
}

const QString &ActivityTap::reported_type()
{
    static const QString id = QStringLiteral("io.marrowfield.display");
    return id;
}

void ActivityTap::enter(const RackManager *rack, const NodeManager &node, const EventScope &event)
{
    if (!g_trace_all) {
        const NodeDefinition *type = node.definition();
        if (!type || type->id != reported_type())
            return;
    }
    const ActivityHop hop{QDateTime::currentMSecsSinceEpoch(), rack, &node, &event};
    // Read by index: a listener may go away while it is called.
    const auto &list = listeners();
    for (std::size_t i = 0; i < list.size(); ++i)
        list[i]->hop(hop);
}

} // namespace corv::engine
