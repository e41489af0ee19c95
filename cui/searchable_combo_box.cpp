#include "cui/searchable_combo_box.h"

#include <QAbstractItemView>
#include <QCompleter>
#include <QLineEdit>

namespace corv::cui {

SearchableComboBox::SearchableComboBox(QWidget *parent) : QComboBox(parent)
{
    setEditable(true);
    setInsertPolicy(QComboBox::NoInsert);
    auto *completer = new QCompleter(this);
    completer->setModel(model());
    setCompleter(completer);
    // After setCompleter(), which brings its own settings.
    completer->setCaseSensitivity(Qt::CaseInsensitive);
    completer->setFilterMode(Qt::MatchContains);
    completer->setCompletionMode(QCompleter::PopupCompletion);
    // A pick in the filter's popup makes that item current.
    connect(completer, qOverload<const QString &>(&QCompleter::activated), this,
            [this](const QString &text) {
                const int row = findText(text, Qt::MatchFixedString);
                if (row >= 0)
                    setCurrentIndex(row);
            });
}

SearchableComboBox::~SearchableComboBox() = default;

void SearchableComboBox::set_item_model(QAbstractItemModel *model)
{
    setModel(model);
    if (completer())
        completer()->setModel(model);
}

void SearchableComboBox::focusOutEvent(QFocusEvent *event)
{
    QComboBox::focusOutEvent(event);
    restore_text();
}

void SearchableComboBox::restore_text()
{
    // currentText() of an editable box is the typed text; compare with the item's.
    const QString text = currentIndex() >= 0 ? itemText(currentIndex()) : QString();
    if (lineEdit() && lineEdit()->text() != text)
        lineEdit()->setText(text);
}

} // namespace corv::cui
