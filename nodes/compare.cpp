#include "nodes/compare.h"

#include "nodes/node_support.h"
#include "sdk/include/corvane/corvane_cui.h"

#include <QByteArray>

#include <charconv>
#include <cmath>
#include <limits>

namespace corv::nodes {

double read_number(const char *text)
{
    if (!text)
        return 0.0;
    const char *p = text;
    while (*p == ' ' || (*p >= '\t' && *p <= '\r'))
        ++p;
    bool negative = false;
    if (*p == '+' || *p == '-') {
        negative = *p == '-';
        ++p;
    }
    const char *end = p;
    while (*end)
        ++end;
    // Up to 15 digits that no point, exponent or further digit follows are
    // a whole number a double holds exactly: read without the parser.
    long long whole = 0;
    const char *digit = p;
    while (digit < end && digit - p <= 15 && *digit >= '0' && *digit <= '9')
        whole = whole * 10 + (*digit++ - '0');
    const auto continues = [](char c) {
        return (c >= '0' && c <= '9') || c == '.' || c == 'e' || c == 'E' || c == 'x' || c == 'X';
    };
    if (digit > p && digit - p <= 15 && (digit == end || !continues(*digit)))
        return negative ? -double(whole) : double(whole);
    double value = 0.0;
    const auto is_hex = [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    };
    // "0x" counts only when a hexadecimal digit follows (with or without a
    // point); otherwise the 0 alone is the number.
    std::from_chars_result read{p, std::errc()};
    char exponent = 'e';
    if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X') &&
        (is_hex(p[2]) || (p[2] == '.' && is_hex(p[3])))) {
        read = std::from_chars(p + 2, end, value, std::chars_format::hex);
        exponent = 'p';
    } else if (*p != '+' && *p != '-') { // strtod takes one sign only
        read = std::from_chars(p, end, value, std::chars_format::general);
    }
    if (read.ec == std::errc::result_out_of_range) {
        // As strtod: too large is infinite, too small is 0.
        const QByteArrayView number(p, read.ptr - p);
        const qsizetype at = number.toByteArray().toLower().indexOf(exponent);
        value = at >= 0 && at + 1 < number.size() && number[at + 1] == '-'
                    ? 0.0
                    : std::numeric_limits<double>::infinity();
    }
    return negative ? -value : value;
}

namespace {

// --- Compare ----------------------------------------------------------------
// Runs its children with the events whose key passes the test; the others go
// no further in the rack.

enum CompareType : std::int32_t {
    Is = 0,
    IsNot,
    Equal,
    NotEqual,
    Gt,
    Gte,
    Lt,
    Lte,
    Between,
    kCompareTypes
};

constexpr const char *kTypeLabels[kCompareTypes] = {
    "CompareNode.Is",       "CompareNode.IsNot", "CompareNode.Equal",
    "CompareNode.NotEqual", "CompareNode.Gt",    "CompareNode.Gte",
    "CompareNode.Lt",       "CompareNode.Lte",   "CompareNode.Between"};

constexpr double kUnbounded = std::numeric_limits<double>::infinity();

struct Compare : NodeState {
    using NodeState::NodeState;
    std::int32_t type = Is;
    QByteArray property;
    QByteArray value;
    double a = 0.0;
    double b = 0.0;
};

bool passes(const Compare &compare, const char *text)
{
    if (compare.type == Is || compare.type == IsNot)
        return (compare.value == QByteArrayView(text)) == (compare.type == Is);
    const double x = read_number(text);
    const double a = compare.a;
    switch (compare.type) {
    case Equal:
        return x == a;
    case NotEqual:
        return !(x == a);
    case Gt:
        return x > a;
    case Gte:
        return x >= a;
    case Lt:
        return x < a;
    case Lte:
        return x <= a;
    case Between:
        return a <= x && x <= compare.b;
    default:
        return false;
    }
}

void compare_name(void *data, char *buffer)
{
    const Compare *compare = state_of<Compare>(data);
    corv_tr_builder *builder = nullptr;
    switch (compare->type) {
    case Is:
        builder = corv_plugin_tr_arg(plugin(), "CompareNode.IsName.%1.%2");
        break;
    case IsNot:
        builder = corv_plugin_tr_arg(plugin(), "CompareNode.IsNotName.%1.%2");
        break;
    case Equal:
        builder = corv_plugin_tr_arg(plugin(), "CompareNode.EqualName.%1.%2");
        break;
    case NotEqual:
        builder = corv_plugin_tr_arg(plugin(), "CompareNode.NotEqualName.%1.%2");
        break;
    case Gt:
        builder = corv_plugin_tr_arg(plugin(), "CompareNode.GtName.%1.%2");
        break;
    case Gte:
        builder = corv_plugin_tr_arg(plugin(), "CompareNode.GteName.%1.%2");
        break;
    case Lt:
        builder = corv_plugin_tr_arg(plugin(), "CompareNode.LtName.%1.%2");
        break;
    case Lte:
        builder = corv_plugin_tr_arg(plugin(), "CompareNode.LteName.%1.%2");
        break;
    case Between:
        builder = corv_plugin_tr_arg(plugin(), "CompareNode.BetweenName.%1.%2.%3");
        break;
    default:
        write_name(buffer, "");
        return;
    }
    corv_tr_str(builder, compare->property.constData());
    if (compare->type == Is || compare->type == IsNot)
        corv_tr_str(builder, compare->value.constData());
    else
        corv_tr_float(builder, compare->a);
    if (compare->type == Between)
        corv_tr_float(builder, compare->b);
    corv_tr_end_str(builder, buffer);
}

void compare_build(void *data, cui_generate_context *context)
{
    Compare *compare = state_of<Compare>(data);
    take_text(compare->property,
              cui_text(context, "!property", "", corv_plugin_tr(plugin(), "CompareNode.Property")));
    const char *labels[kCompareTypes];
    for (int i = 0; i < kCompareTypes; ++i)
        labels[i] = corv_plugin_tr(plugin(), kTypeLabels[i]);
    // "comparetype" without "!" lives under the type's prefix, as saved
    // projects have it.
    compare->type = cui_select(context, "comparetype", "", labels, nullptr, kCompareTypes, Is);
    if (compare->type == Is || compare->type == IsNot) {
        take_text(compare->value, cui_text(context, "!value", "", "value"));
    } else if (compare->type == Between) {
        cui_start_columns(context, "");
        compare->a = cui_float(context, "!num a", "", 0.0, -kUnbounded, kUnbounded);
        cui_label(context, "", corv_plugin_tr(plugin(), "CompareNode.And"));
        compare->b = cui_float(context, "!num b", "", 0.0, -kUnbounded, kUnbounded);
        cui_end_columns(context);
    } else if (compare->type > IsNot && compare->type < Between) {
        compare->a = cui_float(context, "!num a", "", 0.0, -kUnbounded, kUnbounded);
    }
    corv_node_invalidate_name(compare->node);
}

void compare_on_event(void *data, corv_event *event)
{
    const Compare *compare = state_of<Compare>(data);
    const char *text = corv_event_get(event, compare->property.constData());
    if (text && compare->type >= Is && compare->type < kCompareTypes && passes(*compare, text))
        post_to_children(compare->node, event);
    else
        corv_event_destroy(event);
}

// --- Evaluate ---------------------------------------------------------------
// Writes the result of an expression over the event into one of its keys.

struct Evaluate : NodeState {
    using NodeState::NodeState;
    QByteArray key;
    QByteArray expression;
};

void evaluate_name(void *data, char *buffer)
{
    const Evaluate *evaluate = state_of<Evaluate>(data);
    corv_tr_end_str(corv_tr_str(corv_tr_str(corv_plugin_tr_arg(plugin(), "EvaluateNode.Name.%1.%2"),
                                            evaluate->key.constData()),
                                evaluate->expression.constData()),
                    buffer);
}

void evaluate_build(void *data, cui_generate_context *context)
{
    Evaluate *evaluate = state_of<Evaluate>(data);
    take_text(evaluate->key,
              cui_text(context, "!key", corv_plugin_tr(plugin(), "EvaluateNode.KeyField"),
                       corv_plugin_tr(plugin(), "EvaluateNode.DefaultKey")));
    take_text(
        evaluate->expression,
        cui_text(context, "!expr", corv_plugin_tr(plugin(), "EvaluateNode.ExpressionField"), ""));
    corv_node_invalidate_name(evaluate->node);
}

void evaluate_on_event(void *data, corv_event *event)
{
    const Evaluate *evaluate = state_of<Evaluate>(data);
    corv_event_set_expression(event, evaluate->key.constData(),
                              evaluate->expression.isEmpty() ? nullptr : evaluate->expression.constData());
    post_to_parent(evaluate->node, event);
}

} // namespace

const corv_node_type compare_node = {nullptr,
                                     nullptr,
                                     nullptr,
                                     nullptr,
                                     create_state<Compare>,
                                     destroy_state<Compare>,
                                     compare_name,
                                     nullptr,
                                     compare_build,
                                     compare_on_event,
                                     pass_on,
                                     nullptr,
                                     nullptr};

const corv_node_type evaluate_node = {nullptr,
                                      nullptr,
                                      nullptr,
                                      nullptr,
                                      create_state<Evaluate>,
                                      destroy_state<Evaluate>,
                                      evaluate_name,
                                      nullptr,
                                      evaluate_build,
                                      evaluate_on_event,
                                      pass_on,
                                      nullptr,
                                      nullptr};

} // namespace corv::nodes
