// Base64: any bytes encoded and decoded, and any text decoded.
#include <krohttp/utils.h>

#include <cstring>
#include <memory>
#include <vector>

#include "fuzz_input.h"
#include "fuzz_support.h"

namespace {

struct Free {
  void operator()(char* memory) const { free(memory); }
};
using Text = std::unique_ptr<char, Free>;

Text encode(const std::vector<char>& bytes) {
  char* text = nullptr;
  FUZZ_CHECK(http_base64Encode(bytes.data(), static_cast<unsigned>(bytes.size()), &text) == 0);
  return Text(text);
}

Text decode(const std::vector<char>& text) {
  char* bytes = nullptr;
  const int result = http_base64Decode(text.data(), static_cast<unsigned>(text.size()), &bytes);
  FUZZ_CHECK((result == 0) == (bytes != nullptr));
  return Text(bytes);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  traceIf(size % 8 == 0);
  // Buffers of their own size: what reads past an end is found.
  const std::vector<char> input(data, data + size);
  const Text encoded = encode(input);
  const std::vector<char> text(encoded.get(), encoded.get() + strlen(encoded.get()));
  FUZZ_CHECK(text.size() == (size + 2) / 3 * 4);
  const Text decoded = decode(text);
  FUZZ_CHECK(decoded != nullptr && std::equal(input.begin(), input.end(), decoded.get()));
  FUZZ_CHECK(decoded.get()[size] == '\0');

  const Text any = decode(input);
  if (any == nullptr) return 0;
  // All of the result can be read, and it is no longer than the text allows.
  for (size_t at = (size + 3) / 4 * 3; at <= size; ++at) FUZZ_CHECK(any.get()[at] == '\0');
  return 0;
}
