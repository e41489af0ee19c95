#!/usr/bin/env bash
# Takes the screenshots shown in README.md: the main window on the demo
# project (an event posted from the command line on its display node), the
# preferences window, the activity panel with the events of a few posts,
# the Hotkeys view of a small project with a hotkey used twice, and the main
# window in German. Runs Corvane on a private X server (Xvfb) with private
# settings, so the user's own are never touched.
#
#   ./scripts/screenshots.sh [output folder, default docs/]
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${CORV_BUILD_DIR:-$root/build}"
out="$(realpath -m "${1:-$root/docs}")"
corvane="$build/bin/corvane"

if [[ -z ${CORV_SCREENSHOT_XVFB:-} ]]; then
    for tool in xvfb-run xdotool import; do
        command -v "$tool" >/dev/null || { echo "$tool not found; see scripts/packages.txt" >&2; exit 1; }
    done
    [[ -x $corvane ]] || { echo "$corvane not built; run ./scripts/setup.sh" >&2; exit 1; }
    export CORV_SCREENSHOT_XVFB=1
    exec xvfb-run -a -s "-screen 0 1280x800x24" "$0" "$@"
fi

home="$(mktemp -d)"
pid=
cleanup() {
    [[ -n $pid ]] && kill "$pid" 2>/dev/null || true
    rm -rf "$home"
}
trap cleanup EXIT
export HOME="$home" XDG_DATA_HOME="$home/data" XDG_CONFIG_HOME="$home/config" \
       XDG_RUNTIME_DIR="$home/run" QT_QPA_PLATFORM=xcb
mkdir -p "$XDG_RUNTIME_DIR" "$XDG_DATA_HOME/Corvane" "$out"
chmod 700 "$XDG_RUNTIME_DIR"

# Opens on the "Listener" rack with its display node selected.
demo="$root/examples/demo.corv"
first_settings() {
    cat > "$XDG_DATA_HOME/Corvane/settings.ini" <<INI
[General]
LastOpenPath=$demo
LastOpenRack=aaf0f920-1c13-413e-a333-30f80b5504a9
LastOpenNode=d9264ae0-c276-4a2f-80d3-97d844f6bd73
INI
}
first_settings

"$corvane" >"$home/corvane.log" 2>&1 &
pid=$!
window="$(timeout 20 xdotool search --all --sync --onlyvisible --pid "$pid" --name 'demo' | head -n 1)"
xdotool windowfocus --sync "$window"
sleep 0.5
"$corvane" --post news headline="Racks run while you work" from=screenshots >/dev/null
sleep 0.7
import -window "$window" "$out/main-window.png"

# File > Preferences from the keyboard.
xdotool key alt+f
sleep 0.3
xdotool key Down Down Down Down Return
preferences="$(timeout 10 xdotool search --all --sync --onlyvisible --pid "$pid" --name '^Preferences$' | head -n 1)"
# Roomier than its first size, so the page reads in full.
xdotool windowsize "$preferences" 760 520
sleep 0.7
import -window "$preferences" "$out/preferences-window.png"
xdotool key Escape
sleep 0.3

# View > Activity (Ctrl+Shift+A) while a few events arrive.
xdotool windowfocus --sync "$window" key ctrl+shift+a
sleep 0.5
for n in 1 2 3; do
    "$corvane" --post news headline="Event $n of 3" from=screenshots >/dev/null
    sleep 0.3
done
sleep 0.5
import -window "$window" "$out/activity-panel.png"

# A project with hotkeys, handed to the running window, and View > Hotkeys
# (Ctrl+Shift+H) in place of the activity panel.
hotkeys="$home/hotkeys.corv"
node() { printf '<node id="%s" component="io.marrowfield.onhotkey"><prop key="!hotkey" type="string">%s</prop></node>\n' "$1" "$2"; }
{
    echo '<?xml version="1.0" encoding="UTF-8"?>'
    echo '<project version="1">'
    echo '<rack id="11111111-0000-4000-8000-000000000001" name="Media"><node>a1a1a1a1-0000-4000-8000-000000000001</node><node>a1a1a1a1-0000-4000-8000-000000000002</node></rack>'
    echo '<rack id="11111111-0000-4000-8000-000000000002" name="Notes"><node>a1a1a1a1-0000-4000-8000-000000000003</node><node>a1a1a1a1-0000-4000-8000-000000000004</node></rack>'
    echo '<rack id="11111111-0000-4000-8000-000000000003" name="Backup" disabled="disabled"><node>a1a1a1a1-0000-4000-8000-000000000005</node></rack>'
    node a1a1a1a1-0000-4000-8000-000000000001 Ctrl+Alt+M
    node a1a1a1a1-0000-4000-8000-000000000002 Ctrl+Alt+P
    node a1a1a1a1-0000-4000-8000-000000000003 Ctrl+Alt+N
    node a1a1a1a1-0000-4000-8000-000000000004 Ctrl+Alt+M
    node a1a1a1a1-0000-4000-8000-000000000005 Ctrl+Alt+B
    echo '</project>'
} > "$hotkeys"
"$corvane" "$hotkeys" >/dev/null
timeout 10 xdotool search --all --sync --onlyvisible --pid "$pid" --name '^hotkeys' >/dev/null
xdotool windowfocus --sync "$window" key ctrl+shift+a
sleep 0.3
xdotool key ctrl+shift+h
sleep 0.7
import -window "$window" "$out/hotkeys-view.png"

xdotool windowfocus --sync "$window" key ctrl+q
wait "$pid" || true
pid=

# The demo again in German, the language stored in the program's own
# preferences (the language list is sorted by name: "Deutsch" comes first),
# with the window as it first opened.
first_settings
prefs="$XDG_DATA_HOME/Corvane/plugins/io.marrowfield.corvane"
mkdir -p "$prefs"
cat > "$prefs/prefs.xml" <<XML
<?xml version="1.0" encoding="UTF-8"?>
<preferences version="1">
    <prop key="language" type="int">0</prop>
</preferences>
XML
"$corvane" >"$home/corvane-de.log" 2>&1 &
pid=$!
window="$(timeout 20 xdotool search --all --sync --onlyvisible --pid "$pid" --name 'demo' | head -n 1)"
xdotool windowfocus --sync "$window"
sleep 0.5
"$corvane" --post news headline="Racks laufen, während Sie arbeiten" from=screenshots >/dev/null
sleep 0.7
import -window "$window" "$out/main-window-de.png"
xdotool windowfocus --sync "$window" key ctrl+q
wait "$pid" || true
pid=
echo "Wrote main-window.png, preferences-window.png, activity-panel.png, hotkeys-view.png and main-window-de.png in $out"
