#pragma once

#include <QByteArray>
#include <QByteArrayView>

#include <optional>

namespace corv::exprs {

// An ASCII digit; the language's numbers are never localised.
constexpr bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

// A value of the language: text (UTF-8 bytes), a number (double) or a boolean.
// Event values are always text.
struct Value
{
    enum class Kind : unsigned char { Text, Number, Bool };

    Kind kind = Kind::Text;
    bool boolean = false;
    double number = 0.0;
    QByteArray text;

    static Value of_text(QByteArray text)
    {
        Value value;
        value.text = std::move(text);
        return value;
    }
    static Value of_number(double number)
    {
        Value value;
        value.kind = Kind::Number;
        value.number = number;
        return value;
    }
    static Value of_bool(bool boolean)
    {
        Value value;
        value.kind = Kind::Bool;
        value.boolean = boolean;
        return value;
    }

    bool is_text() const { return kind == Kind::Text; }
    bool is_number() const { return kind == Kind::Number; }
    bool is_bool() const { return kind == Kind::Bool; }
};

// Reads a whole text as a number: blanks around it are ignored; an optional
// sign, then decimal digits with an optional point and exponent, or "inf",
// "infinity", "nan" (any case). Empty (or blank) text reads as 0. Anything
// else gives nothing.
std::optional<double> read_number(QByteArrayView text);

// A number written as text: integral values below 2^53 in magnitude as whole
// numbers, others with up to 15 significant digits and no trailing zeros
// ("0.1", "1e-7", "1.5e300"); "inf", "-inf", "nan".
QByteArray number_to_text(double number);

// Appends the text form of a value (booleans as "true" / "false").
void append_text(QByteArray &out, const Value &value);
QByteArray to_text(const Value &value);

// Truth: booleans as they are; numbers when non-zero and not NaN; text unless
// it is empty, "false" or reads as the number 0.
bool truth(const Value &value);

// UTF-8 code points, counted the way every text function counts them. A
// malformed sequence counts as one code point per lead byte (or stray byte),
// so the counts never split a valid character and are defined for any bytes.
namespace utf8 {
// Byte length of the code point starting at text[at] (at < text.size()).
qsizetype step(QByteArrayView text, qsizetype at);
qsizetype length(QByteArrayView text);
// Byte offset of code point `index`, or text.size() when there are fewer.
qsizetype offset_of(QByteArrayView text, qsizetype index);
// Code point index of the byte offset `at` (at <= text.size()).
qsizetype index_of(QByteArrayView text, qsizetype at);
} // namespace utf8

} // namespace corv::exprs
