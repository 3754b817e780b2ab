#include "timer_list.h"

#include <stdlib.h>

void* (*timer_mallocHook)(size_t size) = nullptr;

void* timer_malloc(size_t size) { return timer_mallocHook ? timer_mallocHook(size) : malloc(size); }

void timer_free(void* p) { free(p); }

int timer_list_init(timerList* list) {
  if (list == nullptr) return -1;
  list->count = 0;
  list->first = nullptr;
  return 0;
}

int timer_list_add(timerList* list, void* element, int pos) {
  if (list == nullptr) return -1;
  timerListCell* cell = static_cast<timerListCell*>(timer_malloc(sizeof(timerListCell)));
  if (cell == nullptr) return -1;
  cell->element = element;
  if (list->count == 0 || list->first == nullptr) {
    cell->next = nullptr;
    list->first = cell;
    list->count = 1;
    return 1;
  }
  if (pos < 0 || pos >= list->count) pos = list->count;
  if (pos == 0) {
    cell->next = list->first;
    list->first = cell;
  } else {
    timerListCell* before = list->first;
    for (int i = 1; i < pos && before->next != nullptr; ++i) before = before->next;
    cell->next = before->next;
    before->next = cell;
  }
  return ++list->count;
}

void* timer_list_get_first(timerList* list, timerListIterator* it) {
  it->list = list;
  it->pos = 0;
  it->link = list ? &list->first : nullptr;
  it->current = list && list->count > 0 ? list->first : nullptr;
  return it->current ? it->current->element : nullptr;
}

void* timer_list_get_next(timerListIterator* it) {
  if (it->current == nullptr) return nullptr;
  it->link = &it->current->next;
  it->current = it->current->next;
  it->pos++;
  if (it->current == nullptr || it->pos >= it->list->count) {
    it->current = nullptr;
    return nullptr;
  }
  return it->current->element;
}

void* timer_list_iterator_remove(timerListIterator* it) {
  if (it->current == nullptr || it->pos >= it->list->count) return nullptr;
  timerListCell* gone = it->current;
  it->list->count--;
  *it->link = gone->next;
  timer_free(gone);
  it->current = *it->link;
  if (it->current == nullptr || it->pos >= it->list->count) {
    it->current = nullptr;
    return nullptr;
  }
  return it->current->element;
}

void* timer_list_get(timerList* list, int pos) {
  if (list == nullptr || pos < 0 || pos >= list->count) return nullptr;
  timerListCell* cell = list->first;
  for (int i = 0; i < pos && cell != nullptr; ++i) cell = cell->next;
  return cell ? cell->element : nullptr;
}

int timer_list_remove(timerList* list, int pos) {
  if (list == nullptr || pos < 0 || pos >= list->count) return -1;
  timerListCell** link = &list->first;
  for (int i = 0; i < pos && *link != nullptr; ++i) link = &(*link)->next;
  timerListCell* gone = *link;
  if (gone == nullptr) return -1;
  *link = gone->next;
  timer_free(gone);
  return --list->count;
}

int timer_list_size(timerList* list) { return list ? list->count : -1; }

int timer_list_eol(timerList* list, int pos) {
  if (list == nullptr) return -1;
  return pos < list->count ? 0 : 1;
}

void timer_list_special_free(timerList* list, void (*free_fn)(void*)) {
  if (list == nullptr) return;
  while (list->count > 0 && list->first != nullptr) {
    void* element = list->first->element;
    timer_list_remove(list, 0);
    if (free_fn) free_fn(element);
  }
  list->count = 0;
  list->first = nullptr;
}

void timer_list_ofchar_free(timerList* list) {
  if (list == nullptr) return;
  timer_list_special_free(list, timer_free);
  timer_free(list);
}
