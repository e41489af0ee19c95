#include "fake_notifications.h"

struct FakeNotifications::Impl {
    QList<std::pair<QString, QString>> received;
};

FakeNotifications::FakeNotifications()
    : m_impl(std::make_unique<Impl>()),
      m_problem(QStringLiteral("Windows shows notifications as a tray icon's message, which no test can read"))
{
}

FakeNotifications::~FakeNotifications() = default;

const QList<std::pair<QString, QString>> &FakeNotifications::received() const
{
    return m_impl->received;
}
