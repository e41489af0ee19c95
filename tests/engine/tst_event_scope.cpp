// The event record and its shared copy-on-write handle, the sink, and the C
// event handles, also across threads.

#include "engine/event.h"
#include "engine/handles.h"

#include <QCoreApplication>
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

    // Keys keep their first insertion order; values are bytes, null stored as empty.
    void record()
    {
        EventScope event;
        for (const auto &[key, value] : {std::pair{"b", "1"}, {"a", "2"}, {"b", "3"}})
            event.set(key, value);
        event.set("k", QByteArray());
        event.set(QByteArray("z\0b", 3), QByteArray("x\0y", 3));
        QCOMPARE(event.data().keys(), (QList<QByteArray>{"b", "a", "k", QByteArray("z\0b", 3)}));
        QCOMPARE(event.count(), 4);
        QCOMPARE(event.value("b"), QByteArray("3"));
        QVERIFY(event.find("k") && !event.find("k")->isNull() && event.find("k")->isEmpty());
        QCOMPARE(*event.find(QByteArray("z\0b", 3)), QByteArray("x\0y", 3));
        QCOMPARE(event.find("absent"), nullptr);
        QVERIFY(!event.data().key_at(4) && !event.data().key_at(-1));

        // Past a dozen keys lookups go another way: order and values stay.
        QList<QByteArray> expected = event.data().keys();
        for (int i = 0; i < 40; ++i) {
            const QByteArray key = "key" + QByteArray::number(i);
            event.set(key, QByteArray::number(i));
            event.set("b", key);
            expected.append(key);
            QVERIFY(event.value(key) == QByteArray::number(i) && event.value("key0") == "0");
        }
        QCOMPARE(event.data().keys(), expected);
        QVERIFY(*event.data().value_at(0) == "key39" && !event.find("key40"));
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
        second.set("new", "3");
        QVERIFY(!second.shares_record_with(first));
        QCOMPARE(&first.data(), record);
        QCOMPARE(first.use_count(), 1);
        QCOMPARE(first.data().keys(), QList<QByteArray>{"k"});
        // The detached copy is whole: every key, in order.
        QCOMPARE(second.data().keys(), (QList<QByteArray>{"k", "new"}));
        QCOMPARE(second.value("k"), QByteArray("2"));

        // C handles count as holders.
        corv_event *a = handles::new_event(first);
        corv_event *b = handles::new_event(*handles::event(a));
        QCOMPARE(first.use_count(), 3);
        handles::event(b)->set("k", "changed");
        QCOMPARE(first.use_count(), 2);
        QCOMPARE(handles::event(a)->value("k"), QByteArray("2"));
        handles::release_event(a);
        handles::release_event(b);
        handles::release_event(nullptr);
        QCOMPARE(first.use_count(), 1);
    }

    // Clones made on one thread are written and released on others.
    void handles_cross_threads()
    {
        EventScope origin;
        origin.set("k", "origin");
        QList<corv_event *> clones;
        for (int i = 0; i < 400; ++i)
            clones << handles::new_event(origin);
        QList<QThread *> threads;
        for (int t = 0; t < 4; ++t) {
            threads << QThread::create([mine = clones.mid(t * 100, 100), t] {
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

    // A sink re-emits its own posted events (found by type name too) and
    // holds a reference while they wait; a dying sink releases its queue.
    void sinks()
    {
        auto sink = std::make_unique<EventSink>();
        QCOMPARE(QMetaType::fromName("EventScope"), QMetaType::fromType<EventScope>());
        QSignalSpy spy(sink.get(), &EventSink::event_received);
        EventScope event;
        event.set("k", "v");
        EventSink::post(sink.get(), event);
        EventSink::post(nullptr, event); // ignored
        QCOMPARE(event.use_count(), 2);
        QCoreApplication::sendPostedEvents();
        QCOMPARE(spy.size(), 1);
        QVERIFY(spy.at(0).at(0).value<EventScope>().shares_record_with(event));
        spy.clear();
        QCOMPARE(event.use_count(), 1);
        QEvent other(QEvent::Type(QEvent::User + 1)); // other types go to QObject::event
        QCoreApplication::sendEvent(sink.get(), &other);
        QCOMPARE(spy.size(), 0);

        for (int i = 0; i < 3; ++i)
            EventSink::post(sink.get(), event);
        QCOMPARE(event.use_count(), 4);
        sink.reset();
        QCOMPARE(event.use_count(), 1);
    }
};

QTEST_GUILESS_MAIN(TstEventScope)
#include "tst_event_scope.moc"
