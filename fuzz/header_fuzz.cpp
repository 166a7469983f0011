// A typed header of any code: read, written, and read again. Cookies and credentials have targets of their own.
//
// Input: the header's code, its text.
#include <vector>

#include "fuzz_support.h"

namespace {

using Parameters = std::vector<std::pair<std::string, std::string>>;

std::string trimmed(std::string text) {
  text.erase(text.find_last_not_of(" \t") + 1);
  return text;
}

// As they are written: one without a value says so.
Parameters parametersOf(const HttpHeaderParameter* list) {
  Parameters parameters;
  for (; list != nullptr; list = list->next)
    parameters.emplace_back(list->name, list->value == nullptr ? "(null)" : list->value);
  return parameters;
}

// Each writing turns the list around; the value that ends the line loses the blanks at its end.
void checkParameters(HttpHeaderParameter* before, HttpHeaderParameter* after) {
  Parameters expected = parametersOf(before);
  for (const HttpHeaderParameter* one = before; one != nullptr; one = one->next)
    FUZZ_CHECK(http_hdrGetParameter(before, one->name) != nullptr || one->value == nullptr || one->next != nullptr ||
               before != one);
  if (!expected.empty()) expected.back().second = trimmed(expected.back().second);
  FUZZ_CHECK(parametersOf(after) == Parameters(expected.rbegin(), expected.rend()));
}

void checkSame(const HttpHeader& before, const std::string& written, const HttpHeader& after) {
  switch (before.code) {
    case HTTP_HEADER_CONTENT_LENGTH:
      FUZZ_CHECK(after.contentLength.length == before.contentLength.length);
      break;
    case HTTP_HEADER_CONTENT_TYPE:
      FUZZ_CHECK(std::string(after.contentType.mediaType) == before.contentType.mediaType);
      FUZZ_CHECK(std::string(after.contentType.subType) == before.contentType.subType);
      checkParameters(before.contentType.parameters, after.contentType.parameters);
      break;
    case HTTP_HEADER_CONTENT_DISPOSITION:
      FUZZ_CHECK(std::string(after.contentDisposition.disposition) == before.contentDisposition.disposition);
      checkParameters(before.contentDisposition.parameters, after.contentDisposition.parameters);
      break;
    case HTTP_HEADER_CONNECTION: {
      // Written, TE and Keep-Alive run into one word.
      constexpr unsigned kRunTogether = HTTP_CONNECTION_TE | HTTP_CONNECTION_KEEP_ALIVE;
      const bool lost = (before.connection.flags & kRunTogether) == kRunTogether;
      FUZZ_CHECK(after.connection.flags == (before.connection.flags & ~(lost ? kRunTogether : 0u)));
      break;
    }
    case HTTP_HEADER_TRANSFER_ENCODING:
      FUZZ_CHECK(after.transferEncoding.chunked && before.transferEncoding.chunked);
      break;
    case HTTP_HEADER_DATE:
      FUZZ_CHECK(after.date.time == before.date.time);
      break;
    case HTTP_HEADER_AUTHORIZATION:
    case HTTP_HEADER_WWW_AUTHENTICATE:
    case HTTP_HEADER_COOKIE:
    case HTTP_HEADER_SET_COOKIE:
    case HTTP_HEADER_SET_COOKIE2:
      break;
    default:
      FUZZ_CHECK(written == before.raw && std::string(after.raw) == before.raw);
      break;
  }
}

// Those of codes with a text that may be written as nothing, or that cannot be written.
bool mayRefuseToWrite(const HttpHeader& header) {
  switch (header.code) {
    case HTTP_HEADER_CONNECTION:
      return header.connection.flags == 0;
    case HTTP_HEADER_TRANSFER_ENCODING:
      return !header.transferEncoding.chunked;
    case HTTP_HEADER_CONTENT_LENGTH:
    case HTTP_HEADER_CONTENT_TYPE:
    case HTTP_HEADER_DATE:
      return false;
    case HTTP_HEADER_CONTENT_DISPOSITION:
      return header.contentDisposition.parameters == nullptr && trimmed(header.contentDisposition.disposition).empty();
    case HTTP_HEADER_AUTHORIZATION:
    case HTTP_HEADER_WWW_AUTHENTICATE:
      return true;
    default:
      return header.raw[0] == '\0';
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const int code = data[0] % (HTTP_HEADER_COUNT + 1);
  traceIf((data[0] & 0x80) != 0);
  FuzzHeader header(code, headerText(data + 1, size - 1));
  FUZZ_CHECK(header.result == 0 || code == HTTP_HEADER_COUNT || header.typed.raw != nullptr);
  if (header.result != 0) return 0;

  const FuzzWritten written(&header.typed);
  FUZZ_CHECK(written.result == 0 || mayRefuseToWrite(header.typed));
  if (written.result != 0 || !written.any) return 0;
  const FuzzHeader again(code, written.value);
  FUZZ_CHECK(again.result == 0);
  checkSame(header.typed, written.value, again.typed);
  return 0;
}
