#!/usr/bin/env bash
# The main job on a built-in sample. Grows with the tools: for now it shows the tool host.
set -uo pipefail
BUILD=${1:-build}
PROGRAM="$BUILD/src/main/ORNVideo64"
export ORN_CONSOLE=1

run() {
  echo "\$ ORNVideo64 $*"
  "$PROGRAM" "$@"
  echo "(exit code $?)"
  echo
}

run velmoplayer
