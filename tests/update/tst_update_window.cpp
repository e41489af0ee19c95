// The update window, the update check entry points and the install-plugin
// window under the offscreen platform, against a local HTTP server.
#include "archive_writer.h"
#include "http_server.h"

#include "sdk/plugin_list.h"
#include "update/candidates.h"
#include "update/platform.h"
#include "widgets/install_plugin_window.h"
#include "widgets/update_window.h"
#include "widgets/update_window_view_model.h"

#include <QApplication>
#include <QBuffer>
#include <QCryptographicHash>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QLibrary>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QPushButton>
#include <QRadioButton>
#include <QRegularExpression>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTextBrowser>

#include <algorithm>

using namespace corv;

namespace {

QJsonObject entry(const char *version, const QJsonObject &requirements = {},
                  const QJsonArray &steps = {})
{
    return {{QStringLiteral("version"), QString::fromLatin1(version)},
            {QStringLiteral("descriptionUrl"),
             QStringLiteral("notes-%1.html").arg(QString::fromLatin1(version))},
            {QStringLiteral("requires"), requirements},
            {QStringLiteral("methods"),
             QJsonObject{{QString::fromLatin1(update::platform::plugin_update_method()),
                          steps.isEmpty() ? QJsonArray{QJsonObject{
                                                {QStringLiteral("run"), QStringLiteral("true")}}}
                                          : steps}}}};
}

QByteArray manifest(const QJsonArray &entries, QJsonObject root = {})
{
    root[QStringLiteral("formatVersion")] = 1;
    root[QStringLiteral("entries")] = entries;
    return QJsonDocument(root).toJson();
}

// A plugin whose update address is g_update_url.
const char *g_update_url = nullptr;
int sdk_version()
{
    return 1;
}
void set_handle(corv_plugin *) {}
void get_info(corv_plugin_info *info)
{
    info->id = "io.x.q";
    info->name = "Q";
    info->version = "1.0";
    info->update_url = g_update_url;
}

template <typename T> T *top_level()
{
    for (QWidget *widget : QApplication::topLevelWidgets()) {
        if (auto *found = qobject_cast<T *>(widget); found && found->isVisible())
            return found;
    }
    return nullptr;
}

} // namespace

class tst_UpdateWindow : public QObject {
    Q_OBJECT
private:
    HttpServer *m_server = nullptr;
    QTemporaryDir m_folder;

    widgets::UpdateContext context(bool plugin_too = true) const
    {
        widgets::UpdateContext c;
        const auto url = [this](const char *path) {
            QUrl u = m_server->url(QString::fromLatin1(path));
            u.setFragment(QString::fromLatin1(update::platform::plugin_update_method()));
            return u;
        };
        c.components.append({QStringLiteral("io.x.app"), QStringLiteral("App"), QVersionNumber(1),
                             url("/app.json"), m_folder.path()});
        if (plugin_too)
            c.components.append({QStringLiteral("io.x.lib"), QStringLiteral("Lib"),
                                 QVersionNumber(1), url("/lib.json"), m_folder.path()});
        c.user_agent = "Corvane/test";
        c.settings_file = m_folder.filePath(QStringLiteral("settings.ini"));
        c.plugins_folder = m_folder.filePath(QStringLiteral("plugins"));
        c.stall_timeout_ms = 2000;
        return c;
    }

private slots:
    void initTestCase() { QTest::failOnWarning(QRegularExpression(QStringLiteral(".*"))); }
    void init()
    {
        m_server = new HttpServer;
        m_server->serve(
            QStringLiteral("/app.json"),
            manifest({entry("3.0", {{QStringLiteral("io.x.lib"), QStringLiteral("2.0")}}),
                      entry("2.0")}));
        m_server->serve(QStringLiteral("/lib.json"), manifest({entry("2.0")}));
        m_server->serve(QStringLiteral("/notes-3.0.html"), "<h1>App three</h1>");
    }
    void cleanup()
    {
        while (QWidget *window = QApplication::activeModalWidget())
            window->close();
        for (QWidget *widget : QApplication::topLevelWidgets())
            widget->close();
        QTest::qWait(0);
        delete m_server;
    }

    // The window, row by row: release notes (cached, or the error text), the
    // relations, and the choices, remembered as ignored versions on accept.
    void update_window()
    {
        widgets::check_for_updates(nullptr, context());
        QTRY_VERIFY(top_level<widgets::UpdateWindow>());
        widgets::UpdateWindow *window = top_level<widgets::UpdateWindow>();
        QCOMPARE(window->windowTitle(), QStringLiteral("Software Update"));
        auto *model = window->model();
        auto *list = window->findChild<QListWidget *>();
        auto *notes = window->findChild<QTextBrowser *>();
        QCOMPARE(list->count(), 2);
        QCOMPARE(list->item(0)->text(), QStringLiteral("App 3.0"));
        QTRY_VERIFY(notes->toPlainText().contains(QStringLiteral("App three")));

        QStringList captions;
        for (const auto &section : model->sections())
            captions.append(section.caption + QStringLiteral(": ") +
                            section.entries.join(QStringLiteral(", ")));
        QCOMPARE(captions, (QStringList{"One update will be installed with App:: Lib 2.0",
                                        "App requires one other component:: Lib 2.0",
                                        "One version of App was skipped:: App 2.0 (skipped)"}));

        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression(QStringLiteral(
                                 "^Lib updater: failed to fetch changelog: .*Not Found$")));
        list->setCurrentRow(1);
        QTRY_COMPARE(notes->toPlainText(), QStringLiteral("The release notes couldn't be loaded."));
        // The details follow the chosen row.
        const auto title_starts = [&](const QString &start) {
            const QList<QLabel *> labels = window->findChildren<QLabel *>();
            return std::any_of(labels.begin(), labels.end(), [&](QLabel *label) { return label->text().startsWith(start); });
        };
        QVERIFY(title_starts(QStringLiteral("Lib 2.0")));
        QVERIFY(!title_starts(QStringLiteral("App 3.0")));
        // Skipping the library the application needs keeps it as a dependency.
        QTest::ignoreMessage(QtInfoMsg,
                             QRegularExpression(QStringLiteral("^Perf updater: updated graph")));
        window->findChildren<QRadioButton *>().at(1)->click();
        QVERIFY(model->will_install(1));
        QVERIFY(!list->item(1)->font().strikeOut());
        // Skipping the application too frees it.
        list->setCurrentRow(0);
        QCOMPARE(notes->toPlainText(), QStringLiteral("App three")); // cached, no second request
        QCOMPARE(m_server->requested.count(QStringLiteral("/notes-3.0.html")), 1);
        QTest::ignoreMessage(QtInfoMsg,
                             QRegularExpression(QStringLiteral("^Perf updater: updated graph")));
        window->findChildren<QRadioButton *>().at(1)->click();
        QVERIFY(!model->will_install(1));
        QVERIFY(list->item(0)->font().strikeOut());
        list->setCurrentRow(1); // each row shows its own choice
        QVERIFY(window->findChildren<QRadioButton *>().at(1)->isChecked());

        window->accept(); // nothing to install: only the skipped versions are kept
        QSettings settings(context().settings_file, QSettings::IniFormat);
        QCOMPARE(update::ignored_version(settings, QStringLiteral("io.x.app")),
                 QVersionNumber(3, 0));
        QCOMPARE(update::ignored_version(settings, QStringLiteral("io.x.lib")),
                 QVersionNumber(2, 0));
        QVERIFY(settings.contains(QStringLiteral("UpdateWindow/Geometry")));
        settings.remove(QStringLiteral("Updates"));
    }

    // What "Check for Updates" ends with when there is no update window.
    void check_results_data()
    {
        QTest::addColumn<QByteArray>("app_manifest");
        QTest::addColumn<QString>("title");
        QTest::addColumn<QString>("text");
        QTest::newRow("nothing newer") << manifest({entry("1.0")}) << "Software Update"
                                       << "Corvane and all plugins are up to date.";
        QTest::newRow("failed") << QByteArray() << "Couldn't Check for Updates"
                                << "Corvane couldn't check for updates. Check your internet "
                                   "connection and try again later.";
    }
    void check_results()
    {
        QFETCH(QByteArray, app_manifest);
        QFETCH(QString, title);
        QFETCH(QString, text);
        if (app_manifest.isEmpty())
            m_server->routes.remove(QStringLiteral("/app.json"));
        else
            m_server->serve(QStringLiteral("/app.json"), app_manifest);
        QWidget parent;
        // Once for the check, once for the background check.
        for (int i = 0; i < 2 && app_manifest.isEmpty(); ++i)
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral(
                                                   "^App updater: failed to fetch manifest")));
        widgets::check_for_updates(&parent, context(false));
        QTRY_VERIFY(parent.findChild<QMessageBox *>());
        auto *box = parent.findChild<QMessageBox *>();
        QCOMPARE(box->windowTitle(), title);
        QCOMPARE(box->text(), text);

        // The background check says nothing in either case.
        const qsizetype before = m_server->requested.size();
        widgets::check_for_updates_in_background(&parent, context(false));
        QTRY_COMPARE(m_server->requested.size(), before + 1);
        QTest::qWait(50);
        QCOMPARE(parent.findChildren<QMessageBox *>().size(), 1);
        QVERIFY(!top_level<widgets::UpdateWindow>());

        // A window closed while its check still waits takes the whole check
        // with it (the leak checker sees anything left).
        auto *gone = new QWidget;
        widgets::check_for_updates_in_background(gone, context(false));
        delete gone;
        QTest::qWait(50);
    }

    // Plugins name the manifest's address; one that names no install
    // method (the maker's own plugins) is given this platform's.
    void update_context_method_data()
    {
        QTest::addColumn<QByteArray>("address");
        QTest::addColumn<QString>("expected"); // empty: nothing to update
        const QString plain = QStringLiteral("https://updates.marrowfield.example/plugins/mqtt/manifest.json");
        QTest::newRow("no method") << plain.toUtf8()
                                   << plain + u'#' + QString::fromLatin1(update::platform::plugin_update_method());
        QTest::newRow("its own method") << (plain + QStringLiteral("#win64.zip")).toUtf8()
                                        << plain + QStringLiteral("#win64.zip");
        QTest::newRow("no address") << QByteArray() << QString();
    }
    void update_context_method()
    {
        QFETCH(QByteArray, address);
        QFETCH(QString, expected);
        g_update_url = address.isEmpty() ? nullptr : address.constData();
        engine::PluginList plugins;
        engine::PluginEntryPoints entry_points;
        entry_points.sdk_version = sdk_version;
        entry_points.set_handle = set_handle;
        entry_points.get_info = get_info;
        QVERIFY(plugins.add_builtin(entry_points, m_folder.path()));
        const widgets::UpdateContext context = widgets::update_context(plugins, "UA");
        QCOMPARE(context.plugins.size(), 1);
        QCOMPARE(context.plugins[0].version, QVersionNumber(1, 0));
        QCOMPARE(context.components.size(), expected.isEmpty() ? 0 : 1);
        if (!expected.isEmpty())
            QCOMPARE(context.components[0].manifest_url.toString(), expected);
    }

    // Whoever keeps unsaved changes keeps the program: no update starts.
    void install_waits_for_unsaved_changes()
    {
        widgets::UpdateContext c = context();
        int asked = 0;
        c.confirm_quit = [&] { return ++asked < 0; };
        c.quit = [] { QFAIL("the program quit"); };
        QVERIFY(!widgets::install_updates(nullptr, c, {}));
        QCOMPARE(asked, 1);
        for (QWidget *top : QApplication::topLevelWidgets())
            QVERIFY2(!qobject_cast<QMessageBox *>(top), qPrintable(static_cast<QMessageBox *>(top)->text()));
    }

    void install_plugin_window()
    {
        // Plugin p as release `version`, its library named for this platform.
        const QString library =
            QLibrary::isLibrary(QStringLiteral("p.dll")) ? "io.x.p.dll" : "io.x.p.so";
        // A 96 px icon, its bottom-right quarter blue.
        QImage image(96, 96, QImage::Format_RGB32);
        image.fill(Qt::white);
        for (int y = 48; y < 96; ++y)
            for (int x = 48; x < 96; ++x)
                image.setPixel(x, y, qRgb(0, 0, 255));
        QByteArray png;
        QBuffer png_buffer(&png);
        QVERIFY(png_buffer.open(QIODevice::WriteOnly) && image.save(&png_buffer, "PNG"));
        m_server->serve(QStringLiteral("/icon.png"), png);
        const auto serve = [this, &library, &png](const char *version) {
            const QByteArray archive = archive_writer::gzip(
                archive_writer::tar({{library.toUtf8(), QByteArray("library ") + version, 0755}}));
            const QByteArray digest =
                QCryptographicHash::hash(archive, QCryptographicHash::Sha256).toHex();
            m_server->serve(QStringLiteral("/p.tar.gz"), archive);
            const QJsonArray steps{
                QJsonObject{{QStringLiteral("download"), QStringLiteral("p.tar.gz")},
                            {QStringLiteral("destination"), QStringLiteral("p.tar.gz")},
                            {QStringLiteral("sha256"), QString::fromLatin1(digest)},
                            {QStringLiteral("size"), archive.size()}},
                QJsonObject{{QStringLiteral("extract"), QStringLiteral("p.tar.gz")},
                            {QStringLiteral("destination"), QStringLiteral(".")}}};
            m_server->serve(QStringLiteral("/plugin.json"),
                            manifest({entry(version, {}, steps)},
                                     {{QStringLiteral("id"), QStringLiteral("io.x.p")},
                                      {QStringLiteral("displayName"), QStringLiteral("Pea")},
                                      {QStringLiteral("iconUrl"), QStringLiteral("icon.png")},
                                      {QStringLiteral("iconSha256"),
                                       QString::fromLatin1(QCryptographicHash::hash(png, QCryptographicHash::Sha256).toHex())},
                                      {QStringLiteral("iconSize"), png.size()}}));
        };
        serve("1.0");

        widgets::InstallPluginWindow *window =
            widgets::show_install_plugin_window(nullptr, context());
        QCOMPARE(window->windowTitle(), QStringLiteral("Install Plugin"));
        for (QWidget *part : {static_cast<QWidget *>(window->icon_label()), static_cast<QWidget *>(window->plugin_label()),
                              static_cast<QWidget *>(window->status_label())})
            QVERIFY(window->isAncestorOf(part));
        QVERIFY(!window->fetch_button()->isEnabled());
        window->url_field()->setText(m_server->url(QStringLiteral("/plugin.json")).toString());
        window->fetch_button()->click();
        QTRY_VERIFY(window->install_button()->isEnabled());
        QCOMPARE(window->plugin_label()->text(), QStringLiteral("Pea (io.x.p)"));
        // The whole icon shows, made to fit its 48 px place.
        QTRY_VERIFY(!window->icon_label()->pixmap().isNull());
        const QImage shown = window->icon_label()->grab().toImage();
        QCOMPARE(shown.size(), QSize(48, 48));
        QCOMPARE(shown.pixelColor(40, 40), QColor(Qt::blue));
        QCOMPARE(shown.pixelColor(8, 8), QColor(Qt::white));
        window->install_button()->click();
        QTRY_COMPARE(
            window->status_label()->text(),
            QStringLiteral("Pea was installed. It will be loaded the next time Corvane starts."));
        const QString installed = context().plugins_folder + QStringLiteral("/io.x.p/") + library;
        QVERIFY(QFileInfo::exists(installed));

        // The same plugin again, newer: the window says it is an update.
        serve("1.1");
        window->fetch_button()->click();
        QTRY_VERIFY(window->install_button()->isEnabled());
        QCOMPARE(window->status_label()->text(),
                 QStringLiteral("Pea 1.0 is installed; Install updates it to 1.1 and keeps its "
                                "settings."));
        window->install_button()->click();
        QTRY_VERIFY(window->status_label()->text().startsWith(QStringLiteral("Pea was installed")));
        QFile updated(installed);
        QVERIFY(updated.open(QIODevice::ReadOnly));
        QCOMPARE(updated.readAll(), QByteArray("library 1.1"));

        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral(
                                               "^plugin installer: could not get manifest")));
        window->url_field()->setText(m_server->url(QStringLiteral("/nothing.json")).toString());
        window->fetch_button()->click();
        QTRY_VERIFY(window->status_label()->text().startsWith(QStringLiteral(
            "The plugin couldn't be installed: plugin installer: could not get manifest")));
        QVERIFY(!window->install_button()->isEnabled());
        // Nothing of the plugin fetched before stays beside the failure.
        QCOMPARE(window->plugin_label()->text(), QString());
        QVERIFY(window->icon_label()->pixmap().isNull());
    }
};

QTEST_MAIN(tst_UpdateWindow)
#include "tst_update_window.moc"
