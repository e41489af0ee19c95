// The program's start-up and shutdown with its plugins, run as a user runs
// it (headless, so no display is needed): the built-in plugin first, then
// the plugins folder, the three passes, and the unloading at the end.

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include "tests/test_platform.h"

#include <csignal>

namespace {

constexpr int kTimeoutMs = 30000;

// What a run printed (every log line, debug included, goes to the console).
struct Run {
    QByteArray console;
    int exit_code = -1;
};

// Fails the current test with the console text when `condition` is false.
#define VERIFY_RUN(condition, run)                                                                 \
    QVERIFY2(condition, (run).console.constData())

} // namespace

class TstStartup : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { QTest::failOnWarning(QRegularExpression(QStringLiteral(".*"))); }

    void from_the_build_tree()
    {
        Run run;
        start_and_stop(QStringLiteral(CORVANE_EXECUTABLE), run);
        if (QTest::currentTestFailed())
            return;
        const QString plugins = QFileInfo(QStringLiteral(CORVANE_EXECUTABLE)).absolutePath()
                                + QStringLiteral("/plugins");
        expect_in_order(run, {
            // The address ends in this platform's install method.
            "] Found plugin io.marrowfield.corvane: \"Corvane\" by Marrowfield "
            "(https://updates.marrowfield.example/corvane/manifest.json#",
            "] DEBUG Found plugin in " + plugins.toUtf8() + "/io.marrowfield.example",
            "] Found plugin io.marrowfield.example: \"Example Nodes\" by Marrowfield",
            "] Initializing all plugins",
            "] DEBUG   Loading io.marrowfield.corvane",
            "] DEBUG   Loading io.marrowfield.example",
            "] io.marrowfield.example registered node io.marrowfield.example.tag",
            "] DEBUG   Postload io.marrowfield.example",
            "] Initialization complete; starting UI",
            "] DEBUG Unloading io.marrowfield.corvane",
            "] DEBUG Unloading io.marrowfield.example",
            "] Shutting down with exit code 0, call again soon!",
        });
        VERIFY_RUN(!run.console.contains("WARNING"), run);
    }

    void without_a_plugins_folder()
    {
        QTemporaryDir install;
        const QString program = copy_program(install.path());
        Run run;
        start_and_stop(program, run);
        if (QTest::currentTestFailed())
            return;
        expect_in_order(run, {"] Found plugin io.marrowfield.corvane:",
                              "] DEBUG   Loading io.marrowfield.corvane",
                              "] Initialization complete; starting UI",
                              "] DEBUG Unloading io.marrowfield.corvane"});
        VERIFY_RUN(!run.console.contains("Found plugin in"), run);
        VERIFY_RUN(!run.console.contains("WARNING"), run);
    }

    void a_broken_plugin_does_not_stop_start_up()
    {
        // The library in the folder carries another name.
        QTemporaryDir install;
        const QString program = copy_program(install.path());
        const QString folder = install.filePath(QStringLiteral("plugins/io.marrowfield.renamed"));
        QVERIFY(QDir().mkpath(folder));
        QVERIFY(QFile::copy(QStringLiteral(CORV_TEST_PLUGIN_DIR "/io.marrowfield.testgood" CORV_PLUGIN_SUFFIX),
                            folder + QStringLiteral("/io.marrowfield.testgood" CORV_PLUGIN_SUFFIX)));
        Run run;
        start_and_stop(program, run);
        if (QTest::currentTestFailed())
            return;
        expect_in_order(run, {"] WARNING Failed to load plugin at " + folder.toUtf8()
                                  + "/io.marrowfield.renamed: Cannot load library",
                              "] Initialization complete; starting UI",
                              "] Shutting down with exit code 0, call again soon!"});
    }

private:
    // The program with its locale files, alone in a folder of its own.
    static QString copy_program(const QString &folder)
    {
        const QString bin = QFileInfo(QStringLiteral(CORVANE_EXECUTABLE)).absolutePath();
        const QString program = folder + QStringLiteral("/corvane");
        QFile::copy(QStringLiteral(CORVANE_EXECUTABLE), program);
        QFile::copy(bin + QStringLiteral("/locale.ini"), folder + QStringLiteral("/locale.ini"));
        QDir().mkpath(folder + QStringLiteral("/locale"));
        for (const QString &file : QDir(bin + QStringLiteral("/locale")).entryList(QDir::Files))
            QFile::copy(bin + QStringLiteral("/locale/") + file,
                        folder + QStringLiteral("/locale/") + file);
        return program;
    }

    // Runs the program headless with its own empty home, waits until it
    // runs its event loop, and stops it with SIGTERM.
    static void start_and_stop(const QString &program, Run &run)
    {
        QTemporaryDir home;
        QProcess process;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("HOME"), home.path());
        env.insert(QStringLiteral("XDG_DATA_HOME"), home.filePath(QStringLiteral("data")));
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.filePath(QStringLiteral("config")));
        env.insert(QStringLiteral("XDG_CACHE_HOME"), home.filePath(QStringLiteral("cache")));
        env.insert(QStringLiteral("XDG_RUNTIME_DIR"), home.path());
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
        env.remove(QStringLiteral("DISPLAY"));
        env.remove(QStringLiteral("WAYLAND_DISPLAY"));
        env.remove(QStringLiteral("QT_MESSAGE_PATTERN"));
        env.remove(QStringLiteral("QT_LOGGING_RULES"));
        process.setProcessEnvironment(env);
        process.start(program, {QStringLiteral("--headless")});
        QVERIFY(process.waitForStarted(kTimeoutMs));

        QElapsedTimer timer;
        timer.start();
        while (!run.console.contains("Initialization complete; starting UI")) {
            VERIFY_RUN(timer.elapsed() < kTimeoutMs, run);
            VERIFY_RUN(process.state() == QProcess::Running, run);
            process.waitForReadyRead(100);
            run.console += process.readAllStandardError();
        }
        QVERIFY(corv::test::ask_to_stop(process, SIGTERM));
        QVERIFY(process.waitForFinished(kTimeoutMs));
        run.console += process.readAllStandardError();
        run.exit_code = process.exitCode();
        VERIFY_RUN(process.exitStatus() == QProcess::NormalExit && run.exit_code == 0, run);
    }

    // Each fragment appears, after the one before it.
    static void expect_in_order(const Run &run, const QList<QByteArray> &fragments)
    {
        qsizetype from = 0;
        for (const QByteArray &fragment : fragments) {
            const qsizetype at = run.console.indexOf(fragment, from);
            QVERIFY2(at >= 0, (fragment + "\nnot found in order in:\n" + run.console).constData());
            from = at + fragment.size();
        }
    }
};

QTEST_GUILESS_MAIN(TstStartup)
#include "tst_startup.moc"
