#!/usr/bin/env bash
# Windows, checked on Linux: builds the whole tree for Windows x64
# (scripts/build-windows.sh) and runs, under Wine on a private X server:
#  1. every test executable of the Windows build (CTest), but those listed
#     below with the reason they cannot run there;
#  2. end-to-end checks of corvane.exe: a headless run of the demo prints
#     its display lines; --post reaches it through the named pipe; Ctrl+C
#     ends it with the shutdown line; a hotkey held on Wine's display fires
#     an on-hotkey node and a Press Hotkey node's keys reach a second
#     window; a plugin built out of tree against the installed SDK loads;
#  3. the packages (scripts/package-windows.sh): the MSI installs with
#     msiexec, the installed program runs the demo headless, and msiexec /x
#     removes it and leaves nothing under Program Files.
# CORV_WINDOWS_BUILD_DIR moves the build; extra arguments go to ctest.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"
say() { printf 'check-windows: %s\n' "$*" >&2; }
fail() { say "FAILED: $*"; exit 1; }

build="$(scripts/build-windows.sh | tail -n 1)"
wine_run="$build/wine-run"

# One X server and one Wine prefix for the whole check.
work="$(mktemp -d)"
export WINEPREFIX="$work/prefix"
export WINEDEBUG=-all
Xvfb_display=":$((100 + RANDOM % 800))"
Xvfb "$Xvfb_display" -screen 0 1280x800x24 -nolisten tcp >/dev/null 2>&1 &
xvfb_pid=$!
cleanup() {
    local status=$?
    WINEPREFIX="$WINEPREFIX" timeout 30 /usr/lib/wine/wineserver -k 2>/dev/null || true
    kill "$xvfb_pid" 2>/dev/null || true
    rm -rf "$work"
    exit "$status"
}
trap cleanup EXIT
export DISPLAY="$Xvfb_display"
for _ in $(seq 100); do
    xdpyinfo -display "$DISPLAY" >/dev/null 2>&1 && break
    sleep 0.1
done
say "making the Wine prefix"
"$wine_run" cmd /c exit >/dev/null 2>&1 || true
# Settled on disk: each test runs in a copy of it.
/usr/lib/wine/wineserver -w 2>/dev/null || true
# The prefix's %APPDATA%, as this machine sees it.
appdata="$(ls -d "$WINEPREFIX"/drive_c/users/*/AppData/Roaming | head -n 1)"

# --- 1. The test executables ---------------------------------------------------

# Tests that are not built for Windows, each with its reason.
not_built=(
    "tst_hotkey_x11: drives a real X server with xdotool and reads it with XQueryKeymap (the end-to-end hotkey check below runs the Windows backend on Wine's display)"
    "tst_main_window_x11: drives the program's window on an X server with xdotool"
    "tst_corvane: checks the Unix control socket's folder (owner, mode, /run/user) and stops the program with Unix signals; the end-to-end checks below run corvane.exe's headless run, --post through the named pipe and Ctrl+C"
    "tst_project_manager: makes saves fail with fork, file size limits, modes and owners; Windows saves and backups are checked by tst_save_crash"
)
# Tests that are built but cannot run under Wine, each with its reason.
not_under_wine=(
)
for entry in "${not_built[@]}"; do
    say "not built for Windows: $entry"
done
exclude=""
for entry in "${not_under_wine[@]}"; do
    name="${entry%%:*}"
    say "not run under Wine: $entry"
    exclude="${exclude:+$exclude|}^$name\$"
done
say "running the test executables under Wine"
# Timing tests get a second try: Wine on a busy machine can wake a timer late.
ctest --test-dir "$build" --output-on-failure -j2 --timeout 600 --repeat until-pass:2 ${exclude:+-E "$exclude"} "$@"

# --- 2. End to end ------------------------------------------------------------

# Starts corvane.exe ARGS... in the background with its console in $work/NAME.out.
start_program() {
    local name="$1"
    shift
    "$wine_run" "$build/bin/corvane.exe" "$@" >"$work/$name.out" 2>&1 &
    eval "${name}_pid=\$!"
}
# wait_for FILE TEXT [SECONDS]: until FILE holds TEXT.
wait_for() {
    local seconds="${3:-60}"
    for _ in $(seq $((seconds * 10))); do
        grep -qF -- "$2" "$1" 2>/dev/null && return 0
        sleep 0.1
    done
    say "no \"$2\" in $1 after ${seconds}s; it holds:"
    cat "$1" >&2 || true
    return 1
}

say "corvane.exe --headless on the demo project"
start_program demo --headless "$root/examples/demo.corv"
wait_for "$work/demo.out" "Initialization complete; starting UI" || fail "the headless run did not start"
wait_for "$work/demo.out" "count: 1" || fail "the demo printed no display line"

say "corvane.exe --post through the named pipe"
"$wine_run" "$build/bin/corvane.exe" --post news headline=from-the-pipe >"$work/post.out" 2>&1 ||
    { cat "$work/post.out" >&2; fail "--post found no instance"; }
wait_for "$work/demo.out" "headline: from-the-pipe" || fail "the posted event was not displayed"

say "Ctrl+C ends the headless run with the shutdown line"
kill -INT "$demo_pid"
wait "$demo_pid" || fail "the headless run ended with $? after Ctrl+C"
grep -qF "Shutting down with exit code 0, call again soon!" "$work/demo.out" ||
    { cat "$work/demo.out" >&2; fail "no shutdown line after Ctrl+C"; }

say "hotkeys: a key held on Wine's display fires an on-hotkey node; a Press Hotkey node's keys reach a second window"
# Rack "Hotkey": On Ctrl+Shift+K -> Display. Rack "Press": On Ctrl+Shift+L ->
# Press Hotkey J (held 0.2 s).
cat >"$work/hotkeys.corv" <<'PROJECT'
<?xml version="1.0" encoding="UTF-8"?>
<project version="1">
    <rack id="0d7e9a51-9f0e-4a4b-9d55-5f3f0c1a0001" name="Hotkey">
        <node>0d7e9a51-9f0e-4a4b-9d55-5f3f0c1a0011</node>
    </rack>
    <rack id="0d7e9a51-9f0e-4a4b-9d55-5f3f0c1a0002" name="Press">
        <node>0d7e9a51-9f0e-4a4b-9d55-5f3f0c1a0021</node>
    </rack>
    <node id="0d7e9a51-9f0e-4a4b-9d55-5f3f0c1a0011" component="io.marrowfield.onhotkey">
        <prop key="!hotkey" type="string">Ctrl+Shift+K</prop>
        <node>0d7e9a51-9f0e-4a4b-9d55-5f3f0c1a0012</node>
    </node>
    <node id="0d7e9a51-9f0e-4a4b-9d55-5f3f0c1a0012" component="io.marrowfield.display"/>
    <node id="0d7e9a51-9f0e-4a4b-9d55-5f3f0c1a0021" component="io.marrowfield.onhotkey">
        <prop key="!hotkey" type="string">Ctrl+Shift+L</prop>
        <node>0d7e9a51-9f0e-4a4b-9d55-5f3f0c1a0022</node>
    </node>
    <node id="0d7e9a51-9f0e-4a4b-9d55-5f3f0c1a0022" component="io.marrowfield.triggerhotkey">
        <prop key="!hotkey" type="string">J</prop>
        <prop key="!seconds" type="float">0.2</prop>
    </node>
</project>
PROJECT
start_program hotkeys --headless "$work/hotkeys.corv"
wait_for "$work/hotkeys.out" "Initialization complete; starting UI" || fail "the hotkey project did not start"
"$wine_run" "$build/tests/bin/key_window.exe" 60 >"$work/keys.out" 2>&1 &
keys_pid=$!
wait_for "$work/keys.out" "ready" || fail "the key window did not start"
# Wine sees the keys that X gives its windows: the key window gets the focus
# (there is no window manager to give it), and keys are held for several polls.
key_window="$(xdotool search --sync --name "Corvane key window" | head -n 1)"
xdotool windowfocus --sync "$key_window"
xdotool keydown ctrl+shift+k; sleep 0.3; xdotool keyup ctrl+shift+k
wait_for "$work/hotkeys.out" "hotkey: Ctrl+Shift+K" 20 || fail "the held hotkey did not fire its node"
xdotool keydown ctrl+shift+l; sleep 0.3; xdotool keyup ctrl+shift+l
# 74 is J's virtual-key code.
wait_for "$work/keys.out" "down 74" 20 || fail "the pressed J did not reach the second window"
wait_for "$work/keys.out" "up 74" 20 || fail "the pressed J was not released"
kill -INT "$hotkeys_pid"
wait "$hotkeys_pid" || fail "the hotkey run ended with $?"
kill "$keys_pid" 2>/dev/null || true

# --- 3. Packages ----------------------------------------------------------------

scripts/package-windows.sh "$build"
stage="$build/stage"
version="$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")"
wine=/usr/lib/wine/wine64

say "a plugin built out of tree against the installed SDK loads"
cmake -S "$root/examples/plugins/example" -B "$work/plugin" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    "-DCMAKE_TOOLCHAIN_FILE=$root/cmake/toolchains/mingw-w64-x86_64.cmake" \
    "-DCMAKE_PREFIX_PATH=$stage" -DPLUGIN_ID=com.example.windows \
    "-DCORVANE_PLUGIN_INSTALL_DIR=$appdata/Corvane/plugins" >/dev/null
cmake --build "$work/plugin" >/dev/null
cmake --install "$work/plugin" >/dev/null
[[ -f $appdata/Corvane/plugins/com.example.windows/com.example.windows.dll ]] ||
    fail "the plugin was not installed into %APPDATA%\\Corvane\\plugins"
# The unpacked tree runs on its own: no Qt or MinGW folders on its path.
env -u WINEPATH -u QT_PLUGIN_PATH "$wine" "$stage/corvane.exe" --headless "$root/examples/demo.corv" \
    >"$work/staged.out" 2>&1 &
staged_pid=$!
wait_for "$work/staged.out" "count: 1" || fail "the installed tree did not run the demo"
kill -INT "$staged_pid"
wait "$staged_pid" || true
grep -q "com.example.windows" "$work/staged.out" || { cat "$work/staged.out" >&2; fail "the outside plugin did not load"; }
rm -rf "$appdata/Corvane/plugins/com.example.windows"

say "the MSI installs, runs and uninstalls"
msi="$build/packages/corvane-$version-x64.msi"
installed="$WINEPREFIX/drive_c/Program Files/Corvane"
"$wine" msiexec /i "Z:$msi" /qn || fail "msiexec /i failed with $?"
[[ -f $installed/corvane.exe && -f $installed/plugins/io.marrowfield.example/io.marrowfield.example.dll ]] ||
    fail "the MSI installed no corvane.exe and plugins folder under Program Files"
env -u WINEPATH -u QT_PLUGIN_PATH "$wine" "C:\\Program Files\\Corvane\\corvane.exe" --headless \
    "C:\\Program Files\\Corvane\\examples\\demo.corv" >"$work/installed.out" 2>&1 &
installed_pid=$!
wait_for "$work/installed.out" "count: 1" || fail "the installed program did not run the demo"
kill -INT "$installed_pid"
wait "$installed_pid" || true
"$wine" msiexec /x "Z:$msi" /qn || fail "msiexec /x failed with $?"
if [[ -e $installed ]] && [[ -n "$(find "$installed" -mindepth 1 -print -quit)" ]]; then
    find "$installed" >&2
    fail "msiexec /x left files under Program Files"
fi
say "all Windows checks passed"
