#include "reply.h"

#include <krohttp/body.h>

#include <algorithm>

#include "text.h"

namespace {

// Body streams count 32 bits: a longer body would pass for complete too early.
constexpr uint64_t kLongestBody = UINT32_MAX;

// What decides where the body ends.
struct Framing {
  std::optional<std::string> length;
  bool lengthsDiffer = false;
  bool coded = false;
};

Framing framingOf(HttpReply* reply) {
  Framing framing;
  const char* name = nullptr;
  const char* value = nullptr;
  http_replyHeadersReset(reply);
  while (http_replyHeadersNext(reply, &name, &value) == 0) {
    if (sameWord(name, "Transfer-Encoding")) framing.coded = true;
    if (!sameWord(name, "Content-Length")) continue;
    framing.lengthsDiffer |= framing.length && *framing.length != value;
    framing.length = value;
  }
  return framing;
}

bool isNumber(const std::string& text) {
  return !text.empty() && text.size() <= 19 && text.find_first_not_of("0123456789") == std::string::npos;
}

std::string refusalOfBody(HttpReply* reply, std::optional<uint64_t>* length) {
  const Framing framing = framingOf(reply);
  // RFC 9112 section 6.3: with two ways to tell the body's end nobody knows which one is meant.
  if (framing.lengthsDiffer || (framing.length && (framing.coded || !isNumber(*framing.length))))
    return "the length of the reply is not certain";
  if (http_replyBodyType(reply) == HTTP_BODY_UNKNOWN) return "the reply has an unknown transfer coding";
  if (framing.length) *length = std::stoull(*framing.length);
  if (*length && **length > kLongestBody) return "the reply is larger than 4 GiB";
  return "";
}

}  // namespace

std::string refusalOf(HttpReply* reply, bool bodyless, std::optional<uint64_t>* length) {
  const unsigned status = http_replyStatusCode(reply);
  if (http_replyVersion(reply)[0] != 1) return "the reply is not of HTTP/1";
  if (status < 100 || status > 599) return "the reply has no valid status";
  if (status == 101) return "the server switches to another protocol";
  return bodyless || status == 204 || status == 304 ? "" : refusalOfBody(reply, length);
}

bool keepsConnection(HttpReply* reply) {
  if (http_replyVersion(reply)[1] == 0 || http_replyBodyType(reply) == HTTP_BODY_UNTIL_CLOSE) return false;
  const std::vector<std::string> values = headerValues(reply, "Connection");
  return std::none_of(values.begin(), values.end(), [](const std::string& value) { return listHas(value, "close"); });
}

std::vector<std::string> headerValues(HttpReply* reply, std::string_view name) {
  std::vector<std::string> values;
  const char* one = nullptr;
  const char* value = nullptr;
  http_replyHeadersReset(reply);
  while (http_replyHeadersNext(reply, &one, &value) == 0)
    if (sameWord(one, name)) values.emplace_back(value);
  return values;
}

std::string statusLine(HttpReply* reply) {
  const uint8_t* const version = http_replyVersion(reply);
  std::string line = "HTTP/" + std::to_string(version[0]) + "." + std::to_string(version[1]) + " " +
                     std::to_string(http_replyStatusCode(reply)) + " ";
  return reply->reason != nullptr ? line + reply->reason : line;
}

std::string headText(HttpReply* reply) {
  std::string text = statusLine(reply) + "\r\n";
  const char* name = nullptr;
  const char* value = nullptr;
  http_replyHeadersReset(reply);
  while (http_replyHeadersNext(reply, &name, &value) == 0) text.append(name).append(": ").append(value).append("\r\n");
  return text + "\r\n";
}
