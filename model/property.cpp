#include "model/property.h"

namespace corv::model {

Property::Property(QObject *parent) : QObject(parent) {}

Property::~Property() = default;

void Property::set(const Value &value)
{
    if (m_value == value)
        return;
    m_value = value;
    Q_EMIT value_changed();
}

PropertyCollection::PropertyCollection() = default;

PropertyCollection::~PropertyCollection()
{
    qDeleteAll(m_properties);
}

Property *PropertyCollection::find(const QString &full_key) const
{
    return m_properties.value(full_key, nullptr);
}

Property *PropertyCollection::find_or_create(const QString &full_key)
{
    auto it = m_properties.find(full_key);
    if (it == m_properties.end())
        it = m_properties.insert(full_key, new Property);
    return it.value();
}

void PropertyCollection::append_key(const QString &full_key)
{
    if (m_listed.contains(full_key))
        return;
    m_listed.insert(full_key);
    m_keys.append(full_key);
}

QString StoreView::full_key(const QString &local_key) const
{
    if (local_key.isEmpty() || local_key.startsWith(u'!'))
        return local_key;
    return m_prefix + local_key;
}

Property *StoreView::resolve(const QString &local_key) const
{
    for (const StoreView *view = this; view; view = view->m_parent) {
        if (!view->m_collection)
            continue;
        if (Property *p = view->m_collection->find(view->full_key(local_key)))
            return p;
        if (local_key.startsWith(u'!')) {
            if (Property *p = view->m_collection->find(view->m_prefix + local_key.mid(1)))
                return p;
        } else if (!local_key.isNull()) {
            // A null key (a null C string from a plugin) has no "!" form.
            if (Property *p = view->m_collection->find(u'!' + local_key))
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
    const QString key = full_key(local_key);
    m_collection->append_key(key);
    m_collection->find_or_create(key)->set(value);
}

} // namespace corv::model
