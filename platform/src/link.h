/** @file link.h Intrusive circular lists: joining, leaving and moving never allocates and never fails. */
#ifndef ZEL_LINK_H
#define ZEL_LINK_H

#include <cstddef>

namespace zel {

/** A member of a list, or its head; linked to itself while alone. */
struct Link {
  Link* previous;
  Link* next;

  void init() { previous = next = this; }
  bool alone() const { return next == this; }
  void leave() {
    previous->next = next;
    next->previous = previous;
    init();
  }
  /** Moves @p member from wherever it is to the end of the list that this is the head of. */
  void append(Link* member) {
    member->leave();
    member->previous = previous;
    member->next = this;
    previous->next = member;
    previous = member;
  }
  /** Moves every member of @p other's list to this one, which is empty. */
  void takeAll(Link* other) {
    init();
    if (other->alone()) return;
    next = other->next;
    previous = other->previous;
    next->previous = this;
    previous->next = this;
    other->init();
  }
};

/** The object of type T whose member `link` this is. */
template <typename T>
T* linked(Link* link) {
  return reinterpret_cast<T*>(reinterpret_cast<char*>(link) - offsetof(T, link));
}

}  // namespace zel
#endif
