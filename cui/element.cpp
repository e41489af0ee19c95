#include "cui/element.h"

#include "cui/surface_p.h"
#include "model/property.h"

#include <QApplication>
#include <QEvent>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QScopedValueRollback>
#include <QLabel>

namespace corv::cui {

// The connection context of an element's widget (a child of it, so it dies
// with the widget) and the watcher of its editor's focus.
class FieldLink final : public QObject
{
public:
    explicit FieldLink(Element *element) : m_element(element) {}

    bool eventFilter(QObject *watched, QEvent *event) override
    {
        const QEvent::Type type = event->type();
        if (type != QEvent::FocusIn && type != QEvent::FocusOut)
            return false;
        Field *field = m_element->as_field();
        if (!field)
            return false;
        if (type == QEvent::FocusIn) {
            field->set_editing(true);
            return false;
        }
        // Focus moving between parts of one editor (a spin box and its line
        // edit) is no end of editing.
        QWidget *root = m_element->widget();
        QWidget *focus = QApplication::focusWidget();
        const bool inside = root && focus && focus != watched
                            && (focus == root || root->isAncestorOf(focus));
        if (!inside)
            field->set_editing(false);
        return false;
    }

private:
    Element *m_element;
};

namespace {

void dispose(QWidget *widget, bool later = true)
{
    if (!widget)
        return;
    if (!later) {
        delete widget;
        return;
    }
    widget->hide();
    widget->setParent(nullptr);
    widget->deleteLater();
}

} // namespace

// ---------------------------------------------------------------------------
// Element

Element::Element(Surface::Impl &surface, QString id) : m_surface(&surface), m_id(std::move(id)) {}

Element::~Element()
{
    drop_widget();
}

void Element::set_label(const QString &label)
{
    if (label == m_label)
        return;
    m_label = model::shared_key(label); // alike in every node of a type
    QWidget *own = widget();
    if (!own)
        return;
    if (m_label.isEmpty()) {
        dispose(m_view->label.data());
        m_view->label = nullptr;
    } else if (m_view->label) {
        m_view->label->setText(m_label);
    } else {
        m_view->label = new QLabel(m_label, own->parentWidget());
    }
}

void Element::ensure_widget()
{
    if (widget() || !m_surface->has_view())
        return;
    m_view = std::make_unique<ViewParts>();
    auto *link = new FieldLink(this);
    m_view->link = link;
    QWidget *made = create_widget(link);
    if (!made) {
        delete link;
        m_view.reset();
        return;
    }
    QWidget *host = m_surface->view.data();
    if (!made->parentWidget())
        made->setParent(host);
    link->setParent(made);
    m_view->widget = made;
    if (!m_label.isEmpty())
        m_view->label = new QLabel(m_label, host);
    widget_created();
}

void Element::drop_widget(bool later)
{
    if (!m_view)
        return;
    widget_dropped();
    const std::unique_ptr<ViewParts> parts = std::move(m_view);
    delete parts->link.data();
    dispose(parts->label.data(), later);
    dispose(parts->widget.data(), later);
}

QObject *Element::link() const
{
    return m_view ? m_view->link.data() : nullptr;
}

// ---------------------------------------------------------------------------
// Field

Field::~Field()
{
    unbind();
}

void Field::unbind()
{
    if (m_property && m_property->watcher() == &surface())
        m_property->set_watcher(nullptr);
    QObject::disconnect(m_connection);
    QObject::disconnect(m_gone_connection);
    m_property = nullptr;
}

void Field::bind(model::PropertyCollection *collection, const QString &prefix,
                 const QString &local_key, const model::Value &default_value)
{
    unbind();
    if (!collection)
        return;
    model::Property *property = collection->find(id());
    if (!property) {
        // Carry the value over from the key's other form, if the store has it.
        model::Value initial = default_value;
        const model::Property *other = nullptr;
        if (!local_key.startsWith(u'!'))
            other = collection->find(u"!", local_key);
        else
            other = collection->find(prefix, QStringView(local_key).sliced(1));
        if (other)
            initial = other->value();
        collection->append_key(id());
        property = collection->find_or_create(id());
        property->set(initial);
    }
    m_property = property;
    // The surface hears of the entry's changes by a direct call; only a
    // second surface over the same entry needs a connection of its own.
    if (!property->watcher()) {
        property->set_watcher(&surface());
        return;
    }
    m_connection = QObject::connect(property, &model::Property::value_changed, surface().q,
                                    [this] { on_store_changed(); });
    m_gone_connection = QObject::connect(property, &QObject::destroyed, surface().q, [this] {
        QObject::disconnect(m_connection);
        m_property = nullptr;
    });
}

void Field::entry_changed(model::Property *property)
{
    if (property == m_property && !m_connection)
        on_store_changed();
}

void Field::entry_destroyed(model::Property *property)
{
    if (property == m_property && !m_connection)
        m_property = nullptr;
}

const model::Value &Field::value() const
{
    static const model::Value none;
    const model::Property *p = property();
    return p ? p->value() : none;
}

void Field::write(const model::Value &value)
{
    if (!is_bound())
        return;
    HandlerScope scope(surface());
    const bool merge = merges();
    if (merge)
        m_merging = true;
    surface().editor.write(surface().store.collection(), id(), value, merge);
}

void Field::write_once(const model::Value &value)
{
    if (!is_bound())
        return;
    HandlerScope scope(surface());
    end_run();
    surface().editor.write(surface().store.collection(), id(), value, false);
}

void Field::end_run()
{
    if (!m_merging)
        return;
    m_merging = false;
    surface().editor.end_run();
}

void Field::set_enabled(bool enabled)
{
    m_enabled = enabled;
    if (QWidget *w = widget())
        w->setEnabled(enabled);
}

void Field::disarm()
{
    m_armed = false;
    m_triggers = kDefaultTriggers;
}

void Field::arm()
{
    m_did_invalidate = false;
    m_armed = true;
}

void Field::fire(std::uint32_t trigger, InvalidateMode mode)
{
    if (m_triggers & trigger)
        invalidate_surface(mode);
}

void Field::rebuild_now()
{
    invalidate_surface(Immediate);
}

void Field::invalidate_surface(InvalidateMode mode)
{
    if (!m_armed)
        return;
    m_did_invalidate = true;
    HandlerScope scope(surface());
    surface().notify_invalidated(mode);
}

void Field::set_editing(bool editing)
{
    if (editing == m_editing)
        return;
    HandlerScope scope(surface());
    m_editing = editing;
    if (!editing) {
        finish_editing();
        end_run();
    }
    fire(editing ? TriggerEditingStarted : TriggerEditingFinished);
}

void Field::on_store_changed()
{
    HandlerScope scope(surface());
    value_updated();
    refresh_widget();
    fire(TriggerValueChanged, value_changed_mode());
}

void Field::watch_focus(QWidget *editor)
{
    if (editor && link())
        editor->installEventFilter(link());
}

void Field::widget_created()
{
    widget()->setEnabled(m_enabled);
    refresh_widget();
}

void Field::refresh_widget()
{
    if (!widget())
        return;
    const QScopedValueRollback guard(m_updating, true);
    update_widget();
}

// ---------------------------------------------------------------------------
// Containers

void Container::lay_out(const QList<Element *> &items)
{
    QWidget *h = host();
    if (!h)
        return;
    QList<QPointer<QWidget>> order;
    order.reserve(items.size() * 2);
    for (Element *item : items) {
        order.append(item->label_widget());
        order.append(item->widget());
    }
    if (order == m_laid_out)
        return;
    apply_layout(h, items);
    m_laid_out = std::move(order);
}

void Container::apply_form_layout(QWidget *host, const QList<Element *> &items, bool margins)
{
    auto *form = qobject_cast<QFormLayout *>(host->layout());
    if (!form) {
        delete host->layout();
        form = new QFormLayout(host);
        if (!margins)
            form->setContentsMargins(0, 0, 0, 0);
    }
    form->setFieldGrowthPolicy(QFormLayout::AllNonFixedFieldsGrow);
    while (form->rowCount() > 0) {
        const QFormLayout::TakeRowResult row = form->takeRow(0);
        delete row.labelItem;
        delete row.fieldItem;
    }
    for (Element *item : items) {
        if (QLabel *label = item->label_widget())
            form->addRow(label, item->widget());
        else
            form->addRow(item->widget());
    }
}

void RootContainer::set_view(QWidget *view)
{
    m_view = view;
    forget_layout();
}

void RootContainer::apply_layout(QWidget *host, const QList<Element *> &items)
{
    apply_form_layout(host, items, false);
}

void GroupContainer::set_title(const QString &title)
{
    if (title == m_title)
        return;
    m_title = title;
    if (auto *box = qobject_cast<QGroupBox *>(widget()))
        box->setTitle(title);
}

QWidget *GroupContainer::create_widget(QObject *)
{
    auto *box = new QGroupBox(m_title);
    new QFormLayout(box);
    return box;
}

void GroupContainer::apply_layout(QWidget *host, const QList<Element *> &items)
{
    apply_form_layout(host, items, true);
}

QWidget *ColumnContainer::create_widget(QObject *)
{
    auto *row = new QWidget;
    auto *layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    return row;
}

void ColumnContainer::apply_layout(QWidget *host, const QList<Element *> &items)
{
    auto *layout = qobject_cast<QHBoxLayout *>(host->layout());
    if (!layout)
        return;
    while (QLayoutItem *item = layout->takeAt(0))
        delete item;
    for (Element *item : items) {
        if (QLabel *label = item->label_widget())
            layout->addWidget(label);
        layout->addWidget(item->widget());
    }
}

} // namespace corv::cui
