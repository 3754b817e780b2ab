#!/usr/bin/env bash
# Builds watchdogd and runs every test in the gateway sandbox: the plain build,
# then the same suite under AddressSanitizer + UndefinedBehaviorSanitizer, then
# under ThreadSanitizer, then the gateway's target (mips): the 32-bit
# big-endian MIPS build's unit tests and its in-process relay tests under
# qemu-mips, then every integration test with its daemon, wdctl and tcapi under
# qemu-mips and the target's libfaketime (scripts/target-faketime.sh) beside
# this machine's peers; then clang's lock discipline analysis (lockcheck: a build with
# -Wthread-safety as errors), a short run of every fuzz target (fuzz), the
# install, the static build and the Debian package started in a gateway
# (package), and a short run of the benchmark beside monit (bench), which
# proves only that every figure is measured.
#
#   scripts/test.sh                 all eight
#   scripts/test.sh plain           some of: plain, asan, tsan, mips, lockcheck, fuzz,
#                                   package, bench
#   scripts/test.sh --repeat N      every test, unit and integration, N times in a
#                                   row (ctest --repeat until-fail:N) in plain, asan
#                                   and tsan (or in the variants named after N, mips
#                                   among them)
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
. "$top/scripts/lib.sh"
repeat=()
if [ "${1:-}" = --repeat ]; then
  [[ "${2:-}" =~ ^[1-9][0-9]*$ ]] || { echo "test.sh: --repeat needs a count" >&2; exit 2; }
  repeat=(--repeat "until-fail:$2")
  shift 2
fi
"$top/scripts/deps.sh"

jobs=$(nproc)
variants=("$@")
if [ ${#variants[@]} -eq 0 ]; then
  variants=(plain asan tsan mips lockcheck fuzz package bench)
  [ ${#repeat[@]} -eq 0 ] || variants=(plain asan tsan)
fi

# Tests of the relay inside the test's own process, which the native build
# links: on the target they run as the target's test programs instead.
native_only='^(RelayTest|RelayWake)[.]'

build() {  # build DIR CMAKE-ARGS...
  wd_build -j "$jobs" -l 50 "$1" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${@:2}"
}

for v in "${variants[@]}"; do
  args=()
  case "$v" in
    plain) ;;
    asan) args=(-DWD_SANITIZE=address) ;;
    tsan) args=(-DWD_SANITIZE=thread) ;;
    mips)
      # Its gateways run this machine's peers: the native build's, built first.
      args=(-DCMAKE_TOOLCHAIN_FILE="$top/cmake/mips-linux-gnu.cmake"
            -DWD_PEERS="$top/build-test-plain/gateway" -DWD_TARGET_FAKETIME="$top/build-target-faketime")
      echo "=== plain build (the peers, and the tests that drive the target's programs) ==="
      build "$top/build-test-plain"
      "$top/scripts/target-faketime.sh" "$top/build-target-faketime" ;;
    lockcheck)
      echo "=== lockcheck build (clang -Wthread-safety) ==="
      build "$top/build-test-lockcheck" -DCMAKE_CXX_COMPILER=clang++ -DWD_THREAD_SAFETY=ON
      continue ;;
    fuzz)
      echo "=== fuzz targets, a short run each ==="
      "$top/scripts/fuzz.sh" --runs 2000 --seed 1
      continue ;;
    bench)
      echo "=== benchmark beside monit, a short run (figures not asserted) ==="
      "$top/scripts/bench.sh" --compare --window 5 --windows 1
      continue ;;
    package)
      echo "=== install, static build and Debian package ==="
      "$top/scripts/package-test.sh"
      continue ;;
    *) echo "test.sh: unknown variant $v (plain, asan, tsan, mips, lockcheck, fuzz, package, bench)" >&2; exit 2 ;;
  esac
  dir="$top/build-test-$v"
  echo "=== $v build ==="
  build "$dir" ${args[@]+"${args[@]}"}
  echo "=== $v tests ==="
  (cd "$dir" && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
      UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
      TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
      ctest -j "$jobs" --output-on-failure --timeout 300 ${repeat[@]+"${repeat[@]}"})
  if [ "$v" = mips ]; then
    # The integration suite with the target's programs: the native build's
    # tests drive the target's daemon, wdctl and tcapi, which run under
    # qemu-mips and the target's libfaketime; the peers are this machine's.
    echo "=== mips integration tests (the target's programs under qemu-mips) ==="
    native="$top/build-test-plain"
    (cd "$native" && WD_EMULATOR="qemu-mips -L /usr/mips-linux-gnu" \
        WD_TARGET_PREFIX="$dir/stage" WD_TARGET_FAKETIME="$top/build-target-faketime" \
        ctest -j "$jobs" -L integration -E "$native_only" --output-on-failure --timeout 300 \
        ${repeat[@]+"${repeat[@]}"})
  fi
done
echo "=== all tests passed: ${variants[*]} ==="
