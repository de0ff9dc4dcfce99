#!/bin/sh
# Prints the functions that the public headers declare, one name a line, sorted: the symbols
# libvelmo.so exports. The headers go through the C preprocessor (comments, macros and
# includes resolved); every declaration outside braces that is not a typedef and has a
# parameter list is a function.
#   velmo-exports.sh CC INCLUDE_DIR              the list
#   velmo-exports.sh CC INCLUDE_DIR --map FILE   instead, a linker version script that exports
#                                                these and hides everything else
set -eu
cc=$1
include=$2

names=$("$cc" -E -P -DVELMO_API= -I"$include" -x c "$include/velmo.h" | awk '
  { text = text " " $0 }
  END {
    depth = 0; statement = ""
    for (i = 1; i <= length(text); ++i) {
      c = substr(text, i, 1)
      if (c == "{") ++depth
      else if (c == "}") --depth
      else if (c == ";" && depth == 0) { emit(statement); statement = ""; continue }
      statement = statement c
    }
  }
  function emit(s) {
    if (s ~ /[{}]/ || s ~ /^[ \t]*typedef[ \t]/ || s !~ /\(/) return
    sub(/[ \t]*\(.*/, "", s)
    if (match(s, /[A-Za-z_][A-Za-z0-9_]*$/)) print substr(s, RSTART)
  }' | LC_ALL=C sort -u)

[ -n "$names" ] || { echo "no functions found in $include/velmo.h" >&2; exit 1; }

if [ "${3:-}" != --map ]; then
  echo "$names"
else
  {
    echo "{"
    echo "  global:"
    echo "$names" | sed 's/.*/    &;/'
    echo "  local: *;"
    echo "};"
  } > "$4.tmp"
  # Rewritten only when it changes, so that an unchanged list does not relink the library.
  if cmp -s "$4.tmp" "$4"; then rm -f "$4.tmp"; else mv "$4.tmp" "$4"; fi
fi
