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

Data &data_of(void *data)
{
    return *static_cast<Data *>(data);
}

void post_parent(void *data, corv_event *event)
{
    EventSink::post(data_of(data).node->parent_sink(), *handles::event(event));
    handles::release_event(event);
}

void post_children(void *data, corv_event *event)
{
    EventSink::post(data_of(data).node->child_sink(), *handles::event(event));
    handles::release_event(event);
}

void *create(corv_node *node)
{
    NodeInstance *instance = handles::node(node);
    NodeManager *manager = nullptr;
    for (NodeManager *candidate : current->runtime->node_managers())
        if (candidate->parent_sink() == instance->parent_sink())
            manager = candidate;
    const QByteArray label = manager ? manager->store().get(QStringLiteral("!label")).to_string() : "?";
    lifecycle << "create " + QString::fromUtf8(label);
    return new Data{instance, manager, QString::fromUtf8(label)};
}

void destroy(void *data)
{
    lifecycle << "destroy " + data_of(data).label;
    delete &data_of(data);
}

void load(void *, corv_store *store)
{
    lifecycle << "load " + QString::fromUtf8(handles::store(store)->get(QStringLiteral("!label")).to_string());
}

void unload(void *data, corv_store *)
{
    lifecycle << "unload " + data_of(data).label;
}

void pass(void *data, corv_event *event)
{
    ++on_event_calls;
    post_parent(data, event);
}

void run_children(void *data, corv_event *event)
{
    ++on_event_calls;
    post_children(data, event);
}

void mark(void *data, corv_event *event)
{
    EventScope *scope = handles::event(event);
    scope->set("path", scope->value("path") + data_of(data).label.toUtf8() + ',');
    pass(data, event);
}

void fork(void *data, corv_event *event)
{
    post_children(data, handles::new_event(*handles::event(event)));
    handles::event(event)->set("forked", "yes");
    pass(data, event);
}

void drop(void *, corv_event *event)
{
    ++on_event_calls;
    handles::release_event(event);
}

void named_instance_name(void *data, char *buffer)
{
    const QByteArray text = data_of(data).manager->store().get(QStringLiteral("!name")).to_string();
    const std::size_t length = std::min<std::size_t>(std::size_t(text.size()), 255);
    std::memcpy(buffer, text.constData(), length);
    buffer[length] = '\0';
}

uint32_t named_decoration(void *data)
{
    return uint32_t(data_of(data).manager->store().get(QStringLiteral("!decoration")).to_int());
}

} // namespace

Fixture::Fixture()
{
    current = this;
    lifecycle.clear();
    on_event_calls = 0;
    QLoggingCategory::setFilterRules(QStringLiteral("corv.engine.info=false"));
    NodeRegistration registration(registry, plugin);
    const auto add = [&](const char *id, corv_node_on_event_fn on_event, corv_node_on_children_returned_fn back,
                         bool named = false) {
        corv_node_type t{id, id, nullptr, nullptr, create, destroy, nullptr, nullptr, nullptr, on_event, back,
                         load, unload};
        if (named) {
            t.get_instance_name = named_instance_name;
            t.get_decoration = named_decoration;
        }
        registration.register_node(&t);
    };
    add(pass_type, pass, post_parent);
    add(runner_type, run_children, post_parent);
    add(mark_type, mark, post_parent);
    add(fork_type, fork, drop);
    add("test.silent", nullptr, nullptr);
    add(drop_type, drop, drop);
    add(named_type, pass, nullptr, true);
    registration.commit();
}

Fixture::~Fixture()
{
    runtime.reset();
    current = nullptr;
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
    const QUuid id = corv::test::add_node(project, parent, QString::fromUtf8(type),
                                          {{QStringLiteral("!label"), model::Value::string(label.toUtf8())}}, index);
    labels.insert(id, label);
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
