#include "model/value.h"

#include <cstring>
#include <new>

namespace corv::model {

namespace {
constexpr QLatin1StringView kTypeNames[] = {
    QLatin1StringView(""),      QLatin1StringView("string"), QLatin1StringView("bool"),
    QLatin1StringView("int"),   QLatin1StringView("float"),  QLatin1StringView("vec2"),
    QLatin1StringView("vec3"),  QLatin1StringView("color"),  QLatin1StringView("buffer"),
    QLatin1StringView("rack"),
};
} // namespace

void Value::copy_payload(const Value &other)
{
    if (holds_bytes())
        new (&m_payload.bytes) QByteArray(other.m_payload.bytes);
    else
        std::memcpy(static_cast<void *>(&m_payload), static_cast<const void *>(&other.m_payload), sizeof m_payload);
}

void Value::move_payload(Value &other) noexcept
{
    if (holds_bytes())
        new (&m_payload.bytes) QByteArray(std::move(other.m_payload.bytes));
    else
        std::memcpy(static_cast<void *>(&m_payload), static_cast<const void *>(&other.m_payload), sizeof m_payload);
}

const QByteArray &Value::bytes() const
{
    static const QByteArray none;
    return holds_bytes() ? m_payload.bytes : none;
}

Value Value::string(const QByteArray &utf8)
{
    Value v;
    new (&v.m_payload.bytes) QByteArray(utf8);
    v.m_type = ValueType::String;
    return v;
}

Value Value::boolean(bool value)
{
    Value v;
    v.m_type = ValueType::Bool;
    v.m_payload.integer = value ? 1 : 0;
    return v;
}

Value Value::integer(qint32 value)
{
    Value v;
    v.m_type = ValueType::Int;
    v.m_payload.integer = value;
    return v;
}

Value Value::floating(double value)
{
    Value v;
    v.m_type = ValueType::Float;
    v.m_payload.num[0] = value;
    return v;
}

Value Value::vec2(Vec2 value)
{
    Value v;
    v.m_type = ValueType::Vec2;
    v.m_payload.num[0] = value.x;
    v.m_payload.num[1] = value.y;
    return v;
}

Value Value::vec3(Vec3 value)
{
    Value v;
    v.m_type = ValueType::Vec3;
    v.m_payload.num[0] = value.x;
    v.m_payload.num[1] = value.y;
    v.m_payload.num[2] = value.z;
    return v;
}

Value Value::color(Color value)
{
    Value v;
    v.m_type = ValueType::Color;
    v.m_payload.num[0] = value.red;
    v.m_payload.num[1] = value.green;
    v.m_payload.num[2] = value.blue;
    return v;
}

Value Value::buffer(const QByteArray &bytes)
{
    Value v;
    new (&v.m_payload.bytes) QByteArray(bytes);
    v.m_type = ValueType::Buffer;
    return v;
}

Value Value::rack(const QUuid &id)
{
    Value v;
    v.m_type = ValueType::Rack;
    v.m_payload.rack = id;
    return v;
}

QByteArray Value::to_string() const
{
    return m_type == ValueType::String ? m_payload.bytes : QByteArray();
}

bool Value::to_bool() const
{
    return m_type == ValueType::Bool && m_payload.integer != 0;
}

qint32 Value::to_int() const
{
    return m_type == ValueType::Int ? m_payload.integer : 0;
}

double Value::to_float() const
{
    return m_type == ValueType::Float ? m_payload.num[0] : 0.0;
}

Vec2 Value::to_vec2() const
{
    return m_type == ValueType::Vec2 ? Vec2{m_payload.num[0], m_payload.num[1]} : Vec2{};
}

Vec3 Value::to_vec3() const
{
    return m_type == ValueType::Vec3 ? Vec3{m_payload.num[0], m_payload.num[1], m_payload.num[2]} : Vec3{};
}

Color Value::to_color() const
{
    return m_type == ValueType::Color ? Color{m_payload.num[0], m_payload.num[1], m_payload.num[2]} : Color{};
}

QByteArray Value::to_buffer() const
{
    return m_type == ValueType::Buffer ? m_payload.bytes : QByteArray();
}

QUuid Value::to_rack() const
{
    return m_type == ValueType::Rack ? m_payload.rack : QUuid();
}

bool operator==(const Value &a, const Value &b)
{
    if (a.m_type != b.m_type)
        return false;
    switch (a.m_type) {
    case ValueType::None:
        return true;
    case ValueType::String:
        return a.m_payload.bytes == b.m_payload.bytes;
    case ValueType::Bool:
    case ValueType::Int:
        return a.m_payload.integer == b.m_payload.integer;
    case ValueType::Float:
        return a.m_payload.num[0] == b.m_payload.num[0];
    case ValueType::Vec2:
        return a.m_payload.num[0] == b.m_payload.num[0] && a.m_payload.num[1] == b.m_payload.num[1];
    case ValueType::Vec3:
    case ValueType::Color:
        return a.m_payload.num[0] == b.m_payload.num[0] && a.m_payload.num[1] == b.m_payload.num[1] && a.m_payload.num[2] == b.m_payload.num[2];
    case ValueType::Buffer:
        return a.m_payload.bytes == b.m_payload.bytes;
    case ValueType::Rack:
        return a.m_payload.rack == b.m_payload.rack;
    }
    return false;
}

QLatin1StringView type_name(ValueType type)
{
    const auto index = static_cast<std::size_t>(type);
    return index < std::size(kTypeNames) ? kTypeNames[index] : QLatin1StringView();
}

ValueType type_from_name(QStringView name)
{
    if (name.isEmpty())
        return ValueType::None;
    for (std::size_t i = 1; i < std::size(kTypeNames); ++i) {
        if (name == kTypeNames[i])
            return static_cast<ValueType>(i);
    }
    return ValueType::None;
}

} // namespace corv::model
