#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QList>
#include <QString>
#include <QStringView>

#include <cstddef>

namespace corv::locale {

class Translator;

// One argument of a translation. Tags as the SDK hands them over.
struct TrArg
{
    enum Type : unsigned char { String = 0, Int = 1, PluralInt = 2, Float = 3, PluralFloat = 4 };
    Type type = String;
    QByteArray text; // String: UTF-8; a null array stands for a null string
    int integer = 0;
    double real = 0.0;

    // A plural argument whose value selects the singular key.
    bool is_one() const
    {
        return (type == PluralInt && integer == 1) || (type == PluralFloat && real == 1.0);
    }
};

// The size of the caller buffers of the "_str" functions: at most 255 bytes
// of text and a NUL.
inline constexpr std::size_t kTextBufferSize = 256;

// A key with "%N" placeholders replaced by "Singular" where argument N is a
// plural one equal to 1 (a backslash skips the next character). Other
// placeholders stay as written.
QByteArray singular_key(QByteArrayView key, const QList<TrArg> &args);

// Formats a looked-up text: "%N" (1 <= N <= args) becomes argument N, any
// other "%" stays as it stands with its digits, and a backslash copies the
// next character literally. Ints and floats use the system locale's format
// ("g", precision 6 for floats). With a limit, formatting stops once the
// output holds more than `limit` bytes; callers cut it with cut_utf8().
QByteArray format_text(QByteArrayView text, const QList<TrArg> &args, qsizetype limit = -1);

// Cuts `text` to at most `max_bytes`, moving back to the start of a UTF-8
// character so that no sequence is split.
void cut_utf8(QByteArray &text, qsizetype max_bytes);

// Collects a key and its arguments, then looks the text up and formats it.
class TrBuilder
{
public:
    // A null key gives an empty text without any lookup.
    TrBuilder(const Translator *translator, const char *key);

    TrBuilder &add_string(const char *utf8); // null: formats as nothing
    TrBuilder &add_string(QByteArrayView utf8);
    TrBuilder &add_string(QStringView text);
    TrBuilder &add_int(int value);
    TrBuilder &add_plural_int(int value);     // 1 sets the singular flag
    TrBuilder &add_float(double value);
    TrBuilder &add_plural_float(double value); // 1.0 sets the singular flag
    TrBuilder &add(TrArg arg);

    const QList<TrArg> &args() const { return m_args; }
    bool is_singular() const { return m_singular; }
    // The key as it is looked up: rewritten for the singular when flagged.
    QByteArray lookup_key() const;

    // Looks up and formats, as long as it gets.
    QByteArray text() const;
    // Looks up and formats into a buffer of kTextBufferSize bytes: at most
    // 255 bytes, cut at a character boundary, and a NUL.
    void write_to(char *out) const;

private:
    QByteArray looked_up() const;

    const Translator *m_translator;
    QByteArray m_key;
    bool m_null_key;
    bool m_singular = false;
    QList<TrArg> m_args;
};

// A count: selects the key's singular form when it is 1.
struct Plural
{
    bool is_float;
    int integer;
    double real;
};
inline Plural plural(int n) { return {false, n, 0.0}; }
inline Plural plural(double x) { return {true, 0, x}; }

// What Translator::translate() and translate() accept as arguments.
class TrArgument
{
public:
    TrArgument(int value) : m_arg{TrArg::Int, {}, value, 0.0} {}
    TrArgument(double value) : m_arg{TrArg::Float, {}, 0, value} {}
    TrArgument(Plural p)
        : m_arg{p.is_float ? TrArg::PluralFloat : TrArg::PluralInt, {}, p.integer, p.real}
    {
    }
    TrArgument(const QString &text) : m_arg{TrArg::String, text.isNull() ? QByteArray() : text.toUtf8(), 0, 0.0} {}
    TrArgument(const char *utf8) : m_arg{TrArg::String, utf8 ? QByteArray(utf8) : QByteArray(), 0, 0.0} {}
    TrArgument(const QByteArray &utf8) : m_arg{TrArg::String, utf8, 0, 0.0} {}

    void add_to(TrBuilder &builder) const;

private:
    TrArg m_arg;
};

} // namespace corv::locale
