#include "app/project_session.h"

#include "cui/property_surface.h"
#include "engine/project_runtime.h"
#include "locale/translate.h"
#include "model/project.h"
#include "persistence/command_manager.h"
#include "persistence/reader.h"

#include <QFile>

namespace corv {

struct ProjectSession::Impl {
    // Destroyed bottom-up: the runtime before the history and the project.
    model::Project project;
    engine::CommandManager commands;
    std::unique_ptr<engine::ProjectRuntime> runtime;
};

ProjectSession::ProjectSession() : d(std::make_unique<Impl>()) {}

ProjectSession::~ProjectSession() = default;

model::Project &ProjectSession::project()
{
    return d->project;
}

engine::ProjectRuntime &ProjectSession::runtime()
{
    return *d->runtime;
}

namespace {
QString read_failure_text(engine::ReadResult result)
{
    switch (result) {
    case engine::ReadResult::TooOld:
        return locale::translate("OpenProject.ErrorBody.TooOld");
    case engine::ReadResult::TooNew:
        return locale::translate("OpenProject.ErrorBody.TooNew");
    default:
        return locale::translate("OpenProject.ErrorBody.InvalidProject");
    }
}
} // namespace

std::unique_ptr<ProjectSession> ProjectSession::open(const QString &path,
                                                     engine::NodeRegistry &registry)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        qWarning("%s: %s", qUtf8Printable(locale::translate("OpenProject.ErrorTitle")),
                 qUtf8Printable(locale::translate("OpenProject.ErrorBody.%1", file.errorString())));
        return nullptr;
    }
    std::unique_ptr<ProjectSession> session(new ProjectSession);
    const engine::ReadResult result = engine::read_project(file.readAll(), session->d->project);
    if (result != engine::ReadResult::Ok) {
        qWarning("%s: %s", qUtf8Printable(locale::translate("OpenProject.ErrorTitle")),
                 qUtf8Printable(read_failure_text(result)));
        return nullptr;
    }
    Impl &d = *session->d;
    d.runtime = std::make_unique<engine::ProjectRuntime>(d.project, registry);
    cui::install_node_surfaces(*d.runtime, &d.commands);
    d.runtime->open();
    qInfo("Opened project %s", qUtf8Printable(path));
    return session;
}

} // namespace corv
