#include "engine/node_instance.h"

#include "engine/handles.h"

#include <QMetaMethod>

#include <cstring>

namespace corv::engine {

NodeInstance::NodeInstance(const NodeDefinition &definition, EventSink *parent_sink,
                           EventSink *child_sink, QObject *parent)
    : QObject(parent), m_definition(&definition), m_instance_name(definition.name),
      m_parent_sink(parent_sink), m_child_sink(child_sink)
{
}

NodeInstance::~NodeInstance()
{
    destroy();
}

quint32 NodeInstance::decoration_mask() const
{
    quint32 mask = 0;
    for (std::size_t i = 0; i < decoration_bits.size(); ++i) {
        if (m_decoration[i])
            mask |= decoration_bits[i];
    }
    return mask;
}

void NodeInstance::create()
{
    m_created = true;
    m_data = m_definition->create ? m_definition->create(handles::to_handle(this)) : nullptr;
}

void NodeInstance::destroy()
{
    if (!m_created)
        return;
    if (m_definition->destroy)
        m_definition->destroy(m_data);
    m_created = false;
    m_data = nullptr;
}

const QString &NodeInstance::instance_name() const
{
    if (m_name_stale)
        const_cast<NodeInstance *>(this)->read_instance_name();
    return m_instance_name;
}

void NodeInstance::refresh_instance_name()
{
    if (!m_created || !m_definition->get_instance_name)
        return;
    m_name_stale = true;
    if (!m_name_watched && !(m_listener && m_listener->watches_names()))
        return;
    if (!read_instance_name())
        return;
    if (m_listener)
        m_listener->instance_renamed(this);
    Q_EMIT instance_name_changed(m_instance_name);
}

bool NodeInstance::read_instance_name()
{
    m_name_stale = false;
    if (!m_created)
        return false;
    char buffer[256];
    buffer[0] = '\0';
    m_definition->get_instance_name(m_data, buffer);
    const void *end = std::memchr(buffer, 0, sizeof buffer);
    const qsizetype length =
        end ? static_cast<const char *>(end) - buffer : qsizetype(sizeof buffer);
    const QString name = QString::fromUtf8(buffer, length);
    if (name == m_instance_name)
        return false;
    m_instance_name = name;
    return true;
}

void NodeInstance::connectNotify(const QMetaMethod &signal)
{
    if (signal == QMetaMethod::fromSignal(&NodeInstance::instance_name_changed))
        m_name_watched = true;
    QObject::connectNotify(signal);
}

void NodeInstance::refresh_decoration()
{
    if (!m_created || !m_definition->get_decoration)
        return;
    const quint32 value = m_definition->get_decoration(m_data);
    std::array<bool, 5> flags{};
    for (std::size_t i = 0; i < decoration_bits.size(); ++i)
        flags[i] = (value & decoration_bits[i]) != 0;
    if (flags == m_decoration)
        return;
    m_decoration = flags;
    if (m_listener)
        m_listener->instance_redecorated(this);
    Q_EMIT decoration_changed();
}

} // namespace corv::engine
