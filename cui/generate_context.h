#pragma once

#include "cui/surface.h"

#include <QList>
#include <QString>
#include <QStringList>

namespace corv::cui {

class Container;
class Field;

// The context of one build, handed to the build callback by reference (its
// address is the C handle cui_generate_context).
class GenerateContext
{
public:
    GenerateContext(QString prefix, void *owner, Surface::Impl *surface);

    // The prefix of the store view the surface edits: a node's type id and
    // "."; empty for preferences.
    const QString &prefix() const { return m_prefix; }
    void *owner() const { return m_owner; }
    Surface::Impl *surface() const { return m_surface; }

    // Key resolution: a non-empty key starting with "!" is the id itself
    // (keeping the "!"); any other key is put after the prefix.
    QString full_id(const QString &key) const;
    // The id of the next keyless element: the surface's id at the position
    // of the counter (made on first use), put after the prefix.
    QString next_anonymous_id();
    // The last field declared so far in this build, or null.
    Field *current_field() const;

    // Open containers, innermost last.
    QList<Container *> containers;
    // Ids declared so far, in order.
    QStringList ids;
    // Keyless elements declared so far.
    qsizetype anonymous_count = 0;

private:
    QString m_prefix;
    void *m_owner;
    Surface::Impl *m_surface;
};

} // namespace corv::cui
