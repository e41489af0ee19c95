#include "cui/property_surface.h"

#include "cui/property_surface_p.h"
#include "cui/store_editor.h"
#include "cui/surface.h"
#include "cui/surface_p.h"
#include "locale/keys.h"
#include "persistence/property_commands.h"
#include "engine/node_instance.h"
#include "engine/node_manager.h"
#include "engine/project_runtime.h"
#include "model/property.h"

#include <QTimer>

namespace corv::cui {

PropertySurface::Impl::Impl(PropertySurface &q, void *owner, const model::StoreView &store,
                            const StoreEditor &editor)
    : q(&q), owner(owner), surface(std::make_unique<Surface>(store)), prefix(store.prefix())
{
    surface->set_owner(owner);
    surface->set_editor(editor);
}

PropertySurface::Impl::~Impl() = default;

void PropertySurface::Impl::start_timer(int ms)
{
    if (!timer) {
        timer = new QTimer(q);
        timer->setSingleShot(true);
        QObject::connect(timer, &QTimer::timeout, q, [this] { rebuild(); });
    }
    timer->start(ms);
}

void PropertySurface::Impl::invalidate(std::uint32_t mode)
{
    switch (mode) {
    case Deferred:
        if (pending != 1) {
            pending = 1;
            start_timer(0);
        }
        break;
    case Debounced:
        if (pending == 0) {
            pending = 2;
            start_timer(kDebounceMs);
        }
        break;
    case Immediate:
        // A request from inside a build cannot rebuild in it; the next turn will.
        if (surface->is_building())
            invalidate(Deferred);
        else
            rebuild();
        break;
    default:
        break;
    }
}

void PropertySurface::Impl::rebuild()
{
    pending = 0;
    if (timer)
        timer->stop();
    surface->build(prefix, [this](GenerateContext &context) {
        // The owner's build callback is called directly rather than through
        // a connection, which would cost every node's panel memory.
        q->declare(context);
    });
}

PropertySurface::PropertySurface(void *owner, const model::StoreView &store, const StoreEditor &editor,
                                 QObject *parent)
    : engine::PropertySurface(parent), d(std::make_unique<Impl>(*this, owner, store, editor))
{
    // The surface's invalidations come here by a direct call.
    d->surface->impl()->panel = this;
}

PropertySurface::~PropertySurface() = default;

Surface *PropertySurface::surface() const
{
    return d->surface.get();
}

void *PropertySurface::owner() const
{
    return d->owner;
}

const QString &PropertySurface::prefix() const
{
    return d->prefix;
}

int PropertySurface::pending() const
{
    return d->pending;
}

void PropertySurface::invalidate(std::uint32_t mode)
{
    d->invalidate(mode);
}

void PropertySurface::refresh(engine::NodeInstance *owner)
{
    d->owner = owner;
    d->surface->set_owner(owner);
    if (owner) {
        // The same text in every node of the type: one shared copy.
        d->prefix = model::shared_key(owner->definition().id, u".");
        const model::StoreView &store = d->surface->store();
        d->surface->set_store(model::StoreView(store.collection(), d->prefix, store.parent()));
    }
    d->rebuild();
}

void PropertySurface::rebuild()
{
    d->rebuild();
}

namespace {

PropertySurface *make_node_surface(engine::ProjectRuntime &runtime, engine::NodeManager &manager,
                                   engine::CommandManager *commands)
{
    // An edit in the node's panel also allows a node that acts outside the
    // program: the user has seen what it does.
    engine::ProjectRuntime *owner = &runtime;
    const QUuid *id = &manager.id();
    auto *surface = new PropertySurface(
        manager.instance(), manager.store(),
        StoreEditor(commands, [owner, id](const QString &key, const model::Value &value) {
            owner->allow_node(*id);
            return std::make_unique<engine::SetNodePropertyCommand>(&owner->project(), *id, key,
                                                                    value);
        }, CORV_TR_KEY("Edit.ChangeNode")));
    surface->surface()->set_rack_source(&runtime);
    return surface;
}

} // namespace

void install_node_surfaces(engine::ProjectRuntime &runtime, engine::CommandManager *commands)
{
    engine::ProjectRuntime *target = &runtime;
    runtime.set_surface_factory([target, commands](engine::NodeManager &manager) {
        return make_node_surface(*target, manager, commands);
    });
}

void install_default_node_surfaces(std::function<engine::CommandManager *(engine::ProjectRuntime &)> commands_of)
{
    engine::ProjectRuntime::set_default_surface_factory(
        [commands_of](engine::ProjectRuntime &runtime, engine::NodeManager &manager) {
            return make_node_surface(runtime, manager, commands_of ? commands_of(runtime) : nullptr);
        });
}

} // namespace corv::cui
