#include "widgets/rack_panel_view_model.h"

#include "widgets/node_type_text.h"

#include "engine/node_instance.h"
#include "engine/node_manager.h"
#include "engine/node_registry.h"
#include "engine/project_runtime.h"
#include "locale/translate.h"
#include "model/project.h"
#include "persistence/command_manager.h"
#include "persistence/model_commands.h"
#include "persistence/paste.h"
#include "persistence/writer.h"

#include <QColor>
#include <QDataStream>
#include <QIODevice>
#include <QFont>
#include <QGuiApplication>
#include <QMimeData>
#include <QPalette>
#include <QPixmap>
#include <QSet>

#include <algorithm>

namespace corv::widgets {

namespace {

constexpr quint32 kRunsChildren = 8;

// Each node of the rack's tree with the node it stands under (null for the
// top level), in tree order.
struct TreeWalk {
    QList<QUuid> order;
    QHash<QUuid, QUuid> parent;
};

TreeWalk walk_rack(const model::Project &project, const model::Rack &rack)
{
    TreeWalk walk;
    QList<std::pair<QUuid, QUuid>> stack; // node, parent
    const QList<QUuid> &top = rack.top_level()->ids();
    for (auto it = top.crbegin(); it != top.crend(); ++it)
        stack.append({*it, QUuid()});
    while (!stack.isEmpty()) {
        const auto [id, parent] = stack.takeLast();
        if (walk.parent.contains(id))
            continue;
        walk.parent.insert(id, parent);
        walk.order.append(id);
        if (const model::Node *node = project.find_node(id)) {
            const QList<QUuid> &children = node->children()->ids();
            for (auto it = children.crbegin(); it != children.crend(); ++it)
                stack.append({*it, id});
        }
    }
    return walk;
}

bool is_inside(const TreeWalk &walk, QUuid node, const QUuid &ancestor)
{
    for (int guard = 0; !node.isNull() && guard <= walk.order.size(); ++guard) {
        if (node == ancestor)
            return true;
        node = walk.parent.value(node);
    }
    return false;
}

QList<QUuid> read_node_ids(const QMimeData *data)
{
    QDataStream stream(data->data(QString::fromLatin1(kNodeListMime)));
    int count = 0;
    stream >> count;
    QList<QUuid> ids;
    for (int i = 0; i < count && stream.status() == QDataStream::Ok; ++i) {
        QUuid id;
        stream >> id;
        ids.append(id);
    }
    return stream.status() == QDataStream::Ok ? ids : QList<QUuid>();
}

} // namespace

// ---- RackPanelNodeViewModel ----

RackPanelNodeViewModel::RackPanelNodeViewModel(RackPanelViewModel &owner, RackPanelNodeViewModel *parent,
                                               const QUuid &id, model::Children *children)
    : m_owner(&owner), m_parent(parent), m_id(id), m_children(children)
{
    if (!m_id.isNull())
        owner.m_by_id.insert(m_id, this);
    connect_list();
    connect_manager();
}

RackPanelNodeViewModel::~RackPanelNodeViewModel()
{
    for (const auto &c : std::as_const(m_connections))
        QObject::disconnect(c);
    m_rows.clear();
    m_owner->forget(this);
}

int RackPanelNodeViewModel::row() const
{
    if (!m_parent)
        return 0;
    const auto &siblings = m_parent->m_rows;
    if (m_row_hint >= 0 && std::size_t(m_row_hint) < siblings.size() && siblings[std::size_t(m_row_hint)].get() == this)
        return m_row_hint;
    // Stale after a change in the list: renumber all siblings once.
    int found = -1;
    for (std::size_t i = 0; i < siblings.size(); ++i) {
        siblings[i]->m_row_hint = int(i);
        if (siblings[i].get() == this)
            found = int(i);
    }
    return found;
}

engine::NodeManager *RackPanelNodeViewModel::manager() const
{
    engine::ProjectRuntime *runtime = m_owner->m_context.runtime;
    return runtime && !m_id.isNull() ? runtime->find_node_manager(m_id) : nullptr;
}

const engine::NodeDefinition *RackPanelNodeViewModel::definition() const
{
    if (engine::NodeManager *m = manager())
        return m->definition();
    const model::Project *project = m_owner->m_context.project;
    const model::Node *node = project ? project->find_node(m_id) : nullptr;
    const engine::NodeRegistry *registry = m_owner->m_context.registry;
    return node && registry ? registry->find(node->impl_id()) : nullptr;
}

QString RackPanelNodeViewModel::name() const
{
    engine::NodeManager *m = manager();
    if (engine::NodeInstance *instance = m ? m->instance() : nullptr) {
        if (!instance->instance_name().isEmpty())
            return instance->instance_name();
    }
    if (const engine::NodeDefinition *d = definition())
        return node_type_name(*d);
    const model::Project *project = m_owner->m_context.project;
    const model::Node *node = project ? project->find_node(m_id) : nullptr;
    return locale::translate("ComponentNotLoaded.%1", node ? node->impl_id() : QString());
}

quint32 RackPanelNodeViewModel::decoration() const
{
    engine::NodeManager *m = manager();
    engine::NodeInstance *instance = m ? m->instance() : nullptr;
    return instance ? instance->decoration_mask() : 0;
}

bool RackPanelNodeViewModel::runs() const
{
    for (const RackPanelNodeViewModel *p = m_parent; p && !p->m_id.isNull(); p = p->m_parent) {
        const engine::NodeDefinition *d = p->definition();
        // Unknown nodes are passed over with their children; a type that
        // reports no decoration is taken to run them.
        if (!d || (d->get_decoration && !(p->decoration() & kRunsChildren)))
            return false;
    }
    return true;
}

model::Children *RackPanelNodeViewModel::child_list(const QUuid &id, model::Node *node) const
{
    // A node that stands inside its own subtree (a damaged file) is shown
    // once, without children, so the tree stays finite.
    for (const RackPanelNodeViewModel *p = this; p; p = p->m_parent) {
        if (p->m_id == id)
            return nullptr;
    }
    return node ? node->children() : nullptr;
}

void RackPanelNodeViewModel::populate()
{
    if (m_populated || !m_children)
        return;
    m_populated = true;
    const model::Project *project = m_owner->m_context.project;
    const QList<QUuid> &ids = m_children->ids();
    m_rows.reserve(std::size_t(ids.size()));
    for (const QUuid &id : ids) {
        model::Node *node = project->find_node(id);
        auto vm = std::make_unique<RackPanelNodeViewModel>(*m_owner, this, id, child_list(id, node));
        vm->m_row_hint = int(m_rows.size());
        m_rows.push_back(std::move(vm));
    }
}

void RackPanelNodeViewModel::connect_list()
{
    if (!m_children)
        return;
    RackPanelViewModel *owner = m_owner;
    model::Children *list = m_children;
    const auto parent_index = [this] { return m_owner->index_for(this); };
    // A list that is not shown yet stays so, except where the expand mark
    // would be wrong: its first child arriving or its last one leaving.
    m_connections << QObject::connect(list, &model::Children::before_added, owner,
                                      [this, list, parent_index](const QUuid &, std::size_t index) {
                                          if (!m_populated && list->count() == 0)
                                              m_populated = true;
                                          if (m_populated)
                                              m_owner->beginInsertRows(parent_index(), int(index), int(index));
                                      });
    m_connections << QObject::connect(list, &model::Children::added, owner, [this](const QUuid &id, std::size_t index) {
        if (!m_populated)
            return;
        model::Node *node = m_owner->m_context.project->find_node(id);
        auto vm = std::make_unique<RackPanelNodeViewModel>(*m_owner, this, id, child_list(id, node));
        vm->m_row_hint = int(index);
        m_rows.insert(m_rows.begin() + std::ptrdiff_t(index), std::move(vm));
        m_owner->endInsertRows();
    });
    m_connections << QObject::connect(list, &model::Children::before_removed, owner,
                                      [this, list, parent_index](const QUuid &, std::size_t index) {
                                          if (!m_populated && list->count() == 1) {
                                              const QModelIndex parent = parent_index();
                                              m_owner->beginInsertRows(parent, 0, 0);
                                              populate();
                                              m_owner->endInsertRows();
                                          }
                                          if (m_populated)
                                              m_owner->beginRemoveRows(parent_index(), int(index), int(index));
                                      });
    m_connections << QObject::connect(list, &model::Children::removed, owner, [this](const QUuid &, std::size_t index) {
        if (!m_populated || index >= m_rows.size())
            return;
        std::unique_ptr<RackPanelNodeViewModel> gone = std::move(m_rows[index]);
        m_rows.erase(m_rows.begin() + std::ptrdiff_t(index));
        m_owner->endRemoveRows();
    });
    m_connections << QObject::connect(list, &model::Children::before_moved, owner,
                                      [this, parent_index](std::size_t from, std::size_t to) {
                                          m_move_announced = m_populated && to != from && to != from + 1;
                                          if (m_move_announced) {
                                              const QModelIndex parent = parent_index();
                                              m_owner->beginMoveRows(parent, int(from), int(from), parent, int(to));
                                          }
                                      });
    m_connections << QObject::connect(list, &model::Children::moved, owner, [this](std::size_t from, std::size_t to) {
        if (!m_move_announced)
            return;
        m_move_announced = false;
        std::unique_ptr<RackPanelNodeViewModel> vm = std::move(m_rows[from]);
        m_rows.erase(m_rows.begin() + std::ptrdiff_t(from));
        const std::size_t at = from < to ? to - 1 : to;
        m_rows.insert(m_rows.begin() + std::ptrdiff_t(at), std::move(vm));
        m_owner->endMoveRows();
    });
}

void RackPanelNodeViewModel::connect_manager()
{
    engine::NodeManager *m = manager();
    if (!m)
        return;
    RackPanelViewModel *owner = m_owner;
    m_connections << QObject::connect(m, &engine::NodeManager::instance_name_changed, owner,
                                      [this] { m_owner->row_changed(this); });
    m_connections << QObject::connect(m, &engine::NodeManager::decoration_changed, owner, [this] {
        m_owner->row_changed(this);
        // Whether the children run may have changed with it.
        if (!m_rows.empty()) {
            const QModelIndex parent = m_owner->index_for(this);
            Q_EMIT m_owner->dataChanged(m_owner->index(0, 0, parent), m_owner->index(int(m_rows.size()) - 1, 0, parent));
        }
    });
    m_connections << QObject::connect(m, &engine::NodeManager::triggered, owner, [this] { m_owner->triggered(this); });
}

// ---- RackPanelViewModel ----

RackPanelViewModel::RackPanelViewModel(QObject *parent) : QAbstractItemModel(parent)
{
    m_flash_timer.setInterval(kFlashTickMs);
    connect(&m_flash_timer, &QTimer::timeout, this, &RackPanelViewModel::flash_tick);
}

RackPanelViewModel::~RackPanelViewModel()
{
    clear_tree();
}

void RackPanelViewModel::set_context(const PanelContext &context)
{
    beginResetModel();
    clear_tree();
    m_context = context;
    m_rack = QUuid();
    m_icons.clear();
    endResetModel();
    Q_EMIT title_changed(title());
}

void RackPanelViewModel::set_rack(const QUuid &rack)
{
    const QUuid valid = m_context.project && m_context.project->find_rack(rack) ? rack : QUuid();
    if (valid == m_rack && (valid.isNull() || m_root))
        return;
    beginResetModel();
    clear_tree();
    m_rack = valid;
    build_tree();
    endResetModel();
    Q_EMIT title_changed(title());
}

void RackPanelViewModel::build_tree()
{
    m_rack_object = m_context.project ? m_context.project->find_rack(m_rack) : nullptr;
    if (!m_rack_object)
        return;
    m_connections << connect(m_rack_object, &model::Rack::name_changed, this, [this] { Q_EMIT title_changed(title()); });
    m_connections << connect(m_rack_object, &model::Rack::is_enabled_changed, this,
                             [this] { Q_EMIT title_changed(title()); });
    m_connections << connect(m_context.project, &model::Project::rack_removed, this, [this](const QUuid &id) {
        if (id == m_rack)
            set_rack({});
    });
    m_root = std::make_unique<RackPanelNodeViewModel>(*this, nullptr, QUuid(), m_rack_object->top_level());
    m_root->populate();
}

void RackPanelViewModel::clear_tree()
{
    for (const auto &c : std::as_const(m_connections))
        disconnect(c);
    m_connections.clear();
    m_flash_timer.stop();
    for (RackPanelNodeViewModel *vm : m_flashing)
        vm->m_listed = false;
    m_flashing.clear();
    m_root.reset();
    m_by_id.clear();
    m_rack_object = nullptr;
}

void RackPanelViewModel::forget(RackPanelNodeViewModel *vm)
{
    if (!vm->m_id.isNull()) {
        auto it = m_by_id.find(vm->m_id);
        if (it != m_by_id.end() && it.value() == vm)
            m_by_id.erase(it);
    }
    if (vm->m_listed)
        m_flashing.erase(std::remove(m_flashing.begin(), m_flashing.end(), vm), m_flashing.end());
}

QString RackPanelViewModel::title() const
{
    if (!m_rack_object)
        return locale::translate("RackPanel.Title.None");
    if (!m_rack_object->is_enabled())
        return locale::translate("RackPanel.DisabledTitle.%1", m_rack_object->name());
    return locale::translate("RackPanel.Title.%1", m_rack_object->name());
}

void RackPanelViewModel::retranslate()
{
    if (m_context.project && m_context.runtime) {
        for (auto it = m_context.project->nodes().cbegin(); it != m_context.project->nodes().cend(); ++it) {
            engine::NodeManager *manager = m_context.runtime->find_node_manager(it.key());
            if (engine::NodeInstance *instance = manager ? manager->instance() : nullptr)
                instance->refresh_instance_name();
        }
    }
    Q_EMIT layoutAboutToBeChanged();
    Q_EMIT layoutChanged();
    Q_EMIT title_changed(title());
}

RackPanelNodeViewModel *RackPanelViewModel::node_view_model(const QModelIndex &index) const
{
    if (!index.isValid())
        return m_root.get();
    return static_cast<RackPanelNodeViewModel *>(index.internalPointer());
}

QUuid RackPanelViewModel::node_id(const QModelIndex &index) const
{
    return index.isValid() ? node_view_model(index)->id() : QUuid();
}

QUuid RackPanelViewModel::parent_id(const QModelIndex &index) const
{
    return node_id(index.parent());
}

QModelIndex RackPanelViewModel::index_for(const RackPanelNodeViewModel *vm) const
{
    if (!vm || !vm->m_parent)
        return {};
    return createIndex(vm->row(), 0, const_cast<RackPanelNodeViewModel *>(vm));
}

QModelIndex RackPanelViewModel::index_of(const QUuid &node)
{
    if (RackPanelNodeViewModel *vm = m_by_id.value(node))
        return index_for(vm);
    if (!m_rack_object || !m_context.project->find_node(node))
        return {};
    const TreeWalk walk = walk_rack(*m_context.project, *m_rack_object);
    if (!walk.parent.contains(node))
        return {};
    QList<QUuid> path;
    for (QUuid at = walk.parent.value(node); !at.isNull(); at = walk.parent.value(at))
        path.prepend(at);
    for (const QUuid &ancestor : std::as_const(path)) {
        RackPanelNodeViewModel *vm = m_by_id.value(ancestor);
        if (!vm)
            return {};
        const QModelIndex parent = index_for(vm);
        if (canFetchMore(parent))
            fetchMore(parent);
    }
    return index_for(m_by_id.value(node));
}

QModelIndex RackPanelViewModel::index(int row, int column, const QModelIndex &parent) const
{
    const RackPanelNodeViewModel *vm = node_view_model(parent);
    if (!vm || column != 0 || row < 0 || std::size_t(row) >= vm->m_rows.size())
        return {};
    RackPanelNodeViewModel *child = vm->m_rows[std::size_t(row)].get();
    child->m_row_hint = row;
    return createIndex(row, 0, child);
}

QModelIndex RackPanelViewModel::parent(const QModelIndex &child) const
{
    if (!child.isValid())
        return {};
    return index_for(node_view_model(child)->m_parent);
}

int RackPanelViewModel::rowCount(const QModelIndex &parent) const
{
    const RackPanelNodeViewModel *vm = node_view_model(parent);
    return vm && parent.column() <= 0 ? int(vm->m_rows.size()) : 0;
}

int RackPanelViewModel::columnCount(const QModelIndex &) const
{
    return 1;
}

bool RackPanelViewModel::hasChildren(const QModelIndex &parent) const
{
    const RackPanelNodeViewModel *vm = node_view_model(parent);
    if (!vm)
        return false;
    if (vm->m_populated)
        return !vm->m_rows.empty();
    return vm->m_children && vm->m_children->count() > 0;
}

bool RackPanelViewModel::canFetchMore(const QModelIndex &parent) const
{
    const RackPanelNodeViewModel *vm = node_view_model(parent);
    return vm && !vm->m_populated && vm->m_children && vm->m_children->count() > 0;
}

void RackPanelViewModel::fetchMore(const QModelIndex &parent)
{
    RackPanelNodeViewModel *vm = node_view_model(parent);
    if (!canFetchMore(parent))
        return;
    beginInsertRows(parent, 0, int(vm->m_children->count()) - 1);
    vm->populate();
    endInsertRows();
}

QIcon RackPanelViewModel::icon_of(const engine::NodeDefinition *definition) const
{
    if (!definition || definition->icon.isNull())
        return {};
    auto it = m_icons.find(definition);
    if (it == m_icons.end()) {
        // Scaled once: the registry's images are larger than a row.
        const QImage &image = definition->icon;
        QIcon icon;
        for (int size : {16, 32})
            icon.addPixmap(QPixmap::fromImage(image.scaled(size, size, Qt::KeepAspectRatio, Qt::SmoothTransformation)));
        it = m_icons.insert(definition, icon);
    }
    return it.value();
}

namespace {
RackPanelViewModel::IdleNote &idle_note()
{
    static RackPanelViewModel::IdleNote note;
    return note;
}

QString idle_note_for(const engine::NodeDefinition *definition)
{
    return definition && idle_note() ? idle_note()(definition->id) : QString();
}

// A decoration bit, whether the mark shows while it is set or while it is
// clear, the mark's glyph and the locale key of its meaning.
struct Mark {
    quint32 bit;
    bool when_set;
    char16_t glyph;
    const char *key;
};
constexpr Mark kMarks[] = {
    {2, false, 0x25C9, "RackPanel.Decoration.Source"},        // takes nothing from its parent
    {1, true, 0x2192, "RackPanel.Decoration.PassesOn"},       // passes straight on
    {4, true, 0x21E2, "RackPanel.Decoration.PassesOnLater"},  // passes on later or changed
    {8, true, 0x21B3, "RackPanel.Decoration.RunsChildren"},   // runs its children
    {32, true, 0x21B0, "RackPanel.Decoration.ReturnsChildren"}, // passes on what they return
};

bool shows(const Mark &mark, quint32 decoration)
{
    return ((decoration & mark.bit) != 0) == mark.when_set;
}
} // namespace

void RackPanelViewModel::set_idle_note(IdleNote note)
{
    idle_note() = std::move(note);
}

QString RackPanelViewModel::mark_glyphs(quint32 decoration)
{
    QString glyphs;
    for (const Mark &mark : kMarks) {
        if (shows(mark, decoration))
            glyphs += QChar(mark.glyph);
    }
    return glyphs;
}

QStringList RackPanelViewModel::mark_texts(quint32 decoration)
{
    QStringList texts;
    for (const Mark &mark : kMarks) {
        if (shows(mark, decoration))
            texts << locale::translate(mark.key);
    }
    return texts;
}

QVariant RackPanelViewModel::data(const QModelIndex &index, int role) const
{
    const RackPanelNodeViewModel *vm = index.isValid() ? node_view_model(index) : nullptr;
    if (!vm)
        return {};
    switch (role) {
    case Qt::DisplayRole:
        return vm->name();
    case Qt::DecorationRole:
        return icon_of(vm->definition());
    case Qt::ToolTipRole: {
        const engine::NodeDefinition *d = vm->definition();
        QStringList lines;
        lines << (d ? node_type_name(*d) : vm->name());
        const quint32 mask = vm->decoration();
        if (d && d->get_decoration)
            lines << mark_texts(mask);
        if (!vm->runs())
            lines << locale::translate("RackPanel.ChildrenNeverRun");
        if (vm->manager() && vm->manager()->is_held())
            lines << locale::translate("RackPanel.Held");
        if (const QString idle = idle_note_for(d); !idle.isEmpty())
            lines << idle;
        return lines.join(u'\n');
    }
    case Qt::ForegroundRole:
        if (!vm->runs() || !vm->is_loaded() || (vm->manager() && vm->manager()->is_held()))
            return QGuiApplication::palette().brush(QPalette::Disabled, QPalette::Text);
        return {};
    case Qt::FontRole:
        if (!vm->is_loaded()) {
            QFont font;
            font.setItalic(true);
            return font;
        }
        return {};
    case Qt::BackgroundRole:
        if (vm->m_flashing)
            return QColor(255, 196, 0, 110);
        return {};
    case IdRole:
        return QVariant::fromValue(vm->id());
    case DecorationMaskRole: {
        const engine::NodeDefinition *d = vm->definition();
        // A type without the callback reports nothing; show it as neither
        // a source nor anything else.
        return d && d->get_decoration ? vm->decoration() : quint32(2);
    }
    case FlashRole:
        return vm->m_flashing;
    case LoadedRole:
        return vm->is_loaded();
    case RunsRole:
        return vm->runs();
    case IdleRole:
        return idle_note_for(vm->definition());
    default:
        return {};
    }
}

Qt::ItemFlags RackPanelViewModel::flags(const QModelIndex &index) const
{
    if (!index.isValid())
        return m_root ? Qt::ItemIsDropEnabled : Qt::NoItemFlags;
    return Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemIsDragEnabled | Qt::ItemIsDropEnabled;
}

void RackPanelViewModel::row_changed(RackPanelNodeViewModel *vm)
{
    const QModelIndex index = index_for(vm);
    if (index.isValid())
        Q_EMIT dataChanged(index, index);
}

void RackPanelViewModel::triggered(RackPanelNodeViewModel *vm)
{
    // Called on every hop: only note it; the timer repaints.
    vm->m_trigger_tick = m_tick;
    if (!vm->m_listed) {
        vm->m_listed = true;
        m_flashing.push_back(vm);
        if (!m_flash_timer.isActive())
            m_flash_timer.start();
    }
}

void RackPanelViewModel::flash_tick()
{
    ++m_tick;
    // Rows whose flash starts or ends, gathered per parent into one range.
    QHash<RackPanelNodeViewModel *, std::pair<int, int>> changed;
    const auto note = [&changed](RackPanelNodeViewModel *vm) {
        const int row = vm->row();
        auto it = changed.find(vm->m_parent);
        if (it == changed.end())
            changed.insert(vm->m_parent, {row, row});
        else
            it.value() = {std::min(it->first, row), std::max(it->second, row)};
    };
    std::size_t kept = 0;
    for (RackPanelNodeViewModel *vm : m_flashing) {
        const bool lit = m_tick - vm->m_trigger_tick <= kFlashTicks;
        if (lit != vm->m_flashing) {
            vm->m_flashing = lit;
            note(vm);
        }
        if (lit)
            m_flashing[kept++] = vm;
        else
            vm->m_listed = false;
    }
    m_flashing.resize(kept);
    if (m_flashing.empty())
        m_flash_timer.stop();
    for (auto it = changed.cbegin(); it != changed.cend(); ++it) {
        const QModelIndex parent = index_for(it.key());
        Q_EMIT dataChanged(index(it->first, 0, parent), index(it->second, 0, parent),
                           {Qt::BackgroundRole, FlashRole});
    }
}

QList<QUuid> RackPanelViewModel::top_nodes(const QList<QUuid> &nodes) const
{
    if (!m_rack_object || nodes.isEmpty())
        return {};
    const QSet<QUuid> wanted(nodes.cbegin(), nodes.cend());
    const TreeWalk walk = walk_rack(*m_context.project, *m_rack_object);
    QList<QUuid> tops;
    for (const QUuid &id : walk.order) {
        if (!wanted.contains(id))
            continue;
        bool covered = false;
        for (QUuid at = walk.parent.value(id); !at.isNull() && !covered; at = walk.parent.value(at))
            covered = wanted.contains(at);
        if (!covered)
            tops.append(id);
    }
    return tops;
}

QUuid RackPanelViewModel::add_node(const QString &impl_id, const QUuid &parent, int row)
{
    if (!m_rack_object || !m_context.commands)
        return {};
    model::Children *list = m_context.project->children_of(m_rack, parent);
    if (!list)
        return {};
    const std::size_t index = row < 0 || std::size_t(row) > list->count() ? list->count() : std::size_t(row);
    auto command = std::make_unique<engine::AddNodeCommand>(m_context.project, engine::NodePlace{m_rack, parent, index},
                                                            impl_id);
    const QUuid id = command->node_id();
    m_context.commands->execute(std::move(command), CORV_TR_KEY("Edit.AddNode"));
    return m_context.project->find_node(id) ? id : QUuid();
}

QUuid RackPanelViewModel::replace_node(const QUuid &node, const QString &impl_id)
{
    if (!m_rack_object || !m_context.commands)
        return {};
    const TreeWalk walk = walk_rack(*m_context.project, *m_rack_object);
    model::Node *old = m_context.project->find_node(node);
    if (!old || !walk.parent.contains(node))
        return {};
    const QUuid parent = walk.parent.value(node);
    const std::size_t index = std::size_t(m_context.project->children_of(m_rack, parent)->index_of(node));
    auto composite = std::make_unique<engine::CompositeCommand>();
    auto add = std::make_unique<engine::AddNodeCommand>(m_context.project, engine::NodePlace{m_rack, parent, index},
                                                        impl_id);
    const QUuid id = add->node_id();
    composite->append(std::move(add));
    std::vector<engine::NodeMove> moves;
    for (std::size_t k = 0; k < old->children()->count(); ++k)
        moves.push_back({{m_rack, node, 0}, {m_rack, id, k}});
    if (!moves.empty())
        composite->append(std::make_unique<engine::MoveNodesCommand>(m_context.project, std::move(moves)));
    composite->append(std::make_unique<engine::RemoveNodeCommand>(m_context.project,
                                                                  engine::NodePlace{m_rack, parent, index + 1}));
    m_context.commands->execute(std::move(composite), CORV_TR_KEY("Edit.ReplaceNode"));
    return m_context.project->find_node(id) ? id : QUuid();
}

bool RackPanelViewModel::remove_nodes(const QList<QUuid> &nodes, const char *name)
{
    if (!m_rack_object || !m_context.commands)
        return false;
    const QList<QUuid> tops = top_nodes(nodes);
    const TreeWalk walk = walk_rack(*m_context.project, *m_rack_object);
    auto composite = std::make_unique<engine::CompositeCommand>();
    // Last first, so the places of the earlier ones stay right.
    for (auto it = tops.crbegin(); it != tops.crend(); ++it) {
        const QUuid parent = walk.parent.value(*it);
        const qsizetype index = m_context.project->children_of(m_rack, parent)->index_of(*it);
        composite->append(std::make_unique<engine::RemoveNodeCommand>(
            m_context.project, engine::NodePlace{m_rack, parent, std::size_t(index)}));
    }
    if (composite->empty())
        return false;
    m_context.commands->execute(std::move(composite), name);
    return true;
}

bool RackPanelViewModel::move_nodes(const QList<QUuid> &nodes, const QUuid &parent, int row)
{
    if (!m_rack_object || !m_context.commands)
        return false;
    model::Children *dest = m_context.project->children_of(m_rack, parent);
    if (!dest)
        return false;
    const TreeWalk walk = walk_rack(*m_context.project, *m_rack_object);
    if (!parent.isNull() && !walk.parent.contains(parent))
        return false;
    // The lists as the moves before each one leave them.
    QHash<QUuid, QList<QUuid>> lists;
    const auto list_of = [&](const QUuid &p) -> QList<QUuid> & {
        auto it = lists.find(p);
        if (it == lists.end())
            it = lists.insert(p, m_context.project->children_of(m_rack, p)->ids());
        return it.value();
    };
    qsizetype at = row < 0 || std::size_t(row) > dest->count() ? qsizetype(dest->count()) : row;
    std::vector<engine::NodeMove> moves;
    for (const QUuid &id : top_nodes(nodes)) {
        if (is_inside(walk, parent, id))
            continue; // into its own subtree
        const QUuid from_parent = walk.parent.value(id);
        QList<QUuid> &source = list_of(from_parent);
        const qsizetype from = source.indexOf(id);
        if (from_parent == parent) {
            if (at != from && at != from + 1)
                moves.push_back({{m_rack, parent, std::size_t(from)}, {m_rack, parent, std::size_t(at)}});
            source.move(from, from < at ? at - 1 : at);
            if (from >= at)
                ++at;
        } else {
            moves.push_back({{m_rack, from_parent, std::size_t(from)}, {m_rack, parent, std::size_t(at)}});
            source.removeAt(from);
            list_of(parent).insert(at, id);
            ++at;
        }
    }
    if (moves.empty())
        return false;
    m_context.commands->execute(std::make_unique<engine::MoveNodesCommand>(m_context.project, std::move(moves)),
                                CORV_TR_KEY("Edit.MoveNode"));
    return true;
}

QMimeData *RackPanelViewModel::copy_nodes(const QList<QUuid> &nodes) const
{
    const QList<QUuid> tops = top_nodes(nodes);
    if (tops.isEmpty())
        return nullptr;
    const engine::WriteResult written = engine::write_nodes_clipboard(*m_context.project, tops);
    if (!written.ok())
        return nullptr;
    auto *data = new QMimeData;
    data->setData(QString::fromLatin1(kNodeListXmlMime), written.document);
    return data;
}

bool RackPanelViewModel::can_paste(const QMimeData *data)
{
    return data && data->hasFormat(QString::fromLatin1(kNodeListXmlMime));
}

QList<QUuid> RackPanelViewModel::paste_nodes(const QMimeData *data, const QUuid &parent, int row, const char *name)
{
    if (!m_rack_object || !m_context.commands || !can_paste(data))
        return {};
    model::Children *list = m_context.project->children_of(m_rack, parent);
    if (!list)
        return {};
    const std::size_t index = row < 0 || std::size_t(row) > list->count() ? list->count() : std::size_t(row);
    engine::CommandPtr command = engine::paste_nodes_command(data->data(QString::fromLatin1(kNodeListXmlMime)),
                                                             *m_context.project, {m_rack, parent, index});
    if (!command)
        return {};
    const std::size_t before = list->count();
    m_context.commands->execute(std::move(command), name);
    QList<QUuid> pasted;
    for (std::size_t i = index; i < index + (list->count() - before); ++i)
        pasted.append(list->at(i));
    return pasted;
}

QStringList RackPanelViewModel::mimeTypes() const
{
    return {QString::fromLatin1(kNodeListMime), QString::fromLatin1(kModelRowsMime),
            QString::fromLatin1(kNodeListXmlMime)};
}

QMimeData *RackPanelViewModel::mimeData(const QModelIndexList &indexes) const
{
    QList<QUuid> ids;
    QList<int> rows;
    for (const QModelIndex &index : indexes) {
        const QUuid id = node_id(index);
        if (!id.isNull() && !ids.contains(id)) {
            ids.append(id);
            rows.append(index.row());
        }
    }
    QMimeData *data = copy_nodes(ids);
    if (!data)
        return nullptr;
    const QList<QUuid> tops = top_nodes(ids);
    QByteArray node_bytes;
    QDataStream nodes(&node_bytes, QIODevice::WriteOnly);
    nodes << int(tops.size());
    for (const QUuid &id : tops)
        nodes << id;
    data->setData(QString::fromLatin1(kNodeListMime), node_bytes);
    QByteArray row_bytes;
    QDataStream row_stream(&row_bytes, QIODevice::WriteOnly);
    row_stream << int(rows.size());
    for (int row : std::as_const(rows))
        row_stream << row;
    data->setData(QString::fromLatin1(kModelRowsMime), row_bytes);
    return data;
}

Qt::DropActions RackPanelViewModel::supportedDropActions() const
{
    return Qt::MoveAction | Qt::CopyAction;
}

Qt::DropActions RackPanelViewModel::supportedDragActions() const
{
    return Qt::MoveAction | Qt::CopyAction;
}

bool RackPanelViewModel::canDropMimeData(const QMimeData *data, Qt::DropAction action, int, int,
                                         const QModelIndex &) const
{
    if (!data || !m_rack_object)
        return false;
    if (action == Qt::MoveAction && data->hasFormat(QString::fromLatin1(kNodeListMime))) {
        const QList<QUuid> ids = read_node_ids(data);
        return !ids.isEmpty() && std::all_of(ids.cbegin(), ids.cend(), [this](const QUuid &id) {
            return m_context.project->find_node(id) != nullptr;
        });
    }
    return can_paste(data);
}

bool RackPanelViewModel::dropMimeData(const QMimeData *data, Qt::DropAction action, int row, int column,
                                      const QModelIndex &parent)
{
    if (!canDropMimeData(data, action, row, column, parent))
        return false;
    // Dropped onto a row: as its last child.
    const QUuid parent_node = node_id(parent);
    if (action == Qt::MoveAction && data->hasFormat(QString::fromLatin1(kNodeListMime))) {
        // Nodes of another rack are not in this tree; they travel as a copy.
        const QList<QUuid> ids = read_node_ids(data);
        const QList<QUuid> tops = top_nodes(ids);
        if (tops.size() == ids.size()) {
            // The view's removal of the dragged rows afterwards is refused
            // (the model has no removeRows): the move is already done.
            if (move_nodes(tops, parent_node, row))
                Q_EMIT nodes_dropped(tops);
            return true;
        }
    }
    const QList<QUuid> pasted = paste_nodes(data, parent_node, row, CORV_TR_KEY("Edit.CopyNode"));
    if (!pasted.isEmpty())
        Q_EMIT nodes_dropped(pasted);
    return !pasted.isEmpty();
}

} // namespace corv::widgets
