// Runs the built executable the way a user does.

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalSocket>
#include <QProcess>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QTest>

#include "tests/test_files.h"
#include "tests/test_platform.h"

#include <csignal>
#include <functional>

#include <sys/types.h>
#include <unistd.h>

namespace {
constexpr int kTimeoutMs = 30000;
using corv::test::read_file;
using corv::test::write_file;
}

class tst_Corvane : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_home;

    QString logs() const { return m_home->path() + QStringLiteral("/data/Corvane/logs"); }

    // Starts the executable with its own, empty home and data folders on the
    // given platform, with no display to connect to, and its control socket
    // in the test's folder; adjust changes that environment further.
    void start(QProcess &process, const QStringList &arguments, const QString &platform,
               const QString &program = QStringLiteral(CORVANE_EXECUTABLE),
               const std::function<void(QProcessEnvironment &)> &adjust = {})
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        const QString home = m_home->path();
        env.insert(QStringLiteral("HOME"), home);
        env.insert(QStringLiteral("XDG_DATA_HOME"), home + QStringLiteral("/data"));
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), home + QStringLiteral("/config"));
        env.insert(QStringLiteral("XDG_CACHE_HOME"), home + QStringLiteral("/cache"));
        env.insert(QStringLiteral("XDG_RUNTIME_DIR"), home); // QTemporaryDir is private (0700)
        env.insert(QStringLiteral("CORV_TEST_CONTROL_DIR"), home);
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), platform);
        for (const char *name : {"QT_MESSAGE_PATTERN", "DISPLAY", "WAYLAND_DISPLAY"})
            env.remove(QString::fromLatin1(name));
        if (adjust)
            adjust(env);
        process.setProcessEnvironment(env);
        process.start(program, arguments);
    }

    // Runs `corvane --post news who=test` and returns its exit code.
    int post(const std::function<void(QProcessEnvironment &)> &adjust = {})
    {
        QProcess process;
        start(process, {QStringLiteral("--post"), QStringLiteral("news"), QStringLiteral("who=test")},
              QStringLiteral("offscreen"), QStringLiteral(CORVANE_EXECUTABLE), adjust);
        if (!process.waitForFinished(kTimeoutMs))
            return -1;
        return process.exitCode();
    }

    // Starts a run and reads its console until start-up is complete.
    QByteArray start_until_ready(QProcess &process, const QStringList &arguments,
                                 const QString &platform = QStringLiteral("offscreen"),
                                 const QString &program = QStringLiteral(CORVANE_EXECUTABLE))
    {
        start(process, arguments, platform, program);
        QByteArray console;
        QElapsedTimer timer;
        timer.start();
        while (!console.contains("Initialization complete; starting UI") && timer.elapsed() < kTimeoutMs &&
               process.state() != QProcess::NotRunning) {
            process.waitForReadyRead(100);
            console += process.readAllStandardError();
        }
        return console;
    }

    // Stops a run with SIGTERM and returns the rest of its console.
    static QByteArray stop(QProcess &process)
    {
        corv::test::ask_to_stop(process, SIGTERM);
        process.waitForFinished(kTimeoutMs);
        return process.readAllStandardError();
    }

    // The program's own copy in a folder of the test, with its locale files,
    // so that its "plugins" folder is the test's to fill.
    QString copy_program()
    {
        const QString folder = m_home->filePath(QStringLiteral("program"));
        const QString runtime = QFileInfo(QStringLiteral(CORVANE_EXECUTABLE)).absolutePath();
        QDir().mkpath(folder + QStringLiteral("/locale"));
        QFile::copy(QStringLiteral(CORVANE_EXECUTABLE), folder + QStringLiteral("/corvane"));
        QFile::copy(runtime + QStringLiteral("/locale.ini"), folder + QStringLiteral("/locale.ini"));
        for (const QString &name : QDir(runtime + QStringLiteral("/locale")).entryList(QDir::Files))
            QFile::copy(runtime + QStringLiteral("/locale/") + name, folder + QStringLiteral("/locale/") + name);
        return folder + QStringLiteral("/corvane");
    }

    // A project file of the test with the given body inside `project`.
    // The preferences of the application, holding these entries.
    void write_preferences(const QByteArray &entries)
    {
        write_file(m_home->filePath(QStringLiteral("data/Corvane/plugins/io.marrowfield.corvane/prefs.xml")),
                   "<?xml version=\"1.0\"?>\n<preferences version=\"1\">" + entries + "</preferences>\n");
    }

    QString write_project(const QString &name, const QByteArray &body)
    {
        const QString path = m_home->filePath(name);
        write_file(path, "<?xml version=\"1.0\"?>\n<project version=\"1\">\n" + body + "</project>\n");
        return path;
    }

private slots:
    void init()
    {
        QTest::failOnWarning(QRegularExpression(QStringLiteral(".*")));
        m_home = std::make_unique<QTemporaryDir>();
        QVERIFY(m_home->isValid());
        // Window runs would check for updates at start; there is no server.
        write_preferences("<prop key=\"updatecheck\" type=\"bool\">false</prop>");
    }

    void command_line_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exit_code");
        QTest::addColumn<QString>("out"); // a pattern for standard output
        QTest::addColumn<QString>("err"); // a pattern for standard error
        QTest::newRow("version") << QStringList{"--version"} << 0 << "^Corvane 0\\.9\\.4\n$" << "";
        QTest::newRow("help") << QStringList{"--help"} << 0 << "(?=.*--headless)(?=.*\\[project\\])" << "";
        QTest::newRow("unknown option, headless") << QStringList{"--headless", "--no-such-option"}
                                                  << 1 << "" << "no-such-option";
        QTest::newRow("unknown option, window") << QStringList{"--no-such-option"} << 1 << ""
                                                << "no-such-option";
        QTest::newRow("two projects") << QStringList{"--headless", "a.corv", "b.corv"} << 1 << ""
                                      << "at most one project";
        QTest::newRow("autosave without headless") << QStringList{"--autosave"} << 1 << ""
                                                   << "--autosave is for --headless runs";
        QTest::newRow("trace without headless") << QStringList{"--trace"} << 1 << "" << "--trace is for --headless";
        QTest::newRow("post without =") << QStringList{"--post", "box", "a=1", "plain"} << 1 << ""
                                        << "expected KEY=VALUE, got \"plain\"";
        QTest::newRow("post and headless") << QStringList{"--post", "box", "--headless"} << 1 << ""
                                           << "--post, --check and --headless can't be combined";
    }

    void command_line()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, exit_code);
        QFETCH(QString, out);
        QFETCH(QString, err);
        QProcess process;
        // Without a display for the answers; a refused window run may need one.
        start(process, arguments, QString::fromLatin1(exit_code ? "offscreen" : "xcb"));
        QVERIFY(process.waitForFinished(kTimeoutMs));
        QCOMPARE(process.exitStatus(), QProcess::NormalExit);
        QCOMPARE(process.exitCode() != 0, exit_code != 0);
        const QString stdout_text = QString::fromUtf8(process.readAllStandardOutput());
        const QString stderr_text = QString::fromUtf8(process.readAllStandardError());
        const auto dotall = QRegularExpression::DotMatchesEverythingOption;
        QVERIFY2(QRegularExpression(out, dotall).match(stdout_text).hasMatch(), qPrintable(stdout_text));
        QVERIFY2(QRegularExpression(err, dotall).match(stderr_text).hasMatch(), qPrintable(stderr_text));
        if (exit_code == 0)
            QVERIFY(!QFile::exists(logs())); // answered before logging starts
    }

    void stops_cleanly_on_signal_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("signal_number");
        QTest::addColumn<QString>("platform");
        QTest::addColumn<QString>("seen"); // a line the console must show
        // xcb without a display: creating a QGuiApplication would abort the run.
        QTest::newRow("headless, SIGTERM, no display") << QStringList{"--headless"} << int(SIGTERM)
                                                       << "xcb" << "";
        QTest::newRow("headless, SIGINT, no display") << QStringList{"--headless"} << int(SIGINT)
                                                      << "xcb" << "";
        QTest::newRow("window, SIGTERM") << QStringList{} << int(SIGTERM) << "offscreen" << "";
        // A project named on the command line runs from the start; a window
        // run goes on without one it can't read.
        QTest::newRow("headless, demo project") << QStringList{"--headless", "@demo"} << int(SIGTERM)
                                                << "xcb" << "Opened project ";
        // Hotkey nodes without any display: said once, and the run goes on.
        QTest::newRow("headless, hotkey project, no display")
            << QStringList{"--headless", "@hotkeys"} << int(SIGTERM) << "xcb"
            << "Global keyboard input is not available: no X11 display (DISPLAY is not set); hotkey nodes stay idle";
        QTest::newRow("window, damaged project")
            << QStringList{"@damaged"} << int(SIGTERM) << "offscreen"
            << "WARNING Couldn't Open Project: The file is not a Corvane project, or it is damaged.";
    }

    void stops_cleanly_on_signal()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, signal_number);
        QFETCH(QString, platform);
        QFETCH(QString, seen);
        for (QString &argument : arguments) {
            if (argument == QLatin1String("@demo")) {
                argument = QStringLiteral(CORV_TEST_SOURCE_DIR) + QStringLiteral("/examples/demo.corv");
            } else if (argument == QLatin1String("@damaged")) {
                argument = m_home->filePath(QStringLiteral("damaged.corv"));
                write_file(argument, "<project version=\"1\"><rack id=\"not-an-id\"/></project>");
            } else if (argument == QLatin1String("@hotkeys")) {
                argument = m_home->filePath(QStringLiteral("hotkeys.corv"));
                write_file(argument, R"(<project version="1">
 <rack id="5b0e3f7c-2a49-4c53-9a0e-6f1d2c3b4a51" name="Keys"><node>6c1f4a8d-3b5a-4d64-8b1f-7a2e3d4c5b62</node></rack>
 <node id="6c1f4a8d-3b5a-4d64-8b1f-7a2e3d4c5b62" component="io.marrowfield.onhotkey">
  <prop key="!hotkey" type="string">Ctrl+K</prop><node>7d2a5b9e-4c6b-4e75-9c2a-8b3f4e5d6c73</node></node>
 <node id="7d2a5b9e-4c6b-4e75-9c2a-8b3f4e5d6c73" component="io.marrowfield.triggerhotkey">
  <prop key="!hotkey" type="string">Alt+J</prop></node>
</project>)");
            }
        }
        QProcess process;
        start(process, arguments, platform);
        QVERIFY(process.waitForStarted(kTimeoutMs));
        // The log goes to the console as well as to the file.
        QByteArray console;
        QElapsedTimer timer;
        timer.start();
        while (!console.contains("Initialization complete; starting UI")) {
            QVERIFY2(timer.elapsed() < kTimeoutMs, console.constData());
            QVERIFY2(process.state() == QProcess::Running, console.constData());
            process.waitForReadyRead(100);
            console += process.readAllStandardError();
        }
        QVERIFY(corv::test::ask_to_stop(process, signal_number));
        QVERIFY(process.waitForFinished(kTimeoutMs));
        console += process.readAllStandardError();
        QCOMPARE(process.exitStatus(), QProcess::NormalExit);
        QCOMPARE(process.exitCode(), 0);
        QVERIFY2(console.contains("Shutting down with exit code 0, call again soon!"),
             console.constData());
        QVERIFY2(console.contains(seen.toUtf8()), console.constData());

        // One log file holding the whole run except the debug lines.
        const QStringList files = QDir(logs()).entryList(QDir::Files);
        QCOMPARE(files.size(), 1);
        QVERIFY(QRegularExpression(QStringLiteral("^\\d{4}-\\d\\d-\\d\\d \\d\\d-\\d\\d-\\d\\d\\.txt$"))
                    .match(files.first()).hasMatch());
        const QList<QByteArray> lines = read_file(logs() + u'/' + files.first()).trimmed().split('\n');
        QVERIFY(lines.size() >= 4);
        QVERIFY2(QRegularExpression(QStringLiteral("^\\[ *\\d+\\.\\d{3}\\] Corvane 0\\.9\\.4 "
                                                   "\\(64-bit\\) on .+ with CorvSDK v1$"))
                     .match(QString::fromUtf8(lines.at(0))).hasMatch(), lines.at(0).constData());
        QVERIFY(lines.at(1).endsWith("] Compiled on Qt " QT_VERSION_STR ", running on Qt "
                                     + QByteArray(qVersion())));
        QVERIFY(lines.constLast().endsWith("] Shutting down with exit code 0, call again soon!"));
        for (const QByteArray &line : lines)
            QVERIFY2(!line.contains("DEBUG "), line.constData());
    }

    // A headless run exists for its project: one it can't read ends it.
    void headless_unreadable_project_fails()
    {
        const QString damaged = write_project(QStringLiteral("damaged.corv"), "<rack id=\"not-an-id\"/>");
        QProcess process;
        start(process, {QStringLiteral("--headless"), damaged}, QStringLiteral("offscreen"));
        QVERIFY(process.waitForFinished(kTimeoutMs));
        const QByteArray console = process.readAllStandardError();
        QCOMPARE(process.exitCode(), 1);
        QVERIFY2(console.contains("(while parsing project; line 3)"), console.constData());
        QVERIFY2(console.contains("Couldn't Open Project: The file is not a Corvane project"), console.constData());
        QVERIFY2(console.endsWith("Shutting down with exit code 1, call again soon!\n"), console.constData());
        QVERIFY(!console.contains("Initialization complete"));
    }

    void plugin_folders_data()
    {
        QTest::addColumn<QString>("setup");
        QTest::addColumn<QStringList>("expected"); // log lines in this order
        QTest::addColumn<QString>("absent");
        const QStringList common{"Corvane 0.9.4 (64-bit) on ", "Compiled on Qt ",
                                 "Found plugin io.marrowfield.corvane: \"Corvane\" by Marrowfield (https://"};
        const QStringList end{"Initializing all plugins", "io.marrowfield.corvane registered node io.marrowfield.delay",
                              "Initialization complete; starting UI", "Shutting down with exit code 0, call again soon!"};
        QTest::newRow("no plugins folder") << "none" << common + end << "WARNING";
        QTest::newRow("broken plugin")
            << "broken"
            << common + QStringList{"DEBUG Found plugin in ", "WARNING Failed to load plugin at "} + end << "";
        QTest::newRow("misnamed library")
            << "misnamed"
            << common + QStringList{"DEBUG Found plugin in ", "WARNING Failed to load plugin at "} + end << "";
        // Beside the data of plugins, a folder without a library is no plugin.
        QTest::newRow("preferences only") << "data only" << common + end << "WARNING";
        // Where the plugin installer puts them.
        QTest::newRow("installed plugin")
            << "installed"
            << common + QStringList{"Found plugin io.marrowfield.example: ", "Initializing all plugins",
                                    "  Loading io.marrowfield.example"} + end.mid(2)
            << "WARNING";
    }

    // Start-up with the "plugins" folders in several states: the built-in
    // node set always loads, a bad plugin is logged and skipped.
    void plugin_folders()
    {
        QFETCH(QString, setup);
        QFETCH(QStringList, expected);
        QFETCH(QString, absent);
        const QString program = copy_program();
        const QString plugins = QFileInfo(program).absolutePath() + QStringLiteral("/plugins");
        if (setup == QLatin1String("broken") || setup == QLatin1String("misnamed")) {
            write_file(plugins + QStringLiteral("/io.example.broken/") +
                           (setup == QLatin1String("broken") ? QStringLiteral("io.example.broken.so") : QStringLiteral("other.so")),
                       "not a library");
        } else if (setup == QLatin1String("installed")) {
            const QString from = QFileInfo(QStringLiteral(CORVANE_EXECUTABLE)).absolutePath() +
                                 QStringLiteral("/plugins/io.marrowfield.example");
            const QString to = m_home->filePath(QStringLiteral("data/Corvane/plugins/io.marrowfield.example"));
            QVERIFY(QDir().mkpath(to + QStringLiteral("/locale")));
            for (const QString &name : QDir(from).entryList(QDir::Files))
                QVERIFY(QFile::copy(from + u'/' + name, to + u'/' + name));
            for (const QString &name : QDir(from + QStringLiteral("/locale")).entryList(QDir::Files))
                QVERIFY(QFile::copy(from + QStringLiteral("/locale/") + name, to + QStringLiteral("/locale/") + name));
        } else if (setup == QLatin1String("data only")) {
            QVERIFY(QDir().mkpath(m_home->filePath(QStringLiteral("data/Corvane/plugins/io.example.gone"))));
        }
        QProcess process;
        QByteArray console = start_until_ready(process, {QStringLiteral("--headless")},
                                               QStringLiteral("offscreen"), program);
        console += stop(process);
        QCOMPARE(process.exitCode(), 0);
        qsizetype at = 0;
        for (const QString &line : expected) {
            const qsizetype found = console.indexOf(line.toUtf8(), at);
            QVERIFY2(found >= 0, qPrintable(QStringLiteral("missing or out of order: %1\n%2")
                                                .arg(line, QString::fromUtf8(console))));
            at = found + line.size();
        }
        if (!absent.isEmpty())
            QVERIFY2(!console.contains(absent.toUtf8()), console.constData());
    }

    // --post delivers to the receive nodes of a running instance; the
    // instance shrugs off malformed messages and goes on serving.
    void post_to_running_instance()
    {
        QProcess post;
        start(post, {QStringLiteral("--post"), QStringLiteral("news"), QStringLiteral("a=1")},
              QStringLiteral("offscreen"));
        QVERIFY(post.waitForFinished(kTimeoutMs));
        QCOMPARE(post.exitCode(), 1);
        QCOMPARE(post.readAllStandardError(), QByteArray("No running Corvane to post to\n"));

        QProcess instance;
        const QString demo = QStringLiteral(CORV_TEST_SOURCE_DIR) + QStringLiteral("/examples/demo.corv");
        const QByteArray ready = start_until_ready(instance, {QStringLiteral("--headless"), demo});
        QVERIFY2(ready.contains("Initialization complete"), ready.constData());
        QVERIFY2(!ready.contains("Another Corvane"), ready.constData());

        // Raw messages on the socket: each is answered or dropped.
        const QStringList sockets =
            QDir(m_home->path()).entryList({QStringLiteral("corvane-*")}, QDir::System);
        QCOMPARE(sockets.size(), 1);
        const QString socket_name = m_home->filePath(sockets.first());
        const auto exchange = [&](const QByteArray &bytes) {
            QLocalSocket socket;
            socket.connectToServer(socket_name);
            if (!socket.waitForConnected(kTimeoutMs))
                return QByteArray("no connection");
            socket.write(bytes);
            socket.waitForBytesWritten(kTimeoutMs);
            QByteArray answer;
            while (!answer.contains('\n') && socket.waitForReadyRead(4000))
                answer += socket.readAll();
            return answer + socket.readAll();
        };
        QCOMPARE(exchange("not json\n"), QByteArray("{\"error\":\"not a JSON object\",\"ok\":false}\n"));
        // One answer a connection: what follows the first line goes unread.
        QVERIFY(exchange("{\"open\":\"x.corv\"}\n{}\n").contains("no window"));
        QVERIFY(exchange("{\"post\":\"news\",\"event\":{\"a\":1}}\n").contains("not a string"));
        QVERIFY(exchange(QByteArray(70000, 'x')).contains("message too long"));
        QCOMPARE(exchange(QByteArray("{\"post\":")), QByteArray()); // silent: dropped after 2 s

        for (const char *mailbox : {"news", "nobody"}) {
            start(post, {QStringLiteral("--post"), QString::fromLatin1(mailbox), QStringLiteral("who=cli"),
                         QStringLiteral("text=a=b")}, QStringLiteral("offscreen"));
            QVERIFY(post.waitForFinished(kTimeoutMs));
            QCOMPARE(post.exitCode(), 0);
            QCOMPARE(post.readAllStandardOutput(),
                     QStringLiteral("Posted to %1 receive node(s) of mailbox \"%2\"\n")
                         .arg(qstrcmp(mailbox, "news") == 0 ? 1 : 0).arg(QString::fromLatin1(mailbox)).toUtf8());
        }
        const QByteArray rest = stop(instance);
        QCOMPARE(instance.exitCode(), 0);
        QVERIFY2(rest.contains("WARNING Refused a control message: not a JSON object"), rest.constData());
        QVERIFY2(rest.contains("WARNING Dropped a control connection that sent no whole message"), rest.constData());
        QVERIFY2(rest.contains("Shutting down with exit code 0"), rest.constData());
    }

    // --trace: every event a node receives is one JSON line on stdout, with
    // its time, rack, node and keys in order; the display lines give way.
    // Node names are in the stored language from the start.
    void trace_prints_json_lines_data()
    {
        QTest::addColumn<QByteArray>("language"); // the stored position (0: de-DE)
        QTest::addColumn<QString>("display");     // the display node's name
        QTest::newRow("default") << QByteArray() << "Display";
        QTest::newRow("German") << QByteArray("<prop key=\"language\" type=\"int\">0</prop>") << "Anzeigen";
    }
    void trace_prints_json_lines()
    {
        QFETCH(QByteArray, language);
        QFETCH(QString, display);
        write_preferences(language);
        const qint64 started = QDateTime::currentMSecsSinceEpoch();
        QProcess instance;
        const QString demo = QStringLiteral(CORV_TEST_SOURCE_DIR) + QStringLiteral("/examples/demo.corv");
        const QByteArray ready = start_until_ready(instance, {QStringLiteral("--headless"), QStringLiteral("--trace"), demo});
        QVERIFY2(ready.contains("Initialization complete"), ready.constData());
        QProcess post;
        start(post, {QStringLiteral("--post"), QStringLiteral("news"), QStringLiteral("who=tab\t\"q\"")},
              QStringLiteral("offscreen"));
        QVERIFY(post.waitForFinished(kTimeoutMs));
        QCOMPARE(post.exitCode(), 0);

        QByteArray out;
        QJsonObject seen;
        QElapsedTimer timer;
        timer.start();
        while (seen.isEmpty() && timer.elapsed() < kTimeoutMs) {
            instance.waitForReadyRead(100);
            out += instance.readAllStandardOutput();
            for (const QByteArray &line : out.split('\n')) {
                const QJsonObject row = QJsonDocument::fromJson(line).object();
                if (row.value(QStringLiteral("rack")) == QStringLiteral("Listener") &&
                    row.value(QStringLiteral("node")) == display)
                    seen = row;
            }
        }
        stop(instance);
        out += instance.readAllStandardOutput();
        QVERIFY2(!seen.isEmpty(), out.constData());
        QCOMPARE(seen.value(QStringLiteral("event")).toObject().value(QStringLiteral("who")).toString(),
                 QStringLiteral("tab\t\"q\""));
        QVERIFY(seen.value(QStringLiteral("time")).toDouble() > double(started));
        QVERIFY2(!out.contains("who: "), out.constData());
        // Every line is one whole JSON object.
        const QList<QByteArray> lines = out.trimmed().split('\n');
        for (const QByteArray &line : lines) {
            QJsonParseError error;
            QVERIFY2(QJsonDocument::fromJson(line, &error).isObject(), line.constData());
        }
    }

    // The first instance keeps the socket: a second one (the shipped unit
    // started twice) finds it, says so and runs on without taking commands;
    // posts reach the first, also after the second stops. A socket left by
    // an instance that was killed goes to the next one.
    void second_instance_leaves_the_socket()
    {
        const QString demo = QStringLiteral(CORV_TEST_SOURCE_DIR) + QStringLiteral("/examples/demo.corv");
        const QStringList headless{QStringLiteral("--headless"), demo};
        QProcess first, second, third;
        const auto end_all = qScopeGuard([&] {
            for (QProcess *process : {&first, &second, &third}) {
                process->kill();
                process->waitForFinished(kTimeoutMs);
            }
        });
        QByteArray ready = start_until_ready(first, headless);
        QVERIFY2(ready.contains("Initialization complete"), ready.constData());
        QVERIFY2(!ready.contains("Another Corvane"), ready.constData());
        ready = start_until_ready(second, headless);
        QVERIFY2(ready.contains("Initialization complete"), ready.constData());
        const QRegularExpression another(QStringLiteral(
            "\\] Another Corvane is listening on %1/corvane-[^/;]+; this one takes no commands\n")
                .arg(QRegularExpression::escape(m_home->path())));
        QVERIFY2(another.match(QString::fromUtf8(ready)).hasMatch(), ready.constData());
        QCOMPARE(post(), 0);
        QByteArray rest = stop(second);
        QCOMPARE(second.exitCode(), 0);
        QCOMPARE(post(), 0);
        QVERIFY2(!rest.contains("Posted to mailbox"), rest.constData());

        first.kill();
        QVERIFY(first.waitForFinished(kTimeoutMs));
        QCOMPARE(post(), 1);
        ready = start_until_ready(third, headless);
        QVERIFY2(!ready.contains("Another Corvane"), ready.constData());
        QCOMPARE(post(), 0);
        rest = stop(third);
        QVERIFY2(rest.contains("Posted to mailbox news from the command line"), rest.constData());
    }

    // Without the tests' own folder the socket's place and name come from
    // the account, not the environment: a post from cron (no
    // XDG_RUNTIME_DIR, another HOME, USER and LOGNAME) finds the instance,
    // whose socket lies in a folder only the user can open.
    void post_ignores_environment()
    {
        const auto as_started = [this](QProcessEnvironment &env) {
            env.remove(QStringLiteral("CORV_TEST_CONTROL_DIR"));
            env.insert(QStringLiteral("USER"), QStringLiteral("somebody"));
        };
        QProcess instance;
        start(instance, {QStringLiteral("--headless"), QStringLiteral(CORV_TEST_SOURCE_DIR) + QStringLiteral("/examples/demo.corv")},
              QStringLiteral("offscreen"), QStringLiteral(CORVANE_EXECUTABLE), as_started);
        QByteArray console;
        QElapsedTimer timer;
        timer.start();
        while (!console.contains("Initialization complete") && timer.elapsed() < kTimeoutMs &&
               instance.state() != QProcess::NotRunning) {
            instance.waitForReadyRead(100);
            console += instance.readAllStandardError();
        }
        QVERIFY2(console.contains("Initialization complete"), console.constData());
        if (console.contains("Another Corvane is listening")) {
            stop(instance);
            QSKIP("a Corvane of this user runs already");
        }
        const int exit_code = post([](QProcessEnvironment &env) {
            env.remove(QStringLiteral("CORV_TEST_CONTROL_DIR"));
            env.remove(QStringLiteral("XDG_RUNTIME_DIR"));
            env.insert(QStringLiteral("HOME"), QStringLiteral("/nonexistent"));
            env.insert(QStringLiteral("USER"), QStringLiteral("nobody-else"));
            env.insert(QStringLiteral("LOGNAME"), QStringLiteral("nobody-else"));
        });
        const QByteArray rest = stop(instance);
        QCOMPARE(exit_code, 0);
        QVERIFY2(rest.contains("Posted to mailbox news"), rest.constData());
        // Where it listened: the user's runtime folder or /tmp/corvane-<uid>, private.
        const QString runtime = QStringLiteral("/run/user/%1").arg(::getuid());
        const QString folder = QFileInfo::exists(runtime) ? runtime : QStringLiteral("/tmp/corvane-%1").arg(::getuid());
        const QFileInfo info(folder);
        QVERIFY(info.isDir() && !info.isSymLink());
        QCOMPARE(info.ownerId(), uint(::getuid()));
        QCOMPARE(info.permissions() & (QFile::ReadGroup | QFile::WriteGroup | QFile::ExeGroup | QFile::ReadOther |
                                       QFile::WriteOther | QFile::ExeOther), QFile::Permissions());
    }

    // A second window run with a project hands it to the first and ends.
    void second_window_run_hands_over_project()
    {
        QProcess first;
        const QByteArray ready = start_until_ready(first, {});
        QVERIFY2(ready.contains("Initialization complete"), ready.constData());
        const QString project = write_project(QStringLiteral("show.corv"), "");
        QProcess second;
        start(second, {project}, QStringLiteral("offscreen"));
        QVERIFY(second.waitForFinished(kTimeoutMs));
        QCOMPARE(second.exitCode(), 0);
        QVERIFY(second.readAllStandardError().isEmpty());
        QByteArray rest;
        QElapsedTimer timer;
        timer.start();
        while (!rest.contains("Asked to open") && timer.elapsed() < kTimeoutMs) {
            first.waitForReadyRead(100);
            rest += first.readAllStandardError();
        }
        rest += stop(first);
        QVERIFY2(rest.contains("Asked to open " + project.toUtf8()), rest.constData());
        QCOMPARE(QDir(logs()).entryList(QDir::Files).size(), 1);
    }

    void check_data()
    {
        QTest::addColumn<QByteArray>("body"); // null: no file
        QTest::addColumn<int>("exit_code");
        QTest::addColumn<QStringList>("lines");
        const QByteArray rack = "<rack id=\"00000000-0000-0000-0000-000000000001\" name=\"Main\">"
                                "<node>00000000-0000-0000-0000-000000000002</node></rack>\n";
        const QByteArray node = "<node id=\"00000000-0000-0000-0000-000000000002\" component=\"%1\"/>\n";
        QTest::newRow("clean") << rack + QByteArray(node).replace("%1", "io.marrowfield.delay") << 0
                               << QStringList{"show.corv: no problems"};
        QTest::newRow("migrated type") << rack + QByteArray(node).replace("%1", "io.marrowfield.ratelimit") << 0
                                       << QStringList{"show.corv: no problems"};
        QTest::newRow("unknown type")
            << rack + QByteArray(node).replace("%1", "io.example.gone") << 1
            << QStringList{"show.corv: unknown node type \"io.example.gone\" in rack \"Main\" "
                           "(00000000-0000-0000-0000-000000000001), node 00000000-0000-0000-0000-000000000002"};
        QTest::newRow("reader message") << QByteArray("<rack id=\"nope\"/>\n") << 1
                                        << QStringList{"show.corv: (while parsing project; line 3) attribute <rack id> has an invalid value"};
        QTest::newRow("no file") << QByteArray() << 1 << QStringList{"show.corv: No such file or directory"};
    }

    // --check reports every problem on standard output.
    void check()
    {
        QFETCH(QByteArray, body);
        QFETCH(int, exit_code);
        QFETCH(QStringList, lines);
        const QString path = body.isNull() ? m_home->filePath(QStringLiteral("show.corv"))
                                           : write_project(QStringLiteral("show.corv"), body);
        QProcess process;
        start(process, {QStringLiteral("--check"), path}, QStringLiteral("offscreen"));
        QVERIFY(process.waitForFinished(kTimeoutMs));
        QCOMPARE(process.exitCode(), exit_code);
        const QList<QByteArray> out = process.readAllStandardOutput().trimmed().split('\n');
        QCOMPARE(out.size(), lines.size());
        for (qsizetype i = 0; i < lines.size(); ++i)
            QVERIFY2(QString::fromUtf8(out[i]).startsWith(m_home->path() + u'/' + lines[i]), out[i].constData());
        QVERIFY(!QFile::exists(logs()));
    }
};

QTEST_GUILESS_MAIN(tst_Corvane)
#include "tst_corvane.moc"
