// A Set-Cookie header: read, written, and read again.
#include <krohttp/cookie.h>

#include "fuzz_support.h"

namespace {

size_t count(const HttpHeader& header) {
  size_t count = 0;
  for (const http_cookie* cookie = header.cookies; cookie != nullptr; cookie = cookie->next) ++count;
  return count;
}

// The last text of a line loses the blanks at its end when the line is stored.
std::string trimmed(const char* text) {
  std::string copy = text == nullptr ? "" : text;
  copy.erase(copy.find_last_not_of(" \t") + 1);
  return copy;
}

bool sameAttributes(const http_cookie& a, const http_cookie& b) {
  return a.domain == b.domain && a.comment == b.comment && a.commenturl == b.commenturl && a.discard == b.discard &&
         a.maxAge == b.maxAge && a.secure == b.secure && a.httponly == b.httponly && a.version == b.version &&
         a.expires == b.expires && a.path == b.path;
}

void readAgain(const HttpHeader& header, const std::string& text) {
  const FuzzHeader again(header.code, text);
  FUZZ_CHECK(again.result == 0);
  FUZZ_CHECK(count(again.typed) == count(header));
  const http_cookie& before = *header.cookies;
  const http_cookie& after = *again.typed.cookies;
  FUZZ_CHECK(after.expires == (before.expires > 0 ? before.expires : 0) || (before.expires < 1 && after.expires < 1));
  FUZZ_CHECK(before.maxAge < 0 || after.maxAge == before.maxAge);
  FUZZ_CHECK(after.httponly == before.httponly);
  FUZZ_CHECK(trimmed(after.domain) == trimmed(before.domain));
  FUZZ_CHECK(trimmed(after.path) == trimmed(before.path));
  FUZZ_CHECK(after.secure == 0 && after.discard == 0 && after.comment == nullptr && after.version == nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text = headerText(data, size);
  FuzzHeader header(size % 2 == 0 ? HTTP_HEADER_SET_COOKIE : HTTP_HEADER_SET_COOKIE2, text);
  FUZZ_CHECK(header.result == 0);
  for (const http_cookie* cookie = header.typed.cookies; cookie != nullptr; cookie = cookie->next)
    FUZZ_CHECK(sameAttributes(*cookie, *header.typed.cookies));

  const FuzzWritten written(&header.typed);
  FUZZ_CHECK(written.result == 0);
  FUZZ_CHECK(written.any == (header.typed.cookies != nullptr));
  if (written.any) readAgain(header.typed, written.value);
  return 0;
}
