#pragma once

// An open project as the main window holds it, for the panel tests and the
// rack panel benchmark: the built-in node set registered through the built-in
// plugin's real load, a project with its command manager and runtime, and
// node panels whose edits are commands of that manager.

#include "engine/node_registry.h"
#include "engine/project_runtime.h"
#include "model/project.h"
#include "tests/project_edits.h"
#include "persistence/command_manager.h"
#include "sdk/plugin_list.h"
#include "widgets/racks_panel_view_model.h"

#include <QString>
#include <QUuid>

#include <memory>

class PanelRig
{
public:
    // The panels speak English unless keep_stored_language: then the
    // language a stored preference names applies, as at a program start.
    explicit PanelRig(bool keep_stored_language = false);
    ~PanelRig();

    QUuid add_rack(const QString &name) { return corv::test::add_rack(project, name); }
    // A node of type under a rack or a node, at the end; "!name" set when given.
    QUuid add_node(const QUuid &parent, const QString &type, const QString &name = {})
    {
        return corv::test::add_node(project, parent, type,
                                    name.isEmpty() ? corv::test::Settings{}
                                                   : corv::test::Settings{{"!name", corv::model::Value::string(name.toUtf8())}});
    }
    // Starts the runtime over what was added so far.
    void open();

    corv::widgets::PanelContext context();
    corv::engine::PluginList &plugins() { return m_plugins; }
    // The rack's tree as the short type names ("fork[delay stop] custom").
    QString tree(const QUuid &rack) const;
    // The racks in order, a disabled one marked with "-" ("A,B-,C").
    QString racks() const;

    corv::engine::NodeRegistry registry;
    corv::model::Project project;
    corv::engine::CommandManager commands;
    std::unique_ptr<corv::engine::ProjectRuntime> runtime;

private:
    corv::engine::PluginList m_plugins;
};
