#pragma once

#include <QObject>

#include <cstdint>

namespace corv::cui {
class GenerateContext;
}

namespace corv::engine {

class NodeInstance;

// The property panel of one node (or of a plugin's preferences), as the
// engine sees it. The declarative UI layer implements it over its surface;
// the engine only asks for rebuilds and answers each build by running the
// node type's build callback with the build's context.
class PropertySurface : public QObject
{
    Q_OBJECT
public:
    // How soon a rebuild is wanted (the numbers of corv::cui::InvalidateMode).
    enum InvalidateMode : std::uint32_t { Deferred = 0, Debounced = 1, Immediate = 2 };

    explicit PropertySurface(QObject *parent = nullptr);
    ~PropertySurface() override;

    // Schedules or runs a rebuild; properties_need_update ends here with Deferred.
    virtual void invalidate(std::uint32_t mode) = 0;
    // The node's instance was (re)created, or is gone (owner null): the
    // surface now describes this owner.
    virtual void refresh(NodeInstance *owner) = 0;

    // The instance whose type's build callback answers each rebuild (null:
    // none). Set by the node's manager while the instance lives.
    void set_build_owner(NodeInstance *instance) { m_build_owner = instance; }
    NodeInstance *build_owner() const { return m_build_owner; }
    // Whether the surface runs the build owner's callback itself on every
    // rebuild (declare()); otherwise the manager connects it to build().
    virtual bool runs_build_owner() const { return false; }

Q_SIGNALS:
    // Emitted once per rebuild; the owner's build callback declares the
    // surface through the context.
    void build(corv::cui::GenerateContext &context);

protected:
    // One rebuild's declarations: the build owner's build callback, then
    // build(context) for everyone else.
    void declare(cui::GenerateContext &context);

private:
    NodeInstance *m_build_owner = nullptr;
};

} // namespace corv::engine
