#include "cui/surface.h"

#include "cui/generate_context.h"
#include "cui/logging.h"
#include "cui/surface_p.h"
#include "engine/property_surface.h"

#include <QFormLayout>
#include <QTimer>
#include <QMutex>
#include <QUuid>

namespace corv::cui {

// ---------------------------------------------------------------------------
// GenerateContext

GenerateContext::GenerateContext(QString prefix, void *owner, Surface::Impl *surface)
    : m_prefix(std::move(prefix)), m_owner(owner), m_surface(surface)
{
}

QString GenerateContext::full_id(const QString &key) const
{
    if (!key.isEmpty() && key.startsWith(u'!'))
        return key;
    return m_prefix + key;
}

namespace {
// The k-th anonymous id of the process, "anonymous." and a UUID made once.
// Every surface takes ids from here in order, each never twice, so the k-th
// keyless element of every fresh surface shares one text: a project's
// thousands of panels neither make a random UUID each nor hold a copy each.
QString shared_anonymous_id(qsizetype k)
{
    static QStringList ids;
    static QMutex mutex;
    const QMutexLocker lock(&mutex);
    while (ids.size() <= k)
        ids.append(QLatin1String("anonymous.") + QUuid::createUuid().toString(QUuid::WithoutBraces));
    return ids.at(k);
}
} // namespace

QString GenerateContext::next_anonymous_id()
{
    QStringList &ids = m_surface->anonymous;
    if (ids.size() < anonymous_count + 1)
        ids.append(shared_anonymous_id(m_surface->anonymous_taken++));
    return full_id(ids.at(anonymous_count++));
}

Field *GenerateContext::current_field() const
{
    for (qsizetype i = ids.size() - 1; i >= 0; --i) {
        Element *element = m_surface->elements.value(ids.at(i));
        if (Field *field = element ? element->as_field() : nullptr)
            return field;
    }
    return nullptr;
}

// ---------------------------------------------------------------------------
// ElementMap

std::size_t ElementMap::find(const QString &id) const
{
    const std::size_t count = m_items.size();
    for (std::size_t n = 0; n < count; ++n) {
        const std::size_t i = (m_hint + n) % count;
        if (m_items[i]->id() == id) {
            m_hint = i + 1;
            return i;
        }
    }
    return count;
}

Element *ElementMap::value(const QString &id) const
{
    const std::size_t i = find(id);
    return i < m_items.size() ? m_items[i] : nullptr;
}

Element *ElementMap::take(const QString &id)
{
    const std::size_t i = find(id);
    if (i >= m_items.size())
        return nullptr;
    Element *element = m_items[i];
    m_items.erase(m_items.begin() + std::ptrdiff_t(i));
    m_hint = i;
    return element;
}

// ---------------------------------------------------------------------------
// Surface::Impl

Surface::Impl::Impl(Surface &q, const model::StoreView &store) : q(&q), store(store), root(*this) {}

void Surface::Impl::property_changed(model::Property *property)
{
    // A field's id is its key, so one field at most watches an entry. Its
    // handler may rebuild the surface, so the walk ends there.
    for (Element *element : elements) {
        Field *field = element->as_field();
        if (field && field->property() == property) {
            field->entry_changed(property);
            return;
        }
    }
}

void Surface::Impl::property_destroyed(model::Property *property)
{
    for (Element *element : elements) {
        if (Field *field = element->as_field())
            field->entry_destroyed(property);
    }
}

Surface::Impl::~Impl()
{
    if (view) {
        view->forget_surface();
        detach_view();
    }
    graveyard.clear();
    for (Element *element : elements.take_all())
        delete element;
}

void Surface::Impl::begin_build()
{
    for (const QString &id : std::as_const(declared)) {
        Element *element = elements.value(id);
        if (Field *field = element ? element->as_field() : nullptr)
            field->disarm();
    }
    building = true;
    root.begin();
}

void Surface::Impl::finish_build(GenerateContext &context)
{
    // Close what the callback left open.
    while (!context.containers.isEmpty())
        context.containers.takeLast()->finish();

    // Surfaces hold a handful of ids, mostly declared again in the same order.
    const QStringList &now = context.ids;
    for (qsizetype i = 0; i < declared.size(); ++i) {
        const QString &id = declared.at(i);
        if ((i < now.size() && now.at(i) == id) || now.contains(id))
            continue;
        if (Element *element = elements.take(id))
            discard(element);
    }
    if (declared != now) {
        declared = now;
        declared.squeeze();
    }
    root.finish();
    lay_out();
    for (const QString &id : std::as_const(declared)) {
        Element *element = elements.value(id);
        if (Field *field = element ? element->as_field() : nullptr)
            field->arm();
    }
    if (anonymous.size() > context.anonymous_count)
        anonymous.resize(context.anonymous_count);
    building = false;
}

void Surface::Impl::replace(const QString &id, Element *element)
{
    if (Element *old = elements.take(id))
        discard(old);
    elements.insert(element);
}

void Surface::Impl::place(GenerateContext &context, Element *element)
{
    Container *container = context.containers.isEmpty() ? &root : context.containers.last();
    container->add(element);
    context.ids.append(element->id());
}

void Surface::Impl::discard(Element *element)
{
    element->drop_widget();
    if (handler_depth > 0) {
        graveyard.emplace_back(element);
        bury_later();
    } else {
        delete element;
    }
}

void Surface::Impl::bury_later()
{
    if (m_burial_scheduled)
        return;
    m_burial_scheduled = true;
    QTimer::singleShot(0, q, [this] {
        m_burial_scheduled = false;
        if (handler_depth > 0)
            bury_later();
        else
            graveyard.clear();
    });
}

void Surface::Impl::attach_view(SurfaceView *new_view)
{
    if (view && view != new_view)
        delete view.data(); // detaches through its destructor
    view = new_view;
    root.set_view(new_view);
    lay_out();
}

void Surface::Impl::detach_view()
{
    // The view is going: its widgets go with it, unless a handler of one runs.
    const bool later = handler_depth > 0;
    for (Element *element : std::as_const(elements))
        element->drop_widget(later);
    root.set_view(nullptr);
    view = nullptr;
}

void Surface::Impl::lay_out()
{
    if (!has_view())
        return;
    QSet<const Element *> placed;
    lay_out(root, placed);
}

void Surface::Impl::lay_out(Container &container, QSet<const Element *> &placed)
{
    // An element declared twice stands where it was first laid out.
    QList<Element *> items;
    for (Element *child : container.children()) {
        if (placed.contains(child))
            continue;
        placed.insert(child);
        child->ensure_widget();
        if (Container *inner = child->as_container())
            lay_out(*inner, placed);
        if (child->widget())
            items.append(child);
    }
    container.lay_out(items);
}

// ---------------------------------------------------------------------------
// SurfaceView

SurfaceView::SurfaceView(Surface::Impl &surface, QWidget *parent) : QWidget(parent), m_surface(&surface)
{
    auto *form = new QFormLayout(this);
    form->setContentsMargins(0, 0, 0, 0);
    surface.attach_view(this);
}

SurfaceView::~SurfaceView()
{
    if (m_surface)
        m_surface->detach_view();
}

// ---------------------------------------------------------------------------
// Surface

Surface::Surface(const model::StoreView &store, QObject *parent)
    : QObject(parent), d(std::make_unique<Impl>(*this, store))
{
}

Surface::~Surface() = default;

const model::StoreView &Surface::store() const
{
    return d->store;
}

void Surface::set_store(const model::StoreView &store)
{
    if (store.collection() != d->store.collection()) {
        for (Element *element : d->elements.take_all())
            d->discard(element);
        d->declared.clear();
        d->root.begin();
    }
    d->store = store;
}

const StoreEditor &Surface::editor() const
{
    return d->editor;
}

void Surface::set_editor(const StoreEditor &editor)
{
    d->editor = editor;
}

void *Surface::owner() const
{
    return d->owner;
}

void Surface::set_owner(void *owner)
{
    d->owner = owner;
}

engine::ProjectRuntime *Surface::rack_source() const
{
    return d->runtime.data();
}

void Surface::set_rack_source(engine::ProjectRuntime *runtime)
{
    d->runtime = runtime;
}

void Surface::build(const QString &prefix, const std::function<void(GenerateContext &)> &declare)
{
    if (d->building) {
        qCDebug(lc_cui, "Surface rebuild requested while building; ignored");
        return;
    }
    d->begin_build();
    GenerateContext context(prefix, d->owner, d.get());
    if (declare)
        declare(context);
    d->finish_build(context);
}

bool Surface::is_building() const
{
    return d->building;
}

Element *Surface::element(const QString &id) const
{
    return d->elements.value(id);
}

Field *Surface::field(const QString &id) const
{
    Element *e = element(id);
    return e ? e->as_field() : nullptr;
}

qsizetype Surface::element_count() const
{
    return d->elements.size();
}

const QStringList &Surface::declared_ids() const
{
    return d->declared;
}

const QStringList &Surface::anonymous_ids() const
{
    return d->anonymous;
}

QWidget *Surface::create_view(QWidget *parent)
{
    return new SurfaceView(*d, parent);
}

QWidget *Surface::view() const
{
    return d->view.data();
}

} // namespace corv::cui
