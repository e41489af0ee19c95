#pragma once

#include <QByteArray>
#include <QObject>
#include <QUuid>

#include <memory>

namespace corv::model {
class Rack;
}

namespace corv::engine {

class ChildrenEventRouter;
class EventSink;
class ProjectRuntime;

// The running counterpart of one rack: its entry sink, its running flag (a
// copy of the rack's enabled state) and the router over its top-level nodes.
// A pointer to it is the C rack handle.
class RackManager : public QObject
{
    Q_OBJECT
public:
    class Impl;

    RackManager(model::Rack &rack, const QUuid &id, ProjectRuntime &runtime,
                QObject *parent = nullptr);
    ~RackManager() override;

    // Wires the rack's whole tree. Called once the node managers exist.
    void build_router();

    const QUuid &id() const;
    model::Rack &rack() const;
    // Posting here runs the rack's top-level nodes from the first.
    EventSink *sink() const;
    bool is_running() const;
    // Holds the rack without touching its enabled state (a pause of the whole
    // program): events are dropped as in a disabled rack until resumed.
    void set_paused(bool paused);
    bool is_paused() const;
    // When the rack last took an event in (ms since the epoch; 0: never),
    // counting only events it ran, not those dropped while it stood still.
    qint64 last_event_msecs() const;
    // The rack's name as UTF-8, kept up to date on rename (corv_rack_name).
    const QByteArray &name_utf8() const;
    ChildrenEventRouter *top_router() const;

    Impl *impl() const { return d.get(); }

Q_SIGNALS:
    // The rack went from running to standing still (disabled or paused).
    void stopped();

private:
    std::unique_ptr<Impl> d;
};

} // namespace corv::engine
