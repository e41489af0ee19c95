#include "app/paths.h"

#include <QCoreApplication>
#include <QStandardPaths>

namespace corv::paths {

QString application_folder()
{
    return QCoreApplication::applicationDirPath();
}

QString plugins_folder()
{
    return application_folder() + QLatin1StringView("/plugins");
}

QString installed_plugins_folder()
{
    return app_data_folder() + QLatin1StringView("/plugins");
}

QString app_data_folder()
{
    return QStandardPaths::writableLocation(QStandardPaths::AppDataLocation);
}

QString log_folder()
{
    return app_data_folder() + QLatin1StringView("/logs");
}

QString settings_file()
{
    return app_data_folder() + QLatin1StringView("/settings.ini");
}

QString plugin_data_folder(const QString &plugin_id)
{
    return app_data_folder() + QLatin1StringView("/plugins/") + plugin_id;
}

} // namespace corv::paths
