#include "locale/locale_list.h"

#include "locale/locale_file.h"
#include "locale/logging.h"

#include <QCoreApplication>
#include <QFile>
#include <QMutex>

#include <algorithm>
#include <memory>
#include <vector>

namespace corv::locale {

namespace {

struct ListState
{
    QMutex mutex;
    QString dir;
    bool dir_set = false;
    std::unique_ptr<LocaleList> list;
    // Lists replaced by set_application_dir() stay alive: references handed
    // out earlier must not dangle.
    std::vector<std::unique_ptr<LocaleList>> retired;
};

ListState &state()
{
    static ListState s;
    return s;
}

QList<QByteArray> split_ids(const QByteArray &value)
{
    QList<QByteArray> ids;
    qsizetype start = -1;
    for (qsizetype i = 0; i <= value.size(); ++i) {
        const bool blank = i == value.size() || value[i] == ' ' || value[i] == '\t';
        if (blank && start >= 0) {
            ids.append(value.mid(start, i - start));
            start = -1;
        } else if (!blank && start < 0) {
            start = i;
        }
    }
    return ids;
}

} // namespace

LocaleList LocaleList::read_file(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        qCWarning(lc, "Couldn't read locale list file: %s", qUtf8Printable(file.errorString()));
        return {};
    }
    return from_data(file.readAll());
}

LocaleList LocaleList::from_data(QByteArrayView data)
{
    LocaleList list;
    qsizetype current = -1; // index of the section being read
    for (const LocaleFileItem &item : parse_locale_file(data)) {
        if (item.kind == LocaleFileItem::Kind::Section) {
            // A section named twice adds to the locale it named first.
            current = list.index_of(item.name);
            if (current < 0) {
                list.m_locales.append(LocaleInfo{item.name, {}, {}});
                current = list.m_locales.size() - 1;
            }
        } else if (current >= 0 && item.name == "Name") {
            list.m_locales[current].name = QString::fromUtf8(item.value);
        } else if (current >= 0 && item.name == "Extends") {
            list.m_locales[current].parents += split_ids(item.value);
        } else {
            qCDebug(lc, "Unknown key %s in locale list file", item.name.constData());
        }
    }
    std::sort(list.m_locales.begin(), list.m_locales.end(),
              [](const LocaleInfo &a, const LocaleInfo &b) { return a.id < b.id; });
    return list;
}

qsizetype LocaleList::index_of(QByteArrayView id) const
{
    for (qsizetype i = 0; i < m_locales.size(); ++i) {
        if (m_locales[i].id == id)
            return i;
    }
    return -1;
}

const LocaleInfo *LocaleList::find(QByteArrayView id) const
{
    const qsizetype i = index_of(id);
    return i < 0 ? nullptr : &m_locales[i];
}

QStringList LocaleList::display_names() const
{
    QStringList names;
    names.reserve(m_locales.size());
    for (const LocaleInfo &l : m_locales)
        names.append(l.name);
    return names;
}

QString application_dir()
{
    ListState &s = state();
    QMutexLocker lock(&s.mutex);
    return s.dir_set ? s.dir : QCoreApplication::applicationDirPath();
}

void set_application_dir(const QString &dir)
{
    ListState &s = state();
    QMutexLocker lock(&s.mutex);
    s.dir = dir;
    s.dir_set = true;
    if (s.list)
        s.retired.push_back(std::move(s.list));
}

const LocaleList &locale_list()
{
    ListState &s = state();
    QMutexLocker lock(&s.mutex);
    if (!s.list) {
        const QString dir = s.dir_set ? s.dir : QCoreApplication::applicationDirPath();
        s.list = std::make_unique<LocaleList>(LocaleList::read_file(dir + QStringLiteral("/locale.ini")));
    }
    return *s.list;
}

} // namespace corv::locale
