// Racks on two machines, played on one: a real mosquitto broker on 127.0.0.1
// and two headless Corvane processes with the MQTT plugin, one publishing
// what is posted to it, the other subscribing and displaying.

#include "local_broker.h"
#include "tests/test_files.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalSocket>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <algorithm>
#include <memory>

#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

namespace {

constexpr int kTimeoutMs = 20000;

using Event = QList<QPair<QByteArray, QByteArray>>; // displayed keys in order

QByteArray value_of(const Event &event, const QByteArray &key)
{
    for (const auto &[k, v] : event) {
        if (k == key)
            return v;
    }
    return QByteArray("<absent>");
}

QByteArrayList keys_of(const Event &event)
{
    QByteArrayList keys;
    for (const auto &pair : event)
        keys.append(pair.first);
    return keys;
}

// One headless Corvane with a home of its own.
struct Corvane {
    QString home;
    QProcess process;
    QByteArray out;
    QByteArray err;
    qsizetype parsed = 0; // bytes of out already turned into events
    QList<Event> events;

    void read()
    {
        out += process.readAllStandardOutput();
        err += process.readAllStandardError();
        // Display lines: "key: value"; each event starts with its topic.
        for (qsizetype end; (end = out.indexOf('\n', parsed)) >= 0; parsed = end + 1) {
            const QByteArray line = out.mid(parsed, end - parsed);
            const qsizetype colon = line.indexOf(": ");
            if (colon < 0)
                continue;
            const QByteArray key = line.left(colon);
            if (key == "topic" || events.isEmpty())
                events.append(Event());
            events.last().append(qMakePair(key, line.mid(colon + 2)));
        }
    }
};

} // namespace

class tst_Mqtt : public QObject {
    Q_OBJECT

    QString m_mosquitto;
    std::unique_ptr<QTemporaryDir> m_dir;
    quint16 m_port = 0;
    QString m_broker_config;
    std::unique_ptr<QProcess> m_broker;
    quint16 m_open_port = 0; // the broker most tests use
    QString m_open_config;
    QList<std::shared_ptr<Corvane>> m_instances;
    int m_next_id = 0;

    // ---- the broker ----------------------------------------------------------

    // A broker on 127.0.0.1 that keeps its sessions across a restart.
    bool write_broker_config(const QByteArray &extra)
    {
        m_port = corv::test::free_local_port();
        m_broker_config = m_dir->filePath(QStringLiteral("broker-%1.conf").arg(m_port));
        QFile file(m_broker_config);
        if (!file.open(QIODevice::WriteOnly))
            return false;
        file.write("listener " + QByteArray::number(m_port) +
                   " 127.0.0.1\n"
                   "persistence true\n"
                   "persistence_location " +
                   m_dir->path().toUtf8() +
                   "/\n"
                   "persistence_file broker-" +
                   QByteArray::number(m_port) +
                   ".db\n"
                   "max_queued_messages 0\nset_tcp_nodelay true\n"
                   // Run as root, it would switch to the "mosquitto" user, who
                   // can't use the test's private folder.
                   "user " +
                   QByteArray(::getpwuid(::geteuid())->pw_name) +
                   "\n"
                   "log_dest file " +
                   m_dir->path().toUtf8() + "/broker-" + QByteArray::number(m_port) +
                   ".log\n"
                   "log_type error\nlog_type warning\nlog_type notice\nlog_type information\n" +
                   extra);
        return true;
    }

    bool start_broker()
    {
        m_broker = corv::test::start_local_broker(m_mosquitto, m_broker_config, m_port,
                                            QProcess::MergedChannels, kTimeoutMs);
        return m_broker != nullptr;
    }

    void stop_broker() { corv::test::stop_local_broker(m_broker, kTimeoutMs); }

    QByteArray broker_log() const
    {
        return corv::test::read_file(m_dir->filePath(QStringLiteral("broker-%1.log").arg(m_port)));
    }

    // ---- Corvane ------------------------------------------------------------

    // Starts a headless run of a project whose body is given, with the MQTT
    // preferences given as <prop> elements, and waits for its first connection
    // outcome (when `expect` is not empty).
    std::shared_ptr<Corvane> start_corvane(const QByteArray &project_body,
                                           const QByteArray &preferences,
                                           const QByteArray &expect = "Connected to")
    {
        auto corvane = std::make_shared<Corvane>();
        m_instances.append(corvane);
        corvane->home = m_dir->filePath(QStringLiteral("home-%1").arg(++m_next_id));
        const QString data = corvane->home + QStringLiteral("/data");
        const QString plugin_data = data + QStringLiteral("/Corvane/plugins/io.marrowfield.mqtt");
        QDir().mkpath(corvane->home + QStringLiteral("/run"));
        ::chmod(QFile::encodeName(corvane->home + QStringLiteral("/run")).constData(), 0700);
        corv::test::write_file(plugin_data + QStringLiteral("/prefs.xml"),
                               "<?xml version=\"1.0\"?>\n<preferences version=\"1\"><prop key=\"port\" type=\"int\">" +
                                   QByteArray::number(m_port) + "</prop>" + preferences + "</preferences>\n");
        const QString project = corvane->home + QStringLiteral("/project.corv");
        corv::test::write_file(project, "<?xml version=\"1.0\"?>\n<project version=\"1\">\n" + project_body + "</project>\n");

        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("HOME"), corvane->home);
        env.insert(QStringLiteral("XDG_DATA_HOME"), data);
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), corvane->home + QStringLiteral("/config"));
        env.insert(QStringLiteral("XDG_CACHE_HOME"), corvane->home + QStringLiteral("/cache"));
        env.insert(QStringLiteral("XDG_RUNTIME_DIR"), corvane->home + QStringLiteral("/run"));
        // A control socket of each instance's own, so that --post reaches this one.
        env.insert(QStringLiteral("CORV_TEST_CONTROL_DIR"), corvane->home + QStringLiteral("/run"));
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        for (const char *name : {"QT_MESSAGE_PATTERN", "DISPLAY", "WAYLAND_DISPLAY"})
            env.remove(QString::fromLatin1(name));
        corvane->process.setProcessEnvironment(env);
        corvane->process.start(QStringLiteral(CORVANE_EXECUTABLE),
                               {QStringLiteral("--headless"), project});
        const QByteArray ready = expect.isEmpty() ? QByteArray("Initialization complete") : expect;
        wait_for([&] {
            return corvane->err.contains(ready) || corvane->process.state() == QProcess::NotRunning;
        });
        return corvane;
    }

    // Reads every running Corvane until the condition holds or time runs out.
    template <typename Condition> bool wait_for(Condition condition, int timeout_ms = kTimeoutMs)
    {
        QElapsedTimer timer;
        timer.start();
        for (;;) {
            for (const auto &corvane : std::as_const(m_instances)) {
                corvane->process.waitForReadyRead(corvane == m_instances.last() ? 5 : 0);
                corvane->read();
            }
            if (condition())
                return true;
            if (timer.elapsed() > timeout_ms)
                return false;
        }
    }

    // Stops a run with SIGTERM; true when it ended cleanly.
    bool stop_corvane(Corvane &corvane)
    {
        ::kill(pid_t(corvane.process.processId()), SIGTERM);
        const bool finished = corvane.process.waitForFinished(kTimeoutMs);
        corvane.read();
        return finished && corvane.process.exitStatus() == QProcess::NormalExit &&
               corvane.process.exitCode() == 0 &&
               corvane.err.contains("Shutting down with exit code 0");
    }

    // Posts one event to the mailbox "out" of a running instance, as
    // `corvane --post` does, over its control socket.
    static bool post(const Corvane &corvane, const QJsonObject &event)
    {
        const QString run = corvane.home + QStringLiteral("/run");
        const QStringList sockets =
            QDir(run).entryList({QStringLiteral("corvane-*")}, QDir::System);
        if (sockets.isEmpty())
            return false;
        QLocalSocket socket;
        socket.connectToServer(run + u'/' + sockets.first());
        if (!socket.waitForConnected(kTimeoutMs))
            return false;
        const QJsonObject message{{QStringLiteral("post"), QStringLiteral("out")},
                                  {QStringLiteral("event"), event}};
        socket.write(QJsonDocument(message).toJson(QJsonDocument::Compact) + '\n');
        QByteArray answer;
        while (!answer.contains('\n') && socket.waitForReadyRead(kTimeoutMs))
            answer += socket.readAll();
        return answer.contains("\"ok\":true");
    }

    // A rack per top-level node; nodes are (component, properties, children).
    struct Node {
        QByteArray component;
        QByteArray properties;
        QList<Node> children;
    };

    static QByteArray project(const QList<Node> &racks)
    {
        QByteArray body;
        int next = 0;
        const auto id = [](int n) {
            return QByteArray("00000000-0000-0000-0000-") +
                   QByteArray::number(n).rightJustified(12, '0');
        };
        std::function<QByteArray(const Node &, QByteArray &)> add = [&](const Node &node,
                                                                        QByteArray &nodes) {
            const QByteArray own = id(++next);
            QByteArray inner = node.properties;
            for (const Node &child : node.children)
                inner += "<node>" + add(child, nodes) + "</node>";
            nodes += "<node id=\"" + own + "\" component=\"" + node.component + "\">" + inner +
                     "</node>\n";
            return own;
        };
        QByteArray nodes;
        for (const Node &rack : racks) {
            const QByteArray rack_id = id(++next);
            const QByteArray top = add(rack, nodes);
            body += "<rack id=\"" + rack_id + "\" name=\"R" + rack_id.right(2) + "\"><node>" + top +
                    "</node></rack>\n";
        }
        return body + nodes;
    }

    static QByteArray prop(const QByteArray &key, const QByteArray &type, const QByteArray &value)
    {
        return "<prop key=\"" + key + "\" type=\"" + type + "\">" + value + "</prop>";
    }

    static Node publisher(const QByteArray &topic, int qos = 1, int repeat = 0, bool retain = false)
    {
        Node publish{"io.marrowfield.mqtt.publish",
                     prop("!topic", "string", topic) +
                         prop("!qos", "int", QByteArray::number(qos)) +
                         prop("!retain", "bool", retain ? "true" : "false"),
                     {}};
        Node receive{"io.marrowfield.receive", prop("!mailbox", "string", "out"), {}};
        if (repeat)
            receive.children = {Node{"io.marrowfield.example.repeat",
                                     prop("!count", "int", QByteArray::number(repeat)),
                                     {publish}}};
        else
            receive.children = {publish};
        return receive;
    }

    // A subscribe node whose events carry "via" = its position, then are shown.
    static Node subscriber(const QByteArray &filter, int via)
    {
        return {
            "io.marrowfield.mqtt.subscribe",
            prop("!topic", "string", filter),
            {Node{"io.marrowfield.evaluate",
                  prop("!key", "string", "via") + prop("!expr", "string", QByteArray::number(via)),
                  {}},
             Node{"io.marrowfield.display", {}, {}}}};
    }

    QByteArray client(const QByteArray &name) const
    {
        return prop("clientid", "string",
                    name + '-' + QByteArray::number(m_port) + '-' + QByteArray::number(m_next_id));
    }

private slots:
    void initTestCase()
    {
        m_mosquitto = corv::test::find_broker_program(QStringLiteral("mosquitto"));
        if (m_mosquitto.isEmpty())
            QSKIP("mosquitto is not installed (Debian package mosquitto)");
        QVERIFY(QFile::exists(QStringLiteral(CORVANE_EXECUTABLE)));
        m_dir = std::make_unique<QTemporaryDir>();
        QVERIFY(m_dir->isValid());
        QVERIFY(write_broker_config("allow_anonymous true\n"));
        QVERIFY2(start_broker(), broker_log().constData());
        m_open_port = m_port;
        m_open_config = m_broker_config;
    }

    void init() { QTest::failOnWarning(QRegularExpression(QStringLiteral(".*"))); }

    void cleanup()
    {
        for (const auto &corvane : std::as_const(m_instances)) {
            if (corvane->process.state() != QProcess::NotRunning)
                QVERIFY2(stop_corvane(*corvane), corvane->err.constData());
            // The only warnings are the plugin's own.
            for (const QByteArray &line : corvane->err.split('\n')) {
                if (line.contains("WARNING"))
                    QVERIFY2(line.contains("WARNING io.marrowfield.mqtt: "), line.constData());
            }
            // The password never reaches a console or a log.
            QVERIFY(!corvane->err.contains("s3cret-pass"));
            QVERIFY(!corvane->err.contains("wrong-pass"));
            const QString logs = corvane->home + QStringLiteral("/data/Corvane/logs");
            for (const QString &name : QDir(logs).entryList(QDir::Files)) {
                const QByteArray text = corv::test::read_file(logs + u'/' + name);
                QVERIFY(!text.contains("s3cret-pass") && !text.contains("wrong-pass"));
            }
        }
        m_instances.clear();
        // Back to the open broker after a test that needed another.
        if (m_port != m_open_port || !m_broker) {
            stop_broker();
            m_port = m_open_port;
            m_broker_config = m_open_config;
            QVERIFY2(start_broker(), broker_log().constData());
        }
    }

    void cleanupTestCase() { stop_broker(); }

    void delivery_data()
    {
        QTest::addColumn<QByteArrayList>("filters");
        QTest::addColumn<QList<QJsonObject>>("posts");
        QTest::addColumn<QByteArrayList>("expected"); // "via topic" per event, in order
        const QJsonObject light{{"room", "kitchen"},
                                {"what", "light"},
                                {"level", "3"},
                                {"note", QStringLiteral("a \"quoted\" text: ünïcode, {braces}")}};
        const QJsonObject hall{{"room", "hall"}, {"what", "light"}};
        const QJsonObject door{{"room", "kitchen"}, {"what", "door"}};
        QTest::newRow("one topic")
            << QByteArrayList{"home/kitchen/light"} << QList<QJsonObject>{light, door}
            << QByteArrayList{"0 home/kitchen/light"};
        QTest::newRow("+ matches one level")
            << QByteArrayList{"home/+/light"} << QList<QJsonObject>{light, hall, door}
            << QByteArrayList{"0 home/kitchen/light", "0 home/hall/light"};
        QTest::newRow("# matches the rest")
            << QByteArrayList{"home/#"} << QList<QJsonObject>{light, hall, door}
            << QByteArrayList{"0 home/kitchen/light", "0 home/hall/light", "0 home/kitchen/door"};
        QTest::newRow("+ and # together")
            << QByteArrayList{"+/kitchen/#"} << QList<QJsonObject>{light, hall, door}
            << QByteArrayList{"0 home/kitchen/light", "0 home/kitchen/door"};
        // One message, two nodes: each gets it once.
        QTest::newRow("overlapping filters")
            << QByteArrayList{"home/kitchen/light", "home/#"} << QList<QJsonObject>{light, door}
            << QByteArrayList{"0 home/kitchen/light", "1 home/kitchen/light",
                              "1 home/kitchen/door"};
        QTest::newRow("other tree")
            << QByteArrayList{"office/#"} << QList<QJsonObject>{light} << QByteArrayList{};
    }

    // Every posted event arrives at every matching subscribe node, with all its keys.
    void delivery()
    {
        QFETCH(QByteArrayList, filters);
        QFETCH(QList<QJsonObject>, posts);
        QFETCH(QByteArrayList, expected);
        QList<Node> racks;
        for (qsizetype i = 0; i < filters.size(); ++i)
            racks.append(subscriber(filters[i], int(i)));
        auto sub = start_corvane(project(racks), client("sub"));
        auto pub = start_corvane(project({publisher("home/{room}/{what}")}), client("pub"));
        QVERIFY2(sub->err.contains("Connected to 127.0.0.1:"), sub->err.constData());
        QVERIFY2(pub->err.contains("Connected to 127.0.0.1:"), pub->err.constData());
        for (const QJsonObject &event : posts)
            QVERIFY(post(*pub, event));
        const auto arrived = [&] {
            QByteArrayList seen;
            for (const Event &event : std::as_const(sub->events))
                seen.append(value_of(event, "via") + ' ' + value_of(event, "topic"));
            return seen;
        };
        QVERIFY2(wait_for([&] { return arrived().size() >= expected.size(); }),
                 sub->out.constData());
        wait_for([] { return false; }, 300); // nothing more comes
        // One message reaches two racks in no fixed order.
        const auto sorted = [](QByteArrayList list) {
            std::sort(list.begin(), list.end());
            return list;
        };
        QCOMPARE(sorted(arrived()), sorted(expected));
        for (const Event &event : std::as_const(sub->events)) {
            const QJsonObject *sent = nullptr;
            for (const QJsonObject &candidate : posts) {
                if ("home/" + candidate.value("room").toString().toUtf8() + '/' +
                        candidate.value("what").toString().toUtf8() ==
                    value_of(event, "topic"))
                    sent = &candidate;
            }
            QVERIFY(sent);
            // topic, payload, the event's keys in their order, then the receiver's own
            QByteArrayList keys{"topic", "payload"};
            for (const QString &key : sent->keys())
                keys.append(key.toUtf8());
            QByteArrayList seen_keys = keys_of(event);
            QCOMPARE(seen_keys.mid(0, 2), keys.mid(0, 2));
            QCOMPARE(seen_keys.takeLast(), QByteArray("via"));
            std::sort(seen_keys.begin() + 2, seen_keys.end());
            QCOMPARE(seen_keys, keys);
            for (const QString &key : sent->keys())
                QCOMPARE(value_of(event, key.toUtf8()), sent->value(key).toString().toUtf8());
            QCOMPARE(QJsonDocument::fromJson(value_of(event, "payload")).object(), *sent);
        }
    }

    void foreign_payloads_data()
    {
        QTest::addColumn<QByteArray>("payload");
        QTest::addColumn<QByteArrayList>("members"); // "key=start of the value shown"
        const QByteArray mega(1 << 20, 'x');
        QTest::newRow("plain text") << QByteArray("lights on") << QByteArrayList{};
        QTest::newRow("JSON object")
            << QByteArray("{\"n\": 1.5, \"b\": true, \"z\": null, \"o\": {\"x\": [1, 2]}, \"s\": "
                          "\"t\\u00e9xt\"}")
            << QByteArrayList{"n=1.5", "b=true", "z=null", "o={\"x\": [1, 2]}", "s=t\xc3\xa9xt"};
        QTest::newRow("JSON array") << QByteArray("[1, 2]") << QByteArrayList{};
        QTest::newRow("malformed JSON") << QByteArray("{\"a\": 1, \"b\": ") << QByteArrayList{};
        QTest::newRow("deeply nested JSON")
            << "{\"a\":" + QByteArray(200000, '[') + "}" << QByteArrayList{};
        QTest::newRow("1 MB JSON") << "{\"big\":\"" + mega + "\",\"small\":\"yes\"}"
                                   << QByteArrayList{"big=" + mega.left(200), "small=yes"};
        QTest::newRow("1 MB text") << mega << QByteArrayList{};
        QTest::newRow("empty") << QByteArray() << QByteArrayList{};
    }

    // Messages from other MQTT clients: a payload that is no JSON object
    // arrives as "payload" only; big or broken ones hurt nothing.
    void foreign_payloads()
    {
        QFETCH(QByteArray, payload);
        QFETCH(QByteArrayList, members);
        const QString publish_tool = corv::test::find_broker_program(QStringLiteral("mosquitto_pub"));
        if (publish_tool.isEmpty())
            QSKIP("mosquitto_pub is not installed (Debian package mosquitto-clients)");
        auto sub = start_corvane(project({subscriber("sensors/#", 0)}), client("sub"));
        QVERIFY2(sub->err.contains("Connected to"), sub->err.constData());
        const QString file = m_dir->filePath(QStringLiteral("payload.bin"));
        corv::test::write_file(file, payload);
        for (const char *topic : {"sensors/odd", "sensors/next"}) {
            QProcess tool;
            QStringList arguments{"-h", "127.0.0.1", "-p", QString::number(m_port),
                                  "-q", "1",         "-t", QString::fromLatin1(topic)};
            arguments += qstrcmp(topic, "sensors/odd") == 0
                             ? QStringList{"-f", file}
                             : QStringList{"-m", "{\"after\":\"1\"}"};
            tool.start(publish_tool, arguments);
            QVERIFY(tool.waitForFinished(kTimeoutMs));
            QCOMPARE(tool.exitCode(), 0);
        }
        // The message after it arrives too: the receiver is still well.
        QVERIFY2(wait_for([&] { return sub->events.size() >= 2; }), sub->out.constData());
        const Event odd = sub->events.first();
        QCOMPARE(value_of(odd, "topic"), QByteArray("sensors/odd"));
        // The display shows at most 255 bytes of a line.
        QVERIFY(("payload: " + payload).startsWith("payload: " + value_of(odd, "payload")));
        QByteArrayList keys{"topic", "payload"};
        for (const QByteArray &member : members) {
            const QByteArray key = member.left(member.indexOf('='));
            keys.append(key);
            QVERIFY2(value_of(odd, key).startsWith(member.mid(key.size() + 1)),
                     member.left(60).constData());
        }
        keys.append("via");
        QCOMPARE(keys_of(odd), keys);
        QCOMPARE(value_of(sub->events.at(1), "after"), QByteArray("1"));
    }

    // The broker stops and comes back while 1,000 QoS 1 events are published:
    // all of them arrive, a few perhaps twice (QoS 1 is at least once).
    void broker_restart_loses_nothing()
    {
        constexpr int kEvents = 1000;
        auto sub = start_corvane(project({subscriber("count/#", 0)}), client("sub"));
        auto pub = start_corvane(project({publisher("count/{seq}")}), client("pub"));
        QVERIFY2(pub->err.contains("Connected to"), pub->err.constData());
        QElapsedTimer outage;
        for (int i = 0; i < kEvents; ++i) {
            QVERIFY(post(*pub, {{"seq", QString::number(i)}}));
            if (i == 300) {
                stop_broker();
                outage.start();
            }
            if (i > 300 && !m_broker && outage.elapsed() > 1000)
                QVERIFY2(start_broker(), broker_log().constData());
            wait_for([] { return true; }, 0);
            QThread::usleep(1500);
        }
        if (!m_broker) {
            QThread::msleep(200);
            QVERIFY2(start_broker(), broker_log().constData());
        }
        QVERIFY2(wait_for(
                     [&] {
                         return sub->events.size() >= kEvents &&
                                pub->err.count("Connected to") >= 2;
                     },
                     30000),
                 qPrintable(QStringLiteral("%1 events arrived").arg(sub->events.size())));
        wait_for([] { return false; }, 300);
        QSet<QByteArray> unique;
        for (const Event &event : std::as_const(sub->events))
            unique.insert(value_of(event, "seq"));
        const qsizetype duplicates = sub->events.size() - unique.size();
        qInfo("broker restart: %d events posted, %lld arrived, %lld unique, %lld duplicates",
              kEvents, qint64(sub->events.size()), qint64(unique.size()), qint64(duplicates));
        QCOMPARE(unique.size(), qsizetype(kEvents));
        QVERIFY(duplicates <= 100);
        // Each change of state is logged once: lost, maybe unreachable, back.
        QCOMPARE(pub->err.count("Lost the connection to"), qsizetype(1));
        QVERIFY(pub->err.count("Can't connect to") <= 1);
        QCOMPARE(pub->err.count("Connected to"), qsizetype(2));
    }

    // While the broker is away, QoS 1 messages wait, at most 10,000: the
    // oldest go, with one warning, and the rest arrive once it is back.
    // Those still waiting at the end are dropped.
    void queue_is_bounded()
    {
        const bool repeat = QFile::exists(
            QFileInfo(QStringLiteral(CORVANE_EXECUTABLE)).absolutePath() +
            QStringLiteral("/plugins/io.marrowfield.example/io.marrowfield.example.so"));
        if (!repeat)
            QSKIP("needs the example plugin's Repeat node");
        auto sub = start_corvane(project({subscriber("queue/#", 0)}), client("sub"));
        QVERIFY2(sub->err.contains("Connected to"), sub->err.constData());
        stop_broker(); // the subscriber's session is kept on disk
        auto pub = start_corvane(project({publisher("queue/{batch}/{repeat}", 1, 1000)}),
                                 client("pub"), "Can't connect to");
        QVERIFY2(pub->err.contains("Can't connect to 127.0.0.1:" + QByteArray::number(m_port) + ": Connection refused"),
                 pub->err.constData());
        for (int batch = 0; batch < 11; ++batch)
            QVERIFY(post(*pub, {{"batch", QString::number(batch)}}));
        QVERIFY2(wait_for([&] { return pub->err.contains("messages are waiting for the broker"); }),
                 pub->err.constData());
        QVERIFY2(start_broker(), broker_log().constData());
        QVERIFY2(wait_for([&] { return sub->events.size() >= 10000; }, 30000),
                 qPrintable(QStringLiteral("%1 arrived").arg(sub->events.size())));
        wait_for([] { return false; }, 300);
        QSet<QByteArray> topics;
        for (const Event &event : std::as_const(sub->events))
            topics.insert(value_of(event, "topic"));
        QCOMPARE(topics.size(), qsizetype(10000));
        QVERIFY(!topics.contains("queue/0/1000")); // the first batch went
        QVERIFY(topics.contains("queue/1/1") && topics.contains("queue/10/1000"));
        QCOMPARE(value_of(sub->events.first(), "topic"), QByteArray("queue/1/1")); // in order
        QCOMPARE(pub->err.count(
                     "More than 10000 messages are waiting for the broker; dropping the oldest"),
                 qsizetype(1));

        // What still waits when the program ends is let go, with a warning
        // (and, under the leak check, nothing of it left behind).
        stop_broker();
        QVERIFY2(wait_for([&] { return pub->err.contains("Lost the connection to"); }), pub->err.constData());
        for (int batch = 0; batch < 11; ++batch)
            QVERIFY(post(*pub, {{"batch", QString::number(batch)}}));
        QVERIFY2(wait_for([&] { return pub->err.count("messages are waiting for the broker") == 2; }),
                 pub->err.constData());
        QVERIFY2(stop_corvane(*pub), pub->err.constData());
        QVERIFY2(pub->err.contains("10000 messages for the broker were not sent before shutting down"),
                 pub->err.constData());
    }

    // A broker that takes the connection and never answers it is given up
    // on after the keep-alive: unreachable, not connecting for ever.
    void silent_broker_is_unreachable()
    {
        stop_broker();
        QTcpServer silent;
        QVERIFY(silent.listen(QHostAddress::LocalHost, m_port));
        auto pub = start_corvane(project({publisher("x")}), client("pub") + prop("keepalive", "int", "5"),
                                 "Can't connect to");
        QVERIFY2(pub->err.contains("Can't connect to 127.0.0.1:" + QByteArray::number(m_port) +
                                   ": the broker did not answer in time"),
                 pub->err.constData());
    }

    // A retained message reaches a subscriber that comes later, once: not
    // again when the connection comes back after the broker restarted.
    void retained_message_once()
    {
        auto pub = start_corvane(project({publisher("status/door", 1, 0, true)}), client("pub"));
        QVERIFY(post(*pub, {{"door", "open"}}));
        QTest::qWait(200); // the broker has it before anyone subscribes
        auto sub = start_corvane(project({subscriber("status/#", 0)}), client("sub"));
        QVERIFY2(wait_for([&] { return !sub->events.isEmpty(); }), sub->err.constData());
        QCOMPARE(value_of(sub->events.first(), "door"), QByteArray("open"));
        stop_broker();
        QVERIFY2(start_broker(), broker_log().constData());
        QVERIFY2(wait_for([&] { return sub->err.count("Connected to") == 2; }),
                 sub->err.constData());
        wait_for([] { return false; }, 500);
        QCOMPARE(sub->events.size(), qsizetype(1));
        // Clear it for other tests: an empty retained message deletes it.
        const QString publish_tool = corv::test::find_broker_program(QStringLiteral("mosquitto_pub"));
        if (!publish_tool.isEmpty())
            QProcess::execute(publish_tool,
                              {"-p", QString::number(m_port), "-t", "status/door", "-r", "-n"});
    }

    void authentication_data()
    {
        QTest::addColumn<QByteArray>("password");
        QTest::addColumn<bool>("accepted");
        QTest::newRow("right password") << QByteArray("s3cret-pass") << true;
        QTest::newRow("wrong password") << QByteArray("wrong-pass") << false;
    }

    // A broker that wants a password: the wrong one is reported once, however
    // often the plugin tries again; nothing crashes.
    void authentication()
    {
        QFETCH(QByteArray, password);
        QFETCH(bool, accepted);
        const QString passwd_tool = corv::test::find_broker_program(QStringLiteral("mosquitto_passwd"));
        if (passwd_tool.isEmpty())
            QSKIP("mosquitto_passwd is not installed");
        stop_broker();
        const QString passwords = m_dir->filePath(QStringLiteral("passwords"));
        QFile::remove(passwords);
        QCOMPARE(QProcess::execute(passwd_tool, {"-c", "-b", passwords, "corvane", "s3cret-pass"}),
                 0);
        QVERIFY(write_broker_config("allow_anonymous false\npassword_file " + passwords.toUtf8() +
                                    "\n"));
        QVERIFY2(start_broker(), broker_log().constData());
        auto run = start_corvane(project({subscriber("any/#", 0)}),
                                 client("auth") + prop("user", "string", "corvane") +
                                     prop("password", "string", password),
                                 accepted ? "Connected to" : "refused the connection");
        if (accepted) {
            QVERIFY2(run->err.contains("Connected to"), run->err.constData());
        } else {
            // Two refusals at the broker: the plugin tried again after 1 s.
            QVERIFY2(
                run->err.contains("refused the connection: Connection Refused: not authorised"),
                run->err.constData());
            QVERIFY2(wait_for([&] { return broker_log().count("not authorised") >= 2; }, 5000),
                     broker_log().constData());
            QCOMPARE(run->err.count("refused the connection"), qsizetype(1));
        }
        // The log file has what the console showed.
        QVERIFY2(stop_corvane(*run), run->err.constData());
        const QString logs = run->home + QStringLiteral("/data/Corvane/logs");
        const QStringList files = QDir(logs).entryList(QDir::Files);
        QCOMPARE(files.size(), 1);
        QCOMPARE(corv::test::read_file(logs + u'/' + files.first()).count(accepted ? "] io.marrowfield.mqtt: Connected to"
                                              : "] WARNING io.marrowfield.mqtt: The broker at"),
                 qsizetype(1));
    }

    // The preferences hold a password: the plugin keeps the file the user's own.
    void preferences_file_is_private()
    {
        auto run = start_corvane(project({subscriber("any/#", 0)}), client("private"));
        const QString file =
            run->home + QStringLiteral("/data/Corvane/plugins/io.marrowfield.mqtt/prefs.xml");
        QCOMPARE(QFile::permissions(file) &
                     (QFile::ReadGroup | QFile::WriteGroup | QFile::ReadOther | QFile::WriteOther),
                 QFile::Permissions());
    }

    // Figures: events per second through the broker between two processes,
    // and the time from a post at one to the display at the other.
    void figures()
    {
        auto sub = start_corvane(project({subscriber("bench/#", 0)}), client("sub"));
        auto pub = start_corvane(project({publisher("bench/{seq}")}), client("pub"));
        QVERIFY2(pub->err.contains("Connected to"), pub->err.constData());

        // Latency: one event at a time.
        QList<double> latencies;
        QElapsedTimer clock;
        for (int i = 0; i < 200; ++i) {
            const qsizetype before = sub->events.size();
            clock.start();
            QVERIFY(post(*pub, {{"seq", QString::number(i)}}));
            // Only the receiver's output matters here: block on it alone.
            while (sub->events.size() == before && clock.elapsed() < kTimeoutMs) {
                sub->process.waitForReadyRead(50);
                sub->read();
            }
            QVERIFY(sub->events.size() > before);
            latencies.append(double(clock.nsecsElapsed()) / 1e6);
        }

        // Throughput: bursts of 1,000 events from one post through the
        // example plugin's Repeat node, or else one post per event.
        const bool repeat = QFile::exists(
            QFileInfo(QStringLiteral(CORVANE_EXECUTABLE)).absolutePath() +
            QStringLiteral("/plugins/io.marrowfield.example/io.marrowfield.example.so"));
        auto burst = repeat ? start_corvane(project({publisher("bench/{seq}/{repeat}", 1, 1000)}),
                                            client("burst"))
                            : pub;
        const qsizetype start = sub->events.size();
        const int total = repeat ? 5000 : 2000;
        clock.start();
        for (int i = 0; i < (repeat ? 5 : total); ++i)
            QVERIFY(post(*burst, {{"seq", QString::number(i)}}));
        QVERIFY(wait_for([&] { return sub->events.size() >= start + total; }, 60000));
        const double seconds = double(clock.nsecsElapsed()) / 1e9;
        qInfo("MQTT throughput: %d QoS 1 events in %.3f s = %.0f events/s (%s)", total, seconds,
              total / seconds, repeat ? "bursts of 1,000 from one post" : "one post each");
        QList<double> posts;
        for (int i = 0; i < 50; ++i) {
            clock.start();
            QVERIFY(post(*pub, {{"seq", QString::number(i)}}));
            posts.append(double(clock.nsecsElapsed()) / 1e6);
        }
        std::sort(latencies.begin(), latencies.end());
        qInfo("MQTT latency, post to display, %lld events: p50 %.2f ms, p99 %.2f ms, max %.2f ms",
              qint64(latencies.size()), latencies.at(latencies.size() / 2),
              latencies.at(latencies.size() * 99 / 100), latencies.last());
        std::sort(posts.begin(), posts.end());
        qInfo("(the post over the control socket alone, included above: p50 %.2f ms)", posts.at(25));
    }
};

QTEST_GUILESS_MAIN(tst_Mqtt)
#include "tst_mqtt.moc"
