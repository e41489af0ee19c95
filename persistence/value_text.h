#pragma once

#include "model/value.h"

#include <QString>

#include <optional>

namespace corv::engine {

// The text of a value in a file, by type:
//   string  the UTF-8 text             bool    "true" / "false"
//   int     decimal                    float   6 significant digits, shorter of
//   vec2, vec3, color  floats joined by ","     fixed and exponent notation
//   buffer  Base64 with padding        rack    the UUID without braces
// None has no text.
//
// Every string an XML 1.0 document can carry comes back byte for byte. What
// it cannot carry is left out: bytes that are not UTF-8 become U+FFFD, and
// NUL, the other control characters but tab, line feed and carriage return,
// U+FFFE and U+FFFF are dropped. `lossless`, when given, is then set to false
// (it is never set to true).
QString value_text(const model::Value &value, bool *lossless = nullptr);

// The text with what XML 1.0 cannot carry taken out, for names and keys: the
// characters above are dropped and a lone surrogate becomes U+FFFD. Sets
// `lossless` to false when anything changed.
QString xml_text(const QString &text, bool *lossless = nullptr);

// A double in the file form: 6 significant digits (0.123457, 1e+06, 3.14159).
QString float_text(double value);

// Parses the text of a `prop` of the given type. Nothing when the text is not
// valid for the type. None ignores the text; buffer and rack never fail (bad
// Base64 characters are skipped, a bad UUID gives the null UUID).
std::optional<model::Value> parse_value(model::ValueType type, const QString &text);

} // namespace corv::engine
