#include "fake_notifications.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusError>
#include <QObject>
#include <QStringList>
#include <QVariantMap>

namespace {

const QString kService = QStringLiteral("org.freedesktop.Notifications");
const QString kConnection = QStringLiteral("tst-fake-notifications");

class Server : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")

public:
    QList<std::pair<QString, QString>> received;

public Q_SLOTS:
    uint Notify(const QString &, uint replaces, const QString &, const QString &summary, const QString &body,
                const QStringList &, const QVariantMap &, int)
    {
        // As a desktop's service does: a notification it gave the id of is replaced.
        if (replaces > 0 && replaces <= uint(received.size())) {
            received[replaces - 1] = {summary, body};
            return replaces;
        }
        received.append({summary, body});
        return uint(received.size());
    }
    QStringList GetCapabilities() { return {QStringLiteral("body")}; }
};

} // namespace

struct FakeNotifications::Impl {
    Server server;
};

FakeNotifications::FakeNotifications() : m_impl(std::make_unique<Impl>())
{
    QDBusConnection bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, kConnection);
    if (!bus.isConnected()) {
        m_problem = QStringLiteral("no session bus: %1").arg(bus.lastError().message());
        return;
    }
    if (!bus.registerObject(QStringLiteral("/org/freedesktop/Notifications"), &m_impl->server,
                            QDBusConnection::ExportAllSlots) ||
        !bus.registerService(kService))
        m_problem = QStringLiteral("could not take %1: %2").arg(kService, bus.lastError().message());
}

FakeNotifications::~FakeNotifications()
{
    QDBusConnection bus(kConnection);
    bus.unregisterService(kService);
    bus.unregisterObject(QStringLiteral("/org/freedesktop/Notifications"));
    QDBusConnection::disconnectFromBus(kConnection);
}

const QList<std::pair<QString, QString>> &FakeNotifications::received() const
{
    return m_impl->server.received;
}

#include "fake_notifications_unix.moc"
