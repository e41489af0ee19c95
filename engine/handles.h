#pragma once

// The opaque C handles of the SDK and the engine objects behind them:
//   corv_node         NodeInstance
//   corv_event        a heap-allocated EventScope (one counted reference)
//   corv_sink         EventSink
//   corv_store        model::StoreView
//   corv_rack         RackManager
//   corv_registration NodeRegistration
// Conversions are plain casts; a null handle maps to a null object.

#include "engine/event.h"
#include "sdk/include/corvane/corvane_sdk.h"

namespace corv::model {
class StoreView;
}

namespace corv::engine {

class NodeInstance;
class NodeRegistration;
class RackManager;

namespace handles {

inline corv_node *to_handle(NodeInstance *instance)
{
    return reinterpret_cast<corv_node *>(instance);
}
inline NodeInstance *node(corv_node *handle)
{
    return reinterpret_cast<NodeInstance *>(handle);
}

inline corv_sink *to_handle(EventSink *sink)
{
    return reinterpret_cast<corv_sink *>(sink);
}
inline EventSink *sink(corv_sink *handle)
{
    return reinterpret_cast<EventSink *>(handle);
}

inline corv_store *to_handle(const model::StoreView *store)
{
    return reinterpret_cast<corv_store *>(const_cast<model::StoreView *>(store));
}
inline model::StoreView *store(corv_store *handle)
{
    return reinterpret_cast<model::StoreView *>(handle);
}

inline corv_rack *to_handle(RackManager *rack)
{
    return reinterpret_cast<corv_rack *>(rack);
}
inline RackManager *rack(corv_rack *handle)
{
    return reinterpret_cast<RackManager *>(handle);
}

inline corv_registration *to_handle(NodeRegistration *registration)
{
    return reinterpret_cast<corv_registration *>(registration);
}
inline NodeRegistration *registration(corv_registration *handle)
{
    return reinterpret_cast<NodeRegistration *>(handle);
}

// Event handles: each is one reference of its own, held in a block of its
// own (from a per-thread cache, as one is made on every hop) and released by
// release_event (corv_event_destroy; null is allowed). Any thread.
using EventHandlePool = BlockPool<sizeof(EventScope)>;

inline corv_event *new_event(const EventScope &event)
{
    return reinterpret_cast<corv_event *>(new (EventHandlePool::take()) EventScope(event));
}
inline corv_event *new_event(EventScope &&event)
{
    return reinterpret_cast<corv_event *>(
        new (EventHandlePool::take()) EventScope(std::move(event)));
}
inline EventScope *event(corv_event *handle)
{
    return reinterpret_cast<EventScope *>(handle);
}
inline void release_event(corv_event *handle)
{
    if (!handle)
        return;
    EventScope *scope = reinterpret_cast<EventScope *>(handle);
    scope->~EventScope();
    EventHandlePool::give(scope);
}

} // namespace handles
} // namespace corv::engine
