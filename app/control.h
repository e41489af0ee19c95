#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QPair>
#include <QObject>
#include <QString>

#include <functional>
#include <memory>

// Control from the command line: each user's first running Corvane listens
// on a local socket of its own, and later command lines talk to it. One
// message per connection, a JSON object on one line of at most 64 KiB,
// answered by one JSON object on one line:
//   {"post": MAILBOX, "event": {KEY: VALUE, ...}}   deliver to a mailbox
//   {"open": PATH}                                   open a project (window)
//   answers {"ok": true} or {"ok": false, "error": TEXT}
namespace corv::control {

// The largest message a server reads.
inline constexpr qsizetype kMaxMessageBytes = 64 * 1024;
// A client that has not sent a whole message by then is dropped.
inline constexpr int kReadTimeoutMs = 2000;

// One message as the server reads it. Invalid ones carry the reason the
// answer gives.
struct Request {
    enum Kind { Invalid, Post, Open };
    Kind kind = Invalid;
    QString error;
    QByteArray mailbox;
    QList<QPair<QByteArray, QByteArray>> event; // keys and values, keys sorted
    QString path;
};

// Reads one message (a line without its end); never fails on any bytes.
Request read_request(const QByteArray &line);

// The server of a running instance.
class Server : public QObject
{
    Q_OBJECT
public:
    // Delivers an event to every receive node of a mailbox; returns how many
    // there were.
    using PostHandler =
        std::function<int(const QByteArray &mailbox, const QList<QPair<QByteArray, QByteArray>> &event)>;

    explicit Server(QObject *parent = nullptr);
    ~Server() override;

    // Listens on the first of platform::socket_names() unless an instance
    // answers on any of them (then logs "Another Corvane is listening" and
    // stays off); a socket left by an instance that is gone is taken over.
    bool listen();
    bool is_listening() const;
    QString server_name() const;

    void set_post_handler(PostHandler handler);
    // Whether "open" is accepted (window instances only).
    void set_accepts_open(bool accepts);

Q_SIGNALS:
    // A later command line asked to open this project.
    void open_requested(const QString &path);

private:
    struct Impl;
    std::unique_ptr<Impl> d;
};

// The client side, blocking. The outcome of one request.
struct Reply {
    enum Status { Answered, NoInstance, Failed };
    Status status = NoInstance;
    QJsonObject answer; // when Answered
    QString error;      // when Failed
};

// Tries each of platform::socket_names() and talks to the first instance that
// answers; an instance of another user is refused.
Reply send(const QJsonObject &message, int timeout_ms = 5000);

} // namespace corv::control
