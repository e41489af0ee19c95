// The plugin loader over real plugin libraries: the folder scan, every
// refusal with its message, duplicate ids, the three initialisation passes
// in list order, a plugin whose load fails, and unloading at the end.

#include "engine/node_registry.h"
#include "sdk/include/corvane/corvane_sdk.h"
#include "sdk/plugin.h"
#include "sdk/plugin_list.h"
#include "sdk/plugin_preferences.h"
#include "sdk_test_support.h"
#include "tests/test_platform.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTest>

using namespace corv::engine;
using sdk_test::MessageLog;
using sdk_test::PluginFolder;
using sdk_test::recorded;
using sdk_test::test_plugin;

namespace {

const QString good = QStringLiteral("io.marrowfield.testgood");
const QString second = QStringLiteral("io.marrowfield.testsecond");
const QString plain = QStringLiteral("io.marrowfield.testplain");
const QString fails = QStringLiteral("io.marrowfield.testfails");

// The executable's own node set, as a test stands it in: the SDK library's
// exported cplugin_sdk_version and cplugin_set_handle, and recording entry
// points of its own.
void builtin_get_info(corv_plugin_info *info)
{
    info->id = "io.marrowfield.corvane";
    info->name = "Corvane";
    info->version = "0.9.4";
    info->author = "Marrowfield";
}
int builtin_load(corv_registration *)
{
    recorded() << QStringLiteral("builtin load");
    return 0;
}
void builtin_postload()
{
    recorded() << QStringLiteral("builtin postload");
}
void builtin_unload()
{
    recorded() << QStringLiteral("builtin unload");
}

PluginEntryPoints builtin_entry_points()
{
    PluginEntryPoints entry;
    entry.sdk_version = &cplugin_sdk_version;
    entry.set_handle = &cplugin_set_handle;
    entry.get_info = &builtin_get_info;
    entry.load = &builtin_load;
    entry.postload = &builtin_postload;
    entry.unload = &builtin_unload;
    return entry;
}

QStringList calls(const QString &id, const QStringList &what)
{
    QStringList lines;
    for (const QString &call : what)
        lines << id + u' ' + call;
    return lines;
}

// The lines of log that start with one of the prefixes, in order.
QStringList only(const QStringList &lines, const QStringList &prefixes)
{
    QStringList kept;
    for (const QString &line : lines) {
        for (const QString &prefix : prefixes) {
            if (line.startsWith(prefix)) {
                kept << line;
                break;
            }
        }
    }
    return kept;
}

} // namespace

class TstPluginLoader : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QStandardPaths::setTestModeEnabled(true); }

    void init()
    {
        QTest::failOnWarning(QRegularExpression(QStringLiteral(".*")));
        recorded().clear();
    }

    void refused_libraries_data()
    {
        QTest::addColumn<QString>("library");
        QTest::addColumn<QString>("folder");
        QTest::addColumn<QString>("file");
        QTest::addColumn<QString>("warning"); // a pattern; %1 stands for the library path
        QTest::addColumn<QStringList>("calls");

        QTest::newRow("SDK version 2")
            << "io.marrowfield.testversion" << "io.marrowfield.testversion" << ""
            << "Failed to load plugin at %1: required SDK version is not supported \\(got 2, "
               "supports 1\\)"
            << QStringList{};
        QTest::newRow("no cplugin_sdk_version")
            << "io.marrowfield.testnoversion" << "io.marrowfield.testnoversion" << ""
            << "Failed to load plugin at %1: missing required cplugin_sdk_version function"
            << QStringList{};
        QTest::newRow("no cplugin_set_handle")
            << "io.marrowfield.testnohandle" << "io.marrowfield.testnohandle" << ""
            << "Failed to load plugin at %1: missing required cplugin_set_handle function"
            << QStringList{};
        QTest::newRow("no cplugin_get_info")
            << "io.marrowfield.testnoinfo" << "io.marrowfield.testnoinfo" << ""
            << "Failed to load plugin at %1: missing required cplugin_info function"
            << QStringList{};
        QTest::newRow("id differs from the folder in case")
            << "io.marrowfield.testcase" << "io.marrowfield.testcase" << ""
            << "Failed to load plugin at %1: the plugin ID and directory do not match \\(ID is "
               "io\\.marrowfield\\.TestCase, directory is io\\.marrowfield\\.testcase\\)"
            << calls("io.marrowfield.testcase", {"set_handle", "get_info"});
        QTest::newRow("library named otherwise")
            << good << "io.marrowfield.renamed" << good
            << "Failed to load plugin at %1: Cannot load library %1\\.\\w+: No such file or directory"
            << QStringList{};
        QTest::newRow("library with a lib prefix")
            << good << "io.marrowfield.prefixed" << "libio.marrowfield.prefixed"
            << "Failed to load plugin at %1: Cannot load library %1\\.\\w+: No such file or directory"
            << QStringList{};
        QTest::newRow("needs an export the program lacks")
            << "io.marrowfield.testmissing" << "io.marrowfield.testmissing" << ""
            // The system's reason: the symbol on Linux, the missing procedure on Windows.
            << "Failed to load plugin at %1: Cannot load library %1\\.\\w+: (.*undefined symbol: "
               "corv_missing_export.*|The specified procedure could not be found\\.)"
            << QStringList{};
    }

    void refused_libraries()
    {
        QFETCH(QString, library);
        QFETCH(QString, folder);
        QFETCH(QString, file);
        QFETCH(QString, warning);
        QFETCH(QStringList, calls);
        if (library == QLatin1StringView("io.marrowfield.testmissing") && corv::test::running_under_wine())
            QSKIP("Wine loads a library with a missing import (it puts in a stub); Windows refuses it");

        PluginFolder plugins;
        const QString folder_path = plugins.add(test_plugin(library), folder, file);
        const QString path = folder_path + u'/' + folder;
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression(u'^' + warning.arg(QRegularExpression::escape(path))
                                                + u'$'));
        MessageLog log;
        PluginList list;
        list.scan(plugins.path());

        QCOMPARE(list.count(), 0);
        QCOMPARE(recorded(), calls);
        QCOMPARE(log.lines.first(), QStringLiteral("Found plugin in ") + folder_path);
        // Whatever was loaded is unloaded again.
        QVERIFY(!sdk_test::is_mapped(folder_path));
    }

    void three_passes_in_list_order()
    {
        PluginFolder plugins;
        NodeRegistry registry;
        MessageLog log;
        {
            PluginList list;
            list.add_builtin(builtin_entry_points(), QCoreApplication::applicationDirPath());
            for (const QString &id : {good, plain, second})
                QVERIFY(list.load_folder(plugins.add(test_plugin(id), id)));
            QCOMPARE(recorded(), calls(good, {"set_handle", "get_info"})
                                     + calls(plain, {"set_handle", "get_info"})
                                     + calls(second, {"set_handle", "get_info"}));
            recorded().clear();

            list.initialize(registry);
            QCOMPARE(list.count(), 4);
            QCOMPARE(recorded(), QStringList{"builtin load"} + calls(good, {"load"})
                                     + calls(second, {"load"}) + QStringList{"builtin postload"}
                                     + calls(good, {"postload"}) + calls(second, {"postload"}));

            // What a plugin registered belongs to it.
            const NodeDefinition *node = registry.find(good + QStringLiteral(".node"));
            QVERIFY(node);
            QCOMPARE(node->plugin, &list.find(good)->identity());
            QCOMPARE(node->category, QStringLiteral("Test plugin io.marrowfield.testgood"));
            QVERIFY(registry.find(second + QStringLiteral(".other")));
            QVERIFY(registry.find_migration(good + QStringLiteral(".retired")));
            recorded().clear();
        }
        // Unloaded in list order; the minimal plugin has no cplugin_unload.
        QCOMPARE(recorded(), QStringList{"builtin unload"} + calls(good, {"unload"})
                                 + calls(second, {"unload"}));
        QVERIFY(!sdk_test::is_mapped(plugins.path()));

        const QStringList passes = only(log.lines, {"Initializ", "  Initialize", "Loading",
                                                    "  Loading", "Calling", "  Postload",
                                                    "Unloading"});
        QCOMPARE(passes, (QStringList{
                             "Initializing all plugins",
                             "Initializing plugin preferences:",
                             "  Initialize io.marrowfield.corvane preferences",
                             "  Initialize io.marrowfield.testgood preferences",
                             "  Initialize io.marrowfield.testplain preferences",
                             "  Initialize io.marrowfield.testsecond preferences",
                             "Loading plugins:",
                             "  Loading io.marrowfield.corvane",
                             "  Loading io.marrowfield.testgood",
                             "  Loading io.marrowfield.testplain",
                             "  Loading io.marrowfield.testsecond",
                             "Calling postload on plugins:",
                             "  Postload io.marrowfield.corvane",
                             "  Postload io.marrowfield.testgood",
                             "  Postload io.marrowfield.testplain",
                             "  Postload io.marrowfield.testsecond",
                             "Unloading io.marrowfield.corvane",
                             "Unloading io.marrowfield.testgood",
                             "Unloading io.marrowfield.testplain",
                             "Unloading io.marrowfield.testsecond",
                         }));
    }

    void failed_load_removes_the_plugin()
    {
        PluginFolder plugins;
        NodeRegistry registry;
        PluginList list;
        for (const QString &id : {good, fails, second})
            QVERIFY(list.load_folder(plugins.add(test_plugin(id), id)));
        recorded().clear();
        MessageLog log;

        list.initialize(registry);
        // The failed plugin is unloaded at once and gets no postload; the
        // one after it still loads.
        QCOMPARE(recorded(), calls(good, {"load"}) + calls(fails, {"load", "unload"})
                                 + calls(second, {"load"}) + calls(good, {"postload"})
                                 + calls(second, {"postload"}));
        QCOMPARE(list.count(), 2);
        QVERIFY(!list.find(fails));
        QVERIFY(!sdk_test::is_mapped(plugins.path() + u'/' + fails));
        QCOMPARE(only(log.lines, {"  Loading", "  Plugin failed", "Unloading"}),
                 (QStringList{"  Loading io.marrowfield.testgood",
                              "  Loading io.marrowfield.testfails",
                              "  Plugin failed to load.",
                              "Unloading io.marrowfield.testfails",
                              "  Loading io.marrowfield.testsecond"}));

        // None of what it registered exists.
        QVERIFY(!registry.find(fails + QStringLiteral(".node")));
        QVERIFY(!registry.find(fails + QStringLiteral(".other")));
        QVERIFY(!registry.find_migration(fails + QStringLiteral(".retired")));
        QVERIFY(registry.find(good + QStringLiteral(".node")));
        QCOMPARE(registry.definitions().size(), 4);
    }

    void duplicate_ids_keep_the_first()
    {
        PluginFolder first_root;
        PluginFolder second_root;
        const QString first = first_root.add(test_plugin(good), good);
        const QString other = second_root.add(test_plugin(good), good);
        QTest::ignoreMessage(
            QtWarningMsg,
            qPrintable(QStringLiteral("Failed to load plugin at %1/%2: a plugin with the ID %2 "
                                      "already exists in %3")
                           .arg(other, good, first)));
        PluginList list;
        list.scan(first_root.path());
        list.scan(second_root.path());

        QCOMPARE(list.count(), 1);
        QCOMPARE(list.at(0)->install_dir(), first);
        QCOMPARE(recorded(), calls(good, {"set_handle", "get_info", "set_handle", "get_info"}));
        QVERIFY(sdk_test::is_mapped(first));
        QVERIFY(!sdk_test::is_mapped(other));
    }

    void info_folders_and_preferences()
    {
        PluginFolder plugins;
        const QString folder = plugins.add(test_plugin(good), good);
        QTest::ignoreMessage(QtInfoMsg,
                             "Found plugin io.marrowfield.testgood: \"Test plugin "
                             "io.marrowfield.testgood\" by Tests "
                             "(https://updates.marrowfield.example/tests/io.marrowfield.testgood.json#linux)");
        PluginList list;
        Plugin *plugin = list.load_folder(folder);
        QVERIFY(plugin);
        Plugin *without_preferences = list.load_folder(plugins.add(test_plugin(second), second));
        QVERIFY(without_preferences);

        QCOMPARE(plugin->id(), good);
        QCOMPARE(plugin->version(), QVersionNumber(2, 5, 1));
        QCOMPARE(plugin->author(), QByteArray("Tests"));
        QCOMPARE(plugin->description(), QByteArray("Sixth"));
        QCOMPARE(plugin->website(), QByteArray("Seventh"));
        QVERIFY(plugin->icon().isNull());

        corv_plugin *handle = plugin->handle();
        QCOMPARE(QString::fromUtf8(corv_plugin_get_install_dir(handle)), folder);
        const QString data_dir = QStandardPaths::writableLocation(QStandardPaths::AppDataLocation)
                                 + QStringLiteral("/plugins/") + good;
        QDir(data_dir).removeRecursively();
        QCOMPARE(QString::fromUtf8(corv_plugin_get_data_dir(handle)), data_dir);
        QVERIFY(QFileInfo(data_dir).isDir()); // made when asked for

        // Preferences exist for a plugin with a preferences page only.
        QVERIFY(plugin->preferences());
        QCOMPARE(corv_plugin_preferences_store(handle), plugin->preferences()->store_handle());
        QCOMPARE(plugin->preferences()->file_path(), data_dir + QStringLiteral("/prefs.xml"));
        QVERIFY(!corv_plugin_preferences_store(without_preferences->handle()));
        corv_plugin_invalidate_preferences(without_preferences->handle()); // nothing happens
    }

    void no_plugins_folder()
    {
        PluginList list;
        list.scan(QStringLiteral("/nonexistent/corvane/plugins"));
        QCOMPARE(list.count(), 0);
    }

    void builtin_plugin_and_translation()
    {
        PluginFolder plugins;
        PluginList list;
        Plugin *builtin =
            list.add_builtin(builtin_entry_points(), QCoreApplication::applicationDirPath());
        QVERIFY(builtin);
        QCOMPARE(builtin_plugin(), builtin);
        QVERIFY(builtin->is_builtin());
        // The executable's own texts come from the application's locale files.
        QCOMPARE(corv_plugin_tr(builtin->handle(), "Menu.File.Open"), "Open…");
        QCOMPARE(corv_plugin_tr(builtin->handle(), nullptr), "");

        // A plugin's texts come from its own folder; this one has none.
        Plugin *plugin = list.load_folder(plugins.add(test_plugin(second), second));
        list.load_language("en-US"); // a switch before the plugin's first text leaves it nothing to reload
        QTest::ignoreMessage(
            QtWarningMsg,
            QRegularExpression(QStringLiteral("^io\\.marrowfield\\.testsecond locale: Couldn't find "
                                              "locale file for en-US: .+$")));
        QTest::ignoreMessage(QtWarningMsg, "io.marrowfield.testsecond locale: Some.Key.%1 = ??");
        char text[CORV_TEXT_SIZE];
        corv_plugin_tr_plural_str(plugin->handle(), "Some.Key.%1", 3, text);
        QCOMPARE(text, "Some.Key.3");

        list.unload_all();
        QVERIFY(!builtin_plugin());
    }

    void registration_needs_a_context()
    {
        corv_node_type type = {};
        type.id = "late.node";
        QTest::ignoreMessage(QtWarningMsg, "Can't register node late.node: no registration "
                                           "context (only during cplugin_load)");
        corv_register_node(nullptr, &type);
    }
};

QTEST_GUILESS_MAIN(TstPluginLoader)
#include "tst_plugin_loader.moc"
