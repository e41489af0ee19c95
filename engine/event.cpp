#include "engine/event.h"

#include <QCoreApplication>
#include <QMetaMethod>

#if defined(__SANITIZE_THREAD__)
#define CORV_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define CORV_THREAD_SANITIZER 1
#endif
#endif
#ifdef CORV_THREAD_SANITIZER
#include <sanitizer/tsan_interface.h>
#endif

namespace corv::engine {

namespace {

// Qt's event queue orders a post before its delivery with a lock inside Qt,
// which the thread sanitizer does not see (Qt is not built with it). These
// tell it, so that an event made on one thread and read on the sink's is not
// reported; they do nothing in other builds.
void handing_over(const QEvent *event)
{
#ifdef CORV_THREAD_SANITIZER
    __tsan_release(const_cast<QEvent *>(event));
#else
    Q_UNUSED(event);
#endif
}

void taking_over(const QEvent *event)
{
#ifdef CORV_THREAD_SANITIZER
    __tsan_acquire(const_cast<QEvent *>(event));
#else
    Q_UNUSED(event);
#endif
}

} // namespace

namespace {
// Neither keys nor values are ever null: a null byte array stands for "".
const QByteArray &not_null(const QByteArray &bytes)
{
    static const QByteArray empty("");
    return bytes.isNull() ? empty : bytes;
}
} // namespace

void EventData::set(const QByteArray &key, const QByteArray &value)
{
    const QByteArray &stored_key = not_null(key);
    // One lookup finds or makes the slot; a new slot is the only null value.
    QByteArray &slot = m_values[stored_key];
    if (slot.isNull())
        m_keys.append(stored_key);
    slot = not_null(value);
}

const QByteArray *EventData::find(const QByteArray &key) const
{
    auto it = m_values.constFind(not_null(key));
    return it == m_values.cend() ? nullptr : &it.value();
}

QByteArray EventData::value(const QByteArray &key) const
{
    const QByteArray *found = find(key);
    return found ? *found : QByteArray();
}

const QByteArray *EventData::key_at(qsizetype index) const
{
    if (index < 0 || index >= m_keys.size())
        return nullptr;
    return &m_keys.at(index);
}

EventData &EventScope::write()
{
    if (!m_record) {
        m_record = new Record;
    } else if (m_record->ref.loadAcquire() != 1) {
        Record *copy = new Record(m_record->data);
        release();
        m_record = copy;
    }
    return m_record->data;
}

const EventData &EventScope::empty_data()
{
    static const EventData empty;
    return empty;
}

SinkEvent::~SinkEvent() = default;

void register_event_meta_type()
{
    static const bool registered = [] {
        qRegisterMetaType<EventScope>();
        qRegisterMetaType<EventScope>("EventScope");
        return true;
    }();
    Q_UNUSED(registered);
}

EventSink::EventSink(QObject *parent) : QObject(parent)
{
    register_event_meta_type();
}

EventSink::~EventSink() = default;

void EventSink::connectNotify(const QMetaMethod &signal)
{
    if (signal == QMetaMethod::fromSignal(&EventSink::event_received))
        m_received_wired.store(true, std::memory_order_relaxed);
    QObject::connectNotify(signal);
}

void EventSink::post(EventSink *sink, const EventScope &event)
{
    if (!sink)
        return;
    auto *posted = new SinkEvent(event);
    handing_over(posted);
    QCoreApplication::postEvent(sink, posted, Qt::NormalEventPriority);
}

bool EventSink::event(QEvent *event)
{
    taking_over(event); // before anything of it is read
    if (event->type() == SinkEvent::event_type) {
        EventScope &scope = static_cast<SinkEvent *>(event)->event();
        if (m_received_wired.load(std::memory_order_relaxed))
            Q_EMIT event_received(scope);
        if (m_receiver)
            m_receiver->sink_received(this, scope);
        return true;
    }
    return QObject::event(event);
}

} // namespace corv::engine
