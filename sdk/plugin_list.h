#pragma once

#include "sdk/plugin.h"

#include <QByteArrayView>
#include <QObject>
#include <QString>

#include <memory>
#include <vector>

namespace corv::engine {

class NodeRegistry;

// The loaded plugins, in the order they were found: the executable's own
// node set first, then one plugin per folder of the "plugins" folder. Loads
// each library, checks its SDK version and id, refuses duplicate ids, runs
// the three initialisation passes (preferences, load, postload) and unloads
// every plugin at the end. Failures are log lines; none stops the others.
class PluginList : public QObject
{
    Q_OBJECT
public:
    explicit PluginList(QObject *parent = nullptr);
    // Unloads every plugin that is still loaded (see unload_all()).
    ~PluginList() override;

    // Adds the executable's own node set through the same steps as a plugin
    // library (version check, handle, info), with entry points given
    // directly. There is no folder, so the id is not compared with one.
    Plugin *add_builtin(const PluginEntryPoints &entry_points, const QString &install_dir);

    // Every readable subfolder of plugins_folder, unsorted: logs "Found
    // plugin in %s" and loads it as load_folder() does. A missing folder
    // holds no plugins.
    void scan(const QString &plugins_folder);

    // Loads the library named like the folder, inside the folder (the
    // platform's suffix is added), checks it and adds it to the list unless
    // a plugin with its id is there already. Null when refused.
    Plugin *load_folder(const QString &folder);

    // Logs "Initializing all plugins" and runs the three passes in list
    // order: read preferences; cplugin_load with a registration context,
    // committing what a plugin registered when it returns 0 and removing the
    // plugin (unloaded at once) otherwise; cplugin_postload.
    void initialize(NodeRegistry &registry);

    // Shutdown, in list order: "Unloading %s", cplugin_unload, then the
    // library is unloaded. The list is empty afterwards.
    void unload_all();

    qsizetype count() const { return qsizetype(m_plugins.size()); }
    Plugin *at(qsizetype index) const { return m_plugins[std::size_t(index)].get(); }
    Plugin *find(const QString &id) const;

    // Loads a locale into every plugin translator made so far.
    void load_language(QByteArrayView locale_id);

    // The language preference (a position in the locale list): loads that
    // locale into the application's translator and into every plugin's, and
    // translators made later start in it. This is the one call for a
    // language change, at start-up (the built-in plugin's postload) and when
    // the preferences window is confirmed. False, and nothing changes, for a
    // position out of range.
    bool apply_language_preference(qsizetype position);

    // The preferences window was confirmed: every plugin with preferences
    // gets cplugin_confirm_preferences with its store, then its preferences
    // are written.
    void confirm_preferences();

Q_SIGNALS:
    // A plugin's merged preferences rebuild is due (see
    // PluginPreferences::rebuild_requested).
    void preferences_rebuild_requested(corv::engine::Plugin *plugin);

private:
    Plugin *admit(const QString &path, const QString &folder_name, const QString &install_dir,
                  std::unique_ptr<QLibrary> library, const PluginEntryPoints &entry_points);
    void unload(Plugin &plugin);

    std::vector<std::unique_ptr<Plugin>> m_plugins;
};

} // namespace corv::engine
