#pragma once

#include <QString>

// Where the program keeps its files. Everything below the application data
// folder follows the identity set on QCoreApplication, so these are only
// meaningful after set_identity().
namespace corv::paths {

// The folder of the executable; needs the application object.
QString application_folder();
// The application folder's "plugins" subfolder, one plugin per subfolder.
QString plugins_folder();

// The application data folder's "plugins" subfolder: the plugins the plugin
// installer put there (each beside its data, "<id>/<id>" and the suffix).
QString installed_plugins_folder();

// QStandardPaths::AppDataLocation: settings, logs and per-plugin data.
QString app_data_folder();
QString log_folder();
QString settings_file();
// The data and preferences folder of one plugin.
QString plugin_data_folder(const QString &plugin_id);

} // namespace corv::paths
