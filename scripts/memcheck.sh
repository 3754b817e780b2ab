#!/usr/bin/env bash
# watchdogd under valgrind's memcheck in the simulated gateway, through a
# scenario that touches every module, then MINUTES more minutes of the
# daemon's time with the same troubles again (10 times faster than real time
# under libfaketime). Prints the heap in use before and after those minutes and
# valgrind's error and leak summaries.
#
#   memcheck.sh [--minutes N]   (default 30)
#
# Exits 0 when valgrind found no invalid access and no leaked block.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
minutes=30
while [ $# -gt 0 ]; do
  case "$1" in
    --minutes) minutes=$2; shift 2 ;;
    -h|--help) sed -n '2,/^set -euo/p' "$0" | sed '$d; s/^# \{0,1\}//'; exit 0 ;;
    *) echo "memcheck.sh: unknown argument $1 (see --help)" >&2; exit 2 ;;
  esac
done
[[ $minutes =~ ^[0-9]+$ ]] || { echo "memcheck.sh: --minutes takes a whole number" >&2; exit 2; }
dir=$("$top/scripts/demo-build.sh")
out=$("$top/gateway/gw-run" --net --collector --services --faketime 10 --prefix "$dir/stage" \
  --peers "$dir/gateway" -- /gw/sim/memcheck "$minutes" | tee /dev/stderr)
grep -q "ERROR SUMMARY: 0 errors" <<< "$out" && ! grep -Eq "(definitely|indirectly) lost: [1-9]" <<< "$out"
