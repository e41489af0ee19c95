#pragma once

#include <QString>
#include <QStringList>

// What the updater does differently per platform, chosen at build time by
// linking platform_windows.cpp or platform_unix.cpp.
namespace corv::update::platform {

// The install method of the application's own packages on this platform,
// written as the fragment of its update manifest's address: "win64.msi" on
// Windows, "linux64.tar.gz" elsewhere.
const char *update_method();

// The install method of plugin packages (gzipped tar archives everywhere,
// unpacked in-process): "win64.tar.gz" or "linux64.tar.gz". A plugin whose
// update address names no method is given this one.
const char *plugin_update_method();

// The update host program's file name: "updatehost.exe" or "updatehost".
QString update_host_file_name();

// The files beside the update host that it needs to run from a folder of
// its own (its libraries and TLS plugins on Windows, where they travel with
// the program; nothing elsewhere), relative to the program's folder. The
// hand-off copies those that exist.
QStringList update_host_companions();

// Whether `file` is a package that the system's own installer installs
// (an ".msi" on Windows) rather than an archive that is unpacked.
bool is_system_package(const QString &file);

// Why a system package cannot be installed here; empty where it can.
QString system_package_refusal(const QString &file);

// Hands a system package to the system's installer and waits for it
// (Windows: "msiexec /i FILE /passive"). False with the reason in *error;
// on a platform without such an installer always false.
bool install_system_package(const QString &file, int timeout_ms, QString *error);

} // namespace corv::update::platform
