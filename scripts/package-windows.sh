#!/usr/bin/env bash
# Makes the Windows packages from a Windows build (scripts/build-windows.sh):
# the installed tree in <build>/stage, and in <build>/packages
#   corvane-<version>-x64.msi           the installer (wixl, from msitools):
#                                       Program Files\Corvane, a Start menu
#                                       shortcut, the .corv file type, an
#                                       entry with icon in installed programs
#   corvane-<version>-windows-x64.zip   the same tree, to unzip and run
# Usage: scripts/package-windows.sh [BUILD_DIR]
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="$(cd "${1:-${CORV_WINDOWS_BUILD_DIR:-$root/build-windows}}" && pwd)"
version="$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")"
stage="$build/stage"
packages="$build/packages"
say() { printf 'package-windows: %s\n' "$*" >&2; }

rm -rf "$stage"
mkdir -p "$packages"
cmake --install "$build" --prefix "$stage" --strip >/dev/null

# Every installed file as a component of its own below INSTALLDIR. wixl
# takes the files' paths relative to the folder it runs in.
msi="$packages/corvane-$version-x64.msi"
(
    cd "$build"
    find stage -type f | LC_ALL=C sort |
        wixl-heat -p "stage/" --directory-ref INSTALLDIR --component-group ProgramFiles \
            --var var.SourceDir --win64 >files.wxs
    wixl -a x64 -D Win64=yes -D SourceDir=stage -D "Version=$version" \
        -D IconFile=resources/icons/corvane.ico -o "$msi" "$root/cmake/windows/corvane.wxs" files.wxs
)
say "made $msi ($(stat -c %s "$msi") bytes)"

zip="$packages/corvane-$version-windows-x64.zip"
rm -f "$zip"
top="$build/zip/Corvane-$version"
rm -rf "$build/zip"
mkdir -p "$(dirname "$top")"
cp -a "$stage" "$top"
(cd "$build/zip" && zip -qr "$zip" "Corvane-$version")
rm -rf "$build/zip"
say "made $zip ($(stat -c %s "$zip") bytes)"
