// Bodies, per KiB. Each message has a MiB of it, next to which its head and the opening of its body stream do not
// count.
#include <benchmark/benchmark.h>
#include <krohttp/reply.h>

#include <string>
#include <vector>

#include "messages.h"
#include "streams.h"

namespace {

constexpr size_t kBodyKiB = 1024;
constexpr size_t kBodySize = kBodyKiB * 1024;

void countKiB(benchmark::State& state) {
  state.counters["s/KiB"] =
      benchmark::Counter(kBodyKiB, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kBodySize));
}

// Reads messages to their end, in blocks of the given size.
void readBody(benchmark::State& state, const std::string& message) {
  EndlessInput input(message);
  IncomingRequest request(input.get());
  std::vector<char> block(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    request.readHead();
    FILE* const body = http_requestBody(request.get());
    if (body == nullptr) std::abort();
    size_t total = 0;
    while (const size_t count = fread_unlocked(block.data(), 1, block.size(), body)) total += count;
    if (total != kBodySize) std::abort();
    std::fclose(body);
  }
  countKiB(state);
}

void contentLengthBody(benchmark::State& state) {
  readBody(state, "POST /upload HTTP/1.1\r\nContent-Length: " + std::to_string(kBodySize) + "\r\n\r\n" +
                      std::string(kBodySize, 'x'));
}
BENCHMARK(contentLengthBody)->ArgName("block")->Arg(4096)->Arg(65536);

std::string chunkedMessage(size_t chunkSize) {
  std::string message = "POST /upload HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n";
  char size[16];
  std::snprintf(size, sizeof size, "%zx\r\n", chunkSize);
  for (size_t done = 0; done < kBodySize; done += chunkSize) message += size + std::string(chunkSize, 'x') + "\r\n";
  return message + "0\r\n\r\n";
}

void decodeChunks(benchmark::State& state) { readBody(state, chunkedMessage(static_cast<size_t>(state.range(1)))); }
BENCHMARK(decodeChunks)->ArgNames({"block", "chunk"})->Args({4096, 64})->Args({4096, 1024})->Args({4096, 8192});

// The chunks are as long as stdio hands them over, whatever the application writes at a time.
void encodeChunks(benchmark::State& state) {
  DiscardingOutput output;
  HttpReply reply{};
  http_replyInitialize(&reply);
  http_replyModeSet(&reply, HTTP_MSG_WRITING);
  http_replyStreamSet(&reply, output.get());
  const std::string block(static_cast<size_t>(state.range(0)), 'x');
  for (auto _ : state) {
    http_replyReset(&reply);
    http_replyVersionSet(&reply, 1, 1);
    if (http_replyStatusCodeSet(&reply, 200, nullptr) < 0 ||
        http_replyHeaderValueSet(&reply, "Transfer-Encoding", "chunked") < 0 || http_replySend(&reply) < 0)
      std::abort();
    FILE* const body = http_replyBody(&reply);
    if (body == nullptr) std::abort();
    for (size_t done = 0; done < kBodySize; done += block.size())
      if (fwrite_unlocked(block.data(), 1, block.size(), body) != block.size()) std::abort();
    if (http_replyDone(&reply) < 0) std::abort();
  }
  http_replyCleanup(&reply);
  countKiB(state);
}
BENCHMARK(encodeChunks)->ArgName("block")->Arg(64)->Arg(1024)->Arg(4096);

}  // namespace
