// Targets. They are cut up in place: each round begins with a fresh copy.
#include <benchmark/benchmark.h>
#include <krohttp/uri.h>

#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

constexpr std::string_view kPlain = "/status/overview";
constexpr std::string_view kQuery = "/search/all%20logs?text=connection%20lost&from=2026-11-01&sort=time&page=2";

void uriParse(benchmark::State& state, std::string_view target) {
  char text[128] = {};
  HttpUri uri;
  for (auto _ : state) {
    std::memcpy(text, target.data(), target.size() + 1);
    benchmark::DoNotOptimize(http_uriParse(&uri, text));
  }
}
BENCHMARK_CAPTURE(uriParse, path, kPlain);
BENCHMARK_CAPTURE(uriParse, path_and_query, kQuery);

// All four parameters, and the step that finds the end.
void uriParameters(benchmark::State& state) {
  char text[128] = {};
  std::memcpy(text, kQuery.data(), kQuery.size() + 1);
  HttpUri uri;
  http_uriParse(&uri, text);
  for (auto _ : state) {
    char* name = nullptr;
    char* value = nullptr;
    int count = 0;
    http_uriResetParameterIterator(&uri);
    while (http_uriNextParameter(&uri, &name, &value) == 0) ++count;
    if (count != 4) std::abort();
  }
}
BENCHMARK(uriParameters);

}  // namespace
