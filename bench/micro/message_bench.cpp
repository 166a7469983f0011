// Heads: a request's read, a reply's built and written, a header found by name.
#include <benchmark/benchmark.h>
#include <krohttp/reply.h>

#include "messages.h"
#include "streams.h"

namespace {

void requestHead(benchmark::State& state, std::string_view head) {
  EndlessInput input(head);
  IncomingRequest request(input.get());
  for (auto _ : state) {
    request.readHead();
    benchmark::DoNotOptimize(http_requestPath(request.get()));
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(head.size()));
}
BENCHMARK_CAPTURE(requestHead, 73_bytes, kSmallHead);
BENCHMARK_CAPTURE(requestHead, 575_bytes, kBrowserHead);

class OutgoingReply {
 public:
  explicit OutgoingReply(FILE* stream) {
    http_replyInitialize(&reply_);
    http_replyModeSet(&reply_, HTTP_MSG_WRITING);
    http_replyStreamSet(&reply_, stream);
  }
  ~OutgoingReply() { http_replyCleanup(&reply_); }
  OutgoingReply(const OutgoingReply&) = delete;
  OutgoingReply& operator=(const OutgoingReply&) = delete;

  HttpReply* get() { return &reply_; }

  void sendHead() {
    http_replyReset(&reply_);
    http_replyVersionSet(&reply_, 1, 1);
    const bool sent = http_replyStatusCodeSet(&reply_, 200, nullptr) == 0 &&
                      http_replyHeaderValueSet(&reply_, "Date", "%s", "Sun, 15 Nov 2026 06:09:59 GMT") == 0 &&
                      http_replyHeaderValueSet(&reply_, "Server", "device/1.0") == 0 &&
                      http_replyHeaderValueSet(&reply_, "Content-Type", "%s", "text/plain; charset=utf-8") == 0 &&
                      http_replyHeaderValueSet(&reply_, "Cache-Control", "no-cache") == 0 &&
                      http_replyHeaderValueSet(&reply_, "Content-Length", "%zu", kText.size()) == 0 &&
                      http_replySend(&reply_) == 0;
    if (!sent) std::abort();
  }
  void sendBody() {
    FILE* const body = http_replyBody(&reply_);
    if (body == nullptr || fwrite_unlocked(kText.data(), 1, kText.size(), body) != kText.size() ||
        http_replyDone(&reply_) < 0)
      std::abort();
  }

 private:
  static constexpr std::string_view kText = "Hello, world!";
  HttpReply reply_{};
};

void replyHead(benchmark::State& state) {
  DiscardingOutput output;
  OutgoingReply reply(output.get());
  for (auto _ : state) reply.sendHead();
}
BENCHMARK(replyHead);

void replyHeadAndBody(benchmark::State& state) {
  DiscardingOutput output;
  OutgoingReply reply(output.get());
  for (auto _ : state) {
    reply.sendHead();
    reply.sendBody();
  }
}
BENCHMARK(replyHeadAndBody);

// Among the 13 headers of a browser.
void headerValue(benchmark::State& state, const char* name) {
  EndlessInput input(kBrowserHead);
  IncomingRequest request(input.get());
  request.readHead();
  for (auto _ : state) benchmark::DoNotOptimize(http_requestHeaderValue(request.get(), name));
}
BENCHMARK_CAPTURE(headerValue, first, "Host");
BENCHMARK_CAPTURE(headerValue, last, "Cookie");
BENCHMARK_CAPTURE(headerValue, custom, "Sec-Fetch-Dest");
BENCHMARK_CAPTURE(headerValue, absent, "Content-Length");
BENCHMARK_CAPTURE(headerValue, absent_custom, "X-Absent");

}  // namespace
