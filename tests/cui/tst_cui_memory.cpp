// What a property surface with five fields costs on the heap: the store
// alone, the surface without widgets, and the surface shown in a view. The
// figures are printed; the checks only keep the headless model lean and make
// sure that dropping the views gives their memory back.

#include "cui/property_surface.h"
#include "cui/store_editor.h"
#include "cui/surface.h"
#include "model/property.h"
#include "sdk/include/corvane/corvane_cui.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QRegularExpression>
#include <QTest>
#include <QWidget>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include <memory>
#include <vector>

using namespace corv;

namespace {

constexpr int kSurfaces = 1000;

std::size_t heap_in_use()
{
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
#if defined(__GLIBC__)
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
#else
    return 0;
#endif
}

void five_fields(void *, cui_generate_context *c)
{
    static const char *const modes[] = {"Off", "Slow", "Fast"};
    cui_text(c, "!name", "Name", "unnamed");
    cui_int(c, "!count", "Count", 3, 0, 100);
    cui_float(c, "!delay", "Delay", 0.5, 0.0, 60.0);
    cui_checkbox(c, "!enabled", "Enabled", true);
    cui_select(c, "mode", "Mode", modes, nullptr, 3, 1);
}

struct Panel
{
    Panel()
    {
        // The store as the fields leave it, so the surface adds only itself.
        for (const char *key : {"!name", "!count", "!delay", "!enabled", "t.mode"}) {
            collection.append_key(QString::fromLatin1(key));
            collection.find_or_create(QString::fromLatin1(key));
        }
        collection.find(QStringLiteral("!name"))->set(model::Value::string("unnamed"));
        collection.find(QStringLiteral("!count"))->set(model::Value::integer(3));
        collection.find(QStringLiteral("!delay"))->set(model::Value::floating(0.5));
        collection.find(QStringLiteral("!enabled"))->set(model::Value::boolean(true));
        collection.find(QStringLiteral("t.mode"))->set(model::Value::integer(1));
    }
    void make_surface()
    {
        surface = std::make_unique<cui::PropertySurface>(nullptr, model::StoreView(&collection, QStringLiteral("t.")),
                                                         cui::StoreEditor());
        QObject::connect(surface.get(), &engine::PropertySurface::build, [](cui::GenerateContext &context) {
            five_fields(nullptr, reinterpret_cast<cui_generate_context *>(&context));
        });
        surface->rebuild();
    }

    model::PropertyCollection collection;
    std::unique_ptr<cui::PropertySurface> surface;
};

} // namespace

class TstCuiMemory : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        QTest::failOnWarning(QRegularExpression(QStringLiteral("^(?!This plugin does not support propagateSizeHints\\(\\)$)")));
    }

    void surface_with_five_fields()
    {
#if !defined(__GLIBC__)
        QSKIP("Heap figures come from glibc's mallinfo2");
#elif defined(__SANITIZE_ADDRESS__)
        QSKIP("Heap figures come from glibc's mallinfo2; AddressSanitizer's allocator replaces it");
#endif
        // Warm up fonts, styles and Qt's caches with one panel shown once.
        {
            Panel warm;
            warm.make_surface();
            QWidget host;
            warm.surface->surface()->create_view(&host);
        }

        const std::size_t start = heap_in_use();
        std::vector<std::unique_ptr<Panel>> panels;
        panels.reserve(kSurfaces);
        for (int i = 0; i < kSurfaces; ++i)
            panels.push_back(std::make_unique<Panel>());
        const std::size_t stores = heap_in_use();

        QElapsedTimer clock;
        clock.start();
        for (auto &panel : panels)
            panel->make_surface();
        const qint64 build_ns = clock.nsecsElapsed();
        const std::size_t headless = heap_in_use();

        clock.restart();
        for (auto &panel : panels)
            panel->surface->rebuild();
        const qint64 rebuild_ns = clock.nsecsElapsed();
        // Rebuilding reuses every element: no growth beyond a few bytes per surface.
        const std::size_t rebuilt = heap_in_use();
        QVERIFY(rebuilt < headless + 16 * kSurfaces);

        QWidget host;
        clock.restart();
        for (auto &panel : panels)
            panel->surface->surface()->create_view(&host);
        const qint64 view_ns = clock.nsecsElapsed();
        const std::size_t shown = heap_in_use();

        for (auto &panel : panels)
            delete panel->surface->surface()->view();
        const std::size_t dropped = heap_in_use();

        // A second round of views ends where the first did: what stays after
        // the first is Qt's own high-water marks (its widget set, event
        // queues), not the surfaces'.
        for (auto &panel : panels)
            panel->surface->surface()->create_view(&host);
        for (auto &panel : panels)
            delete panel->surface->surface()->view();
        const std::size_t dropped_again = heap_in_use();

        const double per_store = double(stores - start) / kSurfaces;
        const double per_surface = double(headless - stores) / kSurfaces;
        const double per_view = double(shown - headless) / kSurfaces;
        qInfo("Store with five values: %.0f bytes", per_store);
        qInfo("Surface with five fields, no widgets: %.0f bytes; first build %.1f us, rebuild %.1f us",
              per_surface, build_ns / 1000.0 / kSurfaces, rebuild_ns / 1000.0 / kSurfaces);
        qInfo("Its widgets in a view: %.0f bytes more (%.0f bytes in all); view made in %.1f us",
              per_view, per_surface + per_view, view_ns / 1000.0 / kSurfaces);
        qInfo("After the views are gone: %.0f bytes per surface; after a second round: %.0f",
              (double(dropped) - double(stores)) / kSurfaces,
              (double(dropped_again) - double(stores)) / kSurfaces);

        QVERIFY(per_surface < 8 * 1024);
        QVERIFY(per_view > per_surface);
        // The widgets' memory comes back when the view goes.
        QVERIFY(double(dropped) < double(headless) + 0.05 * double(shown - headless));
        QVERIFY(double(dropped_again) < double(dropped) + 0.01 * double(shown - headless));
    }
};

QTEST_MAIN(TstCuiMemory)
#include "tst_cui_memory.moc"
