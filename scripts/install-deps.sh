#!/usr/bin/env bash
# Installs the Debian packages the project builds and tests with, skipping what is present.
set -euo pipefail

PACKAGES=(
  build-essential cmake ninja-build pkg-config git
  clang libclang-rt-14-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libsdl2-dev libimgui-dev libstb-dev libgl-dev
  xvfb xauth
  libjpeg62-turbo-dev libpng-dev libtiff-dev libgif-dev libtinyexr-dev libopenexr-dev
  libflac-dev libvorbis-dev libasound2-dev
  espeak-ng sox
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "Installing: ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -q
$SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"
