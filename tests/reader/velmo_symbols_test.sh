#!/bin/sh
# The dynamic symbols of libvelmo.so are exactly the functions of the public headers: each
# declared function is exported as code, and nothing else is (no internal functions or data,
# no instances of the standard library's templates). Arguments: the library, the include
# folder, the C compiler, nm, and the script that lists the headers' functions.
set -eu
library=$1
include=$2
cc=$3
nm=$4
exports=$5
scratch=$(mktemp -d /tmp/velmo_symbols_XXXXXX)
trap 'rm -rf "$scratch"' EXIT

sh "$exports" "$cc" "$include" > "$scratch/declared"
# "address type name[@version]" for every symbol the library defines for other programs.
"$nm" -D --defined-only "$library" > "$scratch/nm"
awk '{ sub(/@.*/, "", $3); print $3 }' "$scratch/nm" | LC_ALL=C sort -u > "$scratch/exported"

failed=0
missing=$(LC_ALL=C comm -23 "$scratch/declared" "$scratch/exported")
extra=$(LC_ALL=C comm -13 "$scratch/declared" "$scratch/exported")
not_code=$(awk '$2 != "T" { print $3 " (" $2 ")" }' "$scratch/nm")
if [ -n "$missing" ]; then
  echo "declared in the public headers but not exported:"; echo "$missing"; failed=1
fi
if [ -n "$extra" ]; then
  echo "exported but not declared in the public headers:"; echo "$extra"; failed=1
fi
if [ -n "$not_code" ]; then
  echo "exported symbols that are not functions:"; echo "$not_code"; failed=1
fi
[ $failed -eq 0 ] || exit 1
echo "libvelmo.so exports the $(wc -l < "$scratch/declared") functions of the public headers"
