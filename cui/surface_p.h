#pragma once

#include "cui/element.h"
#include "cui/generate_context.h"
#include "cui/store_editor.h"
#include "cui/surface.h"
#include "engine/project_runtime.h"
#include "engine/property_surface.h"
#include "model/property.h"

#include <QHash>
#include <QPointer>
#include <QSet>
#include <QWidget>

#include <memory>
#include <vector>

namespace corv::cui {

class SurfaceView;

// A surface's elements by full id, owned by the surface. Surfaces hold a
// handful of elements, declared in the same order build after build, so a
// vector searched onwards from the last hit costs one comparison per
// declaration and far less memory than a hash table.
class ElementMap
{
public:
    Element *value(const QString &id) const;
    // The id must be free.
    void insert(Element *element) { m_items.push_back(element); }
    Element *take(const QString &id);
    std::vector<Element *> take_all() { return std::exchange(m_items, {}); }
    qsizetype size() const { return qsizetype(m_items.size()); }
    std::vector<Element *>::const_iterator begin() const { return m_items.begin(); }
    std::vector<Element *>::const_iterator end() const { return m_items.end(); }

private:
    std::size_t find(const QString &id) const;

    std::vector<Element *> m_items;
    mutable std::size_t m_hint = 0;
};

// The surface's state. A plain object: every node of a project has a
// surface, and a Qt object more per surface would cost each its private part.
// Connections that need a context use the public Surface.
class Surface::Impl : public model::PropertyWatcher
{
public:
    Impl(Surface &q, const model::StoreView &store);
    ~Impl();

    // Declares the element of class T under a full id: reuses the element
    // there when it has that class, else makes one (replacing any other),
    // adds it to the innermost open container and records the id. *created
    // tells the caller to bind a new field.
    template <typename T>
    T *declare(GenerateContext &context, const QString &id, bool *created = nullptr)
    {
        Element *element = elements.value(id);
        const bool make = !element || element->kind() != T::static_kind;
        if (make) {
            // Ids are alike in every node of a type: one shared copy.
            element = new T(*this, model::shared_key(id));
            replace(id, element);
        }
        if (created)
            *created = make;
        place(context, element);
        return static_cast<T *>(element);
    }

    void begin_build();
    void finish_build(GenerateContext &context);

    // Puts element under id, destroying the element that held it.
    void replace(const QString &id, Element *element);
    // Adds a declared element to the open container and to the id list.
    void place(GenerateContext &context, Element *element);
    // Takes an element out of the surface and destroys it (later, when a
    // field handler is running and might belong to it).
    void discard(Element *element);

    // View side.
    void attach_view(SurfaceView *view);
    void detach_view();
    void lay_out();

    bool has_view() const { return !view.isNull(); }

    // Tells the panel over the surface, then emits invalidated on the
    // public Surface (the panel is called directly: a connection would cost
    // every surface memory).
    void notify_invalidated(InvalidateMode mode)
    {
        if (panel)
            panel->invalidate(mode);
        Q_EMIT q->invalidated(mode);
    }

    // model::PropertyWatcher: the store entries bound by this surface's fields.
    void property_changed(model::Property *property) override;
    void property_destroyed(model::Property *property) override;

    Surface *q;
    // The property panel that rebuilds this surface, told of invalidations first.
    engine::PropertySurface *panel = nullptr;
    void *owner = nullptr;
    model::StoreView store;
    StoreEditor editor;
    QPointer<engine::ProjectRuntime> runtime;
    RootContainer root;
    ElementMap elements;
    QStringList declared;
    QStringList anonymous;
    // How many of the process's anonymous ids this surface has taken.
    qsizetype anonymous_taken = 0;
    QPointer<SurfaceView> view;
    bool building = false;
    // Field handlers on the stack; while any runs, discarded elements wait.
    int handler_depth = 0;
    std::vector<std::unique_ptr<Element>> graveyard;

private:
    void lay_out(Container &container, QSet<const Element *> &placed);
    void bury_later();
    bool m_burial_scheduled = false;
};

// Marks a field handler on the stack (see Surface::Impl::handler_depth).
// A handler that runs a modal dialog may outlive the surface; alive() tells.
class HandlerScope
{
public:
    explicit HandlerScope(Surface::Impl &surface) : m_surface(surface.q) { ++surface.handler_depth; }
    ~HandlerScope()
    {
        if (m_surface)
            --m_surface->impl()->handler_depth;
    }
    HandlerScope(const HandlerScope &) = delete;
    HandlerScope &operator=(const HandlerScope &) = delete;

    bool alive() const { return !m_surface.isNull(); }

private:
    QPointer<Surface> m_surface;
};

// The widget that shows a surface. Its lifetime is the lifetime of the
// surface's widgets.
class SurfaceView : public QWidget
{
    Q_OBJECT
public:
    SurfaceView(Surface::Impl &surface, QWidget *parent);
    ~SurfaceView() override;

    // The surface went away first.
    void forget_surface() { m_surface = nullptr; }

private:
    Surface::Impl *m_surface;
};

} // namespace corv::cui
