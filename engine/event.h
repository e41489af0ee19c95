#pragma once

#include "engine/block_pool.h"

#include <QAtomicInt>
#include <QByteArray>
#include <QEvent>
#include <QHash>
#include <QList>
#include <QMetaType>
#include <QObject>

#include <atomic>

namespace corv::engine {

// One event: string keys to string values (UTF-8 bytes, any content), keys in
// the order they were first set. Keys are never removed; neither keys nor
// values are ever null (a null value is stored as "").
class EventData
{
public:
    // An existing key keeps its position and gets the new value.
    void set(QByteArrayView key, const QByteArray &value);

    // The value under key, or null when the key is absent. The bytes are
    // zero-terminated and stay valid until the record is next written.
    const QByteArray *find(QByteArrayView key) const;
    QByteArray value(QByteArrayView key) const;

    qsizetype count() const { return m_entries.size(); }
    // Key and value at insertion position, or null when index is out of range.
    const QByteArray *key_at(qsizetype index) const;
    const QByteArray *value_at(qsizetype index) const;
    QList<QByteArray> keys() const;

    friend bool operator==(const EventData &a, const EventData &b) { return a.m_entries == b.m_entries; }

private:
    struct Entry {
        QByteArray key;
        QByteArray value;
        friend bool operator==(const Entry &, const Entry &) = default;
    };
    // Most events have a handful of keys: a scan of the entries beats
    // hashing. Past this many, a hash of positions is kept as well.
    static constexpr qsizetype kIndexedFrom = 12;

    qsizetype position_of(QByteArrayView key) const;

    QList<Entry> m_entries;
    QHash<QByteArray, qsizetype> m_positions; // empty below kIndexedFrom
};

// A shared, reference-counted, copy-on-write handle to one EventData. Copies
// share the record; writing through a handle whose record is shared first
// gives that handle a private deep copy. The counts are atomic, so handles may
// be copied and released on any thread; one handle is used by one thread at a
// time.
class EventScope
{
public:
    // A new, empty record of its own (allocated on first write).
    EventScope() noexcept = default;
    EventScope(const EventScope &other) noexcept : m_record(other.m_record)
    {
        if (m_record)
            m_record->ref.ref();
    }
    EventScope(EventScope &&other) noexcept : m_record(other.m_record) { other.m_record = nullptr; }
    EventScope &operator=(const EventScope &other) noexcept
    {
        EventScope copy(other);
        swap(copy);
        return *this;
    }
    EventScope &operator=(EventScope &&other) noexcept
    {
        EventScope moved(std::move(other));
        swap(moved);
        return *this;
    }
    ~EventScope() { release(); }

    void swap(EventScope &other) noexcept { std::swap(m_record, other.m_record); }

    const EventData &data() const { return m_record ? m_record->data : empty_data(); }
    // Write access: detaches first when the record is shared.
    EventData &write();

    void set(QByteArrayView key, const QByteArray &value) { write().set(key, value); }
    const QByteArray *find(QByteArrayView key) const { return data().find(key); }
    QByteArray value(QByteArrayView key) const { return data().value(key); }
    qsizetype count() const { return data().count(); }

    // True when both handles hold the same record.
    bool shares_record_with(const EventScope &other) const
    {
        return m_record && m_record == other.m_record;
    }
    // Number of handles holding this record (1 for an unwritten new scope).
    int use_count() const { return m_record ? m_record->ref.loadAcquire() : 1; }

private:
    struct Record {
        Record() = default;
        explicit Record(const EventData &from) : data(from) {}
        QAtomicInt ref{1};
        EventData data;
    };

    void release() noexcept
    {
        if (m_record && !m_record->ref.deref())
            delete m_record;
        m_record = nullptr;
    }
    static const EventData &empty_data();

    Record *m_record = nullptr;
};

// The Qt event that carries one reference to an event through the queue of a
// sink. The reference is released when Qt deletes the event (after delivery,
// or with the receiver when it dies first).
class SinkEvent : public QEvent
{
public:
    static constexpr QEvent::Type event_type = QEvent::User; // 1000

    explicit SinkEvent(EventScope event) : QEvent(event_type), m_event(std::move(event)) {}
    ~SinkEvent() override;

    // One is made and deleted per hop; they come from a per-thread cache.
    static void *operator new(std::size_t size)
    {
        return size == sizeof(SinkEvent) ? BlockPool<sizeof(SinkEvent)>::take()
                                         : ::operator new(size);
    }
    static void operator delete(void *block, std::size_t size) noexcept
    {
        if (size == sizeof(SinkEvent))
            BlockPool<sizeof(SinkEvent)>::give(block);
        else
            ::operator delete(block);
    }

    const EventScope &event() const { return m_event; }
    // The carried reference, for a receiver that takes it over.
    EventScope &event() { return m_event; }

private:
    EventScope m_event;
};

// A target that events are posted to. Every node has a parent sink and a
// child sink, every rack one sink; what listens to event_received decides
// where the event goes next.
class EventSink : public QObject
{
    Q_OBJECT
public:
    explicit EventSink(QObject *parent = nullptr);
    ~EventSink() override;

    // Queues a new reference to event for the sink (priority 0). Safe from any
    // thread; delivery happens on the sink's thread. The caller keeps its own
    // reference.
    static void post(EventSink *sink, const EventScope &event);

    bool event(QEvent *event) override;

    // Where the engine takes a delivered event, right after event_received
    // (a direct call: a signal connection per sink would cost every node
    // more memory than the sink itself).
    class Receiver
    {
    public:
        // May take the reference over (move from event): the queued Qt
        // event is deleted right after, so a node that gets it as its
        // handle holds the only one and writes without a copy.
        virtual void sink_received(EventSink *sink, EventScope &event) = 0;

    protected:
        ~Receiver() = default;
    };
    void set_receiver(Receiver *receiver) { m_receiver = receiver; }

Q_SIGNALS:
    void event_received(const corv::engine::EventScope &event);

protected:
    void connectNotify(const QMetaMethod &signal) override;

private:
    Receiver *m_receiver = nullptr;
    // Set once anything connects to event_received: until then a delivery
    // skips the signal.
    std::atomic<bool> m_received_wired{false};
};

// Registers EventScope with Qt's meta-type system (also under the plain name
// "EventScope"), for queued connections and QVariant.
void register_event_meta_type();

} // namespace corv::engine

Q_DECLARE_METATYPE(corv::engine::EventScope)
