/**
 * @file llist.h
 * A list of pointers that may lose any element, and gain some, while it is being walked.
 */
#ifndef ZEL_LLIST_H
#define ZEL_LLIST_H

#include <stdbool.h>
#include <stddef.h>
#include <zel/export.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ZelList ZelList;

/** A position in a list; caller-provided storage, valid for one walk on one list. A walk may be given up any time. */
typedef struct ZelListIterator {
  ZelList *list; /**< private */
  size_t serial; /**< private */
  size_t index;  /**< private */
} ZelListIterator;

/** A new empty list, or NULL when memory is short. */
ZEL_API ZelList *llist_create(void);

/** Frees the list; the elements belong to the caller. NULL is allowed. */
ZEL_API void llist_destroy(ZelList *list);

/** Appends @p item (not NULL). @return false with zel_error when memory is short. A running walk will reach it. */
ZEL_API bool llist_append(ZelList *list, void *item);

/** Takes @p item out. @return false when it is not in the list. A running walk will not see it any more. */
ZEL_API bool llist_remove(ZelList *list, const void *item);

/** How many items the list holds. */
ZEL_API size_t llist_count(const ZelList *list);

/** Starts a walk. @return the first item, or NULL when the list is empty (or NULL) */
ZEL_API void *llist_first(ZelList *list, ZelListIterator *iterator);

/** @return the item after the one last returned, or NULL at the end. Items removed meanwhile are not returned. */
ZEL_API void *llist_iterator_next(ZelListIterator *iterator);

#ifdef __cplusplus
}
#endif
#endif
