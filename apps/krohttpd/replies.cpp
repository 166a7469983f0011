#include "replies.h"

#include <strings.h>

#include <cstdio>
#include <cstring>
#include <ctime>

namespace {

// The date of now as RFC 9110 section 5.6.7 wants it, formatted once a second.
const char* httpDate() {
  static time_t formatted = -1;
  static char text[32];
  timespec now{};
  clock_gettime(CLOCK_REALTIME_COARSE, &now);
  if (now.tv_sec != formatted) {
    static constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    std::tm utc{};
    gmtime_r(&now.tv_sec, &utc);
    std::snprintf(text, sizeof text, "%s, %02d %s %04d %02d:%02d:%02d GMT", kDays[utc.tm_wday], utc.tm_mday % 100,
                  kMonths[utc.tm_mon], (utc.tm_year + 1900) % 10000, utc.tm_hour % 100, utc.tm_min % 100,
                  utc.tm_sec % 100);
    formatted = now.tv_sec;
  }
  return text;
}

// The library's, which knows those of RFC 2616.
const char* phraseOf(unsigned code) {
  switch (code) {
    case 429:
      return "Too Many Requests";
    case 431:
      return "Request Header Fields Too Large";
    case 507:
      return "Insufficient Storage";
    default: {
      const char* const phrase = prot_statusCodeString(code);
      return phrase != nullptr ? phrase : "Unknown";
    }
  }
}

}  // namespace

bool closesAfter(HttpRequest* request) {
  if (http_requestVersion(request)[1] == 0) return true;
  const char* const connection = http_requestHeaderValue(request, "Connection");
  return connection != nullptr && strcasestr(connection, "close") != nullptr;
}

int forbidStoring(HttpReply* reply) { return http_replyHeaderValueSet(reply, "Cache-Control", "no-store"); }

int announceClose(HttpReply* reply) { return http_replyHeaderValueSet(reply, "Connection", "close"); }

int addCommonHeaders(HttpRequest* request, HttpReply* reply) {
  if (http_replyHeaderValueSet(reply, "Date", "%s", httpDate()) < 0 ||
      http_replyHeaderValueSet(reply, "Server", "krohttpd/" KROHTTPD_VERSION) < 0)
    return -1;
  if (!closesAfter(request) || http_replyHeaderValue(reply, "Connection") != nullptr) return 0;
  return announceClose(reply);
}

int replyWithText(HttpRequest* request, HttpReply* reply, unsigned code, const char* contentType, std::string_view text,
                  const char* allow) {
  if (http_replyStatusCodeSet(reply, code, phraseOf(code)) < 0 || addCommonHeaders(request, reply) < 0) return -1;
  if (allow != nullptr && http_replyHeaderValueSet(reply, "Allow", "%s", allow) < 0) return -1;
  if (!text.empty() && http_replyHeaderValueSet(reply, "Content-Type", "%s", contentType) < 0) return -1;
  if (http_replyHeaderValueSet(reply, "Content-Length", "%zu", text.size()) < 0 || http_replySend(reply) < 0) return -1;
  if (!text.empty()) {
    FILE* const body = http_replyBody(reply);
    if (body == nullptr || fwrite(text.data(), 1, text.size(), body) != text.size()) return -1;
  }
  return http_replyDone(reply);
}

int replyWithStatus(HttpRequest* request, HttpReply* reply, unsigned code, const char* allow) {
  const char* const phrase = phraseOf(code);
  char page[256];
  const int length =
      std::snprintf(page, sizeof page, "<!DOCTYPE html>\n<html lang=\"en\"><title>%u %s</title><h1>%u %s</h1></html>\n",
                    code, phrase, code, phrase);
  return replyWithText(request, reply, code, "text/html; charset=utf-8", {page, static_cast<size_t>(length)}, allow);
}
