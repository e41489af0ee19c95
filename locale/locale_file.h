#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QList>

/*
 * The text format shared by the locale list ("locale.ini") and the locale
 * files: INI-like lines of UTF-8, with backslash escapes.
 *
 *   # comment            ; comment too
 *   [section]
 *   key = value up to the end of the line, trailing blanks dropped
 *   key = "quoted value, kept as it stands"
 *   key = first line \
 *   continued on the next line
 *
 * Escapes in keys, section names and values: \b \f \n \r \t, \uXXXX (exactly
 * four hex digits) and \xXX (exactly two), written as UTF-8; a backslash at
 * the end of a line continues the text on the next line; before any other
 * character it stands for that character. An escape with a bad hex digit ends
 * the text there (a key cut that way has no "=" and drops its line).
 */
namespace corv::locale {

struct LocaleFileItem
{
    enum class Kind { Section, Entry };
    Kind kind = Kind::Entry;
    QByteArray name;  // the section name, or the entry's key
    QByteArray value; // the entry's value; empty for a section

    friend bool operator==(const LocaleFileItem &, const LocaleFileItem &) = default;
};

// Every section header and key/value line of `data`, in file order.
// Duplicates are reported as they stand; callers decide which one wins.
QList<LocaleFileItem> parse_locale_file(QByteArrayView data);

} // namespace corv::locale
