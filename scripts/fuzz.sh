#!/usr/bin/env bash
# Runs every libFuzzer target of a fuzz build for a while over its seeds and a kept corpus, and
# prints one line per target: seconds, executions, corpus size and the outcome.
#   scripts/fuzz.sh <build-dir> [seconds] [target-regex]
# Targets run one after another (set FUZZ_JOBS=2 to run two at once). A crash leaves its input
# as crash-* in <build-dir>/fuzz-findings and makes the script exit non-zero.
set -uo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:?usage: scripts/fuzz.sh <build-dir> [seconds] [target-regex]}"
seconds="${2:-60}"
pattern="${3:-.}"
jobs="${FUZZ_JOBS:-1}"
findings="$build/fuzz-findings"
mkdir -p "$findings"

# Fuzz targets are the executables in <build-dir>/fuzz/<subsystem>/; their seeds, if any, lie in
# fuzz/<subsystem>/seeds/<target>.
targets=()
while IFS= read -r binary; do
  [[ "$(basename "$binary")" =~ $pattern ]] && targets+=("$binary")
done < <(find "$build/fuzz" -mindepth 2 -maxdepth 2 -type f -perm -u+x 2>/dev/null | sort)
[ ${#targets[@]} -gt 0 ] || { echo "no fuzz targets matched '$pattern' in $build" >&2; exit 1; }

run_one() {
  local binary="$1" name subsystem corpus seeds log
  name="$(basename "$binary")"
  subsystem="$(basename "$(dirname "$binary")")"
  corpus="$build/fuzz-corpus/$name"
  seeds="$root/fuzz/$subsystem/seeds/$name"
  log="$findings/$name.log"
  mkdir -p "$corpus"
  local dirs=("$corpus")
  [ -d "$seeds" ] && dirs+=("$seeds")
  "$binary" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=10 -print_final_stats=1 \
    -artifact_prefix="$findings/$name-" "${dirs[@]}" >"$log" 2>&1
  local rc=$?
  local execs seconds_run
  execs="$(grep -oE 'stat::number_of_executed_units: *[0-9]+' "$log" | grep -oE '[0-9]+$')"
  seconds_run="$(grep -oE 'Done [0-9]+ runs in [0-9]+ second' "$log" | grep -oE '[0-9]+ second' | grep -oE '[0-9]+')"
  printf '%-26s %6ss %12s execs %6s inputs  %s\n' "$name" "${seconds_run:-?}" "${execs:-?}" \
    "$(find "$corpus" -type f | wc -l)" "$([ $rc -eq 0 ] && echo clean || echo "FAILED (rc $rc, see $log)")"
  return $rc
}

status=0
running=0
for binary in "${targets[@]}"; do
  run_one "$binary" &
  running=$((running + 1))
  if [ "$running" -ge "$jobs" ]; then
    wait -n || status=1
    running=$((running - 1))
  fi
done
while [ "$running" -gt 0 ]; do
  wait -n || status=1
  running=$((running - 1))
done
exit $status
