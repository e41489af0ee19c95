#!/usr/bin/env bash
# Builds Corvane and all its tests with AddressSanitizer, LeakSanitizer and
# UndefinedBehaviorSanitizer in a folder of their own, and runs the tests:
# every folder, the widget tests on the offscreen platform and the X11 ones
# under Xvfb. Expects scripts/setup.sh to have run.
#
# CORV_SANITIZE_FOLDERS narrows the check to some library folders (their
# tests only), e.g. "locale;model"; CORV_SANITIZE_BUILD_DIR moves the build.
# Extra arguments go to ctest.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
# shellcheck source=scripts/build_tools.sh
source "$root/scripts/build_tools.sh"
build="${CORV_SANITIZE_BUILD_DIR:-$root/build-asan}"
folders="${CORV_SANITIZE_FOLDERS:-}"

# Configured every time, so that a changed folder list takes effect.
args=(-S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Debug -DCORV_SANITIZE=ON
      -DCORV_BUILD_BENCH=OFF "-DCORV_FOLDERS=$folders")
[[ -f $build/CMakeCache.txt ]] || mapfile -t -O "${#args[@]}" args < <(corv_build_tool_args)
cmake "${args[@]}" >/dev/null
cmake --build "$build" --parallel "$(nproc 2>/dev/null || echo 2)"

labels=()
if [[ -n $folders ]]; then
    labels=(-L "^(${folders//;/|})\$")
fi
# Reports from inside Qt and the system libraries that are not ours to fix
# are listed, each with its reason, in the suppression files beside this one.
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1${ASAN_OPTIONS:+:$ASAN_OPTIONS}"
export LSAN_OPTIONS="suppressions=$root/scripts/lsan.supp:print_suppressions=0${LSAN_OPTIONS:+:$LSAN_OPTIONS}"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1${UBSAN_OPTIONS:+:$UBSAN_OPTIONS}"
# The save crash test only repeats a normal run's check, many times slower.
# The timing nodes' test measures how late delays fire (within 5 %); the
# sanitizers' slowdown on a busy machine can miss that by a millisecond, so
# it runs on its own afterwards with a second try. Anything the sanitizers
# report fails every try.
status=0
ctest --test-dir "$build" "${labels[@]}" -LE "^crash\$" -E "^tst_timing_nodes\$" \
    --output-on-failure -j2 --timeout 300 "$@" || status=$?
if [[ -z $folders || ";$folders;" == *";nodes;"* ]]; then
    ctest --test-dir "$build" -R "^tst_timing_nodes\$" --repeat until-pass:2 \
        --output-on-failure --timeout 300 || status=$?
fi
exit "$status"
