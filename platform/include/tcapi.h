// libtcapi: the gateway's configuration tree and its debug console.
//
// The tree is one text file shared by every process of the gateway
// (TCAPI_TREE_PATH). Each node holds attributes with text values. Reads see a
// whole, consistent file; writes take a file lock and replace the file by
// renaming a complete temporary copy into place, so no reader ever sees half of
// a write. A gateway starts without a tree: the first tcapi_set creates it and a
// missing tree reads as empty.
//
// Every function may be called from any thread of any process.
#ifndef WATCHDOGD_PLATFORM_TCAPI_H
#define WATCHDOGD_PLATFORM_TCAPI_H

#include <stddef.h>

#define TCAPI_TREE_PATH "/etc/tcapi.conf"
#define TCAPI_LOCK_PATH "/etc/tcapi.lock"
#define TCAPI_HOOK_DIR "/etc/tcapi.d"

#ifdef __cplusplus
extern "C" {
#endif

// Copies the value of `attr` of `node` into `buf` (at most size - 1 bytes, then
// a terminating zero; longer values are cut). Returns 0, or -1 when the node or
// the attribute does not exist or an argument is invalid; `buf` is then empty.
int tcapi_nget(const char* node, const char* attr, char* buf, size_t size);

// Sets `attr` of `node` to `value`, creating node and tree as needed. Node and
// attribute names are non-empty and contain no blank, '[', ']', '=' or control
// character. Returns 0, or -1 for an invalid name or a failed write.
int tcapi_set(const char* node, const char* attr, const char* value);

// Removes `attr` of `node`, or the whole node when `attr` is null. Returns 0,
// or -1 when there was nothing to remove or the write failed.
int tcapi_unset(const char* node, const char* attr);

// Copies the value of `attr` of `node` into `buf` as tcapi_nget does and
// removes the attribute, in one step under the writers' lock: for the
// gateway's processes that consume requests left in the tree (a query is
// taken once, and a request written meanwhile is never lost). Returns 0, or -1
// when there was no such attribute (nothing is written then).
int tcapi_take(const char* node, const char* attr, char* buf, size_t size);

// Announces a change of `node`: runs the executable hook TCAPI_HOOK_DIR/<node>,
// when there is one, with the node name as its argument in a process group of
// its own, and waits for it at most 30 s; a hook still running then is killed
// with its group and the console says so. Returns 0 when there is no hook or
// it exited with 0, -1 otherwise.
int tcapi_commit(const char* node);

// Writes the formatted text unchanged and unbuffered to standard error, the
// platform debug console. One call is one write.
int tcdbg_printf(const char* format, ...) __attribute__((format(printf, 1, 2)));

#ifdef __cplusplus
}

// The call form of the daemon: the buffer's size is taken from its type, so a
// value can never run past the caller's array.
template <size_t N>
inline int tcapi_get(const char* node, const char* attr, char (&buf)[N]) {
  return tcapi_nget(node, attr, buf, N);
}
#endif

#endif  // WATCHDOGD_PLATFORM_TCAPI_H
