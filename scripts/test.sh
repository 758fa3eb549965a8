#!/usr/bin/env bash
# Installs what is missing, builds, and runs every unit and integration test.
#   scripts/test.sh              the normal build in build/
#   scripts/test.sh --sanitize   the same under AddressSanitizer and UBSan, in build-sanitize/
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/bootstrap.sh"

extra=()
if [ "${1:-}" = "--sanitize" ]; then
  export KSDEPLOY_BUILD_DIR="$root/build-sanitize"
  export KSDEPLOY_BUILD_TYPE=Debug
  extra+=(-DKSDEPLOY_SANITIZE=ON -DKSDEPLOY_BENCH=OFF)
  export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
  export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
fi
build="${KSDEPLOY_BUILD_DIR:-$root/build}"

"$root/scripts/build.sh" "${extra[@]}"
cd "$build"
ctest --output-on-failure -j2 --timeout 900
