#include "engine/property_surface.h"

namespace corv::engine {

PropertySurface::PropertySurface(QObject *parent) : QObject(parent) {}

PropertySurface::~PropertySurface() = default;

} // namespace corv::engine
