#pragma once

#include "cui/property_surface.h"

#include <QObject>
#include <QString>

class QTimer;

namespace corv::cui {

class PropertySurface::Impl : public QObject
{
    Q_OBJECT
public:
    Impl(PropertySurface &q, void *owner, const model::StoreView &store, const StoreEditor &editor);
    ~Impl() override;

    void invalidate(std::uint32_t mode);
    void rebuild();

    PropertySurface *q;
    void *owner;
    std::unique_ptr<Surface> surface;
    QString prefix;
    int pending = 0;
    // Made on the first timed request; most panels never need one.
    QTimer *timer = nullptr;

Q_SIGNALS:
    void build(corv::cui::GenerateContext &context);

private:
    void start_timer(int ms);
};

} // namespace corv::cui
