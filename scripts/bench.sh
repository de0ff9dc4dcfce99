#!/usr/bin/env bash
# Builds and runs every benchmark program of a build (Google Benchmark, in bench/), then the
# measuring scripts (sound codec levels, compressor data rates) where their tools are present.
#   scripts/bench.sh <build-dir> [benchmark-filter]
# BENCH_MIN_TIME sets Google Benchmark's minimum seconds per case (default 0.5).
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-$root/build}"
filter="${2:-.}"
min_time="${BENCH_MIN_TIME:-0.5}"

cmake --build "$build" -j "$(nproc)" >/dev/null
[ -d "$build/bench" ] || { echo "no benchmarks in $build (configure with -DORN_BENCH=ON)" >&2; exit 1; }

# Benchmark programs: every executable under <build>/bench that links Google Benchmark.
mapfile -t programs < <(find "$build/bench" -type f -perm -u+x ! -name '*.so' | sort)
for program in "${programs[@]}"; do
  "$program" --help 2>&1 | grep -q benchmark_filter || continue
  echo "== $(basename "$program")"
  "$program" --benchmark_filter="$filter" --benchmark_min_time="$min_time"
done

for script in audio_bench.sh velmoc_bench.sh; do
  [ -x "$root/scripts/$script" ] || continue
  echo "== $script"
  "$root/scripts/$script" "$build" || echo "$script did not finish (see above)" >&2
done

# The planar path against the RGB path, on a real clip when one is at hand
# (../shared/media/fetch-media.sh MEDIA_DIR fetches them).
clip="${MEDIA_DIR:-$root/../media}/video/launch/launch.y4m"
if [ -x "$build/bench/compress/planar_psnr" ] && [ -f "$clip" ]; then
  for rate in 150000 1000000; do
    echo "== planar_psnr $(basename "$clip") at $rate bytes/s (versions 100 and 101, 60 frames)"
    for version in 100 101; do "$build/bench/compress/planar_psnr" "$clip" "$rate" "$version" 60; done
  done
fi
