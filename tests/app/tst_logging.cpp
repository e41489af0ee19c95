#include "app/logging.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <vector>

using namespace corv;

namespace {

// Stands in for the console: the handler that was installed before logging.
struct Recorded {
    QtMsgType type;
    QString message;
};
std::vector<Recorded> g_recorded;

void record(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    g_recorded.push_back({type, message});
}

void discard(QtMsgType, const QMessageLogContext &, const QString &)
{}

const QDateTime kStart(QDate(2024, 3, 5), QTime(7, 8, 9), Qt::UTC);

QStringList file_lines(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QStringList lines = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'));
    if (!lines.isEmpty() && lines.constLast().isEmpty())
        lines.removeLast();
    return lines;
}

} // namespace

class tst_Logging : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void file_name_data();
    void file_name();
    void retention_data();
    void retention();
    void levels_data();
    void levels();
    void same_second_restart_appends();
    void chains_to_previous_handler();
    void unusable_folder_writes_nothing_data();
    void unusable_folder_writes_nothing();
    void lines_from_many_threads_stay_whole();

private:
    QTemporaryDir m_dir;
    QtMessageHandler m_harness = nullptr;
};

void tst_Logging::init()
{
    QTest::failOnWarning(QRegularExpression(QStringLiteral(".*")));
    QVERIFY(m_dir.isValid());
    g_recorded.clear();
    // Keep QtTest's own handler (ignoreMessage, failOnWarning) at the end of the chain.
    m_harness = qInstallMessageHandler(record);
    qInstallMessageHandler(m_harness);
}

void tst_Logging::cleanup()
{
    uninstall_logging();
    qInstallMessageHandler(m_harness);
    QDir(m_dir.path()).removeRecursively();
    QDir().mkpath(m_dir.path());
}

void tst_Logging::file_name_data()
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

void tst_Logging::file_name()
{
    QFETCH(QDateTime, start);
    QFETCH(QString, name);
    QCOMPARE(log_file_name(start), name);

    const QString folder = m_dir.filePath(QStringLiteral("a/b/logs"));
    QCOMPARE(install_logging(folder, start), folder + QLatin1Char('/') + name);
    QCOMPARE(log_file_path(), folder + QLatin1Char('/') + name);
    QVERIFY(QFile::exists(folder + QLatin1Char('/') + name));
}

void tst_Logging::retention_data()
{
    QTest::addColumn<int>("old_files");
    QTest::addColumn<int>("kept");

    QTest::newRow("empty") << 0 << 0;
    QTest::newRow("below the limit") << 24 << 24;
    QTest::newRow("at the limit") << 25 << 25;
    QTest::newRow("one over") << 26 << 25;
    QTest::newRow("thirty") << 30 << 25;
}

void tst_Logging::retention()
{
    QFETCH(int, old_files);
    QFETCH(int, kept);

    const QString folder = m_dir.filePath(QStringLiteral("logs"));
    QVERIFY(QDir().mkpath(folder));
    // Names sort the opposite way to their age, so only the time can decide.
    const QDateTime base = QDateTime::currentDateTimeUtc().addDays(-1);
    QStringList newest_first;
    for (int i = 0; i < old_files; ++i) {
        const QString name = QStringLiteral("old-%1.txt").arg(i, 2, 10, QLatin1Char('0'));
        QFile file(folder + QLatin1Char('/') + name);
        QVERIFY(file.open(QIODevice::WriteOnly));
        QVERIFY(file.setFileTime(base.addSecs(-60 * (old_files - i)),
                                 QFileDevice::FileModificationTime));
        newest_first.prepend(name);
    }

    const QString path = install_logging(folder, kStart);
    QVERIFY(!path.isEmpty());

    QStringList expected = newest_first.mid(0, kept);
    expected.append(log_file_name(kStart));
    expected.sort();
    QStringList present = QDir(folder).entryList(QDir::Files);
    present.sort();
    QCOMPARE(present, expected);
}

void tst_Logging::levels_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("expected"); // a pattern for the line, empty: no line

    const QString stamp = QStringLiteral("^\\[ *\\d+\\.\\d{3}\\] ");
    QTest::newRow("debug") << int(QtDebugMsg) << QStringLiteral("debug words") << QString();
    QTest::newRow("info") << int(QtInfoMsg) << QStringLiteral("info words")
                          << stamp + QStringLiteral("info words$");
    QTest::newRow("warning") << int(QtWarningMsg) << QStringLiteral("warning words")
                             << stamp + QStringLiteral("WARNING warning words$");
    QTest::newRow("critical") << int(QtCriticalMsg) << QStringLiteral("critical words")
                              << stamp + QStringLiteral("CRITICAL critical words$");
    QTest::newRow("utf-8") << int(QtInfoMsg) << QStringLiteral("Grüße → ✓")
                           << stamp + QStringLiteral("Grüße → ✓$");
}

void tst_Logging::levels()
{
    QFETCH(int, type);
    QFETCH(QString, text);
    QFETCH(QString, expected);

    const QString path = install_logging(m_dir.path(), kStart);
    QVERIFY(!path.isEmpty());

    const QByteArray utf8 = text.toUtf8();
    switch (QtMsgType(type)) {
    case QtDebugMsg:
        qDebug("%s", utf8.constData());
        break;
    case QtInfoMsg:
        qInfo("%s", utf8.constData());
        break;
    case QtWarningMsg:
        QTest::ignoreMessage(QtWarningMsg, utf8.constData());
        qWarning("%s", utf8.constData());
        break;
    case QtCriticalMsg:
        QTest::ignoreMessage(QtCriticalMsg, utf8.constData());
        qCritical("%s", utf8.constData());
        break;
    default:
        QFAIL("no such row");
    }

    // Read while the file is still open: each line is flushed as it is written.
    const QStringList lines = file_lines(path);
    if (expected.isEmpty()) {
        QVERIFY2(lines.isEmpty(), qPrintable(lines.join(QLatin1Char('\n'))));
    } else {
        QCOMPARE(lines.size(), 1);
        QVERIFY2(QRegularExpression(expected).match(lines.first()).hasMatch(),
                 qPrintable(lines.first()));
    }
}

void tst_Logging::same_second_restart_appends()
{
    const QString first = install_logging(m_dir.path(), kStart);
    qInfo("first run");
    uninstall_logging();
    const QString second = install_logging(m_dir.path(), kStart.addMSecs(900));
    qInfo("second run");

    QCOMPARE(second, first);
    QCOMPARE(QDir(m_dir.path()).entryList(QDir::Files).size(), 1);
    const QStringList lines = file_lines(first);
    QCOMPARE(lines.size(), 2);
    QVERIFY(lines.at(0).endsWith(QLatin1StringView("] first run")));
    QVERIFY(lines.at(1).endsWith(QLatin1StringView("] second run")));
}

void tst_Logging::chains_to_previous_handler()
{
    qInstallMessageHandler(record);
    install_logging(m_dir.path(), kStart);

    qDebug("to the console only");
    qInfo("to both");

    QCOMPARE(int(g_recorded.size()), 2);
    QCOMPARE(g_recorded[0].type, QtDebugMsg);
    QCOMPARE(g_recorded[0].message, QStringLiteral("to the console only"));
    QCOMPARE(g_recorded[1].type, QtInfoMsg);
    QCOMPARE(g_recorded[1].message, QStringLiteral("to both"));
    QCOMPARE(file_lines(log_file_path()).size(), 1);
}

void tst_Logging::unusable_folder_writes_nothing_data()
{
    QTest::addColumn<QString>("blocker"); // a plain file made ahead
    QTest::addColumn<QString>("folder");

    // Works even as root, where permissions would not stop anything.
    QTest::newRow("parent is a file") << QStringLiteral("file") << QStringLiteral("file/logs");
    QTest::newRow("log name taken by a folder") << QString() << QStringLiteral("logs");
}

void tst_Logging::unusable_folder_writes_nothing()
{
    QFETCH(QString, blocker);
    QFETCH(QString, folder);

    if (!blocker.isEmpty()) {
        QFile file(m_dir.filePath(blocker));
        QVERIFY(file.open(QIODevice::WriteOnly));
    } else {
        QVERIFY(QDir().mkpath(m_dir.filePath(folder + QLatin1Char('/') + log_file_name(kStart))));
    }

    qInstallMessageHandler(record);
    QVERIFY(install_logging(m_dir.filePath(folder), kStart).isEmpty());
    QVERIFY(log_file_path().isEmpty());
    qInfo("still reaches the console");

    QCOMPARE(int(g_recorded.size()), 1);
    QCOMPARE(g_recorded[0].message, QStringLiteral("still reaches the console"));
}

void tst_Logging::lines_from_many_threads_stay_whole()
{
    qInstallMessageHandler(discard);
    const QString path = install_logging(m_dir.path(), kStart);
    constexpr int kThreads = 4;
    constexpr int kLines = 200;
    std::vector<std::unique_ptr<QThread>> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back(QThread::create([t] {
            for (int i = 0; i < kLines; ++i)
                qInfo("thread %d line %d %s", t, i, "xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx");
        }));
        threads.back()->start();
    }
    for (auto &thread : threads)
        QVERIFY(thread->wait());

    const QStringList lines = file_lines(path);
    QCOMPARE(lines.size(), kThreads * kLines);
    const QRegularExpression whole(
        QStringLiteral("^\\[ *\\d+\\.\\d{3}\\] thread \\d line \\d+ x{40}$"));
    for (const QString &line : lines)
        QVERIFY2(whole.match(line).hasMatch(), qPrintable(line));
}

QTEST_GUILESS_MAIN(tst_Logging)
#include "tst_logging.moc"
