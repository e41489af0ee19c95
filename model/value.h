#pragma once

#include <QByteArray>
#include <QMetaType>
#include <QUuid>

#include <cstdint>

namespace corv::model {

// Type tags. The numbers are part of the file format and the SDK; every switch
// over value types is written in this order.
enum class ValueType : std::uint8_t {
    None = 0,
    String = 1,
    Bool = 2,
    Int = 3,
    Float = 4,
    Vec2 = 5,
    Vec3 = 6,
    Color = 7,
    Buffer = 8,
    Rack = 9,
};

struct Vec2 {
    double x = 0.0;
    double y = 0.0;
};

struct Vec3 {
    double x = 0.0;
    double y = 0.0;
    double z = 0.0;
};

struct Color {
    double red = 0.0;
    double green = 0.0;
    double blue = 0.0;
};

// A tagged value. Strings are UTF-8 bytes and are never re-encoded; strings and
// buffers share their bytes implicitly. Typed getters never convert: asking
// for another type than the tag gives that type's zero value.
class Value
{
public:
    Value() = default;
    Value(const Value &other) : m_type(other.m_type) { copy_payload(other); }
    Value(Value &&other) noexcept : m_type(other.m_type) { move_payload(other); }
    Value &operator=(const Value &other)
    {
        if (this != &other) {
            Value copy(other);
            *this = std::move(copy);
        }
        return *this;
    }
    Value &operator=(Value &&other) noexcept
    {
        if (this != &other) {
            destroy_payload();
            m_type = other.m_type;
            move_payload(other);
        }
        return *this;
    }
    ~Value() { destroy_payload(); }

    static Value string(const QByteArray &utf8);
    static Value boolean(bool value);
    static Value integer(qint32 value);
    static Value floating(double value);
    static Value vec2(Vec2 value);
    static Value vec3(Vec3 value);
    static Value color(Color value);
    static Value buffer(const QByteArray &bytes);
    static Value rack(const QUuid &id);

    ValueType type() const { return m_type; }
    bool is_none() const { return m_type == ValueType::None; }

    QByteArray to_string() const;
    bool to_bool() const;
    qint32 to_int() const;
    double to_float() const;
    Vec2 to_vec2() const;
    Vec3 to_vec3() const;
    Color to_color() const;
    QByteArray to_buffer() const;
    QUuid to_rack() const;

    // The held bytes of a String or Buffer (empty otherwise), without a copy.
    const QByteArray &bytes() const;

    // Exact equality: per tag, doubles compared with IEEE ==, so a NaN
    // component is unequal even to itself and -0.0 equals +0.0.
    friend bool operator==(const Value &a, const Value &b);
    friend bool operator!=(const Value &a, const Value &b) { return !(a == b); }

private:
    bool holds_bytes() const { return m_type == ValueType::String || m_type == ValueType::Buffer; }
    // The payload of other's tag (already this value's tag) into an empty payload.
    void copy_payload(const Value &other);
    void move_payload(Value &other) noexcept;
    void destroy_payload() noexcept
    {
        if (holds_bytes())
            m_payload.bytes.~QByteArray();
    }

    // One payload at a time, as the tag says: a value sits in every property
    // of a project, so it is no larger than its largest payload.
    union Payload {
        Payload() : num{} {}
        ~Payload() {}
        qint32 integer;   // Bool and Int
        double num[3];    // Float, Vec2, Vec3, Color
        QUuid rack;       // Rack
        QByteArray bytes; // String and Buffer
    };

    ValueType m_type = ValueType::None;
    Payload m_payload;
};

// The type name used in files ("string", "bool", ...); empty for None.
QLatin1StringView type_name(ValueType type);
// The tag for a type name, or None when the name is unknown.
ValueType type_from_name(QStringView name);

} // namespace corv::model

Q_DECLARE_METATYPE(corv::model::Value)
