#include "update/platform.h"

namespace corv::update::platform {

const char *update_method()
{
    return "linux64.tar.gz";
}

const char *plugin_update_method()
{
    return "linux64.tar.gz";
}

QString update_host_file_name()
{
    return QStringLiteral("updatehost");
}

QStringList update_host_companions()
{
    // Qt and the C++ runtime are the system's, found wherever the host runs.
    return {};
}

bool is_system_package(const QString &file)
{
    // Windows installer packages are recognised everywhere so that one is
    // refused before anything is touched, rather than unpacked as an archive.
    return file.endsWith(QLatin1StringView(".msi"), Qt::CaseInsensitive);
}

QString system_package_refusal(const QString &file)
{
    return QStringLiteral("%1 is a Windows installer package; it cannot be installed here")
        .arg(file);
}

bool install_system_package(const QString &file, int, QString *error)
{
    *error = system_package_refusal(file);
    return false;
}

} // namespace corv::update::platform
