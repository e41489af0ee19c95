#include "app/logging.h"
#include "tests/test_files.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

using namespace corv;

namespace {

// Stands in for the console: the handler installed before logging, which
// passes everything on to QtTest's own (ignoreMessage, failOnWarning).
QStringList g_console;
QtMessageHandler g_harness = nullptr;
void record(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    g_console << message;
    g_harness(type, context, message);
}

const QDateTime kStart(QDate(2024, 3, 5), QTime(7, 8, 9), Qt::UTC);
const QString kStamp = QStringLiteral("^\\[ *\\d+\\.\\d{3}\\] ");

QStringList file_lines(const QString &path)
{
    return QString::fromUtf8(corv::test::read_file(path)).split(u'\n', Qt::SkipEmptyParts);
}

} // namespace

class tst_Logging : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;

private slots:
    void init()
    {
        QTest::failOnWarning(QRegularExpression(QStringLiteral(".*")));
        g_console.clear();
        g_harness = qInstallMessageHandler(record);
    }

    void cleanup()
    {
        uninstall_logging();
        qInstallMessageHandler(g_harness);
        QDir(m_dir.path()).removeRecursively();
        QDir().mkpath(m_dir.path());
    }

    void file_name_data()
    {
        QTest::addColumn<QDateTime>("start");
        QTest::addColumn<QString>("name");
        QTest::newRow("utc") << kStart << QStringLiteral("2024-03-05 07-08-09.txt");
        QTest::newRow("offset converted to utc")
            << QDateTime(QDate(2024, 1, 1), QTime(0, 30, 0), Qt::OffsetFromUTC, 3600)
            << QStringLiteral("2023-12-31 23-30-00.txt");
        QTest::newRow("milliseconds dropped")
            << QDateTime(QDate(2031, 12, 24), QTime(23, 59, 58, 999), Qt::UTC)
            << QStringLiteral("2031-12-24 23-59-58.txt");
    }

    void file_name()
    {
        QFETCH(QDateTime, start);
        QFETCH(QString, name);
        const QString path = m_dir.filePath(QStringLiteral("a/b/logs/")) + name;
        QCOMPARE(install_logging(m_dir.filePath(QStringLiteral("a/b/logs")), start), path);
        QCOMPARE(log_file_path(), path);
        QVERIFY(QFile::exists(path));
    }

    // The newest 25 files stay beside the new one; names sort the opposite
    // way to their age, so only the time can decide.
    void retention_data()
    {
        QTest::addColumn<int>("old_files");
        QTest::addColumn<int>("kept");
        QTest::newRow("at the limit") << 25 << 25;
        QTest::newRow("one over") << 26 << 25;
        QTest::newRow("thirty") << 30 << 25;
    }

    void retention()
    {
        QFETCH(int, old_files);
        QFETCH(int, kept);
        const QString folder = m_dir.filePath(QStringLiteral("logs"));
        QVERIFY(QDir().mkpath(folder));
        const QDateTime base = QDateTime::currentDateTimeUtc().addDays(-1);
        QStringList expected{log_file_name(kStart)};
        for (int i = 0; i < old_files; ++i) {
            const QString name = QStringLiteral("old-%1.txt").arg(i, 2, 10, QLatin1Char('0'));
            QFile file(folder + u'/' + name);
            QVERIFY(file.open(QIODevice::WriteOnly));
            QVERIFY(file.setFileTime(base.addSecs(60 * i), QFileDevice::FileModificationTime));
            if (i >= old_files - kept)
                expected << name;
        }
        QVERIFY(!install_logging(folder, kStart).isEmpty());
        expected.sort();
        QCOMPARE(QDir(folder).entryList(QDir::Files, QDir::Name), expected);
    }

    // Every level reaches the console; the file gets all but debug lines.
    void levels_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("line"); // a pattern after the time stamp; empty: no line
        QTest::newRow("debug") << int(QtDebugMsg) << "debug words" << "";
        QTest::newRow("info") << int(QtInfoMsg) << "info words" << "info words$";
        QTest::newRow("warning") << int(QtWarningMsg) << "warning words"
                                 << "WARNING warning words$";
        QTest::newRow("critical") << int(QtCriticalMsg) << "critical words"
                                  << "CRITICAL critical words$";
        QTest::newRow("utf-8") << int(QtInfoMsg) << "Grüße → ✓" << "Grüße → ✓$";
    }

    void levels()
    {
        QFETCH(int, type);
        QFETCH(QString, text);
        QFETCH(QString, line);
        const QString path = install_logging(m_dir.path(), kStart);
        QVERIFY(!path.isEmpty());
        if (type == QtWarningMsg || type == QtCriticalMsg)
            QTest::ignoreMessage(QtMsgType(type), qUtf8Printable(text));
        qt_message_output(QtMsgType(type), QMessageLogContext(), text);
        QCOMPARE(g_console, QStringList{text});
        // Read while the file is still open: each line is flushed as written.
        const QStringList lines = file_lines(path);
        QCOMPARE(lines.size(), line.isEmpty() ? 0 : 1);
        if (!line.isEmpty())
            QVERIFY2(QRegularExpression(kStamp + line).match(lines.first()).hasMatch(),
                     qPrintable(lines.first()));

        // A log view gets the same lines: those so far, then each new one.
        QList<LogLine> heard;
        const QList<LogLine> so_far =
            set_log_listener([&heard](QtMsgType t, const QString &l) { heard.append({t, l}); });
        QCOMPARE(so_far.size(), lines.size());
        if (type == QtWarningMsg || type == QtCriticalMsg)
            QTest::ignoreMessage(QtMsgType(type), qUtf8Printable(text));
        qt_message_output(QtMsgType(type), QMessageLogContext(), text);
        set_log_listener(nullptr);
        QCOMPARE(heard.size(), lines.size());
        for (qsizetype i = 0; i < lines.size(); ++i) {
            QCOMPARE(so_far.at(i).second, lines.at(i));
            QCOMPARE(int(heard.at(i).first), type);
            QCOMPARE(heard.at(i).second.section(u']', 1), lines.at(i).section(u']', 1));
        }
    }

    void same_second_restart_appends()
    {
        const QString first = install_logging(m_dir.path(), kStart);
        qInfo("first run");
        uninstall_logging();
        QCOMPARE(install_logging(m_dir.path(), kStart.addMSecs(900)), first);
        qInfo("second run");
        QCOMPARE(QDir(m_dir.path()).entryList(QDir::Files).size(), 1);
        const QStringList lines = file_lines(first);
        QCOMPARE(lines.size(), 2);
        QVERIFY(lines.at(0).endsWith(QLatin1StringView("] first run")));
        QVERIFY(lines.at(1).endsWith(QLatin1StringView("] second run")));
    }

    void unusable_folder_writes_nothing_data()
    {
        QTest::addColumn<QString>("blocker"); // a plain file made ahead
        QTest::addColumn<QString>("folder");
        // Works even as root, where permissions would not stop anything.
        QTest::newRow("parent is a file") << "file" << "file/logs";
        QTest::newRow("log name taken by a folder") << "" << "logs";
    }

    void unusable_folder_writes_nothing()
    {
        QFETCH(QString, blocker);
        QFETCH(QString, folder);
        if (!blocker.isEmpty()) {
            QFile file(m_dir.filePath(blocker));
            QVERIFY(file.open(QIODevice::WriteOnly));
        } else {
            QVERIFY(QDir().mkpath(m_dir.filePath(folder + u'/' + log_file_name(kStart))));
        }
        QVERIFY(install_logging(m_dir.filePath(folder), kStart).isEmpty());
        QVERIFY(log_file_path().isEmpty());
        qInfo("still reaches the console");
        QCOMPARE(g_console, QStringList{"still reaches the console"});
    }

    void lines_from_many_threads_stay_whole()
    {
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
        const QString path = install_logging(m_dir.path(), kStart);
        std::vector<std::unique_ptr<QThread>> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back(QThread::create([t] {
                for (int i = 0; i < 200; ++i)
                    qInfo("thread %d line %d %s", t, i, qPrintable(QString(40, u'x')));
            }));
            threads.back()->start();
        }
        for (auto &thread : threads)
            QVERIFY(thread->wait());
        const QStringList lines = file_lines(path);
        QCOMPARE(lines.size(), 4 * 200);
        const QRegularExpression whole(kStamp + QStringLiteral("thread \\d line \\d+ x{40}$"));
        for (const QString &line : lines)
            QVERIFY2(whole.match(line).hasMatch(), qPrintable(line));
    }
};

QTEST_GUILESS_MAIN(tst_Logging)
#include "tst_logging.moc"
