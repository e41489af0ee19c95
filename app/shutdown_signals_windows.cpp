#include "app/shutdown_signals.h"

#include <QMetaObject>

#include <atomic>

#include <windows.h>

namespace corv {

namespace {

// Console control handlers run on a thread of their own; the event is queued
// to the object's thread.
std::atomic<ShutdownSignals *> g_instance = nullptr;

BOOL WINAPI on_console_event(DWORD event)
{
    switch (event) {
    case CTRL_C_EVENT:
    case CTRL_BREAK_EVENT:
    case CTRL_CLOSE_EVENT:
        if (ShutdownSignals *instance = g_instance.load()) {
            const int number = static_cast<int>(event);
            QMetaObject::invokeMethod(
                instance, [instance, number] { emit instance->requested(number); },
                Qt::QueuedConnection);
            return TRUE;
        }
        return FALSE;
    default:
        return FALSE;
    }
}

} // namespace

struct ShutdownSignals::Impl {};

ShutdownSignals::ShutdownSignals(QObject *parent) : QObject(parent), d(std::make_unique<Impl>())
{
    g_instance = this;
    ::SetConsoleCtrlHandler(on_console_event, TRUE);
}

ShutdownSignals::~ShutdownSignals()
{
    ::SetConsoleCtrlHandler(on_console_event, FALSE);
    g_instance = nullptr;
}

} // namespace corv
