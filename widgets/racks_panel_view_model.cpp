#include "widgets/racks_panel_view_model.h"

#include "engine/project_runtime.h"
#include "engine/rack_manager.h"
#include "locale/translate.h"
#include "model/project.h"
#include "persistence/command_manager.h"
#include "persistence/model_commands.h"
#include "persistence/paste.h"
#include "persistence/writer.h"

#include <optional>

#include <QBrush>
#include <QDataStream>
#include <QDateTime>
#include <QFont>
#include <QIODevice>
#include <QGuiApplication>
#include <QMimeData>
#include <QPalette>

#include <algorithm>

namespace corv::widgets {

QList<PlannedMove> plan_moves(QList<QUuid> list, const QList<QUuid> &moving, qsizetype dest)
{
    QList<PlannedMove> moves;
    for (const QUuid &id : moving) {
        const qsizetype from = list.indexOf(id);
        if (from < 0)
            continue;
        moves.append({from, dest});
        list.move(from, from < dest ? dest - 1 : dest);
        if (from >= dest)
            ++dest;
    }
    return moves;
}

RacksPanelViewModel::RacksPanelViewModel(QObject *parent) : QAbstractListModel(parent)
{
    connect(&m_status_timer, &QTimer::timeout, this, &RacksPanelViewModel::refresh_status);
}

RacksPanelViewModel::~RacksPanelViewModel()
{
    detach();
}

QString RacksPanelViewModel::status_of(const QUuid &id) const
{
    const model::Rack *rack = m_context.project ? m_context.project->find_rack(id) : nullptr;
    if (!rack)
        return {};
    const engine::RackManager *manager =
        m_context.runtime ? m_context.runtime->find_rack_manager(id) : nullptr;
    QString state;
    if (!rack->is_enabled())
        state = locale::translate("RacksPanel.Status.Disabled");
    else if (m_context.runtime && m_context.runtime->is_paused())
        state = locale::translate("RacksPanel.Status.Paused");
    else
        state = locale::translate("RacksPanel.Status.Running");
    const qint64 last = manager ? manager->last_event_msecs() : 0;
    if (!last)
        return state;
    return locale::translate("RacksPanel.Status.LastEvent.%1.%2", state,
                             QDateTime::fromMSecsSinceEpoch(last).toString(QStringLiteral("HH:mm:ss")));
}

void RacksPanelViewModel::refresh_status()
{
    const int rows = rowCount();
    for (int row = 0; row < rows; ++row) {
        const QUuid id = rack_at(row);
        QString now = status_of(id);
        auto known = m_status.find(id);
        if (known != m_status.end() && *known == now)
            continue;
        m_status.insert(id, std::move(now));
        const QModelIndex at = index(row);
        Q_EMIT dataChanged(at, at, {StatusRole, Qt::ToolTipRole});
    }
}

void RacksPanelViewModel::set_context(const PanelContext &context)
{
    beginResetModel();
    detach();
    m_context = context;
    attach();
    m_status.clear();
    endResetModel();
    if (m_context.runtime)
        m_status_timer.start(kStatusRefreshMs);
    else
        m_status_timer.stop();
    set_selected_rack({});
}

void RacksPanelViewModel::attach()
{
    model::Project *project = m_context.project;
    if (!project)
        return;
    model::Profile *profile = project->profile();
    m_connections << connect(profile, &model::Profile::before_rack_added, this,
                             [this](const QUuid &, std::size_t index) {
                                 beginInsertRows({}, int(index), int(index));
                             });
    m_connections << connect(profile, &model::Profile::rack_added, this, [this](const QUuid &id, std::size_t) {
        watch_rack(id);
        endInsertRows();
    });
    m_connections << connect(profile, &model::Profile::before_rack_removed, this,
                             [this](const QUuid &id, std::size_t index) {
                                 beginRemoveRows({}, int(index), int(index));
                                 for (const auto &c : m_rack_connections.take(id))
                                     disconnect(c);
                             });
    m_connections << connect(profile, &model::Profile::rack_removed, this, [this](const QUuid &id, std::size_t) {
        endRemoveRows();
        if (id == m_selected)
            set_selected_rack({});
    });
    // Qt counts the destination like the profile does: before the row is
    // taken out. A move onto itself is no move for Qt.
    m_connections << connect(profile, &model::Profile::before_rack_moved, this,
                             [this](std::size_t from, std::size_t to) {
                                 if (to != from && to != from + 1)
                                     beginMoveRows({}, int(from), int(from), {}, int(to));
                             });
    m_connections << connect(profile, &model::Profile::rack_moved, this, [this](std::size_t from, std::size_t to) {
        if (to != from && to != from + 1)
            endMoveRows();
    });
    for (const QUuid &id : profile->ids())
        watch_rack(id);
}

void RacksPanelViewModel::detach()
{
    for (const auto &c : std::as_const(m_connections))
        disconnect(c);
    m_connections.clear();
    for (const auto &list : std::as_const(m_rack_connections))
        for (const auto &c : list)
            disconnect(c);
    m_rack_connections.clear();
}

void RacksPanelViewModel::watch_rack(const QUuid &id)
{
    model::Rack *rack = m_context.project->find_rack(id);
    if (!rack)
        return;
    auto &list = m_rack_connections[id];
    list << connect(rack, &model::Rack::name_changed, this, [this, id] { rack_changed(id); });
    list << connect(rack, &model::Rack::is_enabled_changed, this, [this, id] { rack_changed(id); });
}

void RacksPanelViewModel::rack_changed(const QUuid &id)
{
    const int row = row_of(id);
    if (row >= 0)
        Q_EMIT dataChanged(index(row), index(row));
}

QUuid RacksPanelViewModel::rack_at(int row) const
{
    if (!m_context.project || row < 0 || row >= rowCount())
        return {};
    return m_context.project->profile()->at(std::size_t(row));
}

int RacksPanelViewModel::row_of(const QUuid &rack) const
{
    return m_context.project && !rack.isNull() ? int(m_context.project->profile()->index_of(rack)) : -1;
}

QUuid RacksPanelViewModel::add_rack(int row)
{
    if (!m_context.project || !m_context.commands)
        return {};
    const int count = rowCount();
    const std::size_t index = std::size_t(row < 0 || row > count ? count : row);
    auto command =
        std::make_unique<engine::AddRackCommand>(m_context.project, index, m_context.project->new_rack_name());
    const QUuid id = command->rack_id();
    m_context.commands->execute(std::move(command), CORV_TR_KEY("Edit.AddRack"));
    return m_context.project->find_rack(id) ? id : QUuid();
}

bool RacksPanelViewModel::rename_rack(const QUuid &rack, const QString &name)
{
    model::Rack *r = m_context.project ? m_context.project->find_rack(rack) : nullptr;
    if (!r || !m_context.commands || r->name() == name)
        return false;
    m_context.commands->execute(std::make_unique<engine::RenameRackCommand>(m_context.project, rack, name),
                                CORV_TR_KEY("Edit.RenameRack"));
    return true;
}

bool RacksPanelViewModel::set_rack_enabled(const QUuid &rack, bool enabled)
{
    model::Rack *r = m_context.project ? m_context.project->find_rack(rack) : nullptr;
    if (!r || !m_context.commands || r->is_enabled() == enabled)
        return false;
    m_context.commands->execute(std::make_unique<engine::SetRackEnabledCommand>(m_context.project, rack, enabled),
                                enabled ? CORV_TR_KEY("Edit.EnableRack") : CORV_TR_KEY("Edit.DisableRack"));
    return true;
}

bool RacksPanelViewModel::set_racks_enabled(const QList<QUuid> &racks, bool enabled)
{
    if (!m_context.project || !m_context.commands)
        return false;
    auto composite = std::make_unique<engine::CompositeCommand>();
    for (const QUuid &id : racks) {
        const model::Rack *rack = m_context.project->find_rack(id);
        if (rack && rack->is_enabled() != enabled)
            composite->append(std::make_unique<engine::SetRackEnabledCommand>(m_context.project, id, enabled));
    }
    if (composite->empty())
        return false;
    m_context.commands->execute(std::move(composite),
                                enabled ? CORV_TR_KEY("Edit.EnableRack") : CORV_TR_KEY("Edit.DisableRack"));
    return true;
}

bool RacksPanelViewModel::remove_racks(const QList<QUuid> &racks, const char *name)
{
    if (!m_context.project || !m_context.commands)
        return false;
    auto composite = std::make_unique<engine::CompositeCommand>();
    for (const QUuid &id : racks) {
        if (row_of(id) >= 0)
            composite->append(std::make_unique<engine::RemoveRackCommand>(m_context.project, id));
    }
    if (composite->empty())
        return false;
    m_context.commands->execute(std::move(composite), name);
    return true;
}

bool RacksPanelViewModel::move_racks(const QList<QUuid> &racks, int dest_row)
{
    if (!m_context.project || !m_context.commands)
        return false;
    const QList<QUuid> &ids = m_context.project->profile()->ids();
    QList<QUuid> ordered;
    for (const QUuid &id : ids) {
        if (racks.contains(id))
            ordered.append(id);
    }
    const qsizetype dest = dest_row < 0 || dest_row > ids.size() ? ids.size() : dest_row;
    std::vector<engine::Move> moves;
    for (const PlannedMove &m : plan_moves(ids, ordered, dest)) {
        if (m.to != m.from && m.to != m.from + 1)
            moves.push_back({std::size_t(m.from), std::size_t(m.to)});
    }
    if (moves.empty())
        return false;
    m_context.commands->execute(std::make_unique<engine::MoveRacksCommand>(m_context.project, std::move(moves)),
                                CORV_TR_KEY("Edit.MoveRack"));
    return true;
}

bool RacksPanelViewModel::move_nodes_to_rack(const QList<QUuid> &nodes, const QUuid &rack)
{
    model::Project *project = m_context.project;
    model::Rack *target = project ? project->find_rack(rack) : nullptr;
    if (!target || !m_context.commands)
        return false;
    // The source lists as the moves before each one leave them.
    QHash<std::pair<QUuid, QUuid>, QList<QUuid>> lists;
    std::size_t at = target->top_level()->count();
    std::vector<engine::NodeMove> moves;
    for (const QUuid &id : nodes) {
        const std::optional<engine::NodePlace> place = engine::find_node_place(*project, id);
        if (!place)
            continue;
        const std::pair<QUuid, QUuid> key{place->rack, place->parent};
        auto it = lists.find(key);
        if (it == lists.end())
            it = lists.insert(key, project->children_of(place->rack, place->parent)->ids());
        const qsizetype from = it->indexOf(id);
        if (place->rack == rack && place->parent.isNull()) {
            // Already at this rack's top level: to its end.
            moves.push_back({{rack, {}, std::size_t(from)}, {rack, {}, std::size_t(it->size())}});
            it->move(from, it->size() - 1);
            continue;
        }
        moves.push_back({{place->rack, place->parent, std::size_t(from)}, {rack, {}, at++}});
        it->removeAt(from);
    }
    if (moves.empty())
        return false;
    m_context.commands->execute(std::make_unique<engine::MoveNodesCommand>(project, std::move(moves)),
                                CORV_TR_KEY("Edit.MoveNode"));
    return true;
}

QMimeData *RacksPanelViewModel::copy_racks(const QList<QUuid> &racks) const
{
    if (!m_context.project)
        return nullptr;
    QList<QUuid> ordered;
    for (const QUuid &id : m_context.project->profile()->ids()) {
        if (racks.contains(id))
            ordered.append(id);
    }
    if (ordered.isEmpty())
        return nullptr;
    const engine::WriteResult written = engine::write_racks_clipboard(*m_context.project, ordered);
    if (!written.ok())
        return nullptr;
    auto *data = new QMimeData;
    data->setData(QString::fromLatin1(kRackListXmlMime), written.document);
    return data;
}

bool RacksPanelViewModel::can_paste(const QMimeData *data)
{
    return data && data->hasFormat(QString::fromLatin1(kRackListXmlMime));
}

QList<QUuid> RacksPanelViewModel::paste_racks(const QMimeData *data, int row, const char *name)
{
    if (!m_context.project || !m_context.commands || !can_paste(data))
        return {};
    const int count = rowCount();
    const std::size_t index = std::size_t(row < 0 || row > count ? count : row);
    engine::CommandPtr command =
        engine::paste_racks_command(data->data(QString::fromLatin1(kRackListXmlMime)), *m_context.project, index);
    if (!command)
        return {};
    const QList<QUuid> before = m_context.project->profile()->ids();
    m_context.commands->execute(std::move(command), name);
    QList<QUuid> pasted;
    for (const QUuid &id : m_context.project->profile()->ids()) {
        if (!before.contains(id))
            pasted.append(id);
    }
    return pasted;
}

void RacksPanelViewModel::set_selected_rack(const QUuid &rack)
{
    const QUuid valid = row_of(rack) >= 0 ? rack : QUuid();
    if (valid == m_selected)
        return;
    m_selected = valid;
    Q_EMIT selected_rack_changed(m_selected);
}

int RacksPanelViewModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() || !m_context.project ? 0 : int(m_context.project->profile()->count());
}

QVariant RacksPanelViewModel::data(const QModelIndex &index, int role) const
{
    const model::Rack *rack = m_context.project ? m_context.project->find_rack(rack_at(index.row())) : nullptr;
    if (!rack || index.column() != 0)
        return {};
    switch (role) {
    case Qt::DisplayRole:
    case Qt::EditRole:
        return rack->name();
    case Qt::ToolTipRole:
        return rack->name() + u'\n' + status_of(rack_at(index.row()));
    case Qt::ForegroundRole:
        if (!rack->is_enabled())
            return QGuiApplication::palette().brush(QPalette::Disabled, QPalette::Text);
        return {};
    case Qt::FontRole:
        if (!rack->is_enabled()) {
            QFont font;
            font.setItalic(true);
            return font;
        }
        return {};
    case IdRole:
        return QVariant::fromValue(rack_at(index.row()));
    case EnabledRole:
        return rack->is_enabled();
    case StatusRole:
        return status_of(rack_at(index.row()));
    default:
        return {};
    }
}

bool RacksPanelViewModel::setData(const QModelIndex &index, const QVariant &value, int role)
{
    if (role == Qt::EditRole)
        return rename_rack(rack_at(index.row()), value.toString());
    if (role == EnabledRole)
        return set_rack_enabled(rack_at(index.row()), value.toBool());
    return false;
}

Qt::ItemFlags RacksPanelViewModel::flags(const QModelIndex &index) const
{
    if (!index.isValid())
        return Qt::ItemIsDropEnabled;
    return Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemIsEditable | Qt::ItemIsDragEnabled |
           Qt::ItemIsDropEnabled;
}

QStringList RacksPanelViewModel::mimeTypes() const
{
    return {QString::fromLatin1(kModelRowsMime), QString::fromLatin1(kRackListXmlMime),
            QString::fromLatin1(kNodeListMime)};
}

QMimeData *RacksPanelViewModel::mimeData(const QModelIndexList &indexes) const
{
    QList<int> rows;
    QList<QUuid> racks;
    for (const QModelIndex &index : indexes) {
        if (index.isValid() && !rows.contains(index.row()))
            rows.append(index.row());
    }
    std::sort(rows.begin(), rows.end());
    for (int row : std::as_const(rows))
        racks.append(rack_at(row));
    QMimeData *data = copy_racks(racks);
    if (!data)
        return nullptr;
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream << int(rows.size());
    for (int row : std::as_const(rows))
        stream << row;
    data->setData(QString::fromLatin1(kModelRowsMime), bytes);
    return data;
}

Qt::DropActions RacksPanelViewModel::supportedDropActions() const
{
    return Qt::MoveAction | Qt::CopyAction;
}

Qt::DropActions RacksPanelViewModel::supportedDragActions() const
{
    return Qt::MoveAction | Qt::CopyAction;
}

bool RacksPanelViewModel::canDropMimeData(const QMimeData *data, Qt::DropAction action, int row, int,
                                          const QModelIndex &parent) const
{
    if (!data || !m_context.project)
        return false;
    // Nodes dragged onto a rack.
    if (data->hasFormat(QString::fromLatin1(kNodeListMime)))
        return action == Qt::MoveAction && row < 0 && parent.isValid();
    if (action == Qt::MoveAction)
        return data->hasFormat(QString::fromLatin1(kModelRowsMime));
    return can_paste(data);
}

bool RacksPanelViewModel::dropMimeData(const QMimeData *data, Qt::DropAction action, int row, int,
                                       const QModelIndex &parent)
{
    if (!canDropMimeData(data, action, row, 0, parent))
        return false;
    if (data->hasFormat(QString::fromLatin1(kNodeListMime))) {
        QDataStream stream(data->data(QString::fromLatin1(kNodeListMime)));
        int count = 0;
        stream >> count;
        QList<QUuid> nodes;
        for (int i = 0; i < count && stream.status() == QDataStream::Ok; ++i) {
            QUuid id;
            stream >> id;
            nodes.append(id);
        }
        return move_nodes_to_rack(nodes, rack_at(parent.row()));
    }
    // Dropped on a rack: before it.
    if (row < 0 && parent.isValid())
        row = parent.row();
    if (action == Qt::CopyAction)
        return !paste_racks(data, row, CORV_TR_KEY("Edit.CopyRack")).isEmpty();
    QDataStream stream(data->data(QString::fromLatin1(kModelRowsMime)));
    int count = 0;
    stream >> count;
    QList<QUuid> racks;
    for (int i = 0; i < count && stream.status() == QDataStream::Ok; ++i) {
        int r = -1;
        stream >> r;
        if (rack_at(r).isNull())
            return false;
        racks.append(rack_at(r));
    }
    // The racks are moved here; the view's removal of the dragged rows
    // afterwards is refused (the model has no removeRows).
    move_racks(racks, row);
    return true;
}

} // namespace corv::widgets
