#include "engine/event.h"

#include <QCoreApplication>

namespace corv::engine {

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
    QCoreApplication::postEvent(sink, new SinkEvent(event), Qt::NormalEventPriority);
}

bool EventSink::event(QEvent *event)
{
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
