#!/usr/bin/env bash
# Keeps the Windows code compiling on Linux, and runs the Windows keyboard
# backend for real:
#  1. a syntax check of the Windows keyboard backend with MinGW-w64 (and of
#     the Qt-free input sources around it);
#  2. unless CORV_SKIP_WINE is set, a small program over that backend,
#     cross-compiled (-static) and run under Wine on a private Xvfb display:
#     SendInput presses read back with GetAsyncKeyState, taps between two
#     reads through its "pressed since the last call" bit, the press and
#     release rules, hotkey text through VkKeyScanW, the foreground window.
# app/shutdown_signals_windows.cpp needs Qt's headers, which MinGW does not
# have here, so it is not checked.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"
cxx=x86_64-w64-mingw32-g++-posix
say() { printf 'check-windows: %s\n' "$*" >&2; }

if ! command -v "$cxx" >/dev/null 2>&1; then
    say "$cxx not found; install g++-mingw-w64-x86-64-posix"
    exit 1
fi

sources=(input/windows_backend.cpp input/active_window_windows.cpp input/hotkey.cpp input/key_table.cpp
         input/fake_backend.cpp)
for source in "${sources[@]}" tests/input/windows_keyboard_check.cpp; do
    "$cxx" -std=c++20 -Wall -Wextra -Werror -fsyntax-only -I. "$source"
done
say "syntax check passed: ${sources[*]}"

[[ -n ${CORV_SKIP_WINE:-} ]] && exit 0
wine=/usr/lib/wine/wine64
if [[ ! -x $wine ]]; then
    say "Wine not found at $wine; install wine64"
    exit 1
fi
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
"$cxx" -std=c++20 -O1 -static -I. -o "$work/keyboard_check.exe" \
    tests/input/windows_keyboard_check.cpp input/windows_backend.cpp input/active_window_windows.cpp \
    input/hotkey.cpp input/key_table.cpp
say "running the Windows keyboard backend under Wine"
WINEPREFIX="$work/prefix" WINEDEBUG=-all timeout 180 \
    xvfb-run -a -s "-screen 0 1024x768x24" "$wine" "$work/keyboard_check.exe" 2>/dev/null
