#pragma once

#include "update/manifest.h"

#include <QByteArray>
#include <QNetworkReply>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QUrl>

#include <functional>

class QIODevice;
class QNetworkAccessManager;
class QTimer;

namespace corv::update {

// How every request of the updater is made.
struct FetchOptions {
    // The "User-Agent" header, built by the application at start-up.
    QByteArray user_agent;
    // A transfer that receives nothing for this long fails.
    int stall_timeout_ms = 30000;
    // Replies larger than this fail (manifests, changelogs, icons); a
    // verified download is bounded by its declared size instead. A reply
    // that announces more fails before its body is read.
    qint64 max_size = kMaxManifestSize;
};

// Only https addresses are fetched, or plain http to this computer
// (127.0.0.0/8, ::1, localhost), which tests and local mirrors use.
bool is_allowed_url(const QUrl &url);

// Checks bytes against a digest and size; empty when they match, otherwise
// the reason, such as "size 12 differs from the expected 13".
QString verify_data(QByteArrayView data, const QByteArray &sha256_hex, qint64 size);

// What a fetch ends with: the body (unless written to a device), or an error.
struct FetchResult {
    QByteArray data;
    QString error;
    bool ok() const { return error.isEmpty(); }
};

// One GET, with the user agent, the stall timeout, at most 8 redirects, each
// to an allowed address, and a size limit. When an expected digest is given the
// body is checked against it (and refused as soon as it grows past the
// expected size). `done` runs exactly once, on the thread of `manager`,
// unless abort() or the deletion of the Fetch comes first.
class Fetch : public QObject {
    Q_OBJECT
public:
    using Done = std::function<void(const FetchResult &)>;

    Fetch(QNetworkAccessManager *manager, const FetchOptions &options, QObject *parent = nullptr);
    ~Fetch() override;

    // With a sink the body is written there and not kept in memory.
    void start(const QUrl &url, Done done, const QByteArray &sha256_hex = {}, qint64 size = -1,
               QIODevice *sink = nullptr);
    void abort();
    bool running() const { return m_done != nullptr; }

private:
    void finish(const QString &error);
    void request(const QUrl &url);
    void read_available();
    qint64 size_limit() const;
    QString over_limit() const;

    QNetworkAccessManager *m_manager;
    FetchOptions m_options;
    QPointer<QNetworkReply> m_reply;
    QTimer *m_stall;
    Done m_done;
    QByteArray m_sha256;
    qint64 m_size = -1;
    QIODevice *m_sink = nullptr;
    QByteArray m_data;
    qint64 m_received = 0;
    int m_redirects = 0;
    static constexpr int kMaxRedirects = 8;
    class Hasher;
    Hasher *m_hasher = nullptr;
};

// Runs one fetch to completion in a local event loop (for the update host,
// which has nothing else to do meanwhile).
FetchResult fetch_blocking(QNetworkAccessManager *manager, const FetchOptions &options,
                           const QUrl &url, const QByteArray &sha256_hex = {}, qint64 size = -1,
                           QIODevice *sink = nullptr);

} // namespace corv::update
