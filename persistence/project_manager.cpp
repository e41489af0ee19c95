#include "persistence/project_manager.h"

#include "engine/config_manager.h"
#include "engine/project_runtime.h"
#include "locale/translate.h"
#include "model/project.h"
#include "persistence/command_manager.h"
#include "persistence/file_platform.h"
#include "persistence/logging.h"
#include "persistence/reader.h"
#include "persistence/writer.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTimer>

#include <algorithm>
#include <climits>

namespace corv::engine {

namespace {

// Everything of one loaded project, destroyed runtime first.
struct OpenProject {
    std::unique_ptr<model::Project> project = std::make_unique<model::Project>();
    std::unique_ptr<CommandManager> commands = std::make_unique<CommandManager>();
    std::unique_ptr<ProjectRuntime> runtime;

    ~OpenProject()
    {
        runtime.reset();
        commands.reset();
        project.reset();
    }
};

QString read_failure_body(ReadResult result)
{
    switch (result) {
    case ReadResult::TooOld:
        return locale::translate("OpenProject.ErrorBody.TooOld");
    case ReadResult::TooNew:
        return locale::translate("OpenProject.ErrorBody.TooNew");
    default:
        return locale::translate("OpenProject.ErrorBody.InvalidProject");
    }
}

// P, ".temp"; when taken, ".temp" and 1, 2, ... : the first free name.
QString temporary_name(const QString &path)
{
    const QString base = path + QLatin1StringView(".temp");
    QString name = base;
    for (int n = 1; QFileInfo::exists(name) || QFileInfo(name).isSymLink(); ++n)
        name = base + QString::number(n);
    return name;
}

struct Backup {
    QString name;
    QDateTime modified;
};

} // namespace

class ProjectManager::Impl
{
public:
    ProjectManager *q;
    NodeRegistry *registry;
    ConfigManager *config;
    RuntimeSetup setup;
    std::unique_ptr<OpenProject> open;
    QString linked_file;
    bool modified = false;
    bool backed_up = false;
    // A child of the manager named "autosave", so it can be found.
    QTimer *autosave_timer = nullptr;

    // A loaded project becomes the open one, running.
    void install(std::unique_ptr<OpenProject> next)
    {
        Q_EMIT q->before_project_replaced();
        open.reset();
        if (next) {
            next->runtime = std::make_unique<ProjectRuntime>(*next->project, *registry);
            if (setup)
                setup(*next->runtime, *next->commands);
            next->runtime->open();
            QObject::connect(next->commands.get(), &CommandManager::changed, q,
                             [this] { q->set_modified(true); });
        }
        open = std::move(next);
        Q_EMIT q->project_replaced();
    }

    void set_linked_file(const QString &path)
    {
        backed_up = false;
        if (linked_file.compare(path, file_platform::file_name_case()) == 0)
            return;
        linked_file = path;
        Q_EMIT q->linked_project_file_changed(path);
    }

    bool save_failed(const QString &reason)
    {
        qCWarning(lc_persistence, "Couldn't save project: %s", qUtf8Printable(reason));
        Q_EMIT q->error_occurred(locale::translate("SaveProject.ErrorTitle"),
                                 locale::translate("SaveProject.ErrorBody.%1", reason));
        return false;
    }

    // Backups of P in its folder: B.[0-9][0-9][0-9].S, files only, newest first.
    static QList<Backup> list_backups(const QFileInfo &target)
    {
        const QRegularExpression pattern(
            QLatin1StringView("\\A") + QRegularExpression::escape(target.completeBaseName()) +
            QLatin1StringView("\\.[0-9]{3}\\.") + QRegularExpression::escape(target.suffix()) +
            QLatin1StringView("\\z"),
            file_platform::file_name_case() == Qt::CaseInsensitive ? QRegularExpression::CaseInsensitiveOption
                                                                  : QRegularExpression::NoPatternOption);
        QList<Backup> backups;
        const QFileInfoList entries =
            target.absoluteDir().entryInfoList(QDir::Files | QDir::Hidden | QDir::System);
        for (const QFileInfo &entry : entries) {
            if (pattern.match(entry.fileName()).hasMatch())
                backups.append({entry.fileName(), entry.lastModified()});
        }
        std::stable_sort(backups.begin(), backups.end(),
                         [](const Backup &a, const Backup &b) { return a.modified > b.modified; });
        return backups;
    }

    // Deletes the oldest backups until at most keep remain; returns those left.
    static QList<Backup> prune(const QFileInfo &target, qsizetype keep)
    {
        QList<Backup> backups = list_backups(target);
        const QDir folder = target.absoluteDir();
        while (backups.size() > keep) {
            const Backup oldest = backups.takeLast();
            const QString path = folder.filePath(oldest.name);
            qCInfo(lc_persistence, "Deleting stale backup file %s", qUtf8Printable(path));
            QFile file(path);
            if (!file.remove())
                qCWarning(lc_persistence, "Failed to delete backup file %s: %s", qUtf8Printable(path),
                          qUtf8Printable(file.errorString()));
        }
        return backups;
    }

    static QString backup_name(const QFileInfo &target, const QList<Backup> &remaining)
    {
        for (int n = 1;; ++n) {
            const QString name = QStringLiteral("%1.%2.%3")
                                     .arg(target.completeBaseName())
                                     .arg(n, 3, 10, QLatin1Char('0'))
                                     .arg(target.suffix());
            const bool taken = std::any_of(remaining.begin(), remaining.end(),
                                           [&](const Backup &b) { return b.name == name; });
            if (!taken)
                return name;
        }
    }

    bool save_to(const QString &path)
    {
        if (!open)
            return false;
        const WriteResult written = write_project(*open->project);
        if (!written.ok())
            return save_failed(written.error);

        // 1-2: the whole document into a fresh temporary file, down to the disk.
        const QString temporary = temporary_name(path);
        QFile file(temporary);
        QString reason;
        // With the old file's permissions (and owner where allowed).
        if (!file_platform::open_new_like(file, path, &reason))
            return save_failed(reason);
        // After a short write (the disk filled up on the way) the next one
        // fails at once, with the system's reason.
        const QByteArray &document = written.document;
        qint64 done = 0;
        for (qint64 n = 0; done < document.size() && (n = file.write(document.constData() + done, document.size() - done)) > 0;)
            done += n;
        if (done != document.size() || !file.flush())
            reason = file.errorString();
        else if (!file_platform::flush_to_disk(file, &reason) && reason.isEmpty())
            reason = file.errorString();
        file.close();
        if (reason.isEmpty() && file.error() != QFileDevice::NoError)
            reason = file.errorString();
        if (!reason.isEmpty())
            return save_failed(reason);

        // 3-5: the previous file becomes a backup at the first save since it
        // was linked. It keeps its place until the new file replaces it, so
        // the project file is never missing.
        const QFileInfo target(path);
        const int keep = std::max(0, (config ? config->save_versions() : 0) - 1);
        const bool exists = target.exists();
        if (!backed_up && keep >= 1 && exists) {
            const QList<Backup> remaining = prune(target, keep);
            const QString backup = target.absoluteDir().filePath(backup_name(target, remaining));
            qCInfo(lc_persistence, "Backing up saved project to %s", qUtf8Printable(backup));
            if (!file_platform::keep_as(path, backup, &reason))
                return save_failed(reason);
        }

        // 6: the new file takes the old one's place in one step.
        if (!file_platform::replace(temporary, path, &reason))
            return save_failed(reason);

        // 7.
        set_linked_file(path);
        backed_up = true;
        q->set_modified(false);
        Q_EMIT q->saved(path);
        return true;
    }
};

ProjectManager::ProjectManager(NodeRegistry &registry, ConfigManager *config, QObject *parent)
    : QObject(parent), d(std::make_unique<Impl>())
{
    d->q = this;
    d->registry = &registry;
    d->config = config;
    // A full disk quota of the process (ulimit -f) fails a save like any
    // full disk does.
    file_platform::make_size_limit_an_error();
    d->autosave_timer = new QTimer(this);
    d->autosave_timer->setObjectName(QStringLiteral("autosave"));
    // Precise: its remaining time says when the next autosave is due.
    d->autosave_timer->setTimerType(Qt::PreciseTimer);
    connect(d->autosave_timer, &QTimer::timeout, this, &ProjectManager::autosave_tick);
    if (config) {
        connect(config, &ConfigManager::is_autosave_enabled_changed, this,
                &ProjectManager::apply_autosave_settings);
        connect(config, &ConfigManager::autosave_minutes_changed, this,
                &ProjectManager::apply_autosave_settings);
    }
    apply_autosave_settings();
}

ProjectManager::~ProjectManager()
{
    d->autosave_timer->stop();
    d->open.reset();
}

void ProjectManager::set_runtime_setup(RuntimeSetup setup)
{
    d->setup = std::move(setup);
}

model::Project *ProjectManager::project() const
{
    return d->open ? d->open->project.get() : nullptr;
}

CommandManager *ProjectManager::commands() const
{
    return d->open ? d->open->commands.get() : nullptr;
}

ProjectRuntime *ProjectManager::runtime() const
{
    return d->open ? d->open->runtime.get() : nullptr;
}

NodeRegistry &ProjectManager::registry() const
{
    return *d->registry;
}

ConfigManager *ProjectManager::config() const
{
    return d->config;
}

void ProjectManager::new_project()
{
    d->install(std::make_unique<OpenProject>());
    d->set_linked_file(QString());
    set_modified(false);
}

bool ProjectManager::open(const QString &path)
{
    const QString title = locale::translate("OpenProject.ErrorTitle");
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        const QString body = locale::translate("OpenProject.ErrorBody.%1", file.errorString());
        qCWarning(lc_persistence, "%s: %s", qUtf8Printable(title), qUtf8Printable(body));
        Q_EMIT error_occurred(title, body);
        return false;
    }
    auto next = std::make_unique<OpenProject>();
    // The file's bytes are dropped before the runtime is built, so the two
    // never share the peak.
    const ReadResult result = [&file, &next] {
        const QByteArray document = file.readAll();
        file.close();
        return read_project(document, *next->project);
    }();
    if (result != ReadResult::Ok) {
        const QString body = read_failure_body(result);
        qCWarning(lc_persistence, "%s: %s", qUtf8Printable(title), qUtf8Printable(body));
        Q_EMIT error_occurred(title, body);
        return false;
    }
    d->install(std::move(next));
    d->set_linked_file(QFileInfo(path).absoluteFilePath());
    set_modified(false);
    qCInfo(lc_persistence, "Opened project %s", qUtf8Printable(path));
    Q_EMIT opened(d->linked_file);
    return true;
}

void ProjectManager::close()
{
    if (!d->open)
        return;
    d->install(nullptr);
    d->set_linked_file(QString());
    set_modified(false);
}

bool ProjectManager::save()
{
    if (!d->open || d->linked_file.isEmpty())
        return false;
    return d->save_to(d->linked_file);
}

bool ProjectManager::save_as(const QString &path)
{
    if (!d->open || path.isEmpty())
        return false;
    const QString absolute = QFileInfo(path).absoluteFilePath();
    // A new name is a new link: its old file, if any, is backed up once too.
    if (absolute != d->linked_file)
        d->backed_up = false;
    return d->save_to(absolute);
}

void ProjectManager::autosave_tick()
{
    if (d->modified && d->open && !d->linked_file.isEmpty())
        d->save_to(d->linked_file);
}

void ProjectManager::apply_autosave_settings()
{
    const qint64 minutes = std::max(1, d->config ? d->config->autosave_minutes() : 0);
    d->autosave_timer->setInterval(int(std::min<qint64>(minutes * 60000, INT_MAX)));
    const bool enabled = d->config && d->config->is_autosave_enabled();
    if (enabled && !d->autosave_timer->isActive())
        d->autosave_timer->start();
    else if (!enabled && d->autosave_timer->isActive())
        d->autosave_timer->stop();
}

bool ProjectManager::is_autosave_timer_active() const
{
    return d->autosave_timer->isActive();
}

int ProjectManager::autosave_interval_ms() const
{
    return d->autosave_timer->interval();
}

QString ProjectManager::linked_file() const
{
    return d->linked_file;
}

bool ProjectManager::is_modified() const
{
    return d->modified;
}

void ProjectManager::set_modified(bool modified)
{
    if (d->modified == modified)
        return;
    d->modified = modified;
    Q_EMIT is_project_modified_changed(modified);
}

bool ProjectManager::is_backed_up() const
{
    return d->backed_up;
}

} // namespace corv::engine
