#pragma once

#include <QList>
#include <QUuid>
#include <QWidget>

class QAction;
class QLabel;
class QLineEdit;
class QPushButton;
class QListView;
class QSortFilterProxyModel;

namespace corv::widgets {

class RacksPanelViewModel;

// The racks of the project: a search field over a list that can be edited
// in place, reordered by dragging, and copied, cut and pasted as rack lists.
// Its context menu holds Add, Rename and Enabled, then the clipboard actions.
class RacksPanel : public QWidget
{
    Q_OBJECT
public:
    explicit RacksPanel(RacksPanelViewModel *view_model, QWidget *parent = nullptr);
    ~RacksPanel() override;

    RacksPanelViewModel *view_model() const { return m_view_model; }
    QListView *list() const { return m_list; }
    QLineEdit *search_field() const { return m_search; }
    QSortFilterProxyModel *filter() const { return m_filter; }
    // Shown instead of the list while the open project has no rack: a short
    // hint and a button that adds the first one.
    QWidget *empty_hint() const { return m_empty; }
    QPushButton *empty_hint_button() const { return m_empty_button; }

    QAction *add_action() const { return m_add; }
    QAction *rename_action() const { return m_rename; }
    QAction *enabled_action() const { return m_enabled; }
    QAction *cut_action() const { return m_cut; }
    QAction *copy_action() const { return m_copy; }
    QAction *paste_action() const { return m_paste; }
    QAction *delete_action() const { return m_delete; }

    // The selected racks in list order.
    QList<QUuid> selected_racks() const;

public Q_SLOTS:
    // A new rack after the selected one (or at the end), selected and open
    // for renaming.
    void add_rack();
    void rename_selected();
    void cut();
    void copy();
    void paste();
    void remove_selected();
    void select_all();

Q_SIGNALS:
    void selected_rack_changed(const QUuid &rack);

protected:
    // A change of language: every text of the panel again.
    void changeEvent(QEvent *event) override;

private:
    void update_actions();
    void update_empty_hint();
    void show_rack(const QUuid &rack);

    RacksPanelViewModel *m_view_model;
    QLineEdit *m_search;
    QListView *m_list;
    QSortFilterProxyModel *m_filter;
    QAction *m_add;
    QAction *m_rename;
    QAction *m_enabled;
    QAction *m_cut;
    QAction *m_copy;
    QAction *m_paste;
    QAction *m_delete;
    QWidget *m_empty;
    QLabel *m_empty_label;
    QPushButton *m_empty_button;
};

} // namespace corv::widgets
