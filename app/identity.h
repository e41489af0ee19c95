#pragma once

// Who the program says it is: set on QCoreApplication before anything else,
// since the application data folder (and so the log folder) depends on it.

namespace corv {

inline constexpr char kOrganizationDomain[] = "marrowfield.example";
inline constexpr char kApplicationName[] = "Corvane";
inline constexpr char kApplicationVersion[] = "0.9.4";
// The name and version as they open every log.
inline constexpr char kProductString[] = "Corvane 0.9.4 (64-bit)";
// The plugin SDK version this build speaks.
inline constexpr int kSdkVersion = 1;

} // namespace corv
