#pragma once

#include "cui/invalidate.h"

#include <QObject>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>

class QWidget;

namespace corv::model {
class StoreView;
}

namespace corv::engine {
class ProjectRuntime;
}

namespace corv::cui {

class Element;
class Field;
class GenerateContext;
class StoreEditor;

// A declarative editing surface: the elements that the last build declared,
// kept by id between builds and bound to keys of a property store.
//
// The surface is a model first. Builds, bindings, returned values, triggers
// and invalidation need only a QCoreApplication. Widgets exist only while a
// view shows the surface (create_view()); they are made from the elements'
// state when the view appears or an element is declared under it, and are
// dropped with the view.
class Surface : public QObject
{
    Q_OBJECT
public:
    class Impl;

    explicit Surface(const model::StoreView &store, QObject *parent = nullptr);
    // Destroys every element (and its widget); a view left behind stays empty.
    ~Surface() override;

    const model::StoreView &store() const;
    // A new prefix keeps the elements (ids carry their own); a new collection
    // drops them, as their bindings point into the old one.
    void set_store(const model::StoreView &store);
    const StoreEditor &editor() const;
    void set_editor(const StoreEditor &editor);
    // The node instance or plugin the surface describes (opaque).
    void *owner() const;
    void set_owner(void *owner);
    // Where rack fields find the project's racks and their running handles;
    // without one they offer only the no-rack row and return null.
    engine::ProjectRuntime *rack_source() const;
    void set_rack_source(engine::ProjectRuntime *runtime);

    // Runs one build: disarms the previous build's fields, lets declare()
    // declare the surface through a fresh context with this prefix, destroys
    // what was not declared again, lays the rest out and arms it.
    void build(const QString &prefix, const std::function<void(GenerateContext &)> &declare);
    bool is_building() const;

    // The element under a full id, or null.
    Element *element(const QString &id) const;
    Field *field(const QString &id) const;
    template <typename T>
    T *element_as(const QString &id) const
    {
        return dynamic_cast<T *>(element(id));
    }
    qsizetype element_count() const;
    // The full ids declared by the last build, in order.
    const QStringList &declared_ids() const;
    // The ids handed to keyless elements, by position (without the prefix).
    const QStringList &anonymous_ids() const;

    // Shows the surface in a new widget (a QFormLayout with no margins). A
    // surface has one view at a time: a previous view is deleted. Widgets
    // are made now and dropped when the view is destroyed.
    QWidget *create_view(QWidget *parent = nullptr);
    // The current view, or null.
    QWidget *view() const;

    Impl *impl() const { return d.get(); }

Q_SIGNALS:
    // A field asked for a rebuild.
    void invalidated(corv::cui::InvalidateMode mode);

private:
    std::unique_ptr<Impl> d;
};

} // namespace corv::cui
