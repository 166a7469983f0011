// The library's trace lines: one form, five levels.
//
// A source file names its zone once, before it includes this:
//   #define TRACE_ZONE "http-message"
// Errors and warnings go out unconditionally; notices and infos when their zone is switched on, and cost a load
// and a branch when it is not. errno is kept.
#pragma once

#include <krotrace/krotrace.h>

namespace krohttp {

// Escape sequences for where lines go now, all empty where they would only litter.
struct TraceColours {
  const char* zone;
  const char* error;
  const char* message;
  const char* location;
  const char* reset;
};

inline const TraceColours& traceColours() {
  static constexpr TraceColours kPlain{"", "", "", "", ""};
  static constexpr TraceColours kColoured{"\033[34m", "\033[31;1m", "\033[1m", "\033[36m", "\033[0m"};
  return kroTraceType() == KROTRACE_TYPE_PLAIN ? kPlain : kColoured;
}

}  // namespace krohttp

// What "%s" makes of a text that is not there, which is the C library's choice and not everywhere the same.
inline const char* textOrNull(const char* text) { return text != nullptr ? text : "(null)"; }

#define TRACE_FORMAT_(format) "%s%-7.7s%s - %s[%s]%s%s" format "%s - %s(%s@%s:%d)%s"
#define TRACE_BEFORE_(mark, markColour, markReset)                                                          \
  ::krohttp::traceColours().zone, TRACE_ZONE, ::krohttp::traceColours().reset, markColour, mark, markReset, \
      ::krohttp::traceColours().message
#define TRACE_AFTER_                                                                                      \
  ::krohttp::traceColours().reset, ::krohttp::traceColours().location, __func__, __FILE_NAME__, __LINE__, \
      ::krohttp::traceColours().reset
#define TRACE_MARKED_ERROR_ TRACE_BEFORE_("x", ::krohttp::traceColours().error, ::krohttp::traceColours().reset)

// A broken ownership: traced, and processing goes on.
#define TRACE_BROKEN(format, ...) \
  kroTrace(KROTRACE_FATAL, TRACE_FORMAT_(format), TRACE_MARKED_ERROR_, __VA_OPT__(__VA_ARGS__, ) TRACE_AFTER_)
#define TRACE_ERROR(format, ...) \
  kroTrace(KROTRACE_ERROR, TRACE_FORMAT_(format), TRACE_MARKED_ERROR_, __VA_OPT__(__VA_ARGS__, ) TRACE_AFTER_)
#define TRACE_WARNING(format, ...) \
  kroTrace(KROTRACE_WARNING, TRACE_FORMAT_(format), TRACE_BEFORE_("!", "", ""), __VA_OPT__(__VA_ARGS__, ) TRACE_AFTER_)
#define TRACE_NOTICE(format, ...)                                                           \
  kroTraceZ(TRACE_ZONE, KROTRACE_NOTICE, TRACE_FORMAT_(format), TRACE_BEFORE_("n", "", ""), \
            __VA_OPT__(__VA_ARGS__, ) TRACE_AFTER_)
#define TRACE_INFO(format, ...)                                                           \
  kroTraceZ(TRACE_ZONE, KROTRACE_INFO, TRACE_FORMAT_(format), TRACE_BEFORE_("i", "", ""), \
            __VA_OPT__(__VA_ARGS__, ) TRACE_AFTER_)
