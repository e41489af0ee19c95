#pragma once

#include <functional>

#include "widgets/racks_panel_view_model.h"

#include <QAbstractItemModel>
#include <QHash>
#include <QIcon>
#include <QMetaObject>
#include <QTimer>
#include <QUuid>

#include <memory>
#include <vector>

namespace corv::model {
class Children;
class Node;
class Rack;
} // namespace corv::model

namespace corv::engine {
class NodeManager;
struct NodeDefinition;
} // namespace corv::engine

namespace corv::widgets {

class RackPanelViewModel;

// One row of the rack panel: a node of the shown rack. Rows are made when
// their parent row is first expanded (the top level at once), so a large
// rack costs only what is shown.
class RackPanelNodeViewModel
{
public:
    RackPanelNodeViewModel(RackPanelViewModel &owner, RackPanelNodeViewModel *parent, const QUuid &id,
                           model::Children *children);
    ~RackPanelNodeViewModel();
    RackPanelNodeViewModel(const RackPanelNodeViewModel &) = delete;
    RackPanelNodeViewModel &operator=(const RackPanelNodeViewModel &) = delete;

    // Null for the rack's own row (the root).
    const QUuid &id() const { return m_id; }
    RackPanelNodeViewModel *parent() const { return m_parent; }
    model::Children *children_list() const { return m_children; }
    bool is_populated() const { return m_populated; }
    const std::vector<std::unique_ptr<RackPanelNodeViewModel>> &rows() const { return m_rows; }
    // This row's position under its parent.
    int row() const;

    // The engine's view of the node (null without a runtime or manager).
    engine::NodeManager *manager() const;
    const engine::NodeDefinition *definition() const;
    // The shown name: the instance's name, the type's name, or the
    // not-loaded text with the type id.
    QString name() const;
    bool is_loaded() const { return definition() != nullptr; }
    // The decoration bits the instance reports (0 without an instance).
    quint32 decoration() const;
    // Whether the parent runs its children (a parent without bit 8 never does).
    bool runs() const;
    bool is_flashing() const { return m_flashing; }

private:
    friend class RackPanelViewModel;

    void populate();
    // The children list of a new row for node id under this one.
    model::Children *child_list(const QUuid &id, model::Node *node) const;
    void connect_list();
    void connect_manager();

    RackPanelViewModel *m_owner;
    RackPanelNodeViewModel *m_parent;
    QUuid m_id;
    model::Children *m_children;
    std::vector<std::unique_ptr<RackPanelNodeViewModel>> m_rows;
    mutable int m_row_hint = 0;
    bool m_populated = false;
    // Flash state: the tick of the last trigger, whether the row shows the
    // flash, and whether it is in the owner's list of flashing rows.
    quint32 m_trigger_tick = 0;
    bool m_flashing = false;
    bool m_listed = false;
    // A move announced to Qt is ended after the model's move.
    bool m_move_announced = false;
    QList<QMetaObject::Connection> m_connections;
};

// The node tree of one rack, with the edits of the rack panel as commands of
// the context's command manager and a short flash of a row whenever its node
// is handed an event.
class RackPanelViewModel : public QAbstractItemModel
{
    Q_OBJECT
public:
    enum Role {
        IdRole = Qt::UserRole + 1,
        DecorationMaskRole, // quint32: the instance's decoration bits
        FlashRole,          // bool: the row is flashing
        LoadedRole,         // bool: the node's type is loaded
        RunsRole,           // bool: the parent runs this node
        IdleRole,           // QString: why the node stays idle on this desktop; empty when it works
    };

    // Says for a node type why its nodes stay idle on this desktop (hotkey
    // nodes without global keyboard input), or nothing. The rack panel
    // draws a mark on such rows; their decoration stays as it is. One for
    // the process; the application installs it.
    using IdleNote = std::function<QString(const QString &type_id)>;
    static void set_idle_note(IdleNote note);
    // The marks of a node's decoration bits: glyphs drawn beside its name,
    // and the tooltip lines that say what they mean, one per glyph.
    static QString mark_glyphs(quint32 decoration);
    static QStringList mark_texts(quint32 decoration);
    // How long a row stays lit after its last event, in timer ticks.
    static constexpr int kFlashTickMs = 40;
    static constexpr quint32 kFlashTicks = 4;

    explicit RackPanelViewModel(QObject *parent = nullptr);
    ~RackPanelViewModel() override;

    void set_context(const PanelContext &context);
    const PanelContext &context() const { return m_context; }

    // Shows the rack's tree (null: none).
    void set_rack(const QUuid &rack);
    const QUuid &rack() const { return m_rack; }
    // "RackPanel.Title.%1", "RackPanel.DisabledTitle.%1" or "RackPanel.Title.None".
    QString title() const;
    // After a change of language: every node of the project fetches its name
    // again, and the rows and the title are shown anew.
    void retranslate();

    RackPanelNodeViewModel *node_view_model(const QModelIndex &index) const;
    QUuid node_id(const QModelIndex &index) const;
    // The row of a node of the shown rack, making the rows above it; invalid
    // when the node is not in the rack.
    QModelIndex index_of(const QUuid &node);
    // The node under which index's children stand: null for the top level.
    QUuid parent_id(const QModelIndex &index) const;

    // Edits. A parent id is a node of the rack, or null for the top level;
    // row -1 appends.
    QUuid add_node(const QString &impl_id, const QUuid &parent = QUuid(), int row = -1);
    // Puts a new node of impl_id in place of node, taking over its children.
    QUuid replace_node(const QUuid &node, const QString &impl_id);
    // Removes the nodes with their subtrees, as one undo step named `name`
    // (a cut names it "Edit.CutNode").
    bool remove_nodes(const QList<QUuid> &nodes, const char *name = CORV_TR_KEY("Edit.DeleteNode"));
    // Moves the nodes (top nodes of the selection, in tree order) under
    // parent at row, as one undo step. Moves into a node's own subtree are
    // left out.
    bool move_nodes(const QList<QUuid> &nodes, const QUuid &parent, int row);
    // The node list document of the nodes and their subtrees.
    QMimeData *copy_nodes(const QList<QUuid> &nodes) const;
    // Pastes a node list document under parent at row; returns the pasted
    // top nodes' ids (fresh where the project already uses theirs). `name`
    // names the undo step (a copy by dragging is "Edit.CopyNode").
    QList<QUuid> paste_nodes(const QMimeData *data, const QUuid &parent = QUuid(), int row = -1,
                             const char *name = CORV_TR_KEY("Edit.PasteNode"));
    static bool can_paste(const QMimeData *data);

    // Drops the nodes whose ancestor is in the list too, and orders the rest
    // by their place in the rack's tree.
    QList<QUuid> top_nodes(const QList<QUuid> &nodes) const;

    // QAbstractItemModel
    QModelIndex index(int row, int column, const QModelIndex &parent = {}) const override;
    QModelIndex parent(const QModelIndex &child) const override;
    int rowCount(const QModelIndex &parent = {}) const override;
    int columnCount(const QModelIndex &parent = {}) const override;
    bool hasChildren(const QModelIndex &parent = {}) const override;
    bool canFetchMore(const QModelIndex &parent) const override;
    void fetchMore(const QModelIndex &parent) override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    Qt::ItemFlags flags(const QModelIndex &index) const override;
    QStringList mimeTypes() const override;
    QMimeData *mimeData(const QModelIndexList &indexes) const override;
    Qt::DropActions supportedDropActions() const override;
    Qt::DropActions supportedDragActions() const override;
    bool canDropMimeData(const QMimeData *data, Qt::DropAction action, int row, int column,
                         const QModelIndex &parent) const override;
    bool dropMimeData(const QMimeData *data, Qt::DropAction action, int row, int column,
                      const QModelIndex &parent) override;

Q_SIGNALS:
    void title_changed(const QString &title);
    // Nodes were dropped (moved or copied) into the tree: the top nodes.
    void nodes_dropped(const QList<QUuid> &nodes);

private:
    friend class RackPanelNodeViewModel;

    QModelIndex index_for(const RackPanelNodeViewModel *vm) const;
    void row_changed(RackPanelNodeViewModel *vm);
    void triggered(RackPanelNodeViewModel *vm);
    void flash_tick();
    void forget(RackPanelNodeViewModel *vm);
    QIcon icon_of(const engine::NodeDefinition *definition) const;
    void clear_tree();
    void build_tree();

    PanelContext m_context;
    QUuid m_rack;
    model::Rack *m_rack_object = nullptr;
    std::unique_ptr<RackPanelNodeViewModel> m_root;
    QHash<QUuid, RackPanelNodeViewModel *> m_by_id;
    QList<QMetaObject::Connection> m_connections;
    mutable QHash<const engine::NodeDefinition *, QIcon> m_icons;

    QTimer m_flash_timer;
    quint32 m_tick = 1;
    std::vector<RackPanelNodeViewModel *> m_flashing;
};

} // namespace corv::widgets
