#pragma once

#include "sdk/include/corvane/corvane_sdk.h"

#include <QObject>
#include <QString>

#include <memory>

namespace corv::model {
class PropertyCollection;
class StoreView;
} // namespace corv::model

namespace corv::engine {

class PropertyCollectionCommandManager;

// The preferences of one plugin: a property collection, the store view over
// it that the plugin gets (empty prefix), a command manager for undo while
// the preferences window edits them, and their file
// "<application data>/plugins/<id>/prefs.xml".
class PluginPreferences : public QObject
{
    Q_OBJECT
public:
    class Impl;

    // The plugin's hooks around reading and writing; either may be null.
    struct Migrations {
        cplugin_migrate_load_preferences_fn after_load = nullptr;
        cplugin_migrate_save_preferences_fn before_save = nullptr;
    };

    PluginPreferences(const QString &file_path, Migrations migrations, QObject *parent = nullptr);
    ~PluginPreferences() override;

    // "<application data>/plugins/<plugin id>/prefs.xml".
    static QString file_path_for(const QString &plugin_id);

    const QString &file_path() const;
    model::PropertyCollection &collection() const;
    // What corv_plugin_preferences_store hands out.
    const model::StoreView &store() const;
    corv_store *store_handle() const;
    PropertyCollectionCommandManager &command_manager() const;

    // Reads the file into the collection, then lets the plugin convert what
    // another version wrote. No file yet is not an error: the plugin starts
    // from its defaults. An unreadable file logs "Can't read preferences from
    // %s: %s", a malformed one "Failed to read preferences from %s".
    bool read();
    // Lets the plugin add what it needs, then writes the file. A file that
    // can't be written logs "Can't write preferences to %s: %s".
    bool write();

    // corv_plugin_invalidate_preferences: marks the page for rebuilding and
    // schedules one rebuild on the next turn of the event loop; calls before
    // it happens are merged into it. Any thread may call it: from another
    // thread than this object's the call is queued to it.
    void invalidate();
    bool is_rebuild_requested() const;
    bool is_rebuild_scheduled() const;

Q_SIGNALS:
    // The scheduled rebuild is due: whoever shows the page rebuilds it now.
    void rebuild_requested();

private:
    std::unique_ptr<Impl> d;
};

} // namespace corv::engine
