// The expression functions of the SDK: a template evaluated against the keys
// of an event (a null event has none). Any thread may call them.

#include "engine/event.h"
#include "engine/handles.h"
#include "exprs/expression.h"
#include "locale/tr_builder.h"
#include "sdk/include/corvane/corvane_sdk.h"
#include "sdk/plugin_text.h"

#include <cstdlib>
#include <cstring>

using namespace corv;

namespace {

// The keys of one event record, read in place.
class EventKeys final : public exprs::KeySource
{
public:
    explicit EventKeys(const engine::EventData &data) : m_data(data) {}

    bool has(QByteArrayView key) const override { return m_data.find(key) != nullptr; }
    QByteArray value(QByteArrayView key) const override { return m_data.value(key); }

private:
    const engine::EventData &m_data;
};

QByteArray evaluate(const char *text, corv_event *event)
{
    if (!text)
        return QByteArray();
    const QByteArrayView view = sdk::view_of(text);
    if (!event)
        return exprs::evaluate(view, exprs::no_keys());
    return exprs::evaluate(view, EventKeys(engine::handles::event(event)->data()));
}

} // namespace

char *corv_expression(const char *text, corv_event *event)
{
    const QByteArray result = evaluate(text, event);
    char *copy = static_cast<char *>(std::malloc(std::size_t(result.size()) + 1));
    if (copy)
        std::memcpy(copy, result.constData(), std::size_t(result.size()) + 1);
    return copy;
}

void corv_event_set_expression(corv_event *event, const char *key, const char *text)
{
    if (!event)
        return;
    engine::handles::event(event)->set(sdk::view_of(key), evaluate(text, event));
}

void corv_expression_str(const char *text, corv_event *event, char *out)
{
    if (!out)
        return;
    QByteArray result = evaluate(text, event);
    locale::cut_utf8(result, qsizetype(locale::kTextBufferSize) - 1);
    std::memcpy(out, result.constData(), std::size_t(result.size()));
    out[result.size()] = '\0';
}
