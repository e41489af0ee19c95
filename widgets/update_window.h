#pragma once

#include "update/candidates.h"
#include "update/dependency_graph.h"
#include "update/plugin_installer.h"

#include <QDialog>

#include <functional>

class QButtonGroup;
class QLabel;
class QListWidget;
class QSplitter;
class QTextBrowser;

namespace corv::engine {
class PluginList;
}

namespace corv::widgets {

class UpdateWindowViewModel;

// What the update actions need to know about the running program.
struct UpdateContext {
    // The application first, then every plugin with an update address.
    QList<update::Component> components;
    // The "User-Agent" header built at start-up.
    QByteArray user_agent;
    // "settings.ini" of the application data folder (ignored versions,
    // window geometry, files to clean up).
    QString settings_file;
    // The update host beside the executable, and what it starts again.
    QString host_program;
    QString return_to;
    QString return_to_name;
    // The folder installed plugins go to ("plugins" in the application data
    // folder), and every plugin the program runs with.
    QString plugins_folder;
    QList<update::LoadedPlugin> plugins;
    // Asked before the program hands off and quits (unsaved changes); an
    // empty function agrees.
    std::function<bool()> confirm_quit;
    // Ends the program once the update host runs; QCoreApplication::quit
    // when empty.
    std::function<void()> quit;
    int stall_timeout_ms = 30000;
};

// The context of the running program: its components from the plugin list
// (the executable's own plugin, which is first, stands for the application),
// the executable's folder and the application data folder.
UpdateContext update_context(const engine::PluginList &plugins, const QByteArray &user_agent);

// "Menu.Help.CheckForUpdates": a progress dialog while the manifests load,
// then the update window, or "NoUpdates.Body", or the error message.
void check_for_updates(QWidget *parent, const UpdateContext &context);

// At start-up when the "updatecheck" preference is set: checks without any
// window and shows the update window only when something is newer.
void check_for_updates_in_background(QWidget *parent, const UpdateContext &context);

// The list of updates with the user's choices, the relations and release
// notes of the selected one, and "Install Now" / "Remind Me Later".
class UpdateWindow : public QDialog {
    Q_OBJECT
public:
    UpdateWindow(UpdateWindowViewModel *model, const QString &settings_file,
                 QWidget *parent = nullptr);
    ~UpdateWindow() override;

    UpdateWindowViewModel *model() const { return m_model; }

protected:
    void done(int result) override;

private:
    void refresh_rows();
    void refresh_current();
    void refresh_description();

    UpdateWindowViewModel *m_model;
    QString m_settings_file;
    QSplitter *m_splitter;
    QListWidget *m_list;
    QLabel *m_title;
    QButtonGroup *m_choice;
    QLabel *m_relations;
    QTextBrowser *m_description;
};

// Runs the accepted installs: asks to quit, hands off to the update host and
// quits. False when the user declined or the hand-off failed (a message box
// says so).
bool install_updates(QWidget *parent, const UpdateContext &context,
                     const QList<update::DependencyGraph::Install> &installs);

} // namespace corv::widgets
