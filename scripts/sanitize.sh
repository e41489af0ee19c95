#!/usr/bin/env bash
# Builds the libraries that run without a window (and their tests) with
# AddressSanitizer, LeakSanitizer and UndefinedBehaviorSanitizer in a folder of
# their own, and runs those tests. Expects scripts/setup.sh to have run.
#
# CORV_SANITIZE_FOLDERS overrides which library folders are checked.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${CORV_SANITIZE_BUILD_DIR:-$root/build-asan}"
folders="${CORV_SANITIZE_FOLDERS:-locale;model;exprs;engine;persistence;input}"

if [[ ! -f $build/CMakeCache.txt ]]; then
    args=(-S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Debug -DCORV_SANITIZE=ON
          -DCORV_BUILD_BENCH=OFF "-DCORV_FOLDERS=$folders")
    command -v ninja >/dev/null 2>&1 && args+=(-G Ninja)
    command -v ccache >/dev/null 2>&1 &&
        args+=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
    cmake "${args[@]}" >/dev/null
fi
cmake --build "$build" --parallel "$(nproc 2>/dev/null || echo 2)"

labels="${folders//;/|}"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
    ctest --test-dir "$build" -L "^($labels)\$" --output-on-failure -j2 --timeout 300
