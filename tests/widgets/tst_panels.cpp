// The racks, rack and node panels and the node-type chooser, driven through
// their real widgets and view models over an open project with the built-in
// node set: every edit is one command, undone and redone.

#include "panel_rig.h"

#include "app/builtin_plugin.h"
#include "cui/property_surface.h"
#include "engine/activity_tap.h"
#include "engine/config_manager.h"
#include "engine/event.h"
#include "engine/rack_manager.h"
#include "input/fake_backend.h"
#include "input/platform.h"
#include "locale/locale_list.h"
#include "locale/translate.h"
#include "persistence/model_commands.h"
#include "persistence/project_manager.h"
#include "persistence/property_commands.h"
#include "sdk/plugin.h"
#include "sdk/plugin_preferences.h"
#include "widgets/activity_panel.h"
#include "widgets/activity_view_model.h"
#include "widgets/add_node_widget.h"
#include "widgets/add_node_widget_view_model.h"
#include "widgets/hotkeys_panel.h"
#include "widgets/hotkeys_view_model.h"
#include "widgets/main_window.h"
#include "widgets/main_window_view_model.h"
#include "widgets/node_panel.h"
#include "widgets/node_panel_view_model.h"
#include "widgets/preferences_window.h"
#include "widgets/preferences_window_view_model.h"
#include "widgets/rack_panel.h"
#include "widgets/rack_panel_view_model.h"
#include "widgets/racks_panel.h"

#include <QAbstractItemModelTester>
#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QClipboard>
#include <QDialogButtonBox>
#include <QDockWidget>
#include <QFrame>
#include <QGuiApplication>
#include <QHeaderView>
#include <QLabel>
#include <QLayout>
#include <QLibraryInfo>
#include <QLineEdit>
#include <QListView>
#include <QMenu>
#include <QMimeData>
#include <QPushButton>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QSet>
#include <QSettings>
#include <QSignalSpy>
#include <QSortFilterProxyModel>
#include <QSpinBox>
#include <QStandardPaths>
#include <QTabWidget>
#include <QTableView>
#include <QTest>
#include <QToolButton>
#include <QTranslator>
#include <QTreeView>
#include <QTreeWidget>

using namespace corv;
using widgets::RackPanelViewModel;

namespace {

// The program's preferences page and, where built, a plugin's page.
struct PreferencesPlugins
{
    PreferencesPlugins()
    {
        QStandardPaths::setTestModeEnabled(true);
        locale::set_application_dir(QStringLiteral(CORV_TEST_RUNTIME_DIR));
        plugins.add_builtin(builtin_plugin_entry_points(), QStringLiteral(CORV_TEST_RUNTIME_DIR));
#ifdef CORV_TEST_PREFS_PLUGIN
        plugins.load_folder(QStringLiteral(CORV_TEST_PREFS_PLUGIN));
#endif
        plugins.initialize(registry);
    }
    static QString settings_file()
    {
        return QStandardPaths::writableLocation(QStandardPaths::AppDataLocation) + QStringLiteral("/settings.ini");
    }
    engine::NodeRegistry registry;
    engine::PluginList plugins;
};

// Undoes `steps` edits and checks the state, then redoes them. The Edit
// menu's items name the last edit ("Undo Rename Rack", then "Redo ...").
void check_undo_redo(engine::CommandManager &commands, int steps, const std::function<QString()> &state,
                     const QString &before, const QString &after, const QString &named)
{
    QCOMPARE(widgets::undo_text(&commands), QStringLiteral("Undo ") + named);
    for (int i = 0; i < steps; ++i) {
        commands.undo();
        if (i == 0)
            QCOMPARE(widgets::redo_text(&commands), QStringLiteral("Redo ") + named);
    }
    QCOMPARE(state(), before);
    if (!commands.can_undo())
        QCOMPARE(widgets::undo_text(&commands), QStringLiteral("Undo"));
    for (int i = 0; i < steps; ++i)
        commands.redo();
    QCOMPARE(state(), after);
}

// The rows of the rack panel in PanelRig::tree()'s form, made as needed.
QString shown_tree(RackPanelViewModel &vm, const QModelIndex &parent = {})
{
    if (vm.canFetchMore(parent))
        vm.fetchMore(parent);
    QStringList parts;
    for (int row = 0; row < vm.rowCount(parent); ++row) {
        const QModelIndex index = vm.index(row, 0, parent);
        if (index.parent() != parent || vm.index_of(vm.node_id(index)) != index)
            return QStringLiteral("broken");
        QString part = vm.context().project->find_node(vm.node_id(index))->impl_id().section(u'.', -1);
        if (vm.hasChildren(index))
            part += u'[' + shown_tree(vm, index) + u']';
        parts << part;
    }
    return parts.join(u' ');
}

// Posts {"n": n} to a rack's entry.
void post(PanelRig &rig, const QUuid &rack, int n)
{
    engine::EventScope event;
    event.set("n", QByteArray::number(n));
    engine::EventSink::post(rig.runtime->find_rack_manager(rack)->sink(), event);
}

// The rows an activity panel shows, "rack|node|keys" each.
QStringList shown_rows(const QAbstractItemModel &model)
{
    QStringList rows;
    for (int row = 0; row < model.rowCount(); ++row) {
        QStringList cells;
        for (int column = widgets::ActivityViewModel::RackColumn; column < widgets::ActivityViewModel::ColumnCount; ++column)
            cells << model.index(row, column).data().toString();
        rows << cells.join(u'|');
    }
    return rows;
}

// The hotkeys view's rows for hotkeys_view()'s project as it is built.
const QStringList kHotkeysOpened{"Ctrl+K|A|On Ctrl+K|on|Also used by On Ctrl+K in B", "J|A|On J|on|",
                                 "Ctrl+K|B|On Ctrl+K|on|Also used by On Ctrl+K in A", "F5|C|On F5|off|"};

} // namespace

class tst_Panels : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // The offscreen platform's notes on popups are no fault of the panels.
    void init() { QTest::failOnWarning(QRegularExpression(QStringLiteral("^(?!This plugin does not support).*"))); }

    void racks_edits_data();
    void racks_edits();
    void racks_show_status();
    void racks_selection_and_search();
    void rack_edits_data();
    void rack_edits();
    void broken_clipboard_data();
    void broken_clipboard();
    void rack_panel_keeps_expansion();
    void rack_rows_show_flow();
    void rows_flash_when_triggered();
    void activity_rows_data();
    void activity_rows();
    void activity_pause_and_cap();
    void node_panel_data();
    void node_panel();
    void add_node_search_data();
    void add_node_search();
    void language_from_start_data();
    void language_from_start();
    void live_language_switch();
    void hotkeys_view_data();
    void hotkeys_view();
    void preferences_window_opens_the_remembered_page_data();
    void preferences_window_opens_the_remembered_page();
    void preferences_window_follows_the_language();
};

void tst_Panels::racks_edits_data()
{
    QTest::addColumn<QString>("edit");
    QTest::addColumn<QString>("after");
    QTest::addColumn<QString>("named");
    // The racks, then the tree of the first rack A.
    QTest::newRow("add after the selection") << "add" << "A,Rack 1,B,C|fork" << "Add Rack";
    QTest::newRow("rename in place") << "rename" << "A,Z,C|fork" << "Rename Rack";
    QTest::newRow("disable") << "disable" << "A,B-,C|fork" << "Disable Rack";
    QTest::newRow("enable") << "enable" << "A,B,C|fork" << "Enable Rack";
    QTest::newRow("disable two at once") << "disable two" << "A,B-,C-|fork" << "Disable Rack";
    QTest::newRow("drag to the end") << "drag" << "B,C,A|fork" << "Move Rack";
    QTest::newRow("drag with Ctrl copies") << "drag copy" << "A,B,C,A|fork" << "Copy Rack";
    QTest::newRow("delete") << "delete" << "A,C|fork" << "Delete Rack";
    QTest::newRow("cut") << "cut" << "A,C|fork" << "Cut Rack";
    QTest::newRow("copy and paste") << "paste" << "A,A,B,C|fork" << "Paste Rack";
    QTest::newRow("nodes dragged onto a rack") << "drop nodes" << "A,B,C|" << "Move Node";
}

void tst_Panels::racks_edits()
{
    QFETCH(QString, edit);
    QFETCH(QString, after);
    QFETCH(QString, named);
    PanelRig rig;
    const QUuid a = rig.add_rack(QStringLiteral("A"));
    const QUuid a_node = rig.add_node(a, QStringLiteral("io.marrowfield.fork"));
    const QUuid b = rig.add_rack(QStringLiteral("B"));
    rig.add_rack(QStringLiteral("C"));
    if (edit == u"enable")
        rig.project.find_rack(b)->set_enabled(false);
    rig.open();
    widgets::RacksPanelViewModel vm;
    vm.set_context(rig.context());
    QAbstractItemModelTester tester(&vm, QAbstractItemModelTester::FailureReportingMode::QtTest);
    widgets::RacksPanel panel(&vm);
    QAbstractItemModel *shown = panel.list()->model();
    QSignalSpy changed(&rig.commands, &engine::CommandManager::changed);
    const auto state = [&] { return rig.racks() + u'|' + rig.tree(a); };
    const QString before = state();

    const int row = edit == u"add" || edit == u"paste" ? 0 : 1;
    panel.list()->setCurrentIndex(shown->index(row, 0));
    if (edit == u"add") {
        panel.add_action()->trigger();
    } else if (edit == u"rename") {
        QVERIFY(shown->setData(shown->index(1, 0), QStringLiteral("Z")));
    } else if (edit == u"disable" || edit == u"enable") {
        QCOMPARE(panel.enabled_action()->isChecked(), edit == u"disable");
        panel.enabled_action()->trigger();
    } else if (edit == u"disable two") {
        panel.list()->selectionModel()->select(shown->index(2, 0), QItemSelectionModel::Select);
        panel.enabled_action()->trigger();
    } else if (edit == u"drag") {
        std::unique_ptr<QMimeData> data(shown->mimeData({shown->index(0, 0)}));
        QVERIFY(data->hasFormat(QString::fromLatin1(widgets::kModelRowsMime)));
        QVERIFY(shown->dropMimeData(data.get(), Qt::MoveAction, 3, 0, {}));
    } else if (edit == u"drag copy") {
        std::unique_ptr<QMimeData> data(shown->mimeData({shown->index(0, 0)}));
        QVERIFY(shown->dropMimeData(data.get(), Qt::CopyAction, 3, 0, {}));
    } else if (edit == u"delete") {
        panel.delete_action()->trigger();
    } else if (edit == u"cut") {
        panel.cut_action()->trigger();
    } else if (edit == u"drop nodes") {
        RackPanelViewModel rack_vm;
        rack_vm.set_context(rig.context());
        rack_vm.set_rack(a);
        std::unique_ptr<QMimeData> data(rack_vm.mimeData({rack_vm.index_of(a_node)}));
        // Nodes move onto a rack's row only: never between rows, nor as copies.
        QVERIFY(!shown->canDropMimeData(data.get(), Qt::MoveAction, 1, 0, {}));
        QVERIFY(!shown->canDropMimeData(data.get(), Qt::MoveAction, -1, -1, {}));
        QVERIFY(!shown->canDropMimeData(data.get(), Qt::CopyAction, -1, -1, shown->index(1, 0)));
        // Dropped onto a row, as the view reports it: no row, no column.
        QVERIFY(shown->dropMimeData(data.get(), Qt::MoveAction, -1, -1, shown->index(1, 0)));
        QCOMPARE(rig.project.find_rack(vm.rack_at(1))->top_level()->ids(), QList<QUuid>{a_node});
    } else if (edit == u"paste") {
        panel.copy_action()->trigger();
        QVERIFY(QGuiApplication::clipboard()->mimeData()->hasFormat(QString::fromLatin1(widgets::kRackListXmlMime)));
        panel.paste_action()->trigger();
        // The copy is a rack of its own, with nodes of its own.
        const QUuid copy = vm.selected_rack();
        QCOMPARE(vm.row_of(copy), 1);
        QVERIFY(copy != a);
        const QList<QUuid> &nodes = rig.project.find_rack(copy)->top_level()->ids();
        QCOMPARE(nodes.size(), 1);
        QVERIFY(nodes.first() != a_node);
    }
    QCOMPARE(state(), after);
    QCOMPARE(changed.count(), 1);
    check_undo_redo(rig.commands, 1, state, before, after, named);
}

// Each rack's status: running, and when it last took an event in; a rack
// paused or disabled says so, and events it dropped do not count.
void tst_Panels::racks_show_status()
{
    PanelRig rig;
    const QUuid a = rig.add_rack(QStringLiteral("A"));
    rig.add_node(a, QStringLiteral("io.marrowfield.display"));
    const QUuid b = rig.add_rack(QStringLiteral("B"));
    rig.open();
    widgets::RacksPanelViewModel vm;
    vm.set_context(rig.context());
    const auto status = [&](const QUuid &rack) {
        return vm.index(vm.row_of(rack)).data(widgets::RacksPanelViewModel::StatusRole).toString();
    };
    QCOMPARE(status(a), QStringLiteral("running"));
    rig.runtime->set_paused(true);
    post(rig, a, 1);
    QCoreApplication::processEvents();
    QCOMPARE(status(a), QStringLiteral("paused"));
    rig.runtime->set_paused(false);

    QSignalSpy changed(&vm, &QAbstractItemModel::dataChanged);
    vm.refresh_status();
    post(rig, a, 2);
    QTRY_VERIFY(status(a).startsWith(QStringLiteral("running, last event ")));
    QVERIFY2(QRegularExpression(QStringLiteral("^running, last event \\d\\d:\\d\\d:\\d\\d$")).match(status(a)).hasMatch(),
             qPrintable(status(a)));
    changed.clear();
    vm.refresh_status();
    QCOMPARE(changed.count(), 1); // only the rack whose status moved
    // A rack renamed or disabled from anywhere repaints its row, and the
    // panel's Enabled action follows the selected rack.
    widgets::RacksPanel panel(&vm);
    panel.list()->setCurrentIndex(panel.list()->model()->index(vm.row_of(b), 0));
    QVERIFY(panel.enabled_action()->isChecked());
    changed.clear();
    rig.commands.execute(std::make_unique<engine::RenameRackCommand>(&rig.project, b, QStringLiteral("Bee")));
    QCOMPARE(changed.count(), 1);
    QCOMPARE(changed[0][0].toModelIndex().row(), vm.row_of(b));
    QVERIFY(vm.set_rack_enabled(b, false));
    QCOMPARE(status(b), QStringLiteral("disabled"));
    QVERIFY(!panel.enabled_action()->isChecked());
    QVERIFY(vm.index(vm.row_of(a)).data(Qt::ToolTipRole).toString().startsWith(QStringLiteral("A\nrunning")));
}

void tst_Panels::racks_selection_and_search()
{
    PanelRig rig;
    rig.add_rack(QStringLiteral("Alpha"));
    const QUuid beta = rig.add_rack(QStringLiteral("Beta"));
    rig.open();
    widgets::RacksPanelViewModel vm;
    vm.set_context(rig.context());
    widgets::RacksPanel panel(&vm);
    QSignalSpy selected(&panel, &widgets::RacksPanel::selected_rack_changed);

    panel.list()->setCurrentIndex(panel.list()->model()->index(1, 0));
    QCOMPARE(selected.count(), 1);
    QCOMPARE(selected.takeFirst().at(0).toUuid(), beta);

    panel.search_field()->setText(QStringLiteral("ALP"));
    QCOMPARE(panel.list()->model()->rowCount(), 1);
    QCOMPARE(panel.list()->model()->index(0, 0).data().toString(), QStringLiteral("Alpha"));
    panel.search_field()->clear();

    // The selection never names a removed rack.
    vm.remove_racks({beta});
    QVERIFY(vm.selected_rack() != beta);
    QCOMPARE(selected.takeLast().at(0).toUuid(), vm.selected_rack());
}

void tst_Panels::rack_edits_data()
{
    QTest::addColumn<QString>("edit");
    QTest::addColumn<int>("steps");
    QTest::addColumn<QString>("after");
    QTest::addColumn<QString>("named");
    // Both racks: "fork[delay stop] custom | delay".
    QTest::newRow("add inside the current node")
        << "add inside" << 1 << "fork[delay stop stop] custom | delay" << "Add Node";
    QTest::newRow("add inside a childless node")
        << "add into custom" << 1 << "fork[delay stop] custom[stop] | delay" << "Add Node";
    QTest::newRow("add at the top level") << "add top" << 1 << "fork[delay stop] custom stop | delay" << "Add Node";
    QTest::newRow("replace keeps the children")
        << "replace" << 1 << "delay[delay stop] custom | delay" << "Replace Node";
    QTest::newRow("delete a child and a node") << "delete" << 1 << "fork[stop] | delay" << "Delete Node";
    QTest::newRow("cut") << "cut" << 1 << "custom | delay" << "Cut Node";
    QTest::newRow("copy and paste")
        << "paste" << 1 << "fork[delay stop] fork[delay stop] custom | delay" << "Paste Node";
    QTest::newRow("drag within the top level")
        << "drag first" << 1 << "custom fork[delay stop] | delay" << "Move Node";
    QTest::newRow("drag with Ctrl copies")
        << "drag copy" << 1 << "custom fork[delay stop] custom | delay" << "Copy Node";
    QTest::newRow("drag onto a node") << "drag into" << 1 << "fork[delay stop custom] | delay" << "Move Node";
    QTest::newRow("drag a child out") << "drag out" << 1 << "fork[stop] custom delay | delay" << "Move Node";
    QTest::newRow("cut, then paste twice in another rack")
        << "cut across" << 3 << "custom | delay fork[delay stop] fork[delay stop]" << "Paste Node";
}

void tst_Panels::rack_edits()
{
    QFETCH(QString, edit);
    QFETCH(int, steps);
    QFETCH(QString, after);
    QFETCH(QString, named);
    PanelRig rig;
    const QUuid r1 = rig.add_rack(QStringLiteral("One"));
    const QUuid fork = rig.add_node(r1, QStringLiteral("io.marrowfield.fork"));
    const QUuid delay = rig.add_node(fork, QStringLiteral("io.marrowfield.delay"));
    rig.add_node(fork, QStringLiteral("io.marrowfield.stop"));
    const QUuid custom = rig.add_node(r1, QStringLiteral("io.marrowfield.custom"));
    const QUuid r2 = rig.add_rack(QStringLiteral("Two"));
    rig.add_node(r2, QStringLiteral("io.marrowfield.delay"));
    rig.open();
    RackPanelViewModel vm;
    vm.set_context(rig.context());
    widgets::RackPanel panel(&vm);
    panel.set_rack(r1);
    // Rows of collapsed nodes are made only when asked for.
    panel.tree()->collapseAll();
    QAbstractItemModel *model = panel.tree()->model();
    // Both racks as the project holds them, checked against the rows the
    // panel shows for the rack it shows.
    const auto state = [&] {
        const QString shown = shown_tree(vm);
        const QString held = rig.tree(vm.rack());
        return shown == held ? rig.tree(r1) + QStringLiteral(" | ") + rig.tree(r2) : shown + u'/' + held;
    };
    const QString before = rig.tree(r1) + QStringLiteral(" | ") + rig.tree(r2);
    QSignalSpy changed(&rig.commands, &engine::CommandManager::changed);

    const auto choose = [&](const char *search) {
        QVERIFY(panel.add_node_popup()->isVisible());
        QTest::keyClicks(panel.add_node_widget()->search_field(), QString::fromLatin1(search));
        QTest::keyClick(panel.add_node_widget()->search_field(), Qt::Key_Return);
        QVERIFY(!panel.add_node_popup()->isVisible());
    };
    const auto drag = [&](const QUuid &node, int row, const QUuid &onto, Qt::DropAction action = Qt::MoveAction) {
        std::unique_ptr<QMimeData> data(model->mimeData({vm.index_of(node)}));
        QVERIFY(data->hasFormat(QString::fromLatin1(widgets::kNodeListMime)));
        QVERIFY(data->hasFormat(QString::fromLatin1(widgets::kModelRowsMime)));
        QVERIFY(model->dropMimeData(data.get(), action, row, row < 0 ? -1 : 0,
                                    onto.isNull() ? QModelIndex() : vm.index_of(onto)));
    };
    if (edit == u"add inside") {
        QSignalSpy edit_requested(&panel, &widgets::RackPanel::edit_requested);
        panel.select_node(delay);
        panel.edit_action()->trigger(); // asks for the node's panel
        QCOMPARE(edit_requested.size(), 1);
        QCOMPARE(edit_requested[0][0].toUuid(), delay);
        panel.select_node(fork);
        panel.add_inside_action()->trigger();
        choose("stop");
        QCOMPARE(panel.current_node(), rig.project.find_node(fork)->children()->at(2));
    } else if (edit == u"add into custom") {
        panel.select_node(custom);
        panel.add_inside_action()->trigger();
        choose("stop");
    } else if (edit == u"add top") {
        // Escape leaves the tree as it was.
        panel.add_inside_action()->trigger();
        QTest::keyClick(panel.add_node_widget()->search_field(), Qt::Key_Escape);
        QVERIFY(!panel.add_node_popup()->isVisible());
        panel.add_inside_action()->trigger();
        choose("Stop");
    } else if (edit == u"replace") {
        panel.select_node(fork);
        panel.replace_action()->trigger();
        choose("delay");
    } else if (edit == u"delete") {
        // Delete wants a selection.
        panel.tree()->selectionModel()->clear();
        QVERIFY(!panel.delete_action()->isEnabled());
        panel.select_node(delay);
        QVERIFY(panel.delete_action()->isEnabled());
        panel.tree()->selectionModel()->select(vm.index_of(custom), QItemSelectionModel::Select);
        panel.delete_action()->trigger();
    } else if (edit == u"cut") {
        panel.select_node(fork);
        panel.cut_action()->trigger();
    } else if (edit == u"paste") {
        panel.select_node(fork);
        panel.copy_action()->trigger();
        panel.paste_action()->trigger();
        const QUuid copy = panel.current_node();
        QVERIFY(copy != fork);
        const QList<QUuid> &copied = rig.project.find_node(copy)->children()->ids();
        QCOMPARE(copied.size(), 2);
        QVERIFY(!rig.project.find_node(fork)->children()->ids().contains(copied.first()));
    } else if (edit == u"drag first") {
        drag(custom, 0, {});
        QCOMPARE(panel.selected_nodes(), QList<QUuid>{custom});
    } else if (edit == u"drag copy") {
        drag(custom, 0, {}, Qt::CopyAction);
        const QUuid copy = rig.project.find_rack(r1)->top_level()->at(0);
        QVERIFY(copy != custom);
        QCOMPARE(panel.selected_nodes(), QList<QUuid>{copy}); // the copy is chosen
    } else if (edit == u"drag into") {
        drag(custom, -1, fork);
        QCOMPARE(panel.selected_nodes(), QList<QUuid>{custom});
    } else if (edit == u"drag out") {
        drag(delay, 2, {});
    } else if (edit == u"cut across") {
        panel.select_node(fork);
        panel.cut_action()->trigger();
        panel.set_rack(r2);
        panel.paste_action()->trigger();
        panel.tree()->selectionModel()->clear();
        panel.tree()->setCurrentIndex({});
        panel.paste_action()->trigger();
        // Every node of the second rack is a node of its own.
        QSet<QUuid> ids;
        for (int i = 0; i < 3; ++i)
            ids.insert(rig.project.find_rack(r2)->top_level()->at(std::size_t(i)));
        QCOMPARE(ids.size(), 3);
    }
    QCOMPARE(state(), after);
    QCOMPARE(changed.count(), steps);
    check_undo_redo(rig.commands, steps, state, before, after, named);
    // The rows follow the model through all of it.
    if (vm.rack() == r1)
        QCOMPARE(model->rowCount(), int(rig.project.find_rack(r1)->top_level()->count()));
}

void tst_Panels::broken_clipboard_data()
{
    QTest::addColumn<QString>("format");
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<QString>("warning");
    const QString racks = QString::fromLatin1(widgets::kRackListXmlMime);
    const QString nodes = QString::fromLatin1(widgets::kNodeListXmlMime);
    QTest::newRow("racks: cut short") << racks << QByteArray("<racks><rack id=\"x\"") << "while parsing project";
    QTest::newRow("racks: nodes instead") << racks << QByteArray("<nodes/>") << "expected root <racks>, got <nodes>";
    QTest::newRow("nodes: empty") << nodes << QByteArray() << "can't find root tag";
    QTest::newRow("nodes: racks instead") << nodes << QByteArray("<racks/>") << "expected root <nodes>, got <racks>";
}

void tst_Panels::broken_clipboard()
{
    QFETCH(QString, format);
    QFETCH(QByteArray, document);
    QFETCH(QString, warning);
    PanelRig rig;
    const QUuid rack = rig.add_rack(QStringLiteral("R"));
    rig.open();
    widgets::RacksPanelViewModel racks_vm;
    racks_vm.set_context(rig.context());
    widgets::RacksPanel racks(&racks_vm);
    RackPanelViewModel rack_vm;
    rack_vm.set_context(rig.context());
    widgets::RackPanel panel(&rack_vm);
    panel.set_rack(rack);
    auto *data = new QMimeData;
    data->setData(format, document);
    QGuiApplication::clipboard()->setMimeData(data);
    QSignalSpy changed(&rig.commands, &engine::CommandManager::changed);

    // The reader's one warning, and nothing pasted.
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QRegularExpression::escape(warning)));
    if (format == QString::fromLatin1(widgets::kRackListXmlMime))
        racks.paste_action()->trigger();
    else
        panel.paste_action()->trigger();
    QCOMPARE(changed.count(), 0);
    QCOMPARE(rig.racks(), QStringLiteral("R"));
    QCOMPARE(rig.tree(rack), QString());
}

void tst_Panels::rack_panel_keeps_expansion()
{
    PanelRig rig;
    const QUuid r1 = rig.add_rack(QStringLiteral("One"));
    const QUuid fork = rig.add_node(r1, QStringLiteral("io.marrowfield.fork"));
    const QUuid inner = rig.add_node(fork, QStringLiteral("io.marrowfield.fork"));
    rig.add_node(inner, QStringLiteral("io.marrowfield.stop"));
    const QUuid r2 = rig.add_rack(QStringLiteral("Two"));
    rig.open();
    RackPanelViewModel vm;
    vm.set_context(rig.context());
    widgets::RackPanel panel(&vm);
    const auto expanded = [&](const QUuid &id) { return panel.tree()->isExpanded(vm.index_of(id)); };

    panel.set_rack(r1);
    QVERIFY(expanded(fork) && expanded(inner));
    panel.tree()->collapse(vm.index_of(inner));
    panel.set_rack(r2);
    panel.set_rack(r1);
    QVERIFY(expanded(fork));
    QVERIFY(!expanded(inner));
}

void tst_Panels::rack_rows_show_flow()
{
    PanelRig rig;
    const QUuid rack = rig.add_rack(QStringLiteral("Flow"));
    const QUuid stop = rig.add_node(rack, QStringLiteral("io.marrowfield.stop"));
    const QUuid under_stop = rig.add_node(stop, QStringLiteral("io.marrowfield.delay"));
    const QUuid fork = rig.add_node(rack, QStringLiteral("io.marrowfield.fork"));
    const QUuid under_fork = rig.add_node(fork, QStringLiteral("io.marrowfield.delay"));
    const QUuid gone = rig.add_node(rack, QStringLiteral("com.example.gone"));
    const QUuid under_gone = rig.add_node(gone, QStringLiteral("io.marrowfield.delay"));
    const QUuid custom = rig.add_node(rack, QStringLiteral("io.marrowfield.custom"));
    QTest::ignoreMessage(QtWarningMsg, "Unknown node com.example.gone");
    rig.open();
    RackPanelViewModel vm;
    vm.set_context(rig.context());
    QSignalSpy titles(&vm, &RackPanelViewModel::title_changed);
    vm.set_rack(rack);
    QCOMPARE(titles.takeLast().at(0).toString(), QStringLiteral("Rack: Flow"));
    rig.commands.execute(std::make_unique<engine::SetRackEnabledCommand>(&rig.project, rack, false));
    QCOMPARE(titles.takeLast().at(0).toString(), QStringLiteral("Rack: Flow (disabled)"));

    const auto runs = [&](const QUuid &id) { return vm.index_of(id).data(RackPanelViewModel::RunsRole).toBool(); };
    QVERIFY(!runs(under_stop));
    QVERIFY(runs(under_fork));
    QVERIFY(!runs(under_gone));
    QVERIFY(vm.index_of(under_stop).data(Qt::ToolTipRole).toString().contains(u"Never runs"));
    QCOMPARE(vm.index_of(gone).data().toString(), QStringLiteral("com.example.gone (not loaded)"));
    QVERIFY(!vm.index_of(gone).data(RackPanelViewModel::LoadedRole).toBool());
    // A source takes nothing from above; the fork passes on and runs its children.
    QCOMPARE(vm.index_of(custom).data(RackPanelViewModel::DecorationMaskRole).toUInt() & 2u, 0u);
    QCOMPARE(vm.index_of(fork).data(RackPanelViewModel::DecorationMaskRole).toUInt(), 11u);
    // Tooltips say what the marks mean; a node whose type is gone has none.
    QCOMPARE(vm.index_of(fork).data(Qt::ToolTipRole).toString().section(u'\n', 1),
             QStringLiteral("Passes events straight on\nRuns its children with each event"));
    QCOMPARE(RackPanelViewModel::mark_glyphs(11), QStringView(u"\u2192\u21B3").toString()); // drawn beside the name
    QCOMPARE(vm.index_of(gone).data(Qt::ToolTipRole).toString(), QStringLiteral("com.example.gone (not loaded)"));
    QVERIFY(!vm.index_of(fork).data(Qt::DecorationRole).value<QIcon>().isNull());

    // A row follows its node's name.
    QSignalSpy changed(&vm, &QAbstractItemModel::dataChanged);
    rig.commands.execute(std::make_unique<engine::SetNodePropertyCommand>(&rig.project, custom, QStringLiteral("!name"),
                                                                          model::Value::string("door")));
    QVERIFY(QTest::qWaitFor([&] { return vm.index_of(custom).data().toString() == u"Custom Event: door"; }, 2000));
    QCOMPARE(changed.last().at(0).toModelIndex(), vm.index_of(custom));
}

void tst_Panels::rows_flash_when_triggered()
{
    PanelRig rig;
    const QUuid rack = rig.add_rack(QStringLiteral("Flash"));
    const QUuid other = rig.add_rack(QStringLiteral("Other"));
    const QUuid fork = rig.add_node(rack, QStringLiteral("io.marrowfield.fork"));
    const QUuid stop = rig.add_node(rack, QStringLiteral("io.marrowfield.stop"));
    const QUuid idle = rig.add_node(rack, QStringLiteral("io.marrowfield.delay"));
    rig.open();
    RackPanelViewModel vm;
    vm.set_context(rig.context());
    vm.set_rack(rack);
    QSignalSpy changed(&vm, &QAbstractItemModel::dataChanged);
    const auto lit = [&](const QUuid &id) { return vm.index_of(id).data(RackPanelViewModel::FlashRole).toBool(); };

    // Many events in one turn light each row they reach once; a row that
    // went dark lights again with the next event, also after the panel
    // showed another rack in the middle of a flash.
    for (int round = 0; round < 3; ++round) {
        changed.clear();
        for (int i = 0; i < 1000; ++i)
            engine::EventSink::post(rig.runtime->find_rack_manager(rack)->sink(), engine::EventScope());
        QVERIFY(QTest::qWaitFor([&] { return lit(fork) && lit(stop); }, 1000));
        QVERIFY(!lit(idle));
        QCOMPARE(changed.count(), 1);
        if (round == 1) {
            vm.set_rack(other);
            vm.set_rack(rack);
        }
        QVERIFY(QTest::qWaitFor([&] { return !lit(fork) && !lit(stop); }, 1000));
        if (round != 1)
            QCOMPARE(changed.count(), 2);
    }
}

void tst_Panels::activity_rows_data()
{
    QTest::addColumn<bool>("trace_all");
    QTest::addColumn<QString>("filter"); // "rack", "node", text, or none
    QTest::addColumn<QStringList>("rows");
    // Rack A: custom "Go", display, stop, display (never reached); rack B: display.
    // Posted: 1 to A, 2 to B, 3 to A.
    QTest::newRow("display nodes, newest first")
        << false << QString() << QStringList{"A|Display|n: 3", "B|Display|n: 2", "A|Display|n: 1"};
    QTest::newRow("trace all: every node an event enters")
        << true << QString()
        << QStringList{"A|Stop|n: 3", "A|Display|n: 3", "A|Custom Event: Go|n: 3", "B|Display|n: 2",
                       "A|Stop|n: 1", "A|Display|n: 1", "A|Custom Event: Go|n: 1"};
    QTest::newRow("one rack") << true << "rack" << QStringList{"B|Display|n: 2"};
    QTest::newRow("one node") << true << "node" << QStringList{"A|Custom Event: Go|n: 3", "A|Custom Event: Go|n: 1"};
    QTest::newRow("text in any column") << true << "n: 3"
                                        << QStringList{"A|Stop|n: 3", "A|Display|n: 3", "A|Custom Event: Go|n: 3"};
    QTest::newRow("text matches nothing") << false << "nothing" << QStringList{};
}

void tst_Panels::activity_rows()
{
    QFETCH(bool, trace_all);
    QFETCH(QString, filter);
    QFETCH(QStringList, rows);
    PanelRig rig;
    const QUuid a = rig.add_rack(QStringLiteral("A"));
    const QUuid go = rig.add_node(a, QStringLiteral("io.marrowfield.custom"), QStringLiteral("Go"));
    const QUuid a_display = rig.add_node(a, QStringLiteral("io.marrowfield.display"));
    rig.add_node(a, QStringLiteral("io.marrowfield.stop"));
    rig.add_node(a, QStringLiteral("io.marrowfield.display"));
    const QUuid b = rig.add_rack(QStringLiteral("B"));
    const QUuid b_display = rig.add_node(b, QStringLiteral("io.marrowfield.display"));
    rig.open();

    widgets::ActivityViewModel vm;
    QAbstractItemModelTester tester(&vm);
    widgets::ActivityPanel panel(&vm);
    QVERIFY(!engine::ActivityTap::active());
    vm.set_listening(true);
    QVERIFY(engine::ActivityTap::active());
    // The panel's own switch turns tracing on; a panel made later shows it.
    auto *trace_box = panel.findChild<QCheckBox *>();
    QVERIFY(trace_box && !trace_box->isChecked());
    trace_box->setChecked(trace_all);
    QCOMPARE(engine::ActivityTap::trace_all(), trace_all);
    QCOMPARE(widgets::ActivityPanel(&vm).findChild<QCheckBox *>()->isChecked(), trace_all);
    // One event at a time: each hop is a queued post, so events in flight
    // together interleave.
    const int per_a = trace_all ? 3 : 1;
    post(rig, a, 1);
    QTRY_COMPARE(vm.rowCount(), per_a);
    post(rig, b, 2);
    QTRY_COMPARE(vm.rowCount(), per_a + 1);
    post(rig, a, 3);
    QTRY_COMPARE(vm.rowCount(), 2 * per_a + 1);
    engine::ActivityTap::set_trace_all(false);
    vm.set_listening(false);
    QVERIFY(!engine::ActivityTap::active());

    if (filter == u"rack")
        panel.filter()->set_rack(b);
    else if (filter == u"node")
        panel.filter()->set_node(go);
    else
        panel.search()->setText(filter);
    QCOMPARE(shown_rows(*panel.filter()), rows);
    if (rows.isEmpty())
        return;

    // Times grow towards the top; every row has a time of day.
    const QModelIndex top = panel.filter()->index(0, 0);
    QVERIFY(QTime::fromString(top.data().toString(), QStringLiteral("HH:mm:ss.zzz")).isValid());
    QVERIFY(top.data(widgets::ActivityViewModel::MsecsRole).toLongLong() >=
            panel.filter()->index(rows.size() - 1, 0).data(widgets::ActivityViewModel::MsecsRole).toLongLong());
    QVERIFY(!panel.filter()->index(0, widgets::ActivityViewModel::NodeColumn)
                 .data(Qt::DecorationRole).value<QIcon>().isNull());

    // A click asks for the row's rack and node; the context menu copies.
    QSignalSpy activated(&panel, &widgets::ActivityPanel::node_activated);
    panel.resize(600, 300);
    panel.show();
    QVERIFY(QTest::qWaitForWindowExposed(&panel));
    const QModelIndex last = panel.filter()->index(rows.size() - 1, widgets::ActivityViewModel::EventColumn);
    QTest::mouseClick(panel.view()->viewport(), Qt::LeftButton, {},
                      panel.view()->visualRect(last).center());
    QCOMPARE(activated.count(), 1);
    QCOMPARE(panel.view()->horizontalHeader()->length(), panel.view()->viewport()->width()); // the keys fill the rest
    const QHash<QString, std::pair<QUuid, QUuid>> ids{{"A|Custom Event: Go", {a, go}},
                                                      {"A|Display", {a, a_display}},
                                                      {"B|Display", {b, b_display}}};
    QCOMPARE(activated.at(0).at(0).toUuid(), ids.value(rows.last().section(u'|', 0, 1)).first);
    QCOMPARE(activated.at(0).at(1).toUuid(), ids.value(rows.last().section(u'|', 0, 1)).second);
    const QList<QAction *> actions = panel.row_actions(rows.size() - 1);
    const auto trigger = [&](const char *name) {
        for (QAction *action : actions) {
            if (action->objectName() == QLatin1String(name))
                action->trigger();
        }
    };
    trigger("ActivityPanel.CopyValue");
    QCOMPARE(QGuiApplication::clipboard()->text(), rows.last().section(u'|', 2));
    trigger("ActivityPanel.CopyRow");
    QCOMPARE(QGuiApplication::clipboard()->text().section(u'\t', 1), QString(rows.last()).replace(u'|', u'\t'));
    qDeleteAll(actions);
}

// Pause drops and counts; a hidden node stays out; the list keeps the latest
// 10,000 rows and says how many fell off.
void tst_Panels::activity_pause_and_cap()
{
    PanelRig rig;
    const QUuid rack = rig.add_rack(QStringLiteral("R"));
    const QUuid display = rig.add_node(rack, QStringLiteral("io.marrowfield.display"));
    const QUuid other = rig.add_node(rack, QStringLiteral("io.marrowfield.display"));
    rig.open();
    widgets::ActivityViewModel vm;
    widgets::ActivityPanel panel(&vm);
    vm.set_listening(true);

    panel.pause_button()->click();
    QVERIFY(vm.is_paused());
    for (int i = 0; i < 5; ++i)
        post(rig, rack, i);
    QTRY_COMPARE(panel.status_label()->text(), QStringLiteral("10 events dropped while paused"));
    QCOMPARE(vm.dropped(), quint64(10));
    QCOMPARE(vm.rowCount(), 0);
    QVERIFY(!panel.status_label()->isHidden());
    panel.pause_button()->click();

    // The row menu's "Keep This Node Out" hides the node from here on.
    post(rig, rack, -1);
    QTRY_COMPARE(vm.rowCount(), 2);
    const int other_row = panel.filter()->index(0, 0).data(widgets::ActivityViewModel::NodeIdRole).toUuid() == other ? 0 : 1;
    const QList<QAction *> actions = panel.row_actions(other_row);
    for (QAction *action : actions)
        if (action->objectName() == u"ActivityPanel.HideNode")
            action->trigger();
    qDeleteAll(actions);
    QVERIFY(vm.is_node_hidden(other));
    vm.clear();
    const int total = widgets::ActivityViewModel::kCapacity + 50;
    for (int i = 0; i < total; ++i)
        post(rig, rack, i);
    QTRY_COMPARE(vm.fallen_off(), quint64(50));
    QCOMPARE(vm.rowCount(), widgets::ActivityViewModel::kCapacity);
    QCOMPARE(vm.index(0, widgets::ActivityViewModel::EventColumn).data().toString(),
             QStringLiteral("n: %1").arg(total - 1));
    QCOMPARE(vm.index(vm.rowCount() - 1, widgets::ActivityViewModel::EventColumn).data().toString(),
             QStringLiteral("n: 50"));
    QCOMPARE(vm.index(0, 0).data(widgets::ActivityViewModel::NodeIdRole).toUuid(), display);
    QVERIFY(panel.view()->toolTip().contains(QStringLiteral("50 older events fell off")));

    panel.clear_button()->click();
    QCOMPARE(vm.rowCount(), 0);
    QCOMPARE(vm.fallen_off(), quint64(0));
    vm.set_listening(false);
}

void tst_Panels::node_panel_data()
{
    QTest::addColumn<QString>("type");
    QTest::addColumn<QString>("title");
    QTest::addColumn<bool>("has_view");
    QTest::addColumn<QString>("message");
    QTest::newRow("none") << QString() << "No Node Selected" << false << QString();
    QTest::newRow("loaded") << "io.marrowfield.delay" << "Node: Delay" << true << QString();
    QTest::newRow("not loaded") << "com.example.gone" << "Node type not loaded: com.example.gone" << false
                                << "com.example.gone (not loaded)";
}

void tst_Panels::node_panel()
{
    QFETCH(QString, type);
    QFETCH(QString, title);
    QFETCH(bool, has_view);
    QFETCH(QString, message);
    PanelRig rig;
    const QUuid rack = rig.add_rack(QStringLiteral("R"));
    const QUuid node = type.isEmpty() ? QUuid() : rig.add_node(rack, type);
    if (!message.isEmpty())
        QTest::ignoreMessage(QtWarningMsg, "Unknown node com.example.gone");
    rig.open();
    widgets::NodePanelViewModel vm;
    vm.set_context(rig.context());
    widgets::NodePanel panel(&vm);
    QSignalSpy titles(&panel, &widgets::NodePanel::title_changed);
    vm.set_node(node);

    QVERIFY(panel.windowTitle().startsWith(title));
    QCOMPARE(panel.surface_view() != nullptr, has_view);
    QCOMPARE(panel.message()->isVisibleTo(&panel), !message.isEmpty());
    if (!message.isEmpty())
        QVERIFY(panel.message()->text().contains(message));
    if (node.isNull())
        return;
    QCOMPARE(titles.count(), 1);
    if (has_view) {
        // The fields take the panel's width, inside its margins.
        panel.resize(400, 300);
        panel.show();
        QTRY_COMPARE(panel.surface_view()->width(), panel.surface_view()->parentWidget()->width() - 16);
        // An edit in the surface is a command, and its undo shows again.
        const QList<QSpinBox *> boxes = panel.surface_view()->findChildren<QSpinBox *>();
        QVERIFY(!boxes.isEmpty());
        boxes.first()->setValue(2);
        QVERIFY(QTest::qWaitFor([&] { return rig.commands.can_undo(); }, 1000));
        QCOMPARE(widgets::undo_text(&rig.commands), QStringLiteral("Undo Change Node"));
        // The type names the node by its delay now: name and type in the title.
        QVERIFY(QTest::qWaitFor([&] { return panel.windowTitle().contains(u" h "); }, 2000));
        QVERIFY(panel.windowTitle().endsWith(u"(Delay)"));
        rig.commands.undo();
        QVERIFY(QTest::qWaitFor([&] { return boxes.first()->value() == 0; }, 1000));
    }
    // The shown node goes away: the panel shows none.
    rig.commands.execute(std::make_unique<engine::RemoveNodeCommand>(&rig.project, engine::NodePlace{rack, {}, 0}));
    QCOMPARE(panel.windowTitle(), QStringLiteral("No Node Selected"));
    QVERIFY(!panel.surface_view());
}

void tst_Panels::add_node_search_data()
{
    QTest::addColumn<QString>("search");
    QTest::addColumn<QString>("first");
    QTest::addColumn<QString>("categories");
    QTest::newRow("everything") << "" << "io.marrowfield.display" << "Actions,Filters,Operators,Queues,Sources";
    QTest::newRow("by name, any case") << "DELAY" << "io.marrowfield.delay" << "Queues";
    QTest::newRow("by category") << "sources" << "io.marrowfield.custom" << "Sources";
    QTest::newRow("every word must match") << "rate keep" << "io.marrowfield.ratelimitearliest" << "Queues";
    QTest::newRow("nothing") << "zzz" << "" << "";
    // Names before descriptions; among equal matches sources before actions.
    QTest::newRow("sources first") << "hotkey" << "io.marrowfield.onhotkey" << "Sources,Actions";
    QTest::newRow("name before description") << "file" << "io.marrowfield.onfilechanged" << "Sources,Operators,Actions";
    QTest::newRow("description only") << "mailbox" << "io.marrowfield.receive" << "Sources,Actions";
}

void tst_Panels::add_node_search()
{
    QFETCH(QString, search);
    QFETCH(QString, first);
    QFETCH(QString, categories);
    PanelRig rig;
    widgets::AddNodeWidgetViewModel vm;
    vm.set_registry(&rig.registry);
    widgets::AddNodeWidget widget(&vm);
    QSignalSpy chosen(&widget, &widgets::AddNodeWidget::node_chosen);
    QTest::keyClicks(widget.search_field(), search);

    QStringList names;
    for (const auto &category : vm.categories())
        names << category.name;
    QCOMPARE(names.join(u','), categories);
    QCOMPARE(vm.first_match() ? vm.first_match()->id : QString(), first);
    // Down and Up in the search field walk the types, over the category rows.
    if (categories.contains(u',')) {
        for (const auto key : {Qt::Key_Down, Qt::Key_Return, Qt::Key_Up, Qt::Key_Return})
            QTest::keyClick(widget.search_field(), key);
        QCOMPARE(chosen.size(), 2);
        QVERIFY(!chosen[0][0].toString().isEmpty() && chosen[0][0].toString() != first);
        QCOMPARE(chosen[1][0].toString(), first);
        chosen.clear();
    }
    QTest::keyClick(widget.search_field(), Qt::Key_Return);
    QCOMPARE(chosen.count(), first.isEmpty() ? 0 : 1);
    if (!first.isEmpty())
        QCOMPARE(chosen.first().at(0).toString(), first);
    // An empty list says so, in one row that cannot be chosen.
    auto *list = widget.findChild<QTreeWidget *>();
    // The list takes the room below the search field.
    widget.resize(300, 400);
    widget.layout()->activate();
    QVERIFY(list->geometry().top() >= widget.search_field()->geometry().bottom());
    QVERIFY(list->height() > widget.height() / 2);
    QCOMPARE(list->topLevelItemCount() == 1 && list->topLevelItem(0)->text(0) == u"No node type matches",
             first.isEmpty());
}

namespace {

// The texts of the English locale that the German one says otherwise.
QSet<QString> english_only_texts()
{
    locale::Table english;
    locale::Table german;
    const QString folder = locale::application_dir() + QStringLiteral("/locale/");
    if (!locale::read_locale_file(folder + QStringLiteral("en-US.ini"), english) ||
        !locale::read_locale_file(folder + QStringLiteral("de-DE.ini"), german))
        return {};
    QSet<QString> texts;
    for (const auto &[key, text] : english) {
        const auto it = german.find(key);
        if (it != german.end() && it->second != text && !text.contains('%'))
            texts.insert(QString::fromUtf8(text));
    }
    return texts;
}

// The stored "language" of the built-in plugin's preferences, written to its file.
void store_language(int position)
{
    engine::Plugin *builtin = engine::builtin_plugin();
    corv_store_set_int(corv_plugin_preferences_store(builtin->handle()), "language", position);
    builtin->preferences()->write();
}

// Every text the chooser shows: categories, names and descriptions.
QStringList chooser_texts(const widgets::AddNodeWidget &widget)
{
    QStringList texts;
    QTreeWidget *list = widget.list();
    for (int c = 0; c < list->topLevelItemCount(); ++c) {
        QTreeWidgetItem *category = list->topLevelItem(c);
        texts << category->text(0);
        for (int t = 0; t < category->childCount(); ++t)
            texts << category->child(t)->text(0) << category->child(t)->text(1);
    }
    return texts;
}

} // namespace

void tst_Panels::language_from_start_data()
{
    QTest::addColumn<int>("stored");
    QTest::addColumn<QByteArray>("language");
    PanelRig rig; // reads the locale list from the test's folder
    QTest::newRow("German") << int(locale::locale_list().index_of("de-DE")) << QByteArray("de-DE");
    QTest::newRow("past the end") << int(locale::locale_list().size()) << QByteArray("en-US");
    QTest::newRow("negative") << -1 << QByteArray("en-US");
}

// The stored language applies before the node types register: a start in
// German registers and shows them in German. A position outside the list
// keeps English, says so once and is stored as English's, never read as
// the first row of the list.
void tst_Panels::language_from_start()
{
    QFETCH(int, stored);
    QFETCH(QByteArray, language);
    {
        PanelRig rig;
        store_language(stored);
    }
    const int english = int(locale::default_language_position());
    QVERIFY(locale::apply_language_preference(english));
    const bool ignored = language == "en-US";
    if (ignored)
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^Ignoring the stored language %1: ").arg(stored)));
    PanelRig rig(true);
    auto restore = qScopeGuard([english] {
        store_language(english);
        locale::apply_language_preference(english);
    });
    QCOMPARE(locale::application_translator()->locale(), language);
    QCOMPARE(corv_store_get_int(corv_plugin_preferences_store(engine::builtin_plugin()->handle()), "language"),
             ignored ? english : stored);
    const engine::NodeDefinition *hotkey = rig.registry.find(QStringLiteral("io.marrowfield.onhotkey"));
    QCOMPARE(hotkey->name, ignored ? QStringLiteral("On Hotkey") : QStringLiteral("Bei Tastenkombination"));
    QCOMPARE(hotkey->category, ignored ? QStringLiteral("Sources") : QStringLiteral("Quellen"));

    widgets::AddNodeWidgetViewModel vm;
    vm.set_registry(&rig.registry);
    widgets::AddNodeWidget widget(&vm);
    const QStringList texts = chooser_texts(widget);
    QCOMPARE(texts.count(QString()), 0); // every built-in type has a description
    const QSet<QString> english_only = english_only_texts();
    QVERIFY(!english_only.isEmpty());
    QStringList english_left;
    for (const QString &text : texts) {
        if (english_only.contains(text))
            english_left << text;
    }
    QCOMPARE(english_left.isEmpty(), !ignored);
    if (!ignored)
        QCOMPARE(widget.search_field()->placeholderText(), QStringLiteral("Knotentypen suchen"));
}

// A language confirmed in the preferences reaches every text of the main
// window at once: menus, panels and their context actions, search fields,
// the activity dock, the chooser (the built-in types from their keys, with
// the registry as it was) and Qt's own buttons where Qt ships German.
void tst_Panels::live_language_switch()
{
    PanelRig rig;
    engine::ProjectManager projects(rig.registry);
    widgets::MainWindowContext context;
    context.projects = &projects;
    context.watch_log = [](widgets::MainWindowContext::LogWatch) { return QList<std::pair<QtMsgType, QString>>(); };
    widgets::MainWindow window(context);
    window.open_initial_project();
    projects.commands()->execute(std::make_unique<engine::AddRackCommand>(projects.project(), 0, QStringLiteral("A")));
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    window.activity_dock()->show();
    window.rack_panel()->add_inside_action()->trigger();
    QTRY_VERIFY(window.rack_panel()->add_node_popup()->isVisible());

    const int english = int(locale::default_language_position());
    auto restore = qScopeGuard([&rig, english] {
        store_language(english);
        rig.plugins().confirm_preferences();
    });
    store_language(int(locale::locale_list().index_of("de-DE")));
    rig.plugins().confirm_preferences();
    for (QWidget *widget : QApplication::topLevelWidgets()) {
        QEvent change(QEvent::LanguageChange);
        QCoreApplication::sendEvent(widget, &change);
    }
    QCoreApplication::processEvents();
    QCOMPARE(rig.registry.find(QStringLiteral("io.marrowfield.onhotkey"))->name, QStringLiteral("On Hotkey"));

    QStringList texts;
    for (QAction *action : window.findChildren<QAction *>())
        texts << action->text();
    for (QMenu *menu : window.findChildren<QMenu *>())
        texts << menu->title();
    for (QLabel *label : window.findChildren<QLabel *>())
        texts << label->text();
    for (QAbstractButton *button : window.findChildren<QAbstractButton *>())
        texts << button->text();
    for (QLineEdit *field : window.findChildren<QLineEdit *>())
        texts << field->placeholderText();
    for (QTabWidget *tabs : window.findChildren<QTabWidget *>()) {
        for (int i = 0; i < tabs->count(); ++i)
            texts << tabs->tabText(i);
    }
    for (QDockWidget *dock : window.findChildren<QDockWidget *>())
        texts << dock->windowTitle();
    for (QAbstractItemView *view : window.findChildren<QAbstractItemView *>()) {
        const QAbstractItemModel *model = view->model();
        for (int column = 0; model && column < model->columnCount(); ++column)
            texts << model->headerData(column, Qt::Horizontal).toString();
        for (int row = 0; model && row < model->rowCount(); ++row)
            texts << model->index(row, 0).data().toString();
    }
    texts << chooser_texts(*window.rack_panel()->add_node_widget());
    texts << window.windowTitle();

    const QSet<QString> english_only = english_only_texts();
    QStringList english_left;
    for (const QString &text : std::as_const(texts)) {
        if (english_only.contains(text) || english_only.contains(QString(text).remove(u'&')))
            english_left << text;
    }
    QVERIFY2(english_left.isEmpty(), qPrintable(english_left.join(u'|')));
    QVERIFY(texts.contains(QStringLiteral("Bei Tastenkombination")));
    QVERIFY(texts.contains(QStringLiteral("Knotentypen suchen")));

    // Qt's standard buttons, where Qt's German is there to be found.
    QTranslator probe;
    if (probe.load(QLocale(QLocale::German), QStringLiteral("qtbase"), QStringLiteral("_"),
                   QLibraryInfo::path(QLibraryInfo::TranslationsPath))) {
        QDialogButtonBox buttons(QDialogButtonBox::Cancel);
        QCOMPARE(buttons.button(QDialogButtonBox::Cancel)->text(), probe.translate("QPlatformTheme", "Cancel"));
    }
    window.rack_panel()->add_node_popup()->hide();
}

void tst_Panels::hotkeys_view_data()
{
    QTest::addColumn<QString>("edit");
    QTest::addColumn<QStringList>("after");
    const QStringList &opened = kHotkeysOpened;
    QTest::newRow("as opened") << "" << opened;
    QTest::newRow("rack renamed, not through the history")
        << "rename" << QStringList{"Ctrl+K|A|On Ctrl+K|on|Also used by On Ctrl+K in Z", "J|A|On J|on|",
                                   "Ctrl+K|Z|On Ctrl+K|on|Also used by On Ctrl+K in A", "F5|C|On F5|off|"};
    QTest::newRow("rack enabled") << "enable" << QStringList{opened[0], opened[1], opened[2], "F5|C|On F5|on|"};
    QTest::newRow("hotkey changed")
        << "change" << QStringList{"Ctrl+K|A|On Ctrl+K|on|", "J|A|On J|on|", "Ctrl+L|B|On Ctrl+L|on|", opened[3]};
    QTest::newRow("node added") << "add" << (QStringList(opened) << "(none)|C|On Hotkey|off|");
    QTest::newRow("node deleted") << "delete" << QStringList{"J|A|On J|on|", "Ctrl+K|B|On Ctrl+K|on|", opened[3]};
    QTest::newRow("deleted and undone") << "undo" << opened;
    QTest::newRow("another project, then a node") << "replace" << QStringList{"(none)|R|On Hotkey|on|"};
}

// The hotkeys dock of the main window over a project with several racks:
// one row per On Hotkey node, a hotkey used twice marked on both, the rows
// following the project, and a double-click selecting the node.
void tst_Panels::hotkeys_view()
{
    QFETCH(QString, edit);
    QFETCH(QStringList, after);
    auto keyboard = std::make_shared<input::FakeKeyboard>();
    input::set_backend_factory([keyboard] { return keyboard->make_backend(); });
    const auto no_keyboard = qScopeGuard([] { input::set_backend_factory({}); });
    PanelRig rig; // the built-in node set
    engine::ProjectManager projects(rig.registry);
    projects.set_runtime_setup([](engine::ProjectRuntime &runtime, engine::CommandManager &commands) {
        cui::install_node_surfaces(runtime, &commands);
    });
    projects.new_project();
    model::Project *project = projects.project();
    engine::CommandManager *commands = projects.commands();
    const auto rack = [&](const char *name, std::size_t index) {
        auto add = std::make_unique<engine::AddRackCommand>(project, index, QString::fromLatin1(name));
        const QUuid id = add->rack_id();
        commands->execute(std::move(add));
        return id;
    };
    const auto hotkey = [&](const QUuid &in, const QUuid &parent, const char *text) {
        auto add = std::make_unique<engine::AddNodeCommand>(
            project, engine::NodePlace{in, parent, project->children_of(in, parent)->count()},
            QStringLiteral("io.marrowfield.onhotkey"));
        const QUuid id = add->node_id();
        commands->execute(std::move(add));
        if (text)
            commands->execute(std::make_unique<engine::SetNodePropertyCommand>(
                project, id, QStringLiteral("!hotkey"), model::Value::string(text)));
        return id;
    };
    const QUuid a = rack("A", 0);
    const QUuid a_k = hotkey(a, {}, "Ctrl+K");
    auto fork = std::make_unique<engine::AddNodeCommand>(project, engine::NodePlace{a, {}, 1},
                                                         QStringLiteral("io.marrowfield.fork"));
    const QUuid a_fork = fork->node_id();
    commands->execute(std::move(fork));
    const QUuid a_j = hotkey(a, a_fork, "J");
    const QUuid b = rack("B", 1);
    const QUuid b_k = hotkey(b, {}, "Ctrl+K");
    const QUuid c = rack("C", 2);
    hotkey(c, {}, "F5");
    commands->execute(std::make_unique<engine::SetRackEnabledCommand>(project, c, false));

    widgets::MainWindowContext context;
    context.projects = &projects;
    widgets::MainWindow window(context);
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    QAction *toggle = window.action(widgets::MainWindow::Action::Hotkeys);
    QCOMPARE(toggle->shortcut(), QKeySequence(QStringLiteral("Ctrl+Shift+H")));
    toggle->trigger();
    QVERIFY(window.hotkeys_dock()->isVisible());
    widgets::HotkeysViewModel *model = window.hotkeys_panel()->view_model();
    QVERIFY(model->is_listening());
    QAbstractItemModelTester tester(model, QAbstractItemModelTester::FailureReportingMode::QtTest);
    // "hotkey|rack|node|on or off|tooltip", the tooltip of a hotkey used twice naming the others.
    const auto rows = [model] {
        QStringList shown;
        for (int row = 0; row < model->rowCount(); ++row) {
            const auto cell = [&](int column, int role = Qt::DisplayRole) {
                return model->index(row, column).data(role);
            };
            const bool on = cell(widgets::HotkeysViewModel::EnabledColumn, Qt::CheckStateRole).value<Qt::CheckState>() ==
                            Qt::Checked;
            const QString tip = cell(0, Qt::ToolTipRole).toString();
            const bool marked = cell(0, widgets::HotkeysViewModel::DuplicateRole).toBool() &&
                                !cell(0, Qt::DecorationRole).value<QIcon>().isNull();
            shown << QStringList{cell(0).toString(), cell(1).toString(), cell(2).toString(),
                                 on ? QStringLiteral("on") : QStringLiteral("off"),
                                 marked == !tip.isEmpty() ? tip : QStringLiteral("mark without tooltip")}
                         .join(u'|');
        }
        return shown.join(u'\n');
    };
    QTRY_COMPARE(rows(), kHotkeysOpened.join(u'\n'));
    if (edit == u"rename") {
        project->find_rack(b)->set_name(QStringLiteral("Z"));
    } else if (edit == u"enable") {
        QVERIFY(window.racks_panel()->view_model()->set_rack_enabled(c, true));
    } else if (edit == u"change") {
        commands->execute(std::make_unique<engine::SetNodePropertyCommand>(project, b_k, QStringLiteral("!hotkey"),
                                                                           model::Value::string("Ctrl+L")));
    } else if (edit == u"add") {
        hotkey(c, {}, nullptr);
    } else if (edit == u"replace") {
        projects.new_project();
        project = projects.project();
        commands = projects.commands();
        hotkey(rack("R", 0), {}, nullptr);
    } else if (edit == u"delete" || edit == u"undo") {
        window.racks_panel()->view_model()->set_selected_rack(a);
        QVERIFY(window.rack_panel()->view_model()->remove_nodes({a_k}));
        if (edit == u"undo") {
            QTRY_COMPARE(model->rowCount(), 3);
            window.action(widgets::MainWindow::Action::Undo)->trigger();
        }
    }
    QTRY_COMPARE(rows(), after.join(u'\n'));
    if (edit == u"replace")
        return;

    // A double-click goes to the node: its rack and it are selected.
    QTableView *view = window.hotkeys_panel()->view();
    QModelIndex j;
    for (int row = 0; row < view->model()->rowCount(); ++row) {
        if (view->model()->index(row, 0).data(widgets::HotkeysViewModel::NodeIdRole).toUuid() == a_j)
            j = view->model()->index(row, widgets::HotkeysViewModel::NodeColumn);
    }
    QVERIFY(j.isValid());
    window.racks_panel()->view_model()->set_selected_rack(c);
    view->scrollTo(j);
    // The press before the double-click, as a mouse gives it.
    QTest::mouseClick(view->viewport(), Qt::LeftButton, {}, view->visualRect(j).center());
    QCOMPARE(window.racks_panel()->view_model()->selected_rack(), c);
    QTest::mouseDClick(view->viewport(), Qt::LeftButton, {}, view->visualRect(j).center());
    QCOMPARE(window.racks_panel()->view_model()->selected_rack(), a);
    QCOMPARE(window.rack_panel()->current_node(), a_j);
    // Closed, the table no longer follows the project.
    toggle->trigger();
    QVERIFY(!model->is_listening());
}

// The page open last time opens again while it is there; the list's
// "Plugins" heading is no page, and anything else opens the first page.
void tst_Panels::preferences_window_opens_the_remembered_page_data()
{
    QTest::addColumn<QVariant>("remembered");
    QTest::addColumn<int>("page");
    QTest::newRow("first page") << QVariant(0) << 0;
    QTest::newRow("plugins heading") << QVariant(1) << 0;
    QTest::newRow("plugin page") << QVariant(2) << 1;
    QTest::newRow("gone") << QVariant(3) << 0;
    QTest::newRow("negative") << QVariant(-1) << 0;
    QTest::newRow("nothing remembered") << QVariant() << 0;
}

void tst_Panels::preferences_window_opens_the_remembered_page()
{
    QFETCH(QVariant, remembered);
    QFETCH(int, page);
    PreferencesPlugins p;
    if (page > 0 && p.plugins.count() < 2)
        QSKIP("the plugin with a preferences page is not built");
    {
        QSettings settings(PreferencesPlugins::settings_file(), QSettings::IniFormat);
        settings.setValue(QStringLiteral("PreferencesWindow/OpenPanel"), remembered);
        if (!remembered.isValid())
            settings.remove(QStringLiteral("PreferencesWindow/OpenPanel"));
    }
    widgets::PreferencesWindow window(new widgets::PreferencesWindowViewModel(p.plugins));
    QCOMPARE(window.current_page(), qsizetype(page));
    window.reject();
}

// A language change reaches an open window: its texts follow.
void tst_Panels::preferences_window_follows_the_language()
{
    PreferencesPlugins p;
    const qsizetype german = locale::locale_list().display_names().indexOf(QStringLiteral("Deutsch (Deutschland)"));
    QVERIFY(german >= 0);
    widgets::PreferencesWindow window(new widgets::PreferencesWindowViewModel(p.plugins));
    const QString english = window.windowTitle();
    for (qsizetype language : {german, locale::default_language_position()}) {
        QVERIFY(locale::apply_language_preference(language));
        QEvent change(QEvent::LanguageChange);
        QCoreApplication::sendEvent(&window, &change);
        QCOMPARE(window.windowTitle(), language == german ? QStringLiteral("Einstellungen") : english);
    }
    window.reject();
}

QTEST_MAIN(tst_Panels)
#include "tst_panels.moc"
