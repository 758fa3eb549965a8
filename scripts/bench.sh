#!/usr/bin/env bash
# Builds in Release and runs every benchmark; each row runs ours and the peer tool in turns and
# is judged by the median of the per-round ratios. Ends with one table of every row (see
# bench/README.md) and exits non-zero when a row misses its target or a benchmark fails.
# KSDEPLOY_BENCH_QUICK=1 shrinks the data for a quick run; KSDEPLOY_BENCH_ROUNDS sets the rounds
# (at least 5); arguments name the programs to run (e.g. "graph install").
set -uo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/bootstrap.sh"
export KSDEPLOY_BUILD_DIR="$root/build-release"
export KSDEPLOY_BUILD_TYPE=Release
"$root/scripts/build.sh" -DKSDEPLOY_TESTS=OFF || exit 1
export KSDEPLOY_SOURCE_DIR="$root"
table="$(mktemp)"
trap 'rm -f "$table"' EXIT
export KSDEPLOY_BENCH_TABLE="$table"
status=0
failed=()
for b in "$KSDEPLOY_BUILD_DIR"/bin/bench_*; do
  [ -x "$b" ] || continue
  name="$(basename "$b")"
  if [ $# -gt 0 ]; then
    want=0
    for w in "$@"; do [ "bench_$w" = "$name" ] && want=1; done
    [ $want -eq 1 ] || continue
  fi
  echo "### $name"
  "$b"
  rc=$?
  # 1 is a missed target (in the table); anything else is a benchmark that could not finish.
  if [ $rc -ne 0 ]; then
    status=1
    [ $rc -ne 1 ] && failed+=("$name (exit $rc)")
  fi
done
echo
echo "== all rows (ratio = ours / peer, median of the rounds; limit rows: the value itself)"
awk -F'\t' '
  BEGIN { printf "%-60s %7s %8s %8s %8s  %-4s  %-22s  %s\n", "row", "target", "median", "min", "max", "", "cpu median (min-max)", "peer" }
  { printf "%-60s %7s %8s %8s %8s  %-4s  %-22s  %s\n", $1, $2, $3, $4, $5, $6, $11, $9; if ($6 != "pass") miss++ }
  END { printf "%d rows, %d missed\n", NR, miss }
' "$table"
for f in "${failed[@]+"${failed[@]}"}"; do echo "did not finish: $f"; done
exit $status
