#include "queue.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace zel {

namespace {
/** A chunk takes one page. */
constexpr size_t kChunkData = 4096 - 16;
constexpr size_t kPooledChunks = 64;
}  // namespace

struct Chunk {
  Chunk* next;
  uint32_t start;
  uint32_t end;
  char data[kChunkData];
};

namespace {

Chunk* pool;
size_t pooled;

Chunk* takeChunk() {
  Chunk* chunk = pool;
  if (chunk) {
    pool = chunk->next;
    --pooled;
  } else {
    chunk = static_cast<Chunk*>(malloc(sizeof(Chunk)));
    if (!chunk) return nullptr;
  }
  chunk->next = nullptr;
  chunk->start = chunk->end = 0;
  return chunk;
}

void returnChunk(Chunk* chunk) {
  if (pooled >= kPooledChunks) return free(chunk);
  chunk->next = pool;
  pool = chunk;
  ++pooled;
}

/** The chunk at the end that has room. */
Chunk* roomyChunk(Queue* queue) {
  if (queue->last && queue->last->end < sizeof(queue->last->data)) return queue->last;
  Chunk* chunk = takeChunk();
  if (!chunk) return nullptr;
  if (queue->last)
    queue->last->next = chunk;
  else
    queue->first = chunk;
  return queue->last = chunk;
}

}  // namespace

size_t queue_append(Queue* queue, const char* data, size_t length) {
  size_t done = 0;
  while (done < length) {
    Chunk* chunk = roomyChunk(queue);
    if (!chunk) break;
    const size_t part = std::min(length - done, sizeof(chunk->data) - chunk->end);
    memcpy(chunk->data + chunk->end, data + done, part);
    chunk->end += static_cast<uint32_t>(part);
    done += part;
  }
  queue->bytes += done;
  return done;
}

int queue_front(const Queue* queue, iovec* parts, int count) {
  int used = 0;
  for (Chunk* chunk = queue->first; chunk && used < count; chunk = chunk->next)
    parts[used++] = iovec{chunk->data + chunk->start, chunk->end - chunk->start};
  return used;
}

void queue_consume(Queue* queue, size_t length) {
  queue->bytes -= length;
  while (length > 0) {
    Chunk* chunk = queue->first;
    const size_t part = std::min<size_t>(length, chunk->end - chunk->start);
    chunk->start += static_cast<uint32_t>(part);
    length -= part;
    if (chunk->start < chunk->end) return;
    queue->first = chunk->next;
    if (!queue->first) queue->last = nullptr;
    returnChunk(chunk);
  }
}

void queue_clear(Queue* queue) { queue_consume(queue, queue->bytes); }

void queue_freePool() {
  while (pool) {
    Chunk* chunk = pool;
    pool = chunk->next;
    free(chunk);
  }
  pooled = 0;
}

}  // namespace zel
