#include "persistence/value_text.h"

#include <QStringDecoder>
#include <QStringList>
#include <QUuid>

#include <array>

namespace corv::engine {

using model::Value;
using model::ValueType;

QString float_text(double value)
{
    return QString::number(value, 'g', 6);
}

namespace {

QString floats_text(std::initializer_list<double> parts)
{
    QString text;
    for (double part : parts) {
        if (!text.isEmpty())
            text += u',';
        text += float_text(part);
    }
    return text;
}

bool parse_double(QStringView text, double &out)
{
    bool ok = false;
    out = text.toDouble(&ok);
    return ok;
}

// Exactly N comma-separated doubles; an empty part is an error.
template<std::size_t N>
bool parse_doubles(const QString &text, std::array<double, N> &out)
{
    const QList<QStringView> parts = QStringView(text).split(u',');
    if (parts.size() != qsizetype(N))
        return false;
    for (std::size_t i = 0; i < N; ++i) {
        if (!parse_double(parts[qsizetype(i)], out[i]))
            return false;
    }
    return true;
}

bool is_xml_char(char32_t c)
{
    return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) || (c >= 0xE000 && c <= 0xFFFD)
           || (c >= 0x10000 && c <= 0x10FFFF);
}

} // namespace

QString xml_text(const QString &text, bool *lossless)
{
    // Plain text passes as it is; a copy is made only from the first
    // character that has to go.
    QString out;
    bool changed = false;
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar c = text.at(i);
        qsizetype length = 1;
        bool keep = is_xml_char(c.unicode());
        if (c.isHighSurrogate() && i + 1 < text.size() && text.at(i + 1).isLowSurrogate())
            length = 2, keep = true;
        else if (c.isSurrogate())
            keep = false;
        if (keep) {
            if (changed)
                out.append(text.constData() + i, length);
        } else {
            if (!changed)
                out = text.left(i), changed = true;
            if (c.isSurrogate())
                out += QChar::ReplacementCharacter;
        }
        i += length - 1;
    }
    if (!changed)
        return text;
    if (lossless)
        *lossless = false;
    return out;
}

QString value_text(const Value &value, bool *lossless)
{
    switch (value.type()) {
    case ValueType::None:
        return QString();
    case ValueType::String: {
        // Decoded strictly: a leading BOM stays a character, and bytes that
        // are not UTF-8 are marked (they come out as U+FFFD).
        QStringDecoder decoder(QStringDecoder::Utf8,
                               QStringDecoder::Flag::Stateless | QStringDecoder::Flag::ConvertInitialBom);
        const QString text = decoder.decode(value.bytes());
        if (decoder.hasError() && lossless)
            *lossless = false;
        return xml_text(text, lossless);
    }
    case ValueType::Bool:
        return value.to_bool() ? QStringLiteral("true") : QStringLiteral("false");
    case ValueType::Int:
        return QString::number(value.to_int());
    case ValueType::Float:
        return float_text(value.to_float());
    case ValueType::Vec2: {
        const model::Vec2 v = value.to_vec2();
        return floats_text({v.x, v.y});
    }
    case ValueType::Vec3: {
        const model::Vec3 v = value.to_vec3();
        return floats_text({v.x, v.y, v.z});
    }
    case ValueType::Color: {
        const model::Color c = value.to_color();
        return floats_text({c.red, c.green, c.blue});
    }
    case ValueType::Buffer:
        return QString::fromLatin1(value.bytes().toBase64());
    case ValueType::Rack:
        return value.to_rack().toString(QUuid::WithoutBraces);
    }
    return QString();
}

std::optional<Value> parse_value(ValueType type, const QString &text)
{
    switch (type) {
    case ValueType::None:
        return Value();
    case ValueType::String:
        return Value::string(text.toUtf8());
    case ValueType::Bool:
        if (text == u"true")
            return Value::boolean(true);
        if (text == u"false")
            return Value::boolean(false);
        return std::nullopt;
    case ValueType::Int: {
        bool ok = false;
        const int v = text.toInt(&ok, 10);
        if (!ok)
            return std::nullopt;
        return Value::integer(v);
    }
    case ValueType::Float: {
        double v = 0.0;
        if (!parse_double(text, v))
            return std::nullopt;
        return Value::floating(v);
    }
    case ValueType::Vec2: {
        std::array<double, 2> v{};
        if (!parse_doubles(text, v))
            return std::nullopt;
        return Value::vec2({v[0], v[1]});
    }
    case ValueType::Vec3: {
        std::array<double, 3> v{};
        if (!parse_doubles(text, v))
            return std::nullopt;
        return Value::vec3({v[0], v[1], v[2]});
    }
    case ValueType::Color: {
        std::array<double, 3> v{};
        if (!parse_doubles(text, v))
            return std::nullopt;
        return Value::color({v[0], v[1], v[2]});
    }
    case ValueType::Buffer:
        return Value::buffer(QByteArray::fromBase64(text.toLatin1()));
    case ValueType::Rack:
        return Value::rack(QUuid::fromString(text));
    }
    return std::nullopt;
}

} // namespace corv::engine
