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
    case CTRL_LOGOFF_EVENT:
    case CTRL_SHUTDOWN_EVENT:
        break;
    default:
        return FALSE;
    }
    ShutdownSignals *instance = g_instance.load();
    if (!instance)
        return FALSE;
    const int number = static_cast<int>(event);
    QMetaObject::invokeMethod(
        instance, [instance, number] { emit instance->requested(number); }, Qt::QueuedConnection);
    // For a closed console, a log-off and a shutdown the system ends the
    // process as soon as this handler returns: wait here while the program
    // shuts down on its own (the system's own time limit still applies), and
    // let the program's exit end this thread.
    if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT)
        ::Sleep(INFINITE);
    return TRUE;
}

constexpr wchar_t kWindowClass[] = L"CorvaneSessionWatcher";

// A hidden top-level window of the GUI thread: how a program without a
// window of its own (a headless run) is asked to close, and learns that the
// session ends.
LRESULT CALLBACK on_window_message(HWND window, UINT message, WPARAM wparam, LPARAM lparam)
{
    switch (message) {
    case WM_CLOSE:
        // What taskkill (without /F) and QProcess::terminate() send: the
        // Windows counterpart of SIGTERM.
        if (ShutdownSignals *instance = g_instance.load())
            emit instance->requested(int(WM_CLOSE));
        return 0;
    case WM_QUERYENDSESSION:
        return TRUE;
    case WM_ENDSESSION:
        if (wparam) {
            if (ShutdownSignals *instance = g_instance.load())
                emit instance->session_ending();
            // Whatever the handlers left, the session takes the process now.
            ::ExitProcess(0);
        }
        return 0;
    default:
        return ::DefWindowProcW(window, message, wparam, lparam);
    }
}

} // namespace

struct ShutdownSignals::Impl {
    HWND window = nullptr;
};

ShutdownSignals::ShutdownSignals(QObject *parent) : QObject(parent), d(std::make_unique<Impl>())
{
    g_instance = this;
    ::SetConsoleCtrlHandler(on_console_event, TRUE);

    WNDCLASSW window_class{};
    window_class.lpfnWndProc = on_window_message;
    window_class.hInstance = ::GetModuleHandleW(nullptr);
    window_class.lpszClassName = kWindowClass;
    ::RegisterClassW(&window_class);
    d->window = ::CreateWindowExW(0, kWindowClass, L"Corvane", WS_OVERLAPPED, 0, 0, 0, 0, nullptr,
                                  nullptr, window_class.hInstance, nullptr);
}

ShutdownSignals::~ShutdownSignals()
{
    if (d->window)
        ::DestroyWindow(d->window);
    ::SetConsoleCtrlHandler(on_console_event, FALSE);
    g_instance = nullptr;
}

} // namespace corv
