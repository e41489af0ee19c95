#pragma once

#include "locale/keys.h"

#include <QAbstractListModel>
#include <QTimer>
#include <QList>
#include <QMetaObject>
#include <QUuid>

class QMimeData;

namespace corv::model {
class Project;
}

namespace corv::engine {
class CommandManager;
class NodeRegistry;
class ProjectRuntime;
} // namespace corv::engine

namespace corv::widgets {

// Clipboard and drag formats of the panels.
inline constexpr char kRackListXmlMime[] = "application/x-corv-rack-list-xml";
inline constexpr char kNodeListXmlMime[] = "application/x-corv-node-list-xml";
// A data stream of an int (the count) and that many node UUIDs.
inline constexpr char kNodeListMime[] = "application/x-corv-node-list";
// A data stream of an int (the count) and that many row numbers.
inline constexpr char kModelRowsMime[] = "application/x-corv-model-rows";

// What the panels work on: the open project, the command manager its edits go
// through, its runtime (names, icons, flashes) and the node-type registry.
// Any of them may be null (no project open). Hand the panels an empty context
// before the project goes away.
//
// A window hosting the panels gives each view model the context, then links
//   RacksPanel::selected_rack_changed -> RackPanel::set_rack
//   RackPanel::selected_node_changed  -> NodePanelViewModel::set_node
// and shows the panels' window titles (title_changed). Node panel edits are
// undoable when the runtime's panels are made with the same command manager
// (cui::install_node_surfaces).
struct PanelContext {
    model::Project *project = nullptr;
    engine::CommandManager *commands = nullptr;
    engine::ProjectRuntime *runtime = nullptr;
    const engine::NodeRegistry *registry = nullptr;
};

// The plan of moving `moving` (ids of `list`, in list order) so that they
// stand together, in that order, at `dest` (a position counted in `list`
// before anything is taken out): one move per id, each counted in the list
// as the moves before it left it.
struct PlannedMove {
    qsizetype from;
    qsizetype to;
};
QList<PlannedMove> plan_moves(QList<QUuid> list, const QList<QUuid> &moving, qsizetype dest);

// The racks of the project in profile order, with the rack that is selected.
// Every edit is a command of the context's command manager.
class RacksPanelViewModel : public QAbstractListModel
{
    Q_OBJECT
public:
    enum Role {
        IdRole = Qt::UserRole + 1,
        EnabledRole,
        StatusRole, // QString: running, disabled or paused, and the time of the last event
    };
    // How often the status of the racks is looked at again.
    static constexpr int kStatusRefreshMs = 1000;

    explicit RacksPanelViewModel(QObject *parent = nullptr);
    ~RacksPanelViewModel() override;

    void set_context(const PanelContext &context);
    const PanelContext &context() const { return m_context; }

    QUuid rack_at(int row) const;
    int row_of(const QUuid &rack) const;

    // Adds a new rack, named by the project's next free name, at row (-1:
    // the end); returns its id, null when nothing was added.
    QUuid add_rack(int row = -1);
    bool rename_rack(const QUuid &rack, const QString &name);
    bool set_rack_enabled(const QUuid &rack, bool enabled);
    // The same for several racks, as one undo step.
    bool set_racks_enabled(const QList<QUuid> &racks, bool enabled);
    // Removes the racks with all their nodes, as one undo step named `name`
    // (a cut names it "Edit.CutRack").
    bool remove_racks(const QList<QUuid> &racks, const char *name = CORV_TR_KEY("Edit.DeleteRack"));
    // Moves the racks (any order given) to stand together at dest_row.
    bool move_racks(const QList<QUuid> &racks, int dest_row);

    // Moves nodes of any racks (top nodes of a selection, in order) to the
    // end of the rack's top level, as one undo step; for nodes dragged from
    // the rack panel onto a rack.
    bool move_nodes_to_rack(const QList<QUuid> &nodes, const QUuid &rack);

    // The clipboard data of the racks: the rack list document, in row order.
    QMimeData *copy_racks(const QList<QUuid> &racks) const;
    // Pastes a rack list document at row (-1: the end); the pasted racks get
    // fresh ids where the project already uses theirs. Returns their ids.
    // `name` names the undo step (a copy by dragging is "Edit.CopyRack").
    QList<QUuid> paste_racks(const QMimeData *data, int row = -1,
                             const char *name = CORV_TR_KEY("Edit.PasteRack"));
    static bool can_paste(const QMimeData *data);

    // Looks at every rack's status and tells the views of those that changed.
    void refresh_status();

    QUuid selected_rack() const { return m_selected; }
    void set_selected_rack(const QUuid &rack);

    // QAbstractItemModel
    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    bool setData(const QModelIndex &index, const QVariant &value, int role = Qt::EditRole) override;
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
    void selected_rack_changed(const QUuid &rack);

private:
    void attach();
    void detach();
    void watch_rack(const QUuid &id);
    void rack_changed(const QUuid &id);

    QString status_of(const QUuid &rack) const;

    PanelContext m_context;
    QUuid m_selected;
    QTimer m_status_timer;
    QHash<QUuid, QString> m_status;
    QList<QMetaObject::Connection> m_connections;
    QHash<QUuid, QList<QMetaObject::Connection>> m_rack_connections;
};

} // namespace corv::widgets
