#include "cui/hotkey_line_edit.h"

#include "locale/translate.h"

#include <QContextMenuEvent>
#include <QKeySequence>
#include <QMenu>
#include <QTimer>

namespace corv::cui {

HotkeyFieldLineEdit::HotkeyFieldLineEdit(QWidget *parent) : QLineEdit(parent)
{
    setReadOnly(true);
    setPlaceholderText(locale::translate("Hotkey.Placeholder"));
    setStyleSheet(QStringLiteral(":focus {border: 2px solid #C11; padding: -1px;}"));
}

HotkeyFieldLineEdit::~HotkeyFieldLineEdit() = default;

QString HotkeyFieldLineEdit::key_text(int key, Qt::KeyboardModifiers modifiers)
{
    // A modifier key counts as held while it is pressed: platforms differ in
    // whether its own event carries it, and QKeyEvent flips it besides.
    switch (key) {
    case Qt::Key_Shift:
        modifiers |= Qt::ShiftModifier;
        break;
    case Qt::Key_Control:
        modifiers |= Qt::ControlModifier;
        break;
    case Qt::Key_Meta:
        modifiers |= Qt::MetaModifier;
        break;
    case Qt::Key_Alt:
        modifiers |= Qt::AltModifier;
        break;
    default:
        break;
    }
    QString text;
    if (modifiers & Qt::ControlModifier)
        text += QLatin1String("Ctrl+");
    if (modifiers & Qt::AltModifier)
        text += QLatin1String("Alt+");
    if (modifiers & Qt::MetaModifier)
        text += QLatin1String("Meta+");
    if (modifiers & Qt::ShiftModifier)
        text += QLatin1String("Shift+");
    switch (key) {
    case Qt::Key_Shift:
    case Qt::Key_Control:
    case Qt::Key_Meta:
    case Qt::Key_Alt:
        break;
    default:
        text += QKeySequence(key).toString(QKeySequence::PortableText);
        break;
    }
    return text;
}

void HotkeyFieldLineEdit::keyPressEvent(QKeyEvent *event)
{
    const QString text = key_text(event->key(), event->modifiers());
    event->accept();
    Q_EMIT hotkey_entered(text);
    select_all_later();
}

void HotkeyFieldLineEdit::focusInEvent(QFocusEvent *event)
{
    QLineEdit::focusInEvent(event);
    select_all_later();
}

QMenu *HotkeyFieldLineEdit::create_context_menu()
{
    QMenu *menu = createStandardContextMenu();
    QAction *first = menu->actions().value(0);
    auto *clear = new QAction(locale::translate("Hotkey.Clear"), menu);
    connect(clear, &QAction::triggered, this, [this] { Q_EMIT hotkey_entered(QString()); });
    menu->insertAction(first, clear);
    if (first)
        menu->insertSeparator(first);
    return menu;
}

void HotkeyFieldLineEdit::contextMenuEvent(QContextMenuEvent *event)
{
    QMenu *menu = create_context_menu();
    menu->exec(event->globalPos());
    delete menu;
}

void HotkeyFieldLineEdit::select_all_later()
{
    QTimer::singleShot(0, this, &QLineEdit::selectAll);
}

} // namespace corv::cui
