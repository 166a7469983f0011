// A Cookie header: read, looked up, written, and read again.
#include <krohttp/cookie.h>

#include <vector>

#include "fuzz_support.h"

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

// Newest first.
Pairs pairsOf(const HttpHeader& header) {
  Pairs pairs;
  for (const http_cookie* cookie = header.cookies; cookie != nullptr; cookie = cookie->next)
    pairs.emplace_back(cookie->name, cookie->value == nullptr ? "" : cookie->value);
  return pairs;
}

// The last value loses the blanks at its end when the line is stored.
void trim(std::string& text) { text.erase(text.find_last_not_of(" \t") + 1); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzHeader header(HTTP_HEADER_COOKIE, headerText(data, size));
  FUZZ_CHECK(header.result == 0);
  Pairs pairs = pairsOf(header.typed);
  for (const auto& [name, value] : pairs) {
    const char* const found = http_cookieGet(&header.typed, name.c_str());
    FUZZ_CHECK(found == nullptr || pairs.size() > 1 || found == value);
  }

  const FuzzWritten written(&header.typed);
  FUZZ_CHECK(written.result == 0 && written.any);
  FuzzHeader again(HTTP_HEADER_COOKIE, written.value);
  Pairs reversed(pairs.rbegin(), pairs.rend());
  if (!reversed.empty()) trim(reversed.front().second);
  FUZZ_CHECK(pairsOf(again.typed) == reversed);
  return 0;
}
