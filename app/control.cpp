#include "app/control.h"

#include "app/control_platform.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QLocalServer>
#include <QLocalSocket>
#include <QLockFile>
#include <QLoggingCategory>
#include <QTimer>

namespace corv::control {

Q_LOGGING_CATEGORY(lc_control, "corv.app.control")

namespace {

// Whether an instance accepts connections at name.
bool answers(const QString &name)
{
    QLocalSocket probe;
    probe.connectToServer(name);
    const bool connected = probe.waitForConnected(1000);
    probe.abort();
    return connected;
}

QByteArray line_of(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
}

QJsonObject refusal(const QString &error)
{
    return {{QStringLiteral("ok"), false}, {QStringLiteral("error"), error}};
}

} // namespace

Request read_request(const QByteArray &line)
{
    Request request;
    if (line.size() > kMaxMessageBytes) {
        request.error = QStringLiteral("message too long");
        return request;
    }
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(line, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject()) {
        request.error = QStringLiteral("not a JSON object");
        return request;
    }
    const QJsonObject message = document.object();
    if (message.size() == 1 && message.value(QLatin1StringView("open")).isString()) {
        request.kind = Request::Open;
        request.path = message.value(QLatin1StringView("open")).toString();
        return request;
    }
    const QJsonValue mailbox = message.value(QLatin1StringView("post"));
    const QJsonValue event = message.value(QLatin1StringView("event"));
    if (!mailbox.isString() || !(event.isObject() || event.isUndefined()) ||
        message.size() != (event.isUndefined() ? 1 : 2)) {
        request.error = QStringLiteral("expected {\"post\": MAILBOX, \"event\": {KEY: VALUE}} or {\"open\": PATH}");
        return request;
    }
    const QJsonObject values = event.toObject();
    for (auto it = values.begin(); it != values.end(); ++it) {
        if (!it.value().isString()) {
            request.error = QStringLiteral("the value of \"%1\" is not a string").arg(it.key());
            request.event.clear();
            return request;
        }
        request.event.append({it.key().toUtf8(), it.value().toString().toUtf8()});
    }
    request.kind = Request::Post;
    request.mailbox = mailbox.toString().toUtf8();
    return request;
}

struct Server::Impl {
    Server *q = nullptr;
    QLocalServer server;
    PostHandler post;
    bool accepts_open = false;

    QJsonObject answer(const QByteArray &line)
    {
        const Request request = read_request(line);
        switch (request.kind) {
        case Request::Invalid:
            return refusal(request.error);
        case Request::Open: {
            if (!accepts_open)
                return refusal(QStringLiteral("this instance has no window to open a project in"));
            // After the answer: the window may ask about unsaved changes
            // first, and the command line need not wait for that.
            const QString path = request.path;
            QMetaObject::invokeMethod(q, [this, path] { Q_EMIT q->open_requested(path); }, Qt::QueuedConnection);
            return {{QStringLiteral("ok"), true}};
        }
        case Request::Post:
            break;
        }
        const int receivers = post ? post(request.mailbox, request.event) : 0;
        return {{QStringLiteral("ok"), true}, {QStringLiteral("receivers"), receivers}};
    }

    void serve(QLocalSocket *socket)
    {
        auto *timer = new QTimer(socket);
        timer->setSingleShot(true);
        QObject::connect(timer, &QTimer::timeout, socket, [socket] {
            qCWarning(lc_control, "Dropped a control connection that sent no whole message");
            socket->abort();
        });
        timer->start(kReadTimeoutMs);
        QObject::connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        QObject::connect(socket, &QLocalSocket::readyRead, socket, [this, socket, timer] {
            if (socket->property("answered").toBool()) {
                socket->readAll();
                return;
            }
            const qsizetype end = socket->peek(kMaxMessageBytes + 1).indexOf('\n');
            if (end < 0) {
                if (socket->bytesAvailable() > kMaxMessageBytes) {
                    qCWarning(lc_control, "Dropped a control message of more than %lld bytes",
                              static_cast<long long>(kMaxMessageBytes));
                    finish(socket, timer, refusal(QStringLiteral("message too long")));
                }
                return;
            }
            const QByteArray line = socket->read(end + 1).trimmed();
            const QJsonObject reply = answer(line);
            if (!reply.value(QLatin1StringView("ok")).toBool())
                qCWarning(lc_control, "Refused a control message: %s",
                          qUtf8Printable(reply.value(QLatin1StringView("error")).toString()));
            finish(socket, timer, reply);
        });
    }

    static void finish(QLocalSocket *socket, QTimer *timer, const QJsonObject &reply)
    {
        timer->stop();
        socket->setProperty("answered", true);
        socket->write(line_of(reply));
        socket->flush();
        socket->disconnectFromServer();
    }
};

Server::Server(QObject *parent) : QObject(parent), d(std::make_unique<Impl>())
{
    d->q = this;
    d->server.setSocketOptions(platform::server_options());
    d->server.setMaxPendingConnections(16);
    connect(&d->server, &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket *socket = d->server.nextPendingConnection())
            d->serve(socket);
    });
}

Server::~Server() = default;

bool Server::listen()
{
    const QStringList names = platform::socket_names();
    if (names.isEmpty()) {
        qWarning("No private place for the control socket; this Corvane takes no commands");
        return false;
    }
    // Asked and taken under one lock: of two instances starting at once, one
    // listens and the other finds it. Without the lock (a stuck holder) the
    // question is still asked first.
    QLockFile lock(platform::listen_lock_file());
    if (!lock.tryLock(5000))
        qCDebug(lc_control, "Listening without the lock %s", qUtf8Printable(lock.fileName()));
    for (const QString &name : names) {
        if (answers(name)) {
            qInfo("Another Corvane is listening on %s; this one takes no commands", qUtf8Printable(name));
            return false;
        }
    }
    // Nobody answers: a socket file there was left by an instance that is gone.
    const QString &name = names.first();
    QLocalServer::removeServer(name);
    if (!d->server.listen(name)) {
        qWarning("Can't listen on %s: %s", qUtf8Printable(name), qUtf8Printable(d->server.errorString()));
        return false;
    }
    qCDebug(lc_control, "Listening for commands on %s", qUtf8Printable(d->server.fullServerName()));
    return true;
}

bool Server::is_listening() const
{
    return d->server.isListening();
}

QString Server::server_name() const
{
    return d->server.fullServerName();
}

void Server::set_post_handler(PostHandler handler)
{
    d->post = std::move(handler);
}

void Server::set_accepts_open(bool accepts)
{
    d->accepts_open = accepts;
}

Reply send(const QJsonObject &message, int timeout_ms)
{
    Reply reply;
    QLocalSocket socket;
    bool connected = false;
    for (const QString &name : platform::socket_names()) {
        socket.connectToServer(name);
        connected = socket.waitForConnected(timeout_ms);
        if (connected)
            break;
        socket.abort();
    }
    if (!connected) {
        reply.status = Reply::NoInstance;
        return reply;
    }
    if (!platform::peer_is_same_user(socket)) {
        reply.status = Reply::Failed;
        reply.error = QStringLiteral("the program listening on %1 runs as another user").arg(socket.fullServerName());
        return reply;
    }
    socket.write(line_of(message));
    socket.flush();
    QByteArray received;
    QElapsedTimer clock;
    clock.start();
    while (!received.contains('\n') && clock.elapsed() < timeout_ms) {
        if (!socket.waitForReadyRead(int(std::max<qint64>(1, timeout_ms - clock.elapsed()))) &&
            socket.state() != QLocalSocket::ConnectedState && socket.bytesAvailable() == 0)
            break;
        received += socket.readAll();
    }
    received += socket.readAll();
    const QJsonDocument document = QJsonDocument::fromJson(received.trimmed());
    if (!document.isObject()) {
        reply.status = Reply::Failed;
        reply.error = QStringLiteral("no answer from the running Corvane");
        return reply;
    }
    reply.status = Reply::Answered;
    reply.answer = document.object();
    return reply;
}

} // namespace corv::control
