#!/usr/bin/env bash
# Builds watchdogd and runs every test in the gateway sandbox: the plain build,
# then the same suite under AddressSanitizer + UndefinedBehaviorSanitizer, then
# under ThreadSanitizer.
#
#   scripts/test.sh            all three
#   scripts/test.sh plain      one of: plain, asan, tsan
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/deps.sh"

jobs=$(nproc)
variants=("$@")
[ ${#variants[@]} -gt 0 ] || variants=(plain asan tsan)

for v in "${variants[@]}"; do
  case "$v" in
    plain) san="" ;;
    asan) san=address ;;
    tsan) san=thread ;;
    *) echo "test.sh: unknown variant $v (plain, asan, tsan)" >&2; exit 2 ;;
  esac
  dir="$top/build-test-$v"
  echo "=== $v build ==="
  cmake -S "$top" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DWD_SANITIZE="$san" > /dev/null
  cmake --build "$dir" -j "$jobs" > "$dir/build.log" 2>&1 || { tail -50 "$dir/build.log"; exit 1; }
  echo "=== $v tests ==="
  (cd "$dir" && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
      UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
      TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
      ctest -j "$jobs" --output-on-failure --timeout 300)
done
echo "=== all tests passed: ${variants[*]} ==="
