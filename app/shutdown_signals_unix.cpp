#include "app/shutdown_signals.h"

#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <sys/socket.h>
#include <unistd.h>

namespace corv {

namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM};

// The write end of the socket pair; the handler's only state.
volatile sig_atomic_t g_write_fd = -1;

extern "C" void on_signal(int signal_number)
{
    const int saved_errno = errno;
    const unsigned char byte = static_cast<unsigned char>(signal_number);
    if (g_write_fd >= 0) {
        // Non-blocking: if the loop is too far behind to read, the byte
        // already waiting will stop it anyway.
        [[maybe_unused]] const ssize_t n = ::write(g_write_fd, &byte, 1);
    }
    errno = saved_errno;
}

} // namespace

struct ShutdownSignals::Impl {
    int fds[2] = {-1, -1};
    struct sigaction previous[std::size(kSignals)] = {};
    bool active = false;
    QSocketNotifier *notifier = nullptr;
};

ShutdownSignals::ShutdownSignals(QObject *parent) : QObject(parent), d(std::make_unique<Impl>())
{
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, d->fds) != 0) {
        qWarning("Cannot watch for shutdown signals: %s", strerror(errno));
        return;
    }
    ::fcntl(d->fds[0], F_SETFL, ::fcntl(d->fds[0], F_GETFL) | O_NONBLOCK);
    ::fcntl(d->fds[1], F_SETFL, ::fcntl(d->fds[1], F_GETFL) | O_NONBLOCK);
    g_write_fd = d->fds[1];

    d->notifier = new QSocketNotifier(d->fds[0], QSocketNotifier::Read, this);
    connect(d->notifier, &QSocketNotifier::activated, this, [this] {
        unsigned char byte = 0;
        int last = -1;
        while (::read(d->fds[0], &byte, 1) == 1)
            last = byte;
        if (last >= 0)
            emit requested(last);
    });

    struct sigaction action = {};
    action.sa_handler = on_signal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (std::size_t i = 0; i < std::size(kSignals); ++i)
        ::sigaction(kSignals[i], &action, &d->previous[i]);
    d->active = true;
}

ShutdownSignals::~ShutdownSignals()
{
    if (d->active) {
        for (std::size_t i = 0; i < std::size(kSignals); ++i)
            ::sigaction(kSignals[i], &d->previous[i], nullptr);
    }
    g_write_fd = -1;
    delete d->notifier;
    for (int fd : d->fds) {
        if (fd >= 0)
            ::close(fd);
    }
}

} // namespace corv
