// The MQTT plugin's page in the preferences window, loaded as the program
// loads it: its fields and defaults, and the connection state it shows, kept
// up to date from the plugin's network thread while the window is open.

#include "app/builtin_plugin.h"
#include "cui/element.h"
#include "cui/property_surface.h"
#include "cui/store_editor.h"
#include "cui/surface.h"
#include "engine/config_manager.h"
#include "engine/event.h"
#include "engine/node_instance.h"
#include "engine/node_registry.h"
#include "locale/translate.h"
#include "model/property.h"
#include "sdk/plugin_list.h"
#include "sdk/plugin_preferences.h"
#include "widgets/preferences_window.h"
#include "widgets/preferences_window_view_model.h"

#include "local_broker.h"
#include "tests/test_files.h"

#include <QDir>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QLoggingCategory>
#include <QProcess>
#include <QStandardPaths>
#include <QSysInfo>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <pwd.h>
#include <signal.h>
#include <unistd.h>

using namespace corv;

class TstMqttPreferences : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;
    QString m_mosquitto;
    quint16 m_port = 0;
    std::unique_ptr<QProcess> m_broker;
    std::unique_ptr<engine::ConfigManager> m_config;
    std::unique_ptr<engine::PluginList> m_plugins;
    std::unique_ptr<engine::NodeRegistry> m_registry;

    engine::Plugin *mqtt() const { return m_plugins->find(QStringLiteral("io.marrowfield.mqtt")); }

    bool start_broker()
    {
        const QString config = m_dir.filePath(QStringLiteral("broker.conf"));
        QFile file(config);
        if (!file.open(QIODevice::WriteOnly))
            return false;
        file.write("listener " + QByteArray::number(m_port) +
                   " 127.0.0.1\nallow_anonymous true\nuser " +
                   QByteArray(::getpwuid(::geteuid())->pw_name) + "\n");
        file.close();
        m_broker = test::start_local_broker(m_mosquitto, config, m_port,
                                            QProcess::ForwardedErrorChannel, 10000);
        return m_broker != nullptr;
    }

    void stop_broker() { test::stop_local_broker(m_broker, 10000); }

    static QStringList label_texts(const widgets::PreferencesWindow &window)
    {
        QStringList texts;
        for (const QLabel *label : window.findChildren<QLabel *>())
            texts.append(label->text());
        return texts;
    }

    static model::Value stored(engine::Plugin *plugin, const char *key)
    {
        const model::Property *p =
            plugin->preferences()->collection().find(QString::fromLatin1(key));
        return p ? p->value() : model::Value();
    }

private Q_SLOTS:
    void initTestCase()
    {
        m_mosquitto = test::find_broker_program(QStringLiteral("mosquitto"));
        if (m_mosquitto.isEmpty())
            QSKIP("mosquitto is not installed (Debian package mosquitto)");
        QVERIFY(m_dir.isValid());
        m_port = test::free_local_port();
        QVERIFY(m_port != 0);
        QVERIFY(start_broker());

        QLoggingCategory::setFilterRules(QStringLiteral("corv.*.debug=false"));
        QStandardPaths::setTestModeEnabled(true);
        const QString data = QStandardPaths::writableLocation(QStandardPaths::AppDataLocation);
        QDir(data).removeRecursively();
        // The broker of the test; everything else as a first run leaves it.
        const QString prefs = data + QStringLiteral("/plugins/io.marrowfield.mqtt/prefs.xml");
        corv::test::write_file(prefs, "<?xml version=\"1.0\"?>\n<preferences version=\"1\"><prop key=\"port\" type=\"int\">" +
                                          QByteArray::number(m_port) + "</prop></preferences>\n");
        QVERIFY(QFile::setPermissions(prefs, QFile::ReadOwner | QFile::WriteOwner | QFile::ReadOther));

        locale::set_application_dir(QStringLiteral(CORV_TEST_RUNTIME_DIR));
        locale::install_application_translator();
        // Warnings fail the test, but for the plugin's own about the connection.
        QTest::failOnWarning(
            QRegularExpression(QStringLiteral("^(?!io\\.marrowfield\\.mqtt: ).*")));
        m_config = std::make_unique<engine::ConfigManager>();
        set_builtin_config_manager(m_config.get());
        m_plugins = std::make_unique<engine::PluginList>();
        m_plugins->add_builtin(builtin_plugin_entry_points(),
                               QStringLiteral(CORV_TEST_RUNTIME_DIR));
        QVERIFY(m_plugins->load_folder(QStringLiteral(CORV_MQTT_PLUGIN_DIR)));
        m_registry = std::make_unique<engine::NodeRegistry>();
        m_plugins->initialize(*m_registry);
        QVERIFY(mqtt());
        // The file holds a password: the plugin makes it the user's own.
        QCOMPARE(QFile::permissions(prefs) &
                     (QFile::ReadGroup | QFile::ReadOther | QFile::WriteGroup | QFile::WriteOther),
                 QFile::Permissions());
    }

    void cleanupTestCase()
    {
        m_registry.reset();
        m_plugins.reset();
        set_builtin_config_manager(nullptr);
        stop_broker();
    }

    // A first save, with no file yet, writes it the user's own from the
    // start: it holds the password.
    void first_save_is_private()
    {
        engine::PluginPreferences *preferences = mqtt()->preferences();
        QVERIFY(QFile::remove(preferences->file_path()));
        QVERIFY(preferences->write());
        QCOMPARE(QFile::permissions(preferences->file_path()) &
                     (QFile::ReadGroup | QFile::ReadOther | QFile::WriteGroup | QFile::WriteOther),
                 QFile::Permissions());
    }

    // The page and its defaults; the CA file waits for TLS.
    void page()
    {
        widgets::PreferencesWindow window(new widgets::PreferencesWindowViewModel(*m_plugins));
        const QList<QListWidgetItem *> items =
            window.page_list()->findItems(QStringLiteral("MQTT"), Qt::MatchExactly);
        QCOMPARE(items.size(), 1);
        window.page_list()->setCurrentItem(items.first());
        const qsizetype page = window.current_page();
        cui::Surface *surface = window.model()->page_surface(page)->surface();
        QCOMPARE(stored(mqtt(), "host").to_string(), QByteArray("127.0.0.1"));
        QCOMPARE(stored(mqtt(), "port").to_int(), int(m_port));
        QCOMPARE(stored(mqtt(), "clientid").to_string(),
                 "corvane-" + QSysInfo::machineHostName().toUtf8());
        QCOMPARE(stored(mqtt(), "keepalive").to_int(), 30);
        QCOMPARE(stored(mqtt(), "tls").to_bool(), false);
        QVERIFY(!surface->field(QStringLiteral("cafile"))->is_enabled());
        // The password alone is shown as bullets.
        QStringList hidden;
        for (const QLineEdit *edit : window.findChildren<QLineEdit *>()) {
            if (edit->isVisibleTo(&window) && edit->echoMode() == QLineEdit::Password)
                hidden.append(edit->objectName());
        }
        QCOMPARE(hidden.size(), 1);
        surface->editor().write(surface->store().collection(), QStringLiteral("tls"),
                                model::Value::boolean(true), false);
        window.model()->page_surface(page)->rebuild();
        QVERIFY(surface->field(QStringLiteral("cafile"))->is_enabled());
        QVERIFY(label_texts(window).contains(
            QStringLiteral("Not connected: no MQTT node in the open project.")));
        window.reject();
    }

    // The first MQTT node connects; the open page follows every change of
    // the connection, which the network thread reports.
    void state_follows_connection()
    {
        widgets::PreferencesWindow window(new widgets::PreferencesWindowViewModel(*m_plugins));
        window.page_list()->setCurrentItem(
            window.page_list()->findItems(QStringLiteral("MQTT"), Qt::MatchExactly).first());
        const QString address = QStringLiteral("127.0.0.1:%1").arg(m_port);
        const engine::NodeDefinition *publish =
            m_registry->find(QStringLiteral("io.marrowfield.mqtt.publish"));
        QVERIFY(publish);
        engine::EventSink parent_sink;
        engine::EventSink child_sink;
        engine::NodeInstance node(*publish, &parent_sink, &child_sink);
        node.create();
        QTRY_VERIFY_WITH_TIMEOUT(
            label_texts(window).contains(QStringLiteral("Connected to %1.").arg(address)), 10000);

        stop_broker();
        QTRY_VERIFY_WITH_TIMEOUT(
            label_texts(window).contains(
                QStringLiteral("Lost the connection to %1; reconnecting.").arg(address)) ||
                label_texts(window).contains(
                    QStringLiteral("Can't reach %1: Connection refused. Trying again.")
                        .arg(address)),
            10000);
        QVERIFY(start_broker());
        QTRY_VERIFY_WITH_TIMEOUT(
            label_texts(window).contains(QStringLiteral("Connected to %1.").arg(address)), 10000);

        // Confirmed settings apply at once: here a port nobody listens on.
        quint16 closed = 0;
        {
            QTcpServer server;
            QVERIFY(server.listen(QHostAddress::LocalHost, 0));
            closed = server.serverPort();
        }
        cui::Surface *surface = window.model()->page_surface(window.current_page())->surface();
        surface->editor().write(surface->store().collection(), QStringLiteral("port"),
                                model::Value::integer(closed), false);
        window.accept();
        widgets::PreferencesWindow again(new widgets::PreferencesWindowViewModel(*m_plugins));
        again.page_list()->setCurrentItem(
            again.page_list()->findItems(QStringLiteral("MQTT"), Qt::MatchExactly).first());
        QTRY_VERIFY_WITH_TIMEOUT(
            label_texts(again).contains(
                QStringLiteral("Can't reach 127.0.0.1:%1: Connection refused. Trying again.")
                    .arg(closed)),
            10000);
        again.reject();

        // A broker that takes each connection and drops it at once: the
        // attempts come 1, 2 and 4 s apart, and the log says so only once.
        QTcpServer dropper;
        QVERIFY(dropper.listen(QHostAddress::LocalHost, 0));
        QList<qint64> attempts;
        QElapsedTimer clock;
        clock.start();
        connect(&dropper, &QTcpServer::newConnection, &dropper, [&] {
            while (QTcpSocket *socket = dropper.nextPendingConnection()) {
                attempts.append(clock.elapsed());
                socket->abort();
                socket->deleteLater();
            }
        });
        QTest::ignoreMessage(
            QtWarningMsg,
            QRegularExpression(
                QStringLiteral("^io\\.marrowfield\\.mqtt: Can't connect to 127\\.0\\.0\\.1:%1: ")
                    .arg(dropper.serverPort())));
        widgets::PreferencesWindow third(new widgets::PreferencesWindowViewModel(*m_plugins));
        third.page_list()->setCurrentItem(
            third.page_list()->findItems(QStringLiteral("MQTT"), Qt::MatchExactly).first());
        surface = third.model()->page_surface(third.current_page())->surface();
        surface->editor().write(surface->store().collection(), QStringLiteral("port"),
                                model::Value::integer(dropper.serverPort()), false);
        third.accept();
        QTRY_VERIFY_WITH_TIMEOUT(attempts.size() >= 4, 12000);
        for (int gap = 1; gap <= 3; ++gap) {
            const qint64 expected = 1000 << (gap - 1);
            const qint64 seen = attempts[gap] - attempts[gap - 1];
            QVERIFY2(seen >= expected - 100 && seen <= expected + 400,
                     qPrintable(QStringLiteral("gap %1: %2 ms").arg(gap).arg(seen)));
        }

        // TLS that can't be set up (here a CA file that isn't there) keeps
        // the password off the network: no connection in the clear instead.
        QTcpServer plain;
        QVERIFY(plain.listen(QHostAddress::LocalHost, 0));
        widgets::PreferencesWindow fourth(new widgets::PreferencesWindowViewModel(*m_plugins));
        fourth.page_list()->setCurrentItem(
            fourth.page_list()->findItems(QStringLiteral("MQTT"), Qt::MatchExactly).first());
        surface = fourth.model()->page_surface(fourth.current_page())->surface();
        surface->editor().write(surface->store().collection(), QStringLiteral("port"),
                                model::Value::integer(plain.serverPort()), false);
        surface->editor().write(surface->store().collection(), QStringLiteral("tls"),
                                model::Value::boolean(true), false);
        surface->editor().write(
            surface->store().collection(), QStringLiteral("cafile"),
            model::Value::string(m_dir.filePath(QStringLiteral("none.pem")).toUtf8()), false);
        fourth.accept();
        widgets::PreferencesWindow fifth(new widgets::PreferencesWindowViewModel(*m_plugins));
        fifth.page_list()->setCurrentItem(
            fifth.page_list()->findItems(QStringLiteral("MQTT"), Qt::MatchExactly).first());
        QTRY_VERIFY_WITH_TIMEOUT(
            label_texts(fifth).contains(
                QStringLiteral("Not connecting to 127.0.0.1:%1: can't read the CA file. Check "
                               "the preferences.")
                    .arg(plain.serverPort())),
            10000);
        QTest::qWait(1500);
        QVERIFY(!plain.hasPendingConnections());
        // Without TLS it connects again when the settings are confirmed.
        surface = fifth.model()->page_surface(fifth.current_page())->surface();
        surface->editor().write(surface->store().collection(), QStringLiteral("tls"),
                                model::Value::boolean(false), false);
        fifth.accept();
        QTRY_VERIFY_WITH_TIMEOUT(plain.hasPendingConnections(), 10000);
        node.destroy();
    }
};

QTEST_MAIN(TstMqttPreferences)
#include "tst_mqtt_preferences.moc"
