#!/usr/bin/env bash
# Runs one test executable on a private Xvfb display (for tests that need a
# real X server: hotkey polling, key injection).
set -euo pipefail
if ! command -v xvfb-run >/dev/null 2>&1; then
    echo "xvfb-run not found; install xvfb" >&2
    exit 1
fi
# Tests that press keys check this before they do (never on a real desktop).
export CORV_XVFB=1
exec xvfb-run -a -s "-screen 0 1280x800x24" "$@"
