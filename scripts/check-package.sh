#!/usr/bin/env bash
# Checks the packages the way users and plugin authors meet them:
#  1. makes the .deb and the .tar.gz with CPack, checks what they hold, and
#     runs lintian on the .deb (no errors allowed; warnings are shown);
#  2. unpacks the tarball into a temporary prefix;
#  3. builds the installed example plugin's sources on their own against the
#     installed SDK (find_package(CorvaneSDK) through CMAKE_PREFIX_PATH), under
#     an id of its own so that it loads beside the packaged example, and
#     installs it into the user's plugins folder;
#  4. runs the installed `corvane --headless` (through the bin/ link) on the
#     installed demo project with private XDG folders and no display: both
#     plugins load, the demo prints its first event, SIGTERM ends it with 0;
#  5. verifies the installed systemd unit (when systemd-analyze is there).
# The packages stay in <build>/packages/. CORV_BUILD_DIR overrides the build
# folder (default build/); CORV_KEEP_WORK=1 keeps the temporary folder.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${CORV_BUILD_DIR:-$root/build}"
started=$SECONDS

say() { printf 'check-package: %s\n' "$*" >&2; }
fail() {
    say "FAILED: $*"
    exit 1
}

"$root/scripts/setup.sh" >/dev/null

work="$(mktemp -d "${TMPDIR:-/tmp}/corv-package.XXXXXX")"
headless_pid=
cleanup() {
    [[ -n $headless_pid ]] && kill -KILL "$headless_pid" 2>/dev/null || true
    if [[ ${CORV_KEEP_WORK:-0} == 1 ]]; then
        say "kept $work"
    else
        rm -rf "$work"
    fi
}
trap cleanup EXIT

# Prints a log and fails.
fail_with_log() {
    local log=$1
    shift
    sed 's/^/    /' "$log" >&2
    fail "$*"
}

# --- 1. The packages --------------------------------------------------------

version="$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")"
packages="$build/packages"
rm -f "$packages"/corvane[-_]"$version"*
(cd "$build" && cpack -G "DEB;TGZ") >"$work/cpack.log" 2>&1 || fail_with_log "$work/cpack.log" "cpack"
deb="$(ls "$packages"/corvane_"$version"_*.deb)"
tarball="$(ls "$packages"/corvane-"$version"-*.tar.gz)"

# What both must hold, relative to the prefix.
expected=(
    bin/corvane
    lib/corvane/corvane
    lib/corvane/updatehost
    lib/corvane/locale.ini
    lib/corvane/locale/en-US.ini
    lib/corvane/locale/de-DE.ini
    lib/corvane/plugins/io.marrowfield.example/io.marrowfield.example.so
    lib/corvane/plugins/io.marrowfield.example/locale/en-US.ini
    lib/corvane/plugins/io.marrowfield.mqtt/io.marrowfield.mqtt.so
    lib/corvane/plugins/io.marrowfield.mqtt/locale/en-US.ini
    lib/corvane/plugins/io.marrowfield.mqtt/locale/de-DE.ini
    lib/corvane/plugins/io.marrowfield.system/io.marrowfield.system.so
    lib/corvane/plugins/io.marrowfield.system/locale/en-US.ini
    lib/corvane/plugins/io.marrowfield.system/locale/de-DE.ini
    include/corvane/corvane_sdk.h
    include/corvane/corvane_cui.h
    lib/cmake/CorvaneSDK/CorvaneSDKConfig.cmake
    lib/cmake/CorvaneSDK/CorvaneSDKConfigVersion.cmake
    lib/cmake/CorvaneSDK/CorvanePlugin.cmake
    share/applications/io.marrowfield.corvane.desktop
    share/mime/packages/io.marrowfield.corvane.xml
    share/icons/hicolor/scalable/apps/io.marrowfield.corvane.svg
    share/icons/hicolor/256x256/apps/io.marrowfield.corvane.png
    share/corvane/examples/demo.corv
    share/corvane/examples/corvane-headless@.service
    share/corvane/examples/plugins/example/CMakeLists.txt
    share/corvane/examples/plugins/example/example.c
    share/doc/corvane/copyright
    share/doc/corvane/changelog.Debian.gz
    share/man/man1/corvane.1.gz
)
dpkg-deb --contents "$deb" >"$work/deb.contents"
awk '{print $6}' "$work/deb.contents" | sed 's|^\./usr/||' >"$work/deb.list"
tar -tzf "$tarball" | sed 's|^[^/]*/||' >"$work/tgz.list"
for file in "${expected[@]}"; do
    grep -qxF "$file" "$work/deb.list" || fail "the .deb lacks /usr/$file"
    grep -qxF "$file" "$work/tgz.list" || fail "the .tar.gz lacks $file"
done
grep -q '\./usr/bin/corvane -> \.\./lib/corvane/corvane$' "$work/deb.contents" ||
    fail "/usr/bin/corvane is not a link to ../lib/corvane/corvane"
depends="$(dpkg-deb --field "$deb" Depends)"
for package in libqt6core6 libqt6widgets6 libqt6network6 libc6 libmosquitto1 qt6-qpa-plugins; do
    [[ $depends == *"$package"* ]] || fail "the .deb does not depend on $package: $depends"
done
lintian --fail-on error --tag-display-limit 0 "$deb" >"$work/lintian.log" 2>&1 ||
    fail_with_log "$work/lintian.log" "lintian found errors in the .deb"
grep -q '^W: ' "$work/lintian.log" && sed 's/^/    /' "$work/lintian.log" >&2
# The manual page renders and names every option of the command line.
dpkg-deb --fsys-tarfile "$deb" | tar -xO ./usr/share/man/man1/corvane.1.gz | gzip -dc >"$work/corvane.1"
LC_ALL=C MANWIDTH=80 man -l "$work/corvane.1" >"$work/man.txt" 2>"$work/man.log" || fail_with_log "$work/man.log" "man corvane"
for option in --headless --autosave --allow-run --post --check --help --version; do
    grep -q -- "$option" "$work/man.txt" || fail "the manual page does not mention $option"
done
say "$(basename "$deb"): $(stat -c %s "$deb") bytes, $(wc -l <"$work/deb.list") entries"
say "$(basename "$tarball"): $(stat -c %s "$tarball") bytes"
say "Depends: $depends"

# --- 2. The tarball in a temporary prefix ----------------------------------

tar -xzf "$tarball" -C "$work"
prefix="$(find "$work" -mindepth 1 -maxdepth 1 -type d -name 'corvane-*')"
[[ -x $prefix/bin/corvane ]] || fail "no bin/corvane in the unpacked tarball"

# --- 3. The example plugin, built on its own --------------------------------

plugin_id=com.example.outside
plugin_build="$work/plugin-build"
xdg="$work/xdg"
user_plugins="$xdg/data/Corvane/plugins"
generator=()
command -v ninja >/dev/null 2>&1 && generator=(-G Ninja)
{
    cmake -S "$prefix/share/corvane/examples/plugins/example" -B "$plugin_build" "${generator[@]}" \
        -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH="$prefix" -DPLUGIN_ID="$plugin_id" \
        -DCORVANE_PLUGIN_INSTALL_DIR="$user_plugins" &&
        cmake --build "$plugin_build" &&
        cmake --install "$plugin_build"
} >"$work/plugin.log" 2>&1 || fail_with_log "$work/plugin.log" "building the example plugin"
sdk_dir="$(sed -n 's/^CorvaneSDK_DIR:PATH=//p' "$plugin_build/CMakeCache.txt")"
[[ $sdk_dir == "$prefix/lib/cmake/CorvaneSDK" ]] || fail "found the SDK in $sdk_dir, not in the prefix"
library="$plugin_build/plugins/$plugin_id/$plugin_id.so"
for folder in "$plugin_build/plugins/$plugin_id" "$user_plugins/$plugin_id"; do
    [[ -f $folder/$plugin_id.so && -f $folder/locale/en-US.ini ]] ||
        fail "no library and locale/ in $folder"
done
# Only the entry points are exported; the SDK functions are left to the program.
exported="$(nm -D --defined-only "$library" | awk '$2 == "T" {print $3}' | sort | tr '\n' ' ')"
[[ $exported == "cplugin_get_info cplugin_load cplugin_sdk_version cplugin_set_handle cplugin_unload " ]] ||
    fail "the plugin exports more or less than its entry points: $exported"
nm -D --undefined-only "$library" | grep -q ' corv_event_post$' || fail "corv_event_post is not left undefined"

# --- 4. The installed program, headless -------------------------------------

mkdir -p "$xdg/config" "$xdg/cache" "$xdg/runtime"
chmod 700 "$xdg/runtime"
log="$work/headless.log"
: >"$log"
env -u DISPLAY -u WAYLAND_DISPLAY -u QT_QPA_PLATFORM \
    HOME="$work" XDG_DATA_HOME="$xdg/data" XDG_CONFIG_HOME="$xdg/config" \
    XDG_CACHE_HOME="$xdg/cache" XDG_RUNTIME_DIR="$xdg/runtime" \
    "$prefix/bin/corvane" --headless "$prefix/share/corvane/examples/demo.corv" >"$log" 2>&1 &
headless_pid=$!
# The demo's heartbeat fires 2 s after the start.
for ((i = 0; i < 150; ++i)); do
    grep -q '^count: 1$' "$log" && break
    kill -0 "$headless_pid" 2>/dev/null || break
    sleep 0.1
done
grep -q '^count: 1$' "$log" || fail_with_log "$log" "the demo printed no event"
kill -TERM "$headless_pid"
status=0
wait "$headless_pid" || status=$?
headless_pid=
((status == 0)) || fail_with_log "$log" "corvane --headless exited with $status after SIGTERM"

program_dir="$(cd "$prefix/lib/corvane" && pwd -P)"
for line in \
    "Found plugin in $program_dir/plugins/io.marrowfield.example" \
    "io.marrowfield.example registered node io.marrowfield.example.tag" \
    "Found plugin in $program_dir/plugins/io.marrowfield.mqtt" \
    "io.marrowfield.mqtt registered node io.marrowfield.mqtt.subscribe" \
    "Found plugin in $user_plugins/$plugin_id" \
    "$plugin_id registered node $plugin_id.tag" \
    "Opened project $prefix/share/corvane/examples/demo.corv" \
    "Shutting down with exit code 0, call again soon!"; do
    grep -qF "$line" "$log" || fail_with_log "$log" "no line \"$line\""
done
if grep -E 'Failed to load plugin|locale: .* = \?\?|Couldn.t find locale file|Unknown node' "$log" >&2; then
    fail_with_log "$log" "warnings above"
fi
ls "$xdg/data/Corvane/logs/"*.txt >/dev/null 2>&1 || fail "no log file in the private data folder"

# --- 5. The systemd user unit ------------------------------------------------

if command -v systemd-analyze >/dev/null 2>&1; then
    # An instance for the demo, running the unpacked program (the unit names
    # "corvane" alone, which systemd looks for in /usr/local/bin and /usr/bin).
    unit="$work/units/corvane-headless@$(systemd-escape --path "$prefix/share/corvane/examples/demo.corv").service"
    mkdir -p "$work/units"
    sed "s|^ExecStart=corvane |ExecStart=$prefix/bin/corvane |" \
        "$prefix/share/corvane/examples/corvane-headless@.service" >"$unit"
    XDG_RUNTIME_DIR="$xdg/runtime" systemd-analyze --user verify "$unit" >"$work/unit.log" 2>&1 ||
        fail_with_log "$work/unit.log" "systemd-analyze verify"
    [[ -s $work/unit.log ]] && fail_with_log "$work/unit.log" "systemd-analyze verify complained"
fi

say "ok in $((SECONDS - started)) s: packages built and complete; the outside-built plugin and the packaged one load; the demo ran headless"
