#include "model/project.h"

namespace corv::model {

namespace {
RackNameSource &rack_name_source()
{
    static RackNameSource source;
    return source;
}
} // namespace

void set_rack_name_source(RackNameSource source)
{
    rack_name_source() = std::move(source);
}

Rack::Rack(QObject *parent) : QObject(parent) {}

Rack::~Rack() = default;

void Rack::set_name(const QString &name)
{
    if (m_name == name)
        return;
    m_name = name;
    Q_EMIT name_changed(m_name);
}

void Rack::set_enabled(bool enabled)
{
    if (m_enabled == enabled)
        return;
    m_enabled = enabled;
    Q_EMIT is_enabled_changed(m_enabled);
}

Profile::Profile(QObject *parent) : QObject(parent) {}

Profile::~Profile() = default;

void Profile::insert(std::size_t index, const QUuid &id)
{
    Q_EMIT before_rack_added(id, index);
    m_ids.insert(qsizetype(index), id);
    Q_EMIT rack_added(id, index);
}

void Profile::remove(std::size_t index)
{
    const QUuid id = m_ids.at(qsizetype(index));
    Q_EMIT before_rack_removed(id, index);
    m_ids.removeAt(qsizetype(index));
    Q_EMIT rack_removed(id, index);
}

void Profile::move(std::size_t from_index, std::size_t to_index)
{
    Q_EMIT before_rack_moved(from_index, to_index);
    m_ids.move(qsizetype(from_index), qsizetype(moved_position(from_index, to_index)));
    Q_EMIT rack_moved(from_index, to_index);
}

Project::Project(QObject *parent) : QObject(parent) {}

Project::~Project()
{
    qDeleteAll(m_nodes);
    qDeleteAll(m_racks);
}

bool Project::add_rack(const QUuid &id, std::unique_ptr<Rack> rack)
{
    if (id.isNull() || !rack || m_racks.contains(id))
        return false;
    m_racks.insert(id, rack.release());
    Q_EMIT rack_added(id);
    return true;
}

bool Project::add_node(const QUuid &id, std::unique_ptr<Node> node)
{
    if (id.isNull() || !node || m_nodes.contains(id))
        return false;
    m_nodes.insert(id, node.release());
    Q_EMIT node_added(id);
    return true;
}

std::unique_ptr<Rack> Project::take_rack(const QUuid &id)
{
    std::unique_ptr<Rack> rack(m_racks.take(id));
    if (rack)
        Q_EMIT rack_removed(id);
    return rack;
}

std::unique_ptr<Node> Project::take_node(const QUuid &id)
{
    std::unique_ptr<Node> node(m_nodes.take(id));
    if (node)
        Q_EMIT node_removed(id);
    return node;
}

Children *Project::children_of(const QUuid &rack_id, const QUuid &parent_id) const
{
    if (parent_id.isNull()) {
        Rack *rack = find_rack(rack_id);
        return rack ? rack->top_level() : nullptr;
    }
    Node *node = find_node(parent_id);
    return node ? node->children() : nullptr;
}

QString Project::new_rack_name() const
{
    QSet<QString> taken;
    for (const QUuid &id : m_profile.ids()) {
        if (const Rack *rack = find_rack(id))
            taken.insert(rack->name());
    }
    const RackNameSource &source = rack_name_source();
    const auto name_for = [&source](int n) {
        return source ? source(n) : QStringLiteral("Rack %1").arg(n);
    };
    // A source that gives each n its own name finds a free one within
    // taken.size() + 1 tries. One that repeats itself (a translation without
    // %1) may never do so; then the last try is proposed, duplicate or not,
    // rather than looping for ever.
    const int last = int(taken.size()) + 1;
    for (int n = 1; n < last; ++n) {
        const QString name = name_for(n);
        if (!taken.contains(name))
            return name;
    }
    return name_for(last);
}

} // namespace corv::model
