// Runs the built executable the way a user does.

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <signal.h>
#include <sys/types.h>

namespace {

constexpr int kTimeoutMs = 30000;

} // namespace

class tst_Corvane : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void version();
    void help();
    void bad_command_line_is_refused_data();
    void bad_command_line_is_refused();
    void stops_cleanly_on_signal_data();
    void stops_cleanly_on_signal();

private:
    // A process with its own, empty home and data folders; `platform` set
    // (when given) with no display to connect to.
    void prepare(QProcess &process, const QString &platform = {});

    std::unique_ptr<QTemporaryDir> m_home;
};

void tst_Corvane::initTestCase()
{
    QVERIFY2(QFile::exists(QStringLiteral(CORVANE_EXECUTABLE)), CORVANE_EXECUTABLE);
}

void tst_Corvane::init()
{
    QTest::failOnWarning(QRegularExpression(QStringLiteral(".*")));
    m_home = std::make_unique<QTemporaryDir>();
    QVERIFY(m_home->isValid());
}

void tst_Corvane::prepare(QProcess &process, const QString &platform)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    const QString home = m_home->path();
    env.insert(QStringLiteral("HOME"), home);
    env.insert(QStringLiteral("XDG_DATA_HOME"), home + QLatin1StringView("/data"));
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), home + QLatin1StringView("/config"));
    env.insert(QStringLiteral("XDG_CACHE_HOME"), home + QLatin1StringView("/cache"));
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), home); // QTemporaryDir is private (0700)
    env.remove(QStringLiteral("QT_MESSAGE_PATTERN"));
    if (!platform.isEmpty()) {
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), platform);
        env.remove(QStringLiteral("DISPLAY"));
        env.remove(QStringLiteral("WAYLAND_DISPLAY"));
    }
    process.setProcessEnvironment(env);
    process.setProgram(QStringLiteral(CORVANE_EXECUTABLE));
}

void tst_Corvane::version()
{
    QProcess process;
    prepare(process);
    process.setArguments({QStringLiteral("--version")});
    process.start();
    QVERIFY(process.waitForFinished(kTimeoutMs));
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(process.exitCode(), 0);
    QCOMPARE(process.readAllStandardOutput().trimmed(), QByteArray("Corvane 0.9.4"));
    // Answered before logging starts: no log folder for a version query.
    QVERIFY(!QFile::exists(m_home->path() + QLatin1StringView("/data/Corvane/logs")));
}

void tst_Corvane::help()
{
    QProcess process;
    // No display at all: the answer must not need one.
    prepare(process, QStringLiteral("xcb"));
    process.setArguments({QStringLiteral("--help")});
    process.start();
    QVERIFY(process.waitForFinished(kTimeoutMs));
    QCOMPARE(process.exitCode(), 0);
    const QByteArray out = process.readAllStandardOutput();
    QVERIFY2(out.contains("--headless"), out.constData());
    QVERIFY2(out.contains("[project]"), out.constData());
}

void tst_Corvane::bad_command_line_is_refused_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("complaint");

    QTest::newRow("unknown option, headless")
        << QStringList{QStringLiteral("--headless"), QStringLiteral("--no-such-option")}
        << QByteArray("no-such-option");
    QTest::newRow("unknown option, window")
        << QStringList{QStringLiteral("--no-such-option")} << QByteArray("no-such-option");
    QTest::newRow("two projects") << QStringList{QStringLiteral("--headless"),
                                                 QStringLiteral("a.corv"), QStringLiteral("b.corv")}
                                  << QByteArray("at most one project");
}

void tst_Corvane::bad_command_line_is_refused()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, complaint);

    QProcess process;
    prepare(process, QStringLiteral("offscreen"));
    process.setArguments(arguments);
    process.start();
    QVERIFY(process.waitForFinished(kTimeoutMs));
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QVERIFY(process.exitCode() != 0);
    const QByteArray error = process.readAllStandardError();
    QVERIFY2(error.contains(complaint), error.constData());
}

void tst_Corvane::stops_cleanly_on_signal_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("signal_number");
    QTest::addColumn<QString>("platform");

    // xcb without a display: creating a QGuiApplication would abort the run.
    QTest::newRow("headless, SIGTERM, no display")
        << QStringList{QStringLiteral("--headless")} << int(SIGTERM) << QStringLiteral("xcb");
    QTest::newRow("headless, SIGINT, no display")
        << QStringList{QStringLiteral("--headless")} << int(SIGINT) << QStringLiteral("xcb");
    QTest::newRow("window, SIGTERM")
        << QStringList{} << int(SIGTERM) << QStringLiteral("offscreen");
}

void tst_Corvane::stops_cleanly_on_signal()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, signal_number);
    QFETCH(QString, platform);

    QProcess process;
    prepare(process, platform);
    process.setArguments(arguments);
    process.start();
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

    // One log file in the application data folder, holding the whole run
    // except the debug lines.
    const QDir logs(m_home->path() + QLatin1StringView("/data/Corvane/logs"));
    const QStringList files = logs.entryList(QDir::Files);
    QCOMPARE(files.size(), 1);
    QVERIFY(QRegularExpression(QStringLiteral("^\\d{4}-\\d\\d-\\d\\d \\d\\d-\\d\\d-\\d\\d\\.txt$"))
                .match(files.first())
                .hasMatch());
    QFile file(logs.filePath(files.first()));
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QList<QByteArray> lines = file.readAll().trimmed().split('\n');
    QVERIFY(lines.size() >= 4);
    const QRegularExpression banner(QStringLiteral(
        "^\\[ *\\d+\\.\\d{3}\\] Corvane 0\\.9\\.4 \\(64-bit\\) on .+ with CorvSDK v1$"));
    QVERIFY2(banner.match(QString::fromUtf8(lines.at(0))).hasMatch(), lines.at(0).constData());
    QVERIFY(lines.at(1).endsWith("] Compiled on Qt " QT_VERSION_STR ", running on Qt " +
                                 QByteArray(qVersion())));
    QVERIFY(lines.constLast().endsWith("] Shutting down with exit code 0, call again soon!"));
    for (const QByteArray &line : lines)
        QVERIFY2(!line.contains("DEBUG "), line.constData());
}

QTEST_GUILESS_MAIN(tst_Corvane)
#include "tst_corvane.moc"
