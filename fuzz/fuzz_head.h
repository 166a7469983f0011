// Heads of requests and replies, read wherever they are cut, with and without limits and strictness.
//
// Input: a byte of flags, the limits, a byte with the number of pieces, their sizes, the head.
#pragma once

#include <krohttp/body.h>
#include <krohttp/message.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "fuzz_input.h"
#include "fuzz_support.h"

struct HeadLimits {
  bool strict = false;
  uint32_t line = 0;
  uint32_t head = 0;
  uint32_t headers = 0;
};

// What came of a head. bodyType is not compared: to a strict reader some messages have no body.
struct HeadOutcome {
  int refusal = 0;
  std::string text;  // empty when the head was refused
  size_t unread = 0;
  bool operator==(const HeadOutcome&) const = default;
  bool accepted() const { return !text.empty(); }
};

// The headers, each in a line. A CR that ends no line stays in a value, unless the reader is strict.
inline std::string headersOf(HttpMessage* message) {
  std::string text;
  int code = 0;
  const char* name = nullptr;
  const char* value = nullptr;
  http_msgHeadersReset(message);
  while (msg_headersNext(message, &code, &name, &value) == 0) {
    FUZZ_CHECK(value[0] != '\0');
    for (const char* c = value; *c != '\0'; ++c)
      FUZZ_CHECK(static_cast<unsigned char>(*c) >= ' ' || *c == '\t' || (*c == '\r' && !message->strict));
    text.append(std::to_string(code)).append(" ").append(name).append("=").append(value).append("\n");
  }
  return text;
}

inline size_t countHeaders(HttpMessage* message, int wanted) {
  size_t count = 0;
  int code = 0;
  const char* name = nullptr;
  const char* value = nullptr;
  http_msgHeadersReset(message);
  while (msg_headersNext(message, &code, &name, &value) == 0) count += code == wanted;
  return count;
}

// A strict reader leaves no choice of where the message ends.
inline void checkFraming(HttpMessage* message) {
  const size_t lengths = countHeaders(message, HTTP_HEADER_CONTENT_LENGTH);
  const size_t codings = countHeaders(message, HTTP_HEADER_TRANSFER_ENCODING);
  FUZZ_CHECK(lengths + codings <= 1);
  FUZZ_CHECK(message->bodyType != HTTP_BODY_UNKNOWN);
  FUZZ_CHECK((message->bodyType == HTTP_BODY_CHUNKED) == (codings == 1));
  FUZZ_CHECK(message->versionMajor == 1 && message->versionMinor <= 1);
  if (message->type != HTTP_MSG_REQUEST) return;
  const size_t hosts = countHeaders(message, HTTP_HEADER_HOST);
  FUZZ_CHECK(hosts <= 1 && (hosts == 1 || message->versionMinor == 0));
  FUZZ_CHECK(message->bodyType != HTTP_BODY_UNTIL_CLOSE);
}

// What a target knows of its kind of message:
//   using Message;                                   HttpRequest or HttpReply
//   static Message* create(); static void destroy(Message*);
//   static std::string firstLine(Message*);          its fields, as text
//   static int send(Message*);                       writes first line and headers
template <typename Kind>
HeadOutcome readHead(std::string_view wire, std::string_view cuts, const HeadLimits& limits, std::string* sent) {
  CutStream input(wire, cuts);
  auto* const record = Kind::create();
  HttpMessage* const message = &record->message;
  http_msgModeSet(message, HTTP_MSG_READING);
  http_msgStreamSet(message, input.stream());
  message->strict = limits.strict;
  message->lineLimit = limits.line;
  message->headLimit = limits.head;
  message->headerLimit = limits.headers;

  HeadOutcome outcome;
  int result = 0;
  do {
    result = http_msgParse(message);
  } while (result == 0 && message->state < HTTP_MSG_BODY);
  outcome.refusal = message->refusal;
  if (result == 0) {
    FUZZ_CHECK(message->refusal == HTTP_MSG_ACCEPTED);
    FUZZ_CHECK((message->bodyType == HTTP_BODY_NONE) == (message->state == HTTP_MSG_DONE));
    FUZZ_CHECK(http_msgParse(message) == -1);
    outcome.text = Kind::firstLine(record) + "\n" + headersOf(message);
    outcome.unread = input.unread();
    if (limits.strict) checkFraming(message);
    const size_t taken = wire.size() - outcome.unread;
    if (limits.strict && limits.head != 0) FUZZ_CHECK(taken <= limits.head);
    if (limits.strict && limits.line != 0) FUZZ_CHECK(wire.find('\n') + 1 <= limits.line);
    if (sent != nullptr) {
      CollectingStream output;
      http_msgStreamSet(message, output.stream());
      if (Kind::send(record) == 0) *sent = output.text();
    }
  } else {
    FUZZ_CHECK(message->state == HTTP_MSG_FIRST_LINE && message->buffer == nullptr);
    FUZZ_CHECK(message->refusal < HTTP_MSG_REFUSALS);
  }
  Kind::destroy(record);
  return outcome;
}

template <typename Kind>
void fuzzHead(const uint8_t* data, size_t size) {
  enum Flag { kStrict = 1, kLimits = 2, kTraces = 0xc0 };
  FuzzInput input(data, size);
  const unsigned flags = input.byte();
  traceIf((flags & kTraces) == kTraces && size <= kMostTraced);
  HeadLimits limits;
  limits.strict = (flags & kStrict) != 0;
  if ((flags & kLimits) != 0) {
    limits.line = input.byte();
    limits.head = input.byte() * 4;
    limits.headers = input.byte() % 8;
  }
  const std::string_view cuts = input.bytes(16);
  const std::string_view wire = input.rest();

  std::string sent;
  const HeadOutcome outcome = readHead<Kind>(wire, {}, limits, nullptr);
  FUZZ_CHECK(readHead<Kind>(wire, cuts, limits, nullptr) == outcome);
  HeadOutcome plain = readHead<Kind>(wire, {}, {}, &sent);
  if (outcome.accepted()) FUZZ_CHECK(plain == outcome);
  // What was read is written so that it is read the same. Only a path may hold control bytes, which came in escaped; a
  // reader drops those that come bare.
  const bool drops = std::any_of(sent.begin(), sent.end(),
                                 [](unsigned char c) { return c < ' ' && c != '\t' && c != '\n' && c != '\r'; });
  if (!sent.empty() && !drops) {
    plain.unread = 0;
    FUZZ_CHECK(readHead<Kind>(sent, {}, {}, nullptr) == plain);
  }
}
