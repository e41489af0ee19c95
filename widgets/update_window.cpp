#include "widgets/update_window.h"

#include "locale/translate.h"
#include "sdk/plugin_list.h"
#include "update/hand_off.h"
#include "update/platform.h"
#include "update/update_checker.h"
#include "widgets/update_window_view_model.h"

#include <QButtonGroup>
#include <QCoreApplication>
#include <QDialogButtonBox>
#include <QDir>
#include <QLabel>
#include <QListWidget>
#include <QLocalServer>
#include <QMessageBox>
#include <QProgressDialog>
#include <QPushButton>
#include <QRadioButton>
#include <QSettings>
#include <QSplitter>
#include <QStandardPaths>
#include <QTextBrowser>
#include <QVBoxLayout>

namespace corv::widgets {

namespace {

update::FetchOptions fetch_options(const UpdateContext &context)
{
    update::FetchOptions options;
    options.user_agent = context.user_agent;
    options.stall_timeout_ms = context.stall_timeout_ms;
    return options;
}

QMap<QString, QVersionNumber> installed_versions(const UpdateContext &context)
{
    QMap<QString, QVersionNumber> versions;
    for (const update::Component &component : context.components)
        versions.insert(component.id, component.current);
    return versions;
}

void show_message(QWidget *parent, QMessageBox::Icon icon, const QString &title,
                  const QString &body)
{
    auto *box = new QMessageBox(icon, title, body, QMessageBox::Ok, parent);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
}

void show_update_window(QWidget *parent, const UpdateContext &context,
                        const QList<update::ComponentUpdate> &updates)
{
    auto *model =
        new UpdateWindowViewModel(updates, installed_versions(context), fetch_options(context));
    auto *window = new UpdateWindow(model, context.settings_file, parent);
    model->setParent(window);
    window->setAttribute(Qt::WA_DeleteOnClose);
    QObject::connect(window, &QDialog::accepted, window, [window, context] {
        QSettings settings(context.settings_file, QSettings::IniFormat);
        const QList<update::DependencyGraph::Install> installs = window->model()->accept(settings);
        if (!installs.isEmpty())
            install_updates(window->parentWidget(), context, installs);
    });
    window->show();
}

// Starts a check; `done` gets the finished checker, which is deleted after.
void run_check(QObject *owner, const UpdateContext &context,
               std::function<void(update::UpdateChecker &)> done)
{
    auto *settings = new QSettings(context.settings_file, QSettings::IniFormat);
    auto *checker =
        new update::UpdateChecker(context.components, settings, fetch_options(context), owner);
    // Owned by the checker, which may go with its owner before it finishes
    // (the window closed while a background check still waits).
    settings->setParent(checker);
    QObject::connect(checker, &update::UpdateChecker::finished, checker, [checker, done] {
        done(*checker);
        checker->deleteLater();
    });
    checker->start();
}

} // namespace

UpdateContext update_context(const engine::PluginList &plugins, const QByteArray &user_agent)
{
    UpdateContext context;
    for (qsizetype i = 0; i < plugins.count(); ++i) {
        const engine::Plugin *plugin = plugins.at(i);
        context.plugins.append({plugin->id(), plugin->version(), plugin->install_dir()});
        if (plugin->update_url().isEmpty())
            continue;
        // An address that names no install method gets this platform's
        // plugin method (the application's own names its method itself).
        QUrl url(QString::fromUtf8(plugin->update_url()));
        if (!url.hasFragment())
            url.setFragment(QString::fromLatin1(update::platform::plugin_update_method()));
        context.components.append({plugin->id(), QString::fromUtf8(plugin->name()),
                                   plugin->version(), url, plugin->install_dir()});
    }
    const QString data = QStandardPaths::writableLocation(QStandardPaths::AppDataLocation);
    context.user_agent = user_agent;
    context.settings_file = data + QStringLiteral("/settings.ini");
    context.plugins_folder = data + QStringLiteral("/plugins");
    context.host_program =
        QDir(QCoreApplication::applicationDirPath()).filePath(update::platform::update_host_file_name());
    context.return_to = QCoreApplication::applicationFilePath();
    context.return_to_name = QCoreApplication::applicationName();
    return context;
}

bool install_updates(QWidget *parent, const UpdateContext &context,
                     const QList<update::DependencyGraph::Install> &installs)
{
    if (context.components.isEmpty() || (context.confirm_quit && !context.confirm_quit()))
        return false;
    const update::Component &application = context.components.first();
    const update::HandOffRequest request{context.host_program,
                                         application.base_path,
                                         application.manifest_url,
                                         context.return_to,
                                         context.return_to_name,
                                         context.user_agent,
                                         installs,
                                         {}};
    QSettings settings(context.settings_file, QSettings::IniFormat);
    std::unique_ptr<update::HandOff> running = update::hand_off(request, settings);
    if (!running) {
        show_message(parent, QMessageBox::Critical,
                     locale::translate("UpdateWindow.HandOffErrorCaption"),
                     locale::translate("UpdateWindow.HandOffErrorBody"));
        return false;
    }
    // The host waits for this server; it closes when the program ends.
    running->running.release()->setParent(QCoreApplication::instance());
    if (context.quit)
        context.quit();
    else
        QCoreApplication::quit();
    return true;
}

void check_for_updates(QWidget *parent, const UpdateContext &context)
{
    auto *progress =
        new QProgressDialog(locale::translate("CheckingForUpdates.Caption"),
                            locale::translate("CheckingForUpdates.Cancel"), 0, 0, parent);
    progress->setAttribute(Qt::WA_DeleteOnClose);
    progress->setWindowTitle(locale::translate("UpdateWindow.Title"));
    progress->setMinimumDuration(0);
    progress->setAutoClose(false);
    progress->setAutoReset(false);
    progress->setWindowModality(Qt::WindowModal);
    run_check(progress, context, [progress, parent, context](update::UpdateChecker &checker) {
        progress->close();
        if (checker.was_canceled())
            return;
        if (!checker.updates().isEmpty())
            show_update_window(parent, context, checker.updates());
        else if (!checker.failures().isEmpty())
            show_message(parent, QMessageBox::Critical,
                         locale::translate("UpdateWindow.ErrorCaption"),
                         locale::translate("UpdateWindow.ErrorBody"));
        else
            show_message(parent, QMessageBox::Information, locale::translate("UpdateWindow.Title"),
                         locale::translate("NoUpdates.Body"));
    });
    // The checker is a child of the dialog; cancelling closes and deletes both.
    QObject::connect(progress, &QProgressDialog::canceled, progress, [progress] {
        if (auto *checker = progress->findChild<update::UpdateChecker *>())
            checker->cancel();
    });
    progress->show();
}

void check_for_updates_in_background(QWidget *parent, const UpdateContext &context)
{
    QObject *owner = parent ? static_cast<QObject *>(parent) : QCoreApplication::instance();
    run_check(owner, context, [parent, context](update::UpdateChecker &checker) {
        if (!checker.updates().isEmpty())
            show_update_window(parent, context, checker.updates());
    });
}

UpdateWindow::UpdateWindow(UpdateWindowViewModel *model, const QString &settings_file,
                           QWidget *parent)
    : QDialog(parent), m_model(model), m_settings_file(settings_file),
      m_splitter(new QSplitter(this)), m_list(new QListWidget(m_splitter)), m_title(new QLabel),
      m_choice(new QButtonGroup(this)), m_relations(new QLabel), m_description(new QTextBrowser)
{
    setObjectName(QStringLiteral("UpdateWindow"));
    setWindowTitle(locale::translate("UpdateWindow.Title"));
    resize(720, 480);

    auto *details = new QWidget(m_splitter);
    auto *details_layout = new QVBoxLayout(details);
    details_layout->setContentsMargins(0, 0, 0, 0);
    QFont bold = m_title->font();
    bold.setBold(true);
    m_title->setFont(bold);
    m_title->setWordWrap(true);
    details_layout->addWidget(m_title);
    auto *install = new QRadioButton(locale::translate("UpdateWindow.InstallThisVersion"));
    auto *skip = new QRadioButton(locale::translate("UpdateWindow.SkipThisVersion"));
    m_choice->addButton(install, 1);
    m_choice->addButton(skip, 0);
    details_layout->addWidget(install);
    details_layout->addWidget(skip);
    m_relations->setWordWrap(true);
    m_relations->setTextFormat(Qt::PlainText);
    details_layout->addWidget(m_relations);
    m_description->setOpenExternalLinks(true);
    details_layout->addWidget(m_description, 1);
    m_splitter->setStretchFactor(1, 1);

    auto *buttons = new QDialogButtonBox;
    buttons->addButton(locale::translate("UpdateWindow.RemindMeLater"),
                       QDialogButtonBox::RejectRole);
    buttons->addButton(locale::translate("UpdateWindow.Accept"), QDialogButtonBox::AcceptRole)
        ->setDefault(true);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);

    auto *layout = new QVBoxLayout(this);
    layout->addWidget(m_splitter, 1);
    layout->addWidget(buttons);

    for (qsizetype row = 0; row < m_model->count(); ++row)
        m_list->addItem(m_model->title(row));
    connect(m_list, &QListWidget::currentRowChanged, m_model,
            [this](int row) { m_model->set_current(row); });
    connect(m_choice, &QButtonGroup::idClicked, m_model,
            [this](int id) { m_model->set_install_chosen(m_model->current(), id == 1); });
    connect(m_model, &UpdateWindowViewModel::choices_changed, this, [this] {
        refresh_rows();
        refresh_current();
    });
    connect(m_model, &UpdateWindowViewModel::current_changed, this, &UpdateWindow::refresh_current);
    connect(m_model, &UpdateWindowViewModel::description_changed, this,
            &UpdateWindow::refresh_description);

    QSettings settings(m_settings_file, QSettings::IniFormat);
    restoreGeometry(settings.value(QStringLiteral("UpdateWindow/Geometry")).toByteArray());
    if (!m_splitter->restoreState(
            settings.value(QStringLiteral("UpdateWindow/State")).toByteArray()))
        m_splitter->setSizes({200, 520});

    refresh_rows();
    m_list->setCurrentRow(0);
}

UpdateWindow::~UpdateWindow() = default;

void UpdateWindow::done(int result)
{
    QSettings settings(m_settings_file, QSettings::IniFormat);
    settings.setValue(QStringLiteral("UpdateWindow/Geometry"), saveGeometry());
    settings.setValue(QStringLiteral("UpdateWindow/State"), m_splitter->saveState());
    QDialog::done(result);
}

void UpdateWindow::refresh_rows()
{
    for (int row = 0; row < m_list->count(); ++row) {
        QListWidgetItem *item = m_list->item(row);
        item->setText(m_model->title(row));
        QFont font = item->font();
        font.setStrikeOut(!m_model->will_install(row));
        item->setFont(font);
    }
}

void UpdateWindow::refresh_current()
{
    const qsizetype row = m_model->current();
    if (row < 0)
        return;
    const QString date = m_model->release_date(row);
    m_title->setText(date.isEmpty() ? m_model->title(row)
                                    : m_model->title(row) + QStringLiteral(" — ") + date);
    m_choice->button(m_model->install_chosen(row) ? 1 : 0)->setChecked(true);
    QStringList lines;
    for (const UpdateWindowViewModel::Section &section : m_model->sections()) {
        lines.append(section.caption);
        for (const QString &entry : section.entries)
            lines.append(QStringLiteral("  • ") + entry);
    }
    m_relations->setText(lines.join(u'\n'));
    m_relations->setVisible(!lines.isEmpty());
}

void UpdateWindow::refresh_description()
{
    if (m_model->description_is_html())
        m_description->setHtml(m_model->description());
    else
        m_description->setPlainText(m_model->description());
}

} // namespace corv::widgets
