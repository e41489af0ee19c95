#include "test_nodes.h"

#include "engine/handles.h"
#include "engine/node_instance.h"
#include "engine/node_manager.h"
#include "engine/rack_manager.h"

#include <cstring>

using namespace corv;
using namespace corv::engine;

namespace test_nodes {

QStringList lifecycle;
std::atomic<int> on_event_calls{0};

namespace {

Fixture *current = nullptr;

struct Data {
    NodeInstance *node;
    NodeManager *manager;
    QString label;
};

NodeManager *manager_of(const NodeInstance *instance)
{
    if (!current || !current->runtime)
        return nullptr;
    for (NodeManager *manager : current->runtime->node_managers()) {
        if (manager->parent_sink() == instance->parent_sink())
            return manager;
    }
    return nullptr;
}

NodeInstance *node_of(void *data)
{
    return static_cast<Data *>(data)->node;
}

void post_parent(void *data, corv_event *event)
{
    EventSink::post(node_of(data)->parent_sink(), *handles::event(event));
    handles::release_event(event);
}

void post_children(void *data, corv_event *event)
{
    EventSink::post(node_of(data)->child_sink(), *handles::event(event));
    handles::release_event(event);
}

void *create(corv_node *node)
{
    NodeInstance *instance = handles::node(node);
    auto *data = new Data{instance, manager_of(instance), label_of(instance)};
    lifecycle << QStringLiteral("create ") + data->label;
    return data;
}

void destroy(void *data)
{
    lifecycle << QStringLiteral("destroy ") + static_cast<Data *>(data)->label;
    delete static_cast<Data *>(data);
}

void load(void *, corv_store *store)
{
    const QString label = QString::fromUtf8(handles::store(store)->get(QStringLiteral("!label")).to_string());
    lifecycle << QStringLiteral("load ") + label;
}

void unload(void *data, corv_store *)
{
    lifecycle << QStringLiteral("unload ") + static_cast<Data *>(data)->label;
}

void pass_on_event(void *data, corv_event *event)
{
    ++on_event_calls;
    post_parent(data, event);
}

void runner_on_event(void *data, corv_event *event)
{
    ++on_event_calls;
    post_children(data, event);
}

void mark_on_event(void *data, corv_event *event)
{
    ++on_event_calls;
    EventScope *scope = handles::event(event);
    scope->set("path", scope->value("path") + static_cast<Data *>(data)->label.toUtf8() + ',');
    post_parent(data, event);
}

void fork_on_event(void *data, corv_event *event)
{
    ++on_event_calls;
    corv_event *clone = handles::new_event(*handles::event(event));
    post_children(data, clone);
    handles::event(event)->set("forked", "yes");
    post_parent(data, event);
}

void drop_event(void *, corv_event *event)
{
    ++on_event_calls;
    handles::release_event(event);
}

void named_instance_name(void *data, char *buffer)
{
    // Whatever the node's "!name" holds, cut to the buffer.
    const QByteArray text =
        static_cast<Data *>(data)->manager->store().get(QStringLiteral("!name")).to_string();
    const std::size_t length = std::min<std::size_t>(std::size_t(text.size()), 255);
    std::memcpy(buffer, text.constData(), length);
    buffer[length] = '\0';
}

uint32_t named_decoration(void *data)
{
    const model::Value value =
        static_cast<Data *>(data)->manager->store().get(QStringLiteral("!decoration"));
    return uint32_t(value.to_int());
}

corv_node_type type(const char *id)
{
    corv_node_type type{};
    type.id = id;
    type.name = id;
    type.create = create;
    type.destroy = destroy;
    type.load = load;
    type.unload = unload;
    return type;
}

} // namespace

QString label_of(const NodeInstance *instance)
{
    const NodeManager *manager = manager_of(instance);
    return manager ? QString::fromUtf8(manager->store().get(QStringLiteral("!label")).to_string())
                   : QStringLiteral("?");
}

Fixture::Fixture()
{
    current = this;
    lifecycle.clear();
    on_event_calls = 0;
    NodeRegistration registration(registry, plugin);

    corv_node_type t = type(pass_type);
    t.on_event = pass_on_event;
    t.on_children_returned = post_parent;
    registration.register_node(&t);

    t = type(runner_type);
    t.on_event = runner_on_event;
    t.on_children_returned = post_parent;
    registration.register_node(&t);

    t = type(mark_type);
    t.on_event = mark_on_event;
    t.on_children_returned = post_parent;
    registration.register_node(&t);

    t = type(fork_type);
    t.on_event = fork_on_event;
    t.on_children_returned = drop_event;
    registration.register_node(&t);

    t = type(silent_type);
    registration.register_node(&t);

    t = type(drop_type);
    t.on_event = drop_event;
    t.on_children_returned = drop_event;
    registration.register_node(&t);

    t = type(named_type);
    t.on_event = pass_on_event;
    t.get_instance_name = named_instance_name;
    t.get_decoration = named_decoration;
    registration.register_node(&t);

    registration.commit();
}

Fixture::~Fixture()
{
    runtime.reset();
    current = nullptr;
}

QUuid Fixture::add_rack(const QString &name)
{
    const QUuid id = QUuid::createUuid();
    auto rack = std::make_unique<model::Rack>();
    rack->set_name(name);
    project.add_rack(id, std::move(rack));
    project.profile()->insert(project.profile()->count(), id);
    labels.insert(id, name);
    return id;
}

model::Children *Fixture::list_of(const QUuid &parent) const
{
    if (model::Rack *rack = project.find_rack(parent))
        return rack->top_level();
    model::Node *node = project.find_node(parent);
    return node ? node->children() : nullptr;
}

QUuid Fixture::add_node(const QUuid &parent, const char *type, const QString &label, int index)
{
    const QUuid id = QUuid::createUuid();
    auto node = std::make_unique<model::Node>();
    node->set_impl_id(QString::fromUtf8(type));
    model::StoreView(&node->properties(), node->key_prefix())
        .set(QStringLiteral("!label"), model::Value::string(label.toUtf8()));
    labels.insert(id, label);
    // Table first, then the list, as an edit of an open project does.
    project.add_node(id, std::move(node));
    model::Children *list = list_of(parent);
    list->insert(index < 0 ? list->count() : std::size_t(index), id);
    return id;
}

void Fixture::open()
{
    runtime = std::make_unique<ProjectRuntime>(project, registry);
    runtime->open();
}

void Fixture::post_to_rack(const QUuid &rack, const QByteArray &tag)
{
    EventScope event;
    event.set("id", tag);
    EventSink::post(runtime->find_rack_manager(rack)->sink(), event);
}

} // namespace test_nodes
