#pragma once

// The program's embedded files (":/corv/..."): the application icon, the
// node icons under ":/corv/icons/nodes/" (PNGs rendered at build time from
// the SVG sources in resources/icons/) and the style sheet. Linking
// corv_resources brings them into an executable.
namespace corv::resources {

inline constexpr char kApplicationIcon[] = ":/corv/icons/corvane.png";
inline constexpr char kApplicationIconSvg[] = ":/corv/icons/corvane.svg";
inline constexpr char kNodeIconFolder[] = ":/corv/icons/nodes/";
inline constexpr char kStyleSheet[] = ":/corv/style.css";

// True when the embedded files are part of this executable.
bool available();

} // namespace corv::resources
