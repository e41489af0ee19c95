#pragma once

#include <QObject>

#include <memory>

namespace corv {

// Turns the operating system's requests to stop (SIGINT and SIGTERM on Unix,
// console control events on Windows) into a signal on the GUI thread. The
// platform handler itself only wakes the event loop; everything else happens
// in `requested`. One instance at a time.
class ShutdownSignals : public QObject {
    Q_OBJECT

public:
    explicit ShutdownSignals(QObject *parent = nullptr);
    ~ShutdownSignals() override;

signals:
    // `signal_number` is the Unix signal, or the console control event.
    void requested(int signal_number);

private:
    struct Impl;
    std::unique_ptr<Impl> d;
};

} // namespace corv
