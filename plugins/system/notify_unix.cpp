#include "notify.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QStringList>
#include <QVariantMap>

namespace corv_system {

void notify(const QString &title, const QString &text, QObject *context,
            std::function<void(const QString &error)> done)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        done(QStringLiteral("no session bus (%1)").arg(bus.lastError().message()));
        return;
    }
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("/org/freedesktop/Notifications"),
        QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("Notify"));
    const QVariantMap hints{{QStringLiteral("desktop-entry"), QStringLiteral("io.marrowfield.corvane")}};
    call << QStringLiteral("Corvane") << uint(0) << QStringLiteral("io.marrowfield.corvane") << title << text
         << QStringList() << hints << int(-1);
    auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(call), context);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, context,
                     [done = std::move(done)](QDBusPendingCallWatcher *finished) {
                         const QDBusPendingReply<uint> reply = *finished;
                         finished->deleteLater();
                         done(reply.isError() ? reply.error().message() : QString());
                     });
}

void end_notifications()
{
}

} // namespace corv_system
