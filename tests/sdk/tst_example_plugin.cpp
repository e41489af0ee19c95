// The example plugin, loaded from a copy of its folder as the program loads
// it, driving events through a real project: its nodes, its migration, its
// translations, and the node and rack functions it calls.

#include "engine/children_router.h"
#include "engine/handles.h"
#include "engine/node_instance.h"
#include "engine/node_manager.h"
#include "engine/node_registry.h"
#include "engine/project_runtime.h"
#include "engine/rack_manager.h"
#include "model/project.h"
#include "tests/project_edits.h"
#include "locale/locale_list.h"
#include "locale/translate.h"
#include "sdk/include/corvane/corvane_sdk.h"
#include "sdk/plugin_list.h"
#include "sdk_test_support.h"

#include <QRegularExpression>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTest>

#include <memory>

using namespace corv;
using namespace corv::engine;

namespace {

const QString example = QStringLiteral("io.marrowfield.example");
const QString tag = QStringLiteral("io.marrowfield.example.tag");
const QString repeat = QStringLiteral("io.marrowfield.example.repeat");
const QString retired_label = QStringLiteral("io.marrowfield.example.label");

// The example plugin loaded into a plugin list and registry, and a project
// to run its nodes in.
struct Fixture {
    sdk_test::PluginFolder plugins;
    PluginList list;
    NodeRegistry registry;
    model::Project project;
    std::unique_ptr<ProjectRuntime> runtime;
    QList<EventScope> returned;

    Fixture()
    {
        plugins.add_folder(QStringLiteral(CORV_EXAMPLE_PLUGIN_DIR), example);
        list.scan(plugins.path());
        list.initialize(registry);
    }
    ~Fixture() { runtime.reset(); }

    QUuid add_rack(const QString &name) { return corv::test::add_rack(project, name); }

    // A node of type under parent (a rack or a node) with string or int
    // properties under full keys.
    QUuid add_node(const QUuid &parent, const QString &type, const QVariantMap &properties = {})
    {
        const QUuid id = QUuid::createUuid();
        auto node = std::make_unique<model::Node>();
        node->set_impl_id(type);
        for (auto it = properties.cbegin(); it != properties.cend(); ++it) {
            node->properties().append_key(it.key());
            node->properties().find_or_create(it.key())->set(
                it.value().typeId() == QMetaType::Int
                    ? model::Value::integer(it.value().toInt())
                    : model::Value::string(it.value().toString().toUtf8()));
        }
        project.add_node(id, std::move(node));
        model::Children *children = project.find_rack(parent)
                                        ? project.find_rack(parent)->top_level()
                                        : project.find_node(parent)->children();
        children->insert(children->count(), id);
        return id;
    }

    void open()
    {
        runtime = std::make_unique<ProjectRuntime>(project, registry);
        runtime->open();
        for (RackManager *rack : runtime->rack_managers()) {
            QObject::connect(rack->top_router(), &ChildrenEventRouter::event_returned,
                             [this](const EventScope &event) { returned.append(event); });
        }
    }

    NodeInstance *instance(const QUuid &node) const
    {
        return runtime->find_node_manager(node)->instance();
    }
    corv_rack *rack(const QUuid &id) const
    {
        return handles::to_handle(runtime->find_rack_manager(id));
    }

    // Posts {"id": id} into a rack through the SDK, as a plugin would.
    void post(const QUuid &rack_id, const char *id) const
    {
        corv_event *event = corv_event_create();
        corv_event_set(event, "id", id);
        corv_event_post(corv_rack_sink(rack(rack_id)), event);
        corv_event_destroy(event);
        sdk_test::settle();
    }
};

QVariantMap tag_properties(const QString &key, const QString &value)
{
    return {{QStringLiteral("!key"), key}, {QStringLiteral("!value"), value}};
}

} // namespace

class TstExamplePlugin : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QStandardPaths::setTestModeEnabled(true); }
    void init() { QTest::failOnWarning(QRegularExpression(QStringLiteral(".*"))); }

    // The plugin's texts start in the language the program speaks when it loads.
    void registers_its_types_data()
    {
        QTest::addColumn<QByteArray>("language");
        QTest::addColumn<QStringList>("texts"); // tag, category, repeat
        QTest::newRow("en-US") << QByteArray("en-US") << QStringList{"Tag", "Examples", "Repeat"};
        QTest::newRow("de-DE") << QByteArray("de-DE") << QStringList{"Markieren", "Beispiele", "Wiederholen"};
    }

    void registers_its_types()
    {
        QFETCH(QByteArray, language);
        QFETCH(QStringList, texts);
        corv::locale::set_application_dir(QStringLiteral(CORV_TEST_RUNTIME_DIR));
        QVERIFY(corv::locale::apply_language_preference(corv::locale::locale_list().index_of(language)));
        const auto back = qScopeGuard([] {
            corv::locale::apply_language_preference(corv::locale::default_language_position());
        });
        Fixture f;
        QCOMPARE(f.list.count(), 1);
        const NodeDefinition *definition = f.registry.find(tag);
        QVERIFY(definition);
        QCOMPARE(definition->name, texts[0]);
        QCOMPARE(definition->category, texts[1]);
        QCOMPARE(definition->icon.size(), QSize(16, 16));
        QCOMPARE(f.registry.find(repeat)->name, texts[2]);
        QVERIFY(f.registry.find_migration(retired_label));
        QCOMPARE(f.list.at(0)->icon().size(), QSize(16, 16));
    }

    void routes_events()
    {
        // Tag, Repeat(3) [Tag with an expression], and a retired Label that
        // migrates to a Tag.
        Fixture f;
        const QUuid rack = f.add_rack(QStringLiteral("Main"));
        f.add_node(rack, tag, tag_properties("source", "rack"));
        const QUuid repeater = f.add_node(rack, repeat, {{QStringLiteral("!count"), 3}});
        f.add_node(repeater, tag, tag_properties("inner", "run {repeat * 10}"));
        const QUuid label = f.add_node(
            rack, retired_label, {{QStringLiteral("io.marrowfield.example.label.text"), "hello"}});
        f.open();
        QCOMPARE(f.project.find_node(label)->impl_id(), tag);

        f.post(rack, "1");
        QCOMPARE(f.returned.size(), 3);
        for (int i = 0; i < 3; ++i) {
            const EventScope &event = f.returned[i];
            QCOMPARE(event.data().keys(),
                     (QList<QByteArray>{"id", "source", "repeat", "inner", "label"}));
            QCOMPARE(event.value("repeat"), QByteArray::number(i + 1));
            QCOMPARE(event.value("source"), QByteArray("rack"));
            QCOMPARE(event.value("inner"), "run " + QByteArray::number((i + 1) * 10));
            QCOMPARE(event.value("label"), QByteArray("hello"));
        }

        // A disabled rack runs nothing.
        f.returned.clear();
        f.project.find_rack(rack)->set_enabled(false);
        f.post(rack, "2");
        QVERIFY(f.returned.isEmpty());
    }

    void names_and_decorations()
    {
        Fixture f;
        const QUuid rack = f.add_rack(QStringLiteral("Main"));
        const QUuid tagger = f.add_node(rack, tag, tag_properties("source", "rack"));
        const QUuid repeater = f.add_node(rack, repeat, {{QStringLiteral("!count"), 3}});
        f.open();

        NodeInstance *tag_instance = f.instance(tagger);
        NodeInstance *repeat_instance = f.instance(repeater);
        QCOMPARE(tag_instance->instance_name(), QStringLiteral("Set source to \"rack\""));
        QCOMPARE(repeat_instance->instance_name(), QStringLiteral("Repeat 3 times"));
        QCOMPARE(tag_instance->decoration_mask(), quint32(2 | 4));
        QCOMPARE(repeat_instance->decoration_mask(), quint32(2 | 8 | 32));

        // The plugin re-reads its name when asked; a count of 1 is singular.
        QSignalSpy renamed(repeat_instance, &NodeInstance::instance_name_changed);
        f.runtime->find_node_manager(repeater)->store().set(QStringLiteral("!count"),
                                                           model::Value::integer(1));
        corv_node_invalidate_name(handles::to_handle(repeat_instance));
        QCOMPARE(renamed.count(), 1);
        QCOMPARE(repeat_instance->instance_name(), QStringLiteral("Repeat once"));

        // The plugin's own German locale file follows the language preference,
        // and so does the way back.
        corv::locale::set_application_dir(QStringLiteral(CORV_TEST_RUNTIME_DIR));
        const corv::locale::LocaleList &locales = corv::locale::locale_list();
        QTest::ignoreMessage(QtInfoMsg, "io.marrowfield.example locale: Loaded 6 strings for de-DE");
        QVERIFY(f.list.apply_language_preference(locales.index_of("de-DE")));
        corv_node_invalidate_name(handles::to_handle(tag_instance));
        corv_node_invalidate_name(handles::to_handle(repeat_instance));
        QCOMPARE(tag_instance->instance_name(), QStringLiteral("source auf „rack“ setzen"));
        QCOMPARE(repeat_instance->instance_name(), QStringLiteral("Einmal wiederholen"));
        QVERIFY(f.list.apply_language_preference(locales.index_of("en-US")));
        corv_node_invalidate_name(handles::to_handle(repeat_instance));
        QCOMPARE(repeat_instance->instance_name(), QStringLiteral("Repeat once"));
    }

    void node_and_rack_functions()
    {
        Fixture f;
        const QUuid rack = f.add_rack(QStringLiteral("Main"));
        const QUuid tagger = f.add_node(rack, tag, tag_properties("source", "rack"));
        f.open();

        corv_rack *handle = f.rack(rack);
        QCOMPARE(corv_rack_name(handle), "Main");
        f.project.find_rack(rack)->set_name(QStringLiteral("Renamed"));
        QCOMPARE(corv_rack_name(handle), "Renamed");

        NodeInstance *instance = f.instance(tagger);
        corv_node *node = handles::to_handle(instance);
        QCOMPARE(corv_node_parent_sink(node), handles::to_handle(instance->parent_sink()));
        QCOMPARE(corv_node_child_sink(node), handles::to_handle(instance->child_sink()));
        QSignalSpy rebuild(instance, &NodeInstance::properties_need_update);
        corv_node_invalidate_properties(node);
        QCOMPARE(rebuild.count(), 1);

        // An event posted to the node's parent sink moves on past it.
        corv_event *event = corv_event_create();
        corv_event_post(corv_node_parent_sink(node), event);
        corv_event_destroy(event);
        sdk_test::settle();
        QCOMPARE(f.returned.size(), 1);
        QVERIFY(!f.returned[0].find("source"));
    }
};

QTEST_GUILESS_MAIN(TstExamplePlugin)
#include "tst_example_plugin.moc"
