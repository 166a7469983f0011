// The code of a header's name.
#include <benchmark/benchmark.h>
#include <krohttp/protocol.h>

namespace {

void headerCode(benchmark::State& state, const char* name) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(name);
    benchmark::DoNotOptimize(prot_headerCode(name));
  }
}
BENCHMARK_CAPTURE(headerCode, Host, "Host");
BENCHMARK_CAPTURE(headerCode, Content_Length, "Content-Length");
BENCHMARK_CAPTURE(headerCode, user_agent, "user-agent");
BENCHMARK_CAPTURE(headerCode, If_Unmodified_Since, "If-Unmodified-Since");
BENCHMARK_CAPTURE(headerCode, custom_X_Requested_With, "X-Requested-With");
BENCHMARK_CAPTURE(headerCode, custom_Content_Security, "Content-Security");

}  // namespace
