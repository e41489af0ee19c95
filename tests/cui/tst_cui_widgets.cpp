// The test panel under real widgets (offscreen platform): typing, dragging,
// choosing, clicking and key presses go through the widgets and end in the
// store as undoable edits; the view is made and dropped over a surface that
// keeps its state; dialogs are answered by hooks or closed by a timer.

#include "cui/dialogs.h"
#include "cui/fields.h"
#include "cui/hotkey_line_edit.h"
#include "cui/property_surface.h"
#include "cui/searchable_combo_box.h"
#include "cui/surface.h"
#include "panel_fixture.h"

#include <QAbstractItemView>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QCompleter>
#include <QDoubleSpinBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLineEdit>
#include <QListView>
#include <QMenu>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QSlider>
#include <QSpinBox>
#include <QStyle>
#include <QStyleOptionSlider>
#include <QTest>
#include <QTimer>
#include <QVBoxLayout>

#include <functional>

using namespace corv;
using corv::model::Value;

namespace {

// A window showing a surface.
struct Window
{
    explicit Window(cui::Surface &surface)
    {
        auto *layout = new QVBoxLayout(&window);
        view = surface.create_view(&window);
        layout->addWidget(view);
        other = new QLineEdit(&window); // somewhere for focus to go
        layout->addWidget(other);
        window.resize(420, 700);
        window.show();
    }
    QWidget window;
    QWidget *view = nullptr;
    QLineEdit *other = nullptr;
};

template <typename W>
W *widget_of(const cui::Surface &surface, const QString &id)
{
    cui::Element *element = surface.element(id);
    return element ? qobject_cast<W *>(element->widget()) : nullptr;
}

// Sends one key event, with exactly these modifiers (QTest::keyPress would
// first press the modifier keys themselves).
void press_key(QWidget *widget, Qt::Key key, Qt::KeyboardModifiers modifiers)
{
    QKeyEvent event(QEvent::KeyPress, key, modifiers);
    QApplication::sendEvent(widget, &event);
}

class WidgetDriver : public PanelDriver
{
public:
    WidgetDriver(PanelFixture &f, Window &w) : f(f), w(w) {}

    void type_name(const QString &text) override
    {
        auto *edit = widget_of<QLineEdit>(f.cui(), QStringLiteral("!name"));
        QVERIFY(edit);
        edit->setFocus();
        QVERIFY(edit->hasFocus());
        edit->selectAll();
        QTest::keyClicks(edit, text);
        w.other->setFocus();
    }
    void drag_level(const QList<int> &values) override
    {
        // The slider's own drag: down, moved by the handle, released.
        auto *slider = widget_of<QSlider>(f.cui(), QStringLiteral("!level"));
        QVERIFY(slider);
        slider->setSliderDown(true);
        for (int value : values)
            slider->setSliderPosition(value);
        slider->setSliderDown(false);
    }
    void next_mode() override
    {
        auto *box = widget_of<QComboBox>(f.cui(), QStringLiteral("test.mode"));
        QVERIFY(box);
        box->setFocus();
        QTest::keyClick(box, Qt::Key_Down);
        w.other->setFocus();
    }
    void click_reset() override
    {
        QPushButton *reset = nullptr;
        for (QPushButton *button : w.view->findChildren<QPushButton *>())
            reset = button->text() == QLatin1String("Reset") ? button : reset;
        QVERIFY(reset);
        QTest::mouseClick(reset, Qt::LeftButton);
    }
    void toggle_extra() override
    {
        auto *box = widget_of<QCheckBox>(f.cui(), QStringLiteral("!extra_on"));
        QVERIFY(box);
        QTest::keyClick(box, Qt::Key_Space);
    }
    void enter_hotkey() override
    {
        auto *edit = widget_of<cui::HotkeyFieldLineEdit>(f.cui(), QStringLiteral("!hotkey"));
        QVERIFY(edit);
        edit->setFocus();
        press_key(edit, Qt::Key_Control, Qt::ControlModifier);
        press_key(edit, Qt::Key_Shift, Qt::ControlModifier | Qt::ShiftModifier);
        // The same editor stays while the surface rebuilds under it.
        QCOMPARE(widget_of<cui::HotkeyFieldLineEdit>(f.cui(), QStringLiteral("!hotkey")), edit);
        press_key(edit, Qt::Key_K, Qt::ControlModifier | Qt::ShiftModifier);
        w.other->setFocus();
    }

private:
    PanelFixture &f;
    Window &w;
};

// Two pickers and a colour on a surface of their own.
struct PickerPanel
{
    PickerPanel() : surface(nullptr, model::StoreView(&collection, QString()), cui::StoreEditor::for_collection(&commands))
    {
        QObject::connect(&surface, &engine::PropertySurface::build, [this](cui::GenerateContext &context) {
            auto *c = reinterpret_cast<cui_generate_context *>(&context);
            open = cui_open_file(c, "!open", "Open", "Text (*.txt)", "/start/open.txt");
            folder = cui_open_folder(c, "!folder", "Folder", "/start");
            save = cui_save_file(c, "!save", "Save", "Any (*)", "");
            color = cui_color(c, "!color", "Colour", 0.25, 0.5, 0.75);
        });
        surface.rebuild();
    }
    QPushButton *browse_button(const QString &id) const
    {
        QWidget *row = surface.surface()->element(id)->widget();
        return row->findChild<QPushButton *>();
    }

    model::PropertyCollection collection;
    engine::PropertyCollectionCommandManager commands{&collection};
    cui::PropertySurface surface;
    QByteArray open, folder, save;
    cui_color_value color{};
};

} // namespace

class TstCuiWidgets : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        // The offscreen platform warns whenever a window's size limits change
        // or a popup raises itself and grabs the keyboard.
        QTest::failOnWarning(QRegularExpression(QStringLiteral(
            "^(?!This plugin does not support (propagateSizeHints\\(\\)|raise\\(\\)|grabbing the keyboard)$)")));
    }
    void cleanup() { cui::set_dialogs({}); }

    void panel_scenario_with_widgets()
    {
        PanelFixture f;
        f.surface->rebuild();
        Window w(f.cui());
        QVERIFY(QTest::qWaitForWindowActive(&w.window));
        WidgetDriver driver(f, w);

        run_panel_scenario(f, driver);
        if (QTest::currentTestFailed())
            return;
        // The widgets followed the store through undo.
        QCOMPARE(widget_of<QLineEdit>(f.cui(), QStringLiteral("!name"))->text(), QStringLiteral("Alpha"));
        QCOMPARE(widget_of<QSlider>(f.cui(), QStringLiteral("!level"))->value(), 60);
        QCOMPARE(widget_of<QComboBox>(f.cui(), QStringLiteral("test.mode"))->currentText(), QStringLiteral("Fast"));
        QCOMPARE(widget_of<QLineEdit>(f.cui(), QStringLiteral("!hotkey"))->text(), QString());

        // Typing writes nothing until Return; then one step, and leaving
        // the unchanged text adds none.
        auto *name = widget_of<QLineEdit>(f.cui(), QStringLiteral("!name"));
        name->setFocus();
        const std::size_t steps = f.commands.index();
        QTest::keyClicks(name, QStringLiteral("Beta"));
        QCOMPARE(f.commands.index(), steps);
        QTest::keyClick(name, Qt::Key_Return);
        QCOMPARE(f.commands.index(), steps + 1);
        QCOMPARE(f.stored(QStringLiteral("!name")), Value::string("AlphaBeta"));
        w.other->setFocus();
        QCOMPARE(f.commands.index(), steps + 1);
    }

    void layout_follows_declaration()
    {
        PanelFixture f;
        f.panel.extra_on = false;
        f.surface->rebuild();
        Window w(f.cui());
        auto *form = qobject_cast<QFormLayout *>(w.view->layout());
        QVERIFY(form);
        QCOMPARE(form->contentsMargins(), QMargins(0, 0, 0, 0));
        // label, name, level, mode, button, group, columns, hotkey, path
        QCOMPARE(form->rowCount(), 9);
        auto *name = widget_of<QLineEdit>(f.cui(), QStringLiteral("!name"));
        QCOMPARE(qobject_cast<QLabel *>(form->labelForField(name))->text(), QStringLiteral("Name"));
        auto *group = qobject_cast<QGroupBox *>(widget_of<QCheckBox>(f.cui(), QStringLiteral("!extra_on"))->parentWidget());
        QVERIFY(group);
        QCOMPARE(group->title(), QStringLiteral("Details"));
        QWidget *columns = widget_of<QDoubleSpinBox>(f.cui(), QStringLiteral("!ratio"))->parentWidget();
        QVERIFY(qobject_cast<QHBoxLayout *>(columns->layout()));
        QCOMPARE(columns->layout()->count(), 2);
        QCOMPARE(qobject_cast<QLabel *>(form->labelForField(columns))->text(), QStringLiteral("Ratio"));
        auto *label = qobject_cast<QLabel *>(form->itemAt(0, QFormLayout::SpanningRole)->widget());
        QVERIFY(label && label->wordWrap());
        QCOMPARE(label->text(), QStringLiteral("Settings of the test node"));

        // A field that appears inside the group takes its place there.
        f.field<cui::CheckboxField>(QStringLiteral("!extra_on"))->write(Value::boolean(true));
        QVERIFY(f.settle());
        auto *extra = widget_of<QSpinBox>(f.cui(), QStringLiteral("!extra"));
        QVERIFY(extra);
        QCOMPARE(extra->parentWidget(), group);
        QCOMPARE(extra->minimum(), 0);
        QCOMPARE(extra->maximum(), 10);
        QCOMPARE(extra->value(), 7);
        QCOMPARE(form->rowCount(), 9);

        // A label that goes and comes back beside the same field.
        QWidget *level = f.cui().element(QStringLiteral("!level"))->widget();
        QPointer<QLabel> level_label = qobject_cast<QLabel *>(form->labelForField(level));
        QVERIFY(level_label);
        f.panel.bare_level = true;
        f.surface->rebuild();
        QCOMPARE(f.cui().element(QStringLiteral("!level"))->widget(), level);
        QVERIFY(!form->labelForField(level));
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QVERIFY(!level_label);
        f.panel.bare_level = false;
        f.surface->rebuild();
        level_label = qobject_cast<QLabel *>(form->labelForField(level));
        QVERIFY(level_label);
        QCOMPARE(level_label->text(), QStringLiteral("Level"));
        QTRY_VERIFY(level_label->isVisibleTo(w.view)); // a layout shows what it takes on the next turn
    }

    void elements_that_disappear_are_destroyed()
    {
        PanelFixture f;
        f.collection.append_key(QStringLiteral("!extra_on"));
        f.collection.find_or_create(QStringLiteral("!extra_on"))->set(Value::boolean(true));
        f.surface->rebuild();
        Window w(f.cui());
        QPointer<QSpinBox> extra = widget_of<QSpinBox>(f.cui(), QStringLiteral("!extra"));
        QVERIFY(extra);
        QPointer<QLabel> extra_label = f.cui().element(QStringLiteral("!extra"))->label_widget();
        QVERIFY(extra_label);
        const qsizetype count = f.cui().element_count();

        f.field<cui::CheckboxField>(QStringLiteral("!extra_on"))->write(Value::boolean(false));
        QVERIFY(f.settle());
        QVERIFY(!f.cui().element(QStringLiteral("!extra")));
        QCOMPARE(f.cui().element_count(), count - 1);
        QVERIFY(!extra || !extra->isVisible());
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QVERIFY(!extra);
        QVERIFY(!extra_label);
    }

    void view_comes_and_goes()
    {
        PanelFixture f;
        f.surface->rebuild();
        // Edits before any view exists.
        f.field<cui::TextField>(QStringLiteral("!name"))->write(Value::string("headless"));
        f.field<cui::SliderField>(QStringLiteral("!level"))->write(Value::integer(42));
        QVERIFY(f.settle());
        QVERIFY(!f.cui().element(QStringLiteral("!name"))->widget());

        auto window = std::make_unique<Window>(f.cui());
        QCOMPARE(f.cui().view(), window->view);
        QCOMPARE(widget_of<QLineEdit>(f.cui(), QStringLiteral("!name"))->text(), QStringLiteral("headless"));
        auto *slider = widget_of<QSlider>(f.cui(), QStringLiteral("!level"));
        QCOMPARE(slider->value(), 42);
        QCOMPARE(slider->pageStep(), 30);
        QCOMPARE(slider->singleStep(), 3);
        QCOMPARE(slider->tickPosition(), QSlider::TicksBelow);
        QCOMPARE(widget_of<QComboBox>(f.cui(), QStringLiteral("test.mode"))->currentIndex(), 1);

        // Dropping the view drops every widget; the surface works on.
        QPointer<QWidget> name_edit = widget_of<QLineEdit>(f.cui(), QStringLiteral("!name"));
        window.reset();
        QVERIFY(!f.cui().view());
        for (const QString &id : f.cui().declared_ids())
            QVERIFY(!f.cui().element(id)->widget());
        QVERIFY(!name_edit);
        f.field<cui::TextField>(QStringLiteral("!name"))->write(Value::string("again"));
        QVERIFY(f.settle());
        QCOMPARE(QByteArray(f.panel.name), QByteArray("again"));

        // A new view shows the state as it is now.
        Window second(f.cui());
        QCOMPARE(widget_of<QLineEdit>(f.cui(), QStringLiteral("!name"))->text(), QStringLiteral("again"));
    }

    void slider_drag_with_the_mouse_is_one_step()
    {
        PanelFixture f;
        f.surface->rebuild();
        Window w(f.cui());
        QVERIFY(QTest::qWaitForWindowExposed(&w.window));
        auto *slider = widget_of<QSlider>(f.cui(), QStringLiteral("!level"));
        slider->setRange(0, 100); // the declared range, already set
        QStyleOptionSlider option;
        option.initFrom(slider);
        option.orientation = slider->orientation();
        option.minimum = slider->minimum();
        option.maximum = slider->maximum();
        option.sliderPosition = slider->sliderPosition();
        option.sliderValue = slider->value();
        const QRect handle = slider->style()->subControlRect(QStyle::CC_Slider, &option, QStyle::SC_SliderHandle, slider);

        for (int drag = 1; drag <= 2; ++drag) {
            const int before = f.panel.level;
            QPoint at = handle.center();
            if (drag == 2)
                at.setX(slider->width() * 3 / 4);
            // Press on the handle (the second drag presses where the first left it).
            if (drag == 2) {
                option.sliderPosition = slider->sliderPosition();
                at = slider->style()->subControlRect(QStyle::CC_Slider, &option, QStyle::SC_SliderHandle, slider).center();
            }
            QTest::mousePress(slider, Qt::LeftButton, {}, at);
            QVERIFY(slider->isSliderDown());
            for (int step = 1; step <= 4; ++step)
                QTest::mouseMove(slider, at + QPoint(step * slider->width() / 10, 0));
            QTest::mouseRelease(slider, Qt::LeftButton, {}, at + QPoint(4 * slider->width() / 10, 0));
            QVERIFY(!slider->isSliderDown());
            QVERIFY(f.settle());
            QVERIFY(f.panel.level > before);
            QCOMPARE(f.commands.history_size(), std::size_t(drag));
        }
        f.commands.undo();
        QVERIFY(f.settle());
        const int after_first = f.panel.level;
        f.commands.undo();
        QVERIFY(f.settle());
        QCOMPARE(f.panel.level, 5);
        QVERIFY(after_first > 5);
        QCOMPARE(slider->value(), 5);
    }

    void numeric_ranges()
    {
        PanelFixture f;
        f.surface->rebuild();
        Window w(f.cui());
        auto *ratio = widget_of<QDoubleSpinBox>(f.cui(), QStringLiteral("!ratio"));
        QCOMPARE(ratio->decimals(), 4);
        QCOMPARE(ratio->minimum(), 0.0);
        QVERIFY(qIsInf(ratio->maximum()));
        ratio->setValue(1e12);
        QCOMPARE(f.stored(QStringLiteral("!ratio")), Value::floating(1e12));
        ratio->setValue(-5);
        QCOMPARE(f.stored(QStringLiteral("!ratio")), Value::floating(0.0));

        // Moving only the low end reaches the boxes, with and without a view.
        model::PropertyCollection collection;
        cui::PropertySurface surface(nullptr, model::StoreView(&collection, QString()), cui::StoreEditor());
        int low = 0;
        QObject::connect(&surface, &engine::PropertySurface::build, [&](cui::GenerateContext &context) {
            auto *c = reinterpret_cast<cui_generate_context *>(&context);
            cui_int(c, "i", "", 5, low, 10);
            cui_float(c, "f", "", 5, low, 10);
            cui_slider(c, "s", "", 5, low, 10, 1);
        });
        surface.rebuild();
        low = 2;
        surface.rebuild();
        Window second(*surface.surface());
        for (int round = 0; round < 2; ++round) {
            QCOMPARE(widget_of<QSpinBox>(*surface.surface(), QStringLiteral("i"))->minimum(), low);
            QCOMPARE(widget_of<QDoubleSpinBox>(*surface.surface(), QStringLiteral("f"))->minimum(), double(low));
            QCOMPARE(widget_of<QSlider>(*surface.surface(), QStringLiteral("s"))->minimum(), low);
            low = 3;
            surface.rebuild();
        }
    }

    void select_filters_and_keeps_its_model()
    {
        PanelFixture f;
        f.surface->rebuild();
        Window w(f.cui());
        QVERIFY(QTest::qWaitForWindowActive(&w.window));
        auto *box = widget_of<cui::SearchableComboBox>(f.cui(), QStringLiteral("test.mode"));
        QVERIFY(box);
        QVERIFY(box->isEditable());
        QAbstractItemModel *items = box->model();
        QSignalSpy reset(items, &QAbstractItemModel::modelReset);
        QSignalSpy changed(items, &QAbstractItemModel::dataChanged);
        QSignalSpy inserted(items, &QAbstractItemModel::rowsInserted);
        f.surface->rebuild();
        QCOMPARE(box->model(), items);
        QCOMPARE(reset.size() + changed.size() + inserted.size(), 0);

        // Typing filters; picking from the filter makes the item current.
        box->setFocus();
        box->lineEdit()->selectAll();
        QTest::keyClicks(box->lineEdit(), QStringLiteral("fa"));
        QCOMPARE(box->completer()->completionCount(), 1);
        QCOMPARE(box->completer()->currentCompletion(), QStringLiteral("Fast"));
        QVERIFY(box->completer()->popup()->isVisible());
        Q_EMIT box->completer()->activated(QStringLiteral("Fast"));
        box->completer()->popup()->hide();
        QCOMPARE(f.stored(QStringLiteral("test.mode")), Value::integer(30));
        // Leaving with text that names nothing puts the item's text back.
        box->lineEdit()->setText(QStringLiteral("nothing"));
        w.other->setFocus();
        QCOMPARE(box->lineEdit()->text(), QStringLiteral("Fast"));
        QVERIFY(f.settle());
        QCOMPARE(f.panel.mode, 30);
    }

    void list_selection_survives_rebuilds()
    {
        model::PropertyCollection collection;
        cui::PropertySurface surface(nullptr, model::StoreView(&collection, QString()), cui::StoreEditor());
        QStringList labels{"a", "b", "c"};
        QList<int32_t> values{0, 1, 2};
        int chosen = -1;
        QObject::connect(&surface, &engine::PropertySurface::build, [&](cui::GenerateContext &context) {
            QList<QByteArray> utf8;
            QList<const char *> texts;
            for (const QString &label : labels)
                utf8.append(label.toUtf8());
            for (const QByteArray &text : utf8)
                texts.append(text.constData());
            chosen = cui_list(reinterpret_cast<cui_generate_context *>(&context), "pick", "Pick",
                              texts.constData(), values.constData(), uint32_t(texts.size()), 0);
        });
        surface.rebuild();
        Window w(*surface.surface());
        auto *view = widget_of<QListView>(*surface.surface(), QStringLiteral("pick"));
        QCOMPARE(view->sizePolicy().verticalPolicy(), QSizePolicy::Fixed);
        QCOMPARE(view->selectionMode(), QAbstractItemView::SingleSelection);
        view->setCurrentIndex(view->model()->index(2, 0));
        QCOMPARE(collection.find(QStringLiteral("pick"))->value(), Value::integer(2));
        QVERIFY(QTest::qWaitFor([&] { return surface.pending() == 0; }));
        QCOMPARE(chosen, 2);
        const QPersistentModelIndex current = view->currentIndex();

        // Same items: nothing moves. Another label in place: the row changes in place.
        surface.rebuild();
        QCOMPARE(view->currentIndex(), QModelIndex(current));
        labels[0] = QStringLiteral("A");
        QSignalSpy changed(view->model(), &QAbstractItemModel::dataChanged); // what repaints the row
        surface.rebuild();
        QCOMPARE(view->model()->index(0, 0).data().toString(), QStringLiteral("A"));
        QCOMPARE(changed.size(), 1);
        QCOMPARE(changed[0][0].toModelIndex().row(), 0);
        QCOMPARE(changed[0][1].toModelIndex().row(), 0);
        QVERIFY(current.isValid());
        QCOMPARE(view->currentIndex().row(), 2);
        // Reordered: the chosen value keeps its item, now in another row.
        labels = QStringList{"c", "b", "A"};
        values = {2, 1, 0};
        surface.rebuild();
        QCOMPARE(view->currentIndex().row(), 0);
        // Fewer items: the stored value is gone, the first item stands in.
        labels = QStringList{"x", "y"};
        values = {0, 1};
        surface.rebuild();
        QCOMPARE(view->model()->rowCount(), 2);
        QCOMPARE(chosen, 0);
        QCOMPARE(view->currentIndex().row(), 0);
    }

    void radio_group_follows_items()
    {
        model::PropertyCollection collection;
        cui::PropertySurface surface(nullptr, model::StoreView(&collection, QString()), cui::StoreEditor());
        QList<const char *> items{"one", "two", "three"};
        int checked = -1;
        QObject::connect(&surface, &engine::PropertySurface::build, [&](cui::GenerateContext &context) {
            checked = cui_radio_group(reinterpret_cast<cui_generate_context *>(&context), "r", "R",
                                      items.constData(), uint32_t(items.size()), 2);
        });
        surface.rebuild();
        Window w(*surface.surface());
        QWidget *box = surface.surface()->element(QStringLiteral("r"))->widget();
        QList<QRadioButton *> buttons = box->findChildren<QRadioButton *>();
        QCOMPARE(buttons.size(), 3);
        QVERIFY(buttons.at(2)->isChecked());
        QPointer<QRadioButton> kept = buttons.at(0);
        buttons.at(1)->click();
        QCOMPARE(collection.find(QStringLiteral("r"))->value(), Value::integer(1));

        items = {"uno", "two"};
        surface.rebuild();
        QCOMPARE(checked, 1);
        buttons = box->findChildren<QRadioButton *>();
        QCOMPARE(buttons.size(), 2);
        QCOMPARE(buttons.at(0), kept.data());
        QCOMPARE(kept->text(), QStringLiteral("uno"));
        QVERIFY(buttons.at(1)->isChecked());
    }

    void set_enabled_reaches_the_widget()
    {
        model::PropertyCollection collection;
        cui::PropertySurface surface(nullptr, model::StoreView(&collection, QString()), cui::StoreEditor());
        bool on = false;
        QObject::connect(&surface, &engine::PropertySurface::build, [&](cui::GenerateContext &context) {
            auto *c = reinterpret_cast<cui_generate_context *>(&context);
            on = cui_checkbox(c, "on", "On", false);
            cui_int(c, "minutes", "Minutes", 5, 1, 60);
            cui_set_enabled(c, on);
        });
        surface.rebuild();
        Window w(*surface.surface());
        auto *minutes = widget_of<QSpinBox>(*surface.surface(), QStringLiteral("minutes"));
        QVERIFY(!minutes->isEnabled());
        widget_of<QCheckBox>(*surface.surface(), QStringLiteral("on"))->click();
        QVERIFY(QTest::qWaitFor([&] { return surface.pending() == 0; }));
        QVERIFY(on);
        QVERIFY(minutes->isEnabled());
    }

    // Every kind of field's editor: whatever part of it has the focus, the
    // field is being edited, and no longer once the focus went elsewhere (a
    // panel that asks, cui_is_editing, is rebuilt at both ends); and it
    // lines up with the others in the field column.
    void field_editors()
    {
        model::PropertyCollection collection;
        cui::PropertySurface surface(nullptr, model::StoreView(&collection, QString()), cui::StoreEditor());
        const QStringList names{"button", "check", "radio", "list", "select", "rack", "text", "area",
                                "file", "slider", "int", "float", "colour", "hotkey"};
        QStringList editing;
        QObject::connect(&surface, &engine::PropertySurface::build, [&](cui::GenerateContext &context) {
            auto *c = reinterpret_cast<cui_generate_context *>(&context);
            const char *items[] = {"a", "b"};
            editing.clear();
            int i = 0;
            const auto watch = [&] {
                if (cui_is_editing(c))
                    editing.append(names[i]);
                ++i;
            };
            cui_button(c, "Action", "Press"), watch();
            cui_checkbox(c, "check", "Check", false), watch();
            cui_radio_group(c, "radio", "Radio", items, 2, 0), watch();
            cui_list(c, "list", "List", items, nullptr, 2, 0), watch();
            cui_select(c, "select", "Select", items, nullptr, 2, 0), watch();
            cui_select_rack(c, "rack", "Rack"), watch();
            cui_text(c, "text", "Text", ""), watch();
            cui_text_area(c, "area", "Area", ""), watch();
            cui_open_file(c, "file", "File", "", ""), watch();
            cui_slider(c, "slider", "Slider", 1, 0, 9, 1), watch();
            cui_int(c, "int", "Int", 1, 0, 9), watch();
            cui_float(c, "float", "Float", 1, 0, 9), watch();
            cui_color(c, "colour", "Colour", 0, 0, 0), watch();
            cui_hotkey(c, "hotkey", "Hotkey", ""), watch();
        });
        surface.rebuild();
        Window w(*surface.surface());
        QVERIFY(QTest::qWaitForWindowActive(&w.window));
        const auto span = [&](QWidget *widget) {
            const int left = widget->mapTo(w.view, QPoint()).x();
            return std::pair{left, left + widget->width()};
        };
        QWidget *text = surface.surface()->element(QStringLiteral("text"))->widget();
        QWidget *file = surface.surface()->element(QStringLiteral("file"))->widget();
        QCOMPARE(span(file->findChild<QLineEdit *>()).first, span(text).first);
        QCOMPARE(span(file).second, span(text).second);
        // Each number editor offers the declared 0..9, not its widget's own default.
        const auto *slider = static_cast<QSlider *>(surface.surface()->element(QStringLiteral("slider"))->widget());
        const auto *spin = static_cast<QSpinBox *>(surface.surface()->element(QStringLiteral("int"))->widget());
        QCOMPARE(std::tuple(slider->minimum(), slider->maximum(), spin->minimum(), spin->maximum()), std::tuple(0, 9, 0, 9));
        for (const QString &name : names) {
            // The part a click or a Tab would give the focus to.
            QWidget *editor = nullptr;
            if (name == QLatin1String("button")) {
                for (QPushButton *button : w.view->findChildren<QPushButton *>())
                    editor = button->text() == QLatin1String("Press") ? button : editor;
            } else {
                QWidget *root = surface.surface()->element(name)->widget();
                QList<QWidget *> parts{root};
                parts += root->findChildren<QWidget *>();
                for (QWidget *part : parts) {
                    if (!editor && part->focusPolicy() != Qt::NoFocus && !part->focusProxy())
                        editor = part;
                }
            }
            QVERIFY2(editor, qPrintable(name));
            editor->setFocus();
            QVERIFY2(editor->hasFocus(), qPrintable(name));
            QTRY_COMPARE(editing, QStringList{name});
            w.other->setFocus();
            QTRY_COMPARE(editing, QStringList());
        }
    }

    void hotkey_text_data()
    {
        QTest::addColumn<int>("key");
        QTest::addColumn<int>("modifiers");
        QTest::addColumn<QString>("text");
        QTest::newRow("plain key") << int(Qt::Key_A) << 0 << "A";
        QTest::newRow("function key with alt") << int(Qt::Key_F5) << int(Qt::AltModifier) << "Alt+F5";
        QTest::newRow("control alone") << int(Qt::Key_Control) << int(Qt::ControlModifier) << "Ctrl+";
        QTest::newRow("shift while control")
            << int(Qt::Key_Shift) << int(Qt::ControlModifier | Qt::ShiftModifier) << "Ctrl+Shift+";
        QTest::newRow("modifiers in fixed order")
            << int(Qt::Key_K) << int(Qt::ShiftModifier | Qt::MetaModifier | Qt::AltModifier | Qt::ControlModifier)
            << "Ctrl+Alt+Meta+Shift+K";
        QTest::newRow("meta alone") << int(Qt::Key_Meta) << int(Qt::MetaModifier) << "Meta+";
        QTest::newRow("alt alone") << int(Qt::Key_Alt) << int(Qt::AltModifier) << "Alt+";
        QTest::newRow("named key") << int(Qt::Key_Home) << int(Qt::ShiftModifier) << "Shift+Home";
    }

    void hotkey_text()
    {
        QFETCH(int, key);
        QFETCH(int, modifiers);
        QFETCH(QString, text);
        QCOMPARE(cui::HotkeyFieldLineEdit::key_text(key, Qt::KeyboardModifiers(modifiers)), text);
    }

    void hotkey_field_takes_key_presses()
    {
        PanelFixture f;
        f.surface->rebuild();
        Window w(f.cui());
        QVERIFY(QTest::qWaitForWindowActive(&w.window));
        auto *edit = widget_of<cui::HotkeyFieldLineEdit>(f.cui(), QStringLiteral("!hotkey"));
        QVERIFY(edit->isReadOnly());
        QCOMPARE(edit->placeholderText(), QStringLiteral("Press a key combination"));
        QCOMPARE(edit->styleSheet(), QStringLiteral(":focus {border: 2px solid #C11; padding: -1px;}"));
        edit->setFocus();

        // Holding Ctrl and Shift enters them with no key; a key completes it.
        QTest::keyPress(edit, Qt::Key_Shift, Qt::ControlModifier | Qt::ShiftModifier);
        QCOMPARE(QByteArray(f.panel.hotkey), QByteArray("Ctrl+Shift+"));
        QCOMPARE(edit->text(), QStringLiteral("Ctrl+Shift+"));
        QTest::keyClick(edit, Qt::Key_A, Qt::ControlModifier | Qt::ShiftModifier);
        QCOMPARE(QByteArray(f.panel.hotkey), QByteArray("Ctrl+Shift+A"));
        QTest::keyRelease(edit, Qt::Key_Shift, Qt::ControlModifier | Qt::ShiftModifier);
        QCOMPARE(QByteArray(f.panel.hotkey), QByteArray("Ctrl+Shift+A"));
        QTest::keyClick(edit, Qt::Key_F7);
        QCOMPARE(f.stored(QStringLiteral("!hotkey")), Value::string("F7"));
        // Everything pressed while focused is one undo step.
        w.other->setFocus();
        QCOMPARE(f.commands.history_size(), std::size_t(1));
        QTRY_COMPARE(edit->selectedText(), QString()); // focus gone

        // The context menu clears it.
        std::unique_ptr<QMenu> menu(edit->create_context_menu());
        const QList<QAction *> actions = menu->actions();
        QVERIFY(actions.size() > 2);
        QCOMPARE(actions.at(0)->text(), QStringLiteral("Clear Hotkey"));
        QVERIFY(actions.at(1)->isSeparator());
        actions.at(0)->trigger();
        QCOMPARE(f.stored(QStringLiteral("!hotkey")), Value::string(""));
        QCOMPARE(QByteArray(f.panel.hotkey), QByteArray(""));
        QCOMPARE(edit->text(), QString());
    }

    void file_dialogs_data()
    {
        QTest::addColumn<QString>("id");
        QTest::addColumn<QString>("answer");
        QTest::addColumn<QByteArray>("stored");
        QTest::newRow("open file cancelled") << "!open" << QString() << QByteArray("/start/open.txt");
        QTest::newRow("open file chosen") << "!open" << "/chosen/a.txt" << QByteArray("/chosen/a.txt");
        QTest::newRow("folder cancelled") << "!folder" << QString() << QByteArray("/start");
        QTest::newRow("folder chosen") << "!folder" << "/chosen" << QByteArray("/chosen");
        QTest::newRow("save cancelled") << "!save" << QString() << QByteArray("");
        QTest::newRow("save chosen") << "!save" << "/chosen/out.txt" << QByteArray("/chosen/out.txt");
    }

    void file_dialogs()
    {
        QFETCH(QString, id);
        QFETCH(QString, answer);
        QFETCH(QByteArray, stored);
        QStringList asked; // caption, start, filter
        cui::Dialogs dialogs;
        dialogs.open_file = [&](QWidget *, const QString &caption, const QString &dir, const QString &filter) {
            asked = {caption, dir, filter};
            return answer;
        };
        dialogs.open_folder = [&](QWidget *, const QString &caption, const QString &dir) {
            asked = {caption, dir, QString()};
            return answer;
        };
        dialogs.save_file = dialogs.open_file;
        cui::set_dialogs(dialogs);

        PickerPanel p;
        Window w(*p.surface.surface());
        QPushButton *button = p.browse_button(id);
        QCOMPARE(button->text(), QStringLiteral("..."));
        QCOMPARE(button->width(), 30);
        button->click();
        const QStringList expected = id == QLatin1String("!open")     ? QStringList{"Open File", "/start/open.txt", "Text (*.txt)"}
                                     : id == QLatin1String("!folder") ? QStringList{"Choose Folder", "/start", QString()}
                                                                      : QStringList{"Save File", "", "Any (*)"};
        QCOMPARE(asked, expected);
        QCOMPARE(p.collection.find(id)->value(), Value::string(stored));
        QCOMPARE(p.commands.history_size(), std::size_t(answer.isNull() ? 0 : 1));
        QVERIFY(QTest::qWaitFor([&] { return p.surface.pending() == 0; }));
        QCOMPARE(widget_of<QWidget>(*p.surface.surface(), id)->findChild<QLineEdit *>()->text(),
                 QString::fromUtf8(stored));
    }

    void real_file_dialog_cancelled()
    {
        PickerPanel p;
        Window w(*p.surface.surface());
        QVERIFY(QTest::qWaitForWindowExposed(&w.window));
        bool closed = false;
        QTimer closer;
        QObject::connect(&closer, &QTimer::timeout, [&] {
            if (auto *dialog = qobject_cast<QFileDialog *>(QApplication::activeModalWidget())) {
                QCOMPARE(dialog->windowTitle(), QStringLiteral("Open File"));
                dialog->reject();
                closed = true;
            }
        });
        closer.start(20);
        p.browse_button(QStringLiteral("!open"))->click();
        closer.stop();
        QVERIFY(closed);
        QCOMPARE(p.collection.find(QStringLiteral("!open"))->value(), Value::string("/start/open.txt"));
        QCOMPARE(p.commands.history_size(), std::size_t(0));
    }

    // While the colour dialog is open the panel changes under the field:
    // first its view closes and the items of other fields change, then the
    // field itself is no longer declared. The choice still lands, and the
    // old view's widgets are left alone.
    void colour_dialog_while_the_panel_changes()
    {
        model::PropertyCollection collection;
        cui::PropertySurface surface(nullptr, model::StoreView(&collection, QString()), cui::StoreEditor());
        QList<const char *> labels{"one", "two", "three"};
        bool with_color = true;
        QObject::connect(&surface, &engine::PropertySurface::build, [&](cui::GenerateContext &context) {
            auto *c = reinterpret_cast<cui_generate_context *>(&context);
            cui_radio_group(c, "r", "", labels.constData(), uint32_t(labels.size()), 1);
            cui_select(c, "s", "", labels.constData(), nullptr, uint32_t(labels.size()), 1);
            if (with_color)
                cui_color(c, "c", "", 0, 0, 0);
        });
        surface.rebuild();
        auto window = std::make_unique<Window>(*surface.surface());
        QPointer<QAbstractItemModel> old_items = widget_of<QComboBox>(*surface.surface(), QStringLiteral("s"))->model();
        std::function<void()> meanwhile;
        cui::Dialogs dialogs;
        dialogs.color = [&](const QColor &, QWidget *, const QString &) {
            meanwhile();
            return QColor(Qt::red);
        };
        cui::set_dialogs(dialogs);

        meanwhile = [&] {
            window.reset();
            labels = {"uno", "dos"};
            surface.rebuild();
        };
        QPushButton *swatch = widget_of<QPushButton>(*surface.surface(), QStringLiteral("c"));
        swatch->click();
        QCOMPARE(collection.find(QStringLiteral("c"))->value(), Value::color({1, 0, 0}));
        QVERIFY(old_items);
        QCOMPARE(old_items->rowCount(), 3);
        Window second(*surface.surface());
        const QList<QRadioButton *> buttons = surface.surface()->element(QStringLiteral("r"))->widget()->findChildren<QRadioButton *>();
        QCOMPARE(buttons.size(), 2);
        QVERIFY(buttons.at(1)->isChecked() && buttons.at(1)->text() == QLatin1String("dos"));
        auto *box = widget_of<QComboBox>(*surface.surface(), QStringLiteral("s"));
        QCOMPARE(box->count(), 2);
        QCOMPARE(box->currentText(), QStringLiteral("dos"));

        meanwhile = [&] {
            with_color = false;
            surface.rebuild();
            QVERIFY(!surface.surface()->element(QStringLiteral("c")));
            collection.find(QStringLiteral("c"))->set(Value::color({0, 0, 1}));
        };
        widget_of<QPushButton>(*surface.surface(), QStringLiteral("c"))->click();
        QCOMPARE(collection.find(QStringLiteral("c"))->value(), Value::color({1, 0, 0}));
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QVERIFY(!old_items);
    }

    void colour_dialog()
    {
        QColor answer;
        QColor offered;
        cui::Dialogs dialogs;
        dialogs.color = [&](const QColor &initial, QWidget *, const QString &caption) {
            offered = initial;
            if (caption != QLatin1String("Choose Color"))
                return QColor();
            return answer;
        };
        cui::set_dialogs(dialogs);
        PickerPanel p;
        Window w(*p.surface.surface());
        QCOMPARE(p.color.g, 0.5);
        auto *swatch = widget_of<QPushButton>(*p.surface.surface(), QStringLiteral("!color"));
        swatch->click();
        QCOMPARE(offered, QColor::fromRgbF(0.25f, 0.5f, 0.75f));
        QCOMPARE(p.collection.find(QStringLiteral("!color"))->value(), Value::color({0.25, 0.5, 0.75}));
        QCOMPARE(p.commands.history_size(), std::size_t(0));

        answer = QColor::fromRgbF(1.0f, 0.0f, 0.5f);
        swatch->click();
        QVERIFY(QTest::qWaitFor([&] { return p.surface.pending() == 0; }));
        QCOMPARE(p.color.r, 1.0);
        QCOMPARE(p.color.b, double(answer.blueF()));
        QCOMPARE(p.commands.history_size(), std::size_t(1));
    }
};

QTEST_MAIN(TstCuiWidgets)
#include "tst_cui_widgets.moc"
