#!/usr/bin/env bash
# Cross-builds libmosquitto for Windows x64 from Debian's own source package,
# for the MQTT plugin's .dll: the client library only (no broker, clients,
# apps, C++ wrapper, plugins or manuals), static so that the plugin carries
# it, without TLS, with threading through MinGW-w64's winpthreads. Installs
# include/mosquitto.h, include/mqtt_protocol.h and lib/libmosquitto_static.a
# into <cache>/mosquitto-<Debian version>-mingw-x64 once; quick afterwards.
#
# Enables Debian's source packages when no deb-src line is configured yet
# (/etc/apt/sources.list.d/corvane-sources.sources, mirroring debian.sources).
# CORV_CACHE_DIR moves the cache (default: ~/.cache/corvane). Prints the
# install folder's path last.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
# shellcheck source=scripts/build_tools.sh
source "$root/scripts/build_tools.sh"
say() { printf 'build-windows-mosquitto: %s\n' "$*" >&2; }

as_root=()
if ((EUID != 0)); then
    as_root=(sudo)
fi

# Debian's source packages: the same archives as the binary ones.
binary_sources=/etc/apt/sources.list.d/debian.sources
source_sources=/etc/apt/sources.list.d/corvane-sources.sources
if ! grep -qsE '^[[:space:]]*(Types:.*[[:space:]]deb-src([[:space:]]|$)|deb-src[[:space:]])' \
    /etc/apt/sources.list /etc/apt/sources.list.d/*.list /etc/apt/sources.list.d/*.sources; then
    if [[ ! -f $binary_sources ]]; then
        say "no $binary_sources to take the source archives from: add a deb-src line by hand"
        exit 1
    fi
    say "enabling Debian's source packages in $source_sources"
    awk '/^Types:/ { print "Types: deb-src"; next }
         /^(URIs|Suites|Components|Signed-By):/ || /^[[:space:]]*$/ { print }' \
        "$binary_sources" | "${as_root[@]}" tee "$source_sources" >/dev/null
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -q >&2
fi

# The version apt-get source would fetch, from the name of its .dsc file.
dsc="$(apt-get source --print-uris -qq mosquitto | awk '$2 ~ /^mosquitto_.*\.dsc$/ { print $2; exit }')"
if [[ -z $dsc ]]; then
    say "apt-get source knows no mosquitto source package"
    exit 1
fi
version="${dsc#mosquitto_}"
version="${version%.dsc}"
version="${version#*:}"
install="$(corv_cache_dir)/mosquitto-$version-mingw-x64"
if [[ -f $install/.built ]]; then
    printf '%s\n' "$install"
    exit 0
fi

work="$(mktemp -d "${TMPDIR:-/tmp}/corv-mosquitto.XXXXXX")"
trap 'rm -rf "$work"' EXIT
say "building libmosquitto $version for Windows in $work"
(cd "$work" && apt-get source -q mosquitto >&2)
source_dir="$(find "$work" -mindepth 1 -maxdepth 1 -type d -name 'mosquitto-*' | head -n 1)"
if [[ ! -f $source_dir/lib/CMakeLists.txt ]]; then
    say "no unpacked mosquitto source in $work"
    exit 1
fi

args=(-S "$source_dir" -B "$work/build" -DCMAKE_BUILD_TYPE=Release
      "-DCMAKE_TOOLCHAIN_FILE=$root/cmake/toolchains/mingw-w64-x86_64.cmake"
      -DWITH_STATIC_LIBRARIES=ON -DWITH_TLS=OFF -DWITH_CJSON=OFF -DWITH_SRV=OFF
      -DWITH_CLIENTS=OFF -DWITH_BROKER=OFF -DWITH_APPS=OFF -DWITH_PLUGINS=OFF
      -DWITH_LIB_CPP=OFF -DDOCUMENTATION=OFF)
mapfile -t -O "${#args[@]}" args < <(corv_build_tool_args)
nice -n 5 cmake "${args[@]}" >&2
# Only the static library is built, and it is installed by hand rather than
# with cmake --install. On Windows the source's CMake files point threading
# at a pthreads-win32 build for MSVC under C:\pthreads, which the shared
# libmosquitto would link and fail to find; an archive links nothing, and
# the plugin brings winpthreads itself. cmake --install would want that
# shared library built.
nice -n 5 cmake --build "$work/build" --target libmosquitto_static >&2

staging="$install.partial"
rm -rf "$staging"
mkdir -p "$staging/include" "$staging/lib"
cp "$source_dir/include/mosquitto.h" "$source_dir/include/mqtt_protocol.h" "$staging/include/"
cp "$work/build/lib/libmosquitto_static.a" "$staging/lib/"
cp "$source_dir/LICENSE.txt" "$source_dir/edl-v10" "$source_dir/epl-v20" "$staging/" 2>/dev/null || true
printf '%s\n' "$version" >"$staging/.built"
rm -rf "$install"
mv "$staging" "$install"
printf '%s\n' "$install"
