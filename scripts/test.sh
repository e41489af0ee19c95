#!/usr/bin/env bash
# Builds Corvane if needed and runs every test. Extra arguments go to ctest,
# e.g. `scripts/test.sh -L model`. Exits non-zero when a test fails.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${CORV_BUILD_DIR:-$root/build}"

"$root/scripts/setup.sh"

exec ctest --test-dir "$build" --output-on-failure -j2 --timeout 300 "$@"
