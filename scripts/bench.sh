#!/usr/bin/env bash
# Builds in Release and runs every benchmark; each prints our figure, the peer tool's figure
# and the ratio against its limit. Exits non-zero when a ratio misses its limit.
set -uo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/bootstrap.sh"
export KSDEPLOY_BUILD_DIR="$root/build-release"
export KSDEPLOY_BUILD_TYPE=Release
"$root/scripts/build.sh" -DKSDEPLOY_TESTS=OFF || exit 1
status=0
for b in "$KSDEPLOY_BUILD_DIR"/bin/bench_*; do
  [ -x "$b" ] || continue
  echo "### $(basename "$b")"
  "$b" || status=1
done
exit $status
