#pragma once

#include <QWidget>

class QLineEdit;
class QTreeWidget;
class QTreeWidgetItem;

namespace corv::widgets {

class AddNodeWidgetViewModel;

// A search field over the node types, grouped by category. Return in the
// field or a double click (or Return) on a type chooses it; Escape cancels.
class AddNodeWidget : public QWidget
{
    Q_OBJECT
public:
    explicit AddNodeWidget(AddNodeWidgetViewModel *view_model, QWidget *parent = nullptr);
    ~AddNodeWidget() override;

    AddNodeWidgetViewModel *view_model() const { return m_view_model; }
    QLineEdit *search_field() const { return m_search; }
    QTreeWidget *list() const { return m_list; }

    // Clears the search and puts the focus into it.
    void reset();

Q_SIGNALS:
    void node_chosen(const QString &impl_id);
    // Escape in the search field.
    void cancelled();

protected:
    void changeEvent(QEvent *event) override;
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void rebuild();
    void choose(QTreeWidgetItem *item);

    AddNodeWidgetViewModel *m_view_model;
    QLineEdit *m_search;
    QTreeWidget *m_list;
};

} // namespace corv::widgets
