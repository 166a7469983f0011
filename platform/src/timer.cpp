#include <zel/timer.h>

#include <cstdlib>

#include "platform_internal.h"

struct ZelTimer {
  zel::Link link;  /**< in the loop's `due` while it waits for the next turn */
  zel::Link owned; /**< in the loop's `timers` while it has a handle */
  uv_timer_t* handle;
  ZelTimerHandler handler;
  void* userData;
  uint32_t startTurn;
};

namespace {

void freeHandle(uv_handle_t* handle) { free(handle); }

void detach(ZelTimer* timer) {
  if (!timer->handle) return;
  timer->owned.leave();
  uv_close(reinterpret_cast<uv_handle_t*>(timer->handle), freeHandle);
  timer->handle = nullptr;
}

void onTimeout(uv_timer_t* handle) {
  ZelTimer* timer = static_cast<ZelTimer*>(handle->data);
  timer->handler(timer, timer->userData);
}

bool makeHandle(ZelTimer* timer) {
  if (timer->handle) return true;
  timer->handle = static_cast<uv_timer_t*>(malloc(sizeof(uv_timer_t)));
  if (!timer->handle) return zel::fail(ENOMEM);
  uv_timer_init(&zel::loop.uv, timer->handle);
  timer->handle->data = timer;
  zel::loop.timers.append(&timer->owned);
  return true;
}

}  // namespace

void zel::timer_runDue() {
  Link batch;
  batch.takeAll(&loop.due);
  while (!batch.alone()) {
    ZelTimer* timer = linked<ZelTimer>(batch.next);
    timer->link.leave();
    // Started in this very turn: a timer that restarts itself must not keep the sockets waiting.
    if (timer->startTurn == loop.turn)
      loop.due.append(&timer->link);
    else
      timer->handler(timer, timer->userData);
  }
}

void zel::timer_detachAll() {
  while (!loop.due.alone()) loop.due.next->leave();
  while (!loop.timers.alone())
    detach(reinterpret_cast<ZelTimer*>(reinterpret_cast<char*>(loop.timers.next) - offsetof(ZelTimer, owned)));
}

extern "C" ZelTimer* zel_timer_create(void) {
  ZelTimer* timer = static_cast<ZelTimer*>(calloc(1, sizeof(ZelTimer)));
  if (!timer) return zel::failWithErrno<ZelTimer>();
  timer->link.init();
  timer->owned.init();
  return timer;
}

extern "C" void zel_timer_setUserData(ZelTimer* timer, void* userData) { timer->userData = userData; }

extern "C" void* zel_timer_userData(const ZelTimer* timer) { return timer->userData; }

extern "C" void zel_timer_setHandler(ZelTimer* timer, ZelTimerHandler handler) { timer->handler = handler; }

extern "C" bool zel_timer_start(ZelTimer* timer, unsigned milliseconds) {
  if (!timer || !timer->handler) return zel::fail(ZEL_ERROR_NO_HANDLER);
  if (!zel::loop_open()) return false;
  zel_timer_stop(timer);
  if (milliseconds == 0) {
    timer->startTurn = zel::loop.turn;
    zel::loop.due.append(&timer->link);
    zel::loop_stayAwake();
    return true;
  }
  if (!makeHandle(timer)) return false;
  // The millisecond that has begun does not count: the timer would fire before its time.
  zel::loop_startTimer(timer->handle, onTimeout, zel::loop_now() + 1 + milliseconds);
  return true;
}

extern "C" void zel_timer_stop(ZelTimer* timer) {
  timer->link.leave();
  if (timer->handle) uv_timer_stop(timer->handle);
}

extern "C" void zel_timer_destroy(ZelTimer* timer) {
  if (!timer) return;
  timer->link.leave();
  detach(timer);
  free(timer);
}
