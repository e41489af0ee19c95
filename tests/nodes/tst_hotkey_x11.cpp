// The hotkey nodes against a real X server (run under Xvfb): key events
// from xdotool fire an on-hotkey node's children, and a trigger-hotkey
// node's presses reach another X client as real key events.

#include "input/hotkey_poller.h"
#include "input/key_injector.h"
#include "input/keyboard_backend.h"
#include "node_rig.h"

#include <QApplication>
#include <QLineEdit>
#include <QProcess>
#include <QTest>

#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>
#include <X11/keysym.h>

#include <cstdio>

using model::Value;
using namespace corv::input;

namespace {

Value text(const char *s)
{
    return Value::string(s);
}

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

    // 10,000 presses of Ctrl+K while the user holds Ctrl: Ctrl is never
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
        for (int i = 0; i < 10000; ++i)
            rig.post(rack, "e");
        Rig::turns(50);
        QTRY_COMPARE_WITH_TIMEOUT(rig.seen(QStringLiteral("pressed")).size(), 10000, 60000);
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
