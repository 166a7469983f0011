#include <gtest/gtest.h>
#include <krohttp/body.h>
#include <krohttp/cookie.h>
#include <krohttp/header.h>
#include <krohttp/message.h>
#include <krohttp/reply.h>
#include <krohttp/request.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "support/messages.h"
#include "support/script_stream.h"
#include "support/trace_capture.h"

namespace {

using namespace std::string_literals;

// A reply with a status line, to be written to this stream.
ReplyPtr outgoing(FILE* stream) {
  ReplyPtr reply(http_replyCreate());
  http_msgModeSet(&reply->message, HTTP_MSG_WRITING);
  http_msgStreamSet(&reply->message, stream);
  EXPECT_EQ(msg_setStatusLine(&reply->message, "HTTP/1.1 200 OK"), 0);
  return reply;
}

// The headers from where the iteration stands to its end.
std::vector<std::string> headersFromHere(HttpMessage* message) {
  std::vector<std::string> headers;
  const char* name = nullptr;
  const char* value = nullptr;
  while (headers.size() < 10000 && http_msgHeadersNext(message, &name, &value) == 0) {
    headers.push_back(std::string(name) + "=" + value);
  }
  return headers;
}

std::vector<std::string> headersOf(HttpMessage* message) {
  http_msgHeadersReset(message);
  return headersFromHere(message);
}

// Unchecked by the compiler: the name is part of the format.
int setV(HttpMessage* message, const char* name, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int result = http_msgHeaderValueSetV(message, name, format, arguments);
  va_end(arguments);
  return result;
}

int setEmptyV(HttpMessage* message, const char* name, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int result = http_msgHeaderValueSetEmptyV(message, name, format, arguments);
  va_end(arguments);
  return result;
}

// --- iteration and lookup --------------------------------------------------------------------------------------------

class MessageHeaders : public ::testing::Test {
 protected:
  void add(const char* line) { ASSERT_EQ(msg_setHeaderLine(message_, "%s", line), 0); }

  MemoryOutput output_;
  ReplyPtr reply_ = outgoing(output_.stream());
  HttpMessage* message_ = &reply_->message;
};

TEST_F(MessageHeaders, NextReportsCodeNameAndValue) {
  add("etag: e");
  add("X-Thing: a");
  add("set-cookie: a=1");
  const struct {
    int code;
    const char* name;
    const char* value;
  } kExpected[] = {{21, "ETAG", "e"}, {52, "X-Thing", "a"}, {41, "Set-Cookie", "a=1"}};
  for (int round = 0; round < 2; ++round) {
    for (const auto& expected : kExpected) {
      int code = -1;
      const char* name = nullptr;
      const char* value = nullptr;
      ASSERT_EQ(msg_headersNext(message_, &code, &name, &value), 0);
      EXPECT_EQ(code, expected.code);
      EXPECT_STREQ(name, expected.name);
      EXPECT_STREQ(value, expected.value);
    }
    int code = -1;
    const char* name = nullptr;
    const char* value = "left over";
    EXPECT_EQ(msg_headersNext(message_, &code, &name, &value), -1);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(message_->headerIter, nullptr) << "the next step starts again";
  }
}

TEST_F(MessageHeaders, ResetStartsAgain) {
  add("A: 1");
  add("B: 2");
  const char* name = nullptr;
  const char* value = nullptr;
  ASSERT_EQ(http_msgHeadersNext(message_, &name, &value), 0);
  http_msgHeadersReset(message_);
  EXPECT_EQ(message_->headerIter, nullptr);
  EXPECT_EQ(headersFromHere(message_), std::vector<std::string>({"A=1", "B=2"}));
}

TEST_F(MessageHeaders, ValueIsThatOfTheFirstOfThatName) {
  add("Set-Cookie: a=1");
  add("X-Thing: x");
  add("Set-Cookie: b=2");
  add("x-thing: y");
  EXPECT_STREQ(http_msgHeaderValue(message_, "set-cookie"), "a=1");
  EXPECT_STREQ(http_msgHeaderValue(message_, "SET-COOKIE"), "a=1");
  EXPECT_STREQ(http_msgHeaderValue(message_, "X-THING"), "x");
  EXPECT_EQ(http_msgHeaderValue(message_, "Set-Cookie2"), nullptr);
  EXPECT_EQ(http_msgHeaderValue(message_, ""), nullptr);
  EXPECT_EQ(headersOf(message_),
            std::vector<std::string>({"Set-Cookie=a=1", "X-Thing=x", "Set-Cookie=b=2", "x-thing=y"}));
}

TEST_F(MessageHeaders, TheIterationGoesOnBehindTheOneThatWasFound) {
  add("A: 1");
  add("B: 2");
  add("C: 3");
  const char* name = nullptr;
  const char* value = nullptr;
  for (int step = 0; step < 3; ++step) ASSERT_EQ(http_msgHeadersNext(message_, &name, &value), 0);
  EXPECT_STREQ(http_msgHeaderValue(message_, "a"), "1") << "the lookup starts at the first";
  EXPECT_EQ(headersFromHere(message_), std::vector<std::string>({"B=2", "C=3"}));
}

TEST_F(MessageHeaders, ALookupThatFindsNothingLeavesTheIterationReset) {
  EXPECT_EQ(http_msgHeaderValue(message_, "Host"), nullptr);
  EXPECT_EQ(message_->headerIter, nullptr);
  add("A: 1");
  EXPECT_EQ(http_msgHeaderValue(message_, "Host"), nullptr);
  EXPECT_EQ(message_->headerIter, nullptr);
  EXPECT_EQ(headersFromHere(message_), std::vector<std::string>({"A=1"}));
}

TEST_F(MessageHeaders, AMessageWithoutAnythingHasNone) {
  HttpMessage message{};
  const char* name = nullptr;
  const char* value = nullptr;
  EXPECT_EQ(http_msgHeadersNext(&message, &name, &value), -1);
  EXPECT_EQ(http_msgHeaderValue(&message, "Host"), nullptr);
  http_msgHeadersReset(&message);
}

TEST_F(MessageHeaders, TheIterationGoesOnWhileHeadersAreAdded) {
  for (int at = 0; at < 10; ++at) ASSERT_EQ(http_msgHeaderValueSet(message_, "X-Old", "%d", at), 0);
  std::vector<std::string> expected;
  for (int at = 0; at < 10; ++at) expected.push_back("X-Old=" + std::to_string(at));

  std::vector<std::string> found;
  const char* name = nullptr;
  const char* value = nullptr;
  const uint32_t before = message_->bufferSize;
  while (found.size() < 100 && http_msgHeadersNext(message_, &name, &value) == 0) {
    found.push_back(std::string(name) + "=" + value);
    if (found.size() <= 10) {
      const std::string added(300 * found.size(), static_cast<char>('a' + found.size()));
      ASSERT_EQ(http_msgHeaderValueSet(message_, "X-New", "%s", added.c_str()), 0);
      expected.push_back("X-New=" + added);
    }
  }
  EXPECT_EQ(found, expected);
  EXPECT_GT(message_->bufferSize, before);
}

TEST_F(MessageHeaders, TheIterationSurvivesANewFirstLine) {
  add("A: 1");
  add("B: 2");
  add("C: 3");
  const char* name = nullptr;
  const char* value = nullptr;
  ASSERT_EQ(http_msgHeadersNext(message_, &name, &value), 0);
  ASSERT_EQ(msg_setStatusLine(message_, "HTTP/1.1 404 Not Found"), 0);
  EXPECT_EQ(headersFromHere(message_), std::vector<std::string>({"B=2", "C=3"}));
  EXPECT_EQ(headersOf(message_), std::vector<std::string>({"A=1", "B=2", "C=3"}));
}

// --- typed headers ---------------------------------------------------------------------------------------------------

TEST_F(MessageHeaders, TypedHeaderIsTheFirstWithItsCode) {
  add("X-Thing: 1");
  add("Content-Length: 12");
  add("content-length: 34");
  HttpHeader header{};
  header.code = HTTP_HEADER_CONTENT_LENGTH;
  EXPECT_EQ(http_msgHeader(message_, &header), 0);
  EXPECT_EQ(header.contentLength.length, 12u);
  http_hdrCleanup(&header);
}

TEST_F(MessageHeaders, TypedCustomHeaderIsTheFirstOfAnyName) {
  add("Host: h");
  add("X-One: 1");
  add("X-Two: 2");
  HttpHeader header{};
  header.code = HTTP_HEADER_CUSTOM;
  EXPECT_EQ(http_msgHeader(message_, &header), 0);
  EXPECT_STREQ(header.raw, "1");
  http_hdrCleanup(&header);
}

TEST_F(MessageHeaders, TypedHeaderThatIsMissing) {
  add("Host: h");
  HttpHeader header{};
  header.code = HTTP_HEADER_CONTENT_LENGTH;
  TraceCapture trace{"http-message"};
  EXPECT_EQ(http_msgHeader(message_, &header), -1);
  EXPECT_EQ(trace.said(), TraceLines({"http-me[i]header Content-Length not found"}));
  EXPECT_EQ(header.raw, nullptr);
}

TEST_F(MessageHeaders, TypedHeaderThatDoesNotParse) {
  add("Content-Type: text");
  HttpHeader header{};
  header.code = HTTP_HEADER_CONTENT_TYPE;
  TraceCapture trace;
  EXPECT_EQ(http_msgHeader(message_, &header), -1);
  EXPECT_EQ(trace.said(), TraceLines({"http-he[x]unable to parse content type text"}));
  http_hdrCleanup(&header);
}

TEST_F(MessageHeaders, TypedHeaderIsWrittenBack) {
  HttpHeader header{};
  header.code = HTTP_HEADER_CONTENT_LENGTH;
  header.contentLength.length = 18446744073709551615u;
  EXPECT_EQ(http_msgHeaderSet(message_, &header), 0);
  header.contentLength.length = 7;
  EXPECT_EQ(http_msgHeaderSet(message_, &header), 0);
  EXPECT_EQ(headersOf(message_), std::vector<std::string>({"Content-Length=18446744073709551615", "Content-Length=7"}));
}

TEST_F(MessageHeaders, TypedHeaderWithoutAValueIsNotWritten) {
  HttpHeader header{};
  header.code = HTTP_HEADER_CONNECTION;
  TraceCapture trace;
  EXPECT_EQ(http_msgHeaderSet(message_, &header), -1);
  EXPECT_EQ(trace.said(), TraceLines({"http-me[x]unable to read header line: parse error",
                                      "http-me[x]unable to store header", "http-me[x]unable to serialize header"}));
  EXPECT_EQ(headersOf(message_), std::vector<std::string>());
}

// --- setting by text -------------------------------------------------------------------------------------------------

TEST_F(MessageHeaders, ValueSetFormatsAndAdds) {
  EXPECT_EQ(http_msgHeaderValueSet(message_, "Content-Length", "%d", 12), 0);
  EXPECT_EQ(http_msgHeaderValueSet(message_, "x-thing", "%s;%c", "a b", 'z'), 0);
  EXPECT_EQ(http_msgHeaderValueSet(message_, "CONTENT-LENGTH", "34"), 0);
  EXPECT_EQ(http_msgHeaderValueSet(message_, "X-Padded", "  %s \t", "p"), 0);
  EXPECT_EQ(http_msgHeaderValueSet(message_, "X-Percent", "100%%"), 0);
  EXPECT_EQ(http_msgHeaderValueSet(message_, "X-Argument", "%s", "%s%n"), 0);
  const char* volatile nothing = nullptr;
  EXPECT_EQ(http_msgHeaderValueSet(message_, "X-Null", "%s", nothing), 0);
  EXPECT_EQ(headersOf(message_),
            std::vector<std::string>({"Content-Length=12", "x-thing=a b;z", "Content-Length=34", "X-Padded=p",
                                      "X-Percent=100%", "X-Argument=%s%n", "X-Null=(null)"}));
}

TEST_F(MessageHeaders, TheNameIsPartOfTheFormat) {
  EXPECT_EQ(http_msgHeaderValueSet(message_, "a%%b", "%d", 1), 0);
  EXPECT_EQ(setV(message_, "X-%s", "%d", "one", 1), 0);
  EXPECT_EQ(setEmptyV(message_, "X-%d-%%", "%s", 2, "two"), 0);
  EXPECT_EQ(headersOf(message_), std::vector<std::string>({"a%b=1", "X-one=1", "X-2-%=two"}));
}

TEST_F(MessageHeaders, ALongValueGrowsTheBuffer) {
  std::vector<std::string> expected;
  for (const size_t length : {1u, 480u, 511u, 512u, 513u, 5000u, 100000u}) {
    const std::string value(length, static_cast<char>('a' + length % 26));
    ASSERT_EQ(http_msgHeaderValueSet(message_, "X", "%s", value.c_str()), 0);
    expected.push_back("X=" + value);
  }
  EXPECT_EQ(headersOf(message_), expected);
  EXPECT_STREQ(reply_->reason, "OK");
}

// Short and long values may take different ways into the buffer.
TEST_F(MessageHeaders, ValuesOfEveryLengthAreExact) {
  std::vector<std::string> expected;
  std::string wire;
  for (size_t length = 1; length < 300; ++length) {
    std::string value(length, ' ');
    for (size_t at = 0; at < length; ++at) value[at] = static_cast<char>('!' + (at * 7 + length) % 90);
    ASSERT_EQ(http_msgHeaderValueSet(message_, "X-Text", "%s", value.c_str()), 0);
    ASSERT_EQ(http_msgHeaderValueSet(message_, "X-Formatted", "%s!", value.c_str()), 0);
    ASSERT_EQ(http_msgHeaderValueSet(message_, "a%%b", "%s?", value.c_str()), 0);
    ASSERT_EQ(http_msgHeaderValueSet(message_, "Server", "%d%s", 7, value.c_str()), 0);
    expected.insert(expected.end(),
                    {"X-Text=" + value, "X-Formatted=" + value + "!", "a%b=" + value + "?", "Server=7" + value});
    wire += "X-Text: " + value + "\r\nX-Formatted: " + value + "!\r\na%b: " + value + "?\r\nServer: 7" + value + "\r\n";
  }
  EXPECT_EQ(headersOf(message_), expected);
  ASSERT_EQ(msg_headersSend(message_), 0);
  EXPECT_EQ(output_.text(), wire + "\r\n");
}

// What a caller passes on from the message itself is read before the buffer moves.
TEST(MessageHeadersOfItself, MayGiveAName) {
  for (size_t length = 1; length <= 1200; length += length < 440 || length > 560 ? 37 : 1) {
    SCOPED_TRACE(length);
    MemoryOutput output;
    const ReplyPtr reply = outgoing(output.stream());
    HttpMessage* const message = &reply->message;
    const std::string value(length, 'v');
    ASSERT_EQ(http_msgHeaderValueSet(message, "X-Own-Name", "%s", value.c_str()), 0);
    for (int round = 0; round < 3; ++round) {
      http_msgHeadersReset(message);
      const char* name = nullptr;
      const char* own = nullptr;
      ASSERT_EQ(http_msgHeadersNext(message, &name, &own), 0);
      ASSERT_EQ(http_msgHeaderValueSet(message, name, "%s", value.c_str()), 0);
    }
    const std::string header = "X-Own-Name=" + value;
    ASSERT_EQ(headersOf(message), std::vector<std::string>({header, header, header, header}));
  }
}

TEST(MessageHeadersOfItself, MayGiveAValue) {
  for (size_t length = 1; length <= 1200; length += length < 440 || length > 560 ? 37 : 1) {
    SCOPED_TRACE(length);
    MemoryOutput output;
    const ReplyPtr reply = outgoing(output.stream());
    HttpMessage* const message = &reply->message;
    const std::string value(length, 'v');
    ASSERT_EQ(http_msgHeaderValueSet(message, "X", "%s", value.c_str()), 0);
    for (int round = 0; round < 3; ++round) {
      ASSERT_EQ(http_msgHeaderValueSet(message, "X", "%s", http_msgHeaderValue(message, "X")), 0);
      ASSERT_EQ(http_msgHeaderValueSet(message, "X", "%s%s", http_msgHeaderValue(message, "X"), ""), 0);
      ASSERT_EQ(msg_setHeaderLine(message, "X: %s", http_msgHeaderValue(message, "X")), 0);
    }
    ASSERT_EQ(headersOf(message), std::vector<std::string>(10, "X=" + value));
  }
}

TEST_F(MessageHeaders, AnEmptyValueIsRefusedUnlessAllowed) {
  add("A: 1");
  TraceCapture trace;
  for (const char* const value : {"", "  ", "\t"}) {
    trace.clear();
    EXPECT_EQ(http_msgHeaderValueSet(message_, "Accept", "%s", value), -1);
    EXPECT_EQ(trace.said(),
              TraceLines({"http-me[x]unable to read header line: parse error", "http-me[x]unable to store header"}));
    trace.clear();
    EXPECT_EQ(setV(message_, "Accept", "%s", value), -1);
    EXPECT_EQ(trace.said(),
              TraceLines({"http-me[x]unable to read header line: parse error", "http-me[x]unable to store header"}));
  }
  EXPECT_EQ(headersOf(message_), std::vector<std::string>({"A=1"}));

  trace.clear();
  EXPECT_EQ(setEmptyV(message_, "Accept", "%s", ""), 0);
  EXPECT_EQ(trace.said(), TraceLines({"http-me[!]Adding http header without value"}));
  EXPECT_EQ(setEmptyV(message_, "X", "%s", "  "), 0);
  trace.clear();
  EXPECT_EQ(setEmptyV(message_, "B", "%s", "2"), 0);
  EXPECT_EQ(trace.said(), TraceLines());
  EXPECT_EQ(headersOf(message_), std::vector<std::string>({"A=1", "Accept=", "X=", "B=2"}));
  EXPECT_STREQ(http_msgHeaderValue(message_, "accept"), "");
}

TEST_F(MessageHeaders, WhatCannotBeFormattedIsRefused) {
  add("A: 1");
  TraceCapture trace;
  EXPECT_EQ(http_msgHeaderValueSet(message_, "X", "%ls", L"\x7fffffff"), -1);
  const TraceLines errors = trace.errors();
  ASSERT_GE(errors.size(), 2u);
  EXPECT_EQ(errors[0], "http-me[x]unable to set line: Invalid or incomplete multibyte or wide character");
  EXPECT_EQ(errors[1], "http-me[x]unable to serialize header");
  trace.clear();
  EXPECT_EQ(setEmptyV(message_, "X", "%ls", L"\x7fffffff"), -1);
  EXPECT_TRUE(trace.has("http-me[x]unable to serialize header"));
  add("B: 2");
  EXPECT_EQ(headersOf(message_), std::vector<std::string>({"A=1", "B=2"}));
}

TEST_F(MessageHeaders, ANameThatMakesNoHeaderIsRefused) {
  for (const char* const name : {"", " "}) {
    TraceCapture trace;
    EXPECT_EQ(http_msgHeaderValueSet(message_, name, "%s", "x"), -1) << '"' << name << '"';
    EXPECT_EQ(trace.said(),
              TraceLines({"http-me[x]unable to read header line: parse error", "http-me[x]unable to store header"}));
  }
}

// --- sending ---------------------------------------------------------------------------------------------------------

TEST_F(MessageHeaders, SendWritesThemAndTheBlankLine) {
  add("host: x");
  add("X-%s-Thing: 100%d");
  const char* name = nullptr;
  const char* value = nullptr;
  ASSERT_EQ(http_msgHeadersNext(message_, &name, &value), 0);  // the sending starts at the first all the same
  EXPECT_EQ(msg_headersSend(message_), 0);
  EXPECT_EQ(output_.text(), "Host: x\r\nX-%s-Thing: 100%d\r\n\r\n");
  EXPECT_EQ(message_->state, 2);
}

TEST_F(MessageHeaders, SendWithoutAnyWritesTheBlankLine) {
  EXPECT_EQ(msg_headersSend(message_), 0);
  EXPECT_EQ(output_.text(), "\r\n");
  EXPECT_EQ(message_->state, 2);
}

TEST(MessageHeadersSend, HeadersOfAnySize) {
  for (size_t length = 1; length < 3100; length += length % 1024 < 8 || length % 1024 > 990 ? 1 : 61) {
    SCOPED_TRACE(length);
    ScriptOutput output;
    const ReplyPtr reply = outgoing(output.stream());
    const std::string value(length, 'v');
    ASSERT_EQ(http_msgHeaderValueSet(&reply->message, "A", "1"), 0);
    ASSERT_EQ(http_msgHeaderValueSet(&reply->message, "X-Long", "%s", value.c_str()), 0);
    ASSERT_EQ(http_msgHeaderValueSet(&reply->message, "Via", "2"), 0);
    ASSERT_EQ(msg_headersSend(&reply->message), 0);
    EXPECT_EQ(output.bytes(), "A: 1\r\nX-Long: " + value + "\r\nVia: 2\r\n\r\n");
  }
}

TEST(MessageHeadersSend, FailsInALongHeadToo) {
  const std::string value(2500, 'v');
  const std::string wire = "A: 1\r\nX-Long: " + value + "\r\nVia: 2\r\n\r\n";
  for (size_t at = 0; at < wire.size(); at += 97) {
    SCOPED_TRACE(at);
    ScriptOutput output;
    output.unbuffered().refuseAt(at, EIO);
    const ReplyPtr reply = outgoing(output.stream());
    ASSERT_EQ(http_msgHeaderValueSet(&reply->message, "A", "1"), 0);
    ASSERT_EQ(http_msgHeaderValueSet(&reply->message, "X-Long", "%s", value.c_str()), 0);
    ASSERT_EQ(http_msgHeaderValueSet(&reply->message, "Via", "2"), 0);
    TraceCapture trace;
    EXPECT_EQ(msg_headersSend(&reply->message), -1);
    EXPECT_EQ(trace.said(), TraceLines({"http-me[x]unable to send message headers: Input/output error"}));
    EXPECT_EQ(output.bytes(), wire.substr(0, at));
  }
}

TEST(MessageHeadersSend, FlushesTheStream) {
  ScriptOutput output;
  const ReplyPtr reply = outgoing(output.stream());
  ASSERT_EQ(msg_setHeaderLine(&reply->message, "A: b"), 0);
  ASSERT_EQ(msg_headersSend(&reply->message), 0);
  EXPECT_EQ(output.bytes(), "A: b\r\n\r\n");
}

TEST(MessageHeadersSend, FailsWhereverTheStreamDoes) {
  const std::string wire = "A: b\r\nHost: x\r\n\r\n";
  for (const int error : {EIO, EAGAIN}) {
    for (const bool buffered : {false, true}) {
      for (size_t at = 0; at < wire.size(); ++at) {
        SCOPED_TRACE(std::to_string(at) + (buffered ? " buffered" : ""));
        ScriptOutput output;
        output.refuseAt(at, error);
        if (!buffered) output.unbuffered();
        const ReplyPtr reply = outgoing(output.stream());
        ASSERT_EQ(msg_setHeaderLine(&reply->message, "A: b"), 0);
        ASSERT_EQ(msg_setHeaderLine(&reply->message, "Host: x"), 0);
        TraceCapture trace;
        EXPECT_EQ(msg_headersSend(&reply->message), -1);
        EXPECT_EQ(trace.said(), TraceLines({(buffered ? "http-me[x]unable to send message: "s
                                                      : "http-me[x]unable to send message headers: "s) +
                                            strerror(error)}));
        EXPECT_EQ(reply->message.state, 1) << "as it was";
        EXPECT_EQ(output.bytes(), wire.substr(0, at));
      }
    }
  }
}

// --- the body --------------------------------------------------------------------------------------------------------

TEST(MessageBody, ForReadingIsOpenedOnce) {
  ScriptInput input("POST / HTTP/1.1\r\nContent-Length: 3\r\n\r\nabcd");
  const RequestPtr request = incomingRequest(input.stream());
  HttpMessage* const message = &request->message;
  TraceCapture trace{"http-message"};
  FILE* const body = http_msgBody(message);
  ASSERT_NE(body, nullptr);
  EXPECT_EQ(message->body, body);
  EXPECT_EQ(message->state, 2);
  EXPECT_EQ(trace.count("http-me[i]opening message body for reading"), 1u);
  EXPECT_EQ(http_msgBody(message), body);
  EXPECT_EQ(trace.count("http-me[i]opening message body for reading"), 1u);

  char text[8] = "";
  EXPECT_EQ(fread(text, 1, sizeof text, body), 3u);
  EXPECT_STREQ(text, "abc");
  EXPECT_EQ(http_msgBody(message), body);
  EXPECT_EQ(fclose(body), 0);
  EXPECT_EQ(message->body, nullptr);
  EXPECT_EQ(message->state, 3);
  EXPECT_EQ(input.rest(), "d");
}

TEST(MessageBody, TheOpenOneIsReturnedInAnyMode) {
  MemoryOutput other;
  HttpMessage message{};
  message.body = other.stream();
  for (const int mode : {0, 1, 2}) {
    message.mode = mode;
    EXPECT_EQ(http_msgBody(&message), other.stream());
    EXPECT_EQ(message.state, 0);
  }
}

TEST(MessageBody, ThatCannotBeOpenedForReading) {
  for (const std::string head : {"POST / HTTP/1.1\r\nTransfer-Encoding: gzip\r\n\r\n", "GET / HTTP/1.1\r\n\r\n"}) {
    SCOPED_TRACE(head);
    const TraceCapture quiet;
    ScriptInput input(head + "abc");
    const RequestPtr request = incomingRequest(input.stream());
    TraceCapture trace;
    EXPECT_EQ(http_msgBody(&request->message), nullptr);
    ASSERT_FALSE(trace.errors().empty());
    EXPECT_EQ(trace.errors().back(), "http-me[x]unable to open message body");
    EXPECT_EQ(request->message.state, 5);
    EXPECT_EQ(request->message.body, nullptr);
  }
}

TEST(MessageBody, ForWritingEndsTheHeadFirst) {
  for (const int state : {0, 1, 2}) {
    SCOPED_TRACE(state);
    ScriptOutput output;
    const ReplyPtr reply = outgoing(output.stream());
    ASSERT_EQ(msg_setHeaderLine(&reply->message, "Content-Length: 3"), 0);
    reply->message.state = state;
    TraceCapture trace{"http-message"};
    FILE* const body = http_msgBody(&reply->message);
    ASSERT_NE(body, nullptr);
    EXPECT_EQ(trace.count("http-me[i]opening message body for writing"), 1u);
    EXPECT_EQ(reply->message.body, body);
    EXPECT_EQ(reply->message.state, 2);
    EXPECT_EQ(output.bytes(), state < 2 ? "\r\n" : "") << "and flushes it";
    fclose(body);
  }
}

TEST(MessageBody, NoneToWriteIsNoFailure) {
  for (const int state : {1, 2}) {
    ScriptOutput output;
    const ReplyPtr reply = outgoing(output.stream());
    ASSERT_EQ(msg_setHeaderLine(&reply->message, "Content-Length: 0"), 0);
    reply->message.state = state;
    TraceCapture trace;
    EXPECT_EQ(http_msgBody(&reply->message), nullptr);
    EXPECT_EQ(reply->message.state, 2);
    EXPECT_EQ(trace.said(), TraceLines());
    EXPECT_EQ(output.bytes(), state < 2 ? "\r\n" : "");
  }
}

TEST(MessageBody, ThatCannotBeOpenedForWriting) {
  ScriptOutput output;
  const ReplyPtr reply = outgoing(output.stream());
  ASSERT_EQ(msg_setHeaderLine(&reply->message, "Transfer-Encoding: gzip"), 0);
  reply->message.state = 2;
  TraceCapture trace;
  EXPECT_EQ(http_msgBody(&reply->message), nullptr);
  ASSERT_FALSE(trace.errors().empty());
  EXPECT_EQ(trace.errors().back(), "http-me[x]unable to open message body: Function not implemented");
  EXPECT_EQ(reply->message.state, 5);
}

TEST(MessageBody, OfAMessageThatIsDoneIsNotOpenedAgain) {
  for (const int mode : {HTTP_MSG_READING, HTTP_MSG_WRITING}) {
    for (const int state : {3, 5}) {
      SCOPED_TRACE(std::to_string(mode) + " " + std::to_string(state));
      ScriptOutput output;
      const ReplyPtr reply = outgoing(output.stream());
      ASSERT_EQ(msg_setHeaderLine(&reply->message, "Content-Length: 3"), 0);
      http_msgModeSet(&reply->message, mode);
      reply->message.state = state;
      TraceCapture trace;
      EXPECT_EQ(http_msgBody(&reply->message), nullptr);
      const TraceLines errors = trace.errors();
      ASSERT_EQ(errors.size(), 2u);
      EXPECT_EQ(errors[0], "http-bo[x]body has already been opened for this message");
      if (mode == HTTP_MSG_READING) {
        EXPECT_EQ(errors[1], "http-me[x]unable to open message body");
      } else {
        EXPECT_TRUE(errors[1].starts_with("http-me[x]unable to open message body: ")) << errors[1];
      }
      EXPECT_EQ(reply->message.state, 5);
      EXPECT_EQ(output.bytes(), "");
    }
  }
}

TEST(MessageBody, ForWritingFailsWhereverTheStreamDoes) {
  for (const bool buffered : {false, true}) {
    for (const size_t at : {0u, 1u}) {
      SCOPED_TRACE(std::to_string(at) + (buffered ? " buffered" : ""));
      ScriptOutput output;
      output.refuseAt(at, EPIPE);
      if (!buffered) output.unbuffered();
      const ReplyPtr reply = outgoing(output.stream());
      ASSERT_EQ(msg_setHeaderLine(&reply->message, "Content-Length: 3"), 0);
      TraceCapture trace;
      EXPECT_EQ(http_msgBody(&reply->message), nullptr);
      EXPECT_EQ(trace.said(), TraceLines({"http-me[x]unable to send message: Broken pipe"}));
      EXPECT_EQ(reply->message.state, 5);
      EXPECT_EQ(reply->message.body, nullptr);
    }
  }
}

TEST(MessageBody, InNoModeIsNone) {
  ScriptOutput output;
  const ReplyPtr reply = outgoing(output.stream());
  for (const int mode : {0, 3}) {
    reply->message.state = 1;
    http_msgModeSet(&reply->message, mode);
    TraceCapture trace;
    EXPECT_EQ(http_msgBody(&reply->message), nullptr);
    EXPECT_EQ(reply->message.state, 2);
    EXPECT_EQ(trace.said(), TraceLines());
  }
  EXPECT_EQ(output.bytes(), "");
}

// --- discarding ------------------------------------------------------------------------------------------------------

struct DiscardCase {
  const char* name;
  std::string head;
  std::string body;
  std::string behind;
  size_t firstCut = 0;
};
void PrintTo(const DiscardCase& row, std::ostream* out) { *out << row.name; }

class MessageBodyDiscard : public ::testing::TestWithParam<DiscardCase> {};

TEST_P(MessageBodyDiscard, WhereverTheBodyIsCut) {
  const SpinGuard guard;
  const DiscardCase& row = GetParam();
  const size_t step = row.body.size() < 100 ? 1 : row.body.size() / 13;
  for (size_t cut = row.firstCut; cut <= row.body.size(); cut += step) {
    SCOPED_TRACE("cut at octet " + std::to_string(cut));
    ScriptInput input(row.head + "\r\n");
    input.bytes(row.body.substr(0, cut)).hold().bytes(row.body.substr(cut) + row.behind);
    const RequestPtr request = incomingRequest(input.stream());
    TraceCapture trace;
    int calls = 0;
    do {
      clearerr(input.stream());
      if (++calls == 2) input.release();
      ASSERT_EQ(http_msgBodyDiscard(&request->message), 0);
      if (request->message.state == 2) {
        EXPECT_EQ(request->message.needMoreData, 1);
        EXPECT_NE(request->message.body, nullptr);
      }
    } while (request->message.state == 2 && calls < 3);
    EXPECT_EQ(request->message.state, 3);
    EXPECT_EQ(request->message.body, nullptr);
    EXPECT_EQ(request->message.bodyCut, 0);
    EXPECT_EQ(trace.errors(), TraceLines());
    input.release();
    EXPECT_EQ(input.rest(), row.behind);
  }
}

INSTANTIATE_TEST_SUITE_P(Table, MessageBodyDiscard,
                         ::testing::Values(DiscardCase{"ContentLength", "POST / HTTP/1.1\r\nContent-Length: 5\r\n",
                                                       "abcde", "GET"},
                                           DiscardCase{"Long", "POST / HTTP/1.1\r\nContent-Length: 100000\r\n",
                                                       std::string(100000, 'x'), "GET"},
                                           DiscardCase{"Chunked", "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n",
                                                       "5\r\nhello\r\n3\r\nabc\r\n0\r\n\r\n", "GET"},
                                           DiscardCase{"UntilClose", "POST / HTTP/1.1\r\n", "abcde", "", 1}),
                         [](const auto& row) { return row.param.name; });

TEST(MessageBodyDiscarding, FailsWithTheStream) {
  const struct {
    std::string header;
    const char* reason;
  } kRows[] = {{"Content-Length: 5\r\n", "Input/output error"},
               {"Transfer-Encoding: chunked\r\n", "Bad message"},
               {"", "Input/output error"}};
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.header);
    ScriptInput input("POST / HTTP/1.1\r\n" + row.header + "\r\n");
    input.bytes("1").hold(EIO);
    const RequestPtr request = incomingRequest(input.stream());
    TraceCapture trace;
    EXPECT_EQ(http_msgBodyDiscard(&request->message), -1);
    ASSERT_FALSE(trace.errors().empty());
    EXPECT_EQ(trace.errors().back(), "http-me[x]unable to discard body: "s + row.reason);
    EXPECT_EQ(request->message.state, 5);
    ASSERT_NE(request->message.body, nullptr);
    fclose(request->message.body);
  }
}

TEST(MessageBodyDiscarding, WithoutABodyReadsNothing) {
  ScriptInput input("GET / HTTP/1.1\r\n\r\nGET");
  const RequestPtr request = incomingRequest(input.stream());
  const TraceCapture trace;
  http_msgBodyDiscard(&request->message);
  EXPECT_EQ(request->message.body, nullptr);
  EXPECT_EQ(input.rest(), "GET");
}

// --- completing ------------------------------------------------------------------------------------------------------

TEST(MessageDone, EndsAHeadThatWasNotSent) {
  for (const int state : {0, 1}) {
    ScriptOutput output;
    const ReplyPtr reply = outgoing(output.stream());
    ASSERT_EQ(msg_setHeaderLine(&reply->message, "A: b"), 0);
    reply->message.state = state;
    EXPECT_EQ(http_msgDone(&reply->message), 0);
    EXPECT_EQ(output.bytes(), "\r\n");
    EXPECT_EQ(reply->message.state, 3);
  }
}

TEST(MessageDone, WritesNothingBehindAHeadThatWasSent) {
  for (const int state : {2, 3, 5}) {
    ScriptOutput output;
    const ReplyPtr reply = outgoing(output.stream());
    fputs("buffered", output.stream());
    reply->message.state = state;
    EXPECT_EQ(http_msgDone(&reply->message), 0);
    EXPECT_EQ(output.bytes(), "buffered") << "but flushes";
    EXPECT_EQ(reply->message.state, 3);
  }
}

TEST(MessageDone, ClosesAnOpenBody) {
  ScriptOutput output;
  const ReplyPtr reply = outgoing(output.stream());
  ASSERT_EQ(msg_setHeaderLine(&reply->message, "Transfer-Encoding: chunked"), 0);
  ASSERT_EQ(msg_headersSend(&reply->message), 0);
  FILE* const body = http_msgBody(&reply->message);
  ASSERT_NE(body, nullptr);
  fputs("abc", body);
  output.clear();
  TraceCapture trace{"http-message"};
  EXPECT_EQ(http_msgDone(&reply->message), 0);
  EXPECT_EQ(output.bytes(), "3\r\nabc\r\n0\r\n\r\n");
  EXPECT_EQ(reply->message.body, nullptr);
  EXPECT_EQ(reply->message.state, 3);
  EXPECT_EQ(trace.said(), TraceLines({"http-me[i]we still need to close the body stream"}));
}

TEST(MessageDone, LeavesABodyThatIsCompleteToItsUser) {
  ScriptOutput output;
  const ReplyPtr reply = outgoing(output.stream());
  ASSERT_EQ(msg_setHeaderLine(&reply->message, "Content-Length: 3"), 0);
  ASSERT_EQ(msg_headersSend(&reply->message), 0);
  FILE* const body = http_msgBody(&reply->message);
  ASSERT_NE(body, nullptr);
  fputs("abc", body);
  ASSERT_EQ(fflush(body), 0);
  ASSERT_EQ(reply->message.state, 3);
  EXPECT_EQ(http_msgDone(&reply->message), 0);
  ASSERT_EQ(reply->message.body, body);
  EXPECT_EQ(fclose(body), 0);
  EXPECT_EQ(reply->message.body, nullptr);
}

// One block is read, and no more: what the rest of the body is worth is its connection's business.
TEST(MessageDone, ReadsOneBlockOfAnIncomingBody) {
  const std::string block(4096, 'b');
  ScriptInput input("POST / HTTP/1.1\r\nContent-Length: 40960\r\n\r\n");
  for (int at = 0; at < 10; ++at) input.bytes(block).error(EAGAIN);
  const RequestPtr request = incomingRequest(input.stream());
  ASSERT_NE(http_msgBody(&request->message), nullptr);
  TraceCapture trace{"http-message"};
  EXPECT_EQ(http_msgDone(&request->message), 0);
  EXPECT_EQ(input.pending(), 9 * block.size());
  EXPECT_EQ(request->message.state, 3);
  EXPECT_EQ(request->message.body, nullptr);
  EXPECT_EQ(request->message.bodyCut, 1);
  const TraceLines said = trace.said();
  ASSERT_GE(said.size(), 2u);
  EXPECT_EQ(said[0], "http-me[i]we still need to close the body stream");
  EXPECT_EQ(said[1], "http-me[i]reading the rest of the body");
}

TEST(MessageDone, ReadsTheRestOfAShortBody) {
  ScriptInput input("POST / HTTP/1.1\r\nContent-Length: 3\r\n\r\nabcGET");
  const RequestPtr request = incomingRequest(input.stream());
  ASSERT_NE(http_msgBody(&request->message), nullptr);
  EXPECT_EQ(http_msgDone(&request->message), 0);
  EXPECT_EQ(request->message.state, 3);
  EXPECT_EQ(request->message.body, nullptr);
  EXPECT_EQ(request->message.bodyCut, 0);
  EXPECT_EQ(input.rest(), "GET");
}

TEST(MessageDone, ReadsNothingOfABodyThatWasNotOpened) {
  ScriptInput input("POST / HTTP/1.1\r\nContent-Length: 3\r\n\r\nabcGET");
  const RequestPtr request = incomingRequest(input.stream());
  EXPECT_EQ(http_msgDone(&request->message), 0);
  EXPECT_EQ(request->message.state, 3);
  EXPECT_EQ(input.rest(), "abcGET");
}

TEST(MessageDone, WithoutStreamOrMode) {
  HttpMessage message{};
  EXPECT_EQ(http_msgDone(&message), 0);
  EXPECT_EQ(message.state, 3);
  message.state = 2;
  message.mode = HTTP_MSG_WRITING;
  EXPECT_EQ(http_msgDone(&message), 0);
  EXPECT_EQ(message.state, 3);
}

TEST(MessageDone, FailsWhenTheHeadCannotBeEnded) {
  for (const size_t at : {0u, 1u}) {
    ScriptOutput output;
    output.unbuffered().refuseAt(at, EPIPE);
    const ReplyPtr reply = outgoing(output.stream());
    TraceCapture trace;
    EXPECT_EQ(http_msgDone(&reply->message), -1);
    EXPECT_EQ(trace.said(), TraceLines({"http-me[x]unable to send message: Broken pipe"}));
    EXPECT_EQ(reply->message.state, 5);
  }
}

TEST(MessageDone, FailsWhenTheStreamCannotBeFlushed) {
  for (const int state : {1, 2, 3}) {
    ScriptOutput output;
    output.refuseAt(0, EPIPE);
    fputs("buffered", output.stream());
    const ReplyPtr reply = outgoing(output.stream());
    reply->message.state = state;
    TraceCapture trace;
    EXPECT_EQ(http_msgDone(&reply->message), -1);
    EXPECT_EQ(trace.said(), TraceLines({"http-me[x]unable to send request: Broken pipe"}));
    EXPECT_EQ(reply->message.state, 5);
  }
}

// --- reset, cleanup --------------------------------------------------------------------------------------------------

TEST(MessageReset, ClearsWhatBelongsToOneMessageAndKeepsTheRest) {
  char memory[4];
  MemoryOutput stream;
  HttpMessage message{};
  message.state = 5;
  message.buffer = memory;
  message.bufferSize = 1;
  message.stream = stream.stream();
  message.fill = 2;
  message.lineEnd = 3;
  message.lineStart = 4;
  message.headersEnd = 5;
  message.firstHeader = memory + 1;
  message.headersLimit = memory + 2;
  message.headerIter = memory + 3;
  message.type = 1;
  message.versionMajor = 6;
  message.versionMinor = 7;
  message.mode = 8;
  message.needMoreData = 9;
  message.body = stream.stream();
  message.bodyType = 10;
  message.owner = memory + 1;
  message.ownerType = 11;
  message.userData = memory + 2;
  message.peer = reinterpret_cast<ZelPeer*>(memory);

  EXPECT_EQ(http_msgReset(&message), &message);
  EXPECT_EQ(message.state, 0);
  EXPECT_EQ(message.fill, 0u);
  EXPECT_EQ(message.lineEnd, 0u);
  EXPECT_EQ(message.lineStart, 0u);
  EXPECT_EQ(message.headersEnd, 0u);
  EXPECT_EQ(message.firstHeader, nullptr);
  EXPECT_EQ(message.headersLimit, nullptr);
  EXPECT_EQ(message.versionMajor, 0);
  EXPECT_EQ(message.versionMinor, 0);
  EXPECT_EQ(message.body, nullptr);

  EXPECT_EQ(message.buffer, memory);
  EXPECT_EQ(message.bufferSize, 1u);
  EXPECT_EQ(message.stream, stream.stream());
  EXPECT_EQ(message.headerIter, memory + 3);
  EXPECT_EQ(message.type, 1);
  EXPECT_EQ(message.mode, 8);
  EXPECT_EQ(message.needMoreData, 9);
  EXPECT_EQ(message.bodyType, 10);
  EXPECT_EQ(message.owner, memory + 1);
  EXPECT_EQ(message.ownerType, 11);
  EXPECT_EQ(message.userData, memory + 2);
  EXPECT_EQ(message.peer, reinterpret_cast<ZelPeer*>(memory));
  EXPECT_GE(fputs("open", stream.stream()), 0) << "an open body is not closed";
}

TEST(MessageReset, EndsARunningIteration) {
  MemoryOutput output;
  const ReplyPtr reply = outgoing(output.stream());
  ASSERT_EQ(msg_setHeaderLine(&reply->message, "A: 1"), 0);
  ASSERT_EQ(msg_setHeaderLine(&reply->message, "B: 2"), 0);
  const char* name = nullptr;
  const char* value = nullptr;
  ASSERT_EQ(http_msgHeadersNext(&reply->message, &name, &value), 0);
  http_msgReset(&reply->message);
  EXPECT_EQ(http_msgHeadersNext(&reply->message, &name, &value), -1);
}

TEST(MessageReset, TheIterationOfTheNextMessageStartsAtItsFirstHeader) {
  ScriptInput input("GET / HTTP/1.1\r\nA: 1\r\nB: 2\r\n\r\nGET / HTTP/1.1\r\nX-Longer-Name: 3\r\nVia: 4\r\n\r\n");
  const RequestPtr request = incomingRequest(input.stream());
  const char* name = nullptr;
  const char* value = nullptr;
  ASSERT_EQ(http_msgHeadersNext(&request->message, &name, &value), 0);
  http_msgReset(&request->message);
  while (request->message.state < HTTP_MSG_BODY) ASSERT_EQ(http_msgParse(&request->message), 0);
  EXPECT_EQ(headersFromHere(&request->message), std::vector<std::string>({"X-Longer-Name=3", "Via=4"}));
}

// The line that is being read overwrites what the message before it handed out.
TEST(MessageReset, TheTextsOfTheMessageBeforeAreGoneWithTheNextRead) {
  ScriptInput input("GET /path?query HTTP/1.1\r\n\r\n");
  input.bytes("POST /").hold();
  const RequestPtr request = incomingRequest(input.stream());
  http_msgReset(&request->message);
  ASSERT_EQ(http_msgParse(&request->message), 0);
  EXPECT_EQ(http_requestPath(request.get()), nullptr);

  ScriptInput replies("HTTP/1.1 200 Fine\r\nContent-Length: 0\r\n\r\n");
  replies.bytes("HTTP/").hold();
  const ReplyPtr reply(http_replyCreate());
  http_msgModeSet(&reply->message, HTTP_MSG_READING);
  http_msgStreamSet(&reply->message, replies.stream());
  while (reply->message.state < HTTP_MSG_BODY) ASSERT_EQ(http_msgParse(&reply->message), 0);
  http_msgReset(&reply->message);
  ASSERT_EQ(http_msgParse(&reply->message), 0);
  EXPECT_EQ(reply->reason, nullptr);
}

TEST(MessageReset, ForgetsThatABodyWasCut) {
  HttpMessage message{};
  message.bodyCut = 1;
  http_msgReset(&message);
  EXPECT_EQ(message.bodyCut, 0);
}

TEST(MessageReset, AllowsAnotherMessageInTheSameBuffer) {
  ScriptInput input("GET /first HTTP/1.1\r\nHost: a\r\n\r\nHEAD /second HTTP/1.0\r\nVia: b\r\n\r\n");
  const RequestPtr request = incomingRequest(input.stream());
  const char* const buffer = request->message.buffer;
  http_msgReset(&request->message);
  while (request->message.state < HTTP_MSG_BODY) ASSERT_EQ(http_msgParse(&request->message), 0);
  EXPECT_EQ(request->message.buffer, buffer);
  EXPECT_EQ(request->message.bufferSize, 512u);
  EXPECT_STREQ(request->uri.path, "/second");
  EXPECT_EQ(headersOf(&request->message), std::vector<std::string>({"Via=b"}));
}

TEST(MessageCleanup, FreesTheBufferAndKeepsThePointer) {
  HttpMessage message{};
  message.buffer = static_cast<char*>(malloc(100));  // a leak unless it is freed
  const char* const buffer = message.buffer;
  message.peer = reinterpret_cast<ZelPeer*>(&message);
  http_msgCleanup(&message);
  EXPECT_EQ(message.buffer, buffer);
  EXPECT_EQ(message.body, nullptr);
  EXPECT_EQ(message.peer, nullptr);
}

TEST(MessageCleanup, ClosesABodyThatIsBeingTransferred) {
  ScriptOutput output;
  HttpReply reply{};
  http_replyInitialize(&reply);
  http_msgModeSet(&reply.message, HTTP_MSG_WRITING);
  http_msgStreamSet(&reply.message, output.stream());
  ASSERT_EQ(msg_setHeaderLine(&reply.message, "Transfer-Encoding: chunked"), 0);
  FILE* const body = http_msgBody(&reply.message);
  ASSERT_NE(body, nullptr);
  fputs("abc", body);
  http_msgCleanup(&reply.message);
  EXPECT_EQ(output.bytes(), "\r\n3\r\nabc\r\n0\r\n\r\n");
  EXPECT_EQ(reply.message.body, nullptr);
}

TEST(MessageCleanup, LeavesABodyThatIsCompleteToItsUser) {
  ScriptOutput output;
  HttpReply reply{};
  http_replyInitialize(&reply);
  http_msgModeSet(&reply.message, HTTP_MSG_WRITING);
  http_msgStreamSet(&reply.message, output.stream());
  ASSERT_EQ(msg_setHeaderLine(&reply.message, "Content-Length: 3"), 0);
  FILE* const body = http_msgBody(&reply.message);
  ASSERT_NE(body, nullptr);
  fputs("abc", body);
  fflush(body);
  ASSERT_EQ(reply.message.state, 3);
  http_msgCleanup(&reply.message);
  EXPECT_EQ(reply.message.body, nullptr);
  EXPECT_EQ(fclose(body), 0);
  EXPECT_EQ(output.bytes(), "\r\nabc");
}

TEST(MessageCleanup, OfAMessageWithoutAnything) {
  HttpMessage message{};
  http_msgCleanup(&message);
  EXPECT_EQ(message.buffer, nullptr);
}

TEST(MessageHasBodyNow, IsWhatTheHeadersCallFor) {
  const struct {
    const char* line;
    bool expected;
  } kRows[] = {{"Content-Length: 0", false},
               {"Content-Length: 1", true},
               {"Transfer-Encoding: chunked", true},
               {"Transfer-Encoding: gzip", true},
               {"Host: x", true}};
  for (const auto& row : kRows) {
    MemoryOutput output;
    const ReplyPtr reply = outgoing(output.stream());
    ASSERT_EQ(msg_setHeaderLine(&reply->message, "%s", row.line), 0);
    const TraceCapture trace;
    EXPECT_EQ(http_msgHasBody(&reply->message), row.expected) << row.line;
  }
  const RequestPtr request(http_requestCreate());
  request->method = HTTP_METHOD_GET;
  EXPECT_FALSE(http_msgHasBody(&request->message));
}

// --- what would begin another header, or another message -------------------------------------------------------------

struct SplitCase {
  const char* name;
  std::function<int(HttpReply*)> set;
};
void PrintTo(const SplitCase& row, std::ostream* out) { *out << row.name; }

std::function<int(HttpReply*)> value(std::string text) {
  return [text](HttpReply* reply) { return http_replyHeaderValueSet(reply, "X", "%s", text.c_str()); };
}
std::function<int(HttpReply*)> name(std::string text) {
  return [text](HttpReply* reply) { return http_replyHeaderValueSet(reply, text.c_str(), "%s", "x"); };
}
std::function<int(HttpReply*)> line(std::string text) {
  return [text](HttpReply* reply) { return msg_setHeaderLine(&reply->message, "%s", text.c_str()); };
}
std::function<int(HttpReply*)> reason(std::string text) {
  return [text](HttpReply* reply) { return http_replyStatusCodeSet(reply, 200, text.c_str()); };
}
int setCookie(HttpReply* reply) {
  HttpHeader header{};
  http_hdrSetCookieInitialize(&header);
  EXPECT_EQ(http_cookieSet(&header, "a", "b\r\nX: y", "/", 0), 0);
  const int result = http_replyHeaderSet(reply, &header);
  http_hdrCleanup(&header);
  return result;
}

const SplitCase kSplits[] = {{"ValueWithAnotherHeader", value("x\r\nSet-Cookie: a=b")},
                             {"ValueWithABody", value("x\r\n\r\n<html>")},
                             {"ValueWithALineFeed", value("x\nY: z")},
                             {"ValueWithAReturn", value("x\rY: z")},
                             {"ValueThatEndsInALineFeed", value("x\n")},
                             {"ValueThatEndsInAReturn", value("x\r")},
                             {"ValueThatBeginsWithALineEnd", value("\r\nY: z")},
                             {"NameWithAnotherHeader", name("X: y\r\nSet-Cookie")},
                             {"NameWithALineFeed", name("X\nY")},
                             {"NameWithAReturn", name("X\rY")},
                             {"NameThatIsKnown", name("Location\r\nX")},
                             {"LineWithAnotherHeader", line("X: y\r\nSet-Cookie: a=b")},
                             {"LineThatEnds", line("X: y\r\n")},
                             {"ReasonWithAHeader", reason("OK\r\nSet-Cookie: a=b")},
                             {"ReasonWithALineFeed", reason("OK\nX: y")},
                             {"ReasonWithAReturn", reason("OK\rX: y")},
                             {"Cookie", setCookie}};
class SplitTest : public ::testing::TestWithParam<SplitCase> {};
INSTANTIATE_TEST_SUITE_P(Message, SplitTest, ::testing::ValuesIn(kSplits),
                         [](const auto& row) { return row.param.name; });

TEST_P(SplitTest, IsNotSet) {
  MemoryOutput output;
  const ReplyPtr reply = outgoing(output.stream());
  ASSERT_EQ(http_replyHeaderValueSet(reply.get(), "First", "%s", "1"), 0);
  TraceCapture trace;
  EXPECT_EQ(GetParam().set(reply.get()), -1);
  EXPECT_EQ(trace.errors().at(0), "http-me[x]a line end in what is to be sent");
  ASSERT_EQ(http_replyHeaderValueSet(reply.get(), "Last", "%s", "2"), 0);
  ASSERT_EQ(http_replySend(reply.get()), 0);
  EXPECT_EQ(output.text(), "HTTP/1.1 200 OK\r\nFirst: 1\r\nLast: 2\r\n\r\n");
}

}  // namespace
