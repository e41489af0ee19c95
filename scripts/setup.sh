#!/usr/bin/env bash
# Makes a checkout ready to run: installs the Debian packages listed in
# scripts/packages.txt that are missing, configures build/ once and builds.
# Quick when nothing changed. Works from any current directory.
#
# CORV_BUILD_DIR overrides the build folder (default: build/ in the checkout).
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
# shellcheck source=scripts/build_tools.sh
source "$root/scripts/build_tools.sh"
build="${CORV_BUILD_DIR:-$root/build}"
say() { printf 'setup: %s\n' "$*" >&2; }

corv_install_packages "$root/scripts/packages.txt"

# --- Configure (once) -------------------------------------------------------

# A folder whose last configure failed has a cache but no build files.
if [[ ! -f $build/CMakeCache.txt || ! ( -f $build/build.ninja || -f $build/Makefile ) ]]; then
    args=(-S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo)
    mapfile -t -O "${#args[@]}" args < <(corv_build_tool_args)
    say "configuring $build"
    cmake "${args[@]}"
fi

# --- Build ------------------------------------------------------------------

jobs="$(nproc 2>/dev/null || echo 2)"
cmake --build "$build" --parallel "$jobs"
