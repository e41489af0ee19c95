// A mosquitto broker on 127.0.0.1 for the MQTT tests: started from a config
// file, ready once its port accepts a connection, stopped with SIGTERM.
#pragma once

#include <QElapsedTimer>
#include <QHostAddress>
#include <QProcess>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTcpSocket>
#include <QThread>

#include <memory>

#include <signal.h>
#include <sys/types.h>

namespace corv::test {

// The broker and its tools (mosquitto_pub, mosquitto_passwd), also where
// PATH leaves out the sbin folders; empty when the package is missing.
inline QString find_broker_program(const QString &name)
{
    return QStandardPaths::findExecutable(
        name, {QStringLiteral("/usr/sbin"), QStringLiteral("/usr/local/sbin"),
               QStringLiteral("/usr/bin"), QStringLiteral("/usr/local/bin")});
}

inline quint16 free_local_port()
{
    QTcpServer server;
    return server.listen(QHostAddress::LocalHost, 0) ? server.serverPort() : 0;
}

// Starts `mosquitto -c config` and waits until `port` takes connections;
// null when it exits or does not listen in time.
inline std::unique_ptr<QProcess> start_local_broker(const QString &mosquitto, const QString &config,
                                                    quint16 port, QProcess::ProcessChannelMode mode,
                                                    int timeout_ms)
{
    auto broker = std::make_unique<QProcess>();
    broker->setProcessChannelMode(mode);
    broker->start(mosquitto, {QStringLiteral("-c"), config});
    if (!broker->waitForStarted(timeout_ms))
        return nullptr;
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < timeout_ms && broker->state() == QProcess::Running) {
        QTcpSocket probe;
        probe.connectToHost(QHostAddress::LocalHost, port);
        if (probe.waitForConnected(200))
            return broker;
        QThread::msleep(20);
    }
    return nullptr;
}

// SIGTERM rather than QProcess::terminate's platform choice: the broker
// writes its persistent sessions on the way out.
inline void stop_local_broker(std::unique_ptr<QProcess> &broker, int timeout_ms)
{
    if (!broker)
        return;
    ::kill(pid_t(broker->processId()), SIGTERM);
    broker->waitForFinished(timeout_ms);
    broker.reset();
}

} // namespace corv::test
