#include "widgets/hotkeys_view_model.h"

#include "engine/node_instance.h"
#include "engine/node_manager.h"
#include "engine/node_registry.h"
#include "engine/project_runtime.h"
#include "input/hotkey.h"
#include "locale/translate.h"
#include "model/project.h"
#include "model/property.h"
#include "persistence/command_manager.h"

#include <QApplication>
#include <QColor>
#include <QHash>
#include <QPalette>
#include <QPixmap>
#include <QSet>
#include <QStyle>

#include <functional>
#include <optional>
#include <string_view>

namespace corv::widgets {

namespace {

// Two texts that name one combination ("ctrl+k", "Ctrl+K") are one hotkey.
QString identity_of(const QString &text)
{
    if (text.isEmpty())
        return {};
    const QByteArray utf8 = text.toUtf8();
    const std::optional<input::Hotkey> hotkey =
        input::parse_hotkey(std::string_view(utf8.constData(), std::size_t(utf8.size())));
    if (!hotkey)
        return u'?' + text;
    if (hotkey->empty())
        return {};
    return QString::number(hotkey->key) + u'+' + QString::number(hotkey->mask);
}

} // namespace

HotkeysViewModel::HotkeysViewModel(QObject *parent) : QAbstractTableModel(parent)
{
    m_refresh.setSingleShot(true);
    m_refresh.setInterval(0);
    connect(&m_refresh, &QTimer::timeout, this, &HotkeysViewModel::refresh);
}

HotkeysViewModel::~HotkeysViewModel()
{
    for (const QMetaObject::Connection &c : std::as_const(m_project_connections))
        disconnect(c);
    for (const QMetaObject::Connection &c : std::as_const(m_row_connections))
        disconnect(c);
}

void HotkeysViewModel::set_context(const PanelContext &context)
{
    for (const QMetaObject::Connection &c : std::as_const(m_project_connections))
        disconnect(c);
    m_project_connections.clear();
    m_context = context;
    m_node_icon = QIcon();
    watch_project();
    refresh();
}

void HotkeysViewModel::set_listening(bool on)
{
    if (on == m_listening)
        return;
    m_listening = on;
    watch_project();
    if (on)
        refresh();
}

void HotkeysViewModel::watch_project()
{
    for (const QMetaObject::Connection &c : std::as_const(m_project_connections))
        disconnect(c);
    m_project_connections.clear();
    if (!m_listening)
        return;
    if (m_context.commands)
        m_project_connections << connect(m_context.commands, &engine::CommandManager::changed, this,
                                         &HotkeysViewModel::schedule);
    if (engine::ProjectRuntime *runtime = m_context.runtime) {
        using R = engine::ProjectRuntime;
        for (auto signal : {&R::rack_added, &R::rack_removed, &R::node_added, &R::node_removed})
            m_project_connections << connect(runtime, signal, this, &HotkeysViewModel::schedule);
    }
}

void HotkeysViewModel::schedule()
{
    m_refresh.start();
}

QList<HotkeysViewModel::Row> HotkeysViewModel::read_rows()
{
    QList<Row> rows;
    const model::Project *project = m_context.project;
    if (!project)
        return rows;
    const QString type = QString::fromLatin1(kHotkeyType);
    const QString key = QString::fromLatin1(kHotkeyKey);
    for (const QUuid &rack_id : project->profile()->ids()) {
        const model::Rack *rack = project->find_rack(rack_id);
        if (!rack)
            continue;
        const std::function<void(const model::Children *)> walk = [&](const model::Children *list) {
            for (const QUuid &id : list->ids()) {
                const model::Node *node = project->find_node(id);
                if (!node)
                    continue;
                if (node->impl_id() == type) {
                    Row row;
                    if (const model::Property *p = node->properties().find(key))
                        row.hotkey = QString::fromUtf8(p->value().to_string());
                    row.identity = identity_of(row.hotkey);
                    row.rack = rack_id;
                    row.rack_name = rack->name();
                    row.enabled = rack->is_enabled();
                    row.node = id;
                    engine::NodeManager *manager = m_context.runtime ? m_context.runtime->find_node_manager(id) : nullptr;
                    if (engine::NodeInstance *instance = manager ? manager->instance() : nullptr)
                        row.node_name = instance->instance_name();
                    const engine::NodeDefinition *definition =
                        m_context.registry ? m_context.registry->find(type) : nullptr;
                    if (row.node_name.isEmpty())
                        row.node_name = definition ? definition->name
                                                   : locale::translate("ComponentNotLoaded.%1", type);
                    if (definition && m_node_icon.isNull() && !definition->icon.isNull())
                        m_node_icon = QIcon(QPixmap::fromImage(definition->icon));
                    rows.append(row);
                }
                walk(node->children());
            }
        };
        walk(rack->top_level());
    }
    QHash<QString, QList<int>> by_identity;
    for (int i = 0; i < rows.size(); ++i) {
        if (!rows[i].identity.isEmpty())
            by_identity[rows[i].identity].append(i);
    }
    for (const QList<int> &same : std::as_const(by_identity)) {
        if (same.size() < 2)
            continue;
        for (int i : same) {
            rows[i].duplicates = same;
            rows[i].duplicates.removeOne(i);
        }
    }
    return rows;
}

void HotkeysViewModel::refresh()
{
    m_refresh.stop();
    QList<Row> rows = read_rows();
    for (const QMetaObject::Connection &c : std::as_const(m_row_connections))
        disconnect(c);
    m_row_connections.clear();
    if (m_listening) {
        // Names and states the history does not see: a node names itself
        // after its hotkey once it has read it.
        QSet<QUuid> racks;
        for (const Row &row : std::as_const(rows)) {
            if (!racks.contains(row.rack)) {
                racks.insert(row.rack);
                model::Rack *rack = m_context.project->find_rack(row.rack);
                m_row_connections << connect(rack, &model::Rack::name_changed, this, &HotkeysViewModel::schedule);
                m_row_connections << connect(rack, &model::Rack::is_enabled_changed, this,
                                             &HotkeysViewModel::schedule);
            }
            if (engine::NodeManager *manager = m_context.runtime ? m_context.runtime->find_node_manager(row.node) : nullptr)
                m_row_connections << connect(manager, &engine::NodeManager::instance_name_changed, this,
                                             &HotkeysViewModel::schedule);
        }
    }
    if (rows == m_rows)
        return;
    if (rows.size() == m_rows.size()) {
        m_rows = std::move(rows);
        Q_EMIT dataChanged(index(0, 0), index(int(m_rows.size()) - 1, ColumnCount - 1));
        return;
    }
    beginResetModel();
    m_rows = std::move(rows);
    endResetModel();
}

int HotkeysViewModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(m_rows.size());
}

int HotkeysViewModel::columnCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : ColumnCount;
}

QVariant HotkeysViewModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= m_rows.size())
        return {};
    const Row &row = m_rows[index.row()];
    const int column = index.column();
    switch (role) {
    case Qt::DisplayRole:
        switch (column) {
        case HotkeyColumn:
            return row.hotkey.isEmpty() ? locale::translate("HotkeysPanel.NoHotkey") : row.hotkey;
        case RackColumn:
            return row.rack_name;
        case NodeColumn:
            return row.node_name;
        default:
            return {};
        }
    case Qt::CheckStateRole:
        return column == EnabledColumn ? QVariant(row.enabled ? Qt::Checked : Qt::Unchecked) : QVariant();
    case Qt::DecorationRole:
        if (column == HotkeyColumn && !row.duplicates.isEmpty())
            return QApplication::style()->standardIcon(QStyle::SP_MessageBoxWarning);
        if (column == NodeColumn)
            return m_node_icon;
        return {};
    case Qt::BackgroundRole:
        return row.duplicates.isEmpty() ? QVariant() : QVariant(QColor(255, 224, 178));
    case Qt::ForegroundRole:
        if (!row.duplicates.isEmpty())
            return QColor(Qt::black);
        return row.enabled ? QVariant() : QVariant(QApplication::palette().color(QPalette::Disabled, QPalette::Text));
    case Qt::ToolTipRole: {
        if (row.duplicates.isEmpty())
            return {};
        QStringList others;
        for (int other : row.duplicates)
            others << locale::translate("HotkeysPanel.NodeInRack.%1.%2", m_rows[other].node_name,
                                        m_rows[other].rack_name);
        return locale::translate("HotkeysPanel.UsedTwice.%1", others.join(QLatin1String(", ")));
    }
    case RackIdRole:
        return row.rack;
    case NodeIdRole:
        return row.node;
    case DuplicateRole:
        return !row.duplicates.isEmpty();
    default:
        return {};
    }
}

QVariant HotkeysViewModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole)
        return {};
    switch (section) {
    case HotkeyColumn:
        return locale::translate("HotkeysPanel.Hotkey");
    case RackColumn:
        return locale::translate("HotkeysPanel.Rack");
    case NodeColumn:
        return locale::translate("HotkeysPanel.Node");
    case EnabledColumn:
        return locale::translate("HotkeysPanel.Enabled");
    default:
        return {};
    }
}

} // namespace corv::widgets
