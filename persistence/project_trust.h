#pragma once

#include <QByteArray>
#include <QString>

namespace corv::engine {

class ProjectRuntime;

// The projects whose nodes that act outside the program (run programs, open
// files) the user allowed on this machine: kept in the settings file under
// the project's path with the digest of those nodes' settings
// (ProjectRuntime::outside_fingerprint()), so a changed node asks again.
bool is_project_allowed(const QString &settings_file, const QString &project_path,
                        const QByteArray &fingerprint);
void remember_project_allowed(const QString &settings_file, const QString &project_path,
                              const QByteArray &fingerprint);

// Lets the nodes of a runtime just opened act when nothing needs asking: no
// such nodes, no file (a project made here), `allow_run`, or a project
// allowed before. Returns the number of nodes that stay held.
qsizetype allow_trusted_project(ProjectRuntime &runtime, const QString &settings_file,
                                const QString &project_path, bool allow_run);

} // namespace corv::engine
