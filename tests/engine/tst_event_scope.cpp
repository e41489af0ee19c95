// The event record and its shared copy-on-write handle, the sink event and
// the sink, and the C event handles.

#include "engine/event.h"
#include "engine/handles.h"

#include <QCoreApplication>
#include <QMetaType>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>
#include <QThread>

using namespace corv::engine;

class TstEventScope : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { QTest::failOnWarning(QRegularExpression(QStringLiteral(".*"))); }

    void keys_keep_first_insertion_order_data()
    {
        QTest::addColumn<QList<QByteArray>>("sets"); // key, value, key, value, ...
        QTest::addColumn<QList<QByteArray>>("keys");
        QTest::addColumn<QList<QByteArray>>("values");
        QTest::newRow("in order") << QList<QByteArray>{"b", "1", "a", "2"}
                                  << QList<QByteArray>{"b", "a"} << QList<QByteArray>{"1", "2"};
        QTest::newRow("existing key keeps its place")
            << QList<QByteArray>{"b", "1", "a", "2", "b", "3"} << QList<QByteArray>{"b", "a"}
            << QList<QByteArray>{"3", "2"};
        QTest::newRow("null value stored as empty")
            << QList<QByteArray>{"k", QByteArray()} << QList<QByteArray>{"k"}
            << QList<QByteArray>{""};
        QTest::newRow("bytes with zeros")
            << QList<QByteArray>{QByteArray("a\0b", 3), QByteArray("x\0y", 3)}
            << QList<QByteArray>{QByteArray("a\0b", 3)} << QList<QByteArray>{QByteArray("x\0y", 3)};
    }

    void keys_keep_first_insertion_order()
    {
        QFETCH(QList<QByteArray>, sets);
        QFETCH(QList<QByteArray>, keys);
        QFETCH(QList<QByteArray>, values);
        EventScope event;
        for (qsizetype i = 0; i + 1 < sets.size(); i += 2)
            event.set(sets.at(i), sets.at(i + 1));
        QCOMPARE(event.data().keys(), keys);
        QCOMPARE(event.count(), keys.size());
        for (qsizetype i = 0; i < keys.size(); ++i) {
            QVERIFY(event.find(keys.at(i)));
            QVERIFY(!event.find(keys.at(i))->isNull());
            QCOMPARE(*event.find(keys.at(i)), values.at(i));
        }
        QCOMPARE(event.data().key_at(keys.size()), nullptr);
        QCOMPARE(event.data().key_at(-1), nullptr);
        QCOMPARE(event.find("absent"), nullptr);
    }

    void copies_share_until_written()
    {
        EventScope first;
        first.set("k", "1");
        const EventData *record = &first.data();
        first.set("k", "2"); // the only holder writes in place
        QCOMPARE(&first.data(), record);

        EventScope second = first;
        QVERIFY(second.shares_record_with(first));
        QCOMPARE(first.use_count(), 2);
        second.set("k", "3");
        QVERIFY(!second.shares_record_with(first));
        QCOMPARE(first.value("k"), QByteArray("2"));
        QCOMPARE(second.value("k"), QByteArray("3"));
        QCOMPARE(&first.data(), record);
        QCOMPARE(first.use_count(), 1);

        // The detached copy is whole: every key, in order.
        EventScope third = first;
        third.set("new", "x");
        QCOMPARE(third.data().keys(), (QList<QByteArray>{"k", "new"}));
        QCOMPARE(first.data().keys(), QList<QByteArray>{"k"});
    }

    void handles_count_references()
    {
        EventScope event;
        event.set("k", "v");
        corv_event *a = handles::new_event(event);
        corv_event *b = handles::new_event(*handles::event(a));
        QCOMPARE(event.use_count(), 3);
        handles::event(b)->set("k", "changed");
        QCOMPARE(event.use_count(), 2);
        QCOMPARE(handles::event(a)->value("k"), QByteArray("v"));
        handles::release_event(a);
        handles::release_event(b);
        handles::release_event(nullptr);
        QCOMPARE(event.use_count(), 1);
    }

    void handles_cross_threads()
    {
        // Clones made on one thread are written and released on others.
        EventScope origin;
        origin.set("k", "origin");
        QList<corv_event *> clones;
        for (int i = 0; i < 400; ++i)
            clones << handles::new_event(origin);
        QList<QThread *> threads;
        for (int t = 0; t < 4; ++t) {
            const QList<corv_event *> mine = clones.mid(t * 100, 100);
            threads << QThread::create([mine, t] {
                for (corv_event *clone : mine) {
                    if (t % 2)
                        handles::event(clone)->set("k", QByteArray::number(t));
                    handles::release_event(clone);
                }
            });
            threads.last()->start();
        }
        for (QThread *thread : std::as_const(threads)) {
            QVERIFY(thread->wait(10000));
            delete thread;
        }
        QCOMPARE(origin.use_count(), 1);
        QCOMPARE(origin.value("k"), QByteArray("origin"));
    }

    void meta_type_by_name()
    {
        EventSink sink; // registers the type
        const QMetaType type = QMetaType::fromName("EventScope");
        QVERIFY(type.isValid());
        QCOMPARE(type, QMetaType::fromType<EventScope>());

        EventScope event;
        event.set("k", "v");
        const QVariant variant = QVariant::fromValue(event);
        QVERIFY(variant.value<EventScope>().shares_record_with(event));
    }

    void sink_delivers_its_events_only()
    {
        EventSink sink;
        QSignalSpy spy(&sink, &EventSink::event_received);
        QCOMPARE(int(SinkEvent::event_type), 1000);

        EventScope event;
        event.set("k", "v");
        EventSink::post(&sink, event);
        EventSink::post(nullptr, event); // ignored
        QCOMPARE(event.use_count(), 2);  // the queue holds its own reference
        QCoreApplication::sendPostedEvents();
        QCOMPARE(spy.size(), 1);
        QVERIFY(spy.at(0).at(0).value<EventScope>().shares_record_with(event));
        spy.clear();
        QCOMPARE(event.use_count(), 1);

        // Other types go to QObject::event.
        QEvent other(QEvent::Type(QEvent::User + 1));
        QCoreApplication::sendEvent(&sink, &other);
        QCOMPARE(spy.size(), 0);
    }

    void dying_sink_releases_its_queue()
    {
        EventScope event;
        event.set("k", "v");
        auto sink = std::make_unique<EventSink>();
        for (int i = 0; i < 3; ++i)
            EventSink::post(sink.get(), event);
        QCOMPARE(event.use_count(), 4);
        sink.reset();
        QCOMPARE(event.use_count(), 1);
    }
};

QTEST_GUILESS_MAIN(TstEventScope)
#include "tst_event_scope.moc"
