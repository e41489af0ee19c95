#pragma once

#include <QHash>
#include <QList>
#include <QSet>
#include <QUuid>
#include <QWidget>

class QAction;
class QFrame;
class QTreeView;

namespace corv::widgets {

class AddNodeWidget;
class AddNodeWidgetViewModel;
class RackPanelViewModel;

// The node tree of the selected rack: names, icons and decoration marks,
// rows that flash when their node is handed an event, and the edits of its
// context menu (Edit, Add Inside, Replace, Cut, Copy, Paste, Delete). Nodes
// are dragged within and between parents; Ctrl-drag copies.
class RackPanel : public QWidget
{
    Q_OBJECT
public:
    explicit RackPanel(RackPanelViewModel *view_model, QWidget *parent = nullptr);
    ~RackPanel() override;

    RackPanelViewModel *view_model() const { return m_view_model; }
    QTreeView *tree() const { return m_tree; }
    // The node-type chooser that Add Inside and Replace open as a popup.
    AddNodeWidget *add_node_widget() const { return m_add_widget; }
    QFrame *add_node_popup() const { return m_popup; }

    QAction *edit_action() const { return m_edit; }
    QAction *add_inside_action() const { return m_add_inside; }
    QAction *replace_action() const { return m_replace; }
    QAction *cut_action() const { return m_cut; }
    QAction *copy_action() const { return m_copy; }
    QAction *paste_action() const { return m_paste; }
    QAction *delete_action() const { return m_delete; }

    // The selected nodes in tree order; the current one.
    QList<QUuid> selected_nodes() const;
    QUuid current_node() const;
    // Makes the node current, expanding its ancestors.
    void select_node(const QUuid &node);
    // Selects the nodes, the first one current.
    void select_nodes(const QList<QUuid> &nodes);

public Q_SLOTS:
    // Shows a rack (null: none), with the rows expanded that were when it
    // was last shown; a rack shown for the first time opens fully expanded
    // when it holds up to kExpandLimit nodes.
    void set_rack(const QUuid &rack);
    // Open the type chooser for adding inside the current node (the top
    // level with none), or for replacing the current node.
    void add_inside();
    void replace_current();
    void cut();
    void copy();
    void paste();
    void remove_selected();
    void select_all();

Q_SIGNALS:
    void selected_node_changed(const QUuid &node);
    // Edit (or a double click) on a node: show its properties.
    void edit_requested(const QUuid &node);
    void title_changed(const QString &title);

public:
    static constexpr int kExpandLimit = 300;

protected:
    // A change of language: every text of the panel again.
    void changeEvent(QEvent *event) override;

private:
    void open_chooser(bool replace);
    void chosen(const QString &impl_id);
    void update_actions();

    RackPanelViewModel *m_view_model;
    QTreeView *m_tree;
    AddNodeWidgetViewModel *m_add_model;
    QFrame *m_popup;
    AddNodeWidget *m_add_widget;
    bool m_replacing = false;
    // Per rack, the nodes whose rows are expanded.
    QHash<QUuid, QSet<QUuid>> m_expanded;
    bool m_restoring = false;
    QAction *m_edit;
    QAction *m_add_inside;
    QAction *m_replace;
    QAction *m_cut;
    QAction *m_copy;
    QAction *m_paste;
    QAction *m_delete;
};

} // namespace corv::widgets
