// The store functions of the SDK (main thread). A store handle is a store
// view: a property collection seen through a key prefix, with an optional
// parent view; reading resolves "!" forms and parents, writing never does.

#include "engine/handles.h"
#include "model/property.h"
#include "sdk/include/corvane/corvane_sdk.h"

#include <cstring>

using namespace corv;
using namespace corv::engine;
using model::Value;
using model::ValueType;

namespace {

QString key_of(const char *key)
{
    return key ? QString::fromUtf8(key) : QString();
}

const model::Property *resolve(corv_store *store, const char *key)
{
    const model::StoreView *view = handles::store(store);
    return view ? view->resolve(key_of(key)) : nullptr;
}

// The value under key when it has exactly that type, else null.
const Value *typed(corv_store *store, const char *key, ValueType type)
{
    const model::Property *property = resolve(store, key);
    return property && property->value().type() == type ? &property->value() : nullptr;
}

void set(corv_store *store, const char *key, const Value &value)
{
    if (const model::StoreView *view = handles::store(store))
        view->set(key_of(key), value);
}

} // namespace

bool corv_store_has_string(corv_store *store, const char *key)
{
    return typed(store, key, ValueType::String);
}

bool corv_store_has_bool(corv_store *store, const char *key)
{
    return typed(store, key, ValueType::Bool);
}

bool corv_store_has_int(corv_store *store, const char *key)
{
    return typed(store, key, ValueType::Int);
}

bool corv_store_has_float(corv_store *store, const char *key)
{
    return typed(store, key, ValueType::Float);
}

bool corv_store_has_vec2(corv_store *store, const char *key)
{
    return typed(store, key, ValueType::Vec2);
}

bool corv_store_has_vec3(corv_store *store, const char *key)
{
    return typed(store, key, ValueType::Vec3);
}

bool corv_store_has_buffer(corv_store *store, const char *key)
{
    return typed(store, key, ValueType::Buffer);
}

const char *corv_store_get_string(corv_store *store, const char *key)
{
    const model::Property *property = resolve(store, key);
    if (!property)
        return nullptr;
    if (property->value().type() != ValueType::String)
        return "";
    // The property's own bytes: valid until its value changes.
    return property->value().bytes().constData();
}

bool corv_store_get_bool(corv_store *store, const char *key)
{
    const Value *value = typed(store, key, ValueType::Bool);
    return value && value->to_bool();
}

int32_t corv_store_get_int(corv_store *store, const char *key)
{
    const Value *value = typed(store, key, ValueType::Int);
    return value ? value->to_int() : 0;
}

double corv_store_get_float(corv_store *store, const char *key)
{
    const Value *value = typed(store, key, ValueType::Float);
    return value ? value->to_float() : 0.0;
}

corv_vec2 corv_store_get_vec2(corv_store *store, const char *key)
{
    const Value *value = typed(store, key, ValueType::Vec2);
    if (!value)
        return corv_vec2{0.0, 0.0};
    const model::Vec2 v = value->to_vec2();
    return corv_vec2{v.x, v.y};
}

corv_vec3 corv_store_get_vec3(corv_store *store, const char *key)
{
    const Value *value = typed(store, key, ValueType::Vec3);
    if (!value)
        return corv_vec3{0.0, 0.0, 0.0};
    // The third component is never passed back; plugins rely on that.
    const model::Vec3 v = value->to_vec3();
    return corv_vec3{v.x, v.y, 0.0};
}

uint64_t corv_store_get_buffer(corv_store *store, const char *key, const void **data)
{
    static const char empty[1] = {0};
    const model::Property *property = resolve(store, key);
    const void *bytes = nullptr;
    uint64_t size = 0;
    if (property) {
        if (property->value().type() == ValueType::Buffer) {
            bytes = property->value().bytes().constData();
            size = uint64_t(property->value().bytes().size());
        } else {
            bytes = empty;
        }
    }
    if (data)
        *data = bytes;
    return size;
}

void corv_store_set_string(corv_store *store, const char *key, const char *value)
{
    set(store, key, Value::string(value ? QByteArray(value) : QByteArray("")));
}

void corv_store_set_bool(corv_store *store, const char *key, bool value)
{
    set(store, key, Value::boolean(value));
}

void corv_store_set_int(corv_store *store, const char *key, int32_t value)
{
    set(store, key, Value::integer(value));
}

void corv_store_set_float(corv_store *store, const char *key, double value)
{
    set(store, key, Value::floating(value));
}

void corv_store_set_vec2(corv_store *store, const char *key, corv_vec2 value)
{
    set(store, key, Value::vec2(model::Vec2{value.x, value.y}));
}

void corv_store_set_vec3(corv_store *store, const char *key, corv_vec3 value)
{
    set(store, key, Value::vec3(model::Vec3{value.x, value.y, value.z}));
}

void corv_store_set_buffer(corv_store *store, const char *key, const void *data, uint64_t size)
{
    // The length is the low 32 bits taken as signed. A negative one (sign
    // bit set) means "up to the first zero byte", as in QByteArray.
    const auto length = qint32(quint32(size & 0xFFFFFFFFu));
    const char *bytes = static_cast<const char *>(data);
    QByteArray buffer;
    if (bytes)
        buffer = length < 0 ? QByteArray(bytes, qsizetype(std::strlen(bytes))) : QByteArray(bytes, length);
    set(store, key, Value::buffer(buffer));
}
