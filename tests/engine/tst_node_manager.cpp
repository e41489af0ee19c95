// Instance lifecycles under the project runtime: creation order, load and
// unload, re-creation on a type change, migration on open, removal, the
// refreshes of name and decoration, and the property-surface hook.

#include "engine/handles.h"
#include "engine/node_instance.h"
#include "engine/node_manager.h"
#include "engine/property_surface.h"
#include "engine/rack_manager.h"
#include "test_nodes.h"

#include <QSignalSpy>

using namespace corv;
using namespace corv::engine;
using namespace test_nodes;

namespace {

// Stands in for the declarative UI's panel: records what the engine asks.
class RecordingSurface : public PropertySurface
{
public:
    QList<std::uint32_t> invalidations;
    QList<NodeInstance *> owners;
    void invalidate(std::uint32_t mode) override { invalidations << mode; }
    void refresh(NodeInstance *owner) override { owners << owner; }
};

void *seen_build_data = nullptr;
cui_generate_context *seen_build_context = nullptr;

// Maps the retired "test.old" to whatever "!target" says, or fails on "fail".
bool map_old(void *user_data, corv_store *store, char *out_id)
{
    ++*static_cast<int *>(user_data);
    const QByteArray target = handles::store(store)->get(QStringLiteral("!target")).to_string();
    qstrncpy(out_id, target.constData(), 256);
    return target != "fail";
}

} // namespace

class TstNodeManager : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { fail_on_warnings(); }

    // Rack by rack in profile order; within a rack the tree order reversed;
    // load right after each create. Nodes added later are created, not loaded.
    void creation_order()
    {
        Fixture f;
        const QUuid one = f.add_rack(QStringLiteral("One"));
        f.add_node(one, pass_type, QStringLiteral("A"));
        const QUuid b = f.add_node(one, runner_type, QStringLiteral("B"));
        f.add_node(b, pass_type, QStringLiteral("B1"));
        f.add_node(one, pass_type, QStringLiteral("C"));
        f.add_node(f.add_rack(QStringLiteral("Two")), pass_type, QStringLiteral("D"));
        f.open();
        QCOMPARE(lifecycle, (QStringList{"create C", "load C", "create B1", "load B1", "create B", "load B",
                                         "create A", "load A", "create D", "load D"}));
        lifecycle.clear();
        QSignalSpy added(f.runtime.get(), &ProjectRuntime::node_added);
        const QUuid e = f.add_node(one, pass_type, QStringLiteral("E"));
        QCOMPARE(lifecycle, QStringList{"create E"});
        QCOMPARE(added.size(), 1);
        QCOMPARE(added.at(0).at(0).toUuid(), e);
    }

    void type_change_recreates_data()
    {
        QTest::addColumn<bool>("loaded_at_open");
        QTest::addColumn<QString>("new_type");
        QTest::addColumn<QStringList>("expected");
        const QStringList again{"unload A", "destroy A", "create A", "load A"};
        QTest::newRow("opened node") << true << "test.runner" << again;
        QTest::newRow("node added while open") << false << "test.runner" << again;
        QTest::newRow("to an unknown type") << true << "test.gone" << QStringList{"unload A", "destroy A"};
    }

    // Unload, then destroy, then a new instance; the name signal follows.
    void type_change_recreates()
    {
        QFETCH(bool, loaded_at_open);
        QFETCH(QString, new_type);
        QFETCH(QStringList, expected);
        Fixture f;
        const QUuid rack = f.add_rack(QStringLiteral("R"));
        QUuid a = loaded_at_open ? f.add_node(rack, pass_type, QStringLiteral("A")) : QUuid();
        f.open();
        if (!loaded_at_open)
            a = f.add_node(rack, pass_type, QStringLiteral("A"));
        NodeManager *manager = f.runtime->find_node_manager(a);
        QSignalSpy name_changed(manager, &NodeManager::instance_name_changed);
        lifecycle.clear();
        const bool known = new_type != QLatin1String("test.gone");
        if (!known)
            QTest::ignoreMessage(QtWarningMsg, "Unknown node test.gone");
        f.project.find_node(a)->set_impl_id(new_type);
        QCOMPARE(lifecycle, expected);
        QCOMPARE(manager->instance() != nullptr, known);
        QCOMPARE(name_changed.size(), known ? 1 : 0);
        if (known) {
            QCOMPARE(manager->store().prefix(), new_type + u'.');
            QCOMPARE(manager->instance()->instance_name(), new_type);
        }
        // Back to a known type from an unknown one: nothing to unload.
        lifecycle.clear();
        f.project.find_node(a)->set_impl_id(QString::fromLatin1(pass_type));
        QCOMPARE(lifecycle.first(), known ? QStringLiteral("unload A") : QStringLiteral("create A"));
        QVERIFY(manager->instance());
    }

    // A node that no rack reaches has a manager but no instance until a rack
    // takes it in; then it is created and loaded like the others were.
    void unreached_nodes_wait_for_a_rack()
    {
        Fixture f;
        const QUuid rack = f.add_rack(QStringLiteral("R"));
        f.add_node(rack, pass_type, QStringLiteral("A"));
        const QUuid loose = f.add_node(rack, pass_type, QStringLiteral("L"));
        f.list_of(rack)->remove(1);
        f.open();
        QCOMPARE(lifecycle, (QStringList{"create A", "load A"}));
        NodeManager *manager = f.runtime->find_node_manager(loose);
        QVERIFY(manager);
        QVERIFY(!manager->instance());
        lifecycle.clear();
        f.list_of(rack)->insert(1, loose);
        QCOMPARE(lifecycle, (QStringList{"create L", "load L"}));
        QVERIFY(manager->instance());
    }

    // Removal and close destroy without unload; a removal is announced while
    // the manager can still be found.
    void removal_and_close()
    {
        Fixture f;
        const QUuid rack = f.add_rack(QStringLiteral("R"));
        const QUuid a = f.add_node(rack, pass_type, QStringLiteral("A"));
        f.add_node(rack, pass_type, QStringLiteral("B"));
        f.open();
        bool findable = false;
        connect(f.runtime.get(), &ProjectRuntime::node_removed, this,
                [&](const QUuid &id) { findable = f.runtime->find_node_manager(id) != nullptr; });
        lifecycle.clear();
        f.list_of(rack)->remove(0);
        std::unique_ptr<model::Node> taken = f.project.take_node(a);
        QCOMPARE(lifecycle, QStringList{"destroy A"});
        QVERIFY(findable);
        lifecycle.clear();
        f.runtime.reset();
        QCOMPARE(lifecycle, QStringList{"destroy B"});
    }

    // The migration's own type change starts no second round; a failed one
    // leaves the node without an instance (the registry test has every line).
    void migration_on_open_data()
    {
        QTest::addColumn<QString>("target");
        QTest::addColumn<QString>("impl_id_after");
        QTest::addColumn<QStringList>("lifecycle_after");
        QTest::newRow("success") << "test.pass" << "test.pass" << QStringList{"create A", "load A"};
        QTest::newRow("mapper fails") << "fail" << "test.old" << QStringList{};
    }

    void migration_on_open()
    {
        QFETCH(QString, target);
        QFETCH(QString, impl_id_after);
        QFETCH(QStringList, lifecycle_after);
        Fixture f;
        int mapper_calls = 0;
        NodeRegistration registration(f.registry, f.plugin);
        corv_node_migration migration{"test.old", &mapper_calls, map_old};
        registration.register_migration(&migration);
        registration.commit();
        const QUuid a = f.add_node(f.add_rack(QStringLiteral("R")), "test.old", QStringLiteral("A"));
        model::StoreView(&f.project.find_node(a)->properties(), QString())
            .set(QStringLiteral("!target"), model::Value::string(target.toUtf8()));
        if (target == QLatin1String("fail"))
            QTest::ignoreMessage(QtWarningMsg, "  Migration failed: mapper did not succeed");
        f.open();
        QCOMPARE(mapper_calls, 1);
        QCOMPARE(f.project.find_node(a)->impl_id(), impl_id_after);
        QCOMPARE(lifecycle, lifecycle_after);
        NodeManager *manager = f.runtime->find_node_manager(a);
        QVERIFY(!manager->is_migrating());
        QCOMPARE(manager->instance() != nullptr, !lifecycle_after.isEmpty());
    }

    void instance_name_and_decoration_data()
    {
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<int>("decoration");
        QTest::addColumn<int>("name_signals");
        QTest::addColumn<int>("decoration_signals");
        QTest::addColumn<quint32>("mask");
        QTest::newRow("unchanged") << QByteArray("test.named") << 0 << 0 << 0 << 0u;
        QTest::newRow("bit 4 is not read") << QByteArray("test.named") << 16 << 0 << 0 << 0u;
        QTest::newRow("all read bits") << QByteArray("x") << 0xff << 1 << 1 << 47u;
        QTest::newRow("255 bytes") << QByteArray(255, 'n') << 8 << 1 << 1 << 8u;
        QTest::newRow("empty name") << QByteArray() << 0 << 1 << 0 << 0u;
    }

    // Refreshes signal only real changes, on the instance and its manager.
    void instance_name_and_decoration()
    {
        QFETCH(QByteArray, name);
        QFETCH(int, decoration);
        QFETCH(int, name_signals);
        QFETCH(int, decoration_signals);
        QFETCH(quint32, mask);
        Fixture f;
        const QUuid a = f.add_node(f.add_rack(QStringLiteral("R")), named_type, QStringLiteral("A"));
        model::StoreView store(&f.project.find_node(a)->properties(), QString());
        store.set(QStringLiteral("!name"), model::Value::string("test.named"));
        f.open();
        NodeInstance *instance = f.runtime->find_node_manager(a)->instance();
        QCOMPARE(instance->instance_name(), QStringLiteral("test.named"));
        QSignalSpy name_spy(instance, &NodeInstance::instance_name_changed);
        QSignalSpy decoration_spy(instance, &NodeInstance::decoration_changed);
        QSignalSpy manager_name(f.runtime->find_node_manager(a), &NodeManager::instance_name_changed);
        store.set(QStringLiteral("!name"), model::Value::string(name));
        store.set(QStringLiteral("!decoration"), model::Value::integer(decoration));
        instance->refresh_instance_name();
        instance->refresh_decoration();
        instance->refresh_decoration();
        QCOMPARE(name_spy.size(), name_signals);
        QCOMPARE(manager_name.size(), name_signals);
        QCOMPARE(decoration_spy.size(), decoration_signals);
        QCOMPARE(instance->instance_name(), QString::fromUtf8(name));
        QCOMPARE(instance->decoration_mask(), mask);

        // While suppressed, a type change does not announce the new name.
        NodeManager *manager = f.runtime->find_node_manager(a);
        manager->set_instance_name_signal_suppressed(true);
        f.project.find_node(a)->set_impl_id(QString::fromLatin1(runner_type));
        manager->set_instance_name_signal_suppressed(false);
        QCOMPARE(manager_name.size(), name_signals);
        f.project.find_node(a)->set_impl_id(QString::fromLatin1(pass_type));
        QCOMPARE(manager_name.size(), name_signals + 1);
    }

    void property_surface_hook()
    {
        Fixture f;
        QHash<QUuid, RecordingSurface *> surfaces;
        f.runtime = std::make_unique<ProjectRuntime>(f.project, f.registry);
        f.runtime->set_surface_factory([&](NodeManager &manager) {
            return surfaces[manager.id()] = new RecordingSurface;
        });
        NodeRegistration registration(f.registry, f.plugin);
        corv_node_type type{};
        type.id = "test.built";
        type.create = [](corv_node *node) -> void * { return node; };
        type.build = [](void *data, cui_generate_context *context) {
            seen_build_data = data;
            seen_build_context = context;
        };
        registration.register_node(&type);
        registration.commit();
        const QUuid a = f.add_node(f.add_rack(QStringLiteral("R")), "test.built", QStringLiteral("A"));
        f.runtime->open();
        RecordingSurface *surface = surfaces.value(a);
        NodeManager *manager = f.runtime->find_node_manager(a);
        QVERIFY(surface);
        QCOMPARE(manager->surface(), surface);
        QCOMPARE(surface->owners, QList<NodeInstance *>{manager->instance()});
        // A build request runs the type's build with the instance data.
        auto *context = reinterpret_cast<cui::GenerateContext *>(&surface->owners);
        Q_EMIT surface->build(*context);
        QCOMPARE(seen_build_data, static_cast<void *>(manager->instance()));
        QCOMPARE(static_cast<void *>(seen_build_context), static_cast<void *>(context));
        manager->instance()->invalidate_properties();
        QCOMPARE(surface->invalidations, QList<std::uint32_t>{PropertySurface::Deferred});
        // After a change to an unknown type the surface has no owner and
        // builds reach no callback.
        QTest::ignoreMessage(QtWarningMsg, "Unknown node test.gone");
        f.project.find_node(a)->set_impl_id(QStringLiteral("test.gone"));
        QCOMPARE(surface->owners.last(), nullptr);
        seen_build_data = nullptr;
        Q_EMIT surface->build(*context);
        QCOMPARE(seen_build_data, nullptr);
    }

    // A type with a panel gets its surface when created; one without gets it
    // the first time it is asked for, wired to the instance, and only once.
    void property_surface_made_once_data()
    {
        QTest::addColumn<bool>("has_build");
        QTest::addColumn<bool>("factory_gives_one");
        QTest::newRow("type with a panel") << true << true;
        QTest::newRow("type without a panel") << false << true;
        QTest::newRow("factory without a surface") << false << false;
    }

    void property_surface_made_once()
    {
        QFETCH(bool, has_build);
        QFETCH(bool, factory_gives_one);
        Fixture f;
        int made = 0;
        RecordingSurface *surface = nullptr;
        f.runtime = std::make_unique<ProjectRuntime>(f.project, f.registry);
        f.runtime->set_surface_factory([&](NodeManager &) -> PropertySurface * {
            ++made;
            return factory_gives_one ? surface = new RecordingSurface : nullptr;
        });
        NodeRegistration registration(f.registry, f.plugin);
        corv_node_type type{};
        type.id = "test.panel";
        type.create = [](corv_node *node) -> void * { return node; };
        if (has_build)
            type.build = [](void *, cui_generate_context *) {};
        registration.register_node(&type);
        registration.commit();
        const QUuid a = f.add_node(f.add_rack(QStringLiteral("R")), "test.panel", QStringLiteral("A"));
        f.runtime->open();
        NodeManager *manager = f.runtime->find_node_manager(a);
        QCOMPARE(made, has_build ? 1 : 0);
        for (int ask = 0; ask < 2; ++ask) {
            PropertySurface *asked = manager->surface();
            QCOMPARE(asked, static_cast<PropertySurface *>(surface));
            QCOMPARE(made, 1);
        }
        if (surface)
            QCOMPARE(surface->owners, QList<NodeInstance *>{manager->instance()});
    }

    void rack_manager_follows_its_rack()
    {
        Fixture f;
        const QUuid rack = f.add_rack(QStringLiteral("Räck"));
        f.open();
        RackManager *manager = f.runtime->find_rack_manager(rack);
        QCOMPARE(manager->name_utf8(), QStringLiteral("Räck").toUtf8());
        f.project.find_rack(rack)->set_name(QStringLiteral("Other"));
        QCOMPARE(manager->name_utf8(), QByteArray("Other"));
        QVERIFY(manager->is_running());
        f.project.find_rack(rack)->set_enabled(false);
        QVERIFY(!manager->is_running());
        // A rack added while open gets its manager before the announcement.
        bool findable = false;
        connect(f.runtime.get(), &ProjectRuntime::rack_added, this,
                [&](const QUuid &id) { findable = f.runtime->find_rack_manager(id); });
        auto disabled = std::make_unique<model::Rack>();
        disabled->set_enabled(false);
        const QUuid added = QUuid::createUuid();
        f.project.add_rack(added, std::move(disabled));
        QVERIFY(findable);
        QVERIFY(!f.runtime->find_rack_manager(added)->is_running());
    }
};

QTEST_GUILESS_MAIN(TstNodeManager)
#include "tst_node_manager.moc"
