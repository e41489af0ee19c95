#pragma once

#include "engine/node_registry.h"

#include <QObject>
#include <QString>

#include <array>

namespace corv::engine {

class EventSink;
class NodeInstance;

// What an instance reports to the engine object that owns it, besides its
// own signals (which cost nothing while nobody listens).
class InstanceListener
{
public:
    virtual void instance_renamed(NodeInstance *instance) = 0;
    // Whether the owner wants each new name as it comes (someone shows it).
    virtual bool watches_names() const = 0;
    virtual void instance_redecorated(NodeInstance *instance) = 0;
    virtual void instance_needs_panel_update(NodeInstance *instance) = 0;

protected:
    ~InstanceListener() = default;
};

// The live instance of one node of a known type: the plugin's instance data
// and what the engine caches from it. A pointer to it is the C node handle.
class NodeInstance : public QObject
{
    Q_OBJECT
public:
    // The decoration bits that are read, in flag order (bit 4 is not).
    static constexpr std::array<quint32, 5> decoration_bits{1u, 2u, 4u, 8u, 32u};

    NodeInstance(const NodeDefinition &definition, EventSink *parent_sink, EventSink *child_sink,
                 QObject *parent = nullptr);
    // Calls the type's destroy when the instance was created.
    ~NodeInstance() override;

    const NodeDefinition &definition() const { return *m_definition; }
    bool is_created() const { return m_created; }
    void *data() const { return m_data; }

    EventSink *parent_sink() const { return m_parent_sink; }
    EventSink *child_sink() const { return m_child_sink; }

    // The type's name for this instance, read from the type when first asked
    // for after a change that nobody watched.
    const QString &instance_name() const;
    const std::array<bool, 5> &decoration() const { return m_decoration; }
    // The five flags put back at their bit positions.
    quint32 decoration_mask() const;

    // Marks the instance created and calls the type's create with this
    // instance's handle; its result becomes the instance data.
    void create();
    // Calls the type's destroy with the instance data when created, then
    // clears the created flag.
    void destroy();

    // The type says the name may have changed. Re-reads get_instance_name now
    // when somebody watches (emits instance_name_changed on a change), else
    // when the name is next asked for: an open names no node nobody shows.
    void refresh_instance_name();
    // Re-reads get_decoration; emits decoration_changed on a change.
    void refresh_decoration();
    // Asks the node's property panel to rebuild.
    void invalidate_properties()
    {
        if (m_listener)
            m_listener->instance_needs_panel_update(this);
        Q_EMIT properties_need_update();
    }

    void set_listener(InstanceListener *listener) { m_listener = listener; }

Q_SIGNALS:
    void instance_name_changed(const QString &instance_name);
    void decoration_changed();
    void properties_need_update();

protected:
    void connectNotify(const QMetaMethod &signal) override;

private:
    // Reads get_instance_name; true when the name changed.
    bool read_instance_name();

    const NodeDefinition *m_definition;
    bool m_created = false;
    bool m_name_stale = false;
    bool m_name_watched = false;
    void *m_data = nullptr;
    QString m_instance_name;
    std::array<bool, 5> m_decoration{};
    EventSink *m_parent_sink;
    EventSink *m_child_sink;
    InstanceListener *m_listener = nullptr;
};

} // namespace corv::engine
