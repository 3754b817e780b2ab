#!/usr/bin/env bash
# Builds libfaketime for the target (32-bit big-endian MIPS) into DEST, so that
# the target's programs under qemu-mips can be sped up as the native ones are:
#
#   target-faketime.sh DEST
#
# A program is then given LD_PRELOAD='DEST/$LIB/libfaketimeMT.so.1' with a
# literal $LIB, which each loader expands to its own library directory:
#   DEST/lib/mips-linux-gnu/libfaketime{,MT}.so.1    built here
#   DEST/lib/x86_64-linux-gnu/libfaketime{,MT}.so.1  links to this machine's own
# so that the machine's programs the target's start (route, ps, the shell) get
# the library of their own class.
#
# The source is Debian's faketime 0.9.10 source package, fetched through a
# private apt configuration (the archive's signature is checked), patched with
# target-faketime.patch beside this script. The build ends with a check under
# qemu-mips and fails if it does not hold. Nothing is done when DEST already
# holds a build of this script and patch.
set -euo pipefail

[ $# -eq 1 ] && [ -n "$1" ] || { echo "usage: $0 DEST" >&2; exit 2; }
dest=$(realpath -m -- "$1")
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
patchfile=$here/target-faketime.patch
sysroot=/usr/mips-linux-gnu
host_lib=/usr/lib/x86_64-linux-gnu/faketime
mips_dir=$dest/lib/mips-linux-gnu
host_dir=$dest/lib/x86_64-linux-gnu
libs=(libfaketimeMT.so.1 libfaketime.so.1)

stamp=$(cat "${BASH_SOURCE[0]}" "$patchfile" | sha256sum | cut -d' ' -f1)
if [ "$(cat "$dest/.stamp" 2>/dev/null)" = "$stamp" ] &&
   [ -f "$mips_dir/libfaketimeMT.so.1" ] && [ -e "$host_dir/libfaketimeMT.so.1" ]; then
  exit 0
fi

for tool in mips-linux-gnu-gcc qemu-mips apt-get dpkg-source patch; do
  command -v "$tool" > /dev/null || { echo "$0: $tool is missing (scripts/deps.sh)" >&2; exit 1; }
done
[ -f "$host_lib/libfaketimeMT.so.1" ] || { echo "$0: $host_lib is missing (scripts/deps.sh)" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
rm -f "$dest/.stamp"

# --- the source package, through apt with its own sources, lists and cache ---
apt_dir=$work/apt
mkdir -p "$apt_dir/lists/partial" "$apt_dir/cache/archives/partial" "$apt_dir/parts" "$work/src"
echo "deb-src [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] http://deb.debian.org/debian bookworm main" \
  > "$apt_dir/sources.list"
apt_opts=(-q -o "Dir::Etc::SourceList=$apt_dir/sources.list" -o "Dir::Etc::SourceParts=$apt_dir/parts"
          -o "Dir::State::Lists=$apt_dir/lists" -o "Dir::Cache=$apt_dir/cache")
# As root apt downloads as the user _apt, which must reach these directories.
if [ "$(id -u)" = 0 ] && id _apt > /dev/null 2>&1; then
  chmod 711 "$work"
  chown -R _apt "$apt_dir" "$work/src"
fi
apt-get "${apt_opts[@]}" update > "$work/apt.log" 2>&1 ||
  { cat "$work/apt.log" >&2; echo "$0: apt-get update failed" >&2; exit 1; }
(cd "$work/src" && apt-get "${apt_opts[@]}" source faketime) >> "$work/apt.log" 2>&1 ||
  { cat "$work/apt.log" >&2; echo "$0: apt-get source faketime failed" >&2; exit 1; }
src=$work/src/faketime-0.9.10
[ -f "$src/src/libfaketime.c" ] ||
  { echo "$0: the archive no longer has faketime 0.9.10:" >&2; ls "$work/src" >&2; exit 1; }
patch -s -d "$src" -p1 < "$patchfile"

# --- the build ---
# The flags of the upstream Makefile and Debian's (FAKE_RANDOM, FAKE_PID), and:
#  - a 64-bit time_t, as the target's programs have, past 2038 too;
#  - INTERCEPT_SYSCALL: the calendar clock read by raw system call is faked;
#  - FAKE_STATELESS: no start time shared with children in memory, which the
#    machine's own programs would read in the target's layout;
#  - not FAKE_INTERNAL_CALLS: those functions exist only with 32-bit times.
cflags=(-std=gnu99 -O2 -g -Wall -Wextra -Werror -Wno-nonnull-compare -fPIC
        -DFAKE_PTHREAD -DFAKE_STAT -DFAKE_UTIME -DFAKE_SLEEP -DFAKE_TIMERS -DFAKE_RANDOM -DFAKE_PID
        -DINTERCEPT_SYSCALL -DFAKE_STATELESS -D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64
        '-DPREFIX="/usr"' '-DLIBDIRNAME="/lib/faketime"')
build() {  # LIBRARY EXTRA-FLAGS...
  local lib=$1
  shift
  mips-linux-gnu-gcc "${cflags[@]}" "$@" -shared -Wl,-soname,"$lib" \
    -Wl,--version-script="$src/src/libfaketime.map" -o "$work/$lib" "$src/src/libfaketime.c" \
    -lpthread -ldl -lm -lrt
}
build libfaketimeMT.so.1 -DPTHREAD_SINGLETHREADED_TIME
build libfaketime.so.1

mkdir -p "$mips_dir" "$host_dir"
for lib in "${libs[@]}"; do
  rm -f "$mips_dir/$lib"
  install -m 0644 "$work/$lib" "$mips_dir/$lib"
  ln -sfn "$host_lib/$lib" "$host_dir/$lib"
done

# --- the check ---
cat > "$work/check.c" <<'EOF'
/* Checks a preloaded libfaketime from inside a target program (64-bit time_t).
   check speed        FAKETIME="+0 x20": waits shrink, the calendar clock runs
                      20 times faster, a native child sees a sane date.
   check step FILE    FAKETIME_TIMESTAMP_FILE=FILE, FAKETIME_NO_CACHE=1,
                      FAKETIME_DONT_FAKE_MONOTONIC=1: rewriting FILE steps the
                      calendar clock, past 2038 too, and not the monotonic one. */
#define _GNU_SOURCE
#include <fcntl.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

static int failed;

static void expect(int ok, const char *what) {
  if (!ok) {
    fprintf(stderr, "check: FAILED: %s\n", what);
    failed = 1;
  }
}

/* A clock read by raw system call, in the kernel's 64-bit layout. */
static double raw_clock(clockid_t clock) {
  struct { int64_t sec, nsec; } t = { 0, 0 };
  if (syscall(SYS_clock_gettime64, clock, &t) != 0) return -1;
  return (double)t.sec + (double)t.nsec / 1e9;
}

/* Real time: the raw monotonic read goes past the library to the kernel. */
static double real_now(void) { return raw_clock(CLOCK_MONOTONIC); }

static double calendar(void) {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

static void timed(const char *what, double start) {
  double took = real_now() - start;
  char text[128];
  printf("  %-22s %.2f s real\n", what, took);
  snprintf(text, sizeof text, "%s took %.2f s of real time", what, took);
  expect(took < 1.0, text);
}

static int speed(void) {
  double r0 = real_now(), raw0 = raw_clock(CLOCK_REALTIME), cal0 = calendar(), t;
  struct timespec four = { 4, 0 };
  t = real_now(); nanosleep(&four, NULL); timed("nanosleep 4 s", t);
  t = real_now(); clock_nanosleep(CLOCK_MONOTONIC, 0, &four, NULL); timed("clock_nanosleep 4 s", t);
  t = real_now(); poll(NULL, 0, 4000); timed("poll 4000 ms", t);
  t = real_now(); ppoll(NULL, 0, &four, NULL); timed("ppoll 4 s", t);
  struct timeval tv = { 4, 0 };
  t = real_now(); select(0, NULL, NULL, NULL, &tv); timed("select 4 s", t);
  int fd = timerfd_create(CLOCK_MONOTONIC, 0);
  struct itimerspec its = { { 0, 0 }, { 4, 0 } };
  uint64_t n;
  t = real_now();
  expect(fd >= 0 && timerfd_settime(fd, 0, &its, NULL) == 0 && read(fd, &n, sizeof n) == sizeof n,
         "timerfd wait");
  timed("timerfd 4 s", t);
  double r1 = real_now(), raw1 = raw_clock(CLOCK_REALTIME), cal1 = calendar();
  double raw_factor = (raw1 - raw0) / (r1 - r0), cal_factor = (cal1 - cal0) / (r1 - r0);
  printf("  calendar clock: raw clock_gettime64 x%.1f, clock_gettime x%.1f\n", raw_factor, cal_factor);
  expect(raw_factor > 10 && raw_factor < 40, "raw clock_gettime64 runs about 20 times faster");
  expect(cal_factor > 10 && cal_factor < 40, "clock_gettime runs about 20 times faster");

  /* A native program started from here: its own library, a sane date. */
  FILE *p = popen("/bin/date +%s", "r");
  long long child = 0;
  expect(p != NULL && fscanf(p, "%lld", &child) == 1 && pclose(p) == 0, "native date runs");
  printf("  native child: date +%%s = %lld, here %.0f\n", child, calendar());
  expect(child > calendar() - 3600 && child < calendar() + 3600, "native date is sane");
  return failed;
}

static void set_file(const char *file, const char *text) {
  int fd = open(file, O_WRONLY | O_TRUNC | O_NOFOLLOW);
  expect(fd >= 0 && write(fd, text, strlen(text)) == (ssize_t)strlen(text), "timestamp file written");
  if (fd >= 0) close(fd);
}

static int near(double value, double expected) { return value > expected - 60 && value < expected + 60; }

static int step(const char *file) {
  set_file(file, "+0 x20\n");
  double cal0 = calendar(), real0 = real_now();
  struct timespec m0, m1;
  clock_gettime(CLOCK_MONOTONIC, &m0);
  set_file(file, "+3650d x20\n");
  double ahead = calendar() - cal0, raw_ahead = raw_clock(CLOCK_REALTIME) - cal0;
  set_file(file, "-1h x20\n");
  double back = calendar() - cal0;
  clock_gettime(CLOCK_MONOTONIC, &m1);
  double mono = (double)(m1.tv_sec - m0.tv_sec) + (double)(m1.tv_nsec - m0.tv_nsec) / 1e9;
  printf("  step +3650d: %+.0f s (raw %+.0f s); step -1h: %+.0f s; monotonic %+.2f s\n",
         ahead, raw_ahead, back, mono);
  expect(near(ahead, 3650 * 86400.0), "calendar clock steps 3650 days ahead");
  expect(near(raw_ahead, 3650 * 86400.0), "raw calendar read steps 3650 days ahead");
  expect(near(back, -3600), "calendar clock steps an hour back");
  expect(mono >= 0 && mono < 60 && real_now() - real0 < 60, "monotonic clock does not step");

  set_file(file, "@2038-01-19 03:14:00 x20\n");
  double before = calendar();
  struct timespec ten = { 10, 0 };
  nanosleep(&ten, NULL);
  double after = calendar(), raw_after = raw_clock(CLOCK_REALTIME);
  printf("  2038: %.0f, 10 s later %.0f (raw %.0f)\n", before, after, raw_after);
  expect(before > 2147483000.0 && before < 2147483647.0, "calendar clock set to 2038-01-19 03:14:00");
  expect(after > 2147483648.0 && after < 2147484000.0, "calendar clock runs past 2^31 s");
  expect(raw_after > 2147483648.0 && raw_after < 2147484000.0, "raw calendar read runs past 2^31 s");
  return failed;
}

int main(int argc, char **argv) {
  if (argc == 2 && strcmp(argv[1], "speed") == 0) return speed();
  if (argc == 3 && strcmp(argv[1], "step") == 0) return step(argv[2]);
  fprintf(stderr, "usage: check speed | check step FILE\n");
  return 2;
}
EOF
mips-linux-gnu-gcc -O2 -Wall -Wextra -Werror -D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64 \
  -o "$work/check" "$work/check.c"

# Runs the check program under qemu-mips with a clean environment; qemu itself
# is not preloaded, the guest and its children are.
preload="$dest/\$LIB/libfaketimeMT.so.1"
guest() {  # SETTINGS... -- ARGS...
  local env=()
  while [ "$1" != -- ]; do env+=(-E "$1"); shift; done
  shift
  env -i PATH=/usr/bin:/bin qemu-mips -L "$sysroot" -E "LD_PRELOAD=$preload" -E TZ=UTC "${env[@]}" \
    "$work/check" "$@"
}
# The measurements go to a log, shown when the check fails.
fail=0
{
  echo "target libfaketime check (FAKETIME=+0 x20):"
  guest FAKETIME="+0 x20" FAKETIME_DONT_FAKE_MONOTONIC=0 -- speed || fail=1
  echo "the same with libfaketime.so.1:"
  preload="$dest/\$LIB/libfaketime.so.1" guest FAKETIME="+0 x20" FAKETIME_DONT_FAKE_MONOTONIC=0 -- speed ||
    fail=1
  echo "target libfaketime check (timestamp file):"
  : > "$work/timestamp"
  guest FAKETIME_TIMESTAMP_FILE="$work/timestamp" FAKETIME_NO_CACHE=1 FAKETIME_DONT_FAKE_MONOTONIC=1 \
    -- step "$work/timestamp" || fail=1
  # The machine's own programs find their library under the same preload value.
  host=$(env -i PATH=/usr/bin:/bin LD_PRELOAD="$preload" FAKETIME=+100d /bin/date +%s) || fail=1
  now=$(date +%s)
  echo "  native program, FAKETIME=+100d: $(( (host - now) / 86400 )) days ahead"
  [ $(( host - now )) -gt $(( 99 * 86400 )) ] && [ $(( host - now )) -lt $(( 101 * 86400 )) ] || fail=1
} > "$work/check.log" 2> "$work/check.err"
# Any word of a loader (a library of the wrong class, one not found) fails it.
if [ "$fail" != 0 ] || grep -q . "$work/check.err"; then
  cat "$work/check.log" "$work/check.err" >&2
  echo "$0: the target's libfaketime in $dest does not work as it should" >&2
  exit 1
fi
(set -C; echo "$stamp" > "$dest/.stamp")
