// Plugin preferences: the file round trip, the plugin's migration hooks
// around reading and writing, the failure lines, and the merged rebuild
// that corv_plugin_invalidate_preferences schedules.

#include "engine/node_registry.h"
#include "model/property.h"
#include "sdk/include/corvane/corvane_sdk.h"
#include "sdk/plugin.h"
#include "sdk/plugin_list.h"
#include "sdk/plugin_preferences.h"
#include "sdk_test_support.h"
#include "tests/test_files.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

using namespace corv;
using namespace corv::engine;
using sdk_test::PluginFolder;
using sdk_test::recorded;
using sdk_test::test_plugin;

namespace {

const QString good = QStringLiteral("io.marrowfield.testgood");

using corv::test::read_file;
using corv::test::write_file;

} // namespace

class TstPluginPreferences : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QStandardPaths::setTestModeEnabled(true); }

    void init()
    {
        QTest::failOnWarning(QRegularExpression(QStringLiteral(".*")));
        recorded().clear();
        QDir(QStandardPaths::writableLocation(QStandardPaths::AppDataLocation)).removeRecursively();
    }

    void round_trip()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("sub/prefs.xml"));
        {
            PluginPreferences preferences(path, {});
            corv_store *store = preferences.store_handle();
            corv_store_set_int(store, "count", 42);
            corv_store_set_string(store, "name", "Grüße <&>");
            corv_store_set_bool(store, "!flag", true);
            corv_store_set_vec2(store, "where", corv_vec2{0.5, -2.0});
            corv_store_set_buffer(store, "bytes", "\x00\x01\xff", 3);
            QVERIFY(preferences.write()); // makes the folder too
        }
        QVERIFY(read_file(path).contains("<preferences version=\"1\">"));

        PluginPreferences preferences(path, {});
        QVERIFY(preferences.read());
        corv_store *store = preferences.store_handle();
        QCOMPARE(corv_store_get_int(store, "count"), 42);
        QCOMPARE(corv_store_get_string(store, "name"), "Grüße <&>");
        QVERIFY(corv_store_get_bool(store, "!flag"));
        QCOMPARE(corv_store_get_vec2(store, "where").y, -2.0);
        const void *data = nullptr;
        QCOMPARE(corv_store_get_buffer(store, "bytes", &data), uint64_t(3));
        QCOMPARE(QByteArray(static_cast<const char *>(data), 3), QByteArray("\x00\x01\xff", 3));
        // Keys in the order they were first set.
        QCOMPARE(preferences.collection().keys(),
                 (QStringList{"count", "name", "!flag", "where", "bytes"}));
    }

    void no_file_yet_is_no_error()
    {
        QTemporaryDir dir;
        PluginPreferences preferences(dir.filePath(QStringLiteral("prefs.xml")), {});
        QVERIFY(preferences.read());
        QCOMPARE(preferences.collection().size(), 0);
    }

    void failures_data()
    {
        QTest::addColumn<bool>("writing");
        QTest::addColumn<QByteArray>("content"); // null: the path is a folder
        QTest::addColumn<QStringList>("warnings"); // %1: the file path

        QTest::newRow("unreadable") << false << QByteArray()
                                    << QStringList{"Can't read preferences from %1: .+"};
        QTest::newRow("malformed")
            << false << QByteArray("<preferences version=\"1\"><prop key=\"a\"")
            << QStringList{"\\(while parsing project; line \\d+\\) .+",
                           "Failed to read preferences from %1"};
        QTest::newRow("too new")
            << false << QByteArray("<?xml version=\"1.0\"?><preferences version=\"2\"/>")
            << QStringList{"\\(while loading project; line \\d+\\) .+",
                           "Failed to read preferences from %1"};
        QTest::newRow("unwritable") << true << QByteArray()
                                    << QStringList{"Can't write preferences to %1: .+"};
    }

    void failures()
    {
        QFETCH(bool, writing);
        QFETCH(QByteArray, content);
        QFETCH(QStringList, warnings);
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("prefs.xml"));
        if (content.isNull())
            QVERIFY(QDir().mkpath(path)); // a folder where the file should be
        else
            write_file(path, content);
        for (const QString &warning : std::as_const(warnings))
            QTest::ignoreMessage(QtWarningMsg,
                                 QRegularExpression(u'^' + QString(warning).replace(
                                                        QStringLiteral("%1"),
                                                        QRegularExpression::escape(path))
                                                    + u'$'));
        PluginPreferences preferences(path, {});
        QVERIFY(!(writing ? preferences.write() : preferences.read()));
    }

    void plugin_migrates_around_the_file()
    {
        // An older version of the plugin wrote "oldcount": the plugin's
        // load hook turns it into "count" after the file is read, and its
        // save hook adds "format" before the file is written.
        const QString path = PluginPreferences::file_path_for(good);
        write_file(path, "<?xml version=\"1.0\"?>\n<preferences version=\"1\">"
                         "<prop key=\"oldcount\" type=\"int\">7</prop></preferences>\n");

        PluginFolder plugins;
        NodeRegistry registry;
        PluginList list;
        Plugin *plugin = list.load_folder(plugins.add(test_plugin(good), good));
        QVERIFY(plugin && plugin->preferences());
        recorded().clear();
        list.initialize(registry);
        QCOMPARE(recorded().first(), good + QStringLiteral(" migrate_load"));
        corv_store *store = corv_plugin_preferences_store(plugin->handle());
        QCOMPARE(corv_store_get_int(store, "count"), 7);

        recorded().clear();
        list.confirm_preferences();
        QCOMPARE(recorded(), (QStringList{good + QStringLiteral(" confirm count=7"),
                                          good + QStringLiteral(" migrate_save")}));
        PluginPreferences saved(path, {});
        QVERIFY(saved.read());
        QCOMPARE(corv_store_get_int(saved.store_handle(), "format"), 2);
        QCOMPARE(corv_store_get_int(saved.store_handle(), "count"), 7);
    }

    // From the main thread or a plugin's worker: many calls, one rebuild on
    // a later turn of the loop; a later call schedules the next one.
    void invalidations_merge_into_one_rebuild_data()
    {
        QTest::addColumn<bool>("from_worker");
        QTest::newRow("main thread") << false;
        QTest::newRow("worker thread") << true;
    }

    void invalidations_merge_into_one_rebuild()
    {
        QFETCH(bool, from_worker);
        PluginFolder plugins;
        PluginList list;
        Plugin *plugin = list.load_folder(plugins.add(test_plugin(good), good));
        QVERIFY(plugin);
        PluginPreferences *preferences = plugin->preferences();
        QSignalSpy rebuilds(preferences, &PluginPreferences::rebuild_requested);
        QSignalSpy list_rebuilds(&list, &PluginList::preferences_rebuild_requested);
        const auto invalidate = [&](int times) {
            const auto calls = [&] {
                for (int i = 0; i < times; ++i)
                    corv_plugin_invalidate_preferences(plugin->handle());
            };
            if (!from_worker)
                return calls();
            std::unique_ptr<QThread> worker(QThread::create(calls));
            worker->start();
            QVERIFY(worker->wait());
        };

        invalidate(3);
        QCOMPARE(preferences->is_rebuild_scheduled(), !from_worker); // a worker's call waits for the loop
        QCOMPARE(rebuilds.count(), 0); // not before the next turn of the loop
        QTRY_COMPARE(rebuilds.count(), 1);
        QVERIFY(!preferences->is_rebuild_scheduled());
        QCOMPARE(list_rebuilds.count(), 1);
        QCOMPARE(list_rebuilds.first().first().value<Plugin *>(), plugin);

        invalidate(1);
        QTRY_COMPARE(rebuilds.count(), 2);
        QTest::qWait(20);
        QCOMPARE(rebuilds.count(), 2);
    }
};

QTEST_GUILESS_MAIN(TstPluginPreferences)
#include "tst_plugin_preferences.moc"
