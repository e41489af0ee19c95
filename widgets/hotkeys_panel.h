#pragma once

#include <QUuid>
#include <QWidget>

class QSortFilterProxyModel;
class QTableView;

namespace corv::widgets {

class HotkeysViewModel;

// The hotkeys of the project in one table (HotkeysViewModel), sorted by
// hotkey so that one used twice stands together. Double-clicking a row asks
// for its rack and node to be selected.
class HotkeysPanel : public QWidget
{
    Q_OBJECT
public:
    explicit HotkeysPanel(HotkeysViewModel *view_model, QWidget *parent = nullptr);

    HotkeysViewModel *view_model() const { return m_view_model; }
    QTableView *view() const { return m_view; }

    void retranslate();
    // Wide enough for the four columns of a usual row.
    QSize sizeHint() const override { return {480, 300}; }

Q_SIGNALS:
    void node_activated(const QUuid &rack, const QUuid &node);

private:
    HotkeysViewModel *m_view_model;
    QSortFilterProxyModel *m_sorted;
    QTableView *m_view;
};

} // namespace corv::widgets
