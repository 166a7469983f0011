/** @file timer.h One-shot timers of the event loop. */
#ifndef ZEL_TIMER_H
#define ZEL_TIMER_H

#include <stdbool.h>
#include <zel/export.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ZelTimer ZelTimer;

/** Runs when a timer is due; it may start the timer again or destroy it. */
typedef void (*ZelTimerHandler)(ZelTimer *timer, void *userData);

/** A new timer, or NULL with zel_error. Owned by the caller until zel_timer_destroy(). */
ZEL_API ZelTimer *zel_timer_create(void);

ZEL_API void zel_timer_setUserData(ZelTimer *timer, void *userData);
ZEL_API void *zel_timer_userData(const ZelTimer *timer);
ZEL_API void zel_timer_setHandler(ZelTimer *timer, ZelTimerHandler handler);

/**
 * (Re)starts the timer: its handler runs once, from the loop, @p milliseconds from now; 0 means in the
 * next turn, never inside this call.
 * @return false with zel_error when there is no handler
 */
ZEL_API bool zel_timer_start(ZelTimer *timer, unsigned milliseconds);

/** Stops the timer; its handler will not run. */
ZEL_API void zel_timer_stop(ZelTimer *timer);

/** Stops and frees the timer; allowed inside its own handler. NULL is allowed. */
ZEL_API void zel_timer_destroy(ZelTimer *timer);

#ifdef __cplusplus
}
#endif
#endif
