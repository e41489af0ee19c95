#include "widgets/activity_view_model.h"

#include "engine/node_instance.h"
#include "engine/node_manager.h"
#include "engine/node_registry.h"
#include "engine/rack_manager.h"
#include "locale/translate.h"

#include <QDateTime>
#include <QPixmap>

namespace corv::widgets {

ActivityViewModel::ActivityViewModel(QObject *parent) : QAbstractTableModel(parent)
{
    m_flush_timer.setSingleShot(true);
    m_flush_timer.setInterval(kFlushMs);
    connect(&m_flush_timer, &QTimer::timeout, this, &ActivityViewModel::flush);
}

ActivityViewModel::~ActivityViewModel()
{
    engine::ActivityTap::remove_listener(this);
}

void ActivityViewModel::set_listening(bool on)
{
    if (on == m_listening)
        return;
    m_listening = on;
    if (on)
        engine::ActivityTap::add_listener(this);
    else
        engine::ActivityTap::remove_listener(this);
}

void ActivityViewModel::set_paused(bool paused)
{
    if (paused == m_paused)
        return;
    m_paused = paused;
    if (paused) {
        flush();
        m_dropped = 0;
        Q_EMIT counts_changed();
    }
}

void ActivityViewModel::clear()
{
    m_pending.clear();
    beginResetModel();
    m_rows.clear();
    endResetModel();
    m_dropped = 0;
    m_fallen_off = 0;
    Q_EMIT counts_changed();
}

void ActivityViewModel::hop(const engine::ActivityHop &hop)
{
    if (m_paused) {
        ++m_dropped;
        m_counts_dirty = true;
    } else {
        const QUuid &node_id = hop.node->id();
        if (m_hidden.contains(node_id))
            return;
        Row row{hop.msecs, {}, {}, node_id, {}, {}, *hop.event};
        if (hop.rack) {
            row.rack = hop.rack->id();
            row.rack_name = hop.rack->name_utf8();
        }
        if (const engine::NodeInstance *instance = hop.node->instance())
            row.node_name = instance->instance_name();
        if (const engine::NodeDefinition *type = hop.node->definition())
            row.icon = type->icon;
        m_pending.push_back(std::move(row));
        // A burst longer than the list keeps only what the list can show.
        if (m_pending.size() >= 2 * std::size_t(kCapacity)) {
            m_fallen_off += m_pending.size() - kCapacity;
            m_counts_dirty = true;
            m_pending.erase(m_pending.begin(), m_pending.end() - kCapacity);
        }
    }
    if (!m_flush_timer.isActive())
        m_flush_timer.start();
}

void ActivityViewModel::flush()
{
    m_flush_timer.stop();
    if (!m_pending.empty()) {
        std::size_t from = 0;
        if (m_pending.size() > std::size_t(kCapacity)) {
            from = m_pending.size() - kCapacity;
            m_fallen_off += from;
            m_counts_dirty = true;
        }
        const int added = int(m_pending.size() - from);
        beginInsertRows({}, 0, added - 1);
        for (std::size_t i = from; i < m_pending.size(); ++i)
            m_rows.push_front(std::move(m_pending[i]));
        endInsertRows();
        m_pending.clear();
        if (m_rows.size() > std::size_t(kCapacity)) {
            const int over = int(m_rows.size()) - kCapacity;
            beginRemoveRows({}, kCapacity, int(m_rows.size()) - 1);
            m_rows.resize(kCapacity);
            endRemoveRows();
            m_fallen_off += over;
            m_counts_dirty = true;
        }
    }
    if (std::exchange(m_counts_dirty, false))
        Q_EMIT counts_changed();
}

void ActivityViewModel::set_node_hidden(const QUuid &node, bool hidden)
{
    if (hidden)
        m_hidden.insert(node);
    else
        m_hidden.remove(node);
}

void ActivityViewModel::show_hidden_nodes()
{
    m_hidden.clear();
}

int ActivityViewModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(m_rows.size());
}

int ActivityViewModel::columnCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : ColumnCount;
}

QString ActivityViewModel::event_text(const Row &row) const
{
    const engine::EventData &data = row.event.data();
    QString text;
    for (qsizetype i = 0; i < data.count(); ++i) {
        if (i)
            text += QLatin1String("; ");
        text += QString::fromUtf8(*data.key_at(i)) + QLatin1String(": ") + QString::fromUtf8(*data.value_at(i));
    }
    return text;
}

QIcon ActivityViewModel::icon_of(const QImage &image) const
{
    if (image.isNull())
        return {};
    auto found = m_icons.find(image.cacheKey());
    if (found == m_icons.end())
        found = m_icons.insert(image.cacheKey(), QIcon(QPixmap::fromImage(image)));
    return *found;
}

QVariant ActivityViewModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= int(m_rows.size()))
        return {};
    const Row &row = m_rows[std::size_t(index.row())];
    switch (role) {
    case Qt::DisplayRole:
    case Qt::ToolTipRole:
        switch (index.column()) {
        case TimeColumn:
            return QDateTime::fromMSecsSinceEpoch(row.msecs).toString(QStringLiteral("HH:mm:ss.zzz"));
        case RackColumn:
            return QString::fromUtf8(row.rack_name);
        case NodeColumn:
            return row.node_name;
        case EventColumn:
            return event_text(row);
        }
        break;
    case Qt::DecorationRole:
        if (index.column() == NodeColumn)
            return icon_of(row.icon);
        break;
    case RackIdRole:
        return row.rack;
    case NodeIdRole:
        return row.node;
    case MsecsRole:
        return row.msecs;
    }
    return {};
}

QVariant ActivityViewModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole)
        return {};
    switch (section) {
    case TimeColumn:
        return locale::translate("ActivityPanel.Time");
    case RackColumn:
        return locale::translate("ActivityPanel.Rack");
    case NodeColumn:
        return locale::translate("ActivityPanel.Node");
    case EventColumn:
        return locale::translate("ActivityPanel.Event");
    }
    return {};
}

QString ActivityViewModel::row_text(int row) const
{
    QStringList cells;
    for (int column = 0; column < ColumnCount; ++column)
        cells << data(index(row, column)).toString();
    return cells.join(u'\t');
}

void ActivityFilter::set_rack(const QUuid &rack)
{
    m_rack = rack;
    invalidateFilter();
}

void ActivityFilter::set_node(const QUuid &node)
{
    m_node = node;
    invalidateFilter();
}

void ActivityFilter::set_text(const QString &text)
{
    m_text = text;
    invalidateFilter();
}

bool ActivityFilter::filterAcceptsRow(int source_row, const QModelIndex &) const
{
    const QAbstractItemModel *model = sourceModel();
    const QModelIndex first = model->index(source_row, 0);
    if (!m_rack.isNull() && first.data(ActivityViewModel::RackIdRole).toUuid() != m_rack)
        return false;
    if (!m_node.isNull() && first.data(ActivityViewModel::NodeIdRole).toUuid() != m_node)
        return false;
    if (m_text.isEmpty())
        return true;
    for (int column = 0; column < ActivityViewModel::ColumnCount; ++column) {
        if (model->index(source_row, column).data().toString().contains(m_text, Qt::CaseInsensitive))
            return true;
    }
    return false;
}

} // namespace corv::widgets
