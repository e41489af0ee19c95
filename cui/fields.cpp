#include "cui/fields.h"

#include "cui/dialogs.h"
#include "cui/hotkey_line_edit.h"
#include "cui/searchable_combo_box.h"
#include "cui/surface_p.h"
#include "engine/project_runtime.h"
#include "locale/translate.h"
#include "model/project.h"

#include <QButtonGroup>
#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QFontDatabase>
#include <QFrame>
#include <QHBoxLayout>
#include <QIcon>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QPixmap>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QSlider>
#include <QSpinBox>
#include <QVBoxLayout>

#include <algorithm>
#include <cmath>

namespace corv::cui {

using model::Value;

namespace {

QString text_of(const Value &value)
{
    return QString::fromUtf8(value.to_string());
}

Value string_value(const QString &text)
{
    return Value::string(text.toUtf8());
}

} // namespace

// ---------------------------------------------------------------------------
// Label, spacer, separator, button

void LabelField::set_text(const QString &text)
{
    if (text == m_text)
        return;
    m_text = model::shared_key(text); // alike in every node of a type
    if (auto *label = qobject_cast<QLabel *>(widget()))
        label->setText(text);
}

QWidget *LabelField::create_widget(QObject *)
{
    auto *label = new QLabel(m_text);
    label->setWordWrap(true);
    return label;
}

QWidget *SpacerField::create_widget(QObject *)
{
    auto *spacer = new QWidget;
    spacer->setFixedHeight(8);
    return spacer;
}

QWidget *SeparatorField::create_widget(QObject *)
{
    auto *line = new QFrame;
    line->setFrameShape(QFrame::HLine);
    line->setFrameShadow(QFrame::Sunken);
    return line;
}

void ButtonField::set_text(const QString &text)
{
    if (text == m_text)
        return;
    m_text = model::shared_key(text); // alike in every node of a type
    if (auto *button = qobject_cast<QPushButton *>(widget()))
        button->setText(text);
}

QWidget *ButtonField::create_widget(QObject *link)
{
    auto *button = new QPushButton(m_text);
    QObject::connect(button, &QPushButton::pressed, link, [this] { press(); });
    QObject::connect(button, &QPushButton::clicked, link, [this] { click(); });
    watch_focus(button);
    return button;
}

// ---------------------------------------------------------------------------
// Check box, radio group

QWidget *CheckboxField::create_widget(QObject *link)
{
    auto *box = new QCheckBox;
    QObject::connect(box, &QCheckBox::clicked, link,
                     [this](bool checked) { write(Value::boolean(checked)); });
    watch_focus(box);
    return box;
}

void CheckboxField::update_widget()
{
    auto *box = static_cast<QCheckBox *>(widget());
    if (box->isChecked() != checked())
        box->setChecked(checked());
}

void RadioGroupField::set_items(const QStringList &items)
{
    if (items == m_items)
        return;
    m_items = items;
    if (widget()) {
        m_updating = true;
        sync_buttons();
        update_widget();
        m_updating = false;
    }
}

QWidget *RadioGroupField::create_widget(QObject *link)
{
    auto *box = new QWidget;
    auto *layout = new QVBoxLayout(box);
    layout->setContentsMargins(0, 0, 0, 0);
    m_group = new QButtonGroup(box);
    QObject::connect(m_group, &QButtonGroup::idClicked, link,
                     [this](int index) { write(Value::integer(index)); });
    return box;
}

void RadioGroupField::widget_dropped()
{
    m_group = nullptr;
}

void RadioGroupField::sync_buttons()
{
    QWidget *box = widget();
    if (!m_group || !box)
        return;
    const qsizetype count = m_items.size();
    // Surplus buttons of an earlier build go; missing ones are added; texts
    // change only where they differ.
    for (qsizetype i = m_group->buttons().size() - 1; i >= count; --i) {
        if (QAbstractButton *button = m_group->button(int(i))) {
            m_group->removeButton(button);
            delete button;
        }
    }
    for (qsizetype i = 0; i < count; ++i) {
        QAbstractButton *button = m_group->button(int(i));
        if (!button) {
            button = new QRadioButton(m_items.at(i), box);
            m_group->addButton(button, int(i));
            box->layout()->addWidget(button);
            watch_focus(button);
        } else if (button->text() != m_items.at(i)) {
            button->setText(m_items.at(i));
        }
    }
}

void RadioGroupField::update_widget()
{
    if (!m_group)
        return;
    if (m_group->buttons().size() != m_items.size())
        sync_buttons();
    QAbstractButton *button = m_group->button(checked());
    if (button) {
        if (!button->isChecked())
            button->setChecked(true);
        return;
    }
    // No such item: nothing checked.
    m_group->setExclusive(false);
    for (QAbstractButton *other : m_group->buttons())
        other->setChecked(false);
    m_group->setExclusive(true);
}

// ---------------------------------------------------------------------------
// Items

void ItemModel::set_items(const QList<Item> &items)
{
    if (items == m_items)
        return;
    const qsizetype old_count = m_items.size();
    const qsizetype new_count = items.size();
    const qsizetype common = std::min(old_count, new_count);
    qsizetype first = -1;
    qsizetype last = -1;
    for (qsizetype i = 0; i < common; ++i) {
        if (m_items.at(i) == items.at(i))
            continue;
        m_items[i] = items.at(i);
        if (first < 0)
            first = i;
        last = i;
    }
    if (first >= 0)
        Q_EMIT dataChanged(index(int(first)), index(int(last)));
    if (new_count < old_count) {
        beginRemoveRows(QModelIndex(), int(new_count), int(old_count - 1));
        m_items.resize(new_count);
        endRemoveRows();
    } else if (new_count > old_count) {
        beginInsertRows(QModelIndex(), int(old_count), int(new_count - 1));
        m_items.append(items.mid(old_count));
        endInsertRows();
    }
}

int ItemModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(m_items.size());
}

QVariant ItemModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= m_items.size())
        return {};
    const Item &item = m_items.at(index.row());
    // An editable combo box and its completer read the edit role.
    if (role == Qt::DisplayRole || role == Qt::EditRole)
        return item.label;
    if (role == Qt::UserRole)
        return item.value;
    return {};
}

void ItemsField::set_items(const QList<Item> &items)
{
    m_updating = true;
    if (items != m_items) {
        m_items = items;
        if (m_model)
            m_model->set_items(items);
    }
    int row = row_of_stored();
    if (row < 0 && !m_items.isEmpty()) {
        // The stored value names no item: the first item stands in for it.
        row = 0;
        if (model::Property *p = property())
            p->set(Value::integer(m_items.first().value));
    }
    m_current = row;
    if (widget())
        show_current();
    m_updating = false;
}

void ItemsField::choose_row(int row)
{
    if (row < 0 || row >= m_items.size())
        return;
    m_current = row;
    write(Value::integer(m_items.at(row).value));
}

int ItemsField::row_of_stored() const
{
    const Value &stored = value();
    if (stored.type() != model::ValueType::Int)
        return -1;
    for (qsizetype i = 0; i < m_items.size(); ++i) {
        if (m_items.at(i).value == stored.to_int())
            return int(i);
    }
    return -1;
}

void ItemsField::value_updated()
{
    m_current = row_of_stored();
}

void ItemsField::update_widget()
{
    show_current();
}

ItemModel *ItemsField::make_model(QObject *parent)
{
    m_model = new ItemModel(parent);
    m_model->set_items(m_items);
    return m_model;
}

QWidget *ListField::create_widget(QObject *link)
{
    auto *view = new QListView;
    view->setModel(make_model(view));
    view->setSelectionMode(QAbstractItemView::SingleSelection);
    view->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    view->setSizeAdjustPolicy(QAbstractScrollArea::AdjustToContents);
    QObject::connect(view->selectionModel(), &QItemSelectionModel::currentChanged, link,
                     [this](const QModelIndex &current) {
                         if (!m_updating && current.isValid())
                             choose_row(current.row());
                     });
    watch_focus(view);
    return view;
}

void ListField::show_current()
{
    auto *view = static_cast<QListView *>(widget());
    const QModelIndex index = model()->index(current_row());
    if (view->currentIndex() != index)
        view->setCurrentIndex(index);
}

QWidget *SelectField::create_widget(QObject *link)
{
    auto *box = new SearchableComboBox;
    box->set_item_model(make_model(box));
    QObject::connect(box, &QComboBox::currentIndexChanged, link, [this](int row) {
        if (!m_updating && row >= 0)
            choose_row(row);
    });
    watch_focus(box);
    return box;
}

void SelectField::show_current()
{
    auto *box = static_cast<QComboBox *>(widget());
    if (box->currentIndex() != current_row())
        box->setCurrentIndex(current_row());
}

// ---------------------------------------------------------------------------
// Rack selection

SelectRackField::Model::Model(model::Project *project, QObject *parent)
    : QAbstractListModel(parent), m_project(project)
{
    if (!project)
        return;
    model::Profile *profile = project->profile();
    connect(profile, &model::Profile::before_rack_added, this, [this](const QUuid &, std::size_t index) {
        beginInsertRows(QModelIndex(), int(index) + 1, int(index) + 1);
    });
    connect(profile, &model::Profile::rack_added, this, [this] { endInsertRows(); });
    connect(profile, &model::Profile::before_rack_removed, this, [this](const QUuid &, std::size_t index) {
        beginRemoveRows(QModelIndex(), int(index) + 1, int(index) + 1);
    });
    connect(profile, &model::Profile::rack_removed, this, [this] { endRemoveRows(); });
    connect(profile, &model::Profile::before_rack_moved, this, [this](std::size_t from, std::size_t to) {
        // Profile moves count the target before the rack is taken out, as Qt does.
        m_moving = beginMoveRows(QModelIndex(), int(from) + 1, int(from) + 1, QModelIndex(), int(to) + 1);
    });
    connect(profile, &model::Profile::rack_moved, this, [this] {
        if (m_moving)
            endMoveRows();
        m_moving = false;
    });
    connect(project, &model::Project::rack_added, this, [this](const QUuid &id) { watch(id); });
    for (auto it = project->racks().cbegin(); it != project->racks().cend(); ++it)
        watch(it.key());
}

SelectRackField::Model::~Model() = default;

void SelectRackField::Model::watch(const QUuid &id)
{
    model::Rack *rack = m_project ? m_project->find_rack(id) : nullptr;
    if (!rack)
        return;
    connect(rack, &model::Rack::name_changed, this, [this, id] {
        const int row = row_of(id);
        if (row > 0)
            Q_EMIT dataChanged(index(row), index(row), {Qt::DisplayRole});
    });
}

QUuid SelectRackField::Model::rack_at(int row) const
{
    if (!m_project || row <= 0 || std::size_t(row) > m_project->profile()->count())
        return QUuid();
    return m_project->profile()->at(std::size_t(row - 1));
}

int SelectRackField::Model::row_of(const QUuid &rack) const
{
    if (!m_project || rack.isNull())
        return 0;
    const qsizetype index = m_project->profile()->index_of(rack);
    return index < 0 ? 0 : int(index) + 1;
}

int SelectRackField::Model::rowCount(const QModelIndex &parent) const
{
    if (parent.isValid())
        return 0;
    return 1 + (m_project ? int(m_project->profile()->count()) : 0);
}

QVariant SelectRackField::Model::data(const QModelIndex &index, int role) const
{
    if (role != Qt::DisplayRole || !index.isValid() || index.row() >= rowCount())
        return {};
    if (index.row() == 0)
        return locale::translate("RackSelect.None");
    const model::Rack *rack = m_project->find_rack(rack_at(index.row()));
    return rack ? rack->name() : QString();
}

SelectRackField::SelectRackField(Surface::Impl &surface, QString id)
    : Field(surface, std::move(id)),
      m_model(std::make_unique<Model>(surface.runtime ? &surface.runtime->project() : nullptr))
{
    Model *model = m_model.get();
    QObject::connect(model, &QAbstractItemModel::dataChanged, model,
                     [this](const QModelIndex &top, const QModelIndex &bottom) {
                         if (m_current > 0 && m_current >= top.row() && m_current <= bottom.row())
                             fire(TriggerSelectedRack);
                     });
    for (auto signal : {&QAbstractItemModel::rowsInserted, &QAbstractItemModel::rowsRemoved})
        QObject::connect(model, signal, model, [this] { on_rows_changed(); });
    QObject::connect(model, &QAbstractItemModel::rowsMoved, model, [this] { on_rows_changed(); });
}

SelectRackField::~SelectRackField() = default;

engine::RackManager *SelectRackField::rack_manager() const
{
    // A rack that has left the profile is on its way out of the runtime too:
    // it is no longer handed out, so no build keeps a handle to it.
    engine::ProjectRuntime *runtime = surface().runtime.data();
    const QUuid id = rack();
    if (!runtime || m_model->row_of(id) == 0)
        return nullptr;
    return runtime->find_rack_manager(id);
}

void SelectRackField::refresh_current()
{
    m_current = m_model->row_of(rack());
    refresh_widget();
}

void SelectRackField::choose_row(int row)
{
    if (row < 0 || row >= m_model->rowCount())
        return;
    m_current = row;
    write(Value::rack(m_model->rack_at(row)));
}

void SelectRackField::on_rows_changed()
{
    // The selected rack appearing or going away changes the rack itself.
    const bool had_rack = m_current > 0;
    refresh_current();
    if (rack().isNull() || had_rack == (m_current > 0))
        return;
    // The selected rack left the project: its rack manager is deleted right
    // after this, so the handle an earlier build returned must be replaced
    // now, whatever the field's triggers, not on the next loop turn.
    if (had_rack)
        rebuild_now();
    else
        fire(TriggerSelectedRack);
}

QWidget *SelectRackField::create_widget(QObject *link)
{
    m_combo = new QComboBox;
    m_combo->setModel(m_model.get());
    // activated: only the user's choices, not the box following model changes.
    QObject::connect(m_combo, &QComboBox::activated, link, [this](int row) { choose_row(row); });
    watch_focus(m_combo);
    return m_combo;
}

void SelectRackField::update_widget()
{
    if (m_combo && m_combo->currentIndex() != m_current)
        m_combo->setCurrentIndex(m_current);
}

// ---------------------------------------------------------------------------
// Texts

void TextField::set_hidden(bool hidden)
{
    if (hidden == m_hidden)
        return;
    m_hidden = hidden;
    if (auto *edit = static_cast<QLineEdit *>(widget()))
        edit->setEchoMode(hidden ? QLineEdit::Password : QLineEdit::Normal);
}

QWidget *TextField::create_widget(QObject *link)
{
    auto *edit = new QLineEdit;
    edit->setEchoMode(m_hidden ? QLineEdit::Password : QLineEdit::Normal);
    QObject::connect(edit, &QLineEdit::editingFinished, link, [this] { write_text(); });
    watch_focus(edit);
    return edit;
}

void TextField::finish_editing()
{
    write_text();
}

void TextField::write_text()
{
    auto *edit = static_cast<QLineEdit *>(widget());
    if (!edit || m_updating)
        return;
    const model::Value text = string_value(edit->text());
    if (!(text == value()))
        write(text);
}

void TextField::update_widget()
{
    auto *edit = static_cast<QLineEdit *>(widget());
    const QString text = text_of(value());
    if (edit->text() != text)
        edit->setText(text);
}

QWidget *TextAreaField::create_widget(QObject *link)
{
    auto *edit = new QPlainTextEdit;
    edit->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    QObject::connect(edit, &QPlainTextEdit::textChanged, link, [this, edit] {
        if (!m_updating)
            write(string_value(edit->toPlainText()));
    });
    watch_focus(edit);
    return edit;
}

void TextAreaField::update_widget()
{
    auto *edit = static_cast<QPlainTextEdit *>(widget());
    const QString text = text_of(value());
    if (edit->toPlainText() != text)
        edit->setPlainText(text);
}

void FilePickerField::set_mode(Mode mode, const QString &filter)
{
    m_mode = mode;
    m_filter = filter;
}

void FilePickerField::choose(const QString &path)
{
    if (path.isNull())
        return;
    write_once(string_value(path));
}

void FilePickerField::browse()
{
    HandlerScope scope(surface());
    QWidget *parent = widget();
    const Value &stored = value();
    const QString dir = stored.type() == model::ValueType::String ? text_of(stored) : QString();
    QString path;
    switch (m_mode) {
    case Mode::OpenFile:
        path = get_open_file_name(parent, locale::translate("OpenFileField.Caption"), dir, m_filter);
        break;
    case Mode::OpenFolder:
        path = get_existing_directory(parent, locale::translate("OpenFolderField.Caption"), dir);
        break;
    case Mode::SaveFile:
        path = get_save_file_name(parent, locale::translate("SaveFileField.Caption"), dir, m_filter);
        break;
    }
    // The dialog ran an event loop: the surface may be gone.
    if (scope.alive())
        choose(path);
}

QWidget *FilePickerField::create_widget(QObject *link)
{
    auto *row = new QWidget;
    auto *layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    m_edit = new QLineEdit(row);
    auto *button = new QPushButton(QStringLiteral("..."), row);
    button->setFixedWidth(30);
    layout->addWidget(m_edit);
    layout->addWidget(button);
    QObject::connect(m_edit, &QLineEdit::textEdited, link,
                     [this](const QString &text) { write(string_value(text)); });
    QObject::connect(button, &QPushButton::clicked, link, [this] { browse(); });
    watch_focus(m_edit);
    return row;
}

void FilePickerField::widget_dropped()
{
    m_edit = nullptr;
}

void FilePickerField::update_widget()
{
    const QString text = text_of(value());
    if (m_edit && m_edit->text() != text)
        m_edit->setText(text);
}

// ---------------------------------------------------------------------------
// Numbers

qint32 SliderField::page_step() const
{
    const qint64 page = qint64(m_step) * 10;
    return qint32(std::clamp<qint64>(page, std::numeric_limits<qint32>::min(),
                                     std::numeric_limits<qint32>::max()));
}

void SliderField::set_range(qint32 min, qint32 max, qint32 step)
{
    if (min == m_min && max == m_max && step == m_step)
        return;
    m_min = min;
    m_max = max;
    m_step = step;
    if (widget()) {
        m_updating = true;
        apply_range();
        update_widget();
        m_updating = false;
    }
}

void SliderField::apply_range()
{
    auto *slider = static_cast<QSlider *>(widget());
    slider->setRange(m_min, m_max);
    slider->setSingleStep(m_step);
    slider->setPageStep(page_step());
}

QWidget *SliderField::create_widget(QObject *link)
{
    auto *slider = new QSlider(Qt::Horizontal);
    slider->setTickPosition(QSlider::TicksBelow);
    QObject::connect(slider, &QSlider::valueChanged, link, [this](int value) {
        if (!m_updating)
            write(Value::integer(value));
    });
    // A drag is one undo step.
    QObject::connect(slider, &QSlider::sliderReleased, link, [this] { end_run(); });
    watch_focus(slider);
    return slider;
}

void SliderField::update_widget()
{
    auto *slider = static_cast<QSlider *>(widget());
    if (slider->minimum() != m_min || slider->maximum() != m_max || slider->singleStep() != m_step)
        apply_range();
    const int stored = value().to_int();
    if (slider->value() != stored)
        slider->setValue(stored);
}

void IntField::set_range(qint32 min, qint32 max)
{
    if (min == m_min && max == m_max)
        return;
    m_min = min;
    m_max = max;
    refresh_widget();
}

QWidget *IntField::create_widget(QObject *link)
{
    auto *box = new QSpinBox;
    QObject::connect(box, &QSpinBox::valueChanged, link, [this](int value) {
        if (!m_updating)
            write(Value::integer(value));
    });
    watch_focus(box);
    return box;
}

void IntField::update_widget()
{
    auto *box = static_cast<QSpinBox *>(widget());
    if (box->minimum() != m_min || box->maximum() != m_max)
        box->setRange(m_min, m_max);
    const int stored = value().to_int();
    if (box->value() != stored)
        box->setValue(stored);
}

void FloatField::set_range(double min, double max)
{
    if (min == m_min && max == m_max)
        return;
    m_min = min;
    m_max = max;
    refresh_widget();
}

QWidget *FloatField::create_widget(QObject *link)
{
    auto *box = new QDoubleSpinBox;
    box->setDecimals(decimals);
    QObject::connect(box, &QDoubleSpinBox::valueChanged, link, [this](double value) {
        if (!m_updating)
            write(Value::floating(value));
    });
    watch_focus(box);
    return box;
}

void FloatField::update_widget()
{
    auto *box = static_cast<QDoubleSpinBox *>(widget());
    if (box->minimum() != m_min || box->maximum() != m_max)
        box->setRange(m_min, m_max);
    const double stored = value().to_float();
    if (box->value() != stored)
        box->setValue(stored);
}

// ---------------------------------------------------------------------------
// Colour

namespace {
QColor to_qcolor(const model::Color &color)
{
    auto unit = [](double c) { return float(std::clamp(std::isnan(c) ? 0.0 : c, 0.0, 1.0)); };
    return QColor::fromRgbF(unit(color.red), unit(color.green), unit(color.blue));
}
} // namespace

void ColorField::choose(const QColor &color)
{
    if (!color.isValid())
        return;
    write(Value::color({color.redF(), color.greenF(), color.blueF()}));
}

void ColorField::browse()
{
    HandlerScope scope(surface());
    const QColor chosen =
        get_color(to_qcolor(value().to_color()), widget(), locale::translate("Color.Caption"));
    if (scope.alive())
        choose(chosen);
}

QWidget *ColorField::create_widget(QObject *link)
{
    auto *button = new QPushButton;
    button->setIconSize(QSize(32, 14));
    QObject::connect(button, &QPushButton::clicked, link, [this] { browse(); });
    watch_focus(button);
    return button;
}

void ColorField::update_widget()
{
    auto *button = static_cast<QPushButton *>(widget());
    const QColor color = to_qcolor(value().to_color());
    if (button->property("swatch").value<QColor>() == color && !button->icon().isNull())
        return;
    QPixmap swatch(button->iconSize());
    swatch.fill(color);
    button->setIcon(QIcon(swatch));
    button->setProperty("swatch", color);
}

// ---------------------------------------------------------------------------
// Hotkey

QWidget *HotkeyField::create_widget(QObject *link)
{
    auto *edit = new HotkeyFieldLineEdit;
    QObject::connect(edit, &HotkeyFieldLineEdit::hotkey_entered, link,
                     [this](const QString &text) { write(string_value(text)); });
    watch_focus(edit);
    return edit;
}

void HotkeyField::update_widget()
{
    auto *edit = static_cast<QLineEdit *>(widget());
    const QString text = text_of(value());
    if (edit->text() != text)
        edit->setText(text);
}

} // namespace corv::cui
