// The updater against a real HTTP server on 127.0.0.1: fetching and
// verification (redirects, limits), the check with ignored versions and
// methods, two components that depend on each other, the plugin installer
// with hostile archives and over plugins already there, and the whole update
// of a tarball install through the update host, refused steps included.
#include "archive_writer.h"
#include "http_server.h"

#include "update/dependency_graph.h"
#include "update/hand_off.h"
#include "update/install_steps.h"
#include "update/platform.h"
#include "update/plugin_installer.h"
#include "update/update_checker.h"
#include "tests/test_files.h"

#include <QBuffer>
#include <QCryptographicHash>
#include <QDirIterator>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLibrary>
#include <QLocalServer>
#include <QNetworkAccessManager>
#include <QProcess>
#include <QRegularExpression>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using namespace corv::update;

namespace {

QByteArray sha256(const QByteArray &data)
{
    return QCryptographicHash::hash(data, QCryptographicHash::Sha256).toHex();
}

using corv::test::read_file;

void write_file(const QString &path, const QByteArray &data, bool executable = false)
{
    corv::test::write_file(path, data);
    if (executable)
        QFile::setPermissions(path, QFile::permissions(path) | QFile::ExeOwner);
}

using archive_writer::Member;
using archive_writer::tarball;

// The file name of plugin p's library on this platform.
QByteArray library_name()
{
    return QLibrary::isLibrary(QStringLiteral("p.dll")) ? "io.x.p.dll" : "io.x.p.so";
}

// The program an update replaces: a copy of the stand-in, named "corvapp"
// with this platform's suffix. Started, it copies "version.txt" beside it
// into "ran.txt".
QString program_name()
{
    const QString suffix = QFileInfo(QStringLiteral(CORV_STAND_IN)).suffix();
    return suffix.isEmpty() ? QStringLiteral("corvapp") : QStringLiteral("corvapp.") + suffix;
}

void write_program(const QString &folder, const char *version)
{
    QDir().mkpath(folder);
    QVERIFY(QFile::copy(QStringLiteral(CORV_STAND_IN), folder + u'/' + program_name()));
    write_file(folder + QStringLiteral("/version.txt"), version);
}

QJsonObject entry(const char *version, const QJsonArray &steps,
                  const char *method = "linux64.tar.gz", const QJsonObject &requirements = {})
{
    if (!method)
        method = platform::plugin_update_method();
    return {{QStringLiteral("version"), QString::fromLatin1(version)},
            {QStringLiteral("descriptionUrl"), QStringLiteral("notes.html")},
            {QStringLiteral("releaseDate"), QStringLiteral("2026-05-01T12:00:00.000Z")},
            {QStringLiteral("requires"), requirements},
            {QStringLiteral("methods"), QJsonObject{{QString::fromLatin1(method), steps}}}};
}

QJsonArray tarball_steps(const QByteArray &archive, const QByteArray &digest,
                         const QString &name = QStringLiteral("release.tar.gz"))
{
    return {QJsonObject{{QStringLiteral("download"), name},
                        {QStringLiteral("destination"), name},
                        {QStringLiteral("sha256"), QString::fromLatin1(digest)},
                        {QStringLiteral("size"), archive.size()}},
            QJsonObject{{QStringLiteral("extract"), name},
                        {QStringLiteral("destination"), QStringLiteral(".")}}};
}

QByteArray manifest(const QJsonArray &entries, const QJsonObject &extra = {})
{
    QJsonObject root = extra;
    root[QStringLiteral("formatVersion")] = 1;
    root[QStringLiteral("entries")] = entries;
    return QJsonDocument(root).toJson();
}

// Everything in a folder, hidden entries too.
QStringList entries(const QString &folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
}

// A plugin manifest for io.x.p serving `archive` from the server, as release `version`.
QByteArray plugin_manifest(HttpServer &server, const QByteArray &archive,
                           const char *version = "1.0", const QString &id = QStringLiteral("io.x.p"))
{
    server.serve(QStringLiteral("/p/release.tar.gz"), archive);
    return manifest({entry(version, tarball_steps(archive, sha256(archive)), nullptr)},
                    {{QStringLiteral("id"), id}, {QStringLiteral("displayName"), QStringLiteral("P")}});
}

// Fetches the manifest and installs; the failure message, or empty.
QString install_plugin(PluginInstaller &installer, const QUrl &url)
{
    QSignalSpy ready(&installer, &PluginInstaller::manifest_ready);
    QSignalSpy installed(&installer, &PluginInstaller::installed);
    QSignalSpy failed(&installer, &PluginInstaller::failed);
    installer.fetch_manifest(url);
    if (!ready.wait(5000))
        return QStringLiteral("no manifest");
    installer.install();
    if (!QTest::qWaitFor([&] { return installed.size() + failed.size() > 0; }, 30000))
        return QStringLiteral("neither installed nor failed");
    return failed.isEmpty() ? QString() : failed.at(0).at(0).toString();
}

Component component(const QString &id, const char *current, const QUrl &manifest_url,
                    const QString &base = {})
{
    QUrl url = manifest_url;
    url.setFragment(QStringLiteral("linux64.tar.gz"));
    return {id, id.section(u'.', -1), QVersionNumber::fromString(QString::fromLatin1(current)), url,
            base};
}

const QJsonArray kRun{QJsonObject{{QStringLiteral("run"), QStringLiteral("true")}}};

} // namespace

class tst_UpdateNetwork : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() { QTest::failOnWarning(QRegularExpression(QStringLiteral(".*"))); }

    void fetch_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QByteArray>("sha");
        QTest::addColumn<qint64>("size");
        QTest::addColumn<QString>("error"); // a pattern; empty for success
        const QByteArray good = sha256("hello");
        QTest::newRow("verified") << "/file" << good << qint64(5) << QString();
        QTest::newRow("missing") << "/missing" << QByteArray() << qint64(-1)
                                 << "server replied: Not Found";
        QTest::newRow("stalled") << "/stall" << QByteArray() << qint64(-1)
                                 << "^no data received for 300 ms$";
        QTest::newRow("outside address")
            << "http://updates.example.invalid/m.json" << QByteArray() << qint64(-1)
            << "^refused to fetch http://updates.example.invalid/m.json";
        QTest::newRow("other scheme") << "ftp://127.0.0.1/m.json" << QByteArray() << qint64(-1) << "^refused to fetch ftp:";
        QTest::newRow("short") << "/file" << good << qint64(6)
                               << "^size 5 differs from the expected 6$";
        QTest::newRow("long") << "/file" << good << qint64(4)
                              << "^size exceeds the expected 4 bytes$";
        QTest::newRow("wrong sha256")
            << "/file" << sha256("hellO") << qint64(5)
            << "^sha256 " + QString::fromLatin1(good) + " differs from the expected ";
        // Each answered on a later turn of the loop, so the body arrives.
        QTest::newRow("three redirects") << "/r1" << good << qint64(5) << QString();
        QTest::newRow("redirect outside")
            << "/away" << QByteArray() << qint64(-1)
            << "^refused redirect to http://updates.example.invalid/m.json$";
        QTest::newRow("past the reply limit")
            << "/big" << QByteArray() << qint64(-1) << "^reply exceeds 1024 bytes$";
    }
    void fetch()
    {
        QFETCH(QString, path);
        QFETCH(QByteArray, sha);
        QFETCH(qint64, size);
        QFETCH(QString, error);
        HttpServer server;
        server.serve(QStringLiteral("/file"), "hello");
        server.stall(QStringLiteral("/stall"), "a stalled reply");
        server.redirect(QStringLiteral("/r1"), server.url(QStringLiteral("/r2")).toString());
        server.redirect(QStringLiteral("/r2"), server.url(QStringLiteral("/r3")).toString());
        server.redirect(QStringLiteral("/r3"), server.url(QStringLiteral("/file")).toString());
        server.redirect(QStringLiteral("/away"), QStringLiteral("http://updates.example.invalid/m.json"));
        server.serve(QStringLiteral("/big"), QByteArray(1025, 'x'));
        QNetworkAccessManager network;
        FetchOptions options{"Corvane/0.9.4 (test)", 300, 1024};
        const QUrl url = path.startsWith(u'/') ? server.url(path) : QUrl(path);
        const FetchResult result = fetch_blocking(&network, options, url, sha, size);
        if (error.isEmpty()) {
            QCOMPARE(result.error, QString());
            QCOMPARE(result.data, QByteArray("hello"));
        } else {
            QVERIFY2(QRegularExpression(error).match(result.error).hasMatch(),
                     qPrintable(result.error));
            QVERIFY(result.data.isEmpty());
        }
        if (path.startsWith(u'/'))
            QVERIFY(!server.user_agents.isEmpty());
        for (const QByteArray &agent : std::as_const(server.user_agents))
            QCOMPARE(agent, QByteArray("Corvane/0.9.4 (test)"));
    }

    // A download whose file refuses it stops and says why.
    void fetch_into_a_file_that_refuses()
    {
        HttpServer server;
        server.serve(QStringLiteral("/file"), "hello");
        QNetworkAccessManager network;
        QBuffer sink;
        QVERIFY(sink.open(QIODevice::ReadOnly));
        const FetchResult result = fetch_blocking(&network, FetchOptions{"UA", 2000, 1024},
                                                  server.url(QStringLiteral("/file")), {}, -1, &sink);
        QVERIFY2(result.error.startsWith(QStringLiteral("could not write: ")), qPrintable(result.error));
    }

    // Skipping by version (also one ignored before a restart) and by method,
    // and a failed fetch reported beside a good one.
    void check_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QString>("ignored");
        QTest::addColumn<QStringList>("expected");
        QTest::addColumn<QString>("skip"); // the logged skip line, if any
        const QJsonArray entries{entry("1.2", kRun), entry("1.1", kRun), entry("1.0", kRun)};
        QTest::newRow("newer")
            << manifest(entries) << QString() << QStringList{"1.2", "1.1"}
            << "C updater: skipping entry 1.0 (current version=1.0, ignored version=none)";
        QTest::newRow("ignored")
            << manifest(entries) << "1.2" << QStringList()
            << "C updater: skipping entry 1.2 (current version=1.0, ignored version=1.2)";
        QTest::newRow("other method")
            << manifest({entry("2.0", kRun, "win64.msi")}) << QString() << QStringList()
            << "C updater: skipping entry 2.0 as it doesn't have the required method "
               "linux64.tar.gz";
    }
    void check()
    {
        QFETCH(QByteArray, json);
        QFETCH(QString, ignored);
        QFETCH(QStringList, expected);
        QFETCH(QString, skip);
        HttpServer server;
        server.serve(QStringLiteral("/c.json"), json);
        QTemporaryDir folder;
        const QString ini = folder.filePath(QStringLiteral("settings.ini"));
        {
            QSettings before(ini, QSettings::IniFormat);
            set_ignored_version(before, QStringLiteral("other"), QVersionNumber(9));
            if (!ignored.isEmpty())
                set_ignored_version(before, QStringLiteral("io.x.C"),
                                    QVersionNumber::fromString(ignored));
        }
        QSettings settings(ini, QSettings::IniFormat); // as after a restart
        QCOMPARE(ignored_version(settings, QStringLiteral("other")), QVersionNumber(9));

        QTest::ignoreMessage(QtDebugMsg, qUtf8Printable(skip));
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression(QStringLiteral(
                                 "^Gone updater: failed to fetch manifest: .*Not Found$")));
        UpdateChecker checker(
            {component(QStringLiteral("io.x.C"), "1.0", server.url(QStringLiteral("/c.json"))),
             component(QStringLiteral("io.x.Gone"), "1.0",
                       server.url(QStringLiteral("/gone.json")))},
            &settings, FetchOptions{"UA", 2000});
        QSignalSpy finished(&checker, &UpdateChecker::finished);
        checker.start();
        QVERIFY(finished.wait(5000));
        QStringList versions;
        for (const ComponentUpdate &update : checker.updates()) {
            for (const Entry &e : update.candidates)
                versions.append(e.version_text);
        }
        QCOMPARE(versions, expected);
        QCOMPARE(checker.failures().size(), 1);
        QVERIFY(checker.failures().at(0).startsWith(QStringLiteral("Gone: ")));
    }

    void stalled_check_reported()
    {
        HttpServer server;
        server.stall(QStringLiteral("/c.json"), manifest({entry("2.0", kRun)}));
        QTest::ignoreMessage(QtWarningMsg,
                             "C updater: failed to fetch manifest: no data received for 200 ms");
        UpdateChecker checker(
            {component(QStringLiteral("C"), "1.0", server.url(QStringLiteral("/c.json")))}, nullptr,
            FetchOptions{"UA", 200});
        QSignalSpy finished(&checker, &UpdateChecker::finished);
        checker.start();
        QVERIFY(finished.wait(3000));
        QVERIFY(checker.updates().isEmpty());
        QCOMPARE(checker.failures(), QStringList{"C: no data received for 200 ms"});
    }

    // The application's 2.0 needs its plugin at 1.5; both come from their own
    // manifests, and the plugin installs first.
    void two_components()
    {
        HttpServer server;
        server.serve(QStringLiteral("/app.json"),
                     manifest({entry("2.0", kRun, "linux64.tar.gz",
                                     {{QStringLiteral("io.x.plugin"), QStringLiteral("1.5")}})}));
        server.serve(QStringLiteral("/plugin.json"),
                     manifest({entry("1.5", kRun), entry("1.4", kRun)}));
        UpdateChecker checker(
            {component(QStringLiteral("io.x.app"), "1.0", server.url(QStringLiteral("/app.json"))),
             component(QStringLiteral("io.x.plugin"), "1.2",
                       server.url(QStringLiteral("/plugin.json")))},
            nullptr, FetchOptions{"UA", 2000});
        QSignalSpy finished(&checker, &UpdateChecker::finished);
        checker.start();
        QVERIFY(finished.wait(5000));
        QTest::ignoreMessage(
            QtInfoMsg, QRegularExpression(QStringLiteral("^Perf updater: prepared graph for 2 ")));
        DependencyGraph graph(checker.updates(), {});
        QTest::ignoreMessage(
            QtInfoMsg, QRegularExpression(QStringLiteral("^Perf updater: updated graph for 2 ")));
        graph.set_skipped(1, true); // the user skips the plugin; the application still needs it
        QCOMPARE(graph.state(1), DependencyGraph::State::Dependency);
        const QList<DependencyGraph::Install> installs = graph.installs();
        QCOMPARE(installs.size(), 2);
        QCOMPARE(installs[0].update.component.id, QStringLiteral("io.x.plugin"));
        QCOMPARE(installs[0].entry.version_text, QStringLiteral("1.5"));
        QCOMPARE(installs[1].entry.version_text, QStringLiteral("2.0"));
    }

    // The package is checked before it is unpacked; the icon is fetched only
    // when the manifest gives its digest and a size within the icon limit,
    // and never past that size.
    void plugin_install_data()
    {
        QTest::addColumn<bool>("good_package");
        QTest::addColumn<QJsonObject>("icon_fields");
        QTest::addColumn<QByteArray>("served_icon");
        QTest::addColumn<bool>("icon_requested");
        QTest::addColumn<QString>("warning"); // a pattern; empty for none
        const QByteArray icon = "PNG bytes";
        const QJsonObject checked{{QStringLiteral("iconSha256"), QString::fromLatin1(sha256(icon))},
                                  {QStringLiteral("iconSize"), icon.size()}};
        QTest::newRow("verified") << true << checked << icon << true << QString();
        QTest::newRow("wrong package sha256") << false << checked << icon << true << QString();
        QJsonObject wrong_size = checked;
        wrong_size[QStringLiteral("iconSize")] = icon.size() + 1;
        QTest::newRow("wrong icon size")
            << true << wrong_size << icon << true
            << "^P installer: could not get icon from .*/p/icon.png: size 9 differs from the "
               "expected 10$";
        QTest::newRow("icon without digest")
            << true << QJsonObject{{QStringLiteral("iconSize"), icon.size()}} << icon << false
            << "^plugin installer: leaving out the icon: iconSha256 is missing$";
        QJsonObject huge = checked;
        huge[QStringLiteral("iconSize")] = 1.5e9;
        QTest::newRow("icon past its limit")
            << true << huge << icon << false
            << "^plugin installer: leaving out the icon: iconSize is over the limit of 1048576 "
               "bytes$";
        QTest::newRow("icon larger than announced")
            << true << checked << QByteArray(4 * 1024 * 1024, 'i') << true
            << "^P installer: could not get icon from .*/p/icon.png: size exceeds the expected 9 "
               "bytes$";
    }
    void plugin_install()
    {
        QFETCH(bool, good_package);
        QFETCH(QJsonObject, icon_fields);
        QFETCH(QByteArray, served_icon);
        QFETCH(bool, icon_requested);
        QFETCH(QString, warning);
        QTemporaryDir folder;
        const QByteArray archive = archive_writer::gzip(
            archive_writer::tar({{library_name(), "not really a library", 0755}}));
        HttpServer server;
        server.serve(QStringLiteral("/p/release.tar.gz"), archive);
        server.serve(QStringLiteral("/p/icon.png"), served_icon);
        QJsonObject extra = icon_fields;
        extra[QStringLiteral("id")] = QStringLiteral("io.x.p");
        extra[QStringLiteral("displayName")] = QStringLiteral("P");
        extra[QStringLiteral("iconUrl")] = QStringLiteral("icon.png");
        server.serve(QStringLiteral("/p/plugin.json"),
                     manifest({entry("1.0", tarball_steps(archive, sha256(good_package ? archive : "x")),
                                     nullptr)},
                              extra));

        const QString plugins = folder.filePath(QStringLiteral("data/plugins"));
        PluginInstaller installer(FetchOptions{"UA", 2000}, plugins,
                                  QString::fromLatin1(platform::plugin_update_method()));
        QSignalSpy icons(&installer, &PluginInstaller::icon_ready);
        if (!warning.isEmpty())
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(warning));
        if (!good_package)
            QTest::ignoreMessage(
                QtWarningMsg, QRegularExpression(QStringLiteral(
                                  "^plugin installer: failed to install io.x.p: refused .*/p/"
                                  "release.tar.gz: sha256 [0-9a-f]+ differs from the expected")));
        const QString failure =
            install_plugin(installer, server.url(QStringLiteral("/p/plugin.json")));
        QCOMPARE(failure.isEmpty(), good_package);
        QTRY_COMPARE(server.requested.count(QStringLiteral("/p/icon.png")), icon_requested ? 1 : 0);
        QTRY_COMPARE(icons.size(), warning.isEmpty() ? 1 : 0);
        const QString library = plugins + QStringLiteral("/io.x.p/") + library_name();
        QCOMPARE(QFileInfo::exists(library), good_package);
        if (good_package)
            QCOMPARE(read_file(library), QByteArray("not really a library"));
        // Only the plugin's folder is left behind.
        QCOMPARE(entries(plugins), good_package ? QStringList{"io.x.p"} : QStringList());
    }

    // Hostile archives: each is refused with its reason and leaves nothing in
    // the plugins folder; what is taken out has no owner and sane modes.
    void plugin_archive_data()
    {
        QTest::addColumn<QByteArray>("archive");
        QTest::addColumn<int>("max_entries");
        QTest::addColumn<QString>("error"); // a pattern; empty for success
        QTest::addColumn<QStringList>("modes"); // "path=octal" after a success
        const QByteArray lib = library_name();
        const Member library{lib, "library", 0755};
        auto gz = [](const QList<Member> &members) {
            return archive_writer::gzip(archive_writer::tar(members));
        };
        QTest::newRow("owners and modes made sane")
            << gz({{"./", {}, 0777, '5'},
                   {"./" + lib, "library", 04777},
                   {"share/", {}, 0777, '5'},
                   {"share/notes.txt", "notes", 06666},
                   {"share/deep/er/tool", "#!", 02775}})
            << 100 << QString()
            << QStringList{QString::fromLatin1(lib) + "=755", "share=755", "share/notes.txt=644",
                           "share/deep=755", "share/deep/er/tool=755"};
        QTest::newRow("bomb of zeros")
            << archive_writer::zero_bomb(lib, 8 * 1024 * 1024) << 100
            << "^the archive unpacks to more than 1048576 bytes$" << QStringList();
        QTest::newRow("many files past the size")
            << gz({library, {"a", QByteArray(600 * 1024, 'a')}, {"b", QByteArray(600 * 1024, 'b')}})
            << 100 << "^the archive unpacks to more than 1048576 bytes$" << QStringList();
        QList<Member> crowd{library};
        for (int i = 0; i < 60; ++i)
            crowd.append({"f" + QByteArray::number(i), "x"});
        QTest::newRow("too many entries")
            << gz(crowd) << 50 << "^the archive has more than 50 entries$" << QStringList();
        QTest::newRow("symlink")
            << gz({library, {"evil.so", {}, 0777, '2', "/etc/passwd"}}) << 100
            << "^refused evil.so: links are not installed$" << QStringList();
        QTest::newRow("hard link") << gz({library, {"again", {}, 0644, '1', lib}}) << 100
                                   << "^refused again: links are not installed$" << QStringList();
        QTest::newRow("device") << gz({library, {"tty", {}, 0666, '3'}}) << 100
                                << "^refused tty: devices and pipes are not installed$"
                                << QStringList();
        QTest::newRow("fifo") << gz({library, {"pipe", {}, 0666, '6'}}) << 100
                              << "^refused pipe: devices and pipes are not installed$"
                              << QStringList();
        QTest::newRow("path escape")
            << gz({library, {"../escaped.txt", "x"}}) << 100
            << "^refused \\.\\./escaped.txt: the path leaves the destination$" << QStringList();
        // Long names come in pax records: a well-formed one names the
        // entry (and is checked like any name); a malformed one is ignored.
        QTest::newRow("pax path escape")
            << gz({library, {"h", "23 path=../escaped.txt\n", 0644, 'x'}, {"safe.txt", "x"}}) << 100
            << "^refused \\.\\./escaped.txt: the path leaves the destination$" << QStringList();
        QTest::newRow("malformed pax record")
            << gz({library, {"h", "2 path=../escaped.txt\n", 0644, 'x'}, {"safe.txt", "x"}}) << 100
            << QString() << QStringList{"safe.txt=644"};
        QTest::newRow("absolute path")
            << gz({library, {"/tmp/corv-absolute.txt", "x"}}) << 100
            << "^refused /tmp/corv-absolute.txt: the path leaves the destination$" << QStringList();
        QTest::newRow("backslash escape")
            << gz({library, {"..\\escaped.txt", "x"}}) << 100
            << "^refused \\.\\.\\\\escaped.txt: the path leaves the destination$" << QStringList();
        QTest::newRow("file under a file")
            << gz({library, {lib + "/inner", "x"}}) << 100
            << "^refused " + QRegularExpression::escape(QString::fromLatin1(lib)) +
                   ": a file and a folder of one name$"
            << QStringList();
        QTest::newRow("a file where a folder is")
            << gz({library, {"share/", {}, 0755, '5'}, {"share", "x"}}) << 100
            << "^refused share: a file and a folder of one name$" << QStringList();
        QTest::newRow("a folder where a file is")
            << gz({library, {"notes", "x"}, {"notes/", {}, 0755, '5'}}) << 100
            << "^refused notes: a file and a folder of one name$" << QStringList();
        const QByteArray whole = gz({library, {"big", QByteArray(200000, 'q')}});
        QTest::newRow("truncated") << whole.left(whole.size() / 2) << 100
                                   << "^the archive ends early$" << QStringList();
        QTest::newRow("not an archive") << QByteArray(2048, 'n') << 100
                                        << "^not a tar archive" << QStringList();
        QTest::newRow("no library") << gz({{"readme.txt", "x"}}) << 100
                                    << "^the package holds no library named io.x.p$"
                                    << QStringList();
    }
    void plugin_archive()
    {
        QFETCH(QByteArray, archive);
        QFETCH(int, max_entries);
        QFETCH(QString, error);
        QFETCH(QStringList, modes);
        QTemporaryDir folder;
        const QString plugins = folder.filePath(QStringLiteral("data/plugins"));
        HttpServer server;
        server.serve(QStringLiteral("/p/plugin.json"), plugin_manifest(server, archive));
        PluginInstaller installer(FetchOptions{"UA", 5000}, plugins,
                                  QString::fromLatin1(platform::plugin_update_method()));
        installer.set_limits({1024 * 1024, max_entries});
        const QString prefix = QStringLiteral("^plugin installer: failed to install io.x.p: ");
        if (!error.isEmpty())
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(prefix + error.mid(1)));
        const QString failure =
            install_plugin(installer, server.url(QStringLiteral("/p/plugin.json")));
        if (!error.isEmpty()) {
            QVERIFY2(QRegularExpression(prefix + error.mid(1)).match(failure).hasMatch(),
                     qPrintable(failure));
            // Nothing half-installed, no work folder left.
            QCOMPARE(entries(plugins), QStringList());
            QVERIFY(!QFileInfo::exists(folder.filePath(QStringLiteral("data/escaped.txt"))));
            QVERIFY(!QFileInfo::exists(QStringLiteral("/tmp/corv-absolute.txt")));
            return;
        }
        QCOMPARE(failure, QString());
        // Windows keeps no Unix modes; there only the files are compared.
        const bool unix_modes = QSysInfo::kernelType() != QLatin1StringView("winnt");
        for (const QString &mode : std::as_const(modes)) {
            const QString path = plugins + QStringLiteral("/io.x.p/") + mode.section(u'=', 0, 0);
            QVERIFY2(QFileInfo::exists(path), qPrintable(path));
            const int permissions = QFile::permissions(path).toInt();
            const int bits = (permissions & 0x7) | ((permissions >> 4) & 0x7) << 3 |
                             ((permissions >> 12) & 0x7) << 6;
            if (unix_modes)
                QCOMPARE(QString::number(bits, 8), mode.section(u'=', 1));
        }
    }

    // Cancelling while the package unpacks waits for the unpacking to stop
    // and leaves nothing behind.
    void cancel_while_unpacking()
    {
        QTemporaryDir folder;
        const QString plugins = folder.filePath(QStringLiteral("plugins"));
        const qint64 size = 256 * 1024 * 1024;
        HttpServer server;
        server.serve(QStringLiteral("/p/plugin.json"),
                     plugin_manifest(server, archive_writer::zero_bomb(library_name(), size)));
        PluginInstaller installer(FetchOptions{"UA", 5000}, plugins,
                                  QString::fromLatin1(platform::plugin_update_method()));
        installer.set_limits({2 * size, 10});
        QSignalSpy ready(&installer, &PluginInstaller::manifest_ready);
        QSignalSpy installed(&installer, &PluginInstaller::installed);
        installer.fetch_manifest(server.url(QStringLiteral("/p/plugin.json")));
        QVERIFY(ready.wait(5000));
        installer.install();
        const auto unpacking = [&plugins] {
            QDirIterator it(plugins, {QString::fromLatin1(library_name())}, QDir::Files | QDir::Hidden,
                            QDirIterator::Subdirectories);
            return it.hasNext() && QFileInfo(it.next()).size() > 0;
        };
        QVERIFY(QTest::qWaitFor([&] { return unpacking() || !installed.isEmpty(); }, 30000));
        if (!installed.isEmpty())
            QSKIP("the package unpacked before the test could cancel it");
        // Bytes this process has written so far, where the system counts them.
        const auto written = [] {
            QFile io(QStringLiteral("/proc/self/io"));
            const QByteArray text = io.open(QIODevice::ReadOnly) ? io.readAll() : QByteArray();
            const qsizetype at = text.indexOf("wchar: ");
            return at < 0 ? qint64(-1) : text.mid(at + 7, text.indexOf('\n', at) - at - 7).toLongLong();
        };
        const qint64 before = written();
        installer.cancel();
        QVERIFY(before < 0 || written() - before < size / 2); // it stopped at its next piece
        QVERIFY(!installer.busy());
        QCOMPARE(entries(plugins), QStringList());
        QTest::qWait(50); // nothing arrives from the stopped unpacking
        QVERIFY(installed.isEmpty());
    }

    // Over a plugin that is there already: only an update of a plugin this
    // installer may touch, to a newer version, keeping the plugin's data;
    // the maker's own ids are refused whatever is there.
    void plugin_existing_data()
    {
        QTest::addColumn<QString>("id");
        QTest::addColumn<QString>("before"); // none, record, data, unknown, loaded here/elsewhere
        QTest::addColumn<QString>("version");
        QTest::addColumn<QString>("error"); // a pattern; empty for success
        QTest::newRow("update 1.0 to 1.2") << "io.x.p" << "record" << "1.2" << QString();
        QTest::newRow("same version again")
            << "io.x.p" << "record" << "1.0" << "io.x.p 1.0 is installed; 1.0 is not newer$";
        QTest::newRow("older version")
            << "io.x.p" << "record" << "0.9" << "io.x.p 1.0 is installed; 0.9 is not newer$";
        QTest::newRow("data left from before") << "io.x.p" << "data" << "1.0" << QString();
        QTest::newRow("library of unknown version")
            << "io.x.p" << "unknown" << "2.0"
            << "a plugin io.x.p of unknown version is installed in ";
        QTest::newRow("loaded from here, newer") << "io.x.p" << "loaded here" << "1.1" << QString();
        QTest::newRow("loaded from the program's folder")
            << "io.x.p" << "loaded elsewhere" << "9.0"
            << "io.x.p is installed in .*; it updates only through its own update manifest$";
        QTest::newRow("the application's own id")
            << "io.marrowfield.corvane" << "data" << "9.0"
            << "io.marrowfield.corvane is one of Corvane's own; it updates only through its own "
               "update manifest$";
        QTest::newRow("a first-party plugin")
            << "io.marrowfield.mqtt" << "none" << "9.0" << "io.marrowfield.mqtt is one of Corvane's own";
        QTest::newRow("the application's id in other case")
            << "IO.Marrowfield.Corvane" << "none" << "9.0" << "IO.Marrowfield.Corvane is one of";
    }
    void plugin_existing()
    {
        QFETCH(QString, id);
        QFETCH(QString, before);
        QFETCH(QString, version);
        QFETCH(QString, error);
        QTemporaryDir folder;
        const QString plugins = folder.filePath(QStringLiteral("plugins"));
        const QString mine = plugins + u'/' + id;
        const QByteArray lib = id.toUtf8() + library_name().mid(6); // the suffix of io.x.p's
        if (before != QLatin1StringView("none")) {
            write_file(mine + QStringLiteral("/prefs.xml"), "<preferences version=\"1\"/>");
            write_file(mine + QStringLiteral("/cache/state.bin"), "state");
        }
        if (before == QLatin1StringView("record") || before.startsWith(QLatin1StringView("loaded")) ||
            before == QLatin1StringView("unknown")) {
            write_file(mine + u'/' + QString::fromUtf8(lib), "old library");
            write_file(mine + QStringLiteral("/old-only.txt"), "from the old package");
        }
        if (before == QLatin1StringView("record"))
            write_file(mine + QStringLiteral("/installed.json"),
                       QJsonDocument(QJsonObject{{QStringLiteral("id"), id},
                                                 {QStringLiteral("version"), QStringLiteral("1.0")},
                                                 {QStringLiteral("files"),
                                                  QJsonArray{QString::fromUtf8(lib),
                                                             QStringLiteral("old-only.txt")}}})
                           .toJson());
        const QStringList files_before = entries(mine);

        HttpServer server;
        const QByteArray archive = archive_writer::gzip(
            archive_writer::tar({{lib, "new library", 0755}, {"locale/en-US.ini", "A = a"}}));
        server.serve(QStringLiteral("/p/plugin.json"),
                     plugin_manifest(server, archive, qPrintable(version), id));
        PluginInstaller installer(FetchOptions{"UA", 5000}, plugins,
                                  QString::fromLatin1(platform::plugin_update_method()));
        if (before.startsWith(QLatin1StringView("loaded")))
            installer.set_loaded_plugins(
                {{id, QVersionNumber(1, 0),
                  before == QLatin1StringView("loaded here") ? mine : folder.filePath("program/plugins/" + id)}});
        const QString prefix = QStringLiteral("^plugin installer: failed to install ") +
                               QRegularExpression::escape(id) + QStringLiteral(": ");
        if (!error.isEmpty())
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(prefix + error));
        const QString failure =
            install_plugin(installer, server.url(QStringLiteral("/p/plugin.json")));
        if (!error.isEmpty()) {
            QVERIFY2(QRegularExpression(prefix + error).match(failure).hasMatch(),
                     qPrintable(failure));
            QCOMPARE(entries(mine), files_before);
            QCOMPARE(entries(plugins), before == QLatin1StringView("none") ? QStringList()
                                                                           : QStringList{id});
            if (before != QLatin1StringView("none"))
                QCOMPARE(read_file(mine + QStringLiteral("/prefs.xml")),
                         QByteArray("<preferences version=\"1\"/>"));
            return;
        }
        QCOMPARE(failure, QString());
        QCOMPARE(read_file(mine + u'/' + QString::fromUtf8(lib)), QByteArray("new library"));
        QCOMPARE(read_file(mine + QStringLiteral("/locale/en-US.ini")), QByteArray("A = a"));
        // The plugin's data stays; what only the old package brought goes.
        QCOMPARE(read_file(mine + QStringLiteral("/prefs.xml")),
                 QByteArray("<preferences version=\"1\"/>"));
        QCOMPARE(read_file(mine + QStringLiteral("/cache/state.bin")), QByteArray("state"));
        QCOMPARE(QFileInfo::exists(mine + QStringLiteral("/old-only.txt")),
                 before == QLatin1StringView("loaded here"));
        QCOMPARE(entries(plugins), QStringList{id});
        // The next install knows what is there.
        QCOMPARE(installer.installed_version(), QVersionNumber::fromString(version));
    }

    // A newer tarball release is found, handed off, installed by the update
    // host once this "program" lets go, and the new program started, which
    // writes its version. An update is all or nothing: a download that does
    // not match, an archive refused after another was fine, a run step that
    // fails after files were replaced, a step that cannot be carried out here
    // all leave the old program as it was, and it is started again; the
    // host's log is kept for the next start to report.
    void update_through_host_data()
    {
        QTest::addColumn<QString>("variant");
        QTest::addColumn<bool>("installed");
        QTest::newRow("verified") << "verified" << true;
        QTest::newRow("wrong sha256") << "wrong sha256" << false;
        QTest::newRow("second archive refused") << "second archive refused" << false;
        QTest::newRow("run step fails after extract") << "run step fails" << false;
        QTest::newRow("program not found") << "program not found" << false;
        QTest::newRow("windows installer package") << "msi" << false;
        QTest::newRow("a folder where a file goes") << "folder in the way" << false;
    }
    void update_through_host()
    {
        QFETCH(QString, variant);
        QFETCH(bool, installed);
        QTemporaryDir folder;
        const QString install = folder.filePath(QStringLiteral("install"));
        write_program(install, "1.0.0");
        write_program(folder.filePath(QStringLiteral("release")), "2.0.0");
        const QString app_file = install + u'/' + program_name();
        write_file(folder.filePath(QStringLiteral("release/share/notes.txt")), "new");
        const QByteArray archive = tarball(folder.filePath(QStringLiteral("release")));
        const bool in_the_way = variant == QLatin1StringView("folder in the way");
        if (in_the_way)
            write_file(install + QStringLiteral("/share/notes.txt/mine.txt"), "mine");

        HttpServer server;
        server.serve(QStringLiteral("/corvane/release.tar.gz"), archive);
        QJsonArray steps =
            tarball_steps(archive, variant == QLatin1StringView("wrong sha256") ? sha256("x")
                                                                                : sha256(archive));
        auto add = [&](const QJsonArray &more) {
            for (const QJsonValue &step : more)
                steps.append(step);
        };
        if (variant == QLatin1StringView("second archive refused")) {
            const QByteArray linked = archive_writer::gzip(archive_writer::tar(
                {{"more.txt", "more"}, {"corvapp-link", {}, 0777, '2', "/bin/sh"}}));
            server.serve(QStringLiteral("/corvane/more.tar.gz"), linked);
            add(tarball_steps(linked, sha256(linked), QStringLiteral("more.tar.gz")));
        } else if (variant == QLatin1StringView("run step fails")) {
            add({QJsonObject{{QStringLiteral("run"), program_name() + QStringLiteral(" --fail")}}});
        } else if (variant == QLatin1StringView("program not found")) {
            add({QJsonObject{{QStringLiteral("run"), QStringLiteral("no-such-program-here")}}});
        } else if (variant == QLatin1StringView("msi")) {
            // Not a real package: Windows' installer refuses it, other systems have none.
            server.serve(QStringLiteral("/corvane/corvane.msi"), "not an msi");
            add(tarball_steps("not an msi", sha256("not an msi"), QStringLiteral("corvane.msi")));
        }
        steps.append(
            QJsonObject{{QStringLiteral("run"), program_name() + QStringLiteral(" --touch ran-step")}});
        server.serve(QStringLiteral("/corvane/manifest.json"), manifest({entry("2.0.0", steps)}));
        const Component app =
            component(QStringLiteral("io.x.corvapp"), "1.0.0",
                      server.url(QStringLiteral("/corvane/manifest.json")), install);
        QSettings settings(folder.filePath(QStringLiteral("settings.ini")), QSettings::IniFormat);
        UpdateChecker checker({app}, &settings, FetchOptions{"UA/1", 2000});
        QSignalSpy finished(&checker, &UpdateChecker::finished);
        checker.start();
        QVERIFY(finished.wait(5000));
        QCOMPARE(checker.updates().size(), 1);
        QTest::ignoreMessage(QtInfoMsg,
                             QRegularExpression(QStringLiteral("^Perf updater: prepared graph")));
        const DependencyGraph graph(checker.updates(), {});

        const HandOffRequest request{QStringLiteral(CORV_UPDATEHOST),
                                     install,
                                     app.manifest_url,
                                     app_file,
                                     QStringLiteral("Corvapp"),
                                     "UA/1",
                                     graph.installs(),
                                     folder.path()};
        std::unique_ptr<HandOff> running = hand_off(request, settings);
        QVERIFY(running);
        QVERIFY(QFileInfo(running->folder).fileName().startsWith(QStringLiteral("corvupdate.")));
        QVERIFY(QFileInfo(running->folder + u'/' + platform::update_host_file_name()).isExecutable());

        const QJsonObject json =
            QJsonDocument::fromJson(read_file(running->manifest_file)).object();
        QCOMPARE(json.value(QStringLiteral("baseUrl")).toString(),
                 server.url(QStringLiteral("/corvane/manifest.json")).toString());
        QCOMPARE(json.value(QStringLiteral("basePath")).toString(), install);
        QCOMPARE(json.value(QStringLiteral("returnTo")).toString(), app_file);
        QCOMPARE(json.value(QStringLiteral("returnToName")).toString(), QStringLiteral("Corvapp"));
        QCOMPARE(json.value(QStringLiteral("cleanupFiles")).toArray(), QJsonArray{running->folder});
        const QJsonArray written = json.value(QStringLiteral("steps")).toArray();
        QCOMPARE(written.size(), steps.size());
        QCOMPARE(written[0].toObject().value(QStringLiteral("size")).toInteger(), archive.size());
        QCOMPARE(written[1].toObject().value(QStringLiteral("extract")).toString(),
                 QStringLiteral("release.tar.gz"));
        QCOMPARE(written.last().toObject().value(QStringLiteral("component")).toString(), app.id);
        const QJsonObject component =
            json.value(QStringLiteral("components")).toArray().at(0).toObject();
        QCOMPARE(component.value(QStringLiteral("id")).toString(), app.id);
        QCOMPARE(component.value(QStringLiteral("version")).toString(), QStringLiteral("2.0.0"));

        // The host waits while the program runs.
        QTest::qWait(300);
        QVERIFY(!QFileInfo::exists(install + QStringLiteral("/ran.txt")));
        const QString work = running->folder;
        running.reset(); // the program exits

        QTRY_VERIFY_WITH_TIMEOUT(QFileInfo::exists(install + QStringLiteral("/ran.txt")), 30000);
        QTRY_VERIFY(
            read_file(work + QStringLiteral("/updatehost.log")).contains("updater: started"));
        QCOMPARE(read_file(install + QStringLiteral("/ran.txt")),
                 installed ? QByteArray("2.0.0") : QByteArray("1.0.0"));
        QCOMPARE(QFileInfo(install + QStringLiteral("/share/notes.txt")).isFile(), installed);
        QCOMPARE(QFileInfo::exists(install + QStringLiteral("/ran-step")), installed);
        QCOMPARE(entries(install),
                 installed    ? QStringList({program_name(), "ran-step", "ran.txt", "share", "version.txt"})
                 : in_the_way ? QStringList({program_name(), "ran.txt", "share", "version.txt"})
                              : QStringList({program_name(), "ran.txt", "version.txt"}));
        if (in_the_way) { // the folder and what is in it stay
            QCOMPARE(read_file(install + QStringLiteral("/share/notes.txt/mine.txt")), QByteArray("mine"));
            QVERIFY(read_file(work + QStringLiteral("/updatehost.log")).contains("notes.txt: it is a folder"));
        }
        if (variant != QLatin1StringView("program not found"))
            QCOMPARE(server.user_agents.last(), QByteArray("UA/1"));

        // The next start cleans up, keeping the log of an update that failed.
        const QString logs = folder.filePath(QStringLiteral("logs"));
        QTest::ignoreMessage(QtInfoMsg,
                             qUtf8Printable(QStringLiteral("updater: cleaned up ") + work));
        if (!installed)
            QTest::ignoreMessage(
                QtWarningMsg,
                QRegularExpression(QStringLiteral("^updater: the last update was not installed; see ") +
                                   QRegularExpression::escape(logs) +
                                   QStringLiteral("/updatehost-\\d+-\\d+\\.log$")));
        const QString kept = clean_up_after_update(settings, logs);
        QVERIFY(!QFileInfo::exists(work));
        QVERIFY(!settings.contains(QStringLiteral("Updates/CleanupFiles")));
        QCOMPARE(kept.isEmpty(), installed);
        if (!installed)
            QVERIFY(read_file(kept).contains("updater: update not installed"));
    }

    // A hand-off that cannot copy the host says so; its folder is still
    // cleaned up at the next start.
    void hand_off_failure()
    {
        QTemporaryDir folder;
        QSettings settings(folder.filePath(QStringLiteral("settings.ini")), QSettings::IniFormat);
        const QString missing = folder.filePath(QStringLiteral("no-such-host"));
        HandOffRequest request;
        request.host_program = missing;
        request.base_path = folder.path();
        request.return_to = missing;
        request.temporary_root = folder.path();
        QTest::ignoreMessage(
            QtWarningMsg,
            QRegularExpression(QStringLiteral("^updater: failed to copy ") +
                               QRegularExpression::escape(missing) +
                               QStringLiteral(" to .*/corvupdate\\.\\w+/") +
                               QRegularExpression::escape(platform::update_host_file_name()) +
                               QStringLiteral(": ")));
        // What an earlier start left to clean up stays listed before it.
        const QString earlier = folder.filePath(QStringLiteral("earlier"));
        QVERIFY(QDir().mkpath(earlier));
        settings.setValue(QStringLiteral("Updates/CleanupFiles"), QStringList{earlier});
        QVERIFY(!hand_off(request, settings));
        const QStringList left =
            settings.value(QStringLiteral("Updates/CleanupFiles")).toStringList();
        QCOMPARE(left.size(), 2);
        QCOMPARE(left[0], earlier);
        QVERIFY(QFileInfo(left[1]).isDir());
        clean_up_after_update(settings);
        QVERIFY(!QFileInfo::exists(left[0]) && !QFileInfo::exists(left[1]));
    }

    // What an update left behind goes at the next start: a folder with all
    // in it, a file, a link (never what it points to); the log of a failed
    // update is kept first, and without a place to keep it its folder stays
    // listed for the next start.
    void clean_up_leftovers_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<bool>("logs_folder");
        QTest::addColumn<bool>("stays"); // still there and listed afterwards
        QTest::newRow("finished folder") << "folder" << true << false;
        QTest::newRow("file") << "file" << false << false;
        QTest::newRow("gone already") << "missing" << false << false;
        QTest::newRow("link to a folder") << "link" << false << false;
        QTest::newRow("link to a failed update's folder") << "failed link" << true << false;
        QTest::newRow("failed update, log kept") << "failed" << true << false;
        QTest::newRow("failed update, nowhere to keep the log") << "failed" << false << true;
    }

    void clean_up_leftovers()
    {
        QFETCH(QString, kind);
        QFETCH(bool, logs_folder);
        QFETCH(bool, stays);
        QTemporaryDir dir;
        QDir root(dir.path());
        QVERIFY(root.mkpath(QStringLiteral("target/sub")));
        write_file(root.filePath(QStringLiteral("target/sub/f.txt")), "data");
        const bool failed = kind.startsWith(QStringLiteral("failed"));
        if (failed) {
            write_file(root.filePath(QStringLiteral("target/updatehost.log")), "the log");
            write_file(root.filePath(QString::fromLatin1(kUpdateFailedMarker).prepend("target/")), "");
        }
        const QString target = root.filePath(QStringLiteral("target"));
        QString path = target;
        if (kind == QLatin1StringView("file"))
            path = root.filePath(QStringLiteral("target/sub/f.txt"));
        else if (kind == QLatin1StringView("missing"))
            path = root.filePath(QStringLiteral("nothing"));
        else if (kind.endsWith(QStringLiteral("link"))) {
#ifdef Q_OS_WIN
            QSKIP("symbolic links need privileges on Windows");
#endif
            path = root.filePath(QStringLiteral("link"));
            QVERIFY(QFile::link(target, path));
        }
        QSettings settings(root.filePath(QStringLiteral("settings.ini")), QSettings::IniFormat);
        settings.setValue(QStringLiteral("Updates/CleanupFiles"), QStringList{path});
        const QString logs = logs_folder ? root.filePath(QStringLiteral("logs")) : QString();
        const QRegularExpression not_installed(QStringLiteral("^updater: the last update was not installed; see "));
        for (int call = kind == QLatin1StringView("failed") ? (stays ? 0 : 1) : 2; call < 2; ++call)
            QTest::ignoreMessage(QtWarningMsg, not_installed);
        const QString kept = clean_up_after_update(settings, logs);

        QCOMPARE(QFileInfo::exists(path) || QFileInfo(path).isSymLink(), stays);
        QCOMPARE(settings.value(QStringLiteral("Updates/CleanupFiles")).toStringList(),
                 stays ? QStringList{path} : QStringList());
        const bool through_link = kind.endsWith(QStringLiteral("link"));
        QCOMPARE(QFileInfo::exists(root.filePath(QStringLiteral("target/sub/f.txt"))),
                 through_link || stays || kind == QLatin1StringView("missing"));
        QCOMPARE(kept.isEmpty(), kind != QLatin1StringView("failed"));
        if (!kept.isEmpty()) {
            QCOMPARE(read_file(kept), QByteArray("the log"));
            QCOMPARE(QFileInfo(kept).absolutePath(), stays ? target : logs);
        }
        // Nothing listed: nothing to do, and nothing said.
        QCOMPARE(clean_up_after_update(settings, logs).isEmpty(), !stays);
    }
};

QTEST_GUILESS_MAIN(tst_UpdateNetwork)
#include "tst_update_network.moc"
