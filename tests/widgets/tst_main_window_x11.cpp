// The main window on a private X server (run under Xvfb) with real mouse and
// keyboard input from xdotool: a rack and a node chosen by clicking, the
// on-custom node's trigger button pressed, the event's row in the activity
// panel (opened with its shortcut) naming its rack and node, the display
// node showing the event, Ctrl+S writing the file; then the built corvane
// started on the project, saved with Ctrl+S and quit with Ctrl+Q.

#include "app/builtin_plugin.h"
#include "cui/property_surface.h"
#include "engine/config_manager.h"
#include "engine/node_registry.h"
#include "persistence/project_manager.h"
#include "sdk/plugin_list.h"
#include "widgets/activity_panel.h"
#include "widgets/activity_view_model.h"
#include "widgets/main_window.h"
#include "widgets/node_panel.h"
#include "widgets/rack_panel.h"
#include "widgets/rack_panel_view_model.h"
#include "widgets/racks_panel.h"
#include "widgets/racks_panel_view_model.h"
#include "tests/test_files.h"

#include <cstdio>

#include <QAbstractItemView>
#include <QDockWidget>
#include <QTableView>
#include <QApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLabel>
#include <QListView>
#include <QLoggingCategory>
#include <QProcess>
#include <QProxyStyle>
#include <QPushButton>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <QTreeView>

using namespace corv;

namespace {

const char kRackA[] = "a1a1a1a1-0000-4000-8000-000000000001";
const char kRackB[] = "b2b2b2b2-0000-4000-8000-000000000002";
const char kCustom[] = "c3c3c3c3-0000-4000-8000-000000000003";
const char kDisplay[] = "d4d4d4d4-0000-4000-8000-000000000004";
const char kWrite[] = "e5e5e5e5-0000-4000-8000-000000000005";

// Two racks; the second holds an on-custom node with a display node inside
// and, after it, a write-text node that writes the event's greeting to `out`.
QByteArray project_document(const QString &out)
{
    return QStringLiteral("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<project version=\"1\">\n"
                          "<rack id=\"%1\" name=\"Idle\"/>\n"
                          "<rack id=\"%2\" name=\"Buttons\"><node>%3</node></rack>\n"
                          "<node id=\"%3\" component=\"io.marrowfield.custom\">\n"
                          "<prop key=\"!name\" type=\"string\">Press</prop>\n"
                          "<prop key=\"!scope\" type=\"string\">greeting: hello</prop>\n"
                          "<node>%4</node><node>%5</node></node>\n"
                          "<node id=\"%4\" component=\"io.marrowfield.display\"/>\n"
                          "<node id=\"%5\" component=\"io.marrowfield.writetext\">\n"
                          "<prop key=\"!path\" type=\"string\">%6</prop>\n"
                          "<prop key=\"!value\" type=\"string\">{greeting}</prop></node>\n"
                          "</project>\n")
        .arg(QLatin1StringView(kRackA), QLatin1StringView(kRackB), QLatin1StringView(kCustom),
             QLatin1StringView(kDisplay), QLatin1StringView(kWrite), out.toHtmlEscaped())
        .toUtf8();
}

bool xdotool(const QStringList &arguments, QByteArray *output = nullptr)
{
    QProcess process;
    process.start(QStringLiteral("xdotool"), arguments);
    const bool ok = process.waitForFinished(10000) && process.exitCode() == 0;
    if (output)
        *output = process.readAllStandardOutput().trimmed();
    return ok;
}

// A real click at a point of the screen.
void click_at(const QPoint &global)
{
    QVERIFY(xdotool(
        {QStringLiteral("mousemove"), QString::number(global.x()), QString::number(global.y())}));
    QTest::qWait(50);
    QVERIFY(xdotool({QStringLiteral("click"), QStringLiteral("1")}));
    QTest::qWait(150);
}

// The middle of a row's text, on the screen.
QPoint row_point(QAbstractItemView *view, const QModelIndex &index)
{
    const QRect rect = view->visualRect(index);
    return view->viewport()->mapToGlobal(QPoint(rect.left() + 30, rect.center().y()));
}

using corv::test::read_file;
using corv::test::write_file;

} // namespace

class TstMainWindowX11 : public QObject {
    Q_OBJECT

    engine::PluginList m_plugins;
    engine::NodeRegistry m_registry;
    engine::ConfigManager m_config;
    QTemporaryDir m_dir;

    QString path(const char *name) const { return m_dir.filePath(QString::fromLatin1(name)); }

    // Where the clicks went, from the window's top left: the same places in
    // the built program's window, which has the same size, style and project.
    QList<QPoint> m_clicks;

    void click(QWidget *window, const QPoint &global)
    {
        m_clicks.append(global - window->mapToGlobal(QPoint(0, 0)));
        click_at(global);
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (!qEnvironmentVariableIsSet("CORV_XVFB"))
            QSKIP("presses keys and moves the mouse: runs only on the private X server");
        QStandardPaths::setTestModeEnabled(true);
        QLoggingCategory::setFilterRules(QStringLiteral("corv.*.debug=false\ncorv.*.info=false"));
        QCoreApplication::setApplicationName(QStringLiteral("Corvane"));
        QCoreApplication::setApplicationVersion(QStringLiteral("0.9.4"));
        // Styled as the program is.
        QApplication::setStyle(new QProxyStyle);
        QFile sheet(QStringLiteral(":/corv/style.css"));
        QVERIFY(sheet.open(QIODevice::ReadOnly | QIODevice::Text));
        qApp->setStyleSheet(QString::fromUtf8(sheet.readAll()));
        install_builtin_nodes();
        m_plugins.add_builtin(builtin_plugin_entry_points(),
                              QCoreApplication::applicationDirPath());
        m_plugins.initialize(m_registry);
        m_config.set_save_versions(3);
    }

    void init() { QTest::failOnWarning(QRegularExpression(QStringLiteral(".*"))); }

    void click_trigger_and_save()
    {
        const QString file = path("buttons.corv");
        write_file(file, project_document(path("greeting.txt")));
        engine::ProjectManager projects(m_registry, &m_config);
        projects.set_runtime_setup(
            [](engine::ProjectRuntime &runtime, engine::CommandManager &commands) {
                cui::install_node_surfaces(runtime, &commands);
            });
        widgets::MainWindowContext context;
        context.projects = &projects;
        context.settings_file = path("settings.ini");
        widgets::MainWindow window(context);
        window.open_initial_project(file);
        window.move(0, 0);
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        QTest::qWait(200);

        // The activity panel from the keyboard, before anything happens.
        window.activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(&window));
        QVERIFY(xdotool({QStringLiteral("key"), QStringLiteral("ctrl+shift+a")}));
        QTRY_VERIFY(window.activity_dock()->isVisible());
        QTest::qWait(100);

        // The rack by mouse: its node tree opens.
        widgets::RacksPanel *racks = window.racks_panel();
        click(&window, row_point(racks->list(), racks->list()->model()->index(1, 0)));
        QTRY_COMPARE(racks->view_model()->selected_rack(), QUuid(kRackB));
        widgets::RackPanel *rack = window.rack_panel();
        QTRY_COMPARE(rack->view_model()->rack(), QUuid(kRackB));

        // The on-custom node by mouse, then its trigger button.
        click(&window, row_point(rack->tree(), rack->view_model()->index_of(QUuid(kCustom))));
        QTRY_COMPARE(rack->current_node(), QUuid(kCustom));
        QTRY_VERIFY(window.node_panel()->surface_view());
        QPushButton *trigger = nullptr;
        QTRY_VERIFY((trigger = window.node_panel()->surface_view()->findChild<QPushButton *>()));
        QTRY_VERIFY(trigger->isVisible());
        click(&window, trigger->mapToGlobal(trigger->rect().center()));

        // The activity panel lists the event where it arrived: the display
        // node of "Buttons", with its keys.
        const QAbstractItemModel *activity = window.activity_panel()->view()->model();
        const auto activity_rows = [activity] {
            QStringList rows;
            for (int row = 0; row < activity->rowCount(); ++row) {
                QStringList cells;
                for (int column = widgets::ActivityViewModel::RackColumn;
                     column < widgets::ActivityViewModel::ColumnCount; ++column)
                    cells << activity->index(row, column).data().toString();
                rows << cells.join(u'|');
            }
            return rows;
        };
        QTRY_COMPARE(activity_rows(), QStringList{QStringLiteral("Buttons|Display|greeting: hello")});
        QCOMPARE(activity->index(0, 0).data(widgets::ActivityViewModel::NodeIdRole).toUuid(), QUuid(kDisplay));

        // The display node shows what the trigger sent.
        click(&window, row_point(rack->tree(), rack->view_model()->index_of(QUuid(kDisplay))));
        QTRY_COMPARE(rack->current_node(), QUuid(kDisplay));
        const auto shown = [&window] {
            QStringList texts;
            if (QWidget *view = window.node_panel()->surface_view()) {
                for (QLabel *label : view->findChildren<QLabel *>())
                    texts.append(label->text());
            }
            return texts;
        };
        QTRY_VERIFY2(shown().contains(QStringLiteral("greeting: hello")),
                     qPrintable(shown().join(QLatin1Char('|'))));
        QCOMPARE(read_file(path("greeting.txt")), QByteArray("hello"));

        // Ctrl+S from the keyboard: the first save after opening keeps the
        // old file as a backup.
        QVERIFY(xdotool({QStringLiteral("key"), QStringLiteral("ctrl+s")}));
        QTRY_VERIFY(QFileInfo::exists(path("buttons.001.corv")));
        QVERIFY(read_file(file).contains("greeting: hello"));
        QVERIFY(!projects.is_modified());
    }

    // The built program: opens the project of its command line in its
    // window, takes the same clicks (the trigger's event is written out by
    // the node after the display), saves on Ctrl+S and quits on Ctrl+Q with
    // exit code 0.
    void corvane_clicks_saves_and_quits()
    {
        QCOMPARE(m_clicks.size(), 4);
        QTemporaryDir home;
        const QString file = home.filePath(QStringLiteral("show.corv"));
        const QString out = home.filePath(QStringLiteral("greeting.txt"));
        write_file(file, project_document(out));
        QVERIFY(QDir(home.path()).mkpath(QStringLiteral("run")));
        QFile::setPermissions(home.filePath(QStringLiteral("run")),
                              QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("HOME"), home.path());
        env.insert(QStringLiteral("XDG_DATA_HOME"), home.filePath(QStringLiteral("data")));
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.filePath(QStringLiteral("config")));
        env.insert(QStringLiteral("XDG_RUNTIME_DIR"), home.filePath(QStringLiteral("run")));
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
        QProcess corvane;
        corvane.setProcessEnvironment(env);
        corvane.setProcessChannelMode(QProcess::MergedChannels);
        corvane.start(QStringLiteral(CORVANE_EXECUTABLE), {file});
        QVERIFY(corvane.waitForStarted());

        QByteArray window;
        QVERIFY2(xdotool({QStringLiteral("search"), QStringLiteral("--all"),
                          QStringLiteral("--sync"), QStringLiteral("--onlyvisible"),
                          QStringLiteral("--pid"), QString::number(corvane.processId()),
                          QStringLiteral("--name"), QStringLiteral("^show – Corvane")},
                         &window),
                 corvane.readAll().constData());
        window = window.split('\n').first();
        QTest::qWait(300);
        QByteArray geometry;
        QVERIFY(xdotool({QStringLiteral("getwindowgeometry"), QStringLiteral("--shell"),
                         QString::fromLatin1(window)},
                        &geometry));
        QPoint origin;
        for (const QByteArray &line : geometry.split('\n')) {
            if (line.startsWith("X="))
                origin.setX(line.mid(2).toInt());
            else if (line.startsWith("Y="))
                origin.setY(line.mid(2).toInt());
        }
        // The activity dock open as in the first test, so that the panels
        // stand where they stood there.
        QVERIFY(xdotool({QStringLiteral("windowfocus"), QStringLiteral("--sync"),
                         QString::fromLatin1(window)}));
        QVERIFY(xdotool({QStringLiteral("key"), QStringLiteral("ctrl+shift+a")}));
        QTest::qWait(300);
        for (const QPoint &offset : std::as_const(m_clicks)) {
            click_at(origin + offset);
            QTest::qWait(150);
        }
        QTRY_COMPARE(read_file(out), QByteArray("hello"));
        QVERIFY(xdotool({QStringLiteral("windowfocus"), QStringLiteral("--sync"),
                         QString::fromLatin1(window)}));
        QVERIFY(xdotool({QStringLiteral("key"), QStringLiteral("ctrl+s")}));
        QTRY_VERIFY(QFileInfo::exists(home.filePath(QStringLiteral("show.001.corv"))));
        QVERIFY(read_file(file).contains("Buttons"));

        QVERIFY(xdotool({QStringLiteral("key"), QStringLiteral("ctrl+q")}));
        QVERIFY(corvane.waitForFinished(10000));
        const QByteArray output = corvane.readAll();
        const bool clean = corvane.exitStatus() == QProcess::NormalExit && corvane.exitCode() == 0;
        if (!clean)
            std::fputs(output.constData(), stderr); // QVERIFY2 would cut it short
        QVERIFY(clean);
        QVERIFY2(output.contains("Shutting down with exit code 0"), output.constData());
        const QString settings = home.filePath(QStringLiteral("data/Corvane/settings.ini"));
        QVERIFY(read_file(settings).contains("LastOpenPath"));
    }
};

QTEST_MAIN(TstMainWindowX11)
#include "tst_main_window_x11.moc"
