#pragma once
// A panel as its user sees it, one line an element: its kind, key (none for
// keyless ones), label, and its text, range, items or value; a container's
// elements below it, indented. Tests compare it with a file of outlines,
// written anew when CORV_WRITE_OUTLINES is set.

#include "cui/fields.h"
#include "cui/surface.h"
#include "cui/surface_p.h"
#include "model/value.h"
#include "tests/test_files.h"

#include <QByteArray>
#include <QRegularExpression>
#include <QStringList>
#include <QTest>

namespace corv::test {

inline void outline(const cui::Element &element, int depth, QByteArray &out)
{
    using namespace corv::cui;
    static const char *const kinds[] = {"root", "group", "columns", "label", "spacer", "separator", "button",
                                        "checkbox", "radio", "list", "select", "rack", "text", "textarea",
                                        "file", "slider", "int", "float", "color", "hotkey"};
    QByteArray line = QByteArray(depth * 2, ' ') + kinds[int(element.kind())];
    if (element.id().section(u'.', -2, -2) != QLatin1StringView("anonymous"))
        line += ' ' + element.id().toUtf8();
    if (!element.label().isEmpty())
        line += " \"" + element.label().toUtf8() + '"';
    const auto range = [](auto low, auto high) { return ' ' + QByteArray::number(low) + ".." + QByteArray::number(high); };
    if (const auto *label = dynamic_cast<const LabelField *>(&element))
        line += ": " + label->text().toUtf8();
    else if (const auto *button = dynamic_cast<const ButtonField *>(&element))
        line += ": " + button->text().toUtf8();
    else if (const auto *group = dynamic_cast<const GroupContainer *>(&element))
        line += ": " + group->title().toUtf8();
    else if (const auto *radio = dynamic_cast<const RadioGroupField *>(&element))
        line += " [" + radio->items().join(u'|').toUtf8() + ']';
    else if (const auto *number = dynamic_cast<const IntField *>(&element))
        line += range(number->minimum(), number->maximum());
    else if (const auto *real = dynamic_cast<const FloatField *>(&element))
        line += range(real->minimum(), real->maximum());
    else if (const auto *slider = dynamic_cast<const SliderField *>(&element))
        line += range(slider->minimum(), slider->maximum()) + " by " + QByteArray::number(slider->step());
    else if (const auto *items = dynamic_cast<const ItemsField *>(&element)) {
        QByteArrayList texts;
        for (const Item &item : items->items())
            texts << item.label.toUtf8() + '=' + QByteArray::number(item.value);
        line += " [" + texts.join('|') + ']';
    }
    if (auto *field = const_cast<Element &>(element).as_field(); field && field->is_bound()) {
        const model::Value &value = field->value();
        const QByteArray shown = value.type() == model::ValueType::Int     ? QByteArray::number(value.to_int())
                                 : value.type() == model::ValueType::Float ? QByteArray::number(value.to_float())
                                 : value.type() == model::ValueType::Bool  ? QByteArray(value.to_bool() ? "yes" : "no")
                                                                                 : value.to_string();
        line += " = " + shown + (field->is_enabled() ? "" : " (disabled)");
    }
    out += line + '\n';
    if (auto *container = const_cast<Element &>(element).as_container())
        for (const Element *child : container->children())
            outline(*child, depth + 1, out);
}

inline QByteArray outline(const cui::Surface &surface)
{
    QByteArray out;
    for (const cui::Element *element : surface.impl()->root.children())
        outline(*element, 0, out);
    return out;
}

// Compares an outline with the file's, line by line (clock times masked).
inline void compare_outline(const QByteArray &outline, const QString &file)
{
    const QString shown = QString::fromUtf8(outline).replace(
        QRegularExpression(QStringLiteral("\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d")), QStringLiteral("<time>"));
    if (qEnvironmentVariableIsSet("CORV_WRITE_OUTLINES"))
        write_file(file, shown.toUtf8());
    const QStringList lines = shown.split(u'\n');
    const QStringList expected = QString::fromUtf8(read_file(file)).split(u'\n');
    for (qsizetype i = 0; i < std::max(lines.size(), expected.size()); ++i) // the first line that differs
        QCOMPARE(lines.value(i), expected.value(i));
}

} // namespace corv::test
