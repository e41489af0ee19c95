// The cui_* functions of the SDK: each declares one element of the surface
// being built and returns the field's stored value.

#include "sdk/include/corvane/corvane_cui.h"

#include "cui/fields.h"
#include "cui/generate_context.h"
#include "cui/surface_p.h"
#include "engine/handles.h"

namespace {

using namespace corv::cui;
using corv::model::Value;
using corv::model::ValueType;

GenerateContext *context_of(cui_generate_context *context)
{
    return reinterpret_cast<GenerateContext *>(context);
}

QString text(const char *utf8)
{
    return utf8 ? QString::fromUtf8(utf8) : QString();
}

Value string_default(const char *utf8)
{
    return Value::string(utf8 ? QByteArray(utf8) : QByteArray(""));
}

// A keyless element: the next anonymous id.
template <typename T>
T *declare_anonymous(GenerateContext &context, const char *label)
{
    T *element = context.surface()->declare<T>(context, context.next_anonymous_id());
    element->set_label(text(label));
    return element;
}

// A value field under key, bound on its first declaration.
template <typename T>
T *declare_bound(GenerateContext &context, const char *key, const char *label, const Value &default_value)
{
    const QString local = text(key);
    bool created = false;
    T *field = context.surface()->declare<T>(context, context.full_id(local), &created);
    if (created)
        field->bind(context.surface()->store.collection(), context.prefix(), local, default_value);
    field->set_label(text(label));
    return field;
}

// The stored string, owned by the store entry; "" for other types.
const char *string_of(const Field &field)
{
    const Value &value = field.value();
    return value.type() == ValueType::String ? value.bytes().constData() : "";
}

QList<Item> items_of(const char *const *labels, const int32_t *values, uint32_t count)
{
    QList<Item> items;
    items.reserve(qsizetype(count));
    for (uint32_t i = 0; i < count; ++i)
        items.append(Item{text(labels ? labels[i] : nullptr), values ? values[i] : qint32(i)});
    return items;
}

Container *start_container(GenerateContext &context, Container *container)
{
    container->begin();
    context.containers.append(container);
    return container;
}

const char *file_picker(cui_generate_context *context, const char *key, const char *label,
                        FilePickerField::Mode mode, const char *filter, const char *default_value)
{
    if (!context)
        return "";
    auto *field =
        declare_bound<FilePickerField>(*context_of(context), key, label, string_default(default_value));
    field->set_mode(mode, text(filter));
    return string_of(*field);
}

} // namespace

extern "C" {

void cui_set_invalidate_mode(cui_generate_context *context, uint32_t triggers)
{
    if (!context)
        return;
    if (Field *field = context_of(context)->current_field())
        field->set_triggers(triggers);
}

bool cui_did_invalidate(cui_generate_context *context)
{
    Field *field = context ? context_of(context)->current_field() : nullptr;
    return field && field->did_invalidate();
}

bool cui_is_editing(cui_generate_context *context)
{
    Field *field = context ? context_of(context)->current_field() : nullptr;
    if (!field)
        return false;
    field->set_triggers(field->triggers() | TriggerEditingStarted | TriggerEditingFinished);
    return field->is_editing();
}

void cui_set_enabled(cui_generate_context *context, bool enabled)
{
    if (!context)
        return;
    if (Field *field = context_of(context)->current_field())
        field->set_enabled(enabled);
}

void cui_start_group(cui_generate_context *context, const char *title)
{
    if (!context)
        return;
    GenerateContext &c = *context_of(context);
    auto *group = declare_anonymous<GroupContainer>(c, nullptr);
    group->set_title(text(title));
    start_container(c, group);
}

void cui_start_columns(cui_generate_context *context, const char *title)
{
    if (!context)
        return;
    GenerateContext &c = *context_of(context);
    auto *columns = declare_anonymous<ColumnContainer>(c, nullptr);
    columns->set_title(text(title));
    start_container(c, columns);
}

void cui_end_group(cui_generate_context *context)
{
    if (!context)
        return;
    GenerateContext &c = *context_of(context);
    if (!c.containers.isEmpty())
        c.containers.takeLast()->finish();
}

void cui_end_columns(cui_generate_context *context)
{
    cui_end_group(context);
}

void cui_label(cui_generate_context *context, const char *label, const char *label_text)
{
    if (!context)
        return;
    declare_anonymous<LabelField>(*context_of(context), label)->set_text(text(label_text));
}

void cui_spacer(cui_generate_context *context)
{
    if (context)
        declare_anonymous<SpacerField>(*context_of(context), nullptr);
}

void cui_separator(cui_generate_context *context)
{
    if (context)
        declare_anonymous<SeparatorField>(*context_of(context), nullptr);
}

bool cui_button(cui_generate_context *context, const char *label, const char *button_text)
{
    if (!context)
        return false;
    auto *button = declare_anonymous<ButtonField>(*context_of(context), label);
    button->set_text(text(button_text));
    return button->did_invalidate();
}

bool cui_checkbox(cui_generate_context *context, const char *key, const char *label, bool default_value)
{
    if (!context)
        return false;
    return declare_bound<CheckboxField>(*context_of(context), key, label, Value::boolean(default_value))
        ->checked();
}

int32_t cui_radio_group(cui_generate_context *context, const char *key, const char *label,
                        const char *const *items, uint32_t count, int32_t default_value)
{
    if (!context)
        return 0;
    auto *field = declare_bound<RadioGroupField>(*context_of(context), key, label,
                                                 Value::integer(default_value));
    QStringList texts;
    texts.reserve(qsizetype(count));
    for (uint32_t i = 0; i < count; ++i)
        texts.append(text(items ? items[i] : nullptr));
    field->set_items(texts);
    return field->checked();
}

int32_t cui_list(cui_generate_context *context, const char *key, const char *label,
                 const char *const *labels, const int32_t *values, uint32_t count, int32_t default_value)
{
    if (!context)
        return 0;
    auto *field =
        declare_bound<ListField>(*context_of(context), key, label, Value::integer(default_value));
    field->set_items(items_of(labels, values, count));
    return field->stored();
}

int32_t cui_select(cui_generate_context *context, const char *key, const char *label,
                   const char *const *labels, const int32_t *values, uint32_t count, int32_t default_value)
{
    if (!context)
        return 0;
    auto *field =
        declare_bound<SelectField>(*context_of(context), key, label, Value::integer(default_value));
    field->set_items(items_of(labels, values, count));
    return field->stored();
}

corv_rack *cui_select_rack(cui_generate_context *context, const char *key, const char *label)
{
    if (!context)
        return nullptr;
    auto *field =
        declare_bound<SelectRackField>(*context_of(context), key, label, Value::rack(QUuid()));
    field->refresh_current();
    return corv::engine::handles::to_handle(field->rack_manager());
}

const char *cui_text(cui_generate_context *context, const char *key, const char *label,
                     const char *default_value)
{
    if (!context)
        return "";
    return string_of(*declare_bound<TextField>(*context_of(context), key, label, string_default(default_value)));
}

const char *cui_password(cui_generate_context *context, const char *key, const char *label)
{
    if (!context)
        return "";
    auto *field = declare_bound<TextField>(*context_of(context), key, label, string_default(""));
    field->set_hidden(true);
    return string_of(*field);
}

const char *cui_text_area(cui_generate_context *context, const char *key, const char *label,
                          const char *default_value)
{
    if (!context)
        return "";
    return string_of(
        *declare_bound<TextAreaField>(*context_of(context), key, label, string_default(default_value)));
}

const char *cui_open_file(cui_generate_context *context, const char *key, const char *label,
                          const char *filter, const char *default_value)
{
    return file_picker(context, key, label, FilePickerField::Mode::OpenFile, filter, default_value);
}

const char *cui_open_folder(cui_generate_context *context, const char *key, const char *label,
                            const char *default_value)
{
    return file_picker(context, key, label, FilePickerField::Mode::OpenFolder, nullptr, default_value);
}

const char *cui_save_file(cui_generate_context *context, const char *key, const char *label,
                          const char *filter, const char *default_value)
{
    return file_picker(context, key, label, FilePickerField::Mode::SaveFile, filter, default_value);
}

int32_t cui_slider(cui_generate_context *context, const char *key, const char *label, int32_t default_value,
                   int32_t min, int32_t max, int32_t step)
{
    if (!context)
        return 0;
    auto *field =
        declare_bound<SliderField>(*context_of(context), key, label, Value::integer(default_value));
    field->set_range(min, max, step);
    return field->value().to_int();
}

int32_t cui_int(cui_generate_context *context, const char *key, const char *label, int32_t default_value,
                int32_t min, int32_t max)
{
    if (!context)
        return 0;
    auto *field = declare_bound<IntField>(*context_of(context), key, label, Value::integer(default_value));
    field->set_range(min, max);
    return field->value().to_int();
}

double cui_float(cui_generate_context *context, const char *key, const char *label, double default_value,
                 double min, double max)
{
    if (!context)
        return 0.0;
    auto *field =
        declare_bound<FloatField>(*context_of(context), key, label, Value::floating(default_value));
    field->set_range(min, max);
    return field->value().to_float();
}

cui_color_value cui_color(cui_generate_context *context, const char *key, const char *label,
                          double default_r, double default_g, double default_b)
{
    if (!context)
        return cui_color_value{0.0, 0.0, 0.0};
    auto *field = declare_bound<ColorField>(*context_of(context), key, label,
                                            Value::color({default_r, default_g, default_b}));
    const corv::model::Color color = field->value().to_color();
    return cui_color_value{color.red, color.green, color.blue};
}

const char *cui_hotkey(cui_generate_context *context, const char *key, const char *label,
                       const char *default_value)
{
    if (!context)
        return "";
    return string_of(*declare_bound<HotkeyField>(*context_of(context), key, label, string_default(default_value)));
}

} // extern "C"
