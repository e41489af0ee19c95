#pragma once

// Every field of a declarative surface. Each class keeps its state (value
// binding, items, ranges, texts) in plain members and builds its widget from
// that state only while the surface has a view; the methods that a widget
// calls on user input (write(), choose_row(), click(), ...) are public, so
// the same edits can be made without widgets.

#include "cui/element.h"
#include "model/project.h"

#include <QAbstractListModel>
#include <QList>
#include <QPointer>
#include <QStringList>
#include <QUuid>

#include <limits>
#include <memory>

class QAbstractButton;
class QColor;
class QButtonGroup;
class QComboBox;
class QDoubleSpinBox;
class QLineEdit;
class QListView;
class QPlainTextEdit;
class QPushButton;
class QSlider;
class QSpinBox;

namespace corv::engine {
class RackManager;
}

namespace corv::cui {

class HotkeyFieldLineEdit;
class SearchableComboBox;

// A word-wrapped text (keyless).
class LabelField final : public Field
{
public:
    static constexpr Kind static_kind = Kind::Label;
    using Field::Field;
    Kind kind() const override { return static_kind; }

    const QString &text() const { return m_text; }
    void set_text(const QString &text);

protected:
    QWidget *create_widget(QObject *link) override;

private:
    QString m_text;
};

// A little vertical space (keyless).
class SpacerField final : public Field
{
public:
    static constexpr Kind static_kind = Kind::Spacer;
    using Field::Field;
    Kind kind() const override { return static_kind; }

protected:
    QWidget *create_widget(QObject *link) override;
};

// A horizontal line (keyless).
class SeparatorField final : public Field
{
public:
    static constexpr Kind static_kind = Kind::Separator;
    using Field::Field;
    Kind kind() const override { return static_kind; }

protected:
    QWidget *create_widget(QObject *link) override;
};

// A push button (keyless); pressing and clicking are its triggers.
class ButtonField final : public Field
{
public:
    static constexpr Kind static_kind = Kind::Button;
    using Field::Field;
    Kind kind() const override { return static_kind; }

    const QString &text() const { return m_text; }
    void set_text(const QString &text);

    // The button went down / was clicked.
    void press() { fire(TriggerPressed); }
    void click() { fire(TriggerClicked); }

protected:
    QWidget *create_widget(QObject *link) override;

private:
    QString m_text;
};

// A check box over a bool.
class CheckboxField final : public Field
{
public:
    static constexpr Kind static_kind = Kind::Checkbox;
    using Field::Field;
    Kind kind() const override { return static_kind; }

    bool checked() const { return value().to_bool(); }

protected:
    QWidget *create_widget(QObject *link) override;
    void update_widget() override;
};

// Radio buttons over an int: the checked button's index.
class RadioGroupField final : public Field
{
public:
    static constexpr Kind static_kind = Kind::RadioGroup;
    using Field::Field;
    Kind kind() const override { return static_kind; }

    const QStringList &items() const { return m_items; }
    void set_items(const QStringList &items);
    // The stored index; 0 when the stored value is not an int.
    qint32 checked() const { return value().to_int(); }

protected:
    QWidget *create_widget(QObject *link) override;
    void widget_dropped() override;
    void update_widget() override;

private:
    void sync_buttons();

    QStringList m_items;
    QButtonGroup *m_group = nullptr;
};

// One entry of a list or select field.
struct Item
{
    QString label;
    qint32 value = 0;
    friend bool operator==(const Item &, const Item &) = default;
};

// The item model of list and select fields. Setting equal items leaves it
// untouched (so selection and scrolling survive a rebuild); otherwise rows
// are changed, removed or inserted in place, keeping persistent indexes.
class ItemModel final : public QAbstractListModel
{
public:
    explicit ItemModel(QObject *parent = nullptr) : QAbstractListModel(parent) {}

    const QList<Item> &items() const { return m_items; }
    void set_items(const QList<Item> &items);

    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    // Display and edit roles: the label; Qt::UserRole: the value.
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;

private:
    QList<Item> m_items;
};

// Common part of list and select: items and the current row over an int value.
class ItemsField : public Field
{
public:
    using Field::Field;

    const QList<Item> &items() const { return m_items; }
    // Takes new items (only when they differ), then makes the stored value's
    // item current. A stored value that matches no item is replaced by the
    // first item's value; with no items nothing is current.
    void set_items(const QList<Item> &items);
    // -1 when nothing is current.
    int current_row() const { return m_current; }
    // The user chose a row: it becomes current and its value is stored.
    void choose_row(int row);
    qint32 stored() const { return value().to_int(); }

protected:
    void update_widget() override;
    void widget_dropped() override { m_model = nullptr; }
    // Shows m_current in the widget (called with m_updating set).
    virtual void show_current() = 0;
    void value_updated() override;
    ItemModel *make_model(QObject *parent);
    ItemModel *model() const { return m_model; }

private:
    int row_of_stored() const;

    QList<Item> m_items;
    int m_current = -1;
    ItemModel *m_model = nullptr;
};

// A list view over the items.
class ListField final : public ItemsField
{
public:
    static constexpr Kind static_kind = Kind::List;
    using ItemsField::ItemsField;
    Kind kind() const override { return static_kind; }

protected:
    QWidget *create_widget(QObject *link) override;
    void show_current() override;
};

// A searchable drop-down over the items.
class SelectField final : public ItemsField
{
public:
    static constexpr Kind static_kind = Kind::Select;
    using ItemsField::ItemsField;
    Kind kind() const override { return static_kind; }

protected:
    QWidget *create_widget(QObject *link) override;
    void show_current() override;
};

// A drop-down of the project's racks over a rack id.
class SelectRackField final : public Field
{
public:
    static constexpr Kind static_kind = Kind::SelectRack;

    // Row 0 is "no rack" (the translation of "RackSelect.None"); row i shows
    // the name of the i-th rack of the project's profile. Display role only.
    class Model final : public QAbstractListModel
    {
    public:
        explicit Model(model::Project *project, QObject *parent = nullptr);
        ~Model() override;

        model::Project *project() const { return m_project.data(); }
        // The rack of a row; the null id for row 0 and rows out of range.
        QUuid rack_at(int row) const;
        // The row of a rack; 0 for the null id and racks not in the profile.
        int row_of(const QUuid &rack) const;

        int rowCount(const QModelIndex &parent = QModelIndex()) const override;
        QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;

    private:
        void watch(const QUuid &rack);

        QPointer<model::Project> m_project;
        bool m_moving = false;
    };

    SelectRackField(Surface::Impl &surface, QString id);
    ~SelectRackField() override;
    Kind kind() const override { return static_kind; }

    Model *model() const { return m_model.get(); }
    // The stored rack id (null when none or not a rack value).
    QUuid rack() const { return value().to_rack(); }
    // The running rack of the stored id, or null.
    engine::RackManager *rack_manager() const;
    int current_row() const { return m_current; }
    // Finds the stored rack's row again (after a declaration).
    void refresh_current();
    // The user chose a row: row 0 stores the null id, any other its rack's.
    void choose_row(int row);

protected:
    QWidget *create_widget(QObject *link) override;
    void widget_dropped() override { m_combo = nullptr; }
    void update_widget() override;
    void value_updated() override { m_current = m_model->row_of(rack()); }

private:
    void on_rows_changed();

    std::unique_ptr<Model> m_model;
    int m_current = 0;
    QComboBox *m_combo = nullptr;
};

// A one-line text. It writes when editing is over (Return, or focus
// leaving), one command per write, so one edit is one undo step.
class TextField final : public Field
{
public:
    static constexpr Kind static_kind = Kind::Text;
    using Field::Field;
    Kind kind() const override { return static_kind; }

    // Shows bullets instead of the text (passwords).
    void set_hidden(bool hidden);
    bool is_hidden() const { return m_hidden; }

protected:
    QWidget *create_widget(QObject *link) override;
    void update_widget() override;
    void finish_editing() override;

private:
    // Writes the edit's text unless the store holds it already.
    void write_text();

    bool m_hidden = false;
};

// A multi-line text in the fixed-width font; every change is written.
class TextAreaField final : public Field
{
public:
    static constexpr Kind static_kind = Kind::TextArea;
    using Field::Field;
    Kind kind() const override { return static_kind; }

protected:
    bool merges() const override { return true; }
    QWidget *create_widget(QObject *link) override;
    void update_widget() override;
};

// A path typed or chosen in a file dialog.
class FilePickerField final : public Field
{
public:
    static constexpr Kind static_kind = Kind::FilePicker;
    enum class Mode : std::uint8_t { OpenFile, OpenFolder, SaveFile };

    using Field::Field;
    Kind kind() const override { return static_kind; }

    Mode mode() const { return m_mode; }
    const QString &filter() const { return m_filter; }
    void set_mode(Mode mode, const QString &filter);

    // Stores a path chosen in the dialog as one undo step of its own; a null
    // path (the dialog was cancelled) changes nothing.
    void choose(const QString &path);
    // Opens the dialog of the mode, starting at the stored path (view only).
    void browse();

protected:
    bool merges() const override { return true; }
    QWidget *create_widget(QObject *link) override;
    void widget_dropped() override;
    void update_widget() override;

private:
    Mode m_mode = Mode::OpenFile;
    QString m_filter;
    QLineEdit *m_edit = nullptr;
};

// A horizontal slider over an int.
class SliderField final : public Field
{
public:
    static constexpr Kind static_kind = Kind::Slider;
    using Field::Field;
    Kind kind() const override { return static_kind; }

    qint32 minimum() const { return m_min; }
    qint32 maximum() const { return m_max; }
    qint32 step() const { return m_step; }
    // The page step: ten steps.
    qint32 page_step() const;
    void set_range(qint32 min, qint32 max, qint32 step);

protected:
    bool merges() const override { return true; }
    QWidget *create_widget(QObject *link) override;
    void update_widget() override;

private:
    void apply_range();

    qint32 m_min = std::numeric_limits<qint32>::min();
    qint32 m_max = std::numeric_limits<qint32>::max();
    qint32 m_step = 1;
};

// A spin box over an int.
class IntField final : public Field
{
public:
    static constexpr Kind static_kind = Kind::Int;
    using Field::Field;
    Kind kind() const override { return static_kind; }

    qint32 minimum() const { return m_min; }
    qint32 maximum() const { return m_max; }
    void set_range(qint32 min, qint32 max);

protected:
    bool merges() const override { return true; }
    QWidget *create_widget(QObject *link) override;
    void update_widget() override;

private:
    qint32 m_min = std::numeric_limits<qint32>::min();
    qint32 m_max = std::numeric_limits<qint32>::max();
};

// A spin box over a double with four decimals.
class FloatField final : public Field
{
public:
    static constexpr Kind static_kind = Kind::Float;
    static constexpr int decimals = 4;
    using Field::Field;
    Kind kind() const override { return static_kind; }

    double minimum() const { return m_min; }
    double maximum() const { return m_max; }
    void set_range(double min, double max);

protected:
    bool merges() const override { return true; }
    QWidget *create_widget(QObject *link) override;
    void update_widget() override;

private:
    double m_min = -std::numeric_limits<double>::infinity();
    double m_max = std::numeric_limits<double>::infinity();
};

// A colour swatch that opens the colour dialog.
class ColorField final : public Field
{
public:
    static constexpr Kind static_kind = Kind::Color;
    using Field::Field;
    Kind kind() const override { return static_kind; }

    // Stores a colour picked in the dialog; an invalid colour (cancelled)
    // changes nothing.
    void choose(const QColor &color);
    // Opens the colour dialog with the stored colour (view only).
    void browse();

protected:
    QWidget *create_widget(QObject *link) override;
    void update_widget() override;
};

// A key combination, entered by pressing it in a HotkeyFieldLineEdit.
class HotkeyField final : public Field
{
public:
    static constexpr Kind static_kind = Kind::Hotkey;
    using Field::Field;
    Kind kind() const override { return static_kind; }

protected:
    bool merges() const override { return true; }
    // The key handling refreshes inside its own event; the surface must show
    // the new key at once.
    InvalidateMode value_changed_mode() const override { return Immediate; }
    QWidget *create_widget(QObject *link) override;
    void update_widget() override;
};

} // namespace corv::cui
