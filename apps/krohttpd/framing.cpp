#include "framing.h"

#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace {

// RFC 9110 section 5.6.2.
bool isToken(std::string_view name) {
  constexpr std::string_view kSigns = "!#$%&'*+-.^_`|~";
  for (const char c : name) {
    const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    if (!letter && kSigns.find(c) == std::string_view::npos) return false;
  }
  return !name.empty();
}

void addLength(Framing* framing, const char* text) {
  constexpr std::string_view kDigits = "0123456789";
  constexpr size_t kMostDigits = 19;  // fits into 64 bits
  const std::string_view digits = text;
  ++framing->lengths;
  if (digits.find_first_not_of(kDigits) != std::string_view::npos || digits.size() > kMostDigits)
    framing->lengthIsNumber = false;
  else if (std::strtoull(text, nullptr, 10) > UINT32_MAX)
    framing->tooLong = true;
}

}  // namespace

Framing framingOf(HttpMessage* message) {
  Framing framing;
  int code = HTTP_HEADER_NONE;
  const char* name = nullptr;
  const char* value = nullptr;
  http_msgHeadersReset(message);
  while (msg_headersNext(message, &code, &name, &value) == 0) {
    if (code == HTTP_HEADER_HOST) ++framing.hosts;
    if (code == HTTP_HEADER_TRANSFER_ENCODING) ++framing.codings;
    if (code == HTTP_HEADER_CONTENT_LENGTH) addLength(&framing, value);
    if (code == HTTP_HEADER_CUSTOM && !isToken(name)) framing.namesAreTokens = false;
  }
  return framing;
}

uint64_t announcedLength(HttpRequest* request) {
  HttpHeader header{};
  header.code = HTTP_HEADER_CONTENT_LENGTH;
  const uint64_t length = http_requestHeader(request, &header) == 0 ? header.contentLength.length : 0;
  http_hdrCleanup(&header);
  return length;
}

int settleBody(HttpRequest* request) {
  if (!rq_hasBody(request) || http_requestHeaderValue(request, "Content-Length") != nullptr) return 0;
  if (http_requestHeaderValue(request, "Transfer-Encoding") != nullptr) return 0;
  return http_requestHeaderValueSet(request, "Content-Length", "0") < 0 ? -1 : http_requestDone(request);
}

bool isAmbiguous(const Framing& framing) {
  return framing.lengths + framing.codings > 1 || !framing.lengthIsNumber || !framing.namesAreTokens;
}
