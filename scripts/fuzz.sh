#!/usr/bin/env bash
# Builds the libFuzzer targets (tests/fuzz, clang with ASan and UBSan, in
# build-fuzz) and runs each in a fresh gateway sandbox: first its regression
# inputs (tests/fuzz/regressions/TARGET) and three generated 2 MiB inputs,
# then N runs over a copy of its seed corpus (tests/fuzz/corpus/TARGET). New
# corpus entries stay in the sandbox; crash inputs are kept in a temporary
# directory whose path is printed. Prints per target the runs and the coverage
# reached (libFuzzer's final cov: and ft:) and exits 0 only when none crashed.
#
#   scripts/fuzz.sh [--runs N] [--time SECONDS] [--seed S] [TARGET...]
#
#   --runs N        runs per target (default 100000)
#   --seed S        libFuzzer's random seed (default: a new one each run); a
#                   fixed seed makes a run repeat exactly, as CI's does
#   --time SECONDS  at most this long per target as well (libFuzzer -max_total_time)
#   TARGET...       only these targets (default: all; --list names them)
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
. "$top/scripts/lib.sh"
build="$top/build-fuzz"
usage() { sed -n '2,/^set -euo/p' "$0" | sed '$d; s/^# \{0,1\}//'; }

runs=100000 seconds=0 seed=0 targets=()
while [ $# -gt 0 ]; do
  case "$1" in
    --runs) [[ "${2:-}" =~ ^[1-9][0-9]*$ ]] || { echo "fuzz.sh: --runs needs a count" >&2; exit 2; }
            runs=$2; shift 2 ;;
    --time) [[ "${2:-}" =~ ^[1-9][0-9]*$ ]] || { echo "fuzz.sh: --time needs seconds" >&2; exit 2; }
            seconds=$2; shift 2 ;;
    --seed) [[ "${2:-}" =~ ^[1-9][0-9]*$ ]] || { echo "fuzz.sh: --seed needs a number above 0" >&2; exit 2; }
            seed=$2; shift 2 ;;
    --list) ls "$top/tests/fuzz/corpus"; exit 0 ;;
    -h|--help) usage; exit 0 ;;
    -*) echo "fuzz.sh: unknown option $1" >&2; usage >&2; exit 2 ;;
    *) targets+=("$1"); shift ;;
  esac
done
named=${#targets[@]}
[ "$named" -gt 0 ] || mapfile -t targets < <(ls "$top/tests/fuzz/corpus")
for t in "${targets[@]}"; do
  [ -d "$top/tests/fuzz/corpus/$t" ] || { echo "fuzz.sh: no target $t (--list)" >&2; exit 2; }
done

"$top/scripts/deps.sh"
what=()  # everything (the fuzz targets and the libraries), unless targets are named
[ "$named" = 0 ] || for t in "${targets[@]}"; do what+=(-t "fuzz_$t"); done
wd_build -j 2 -l 50 ${what[@]+"${what[@]}"} "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_CXX_COMPILER=clang++ -DWD_FUZZ=ON -DWD_BUILD_TESTS=OFF

# The sandboxes' files (and crash inputs) on tmpfs where there is one: the
# targets write and sync the daemon's files on every run.
base=/dev/shm
[ -d "$base" ] && [ -w "$base" ] || base=${TMPDIR:-/tmp}
work=$(mktemp -d "$base/wd-fuzz.XXXXXX")

# Inside the gateway: the regression and 2 MiB inputs once each, then the runs.
inner='
set -u
t=$1 runs=$2 seconds=$3 bin=$4 seeds=$5 regressions=$6 seed=$7
mkdir -p /tmp/corpus /tmp/artifacts /tmp/big
cp "$seeds"/* /tmp/corpus/
cat /tmp/corpus/* > /tmp/big/seeds
while [ "$(wc -c < /tmp/big/seeds)" -lt 2097152 ]; do
  cat /tmp/big/seeds /tmp/big/seeds /tmp/corpus/* > /tmp/big/more && mv /tmp/big/more /tmp/big/seeds
done
truncate -s 2097152 /tmp/big/seeds
head -c 2097152 /dev/zero > /tmp/big/zeros
head -c 2097152 /dev/zero | tr "\000" "\377" > /tmp/big/ff
opts="-close_fd_mask=3 -timeout=60 -rss_limit_mb=4096 -artifact_prefix=/tmp/artifacts/ -seed=$seed"
once=$(ls -d /tmp/big/* "$regressions"/* 2>/dev/null)
echo "== single inputs"
"$bin" $opts -max_len=2097152 $once || exit 1
echo "== runs"
limit=""; [ "$seconds" -gt 0 ] && limit="-max_total_time=$seconds"
exec "$bin" $opts -runs="$runs" $limit -print_final_stats=1 /tmp/corpus'

failed=0
printf '%-16s %10s %8s %8s  %s\n' target runs cov ft result
for t in "${targets[@]}"; do
  mkdir -p "$work/$t"
  log="$work/$t/log"
  rc=0
  TMPDIR="$work/$t" "$top/gateway/gw-run" --keep --ro "$top" -- \
    sh -c "$inner" inner "$t" "$runs" "$seconds" "$build/fuzz/$t" \
    "$top/tests/fuzz/corpus/$t" "$top/tests/fuzz/regressions/$t" "$seed" > "$log" 2>&1 || rc=$?
  gw=$(ls -d "$work/$t"/gateway.* | head -n 1)
  last=$(grep -E '^#[0-9]+.*cov: ' "$log" | tail -n 1 || true)
  done_runs=$(sed -n 's/^Done \([0-9]*\) runs.*/\1/p' "$log" | tail -n 1)
  cov=$(echo "$last" | sed -n 's/.* cov: \([0-9]*\).*/\1/p')
  ft=$(echo "$last" | sed -n 's/.* ft: \([0-9]*\).*/\1/p')
  if [ "$rc" = 0 ]; then
    result=ok
    rm -rf "$gw"
  else
    failed=1
    result="FAILED (exit $rc): log $log, inputs in $gw/tmp/artifacts"
    [ -n "$(ls -A "$gw/tmp/artifacts" 2>/dev/null)" ] || result="FAILED (exit $rc): log $log"
  fi
  printf '%-16s %10s %8s %8s  %s\n' "$t" "${done_runs:--}" "${cov:--}" "${ft:--}" "$result"
done
if [ "$failed" = 0 ]; then
  rm -rf "$work"
  echo "fuzz.sh: no target crashed"
else
  echo "fuzz.sh: a target crashed or failed; its log and crash inputs are under $work" >&2
fi
exit "$failed"
