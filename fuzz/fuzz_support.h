// What the fuzz targets share.
#pragma once

#include <krohttp/header.h>
#include <krohttp/reply.h>
#include <krotrace/krotrace.h>
#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

// Stops at a promise that was not kept.
#define FUZZ_CHECK(condition)                                         \
  do {                                                                \
    if (!(condition)) {                                               \
      fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition); \
      abort();                                                        \
    }                                                                 \
  } while (0)

// Formats every trace and drops it: a NULL that reaches a format is found too. FUZZ_SHOW=1 shows them, for a look at a
// reproducer.
inline void traceIntoNothing() {
  if (getenv("FUZZ_SHOW") == nullptr) kroTraceToFunction([](int, const char*, void*) {}, nullptr);
  kroTraceEnable("*", KROTRACE_INFO);
}

// libFuzzer calls it once.
extern "C" [[gnu::used]] inline int LLVMFuzzerInitialize(int*, char***) {
  setenv("TZ", "UTC0", 1);  // dates are read in the local zone
  tzset();
  traceIntoNothing();
  return 0;
}

// Formatting takes most of the time: of the inputs only short ones are traced, if they ask for it.
constexpr size_t kMostTraced = 256;
inline void traceIf(bool wanted) {
  static const bool shown = getenv("FUZZ_SHOW") != nullptr;
  static bool traced = true;
  wanted |= shown;
  if (wanted != traced) kroTraceEnable("*", wanted ? KROTRACE_INFO : -1);
  traced = wanted;
}

// A header's text as a message hands it out: it ends at the first NUL and has no control characters but TAB.
inline std::string headerText(const uint8_t* data, size_t size) {
  std::string text;
  for (size_t at = 0; at < size && data[at] != 0; ++at) {
    if (data[at] >= ' ' || data[at] == '\t') text.push_back(static_cast<char>(data[at]));
  }
  const size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_last_not_of(" \t") + 1 - begin);
}

// A typed header read from text.
class FuzzHeader {
 public:
  FuzzHeader(int code, const std::string& text) {
    typed.code = code;
    result = http_hdrFactory(&typed, text.c_str());
  }
  ~FuzzHeader() { http_hdrCleanup(&typed); }
  FuzzHeader(const FuzzHeader&) = delete;
  FuzzHeader& operator=(const FuzzHeader&) = delete;

  HttpHeader typed = {};
  int result = 0;
};

// Writes header into a message; value: what stands there then, without it nothing was written.
class FuzzWritten {
 public:
  explicit FuzzWritten(HttpHeader* header) : reply_(http_replyCreate()) {
    result = http_hdrSerialize(header, &reply_->message);
    const char* text = nullptr;
    if (http_replyHeadersNext(reply_, &name, &text) != 0) return;
    any = true;
    value = text;
  }
  ~FuzzWritten() { http_replyDestroy(reply_); }
  FuzzWritten(const FuzzWritten&) = delete;
  FuzzWritten& operator=(const FuzzWritten&) = delete;

  int result = 0;
  bool any = false;
  const char* name = nullptr;
  std::string value;

 private:
  HttpReply* reply_;
};
