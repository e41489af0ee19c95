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
package_list="$root/scripts/packages.txt"

say() { printf 'setup: %s\n' "$*" >&2; }

# --- Packages ---------------------------------------------------------------

wanted=()
while IFS= read -r line || [[ -n $line ]]; do
    line="${line%%#*}"
    for word in $line; do
        wanted+=("$word")
    done
done <"$package_list"

missing=()
if ((${#wanted[@]})); then
    declare -A installed=()
    while read -r name status; do
        [[ $status == installed ]] && installed[$name]=1
    done < <(dpkg-query -W -f='${Package} ${db:Status-Status}\n' "${wanted[@]}" 2>/dev/null || true)
    for package in "${wanted[@]}"; do
        [[ -n ${installed[$package]:-} ]] || missing+=("$package")
    done
fi

if ((${#missing[@]})); then
    say "installing ${missing[*]}"
    if ((EUID == 0)); then
        as_root=()
    elif command -v sudo >/dev/null 2>&1; then
        as_root=(sudo)
    else
        say "not root and no sudo: install these packages by hand: ${missing[*]}"
        exit 1
    fi
    apt_env=(env DEBIAN_FRONTEND=noninteractive)
    "${as_root[@]}" "${apt_env[@]}" apt-get update -q
    "${as_root[@]}" "${apt_env[@]}" apt-get install -y -q "${missing[@]}" </dev/null
fi

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
