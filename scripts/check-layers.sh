#!/usr/bin/env bash
# Fails when a source file of the daemon includes a header of a layer above
# its own. The layers, each using only those below it:
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
exit "$bad"
