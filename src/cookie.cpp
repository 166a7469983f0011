#include <krohttp/cookie.h>
#include <krohttp/message.h>
#include <krohttp/utils.h>

#include <strings.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "memory.h"
#include "message_internal.h"

#define TRACE_ZONE "http-cookie"
#include "trace.h"

namespace {

const char* textOrEmpty(const char* text) { return text != nullptr ? text : ""; }

// --- lists -----------------------------------------------------------------------------------------------------------

// Puts a new record at the head. Null when memory is short.
http_cookie* push(HttpHeader* header, const char* name, const char* value) {
  auto cookie = makeZeroed<http_cookie>();
  if (!cookie) {
    TRACE_ERROR("unable to create cookie: %m");
    return nullptr;
  }
  cookie->name = name;
  cookie->value = value;
  cookie->next = header->cookies;
  return header->cookies = cookie.release();
}

void freeCookies(HttpHeader* header) {
  while (header->cookies != nullptr) {
    const CPointer<http_cookie> cookie(header->cookies);
    header->cookies = cookie->next;
  }
}

int32_t secondsOf(time_t time) { return static_cast<int32_t>(std::clamp<time_t>(time, INT32_MIN, INT32_MAX)); }

// --- attributes ------------------------------------------------------------------------------------------------------

// The attributes of a header while it is read. They are its cookies', wherever they stand.
struct Attributes {
  http_cookie values{};
  const char* maxAge = nullptr;

  // Takes a pair, if it is an attribute.
  bool take(const char* key, const char* value);
  void applyTo(http_cookie* cookie) const;
};

bool Attributes::take(const char* key, const char* value) {
  struct Text {
    const char* key;
    const char* http_cookie::*field;
  };
  static constexpr Text kTexts[] = {{"domain", &http_cookie::domain},
                                    {"path", &http_cookie::path},
                                    {"comment", &http_cookie::comment},
                                    {"commenturl", &http_cookie::commenturl},
                                    {"version", &http_cookie::version}};
  struct Flag {
    const char* key;
    uint8_t http_cookie::*field;
  };
  static constexpr Flag kFlags[] = {
      {"discard", &http_cookie::discard}, {"secure", &http_cookie::secure}, {"httponly", &http_cookie::httponly}};

  for (const Text& text : kTexts)
    if (strcasecmp(key, text.key) == 0) return values.*text.field = value, true;
  for (const Flag& flag : kFlags)
    if (strcasecmp(key, flag.key) == 0) return values.*flag.field = 1, true;
  if (strcasecmp(key, "expires") == 0) return values.expires = secondsOf(prot_parseDate(textOrEmpty(value))), true;
  if (strcasecmp(key, "max-age") == 0) return maxAge = value, true;
  return strcasecmp(key, "port") == 0;
}

void Attributes::applyTo(http_cookie* cookie) const {
  http_cookie changed = values;
  changed.name = cookie->name;
  changed.value = cookie->value;
  changed.next = cookie->next;
  changed.maxAge = maxAge != nullptr ? secondsOf(std::strtol(maxAge, nullptr, 10)) : 0;
  *cookie = changed;
}

// --- writing ---------------------------------------------------------------------------------------------------------

bool writePairs(FILE* stream, const http_cookie* list) {
  for (const http_cookie* cookie = list; cookie != nullptr; cookie = cookie->next) {
    TRACE_INFO("setting cookie %s to %s", textOrNull(cookie->name), textOrNull(cookie->value));
    if (std::fprintf(stream, cookie == list ? "%s=%s" : "; %s=%s", textOrEmpty(cookie->name),
                     textOrEmpty(cookie->value)) < 0)
      return false;
  }
  return true;
}

// False when writing failed, which has been traced.
bool writeAttributes(FILE* stream, const http_cookie& cookie) {
  if (cookie.expires >= 1 &&
      (std::fputs("; expires=", stream) < 0 || prot_serializeDateToStream(cookie.expires, stream) < 0)) {
    TRACE_ERROR("unable to serialize set cookie expires");
    return false;
  }
  if (cookie.maxAge != 0 && std::fprintf(stream, "; max-age=%u", static_cast<unsigned>(cookie.maxAge)) < 0) {
    TRACE_ERROR("unable to serialize cookie max age: %m");
    return false;
  }
  if (cookie.domain != nullptr && std::fprintf(stream, "; domain=%s", cookie.domain) < 0) {
    TRACE_ERROR("unable to serialize cookie domain: %m");
    return false;
  }
  if (cookie.path != nullptr && std::fprintf(stream, "; path=%s", cookie.path) < 0) {
    TRACE_ERROR("unable to serialize cookie path: %m");
    return false;
  }
  return cookie.httponly == 0 || std::fputs("; HttpOnly", stream) >= 0;
}

int failed(const char* what) {
  TRACE_ERROR("%s: %m", what);
  return -1;
}

}  // namespace

extern "C" {

// --- the registry's rows ---------------------------------------------------------------------------------------------

int cookie_hdrFactoryCookie(HttpHeader* header, char* text) {
  TRACE_INFO("loading cookies from %s", text);
  header->cookies = nullptr;
  char* name = nullptr;
  char* value = nullptr;
  char* cursor = nullptr;
  int result = 0;
  for (char* rest = text; (result = utils_keyvalue(rest, &name, &value, &cursor, ';')) > 0; rest = nullptr) {
    TRACE_INFO("parsed cookie [%s=%s]", name, textOrNull(value));
    if (push(header, name, value) == nullptr) return -1;
  }
  return result;
}

int cookie_hdrSerializeCookie(HttpHeader* header, HttpMessage* message) {
  TextStream text;
  if (!text) return failed("unable to serialize cookie");
  const bool written = std::fprintf(text.stream(), "%s: ", prot_headerString(header->code)) >= 0 &&
                       writePairs(text.stream(), header->cookies);
  const char* const line = written ? text.finish() : nullptr;
  if (line == nullptr) return failed("unable to serialize cookie");
  // A header of no cookies is the one that goes out without a value.
  const int stored = header->cookies != nullptr ? msg_setHeaderLine(message, "%s", line)
                                                : msg_headerCopy(message, prot_headerString(header->code), "", true);
  return stored < 0 ? failed("unable to serialize cookie") : 0;
}

void cookie_hdrFreeCookie(HttpHeader* header) { freeCookies(header); }

int cookie_hdrFactorySetCookie(HttpHeader* header, char* text) {
  header->cookies = nullptr;
  Attributes attributes;
  char* name = nullptr;
  char* value = nullptr;
  char* cursor = nullptr;
  int result = 0;
  for (char* rest = text; (result = utils_keyvalue(rest, &name, &value, &cursor, ';')) > 0; rest = nullptr)
    if (!attributes.take(name, value) && push(header, name, value) == nullptr) return -1;
  for (http_cookie* cookie = header->cookies; cookie != nullptr; cookie = cookie->next) attributes.applyTo(cookie);
  return result;
}

int cookie_hdrSerializeSetCookie(HttpHeader* header, HttpMessage* message) {
  if (header->cookies == nullptr) return 0;
  TextStream text;
  if (!text) return failed("unable to serialize set cookie");
  if (std::fprintf(text.stream(), "%s: ", prot_headerString(header->code)) < 0 ||
      !writePairs(text.stream(), header->cookies))
    return failed("unable to serialize set cookie");
  if (!writeAttributes(text.stream(), *header->cookies)) return -1;
  const char* const line = text.finish();
  if (line == nullptr) return failed("unable to serialize set cookie");
  if (msg_setHeaderLine(message, "%s", line) == 0) return 0;
  TRACE_ERROR("unable to set header line");
  return -1;
}

void cookie_hdrFreeSetCookie(HttpHeader* header) { freeCookies(header); }

// --- the application's calls -----------------------------------------------------------------------------------------

void http_hdrCookieInitialize(HttpHeader* header) {
  *header = HttpHeader{};
  header->code = HTTP_HEADER_COOKIE;
}

void http_hdrCookieCleanup(HttpHeader* header) { http_hdrCleanup(header); }

void http_hdrSetCookieInitialize(HttpHeader* header) {
  *header = HttpHeader{};
  header->code = HTTP_HEADER_SET_COOKIE;
}

void http_hdrSetCookieCleanup(HttpHeader* header) { http_hdrCleanup(header); }

const char* http_cookieGet(HttpHeader* header, const char* name) {
  for (const http_cookie* cookie = header->cookies; cookie != nullptr; cookie = cookie->next)
    if (std::strcmp(cookie->name, name) == 0) return cookie->value;
  TRACE_INFO("unable to fetch cookie %s", name);
  return nullptr;
}

int http_cookieSet(HttpHeader* header, const char* name, const char* value, const char* path, int32_t expires) {
  TRACE_INFO("setting cookie %s=%s", textOrNull(name), textOrNull(value));
  if (header->code == HTTP_HEADER_NONE) {
    header->code = HTTP_HEADER_SET_COOKIE;
    header->cookies = nullptr;
  }
  http_cookie* const cookie = push(header, name, value);
  if (cookie == nullptr) {
    // Without its code the header could not be cleaned up any more.
    freeCookies(header);
    header->code = HTTP_HEADER_NONE;
    return -1;
  }
  cookie->path = path;
  cookie->expires = expires;
  return 0;
}

int http_cookieRemove(HttpHeader* header, const char* name) {
  return http_cookieSet(header, name, nullptr, nullptr, 1);
}

}  // extern "C"
