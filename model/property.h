#pragma once

#include "model/value.h"

#include <QHash>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>

#include <memory>
#include <vector>

namespace corv::model {

class Property;

// The one listener a property tells about its changes without a signal
// connection (a connection per bound property costs far more memory than
// the property itself). Used by the declarative UI's fields; everyone else
// connects to value_changed().
class PropertyWatcher
{
public:
    // After the value changed, before value_changed() is emitted.
    virtual void property_changed(Property *property) = 0;
    // The property is being destroyed.
    virtual void property_destroyed(Property *property) = 0;

protected:
    ~PropertyWatcher() = default;
};

// An observable holder of one value. Setting an equal value (by the exact
// equality of Value) does nothing; any real change emits value_changed().
class Property : public QObject
{
    Q_OBJECT
public:
    explicit Property(QObject *parent = nullptr);
    ~Property() override;

    const Value &value() const { return m_value; }
    void set(const Value &value);

    PropertyWatcher *watcher() const { return m_watcher; }
    void set_watcher(PropertyWatcher *watcher) { m_watcher = watcher; }

Q_SIGNALS:
    void value_changed();

private:
    Value m_value;
    PropertyWatcher *m_watcher = nullptr;
};

// Full keys are alike in every node of a type ("io.marrowfield.delay.count"):
// one shared copy of each serves them all. Any thread.
QString shared_key(const QString &key);
QString shared_key(QStringView prefix, QStringView key);

// Owns properties by full key. Properties live as long as the collection.
// The key list keeps every key once, at the position it was first set, which is
// the order the writer uses.
//
// A node holds a handful of keys: they are kept in a plain array searched
// in order, with a hash index only for large collections (preferences).
class PropertyCollection
{
public:
    PropertyCollection();
    ~PropertyCollection();
    PropertyCollection(const PropertyCollection &) = delete;
    PropertyCollection &operator=(const PropertyCollection &) = delete;

    Property *find(const QString &full_key) const { return find(QStringView(), full_key); }
    // The property under prefix + key, without building that key.
    Property *find(QStringView prefix, QStringView key) const;
    Property *find_or_create(const QString &full_key);
    // append_key() and find_or_create() in one, for prefix + key.
    Property *set_key(QStringView prefix, QStringView key);

    // Records a full key as set; a key already listed keeps its first position.
    void append_key(const QString &full_key);
    // The listed keys, in the order they were first listed.
    QStringList keys() const;
    qsizetype size() const { return m_count; }

    // Every property, in the order they were made.
    QList<QString> all_keys() const;

private:
    struct Entry {
        QString key;
        Property *property = nullptr;
        // Position in the key list; -1 while not listed.
        qint32 listed = -1;
    };
    Entry *entry(QStringView prefix, QStringView key) const;
    Entry &entry_or_add(QStringView prefix, QStringView key);
    void list(Entry &entry);

    std::vector<Entry> m_entries;
    std::unique_ptr<QHash<QString, qsizetype>> m_index;
    qint32 m_listed = 0;
    qsizetype m_count = 0;
};

// A property collection seen through a key prefix (a node type id followed by
// "." for node stores; empty for preferences) and an optional parent view.
//
// Key rule: a non-empty local key not starting with "!" is stored under
// prefix + key; a key starting with "!" is absolute and stored as it stands.
class StoreView
{
public:
    StoreView() = default;
    StoreView(PropertyCollection *collection, QString prefix, const StoreView *parent = nullptr)
        : m_collection(collection), m_prefix(std::move(prefix)), m_parent(parent)
    {
    }

    PropertyCollection *collection() const { return m_collection; }
    const QString &prefix() const { return m_prefix; }
    const StoreView *parent() const { return m_parent; }

    QString full_key(const QString &local_key) const;

    // Reading resolution: the full key; then "!key" for a plain key, or
    // prefix + key-without-"!" for an absolute one; then the parent view.
    Property *resolve(const QString &local_key) const;

    bool has(const QString &local_key, ValueType type) const;
    // The resolved value, or None when absent.
    Value get(const QString &local_key) const;

    // Writing: full key, then key list, then find-or-create and set. Never
    // falls back to "!" forms or to the parent.
    void set(const QString &local_key, const Value &value) const;

private:
    PropertyCollection *m_collection = nullptr;
    QString m_prefix;
    const StoreView *m_parent = nullptr;
};

} // namespace corv::model
