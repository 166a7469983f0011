/** @file queue.h Output that waits for the socket: a chain of pooled chunks. */
#ifndef ZEL_QUEUE_H
#define ZEL_QUEUE_H

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>

namespace zel {

struct Chunk;

struct Queue {
  Chunk* first;
  Chunk* last;
  size_t bytes;
};

/** Copies @p length bytes to the end. @return how many were taken: fewer only when memory is short */
size_t queue_append(Queue* queue, const char* data, size_t length);

/** Describes the front of the queue. @return how many of @p parts were filled in */
int queue_front(const Queue* queue, iovec* parts, int count);

/** Drops @p length bytes from the front. */
void queue_consume(Queue* queue, size_t length);

void queue_clear(Queue* queue);

/** Frees the chunks kept for reuse. */
void queue_freePool();

}  // namespace zel
#endif
