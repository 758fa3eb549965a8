#!/usr/bin/env bash
# Configures and builds into build/ (or $KSDEPLOY_BUILD_DIR) with two jobs.
# Extra arguments go to cmake's configure step, e.g. -DKSDEPLOY_SANITIZE=ON.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${KSDEPLOY_BUILD_DIR:-$root/build}"
type="${KSDEPLOY_BUILD_TYPE:-RelWithDebInfo}"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE="$type" "$@" >/dev/null
cmake --build "$build" -j2
