#include <krohttp/uri.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string_view>

#define TRACE_ZONE "http-uri"
#include "trace.h"

#include "memory.h"
#include "uri_internal.h"

namespace {

constexpr std::string_view kEscaped = "#&=%? ";

bool isEscaped(char c) { return kEscaped.find(c) != std::string_view::npos; }

char* putEscape(char* out, char c) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  const auto byte = static_cast<unsigned char>(c);
  *out++ = '%';
  *out++ = kDigits[byte >> 4];
  *out++ = kDigits[byte & 15];
  return out;
}

// Decodes a NUL-terminated text in place. "%" and the two characters behind it become the byte they name (0, which
// ends the text, when they are no number); "%" among the last two characters stands for itself.
void decode(char* text) {
  char* out = text;
  for (const char* in = text; *in != '\0'; ++in) {
    if (in[0] == '%' && in[1] != '\0' && in[2] != '\0') {
      const char digits[3] = {in[1], in[2], '\0'};
      *out++ = static_cast<char>(std::strtol(digits, nullptr, 16));
      in += 2;
    } else {
      *out++ = *in;
    }
  }
  *out = '\0';
}

CString encode(const char* text) {
  const size_t length = std::strlen(text);
  const auto escaped = static_cast<size_t>(std::count_if(text, text + length, isEscaped));
  CString encoded(static_cast<char*>(std::malloc(length + 2 * escaped + 1)));
  if (!encoded) return encoded;
  char* out = encoded.get();
  for (const char* in = text; *in != '\0'; ++in) {
    if (isEscaped(*in))
      out = putEscape(out, *in);
    else
      *out++ = *in;
  }
  *out = '\0';
  return encoded;
}

// Who gets room first where there is not enough of it.
enum Claim { kPlain, kCameEscaped, kBlank, kCameEither, kTail, kClaims };

// How the character at @p at came in. Bare, some would have ended what they stand in; no request line has a bare blank,
// other targets may have. "%" at the end means the same both ways, unless it would be read with an escape behind it.
Claim claimOf(std::string_view text, size_t at, bool isName) {
  switch (text[at]) {
    case '&':
      return kCameEscaped;
    case '=':
      return isName ? kCameEscaped : kCameEither;
    case ' ':
      return kBlank;
    case '#':
    case '?':
      return kCameEither;
    case '%': {
      if (at + 2 < text.size()) return kCameEscaped;
      const Claim next = at + 1 < text.size() ? claimOf(text, at + 1, isName) : kPlain;
      return next != kPlain ? next : kTail;
    }
    default:
      return kPlain;
  }
}

// Encodes the decoded text at the beginning of [slot, slotEnd) again, within these bytes; what is left over is zeroed.
// An escaped character came in as three bytes, so it has its room. One that came in bare has none and stays bare.
void encodeWithin(char* slot, char* slotEnd, bool isName) {
  const auto size = static_cast<size_t>(slotEnd - slot);
  const std::string_view text(slot, strnlen(slot, size));

  size_t left[kClaims] = {};
  for (size_t at = 0; at < text.size(); ++at) ++left[claimOf(text, at, isName)];
  size_t room = (size - text.size()) / 2;
  size_t granted[kClaims] = {};
  char* out = slot + text.size();
  for (const Claim claim : {kCameEscaped, kBlank, kCameEither, kTail}) {
    granted[claim] = std::min(left[claim], room);
    room -= granted[claim];
    out += 2 * granted[claim];
  }

  // From the end to the front, as the text becomes longer in place.
  std::fill(out, slotEnd, '\0');
  for (size_t at = text.size(); at-- > 0;) {
    const char c = text[at];
    const Claim claim = claimOf(text, at, isName);
    const bool escaped = --left[claim] < granted[claim];
    out -= escaped ? 3 : 1;
    if (escaped)
      putEscape(out, c);
    else
      *out = c;
  }
}

// Points into @p copy, which holds the query, as @p pointer does into the query itself.
char* inCopy(char* pointer, const HttpUri& uri, char* copy) {
  return pointer == nullptr ? nullptr : copy + (pointer - uri.query);
}

// Puts the query together at @p copy, whatever parameter is handed out meanwhile.
void copyQuery(const HttpUri& uri, char* copy) {
  std::memcpy(copy, uri.query, static_cast<size_t>(uri.queryLength));
  copy[uri.queryLength] = '\0';
  HttpUri copied = uri;
  copied.query = copy;
  copied.separator = inCopy(uri.separator, uri, copy);
  copied.parameterEnd = inCopy(uri.parameterEnd, uri, copy);
  copied.parameterName = inCopy(uri.parameterName, uri, copy);
  copied.parameterValue = inCopy(uri.parameterValue, uri, copy);
  http_uriResetParameterIterator(&copied);
}

char* serialize(const HttpUri& uri) {
  if (uri.path == nullptr) {
    errno = EINVAL;
    return nullptr;
  }
  CString path = encode(uri.path);
  if (!path || uri.queryLength < 1) return path.release();
  const size_t length = std::strlen(path.get());
  char* const text = static_cast<char*>(std::malloc(length + 1 + static_cast<size_t>(uri.queryLength) + 1));
  if (text == nullptr) return nullptr;
  std::memcpy(text, path.get(), length);
  text[length] = '?';
  copyQuery(uri, text + length + 1);
  return text;
}

int endOfIteration(char** name, char** value) {
  *name = nullptr;
  *value = nullptr;
  return -1;
}

}  // namespace

char* uri_nextAmper(const HttpUri* uri, char* start) {
  char* const end = uri->query + uri->queryLength;
  return static_cast<char*>(std::memchr(start, '&', static_cast<size_t>(end - start)));
}

extern "C" {

int http_uriParse(HttpUri* uri, char* target) {
  *uri = HttpUri{};
  uri->path = target != nullptr ? std::strchr(target, '/') : nullptr;
  if (uri->path == nullptr) {
    TRACE_ERROR("invalid url %s", textOrNull(target));
    return -1;
  }
  TRACE_NOTICE("url path: %s", uri->path);

  char* const mark = strchrnul(uri->path, '?');
  char* const query = *mark != '\0' ? mark + 1 : mark;
  const size_t length = std::strlen(query);
  if (length > INT_MAX) {
    TRACE_ERROR("query is too long");
    *uri = HttpUri{};
    return -1;
  }
  *mark = '\0';
  uri->query = query;
  uri->queryLength = static_cast<int>(length);
  decode(uri->path);
  return 0;
}

char* http_uriSerialize(HttpUri* uri) {
  char* const text = serialize(*uri);
  if (text == nullptr) TRACE_ERROR("unable to serialize uri: %m");
  return text;
}

char* http_uriQueryString(HttpUri* uri) { return uri->query; }

void http_uriResetParameterIterator(HttpUri* uri) {
  char* const nameEnd = uri->separator != nullptr ? uri->separator : uri->parameterEnd;
  if (uri->parameterName != nullptr) encodeWithin(uri->parameterName, nameEnd, true);
  if (uri->separator != nullptr) {
    encodeWithin(uri->separator + 1, uri->parameterEnd, false);
    *uri->separator = '=';
  }
  if (uri->parameterEnd != nullptr && uri->parameterEnd != uri->query + uri->queryLength) *uri->parameterEnd = '&';
  uri->parameterName = nullptr;
  uri->parameterValue = nullptr;
  uri->separator = nullptr;
  uri->parameterEnd = nullptr;
}

int http_uriNextParameter(HttpUri* uri, char** name, char** value) {
  char* const previousEnd = uri->parameterEnd;
  http_uriResetParameterIterator(uri);
  if (uri->query == nullptr || uri->queryLength == 0) return endOfIteration(name, value);

  char* start = uri->query;
  if (previousEnd != nullptr) {
    start = uri_nextAmper(uri, previousEnd);
    if (start == nullptr) return endOfIteration(name, value);
    ++start;
  }
  char* end = uri_nextAmper(uri, start);
  if (end == nullptr) end = uri->query + uri->queryLength;
  *end = '\0';
  uri->parameterEnd = end;

  // By length, not up to a NUL: a name put back shorter than it came has zeroes before its '='.
  uri->separator = static_cast<char*>(std::memchr(start, '=', static_cast<size_t>(end - start)));
  if (uri->separator != nullptr) *uri->separator = '\0';
  uri->parameterName = start;
  uri->parameterValue = uri->separator != nullptr ? uri->separator + 1 : end;
  decode(uri->parameterName);
  decode(uri->parameterValue);
  *name = uri->parameterName;
  *value = uri->parameterValue;
  return 0;
}

int http_uriGetParameter(HttpUri* uri, const char* name, char** value) {
  *value = nullptr;
  http_uriResetParameterIterator(uri);
  if (name == nullptr) return -1;
  char* candidate = nullptr;
  while (http_uriNextParameter(uri, &candidate, value) == 0)
    if (std::strcmp(candidate, name) == 0) return 0;
  return -1;
}

}  // extern "C"
