#pragma once

#include "widgets/racks_panel_view_model.h"

#include <QAbstractTableModel>
#include <QIcon>
#include <QList>
#include <QMetaObject>
#include <QTimer>
#include <QUuid>

namespace corv::widgets {

// Every hotkey of every rack: one row per On Hotkey node, racks in the
// project's order and nodes in tree order, with the rack, the node's name
// and whether its rack is enabled. A combination that two or more nodes
// listen for is marked on each of them (an icon, a colour, and a tooltip
// naming the others). While listening the rows follow the project: edits,
// undo and redo, renamed and disabled racks, and the nodes' own names are
// gathered and shown on the next turn of the event loop.
class HotkeysViewModel : public QAbstractTableModel
{
    Q_OBJECT
public:
    enum Column { HotkeyColumn, RackColumn, NodeColumn, EnabledColumn, ColumnCount };
    enum Role {
        RackIdRole = Qt::UserRole + 1, // QUuid
        NodeIdRole,                    // QUuid
        DuplicateRole,                 // bool: another node listens for the same hotkey
    };
    // The node type whose nodes listen for a hotkey, and its property.
    static constexpr char kHotkeyType[] = "io.marrowfield.onhotkey";
    static constexpr char kHotkeyKey[] = "!hotkey";

    explicit HotkeysViewModel(QObject *parent = nullptr);
    ~HotkeysViewModel() override;

    void set_context(const PanelContext &context);
    // Follows the project only while on (the view is shown); turning it on
    // brings the rows up to date at once.
    void set_listening(bool on);
    bool is_listening() const { return m_listening; }
    // Reads the project again now.
    void refresh();

    int rowCount(const QModelIndex &parent = {}) const override;
    int columnCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation,
                        int role = Qt::DisplayRole) const override;

private:
    struct Row {
        QString hotkey;
        // What makes two hotkeys the same: the parsed combination, or the
        // text when it names no known key; empty for no hotkey.
        QString identity;
        QUuid rack;
        QString rack_name;
        bool enabled = true;
        QUuid node;
        QString node_name;
        QList<int> duplicates; // rows with the same identity
        friend bool operator==(const Row &, const Row &) = default;
    };
    void schedule();
    void watch_project();
    QList<Row> read_rows();

    PanelContext m_context;
    QList<Row> m_rows;
    QTimer m_refresh;
    bool m_listening = false;
    // To the runtime and the command history, for as long as the context.
    QList<QMetaObject::Connection> m_project_connections;
    // To the racks and hotkey nodes of the rows, renewed with them.
    QList<QMetaObject::Connection> m_row_connections;
    QIcon m_node_icon;
};

} // namespace corv::widgets
