#!/usr/bin/env bash
# The sound codec at every level of the compressor's sound quality switch (0 to 99 the current
# form, 100 to 199 the older one), on one music and one speech clip: bytes of the sound
# stream, bits per second and SNR of the decode against the input, as a Markdown table.
# The clips are the caller's (real recordings are not kept in the repository).
#   bench/audio/sound_levels.sh music.wav speech.wav [levels] [build-dir]
#   (levels default to 0-199; the build folder, to build-bench, made with the benchmarks on)
set -euo pipefail

root="$(cd "$(dirname "$0")/../.." && pwd)"
[ $# -ge 2 ] || { echo "usage: $0 music.wav speech.wav [levels] [build-dir]" >&2; exit 2; }
music="$1"
speech="$2"
levels="${3:-0-199}"
build="${4:-$root/build-bench}"

if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORN_BENCH=ON \
    -DORN_TESTS=OFF >/dev/null
fi
if ! log="$(cmake --build "$build" --target audio_table -j2 2>&1)"; then
  echo "$log" >&2
  exit 1
fi
table="$(find "$build" -name audio_table -type f -perm -u+x | head -n 1)"
[ -n "$table" ] || { echo "audio_table not built in $build" >&2; exit 1; }
"$table" "$music" "$speech" -levels "$levels"
