#include "sdk/plugin_preferences.h"

#include "engine/handles.h"
#include "persistence/reader.h"
#include "persistence/writer.h"
#include "sdk/logging.h"
#include "sdk/plugin_preferences_p.h"

#include <QFile>
#include <QStandardPaths>
#include <QThread>

namespace corv::engine {

PluginPreferences::Impl::Impl(const QString &file_path, Migrations migrations)
    : file_path(file_path), migrations(migrations)
{
    rebuild_timer.setSingleShot(true);
    rebuild_timer.setInterval(0);
    connect(&rebuild_timer, &QTimer::timeout, this, &Impl::on_rebuild_timer);
}

void PluginPreferences::Impl::on_rebuild_timer()
{
    rebuild_scheduled = false;
    rebuild_requested = false;
    Q_EMIT rebuild_requested_signal();
}

PluginPreferences::PluginPreferences(const QString &file_path, Migrations migrations,
                                     QObject *parent)
    : QObject(parent), d(std::make_unique<Impl>(file_path, migrations))
{
    connect(d.get(), &Impl::rebuild_requested_signal, this, &PluginPreferences::rebuild_requested);
}

PluginPreferences::~PluginPreferences() = default;

QString PluginPreferences::file_path_for(const QString &plugin_id)
{
    return QStandardPaths::writableLocation(QStandardPaths::AppDataLocation)
           + QLatin1StringView("/plugins/") + plugin_id + QLatin1StringView("/prefs.xml");
}

const QString &PluginPreferences::file_path() const
{
    return d->file_path;
}

model::PropertyCollection &PluginPreferences::collection() const
{
    return d->collection;
}

const model::StoreView &PluginPreferences::store() const
{
    return d->store;
}

corv_store *PluginPreferences::store_handle() const
{
    return handles::to_handle(&d->store);
}

PropertyCollectionCommandManager &PluginPreferences::command_manager() const
{
    return d->command_manager;
}

bool PluginPreferences::read()
{
    QFile file(d->file_path);
    if (!file.exists())
        return true; // first run: the plugin's defaults stand
    if (!file.open(QIODevice::ReadOnly)) {
        qCWarning(lc_sdk, "Can't read preferences from %s: %s", qUtf8Printable(d->file_path),
                  qUtf8Printable(file.errorString()));
        return false;
    }
    PreferencesLoadHook after_load;
    if (d->migrations.after_load) {
        after_load = [this](model::PropertyCollection &) {
            d->migrations.after_load(store_handle());
        };
    }
    if (read_preferences(file.readAll(), d->collection, after_load) != ReadResult::Ok) {
        qCWarning(lc_sdk, "Failed to read preferences from %s", qUtf8Printable(d->file_path));
        return false;
    }
    return true;
}

bool PluginPreferences::write()
{
    if (d->migrations.before_save)
        d->migrations.before_save(store_handle());
    return write_preferences_file(d->file_path, d->collection);
}

void PluginPreferences::invalidate()
{
    // The rebuild timer belongs to this object's thread; a plugin's worker
    // gets there through the queue (dropped if the preferences go first).
    if (thread() != QThread::currentThread()) {
        QMetaObject::invokeMethod(this, [this] { invalidate(); }, Qt::QueuedConnection);
        return;
    }
    d->rebuild_requested = true;
    if (d->rebuild_scheduled)
        return;
    d->rebuild_scheduled = true;
    d->rebuild_timer.start();
}

bool PluginPreferences::is_rebuild_requested() const
{
    return d->rebuild_requested;
}

bool PluginPreferences::is_rebuild_scheduled() const
{
    return d->rebuild_scheduled;
}

} // namespace corv::engine
