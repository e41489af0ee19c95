#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QList>
#include <QString>
#include <QStringList>

namespace corv::locale {

// The id every translator falls back to.
inline constexpr char kFallbackLocale[] = "en-US";

struct LocaleInfo
{
    QByteArray id;            // the section name, e.g. "de-DE"
    QString name;             // "Name": shown in the language list
    QList<QByteArray> parents; // "Extends", in order
};

// The locales the program knows, sorted by id. The language preference
// stores a position in this list.
class LocaleList
{
public:
    LocaleList() = default;

    // Reads a locale list file; an unreadable file gives an empty list and
    // the warning "Couldn't read locale list file: %s".
    static LocaleList read_file(const QString &path);
    static LocaleList from_data(QByteArrayView data);

    const QList<LocaleInfo> &locales() const { return m_locales; }
    qsizetype size() const { return m_locales.size(); }
    // -1 when the id is not listed.
    qsizetype index_of(QByteArrayView id) const;
    const LocaleInfo *find(QByteArrayView id) const;
    QStringList display_names() const;

private:
    QList<LocaleInfo> m_locales;
};

// The folder the locale list and the application's locale files are read
// from: QCoreApplication::applicationDirPath() unless set. Setting it (tests,
// or an application that keeps its files elsewhere) drops the list read so
// far, so the next use reads it again from the new folder.
QString application_dir();
void set_application_dir(const QString &dir);

// The process's locale list, read from "<application dir>/locale.ini" on
// first use.
const LocaleList &locale_list();

} // namespace corv::locale
