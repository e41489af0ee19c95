#include "model/property.h"

#include <QMutex>

#include <algorithm>
#include <array>

namespace corv::model {

Property::Property(QObject *parent) : QObject(parent) {}

Property::~Property()
{
    if (m_watcher)
        m_watcher->property_destroyed(this);
}

void Property::set(const Value &value)
{
    if (m_value == value)
        return;
    m_value = value;
    if (m_watcher)
        m_watcher->property_changed(this);
    Q_EMIT value_changed();
}

namespace {

// The shared copies of full keys. Keys nobody holds any longer are dropped
// whenever the pool has doubled since the last sweep.
struct KeyPool {
    QMutex mutex;
    QSet<QString> keys;
    qsizetype sweep_at = 1024;

    QString intern(const QString &key)
    {
        const QMutexLocker lock(&mutex);
        const auto it = keys.constFind(key);
        if (it != keys.cend())
            return *it;
        if (keys.size() >= sweep_at) {
            keys.removeIf([](const QString &held) { return !held.data_ptr()->isShared(); });
            sweep_at = std::max<qsizetype>(1024, keys.size() * 2);
        }
        keys.insert(key);
        return key;
    }
};

KeyPool &key_pool()
{
    static KeyPool pool;
    return pool;
}

bool equals_joined(const QString &full, QStringView prefix, QStringView key)
{
    return full.size() == prefix.size() + key.size() && QStringView(full).startsWith(prefix)
           && QStringView(full).sliced(prefix.size()) == key;
}

constexpr std::size_t kIndexFrom = 16;

} // namespace

QString shared_key(const QString &key)
{
    return key_pool().intern(key);
}

QString shared_key(QStringView prefix, QStringView key)
{
    // The same few keys come again and again (a project's thousands of nodes
    // share a handful of types): a small per-thread cache answers most
    // without building the key or taking the pool's lock.
    constexpr std::size_t kSlots = 256;
    thread_local std::array<QString, kSlots> recent;
    std::size_t hash = std::size_t(prefix.size()) * 31 + std::size_t(key.size());
    for (const QChar c : key)
        hash = hash * 131 + c.unicode();
    if (!prefix.isEmpty())
        hash = hash * 131 + prefix.back().unicode() + std::size_t(prefix.front().unicode()) * 7;
    QString &slot = recent[hash % kSlots];
    if (equals_joined(slot, prefix, key))
        return slot;
    QString full;
    full.reserve(prefix.size() + key.size());
    full.append(prefix).append(key);
    slot = key_pool().intern(full);
    return slot;
}

PropertyCollection::PropertyCollection() = default;

PropertyCollection::~PropertyCollection()
{
    for (Entry &entry : m_entries)
        delete entry.property;
}

PropertyCollection::Entry *PropertyCollection::entry(QStringView prefix, QStringView key) const
{
    if (m_index) {
        QString full;
        full.reserve(prefix.size() + key.size());
        full.append(prefix).append(key);
        const qsizetype at = m_index->value(full, -1);
        return at < 0 ? nullptr : const_cast<Entry *>(&m_entries[std::size_t(at)]);
    }
    for (const Entry &e : m_entries) {
        if (equals_joined(e.key, prefix, key))
            return const_cast<Entry *>(&e);
    }
    return nullptr;
}

PropertyCollection::Entry &PropertyCollection::entry_or_add(QStringView prefix, QStringView key)
{
    if (Entry *found = entry(prefix, key))
        return *found;
    // A node holds a handful of keys: small collections grow one by one.
    if (m_entries.capacity() == m_entries.size())
        m_entries.reserve(m_entries.size() < 8 ? m_entries.size() + 1 : m_entries.size() * 2);
    m_entries.push_back(Entry{shared_key(prefix, key)});
    if (m_index) {
        m_index->insert(m_entries.back().key, qsizetype(m_entries.size() - 1));
    } else if (m_entries.size() > kIndexFrom) {
        m_index = std::make_unique<QHash<QString, qsizetype>>();
        for (std::size_t i = 0; i < m_entries.size(); ++i)
            m_index->insert(m_entries[i].key, qsizetype(i));
    }
    return m_entries.back();
}

Property *PropertyCollection::find(QStringView prefix, QStringView key) const
{
    const Entry *found = entry(prefix, key);
    return found ? found->property : nullptr;
}

Property *PropertyCollection::find_or_create(const QString &full_key)
{
    Entry &found = entry_or_add(QStringView(), full_key);
    if (!found.property) {
        found.property = new Property;
        ++m_count;
    }
    return found.property;
}

Property *PropertyCollection::set_key(QStringView prefix, QStringView key)
{
    Entry &found = entry_or_add(prefix, key);
    list(found);
    if (!found.property) {
        found.property = new Property;
        ++m_count;
    }
    return found.property;
}

void PropertyCollection::list(Entry &entry)
{
    if (entry.listed < 0)
        entry.listed = m_listed++;
}

void PropertyCollection::append_key(const QString &full_key)
{
    list(entry_or_add(QStringView(), full_key));
}

QStringList PropertyCollection::keys() const
{
    // Entries are nearly always listed in the order they were made.
    QList<const Entry *> listed;
    listed.reserve(m_listed);
    bool ordered = true;
    for (const Entry &entry : m_entries) {
        if (entry.listed < 0)
            continue;
        if (!listed.isEmpty() && listed.last()->listed > entry.listed)
            ordered = false;
        listed.append(&entry);
    }
    if (!ordered)
        std::sort(listed.begin(), listed.end(), [](const Entry *a, const Entry *b) { return a->listed < b->listed; });
    QStringList keys;
    keys.reserve(listed.size());
    for (const Entry *entry : std::as_const(listed))
        keys.append(entry->key);
    return keys;
}

QList<QString> PropertyCollection::all_keys() const
{
    QList<QString> keys;
    keys.reserve(m_count);
    for (const Entry &entry : m_entries) {
        if (entry.property)
            keys.append(entry.key);
    }
    return keys;
}

QString StoreView::full_key(const QString &local_key) const
{
    if (local_key.isEmpty() || local_key.startsWith(u'!'))
        return local_key;
    return m_prefix + local_key;
}

Property *StoreView::resolve(const QString &local_key) const
{
    static const QString bang = QStringLiteral("!");
    const bool absolute = local_key.startsWith(u'!');
    for (const StoreView *view = this; view; view = view->m_parent) {
        const PropertyCollection *collection = view->m_collection;
        if (!collection)
            continue;
        const QStringView prefix = absolute || local_key.isEmpty() ? QStringView() : view->m_prefix;
        if (Property *p = collection->find(prefix, local_key))
            return p;
        if (absolute) {
            if (Property *p = collection->find(view->m_prefix, QStringView(local_key).sliced(1)))
                return p;
        } else if (!local_key.isNull()) {
            // A null key (a null C string from a plugin) has no "!" form.
            if (Property *p = collection->find(bang, local_key))
                return p;
        }
    }
    return nullptr;
}

bool StoreView::has(const QString &local_key, ValueType type) const
{
    const Property *p = resolve(local_key);
    return p && p->value().type() == type;
}

Value StoreView::get(const QString &local_key) const
{
    const Property *p = resolve(local_key);
    return p ? p->value() : Value();
}

void StoreView::set(const QString &local_key, const Value &value) const
{
    if (!m_collection)
        return;
    const bool whole = local_key.isEmpty() || local_key.startsWith(u'!');
    m_collection->set_key(whole ? QStringView() : QStringView(m_prefix), local_key)->set(value);
}

} // namespace corv::model
