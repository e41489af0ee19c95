#pragma once

// Who the program says it is: set on QCoreApplication before anything else,
// since the application data folder (and so the log folder) depends on it.

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
// The application's update manifest, with the package entry of this platform.
#if defined(Q_OS_WIN)
inline constexpr char kUpdateManifest[] =
    "https://updates.marrowfield.example/corvane/manifest.json#win64.msi";
#else
inline constexpr char kUpdateManifest[] =
    "https://updates.marrowfield.example/corvane/manifest.json#linux64.tar.gz";
#endif

} // namespace corv
