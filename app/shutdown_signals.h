#pragma once

#include <QObject>

#include <memory>

namespace corv {

// Turns the operating system's requests to stop (SIGINT and SIGTERM on Unix,
// console control events, WM_CLOSE and the end of the session on Windows)
// into a signal on the GUI thread. The
// platform handler itself only wakes the event loop; everything else happens
// in `requested`. One instance at a time.
class ShutdownSignals : public QObject {
    Q_OBJECT

public:
    explicit ShutdownSignals(QObject *parent = nullptr);
    ~ShutdownSignals() override;

signals:
    // `signal_number` is the Unix signal, the console control event, or
    // WM_CLOSE (16).
    void requested(int signal_number);
    // Windows ends the user's session (WM_ENDSESSION): the process is ended
    // as soon as the handlers return, so they shut down right there.
    void session_ending();

private:
    struct Impl;
    std::unique_ptr<Impl> d;
};

} // namespace corv
