// The hotkey nodes against a real X server (run under Xvfb): key events
// from xdotool fire an on-hotkey node's children, however short, and never
// the program's own presses; a trigger-hotkey node's presses reach another
// X client as real key events and stop when the racks pause; the active
// window node sees which of two X clients has the keyboard.

#include "input/hotkey_poller.h"
#include "input/key_injector.h"
#include "input/keyboard_backend.h"
#include "node_rig.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QLineEdit>
#include <QProcess>
#include <QScopeGuard>
#include <QTest>
#include <QWidget>

#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>
#include <X11/keysym.h>

#include <cstdio>

using model::Value;
using namespace corv::input;

namespace {

// Runs xdotool with the arguments; true when it succeeded.
bool xdotool(const QStringList &arguments)
{
    QProcess process;
    process.start(QStringLiteral("xdotool"), arguments);
    return process.waitForFinished(5000) && process.exitCode() == 0;
}

// Holds a combination for several polls, then lets go.
void hold(const QString &keys)
{
    QVERIFY(xdotool({QStringLiteral("keydown"), keys}));
    QTest::qWait(120);
    QVERIFY(xdotool({QStringLiteral("keyup"), keys}));
    QTest::qWait(60);
}

// The server's key state, read through a connection of its own.
KeySet server_keys()
{
    NativeOpening opening = open_native_backend();
    KeySet down;
    if (opening.backend)
        opening.backend->snapshot(down, KeySet().set());
    return down;
}

// Gives the keyboard to the window with this title (no window manager
// here: the input focus is what counts).
bool focus_window(const QString &title)
{
    return xdotool({QStringLiteral("search"), QStringLiteral("--name"), title, QStringLiteral("windowfocus"),
                    QStringLiteral("--sync")});
}

// Presses and releases keys through XTest on a connection of its own,
// from any thread: a user at the keyboard.
void user_tap(KeySym keysym)
{
    Display *display = XOpenDisplay(nullptr);
    if (!display)
        return;
    const KeyCode code = XKeysymToKeycode(display, keysym);
    XTestFakeKeyEvent(display, code, True, CurrentTime);
    XTestFakeKeyEvent(display, code, False, CurrentTime);
    XSync(display, False);
    XCloseDisplay(display);
}

} // namespace

class TstHotkeyX11 : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(open_native_backend().backend); }

    void init() { fail_on_warnings(); }

    // Exact matching on real key events: Ctrl+Shift+K fires only its own
    // node, Ctrl+K only its own, each once per press however long held.
    void key_events_fire_children()
    {
        Rig rig;
        const QUuid rack = rig.add_rack(QStringLiteral("R"));
        const QUuid plain = rig.add_node(rack, "io.marrowfield.onhotkey", {{"!hotkey", text("Ctrl+K")}});
        rig.add_probe(plain, QStringLiteral("ctrl-k"));
        const QUuid shifted = rig.add_node(rack, "io.marrowfield.onhotkey", {{"!hotkey", text("Ctrl+Shift+K")}});
        rig.add_probe(shifted, QStringLiteral("ctrl-shift-k"));
        rig.open();
        hold(QStringLiteral("ctrl+shift+k"));
        QTRY_COMPARE(rig.hits().size(), 1);
        QCOMPARE(rig.hits()[0].at, QStringLiteral("ctrl-shift-k"));
        hold(QStringLiteral("ctrl+k"));
        QTRY_COMPARE(rig.hits().size(), 2);
        QCOMPARE(rig.hits()[1].at, QStringLiteral("ctrl-k"));
        QCOMPARE(rig.hits()[1].keys, QByteArray("hotkey=Ctrl+K;state=pressed"));
        hold(QStringLiteral("super+F5")); // no listener for it
        Rig::wait(50);
        QCOMPARE(rig.hits().size(), 2);
    }

    // Taps with no hold at all (xdotool key --delay 0: each press released
    // at once, all 20 back to back) are each seen once, by the exact
    // combination only.
    void quick_taps_data()
    {
        QTest::addColumn<QString>("keys");
        QTest::addColumn<int>("ctrl_k");
        QTest::addColumn<int>("ctrl_shift_k");
        QTest::newRow("ctrl+k") << "ctrl+k" << 20 << 0;
        QTest::newRow("ctrl+shift+k") << "ctrl+shift+k" << 0 << 20;
        QTest::newRow("shift+k") << "shift+k" << 0 << 0;
    }
    void quick_taps()
    {
        QFETCH(QString, keys);
        QFETCH(int, ctrl_k);
        QFETCH(int, ctrl_shift_k);
        Rig rig;
        const QUuid rack = rig.add_rack(QStringLiteral("R"));
        rig.add_probe(rig.add_node(rack, "io.marrowfield.onhotkey", {{"!hotkey", text("Ctrl+K")}}),
                      QStringLiteral("ctrl-k"));
        rig.add_probe(rig.add_node(rack, "io.marrowfield.onhotkey", {{"!hotkey", text("Ctrl+Shift+K")}}),
                      QStringLiteral("ctrl-shift-k"));
        rig.open();
        Rig::wait(50);
        QStringList arguments{QStringLiteral("key"), QStringLiteral("--delay"), QStringLiteral("0")};
        for (int i = 0; i < 20; ++i)
            arguments << keys;
        QVERIFY(xdotool(arguments));
        QTRY_COMPARE(rig.seen(QStringLiteral("ctrl-k")).size(), ctrl_k);
        QTRY_COMPARE(rig.seen(QStringLiteral("ctrl-shift-k")).size(), ctrl_shift_k);
        const std::uint64_t polls = HotkeyPoller::instance().poll_count();
        QTRY_VERIFY(HotkeyPoller::instance().poll_count() > polls + 3);
        Rig::turns(5);
        QCOMPARE(rig.seen(QStringLiteral("ctrl-k")).size(), ctrl_k);
        QCOMPARE(rig.seen(QStringLiteral("ctrl-shift-k")).size(), ctrl_shift_k);
    }

    // "On Ctrl+K -> Press Alt+J" held for 2 s presses once: its own Alt and
    // J never make Ctrl+K look new. A user's J right after a press of J by
    // the program still fires a J hotkey, once.
    void own_presses_never_echo()
    {
        KeyInjector::instance().set_gap(50);
        Rig rig;
        const QUuid rack = rig.add_rack(QStringLiteral("R"));
        const QUuid on = rig.add_node(rack, "io.marrowfield.onhotkey", {{"!hotkey", text("Ctrl+K")}});
        rig.add_probe(on, QStringLiteral("ctrl-k"));
        rig.add_node(on, "io.marrowfield.triggerhotkey", {{"!hotkey", text("Alt+J")}});
        const QUuid j_rack = rig.add_rack(QStringLiteral("J"));
        rig.add_probe(rig.add_node(j_rack, "io.marrowfield.onhotkey", {{"!hotkey", text("J")}}),
                      QStringLiteral("j"));
        rig.open();
        Rig::wait(50);
        QVERIFY(xdotool({QStringLiteral("keydown"), QStringLiteral("ctrl+k")}));
        Rig::wait(2000);
        QVERIFY(xdotool({QStringLiteral("keyup"), QStringLiteral("ctrl+k")}));
        QVERIFY(KeyInjector::instance().wait_idle(2000));
        Rig::wait(100);
        QCOMPARE(rig.seen(QStringLiteral("ctrl-k")).size(), 1);

        // The program presses J; the user taps J the moment it is let go.
        KeyInjector::instance().queue({nullptr, Hotkey{'J', 0}, 30, {}, [] { user_tap(XK_j); }, {}});
        QVERIFY(KeyInjector::instance().wait_idle(2000));
        QTRY_COMPARE(rig.seen(QStringLiteral("j")).size(), 1);
        Rig::wait(100);
        QCOMPARE(rig.seen(QStringLiteral("j")).size(), 1);
        QVERIFY(server_keys().none());
    }

    // Pausing every rack in the middle of a 60 s press lets go of it
    // before the pause returns; disabling the rack would not have.
    void pause_releases_held_keys()
    {
        Rig rig;
        const QUuid rack = rig.add_rack(QStringLiteral("R"));
        rig.add_node(rack, "io.marrowfield.triggerhotkey",
                     {{"!hotkey", text("Ctrl+Shift+L")}, {"!seconds", Value::floating(60.0)}});
        rig.open();
        rig.post(rack, "e");
        QTRY_VERIFY(server_keys()['L']);
        rig.project.find_rack(rack)->set_enabled(false);
        Rig::wait(50);
        QVERIFY(server_keys()['L']);
        QElapsedTimer clock;
        clock.start();
        rig.runtime->set_paused(true);
        QVERIFY(server_keys().none());
        QVERIFY2(clock.elapsed() < HotkeyPoller::instance().poll_interval() + 100,
                 QByteArray::number(clock.elapsed()).constData());
        QVERIFY(KeyInjector::instance().wait_idle(1000));
    }

    // Two X clients: the node passes events only while the one whose title
    // matches has the keyboard, and names the window and its program.
    void active_window_filter()
    {
        QWidget alpha;
        alpha.setWindowTitle(QStringLiteral("Alpha notes"));
        alpha.resize(200, 100);
        alpha.show();
        QVERIFY(QTest::qWaitForWindowExposed(&alpha));
        QProcess beta;
        beta.start(QCoreApplication::applicationFilePath(),
                   {QStringLiteral("--show-window"), QStringLiteral("Beta viewer")});
        QVERIFY(beta.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(xdotool({QStringLiteral("search"), QStringLiteral("--name"),
                                          QStringLiteral("Beta viewer")}),
                                 10000);

        Rig rig;
        const QUuid rack = rig.add_rack(QStringLiteral("R"));
        rig.add_probe(rig.add_node(rack, "io.marrowfield.activewindow", {{"!pattern", text("^alpha")}}),
                      QStringLiteral("alpha"));
        rig.open();
        struct Step {
            const char *focus;
            int passed;
        };
        for (const Step &step : {Step{"Beta viewer", 0}, Step{"Alpha notes", 1}, Step{"Beta viewer", 1},
                                 Step{"Alpha notes", 2}}) {
            QVERIFY(focus_window(QString::fromLatin1(step.focus)));
            rig.post(rack, step.focus);
            Rig::turns(5);
            QCOMPARE(rig.seen(QStringLiteral("alpha")).size(), step.passed);
        }
        const Hit hit = rig.hits_at(QStringLiteral("alpha")).constLast();
        QVERIFY2(hit.keys.contains("window=Alpha notes;"), hit.keys.constData());
        QVERIFY2(hit.keys.contains("program=" + QCoreApplication::applicationFilePath().toUtf8()),
                 hit.keys.constData());
        beta.kill();
        beta.waitForFinished();
    }

    // Another layout: a key that now types F11 fires a Ctrl+F11 hotkey.
    void layout_changes_are_followed()
    {
        Rig rig;
        const QUuid rack = rig.add_rack(QStringLiteral("R"));
        const QUuid on = rig.add_node(rack, "io.marrowfield.onhotkey", {{"!hotkey", text("Ctrl+F11")}});
        rig.add_probe(on, QStringLiteral("f11"));
        rig.open();
        Rig::wait(50);

        Display *display = XOpenDisplay(nullptr);
        QVERIFY(display);
        const KeyCode f8 = XKeysymToKeycode(display, XK_F8);
        const KeyCode control = XKeysymToKeycode(display, XK_Control_L);
        KeySym f11[] = {XK_F11, XK_F11};
        XChangeKeyboardMapping(display, f8, 2, f11, 1);
        XSync(display, False);
        Rig::wait(50);
        XTestFakeKeyEvent(display, control, True, CurrentTime);
        XTestFakeKeyEvent(display, f8, True, CurrentTime);
        XSync(display, False);
        Rig::wait(100);
        XTestFakeKeyEvent(display, f8, False, CurrentTime);
        XTestFakeKeyEvent(display, control, False, CurrentTime);
        KeySym back[] = {XK_F8, XK_F8};
        XChangeKeyboardMapping(display, f8, 2, back, 1);
        XCloseDisplay(display);
        QTRY_COMPARE(rig.seen(QStringLiteral("f11")).size(), 1);
    }

    // A key with several keysyms goes down on its first one's key: Alt on
    // Alt_L (not AltGr), Shift on the left Shift, Return not on the keypad.
    void keys_press_their_own_key()
    {
        const NativeOpening opening = open_native_backend();
        Display *display = XOpenDisplay(nullptr);
        const auto cleanup = qScopeGuard([display] { XCloseDisplay(display); });
        for (const auto &[vk, keysym] : {std::pair(kVkAlt, XK_Alt_L), std::pair(kVkShift, XK_Shift_L),
                                        std::pair(kVkControl, XK_Control_L), std::pair(0x0Du, XK_Return)}) {
            const KeyRecord down{vk, false}, up{vk, true};
            QVERIFY(opening.backend->send(&down, 1));
            char keys[32];
            XQueryKeymap(display, keys);
            QVERIFY(opening.backend->send(&up, 1));
            const KeyCode code = XKeysymToKeycode(display, keysym);
            QVERIFY2(keys[code / 8] & (1 << (code % 8)), XKeysymToString(keysym));
        }
    }

    // Presses of a rack arrive in another client's focused line edit.
    void presses_reach_other_clients()
    {
        QLineEdit edit;
        edit.show();
        edit.activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(&edit));
        edit.setFocus();
        Rig rig;
        const QUuid rack = rig.add_rack(QStringLiteral("R"));
        for (const char *hotkey : {"Shift+H", "I", "Shift+1"})
            rig.add_node(rack, "io.marrowfield.triggerhotkey",
                         {{"!hotkey", text(hotkey)}, {"!seconds", Value::floating(0.02)}, {"mode", Value::integer(2)}});
        rig.add_probe(rack, QStringLiteral("done"));
        rig.open();
        rig.post(rack, "e");
        QTRY_COMPARE_WITH_TIMEOUT(rig.seen(QStringLiteral("done")).size(), 1, 5000);
        QTRY_COMPARE(edit.text(), QStringLiteral("Hi!"));
        QVERIFY(server_keys().none());
    }

    // 900 presses of Ctrl+K while the user holds Ctrl: Ctrl is never
    // let go by them, nothing else stays down, and Corvane's own Ctrl+K
    // listener never fires.
    void many_presses_leave_no_modifier()
    {
        KeyInjector::instance().set_gap(0);
        Rig rig;
        const QUuid rack = rig.add_rack(QStringLiteral("R"));
        const QUuid listener = rig.add_node(rack, "io.marrowfield.onhotkey", {{"!hotkey", text("Ctrl+K")}});
        rig.add_probe(listener, QStringLiteral("listener"));
        rig.add_node(rack, "io.marrowfield.triggerhotkey",
                     {{"!hotkey", text("Ctrl+K")}, {"!seconds", Value::floating(0.0)}, {"mode", Value::integer(2)}});
        rig.add_probe(rack, QStringLiteral("pressed"));
        rig.open();
        QVERIFY(xdotool({QStringLiteral("keydown"), QStringLiteral("ctrl")}));
        Rig::wait(50);
        for (int i = 0; i < 900; ++i) // fewer than the injector's queue takes
            rig.post(rack, "e");
        Rig::turns(50);
        QTRY_COMPARE_WITH_TIMEOUT(rig.seen(QStringLiteral("pressed")).size(), 900, 60000);
        QVERIFY(KeyInjector::instance().wait_idle(1000));
        Rig::wait(60);
        const KeySet during = server_keys();
        QVERIFY(xdotool({QStringLiteral("keyup"), QStringLiteral("ctrl")}));
        QVERIFY(during[kVkControl]);
        KeySet others = during;
        others.reset(kVkControl);
        QVERIFY2(others.none(), others.to_string().c_str());
        QVERIFY(server_keys().none());
        QCOMPARE(rig.seen(QStringLiteral("listener")).size(), 0);
        KeyInjector::instance().set_gap(50);
    }
};

// Presses keys, so it runs only on a private X server: started on its own
// (outside CTest) it runs itself again through tests/xvfb-run-test.sh.
int main(int argc, char *argv[])
{
    // A second X client for the active window test: one titled window.
    if (argc == 3 && qstrcmp(argv[1], "--show-window") == 0) {
        qputenv("QT_QPA_PLATFORM", "xcb");
        QApplication app(argc, argv);
        QWidget window;
        window.setWindowTitle(QString::fromLocal8Bit(argv[2]));
        window.resize(200, 100);
        window.show();
        return app.exec();
    }
    if (qEnvironmentVariableIsEmpty("CORV_XVFB")) {
        QCoreApplication app(argc, argv);
        QStringList arguments = app.arguments();
        const QString self = arguments.takeFirst();
        QProcess process;
        process.setProcessChannelMode(QProcess::ForwardedChannels);
        process.start(QStringLiteral(CORV_XVFB_RUN), QStringList{self} + arguments);
        if (!process.waitForStarted() || !process.waitForFinished(-1)) {
            std::fprintf(stderr, "could not run %s\n", CORV_XVFB_RUN);
            return 1;
        }
        return process.exitCode();
    }
    qputenv("QT_QPA_PLATFORM", "xcb");
    QApplication app(argc, argv);
    TstHotkeyX11 test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}
#include "tst_hotkey_x11.moc"
