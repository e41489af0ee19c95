#!/usr/bin/env bash
# Builds Corvane if needed and starts it: with its window when a display is
# there, otherwise headless until Ctrl+C. Opens the demo project when the
# checkout has one. Further arguments are passed on to corvane.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${CORV_BUILD_DIR:-$root/build}"

"$root/scripts/setup.sh"

args=()
if [[ -z ${DISPLAY:-} && -z ${WAYLAND_DISPLAY:-} ]]; then
    args+=(--headless)
fi
demo="$root/examples/demo.corv"
if [[ -f $demo ]]; then
    args+=("$demo")
fi

exec "$build/bin/corvane" "${args[@]}" "$@"
