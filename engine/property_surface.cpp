#include "engine/property_surface.h"

#include "engine/node_instance.h"

namespace corv::engine {

PropertySurface::PropertySurface(QObject *parent) : QObject(parent) {}

PropertySurface::~PropertySurface() = default;

void PropertySurface::declare(cui::GenerateContext &context)
{
    if (NodeInstance *owner = m_build_owner) {
        const NodeDefinition &type = owner->definition();
        if (owner->is_created() && type.build)
            type.build(owner->data(), reinterpret_cast<cui_generate_context *>(&context));
    }
    Q_EMIT build(context);
}

} // namespace corv::engine
