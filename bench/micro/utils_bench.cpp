// Base64.
#include <benchmark/benchmark.h>
#include <krohttp/utils.h>

#include <cstdlib>
#include <string>

namespace {

// Bytes of every value.
std::string plainText(size_t length) {
  std::string text(length, '\0');
  for (size_t i = 0; i < length; ++i) text[i] = static_cast<char>(i * 7);
  return text;
}

void base64Encode(benchmark::State& state) {
  const std::string plain = plainText(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    char* encoded = nullptr;
    if (http_base64Encode(plain.data(), static_cast<unsigned>(plain.size()), &encoded) < 0) std::abort();
    std::free(encoded);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(base64Encode)->ArgName("bytes")->Arg(24)->Arg(1024);

void base64Decode(benchmark::State& state) {
  const std::string plain = plainText(static_cast<size_t>(state.range(0)));
  char* encoded = nullptr;
  if (http_base64Encode(plain.data(), static_cast<unsigned>(plain.size()), &encoded) < 0) std::abort();
  const std::string text = encoded;
  std::free(encoded);
  for (auto _ : state) {
    char* decoded = nullptr;
    if (http_base64Decode(text.data(), static_cast<unsigned>(text.size()), &decoded) < 0) std::abort();
    std::free(decoded);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(base64Decode)->ArgName("bytes")->Arg(24)->Arg(1024);

}  // namespace
