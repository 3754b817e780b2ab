#!/usr/bin/env bash
# Fails when a source file of the daemon includes a header of a layer above
# its own, or when units include each other in a circle. A unit is a .h and
# the .cpp of the same name; unit A uses unit B when a file of A includes B's
# header. The layers, each using only those below it:
#   platform < core < timer < relay < modules < daemon
# The platform's tools (wdctl, tcapi) are clients of the daemon: they may use
# the wire types of core and are used by nothing.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
layers=(platform core timer relay modules daemon)
dir_of() { [ "$1" = platform ] && echo "$top/platform" || echo "$top/src/$1"; }

declare -A rank layer_of
for i in "${!layers[@]}"; do
  rank[${layers[$i]}]=$i
  while IFS= read -r h; do
    layer_of[$(basename "$h")]=${layers[$i]}
  done < <(find "$(dir_of "${layers[$i]}")" -name '*.h')
done

bad=0
for layer in "${layers[@]}"; do
  while IFS= read -r file; do
    while IFS= read -r header; do
      used=${layer_of[$header]:-}
      if [ -n "$used" ] && [ "${rank[$used]}" -gt "${rank[$layer]}" ]; then
        echo "${file#"$top"/}: $layer includes $header of $used, a layer above it"
        bad=1
      fi
    done < <(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([^"]*\)".*/\1/p' "$file")
  done < <(find "$(dir_of "$layer")" -name '*.h' -o -name '*.cpp' | grep -v -e wdctl.cpp -e _tool.cpp)
done
[ "$bad" = 0 ] && echo "layers: every include points down or sideways"

# The units of src/ and whom each uses.
declare -A uses
units=()
while IFS= read -r file; do
  unit=$(basename "${file%.*}")
  [ -n "${uses[$unit]+x}" ] || { units+=("$unit"); uses[$unit]=""; }
done < <(find "$top/src" -name '*.h' -o -name '*.cpp' | sort)
while IFS= read -r file; do
  unit=$(basename "${file%.*}")
  while IFS= read -r header; do
    used=$(basename "${header%.*}")
    if [ "$used" != "$unit" ] && [ -n "${uses[$used]+x}" ] &&
       [[ " ${uses[$unit]} " != *" $used "* ]]; then
      uses[$unit]+=" $used"
    fi
  done < <(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([^"]*\)".*/\1/p' "$file")
done < <(find "$top/src" -name '*.h' -o -name '*.cpp')

# Every circle once: it is found from its first unit in `units` order, along
# paths through later units only.
declare -A order onPath
for i in "${!units[@]}"; do order[${units[$i]}]=$i; done
circles=0
follow() {  # follow START PATH...: extends the path that ends at its last unit
  local start=$1 last=${!#} next
  for next in ${uses[$last]}; do
    if [ "$next" = "$start" ]; then
      printf 'circle: '
      printf '%s -> ' "${@:2}"
      echo "$start"
      circles=$((circles + 1))
    elif [ "${order[$next]}" -gt "${order[$start]}" ] && [ -z "${onPath[$next]:-}" ]; then
      onPath[$next]=1
      follow "$start" "${@:2}" "$next"
      unset "onPath[$next]"
    fi
  done
}
for unit in "${units[@]}"; do follow "$unit" "$unit"; done
if [ "$circles" = 0 ]; then
  echo "units: no circle of includes"
else
  echo "units: circles of includes found: $circles"
  bad=1
fi
exit "$bad"
