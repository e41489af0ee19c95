// The event functions of the SDK: any thread may call them, one thread per
// handle at a time. A handle is one counted reference to a shared,
// copy-on-write event record.

#include "engine/event.h"
#include "engine/handles.h"
#include "sdk/include/corvane/corvane_sdk.h"
#include "sdk/plugin_text.h"

using namespace corv::engine;
using corv::sdk::view_of;

namespace {

QByteArray copy_of(const char *text)
{
    return text ? QByteArray(text) : QByteArray("");
}

} // namespace

corv_event *corv_event_create(void)
{
    return handles::new_event(EventScope());
}

void corv_event_destroy(corv_event *event)
{
    handles::release_event(event);
}

void corv_event_set(corv_event *event, const char *key, const char *value)
{
    if (!event)
        return;
    handles::event(event)->set(view_of(key), copy_of(value));
}

const char *corv_event_get(corv_event *event, const char *key)
{
    if (!event)
        return nullptr;
    const QByteArray *value = handles::event(event)->find(view_of(key));
    return value ? value->constData() : nullptr;
}

uint64_t corv_event_count(corv_event *event)
{
    return event ? uint64_t(handles::event(event)->count()) : 0;
}

const char *corv_event_get_key(corv_event *event, uint64_t index)
{
    if (!event)
        return nullptr;
    const EventData &data = handles::event(event)->data();
    if (index >= uint64_t(data.count()))
        return nullptr;
    return data.key_at(qsizetype(index))->constData();
}

corv_event *corv_event_clone(corv_event *event)
{
    return event ? handles::new_event(*handles::event(event)) : nullptr;
}

void corv_event_post(corv_sink *sink, corv_event *event)
{
    if (!sink || !event)
        return;
    EventSink::post(handles::sink(sink), *handles::event(event));
}
