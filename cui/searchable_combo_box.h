#pragma once

#include <QComboBox>

namespace corv::cui {

// A combo box whose line edit filters its items: typing shows the items that
// contain the typed text (any case); picking one makes it current. Leaving
// the box with text that names no item puts the current item's text back.
class SearchableComboBox : public QComboBox
{
    Q_OBJECT
public:
    explicit SearchableComboBox(QWidget *parent = nullptr);
    ~SearchableComboBox() override;

    // Replaces the model of the box and of its filter.
    void set_item_model(QAbstractItemModel *model);

protected:
    void focusOutEvent(QFocusEvent *event) override;

private:
    void restore_text();
};

} // namespace corv::cui
