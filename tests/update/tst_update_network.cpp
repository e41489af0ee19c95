// The updater against a real HTTP server on 127.0.0.1: fetching and
// verification, the check with ignored versions and methods, two components
// that depend on each other, the plugin installer, and the whole update of a
// tarball install through the update host.
#include "http_server.h"

#include "update/dependency_graph.h"
#include "update/hand_off.h"
#include "update/plugin_installer.h"
#include "update/update_checker.h"

#include <QCryptographicHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
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

void write_file(const QString &path, const QByteArray &data, bool executable = false)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(data);
    file.close();
    if (executable)
        file.setPermissions(file.permissions() | QFile::ExeOwner);
}

QByteArray read_file(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// A gzipped tarball of the files below `folder`.
QByteArray tarball(const QString &folder)
{
    QProcess tar;
    tar.start(QStringLiteral("tar"), {QStringLiteral("-czf"), QStringLiteral("-"),
                                      QStringLiteral("-C"), folder, QStringLiteral(".")});
    tar.waitForFinished();
    return tar.readAllStandardOutput();
}

// A program that writes its version into "ran.txt" beside itself.
QByteArray program(const char *version)
{
    return QByteArray("#!/bin/sh\necho ") + version + " > \"$(dirname \"$0\")/ran.txt\"\n";
}

QJsonObject entry(const char *version, const QJsonArray &steps,
                  const char *method = "linux64.tar.gz", const QJsonObject &requirements = {})
{
    return {{QStringLiteral("version"), QString::fromLatin1(version)},
            {QStringLiteral("descriptionUrl"), QStringLiteral("notes.html")},
            {QStringLiteral("releaseDate"), QStringLiteral("2026-05-01T12:00:00.000Z")},
            {QStringLiteral("requires"), requirements},
            {QStringLiteral("methods"), QJsonObject{{QString::fromLatin1(method), steps}}}};
}

QJsonArray tarball_steps(const QByteArray &archive, const QByteArray &digest)
{
    return {QJsonObject{{QStringLiteral("download"), QStringLiteral("release.tar.gz")},
                        {QStringLiteral("destination"), QStringLiteral("release.tar.gz")},
                        {QStringLiteral("sha256"), QString::fromLatin1(digest)},
                        {QStringLiteral("size"), archive.size()}},
            QJsonObject{{QStringLiteral("extract"), QStringLiteral("release.tar.gz")},
                        {QStringLiteral("destination"), QStringLiteral(".")}}};
}

QByteArray manifest(const QJsonArray &entries, const QJsonObject &extra = {})
{
    QJsonObject root = extra;
    root[QStringLiteral("formatVersion")] = 1;
    root[QStringLiteral("entries")] = entries;
    return QJsonDocument(root).toJson();
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
        QTest::newRow("short") << "/file" << good << qint64(6)
                               << "^size 5 differs from the expected 6$";
        QTest::newRow("long") << "/file" << good << qint64(4)
                              << "^size exceeds the expected 4 bytes$";
        QTest::newRow("wrong sha256")
            << "/file" << sha256("hellO") << qint64(5)
            << "^sha256 " + QString::fromLatin1(good) + " differs from the expected ";
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
        QNetworkAccessManager network;
        FetchOptions options{"Corvane/0.9.4 (test)", 300};
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
        QCOMPARE(server.user_agents, path.startsWith(u'/')
                                         ? QList<QByteArray>{"Corvane/0.9.4 (test)"}
                                         : QList<QByteArray>{});
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

    void plugin_install_data()
    {
        QTest::addColumn<bool>("good_package");
        QTest::addColumn<bool>("good_icon");
        QTest::newRow("verified") << true << true;
        QTest::newRow("wrong package sha256") << false << true;
        QTest::newRow("wrong icon size") << true << false;
    }
    void plugin_install()
    {
        QFETCH(bool, good_package);
        QFETCH(bool, good_icon);
        QTemporaryDir folder;
        write_file(folder.filePath(QStringLiteral("package/io.x.p.so")), "not really a library");
        const QByteArray archive = tarball(folder.filePath(QStringLiteral("package")));
        const QByteArray icon = "PNG bytes";
        HttpServer server;
        server.serve(QStringLiteral("/p/release.tar.gz"), archive);
        server.serve(QStringLiteral("/p/icon.png"), icon);
        const QJsonObject extra{
            {QStringLiteral("id"), QStringLiteral("io.x.p")},
            {QStringLiteral("displayName"), QStringLiteral("P")},
            {QStringLiteral("iconUrl"), QStringLiteral("icon.png")},
            {QStringLiteral("iconSha256"), QString::fromLatin1(sha256(icon))},
            {QStringLiteral("iconSize"), good_icon ? icon.size() : icon.size() + 1}};
        server.serve(
            QStringLiteral("/p/plugin.json"),
            manifest({entry("1.0", tarball_steps(archive, sha256(good_package ? archive : "x")))},
                     extra));

        const QString plugins = folder.filePath(QStringLiteral("data/plugins"));
        PluginInstaller installer(FetchOptions{"UA", 2000}, plugins,
                                  QStringLiteral("linux64.tar.gz"));
        QSignalSpy ready(&installer, &PluginInstaller::manifest_ready);
        QSignalSpy icons(&installer, &PluginInstaller::icon_ready);
        QSignalSpy installed(&installer, &PluginInstaller::installed);
        QSignalSpy failed(&installer, &PluginInstaller::failed);
        if (!good_icon)
            QTest::ignoreMessage(
                QtWarningMsg,
                qUtf8Printable(QStringLiteral("P installer: could not get icon from %1: size 9 "
                                              "differs from the expected 10")
                                   .arg(server.url(QStringLiteral("/p/icon.png")).toString())));
        installer.fetch_manifest(server.url(QStringLiteral("/p/plugin.json")));
        QVERIFY(ready.wait(3000));
        QCOMPARE(installer.manifest()->display_name, QStringLiteral("P"));
        QTRY_COMPARE(server.requested.count(QStringLiteral("/p/icon.png")), 1);
        QTRY_COMPARE(icons.size(), good_icon ? 1 : 0);

        if (!good_package)
            QTest::ignoreMessage(
                QtWarningMsg, QRegularExpression(QStringLiteral(
                                  "^plugin installer: failed to install io.x.p: refused .*/p/"
                                  "release.tar.gz: sha256 [0-9a-f]+ differs from the expected")));
        installer.install();
        QTRY_COMPARE(installed.size() + failed.size(), 1);
        const QString library = plugins + QStringLiteral("/io.x.p/io.x.p.so");
        QCOMPARE(QFileInfo::exists(library), good_package);
        if (good_package)
            QCOMPARE(read_file(library), QByteArray("not really a library"));
        // Only the plugin's folder is left behind.
        QCOMPARE(QDir(plugins).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
                 good_package ? QStringList{"io.x.p"} : QStringList());
    }

    // A newer tarball release is found, handed off, installed by the update
    // host once this "program" lets go, and the new program started, which
    // writes its version. A release whose download does not match changes
    // nothing and the old program is started again.
    void update_through_host_data()
    {
        QTest::addColumn<bool>("verified");
        QTest::newRow("verified") << true;
        QTest::newRow("wrong sha256") << false;
    }
    void update_through_host()
    {
        QFETCH(bool, verified);
        QTemporaryDir folder;
        const QString install = folder.filePath(QStringLiteral("install"));
        write_file(install + QStringLiteral("/corvapp"), program("1.0.0"), true);
        write_file(folder.filePath(QStringLiteral("release/corvapp")), program("2.0.0"), true);
        write_file(folder.filePath(QStringLiteral("release/share/notes.txt")), "new");
        const QByteArray archive = tarball(folder.filePath(QStringLiteral("release")));

        HttpServer server;
        server.serve(QStringLiteral("/corvane/release.tar.gz"), archive);
        QJsonArray steps = tarball_steps(archive, verified ? sha256(archive) : sha256("x"));
        steps.append(QJsonObject{{QStringLiteral("run"), QStringLiteral("touch ran-step")}});
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
                                     install + QStringLiteral("/corvapp"),
                                     QStringLiteral("Corvapp"),
                                     "UA/1",
                                     graph.installs(),
                                     folder.path()};
        std::unique_ptr<HandOff> running = hand_off(request, settings);
        QVERIFY(running);
        QVERIFY(QFileInfo(running->folder).fileName().startsWith(QStringLiteral("corvupdate.")));
        QVERIFY(QFileInfo(running->folder + QStringLiteral("/updatehost")).isExecutable());

        const QJsonObject json =
            QJsonDocument::fromJson(read_file(running->manifest_file)).object();
        QCOMPARE(json.value(QStringLiteral("baseUrl")).toString(),
                 server.url(QStringLiteral("/corvane/manifest.json")).toString());
        QCOMPARE(json.value(QStringLiteral("basePath")).toString(), install);
        QCOMPARE(json.value(QStringLiteral("returnTo")).toString(),
                 install + QStringLiteral("/corvapp"));
        QCOMPARE(json.value(QStringLiteral("returnToName")).toString(), QStringLiteral("Corvapp"));
        QCOMPARE(json.value(QStringLiteral("cleanupFiles")).toArray(), QJsonArray{running->folder});
        const QJsonArray written = json.value(QStringLiteral("steps")).toArray();
        QCOMPARE(written.size(), 3);
        QCOMPARE(written[0].toObject().value(QStringLiteral("size")).toInteger(), archive.size());
        QCOMPARE(written[1].toObject().value(QStringLiteral("extract")).toString(),
                 QStringLiteral("release.tar.gz"));
        QCOMPARE(written[2].toObject().value(QStringLiteral("component")).toString(), app.id);
        const QJsonObject component =
            json.value(QStringLiteral("components")).toArray().at(0).toObject();
        QCOMPARE(component.value(QStringLiteral("id")).toString(), app.id);
        QCOMPARE(component.value(QStringLiteral("version")).toString(), QStringLiteral("2.0.0"));

        // The host waits while the program runs.
        QTest::qWait(300);
        QVERIFY(!QFileInfo::exists(install + QStringLiteral("/ran.txt")));
        const QString work = running->folder;
        running.reset(); // the program exits

        QTRY_VERIFY_WITH_TIMEOUT(QFileInfo::exists(install + QStringLiteral("/ran.txt")), 20000);
        QTRY_VERIFY(
            read_file(work + QStringLiteral("/updatehost.log")).contains("updater: started"));
        QCOMPARE(read_file(install + QStringLiteral("/ran.txt")),
                 verified ? QByteArray("2.0.0\n") : QByteArray("1.0.0\n"));
        QCOMPARE(QFileInfo::exists(install + QStringLiteral("/share/notes.txt")), verified);
        QCOMPARE(QFileInfo::exists(install + QStringLiteral("/ran-step")), verified);
        QCOMPARE(server.user_agents.last(), QByteArray("UA/1"));

        // The next start cleans up.
        QTest::ignoreMessage(QtInfoMsg,
                             qUtf8Printable(QStringLiteral("updater: cleaned up ") + work));
        clean_up_after_update(settings);
        QVERIFY(!QFileInfo::exists(work));
        QVERIFY(!settings.contains(QStringLiteral("Updates/CleanupFiles")));
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
                               QStringLiteral(" to .*/corvupdate\\.\\w+/updatehost: ")));
        QVERIFY(!hand_off(request, settings));
        const QStringList left =
            settings.value(QStringLiteral("Updates/CleanupFiles")).toStringList();
        QCOMPARE(left.size(), 1);
        QVERIFY(QFileInfo(left[0]).isDir());
        QTest::ignoreMessage(QtInfoMsg,
                             qUtf8Printable(QStringLiteral("updater: cleaned up ") + left[0]));
        clean_up_after_update(settings);
        QVERIFY(!QFileInfo::exists(left[0]));
    }
};

QTEST_GUILESS_MAIN(tst_UpdateNetwork)
#include "tst_update_network.moc"
