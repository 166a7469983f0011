/**
 * @file krotrace.h
 * The trace of the bundled platform: leveled lines, informational ones switched zone by zone.
 *
 * Levels grow with detail: 0 is the most severe (broken invariants), 100 errors, 200 warnings,
 * 300 notices, 400 informational lines. Lines given to kroTrace() always go out; lines given to
 * kroTraceZ() only when their zone has been enabled at their level. Every function here keeps
 * errno, so that a line may print %m and its caller may still look at errno afterwards.
 *
 * One thread, like everything on the event loop.
 */
#ifndef KROTRACE_KROTRACE_H
#define KROTRACE_KROTRACE_H

#include <stdbool.h>

#if defined(KROTRACE_BUILDING)
#define KROTRACE_API __attribute__((visibility("default")))
#else
#define KROTRACE_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** The trace levels in use. */
enum KroTraceLevel {
  KROTRACE_FATAL = 0,
  KROTRACE_ERROR = 100,
  KROTRACE_WARNING = 200,
  KROTRACE_NOTICE = 300,
  KROTRACE_INFO = 400
};

/** What kroTraceType() reports: how a line may look where it goes. */
enum KroTraceType {
  KROTRACE_TYPE_NONE = 0,     /**< lines are dropped */
  KROTRACE_TYPE_TERMINAL = 1, /**< standard error is a terminal: colours are welcome */
  KROTRACE_TYPE_PLAIN = 3     /**< a file, a pipe, the system log or a function: no escape sequences */
};

/**
 * Receives each finished line.
 * @param level  the line's level
 * @param line   the text without a line end, valid during the call
 */
typedef void (*KroTraceFunction)(int level, const char *line, void *userData);

/** The highest level enabled in any zone, -1 when all are off. Read-only; kept by kroTraceEnable(). */
extern KROTRACE_API int kroTraceZonesLevel;

/** Writes one line unconditionally. @p format and what follows are those of printf, %m included. */
KROTRACE_API void kroTrace(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));

/** Writes one line if @p zone is enabled at @p level. Call kroTraceZ(), which tests the common case inline. */
KROTRACE_API void kroTraceZone(const char *zone, int level, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

/** As kroTraceZone(); while no zone shows @p level it costs a load and a branch, and evaluates nothing else. */
#define kroTraceZ(zone, level, ...)                                                                     \
  do {                                                                                                  \
    if (__builtin_expect((level) <= kroTraceZonesLevel, 0)) kroTraceZone((zone), (level), __VA_ARGS__); \
  } while (0)

/** How lines may look where they go now (KroTraceType). */
KROTRACE_API int kroTraceType(void);

/**
 * Shows the lines of @p zone up to @p level; a negative level switches the zone off.
 * The zone "*" stands for every zone that was not named itself.
 * @return false when @p zone is NULL or empty, or memory is short (nothing changed)
 */
KROTRACE_API bool kroTraceEnable(const char *zone, int level);

/** Sends lines to standard error: the state at start. Coloured when it is a terminal. */
KROTRACE_API void kroTraceToStderr(void);

/**
 * Appends lines to the file at @p path, creating it with mode 0600.
 * @return false with errno when it cannot be opened; the output in force stays
 */
KROTRACE_API bool kroTraceToFile(const char *path);

/** Sends lines to the system log under the name @p identity (copied). */
KROTRACE_API void kroTraceToSyslog(const char *identity);

/** Hands lines to @p function; NULL drops every line. */
KROTRACE_API void kroTraceToFunction(KroTraceFunction function, void *userData);

#ifdef __cplusplus
}
#endif
#endif
