// The event functions of the SDK as a plugin calls them: key order, copy on
// write between handles, posting, many threads posting at once, and
// expressions over an event's keys.

#include "engine/event.h"
#include "engine/handles.h"
#include "sdk/include/corvane/corvane_sdk.h"
#include "sdk_test_support.h"

#include <QCoreApplication>
#include <QHash>
#include <QRegularExpression>
#include <QTest>

#include <cstring>
#include <thread>
#include <vector>

using namespace corv::engine;

extern "C" void tst_sdk_header_c_fill(corv_plugin_info *info, corv_node_type *type);

namespace {

// Collects what a sink delivers.
struct Collector {
    EventSink sink;
    QList<EventScope> received;

    Collector()
    {
        QObject::connect(&sink, &EventSink::event_received,
                         [this](const EventScope &event) { received.append(event); });
    }
    corv_sink *handle() { return handles::to_handle(&sink); }
};

QStringList keys_of(corv_event *event)
{
    QStringList keys;
    for (uint64_t i = 0; i < corv_event_count(event); ++i)
        keys << QString::fromUtf8(corv_event_get_key(event, i));
    return keys;
}

} // namespace

class TstSdkEvents : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { QTest::failOnWarning(QRegularExpression(QStringLiteral(".*"))); }

    void keys_keep_first_set_order()
    {
        corv_event *event = corv_event_create();
        corv_event_set(event, "b", "1");
        corv_event_set(event, "a", "2");
        corv_event_set(event, "b", "3");
        corv_event_set(event, "c", nullptr);

        QCOMPARE(keys_of(event), (QStringList{"b", "a", "c"}));
        QCOMPARE(corv_event_get(event, "b"), "3");
        QCOMPARE(corv_event_get(event, "c"), "");
        QVERIFY(!corv_event_get(event, "missing"));
        QVERIFY(!corv_event_get_key(event, corv_event_count(event)));
        QVERIFY(!corv_event_get_key(event, ~uint64_t(0)));
        corv_event_destroy(event);
        corv_event_destroy(nullptr);
    }

    void clones_share_until_written()
    {
        corv_event *first = corv_event_create();
        corv_event_set(first, "key", "first");
        corv_event *second = corv_event_clone(first);
        QVERIFY(handles::event(first)->shares_record_with(*handles::event(second)));

        corv_event_set(second, "key", "second");
        corv_event_set(second, "more", "x");
        QCOMPARE(corv_event_get(first, "key"), "first");
        QCOMPARE(corv_event_count(first), uint64_t(1));
        QCOMPARE(corv_event_get(second, "key"), "second");

        // Destroying the original leaves the clone whole.
        corv_event_destroy(first);
        QCOMPARE(keys_of(second), (QStringList{"key", "more"}));
        corv_event_destroy(second);
    }

    void posting_queues_a_reference()
    {
        Collector collector;
        corv_event *event = corv_event_create();
        corv_event_set(event, "n", "1");
        corv_event_post(collector.handle(), event);
        corv_event_post(collector.handle(), event);
        // The queue holds its references: this write copies the record first.
        corv_event_set(event, "n", "2");
        QVERIFY(collector.received.isEmpty()); // nothing runs inside post

        sdk_test::settle();
        QCOMPARE(collector.received.size(), 2);
        QVERIFY(collector.received[0].shares_record_with(collector.received[1]));
        QCOMPARE(collector.received[0].value("n"), QByteArray("1"));
        QCOMPARE(corv_event_get(event, "n"), "2");
        corv_event_destroy(event);

        // Posting nowhere, or nothing, does nothing.
        corv_event_post(nullptr, nullptr);
        corv_event_post(collector.handle(), nullptr);
        sdk_test::settle();
        QCOMPARE(collector.received.size(), 2);
    }

    void posts_from_many_threads()
    {
        // Every thread makes, fills, clones and posts its own events; each
        // arrives whole, and each thread's arrive in the order it posted them.
        constexpr int threads = 4;
        constexpr int per_thread = 2000;
        Collector collector;
        corv_sink *sink = collector.handle();

        std::vector<std::thread> workers;
        for (int t = 0; t < threads; ++t) {
            workers.emplace_back([sink, t] {
                const QByteArray thread = QByteArray::number(t);
                for (int i = 0; i < per_thread; ++i) {
                    corv_event *event = corv_event_create();
                    corv_event_set(event, "thread", thread.constData());
                    corv_event_set(event, "seq", QByteArray::number(i).constData());
                    corv_event *clone = corv_event_clone(event);
                    corv_event_set(clone, "check", (thread + ':' + QByteArray::number(i)).constData());
                    corv_event_post(sink, clone);
                    corv_event_destroy(event);
                    corv_event_destroy(clone);
                }
            });
        }
        // Deliver while they post.
        while (collector.received.size() < threads * per_thread) {
            QCoreApplication::sendPostedEvents();
            std::this_thread::yield();
        }
        for (std::thread &worker : workers)
            worker.join();
        sdk_test::settle();
        QCOMPARE(collector.received.size(), threads * per_thread);

        QHash<QByteArray, int> next;
        for (const EventScope &event : std::as_const(collector.received)) {
            QCOMPARE(event.data().keys(), (QList<QByteArray>{"thread", "seq", "check"}));
            const QByteArray thread = event.value("thread");
            const int seq = event.value("seq").toInt();
            QCOMPARE(seq, next.value(thread));
            QCOMPARE(event.value("check"), thread + ':' + QByteArray::number(seq));
            next[thread] = seq + 1;
        }
        QCOMPARE(next.size(), threads);
    }

    void c_and_cpp_agree_on_records()
    {
        // Filled by code compiled as C99, read here as C++.
        corv_plugin_info info;
        corv_node_type type;
        std::memset(&info, 0xff, sizeof info);
        std::memset(&type, 0xff, sizeof type);
        tst_sdk_header_c_fill(&info, &type);
        QCOMPARE(info.id, "c.plugin");
        QCOMPARE(info.update_url, "https://example.invalid/manifest.json#entry");
        QVERIFY(!info.name);
        QVERIFY(!info.icon);
        QCOMPARE(type.id, "c.plugin.node");
        QVERIFY(!type.create && !type.on_event && !type.unload);
    }

    void expressions_read_the_event()
    {
        corv_event *event = corv_event_create();
        corv_event_set(event, "level", "3");
        corv_event_set(event, "file.path", "/tmp/x");
        char *text = corv_expression("Level {level * 2} of {file.path}", event);
        QCOMPARE(text, "Level 6 of /tmp/x");
        corv_string_destroy(text);
        text = corv_expression(nullptr, event);
        QCOMPARE(text, "");
        corv_string_destroy(text);

        // The buffer takes 255 bytes: "x" and 127 two-byte characters fill
        // it, and the 128th goes whole.
        char out[CORV_TEXT_SIZE];
        corv_expression_str("x{repeat('é', 200)}", event, out);
        QCOMPARE(std::strlen(out), size_t(255));
        corv_expression_str("[{level}]", nullptr, out);
        QCOMPARE(out, "[]");
        QTest::ignoreMessage(QtWarningMsg,
                             "Expression error in \"{level + x}\" at column 2: 'abc' is not a number");
        corv_event_set(event, "level", "abc");
        corv_expression_str("{level + x}", event, out);
        QCOMPARE(out, "");
        corv_event_destroy(event);
    }
};

QTEST_GUILESS_MAIN(TstSdkEvents)
#include "tst_sdk_events.moc"
