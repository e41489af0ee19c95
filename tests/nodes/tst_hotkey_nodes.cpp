// The hotkey nodes in real racks over the in-memory keyboard: names,
// decorations, the on-hotkey event, the trigger's wait modes, the release
// of a press whose node goes away or whose racks pause, and what is left
// without global keyboard input or a display.

#include "input/fake_backend.h"
#include "input/hotkey_poller.h"
#include "input/key_injector.h"
#include "input/platform.h"
#include "node_rig.h"
#include "widgets/rack_panel_view_model.h"

#include <QRegularExpression>
#include <QSysInfo>
#include <QTest>

using model::Value;
using namespace corv::input;

namespace {

std::shared_ptr<FakeKeyboard> g_keyboard;

} // namespace

class TstHotkeyNodes : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        g_keyboard = std::make_shared<FakeKeyboard>();
        set_backend_factory([] { return g_keyboard->make_backend(); });
        HotkeyPoller::instance().set_poll_interval(1);
        KeyInjector::instance().set_gap(0);
    }

    void init()
    {
        fail_on_warnings();
        g_keyboard->release_all();
        g_keyboard->clear_sent();
    }

    void names_and_decorations_data()
    {
        QTest::addColumn<QByteArray>("type");
        QTest::addColumn<QByteArray>("hotkey"); // empty: not set
        QTest::addColumn<double>("seconds");    // < 0: not set
        QTest::addColumn<int>("mode");          // < 0: not set
        QTest::addColumn<QString>("name");
        QTest::addColumn<quint32>("decoration");
        const QByteArray on("io.marrowfield.onhotkey");
        const QByteArray trigger("io.marrowfield.triggerhotkey");
        QTest::newRow("on-hotkey unset") << on << QByteArray() << -1.0 << -1 << "On Hotkey" << 41u;
        QTest::newRow("on-hotkey") << on << QByteArray("Ctrl+K") << -1.0 << -1 << "On Ctrl+K" << 41u;
        QTest::newRow("trigger unset") << trigger << QByteArray() << -1.0 << -1 << "Press Hotkey" << 35u;
        QTest::newRow("trigger") << trigger << QByteArray("Meta+F5") << 0.5 << -1 << "Press Meta+F5 for 0.5 s"
                                 << 35u;
        QTest::newRow("trigger waits") << trigger << QByteArray("Alt+X") << -1.0 << 2
                                       << "Press Alt+X for 0.05 s and wait" << 38u;
    }
    void names_and_decorations()
    {
        QFETCH(QByteArray, type);
        QFETCH(QByteArray, hotkey);
        QFETCH(double, seconds);
        QFETCH(int, mode);
        QFETCH(QString, name);
        QFETCH(quint32, decoration);
        Settings settings;
        if (!hotkey.isEmpty())
            settings.append({QStringLiteral("!hotkey"), Value::string(hotkey)});
        if (seconds >= 0)
            settings.append({QStringLiteral("!seconds"), Value::floating(seconds)});
        if (mode >= 0)
            settings.append({QStringLiteral("mode"), Value::integer(mode)});
        Rig rig;
        const QUuid node = rig.add_node(rig.add_rack(QStringLiteral("R")), type.constData(), settings);
        rig.open();
        Rig::turns(2);
        QCOMPARE(rig.name(node), name);
        QCOMPARE(rig.decoration(node), decoration);
    }

    // The pressed edge starts one event in the children, whose keys name
    // the hotkey; holding and letting go start nothing more. An edit of
    // the hotkey moves the listener.
    void on_hotkey_starts_event()
    {
        Rig rig;
        const QUuid rack = rig.add_rack(QStringLiteral("R"));
        const QUuid on = rig.add_node(rack, "io.marrowfield.onhotkey", {{"!hotkey", text("Ctrl+Shift+K")}});
        rig.add_probe(on, QStringLiteral("child"));
        rig.add_probe(rack, QStringLiteral("after"));
        rig.open();
        QCOMPARE(HotkeyPoller::instance().listener_count(), 1);
        for (std::uint32_t vk : {kVkControl, kVkShift, std::uint32_t('K')})
            g_keyboard->press(vk);
        QTRY_COMPARE(rig.hits().size(), 2);
        Rig::wait(30);
        g_keyboard->release_all();
        Rig::wait(30);
        QCOMPARE(rig.hits().size(), 2);
        QCOMPARE(rig.hits()[0].at, QStringLiteral("child"));
        QCOMPARE(rig.hits()[0].keys, QByteArray("hotkey=Ctrl+Shift+K;state=pressed"));
        QCOMPARE(rig.hits()[1].at, QStringLiteral("after")); // handed back by the children

        rig.set(on, QStringLiteral("!hotkey"), text("F2"));
        Rig::turns(2);
        QCOMPARE(rig.name(on), QStringLiteral("On F2"));
        QCOMPARE(HotkeyPoller::instance().listener_count(), 1);
        g_keyboard->press(0x71);
        QTRY_COMPARE(rig.hits().size(), 4);
        rig.set(on, QStringLiteral("!hotkey"), text(""));
        Rig::turns(2);
        QCOMPARE(HotkeyPoller::instance().listener_count(), 0);
    }

    // Mode 0 passes the event on at once, mode 1 when the keys have gone
    // down, mode 2 once they are released; the press happens in all three.
    void trigger_wait_modes_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<int>("min_ms");
        QTest::addColumn<int>("max_ms");
        QTest::newRow("none") << 0 << 0 << 150;
        QTest::newRow("start") << 1 << 0 << 150;
        QTest::newRow("finish") << 2 << 300 << 2000;
    }
    void trigger_wait_modes()
    {
        QFETCH(int, mode);
        QFETCH(int, min_ms);
        QFETCH(int, max_ms);
        Rig rig;
        const QUuid rack = rig.add_rack(QStringLiteral("R"));
        rig.add_node(rack, "io.marrowfield.triggerhotkey",
                     {{"!hotkey", text("Ctrl+K")}, {"!seconds", Value::floating(0.3)}, {"mode", Value::integer(mode)}});
        rig.add_probe(rack, QStringLiteral("after"));
        rig.open();
        const qint64 start = rig.now();
        rig.post(rack, "e1");
        QTRY_COMPARE_WITH_TIMEOUT(rig.seen(QStringLiteral("after")), QList<QByteArray>{"e1"}, 3000);
        const qint64 took = rig.hits()[0].ms - start;
        QVERIFY2(took >= min_ms && took <= max_ms, QByteArray::number(took).constData());
        QVERIFY(KeyInjector::instance().wait_idle(3000));
        QCOMPARE(g_keyboard->sent().size(), std::size_t(4));
        QVERIFY(g_keyboard->down().none());
    }

    // Removing the node (closing the project) in the middle of a hold
    // releases at once and drops the waiting event.
    void closing_releases_held_keys()
    {
        {
            Rig rig;
            const QUuid rack = rig.add_rack(QStringLiteral("R"));
            rig.add_node(rack, "io.marrowfield.triggerhotkey",
                         {{"!hotkey", text("Ctrl+Alt+Delete")}, {"!seconds", Value::floating(60.0)},
                          {"mode", Value::integer(2)}});
            rig.add_probe(rack, QStringLiteral("after"));
            rig.open();
            rig.post(rack, "e1");
            rig.post(rack, "e2");
            QTRY_VERIFY(g_keyboard->down()[kVkAlt]);
        }
        QVERIFY(g_keyboard->down().none());
        QVERIFY(KeyInjector::instance().wait_idle(1000));
        QCOMPARE(g_keyboard->sent().size(), std::size_t(6));
    }

    // Pausing every rack lets go of a held press and drops the events that
    // wait for presses; the node presses again once resumed.
    void pause_drops_waiting_presses()
    {
        Rig rig;
        const QUuid rack = rig.add_rack(QStringLiteral("R"));
        rig.add_node(rack, "io.marrowfield.triggerhotkey",
                     {{"!hotkey", text("Ctrl+Alt+F9")}, {"!seconds", Value::floating(60.0)}, {"mode", Value::integer(2)}});
        rig.add_probe(rack, QStringLiteral("after"));
        rig.open();
        rig.post(rack, "e1");
        rig.post(rack, "e2");
        QTRY_VERIFY(g_keyboard->down()[kVkAlt]);
        rig.runtime->set_paused(true);
        QVERIFY(g_keyboard->down().none());
        QCOMPARE(KeyInjector::instance().pending(), 0);
        Rig::wait(30);
        QCOMPARE(rig.hits().size(), 0);
        rig.runtime->set_paused(false);
        rig.set(rig.project.find_rack(rack)->top_level()->ids().first(), QStringLiteral("!seconds"),
                Value::floating(0.0));
        Rig::turns(2);
        rig.post(rack, "e3");
        QTRY_COMPARE(rig.seen(QStringLiteral("after")), QList<QByteArray>{"e3"});
    }

    // Without any display: the hotkey nodes stay idle with the rack panel's
    // mark (their decoration unchanged, other nodes unmarked), and an
    // Active Window node says once that it sees no windows and passes
    // nothing; one with a broken expression says so. Each message comes once.
    void without_global_input_or_display()
    {
        if (QSysInfo::kernelType() == QLatin1StringView("winnt"))
            QSKIP("Windows always offers the desktop's keyboard and windows");
        const QByteArray display = qgetenv("DISPLAY");
        qunsetenv("DISPLAY");
        set_backend_factory({});
        QTest::ignoreMessage(QtWarningMsg, "Global keyboard input is not available: no X11 display (DISPLAY is not "
                                           "set); hotkey nodes stay idle");
        QTest::ignoreMessage(QtWarningMsg, "Active Window nodes cannot see the desktop's windows: no X11 display "
                                           "(DISPLAY is not set); they pass nothing");
        Rig rig;
        const QUuid rack = rig.add_rack(QStringLiteral("R"));
        const QUuid on = rig.add_node(rack, "io.marrowfield.onhotkey", {{"!hotkey", text("Ctrl+K")}});
        const QUuid trigger = rig.add_node(rack, "io.marrowfield.triggerhotkey", {{"!hotkey", text("Ctrl+K")}});
        const QUuid window = rig.add_node(rack, "io.marrowfield.activewindow", {{"!pattern", text(".")}});
        rig.add_probe(window, QStringLiteral("window"));
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression(QStringLiteral("^Active Window: invalid regular expression \"\\(\": .+")));
        rig.add_probe(rig.add_node(rack, "io.marrowfield.activewindow", {{"!pattern", text("(")}}),
                      QStringLiteral("window"));
        rig.open();
        Rig::turns(2);
        corv::widgets::RackPanelViewModel panel;
        panel.set_context({&rig.project, nullptr, rig.runtime.get(), &rig.registry});
        panel.set_rack(rack);
        for (const QUuid &id : {on, trigger, window}) {
            const QModelIndex row = panel.index_of(id);
            QCOMPARE(panel.data(row, corv::widgets::RackPanelViewModel::IdleRole).toString().isEmpty(), id == window);
        }
        QCOMPARE(rig.decoration(on), 41u);
        for (int i = 0; i < 3; ++i)
            rig.post(rack, "e");
        Rig::wait(50);
        QCOMPARE(rig.seen(QStringLiteral("window")).size(), 0);
        QVERIFY(KeyInjector::instance().wait_idle(3000));
        set_backend_factory([] { return g_keyboard->make_backend(); });
        if (!display.isNull())
            qputenv("DISPLAY", display);
    }
};

QTEST_GUILESS_MAIN(TstHotkeyNodes)
#include "tst_hotkey_nodes.moc"
