#include "widgets/main_window_view_model.h"

#include "engine/project_runtime.h"
#include "locale/translate.h"
#include "persistence/command_manager.h"
#include "persistence/project_manager.h"

#include <QCoreApplication>
#include <QFileInfo>

namespace corv::widgets {

MainWindowViewModel::MainWindowViewModel(engine::ProjectManager &projects, QObject *parent)
    : QObject(parent), m_projects(&projects)
{
    using PM = engine::ProjectManager;
    connect(m_projects, &PM::linked_project_file_changed, this, [this](const QString &path) {
        Q_EMIT linked_project_file_changed(path);
        refresh_title();
    });
    connect(m_projects, &PM::is_project_modified_changed, this, [this](bool modified) {
        Q_EMIT is_project_modified_changed(modified);
        refresh_title();
    });
    connect(m_projects, &PM::before_project_replaced, this, [this] {
        if (m_history)
            disconnect(m_history, nullptr, this, nullptr);
        m_history = nullptr;
        Q_EMIT before_project_replaced();
    });
    connect(m_projects, &PM::project_replaced, this, [this] {
        // A new runtime starts running; a pause holds it as well.
        if (engine::ProjectRuntime *runtime = m_projects->runtime())
            runtime->set_paused(m_paused);
        bind_history();
        Q_EMIT project_replaced();
        Q_EMIT can_undo_redo_changed();
        refresh_title();
    });
    connect(m_projects, &PM::error_occurred, this, &MainWindowViewModel::error_occurred);
    if (engine::ProjectRuntime *runtime = m_projects->runtime())
        runtime->set_paused(m_paused);
    bind_history();
    m_title = title();
}

MainWindowViewModel::~MainWindowViewModel() = default;

void MainWindowViewModel::set_unsaved_question(UnsavedQuestion question)
{
    m_unsaved_question = std::move(question);
}

void MainWindowViewModel::set_open_path_question(PathQuestion question)
{
    m_open_path_question = std::move(question);
}

void MainWindowViewModel::set_save_path_question(PathQuestion question)
{
    m_save_path_question = std::move(question);
}

bool MainWindowViewModel::confirm_unsaved_changes()
{
    if (!m_projects->has_project() || !m_projects->is_modified())
        return true;
    if (m_asking)
        return false;
    m_asking = true;
    const UnsavedAnswer answer = m_unsaved_question ? m_unsaved_question() : UnsavedAnswer::Cancel;
    m_asking = false;
    switch (answer) {
    case UnsavedAnswer::Save:
        // Saved meanwhile (autosave): nothing left to save.
        if (!m_projects->has_project() || !m_projects->is_modified())
            return true;
        return save();
    case UnsavedAnswer::Discard:
        return true;
    case UnsavedAnswer::Cancel:
        break;
    }
    return false;
}

bool MainWindowViewModel::new_project()
{
    if (!confirm_unsaved_changes())
        return false;
    m_projects->new_project();
    return true;
}

bool MainWindowViewModel::open(const QString &path)
{
    if (m_asking) {
        if (!path.isEmpty())
            m_waiting_opens.append(path);
        return false;
    }
    bool opened = false;
    if (confirm_unsaved_changes()) {
        QString chosen = path;
        if (chosen.isEmpty() && m_open_path_question)
            chosen = m_open_path_question();
        opened = !chosen.isEmpty() && m_projects->open(chosen);
    }
    // Those that came while the question was up, each on the state now.
    while (!m_asking && !m_waiting_opens.isEmpty())
        open(m_waiting_opens.takeFirst());
    return opened;
}

bool MainWindowViewModel::save()
{
    if (!m_projects->has_project())
        return false;
    if (m_projects->linked_file().isEmpty())
        return save_as();
    return m_projects->save();
}

bool MainWindowViewModel::save_as(const QString &path)
{
    if (!m_projects->has_project())
        return false;
    QString chosen = path;
    if (chosen.isEmpty() && m_save_path_question)
        chosen = m_save_path_question();
    if (chosen.isEmpty())
        return false;
    return m_projects->save_as(chosen);
}

QString MainWindowViewModel::project_name() const
{
    const QString file = m_projects->linked_file();
    if (file.isEmpty())
        return locale::translate("MainWindow.UnnamedProjectTitle");
    return QFileInfo(file).completeBaseName();
}

QString MainWindowViewModel::title() const
{
    QString name = project_name();
    if (is_project_modified())
        name += QLatin1Char('*');
    if (m_paused)
        name = locale::translate("MainWindow.Title.Paused.%1", name);
    const QString product = QCoreApplication::applicationName() + QLatin1Char(' ') +
                            QCoreApplication::applicationVersion();
    return locale::translate("MainWindow.Title.%1.%2", name, product.trimmed());
}

QString MainWindowViewModel::linked_file() const
{
    return m_projects->linked_file();
}

bool MainWindowViewModel::is_project_modified() const
{
    return m_projects->has_project() && m_projects->is_modified();
}

bool MainWindowViewModel::can_undo() const
{
    return m_history && m_history->can_undo();
}

bool MainWindowViewModel::can_redo() const
{
    return m_history && m_history->can_redo();
}

namespace {

QString history_text(const char *plain, const char *named, const QByteArray &name)
{
    return name.isEmpty() ? locale::translate(plain) : locale::translate(named, locale::translate(name.constData()));
}

} // namespace

QString undo_text(const engine::CommandManager *history)
{
    return history_text(CORV_TR_KEY("Menu.Edit.Undo"), CORV_TR_KEY("Menu.Edit.Undo.%1"),
                        history ? history->undo_name() : QByteArray());
}

QString redo_text(const engine::CommandManager *history)
{
    return history_text(CORV_TR_KEY("Menu.Edit.Redo"), CORV_TR_KEY("Menu.Edit.Redo.%1"),
                        history ? history->redo_name() : QByteArray());
}

QString MainWindowViewModel::undo_text() const
{
    return widgets::undo_text(m_history);
}

QString MainWindowViewModel::redo_text() const
{
    return widgets::redo_text(m_history);
}

void MainWindowViewModel::undo()
{
    if (m_history)
        m_history->undo();
}

void MainWindowViewModel::redo()
{
    if (m_history)
        m_history->redo();
}

void MainWindowViewModel::set_paused(bool paused)
{
    if (paused == m_paused)
        return;
    m_paused = paused;
    if (engine::ProjectRuntime *runtime = m_projects->runtime())
        runtime->set_paused(paused);
    if (paused)
        qInfo("Paused all racks");
    else
        qInfo("Resumed all racks");
    Q_EMIT is_paused_changed(paused);
    refresh_title();
}

void MainWindowViewModel::bind_history()
{
    m_history = m_projects->commands();
    if (m_history)
        connect(m_history, &engine::CommandManager::changed, this,
                &MainWindowViewModel::can_undo_redo_changed);
}

void MainWindowViewModel::refresh_title()
{
    const QString text = title();
    if (text == m_title)
        return;
    m_title = text;
    Q_EMIT title_changed(text);
}

} // namespace corv::widgets
