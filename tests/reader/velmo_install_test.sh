#!/bin/sh
# Installs the build into a scratch prefix with cmake --install, then builds the C test program
# against that copy with nothing but pkg-config's flags for velmo, and runs it. Arguments: the
# build folder, the C test's source, the C compiler.
set -eu
build=$1
source=$2
cc=$3
prefix=$(mktemp -d /tmp/velmo_install_XXXXXX)
trap 'rm -rf "$prefix"' EXIT

cmake --install "$build" --prefix "$prefix" > "$prefix/install.log"
pc=$(find "$prefix" -name velmo.pc)
[ -n "$pc" ] || { echo "velmo.pc was not installed" >&2; exit 1; }
export PKG_CONFIG_PATH="$(dirname "$pc")"
# The installed header must stand on its own: the program sees only the installed tree.
$cc -std=c99 -pedantic -Werror -o "$prefix/velmo_c" "$source" \
  $(pkg-config --cflags velmo) $(pkg-config --libs velmo)
LD_LIBRARY_PATH="$(pkg-config --variable=libdir velmo)" "$prefix/velmo_c"
