#include "engine/event.h"

#include <QCoreApplication>
#include <QMetaMethod>

#include <cstring>

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

qsizetype EventData::position_of(QByteArrayView key) const
{
    if (!m_positions.isEmpty()) {
        const auto it = m_positions.constFind(QByteArray::fromRawData(key.data(), key.size()));
        return it == m_positions.cend() ? -1 : it.value();
    }
    // Sizes first, then the bytes in place: Qt's view comparison would call
    // out to its general compare for every key of the same size.
    const qsizetype count = m_entries.size();
    for (qsizetype i = 0; i < count; ++i) {
        const QByteArray &k = m_entries[i].key;
        if (k.size() == key.size() && std::memcmp(k.constData(), key.data(), std::size_t(key.size())) == 0)
            return i;
    }
    return -1;
}

void EventData::set(QByteArrayView key, const QByteArray &value)
{
    const qsizetype at = position_of(key);
    if (at >= 0) {
        m_entries[at].value = not_null(value);
        return;
    }
    m_entries.append(Entry{key.isEmpty() ? QByteArray("") : key.toByteArray(), not_null(value)});
    if (!m_positions.isEmpty()) {
        m_positions.insert(m_entries.constLast().key, m_entries.size() - 1);
    } else if (m_entries.size() == kIndexedFrom) {
        m_positions.reserve(kIndexedFrom * 2);
        for (qsizetype i = 0; i < m_entries.size(); ++i)
            m_positions.insert(m_entries[i].key, i);
    }
}

const QByteArray *EventData::find(QByteArrayView key) const
{
    const qsizetype at = position_of(key);
    return at < 0 ? nullptr : &m_entries[at].value;
}

QByteArray EventData::value(QByteArrayView key) const
{
    const QByteArray *found = find(key);
    return found ? *found : QByteArray();
}

const QByteArray *EventData::key_at(qsizetype index) const
{
    return index < 0 || index >= m_entries.size() ? nullptr : &m_entries[index].key;
}

QList<QByteArray> EventData::keys() const
{
    QList<QByteArray> keys;
    keys.reserve(m_entries.size());
    for (const Entry &entry : m_entries)
        keys.append(entry.key);
    return keys;
}

const QByteArray *EventData::value_at(qsizetype index) const
{
    return index < 0 || index >= m_entries.size() ? nullptr : &m_entries[index].value;
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
