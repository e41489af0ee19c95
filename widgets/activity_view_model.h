#pragma once

#include "engine/activity_tap.h"
#include "engine/event.h"

#include <QAbstractTableModel>
#include <QHash>
#include <QIcon>
#include <QImage>
#include <QSet>
#include <QSortFilterProxyModel>
#include <QTimer>
#include <QUuid>

#include <deque>
#include <vector>

namespace corv::widgets {

// The latest events the engine's activity tap reports, newest first: the
// time, the rack, the node (name and icon) and the event's keys and values.
// Listens only while set_listening(true); hops are gathered and shown on the
// next flush (a short timer, or flush()), so a burst costs one model update.
// At most capacity() rows are kept; older ones fall off the end.
class ActivityViewModel : public QAbstractTableModel, public engine::ActivityTap::Listener
{
    Q_OBJECT
public:
    enum Column { TimeColumn, RackColumn, NodeColumn, EventColumn, ColumnCount };
    enum Role {
        RackIdRole = Qt::UserRole + 1, // QUuid
        NodeIdRole,                    // QUuid
        MsecsRole,                     // qint64, since the epoch
    };
    static constexpr int kCapacity = 10000;
    static constexpr int kFlushMs = 50;

    explicit ActivityViewModel(QObject *parent = nullptr);
    ~ActivityViewModel() override;

    void set_listening(bool on);
    bool is_listening() const { return m_listening; }

    // While paused, reported events are counted and dropped.
    void set_paused(bool paused);
    bool is_paused() const { return m_paused; }
    // Events dropped during the current (or last) pause.
    quint64 dropped() const { return m_dropped; }
    // Rows that fell off the end since the last clear.
    quint64 fallen_off() const { return m_fallen_off; }

    // Empties the list and the counts.
    void clear();
    // Shows what was reported since the last flush.
    void flush();

    // Keeps a node's events out of the list (a noisy display node).
    void set_node_hidden(const QUuid &node, bool hidden);
    bool is_node_hidden(const QUuid &node) const { return m_hidden.contains(node); }
    void show_hidden_nodes();
    bool has_hidden_nodes() const { return !m_hidden.isEmpty(); }

    // A row as text: time, rack, node and event, separated by tabs.
    QString row_text(int row) const;

    int rowCount(const QModelIndex &parent = {}) const override;
    int columnCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation,
                        int role = Qt::DisplayRole) const override;

    // engine::ActivityTap::Listener
    void hop(const engine::ActivityHop &hop) override;

Q_SIGNALS:
    // The dropped or fallen-off counts changed (after a flush).
    void counts_changed();

private:
    struct Row {
        qint64 msecs;
        QUuid rack;
        QByteArray rack_name;
        QUuid node;
        QString node_name;
        QImage icon;
        engine::EventScope event;
    };
    QString event_text(const Row &row) const;
    QIcon icon_of(const QImage &image) const;

    std::deque<Row> m_rows; // newest first
    std::vector<Row> m_pending; // oldest first
    QSet<QUuid> m_hidden;
    QTimer m_flush_timer;
    bool m_listening = false;
    bool m_paused = false;
    bool m_counts_dirty = false;
    quint64 m_dropped = 0;
    quint64 m_fallen_off = 0;
    mutable QHash<qint64, QIcon> m_icons;
};

// What the activity panel shows of the view model: one rack, one node
// (null: all) and rows whose text holds a given string.
class ActivityFilter : public QSortFilterProxyModel
{
    Q_OBJECT
public:
    using QSortFilterProxyModel::QSortFilterProxyModel;

    void set_rack(const QUuid &rack);
    void set_node(const QUuid &node);
    void set_text(const QString &text);
    const QUuid &rack() const { return m_rack; }
    const QUuid &node() const { return m_node; }

protected:
    bool filterAcceptsRow(int source_row, const QModelIndex &source_parent) const override;

private:
    QUuid m_rack;
    QUuid m_node;
    QString m_text;
};

} // namespace corv::widgets
