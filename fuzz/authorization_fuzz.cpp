// An Authorization header: read, checked as a server does, and written as a client does.
#include <krohttp/auth.h>

#include <cstring>

#include "auth_internal.h"
#include "fuzz_support.h"

namespace {

struct Free {
  void operator()(void* memory) const { free(memory); }
};

bool isHash(const char* text) { return strlen(text) == 32 && strspn(text, "0123456789abcdef") == 32; }

bool sameText(const char* a, const char* b) { return strcmp(a == nullptr ? "" : a, b == nullptr ? "" : b) == 0; }

void fill(char*& field, const char* text) {
  if (field == nullptr) field = strdup(text);
}

void checkBasic(HttpHeader& header) {
  const FuzzWritten written(&header);
  FUZZ_CHECK(written.result == 0 && written.value.starts_with("Basic "));
  const FuzzHeader again(HTTP_HEADER_AUTHORIZATION, written.value);
  FUZZ_CHECK(again.result == 0);
  FUZZ_CHECK(sameText(again.typed.authorization.username, header.authorization.username));
  FUZZ_CHECK(sameText(again.typed.authorization.password, header.authorization.password));
}

void checkDigest(HttpHeader& header, int method) {
  auth_authorization& value = header.authorization;
  value.method = method;
  FUZZ_CHECK(http_digestAuthenticate(&value) == -1);  // there is no secret
  fill(value.password, "939e7578ed9e3c518a452acee763bce9");

  const std::unique_ptr<char, Free> expected(http_generateDigestCompleteHash(&value));
  const bool complete = value.nonce != nullptr && value.uri != nullptr &&
                        (value.qop == nullptr || (value.nc != nullptr && value.cnonce != nullptr));
  FUZZ_CHECK((expected != nullptr) == complete);
  FUZZ_CHECK(expected == nullptr || isHash(expected.get()));
  const bool right = complete && value.response != nullptr && strcmp(value.response, expected.get()) == 0;
  FUZZ_CHECK((http_digestAuthenticate(&value) == 0) == right);

  const bool writable =
      value.username != nullptr && value.realm != nullptr && value.nonce != nullptr && value.uri != nullptr;
  const FuzzWritten written(&header);
  FUZZ_CHECK((written.result == 0) == writable && written.any == writable);
  fill(value.username, "user");
  fill(value.realm, "realm");
  fill(value.nonce, "nonce");
  fill(value.uri, "/");
  const FuzzWritten filled(&header);
  FUZZ_CHECK(filled.result == 0 && filled.value.starts_with("Digest username=\""));
  const FuzzHeader again(HTTP_HEADER_AUTHORIZATION, filled.value);
  FUZZ_CHECK(again.result == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text = headerText(data, size);
  FuzzHeader header(size % 2 == 0 ? HTTP_HEADER_AUTHORIZATION : HTTP_HEADER_WWW_AUTHENTICATE, text);
  const bool basic = text.starts_with("Basic") || text.starts_with("Kro");
  const bool digest = text.starts_with("Digest");
  FUZZ_CHECK(header.result == 0 || basic);
  FUZZ_CHECK(header.typed.authorization.scheme == (digest ? 1U : 0U));
  if (header.result != 0 || (!basic && !digest)) return 0;
  if (digest) {
    checkDigest(header.typed, static_cast<int>(size % 12) - 1);
  } else {
    checkBasic(header.typed);
  }
  return 0;
}
