#pragma once

#include "locale/locale_list.h"

#include <QByteArray>
#include <QByteArrayView>
#include <QString>

#include <cstdint>
#include <unordered_map>

namespace corv::locale {

// 64-bit FNV-1a over the key bytes.
struct Fnv1a64
{
    std::size_t operator()(const QByteArray &key) const noexcept { return std::size_t(hash(key)); }
    static std::uint64_t hash(QByteArrayView bytes) noexcept
    {
        std::uint64_t h = 14695981039346656037ull;
        for (char c : bytes) {
            h ^= std::uint8_t(c);
            h *= 1099511628211ull;
        }
        return h;
    }
};

// Key (UTF-8 bytes) to text (UTF-8 bytes).
using Table = std::unordered_map<QByteArray, QByteArray, Fnv1a64>;

// Reads one locale file into `table`; the first occurrence of a key wins and
// keys already present are kept. Sections are ignored: keys are stored whole.
// Returns false, with the file's error text in `error`, when it can't be read.
bool read_locale_file(const QString &path, Table &table, QString *error = nullptr);

// One translation table set: the application has one, and each plugin one
// over its own locale folder. Lookups are not locked; load a locale only from
// the thread that also looks texts up (the GUI thread).
class Translator
{
public:
    // Loads "en-US" from `locale_dir` into the fallback table at once; the
    // current table starts empty. `name` prefixes the log lines.
    Translator(QByteArray name, QString locale_dir);
    Translator(const Translator &) = delete;
    Translator &operator=(const Translator &) = delete;

    const QByteArray &name() const { return m_name; }
    const QString &locale_dir() const { return m_dir; }
    // The locale asked for by the last successful load(); empty before.
    const QByteArray &locale() const { return m_locale; }

    // Loads a locale of the locale list into the current table, then each of
    // its "Extends" parents in turn, depth first. Every load starts from an
    // empty table, so the last locale of that walk is what the table holds;
    // missing keys still fall back to "en-US".
    void load(QByteArrayView locale_id);
    // Loads the locale at a position of the locale list (the language
    // preference); false and no change when the position is out of range.
    bool load_at(qsizetype position);

    // The text of `key` without the missing-key warning; null when missing.
    const QByteArray *find(QByteArrayView key) const;
    // The text of `key`: the current table, then the fallback; when neither
    // has it, logs "%s locale: %s = ??" and returns the key itself.
    QByteArray lookup(QByteArrayView key) const;
    // The same for C callers: the returned text is borrowed from the table
    // (valid until the next load), or is `key` itself; a null key gives "".
    const char *lookup(const char *key) const;

    // The looked-up text as a QString, with arguments formatted as in
    // TrBuilder: int, double, strings, and plural(n) for counts.
    template <typename... Args>
    QString translate(const char *key, const Args &...args) const;

    std::size_t current_size() const { return m_current.size(); }
    std::size_t fallback_size() const { return m_fallback.size(); }

private:
    void load_recursive(const QByteArray &id, QList<QByteArray> &path);

    QByteArray m_name;
    QString m_dir;
    QByteArray m_locale;
    Table m_fallback;
    Table m_current;
};

} // namespace corv::locale

#include "locale/tr_builder.h"

template <typename... Args>
QString corv::locale::Translator::translate(const char *key, const Args &...args) const
{
    TrBuilder builder(this, key);
    (TrArgument(args).add_to(builder), ...);
    return QString::fromUtf8(builder.text());
}
