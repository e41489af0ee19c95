#include "locale/c_api.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace corv::locale {

namespace {

char *malloc_copy(const QByteArray &text)
{
    char *copy = static_cast<char *>(std::malloc(std::size_t(text.size()) + 1));
    if (copy)
        std::memcpy(copy, text.constData(), std::size_t(text.size()) + 1);
    return copy;
}

} // namespace

const char *plugin_tr(const Translator *translator, const char *key) noexcept
{
    if (!key)
        return "";
    if (!translator)
        return key;
    return translator->lookup(key);
}

TrBuilder *plugin_tr_arg(const Translator *translator, const char *key) noexcept
{
    return new (std::nothrow) TrBuilder(translator, key);
}

TrBuilder *tr_str(TrBuilder *builder, const char *utf8) noexcept
{
    if (builder)
        builder->add_string(utf8);
    return builder;
}

TrBuilder *tr_int(TrBuilder *builder, int value) noexcept
{
    if (builder)
        builder->add_int(value);
    return builder;
}

TrBuilder *tr_int_plural(TrBuilder *builder, int value) noexcept
{
    if (builder)
        builder->add_plural_int(value);
    return builder;
}

TrBuilder *tr_float(TrBuilder *builder, double value) noexcept
{
    if (builder)
        builder->add_float(value);
    return builder;
}

TrBuilder *tr_float_plural(TrBuilder *builder, double value) noexcept
{
    if (builder)
        builder->add_plural_float(value);
    return builder;
}

char *tr_end(TrBuilder *builder) noexcept
{
    const QByteArray text = builder ? builder->text() : QByteArray();
    delete builder;
    return malloc_copy(text);
}

void tr_end_str(TrBuilder *builder, char *out) noexcept
{
    if (builder)
        builder->write_to(out);
    else if (out)
        out[0] = '\0';
    delete builder;
}

char *plugin_tr_plural(const Translator *translator, const char *key, int count) noexcept
{
    return tr_end(tr_int_plural(plugin_tr_arg(translator, key), count));
}

void plugin_tr_plural_str(const Translator *translator, const char *key, int count, char *out) noexcept
{
    tr_end_str(tr_int_plural(plugin_tr_arg(translator, key), count), out);
}

} // namespace corv::locale
