#pragma once

// Who the program says it is: set on QCoreApplication before anything else,
// since the application data folder (and so the log folder) depends on it.

#include "update/platform.h"

#include <QByteArray>
#include <QtGlobal>

namespace corv {

inline constexpr char kOrganizationDomain[] = "marrowfield.example";
inline constexpr char kApplicationName[] = "Corvane";
inline constexpr char kApplicationVersion[] = "0.9.4";
// The name and version as they open every log.
inline constexpr char kProductString[] = "Corvane 0.9.4 (64-bit)";
// The plugin SDK version this build speaks.
inline constexpr int kSdkVersion = 1;

// The executable's own plugin (the built-in node set).
inline constexpr char kBuiltinPluginId[] = "io.marrowfield.corvane";
inline constexpr char kAuthor[] = "Marrowfield";
// The application's update manifest; its fragment names the install method
// of this platform's packages.
inline constexpr char kUpdateManifestAddress[] =
    "https://updates.marrowfield.example/corvane/manifest.json";
inline const char *update_manifest()
{
    static const QByteArray url =
        QByteArray(kUpdateManifestAddress) + '#' + update::platform::update_method();
    return url.constData();
}

} // namespace corv
