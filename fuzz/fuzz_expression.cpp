// Feeds arbitrary templates and event contents to the expression language.
// The input is the template, then NUL-separated key and value pairs of the
// event. Besides crashes and sanitizer reports it checks that:
//  - a template from the cache gives what a fresh parse gives;
//  - a text without braces is its own result.
#include "fuzz/fuzz_support.h"
#include "exprs/expression.h"

#include <QByteArray>
#include <QHash>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

using namespace corv;

using corv::fuzz::broken;

namespace {

class FuzzKeys final : public exprs::KeySource
{
public:
    QHash<QByteArray, QByteArray> keys;
    bool has(QByteArrayView key) const override { return keys.contains(key.toByteArray()); }
    QByteArray value(QByteArrayView key) const override { return keys.value(key.toByteArray()); }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), qsizetype(size));
    const QList<QByteArray> parts = bytes.split('\0');
    const QByteArray &text = parts.front();
    FuzzKeys keys;
    for (qsizetype i = 1; i + 1 < parts.size(); i += 2)
        keys.keys.insert(parts[i], parts[i + 1]);

    const QByteArray cached = exprs::evaluate(text, keys);
    const QByteArray again = exprs::evaluate(text, keys);
    const QByteArray fresh = exprs::evaluate_uncached(text, keys);
    // The clock may move between the runs.
    const bool clock = text.contains("now") || text.contains("time") || text.contains("unix");
    if (!clock && (cached != fresh || again != fresh))
        broken("the cached template gives another result", text);
    if (!text.contains('{') && !text.contains('}') && cached != text)
        broken("a text without braces changed", text);
    return 0;
}
