#!/usr/bin/env bash
# Checks that every subsystem under src/ uses only the layers below it: the headers it includes
# and the libraries its CMakeLists.txt links. The public headers of include/ are plain C
# declarations and may be included from anywhere; they themselves include nothing from src/.
# Prints each violation and exits 1 when there is one.
set -euo pipefail
cd "$(dirname "$0")/.."

# What each layer may use, bottom-up. A nested folder (host/gui, compress/tool, media/readers
# belongs to media) is a layer of its own only when it is listed here.
LAYERS=(host host/gui format audio imagefile process decode encode2 reader compress media
        compress/tool convert tools player/sound player main)
declare -A USES=(
  [host]=""
  [host/gui]="host"
  [format]="host"
  [audio]="host format"
  [imagefile]="host"
  [process]="host"
  [decode]="host format"
  [encode2]="host format decode"
  [reader]="host format audio decode"
  [compress]="host format audio decode encode2"
  [media]="host format audio imagefile process decode reader"
  [compress/tool]="host format audio imagefile process decode encode2 reader compress media"
  [convert]="host format audio imagefile process decode reader media"
  [tools]="host host/gui format audio imagefile process decode reader media"
  [player/sound]="host reader"
  [player]="host host/gui format audio imagefile process decode reader media player/sound"
  [main]="host host/gui format audio imagefile process decode encode2 reader compress media
          compress/tool convert tools player"
)

failures=0
fail() {
  echo "layer violation: $*"
  failures=$((failures + 1))
}

# The layer a path (relative to src/) belongs to: the longest listed folder it lies in.
layer_of() {
  local path=$1 best="" layer
  for layer in "${LAYERS[@]}"; do
    if [[ $path == "$layer"/* && ${#layer} -gt ${#best} ]]; then best=$layer; fi
  done
  echo "$best"
}

may_use() {  # may_use FROM TO
  [[ $1 == "$2" ]] && return 0
  local used
  for used in ${USES[$1]}; do [[ $used == "$2" ]] && return 0; done
  return 1
}

# 1. Includes of src/ headers from src/.
while IFS= read -r file; do
  from=$(layer_of "${file#src/}")
  if [[ -z $from ]]; then
    fail "$file lies in no known layer (add its folder to scripts/check-layers.sh)"
    continue
  fi
  while IFS= read -r header; do
    [[ $header == */* ]] || continue  # same folder, or a public header of include/
    to=$(layer_of "$header")
    if [[ -z $to ]]; then
      [[ -e include/$header ]] || fail "$file includes \"$header\", which is in no known layer"
      continue
    fi
    may_use "$from" "$to" || fail "$file ($from) includes \"$header\" ($to)"
  done < <(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([^"]*\)".*/\1/p' "$file")
done < <(find src -name '*.cpp' -o -name '*.h' | sort)

# 2. The public headers include only each other and system headers.
while IFS= read -r file; do
  while IFS= read -r header; do
    [[ -e include/$header ]] || fail "$file includes \"$header\", which is not a public header"
  done < <(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([^"]*\)".*/\1/p' "$file")
done < <(find include -name '*.h' | sort)

# 3. Library links: the orn_<layer> targets in each target_link_libraries call of a folder. The
# linking target's own layer is its name's (orn_host_gui is host/gui), else the folder's.
target_layer() {
  case $1 in
    orn_host_gui) echo host/gui ;;
    orn_compress_tool) echo compress/tool ;;
    orn_player_sound) echo player/sound ;;
    orn_endcard_clip) echo main ;;  # the end-card's data, made by a helper of main
    orn_*) echo "${1#orn_}" ;;
  esac
}
for layer in "${LAYERS[@]}"; do
  cmake_file=src/$layer/CMakeLists.txt
  [[ -f $cmake_file ]] || continue
  # Each call joined onto one line: the target, then what it links.
  while read -r target links; do
    from=$(target_layer "$target")
    [[ -n $from && -n ${USES[$from]+set} ]] || from=$layer
    for linked in $(grep -o 'orn_[a-z_0-9]*' <<<"$links" || true); do
      to=$(target_layer "$linked")
      [[ -n ${USES[$to]+set} ]] || { fail "$cmake_file links $linked, which is in no known layer"; continue; }
      may_use "$from" "$to" || fail "$cmake_file: $target ($from) links $linked ($to)"
    done
  done < <(awk '/target_link_libraries\(/ {inside = 1} inside {printf "%s ", $0} inside && /\)/ {inside = 0; print ""}' \
             "$cmake_file" | sed 's/.*target_link_libraries(//; s/)[^)]*$//; s/PUBLIC\|PRIVATE\|INTERFACE//g')
done

# 4. The top CMakeLists.txt adds the folders bottom-up: each after every layer it uses.
read -r -a order < <(awk '/set\(ORN_SUBSYSTEMS/ {inside = 1} inside {printf "%s ", $0} inside && /\)/ {print ""; exit}' \
                       CMakeLists.txt | sed 's/set(ORN_SUBSYSTEMS//; s/)//')
declare -A added=([host/gui]=1)  # the window front end is added by host's own folder
for layer in "${order[@]}"; do
  for used in ${USES[$layer]:-}; do
    [[ -n ${added[$used]+set} ]] || fail "CMakeLists.txt adds $layer before $used, which it uses"
  done
  added[$layer]=1
done

if ((failures)); then
  echo "$failures layer violation(s)"
  exit 1
fi
echo "layers: every include and link points downward"
