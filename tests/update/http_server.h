#pragma once

// A small HTTP/1.1 server on 127.0.0.1 for the updater tests: serves fixed
// bodies by path, answers unknown paths with 404, redirects, and can stall
// (send half a body, then nothing). Records the user agent of every request.
#include <QHash>
#include <QTcpServer>
#include <QTcpSocket>
#include <QUrl>

class HttpServer : public QTcpServer {
public:
    struct Route {
        QByteArray body;
        int status = 200;
        bool stall = false;
        QByteArray location; // a redirect's target
    };

    HttpServer()
    {
        listen(QHostAddress::LocalHost);
        connect(this, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket *socket = nextPendingConnection()) {
                socket->setParent(this);
                connect(socket, &QTcpSocket::readyRead, socket, [this, socket] { read(socket); });
            }
        });
    }

    QUrl url(const QString &path) const
    {
        return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(serverPort()).arg(path));
    }
    void serve(const QString &path, const QByteArray &body, int status = 200)
    {
        routes[path] = {body, status, false, {}};
    }
    void stall(const QString &path, const QByteArray &body) { routes[path] = {body, 200, true, {}}; }
    void redirect(const QString &path, const QString &target)
    {
        routes[path] = {{}, 302, false, target.toUtf8()};
    }

    QHash<QString, Route> routes;
    QList<QByteArray> user_agents;
    QStringList requested;

private:
    void read(QTcpSocket *socket)
    {
        QByteArray &buffer = m_buffers[socket];
        buffer += socket->readAll();
        const qsizetype end = buffer.indexOf("\r\n\r\n");
        if (end < 0)
            return;
        const QList<QByteArray> lines = buffer.left(end).split('\n');
        buffer.clear();
        const QString path = QString::fromLatin1(lines.value(0).split(' ').value(1));
        for (const QByteArray &line : lines) {
            if (line.toLower().startsWith("user-agent:"))
                user_agents.append(line.mid(11).trimmed());
        }
        requested.append(path);
        const Route route = routes.value(path, Route{"not found", 404, false, {}});
        QByteArray reply = "HTTP/1.1 " + QByteArray::number(route.status) +
                           (route.status == 200   ? " OK"
                            : route.status == 302 ? " Found\r\nLocation: " + route.location
                                                  : " Not Found") +
                           "\r\nContent-Type: application/octet-stream\r\nContent-Length: " +
                           QByteArray::number(route.body.size()) + "\r\nConnection: close\r\n\r\n";
        if (route.stall) {
            socket->write(reply + route.body.left(route.body.size() / 2));
            return;
        }
        socket->write(reply + route.body);
        socket->disconnectFromHost();
    }

    QHash<QTcpSocket *, QByteArray> m_buffers;
};
