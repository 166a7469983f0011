#include <krohttp/protocol.h>

#include <locale.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "protocol_internal.h"

#define TRACE_ZONE "http"
#include "trace.h"

extern "C" {

constexpr const char* const methodStrings[HTTP_METHOD_COUNT] = {
    "AERROR",  // sorts before every method
    "CONNECT", "DELETE", "GET", "HEAD", "OPTIONS", "POST", "PUT", "TRACE",
};

constexpr const char* const statusStrings[HTTP_STATUS_COUNT] = {
    // 1xx
    "Continue",
    "Switching Protocols",
    // 2xx
    "OK",
    "Created",
    "Accepted",
    "Non-Authoritative Information",
    "No Content",
    "Reset Content",
    "Partial Content",
    // 3xx
    "Multiple Choices",
    "Moved Permanently",
    "Found",
    "See Other",
    "Not Modified",
    "Use Proxy",
    nullptr,
    "Temporary Redirect",
    // 4xx
    "Bad Request",
    "Unauthorized",
    "Payment Required",
    "Forbidden",
    "Not Found",
    "Method Not Allowed",
    "Not Acceptable",
    "Proxy Authentication Required",
    "Request Timeout",
    "Conflict",
    "Gone",
    "Length Required",
    "Precondition Failed",
    "Request Entity Too Large",
    "Request-URI Too Long",
    "Unnsuported Media Type",
    "Requested Range Not Satisfiable",
    "Expectation Failed",
    // 5xx
    "Internal Server Error",
    "Not Implemented",
    "Bad Gateway",
    "Service Unavailable",
    "Gateway Timeout",
    "HTTP Version Not Supported",
};

// Sorted without regard to case; the sentinels sort first and last.
constexpr const char* const headerStrings[HTTP_HEADER_COUNT] = {
    "AAAA-----ERROR",
    "Accept",
    "Accept-Charset",
    "Accept-Encoding",
    "Accept-Language",
    "Accept-Ranges",
    "Age",
    "Allow",
    "Authorization",
    "Cache-Control",
    "Connection",
    "Content-Disposition",
    "Content-Encoding",
    "Content-Language",
    "Content-Length",
    "Content-Location",
    "Content-MD5",
    "Content-Range",
    "Content-Type",
    "Cookie",
    "Date",
    "ETAG",
    "Expect",
    "Expires",
    "From",
    "Host",
    "If-Match",
    "If-Modified-Since",
    "If-None-Match",
    "If-Range",
    "If-Unmodified-Since",
    "Last-Modified",
    "Location",
    "Max-Forwards",
    "Pragma",
    "Proxy-Authenticate",
    "Proxy-Authorization",
    "Range",
    "Referer",
    "Retry-After",
    "Server",
    "Set-Cookie",
    "Set-Cookie2",
    "TE",
    "Trailer",
    "Transfer-Encoding",
    "Upgrade",
    "User-Agent",
    "Vary",
    "Via",
    "Warning",
    "WWW-Authenticate",
    "ZZZZ------CUSTOM",
};

}  // extern "C"

namespace {

constexpr const char* kCookieDateParsed = "%a, %d-%b-%Y %H:%M:%S";
constexpr const char* kCookieDateWritten = "%a, %d-%b-%Y %H:%M:%S GMT";

constexpr char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) { return lower(x) == lower(y); });
}

// For each initial letter the first row of headerStrings that begins with it: looking a name up touches only the rows
// of its letter, and of those only the ones of its length.
struct HeaderIndex {
  std::array<uint8_t, 27> firstRow{};
  std::array<uint8_t, HTTP_HEADER_COUNT> length{};

  constexpr HeaderIndex() {
    for (size_t row = 0; row < HTTP_HEADER_COUNT; ++row)
      length[row] = static_cast<uint8_t>(std::string_view(headerStrings[row]).size());
    size_t row = 0;
    for (size_t letter = 0; letter < firstRow.size(); ++letter) {
      while (row < HTTP_HEADER_COUNT && static_cast<size_t>(lower(headerStrings[row][0]) - 'a') < letter) ++row;
      firstRow[letter] = static_cast<uint8_t>(row);
    }
  }
};

constexpr HeaderIndex kHeaderIndex;

// Names of days and months are English whatever locale the application has chosen.
locale_t cLocale() {
  static const locale_t locale = newlocale(LC_ALL_MASK, "C", nullptr);
  return locale;
}

}  // namespace

bool prot_parseDateAs(const char* text, const char* format, time_t* date) {
  std::tm broken{};
  if (text == nullptr || strptime_l(text, format, &broken, cLocale()) == nullptr) return false;
  broken.tm_isdst = -1;  // whether it was summer time follows from the date
  *date = mktime(&broken);
  return true;
}

size_t prot_formatDateAs(time_t date, const char* format, char* buffer, size_t size) {
  std::tm broken{};
  if (gmtime_r(&date, &broken) == nullptr) return 0;
  return strftime_l(buffer, size, format, &broken, cLocale());
}

int prot_headerCodeOf(std::string_view name) {
  if (name.empty()) return HTTP_HEADER_CUSTOM;
  const auto letter = static_cast<size_t>(static_cast<unsigned char>(lower(name[0]))) - 'a';
  if (letter >= 26) return HTTP_HEADER_CUSTOM;
  for (int row = kHeaderIndex.firstRow[letter], end = kHeaderIndex.firstRow[letter + 1]; row < end; ++row) {
    if (kHeaderIndex.length[static_cast<size_t>(row)] != name.size()) continue;
    // Most senders spell names as the table does.
    if (std::memcmp(headerStrings[row], name.data(), name.size()) == 0 || equalsIgnoringCase(headerStrings[row], name))
      return row;
  }
  return HTTP_HEADER_CUSTOM;
}

extern "C" {

const char* prot_methodString(int code) {
  return methodStrings[code >= 0 && code < HTTP_METHOD_COUNT ? code : HTTP_METHOD_UNKNOWN];
}

int prot_methodCode(const char* text) {
  if (text == nullptr) return HTTP_METHOD_UNKNOWN;
  for (int code = 0; code < HTTP_METHOD_COUNT; ++code)
    if (std::strcmp(methodStrings[code], text) == 0) return code;
  return HTTP_METHOD_UNKNOWN;
}

uint8_t prot_statusCodeHash(unsigned code) {
  const auto statusClass = static_cast<uint16_t>(code / 100 * 100);
  const auto rest = static_cast<uint16_t>(code % 100);
  switch (statusClass) {
    case 100:
      return static_cast<uint8_t>(rest);
    case 200:
      return static_cast<uint8_t>(rest + 2);
    case 300:
      return static_cast<uint8_t>(rest + 9);
    case 400:
      return static_cast<uint8_t>(rest + 17);
    case 500:
      return static_cast<uint8_t>(rest + 35);
    default:
      return 0;
  }
}

const char* prot_statusCodeString(unsigned code) {
  const uint8_t index = prot_statusCodeHash(code);
  return index < HTTP_STATUS_COUNT ? statusStrings[index] : nullptr;
}

int prot_statusCode(const char* text) {
  // strtol, not atoi: the same number, but defined for one that is too large.
  return text == nullptr ? 0 : static_cast<int>(std::strtol(text, nullptr, 10));
}

const char* prot_headerString(int code) {
  return headerStrings[code >= 0 && code < HTTP_HEADER_COUNT ? code : HTTP_HEADER_NONE];
}

int prot_headerCode(const char* name) {
  return name == nullptr ? static_cast<int>(HTTP_HEADER_CUSTOM) : prot_headerCodeOf(name);
}

time_t prot_parseDate(const char* text) {
  time_t date = -1;
  if (!prot_parseDateAs(text, kCookieDateParsed, &date)) TRACE_ERROR("unable to parse date %s", textOrNull(text));
  return date;
}

int prot_serializeDate(time_t date, char* buffer, size_t size) {
  if (prot_formatDateAs(date, kCookieDateWritten, buffer, size) == 0) {
    TRACE_ERROR("unable to serialize date: %m");
    return -1;
  }
  return 0;
}

int prot_serializeDateToStream(time_t date, FILE* stream) {
  char text[256];
  if (prot_serializeDate(date, text, sizeof text) < 0) return -1;
  if (std::fprintf(stream, "%s", text) < 0) {
    TRACE_ERROR("unable to serialize date: %m");
    return -1;
  }
  return 0;
}

}  // extern "C"
