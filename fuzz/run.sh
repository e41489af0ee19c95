#!/usr/bin/env bash
# Builds the libFuzzer targets with clang in a build folder of their own and
# runs each for SECONDS seconds on its seed corpus and a scratch folder of
# the inputs it found (kept between runs), two targets at a time, printing
# how many inputs each executed and the coverage it reached (libFuzzer's
# "cov:" edges and "ft:" features). CI runs it briefly; a deep run takes
# ten minutes or more per target.
#
#   fuzz/run.sh SECONDS [TARGET...]
#
# Environment: CORV_FUZZ_BUILD_DIR (default: build-fuzz beside fuzz/),
# CORV_FOLDERS (narrow the build to these library folders; default: all),
# CC/CXX-like overrides CORV_FUZZ_CC and CORV_FUZZ_CXX (default clang, clang++),
# CORV_FUZZ_JOBS (parallel build jobs, default 2), CORV_FUZZ_PARALLEL (targets
# run at once, default 2).
set -euo pipefail

seconds=${1:?usage: fuzz/run.sh SECONDS}
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${CORV_FUZZ_BUILD_DIR:-$root/build-fuzz}
cc=${CORV_FUZZ_CC:-clang}
cxx=${CORV_FUZZ_CXX:-clang++}
shift
only=("$@")
jobs=${CORV_FUZZ_JOBS:-2}
parallel=${CORV_FUZZ_PARALLEL:-2}

if ! command -v "$cxx" >/dev/null 2>&1; then
    echo "fuzz: $cxx not found; nothing fuzzed" >&2
    exit 1
fi

folders=${CORV_FOLDERS:-}
if [[ -n $folders ]]; then
    folders="$folders;fuzz"
fi
launcher=()
if command -v ccache >/dev/null 2>&1; then
    launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi

# Every library is instrumented for coverage and the sanitizers; the fuzz
# executables add libFuzzer's main. Undefined behaviour stops the run.
mkdir -p "$build"
flags="-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer"
cmake -S "$root" -B "$build" -G Ninja \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" \
    -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" \
    "${launcher[@]}" \
    -DCORV_BUILD_FUZZ=ON -DCORV_BUILD_TESTS=OFF -DCORV_BUILD_BENCH=OFF \
    -DCORV_FOLDERS="$folders" >"$build/configure.log" 2>&1 ||
    { cat "$build/configure.log" >&2; exit 1; }
cmake --build "$build" --target corv_fuzzers -- -j"$jobs"

list="$build/fuzz/fuzzers.txt"
if [[ ! -s $list ]] || ! grep -q . "$list"; then
    echo "fuzz: no fuzz targets were configured" >&2
    exit 1
fi

# One target: its run and a summary line in its log folder.
fuzz_one() {
    local name=$1 binary=$2 seeds=$3 dict=$4
    local work="$build/fuzz/work/$name" artifacts="$build/fuzz/artifacts/$name"
    local log="$build/fuzz/$name.log"
    mkdir -p "$work" "$artifacts"
    # New inputs go to the scratch folder (listed first); the seeds stay as
    # they are in the source tree.
    local extra=()
    if [[ -n $dict ]]; then
        extra+=(-dict="$dict")
    fi
    local status=0
    ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1} \
        "$binary" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
        -print_final_stats=1 -artifact_prefix="$artifacts/" "${extra[@]}" \
        "$work" "$seeds" >"$log" 2>&1 || status=$?
    echo "$status" >"$log.status"
}

names=()
pids=()
while IFS=$'\t' read -r name binary seeds dict; do
    [[ -n $name ]] || continue
    if ((${#only[@]})) && [[ " ${only[*]} " != *" $name "* ]]; then
        continue
    fi
    while (($(jobs -rp | wc -l) >= parallel)); do
        wait -n || true
    done
    fuzz_one "$name" "$binary" "$seeds" "${dict:-}" &
    names+=("$name")
done <"$list"
wait

if ((${#names[@]} == 0)); then
    echo "fuzz: no such target: ${only[*]}" >&2
    exit 1
fi

failed=0
total=0
for name in "${names[@]}"; do
    log="$build/fuzz/$name.log"
    status=$(cat "$log.status" 2>/dev/null || echo 1)
    runs=$(sed -n 's/^stat::number_of_executed_units: *\([0-9]*\).*/\1/p' "$log" | tail -n1)
    runs=${runs:-0}
    total=$((total + runs))
    # The last status line, e.g. "#123456 DONE cov: 812 ft: 2301 corp: ...".
    cov=$(grep -Eo 'cov: [0-9]+ ft: [0-9]+' "$log" | tail -n1 || true)
    if [[ $status -ne 0 ]]; then
        echo "$name: FAILED after $runs executions (exit $status); log: $log" >&2
        tail -n 40 "$log" >&2
        failed=1
    else
        echo "$name: $runs executions in $seconds s, ${cov:-no coverage line}"
    fi
done
echo "fuzz: $total executions in total"
exit "$failed"
