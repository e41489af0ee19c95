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
QString value_text(const model::Value &value);

// A double in the file form: 6 significant digits (0.123457, 1e+06, 3.14159).
QString float_text(double value);

// Parses the text of a `prop` of the given type. Nothing when the text is not
// valid for the type. None ignores the text; buffer and rack never fail (bad
// Base64 characters are skipped, a bad UUID gives the null UUID).
std::optional<model::Value> parse_value(model::ValueType type, const QString &text);

} // namespace corv::engine
