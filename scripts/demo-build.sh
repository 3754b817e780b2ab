#!/usr/bin/env bash
# Builds the daemon, its tools and the gateway's peers for the demo gateway
# (build-demo, installed into build-demo/stage) and prints the build directory.
# With WD_BUILD set, prints that directory instead: a build already made (the
# tests pass their own).
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
. "$top/scripts/lib.sh"
if [ -n "${WD_BUILD:-}" ]; then echo "$WD_BUILD"; exit 0; fi
dir="$top/build-demo"
"$top/scripts/deps.sh" >&2
wd_build -i "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DWD_BUILD_TESTS=OFF
echo "$dir"
