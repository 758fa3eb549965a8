#!/usr/bin/env bash
# Installs what is missing, checks the house style, builds, and runs every unit and integration
# test, warnings as errors.
#   scripts/test.sh              both runs below, one after the other (what CI runs)
#   scripts/test.sh --plain      the normal build in build/
#   scripts/test.sh --sanitize   the same under AddressSanitizer (with leak detection) and UBSan,
#                                in build-sanitize/
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/bootstrap.sh"
# The house style first: it takes seconds and names the files that differ.
"$root/scripts/format.sh" --check

run() {
  local build extra=(-DKSDEPLOY_WERROR=ON)
  if [ "$1" = sanitize ]; then
    build="$root/build-sanitize"
    extra+=(-DKSDEPLOY_SANITIZE=ON -DKSDEPLOY_BENCH=OFF)
  else
    build="${KSDEPLOY_BUILD_DIR:-$root/build}"
  fi
  echo "== $1 build: $build"
  (
    export KSDEPLOY_BUILD_DIR="$build"
    if [ "$1" = sanitize ]; then
      export KSDEPLOY_BUILD_TYPE=Debug
      export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
      export LSAN_OPTIONS="exitcode=23"
      export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
    fi
    "$root/scripts/build.sh" "${extra[@]}" || exit 1
    cd "$build" || exit 1
    ctest --output-on-failure -j2 --timeout 900
  ) || exit 1
}

case "${1:-}" in
  --plain) run plain ;;
  --sanitize) run sanitize ;;
  "")
    run plain
    run sanitize
    ;;
  *) echo "usage: scripts/test.sh [--plain | --sanitize]" >&2; exit 2 ;;
esac
