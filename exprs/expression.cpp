#include "exprs/expression.h"

#include "exprs/cache.h"
#include "exprs/logging.h"
#include "exprs/template.h"

namespace corv::exprs {

namespace {

class NoKeys final : public KeySource
{
public:
    bool has(QByteArrayView) const override { return false; }
    QByteArray value(QByteArrayView) const override { return {}; }
};

QByteArray run(const Template &parsed, const KeySource &keys)
{
    QByteArray out;
    if (const std::optional<Failure> failure = parsed.evaluate(keys, out))
        qCWarning(lc).noquote() << parsed.warning(*failure);
    return out;
}

} // namespace

const KeySource &no_keys()
{
    static const NoKeys keys;
    return keys;
}

QByteArray evaluate(QByteArrayView text, const KeySource &keys)
{
    // A text without braces is its own result: no parse, no cache entry.
    if (!text.contains('{') && !text.contains('}'))
        return text.toByteArray();
    return run(*cached_template(text), keys);
}

QByteArray evaluate_uncached(QByteArrayView text, const KeySource &keys)
{
    return run(Template(text), keys);
}

} // namespace corv::exprs
