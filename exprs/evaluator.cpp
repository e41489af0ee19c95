#include "exprs/evaluator.h"

#include "exprs/expression.h"

#include <cmath>
#include <cstring>

namespace corv::exprs {

double to_number(const Value &value, bool *ok)
{
    *ok = true;
    switch (value.kind) {
    case Value::Kind::Number:
        return value.number;
    case Value::Kind::Bool:
        *ok = false;
        return 0.0;
    case Value::Kind::Text:
        break;
    }
    const std::optional<double> number = read_number(value.text);
    *ok = number.has_value();
    return number.value_or(0.0);
}

QByteArray not_a_number_message(const QByteArray &text)
{
    // Long texts are shown by their start, cut at a character boundary.
    constexpr qsizetype shown = 60;
    QByteArray start = text;
    if (start.size() > shown) {
        start.truncate(utf8::offset_of(text, utf8::index_of(text, shown)));
        start += "...";
    }
    return "'" + start + "' is not a number";
}

void Evaluator::fail(int node, QByteArray message) const
{
    throw Failure{m_t.nodes[std::size_t(node)].offset, std::move(message)};
}

void Evaluator::check_size(int node, qsizetype size) const
{
    if (size > max_text)
        fail(node, "text longer than " + QByteArray::number(max_text) + " bytes");
}

QByteArray Evaluator::text(int node)
{
    return to_text(eval(node));
}

double Evaluator::number(int node)
{
    const Value value = eval(node);
    bool ok = false;
    const double number = to_number(value, &ok);
    if (!ok)
        fail(node, not_a_number_message(to_text(value)));
    return number;
}

bool Evaluator::truth(int node)
{
    return exprs::truth(eval(node));
}

namespace {

// The number a comparison sees in a value: numbers, and texts that read as
// one. Empty text takes part as text here, so that x == "" tests for empty.
bool comparable_number(const Value &value, double &number)
{
    if (value.is_number()) {
        number = value.number;
        return true;
    }
    if (!value.is_text() || value.text.isEmpty())
        return false;
    const std::optional<double> read = read_number(value.text);
    if (read)
        number = *read;
    return read.has_value();
}

int compare_bytes(const QByteArray &a, const QByteArray &b)
{
    const std::size_t common = std::size_t(std::min(a.size(), b.size()));
    const int order = common ? std::memcmp(a.constData(), b.constData(), common) : 0;
    if (order != 0)
        return order;
    return a.size() < b.size() ? -1 : (a.size() > b.size() ? 1 : 0);
}

} // namespace

Value Evaluator::compare(const Node &node)
{
    const Value a = eval(node.a);
    const Value b = eval(node.b);
    double x = 0.0;
    double y = 0.0;
    if (comparable_number(a, x) && comparable_number(b, y)) {
        switch (node.op) {
        case Op::Equal: return Value::of_bool(x == y);
        case Op::NotEqual: return Value::of_bool(!(x == y));
        case Op::Less: return Value::of_bool(x < y);
        case Op::LessEqual: return Value::of_bool(x <= y);
        case Op::Greater: return Value::of_bool(x > y);
        default: return Value::of_bool(x >= y);
        }
    }
    const int order = compare_bytes(to_text(a), to_text(b));
    switch (node.op) {
    case Op::Equal: return Value::of_bool(order == 0);
    case Op::NotEqual: return Value::of_bool(order != 0);
    case Op::Less: return Value::of_bool(order < 0);
    case Op::LessEqual: return Value::of_bool(order <= 0);
    case Op::Greater: return Value::of_bool(order > 0);
    default: return Value::of_bool(order >= 0);
    }
}

Value Evaluator::eval(int index)
{
    const Node &node = m_t.nodes[std::size_t(index)];
    switch (node.op) {
    case Op::Literal:
        return node.value;
    case Op::Key:
        return Value::of_text(m_keys.value(node.value.text));
    case Op::Negate:
        return Value::of_number(-number(node.a));
    case Op::Not:
        return Value::of_bool(!truth(node.a));
    case Op::Concat: {
        QByteArray text = this->text(node.a);
        const Value right = eval(node.b);
        if (right.is_text())
            check_size(index, text.size() + right.text.size());
        append_text(text, right);
        return Value::of_text(std::move(text));
    }
    case Op::Add:
        return Value::of_number(number(node.a) + number(node.b));
    case Op::Subtract:
        return Value::of_number(number(node.a) - number(node.b));
    case Op::Multiply:
        return Value::of_number(number(node.a) * number(node.b));
    case Op::Divide:
        return Value::of_number(number(node.a) / number(node.b));
    case Op::Modulo: {
        const double x = number(node.a);
        return Value::of_number(std::fmod(x, number(node.b)));
    }
    case Op::Equal:
    case Op::NotEqual:
    case Op::Less:
    case Op::LessEqual:
    case Op::Greater:
    case Op::GreaterEqual:
        return compare(node);
    case Op::And:
        return Value::of_bool(truth(node.a) && truth(node.b));
    case Op::Or:
        return Value::of_bool(truth(node.a) || truth(node.b));
    case Op::Choose:
        return truth(node.a) ? eval(node.b) : eval(node.c);
    case Op::Call:
        return call(node, index);
    }
    return {};
}

std::optional<Failure> Template::evaluate(const KeySource &keys, QByteArray &out) const
{
    out.clear();
    if (m_parse_failure)
        return m_parse_failure;
    if (pieces.size() == 1 && pieces.front().node < 0) {
        out = pieces.front().text;
        return std::nullopt;
    }
    Evaluator evaluator(*this, keys);
    out.reserve(m_literal_size + 16 * qsizetype(pieces.size()));
    try {
        for (const Piece &piece : pieces) {
            if (piece.node < 0) {
                out += piece.text;
                continue;
            }
            const Value value = evaluator.eval(piece.node);
            if (value.is_text())
                evaluator.check_size(piece.node, out.size() + value.text.size());
            append_text(out, value);
        }
    } catch (const Failure &failure) {
        out.clear();
        return failure;
    }
    return std::nullopt;
}

} // namespace corv::exprs
