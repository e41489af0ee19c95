#include "notify.h"

#include <QApplication>
#include <QIcon>
#include <QImage>
#include <QPixmap>
#include <QPointer>
#include <QSystemTrayIcon>
#include <QTimer>

extern "C" {
extern const unsigned char system_icon_plugin[];
extern const unsigned int system_icon_plugin_size;
}

namespace corv_system {

namespace {

// How long a message stays; the icon leaves with it.
constexpr int kShownMs = 10000;

// The plugin's own tray icon while a message shows (the main window's
// exists only while the window is hidden).
QPointer<QSystemTrayIcon> g_tray;
QPointer<QTimer> g_leave;

} // namespace

void notify(const QString &title, const QString &text, QObject *context,
            std::function<void(const QString &error)> done)
{
    Q_UNUSED(context);
    if (!qobject_cast<QApplication *>(QCoreApplication::instance())) {
        done(QString()); // a headless run printed it
        return;
    }
    if (!QSystemTrayIcon::isSystemTrayAvailable()) {
        done(QStringLiteral("the desktop has no notification area"));
        return;
    }
    if (!g_tray) {
        QImage image;
        image.loadFromData(system_icon_plugin, int(system_icon_plugin_size), "PNG");
        g_tray = new QSystemTrayIcon(QIcon(QPixmap::fromImage(image)));
        g_tray->setToolTip(QStringLiteral("Corvane"));
        g_leave = new QTimer(g_tray);
        g_leave->setSingleShot(true);
        g_leave->setInterval(kShownMs);
        QObject::connect(g_leave, &QTimer::timeout, g_tray, [] { g_tray->hide(); });
        QObject::connect(g_tray, &QSystemTrayIcon::messageClicked, g_tray, [] { g_tray->hide(); });
    }
    g_tray->show();
    g_tray->showMessage(title, text, QSystemTrayIcon::Information, kShownMs);
    g_leave->start();
    done(QString());
}

void end_notifications()
{
    delete g_tray;
}

} // namespace corv_system
