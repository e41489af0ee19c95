#pragma once

#include "cui/invalidate.h"
#include "engine/property_surface.h"

#include <QObject>
#include <QString>

#include <functional>
#include <memory>

namespace corv::model {
class StoreView;
}

namespace corv::engine {
class CommandManager;
class NodeInstance;
class ProjectRuntime;
} // namespace corv::engine

namespace corv::cui {

class GenerateContext;
class StoreEditor;
class Surface;

// The property panel of one node instance or of one plugin's preferences:
// a Surface over the owner's store view, rebuilt on request with the three
// timings of InvalidateMode. Each rebuild emits build(context) once; the
// owner's build callback answers it by declaring the surface.
class PropertySurface : public engine::PropertySurface
{
    Q_OBJECT
public:
    class Impl;

    // For a node the owner is its instance and the view its store (prefix:
    // the type id and "."); for plugin preferences the owner is null and the
    // prefix empty. Edits go through `editor`.
    PropertySurface(void *owner, const model::StoreView &store, const StoreEditor &editor,
                    QObject *parent = nullptr);
    ~PropertySurface() override;

    Surface *surface() const;
    void *owner() const;
    const QString &prefix() const;
    // 0 none, 1 deferred (0 ms), 2 debounced (500 ms).
    int pending() const;

    // Deferred: rebuild at the next loop turn (bringing a debounced one
    // forward). Debounced: in 500 ms unless something is pending. Immediate:
    // now. Other values: nothing.
    void invalidate(std::uint32_t mode) override;
    // The node's instance was (re)created or is gone: take it as the owner,
    // its type's prefix, and build at once.
    void refresh(engine::NodeInstance *owner) override;
    bool runs_build_owner() const override { return true; }
    // Builds now.
    void rebuild();

    Impl *impl() const { return d.get(); }

private:
    std::unique_ptr<Impl> d;
};

// Gives every node manager that `runtime` makes from now on a PropertySurface
// whose edits are commands of `commands` (null: written without undo) and
// whose rack fields list the runtime's racks.
void install_node_surfaces(engine::ProjectRuntime &runtime, engine::CommandManager *commands);

// The same for every runtime that is not given a factory of its own; the
// command manager of a runtime is asked of `commands_of` (which may be empty
// or return null: no undo).
void install_default_node_surfaces(
    std::function<engine::CommandManager *(engine::ProjectRuntime &)> commands_of = {});

} // namespace corv::cui
