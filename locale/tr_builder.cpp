#include "locale/tr_builder.h"

#include "locale/translator.h"

#include <QLocale>

#include <cstring>
#include <limits>

namespace corv::locale {

namespace {

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

// Reads the decimal digits at text[i]; saturates instead of overflowing, so
// an absurdly long number simply counts as too large.
qsizetype read_number(QByteArrayView text, qsizetype &i)
{
    qsizetype n = 0;
    while (i < text.size() && is_digit(text[i])) {
        if (n < std::numeric_limits<int>::max() / 10)
            n = n * 10 + (text[i] - '0');
        else
            n = std::numeric_limits<int>::max();
        ++i;
    }
    return n;
}

} // namespace

QByteArray singular_key(QByteArrayView key, const QList<TrArg> &args)
{
    QByteArray out;
    out.reserve(key.size() + 8);
    qsizetype i = 0;
    while (i < key.size()) {
        const char c = key[i];
        if (c == '\\') {
            out += key.sliced(i, qMin<qsizetype>(2, key.size() - i));
            i += 2;
            continue;
        }
        if (c == '%' && i + 1 < key.size() && is_digit(key[i + 1])) {
            const qsizetype start = i++;
            const qsizetype n = read_number(key, i);
            if (n >= 1 && n <= args.size() && args[n - 1].is_one())
                out += "Singular";
            else
                out += key.sliced(start, i - start);
            continue;
        }
        out += c;
        ++i;
    }
    return out;
}

QByteArray format_text(QByteArrayView text, const QList<TrArg> &args, qsizetype limit)
{
    const QLocale locale = QLocale::system();
    QByteArray out;
    out.reserve(256);
    const auto full = [&] { return limit >= 0 && out.size() > limit; };

    qsizetype i = 0;
    while (i < text.size() && !full()) {
        const char c = text[i];
        if (c == '\\') {
            if (i + 1 < text.size())
                out += text[i + 1];
            i += 2;
            continue;
        }
        if (c != '%') {
            out += c;
            ++i;
            continue;
        }
        const qsizetype start = i++;
        const qsizetype n = read_number(text, i);
        if (i == start + 1 || n < 1 || n > args.size()) {
            out += text.sliced(start, i - start); // not a placeholder: as it stands
            continue;
        }
        const TrArg &arg = args[n - 1];
        switch (arg.type) {
        case TrArg::String:
            out += arg.text;
            break;
        case TrArg::Int:
        case TrArg::PluralInt:
            out += locale.toString(arg.integer).toUtf8();
            break;
        case TrArg::Float:
        case TrArg::PluralFloat:
            out += locale.toString(arg.real, 'g', 6).toUtf8();
            break;
        }
    }
    return out;
}

void cut_utf8(QByteArray &text, qsizetype max_bytes)
{
    if (text.size() <= max_bytes)
        return;
    qsizetype cut = max_bytes;
    // text[cut] is the first byte dropped; if it continues a sequence, the
    // sequence began before the cut and goes too. Valid UTF-8 has at most
    // three continuation bytes, so stray bytes can't eat the whole text.
    for (int step = 0; step < 3 && cut > 0 && (uchar(text[cut]) & 0xC0) == 0x80; ++step)
        --cut;
    if ((uchar(text[cut]) & 0xC0) == 0x80)
        cut = max_bytes; // not UTF-8 after all: cut at the byte limit
    text.truncate(cut);
}

TrBuilder::TrBuilder(const Translator *translator, const char *key)
    : m_translator(translator), m_key(key), m_null_key(key == nullptr)
{
}

TrBuilder &TrBuilder::add(TrArg arg)
{
    if (arg.is_one())
        m_singular = true;
    m_args.append(std::move(arg));
    return *this;
}

TrBuilder &TrBuilder::add_string(const char *utf8)
{
    return add({TrArg::String, utf8 ? QByteArray(utf8) : QByteArray(), 0, 0.0});
}

TrBuilder &TrBuilder::add_string(QByteArrayView utf8)
{
    return add({TrArg::String, utf8.toByteArray(), 0, 0.0});
}

TrBuilder &TrBuilder::add_string(QStringView text)
{
    return add({TrArg::String, text.toUtf8(), 0, 0.0});
}

TrBuilder &TrBuilder::add_int(int value)
{
    return add({TrArg::Int, {}, value, 0.0});
}

TrBuilder &TrBuilder::add_plural_int(int value)
{
    return add({TrArg::PluralInt, {}, value, 0.0});
}

TrBuilder &TrBuilder::add_float(double value)
{
    return add({TrArg::Float, {}, 0, value});
}

TrBuilder &TrBuilder::add_plural_float(double value)
{
    return add({TrArg::PluralFloat, {}, 0, value});
}

QByteArray TrBuilder::lookup_key() const
{
    return m_singular ? singular_key(m_key, m_args) : m_key;
}

QByteArray TrBuilder::looked_up() const
{
    if (m_null_key)
        return {};
    const QByteArray key = lookup_key();
    return m_translator ? m_translator->lookup(key) : key;
}

QByteArray TrBuilder::text() const
{
    return format_text(looked_up(), m_args);
}

void TrBuilder::write_to(char *out) const
{
    if (!out)
        return;
    const qsizetype max_bytes = qsizetype(kTextBufferSize) - 1;
    QByteArray text = format_text(looked_up(), m_args, max_bytes);
    cut_utf8(text, max_bytes);
    std::memcpy(out, text.constData(), std::size_t(text.size()));
    out[text.size()] = '\0';
}

void TrArgument::add_to(TrBuilder &builder) const
{
    builder.add(m_arg);
}

} // namespace corv::locale
