// A counted, singly linked list of untyped elements, addressed by position,
// with an iterator that can remove the cell it stands on. The timer service
// keeps its timers in two of them. The list owns its cells, never its elements
// (except timer_list_ofchar_free). It does not lock: its user does.
#ifndef WATCHDOGD_TIMER_TIMER_LIST_H
#define WATCHDOGD_TIMER_TIMER_LIST_H

#include <stddef.h>

typedef struct timerListCell {
  struct timerListCell* next;  // null at the end
  void* element;
} timerListCell;

// List header. The count is the authority for the end of the list.
typedef struct timerList {
  int count;
  timerListCell* first;  // null when empty
} timerList;

// Iterator held by the caller; `current` is null once the iteration is over.
typedef struct timerListIterator {
  timerListCell* current;
  timerListCell** link;  // the pointer that points to `current`
  timerList* list;
  int pos;  // position of `current`, from 0
} timerListIterator;

// 0 after making the list empty; -1 for a null header.
int timer_list_init(timerList* list);
// Inserts `element` at `pos` (-1, or the count or more, append; an empty list
// takes it whatever `pos` says). New count, or -1 for a null header or when no
// cell can be allocated (the list is then unchanged).
int timer_list_add(timerList* list, void* element, int pos);
// First element with the iterator on position 0; null (iterator ended) when empty.
void* timer_list_get_first(timerList* list, timerListIterator* it);
// Next element; null (iterator ended) past the last one.
void* timer_list_get_next(timerListIterator* it);
// Removes the current cell (not its element) and returns the element that now
// stands at the iterator's position, or null when none follows.
void* timer_list_iterator_remove(timerListIterator* it);
// Element at `pos`; null for a null header or a position outside 0..count-1.
void* timer_list_get(timerList* list, int pos);
// Removes the cell at `pos`; new count, or -1 for a null header or a bad position.
int timer_list_remove(timerList* list, int pos);
// Count; -1 for a null header.
int timer_list_size(timerList* list);
// 0 when `pos` is below the count, 1 otherwise; -1 for a null header.
int timer_list_eol(timerList* list, int pos);
// Removes every element from the front, handing each to `free_fn` when given.
void timer_list_special_free(timerList* list, void (*free_fn)(void*));
// Removes every element, releasing each with timer_free, then the header itself.
void timer_list_ofchar_free(timerList* list);

// The allocator of the timer service: a new block, or null.
void* timer_malloc(size_t size);
// Releases a block from timer_malloc; nothing for null.
void timer_free(void* p);

// Fault injection for tests: when set, timer_malloc asks it instead of malloc.
extern void* (*timer_mallocHook)(size_t size);

#endif  // WATCHDOGD_TIMER_TIMER_LIST_H
