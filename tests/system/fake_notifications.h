#pragma once

// A notification service of the test's own, for the Show Notification node:
// on Linux it takes the name org.freedesktop.Notifications on the session
// bus (the private one the test runs on) through a connection of its own
// and keeps what it is asked to show. Windows has no such service: there
// the node shows a tray icon's message, which a test cannot read.

#include <QList>
#include <QString>

#include <memory>
#include <utility>

class FakeNotifications
{
public:
    FakeNotifications();
    ~FakeNotifications();

    // Why it could not start; empty once it serves.
    QString problem() const { return m_problem; }
    // The title and text of each notification shown, in order (one that
    // replaces another takes its place).
    const QList<std::pair<QString, QString>> &received() const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
    QString m_problem;
};
