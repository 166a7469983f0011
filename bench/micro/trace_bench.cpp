// Trace lines whose zone is switched off, next to the loop they stand in.
#include <benchmark/benchmark.h>

#define TRACE_ZONE "bench"
#include "trace.h"

namespace {

constexpr int kLines = 8;

void countLines(benchmark::State& state) {
  state.counters["s/line"] =
      benchmark::Counter(kLines, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// The level is looked at anew for each line.
void line(int number) {
  TRACE_INFO("number %d", number);
  benchmark::ClobberMemory();
}

void noTrace(benchmark::State& state) {
  for (auto _ : state)
    for (int i = 0; i < kLines; ++i) benchmark::ClobberMemory();
  countLines(state);
}
BENCHMARK(noTrace);

void traceOff(benchmark::State& state) {
  for (auto _ : state)
    for (int i = 0; i < kLines; ++i) line(i);
  countLines(state);
}
BENCHMARK(traceOff);

}  // namespace
