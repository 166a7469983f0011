/**
 * @file loop.h
 * The event loop: one for the process, one thread.
 *
 * It comes to life with the first peer, timer or signal and lives until zel_loop_close(). From then on
 * SIGPIPE is ignored, unless the application had set a handler of its own.
 */
#ifndef ZEL_LOOP_H
#define ZEL_LOOP_H

#include <stdbool.h>
#include <zel/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Runs on each delivery of a signal, from the loop, where every call is allowed. */
typedef void (*ZelSignalHandler)(int signal, void *userData);

/** Runs turns until zel_loop_stop(), or until nothing is left that could ever raise an event. Turns do not nest.
 * @return 0, or -1 with zel_error when the loop cannot be set up, and EBUSY inside a turn and inside close handlers */
ZEL_API int zel_loop_run(void);

/** Makes the running zel_loop_run() return at the end of the turn, without waiting for another event. Callable from
 * handlers and signal handlers of the loop. */
ZEL_API void zel_loop_stop(void);

/**
 * Runs one turn: waits at most @p milliseconds (0: not at all, negative: without limit) for events, handles
 * what is due, hands queued output to the sockets.
 * @return true while something is left that could raise an event
 */
ZEL_API bool zel_loop_turn(int milliseconds);

/** The loop's own descriptor, readable when zel_loop_turn(0) has something to do: for an application's own loop. */
ZEL_API int zel_loop_descriptor(void);

/** How many milliseconds may pass before zel_loop_turn() is due although the descriptor is quiet; -1: no limit. */
ZEL_API int zel_loop_timeout(void);

/**
 * Runs turns until the last bytes of every ended peer have left, at most @p milliseconds.
 * For the end of a program, after its last peer was closed.
 */
ZEL_API void zel_loop_drain(unsigned milliseconds);

/** Calls @p handler for @p signal from now on; NULL restores the system's default, and for SIGPIPE ignores it again.
 * @return false with zel_error */
ZEL_API bool zel_loop_onSignal(int signal, ZelSignalHandler handler, void *userData);

/**
 * Ends every peer (close handlers run), frees timers' loop resources and the loop itself; waits for names that are
 * being looked up. Nothing new can be made meanwhile; afterwards everything can be used again. Does nothing inside a
 * turn and inside close handlers.
 */
ZEL_API void zel_loop_close(void);

#ifdef __cplusplus
}
#endif
#endif
