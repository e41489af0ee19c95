// A process saving a 10,000-node project over and over is killed at random
// moments. After every kill the project file must be a whole document, and
// the backups must all be whole and none may go missing beyond pruning.
// The saver reports each finished save; the kill comes after the first, at
// a random point within the next two saves' time as measured on the first,
// so every round hits a save in progress on a fast or a loaded machine.
//
// The same executable is the saving process when started with
// "--save-loop PATH".

#include "engine/config_manager.h"
#include "engine/node_registry.h"
#include "locale/locale_list.h"
#include "locale/translate.h"
#include "model/project.h"
#include "persistence/command_manager.h"
#include "persistence/model_commands.h"
#include "persistence/project_manager.h"
#include "persistence/reader.h"
#include "persistence/writer.h"
#include "tests/test_files.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QLoggingCategory>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <algorithm>
#include <cstdio>

using namespace corv;
using namespace corv::engine;

namespace {

constexpr int kRacks = 100;
constexpr int kNodesPerRack = 100;
// Rounds: up to kKills, or as many as fit in kBudgetMs on a slow machine,
// but never fewer than kMinKills.
constexpr int kKills = 200;
constexpr int kMinKills = 20;
constexpr qint64 kBudgetMs = 60000;
constexpr int kSaveVersions = 3;

void register_plain_type(NodeRegistry &registry, const PluginIdentity &plugin)
{
    NodeRegistration registration(registry, plugin);
    corv_node_type plain{};
    plain.id = "t";
    plain.name = "T";
    registration.register_node(&plain);
    registration.commit();
}

QUuid numbered_id(int n)
{
    return QUuid::fromString(QStringLiteral("00000000-0000-0000-0000-%1").arg(n, 12, 10, QLatin1Char('0')));
}

// Racks of top-level nodes holding four children each; rack 0 named "A".
QByteArray generate()
{
    model::Project project;
    int n = 0;
    for (int r = 0; r < kRacks; ++r) {
        auto rack = std::make_unique<model::Rack>();
        rack->set_name(r == 0 ? QStringLiteral("A") : QStringLiteral("Rack %1").arg(r));
        model::Children *top = rack->top_level();
        project.add_rack(numbered_id(++n), std::move(rack));
        project.profile()->insert(project.profile()->count(), numbered_id(n));
        model::Children *children = top;
        for (int i = 0; i < kNodesPerRack; ++i) {
            auto node = std::make_unique<model::Node>();
            node->set_impl_id(QStringLiteral("t"));
            model::StoreView(&node->properties(), node->key_prefix())
                .set(QStringLiteral("!note"), model::Value::string("node " + QByteArray::number(i)));
            model::Children *own = node->children();
            project.add_node(numbered_id(++n), std::move(node));
            model::Children *into = i % 5 == 0 ? top : children;
            into->insert(into->count(), numbered_id(n));
            if (i % 5 == 0)
                children = own;
        }
    }
    return write_project(project).document;
}

// The saving process: opens the project, then renames rack 0 between "A"
// and "B" and saves, reporting each save, until it is killed.
int save_loop(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("corv.*.debug=false\ncorv.*.info=false"));
    const PluginIdentity plugin{QStringLiteral("test"), QStringLiteral("Test"), {}};
    NodeRegistry registry;
    register_plain_type(registry, plugin);
    ConfigManager config;
    config.set_save_versions(kSaveVersions);
    ProjectManager manager(registry, &config);
    if (!manager.open(QString::fromLocal8Bit(argv[2])))
        return 2;
    std::fputs("ready\n", stdout);
    std::fflush(stdout);
    const QUuid rack = manager.project()->profile()->at(0);
    for (bool b = true;; b = !b) {
        manager.commands()->execute(std::make_unique<RenameRackCommand>(
            manager.project(), rack, b ? QStringLiteral("B") : QStringLiteral("A")));
        if (!manager.save())
            return 3;
        std::fputs("saved\n", stdout);
        std::fflush(stdout);
    }
}

} // namespace

class TstSaveCrash : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void killed_while_saving()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        const QString path = dir.filePath(QStringLiteral("show.corv"));

        // The two documents the saving process can leave: rack 0 as "A" or "B".
        const QByteArray a = generate();
        QByteArray b = a;
        b.replace("name=\"A\"", "name=\"B\"");
        QVERIFY(b != a);
        model::Project check_a, check_b;
        QCOMPARE(read_project(a, check_a), ReadResult::Ok);
        QCOMPARE(read_project(b, check_b), ReadResult::Ok);
        corv::test::write_file(path, a);

        const auto whole = [&](const QString &file_path) {
            QFile file(file_path);
            if (!file.open(QIODevice::ReadOnly))
                return false;
            const QByteArray bytes = file.readAll();
            return bytes == a || bytes == b;
        };
        const QRegularExpression backup_name(QStringLiteral("^show\\.[0-9]{3}\\.corv$"));

        QElapsedTimer clock;
        clock.start();
        qsizetype backups_before = 0;
        int saves_seen = 0;
        int round = 0;
        for (; round < kKills && (round < kMinKills || clock.elapsed() < kBudgetMs); ++round) {
            QProcess saver;
            saver.setProcessChannelMode(QProcess::ForwardedErrorChannel);
            saver.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--save-loop"), path});
            // Windows' text-mode output ends lines with "\r\n".
            const auto wait_for_line = [&saver](const QByteArray &line) {
                while (!saver.canReadLine())
                    if (!saver.waitForReadyRead(30000))
                        return false;
                return saver.readLine().trimmed() == line.trimmed();
            };
            QVERIFY(wait_for_line("ready\n"));
            QElapsedTimer save_clock;
            save_clock.start();
            QVERIFY(wait_for_line("saved\n"));
            // One whole save took this long here and now; the kill falls
            // somewhere in the next two.
            const qint64 save_us = std::max<qint64>(1, save_clock.nsecsElapsed() / 1000);
            QThread::usleep(QRandomGenerator::global()->bounded(quint64(2 * save_us)));
            saver.kill();
            QVERIFY(saver.waitForFinished(30000));
            QCOMPARE(saver.exitStatus(), QProcess::CrashExit);

            QVERIFY2(whole(path), qPrintable(QStringLiteral("round %1: the project file is damaged").arg(round)));
            QDir folder(dir.path());
            qsizetype backups = 0;
            for (const QString &name : folder.entryList(QDir::Files)) {
                if (backup_name.match(name).hasMatch()) {
                    ++backups;
                    QVERIFY2(whole(folder.filePath(name)), qPrintable(QStringLiteral("round %1: %2 is damaged").arg(round).arg(name)));
                } else if (name.startsWith(QLatin1String("show.corv.temp"))) {
                    // What a killed save left behind; the next save would skip it.
                    QVERIFY(folder.remove(name));
                } else {
                    QCOMPARE(name, QStringLiteral("show.corv"));
                }
            }
            // Pruning leaves saveversions - 1, and the new backup follows.
            QVERIFY(backups <= kSaveVersions);
            QVERIFY2(backups >= std::min<qsizetype>(backups_before, kSaveVersions - 1),
                     qPrintable(QStringLiteral("round %1: %2 backups, %3 before").arg(round).arg(backups).arg(backups_before)));
            if (backups > backups_before)
                ++saves_seen;
            backups_before = backups;
        }
        qInfo("%d kills in %lld ms; backups grew %d times", round, clock.elapsed(), saves_seen);
        // Every round finished a save before its kill, and the first save
        // after an opening makes a backup: they grow until pruning holds them.
        QCOMPARE(saves_seen, kSaveVersions);
        QCOMPARE(backups_before, qsizetype(kSaveVersions));
    }
};

int main(int argc, char **argv)
{
    if (argc == 3 && qstrcmp(argv[1], "--save-loop") == 0)
        return save_loop(argc, argv);
    QCoreApplication app(argc, argv);
    TstSaveCrash test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_save_crash.moc"
