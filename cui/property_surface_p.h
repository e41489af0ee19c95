#pragma once

#include "cui/property_surface.h"

#include <QObject>
#include <QString>

class QTimer;

namespace corv::cui {

// The panel's state. A plain object: every node of a project has a panel,
// and a Qt object more per panel would cost each of them its private part.
// The panel's build signal is emitted by the public object.
class PropertySurface::Impl
{
public:
    Impl(PropertySurface &q, void *owner, const model::StoreView &store, const StoreEditor &editor);
    ~Impl();

    void invalidate(std::uint32_t mode);
    void rebuild();

    PropertySurface *q;
    void *owner;
    std::unique_ptr<Surface> surface;
    QString prefix;
    int pending = 0;
    // Made on the first timed request; most panels never need one.
    QTimer *timer = nullptr;

private:
    void start_timer(int ms);
};

} // namespace corv::cui
