#!/usr/bin/env bash
# The compressor at five data rates on one clip: per rate, the bytes per second asked for and
# achieved over the file, PSNR of Y, Cr and Cb against the source (decoded through the reader
# library), encode frames per second (the whole tool run) and single-threaded decode frames per
# second. Prints a Markdown table.
#   scripts/velmoc_bench.sh <build-dir> [clip]
# Without a clip, a generated 1280x720 sample (moving, detailed picture) is made; its frame count
# comes from VELMOC_BENCH_FRAMES (default 30). VELMOC_BENCH_RATES overrides the five rates.
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-$root/build}"
program="$build/src/main/ORNVideo64"
maker="$build/src/main/orn_make_sample"
measure="$build/bench/compress/velmoc_rates"
frames="${VELMOC_BENCH_FRAMES:-30}"
read -r -a rates <<<"${VELMOC_BENCH_RATES:-100000 200000 400000 800000 1600000}"

for tool in "$program" "$measure"; do
  [ -x "$tool" ] || { echo "missing $tool (build ORNVideo64 and velmoc_rates)" >&2; exit 1; }
done

work=$(mktemp -d)
# The tool's settings go to a scratch folder, not to the user's own.
export XDG_CONFIG_HOME="$work/config"
export ORN_CONSOLE=1
trap 'rm -rf "$work"' EXIT

clip="${2:-}"
if [ -z "$clip" ]; then
  [ -x "$maker" ] || { echo "missing $maker" >&2; exit 1; }
  clip="$work/sample.y4m"
  "$maker" "$clip" "$frames" 1280 720 >/dev/null
  echo "Clip: generated sample, $frames frames of 1280x720 at 30 frames per second"
else
  echo "Clip: $clip"
fi
echo "Machine: $(nproc) cores, $(uname -m)"
echo
echo "| asked B/s | achieved B/s | achieved/asked | file bytes | PSNR Y | PSNR Cr | PSNR Cb | encode fps | decode fps (1 thread) |"
echo "|---:|---:|---:|---:|---:|---:|---:|---:|---:|"

status=0
for rate in "${rates[@]}"; do
  out="$work/rate$rate.vlm"
  start=$(date +%s.%N)
  rc=0
  "$program" velmoc "$clip" "$out" "/D$rate" /O </dev/null >"$work/log" 2>&1 || rc=$?
  if [ "$rc" -ne 0 ]; then
    echo "| $rate | compress failed (exit code $rc, see below) | | | | | | | |"
    tail -5 "$work/log" >&2
    status=1
    continue
  fi
  end=$(date +%s.%N)
  if ! figures=$("$measure" "$clip" "$out" 2>"$work/err"); then
    echo "| $rate | measuring failed: $(head -1 "$work/err") | | | | | | | |"
    status=1
    continue
  fi
  read -r n bytes seconds achieved py pcr pcb dfps <<<"$figures"
  awk -v rate="$rate" -v n="$n" -v bytes="$bytes" -v achieved="$achieved" -v py="$py" \
      -v pcr="$pcr" -v pcb="$pcb" -v dfps="$dfps" -v t0="$start" -v t1="$end" 'BEGIN {
    printf "| %d | %d | %.3f | %d | %.2f | %.2f | %.2f | %.2f | %.0f |\n",
           rate, achieved, achieved / rate, bytes, py, pcr, pcb, n / (t1 - t0), dfps }'
  rm -f "$out"
done
exit $status
