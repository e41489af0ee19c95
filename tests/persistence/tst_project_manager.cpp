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
#include "tests/test_files.h"

#include <QDir>
#include <QFile>
#include <QLoggingCategory>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <QTimer>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace corv;
using namespace corv::engine;
using corv::test::read_file;
using corv::test::write_file;

namespace {

// Makes a file immutable (FS_IMMUTABLE_FL) for its lifetime; error says
// why not where the file system or the user's rights don't allow it.
struct Immutable {
    QByteArray name;
    QString error;

    explicit Immutable(const QString &path) : name(QFile::encodeName(path))
    {
        if (!name.isEmpty() && !set(true))
            error = QString::fromLocal8Bit(std::strerror(errno));
    }
    ~Immutable()
    {
        if (!name.isEmpty() && error.isEmpty())
            set(false);
    }

    bool set(bool on) const
    {
        const int fd = ::open(name.constData(), O_RDONLY | O_CLOEXEC);
        int flags = 0;
        bool ok = fd >= 0 && ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
        flags = on ? flags | FS_IMMUTABLE_FL : flags & ~FS_IMMUTABLE_FL;
        ok = ok && ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
        const int saved_errno = errno;
        if (fd >= 0)
            ::close(fd);
        errno = saved_errno;
        return ok;
    }
};

} // namespace

class TstProjectManager : public QObject
{
    Q_OBJECT

    PluginIdentity m_plugin{QStringLiteral("test"), QStringLiteral("Test"), {}};
    NodeRegistry m_registry;
    ConfigManager m_config;
    std::unique_ptr<QTemporaryDir> m_dir;

    QString path(const QString &name) const { return m_dir->filePath(name); }

    // A saved three-rack project at name.
    void make_project(const QString &name)
    {
        model::Project project;
        fixtures::fill(project);
        write_file(path(name), write_project(project).document);
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
            write_file(bad, document);
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

        // A new project starts clean and unlinked, whatever came before.
        edit(manager, QStringLiteral("again"));
        order.clear();
        manager.new_project();
        QCOMPARE(order, (QStringList{"before", "after", "linked ", "clean"}));
        QVERIFY(!manager.is_modified());
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
        const QByteArray first = read_file(path(QStringLiteral("show.ext")));
        for (int i = 0; i < 5; ++i) {
            edit(manager, QStringLiteral("save %1").arg(i));
            QVERIFY(manager.save());
        }
        QCOMPARE(files(), (QStringList{"show.001.ext", "show.ext"}));
        QCOMPARE(read_file(path(QStringLiteral("show.001.ext"))), first);
        QVERIFY(read_file(path(QStringLiteral("show.ext"))).contains("save 4"));

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
        const QByteArray before = read_file(path(QStringLiteral("show.ext")));
        QVERIFY(manager.open(path(QStringLiteral("show.ext"))));
        QTest::ignoreMessage(QtInfoMsg, QRegularExpression(QStringLiteral("^Deleting stale backup file .*show\\.001\\.ext$")));
        QTest::ignoreMessage(QtInfoMsg, QRegularExpression(QStringLiteral("^Backing up saved project to .*show\\.001\\.ext$")));
        QVERIFY(manager.save());
        QCOMPARE(files(), (QStringList{"show.001.ext", "show.002.ext", "show.ext"}));
        QCOMPARE(read_file(path(QStringLiteral("show.001.ext"))), before);

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
        write_file(path(QStringLiteral("show.ext.temp")), "leftover");
        set_versions(1);
        ProjectManager manager(m_registry, &m_config);
        QVERIFY(manager.open(path(QStringLiteral("show.ext"))));
        edit(manager, QStringLiteral("new"));
        QVERIFY(manager.save());
        QCOMPARE(files(), (QStringList{"show.ext", "show.ext.temp"}));
        QCOMPARE(read_file(path(QStringLiteral("show.ext.temp"))), QByteArray("leftover"));
        QVERIFY(read_file(path(QStringLiteral("show.ext"))).contains("new"));
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
        QVERIFY(read_file(path(QStringLiteral("a.corv"))).contains("changed"));
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
        QTest::addColumn<QString>("reason"); // the system's text the box shows
        QTest::newRow("temporary name is a folder") << "temp folder" << "No such file or directory";
        QTest::newRow("backup name is a folder") << "backup folder" << "File exists";
        QTest::newRow("project name is a folder") << "project folder" << "Is a directory";
        QTest::newRow("disk full while writing") << "size limit" << "File too large";
        QTest::newRow("no link, and the copy fails") << "no link" << "File too large";
    }

    // Every failure shows the system's reason and leaves the old file, the
    // link and the modified flag. Each save runs in a child process, whose
    // files may not grow past a limit: it must get an error, not SIGXFSZ.
    void failures()
    {
        QFETCH(QString, failure);
        QFETCH(QString, reason);
        make_project(QStringLiteral("show.ext"));
        QString target = path(QStringLiteral("show.ext"));
        qint64 limit = RLIM_INFINITY;
        if (failure == QLatin1String("temp folder")) {
            // Taken names are skipped, so put the temporary file's folder out of reach.
            target = path(QStringLiteral("missing/show.ext"));
        } else if (failure == QLatin1String("backup folder")) {
            QVERIFY(QDir(m_dir->path()).mkdir(QStringLiteral("show.001.ext")));
        } else if (failure == QLatin1String("project folder")) {
            target = path(QStringLiteral("other.ext"));
            QVERIFY(QDir(m_dir->path()).mkdir(QStringLiteral("other.ext")));
        } else if (failure == QLatin1String("size limit")) {
            limit = 1024;
        } else if (failure == QLatin1String("no link")) {
            // An immutable file takes no second name; its copy is larger
            // than the limit, the new document is not.
            write_file(target, read_file(target) + QByteArray(64 * 1024, ' '));
            limit = 32 * 1024;
        }
        ProjectManager manager(m_registry, &m_config);
        QVERIFY(manager.open(path(QStringLiteral("show.ext"))));
        edit(manager, QStringLiteral("unsaved"));
        const QByteArray old = read_file(path(QStringLiteral("show.ext")));
        Immutable immutable(failure == QLatin1String("no link") ? path(QStringLiteral("show.ext")) : QString());
        if (!immutable.error.isEmpty())
            QSKIP(qPrintable(QStringLiteral("can't make a file immutable here: ") + immutable.error));

        int fds[2];
        QCOMPARE(::pipe(fds), 0);
        const pid_t child = fork();
        if (child == 0) {
            ::close(fds[0]);
            const rlimit size{rlim_t(limit), rlim_t(limit)};
            setrlimit(RLIMIT_FSIZE, &size);
            qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
            QStringList shown;
            connect(&manager, &ProjectManager::error_occurred,
                    [&](const QString &title, const QString &body) { shown << title << body; });
            const bool saved = manager.save_as(target);
            const bool kept = !saved && manager.is_modified() && manager.linked_file() == path(QStringLiteral("show.ext"));
            const QByteArray report = (kept ? "kept\x1f" : "changed\x1f") + shown.join(u'\x1f').toUtf8();
            [[maybe_unused]] const ssize_t n = ::write(fds[1], report.constData(), size_t(report.size()));
            _exit(0);
        }
        ::close(fds[1]);
        QByteArray report;
        char buffer[4096];
        for (ssize_t n; (n = ::read(fds[0], buffer, sizeof buffer)) > 0;)
            report.append(buffer, n);
        ::close(fds[0]);
        int status = 0;
        QCOMPARE(waitpid(child, &status, 0), child);
        QVERIFY2(WIFEXITED(status), qPrintable(QStringLiteral("ended by signal %1").arg(WTERMSIG(status))));
        const QStringList lines = QString::fromUtf8(report).split(u'\x1f');
        QCOMPARE(lines.size(), 3);
        QCOMPARE(lines[0], QStringLiteral("kept"));
        QCOMPARE(lines[1], locale::translate("SaveProject.ErrorTitle"));
        QCOMPARE(lines[2], locale::translate("SaveProject.ErrorBody.%1", reason));
        QCOMPARE(read_file(path(QStringLiteral("show.ext"))), old);
    }

    // A file at the backup's name that the listing does not count (with
    // 1000 versions the thousandth is show.1000.ext) is replaced, as the
    // rename it stands for would replace it; it never blocks saving.
    void backup_name_taken()
    {
        make_project(QStringLiteral("show.ext"));
        for (int n = 1; n <= 999; ++n)
            write_file(path(QStringLiteral("show.%1.ext").arg(n, 3, 10, QLatin1Char('0'))), "older");
        write_file(path(QStringLiteral("show.1000.ext")), "in the way");
        set_versions(1000);
        ProjectManager manager(m_registry, &m_config);
        QVERIFY(manager.open(path(QStringLiteral("show.ext"))));
        const QByteArray old = read_file(path(QStringLiteral("show.ext")));
        edit(manager, QStringLiteral("new"));
        QTest::ignoreMessage(QtInfoMsg, QRegularExpression(QStringLiteral("^Backing up saved project to .*show\\.1000\\.ext$")));
        QVERIFY(manager.save());
        QCOMPARE(read_file(path(QStringLiteral("show.1000.ext"))), old);
        QVERIFY(read_file(path(QStringLiteral("show.ext"))).contains("new"));
        QCOMPARE(files().size(), 1001);
    }

    void keeps_access_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<bool>("other_owner"); // root only: the file belongs to someone else
        QTest::newRow("private") << 0600 << false;
        QTest::newRow("group reads") << 0640 << false;
        QTest::newRow("all read and write") << 0666 << false;
        QTest::newRow("someone else's, private") << 0600 << true;
    }

    // The saved file lets the same people at it as the file it replaces,
    // and so does the temporary file on its way.
    void keeps_access()
    {
        QFETCH(int, mode);
        QFETCH(bool, other_owner);
        if (other_owner && ::getuid() != 0)
            QSKIP("only root can give a file away");
        make_project(QStringLiteral("show.ext"));
        const QByteArray name = QFile::encodeName(path(QStringLiteral("show.ext")));
        QCOMPARE(::chmod(name.constData(), mode_t(mode)), 0);
        const uid_t owner = other_owner ? 4321 : ::getuid();
        const gid_t group = other_owner ? 4322 : ::getgid();
        QCOMPARE(::chown(name.constData(), owner, group), 0);
        set_versions(3);
        ProjectManager manager(m_registry, &m_config);
        QVERIFY(manager.open(path(QStringLiteral("show.ext"))));
        edit(manager, QStringLiteral("new"));
        QTest::ignoreMessage(QtInfoMsg, QRegularExpression(QStringLiteral("^Backing up")));
        QVERIFY(manager.save());
        for (const char *file : {"show.ext", "show.001.ext"}) {
            struct stat info {};
            QCOMPARE(::stat(QFile::encodeName(path(QString::fromLatin1(file))).constData(), &info), 0);
            QCOMPARE(int(info.st_mode & 07777), mode);
            QCOMPARE(info.st_uid, owner);
            QCOMPARE(info.st_gid, group);
        }
        QVERIFY(read_file(path(QStringLiteral("show.ext"))).contains("new"));
    }
};

QTEST_GUILESS_MAIN(TstProjectManager)
#include "tst_project_manager.moc"
