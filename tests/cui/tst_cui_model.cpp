// The field model without widgets, under a QCoreApplication: key resolution
// and value carry-over, anonymous ids, reuse by id and class, returned values,
// triggers, the three rebuild timings, undo runs, rack fields, and the
// property surfaces of a running project's nodes.

#include "cui/fields.h"
#include "cui/generate_context.h"
#include "cui/property_surface.h"
#include "cui/store_editor.h"
#include "cui/surface.h"
#include "engine/node_instance.h"
#include "engine/node_manager.h"
#include "engine/node_registry.h"
#include "engine/project_runtime.h"
#include "engine/rack_manager.h"
#include "model/project.h"
#include "panel_fixture.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QLoggingCategory>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>

#include <functional>

using namespace corv;
using corv::model::Value;

namespace {

using Build = std::function<void(cui_generate_context *)>;

// A surface whose build runs whatever the test sets.
struct Scratch
{
    explicit Scratch(const QString &prefix = QStringLiteral("a.b."))
        : surface(nullptr, model::StoreView(&collection, prefix), cui::StoreEditor())
    {
        QObject::connect(&surface, &engine::PropertySurface::build, [this](cui::GenerateContext &context) {
            ++builds;
            if (build)
                build(reinterpret_cast<cui_generate_context *>(&context));
        });
    }
    cui::Surface &cui() { return *surface.surface(); }
    Value stored(const QString &key) const
    {
        const model::Property *p = collection.find(key);
        return p ? p->value() : Value();
    }
    void set(const QString &key, const Value &value)
    {
        collection.append_key(key);
        collection.find_or_create(key)->set(value);
    }

    model::PropertyCollection collection;
    cui::PropertySurface surface;
    Build build;
    int builds = 0;
};

// The model-only way of making the scenario's edits: the calls the widgets make.
class ModelDriver : public PanelDriver
{
public:
    explicit ModelDriver(PanelFixture &f) : f(f) {}

    void type_name(const QString &text) override
    {
        // The line edit writes once, when editing is over.
        auto *field = f.field<cui::TextField>(QStringLiteral("!name"));
        field->set_editing(true);
        field->write(Value::string(text.toUtf8()));
        field->set_editing(false);
    }
    void drag_level(const QList<int> &values) override
    {
        auto *field = f.field<cui::SliderField>(QStringLiteral("!level"));
        for (int value : values)
            field->write(Value::integer(value));
        field->end_run();
    }
    void next_mode() override
    {
        auto *field = f.field<cui::SelectField>(QStringLiteral("test.mode"));
        field->choose_row(field->current_row() + 1);
    }
    void click_reset() override
    {
        for (const QString &id : f.cui().declared_ids()) {
            if (auto *button = f.cui().element_as<cui::ButtonField>(id)) {
                button->press();
                button->click();
            }
        }
    }
    void toggle_extra() override
    {
        auto *field = f.field<cui::CheckboxField>(QStringLiteral("!extra_on"));
        field->write(Value::boolean(!field->checked()));
    }
    void enter_hotkey() override
    {
        auto *field = f.field<cui::HotkeyField>(QStringLiteral("!hotkey"));
        field->set_editing(true);
        for (const char *text : {"Ctrl+", "Ctrl+Shift+", "Ctrl+Shift+K"}) {
            // Each refresh rebuilds at once; the element stays the same.
            QCOMPARE(f.field<cui::HotkeyField>(QStringLiteral("!hotkey")), field);
            field->write(Value::string(text));
        }
        field->set_editing(false);
    }

private:
    PanelFixture &f;
};

struct NodeTypeState
{
    test_panel panel{};
    int creates = 0;
};
NodeTypeState node_state;

void *panel_create(corv_node *)
{
    ++node_state.creates;
    return &node_state.panel;
}

corv_rack *seen_rack = nullptr;
uint32_t rack_triggers = 0;
void rack_build(void *, cui_generate_context *context)
{
    seen_rack = cui_select_rack(context, "!rack", "Rack");
    if (rack_triggers)
        cui_set_invalidate_mode(context, rack_triggers);
}

void register_panel_type(engine::NodeRegistry &registry, const engine::PluginIdentity &plugin)
{
    engine::NodeRegistration registration(registry, plugin);
    corv_node_type type{};
    type.id = "test.panel";
    type.name = "Panel";
    type.create = panel_create;
    type.build = test_panel_build;
    registration.register_node(&type);
    registration.commit();
}

} // namespace

class TstCuiModel : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QLoggingCategory::setFilterRules(QStringLiteral("corv.engine.info=false"));
    }
    void init() { QTest::failOnWarning(QRegularExpression(QStringLiteral(".*"))); }

    void builds_from_defaults()
    {
        PanelFixture f;
        f.surface->rebuild();
        QCOMPARE(f.panel.builds, 1);
        QCOMPARE(QByteArray(f.panel.name), QByteArray("unnamed"));
        QCOMPARE(f.panel.level, 5);
        QCOMPARE(f.panel.mode, 20);
        QCOMPARE(f.panel.ratio, 0.5);
        QCOMPARE(QByteArray(f.panel.hotkey), QByteArray(""));
        QVERIFY(!f.panel.extra_on);
        // Entries are created in declaration order; keyless elements store nothing.
        const QStringList keys{"!name", "!level", "test.mode", "!extra_on", "!ratio", "!hotkey", "!path"};
        QCOMPARE(f.collection.keys(), keys);
        QCOMPARE(f.stored(QStringLiteral("!level")), Value::integer(5));
        QCOMPARE(f.stored(QStringLiteral("!ratio")), Value::floating(0.5));
        // Creating entries is no user edit.
        QCOMPARE(f.commands.history_size(), std::size_t(0));
        QVERIFY(!f.cui().view());
    }

    void key_resolution_data()
    {
        QTest::addColumn<QString>("prefix");
        QTest::addColumn<QString>("key");
        QTest::addColumn<QStringList>("preset"); // key, value, key, value...
        QTest::addColumn<QString>("id");
        QTest::addColumn<QByteArray>("value");

        QTest::newRow("plain key is prefixed") << "a.b." << "x" << QStringList() << "a.b.x" << QByteArray("def");
        QTest::newRow("absolute key keeps its !") << "a.b." << "!x" << QStringList() << "!x" << QByteArray("def");
        QTest::newRow("plain key takes the absolute value")
            << "a.b." << "x" << QStringList{"!x", "abs"} << "a.b.x" << QByteArray("abs");
        QTest::newRow("absolute key takes the prefixed value")
            << "a.b." << "!x" << QStringList{"a.b.x", "pre"} << "!x" << QByteArray("pre");
        QTest::newRow("an existing entry wins")
            << "a.b." << "x" << QStringList{"a.b.x", "own", "!x", "abs"} << "a.b.x" << QByteArray("own");
        QTest::newRow("no prefix") << "" << "x" << QStringList() << "x" << QByteArray("def");
        QTest::newRow("empty key is the bare prefix") << "a." << "" << QStringList() << "a." << QByteArray("def");
        QTest::newRow("another type's key is not carried")
            << "a.b." << "x" << QStringList{"c.x", "other"} << "a.b.x" << QByteArray("def");
    }

    void key_resolution()
    {
        QFETCH(QString, prefix);
        QFETCH(QString, key);
        QFETCH(QStringList, preset);
        QFETCH(QString, id);
        QFETCH(QByteArray, value);

        Scratch s(prefix);
        for (qsizetype i = 0; i + 1 < preset.size(); i += 2)
            s.set(preset.at(i), Value::string(preset.at(i + 1).toUtf8()));
        const QByteArray local = key.toUtf8();
        QByteArray returned;
        s.build = [&](cui_generate_context *c) { returned = cui_text(c, local.constData(), "", "def"); };
        s.surface.rebuild();
        QCOMPARE(s.cui().declared_ids(), QStringList{id});
        QVERIFY(s.cui().element_as<cui::TextField>(id));
        QCOMPARE(returned, value);
        QCOMPARE(s.stored(id), Value::string(value));
    }

    // Two surfaces over one store both follow its changes; a field outlives
    // the store entry it was bound to.
    void surfaces_sharing_a_store()
    {
        auto collection = std::make_unique<model::PropertyCollection>();
        const model::StoreView store(collection.get(), QStringLiteral("a.b."));
        std::vector<std::unique_ptr<cui::PropertySurface>> surfaces;
        QList<int> seen{0, 0};
        for (int i = 0; i < 2; ++i) {
            surfaces.push_back(std::make_unique<cui::PropertySurface>(nullptr, store, cui::StoreEditor()));
            QObject::connect(surfaces.back().get(), &engine::PropertySurface::build,
                             [&seen, i](cui::GenerateContext &c) {
                                 seen[i] = cui_int(reinterpret_cast<cui_generate_context *>(&c), "!x", "", 1, 0, 9);
                             });
            surfaces.back()->rebuild();
        }
        QCOMPARE(seen, (QList<int>{1, 1}));
        collection->find(QStringLiteral("!x"))->set(Value::integer(7));
        QTRY_COMPARE(seen, (QList<int>{7, 7}));
        collection.reset();
        for (const auto &surface : surfaces)
            QVERIFY(!surface->surface()->field(QStringLiteral("!x"))->is_bound());
    }

    void anonymous_ids_survive_rebuilds()
    {
        Scratch s;
        int labels = 3;
        s.build = [&](cui_generate_context *c) {
            for (int i = 0; i < labels; ++i)
                cui_label(c, "", QByteArray::number(i).constData());
        };
        s.surface.rebuild();
        const QStringList first = s.cui().declared_ids();
        QCOMPARE(first.size(), 3);
        QCOMPARE(s.cui().anonymous_ids().size(), 3);
        for (const QString &id : first) {
            QVERIFY(id.startsWith(QLatin1String("a.b.anonymous.")));
            QVERIFY(!QUuid::fromString(id.mid(14)).isNull());
        }
        const cui::Element *third = s.cui().element(first.at(2));

        s.surface.rebuild();
        QCOMPARE(s.cui().declared_ids(), first);
        QCOMPARE(s.cui().element(first.at(2)), third);

        // The list is cut to what a build used; a later third label is new.
        labels = 2;
        s.surface.rebuild();
        QCOMPARE(s.cui().anonymous_ids().size(), 2);
        QCOMPARE(s.cui().element_count(), 2);
        QVERIFY(!s.cui().element(first.at(2)));
        labels = 3;
        s.surface.rebuild();
        QCOMPARE(s.cui().declared_ids().mid(0, 2), first.mid(0, 2));
        QVERIFY(s.cui().declared_ids().at(2) != first.at(2));
    }

    // An id declared again is the same element, even twice in one build
    // (the first default wins); another class under it replaces it.
    void reuse_by_id_and_class()
    {
        Scratch s;
        bool as_int = false;
        qint32 number = -1;
        QByteArray first, second;
        s.build = [&](cui_generate_context *c) {
            if (as_int) {
                number = cui_int(c, "!k", "", 3, 0, 10);
                return;
            }
            first = cui_text(c, "!k", "", "text");
            second = cui_text(c, "!k", "", "two");
        };
        s.surface.rebuild();
        QCOMPARE(s.cui().declared_ids(), (QStringList{"!k", "!k"}));
        QCOMPARE(first + second, QByteArray("texttext"));
        QCOMPARE(s.cui().element_count(), 1);
        cui::Element *text = s.cui().element(QStringLiteral("!k"));
        QVERIFY(dynamic_cast<cui::TextField *>(text));
        s.surface.rebuild();
        QCOMPARE(s.cui().element(QStringLiteral("!k")), text);

        as_int = true;
        s.surface.rebuild();
        QVERIFY(s.cui().element_as<cui::IntField>(QStringLiteral("!k")));
        QCOMPARE(s.cui().element_count(), 1);
        QCOMPARE(number, 0);
        QCOMPARE(s.stored(QStringLiteral("!k")), Value::string("text"));
    }

    void wrong_types_read_as_zero_data()
    {
        QTest::addColumn<int>("kind");
        QTest::addColumn<Value>("stored");
        QTest::newRow("int from string") << 0 << Value::string("12");
        QTest::newRow("int from float") << 0 << Value::floating(12.0);
        QTest::newRow("float from int") << 1 << Value::integer(12);
        QTest::newRow("slider from bool") << 2 << Value::boolean(true);
        QTest::newRow("radio from string") << 3 << Value::string("1");
        QTest::newRow("colour from vec3") << 4 << Value::vec3({1, 2, 3});
        QTest::newRow("text from int") << 5 << Value::integer(4);
        QTest::newRow("check box from int") << 6 << Value::integer(1);
    }

    void wrong_types_read_as_zero()
    {
        QFETCH(int, kind);
        QFETCH(Value, stored);
        Scratch s{QString()};
        s.set(QStringLiteral("k"), stored);
        double result = -1;
        s.build = [&](cui_generate_context *c) {
            static const char *const items[] = {"a", "b"};
            switch (kind) {
            case 0: result = cui_int(c, "k", "", 5, 0, 100); break;
            case 1: result = cui_float(c, "k", "", 5, 0, 100); break;
            case 2: result = cui_slider(c, "k", "", 5, 0, 100, 1); break;
            case 3: result = cui_radio_group(c, "k", "", items, 2, 1); break;
            case 4: {
                const cui_color_value color = cui_color(c, "k", "", 0.5, 0.5, 0.5);
                result = color.r + color.g + color.b;
                break;
            }
            case 5: result = QByteArray(cui_text(c, "k", "", "x")).size(); break;
            case 6: result = cui_checkbox(c, "k", "", true); break;
            }
        };
        s.surface.rebuild();
        QCOMPARE(result, 0.0);
        QCOMPARE(s.stored(QStringLiteral("k")), stored);
    }

    // Calls without a field, a container or a context do nothing.
    void misuse_is_harmless()
    {
        QCOMPARE(cui_int(nullptr, "k", "", 5, 0, 9), 0);
        QCOMPARE(QByteArray(cui_text(nullptr, "k", "", "d")), QByteArray());
        QVERIFY(!cui_select_rack(nullptr, "k", ""));
        QVERIFY(!cui_button(nullptr, "", "b"));
        cui_end_group(nullptr);

        Scratch s;
        bool did = true, editing = true;
        s.build = [&](cui_generate_context *c) {
            cui_start_group(c, "Empty so far");
            cui_set_invalidate_mode(c, 0);
            cui_set_enabled(c, false);
            did = cui_did_invalidate(c);
            editing = cui_is_editing(c);
            cui_end_group(c);
            cui_end_group(c); // one too many: nothing to close
        };
        s.surface.rebuild();
        QVERIFY(!did);
        QVERIFY(!editing);
        QCOMPARE(s.cui().element_count(), 1);
    }

    void empty_build_destroys_everything()
    {
        PanelFixture f;
        f.surface->rebuild();
        QVERIFY(f.cui().element_count() > 5);
        QObject::disconnect(f.surface.get(), &engine::PropertySurface::build, nullptr, nullptr);
        f.surface->rebuild();
        QCOMPARE(f.cui().element_count(), 0);
        QVERIFY(f.cui().declared_ids().isEmpty());
        QVERIFY(f.cui().anonymous_ids().isEmpty());
        // The store keeps its entries.
        QCOMPARE(f.stored(QStringLiteral("!name")), Value::string("unnamed"));
    }

    void rebuild_timings_data()
    {
        // Requests as (wait before it in ms, mode); when the rebuild they cause
        // comes (timers may fire 5% early) and how many there are.
        QTest::addColumn<QList<int>>("requests");
        QTest::addColumn<int>("earliest");
        QTest::addColumn<int>("latest");
        QTest::addColumn<int>("builds");

        QTest::newRow("deferred: next loop turn") << QList<int>{0, cui::Deferred} << 0 << 100 << 1;
        QTest::newRow("debounced: after 500 ms") << QList<int>{0, cui::Debounced} << 460 << 800 << 1;
        QTest::newRow("debounced requests coalesce on the first")
            << QList<int>{0, cui::Debounced, 200, cui::Debounced, 200, cui::Debounced} << 460 << 800 << 1;
        QTest::newRow("deferred brings a debounced one forward")
            << QList<int>{0, cui::Debounced, 100, cui::Deferred} << 100 << 300 << 1;
        QTest::newRow("debounced leaves a deferred one")
            << QList<int>{0, cui::Deferred, 0, cui::Debounced} << 0 << 100 << 1;
        QTest::newRow("immediate: at once") << QList<int>{0, cui::Immediate} << 0 << 0 << 1;
        QTest::newRow("unknown mode: nothing") << QList<int>{0, 3} << 0 << 0 << 0;
    }

    void rebuild_timings()
    {
        QFETCH(QList<int>, requests);
        QFETCH(int, earliest);
        QFETCH(int, latest);
        QFETCH(int, builds);

        Scratch s;
        QElapsedTimer clock;
        qint64 first_build = -1;
        s.build = [&](cui_generate_context *) {
            if (first_build < 0)
                first_build = clock.elapsed();
        };
        clock.start();
        for (qsizetype i = 0; i + 1 < requests.size(); i += 2) {
            if (requests.at(i) > 0)
                QTest::qWait(requests.at(i));
            s.surface.invalidate(std::uint32_t(requests.at(i + 1)));
        }
        QTest::qWait(800);
        QCOMPARE(s.builds, builds);
        QCOMPARE(s.surface.pending(), 0);
        if (builds) {
            QVERIFY2(first_build >= earliest && first_build <= latest,
                     qPrintable(QStringLiteral("rebuilt after %1 ms").arg(first_build)));
        }
    }

    void fields_invalidate_once_armed()
    {
        PanelFixture f;
        f.surface->rebuild();
        auto *name = f.field<cui::TextField>(QStringLiteral("!name"));
        QVERIFY(name->is_armed());
        QCOMPARE(name->triggers(), cui::kDefaultTriggers | cui::TriggerEditingStarted | cui::TriggerEditingFinished);

        // A change from outside (a plugin, an undo) invalidates too.
        f.collection.find(QStringLiteral("!name"))->set(Value::string("outside"));
        QCOMPARE(f.surface->pending(), 1);
        QVERIFY(name->did_invalidate());
        QVERIFY(f.settle());
        QVERIFY(f.panel.name_invalidated);
        QCOMPARE(QByteArray(f.panel.name), QByteArray("outside"));
        QVERIFY(!name->did_invalidate());

        // Triggers set in a build hold until the next one.
        f.panel.debounce_name = cui::TriggerEditingFinished;
        f.surface->rebuild();
        QCOMPARE(name->triggers(), std::uint32_t(cui::TriggerEditingFinished));
        name->write(Value::string("quiet"));
        QCOMPARE(f.surface->pending(), 0);
        f.panel.debounce_name = 0;
        f.surface->rebuild();
        name->write(Value::string("loud"));
        QCOMPARE(f.surface->pending(), 1);
        QVERIFY(f.settle());

        // Pressing is not a default trigger; clicking is.
        const int builds = f.panel.builds;
        cui::ButtonField *button = nullptr;
        for (const QString &id : f.cui().declared_ids())
            button = button ? button : f.cui().element_as<cui::ButtonField>(id);
        QVERIFY(button);
        button->press();
        QCOMPARE(f.surface->pending(), 0);
        button->click();
        QVERIFY(f.settle());
        QCOMPARE(f.panel.builds, builds + 1);
        QVERIFY(f.panel.reset);
    }

    void editing_flag_and_triggers()
    {
        PanelFixture f;
        f.surface->rebuild();
        auto *name = f.field<cui::TextField>(QStringLiteral("!name"));
        name->set_editing(true);
        QCOMPARE(f.surface->pending(), 1);
        QVERIFY(f.settle());
        QVERIFY(f.panel.name_editing);
        name->set_editing(false);
        QVERIFY(f.settle());
        QVERIFY(!f.panel.name_editing);
        // Only cui_is_editing adds the editing triggers.
        auto *level = f.field<cui::SliderField>(QStringLiteral("!level"));
        level->set_editing(true);
        QCOMPARE(f.surface->pending(), 0);
    }

    // The writes of one run are one undo step in the fields whose edits come
    // in runs, one step each in the others; a write of its own ends the run
    // and never joins the step before it.
    void undo_merges_runs_data()
    {
        QTest::addColumn<QString>("id");
        QTest::addColumn<QList<Value>>("values"); // each unlike the one before
        QTest::addColumn<bool>("merges");
        QTest::newRow("file path") << "!path" << QList<Value>{Value::string("a"), Value::string("ab"), Value::string("abc")} << true;
        QTest::newRow("slider") << "!level" << QList<Value>{Value::integer(1), Value::integer(2), Value::integer(3)} << true;
        QTest::newRow("float") << "!ratio" << QList<Value>{Value::floating(1.5), Value::floating(2.5), Value::floating(3.5)} << true;
        QTest::newRow("hotkey") << "!hotkey" << QList<Value>{Value::string("Ctrl+A"), Value::string("Ctrl+B"), Value::string("Ctrl+C")} << true;
        QTest::newRow("select") << "test.mode" << QList<Value>{Value::integer(10), Value::integer(30), Value::integer(20)} << false;
        QTest::newRow("checkbox") << "!extra_on" << QList<Value>{Value::boolean(true), Value::boolean(false), Value::boolean(true)} << false;
        QTest::newRow("line text") << "!name" << QList<Value>{Value::string("x"), Value::string("y"), Value::string("z")} << false;
    }

    void undo_merges_runs()
    {
        QFETCH(QString, id);
        QFETCH(QList<Value>, values);
        QFETCH(bool, merges);
        PanelFixture f;
        f.surface->rebuild();
        // An earlier edit of another field: a run never joins it.
        f.field<cui::SelectField>(QStringLiteral("test.mode"))->choose_row(id == "test.mode" ? 1 : 2);
        f.field<cui::Field>(id == "!level" ? QStringLiteral("!ratio") : QStringLiteral("!level"))
            ->write(Value::integer(9));
        cui::Field *field = f.field<cui::Field>(id);
        QVERIFY(field);
        const Value original = f.stored(id);
        const std::size_t before = f.commands.history_size();
        field->write(values.at(0));
        field->write(values.at(1));
        QCOMPARE(field->is_merging(), merges);
        QCOMPARE(f.commands.history_size(), before + (merges ? 1 : 2));
        field->write_once(values.at(2));
        QVERIFY(!field->is_merging());
        field->write(values.at(1)); // a new run
        QCOMPARE(f.commands.history_size(), before + (merges ? 3 : 4));
        QCOMPARE(f.stored(id), values.at(1));
        f.commands.undo();
        QCOMPARE(f.stored(id), values.at(2));
        f.commands.undo();
        QCOMPARE(f.stored(id), values.at(1));
        f.commands.undo();
        QCOMPARE(f.stored(id), merges ? original : values.at(0));
    }

    void file_choice_is_its_own_step()
    {
        PanelFixture f;
        f.surface->rebuild();
        auto *path = f.field<cui::FilePickerField>(QStringLiteral("!path"));
        QCOMPARE(path->mode(), cui::FilePickerField::Mode::OpenFile);
        QCOMPARE(path->filter(), QStringLiteral("Text (*.txt)"));
        path->write(Value::string("/tm"));
        path->write(Value::string("/tmp"));
        path->choose(QString()); // cancelled
        QCOMPARE(f.stored(QStringLiteral("!path")), Value::string("/tmp"));
        path->choose(QStringLiteral("/tmp/a.txt"));
        QCOMPARE(f.commands.history_size(), std::size_t(2));
        f.commands.undo();
        QCOMPARE(f.stored(QStringLiteral("!path")), Value::string("/tmp"));
    }

    void select_normalises_the_stored_value_data()
    {
        QTest::addColumn<Value>("stored");
        QTest::addColumn<int>("count");
        QTest::addColumn<int>("returned");
        QTest::addColumn<int>("row");
        QTest::newRow("an item's value") << Value::integer(30) << 3 << 30 << 2;
        QTest::newRow("no item's value: the first") << Value::integer(99) << 3 << 10 << 0;
        QTest::newRow("not an int: the first") << Value::string("30") << 3 << 10 << 0;
        QTest::newRow("no items: nothing current") << Value::integer(99) << 0 << 99 << -1;
    }

    void select_normalises_the_stored_value()
    {
        QFETCH(Value, stored);
        QFETCH(int, count);
        QFETCH(int, returned);
        QFETCH(int, row);
        Scratch s{QString()};
        s.set(QStringLiteral("mode"), stored);
        int result = -1;
        s.build = [&](cui_generate_context *c) {
            static const char *const labels[] = {"Off", "Slow", "Fast"};
            static const int32_t values[] = {10, 20, 30};
            result = cui_select(c, "mode", "", labels, values, uint32_t(count), 20);
        };
        s.surface.rebuild();
        QCOMPARE(result, returned);
        QCOMPARE(s.cui().element_as<cui::SelectField>(QStringLiteral("mode"))->current_row(), row);
        QCOMPARE(s.surface.pending(), 0);
    }

    void list_items_default_to_indexes()
    {
        Scratch s{QString()};
        int result = -1;
        s.build = [&](cui_generate_context *c) {
            static const char *const labels[] = {"a", "b", "c"};
            result = cui_list(c, "pick", "", labels, nullptr, 3, 2);
        };
        s.surface.rebuild();
        QCOMPARE(result, 2);
        auto *list = s.cui().element_as<cui::ListField>(QStringLiteral("pick"));
        QCOMPARE(list->items().at(1), (cui::Item{QStringLiteral("b"), 1}));
        list->choose_row(0);
        QCOMPARE(s.stored(QStringLiteral("pick")), Value::integer(0));
        for (int row : {3, -1}) { // no such row: nothing changes
            list->choose_row(row);
            QCOMPARE(list->current_row(), 0);
        }
        QCOMPARE(s.stored(QStringLiteral("pick")), Value::integer(0));
    }

    void select_rack()
    {
        engine::NodeRegistry registry;
        model::Project project;
        QUuid ids[2];
        for (int i = 0; i < 2; ++i) {
            ids[i] = QUuid::createUuid();
            auto rack = std::make_unique<model::Rack>();
            rack->set_name(QStringLiteral("Rack %1").arg(i));
            project.add_rack(ids[i], std::move(rack));
            project.profile()->insert(std::size_t(i), ids[i]);
        }
        engine::ProjectRuntime runtime(project, registry);
        runtime.open();

        Scratch s{QString()};
        s.cui().set_rack_source(&runtime);
        s.build = [](cui_generate_context *c) { rack_build(nullptr, c); };
        seen_rack = reinterpret_cast<corv_rack *>(1);
        s.surface.rebuild();
        QVERIFY(!seen_rack);
        auto *field = s.cui().element_as<cui::SelectRackField>(QStringLiteral("!rack"));
        QVERIFY(field);
        QCOMPARE(s.stored(QStringLiteral("!rack")), Value::rack(QUuid()));
        cui::SelectRackField::Model *rows = field->model();
        QCOMPARE(rows->rowCount(), 3);
        QCOMPARE(rows->data(rows->index(0)).toString(), QStringLiteral("(none)"));
        QCOMPARE(rows->data(rows->index(2)).toString(), QStringLiteral("Rack 1"));
        QVERIFY(!rows->data(rows->index(1), Qt::EditRole).isValid());

        // Row 0 clears a chosen rack; rows past the end change nothing.
        const auto choose = [&](int row) {
            field->choose_row(row);
            QVERIFY(QTest::qWaitFor([&] { return s.surface.pending() == 0; }));
        };
        choose(2);
        QCOMPARE(s.stored(QStringLiteral("!rack")), Value::rack(ids[1]));
        QCOMPARE(seen_rack, reinterpret_cast<corv_rack *>(runtime.find_rack_manager(ids[1])));
        choose(0);
        QCOMPARE(s.stored(QStringLiteral("!rack")), Value::rack(QUuid()));
        QVERIFY(!seen_rack);
        QCOMPARE(field->current_row(), 0);
        choose(2);
        choose(3);
        QCOMPARE(s.stored(QStringLiteral("!rack")), Value::rack(ids[1]));
        QCOMPARE(field->current_row(), 2);

        // The selected-rack trigger is not in the default set.
        QSignalSpy changed(rows, &QAbstractItemModel::dataChanged);
        project.find_rack(ids[1])->set_name(QStringLiteral("Renamed"));
        QCOMPARE(changed.size(), 1);
        QCOMPARE(s.surface.pending(), 0);
        rack_triggers = CUI_TRIGGERS_DEFAULT | CUI_TRIGGER_SELECTED_RACK;
        s.surface.rebuild();

        // Renaming the chosen rack changes it; renaming another does not.
        project.find_rack(ids[0])->set_name(QStringLiteral("Other"));
        QCOMPARE(changed.size(), 2);
        QCOMPARE(s.surface.pending(), 0);
        project.find_rack(ids[1])->set_name(QStringLiteral("Chosen"));
        QCOMPARE(s.surface.pending(), 1);
        QVERIFY(QTest::qWaitFor([&] { return s.surface.pending() == 0; }));

        // Moving racks keeps the choice. Removing the chosen one rebuilds at
        // once, before its rack manager is deleted, so no stale handle is
        // left with the node even for a single turn.
        project.profile()->move(1, 0);
        QCOMPARE(field->current_row(), 1);
        QCOMPARE(s.surface.pending(), 0);
        project.profile()->remove(0);
        QVERIFY(!seen_rack);
        QCOMPARE(s.surface.pending(), 0);
        std::unique_ptr<model::Rack> gone = project.take_rack(ids[1]);
        QCOMPARE(rows->rowCount(), 2);
        QCOMPARE(field->current_row(), 0);
        QCOMPARE(s.stored(QStringLiteral("!rack")), Value::rack(ids[1]));

        // Without a rack source there is only the no-rack row.
        Scratch bare{QString()};
        bare.build = [](cui_generate_context *c) { rack_build(nullptr, c); };
        bare.surface.rebuild();
        QCOMPARE(bare.cui().element_as<cui::SelectRackField>(QStringLiteral("!rack"))->model()->rowCount(), 1);
        rack_triggers = 0;
    }

    void panel_scenario_without_widgets()
    {
        PanelFixture f;
        f.surface->rebuild();
        ModelDriver driver(f);
        run_panel_scenario(f, driver);
    }

    void node_surfaces_in_a_running_project()
    {
        node_state = NodeTypeState();
        engine::PluginIdentity plugin{QStringLiteral("tests"), QStringLiteral("Tests"), {}};
        engine::NodeRegistry registry;
        register_panel_type(registry, plugin);
        model::Project project;
        const QUuid rack_id = QUuid::createUuid();
        const QUuid node_id = QUuid::createUuid();
        project.add_rack(rack_id, std::make_unique<model::Rack>());
        project.profile()->insert(0, rack_id);
        auto node = std::make_unique<model::Node>();
        node->set_impl_id(QStringLiteral("test.panel"));
        project.add_node(node_id, std::move(node));
        project.find_rack(rack_id)->top_level()->insert(0, node_id);

        engine::CommandManager commands;
        engine::ProjectRuntime runtime(project, registry);
        cui::install_node_surfaces(runtime, &commands);
        runtime.open();

        // The build ran when the instance was made, under the type's prefix.
        QCOMPARE(node_state.creates, 1);
        QCOMPARE(node_state.panel.builds, 1);
        engine::NodeManager *manager = runtime.find_node_manager(node_id);
        auto *surface = qobject_cast<cui::PropertySurface *>(manager->surface());
        QVERIFY(surface);
        QCOMPARE(surface->owner(), manager->instance());
        QCOMPARE(surface->prefix(), QStringLiteral("test.panel."));
        model::PropertyCollection &properties = project.find_node(node_id)->properties();
        QCOMPARE(properties.find(QStringLiteral("test.panel.mode"))->value(), Value::integer(20));

        // corv_node_invalidate_properties: a rebuild at the next loop turn.
        manager->instance()->invalidate_properties();
        QCOMPARE(node_state.panel.builds, 1);
        QVERIFY(QTest::qWaitFor([&] { return node_state.panel.builds == 2; }, 1000));

        // Edits are the project's undoable commands.
        auto *level = surface->surface()->element_as<cui::SliderField>(QStringLiteral("!level"));
        level->write(Value::integer(40));
        level->write(Value::integer(41));
        level->end_run();
        QCOMPARE(commands.history_size(), std::size_t(1));
        QVERIFY(QTest::qWaitFor([&] { return node_state.panel.level == 41; }, 1000));
        commands.undo();
        QVERIFY(QTest::qWaitFor([&] { return node_state.panel.level == 5; }, 1000));

        // A node added later gets a panel as well.
        const QUuid second = QUuid::createUuid();
        auto added = std::make_unique<model::Node>();
        added->set_impl_id(QStringLiteral("test.panel"));
        project.add_node(second, std::move(added));
        project.find_rack(rack_id)->top_level()->insert(1, second);
        QVERIFY(qobject_cast<cui::PropertySurface *>(runtime.find_node_manager(second)->surface()));
        QCOMPARE(node_state.panel.builds, 5);
    }

    void default_factory_serves_every_runtime()
    {
        engine::CommandManager commands;
        int asked = 0;
        cui::install_default_node_surfaces([&](engine::ProjectRuntime &) {
            ++asked;
            return &commands;
        });
        engine::PluginIdentity plugin{QStringLiteral("tests"), QStringLiteral("Tests"), {}};
        engine::NodeRegistry registry;
        register_panel_type(registry, plugin);
        model::Project project;
        const QUuid node_id = QUuid::createUuid();
        auto node = std::make_unique<model::Node>();
        node->set_impl_id(QStringLiteral("test.panel"));
        project.add_node(node_id, std::move(node));
        {
            engine::ProjectRuntime runtime(project, registry);
            runtime.open();
            QVERIFY(qobject_cast<cui::PropertySurface *>(runtime.find_node_manager(node_id)->surface()));
            QCOMPARE(asked, 1);
        }
        engine::ProjectRuntime::set_default_surface_factory({});
        engine::ProjectRuntime plain(project, registry);
        plain.open();
        QVERIFY(!plain.find_node_manager(node_id)->surface());
    }
};

QTEST_GUILESS_MAIN(TstCuiModel)
#include "tst_cui_model.moc"
