#pragma once

#include "cui/invalidate.h"
#include "cui/surface.h"
#include "model/value.h"

#include <QList>
#include <QMetaObject>
#include <QObject>
#include <QPointer>
#include <QString>

#include <QLabel>
#include <QWidget>

#include <cstdint>
#include <memory>

namespace corv::model {
class Property;
class PropertyCollection;
} // namespace corv::model

namespace corv::cui {

class Container;
class Field;

// One declared element of a surface: a field or a container. Elements hold
// their state in plain members; their widget is made only while the surface
// has a view, from that state, and dropped with the view.
class Element
{
public:
    // The class of an element: a declaration reuses an element only when the
    // kind matches.
    enum class Kind : std::uint8_t {
        Root,
        Group,
        Columns,
        Label,
        Spacer,
        Separator,
        Button,
        Checkbox,
        RadioGroup,
        List,
        Select,
        SelectRack,
        Text,
        TextArea,
        FilePicker,
        Slider,
        Int,
        Float,
        Color,
        Hotkey,
    };

    Element(Surface::Impl &surface, QString id);
    // Drops the widget.
    virtual ~Element();
    Element(const Element &) = delete;
    Element &operator=(const Element &) = delete;

    virtual Kind kind() const = 0;
    // This element as a field; null for containers.
    virtual Field *as_field() { return nullptr; }
    // This element as a container; null for fields.
    virtual Container *as_container() { return nullptr; }

    const QString &id() const { return m_id; }
    Surface::Impl &surface() const { return *m_surface; }

    // The text in the label column beside the element (empty: none).
    const QString &label() const { return m_label; }
    void set_label(const QString &label);

    // View side. The element's widget and its label widget, while a view
    // shows the surface.
    QWidget *widget() const { return m_view ? m_view->widget.data() : nullptr; }
    QLabel *label_widget() const { return m_view ? m_view->label.data() : nullptr; }
    // Makes the widgets when a view exists and they are missing.
    void ensure_widget();
    // Destroys the widgets: at once, or later when they may be running one
    // of their own handlers.
    void drop_widget(bool later = true);

protected:
    // Builds the widget from the element's state. Signal connections use
    // `link` as their context, so dropping the widget cuts them first.
    virtual QWidget *create_widget(QObject *link) = 0;
    // The widget was just made (and parented); sync it with the state.
    virtual void widget_created() {}
    // The widget is going; forget pointers into it.
    virtual void widget_dropped() {}
    // The connection context and focus watcher of the current widget.
    QObject *link() const;

private:
    // What exists only under a view; kept apart so headless elements stay small.
    struct ViewParts
    {
        QPointer<QWidget> widget;
        QPointer<QLabel> label;
        QPointer<QObject> link;
    };

    Surface::Impl *m_surface;
    QString m_id;
    QString m_label;
    std::unique_ptr<ViewParts> m_view;
};

// State shared by every field: the store binding, the invalidate triggers,
// and the armed, did-invalidate and editing flags.
class Field : public Element
{
public:
    using Element::Element;
    ~Field() override;

    Field *as_field() override { return this; }

    // Binds the field to its store entry (its id is the full key). An entry
    // that exists is used as it is; otherwise it is created with the
    // default, or with the value carried over from the key's other form
    // ("!key" for a prefixed key, prefix + key for an absolute one).
    void bind(model::PropertyCollection *collection, const QString &prefix,
              const QString &local_key, const model::Value &default_value);
    // The binding ends when the entry goes (with its collection).
    bool is_bound() const { return m_property != nullptr; }
    model::Property *property() const { return m_property; }
    // The surface heard that an entry changed or is going (watcher calls).
    void entry_changed(model::Property *property);
    void entry_destroyed(model::Property *property);
    // The stored value; None for unbound fields.
    const model::Value &value() const;

    // A user edit. Fields whose edits come in runs merge the writes of one
    // run into one undo step; the others make one step per write.
    void write(const model::Value &value);
    // A user edit that is one undo step of its own, whatever the field.
    void write_once(const model::Value &value);
    // Ends the field's editing run, if one is in progress.
    void end_run();
    bool is_merging() const { return m_merging; }

    std::uint32_t triggers() const { return m_triggers; }
    void set_triggers(std::uint32_t triggers) { m_triggers = triggers; }
    bool did_invalidate() const { return m_did_invalidate; }
    bool is_armed() const { return m_armed; }
    bool is_editing() const { return m_editing; }
    bool is_enabled() const { return m_enabled; }
    void set_enabled(bool enabled);

    // Start of a build: no invalidation until the build is over, triggers
    // back to the default set.
    void disarm();
    // End of a build: ready to invalidate again.
    void arm();
    // Asks for a rebuild when armed and `trigger` is in the field's set.
    void fire(std::uint32_t trigger, InvalidateMode mode = Deferred);
    // Rebuilds the surface at once when armed, whatever the triggers: for
    // changes that would leave a handle from the last build dangling.
    void rebuild_now();
    // The editor gained or lost focus; losing it ends an editing run.
    void set_editing(bool editing);

protected:
    // Whether user edits come in runs (one undo step per run).
    virtual bool merges() const { return false; }
    // The editor is losing focus: a field that writes when editing is over
    // writes now, ahead of the editing-finished trigger.
    virtual void finish_editing() {}
    // How soon a change of the stored value rebuilds the surface.
    virtual InvalidateMode value_changed_mode() const { return Deferred; }
    // Shows the stored value in the widget where it differs (widget exists).
    virtual void update_widget() {}
    // The stored value changed; after the widget refresh, before the trigger.
    virtual void value_updated() {}
    // Reports focus changes of `editor` (the widget or a part of it).
    void watch_focus(QWidget *editor);
    void widget_created() override;
    // Runs update_widget() with m_updating set, when there is a widget.
    void refresh_widget();

    // Guards a widget refresh, so the field ignores the signals it causes.
    bool m_updating = false;

private:
    void unbind();
    void on_store_changed();
    // Marks this field as the cause and asks the surface to rebuild, when armed.
    void invalidate_surface(InvalidateMode mode);

    model::Property *m_property = nullptr;
    // Only when another surface watches the entry: value_changed and destroyed.
    QMetaObject::Connection m_connection;
    QMetaObject::Connection m_gone_connection;
    std::uint32_t m_triggers = kDefaultTriggers;
    bool m_did_invalidate = false;
    bool m_armed = false;
    bool m_editing = false;
    bool m_enabled = true;
    bool m_merging = false;
};

// An element that holds others, laid out in declaration order.
class Container : public Element
{
public:
    using Element::Element;

    Container *as_container() override { return this; }

    // Forgets the children of the previous build (the container was declared).
    void begin() { m_children.clear(); }
    void add(Element *element) { m_children.append(element); }
    const QList<Element *> &children() const { return m_children; }
    // The container was closed.
    virtual void finish() {}

    // View side: lays the given children out, unless the widgets already
    // stand in that order.
    void lay_out(const QList<Element *> &items);
    // The widget whose layout holds the children.
    virtual QWidget *host() const { return widget(); }

protected:
    virtual void apply_layout(QWidget *host, const QList<Element *> &items) = 0;
    void widget_dropped() override { forget_layout(); }
    // Form layouts: a labelled element takes both columns of its row.
    static void apply_form_layout(QWidget *host, const QList<Element *> &items, bool margins);

    // The view changed; the next lay_out() starts afresh.
    void forget_layout() { m_laid_out.clear(); }

private:
    QList<Element *> m_children;
    QList<QPointer<QWidget>> m_laid_out;
};

// The top level of a surface: its host is the view.
class RootContainer final : public Container
{
public:
    RootContainer(Surface::Impl &surface) : Container(surface, QString()) {}
    Kind kind() const override { return Kind::Root; }
    QWidget *host() const override { return m_view.data(); }
    void set_view(QWidget *view);

protected:
    QWidget *create_widget(QObject *) override { return nullptr; }
    void apply_layout(QWidget *host, const QList<Element *> &items) override;

private:
    QPointer<QWidget> m_view;
};

// A titled group box.
class GroupContainer final : public Container
{
public:
    static constexpr Kind static_kind = Kind::Group;
    using Container::Container;
    Kind kind() const override { return static_kind; }
    const QString &title() const { return m_title; }
    void set_title(const QString &title);

protected:
    QWidget *create_widget(QObject *link) override;
    void apply_layout(QWidget *host, const QList<Element *> &items) override;

private:
    QString m_title;
};

// A row of elements side by side; its title labels the row.
class ColumnContainer final : public Container
{
public:
    static constexpr Kind static_kind = Kind::Columns;
    using Container::Container;
    Kind kind() const override { return static_kind; }
    const QString &title() const { return label(); }
    void set_title(const QString &title) { set_label(title); }

protected:
    QWidget *create_widget(QObject *link) override;
    void apply_layout(QWidget *host, const QList<Element *> &items) override;
};

} // namespace corv::cui
