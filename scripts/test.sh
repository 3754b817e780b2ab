#!/usr/bin/env bash
# Builds watchdogd and runs every test in the gateway sandbox: the plain build,
# then the same suite under AddressSanitizer + UndefinedBehaviorSanitizer, then
# under ThreadSanitizer, then the gateway's target: the 32-bit big-endian MIPS
# build's unit tests under qemu-mips, and a smoke test of its daemon, wdctl
# and tcapi.
#
#   scripts/test.sh                 all four
#   scripts/test.sh plain           some of: plain, asan, tsan, mips
#   scripts/test.sh --repeat N      the integration tests N times in a row (ctest
#                                   --repeat until-fail:N) in plain, asan and tsan
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
repeat=()
if [ "${1:-}" = --repeat ]; then
  [[ "${2:-}" =~ ^[1-9][0-9]*$ ]] || { echo "test.sh: --repeat needs a count" >&2; exit 2; }
  repeat=(-L integration --repeat "until-fail:$2")
  shift 2
fi
"$top/scripts/deps.sh"

jobs=$(nproc)
variants=("$@")
if [ ${#variants[@]} -eq 0 ]; then
  variants=(plain asan tsan mips)
  [ ${#repeat[@]} -eq 0 ] || variants=(plain asan tsan)
fi

build() {  # build DIR CMAKE-ARGS...
  local dir=$1
  shift
  cmake -S "$top" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" > /dev/null
  cmake --build "$dir" -j "$jobs" > "$dir/build.log" 2>&1 || { tail -50 "$dir/build.log"; exit 1; }
}

for v in "${variants[@]}"; do
  args=()
  case "$v" in
    plain) ;;
    asan) args=(-DWD_SANITIZE=address) ;;
    tsan) args=(-DWD_SANITIZE=thread) ;;
    mips) args=(-DCMAKE_TOOLCHAIN_FILE="$top/cmake/mips-linux-gnu.cmake") ;;
    *) echo "test.sh: unknown variant $v (plain, asan, tsan, mips)" >&2; exit 2 ;;
  esac
  dir="$top/build-test-$v"
  echo "=== $v build ==="
  build "$dir" ${args[@]+"${args[@]}"}
  echo "=== $v tests ==="
  (cd "$dir" && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
      UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
      TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
      ctest -j "$jobs" --output-on-failure --timeout 300 ${repeat[@]+"${repeat[@]}"})
  if [ "$v" = mips ] && [ ${#repeat[@]} -eq 0 ]; then
    # The target's programs, driven by this machine's smoke test.
    echo "=== mips smoke test (daemon, wdctl, tcapi under qemu-mips) ==="
    native="$top/build-test-plain"
    [ -x "$native/tests/integration/target_smoke_test" ] || build "$native"
    "$top/gateway/gw-run" --net --syslog --prefix "$dir/stage" --ro "$top" --ro "$native" -- \
      env WD_EMULATOR="qemu-mips -L /usr/mips-linux-gnu" WD_TARGET_ENDIAN=big \
      "$native/tests/integration/target_smoke_test"
  fi
done
echo "=== all tests passed: ${variants[*]} ==="
