#include "heap.h"

#include <malloc.h>
#include <zel/timer.h>

#include <cstddef>

namespace {

constexpr unsigned kDelayMilliseconds = 5000;
constexpr size_t kMostUnused = 4 << 20;

ZelTimer* timer = nullptr;
bool isDue = false;

// A few small objects above what is unused keep all of it, as long as nobody asks.
void trim(ZelTimer*, void*) {
  isDue = false;
#ifdef __GLIBC__
  if (mallinfo2().fordblks > kMostUnused) malloc_trim(0);
#endif
}

}  // namespace

void heapTrimLater() {
  if (isDue) return;
  if (timer == nullptr) {
    timer = zel_timer_create();
    if (timer == nullptr) return;
    zel_timer_setHandler(timer, trim);
  }
  isDue = zel_timer_start(timer, kDelayMilliseconds);
}

void heapTearDown() {
  zel_timer_destroy(timer);
  timer = nullptr;
  isDue = false;
}
