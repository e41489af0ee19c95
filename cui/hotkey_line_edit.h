#pragma once

#include <QLineEdit>

class QMenu;

namespace corv::cui {

// The read-only editor of a hotkey field: pressing keys in it enters their
// combination as portable key-sequence text, modifiers first ("Ctrl+",
// "Alt+", "Meta+", "Shift+"), so holding only modifiers enters them with no
// key. Its context menu adds an action that clears the hotkey.
class HotkeyFieldLineEdit : public QLineEdit
{
    Q_OBJECT
public:
    explicit HotkeyFieldLineEdit(QWidget *parent = nullptr);
    ~HotkeyFieldLineEdit() override;

    // The text a key press enters. A modifier key adds itself to the
    // modifiers, so pressing Control and then Shift enters "Ctrl+Shift+".
    static QString key_text(int key, Qt::KeyboardModifiers modifiers);

    // The line edit's standard menu with the clear action and a separator
    // before its first action. The caller owns it.
    QMenu *create_context_menu();

Q_SIGNALS:
    // The user entered a combination (empty: cleared it).
    void hotkey_entered(const QString &text);

protected:
    void keyPressEvent(QKeyEvent *event) override;
    void focusInEvent(QFocusEvent *event) override;
    void contextMenuEvent(QContextMenuEvent *event) override;

private:
    void select_all_later();
};

} // namespace corv::cui
