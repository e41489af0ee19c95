// Feeds arbitrary bytes to the locale readers: the same bytes as a locale
// file, as the locale list, and as the texts a translator formats. Besides
// crashes and sanitizer reports it checks:
//  - every item read, written back with escapes, reads back the same;
//  - the locale list is sorted by id, without duplicates, and finds each id
//    at its position;
//  - a translator over the bytes as "en-US.ini" finds the first text of
//    every key;
//  - formatting with a byte limit gives a prefix of the unlimited text, and
//    the 256-byte buffer of the C interface holds at most 255 bytes, cut at a
//    character boundary, with the NUL after them.
#include "fuzz/fuzz_support.h"
#include "locale/c_api.h"
#include "locale/locale_file.h"
#include "locale/locale_list.h"
#include "locale/tr_builder.h"
#include "locale/translator.h"

#include <QByteArray>
#include <QFile>
#include <QHash>
#include <QTemporaryDir>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

using namespace corv::locale;

using corv::fuzz::broken;

namespace {

// Escapes bytes so that they read back as they are, wherever they stand: in
// a section name, a key, or a quoted value.
QByteArray escaped(const QByteArray &text)
{
    QByteArray out;
    for (const char c : text) {
        switch (c) {
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\\': case '=': case ']': case '"': case '#': case ';': case '[': case ' ': case '\t':
            out += '\\';
            out += c;
            break;
        default: out += c; break;
        }
    }
    return out;
}

QByteArray written(const QList<LocaleFileItem> &items)
{
    // The empty first line keeps a name that starts with a byte order mark.
    QByteArray out = "\n";
    for (const LocaleFileItem &item : items) {
        if (item.kind == LocaleFileItem::Kind::Section)
            out += '[' + escaped(item.name) + "]\n";
        else
            out += escaped(item.name) + " = \"" + escaped(item.value) + "\"\n";
    }
    return out;
}

void check_list(const QByteArray &bytes)
{
    const LocaleList list = LocaleList::from_data(bytes);
    for (qsizetype i = 0; i < list.size(); ++i) {
        const LocaleInfo &info = list.locales()[i];
        if (i > 0 && !(list.locales()[i - 1].id < info.id))
            broken("the locale list is not sorted by id, or names one twice", bytes);
        if (list.index_of(info.id) != i || list.find(info.id) != &info)
            broken("the locale list does not find an id at its position", bytes);
    }
    if (list.display_names().size() != list.size())
        broken("the language list and the locale list differ in length", bytes);
}

QTemporaryDir *scratch()
{
    static auto dir = std::make_unique<QTemporaryDir>();
    return dir.get();
}

// The lengths of the C buffer and of the text it holds agree with the
// unlimited text: a prefix, cut at most three bytes before the limit to
// keep a character whole.
void check_buffer(const char *buffer, const QByteArray &full, const QByteArray &bytes)
{
    const void *nul = std::memchr(buffer, 0, kTextBufferSize);
    if (!nul)
        broken("the text buffer has no NUL", bytes);
    const qsizetype length = static_cast<const char *>(nul) - buffer;
    if (length > qsizetype(kTextBufferSize) - 1)
        broken("the text buffer holds more than 255 bytes", bytes);
    // A NUL inside the text (from an argument or an escape) ends it early.
    const QByteArray held(buffer, length);
    if (!full.startsWith(held))
        broken("the text buffer is no prefix of the formatted text", bytes + "\n----\n" + full);
    if (full.indexOf('\0') < 0 && full.size() > length && length < qsizetype(kTextBufferSize) - 4)
        broken("the text buffer was cut short", bytes + "\n----\n" + full);
}

void check_formatting(const QByteArray &key, const QByteArray &text, const QList<TrArg> &args,
                      const QByteArray &bytes)
{
    const QByteArray full = format_text(text, args);
    for (const qsizetype limit : {qsizetype(0), qsizetype(7), qsizetype(255)}) {
        const QByteArray cut = format_text(text, args, limit);
        if (!full.startsWith(cut) || (full.size() > limit && cut.size() <= limit) ||
            (full.size() <= limit && cut != full))
            broken("formatting with a limit is no prefix of the full text", bytes);
        QByteArray shortened = full;
        cut_utf8(shortened, limit);
        if (shortened.size() > limit || !full.startsWith(shortened) ||
            (full.size() > limit && shortened.size() < limit - 3))
            broken("cutting a text went wrong", bytes);
    }
    // The singular key differs from the key only where a plural argument is 1.
    const QByteArray singular = singular_key(key, args);
    bool any_one = false;
    for (const TrArg &arg : args)
        any_one = any_one || arg.is_one();
    if (!any_one && singular != key)
        broken("the singular key changed without a plural argument of 1", bytes);
}

void check_translator(const QList<LocaleFileItem> &items, const QByteArray &bytes)
{
    const QString dir = scratch()->path();
    {
        QFile file(dir + QStringLiteral("/en-US.ini"));
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(bytes) != bytes.size())
            broken("the scratch file can't be written", bytes);
    }
    Translator translator("fuzz", dir);
    QHash<QByteArray, QByteArray> first;
    for (const LocaleFileItem &item : items) {
        if (item.kind == LocaleFileItem::Kind::Entry && !first.contains(item.name))
            first.insert(item.name, item.value);
    }
    if (translator.fallback_size() != std::size_t(first.size()))
        broken("the translator holds another number of keys than the file", bytes);

    const QList<TrArg> args = {
        {TrArg::String, QByteArray("\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80"), 0, 0.0},
        {TrArg::PluralInt, {}, 1, 0.0},
        {TrArg::Float, {}, 0, -1.5e300},
        {TrArg::String, QByteArray(), 0, 0.0},
        {TrArg::PluralFloat, {}, 0, 2.0},
        {TrArg::String, QByteArray(300, 'w'), 0, 0.0},
    };
    int checked = 0;
    for (auto it = first.cbegin(); it != first.cend() && checked < 8; ++it, ++checked) {
        const QByteArray *found = translator.find(it.key());
        if (!found || *found != it.value())
            broken("the translator does not find the first text of a key", bytes);
        if (it.key().contains('\0'))
            continue; // a C key ends at its first NUL
        check_formatting(it.key(), it.value(), args, bytes);

        // The C interface, as a plugin calls it.
        TrBuilder *builder = plugin_tr_arg(&translator, it.key().constData());
        for (const TrArg &arg : args)
            builder->add(arg);
        const QByteArray full = builder->text();
        char buffer[kTextBufferSize];
        std::memset(buffer, 0x55, sizeof buffer);
        tr_end_str(builder, buffer);
        check_buffer(buffer, full, bytes);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), qsizetype(size));
    const QList<LocaleFileItem> items = parse_locale_file(bytes);
    const QByteArray again = written(items);
    if (parse_locale_file(again) != items)
        broken("locale items written with escapes do not read back", bytes + "\n----\n" + again);
    check_list(bytes);
    check_translator(items, bytes);
    return 0;
}
