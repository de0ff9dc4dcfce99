#!/usr/bin/env bash
# The main job on a built-in sample, on the console front end: the entry's answers, a stand-in
# tool behind the shell, then a generated clip compressed with velmoc and measured against its
# source, a generated sound laid beside its frames with VelmoMix, the clip converted back to a
# PNG series, a wave file (measured against the generated sound) and an AVI, and ORNInfo's
# account of the results.
set -uo pipefail
BUILD=${1:-build}
PROGRAM="$BUILD/src/main/ORNVideo64"
DEMO_TOOL="$BUILD/src/main/orn_shell_demo"
export ORN_CONSOLE=1
# Settings written by the demo go to a scratch folder, not to the user's own.
export XDG_CONFIG_HOME
XDG_CONFIG_HOME=$(mktemp -d)
SAMPLE_DIR=$(mktemp -d)
trap 'rm -rf "$XDG_CONFIG_HOME" "$SAMPLE_DIR"' EXIT

run() {
  echo "\$ ORNVideo64 $*"
  "$PROGRAM" "$@" </dev/null
  echo "(exit code $?)"
  echo
}

echo "== The entry picks the tool by its first word =="
run versioncheck off
run VersionCheck
run velmoplayer in.vlm
echo "== Tools not in this build yet say so; the trace shows the tail each would get =="
ORN_TRACE_DISPATCH=1 run velmo2c in.avi out.vm2 /v270
echo "== A stand-in tool behind the tool shell: progress, a question taken by default, Done =="
echo "\$ orn_shell_demo"
"$DEMO_TOOL" </dev/null
echo "(exit code $?)"

echo
echo "== The compressor on a built-in sample: 3 seconds of a moving, detailed picture =="
"$BUILD/src/main/orn_make_sample" "$SAMPLE_DIR/sample.y4m" 90 320 240
echo "\$ ORNVideo64 velmoc sample.y4m sample.vlm /d150000 /o"
"$PROGRAM" velmoc "$SAMPLE_DIR/sample.y4m" "$SAMPLE_DIR/sample.vlm" /d150000 /o </dev/null 2>&1 | tail -8
echo "(exit code ${PIPESTATUS[0]})"
"$BUILD/src/main/orn_make_sample" --compare "$SAMPLE_DIR/sample.y4m" "$SAMPLE_DIR/sample.vlm"

echo
echo "== Sound for the sample: 3 seconds of tones and chirps, laid beside its frames by VelmoMix =="
"$BUILD/src/main/orn_make_sample" --wav "$SAMPLE_DIR/sample.wav" 3 22050
echo "\$ ORNVideo64 VelmoMix sample.vlm sample.wav clip.vlm /o"
"$PROGRAM" VelmoMix "$SAMPLE_DIR/sample.vlm" "$SAMPLE_DIR/sample.wav" "$SAMPLE_DIR/clip.vlm" /o </dev/null 2>&1 | tail -3
echo "(exit code ${PIPESTATUS[0]})"

echo
echo "== And back again: the compressed clip as a PNG series, its track as a wave file, and both in an AVI =="
mkdir -p "$SAMPLE_DIR/frames"
echo "\$ ORNVideo64 VelmoConv clip.vlm frames/clip.png /o"
"$PROGRAM" VelmoConv "$SAMPLE_DIR/clip.vlm" "$SAMPLE_DIR/frames/clip.png" /o </dev/null 2>&1 | tail -3
echo "(exit code ${PIPESTATUS[0]})"
echo "$(ls "$SAMPLE_DIR/frames" | wc -l) PNG files, first and last: $(ls "$SAMPLE_DIR/frames" | head -1) $(ls "$SAMPLE_DIR/frames" | tail -1)"
echo
echo "\$ ORNVideo64 VelmoConv clip.vlm back.wav /o"
"$PROGRAM" VelmoConv "$SAMPLE_DIR/clip.vlm" "$SAMPLE_DIR/back.wav" /o </dev/null 2>&1 | tail -3
echo "(exit code ${PIPESTATUS[0]})"
"$BUILD/src/main/orn_make_sample" --compare-wav "$SAMPLE_DIR/sample.wav" "$SAMPLE_DIR/back.wav"
echo
echo "\$ ORNVideo64 VelmoConv clip.vlm clip.avi /o"
"$PROGRAM" VelmoConv "$SAMPLE_DIR/clip.vlm" "$SAMPLE_DIR/clip.avi" /o </dev/null 2>&1 | tail -3
echo "(exit code ${PIPESTATUS[0]})"
echo
echo "\$ ORNVideo64 ORNInfo clip.vlm"
"$PROGRAM" ORNInfo "$SAMPLE_DIR/clip.vlm" </dev/null 2>/dev/null
echo "(exit code $?)"
echo
echo "\$ ORNVideo64 ORNInfo clip.avi"
"$PROGRAM" ORNInfo "$SAMPLE_DIR/clip.avi" </dev/null 2>/dev/null
echo "(exit code $?)"
echo
echo "== The player: the clip in a window for a few seconds, with its sound =="
if [ -n "${DISPLAY:-}" ] || [ -n "${WAYLAND_DISPLAY:-}" ]; then
  echo "\$ ORNVideo64 VelmoPlay clip.vlm /L      (looping; ended after 5 seconds)"
  timeout -k 2 5 "$PROGRAM" VelmoPlay "$SAMPLE_DIR/clip.vlm" /L </dev/null
  code=$?
  case $code in
    124|137) echo "(played until the time was up)" ;;
    *) echo "(exit code $code; the demo goes on)" ;;
  esac
else
  echo "(skipped: no display, neither DISPLAY nor WAYLAND_DISPLAY is set)"
fi
