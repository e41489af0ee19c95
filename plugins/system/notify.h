#pragma once

// Shows a desktop notification: through the freedesktop notification
// service on the session bus on Linux (Qt D-Bus), through a tray icon of
// the plugin's own on Windows, which goes away after the message.

#include <QString>

#include <functional>

class QObject;

namespace corv_system {

// Hands title and text to the desktop without waiting for it. done gets an
// empty text once the desktop took the message, or the reason it did not;
// never after context is gone. Runs on the GUI thread.
void notify(const QString &title, const QString &text, QObject *context,
            std::function<void(const QString &error)> done);

// Removes what notify made (the plugin unloads).
void end_notifications();

} // namespace corv_system
