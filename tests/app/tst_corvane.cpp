// Runs the built executable the way a user does.

#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <signal.h>
#include <sys/types.h>

namespace {
constexpr int kTimeoutMs = 30000;
}

class tst_Corvane : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_home;

    QString logs() const { return m_home->path() + QStringLiteral("/data/Corvane/logs"); }

    // Starts the executable with its own, empty home and data folders on the
    // given platform, with no display to connect to.
    void start(QProcess &process, const QStringList &arguments, const QString &platform)
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        const QString home = m_home->path();
        env.insert(QStringLiteral("HOME"), home);
        env.insert(QStringLiteral("XDG_DATA_HOME"), home + QStringLiteral("/data"));
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), home + QStringLiteral("/config"));
        env.insert(QStringLiteral("XDG_CACHE_HOME"), home + QStringLiteral("/cache"));
        env.insert(QStringLiteral("XDG_RUNTIME_DIR"), home); // QTemporaryDir is private (0700)
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), platform);
        for (const char *name : {"QT_MESSAGE_PATTERN", "DISPLAY", "WAYLAND_DISPLAY"})
            env.remove(QString::fromLatin1(name));
        process.setProcessEnvironment(env);
        process.start(QStringLiteral(CORVANE_EXECUTABLE), arguments);
    }

private slots:
    void init()
    {
        QTest::failOnWarning(QRegularExpression(QStringLiteral(".*")));
        m_home = std::make_unique<QTemporaryDir>();
        QVERIFY(m_home->isValid());
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
        // A project named on the command line runs from the start; one that
        // can't be read is reported and the program runs on without it.
        QTest::newRow("headless, demo project") << QStringList{"--headless", "@demo"} << int(SIGTERM)
                                                << "xcb" << "Opened project ";
        QTest::newRow("headless, damaged project")
            << QStringList{"--headless", "@damaged"} << int(SIGTERM) << "xcb"
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
                QFile damaged(argument);
                QVERIFY(damaged.open(QIODevice::WriteOnly));
                damaged.write("<project version=\"1\"><rack id=\"not-an-id\"/></project>");
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
        QVERIFY(::kill(pid_t(process.processId()), signal_number) == 0);
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
        QFile file(logs() + u'/' + files.first());
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QList<QByteArray> lines = file.readAll().trimmed().split('\n');
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
};

QTEST_GUILESS_MAIN(tst_Corvane)
#include "tst_corvane.moc"
