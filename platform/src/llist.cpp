// Items stand in an array in order of their serial numbers. A walk remembers the number of the item it returned last,
// so that neither removals nor growth can leave it pointing nowhere, and a walk that is given up leaves no trace.
#include <zel/llist.h>

#include <cstdlib>
#include <cstring>

#include "platform_internal.h"

namespace {
struct Entry {
  size_t serial;
  void* item; /**< NULL: removed */
};
}  // namespace

struct ZelList {
  Entry* entries;
  size_t used;     /**< entries in use, removed ones included */
  size_t capacity; /**< entries allocated */
  size_t count;    /**< items */
  size_t serial;   /**< of the newest item */
};

namespace {

/** The index of the first entry whose serial is at least @p serial. */
size_t find(const ZelList* list, size_t serial) {
  size_t low = 0;
  size_t high = list->used;
  while (low < high) {
    const size_t middle = low + (high - low) / 2;
    if (list->entries[middle].serial < serial)
      low = middle + 1;
    else
      high = middle;
  }
  return low;
}

/** Drops the removed entries. */
void compact(ZelList* list) {
  size_t kept = 0;
  for (size_t i = 0; i < list->used; ++i)
    if (list->entries[i].item) list->entries[kept++] = list->entries[i];
  list->used = kept;
}

bool makeRoom(ZelList* list) {
  if (list->used < list->capacity) return true;
  if (list->count <= list->used / 2) {
    compact(list);
    if (list->used < list->capacity) return true;
  }
  const size_t capacity = list->capacity ? list->capacity + list->capacity / 2 : 8;
  Entry* entries = static_cast<Entry*>(reallocarray(list->entries, capacity, sizeof(Entry)));
  if (!entries) return false;
  list->entries = entries;
  list->capacity = capacity;
  return true;
}

void removeAt(ZelList* list, size_t index) {
  list->entries[index].item = nullptr;
  --list->count;
  while (list->used > 0 && !list->entries[list->used - 1].item) --list->used;
  if (list->used > 0) return;
  free(list->entries);
  list->entries = nullptr;
  list->capacity = 0;
}

/** The first item from @p index on, noted in @p iterator. */
void* itemFrom(ZelListIterator* iterator, size_t index) {
  const ZelList* list = iterator->list;
  while (index < list->used && !list->entries[index].item) ++index;
  if (index == list->used) return nullptr;
  iterator->serial = list->entries[index].serial;
  iterator->index = index;
  return list->entries[index].item;
}

}  // namespace

size_t zel::llist_appendSerial(ZelList* list, void* item) {
  if (!makeRoom(list)) return 0;
  list->entries[list->used++] = Entry{++list->serial, item};
  ++list->count;
  return list->serial;
}

bool zel::llist_removeSerial(ZelList* list, size_t serial) {
  const size_t index = find(list, serial);
  if (index == list->used || list->entries[index].serial != serial || !list->entries[index].item) return false;
  removeAt(list, index);
  return true;
}

extern "C" ZelList* llist_create(void) {
  ZelList* list = static_cast<ZelList*>(calloc(1, sizeof(ZelList)));
  return list ? list : zel::failWithErrno<ZelList>();
}

extern "C" void llist_destroy(ZelList* list) {
  if (!list) return;
  free(list->entries);
  free(list);
}

extern "C" bool llist_append(ZelList* list, void* item) {
  if (!list || !item) return zel::fail(EINVAL);
  return zel::llist_appendSerial(list, item) != 0 || zel::fail(ENOMEM);
}

extern "C" bool llist_remove(ZelList* list, const void* item) {
  if (!list || !item) return zel::fail(EINVAL);
  for (size_t i = 0; i < list->used; ++i) {
    if (list->entries[i].item != item) continue;
    removeAt(list, i);
    return true;
  }
  return false;
}

extern "C" size_t llist_count(const ZelList* list) { return list ? list->count : 0; }

extern "C" void* llist_first(ZelList* list, ZelListIterator* iterator) {
  *iterator = ZelListIterator{list, 0, 0};
  return list ? itemFrom(iterator, 0) : nullptr;
}

extern "C" void* llist_iterator_next(ZelListIterator* iterator) {
  const ZelList* list = iterator->list;
  if (!list) return nullptr;
  const bool there = iterator->index < list->used && list->entries[iterator->index].serial == iterator->serial;
  return itemFrom(iterator, there ? iterator->index + 1 : find(list, iterator->serial + 1));
}
