#include "locale/translator.h"

#include "locale/locale_file.h"
#include "locale/logging.h"

#include <QFile>

namespace corv::locale {

bool read_locale_file(const QString &path, Table &table, QString *error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        if (error)
            *error = file.errorString();
        return false;
    }
    for (LocaleFileItem &item : parse_locale_file(file.readAll())) {
        if (item.kind == LocaleFileItem::Kind::Entry)
            table.try_emplace(std::move(item.name), std::move(item.value));
    }
    return true;
}

Translator::Translator(QByteArray name, QString locale_dir)
    : m_name(std::move(name)), m_dir(std::move(locale_dir))
{
    const QString path = m_dir + QLatin1Char('/') + QLatin1String(kFallbackLocale) + QLatin1String(".ini");
    QString error;
    if (!read_locale_file(path, m_fallback, &error)) {
        qCWarning(lc, "%s locale: Couldn't find locale file for %s: %s", m_name.constData(), kFallbackLocale,
                  qUtf8Printable(error));
    }
}

void Translator::load(QByteArrayView locale_id)
{
    const QByteArray id = locale_id.toByteArray();
    if (!locale_list().find(id)) {
        qCWarning(lc, "Couldn't load unknown locale %s", id.constData());
        return;
    }
    m_locale = id;
    QList<QByteArray> path;
    load_recursive(id, path);
}

void Translator::load_recursive(const QByteArray &id, QList<QByteArray> &path)
{
    const LocaleInfo *info = locale_list().find(id);
    if (!info) {
        qCWarning(lc, "Couldn't load unknown locale %s", id.constData());
        return;
    }
    if (path.contains(id)) {
        // "Extends" that leads back to itself would never end.
        qCWarning(lc, "%s locale: Ignoring circular Extends of %s", m_name.constData(), id.constData());
        return;
    }

    m_current.clear();
    if (id == kFallbackLocale) {
        m_current = m_fallback;
    } else {
        const QString file = m_dir + QLatin1Char('/') + QString::fromUtf8(id) + QLatin1String(".ini");
        QString error;
        if (!read_locale_file(file, m_current, &error)) {
            qCWarning(lc, "%s locale: Couldn't find locale file for %s: %s", m_name.constData(), id.constData(),
                      qUtf8Printable(error));
        }
    }
    qCInfo(lc, "%s locale: Loaded %i strings for %s", m_name.constData(), int(m_current.size()),
           id.constData());

    // Copied: a parent's load may not touch the list, but keep it simple.
    const QList<QByteArray> parents = info->parents;
    path.append(id);
    for (const QByteArray &parent : parents)
        load_recursive(parent, path);
    path.removeLast();
}

bool Translator::load_at(qsizetype position)
{
    const LocaleList &list = locale_list();
    if (position < 0 || position >= list.size())
        return false;
    load(list.locales().at(position).id);
    return true;
}

const QByteArray *Translator::find(QByteArrayView key) const
{
    const QByteArray k = QByteArray::fromRawData(key.data(), key.size());
    if (auto it = m_current.find(k); it != m_current.end())
        return &it->second;
    if (auto it = m_fallback.find(k); it != m_fallback.end())
        return &it->second;
    return nullptr;
}

QByteArray Translator::lookup(QByteArrayView key) const
{
    if (const QByteArray *text = find(key))
        return *text;
    const QByteArray k = key.toByteArray();
    qCWarning(lc, "%s locale: %s = ??", m_name.constData(), k.constData());
    return k;
}

const char *Translator::lookup(const char *key) const
{
    if (!key)
        return "";
    if (const QByteArray *text = find(QByteArrayView(key)))
        return text->constData();
    qCWarning(lc, "%s locale: %s = ??", m_name.constData(), key);
    return key;
}

} // namespace corv::locale
