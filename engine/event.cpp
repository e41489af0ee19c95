#include "engine/event.h"

#include <QCoreApplication>

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

void EventData::set(const QByteArray &key, const QByteArray &value)
{
    // Neither keys nor values are ever null: a null byte array becomes "".
    const QByteArray stored_key = key.isNull() ? QByteArray("") : key;
    const QByteArray stored_value = value.isNull() ? QByteArray("") : value;
    auto it = m_values.find(stored_key);
    if (it != m_values.end()) {
        it.value() = stored_value;
        return;
    }
    m_values.insert(stored_key, stored_value);
    m_keys.append(stored_key);
}

const QByteArray *EventData::find(const QByteArray &key) const
{
    auto it = m_values.constFind(key.isNull() ? QByteArray("") : key);
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
        Q_EMIT event_received(scope);
        if (m_receiver)
            m_receiver->sink_received(this, scope);
        return true;
    }
    return QObject::event(event);
}

} // namespace corv::engine
