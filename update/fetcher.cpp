#include "update/fetcher.h"

#include <QCryptographicHash>
#include <QEventLoop>
#include <QHostAddress>
#include <QIODevice>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QTimer>

namespace corv::update {

bool is_allowed_url(const QUrl &url)
{
    if (!url.isValid() || url.host().isEmpty())
        return false;
    const QString scheme = url.scheme().toLower();
    if (scheme == QLatin1StringView("https"))
        return true;
    if (scheme != QLatin1StringView("http"))
        return false;
    const QString host = url.host().toLower();
    if (host == QLatin1StringView("localhost"))
        return true;
    const QHostAddress address(host);
    return !address.isNull() && address.isLoopback();
}

QString verify_data(QByteArrayView data, const QByteArray &sha256_hex, qint64 size)
{
    if (size >= 0 && data.size() != size)
        return QStringLiteral("size %1 differs from the expected %2").arg(data.size()).arg(size);
    const QByteArray digest = QCryptographicHash::hash(data, QCryptographicHash::Sha256).toHex();
    if (digest != sha256_hex.toLower())
        return QStringLiteral("sha256 %1 differs from the expected %2")
            .arg(QString::fromLatin1(digest), QString::fromLatin1(sha256_hex));
    return {};
}

class Fetch::Hasher : public QCryptographicHash {
public:
    Hasher() : QCryptographicHash(QCryptographicHash::Sha256) {}
};

Fetch::Fetch(QNetworkAccessManager *manager, const FetchOptions &options, QObject *parent)
    : QObject(parent), m_manager(manager), m_options(options), m_stall(new QTimer(this))
{
    m_stall->setSingleShot(true);
    connect(m_stall, &QTimer::timeout, this, [this] {
        finish(QStringLiteral("no data received for %1 ms").arg(m_options.stall_timeout_ms));
    });
}

Fetch::~Fetch()
{
    m_done = nullptr;
    abort();
    delete m_hasher;
}

void Fetch::start(const QUrl &url, Done done, const QByteArray &sha256_hex, qint64 size,
                  QIODevice *sink)
{
    abort();
    m_done = std::move(done);
    m_sha256 = sha256_hex.toLower();
    m_size = size;
    m_sink = sink;
    m_data.clear();
    m_received = 0;
    delete m_hasher;
    m_hasher = m_sha256.isEmpty() ? nullptr : new Hasher;

    if (!is_allowed_url(url)) {
        // Reported on the next turn, like any other failure.
        QPointer<Fetch> self(this);
        QTimer::singleShot(0, this, [self, url] {
            if (self)
                self->finish(QStringLiteral("refused to fetch %1: only https addresses are allowed")
                                 .arg(url.toDisplayString()));
        });
        return;
    }

    m_redirects = 0;
    request(url);
}

namespace {
// A redirect's target, or an empty address for any other reply.
QUrl redirect_target(QNetworkReply *reply)
{
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    const QUrl location = reply->attribute(QNetworkRequest::RedirectionTargetAttribute).toUrl();
    if (status < 300 || status > 399 || location.isEmpty())
        return {};
    return reply->url().resolved(location);
}
} // namespace

void Fetch::request(const QUrl &url)
{
    // Redirects are followed here, one request at a time, rather than by Qt:
    // Qt 6.4's user-verified redirects end the second redirect of a chain
    // with an empty body that reads as a success.
    QNetworkRequest request(url);
    request.setHeader(QNetworkRequest::UserAgentHeader, m_options.user_agent);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::ManualRedirectPolicy);
    m_reply = m_manager->get(request);
    QNetworkReply *reply = m_reply;
    connect(reply, &QNetworkReply::metaDataChanged, this, [this, reply] {
        // A reply that announces more than may be received fails before
        // anything of it is read.
        const QVariant length = reply->header(QNetworkRequest::ContentLengthHeader);
        if (m_reply == reply && length.isValid() && length.toLongLong() > size_limit() &&
            redirect_target(reply).isEmpty())
            finish(over_limit());
    });
    connect(reply, &QNetworkReply::readyRead, this, [this, reply] {
        m_stall->start(m_options.stall_timeout_ms);
        if (redirect_target(reply).isEmpty())
            read_available();
        else
            reply->skip(reply->bytesAvailable()); // a redirect's own body
    });
    connect(reply, &QNetworkReply::finished, this, [this, reply] {
        if (reply != m_reply)
            return;
        const QUrl target = redirect_target(reply);
        if (!target.isEmpty() && reply->error() == QNetworkReply::NoError) {
            if (!is_allowed_url(target))
                return finish(QStringLiteral("refused redirect to %1").arg(target.toDisplayString()));
            if (++m_redirects > kMaxRedirects)
                return finish(QStringLiteral("more than %1 redirects").arg(kMaxRedirects));
            m_reply = nullptr;
            reply->disconnect(this);
            reply->deleteLater();
            // The next request starts on the next turn of the loop, outside
            // this reply's signal.
            QMetaObject::invokeMethod(
                this,
                [this, target] {
                    if (m_done && !m_reply)
                        this->request(target);
                },
                Qt::QueuedConnection);
            return;
        }
        read_available();
        if (!m_reply)
            return;
        if (reply->error() != QNetworkReply::NoError) {
            finish(reply->errorString());
            return;
        }
        if (m_hasher) {
            if (m_size >= 0 && m_received != m_size) {
                finish(QStringLiteral("size %1 differs from the expected %2")
                           .arg(m_received)
                           .arg(m_size));
                return;
            }
            const QByteArray digest = m_hasher->result().toHex();
            if (digest != m_sha256) {
                finish(QStringLiteral("sha256 %1 differs from the expected %2")
                           .arg(QString::fromLatin1(digest), QString::fromLatin1(m_sha256)));
                return;
            }
        }
        finish({});
    });
    m_stall->start(m_options.stall_timeout_ms);
}

void Fetch::read_available()
{
    if (!m_reply)
        return;
    // Never more than one byte past the limit is read.
    const QByteArray chunk = m_reply->read(size_limit() - m_received + 1);
    m_received += chunk.size();
    if (m_received > size_limit()) {
        finish(over_limit());
        return;
    }
    if (m_hasher)
        m_hasher->addData(chunk);
    if (m_sink) {
        if (m_sink->write(chunk) != chunk.size())
            finish(QStringLiteral("could not write: %1").arg(m_sink->errorString()));
    } else {
        m_data += chunk;
    }
}

qint64 Fetch::size_limit() const
{
    return m_hasher && m_size >= 0 ? m_size : m_options.max_size;
}

QString Fetch::over_limit() const
{
    return m_hasher && m_size >= 0
               ? QStringLiteral("size exceeds the expected %1 bytes").arg(m_size)
               : QStringLiteral("reply exceeds %1 bytes").arg(m_options.max_size);
}

void Fetch::finish(const QString &error)
{
    m_stall->stop();
    if (QNetworkReply *reply = m_reply) {
        m_reply = nullptr;
        reply->disconnect(this);
        reply->abort();
        reply->deleteLater();
    }
    Done done = std::move(m_done);
    m_done = nullptr;
    if (done)
        done(FetchResult{error.isEmpty() ? std::exchange(m_data, {}) : QByteArray(), error});
}

void Fetch::abort()
{
    m_done = nullptr;
    if (m_reply)
        finish(QStringLiteral("canceled"));
    m_stall->stop();
}

FetchResult fetch_blocking(QNetworkAccessManager *manager, const FetchOptions &options,
                           const QUrl &url, const QByteArray &sha256_hex, qint64 size,
                           QIODevice *sink)
{
    QEventLoop loop;
    FetchResult result;
    Fetch fetch(manager, options);
    fetch.start(
        url,
        [&](const FetchResult &r) {
            result = r;
            loop.quit();
        },
        sha256_hex, size, sink);
    loop.exec();
    return result;
}

} // namespace corv::update
