#!/usr/bin/env bash
# Builds Corvane with ThreadSanitizer in a folder of its own and runs the
# tests whose work crosses threads: events posted from other threads (the
# engine's and the SDK's corv_event_post), the hotkey poller and the key
# injector threads (fake backend, and X11 under Xvfb), and the control
# socket of the running program. Expects scripts/setup.sh to have run.
#
# CORV_TSAN_BUILD_DIR moves the build. Extra arguments go to ctest.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
# shellcheck source=scripts/build_tools.sh
source "$root/scripts/build_tools.sh"
build="${CORV_TSAN_BUILD_DIR:-$root/build-tsan}"
tests=(tst_event_routing tst_event_scope tst_sdk_events tst_input tst_hotkey_nodes
       tst_hotkey_x11 tst_corvane)

if [[ ! -f $build/CMakeCache.txt ]]; then
    args=(-S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCORV_SANITIZE_THREAD=ON
          -DCORV_BUILD_BENCH=OFF)
    mapfile -t -O "${#args[@]}" args < <(corv_build_tool_args)
    cmake "${args[@]}" >/dev/null
fi
# Only these tests and what they run (the program, its plugins). The build
# runs a tool of its own (the icon renderer), instrumented like the rest but
# not under test: its reports, all inside Qt's image code, are not shown.
TSAN_OPTIONS=report_bugs=0 cmake --build "$build" --parallel "$(nproc 2>/dev/null || echo 2)" --target "${tests[@]}"

# Qt is not built with ThreadSanitizer: what it hands between threads inside
# its own code (posted events, queued signals) looks unordered. Those reports,
# and only those, are listed with their reasons in scripts/tsan.supp.
# die_after_fork=0: the X11 tests start helper programs with QProcess from a
# process that has threads, and the child only execs.
export TSAN_OPTIONS="suppressions=$root/scripts/tsan.supp:halt_on_error=1:second_deadlock_stack=1:die_after_fork=0${TSAN_OPTIONS:+:$TSAN_OPTIONS}"
pattern="^($(IFS='|'; echo "${tests[*]}"))\$"
ctest --test-dir "$build" -R "$pattern" --output-on-failure -j2 --timeout 600 "$@"
