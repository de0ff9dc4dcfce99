#!/usr/bin/env bash
# Measures the Velmo sound codec on a speech clip (espeak-ng) and a music clip (sox: a held
# chord with plucked notes), made afresh in a temporary folder, and prints the table of
# bits per second, SNR, segmental SNR and speed for each level.
#   scripts/audio_bench.sh [build-dir] [levels]     (defaults: build, 0,4,10,30,60,99)
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-$root/build}"
levels="${2:-0,4,10,30,60,99}"
for tool in espeak-ng sox; do
  command -v "$tool" >/dev/null || { echo "needs $tool (scripts/install-deps.sh)" >&2; exit 1; }
done

if ! log="$(cmake --build "$build" --target audio_table -j2 2>&1)"; then
  echo "$log" >&2
  exit 1
fi
table="$(find "$build" -name audio_table -type f -perm -u+x | head -n 1)"
[ -n "$table" ] || { echo "audio_table not built in $build" >&2; exit 1; }

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

# Speech: 22050 Hz mono, as espeak-ng speaks it.
espeak-ng -w "$work/speech_raw.wav" -s 150 \
  "The quick brown fox jumps over the lazy dog. Sound rides inside the frames, and video time \
is the clock of the file. What the listener must not hear is a gap between the blocks."
sox "$work/speech_raw.wav" -b 16 "$work/speech.wav"

# Music: 44100 Hz stereo; a pad chord under plucked notes, the notes panned apart.
sox -n -r 44100 -b 16 "$work/chord.wav" synth 8 \
  sine 220 sine 277.18 sine 329.63 sine 440 remix 1-4 vol 0.35 fade 0.2 8 0.5
notes=""
i=0
for f in 440 523.25 659.26 783.99 880 659.26 523.25 392; do
  sox -n -r 44100 -b 16 "$work/note$i.wav" synth 1 pluck "$f" vol 0.5 fade 0 1 0.6
  notes="$notes $work/note$i.wav"
  i=$((i + 1))
done
sox $notes "$work/melody.wav"
sox -M "$work/chord.wav" "$work/melody.wav" -b 16 "$work/music.wav" \
  remix 1v0.7,2v0.5 1v0.5,2v0.7 norm -1

"$table" "$work/music.wav" "$work/speech.wav" -levels "$levels"
