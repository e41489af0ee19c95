// Manifest validation, candidate choice and the dependency graph: no network.
#include "update/candidates.h"
#include "update/dependency_graph.h"
#include "update/manifest.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTest>

using namespace corv::update;

namespace {

const char kSha[] =
    "\"sha256\": \"e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855\"";

// A valid manifest with `entry` spliced in as its only entry's extra keys
// and `steps` as its one method's steps.
QByteArray manifest_with(const QByteArray &entry_extra,
                         const QByteArray &steps = "[{\"run\": \"x\"}]")
{
    return "{\"formatVersion\": 1, \"entries\": [{\"version\": \"1.0\", \"descriptionUrl\": "
           "\"n.html\"" +
           entry_extra + ", \"methods\": {\"m\": " + steps + "}}]}";
}

Entry entry(const char *version, QMap<QString, QVersionNumber> requirements = {},
            const char *method = "m")
{
    Entry e;
    e.version_text = QString::fromLatin1(version);
    e.version = parse_version(e.version_text);
    e.requirements = std::move(requirements);
    e.methods[QString::fromLatin1(method)] = {Step{}};
    return e;
}

Component component(const char *id, const char *current)
{
    return {QString::fromLatin1(id), QString::fromLatin1(id).toUpper(),
            parse_version(QString::fromLatin1(current)),
            QUrl(QStringLiteral("https://example.invalid/m.json#m")), QString()};
}

} // namespace

class tst_UpdateManifest : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() { QTest::failOnWarning(QRegularExpression(QStringLiteral(".*"))); }

    void validation_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QString>("message");
        const auto row = [](const char *name, const QByteArray &json, const char *message) {
            QTest::newRow(name) << json << QString::fromLatin1(message);
        };
        row("not json", "{\"formatVersion\": 1,", "failed to parse manifest: unterminated object");
        row("no format", "{\"entries\": []}",
            "failed to validate manifest: formatVersion is missing");
        row("format 2", "{\"formatVersion\": 2}",
            "failed to validate manifest: formatVersion 2 is not supported");
        row("no entries", "{\"formatVersion\": 1}",
            "failed to validate manifest: entries is missing");
        row("empty entries", "{\"formatVersion\": 1, \"entries\": []}",
            "failed to validate manifest: entries is empty");
        row("no version", "{\"formatVersion\": 1, \"entries\": [{}]}",
            "failed to validate manifest: entries[0].version is missing");
        row("bad version", "{\"formatVersion\": 1, \"entries\": [{\"version\": \"beta\"}]}",
            "failed to validate manifest: entries[0].version is an invalid version");
        row("no description", "{\"formatVersion\": 1, \"entries\": [{\"version\": \"1\"}]}",
            "failed to validate manifest: entries[0].descriptionUrl is missing");
        row("bad provides", manifest_with(", \"provides\": {\"a\": \"1.0\", \"b\": \"x\"}"),
            "failed to validate manifest: entries[0].provides.b is an invalid version");
        row("bad requires", manifest_with(", \"requires\": {\"a\": \"\"}"),
            "failed to validate manifest: entries[0].requires.a is an invalid version");
        row("no methods",
            "{\"formatVersion\": 1, \"entries\": [{\"version\": \"1\", \"descriptionUrl\": "
            "\"n\"}]}",
            "failed to validate manifest: entries[0].methods is missing");
        row("empty methods",
            "{\"formatVersion\": 1, \"entries\": [{\"version\": \"1\", \"descriptionUrl\": \"n\", "
            "\"methods\": {}}]}",
            "failed to validate manifest: entries[0].methods is empty");
        row("empty steps", manifest_with("", "[]"),
            "failed to validate manifest: entries[0].methods is empty");
        row("no kind", manifest_with("", "[{\"run\": \"x\"}, {\"destination\": \"d\"}]"),
            "failed to validate manifest: entries[0].methods.m[1] must have at least download, run "
            "or extract");
        row("two kinds", manifest_with("", "[{\"run\": \"x\", \"extract\": \"y\"}]"),
            "failed to validate manifest: entries[0].methods.m[0] can only have either download, "
            "run or extract");
        row("download destination", manifest_with("", "[{\"download\": \"f\"}]"),
            "failed to validate manifest: entries[0].methods.m[0].destination is missing");
        row("download sha256",
            manifest_with("", "[{\"download\": \"f\", \"destination\": \"f\", \"size\": 1}]"),
            "failed to validate manifest: entries[0].methods.m[0].sha256 is missing");
        row("download size",
            manifest_with("", "[{\"download\": \"f\", \"destination\": \"f\", " + QByteArray(kSha) +
                                  "}]"),
            "failed to validate manifest: entries[0].methods.m[0].size is missing");
        row("download bad sha256",
            manifest_with(
                "",
                "[{\"download\": \"f\", \"destination\": \"f\", \"sha256\": \"12\", \"size\": 1}]"),
            "failed to validate manifest: entries[0].methods.m[0].sha256 is not a hex SHA-256 "
            "digest");
        row("download bad size",
            manifest_with("", "[{\"download\": \"f\", \"destination\": \"f\", " + QByteArray(kSha) +
                                  ", \"size\": -3}]"),
            "failed to validate manifest: entries[0].methods.m[0].size is not a byte count");
        row("download past the package limit",
            manifest_with("", "[{\"download\": \"f\", \"destination\": \"f\", " + QByteArray(kSha) +
                                  ", \"size\": 536870913}]"),
            "failed to validate manifest: entries[0].methods.m[0].size is over the limit of "
            "536870912 bytes");
        row("manifest past its limit", "{\"formatVersion\": 1, \"x\": \"" +
                                           QByteArray(16 * 1024 * 1024, 'x') + "\"}",
            "failed to parse manifest: it is over the limit of 16777216 bytes");
        row("extract destination", manifest_with("", "[{\"extract\": \"f\"}]"),
            "failed to validate manifest: entries[0].methods.m[0].destination is missing");
        row("second entry",
            "{\"formatVersion\": 1, \"entries\": [{\"version\": \"1\", \"descriptionUrl\": \"n\", "
            "\"methods\": "
            "{\"m\": [{\"run\": \"x\"}]}}, {\"version\": \"2\"}]}",
            "failed to validate manifest: entries[1].descriptionUrl is missing");
    }
    void validation()
    {
        QFETCH(QByteArray, json);
        QFETCH(QString, message);
        const QString expected = QStringLiteral("Corvane updater: ") + message;
        QTest::ignoreMessage(QtWarningMsg, qUtf8Printable(expected));
        QString error;
        QVERIFY(!read_manifest(json, QStringLiteral("Corvane"), &error));
        QCOMPARE(error, expected);
    }

    void valid_manifest()
    {
        const QByteArray json = manifest_with(
            ", \"releaseDate\": \"2026-03-01T10:00:00.250Z\", \"requires\": {\"b\": \"1.5\"}",
            "[{\"download\": \"f.tar.gz\", \"destination\": \"f.tar.gz\", " + QByteArray(kSha) +
                ", \"size\": 0}, {\"extract\": \"f.tar.gz\", \"destination\": \".\"}]");
        const std::optional<Manifest> manifest = read_manifest(json, QStringLiteral("C"));
        QVERIFY(manifest);
        const Entry &e = manifest->entries.at(0);
        QCOMPARE(e.release_date, QDateTime(QDate(2026, 3, 1), QTime(10, 0, 0, 250), Qt::UTC));
        QCOMPARE(e.requirements.value(QStringLiteral("b")), QVersionNumber(1, 5));
        const QList<Step> steps = e.methods.value(QStringLiteral("m"));
        QCOMPARE(steps.size(), 2);
        QCOMPARE(steps[0].kind, Step::Download);
        QCOMPARE(steps[0].size, 0);
        QCOMPARE(Step::from_json(steps[0].to_json())->sha256, steps[0].sha256);
        QCOMPARE(steps[1].kind, Step::Extract);
    }

    void plugin_validation_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QString>("message");
        const QByteArray head =
            "{\"formatVersion\": 1, \"id\": \"io.example.p\", \"displayName\": \"P\"";
        QTest::newRow("no format")
            << QByteArray("{\"id\": \"a\"}")
            << "plugin installer: failed to validate manifest: formatVersion is missing";
        QTest::newRow("format 3")
            << QByteArray("{\"formatVersion\": 3}")
            << "plugin installer: failed to validate manifest: formatVersion 3 is not supported";
        QTest::newRow("no id") << QByteArray("{\"formatVersion\": 1}")
                               << "plugin installer: failed to validate manifest: id is missing";
        QTest::newRow("folder id")
            << QByteArray("{\"formatVersion\": 1, \"id\": \"../up\"}")
            << "plugin installer: failed to validate manifest: id ../up is not a valid plugin id";
        QTest::newRow("no name")
            << QByteArray("{\"formatVersion\": 1, \"id\": \"a\"}")
            << "plugin installer: failed to validate manifest: displayName is missing";
        QTest::newRow("package") << head + "}"
                                 << "P updater: failed to validate manifest: entries is missing";
    }
    void plugin_validation()
    {
        QFETCH(QByteArray, json);
        QFETCH(QString, message);
        QTest::ignoreMessage(QtWarningMsg, qUtf8Printable(message));
        QVERIFY(!read_plugin_manifest(json));
    }

    // The icon is optional: one that cannot be checked, or that is larger
    // than an icon may be, is left out and the plugin kept.
    void plugin_icon_data()
    {
        QTest::addColumn<QByteArray>("icon");
        QTest::addColumn<QString>("problem"); // empty: the icon is kept
        const QByteArray sha = ", \"iconSha256\": \"" + QByteArray(64, 'a') + "\"";
        QTest::newRow("checked") << sha + ", \"iconSize\": 1048576" << QString();
        QTest::newRow("no digest") << QByteArray(", \"iconSize\": 3") << "iconSha256 is missing";
        QTest::newRow("no size") << sha << "iconSize is missing";
        QTest::newRow("bad digest") << QByteArray(", \"iconSha256\": \"ab\", \"iconSize\": 3")
                                    << "iconSha256 is not a hex SHA-256 digest";
        QTest::newRow("negative size")
            << sha + ", \"iconSize\": -1" << "iconSize is not a byte count";
        QTest::newRow("past the limit")
            << sha + ", \"iconSize\": 1048577" << "iconSize is over the limit of 1048576 bytes";
        QTest::newRow("1.5 GB") << sha + ", \"iconSize\": 1.5e9"
                                << "iconSize is over the limit of 1048576 bytes";
    }
    void plugin_icon()
    {
        QFETCH(QByteArray, icon);
        QFETCH(QString, problem);
        const QByteArray json = "{\"formatVersion\": 1, \"id\": \"io.example.p\", \"displayName\": "
                                "\"P\", \"iconUrl\": \"i.png\"" +
                                icon + ", \"entries\": [{\"version\": \"1\", \"descriptionUrl\": "
                                       "\"n\", \"methods\": {\"m\": [{\"run\": \"x\"}]}}]}";
        if (!problem.isEmpty())
            QTest::ignoreMessage(QtWarningMsg,
                                 qUtf8Printable("plugin installer: leaving out the icon: " + problem));
        const std::optional<PluginManifest> manifest = read_plugin_manifest(json);
        QVERIFY(manifest);
        QCOMPARE(manifest->package.entries.size(), 1);
        QCOMPARE(manifest->icon_url.isEmpty(), !problem.isEmpty());
    }

    void safe_paths()
    {
        for (const char *good : {".", "a", "a/b.tar.gz", "plugins/x"})
            QVERIFY2(is_safe_relative_path(QString::fromLatin1(good)), good);
        for (const char *bad : {"", "/etc", "..", "a/../..", "a\\..\\b", "C:/x", "\\\\server\\x"})
            QVERIFY2(!is_safe_relative_path(QString::fromLatin1(bad)), bad);
    }

    void candidates_data()
    {
        QTest::addColumn<QString>("current");
        QTest::addColumn<QString>("ignored");
        QTest::addColumn<QStringList>("expected");
        QTest::addColumn<QStringList>("skipped"); // logged skips, in order
        const QString none = QStringLiteral("none");
        QTest::newRow("newer ones, newest first")
            << "1.0" << QString() << QStringList{"2.0.1", "1.10"}
            << QStringList{"1.0.0 (current version=1.0, ignored version=none)",
                           "0.9 (current version=1.0, ignored version=none)",
                           "1.9 as it doesn't have the required method m"};
        QTest::newRow("ignored") << "1.0"
                                 << "1.10" << QStringList{"2.0.1"}
                                 << QStringList{"1.0.0 (current version=1.0, ignored version=1.10)",
                                                "1.10 (current version=1.0, ignored version=1.10)",
                                                "0.9 (current version=1.0, ignored version=1.10)",
                                                "1.9 (current version=1.0, ignored version=1.10)"};
        QTest::newRow("nothing newer")
            << "3" << QString() << QStringList()
            << QStringList{"1.0.0 (current version=3, ignored version=none)",
                           "1.10 (current version=3, ignored version=none)",
                           "2.0.1 (current version=3, ignored version=none)",
                           "0.9 (current version=3, ignored version=none)",
                           "1.9 (current version=3, ignored version=none)"};
    }
    void candidates()
    {
        QFETCH(QString, current);
        QFETCH(QString, ignored);
        QFETCH(QStringList, expected);
        QFETCH(QStringList, skipped);
        Manifest manifest;
        manifest.entries = {entry("1.0.0"), entry("1.10"), entry("2.0.1"), entry("0.9"),
                            entry("1.9", {}, "other")};
        Component c = component("app", "0");
        c.current = parse_version(current);
        for (const QString &line : skipped)
            QTest::ignoreMessage(
                QtDebugMsg, qUtf8Printable(QStringLiteral("APP updater: skipping entry ") + line));
        if (expected.isEmpty())
            QTest::ignoreMessage(QtDebugMsg,
                                 "APP updater: skipping component as it has no candidate entries");
        QStringList versions;
        for (const Entry &e : choose_candidates(c, manifest, parse_version(ignored)))
            versions.append(e.version_text);
        QCOMPARE(versions, expected);
    }

    // "app" 2.0 needs "lib" 1.5 or newer; 1.5 of the app needs nothing.
    void graph_data()
    {
        QTest::addColumn<QStringList>("lib_versions");
        QTest::addColumn<bool>("skip_app");
        QTest::addColumn<bool>("skip_lib");
        QTest::addColumn<QString>("expected"); // what installs, in order, with states
        QTest::newRow("both") << QStringList{"1.6", "1.5"} << false << false
                              << "lib 1.6 Install, app 2.0 Install";
        QTest::newRow("skipped lib is a dependency")
            << QStringList{"1.6"} << false << true << "lib 1.6 Dependency, app 2.0 Install";
        QTest::newRow("skipped app") << QStringList{"1.6"} << true << true << "";
        QTest::newRow("lib too old: older app")
            << QStringList{"1.4"} << false << false << "app 1.5 Install, lib 1.4 Install";
    }
    void graph()
    {
        QFETCH(QStringList, lib_versions);
        QFETCH(bool, skip_app);
        QFETCH(bool, skip_lib);
        QFETCH(QString, expected);
        ComponentUpdate app{
            component("app", "1.0"),
            {},
            {entry("2.0", {{QStringLiteral("lib"), QVersionNumber(1, 5)}}), entry("1.5")}};
        ComponentUpdate lib{component("lib", "1.0"), {}, {}};
        for (const QString &v : lib_versions)
            lib.candidates.append(entry(qPrintable(v)));
        QTest::ignoreMessage(
            QtInfoMsg, QRegularExpression(QStringLiteral(
                           "^Perf updater: prepared graph for 2 component\\(s\\) in \\d+ms$")));
        DependencyGraph graph({app, lib}, {{QStringLiteral("host"), QVersionNumber(1)}});
        for (auto [index, skip] :
             {std::pair{qsizetype(0), skip_app}, std::pair{qsizetype(1), skip_lib}}) {
            if (!skip)
                continue;
            QTest::ignoreMessage(
                QtInfoMsg, QRegularExpression(QStringLiteral(
                               "^Perf updater: updated graph for 2 component\\(s\\) in \\d+ms$")));
            graph.set_skipped(index, true);
        }
        QStringList installs;
        for (const DependencyGraph::Install &install : graph.installs()) {
            const qsizetype i = graph.index_of(install.update.component.id);
            installs.append(QStringLiteral("%1 %2 %3")
                                .arg(install.update.component.id, install.entry.version_text,
                                     graph.state(i) == DependencyGraph::State::Install
                                         ? QStringLiteral("Install")
                                         : QStringLiteral("Dependency")));
        }
        QCOMPARE(installs.join(QStringLiteral(", ")), expected);
        if (expected.startsWith(QStringLiteral("lib 1.6"))) {
            QCOMPARE(graph.installed_with(0), QList<qsizetype>{1});
            QCOMPARE(graph.dependents(1), QList<qsizetype>{0});
            QVERIFY(graph.requirements(0).at(0).met);
        }
    }

    // A requirement nothing can meet blocks its component; a version another
    // entry provides meets one.
    void graph_blocked_and_provided()
    {
        QTest::ignoreMessage(QtInfoMsg,
                             QRegularExpression(QStringLiteral("^Perf updater: prepared graph")));
        ComponentUpdate a{component("a", "1"),
                          {},
                          {entry("2", {{QStringLiteral("missing"), QVersionNumber(1)}})}};
        Entry provider = entry("3");
        provider.provides[QStringLiteral("c")] = QVersionNumber(5);
        ComponentUpdate b{component("b", "1"), {}, {provider}};
        ComponentUpdate d{
            component("d", "1"), {}, {entry("2", {{QStringLiteral("c"), QVersionNumber(4)}})}};
        DependencyGraph graph({a, b, d}, {{QStringLiteral("c"), QVersionNumber(1)}});
        QCOMPARE(graph.state(0), DependencyGraph::State::Blocked);
        QVERIFY(!graph.requirements(0).at(0).met);
        QCOMPARE(graph.state(1), DependencyGraph::State::Install);
        QCOMPARE(graph.state(2), DependencyGraph::State::Install);
        QCOMPARE(graph.installs().size(), 2);
    }
};

QTEST_GUILESS_MAIN(tst_UpdateManifest)
#include "tst_update_manifest.moc"
