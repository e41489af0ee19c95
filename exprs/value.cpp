#include "exprs/value.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>

namespace corv::exprs {

namespace {

bool is_blank(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

char lower(char c)
{
    return (c >= 'A' && c <= 'Z') ? char(c - 'A' + 'a') : c;
}

bool equals_lower(QByteArrayView text, QByteArrayView word)
{
    if (text.size() != word.size())
        return false;
    for (qsizetype i = 0; i < text.size(); ++i) {
        if (lower(text[i]) != word[i])
            return false;
    }
    return true;
}

// The decimal magnitude of a well-formed mantissa and exponent, for telling an
// overflow from an underflow when from_chars reports the value out of range.
bool overflows(QByteArrayView digits)
{
    long long magnitude = 0;
    qsizetype i = 0;
    bool seen_nonzero = false;
    long long leading_fraction_zeros = 0;
    for (; i < digits.size() && is_digit(digits[i]); ++i) {
        if (digits[i] != '0' || seen_nonzero) {
            seen_nonzero = true;
            ++magnitude;
        }
    }
    if (i < digits.size() && digits[i] == '.') {
        for (++i; i < digits.size() && is_digit(digits[i]); ++i) {
            if (!seen_nonzero && digits[i] == '0')
                ++leading_fraction_zeros;
            else
                seen_nonzero = true;
        }
    }
    if (magnitude == 0)
        magnitude = -leading_fraction_zeros;
    long long exponent = 0;
    if (i < digits.size() && (digits[i] == 'e' || digits[i] == 'E')) {
        ++i;
        const bool negative = i < digits.size() && digits[i] == '-';
        if (i < digits.size() && (digits[i] == '-' || digits[i] == '+'))
            ++i;
        for (; i < digits.size() && exponent < 1000000000; ++i)
            exponent = exponent * 10 + (digits[i] - '0');
        if (negative)
            exponent = -exponent;
    }
    return magnitude + exponent > 0;
}

} // namespace

std::optional<double> read_number(QByteArrayView text)
{
    qsizetype begin = 0;
    qsizetype end = text.size();
    while (begin < end && is_blank(text[begin]))
        ++begin;
    while (end > begin && is_blank(text[end - 1]))
        --end;
    if (begin == end)
        return 0.0;

    bool negative = false;
    if (text[begin] == '+' || text[begin] == '-') {
        negative = text[begin] == '-';
        ++begin;
    }
    const QByteArrayView body = text.sliced(begin, end - begin);
    const double sign = negative ? -1.0 : 1.0;
    if (equals_lower(body, "inf") || equals_lower(body, "infinity"))
        return sign * std::numeric_limits<double>::infinity();
    if (equals_lower(body, "nan"))
        return std::numeric_limits<double>::quiet_NaN();

    // digits [. digits] or . digits, then an optional exponent.
    qsizetype i = 0;
    qsizetype mantissa_digits = 0;
    while (i < body.size() && is_digit(body[i]))
        ++i, ++mantissa_digits;
    if (i < body.size() && body[i] == '.') {
        ++i;
        while (i < body.size() && is_digit(body[i]))
            ++i, ++mantissa_digits;
    }
    if (mantissa_digits == 0)
        return std::nullopt;
    if (i < body.size() && (body[i] == 'e' || body[i] == 'E')) {
        ++i;
        if (i < body.size() && (body[i] == '+' || body[i] == '-'))
            ++i;
        const qsizetype exponent_start = i;
        while (i < body.size() && is_digit(body[i]))
            ++i;
        if (i == exponent_start)
            return std::nullopt;
    }
    if (i != body.size())
        return std::nullopt;
    // Digits alone, up to 15 of them, are a whole number a double holds
    // exactly: read without the general parser.
    if (mantissa_digits == body.size() && mantissa_digits <= 15) {
        long long whole = 0;
        for (const char c : body)
            whole = whole * 10 + (c - '0');
        return sign * double(whole);
    }

    double value = 0.0;
    const auto result = std::from_chars(body.data(), body.data() + body.size(), value,
                                        std::chars_format::general);
    if (result.ec == std::errc::result_out_of_range)
        value = overflows(body) ? std::numeric_limits<double>::infinity() : 0.0;
    else if (result.ec != std::errc() || result.ptr != body.data() + body.size())
        return std::nullopt;
    return sign * value;
}

namespace {

// Writes the text form of a number to buffer (64 bytes); returns its length.
qsizetype write_number(double number, char *buffer)
{
    if (std::isnan(number)) {
        std::memcpy(buffer, "nan", 3);
        return 3;
    }
    if (std::isinf(number)) {
        std::memcpy(buffer, number < 0 ? "-inf" : "inf", number < 0 ? 4 : 3);
        return number < 0 ? 4 : 3;
    }
    constexpr double whole_limit = 9007199254740992.0; // 2^53
    if (std::fabs(number) < whole_limit && number == std::trunc(number))
        return std::to_chars(buffer, buffer + 64, (long long)number).ptr - buffer;
    char *end = std::to_chars(buffer, buffer + 64, number, std::chars_format::general, 15).ptr;
    // to_chars writes the exponent as "e+20" or "e-05": drop the plus sign and
    // the leading zeros.
    char *e = static_cast<char *>(std::memchr(buffer, 'e', std::size_t(end - buffer)));
    if (!e)
        return end - buffer;
    char *out = e + 1;
    const char *in = e + 1;
    if (*in == '-')
        *out++ = *in++;
    else if (*in == '+')
        ++in;
    while (in + 1 < end && *in == '0')
        ++in;
    while (in < end)
        *out++ = *in++;
    return out - buffer;
}

} // namespace

QByteArray number_to_text(double number)
{
    char buffer[64];
    return QByteArray(buffer, write_number(number, buffer));
}

void append_text(QByteArray &out, const Value &value)
{
    switch (value.kind) {
    case Value::Kind::Text:
        out += value.text;
        break;
    case Value::Kind::Number: {
        char buffer[64];
        out.append(buffer, write_number(value.number, buffer));
        break;
    }
    case Value::Kind::Bool:
        out += value.boolean ? QByteArrayView("true") : QByteArrayView("false");
        break;
    }
}

QByteArray to_text(const Value &value)
{
    if (value.is_text())
        return value.text;
    QByteArray text;
    append_text(text, value);
    return text;
}

bool truth(const Value &value)
{
    switch (value.kind) {
    case Value::Kind::Bool:
        return value.boolean;
    case Value::Kind::Number:
        return value.number != 0.0 && !std::isnan(value.number);
    case Value::Kind::Text:
        break;
    }
    if (value.text.isEmpty() || value.text == "false")
        return false;
    const std::optional<double> number = read_number(value.text);
    return !(number && *number == 0.0);
}

namespace utf8 {

qsizetype step(QByteArrayView text, qsizetype at)
{
    const uchar lead = uchar(text[at]);
    qsizetype length = 1;
    if ((lead & 0xE0) == 0xC0)
        length = 2;
    else if ((lead & 0xF0) == 0xE0)
        length = 3;
    else if ((lead & 0xF8) == 0xF0)
        length = 4;
    qsizetype taken = 1;
    while (taken < length && at + taken < text.size() && (uchar(text[at + taken]) & 0xC0) == 0x80)
        ++taken;
    return taken;
}

qsizetype length(QByteArrayView text)
{
    qsizetype count = 0;
    for (qsizetype at = 0; at < text.size(); at += step(text, at))
        ++count;
    return count;
}

qsizetype offset_of(QByteArrayView text, qsizetype index)
{
    qsizetype at = 0;
    for (; index > 0 && at < text.size(); --index)
        at += step(text, at);
    return at;
}

qsizetype index_of(QByteArrayView text, qsizetype at)
{
    qsizetype count = 0;
    for (qsizetype i = 0; i < at && i < text.size(); i += step(text, i))
        ++count;
    return count;
}

} // namespace utf8

} // namespace corv::exprs
