// Opening and saving projects on real files in a temporary folder: the error
// texts, the temporary file, numbered backups with pruning, autosave, and
// failures that must leave the old file and the modified state alone.

#include "engine/config_manager.h"
#include "engine/node_registry.h"
#include "engine/project_runtime.h"
#include "locale/locale_list.h"
#include "locale/translate.h"
#include "persistence/command_manager.h"
#include "persistence/model_commands.h"
#include "persistence/project_manager.h"

#include "fixtures.h"

#include <QDir>
#include <QFile>
#include <QLoggingCategory>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <QTimer>

#include <csignal>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace corv;
using namespace corv::engine;

class TstProjectManager : public QObject
{
    Q_OBJECT

    PluginIdentity m_plugin{QStringLiteral("test"), QStringLiteral("Test"), {}};
    NodeRegistry m_registry;
    ConfigManager m_config;
    std::unique_ptr<QTemporaryDir> m_dir;

    QString path(const QString &name) const { return m_dir->filePath(name); }

    static QByteArray contents(const QString &file)
    {
        QFile f(file);
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
    }

    static void write(const QString &file, const QByteArray &bytes)
    {
        QFile f(file);
        QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
        f.write(bytes);
    }

    // A saved three-rack project at name.
    void make_project(const QString &name)
    {
        model::Project project;
        fixtures::fill(project);
        write(path(name), write_project(project).document);
    }

    // Every file of the folder, sorted.
    QStringList files() const { return QDir(m_dir->path()).entryList(QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot); }

    // An edit through the history, so the project becomes modified.
    static void edit(ProjectManager &manager, const QString &name)
    {
        if (manager.project()->profile()->count() == 0) {
            manager.commands()->execute(std::make_unique<AddRackCommand>(manager.project(), 0, name));
            return;
        }
        const QUuid rack = manager.project()->profile()->at(0);
        manager.commands()->execute(std::make_unique<RenameRackCommand>(manager.project(), rack, name));
    }

    void set_versions(int versions)
    {
        m_config.set_save_versions(versions);
    }

private Q_SLOTS:
    void initTestCase()
    {
        locale::set_application_dir(QStringLiteral(CORV_TEST_RUNTIME_DIR));
        locale::install_application_translator();
        QLoggingCategory::setFilterRules(QStringLiteral("corv.*.debug=false"));
        // The type of the fixture's nodes, doing nothing.
        NodeRegistration registration(m_registry, m_plugin);
        corv_node_type plain{};
        plain.id = "t";
        plain.name = "T";
        registration.register_node(&plain);
        registration.commit();
    }

    void init()
    {
        fixtures::fail_on_warnings();
        m_dir = std::make_unique<QTemporaryDir>();
        QVERIFY(m_dir->isValid());
        set_versions(3);
        m_config.set_autosave_enabled(false);
    }

    void open_failures_data()
    {
        QTest::addColumn<QByteArray>("document"); // null: no file at all
        QTest::addColumn<QString>("body_key");
        QTest::addColumn<QString>("reader_warning");
        QTest::newRow("missing file") << QByteArray() << "OpenProject.ErrorBody.%1" << "";
        QTest::newRow("not XML") << QByteArray("not a project") << "OpenProject.ErrorBody.InvalidProject"
                                 << "while parsing project";
        QTest::newRow("too old") << QByteArray("<?xml version=\"1.0\"?><project version=\"0\"/>")
                                 << "OpenProject.ErrorBody.TooOld" << "too old";
        QTest::newRow("too new") << QByteArray("<?xml version=\"1.0\"?><project version=\"2\"/>")
                                 << "OpenProject.ErrorBody.TooNew" << "too new";
    }

    // A failed open names the reason and keeps the project that was open.
    void open_failures()
    {
        QFETCH(QByteArray, document);
        QFETCH(QString, body_key);
        QFETCH(QString, reader_warning);
        make_project(QStringLiteral("good.corv"));
        ProjectManager manager(m_registry, &m_config);
        QVERIFY(manager.open(path(QStringLiteral("good.corv"))));
        model::Project *before = manager.project();

        const QString bad = path(QStringLiteral("bad.corv"));
        if (!document.isNull())
            write(bad, document);
        if (!reader_warning.isEmpty())
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(reader_warning));
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^Couldn't Open Project: ")));
        QSignalSpy errors(&manager, &ProjectManager::error_occurred);
        QSignalSpy replaced(&manager, &ProjectManager::before_project_replaced);
        QVERIFY(!manager.open(bad));

        QCOMPARE(errors.size(), 1);
        QCOMPARE(errors[0][0].toString(), locale::translate("OpenProject.ErrorTitle"));
        const QString expected = body_key.endsWith(QLatin1String("%1"))
                                     ? locale::translate("OpenProject.ErrorBody.%1", QStringLiteral("No such file or directory"))
                                     : locale::translate(body_key.toUtf8().constData());
        QCOMPARE(errors[0][1].toString(), expected);
        QCOMPARE(replaced.size(), 0);
        QCOMPARE(manager.project(), before);
        QCOMPARE(manager.linked_file(), path(QStringLiteral("good.corv")));
    }

    // Opening replaces the project, then links the file and clears modified;
    // edits through the history set modified.
    void open_and_modified_signals()
    {
        make_project(QStringLiteral("show.corv"));
        ProjectManager manager(m_registry, &m_config);
        manager.new_project();
        edit(manager, QStringLiteral("edited"));
        QVERIFY(manager.is_modified());

        QStringList order;
        connect(&manager, &ProjectManager::before_project_replaced, this, [&] { order << "before"; });
        connect(&manager, &ProjectManager::project_replaced, this, [&] { order << "after"; });
        connect(&manager, &ProjectManager::linked_project_file_changed, this,
                [&](const QString &p) { order << "linked " + QFileInfo(p).fileName(); });
        connect(&manager, &ProjectManager::is_project_modified_changed, this,
                [&](bool m) { order << (m ? "modified" : "clean"); });
        QVERIFY(manager.open(path(QStringLiteral("show.corv"))));
        QCOMPARE(order, (QStringList{"before", "after", "linked show.corv", "clean"}));
        QCOMPARE(manager.runtime()->rack_managers().size(), 3);
        QVERIFY(!manager.is_backed_up());

        order.clear();
        edit(manager, QStringLiteral("renamed"));
        manager.commands()->undo();
        QCOMPARE(order, QStringList{"modified"});
        QVERIFY(manager.save());
        QCOMPARE(order, (QStringList{"modified", "clean"}));
    }

    // Backups: one per opening, pruned oldest first, numbers reused.
    void backups()
    {
        ProjectManager manager(m_registry, &m_config);
        manager.new_project();
        // A file that does not exist yet gets no backup.
        QVERIFY(manager.save_as(path(QStringLiteral("show.ext"))));
        QCOMPARE(files(), QStringList{"show.ext"});

        // Five saves after one opening: one backup, of the file as opened.
        QVERIFY(manager.open(path(QStringLiteral("show.ext"))));
        const QByteArray first = contents(path(QStringLiteral("show.ext")));
        for (int i = 0; i < 5; ++i) {
            edit(manager, QStringLiteral("save %1").arg(i));
            QVERIFY(manager.save());
        }
        QCOMPARE(files(), (QStringList{"show.001.ext", "show.ext"}));
        QCOMPARE(contents(path(QStringLiteral("show.001.ext"))), first);
        QVERIFY(contents(path(QStringLiteral("show.ext"))).contains("save 4"));

        // Reopening and saving makes a second.
        QVERIFY(manager.open(path(QStringLiteral("show.ext"))));
        QVERIFY(manager.save());
        QCOMPARE(files(), (QStringList{"show.001.ext", "show.002.ext", "show.ext"}));

        // With two versions, 001 (older) goes and its number is taken again.
        {
            QFile older(path(QStringLiteral("show.001.ext")));
            QVERIFY(older.open(QIODevice::ReadWrite));
            QVERIFY(older.setFileTime(QDateTime::currentDateTime().addSecs(-60), QFileDevice::FileModificationTime));
        }
        set_versions(2);
        const QByteArray before = contents(path(QStringLiteral("show.ext")));
        QVERIFY(manager.open(path(QStringLiteral("show.ext"))));
        QTest::ignoreMessage(QtInfoMsg, QRegularExpression(QStringLiteral("^Deleting stale backup file .*show\\.001\\.ext$")));
        QTest::ignoreMessage(QtInfoMsg, QRegularExpression(QStringLiteral("^Backing up saved project to .*show\\.001\\.ext$")));
        QVERIFY(manager.save());
        QCOMPARE(files(), (QStringList{"show.001.ext", "show.002.ext", "show.ext"}));
        QCOMPARE(contents(path(QStringLiteral("show.001.ext"))), before);

        // One version keeps no backup at all.
        set_versions(1);
        QVERIFY(manager.open(path(QStringLiteral("show.ext"))));
        QVERIFY(manager.save());
        QCOMPARE(files().size(), 3);
    }

    // A leftover temporary file is not touched: the next free name is used.
    void leftover_temporary_file()
    {
        make_project(QStringLiteral("show.ext"));
        write(path(QStringLiteral("show.ext.temp")), "leftover");
        set_versions(1);
        ProjectManager manager(m_registry, &m_config);
        QVERIFY(manager.open(path(QStringLiteral("show.ext"))));
        edit(manager, QStringLiteral("new"));
        QVERIFY(manager.save());
        QCOMPARE(files(), (QStringList{"show.ext", "show.ext.temp"}));
        QCOMPARE(contents(path(QStringLiteral("show.ext.temp"))), QByteArray("leftover"));
        QVERIFY(contents(path(QStringLiteral("show.ext"))).contains("new"));
    }

    void autosave_tick()
    {
        ProjectManager manager(m_registry, &m_config);
        QSignalSpy saved(&manager, &ProjectManager::saved);
        manager.new_project();
        edit(manager, QStringLiteral("unlinked"));
        manager.autosave_tick(); // modified, but no file
        QCOMPARE(saved.size(), 0);
        QVERIFY(files().isEmpty());

        QVERIFY(manager.save_as(path(QStringLiteral("a.corv"))));
        manager.autosave_tick(); // linked, not modified
        QCOMPARE(saved.size(), 1);
        edit(manager, QStringLiteral("changed"));
        manager.autosave_tick();
        QCOMPARE(saved.size(), 2);
        QVERIFY(!manager.is_modified());
        QVERIFY(contents(path(QStringLiteral("a.corv"))).contains("changed"));
    }

    // The timer follows the settings; a new period restarts a running timer.
    void autosave_timer()
    {
        m_config.set_autosave_minutes(5);
        ProjectManager manager(m_registry, &m_config);
        QVERIFY(!manager.is_autosave_timer_active());
        m_config.set_autosave_enabled(true);
        QVERIFY(manager.is_autosave_timer_active());
        QCOMPARE(manager.autosave_interval_ms(), 5 * 60000);
        auto *timer = manager.findChild<QTimer *>(QStringLiteral("autosave"));
        QVERIFY(timer);
        QThread::msleep(300);
        QVERIFY(timer->remainingTime() <= 5 * 60000 - 250);
        m_config.set_autosave_minutes(7);
        QVERIFY(manager.is_autosave_timer_active());
        QCOMPARE(manager.autosave_interval_ms(), 7 * 60000);
        QVERIFY(timer->remainingTime() > 7 * 60000 - 250); // started again, with the new period
        m_config.set_autosave_enabled(false);
        QVERIFY(!manager.is_autosave_timer_active());
    }

    void failures_data()
    {
        QTest::addColumn<QString>("failure");
        QTest::newRow("temporary name is a folder") << "temp folder";
        QTest::newRow("backup name is a folder") << "backup folder";
        QTest::newRow("project name is a folder") << "project folder";
        QTest::newRow("disk full while writing") << "size limit";
    }

    // Every failure leaves the old file, the link and the modified flag.
    void failures()
    {
        QFETCH(QString, failure);
        make_project(QStringLiteral("show.ext"));
        ProjectManager manager(m_registry, &m_config);
        QVERIFY(manager.open(path(QStringLiteral("show.ext"))));
        edit(manager, QStringLiteral("unsaved"));
        QString target = path(QStringLiteral("show.ext"));
        if (failure == QLatin1String("temp folder")) {
            // Taken names are skipped, so make the directory unwritable by
            // putting the temporary file's folder out of reach.
            target = path(QStringLiteral("missing/show.ext"));
        } else if (failure == QLatin1String("backup folder")) {
            QVERIFY(QDir(m_dir->path()).mkdir(QStringLiteral("show.001.ext")));
        } else if (failure == QLatin1String("project folder")) {
            target = path(QStringLiteral("other.ext"));
            QVERIFY(QDir(m_dir->path()).mkdir(QStringLiteral("other.ext")));
        }
        const QByteArray old = contents(path(QStringLiteral("show.ext")));

        if (failure == QLatin1String("size limit")) {
            // In a child process, whose files may not grow past 1 KiB.
            const pid_t child = fork();
            if (child == 0) {
                std::signal(SIGXFSZ, SIG_IGN);
                const rlimit limit{1024, 1024};
                setrlimit(RLIMIT_FSIZE, &limit);
                QString title;
                connect(&manager, &ProjectManager::error_occurred, [&](const QString &t) { title = t; });
                qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
                const bool saved = manager.save();
                _exit(!saved && manager.is_modified() && title == locale::translate("SaveProject.ErrorTitle") ? 0 : 1);
            }
            int status = 0;
            QCOMPARE(waitpid(child, &status, 0), child);
            QVERIFY(WIFEXITED(status));
            QCOMPARE(WEXITSTATUS(status), 0);
        } else {
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^Couldn't save project: ")));
            if (failure == QLatin1String("backup folder"))
                QTest::ignoreMessage(QtInfoMsg, QRegularExpression(QStringLiteral("^Backing up")));
            QSignalSpy errors(&manager, &ProjectManager::error_occurred);
            QVERIFY(!manager.save_as(target));
            QCOMPARE(errors.size(), 1);
            QCOMPARE(errors[0][0].toString(), locale::translate("SaveProject.ErrorTitle"));
            QVERIFY(errors[0][1].toString().startsWith(locale::translate("SaveProject.ErrorBody.%1", QString())));
            QVERIFY(manager.is_modified());
            QCOMPARE(manager.linked_file(), path(QStringLiteral("show.ext")));
        }
        QCOMPARE(contents(path(QStringLiteral("show.ext"))), old);
    }
};

QTEST_GUILESS_MAIN(TstProjectManager)
#include "tst_project_manager.moc"
