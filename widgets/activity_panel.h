#pragma once

#include <QUuid>
#include <QWidget>

class QAction;
class QCheckBox;
class QLabel;
class QLineEdit;
class QTableView;
class QToolButton;

namespace corv::widgets {

class ActivityFilter;
class ActivityViewModel;

// The events the racks' nodes received, newest first (ActivityViewModel),
// with a text filter, a filter by rack or by node (from a row's context
// menu), pause and clear, and "trace all". Clicking a row asks for its rack
// and node to be selected.
class ActivityPanel : public QWidget
{
    Q_OBJECT
public:
    explicit ActivityPanel(ActivityViewModel *view_model, QWidget *parent = nullptr);

    ActivityViewModel *view_model() const { return m_view_model; }
    ActivityFilter *filter() const { return m_filter; }
    QTableView *view() const { return m_view; }
    QLineEdit *search() const { return m_search; }
    QToolButton *pause_button() const { return m_pause; }
    QToolButton *clear_button() const { return m_clear; }
    QLabel *status_label() const { return m_status; }

    // The actions of a row's context menu, for the row under `row` of the view.
    QList<QAction *> row_actions(int row);

    void retranslate();

Q_SIGNALS:
    void node_activated(const QUuid &rack, const QUuid &node);

private:
    void refresh_status();
    void refresh_filter_label();

    ActivityViewModel *m_view_model;
    ActivityFilter *m_filter;
    QLineEdit *m_search;
    QLabel *m_filter_label;
    QToolButton *m_show_all;
    QCheckBox *m_trace_all;
    QToolButton *m_pause;
    QToolButton *m_clear;
    QLabel *m_status;
    QTableView *m_view;
    QString m_rack_filter_name;
    QString m_node_filter_name;
};

} // namespace corv::widgets
