#pragma once

#include "model/property.h"
#include "persistence/command_manager.h"
#include "sdk/plugin_preferences.h"

#include <QTimer>

namespace corv::engine {

class PluginPreferences::Impl : public QObject
{
    Q_OBJECT
public:
    Impl(const QString &file_path, Migrations migrations);

    // The zero-delay timer fired: the merged rebuild is due.
    void on_rebuild_timer();

    QString file_path;
    Migrations migrations;
    model::PropertyCollection collection;
    model::StoreView store{&collection, QString()};
    PreferencesCommandManager command_manager{&collection};
    bool rebuild_requested = false;
    bool rebuild_scheduled = false;
    QTimer rebuild_timer;

Q_SIGNALS:
    void rebuild_requested_signal();
};

} // namespace corv::engine
