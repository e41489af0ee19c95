#pragma once

#include "model/node.h"

#include <QHash>
#include <QObject>
#include <QString>
#include <QUuid>

#include <functional>
#include <memory>

namespace corv::model {

// A named tree of nodes. Disabled racks are kept and saved but not run.
class Rack : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString name READ name WRITE set_name NOTIFY name_changed)
    Q_PROPERTY(bool is_enabled READ is_enabled WRITE set_enabled NOTIFY is_enabled_changed)
public:
    explicit Rack(QObject *parent = nullptr);
    ~Rack() override;

    const QString &name() const { return m_name; }
    void set_name(const QString &name);
    bool is_enabled() const { return m_enabled; }
    void set_enabled(bool enabled);

    Children *top_level() { return &m_top_level; }
    const Children *top_level() const { return &m_top_level; }

Q_SIGNALS:
    void name_changed(const QString &name);
    void is_enabled_changed(bool enabled);

private:
    QString m_name;
    bool m_enabled = true;
    Children m_top_level;
};

// The ordered list of rack ids: the order of the racks panel and of the file.
class Profile : public QObject
{
    Q_OBJECT
public:
    explicit Profile(QObject *parent = nullptr);
    ~Profile() override;

    std::size_t count() const { return std::size_t(m_ids.size()); }
    QUuid at(std::size_t index) const { return m_ids.at(qsizetype(index)); }
    const QList<QUuid> &ids() const { return m_ids; }
    qsizetype index_of(const QUuid &id) const { return m_ids.indexOf(id); }

    void insert(std::size_t index, const QUuid &id);
    void remove(std::size_t index);
    // to_index is counted before the id is taken out (see moved_position()).
    void move(std::size_t from_index, std::size_t to_index);

Q_SIGNALS:
    void before_rack_added(const QUuid &id, std::size_t index);
    void rack_added(const QUuid &id, std::size_t index);
    void before_rack_moved(std::size_t from_index, std::size_t to_index);
    void rack_moved(std::size_t from_index, std::size_t to_index);
    void before_rack_removed(const QUuid &id, std::size_t index);
    void rack_removed(const QUuid &id, std::size_t index);

private:
    QList<QUuid> m_ids;
};

// Owns every rack and node by id, plus the profile that orders the racks.
// Adding to a table does not place the item anywhere: racks go into the
// profile and nodes into a children list by separate calls.
class Project : public QObject
{
    Q_OBJECT
public:
    explicit Project(QObject *parent = nullptr);
    ~Project() override;

    Profile *profile() { return &m_profile; }
    const Profile *profile() const { return &m_profile; }

    Rack *find_rack(const QUuid &id) const { return m_racks.value(id, nullptr); }
    Node *find_node(const QUuid &id) const { return m_nodes.value(id, nullptr); }
    const QHash<QUuid, Rack *> &racks() const { return m_racks; }
    const QHash<QUuid, Node *> &nodes() const { return m_nodes; }

    // Takes ownership. Returns false when the id is null or already used; the
    // refused item is then destroyed and the table is left as it was.
    bool add_rack(const QUuid &id, std::unique_ptr<Rack> rack);
    bool add_node(const QUuid &id, std::unique_ptr<Node> node);
    // Hands the item back to the caller (so an undo can restore it), or null.
    // The removal signal is emitted while the item is still alive.
    std::unique_ptr<Rack> take_rack(const QUuid &id);
    std::unique_ptr<Node> take_node(const QUuid &id);

    // The null parent id means the rack's top-level list; any other id the
    // children of that node. Null when the rack or node does not exist.
    Children *children_of(const QUuid &rack_id, const QUuid &parent_id) const;

    // The first "NewRackName.%1" translation, n = 1, 2, ..., that no rack in
    // the profile is named exactly.
    QString new_rack_name() const;

Q_SIGNALS:
    void rack_added(const QUuid &id);
    void rack_removed(const QUuid &id);
    void node_added(const QUuid &id);
    void node_removed(const QUuid &id);

private:
    Profile m_profile;
    QHash<QUuid, Rack *> m_racks;
    QHash<QUuid, Node *> m_nodes;
};

// Produces the name proposed for the n-th new rack. The localisation layer
// installs one that translates "NewRackName.%1"; the default gives "Rack n".
using RackNameSource = std::function<QString(int n)>;
void set_rack_name_source(RackNameSource source);

} // namespace corv::model
