// The poller and the injector over the in-memory keyboard (one for the
// whole program: both are process-wide).

#include "input/fake_backend.h"
#include "input/hotkey_poller.h"
#include "input/injection_ledger.h"
#include "input/key_injector.h"
#include "input/key_table.h"
#include "input/platform.h"

#include <QElapsedTimer>
#include <QMutex>
#include <QRegularExpression>
#include <QSysInfo>
#include <QTest>

#include <memory>

using namespace corv::input;

Q_DECLARE_METATYPE(Hotkey)

namespace {

std::shared_ptr<FakeKeyboard> g_keyboard;

// Every call a listener gets, from the poller thread.
struct Calls {
    QMutex mutex;
    QList<bool> states;
    QList<bool> take()
    {
        QMutexLocker lock(&mutex);
        return std::exchange(states, {});
    }
    HotkeyPoller::Callback callback()
    {
        return [this](bool held) {
            QMutexLocker lock(&mutex);
            states << held;
        };
    }
};

void wait_polls(int count)
{
    const std::uint64_t start = HotkeyPoller::instance().poll_count();
    QTRY_VERIFY_WITH_TIMEOUT(HotkeyPoller::instance().poll_count() >= start + std::uint64_t(count), 5000);
}

Hotkey parse(const char *text)
{
    return hotkey_from_text(text).value_or(Hotkey{0xffff, 0xffff});
}

// "v17 v75 ^75 ^17": 17 down, 75 down, 75 up, 17 up.
std::vector<KeyRecord> records_of(const QString &text)
{
    std::vector<KeyRecord> records;
    for (const QString &part : text.split(u' ', Qt::SkipEmptyParts))
        records.push_back({part.mid(1).toUInt(), part.startsWith(u'^')});
    return records;
}

QString records_text(const std::vector<KeyRecord> &records)
{
    QStringList parts;
    for (const KeyRecord &record : records)
        parts << (record.up ? QStringLiteral("^") : QStringLiteral("v")) + QString::number(record.vk);
    return parts.join(u' ');
}

// A German-like layout: Y and Z swapped, an umlaut key, '"' on Shift+2,
// and no key for ';' (the key table answers for it).
class LayoutBackend : public KeyboardBackend
{
public:
    bool snapshot(KeySet &, const KeySet &, std::vector<KeyRecord> *) override { return false; }
    bool send(const KeyRecord *, std::size_t) override { return false; }
    std::int32_t scan_char(char32_t ch) override
    {
        switch (ch) {
        case U'z': return 'Y';
        case U'y': return 'Z';
        case U'\u00e4': return 0xDE;
        case U'"': return 0x100 | '2';
        case U'k': return 'K';
        default: return -1;
        }
    }
};

} // namespace

class TstInput : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QTest::failOnWarning(QRegularExpression(QStringLiteral(".*")));
        g_keyboard = std::make_shared<FakeKeyboard>();
        set_backend_factory([] { return g_keyboard->make_backend(); });
        HotkeyPoller::instance().set_poll_interval(1);
        KeyInjector::instance().set_gap(0);
    }

    void init()
    {
        g_keyboard->set_windows_edges(false);
        g_keyboard->release_all();
        g_keyboard->clear_sent();
    }

    // Whether hotkeys can work at all (the rack panel's mark) follows the
    // backend, asked again when it changes.
    void global_input()
    {
        QVERIFY(global_input_available());
        set_backend_factory([] { return std::unique_ptr<KeyboardBackend>(); });
        QVERIFY(!global_input_available());
        set_backend_factory([] { return g_keyboard->make_backend(); });
        QVERIFY(global_input_available());
    }

    // Hotkey text as the hotkey field writes it, read with the (US) layout;
    // and written back where the text is the field's own.
    void hotkey_text_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<Hotkey>("hotkey");
        QTest::addColumn<bool>("round_trip");
        QTest::newRow("ctrl letter") << "Ctrl+K" << Hotkey{'K', kCtrlBit} << true;
        QTest::newRow("all modifiers") << "Ctrl+Alt+Meta+Shift+A" << Hotkey{'A', 15} << true;
        QTest::newRow("modifiers only") << "Ctrl+Shift+" << Hotkey{0, kCtrlBit | kShiftBit} << true;
        QTest::newRow("function key") << "Meta+F5" << Hotkey{0x74, kWinBit} << true;
        QTest::newRow("F24") << "F24" << Hotkey{0x87, 0} << true;
        QTest::newRow("arrow") << "Alt+Left" << Hotkey{0x25, kAltBit} << true;
        QTest::newRow("navigation") << "Shift+PgDown" << Hotkey{0x22, kShiftBit} << true;
        QTest::newRow("keypad digit") << "Ctrl+Num+7" << Hotkey{0x67, kCtrlBit} << true;
        QTest::newRow("keypad plus") << "Num++" << Hotkey{0x6B, 0} << true;
        QTest::newRow("digit") << "Ctrl+1" << Hotkey{'1', kCtrlBit} << true;
        QTest::newRow("punctuation") << "Ctrl+," << Hotkey{0xBC, kCtrlBit} << true;
        QTest::newRow("shifted character") << "Shift+!" << Hotkey{'1', kShiftBit} << false;
        QTest::newRow("plus is shifted") << "Ctrl++" << Hotkey{0xBB, kCtrlBit | kShiftBit} << false;
        QTest::newRow("backtab") << "Shift+Backtab" << Hotkey{0x09, kShiftBit} << false;
        QTest::newRow("first combination") << "Ctrl+K, Ctrl+L" << Hotkey{'K', kCtrlBit} << false;
        QTest::newRow("comma then more") << "Ctrl+,, X" << Hotkey{0xBC, kCtrlBit} << false;
        QTest::newRow("lower case names") << "ctrl+esc" << Hotkey{0x1B, kCtrlBit} << false;
        QTest::newRow("media") << "Media Play" << Hotkey{0xB3, 0} << true;
        QTest::newRow("empty") << "" << Hotkey{} << true;
        QTest::newRow("unknown") << "Ctrl+Bogus" << Hotkey{0xffff, 0xffff} << false;
        QTest::newRow("unknown keypad") << "Num+K" << Hotkey{0xffff, 0xffff} << false;
    }
    void hotkey_text()
    {
        QFETCH(QString, text);
        QFETCH(Hotkey, hotkey);
        QFETCH(bool, round_trip);
        const QByteArray utf8 = text.toUtf8();
        QCOMPARE(parse(utf8.constData()), hotkey);
        if (round_trip)
            QCOMPARE(QString::fromStdString(corv::input::hotkey_text(hotkey)), text);
    }

    // Every named key of the table reads from its name as typed, and back;
    // only keys of the X11 keypad range (XK_KP_*) are named "Num+".
    void key_table_round_trip()
    {
        for (const KeyRow &row : key_table()) {
            QVERIFY2(!row.keypad || (row.keysym >= 0xff80 && row.keysym <= 0xffbd), row.name.data());
            if (row.name.empty())
                continue;
            const Hotkey hotkey{row.vk, 0};
            QCOMPARE(parse(((row.keypad ? "Num+" : "") + std::string(row.name)).c_str()), hotkey);
            const std::string text = corv::input::hotkey_text(hotkey);
            QVERIFY2(!text.empty(), row.name.data());
            QCOMPARE(parse(text.c_str()), hotkey);
        }
    }

    // The comparison is exact on purpose: an extra modifier prevents it.
    void matching_data()
    {
        QTest::addColumn<QString>("hotkey");
        QTest::addColumn<QList<int>>("held");
        QTest::addColumn<bool>("match");
        QTest::newRow("exact") << "Ctrl+K" << QList<int>{17, 'K'} << true;
        QTest::newRow("extra shift") << "Ctrl+K" << QList<int>{17, 16, 'K'} << false;
        QTest::newRow("missing ctrl") << "Ctrl+K" << QList<int>{'K'} << false;
        QTest::newRow("key up") << "Ctrl+K" << QList<int>{17} << false;
        QTest::newRow("left win") << "Meta+E" << QList<int>{91, 'E'} << true;
        QTest::newRow("right win") << "Meta+E" << QList<int>{92, 'E'} << true;
        QTest::newRow("win not wanted") << "E" << QList<int>{91, 'E'} << false;
        QTest::newRow("win missing") << "Meta+E" << QList<int>{'E'} << false;
        QTest::newRow("other keys do not count") << "Alt+F4" << QList<int>{18, 0x73, 'Q'} << true;
        QTest::newRow("modifiers only") << "Ctrl+Shift+" << QList<int>{16, 17, 'A'} << true;
        QTest::newRow("modifiers only, extra alt") << "Ctrl+Shift+" << QList<int>{16, 17, 18} << false;
    }
    void matching()
    {
        QFETCH(QString, hotkey);
        QFETCH(QList<int>, held);
        QFETCH(bool, match);
        KeySet down;
        for (int vk : held)
            down.set(std::size_t(vk));
        QCOMPARE(matches(parse(hotkey.toUtf8().constData()), down), match);
    }

    // Ctrl+K does not fire while Ctrl+Shift+K is held, fires once when
    // Shift is let go, stays quiet while held, and reports the release once.
    void poller_calls_once_per_edge()
    {
        HotkeyPoller &poller = HotkeyPoller::instance();
        Calls calls;
        const std::uint64_t id = poller.add(parse("Ctrl+K"), calls.callback());
        QVERIFY(id != 0);
        for (std::uint32_t vk : {kVkControl, kVkShift, std::uint32_t('K')})
            g_keyboard->press(vk);
        wait_polls(5);
        QCOMPARE(calls.take(), QList<bool>());
        g_keyboard->release(kVkShift);
        wait_polls(20);
        QCOMPARE(calls.take(), QList<bool>{true});
        g_keyboard->release('K');
        wait_polls(5);
        QCOMPARE(calls.take(), QList<bool>{false});
        poller.remove(id);
        g_keyboard->press('K');
        wait_polls(0);
        QTest::qWait(20);
        QCOMPARE(calls.take(), QList<bool>());
    }

    // Without listeners the thread sleeps on its wait condition: the
    // keyboard is not read at all until a listener comes.
    void poller_sleeps_without_listeners()
    {
        HotkeyPoller &poller = HotkeyPoller::instance();
        QCOMPARE(poller.listener_count(), 0);
        QTest::qWait(10); // a poll under way ends
        const std::uint64_t reads = g_keyboard->snapshots();
        QTest::qWait(150);
        QCOMPARE(g_keyboard->snapshots(), reads);
        Calls calls;
        const std::uint64_t id = poller.add(parse("F1"), calls.callback());
        QTRY_VERIFY(g_keyboard->snapshots() > reads + 5);
        poller.remove(id);
        QCOMPARE(poller.add(Hotkey{}, calls.callback()), std::uint64_t(0));
    }

    // Each job presses only what is not down, releases only what it
    // pressed, in the order press: modifiers then key; release: Shift,
    // Ctrl, Alt, left Win, then the key. A key already held is let go first.
    void injector_presses_data()
    {
        QTest::addColumn<QString>("hotkey");
        QTest::addColumn<QList<int>>("held");
        QTest::addColumn<QString>("records");
        QTest::newRow("ctrl held: only C") << "Ctrl+C" << QList<int>{17} << "v67 ^67";
        QTest::newRow("nothing held") << "Ctrl+Shift+K" << QList<int>{} << "v16 v17 v75 ^16 ^17 ^75";
        QTest::newRow("all four") << "Ctrl+Alt+Meta+Shift+A" << QList<int>{}
                                  << "v16 v17 v18 v91 v65 ^16 ^17 ^18 ^91 ^65";
        QTest::newRow("win") << "Meta+E" << QList<int>{} << "v91 v69 ^91 ^69";
        QTest::newRow("right win held") << "Meta+E" << QList<int>{92} << "v69 ^69";
        QTest::newRow("alt only") << "Alt+" << QList<int>{} << "v18 ^18";
        QTest::newRow("key held: fresh press") << "F5" << QList<int>{0x74} << "^116 v116 ^116";
        QTest::newRow("extra modifier stays") << "K" << QList<int>{16} << "v75 ^75";
    }
    void injector_presses()
    {
        QFETCH(QString, hotkey);
        QFETCH(QList<int>, held);
        QFETCH(QString, records);
        for (int vk : held)
            g_keyboard->press(std::uint32_t(vk));
        KeyInjector &injector = KeyInjector::instance();
        injector.queue({nullptr, parse(hotkey.toUtf8().constData()), 0, {}, {}, {}});
        QVERIFY(injector.wait_idle(5000));
        QCOMPARE(records_text(g_keyboard->sent()), records);
        KeySet expected;
        for (int vk : held)
            if (vk != 0x74)
                expected.set(std::size_t(vk));
        QCOMPARE(g_keyboard->down(), expected);
    }

    // Start runs after the press, finish after the release; the gap runs
    // from one job's release to the next job's press.
    void injector_hold_and_gap()
    {
        KeyInjector &injector = KeyInjector::instance();
        injector.set_gap(120);
        QElapsedTimer clock;
        clock.start();
        QMutex mutex;
        QList<std::pair<QString, qint64>> marks;
        auto mark = [&](const char *what) {
            return [&, what] {
                QMutexLocker lock(&mutex);
                marks.append({QString::fromLatin1(what), clock.elapsed()});
            };
        };
        injector.queue({this, parse("A"), 60, mark("start1"), mark("finish1"), {}});
        injector.queue({this, parse("B"), 0, mark("start2"), mark("finish2"), {}});
        QVERIFY(injector.wait_idle(5000));
        injector.set_gap(0);
        QCOMPARE(marks.size(), 4);
        QCOMPARE(marks[0].first, QStringLiteral("start1"));
        QCOMPARE(marks[3].first, QStringLiteral("finish2"));
        QVERIFY2(marks[1].second - marks[0].second >= 59, "hold");
        QVERIFY2(marks[2].second - marks[1].second >= 119, "gap");
        QCOMPARE(records_text(g_keyboard->sent()), QStringLiteral("v65 ^65 v66 ^66"));
    }

    // Cancelling cuts a hold short and releases at once; the owner's queued
    // jobs go, other owners' stay, and no callback of the owner runs after.
    void cancel_releases_at_once()
    {
        KeyInjector &injector = KeyInjector::instance();
        int owner = 0;
        int other = 0;
        std::atomic<int> started{0};
        std::atomic<int> finished{0};
        injector.queue({&owner, parse("Ctrl+Alt+K"), 60000, [&] { ++started; }, [&] { ++finished; }, {}});
        injector.queue({&owner, parse("K"), 0, [&] { ++started; }, {}, {}}); // waits for the held K
        injector.queue({&other, parse("M"), 0, {}, {}, {}});
        QTRY_COMPARE(started.load(), 1);
        QElapsedTimer clock;
        clock.start();
        injector.cancel(&owner);
        QVERIFY(clock.elapsed() < 1000);
        QCOMPARE(finished.load(), 0);
        QVERIFY(injector.wait_idle(5000));
        QCOMPARE(started.load(), 1);
        QCOMPARE(records_text(g_keyboard->sent()), QStringLiteral("v17 v18 v75 ^17 ^18 ^75 v77 ^77"));
        QVERIFY(g_keyboard->down().none());
    }

    // Presses that come and go between two polls, as X11 reports them
    // (every change) and as Windows does (the keys pressed since the last
    // read): each listener whose exact combination was down sees one held
    // and one released edge. Windows cannot tell two taps of one key apart.
    void taps_between_polls_data()
    {
        QTest::addColumn<bool>("windows");
        QTest::addColumn<QString>("hotkey");
        QTest::addColumn<QList<int>>("held");
        QTest::addColumn<QString>("changes");
        QTest::addColumn<QList<bool>>("calls");
        const QList<bool> once{true, false};
        for (bool windows : {false, true}) {
            const char *style = windows ? "windows: " : "x11: ";
            auto row = [&](const char *name) -> QTestData & { return QTest::newRow((QByteArray(style) + name).constData()); };
            row("tap") << windows << "Ctrl+K" << QList<int>{} << "v17 v75 ^75 ^17" << once;
            row("tap, modifier up first") << windows << "Ctrl+K" << QList<int>{} << "v17 v75 ^17 ^75" << once;
            row("extra shift") << windows << "Ctrl+K" << QList<int>{} << "v17 v16 v75 ^75 ^16 ^17" << QList<bool>{};
            row("its own shift") << windows << "Ctrl+Shift+K" << QList<int>{} << "v17 v16 v75 ^75 ^16 ^17" << once;
            // xdotool's order: a release that leaves Ctrl+K for a moment.
            row("shift let go first") << windows << "Ctrl+K" << QList<int>{} << "v17 v16 v75 ^16 ^17 ^75"
                                      << QList<bool>{};
            row("shift let go, ctrl+k stays") << windows << "Ctrl+K" << QList<int>{} << "v17 v16 v75 ^16"
                                              << QList<bool>{true};
            row("modifier held") << windows << "Ctrl+K" << QList<int>{17} << "v75 ^75" << once;
            row("other key") << windows << "Ctrl+K" << QList<int>{} << "v17 v76 ^76 ^17" << QList<bool>{};
            row("modifiers only") << windows << "Alt+" << QList<int>{} << "v18 ^18" << once;
            row("pressed, not let go") << windows << "K" << QList<int>{} << "v75" << QList<bool>{true};
        }
        QTest::newRow("x11: two taps") << false << "K" << QList<int>{} << "v75 ^75 v75 ^75"
                                       << QList<bool>{true, false, true, false};
        QTest::newRow("windows: two taps look like one") << true << "K" << QList<int>{} << "v75 ^75 v75 ^75" << once;
    }
    void taps_between_polls()
    {
        QFETCH(bool, windows);
        QFETCH(QString, hotkey);
        QFETCH(QList<int>, held);
        QFETCH(QString, changes);
        QFETCH(QList<bool>, calls);
        g_keyboard->set_windows_edges(windows);
        for (int vk : held)
            g_keyboard->press(std::uint32_t(vk));
        HotkeyPoller &poller = HotkeyPoller::instance();
        Calls seen;
        const std::uint64_t id = poller.add(parse(hotkey.toUtf8().constData()), seen.callback());
        wait_polls(3);
        g_keyboard->apply(records_of(changes));
        wait_polls(3);
        poller.remove(id);
        QCOMPARE(seen.take(), calls);
    }

    // The keys the program sends never fire its own listeners, modifiers
    // included, while the user's own presses of the same keys do, even
    // right after the program's.
    void injections_never_echo_data()
    {
        QTest::addColumn<QString>("hotkey");    // the listener
        QTest::addColumn<QList<int>>("held");   // by the user throughout
        QTest::addColumn<QString>("injected");  // five presses of it
        QTest::addColumn<QString>("user");      // changes the user makes after each press
        QTest::addColumn<QList<bool>>("calls"); // besides a held edge for `held`
        QTest::addColumn<int>("poll_ms");
        const QList<bool> none;
        QTest::newRow("same combination") << "Ctrl+K" << QList<int>{} << "Ctrl+K" << "" << none << 1;
        QTest::newRow("polling without pause") << "Ctrl+K" << QList<int>{} << "Ctrl+K" << "" << none << 0;
        QTest::newRow("modifier of it") << "Ctrl+" << QList<int>{} << "Ctrl+K" << "" << none << 1;
        QTest::newRow("other combination while held") << "Ctrl+K" << QList<int>{17, 75} << "Alt+J" << "" << none << 1;
        QTest::newRow("same key while its modifier is held") << "Ctrl+K" << QList<int>{17} << "Ctrl+K" << "" << none << 1;
        QList<bool> five;
        for (int i = 0; i < 5; ++i)
            five << true << false;
        QTest::newRow("user presses the same key right after") << "J" << QList<int>{} << "J" << "v74 ^74" << five << 1;
        QTest::newRow("user presses it with a modifier") << "Ctrl+J" << QList<int>{} << "J" << "v17 v74 ^74 ^17"
                                                          << five << 1;
    }
    void injections_never_echo()
    {
        QFETCH(QString, hotkey);
        QFETCH(QList<int>, held);
        QFETCH(QString, injected);
        QFETCH(QString, user);
        QFETCH(QList<bool>, calls);
        QFETCH(int, poll_ms);
        HotkeyPoller &poller = HotkeyPoller::instance();
        KeyInjector &injector = KeyInjector::instance();
        poller.set_poll_interval(poll_ms);
        Calls seen;
        const std::uint64_t id = poller.add(parse(hotkey.toUtf8().constData()), seen.callback());
        for (int vk : held)
            g_keyboard->press(std::uint32_t(vk));
        wait_polls(3);
        const QList<bool> before = seen.take();
        const std::vector<KeyRecord> changes = records_of(user);
        for (int i = 0; i < 5; ++i) {
            injector.queue({nullptr, parse(injected.toUtf8().constData()), 5, {},
                            [&] { g_keyboard->apply(changes); }, {}});
            QVERIFY(injector.wait_idle(5000));
            wait_polls(3);
        }
        poller.remove(id);
        poller.set_poll_interval(1);
        QCOMPARE(seen.take(), calls);
        QCOMPARE(before, matches(parse(hotkey.toUtf8().constData()), g_keyboard->down()) ? QList<bool>{true}
                                                                                         : QList<bool>{});
        QCOMPARE(InjectionLedger::instance().outstanding(), 0);
    }

    // A press held for long lets the presses queued after it run; pausing
    // (cancel_all) lets go of it at once and drops what waits, telling
    // each dropped job. The queue refuses jobs beyond its bound, with one
    // warning.
    void long_holds_bound_and_cancel_all()
    {
        KeyInjector &injector = KeyInjector::instance();
        injector.set_queue_limit(3);
        std::atomic<int> finished{0};
        std::atomic<int> dropped{0};
        std::atomic<bool> held{false};
        injector.queue({nullptr, parse("F1"), 60000, [&] { held = true; }, [&] { ++finished; }, [&] { ++dropped; }});
        QTRY_VERIFY(held.load());
        injector.queue({nullptr, parse("F2"), 0, {}, [&] { ++finished; }, [&] { ++dropped; }});
        QTRY_COMPARE(finished.load(), 1);
        QCOMPARE(records_text(g_keyboard->sent()), QStringLiteral("v112 v113 ^113"));
        // F1 again waits for the held F1; so does what follows it.
        for (int i = 0; i < 3; ++i)
            QVERIFY(injector.queue({nullptr, parse("F1"), 0, {}, [&] { ++finished; }, [&] { ++dropped; }}));
        QTest::ignoreMessage(QtWarningMsg, "More than 3 key presses are waiting; further ones are dropped");
        QCOMPARE(injector.queue({nullptr, parse("F3"), 0, {}, {}, {}}), std::uint64_t(0));
        QCOMPARE(injector.queue({nullptr, parse("F3"), 0, {}, {}, {}}), std::uint64_t(0)); // said once
        QElapsedTimer clock;
        clock.start();
        injector.cancel_all();
        QVERIFY(clock.elapsed() < 1000);
        QVERIFY(g_keyboard->down().none());
        QCOMPARE(dropped.load(), 4); // the held F1 and the three waiting
        QCOMPARE(finished.load(), 1);
        QVERIFY(injector.wait_idle(1000));
        QCOMPARE(records_text(g_keyboard->sent()), QStringLiteral("v112 v113 ^113 ^112"));
        injector.set_queue_limit(KeyInjector::kDefaultQueueLimit);
    }

    // Characters are read through the layout of the desktop, asked once;
    // named keys and characters it has no key for through the key table.
    void hotkey_text_through_the_layout_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<Hotkey>("hotkey");
        QTest::newRow("swapped letter") << "Ctrl+Z" << Hotkey{'Y', kCtrlBit};
        QTest::newRow("lower case letter") << "Ctrl+y" << Hotkey{'Z', kCtrlBit};
        QTest::newRow("letter of the layout only") << "Alt+\u00e4" << Hotkey{0xDE, kAltBit};
        QTest::newRow("shifted in the layout") << "\"" << Hotkey{'2', kShiftBit};
        QTest::newRow("same in both") << "Ctrl+K" << Hotkey{'K', kCtrlBit};
        QTest::newRow("named key") << "Shift+F5" << Hotkey{0x74, kShiftBit};
        QTest::newRow("no key in the layout") << "Ctrl+;" << Hotkey{0xBA, kCtrlBit};
        QTest::newRow("nowhere") << "Ctrl+\u20ac" << Hotkey{0xffff, 0xffff};
    }
    void hotkey_text_through_the_layout()
    {
        QFETCH(QString, text);
        QFETCH(Hotkey, hotkey);
        int made = 0;
        set_backend_factory([&made] {
            ++made;
            return std::unique_ptr<KeyboardBackend>(new LayoutBackend);
        });
        const QByteArray utf8 = text.toUtf8();
        const Hotkey first = parse(utf8.constData());
        const Hotkey again = parse(utf8.constData());
        set_backend_factory([] { return g_keyboard->make_backend(); });
        QCOMPARE(first, hotkey);
        QCOMPARE(again, hotkey);
        QCOMPARE(made, 1);
    }

    // Without any X11 display (a Wayland session without XWayland) there is
    // no backend, which is said once; hotkey text still reads (US layout).
    void no_display_is_reported_once()
    {
        if (QSysInfo::kernelType() == QLatin1StringView("winnt"))
            QSKIP("Windows always offers the desktop's keyboard and windows");
        const QByteArray display = qgetenv("DISPLAY");
        qunsetenv("DISPLAY");
        qputenv("WAYLAND_DISPLAY", "wayland-0");
        set_backend_factory({});
        QTest::ignoreMessage(QtWarningMsg, "Global keyboard input is not available: this Wayland session offers "
                                           "no X11 display (DISPLAY is not set); hotkey nodes stay idle");
        QVERIFY(!open_backend());
        QVERIFY(!open_backend());
        QCOMPARE(hotkey_from_text("Ctrl+Shift+K"), Hotkey('K', kCtrlBit | kShiftBit));
        set_backend_factory([] { return g_keyboard->make_backend(); });
        qunsetenv("WAYLAND_DISPLAY");
        if (!display.isNull())
            qputenv("DISPLAY", display);
    }

    // Shutting down in the middle of a hold releases what was pressed.
    void shutdown_releases()
    {
        KeyInjector &injector = KeyInjector::instance();
        std::atomic<bool> started{false};
        injector.queue({nullptr, parse("Ctrl+Shift+Z"), 60000, [&] { started = true; }, {}, {}});
        QTRY_VERIFY(started.load());
        QVERIFY(g_keyboard->down()[kVkControl]);
        KeyInjector::shutdown();
        QVERIFY(g_keyboard->down().none());
        QCOMPARE(injector.queue({nullptr, parse("A"), 0, {}, {}, {}}), std::uint64_t(0));
        HotkeyPoller::shutdown();
    }
};

QTEST_GUILESS_MAIN(TstInput)
#include "tst_input.moc"
