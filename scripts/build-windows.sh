#!/usr/bin/env bash
# Builds Corvane for Windows x64 on Linux: the program, every library, the
# update host, the first-party and example plugins as .dll files and the test
# executables, cross-compiled with Debian's MinGW-w64 against the Windows Qt
# in ../shared/toolchains (unpacked once into a cache folder outside the
# checkout). Warnings are errors. Quick when nothing changed.
#
# CORV_WINDOWS_BUILD_DIR moves the build (default: build-windows/);
# CORV_WINDOWS_CMAKE_ARGS adds settings when the folder is configured;
# CORV_WINDOWS_QT_ARCHIVE names another Qt archive; CORV_CACHE_DIR moves the
# cache (default: ~/.cache/corvane). Prints the build folder's path last.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
# shellcheck source=scripts/build_tools.sh
source "$root/scripts/build_tools.sh"
build="${CORV_WINDOWS_BUILD_DIR:-$root/build-windows}"
say() { printf 'build-windows: %s\n' "$*" >&2; }

corv_install_packages "$root/scripts/packages.txt"
qt="$(corv_windows_qt)"
# libmosquitto for the MQTT plugin, built once; without it the plugin is left out.
mosquitto="$("$root/scripts/build-windows-mosquitto.sh")" || mosquitto=""

# The icons are rendered at build time by a tool that runs here: built for
# this machine in a small build folder of its own.
host_build="$root/build-host-tools"
renderer="$host_build/resources/corv_render_icons"
if [[ ! -f $host_build/CMakeCache.txt ]]; then
    args=(-S "$root" -B "$host_build" -DCMAKE_BUILD_TYPE=Release -DCORV_FOLDERS=resources
          -DCORV_BUILD_TESTS=OFF -DCORV_BUILD_BENCH=OFF)
    mapfile -t -O "${#args[@]}" args < <(corv_build_tool_args)
    cmake "${args[@]}" >/dev/null
fi
cmake --build "$host_build" --target corv_render_icons >/dev/null

if [[ ! -f $build/CMakeCache.txt || ! -f $build/build.ninja ]]; then
    say "configuring $build against $qt"
    args=(-S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DCORV_WERROR=ON
          "-DCMAKE_TOOLCHAIN_FILE=$root/cmake/toolchains/mingw-w64-x86_64.cmake"
          "-DCMAKE_PREFIX_PATH=$qt" -DQT_HOST_PATH=/usr
          -DQT_HOST_PATH_CMAKE_DIR=/usr/lib/x86_64-linux-gnu/cmake
          "-DCORV_HOST_RENDER_ICONS=$renderer" "-DCORV_WINDOWS_MOSQUITTO_DIR:PATH=$mosquitto")
    # More settings for a new build folder, e.g. -DCORV_BUILD_BENCH=OFF.
    read -r -a extra <<<"${CORV_WINDOWS_CMAKE_ARGS:-}"
    args+=("${extra[@]}")
    mapfile -t -O "${#args[@]}" args < <(corv_build_tool_args)
    cmake "${args[@]}" >/dev/null
elif ! grep -qxF "CORV_WINDOWS_MOSQUITTO_DIR:PATH=$mosquitto" "$build/CMakeCache.txt"; then
    cmake -S "$root" -B "$build" "-DCORV_WINDOWS_MOSQUITTO_DIR:PATH=$mosquitto" >/dev/null
fi
cmake --build "$build" --parallel "$(nproc 2>/dev/null || echo 2)"
printf '%s\n' "$build"
