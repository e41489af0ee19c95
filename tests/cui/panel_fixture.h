#pragma once

// The test panel (test_panel.c) on a property surface over a preferences-like
// collection with its own command manager, and one scenario of user edits
// that the widget test drives through real widgets and the headless test
// through the fields' own edit methods. Both must see the same values, the
// same rebuilds and the same undo history.

#include "cui/fields.h"
#include "cui/generate_context.h"
#include "cui/property_surface.h"
#include "cui/store_editor.h"
#include "cui/surface.h"
#include "model/property.h"
#include "persistence/command_manager.h"
#include "test_panel.h"

#include <QTest>

#include <memory>

struct PanelFixture
{
    explicit PanelFixture(const QString &prefix = QStringLiteral("test."))
        : surface(std::make_unique<corv::cui::PropertySurface>(
            &panel, corv::model::StoreView(&collection, prefix),
            corv::cui::StoreEditor::for_collection(&commands)))
    {
        QObject::connect(surface.get(), &corv::engine::PropertySurface::build,
                         [this](corv::cui::GenerateContext &context) {
                             test_panel_build(&panel, reinterpret_cast<cui_generate_context *>(&context));
                         });
    }

    corv::cui::Surface &cui() const { return *surface->surface(); }
    template <typename T>
    T *field(const QString &id) const
    {
        return cui().element_as<T>(id);
    }
    corv::model::Value stored(const QString &key) const
    {
        const corv::model::Property *p = collection.find(key);
        return p ? p->value() : corv::model::Value();
    }
    // Lets a pending rebuild happen.
    bool settle() const
    {
        return QTest::qWaitFor([this] { return surface->pending() == 0; }, 2000);
    }

    corv::model::PropertyCollection collection;
    corv::engine::PropertyCollectionCommandManager commands{&collection};
    test_panel panel{};
    std::unique_ptr<corv::cui::PropertySurface> surface;
};

// One way of making the scenario's edits.
class PanelDriver
{
public:
    virtual ~PanelDriver() = default;
    // Focus into "!name", type text (one typing run), focus out.
    virtual void type_name(const QString &text) = 0;
    // One drag of the "!level" slider through the given values.
    virtual void drag_level(const QList<int> &values) = 0;
    // Choose the row of "mode" below the current one.
    virtual void next_mode() = 0;
    virtual void click_reset() = 0;
    virtual void toggle_extra() = 0;
    // Hold Control, add Shift, then press K; focus out.
    virtual void enter_hotkey() = 0;
};

// The scenario; QCOMPARE failures return early, so callers check
// QTest::currentTestFailed() afterwards.
inline void run_panel_scenario(PanelFixture &f, PanelDriver &driver)
{
    using corv::model::Value;
    test_panel &p = f.panel;

    // From the defaults (the model test checks them).
    QCOMPARE(p.builds, 1);

    // A typing run is one rebuild and one undo step.
    driver.type_name(QStringLiteral("Alpha"));
    QVERIFY(f.settle());
    QCOMPARE(QByteArray(p.name), QByteArray("Alpha"));
    QCOMPARE(p.builds, 2);
    QCOMPARE(f.commands.history_size(), std::size_t(1));
    QVERIFY(!p.name_editing);

    // One drag is one undo step; undo restores the value from before it.
    driver.drag_level({30, 60});
    QVERIFY(f.settle());
    QCOMPARE(p.level, 60);
    QCOMPARE(p.builds, 3);
    QCOMPARE(f.commands.history_size(), std::size_t(2));
    f.commands.undo();
    QVERIFY(f.settle());
    QCOMPARE(p.level, 5);
    QCOMPARE(p.builds, 4);
    f.commands.redo();
    QVERIFY(f.settle());
    QCOMPARE(p.level, 60);
    QCOMPARE(p.builds, 5);

    driver.next_mode();
    QVERIFY(f.settle());
    QCOMPARE(p.mode, 30);
    QCOMPARE(f.stored(QStringLiteral("test.mode")), Value::integer(30));
    QCOMPARE(p.builds, 6);
    QCOMPARE(f.commands.history_size(), std::size_t(3));

    // The button's build sees it; the next one does not.
    driver.click_reset();
    QVERIFY(f.settle());
    QCOMPARE(p.builds, 7);
    QVERIFY(p.reset);
    QCOMPARE(p.resets, 1);
    f.surface->invalidate(corv::cui::Deferred);
    QVERIFY(f.settle());
    QCOMPARE(p.builds, 8);
    QVERIFY(!p.reset);
    QCOMPARE(f.commands.history_size(), std::size_t(3));

    // The extra field comes and goes with the check box.
    driver.toggle_extra();
    QVERIFY(f.settle());
    QCOMPARE(p.builds, 9);
    QVERIFY(p.extra_declared);
    QCOMPARE(p.extra, 7);
    QVERIFY(f.field<corv::cui::IntField>(QStringLiteral("!extra")));
    driver.toggle_extra();
    QVERIFY(f.settle());
    QCOMPARE(p.builds, 10);
    QVERIFY(!p.extra_declared);
    QVERIFY(!f.cui().element(QStringLiteral("!extra")));
    QCOMPARE(f.stored(QStringLiteral("!extra")), Value::integer(7));
    QCOMPARE(f.commands.history_size(), std::size_t(5));

    // Each key press rebuilds at once; the run is one undo step.
    driver.enter_hotkey();
    QCOMPARE(p.builds, 13);
    QCOMPARE(QByteArray(p.hotkey), QByteArray("Ctrl+Shift+K"));
    QCOMPARE(f.surface->pending(), 0);
    QCOMPARE(f.commands.history_size(), std::size_t(6));
    f.commands.undo();
    QVERIFY(f.settle());
    QCOMPARE(QByteArray(p.hotkey), QByteArray(""));
}
