#include "node_rig.h"

#include "app/builtin_plugin.h"
#include "cui/element.h"
#include "cui/fields.h"
#include "cui/property_surface.h"
#include "cui/surface.h"
#include "engine/handles.h"
#include "engine/node_instance.h"
#include "engine/node_manager.h"
#include "engine/rack_manager.h"
#include "persistence/reader.h"
#include "persistence/writer.h"

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTest>

namespace {

QList<Hit> g_hits;
const QElapsedTimer *g_clock = nullptr;

struct Probe {
    corv_node *node;
    QString label;
};

void *probe_create(corv_node *node)
{
    return new Probe{node, {}};
}

void probe_destroy(void *data)
{
    delete static_cast<Probe *>(data);
}

void probe_load(void *data, corv_store *store)
{
    const char *label = corv_store_get_string(store, "!label");
    static_cast<Probe *>(data)->label = QString::fromUtf8(label ? label : "");
}

void probe_on_event(void *data, corv_event *event)
{
    auto *probe = static_cast<Probe *>(data);
    const char *id = corv_event_get(event, "id");
    QByteArrayList keys;
    for (std::uint64_t i = 0; i < corv_event_count(event); ++i) {
        const char *key = corv_event_get_key(event, i);
        keys << QByteArray(key) + '=' + corv_event_get(event, key);
    }
    g_hits.append({probe->label, QByteArray(id ? id : ""), g_clock ? g_clock->elapsed() : 0, keys.join(';')});
    corv_event_post(corv_node_parent_sink(probe->node), event);
    corv_event_destroy(event);
}

} // namespace

void fail_on_warnings()
{
    QTest::failOnWarning(QRegularExpression(QStringLiteral(".*")));
}

Rig::Rig() : m_probe_plugin{QStringLiteral("tests"), QStringLiteral("Tests"), {}}
{
    QStandardPaths::setTestModeEnabled(true);
    QLoggingCategory::setFilterRules(QStringLiteral("corv.sdk.debug=false\ncorv.sdk.info=false\n"
                                                    "corv.engine.info=false"));
    g_hits.clear();
    m_clock.start();
    g_clock = &m_clock;
    corv::install_builtin_nodes();
    corv::cui::install_default_node_surfaces();
    m_plugins.add_builtin(corv::builtin_plugin_entry_points(), QCoreApplication::applicationDirPath());
    m_plugins.initialize(registry);

    engine::NodeRegistration registration(registry, m_probe_plugin);
    corv_node_type probe{};
    probe.id = "test.probe";
    probe.name = "Probe";
    probe.create = probe_create;
    probe.destroy = probe_destroy;
    probe.on_event = probe_on_event;
    probe.on_children_returned = probe_on_event;
    probe.load = probe_load;
    registration.register_node(&probe);
    registration.commit();
}

Rig::~Rig()
{
    runtime.reset();
    g_clock = nullptr;
}

QUuid Rig::add_probe(const QUuid &parent, const QString &label)
{
    return add_node(parent, "test.probe", {{QStringLiteral("!label"), model::Value::string(label.toUtf8())}});
}

bool Rig::read(const QByteArray &document)
{
    return engine::read_project(document, project) == engine::ReadResult::Ok;
}

QByteArray Rig::write() const
{
    return engine::write_project(project).document;
}

void Rig::open()
{
    runtime = std::make_unique<engine::ProjectRuntime>(project, registry);
    runtime->open();
}

void Rig::set(const QUuid &node, const QString &key, const model::Value &value)
{
    engine::NodeManager *manager = runtime->find_node_manager(node);
    manager->store().set(key, value);
}

model::Value Rig::get(const QUuid &node, const QString &key) const
{
    const model::Node *n = project.find_node(node);
    return model::StoreView(const_cast<model::PropertyCollection *>(&n->properties()), n->key_prefix()).get(key);
}

void Rig::click(const QUuid &node, int nth)
{
    auto *panel = dynamic_cast<corv::cui::PropertySurface *>(runtime->find_node_manager(node)->surface());
    QVERIFY(panel);
    for (const QString &id : panel->surface()->declared_ids()) {
        if (auto *button = panel->surface()->element_as<corv::cui::ButtonField>(id); button && nth-- == 0) {
            button->click();
            return;
        }
    }
    QFAIL("no such button");
}

QString Rig::name(const QUuid &node) const
{
    engine::NodeInstance *instance = runtime->find_node_manager(node)->instance();
    return instance ? instance->instance_name() : QString();
}

quint32 Rig::decoration(const QUuid &node) const
{
    engine::NodeInstance *instance = runtime->find_node_manager(node)->instance();
    return instance ? instance->decoration_mask() : 0;
}

void Rig::post(const QUuid &rack, const QByteArray &id)
{
    corv_event *event = corv_event_create();
    corv_event_set(event, "id", id.constData());
    corv_event_post(engine::handles::to_handle(runtime->find_rack_manager(rack)->sink()), event);
    corv_event_destroy(event);
}

void Rig::post(const QUuid &rack, const QList<std::pair<QByteArray, QByteArray>> &keys)
{
    corv_event *event = corv_event_create();
    for (const auto &[key, value] : keys)
        corv_event_set(event, key.constData(), value.constData());
    corv_event_post(engine::handles::to_handle(runtime->find_rack_manager(rack)->sink()), event);
    corv_event_destroy(event);
}

QStringList Rig::labels(const QUuid &node) const
{
    QStringList texts;
    auto *panel = dynamic_cast<corv::cui::PropertySurface *>(runtime->find_node_manager(node)->surface());
    if (!panel)
        return texts;
    for (const QString &id : panel->surface()->declared_ids())
        if (auto *label = panel->surface()->element_as<corv::cui::LabelField>(id))
            texts << label->text();
    return texts;
}

void Rig::turns(int count)
{
    for (int i = 0; i < count; ++i)
        QCoreApplication::processEvents();
}

void Rig::wait(int ms)
{
    QTest::qWait(ms);
}

QList<QByteArray> Rig::seen(const QString &probe) const
{
    QList<QByteArray> ids;
    for (const Hit &hit : g_hits)
        if (hit.at == probe)
            ids.append(hit.id);
    return ids;
}

QList<Hit> Rig::hits_at(const QString &probe) const
{
    QList<Hit> hits;
    for (const Hit &hit : g_hits)
        if (hit.at == probe)
            hits.append(hit);
    return hits;
}

const QList<Hit> &Rig::hits() const
{
    return g_hits;
}
