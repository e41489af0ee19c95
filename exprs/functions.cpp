// The functions of the language. Positions and lengths count code points from
// 0; numbers given where a count or position is wanted are cut to whole
// numbers (NaN reads as 0).

#include "exprs/evaluator.h"
#include "exprs/expression.h"

#include <QDateTime>
#include <QString>

#include <charconv>
#include <cmath>

namespace corv::exprs {

namespace {

qint64 whole(double x)
{
    if (std::isnan(x))
        return 0;
    constexpr double limit = 1e15;
    return qint64(std::trunc(std::clamp(x, -limit, limit)));
}

QByteArray through_qstring(const QByteArray &text, QString (QString::*convert)() const &)
{
    return (QString::fromUtf8(text).*convert)().toUtf8();
}

QByteArray fixed(double x, qint64 digits)
{
    if (!std::isfinite(x))
        return number_to_text(x);
    char buffer[512];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, x, std::chars_format::fixed,
                                      int(std::clamp<qint64>(digits, 0, 100)));
    QByteArray text(buffer, result.ptr - buffer);
    // A negative value that rounds to zero is written without its sign.
    if (text.startsWith('-') && text.count('0') + text.count('.') == text.size() - 1)
        text.remove(0, 1);
    return text;
}

double round_to(double x, qint64 digits)
{
    if (digits == 0 || !std::isfinite(x))
        return std::round(x);
    digits = std::clamp<qint64>(digits, -330, 330);
    if (digits < 0) {
        const double step = std::pow(10.0, double(-digits));
        return std::round(x / step) * step;
    }
    const double scale = std::pow(10.0, double(digits));
    const double scaled = x * scale;
    if (!std::isfinite(scaled))
        return x; // already finer than the digits asked for
    return std::round(scaled) / scale;
}

} // namespace

Value Evaluator::call(const Node &node, int index)
{
    const int count = node.arg_count;
    auto a = [&](int i) { return arg(node, i); };

    switch (node.function) {
    // --- text ---------------------------------------------------------------
    case Function::Len:
        return Value::of_number(double(utf8::length(text(a(0)))));
    case Function::Upper:
        return Value::of_text(through_qstring(text(a(0)), &QString::toUpper));
    case Function::Lower:
        return Value::of_text(through_qstring(text(a(0)), &QString::toLower));
    case Function::Trim:
        return Value::of_text(through_qstring(text(a(0)), &QString::trimmed));
    case Function::Substr: {
        const QByteArray t = text(a(0));
        qint64 start = whole(number(a(1)));
        if (start < 0)
            start = std::max<qint64>(0, start + utf8::length(t));
        const qsizetype begin = utf8::offset_of(t, start);
        qsizetype end = t.size();
        if (count > 2) {
            const qint64 length = std::max<qint64>(0, whole(number(a(2))));
            end = begin + utf8::offset_of(QByteArrayView(t).sliced(begin), length);
        }
        return Value::of_text(t.sliced(begin, end - begin));
    }
    case Function::Replace: {
        const QByteArray t = text(a(0));
        const QByteArray before = text(a(1));
        const QByteArray after = text(a(2));
        if (before.isEmpty())
            return Value::of_text(t);
        QByteArray out;
        qsizetype from = 0;
        for (qsizetype at; (at = t.indexOf(before, from)) >= 0; from = at + before.size()) {
            check_size(index, out.size() + (at - from) + after.size());
            out += QByteArrayView(t).sliced(from, at - from);
            out += after;
        }
        check_size(index, out.size() + t.size() - from);
        out += QByteArrayView(t).sliced(from);
        return Value::of_text(std::move(out));
    }
    case Function::Contains:
        return Value::of_bool(text(a(0)).contains(text(a(1))));
    case Function::StartsWith:
        return Value::of_bool(text(a(0)).startsWith(text(a(1))));
    case Function::EndsWith:
        return Value::of_bool(text(a(0)).endsWith(text(a(1))));
    case Function::Find: {
        const QByteArray t = text(a(0));
        const qsizetype at = t.indexOf(text(a(1)));
        return Value::of_number(at < 0 ? -1.0 : double(utf8::index_of(t, at)));
    }
    case Function::Pad: {
        // A positive width pads on the left (pad(7, 3, "0") is "007"), a
        // negative one on the right; the fill is the first character of the
        // third argument (a blank by default). Longer texts stay as they are.
        QByteArray t = text(a(0));
        const qint64 width = whole(number(a(1)));
        QByteArray fill = count > 2 ? text(a(2)) : QByteArray(" ");
        if (fill.isEmpty())
            return Value::of_text(t);
        fill.truncate(utf8::step(fill, 0));
        const qint64 missing = std::abs(width) - utf8::length(t);
        if (missing <= 0)
            return Value::of_text(t);
        check_size(index, qsizetype(std::min<double>(double(missing) * double(fill.size())
                                                         + double(t.size()),
                                                     double(max_text) + 1)));
        const QByteArray padding = fill.repeated(missing);
        return Value::of_text(width > 0 ? padding + t : t + padding);
    }
    case Function::Repeat: {
        const QByteArray t = text(a(0));
        const qint64 times = whole(number(a(1)));
        if (times <= 0 || t.isEmpty())
            return Value::of_text(QByteArray());
        check_size(index, qsizetype(std::min<double>(double(times) * double(t.size()),
                                                     double(max_text) + 1)));
        return Value::of_text(t.repeated(times));
    }

    // --- numbers ------------------------------------------------------------
    case Function::Number:
        return Value::of_number(number(a(0)));
    case Function::Abs:
        return Value::of_number(std::fabs(number(a(0))));
    case Function::Floor:
        return Value::of_number(std::floor(number(a(0))));
    case Function::Ceil:
        return Value::of_number(std::ceil(number(a(0))));
    case Function::Round: {
        const double x = number(a(0));
        return Value::of_number(round_to(x, count > 1 ? whole(number(a(1))) : 0));
    }
    case Function::Min:
    case Function::Max: {
        // NaN anywhere makes the result NaN.
        double result = number(a(0));
        for (int i = 1; i < count; ++i) {
            const double x = number(a(i));
            if (std::isnan(x) || (node.function == Function::Min ? x < result : x > result))
                result = std::isnan(result) ? result : x;
        }
        return Value::of_number(result);
    }
    case Function::Pow: {
        const double x = number(a(0));
        return Value::of_number(std::pow(x, number(a(1))));
    }
    case Function::Sqrt:
        return Value::of_number(std::sqrt(number(a(0))));
    case Function::Clamp: {
        const double x = number(a(0));
        const double low = number(a(1));
        const double high = number(a(2));
        if (std::isnan(x))
            return Value::of_number(x);
        return Value::of_number(std::min(std::max(x, low), high));
    }
    case Function::Fixed: {
        const double x = number(a(0));
        return Value::of_text(fixed(x, whole(number(a(1)))));
    }

    // --- logic and keys -----------------------------------------------------
    case Function::If:
        return truth(a(0)) ? eval(a(1)) : eval(a(2));
    case Function::Has:
        return Value::of_bool(keys().has(text(a(0))));
    case Function::Default: {
        Value value = eval(a(0));
        if (value.is_text() && value.text.isEmpty())
            return eval(a(1));
        return value;
    }
    case Function::Key:
        return Value::of_text(keys().value(text(a(0))));
    case Function::Text:
        return Value::of_text(text(a(0)));

    // --- time ---------------------------------------------------------------
    case Function::Now:
        return Value::of_text(QDateTime::currentDateTime().toString(Qt::ISODate).toUtf8());
    case Function::Time: {
        const QString format = QString::fromUtf8(text(a(0)));
        return Value::of_text(QDateTime::currentDateTime().toString(format).toUtf8());
    }
    case Function::Unix:
        return Value::of_number(double(QDateTime::currentSecsSinceEpoch()));
    }
    return {};
}

} // namespace corv::exprs
