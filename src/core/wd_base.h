// The bottom of the daemon, used by every thread: the console trace, the
// real-time clock, real-time threads and the parsing of numbers that come
// from outside (configuration, answers, files, tool output).
#ifndef WATCHDOGD_CORE_WD_BASE_H
#define WATCHDOGD_CORE_WD_BASE_H

#include <pthread.h>
#include <stdint.h>
#include <sys/time.h>

// Console trace switch: 1 with option -d. Written only before threads start.
extern int debuglevel;

// Writes "Function:<func> Line=<line>" and the formatted message to
// /dev/console in one write; "open failed " goes to standard output when the
// console cannot be opened. Use WD_TRACE, which does nothing unless debuglevel
// is above 0.
void wd_dbgTrace(const char* func, int line, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

#define WD_TRACE(...)                                                 \
  do {                                                                \
    if (debuglevel > 0) wd_dbgTrace(__func__, __LINE__, __VA_ARGS__); \
  } while (0)

// WD_TRACE in the name of another function (a module's handler, main).
#define WD_TRACE_AS(func, ...)                                    \
  do {                                                            \
    if (debuglevel > 0) wd_dbgTrace(func, __LINE__, __VA_ARGS__); \
  } while (0)

// Writes the formatted text to /dev/console whatever the debug level, in the
// trace form (with the function and line prefix).
#define WD_CONSOLE(...) wd_dbgTrace(__func__, __LINE__, __VA_ARGS__)

// Sanitizer builds (ASan with UBSan, TSan, the fuzz targets).
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define WD_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define WD_SANITIZED 1
#endif
#endif

// 1 in debug and sanitizer builds, where a broken invariant aborts; 0 in
// release builds (NDEBUG), where it is handled as before and the daemon goes
// on. Checks that cost a walk of a whole structure run only when it is 1.
#if !defined(NDEBUG) || defined(WD_SANITIZED)
#define WD_CHECKED 1
#else
#define WD_CHECKED 0
#endif

// An invariant that only a bug can break. True when `cond` holds; when it
// does not, aborts in checked builds with the condition and where it was
// checked on standard error, and is false in release builds, for the caller
// to go on as it always has.
#define WD_INVARIANT(cond) ((cond) || wd_invariantBroken(#cond, __FILE__, __LINE__))
bool wd_invariantBroken(const char* what, const char* file, int line);

// The real-time clock as 64-bit seconds and microseconds. Right past 2038
// also where time_t has 32 bits: the 64-bit clock call of the kernel is used
// there when it has one, else the 32-bit seconds are read as unsigned (good
// until 2106). Returns 0, or -1 when the clock cannot be read.
int wd_clockRealtime(int64_t* sec, int32_t* usec);

// The monotonic clock (CLOCK_MONOTONIC) in microseconds: what every wait and
// every due time runs on, so that a step of the calendar clock changes none.
int64_t wd_monotonicUs(void);

// The same clock in milliseconds, read from the kernel by system call: the
// deadlines of started programs run on it. libfaketime, which speeds up the
// daemon's clocks in the test gateway, does not reach a system call, so there
// a program, which runs at real speed, still gets its whole deadline.
int64_t wd_kernelMonotonicMs(void);

// Sets `tv` to `seconds` and 0 microseconds; returns 0.
int wd_initTimeVal(struct timeval* tv, int seconds);

// Starts `body` in a new thread with a stack of wd_threadStackSize() bytes.
// Returns pthread_create's result.
int wd_createThread(pthread_t* tid, void* (*body)(void*), void* arg);

// The stack each of the daemon's threads gets. The deepest use measured with
// every module running is 20 KiB; 64 KiB leaves room for the C library's
// deeper paths, or the system's minimum where that is larger (128 KiB on
// MIPS). A 32-bit gateway without memory overcommit pays for what is reserved,
// so the default (the stack limit, 8 MiB) is too much. Sanitizer builds return
// 0 (the default): their frames are several times larger.
size_t wd_threadStackSize(void);

// Starts `body` in a new thread with round-robin real-time scheduling at
// priority 75. Where that is refused, starts it with default scheduling and
// says so once per process on the debug console. Returns pthread_create's
// result. Programs started from such a thread get default scheduling (wd_run).
int wd_createRtThread(pthread_t* tid, void* (*body)(void*), void* arg, const char* name);

// A configuration number: the leading decimal digits of `text` (saturating at
// 4294967295); 0 for an empty or non-numeric text.
uint32_t wd_parseUnsigned(const char* text);
// A decimal number at *text as strtol reads it (leading blanks, a sign),
// within [min, max]: stored in *value with *text moved past it, and 1
// returned. 0, with nothing moved, when there is no number or it is out of
// range.
int wd_parseLong(const char** text, long min, long max, long* value);
// Splits `line` into at most `count` blank-separated words (blanks: space,
// tab, line ends), each copied into its own `size`-byte slot of `words`
// (`count` slots one after the other), cut at size - 1 characters. Returns
// the number of words found, at most `count`.
int wd_splitWords(const char* line, char* words, int count, size_t size);
// A module period in seconds as the milliseconds the timer service takes,
// capped where the milliseconds no longer fit an int (about 24.8 days).
int wd_periodMs(uint32_t seconds);

#endif  // WATCHDOGD_CORE_WD_BASE_H
