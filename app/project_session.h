#pragma once

#include <QString>

#include <memory>

namespace corv::engine {
class NodeRegistry;
class ProjectRuntime;
} // namespace corv::engine

namespace corv::model {
class Project;
}

namespace corv {

// A project opened from a file and running: the model, its undo history and
// its runtime (every rack and node live, panels built without widgets).
class ProjectSession
{
public:
    ~ProjectSession();

    // Reads the project at `path` and starts its runtime. Null after a failure,
    // which is logged with the text the open-project dialog shows.
    static std::unique_ptr<ProjectSession> open(const QString &path,
                                                engine::NodeRegistry &registry);

    model::Project &project();
    engine::ProjectRuntime &runtime();

private:
    ProjectSession();
    struct Impl;
    std::unique_ptr<Impl> d;
};

} // namespace corv
