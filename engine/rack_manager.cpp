#include "engine/rack_manager.h"

#include "engine/children_router.h"
#include "engine/event.h"
#include "model/project.h"

#include <QDateTime>

namespace corv::engine {

class RackManager::Impl : public QObject
{
public:
    Impl(RackManager &q, model::Rack &rack, const QUuid &id, ProjectRuntime &runtime)
        : q(&q), rack(&rack), id(id), runtime(&runtime),
          top_router(rack.top_level(), runtime, &running, &q)
    {
        connect(&rack, &model::Rack::name_changed, this,
                [this](const QString &name) { name_utf8 = name.toUtf8(); });
        connect(&rack, &model::Rack::is_enabled_changed, this,
                [this](bool enabled) {
                    enabled_flag = enabled;
                    update_running();
                });
        connect(&sink, &EventSink::event_received, this,
                [this](const EventScope &event) {
                    if (running)
                        last_event = QDateTime::currentMSecsSinceEpoch();
                    top_router.route(0, event);
                });
        name_utf8 = rack.name().toUtf8();
        enabled_flag = rack.is_enabled();
        running = enabled_flag;
    }

    void update_running()
    {
        const bool was_running = running;
        running = enabled_flag && !paused;
        if (was_running && !running)
            Q_EMIT q->stopped();
    }

    RackManager *q;
    model::Rack *rack;
    QUuid id;
    ProjectRuntime *runtime;
    EventSink sink;
    bool running = false;
    bool enabled_flag = false;
    bool paused = false;
    qint64 last_event = 0;
    ChildrenEventRouter top_router;
    QByteArray name_utf8;
};

RackManager::RackManager(model::Rack &rack, const QUuid &id, ProjectRuntime &runtime,
                         QObject *parent)
    : QObject(parent), d(std::make_unique<Impl>(*this, rack, id, runtime))
{
}

RackManager::~RackManager() = default;

void RackManager::build_router()
{
    d->top_router.build();
}

const QUuid &RackManager::id() const
{
    return d->id;
}

model::Rack &RackManager::rack() const
{
    return *d->rack;
}

EventSink *RackManager::sink() const
{
    return &d->sink;
}

bool RackManager::is_running() const
{
    return d->running;
}

void RackManager::set_paused(bool paused)
{
    d->paused = paused;
    d->update_running();
}

bool RackManager::is_paused() const
{
    return d->paused;
}

qint64 RackManager::last_event_msecs() const
{
    return d->last_event;
}

const QByteArray &RackManager::name_utf8() const
{
    return d->name_utf8;
}

ChildrenEventRouter *RackManager::top_router() const
{
    return &d->top_router;
}

} // namespace corv::engine
