#include <gtest/gtest.h>
#include <krohttp/body.h>
#include <krohttp/message.h>
#include <krohttp/reply.h>

#include <cerrno>
#include <climits>
#include <cstdio>
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

// A reply to be written to this stream.
ReplyPtr outgoing(FILE* stream) {
  ReplyPtr reply(http_replyCreate());
  http_replyModeSet(reply.get(), HTTP_MSG_WRITING);
  http_replyStreamSet(reply.get(), stream);
  http_replyVersionSet(reply.get(), 1, 1);
  return reply;
}

// A reply whose head has been read from this stream.
ReplyPtr incoming(FILE* stream) {
  ReplyPtr reply(http_replyCreate());
  http_replyModeSet(reply.get(), HTTP_MSG_READING);
  http_replyStreamSet(reply.get(), stream);
  while (http_replyState(reply.get()) < HTTP_MSG_BODY) {
    if (http_replyParse(reply.get()) != 0 || http_replyNeedMoreData(reply.get()) != 0) {
      ADD_FAILURE() << "no complete head";
      break;
    }
  }
  return reply;
}

std::vector<std::string> headersOf(HttpReply* reply) {
  std::vector<std::string> headers;
  const char* name = nullptr;
  const char* value = nullptr;
  http_replyHeadersReset(reply);
  while (headers.size() < 10000 && http_replyHeadersNext(reply, &name, &value) == 0) {
    headers.push_back(std::string(name) + "=" + value);
  }
  return headers;
}

std::string chunk(const std::string& text) {
  char size[16];
  snprintf(size, sizeof size, "%zX\r\n", text.size());
  return size + text + "\r\n";
}

// --- lifecycle -------------------------------------------------------------------------------------------------------

TEST(ReplyLifecycle, CreateGivesAnEmptyReply) {
  const ReplyPtr reply(http_replyCreate());
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->message.type, HTTP_MSG_REPLY);
  reply->message.type = 0;
  const HttpReply empty{};
  EXPECT_EQ(std::memcmp(reply.get(), &empty, sizeof empty), 0) << "everything else is zeroed";
}

TEST(ReplyLifecycle, InitializeMakesAnyMessageAReply) {
  HttpReply reply{};
  reply.statusCode = 7;
  http_replyInitialize(&reply);
  EXPECT_EQ(reply.message.type, HTTP_MSG_REPLY);
  EXPECT_EQ(reply.statusCode, 7u) << "nothing else is touched";
}

TEST(ReplyLifecycle, CleanupReleasesTheMessage) {
  HttpReply reply{};
  http_replyInitialize(&reply);
  http_replyVersionSet(&reply, 1, 1);
  reply.message.peer = reinterpret_cast<ZelPeer*>(&reply);
  ASSERT_EQ(http_replyStatusCodeSet(&reply, 200, nullptr), 0);
  http_replyCleanup(&reply);
  EXPECT_EQ(reply.message.peer, nullptr);
}

TEST(ReplyLifecycle, ResetIsForTheNextReplyOfTheConnection) {
  ScriptInput input(
      "HTTP/1.1 404 Gone Missing\r\nContent-Length: 0\r\n\r\nHTTP/1.0 200 Fine\r\nContent-Length: 0\r\nVia: y\r\n\r\n");
  const ReplyPtr reply = incoming(input.stream());
  EXPECT_STREQ(reply->reason, "Gone Missing");
  http_replyReset(reply.get());
  EXPECT_EQ(http_replyState(reply.get()), 0);
  EXPECT_EQ(http_replyStream(reply.get()), input.stream());
  while (http_replyState(reply.get()) < HTTP_MSG_BODY) ASSERT_EQ(http_replyParse(reply.get()), 0);
  EXPECT_EQ(http_replyStatusCode(reply.get()), 200u);
  EXPECT_STREQ(reply->reason, "Fine");
  EXPECT_EQ(headersOf(reply.get()), std::vector<std::string>({"Content-Length=0", "Via=y"}));
}

TEST(ReplyLifecycle, ResetAllowsAnotherStatus) {
  ScriptOutput output;
  const ReplyPtr reply = outgoing(output.stream());
  ASSERT_EQ(http_replyStatusCodeSet(reply.get(), 200, "First Reason That Is Long"), 0);
  ASSERT_EQ(http_replyHeaderValueSet(reply.get(), "Host", "x"), 0);
  ASSERT_EQ(http_replySend(reply.get()), 0);
  output.clear();
  http_replyReset(reply.get());
  http_replyVersionSet(reply.get(), 1, 0);
  ASSERT_EQ(http_replyStatusCodeSet(reply.get(), 404, nullptr), 0);
  ASSERT_EQ(http_replySend(reply.get()), 0);
  EXPECT_EQ(output.bytes(), "HTTP/1.0 404 Not Found\r\n\r\n");
}

TEST(ReplyLifecycle, DestroyTakesNothingToo) { http_replyDestroy(nullptr); }

// --- the status line -------------------------------------------------------------------------------------------------

struct StatusCase {
  const char* name;
  unsigned code;
  const char* given;
  const char* reason;
};
void PrintTo(const StatusCase& row, std::ostream* out) { *out << row.name; }

class ReplyStatus : public ::testing::TestWithParam<StatusCase> {};

TEST_P(ReplyStatus, IsSetAndSent) {
  const StatusCase& row = GetParam();
  ScriptOutput output;
  const ReplyPtr reply = outgoing(output.stream());
  ASSERT_EQ(http_replyStatusCodeSet(reply.get(), row.code, row.given), 0);
  EXPECT_EQ(http_replyState(reply.get()), 1);
  EXPECT_EQ(http_replyStatusCode(reply.get()), row.code);
  EXPECT_STREQ(reply->reason, row.reason);
  ASSERT_EQ(http_replySend(reply.get()), 0);
  EXPECT_EQ(http_replyState(reply.get()), 2);
  EXPECT_EQ(output.bytes(), "HTTP/1.1 " + std::to_string(row.code) + " " + row.reason + "\r\n\r\n");
}

INSTANTIATE_TEST_SUITE_P(
    Table, ReplyStatus,
    ::testing::Values(
        StatusCase{"Standard", 200, nullptr, "OK"}, StatusCase{"StandardOfTwoWords", 404, nullptr, "Not Found"},
        StatusCase{"StandardAsItIsSpelled", 415, nullptr, "Unnsuported Media Type"},
        StatusCase{"First", 100, nullptr, "Continue"}, StatusCase{"Last", 505, nullptr, "HTTP Version Not Supported"},
        StatusCase{"WithoutPhrase", 306, nullptr, "Unknown"},
        StatusCase{"BehindTheFirstClass", 199, nullptr, "Unknown"},
        StatusCase{"TooManyRequests", 429, nullptr, "Unknown"},
        StatusCase{"HeaderFieldsTooLarge", 431, nullptr, "Unknown"},
        StatusCase{"LegalReasons", 451, nullptr, "Unknown"}, StatusCase{"BehindTheLastClass", 599, nullptr, "Unknown"},
        StatusCase{"OfANeighbour", 418, nullptr, "Internal Server Error"},
        StatusCase{"OfNoClass", 600, nullptr, "Continue"}, StatusCase{"OwnReason", 200, "Fine By Me", "Fine By Me"},
        StatusCase{"OwnReasonWithoutPhrase", 429, "Too Many", "Too Many"}, StatusCase{"EmptyReason", 200, "", ""},
        StatusCase{"ReasonIsNoFormat", 200, "100%s %n", "100%s %n"}, StatusCase{"LongCode", 12345, "Odd", "Odd"}),
    [](const auto& row) { return row.param.name; });

TEST(ReplyStatusCodeSet, ReasonsOfEveryLength) {
  for (size_t length = 0; length < 1100; length += length < 280 || length > 480 ? 1 : 13) {
    SCOPED_TRACE(length);
    const std::string reason(length, 'r');
    for (const bool behindHeaders : {false, true}) {
      ScriptOutput output;
      const ReplyPtr reply = outgoing(output.stream());
      if (behindHeaders) {
        ASSERT_EQ(http_replyHeaderValueSet(reply.get(), "A", "1"), 0);
      }
      ASSERT_EQ(http_replyStatusCodeSet(reply.get(), 200, reason.c_str()), 0);
      ASSERT_EQ(http_replyHeaderValueSet(reply.get(), "B", "2"), 0);
      EXPECT_EQ(reply->reason, reason);
      ASSERT_EQ(http_replySend(reply.get()), 0);
      EXPECT_EQ(output.bytes(), "HTTP/1.1 200 " + reason + (behindHeaders ? "\r\nA: 1" : "") + "\r\nB: 2\r\n\r\n");
    }
  }
}

TEST(ReplyStatusCodeSet, NumbersOfEveryLength) {
  for (const unsigned code : {1u, 10u, 99u, 100u, 1000u, 65536u, 2147483647u}) {
    for (const uint8_t version : {uint8_t{1}, uint8_t{10}, uint8_t{255}}) {
      ScriptOutput output;
      const ReplyPtr reply = outgoing(output.stream());
      http_replyVersionSet(reply.get(), version, static_cast<uint8_t>(version - 1));
      ASSERT_EQ(http_replyStatusCodeSet(reply.get(), code, "R"), 0);
      ASSERT_EQ(http_replySend(reply.get()), 0);
      EXPECT_EQ(output.bytes(), "HTTP/" + std::to_string(version) + "." + std::to_string(version - 1) + " " +
                                    std::to_string(code) + " R\r\n\r\n");
    }
  }
}

TEST(ReplyStatusCodeSet, UsesTheVersion) {
  ScriptOutput output;
  const ReplyPtr reply = outgoing(output.stream());
  http_replyVersionSet(reply.get(), 1, 0);
  ASSERT_EQ(http_replyStatusCodeSet(reply.get(), 200, nullptr), 0);
  ASSERT_EQ(http_replySend(reply.get()), 0);
  EXPECT_EQ(output.bytes(), "HTTP/1.0 200 OK\r\n\r\n");
}

TEST(ReplyStatusCodeSet, NeedsTheVersion) {
  MemoryOutput output;
  const ReplyPtr reply = outgoing(output.stream());
  http_replyVersionSet(reply.get(), 0, 0);
  TraceCapture trace;
  EXPECT_EQ(http_replyStatusCodeSet(reply.get(), 200, nullptr), -1);
  const TraceLines said = trace.said();
  ASSERT_EQ(said.size(), 3u);
  EXPECT_TRUE(said[0].starts_with("http-me[x]unable to parse http version HTTP/0")) << said[0];
  EXPECT_EQ(said[1], "http-me[x]unable to add status line");
  EXPECT_EQ(said[2], "http-re[x]unable to set status line");
  EXPECT_EQ(http_replyState(reply.get()), 5);
}

TEST(ReplyStatusCodeSet, TwiceReplacesTheLine) {
  ScriptOutput output;
  const ReplyPtr reply = outgoing(output.stream());
  ASSERT_EQ(http_replyStatusCodeSet(reply.get(), 200, "A Very Long First Reason"), 0);
  ASSERT_EQ(http_replyStatusCodeSet(reply.get(), 404, nullptr), 0);
  ASSERT_EQ(http_replyHeaderValueSet(reply.get(), "Server", "kro"), 0);
  ASSERT_EQ(http_replyStatusCodeSet(reply.get(), 500, nullptr), 0);
  ASSERT_EQ(http_replyHeaderValueSet(reply.get(), "Via", "y"), 0);
  EXPECT_EQ(http_replyState(reply.get()), 1);
  EXPECT_EQ(http_replyStatusCode(reply.get()), 500u);
  ASSERT_EQ(http_replySend(reply.get()), 0);
  EXPECT_EQ(output.bytes(), "HTTP/1.1 500 Internal Server Error\r\nServer: kro\r\nVia: y\r\n\r\n");
}

TEST(ReplyStatusCodeSet, BehindHeaders) {
  ScriptOutput output;
  const ReplyPtr reply = outgoing(output.stream());
  ASSERT_EQ(http_replyHeaderValueSet(reply.get(), "Server", "kro"), 0);
  ASSERT_EQ(http_replyHeaderValueSet(reply.get(), "X-Thing", "a b"), 0);
  ASSERT_EQ(http_replyStatusCodeSet(reply.get(), 204, nullptr), 0);
  ASSERT_EQ(http_replySend(reply.get()), 0);
  EXPECT_EQ(output.bytes(), "HTTP/1.1 204 No Content\r\nServer: kro\r\nX-Thing: a b\r\n\r\n");
}

TEST(ReplyStatusCodeSet, TakesTheReplysOwnReason) {
  ScriptOutput output;
  const ReplyPtr reply = outgoing(output.stream());
  ASSERT_EQ(http_replyStatusCodeSet(reply.get(), 200, "Mine Alone"), 0);
  ASSERT_EQ(http_replyStatusCodeSet(reply.get(), 201, reply->reason), 0);
  ASSERT_EQ(http_replySend(reply.get()), 0);
  EXPECT_EQ(output.bytes(), "HTTP/1.1 201 Mine Alone\r\n\r\n");
}

// --- sending ---------------------------------------------------------------------------------------------------------

TEST(ReplySend, IsTraced) {
  MemoryOutput output;
  const ReplyPtr reply = outgoing(output.stream());
  ASSERT_EQ(http_replyStatusCodeSet(reply.get(), 200, nullptr), 0);
  TraceCapture trace{"http-reply"};
  ASSERT_EQ(http_replySend(reply.get()), 0);
  EXPECT_EQ(trace.said(), TraceLines({"http-re[i]sending reply"}));
}

TEST(ReplySend, FailsWhereverTheStreamDoes) {
  const std::string first = "HTTP/1.1 200 OK\r\n";
  const std::string wire = first + "Host: x\r\n\r\n";
  for (const bool buffered : {false, true}) {
    for (size_t at = 0; at < wire.size(); ++at) {
      SCOPED_TRACE(std::to_string(at) + (buffered ? " buffered" : ""));
      ScriptOutput output;
      output.refuseAt(at, EPIPE);
      if (!buffered) output.unbuffered();
      const ReplyPtr reply = outgoing(output.stream());
      ASSERT_EQ(http_replyStatusCodeSet(reply.get(), 200, nullptr), 0);
      ASSERT_EQ(http_replyHeaderValueSet(reply.get(), "Host", "x"), 0);
      TraceCapture trace;
      EXPECT_EQ(http_replySend(reply.get()), -1);
      if (buffered) {
        EXPECT_EQ(trace.said(), TraceLines({"http-me[x]unable to send message: Broken pipe",
                                            "http-re[x]unable to send reply headers"}));
      } else if (at < first.size()) {
        EXPECT_EQ(trace.said(), TraceLines({"http-re[x]unable to send reply status line"}));
      } else {
        EXPECT_EQ(trace.said(), TraceLines({"http-me[x]unable to send message headers: Broken pipe",
                                            "http-re[x]unable to send reply headers"}));
      }
      EXPECT_EQ(http_replyState(reply.get()), 5);
      EXPECT_EQ(output.bytes(), wire.substr(0, at));
    }
  }
}

TEST(ReplySend, WithABody) {
  const struct {
    const char* name;
    const char* value;
    const char* wire;
  } kRows[] = {{"Content-Length", "5", "Content-Length: 5\r\n\r\nhello"},
               {"Transfer-Encoding", "chunked", "Transfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n"},
               {"X", "y", "X: y\r\n\r\nhello"}};
  for (const auto& row : kRows) {
    for (const bool closed : {false, true}) {
      ScriptOutput output;
      const ReplyPtr reply = outgoing(output.stream());
      ASSERT_EQ(http_replyStatusCodeSet(reply.get(), 200, nullptr), 0);
      ASSERT_EQ(http_replyHeaderValueSet(reply.get(), row.name, "%s", row.value), 0);
      ASSERT_EQ(http_replySend(reply.get()), 0);
      FILE* const body = http_replyBody(reply.get());
      ASSERT_NE(body, nullptr);
      EXPECT_EQ(http_replyBody(reply.get()), body);
      EXPECT_EQ(fputs("hello", body), 1);
      if (closed) {
        EXPECT_EQ(fclose(body), 0);
      }
      EXPECT_EQ(http_replyDone(reply.get()), 0);
      EXPECT_EQ(http_replyState(reply.get()), 3);
      EXPECT_EQ(output.bytes(), "HTTP/1.1 200 OK\r\n"s + row.wire);
    }
  }
}

// --- canned replies --------------------------------------------------------------------------------------------------

const std::string kCannedHeaders = "TE: chunked\r\nTransfer-Encoding: chunked\r\nContent-Type: text/html\r\n";

std::string headline(unsigned code, const std::string& phrase) {
  return "<html><head><title>" + phrase + "</title></head><body><h1>" + std::to_string(code) + " - " + phrase + "</h1>";
}

struct CannedCase {
  const char* name;
  std::function<int(HttpReply*)> send;
  std::string wire;
};
void PrintTo(const CannedCase& row, std::ostream* out) { *out << row.name; }

class ReplyCanned : public ::testing::TestWithParam<CannedCase> {};

TEST_P(ReplyCanned, IsSentWhole) {
  const CannedCase& row = GetParam();
  ScriptOutput output;
  const ReplyPtr reply = outgoing(output.stream());
  TraceCapture trace;
  EXPECT_EQ(row.send(reply.get()), 0);
  EXPECT_EQ(output.bytes(), row.wire);
  EXPECT_EQ(http_replyState(reply.get()), 3);
  EXPECT_EQ(reply->message.body, nullptr);
  EXPECT_EQ(trace.said(), TraceLines());
}

// What fails before the body is refused; later failures may be hidden by what stdio holds.
TEST_P(ReplyCanned, FailsWhereverTheStreamDoes) {
  const CannedCase& row = GetParam();
  const size_t head = row.wire.find("\r\n\r\n") + 4;
  for (const int error : {EAGAIN, EPIPE}) {
    for (size_t at = 0; at < row.wire.size(); ++at) {
      SCOPED_TRACE(at);
      ScriptOutput output;
      output.unbuffered().refuseAt(at, error);
      const ReplyPtr reply = outgoing(output.stream());
      TraceCapture trace;
      const int result = row.send(reply.get());
      EXPECT_EQ(output.bytes(), row.wire.substr(0, at));
      if (at < head) {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(http_replyState(reply.get()), 5);
        EXPECT_EQ(trace.errors().back(), "http-re[x]unable to send status code");
      }
      EXPECT_EQ(reply->message.body, nullptr);
    }
  }
}

std::string defaultPage(unsigned code, const std::string& phrase) {
  return "HTTP/1.1 " + std::to_string(code) + " " + phrase + "\r\n" + kCannedHeaders + "\r\n" +
         chunk(headline(code, phrase) + "</body></html>\n") + "0\r\n\r\n";
}

CannedCase defaultCase(const char* name, unsigned code, const std::string& phrase) {
  return {name, [code](HttpReply* reply) { return http_replyWithDefault(reply, code); }, defaultPage(code, phrase)};
}

INSTANTIATE_TEST_SUITE_P(
    Default, ReplyCanned,
    ::testing::Values(CannedCase{"NotFoundLiterally",
                                 [](HttpReply* reply) { return http_replyWithDefault(reply, 404); },
                                 "HTTP/1.1 404 Not Found\r\n"
                                 "TE: chunked\r\n"
                                 "Transfer-Encoding: chunked\r\n"
                                 "Content-Type: text/html\r\n"
                                 "\r\n"
                                 "58\r\n"
                                 "<html><head><title>Not Found</title></head>"
                                 "<body><h1>404 - Not Found</h1></body></html>\n\r\n"
                                 "0\r\n"
                                 "\r\n"},
                      defaultCase("Ok", 200, "OK"), defaultCase("MediaType", 415, "Unnsuported Media Type"),
                      defaultCase("ServerError", 500, "Internal Server Error"),
                      defaultCase("WithoutPhrase", 306, "Unknown"), defaultCase("BehindTheTable", 199, "Unknown"),
                      defaultCase("TooManyRequests", 429, "Unknown"), defaultCase("FieldsTooLarge", 431, "Unknown"),
                      defaultCase("LegalReasons", 451, "Unknown")),
    [](const auto& row) { return row.param.name; });

INSTANTIATE_TEST_SUITE_P(
    WithBody, ReplyCanned,
    ::testing::Values(
        CannedCase{
            "Formatted",
            [](HttpReply* reply) { return http_replyWithDefaultAndBody(reply, 403, "<p>%s %d%%</p>", "not%s", 7); },
            "HTTP/1.1 403 Forbidden\r\n" + kCannedHeaders + "\r\n" +
                chunk(headline(403, "Forbidden") + "<p>not%s 7%</p></body></html>\n") + "0\r\n\r\n"},
        CannedCase{"Empty", [](HttpReply* reply) { return http_replyWithDefaultAndBody(reply, 403, "%s", ""); },
                   "HTTP/1.1 403 Forbidden\r\n" + kCannedHeaders + "\r\n" +
                       chunk(headline(403, "Forbidden") + "</body></html>\n") + "0\r\n\r\n"},
        CannedCase{"WithoutPhrase",
                   [](HttpReply* reply) { return http_replyWithDefaultAndBody(reply, 429, "<p>%u</p>", 3u); },
                   "HTTP/1.1 429 Unknown\r\n" + kCannedHeaders + "\r\n" +
                       chunk(headline(429, "Unknown") + "<p>3</p></body></html>\n") + "0\r\n\r\n"}),
    [](const auto& row) { return row.param.name; });

std::string redirectPage(unsigned code, const std::string& phrase, const std::string& header,
                         const std::string& location) {
  return "HTTP/1.1 " + std::to_string(code) + " " + phrase + "\r\n" + kCannedHeaders + "Location: " + header +
         "\r\nCache-Control: no-cache\r\n\r\n" +
         chunk(headline(code, phrase) + "<p>This page has moved to <a href=\"" + location + "\">" + location +
               "</a></body></html>\n") +
         "0\r\n\r\n";
}

CannedCase redirectCase(const char* name, const std::string& location, const std::string& header) {
  return {name, [location](HttpReply* reply) { return http_replyWithRedirect(reply, 302, "%s", location.c_str()); },
          redirectPage(302, "Found", header, location)};
}

INSTANTIATE_TEST_SUITE_P(
    Redirect, ReplyCanned,
    ::testing::Values(
        CannedCase{"FoundLiterally",
                   [](HttpReply* reply) { return http_replyWithRedirect(reply, 302, "/login?x=%d", 1); },
                   "HTTP/1.1 302 Found\r\n"
                   "TE: chunked\r\n"
                   "Transfer-Encoding: chunked\r\n"
                   "Content-Type: text/html\r\n"
                   "Location: /login?x=1\r\n"
                   "Cache-Control: no-cache\r\n"
                   "\r\n"
                   "8D\r\n"
                   "<html><head><title>Found</title></head><body><h1>302 - Found</h1>"
                   "<p>This page has moved to <a href=\"/login?x=1\">/login?x=1</a></body></html>\n\r\n"
                   "0\r\n"
                   "\r\n"},
        CannedCase{"WithoutPhrase", [](HttpReply* reply) { return http_replyWithRedirect(reply, 306, "/a"); },
                   redirectPage(306, "Unknown", "/a", "/a")},
        redirectCase("PercentTwice", "/a%%b", "/a%b"), redirectCase("PercentFourTimes", "/%%%%b", "/%%b"),
        redirectCase("Escaped", "/a%20b", "/a%20b"), redirectCase("EscapedSlash", "/a%2Fb%2fc", "/a%2Fb%2fc"),
        redirectCase("Text", "/%s", "/%s"), redirectCase("Count", "/%n%hhn", "/%n%hhn"),
        redirectCase("Width", "/%*d", "/%*d"), redirectCase("Precision", "/%.*f", "/%.*f"),
        redirectCase("HugeWidth", "/%2000000000d", "/%2000000000d"), redirectCase("Trailing", "/100%", "/100%"),
        redirectCase("TrailingWidth", "/100%5", "/100%5"), redirectCase("TrailingFlag", "/100%-", "/100%-"),
        redirectCase("TwiceAndText", "/%%%s", "/%%s"), redirectCase("TextAndTwice", "/%s%%", "/%s%"),
        redirectCase("ManyOfAll", "/%d%x%p%c%%%ld%lld%zu%e%", "/%d%x%p%c%%ld%lld%zu%e%"),
        redirectCase("Long", "/" + std::string(3000, 'l') + "%%", "/" + std::string(3000, 'l') + "%")),
    [](const auto& row) { return row.param.name; });

TEST(ReplyCannedParts, MessageAndBody) {
  ScriptOutput output;
  const ReplyPtr reply = outgoing(output.stream());
  EXPECT_EQ(rp_messageWithDefault(reply.get(), 404), 0);
  EXPECT_EQ(http_replyStatusCode(reply.get()), 404u);
  EXPECT_EQ(headersOf(reply.get()),
            std::vector<std::string>({"TE=chunked", "Transfer-Encoding=chunked", "Content-Type=text/html"}));
  EXPECT_EQ(http_replySend(reply.get()), 0);
  output.clear();
  EXPECT_EQ(rp_bodyWithDefault(reply.get(), 404), 0);
  EXPECT_EQ(output.bytes(), chunk(headline(404, "Not Found") + "</body></html>\n") + "0\r\n\r\n");
  EXPECT_EQ(http_replyState(reply.get()), 3);
}

TEST(ReplyCannedReplies, ComeBehindHeadersThatWereSetBefore) {
  ScriptOutput output;
  const ReplyPtr reply = outgoing(output.stream());
  ASSERT_EQ(http_replyHeaderValueSet(reply.get(), "Server", "kro"), 0);
  ASSERT_EQ(http_replyStatusCodeSet(reply.get(), 200, "Never Sent"), 0);
  EXPECT_EQ(http_replyWithDefault(reply.get(), 404), 0);
  EXPECT_TRUE(output.bytes().starts_with("HTTP/1.1 404 Not Found\r\nServer: kro\r\n" + kCannedHeaders + "\r\n58\r\n"))
      << output.bytes();
}

TEST(ReplyCannedReplies, TakeTheVersion) {
  ScriptOutput output;
  const ReplyPtr reply = outgoing(output.stream());
  http_replyVersionSet(reply.get(), 1, 0);
  EXPECT_EQ(http_replyWithDefault(reply.get(), 404), 0);
  EXPECT_TRUE(output.bytes().starts_with("HTTP/1.0 404 Not Found\r\n" + kCannedHeaders)) << output.bytes();
}

struct CannedFailure {
  const char* name;
  std::function<int(HttpReply*)> send;
  TraceLines withoutMessage;  // what is said last when the head cannot be made
  TraceLines withoutBody;     // ... when the body cannot be opened
};

const CannedFailure kCanned[] = {
    {"default",
     [](HttpReply* reply) { return http_replyWithDefault(reply, 404); },
     {"http-re[x]unable to set status line", "http-re[x]unable to send status code",
      "http-re[x]unable to send default reply message"},
     {"http-re[x]unable to send status code", "http-re[x]unable to send reply body"}},
    {"default and body",
     [](HttpReply* reply) { return http_replyWithDefaultAndBody(reply, 404, "x"); },
     {"http-re[x]unable to set status line", "http-re[x]unable to send status code",
      "http-re[x]unable to send default reply message"},
     {"http-re[x]unable to send status code"}},
    {"redirect",
     [](HttpReply* reply) { return http_replyWithRedirect(reply, 302, "/x"); },
     {"http-re[x]unable to set status line", "http-re[x]unable to send status code",
      "http-re[x]unable to send default reply message"},
     {"http-re[x]unable to receive reply"}},
};

void expectEndsWith(TraceLines said, const TraceLines& expected) {
  ASSERT_GE(said.size(), expected.size());
  said.erase(said.begin(), said.end() - static_cast<ptrdiff_t>(expected.size()));
  EXPECT_EQ(said, expected);
}

TEST(ReplyCannedReplies, FailWithoutAVersion) {
  for (const CannedFailure& row : kCanned) {
    SCOPED_TRACE(row.name);
    ScriptOutput output;
    const ReplyPtr reply = outgoing(output.stream());
    http_replyVersionSet(reply.get(), 0, 0);
    TraceCapture trace;
    EXPECT_EQ(row.send(reply.get()), -1);
    expectEndsWith(trace.said(), row.withoutMessage);
    fflush(output.stream());
    EXPECT_EQ(output.bytes(), "");
  }
}

TEST(ReplyCannedReplies, FailWhenTheirBodyCannotBeOpened) {
  for (const char* const header : {"Transfer-Encoding: gzip", "Content-Length: 0"}) {
    for (const CannedFailure& row : kCanned) {
      SCOPED_TRACE(row.name + " "s + header);
      ScriptOutput output;
      const ReplyPtr reply = outgoing(output.stream());
      ASSERT_EQ(msg_setHeaderLine(&reply->message, "%s", header), 0);
      TraceCapture trace;
      EXPECT_EQ(row.send(reply.get()), -1);
      expectEndsWith(trace.said(), row.withoutBody);
      EXPECT_TRUE(output.bytes().ends_with("\r\n\r\n"));
    }
  }
}

// Its page is closed by the call itself, whose result tells.
TEST(ReplyCannedReplies, WithABodyFailWhereverTheStreamDoes) {
  const std::string wire = "HTTP/1.1 404 Not Found\r\n" + kCannedHeaders + "\r\n" +
                           chunk(headline(404, "Not Found") + "x</body></html>\n") + "0\r\n\r\n";
  const size_t lastChunk = wire.size() - 5;
  for (const int error : {EAGAIN, EPIPE}) {
    for (size_t at = 0; at < wire.size(); ++at) {
      SCOPED_TRACE(at);
      ScriptOutput output;
      output.unbuffered().refuseAt(at, error);
      const ReplyPtr reply = outgoing(output.stream());
      TraceCapture trace;
      const int result = http_replyWithDefaultAndBody(reply.get(), 404, "x");
      EXPECT_FALSE(trace.errors().empty());
      EXPECT_EQ(reply->message.body, nullptr);
      EXPECT_EQ(output.bytes(), wire.substr(0, at));
      const bool inChunkEnd = at >= lastChunk - 2 && at < lastChunk;  // the data counts as written
      if (!inChunkEnd) {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(trace.errors().back(), "http-re[x]unable to send status code");
      }
    }
  }
}

// A page that is longer than what stdio holds fails in the middle of its writing.
TEST(ReplyCannedReplies, WithALongPageFailWithTheStream) {
  const std::string text = "/" + std::string(20000, 'l');
  for (const bool isRedirect : {false, true}) {
    SCOPED_TRACE(isRedirect);
    const auto send = [&](HttpReply* reply) {
      return isRedirect ? http_replyWithRedirect(reply, 302, "%s", text.c_str())
                        : http_replyWithDefaultAndBody(reply, 302, "%s", text.c_str());
    };
    ScriptOutput whole;
    EXPECT_EQ(send(outgoing(whole.stream()).get()), 0);
    const size_t head = whole.bytes().find("\r\n\r\n") + 4;
    for (const size_t at : {head, head + 3, head + 5000, head + 8192}) {
      SCOPED_TRACE(at);
      ScriptOutput output;
      output.unbuffered().refuseAt(at, EPIPE);
      const ReplyPtr reply = outgoing(output.stream());
      TraceCapture trace;
      EXPECT_EQ(send(reply.get()), -1);
      EXPECT_EQ(trace.errors().back(), "http-re[x]unable to send status code");
      EXPECT_EQ(reply->message.body, nullptr);
      EXPECT_EQ(output.bytes(), whole.bytes().substr(0, at));
    }
  }
}

TEST(ReplyRedirect, WithoutALocationIsRefused) {
  ScriptOutput output;
  const ReplyPtr reply = outgoing(output.stream());
  TraceCapture trace;
  EXPECT_EQ(http_replyWithRedirect(reply.get(), 302, "%s", ""), -1);
  EXPECT_EQ(trace.errors().back(), "http-re[x]unable to set header");
  fflush(output.stream());
  EXPECT_EQ(output.bytes(), "");
}

TEST(ReplyRedirect, ThatCannotBeFormattedIsRefused) {
  ScriptOutput output;
  const ReplyPtr reply = outgoing(output.stream());
  TraceCapture trace;
  EXPECT_EQ(http_replyWithRedirect(reply.get(), 302, "/%ls", L"\x7fffffff"), -1);
  EXPECT_EQ(trace.said(), TraceLines({"http-re[x]unable to create location string: Invalid or incomplete multibyte or "
                                      "wide character"}));
  EXPECT_EQ(http_replyState(reply.get()), 0);
}

// --- copying ---------------------------------------------------------------------------------------------------------

struct CopyCase {
  const char* name;
  std::string head;
  std::string wire;
};
void PrintTo(const CopyCase& row, std::ostream* out) { *out << row.name; }

class ReplyCopy : public ::testing::TestWithParam<CopyCase> {};

TEST_P(ReplyCopy, TakesStatusAndHeaders) {
  const CopyCase& row = GetParam();
  for (const int steps : {0, 1, 2}) {
    ScriptInput input(row.head + "\r\n");
    ScriptOutput output;
    const ReplyPtr source = incoming(input.stream());
    const ReplyPtr destination = outgoing(output.stream());
    const std::vector<std::string> before = headersOf(source.get());
    http_replyHeadersReset(source.get());
    const char* name = nullptr;
    const char* value = nullptr;
    for (int step = 0; step < steps; ++step) http_replyHeadersNext(source.get(), &name, &value);

    ASSERT_EQ(http_replyCopy(source.get(), destination.get()), 0);
    EXPECT_EQ(http_replyStatusCode(destination.get()), http_replyStatusCode(source.get()));
    ASSERT_EQ(http_replySend(destination.get()), 0);
    EXPECT_EQ(output.bytes(), row.wire + "\r\n");
    EXPECT_EQ(headersOf(source.get()), before);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, ReplyCopy,
    ::testing::Values(
        CopyCase{"NoHeaders", "HTTP/1.0 200 OK\r\n", "HTTP/1.1 200 OK\r\n"},
        CopyCase{"StandardReason", "HTTP/1.1 404 Something Else\r\n", "HTTP/1.1 404 Not Found\r\n"},
        CopyCase{"WithoutPhrase", "HTTP/1.1 429 Too Many Requests\r\n", "HTTP/1.1 429 Unknown\r\n"},
        CopyCase{"Headers", "HTTP/1.1 200 OK\r\nserver: a\r\nX-Thing: b c\r\nSet-Cookie: d=1\r\nSet-Cookie: e=2\r\n",
                 "HTTP/1.1 200 OK\r\nServer: a\r\nX-Thing: b c\r\nSet-Cookie: d=1\r\nSet-Cookie: e=2\r\n"},
        CopyCase{"NoConnection", "HTTP/1.1 200 OK\r\nConnection: close\r\nVia: a\r\nCONNECTION: x\r\n",
                 "HTTP/1.1 200 OK\r\nVia: a\r\n"},
        CopyCase{"BodyHeaders", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nTransfer-Encoding: gzip\r\n",
                 "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nTransfer-Encoding: gzip\r\n"},
        CopyCase{"PercentInTheName", "HTTP/1.1 200 OK\r\nX-%s%n%d: 100%\r\n%%: %%\r\n",
                 "HTTP/1.1 200 OK\r\nX-%s%n%d: 100%\r\n%%: %%\r\n"},
        CopyCase{"PercentInTheValue", "HTTP/1.1 200 OK\r\nServer: %s%n%*d%\r\n",
                 "HTTP/1.1 200 OK\r\nServer: %s%n%*d%\r\n"},
        CopyCase{"OddNames", "HTTP/1.1 200 OK\r\nServer : a\r\n:: b\r\n: c: d\r\n",
                 "HTTP/1.1 200 OK\r\nServer : a\r\n:: b\r\n: c: d\r\n"},
        CopyCase{"Sentinels", "HTTP/1.1 200 OK\r\naaaa-----ERROR: a\r\nZZZZ------custom: b\r\n",
                 "HTTP/1.1 200 OK\r\naaaa-----ERROR: a\r\nZZZZ------custom: b\r\n"},
        CopyCase{"ShortAndLong", "HTTP/1.1 200 OK\r\nX:y\r\nY: " + std::string(5000, 'y') + "\r\nZ:z\r\n",
                 "HTTP/1.1 200 OK\r\nX: y\r\nY: " + std::string(5000, 'y') + "\r\nZ: z\r\n"}),
    [](const auto& row) { return row.param.name; });

TEST(ReplyCopying, AddsToWhatTheDestinationHas) {
  ScriptInput input("HTTP/1.1 200 OK\r\nVia: a\r\n\r\n");
  ScriptOutput output;
  const ReplyPtr source = incoming(input.stream());
  const ReplyPtr destination = outgoing(output.stream());
  ASSERT_EQ(http_replyStatusCodeSet(destination.get(), 500, nullptr), 0);
  ASSERT_EQ(http_replyHeaderValueSet(destination.get(), "Via", "b"), 0);
  ASSERT_EQ(http_replyCopy(source.get(), destination.get()), 0);
  ASSERT_EQ(http_replySend(destination.get()), 0);
  EXPECT_EQ(output.bytes(), "HTTP/1.1 200 OK\r\nVia: b\r\nVia: a\r\n\r\n");
}

TEST(ReplyCopying, FailsWithoutAVersion) {
  ScriptInput input("HTTP/1.1 200 OK\r\nVia: a\r\n\r\n");
  MemoryOutput output;
  const ReplyPtr source = incoming(input.stream());
  const ReplyPtr destination = outgoing(output.stream());
  http_replyVersionSet(destination.get(), 0, 0);
  TraceCapture trace;
  EXPECT_EQ(http_replyCopy(source.get(), destination.get()), -1);
  expectEndsWith(trace.said(), {"http-re[x]unable to set status line", "http-re[x]unable to copy reply status line"});
  EXPECT_EQ(headersOf(destination.get()), std::vector<std::string>());
}

TEST(ReplyCopying, FailsAtAHeaderWithoutAValue) {
  MemoryOutput output;
  const ReplyPtr source = outgoing(output.stream());
  const ReplyPtr destination = outgoing(output.stream());
  const TraceCapture quiet;
  ASSERT_EQ(http_replyStatusCodeSet(source.get(), 200, nullptr), 0);
  ASSERT_EQ(http_replyHeaderValueSet(source.get(), "A", "1"), 0);
  ASSERT_EQ(http_replyHeaderEmptySet(source.get(), "X-Empty", "%s", ""), 0);
  ASSERT_EQ(http_replyHeaderValueSet(source.get(), "B", "2"), 0);
  TraceCapture trace;
  EXPECT_EQ(http_replyCopy(source.get(), destination.get()), -1);
  EXPECT_EQ(trace.errors().back(), "http-re[x]unable to copy reply header X-Empty");
  EXPECT_EQ(headersOf(destination.get()), std::vector<std::string>({"A=1"}));
}

// --- hooks -----------------------------------------------------------------------------------------------------------

TEST(ReplyFactory, TakesAnything) {
  const struct {
    const char* status;
    unsigned code;
  } kRows[] = {{"200", 200}, {"404x", 404}, {"", 0}, {"abc", 0}, {"0999", 999}};
  for (const auto& row : kRows) {
    HttpReply reply{};
    http_replyInitialize(&reply);
    std::string status = row.status;
    std::string reason = "Some Reason";
    EXPECT_EQ(rp_factory(&reply, status.data(), reason.data()), 0);
    EXPECT_EQ(reply.statusCode, row.code) << row.status;
    EXPECT_EQ(reply.reason, reason.data());
    EXPECT_EQ(reply.message.type, HTTP_MSG_REPLY);
  }
}

TEST(ReplyHasBodyRule, IsAlwaysTrue) {
  for (const unsigned code : {0u, 100u, 200u, 204u, 304u, 500u}) {
    HttpReply reply{};
    http_replyInitialize(&reply);
    reply.statusCode = code;
    EXPECT_TRUE(rp_hasBody(&reply)) << code;
    EXPECT_EQ(http_replyHasBody(&reply), 1) << code;
  }
}

TEST(ReplyBody, OfNoContentAndNotModifiedRunsUntilTheConnectionCloses) {
  for (const char* const status : {"204 No Content", "304 Not Modified", "200 OK"}) {
    ScriptInput input("HTTP/1.1 "s + status + "\r\n\r\nsome text");
    const ReplyPtr reply = incoming(input.stream());
    EXPECT_EQ(http_replyState(reply.get()), 2);
    EXPECT_EQ(http_replyBodyType(reply.get()), HTTP_BODY_UNTIL_CLOSE);
    FILE* const body = http_replyBody(reply.get());
    ASSERT_NE(body, nullptr);
    char text[32] = "";
    EXPECT_EQ(fread(text, 1, sizeof text, body), 9u);
    EXPECT_STREQ(text, "some text");
    EXPECT_EQ(http_replyState(reply.get()), 3);
    fclose(body);
  }
}

TEST(ReplyGrow, MovesTheReason) {
  MemoryOutput output;
  const ReplyPtr reply = outgoing(output.stream());
  ASSERT_EQ(http_replyStatusCodeSet(reply.get(), 200, "Some Reason"), 0);
  for (int step = 0; step < 30; ++step) {
    ASSERT_EQ(rp_grow(reply.get(), 100000), 0);
    std::memset(reply->message.buffer + reply->message.fill, 'x', 1000);
    ASSERT_EQ(reply->reason, reply->message.buffer + sizeof("HTTP/1.1 200"));
    ASSERT_STREQ(reply->reason, "Some Reason");
  }
  EXPECT_EQ(reply->message.bufferSize, 512u + 30 * 100000);
}

TEST(ReplyGrow, TakesNoReasonForTheBuffersStart) {
  const ReplyPtr reply(http_replyCreate());
  ASSERT_EQ(rp_grow(reply.get(), 0), 0);
  EXPECT_EQ(reply->message.bufferSize, 512u);
  EXPECT_EQ(reply->reason, reply->message.buffer);
  ASSERT_EQ(rp_grow(reply.get(), 100000), 0);
  EXPECT_EQ(reply->reason, reply->message.buffer);
  reply->reason = nullptr;
  ASSERT_EQ(rp_grow(reply.get(), 100000), 0);
  EXPECT_EQ(reply->reason, reply->message.buffer);
}

TEST(ReplyGrow, ThatFailsLeavesTheReason) {
  MemoryOutput output;
  const ReplyPtr reply = outgoing(output.stream());
  ASSERT_EQ(http_replyStatusCodeSet(reply.get(), 200, "Some Reason"), 0);
  const char* const reason = reply->reason;
  const TraceCapture quiet;
  EXPECT_EQ(rp_grow(reply.get(), UINT_MAX), -1);
  EXPECT_EQ(reply->reason, reason);
  EXPECT_STREQ(reply->reason, "Some Reason");
}

TEST(ReplyGrow, ByHeadersKeepsTheReason) {
  ScriptOutput output;
  const ReplyPtr reply = outgoing(output.stream());
  ASSERT_EQ(http_replyStatusCodeSet(reply.get(), 200, "Some Reason"), 0);
  std::string wire = "HTTP/1.1 200 Some Reason\r\n";
  for (int at = 0; at < 200; ++at) {
    const std::string value(static_cast<size_t>(at) * 5 + 1, static_cast<char>('a' + at % 26));
    ASSERT_EQ(http_replyHeaderValueSet(reply.get(), "X", "%s", value.c_str()), 0);
    ASSERT_STREQ(reply->reason, "Some Reason");
    wire += "X: " + value + "\r\n";
  }
  ASSERT_EQ(http_replySend(reply.get()), 0);
  EXPECT_EQ(output.bytes(), wire + "\r\n");
}

TEST(ReplyGrow, ByHeadersThatArriveKeepsTheReason) {
  const std::string value(3000, 'v');
  ScriptInput input("HTTP/1.1 200 Some Reason\r\nX: " + value + "\r\nY: " + value + "\r\n\r\n");
  const ReplyPtr reply = incoming(input.stream());
  EXPECT_STREQ(reply->reason, "Some Reason");
  EXPECT_EQ(headersOf(reply.get()), std::vector<std::string>({"X=" + value, "Y=" + value}));
}

// --- accessors and forwarders ----------------------------------------------------------------------------------------

TEST(ReplyAccessors, ReadAndStoreTheirField) {
  HttpReply reply{};
  http_replyInitialize(&reply);
  reply.message.state = 4;
  EXPECT_EQ(http_replyState(&reply), 4);

  http_replyVersionSet(&reply, 3, 9);
  EXPECT_EQ(reply.message.versionMajor, 3);
  EXPECT_EQ(reply.message.versionMinor, 9);
  EXPECT_EQ(http_replyVersion(&reply), &reply.message.versionMajor);
  EXPECT_EQ(http_replyVersion(&reply)[0], 3);
  EXPECT_EQ(http_replyVersion(&reply)[1], 9);

  reply.statusCode = 999;
  EXPECT_EQ(http_replyStatusCode(&reply), 999u);

  char data[4];
  http_replyUserDataSet(&reply, data);
  EXPECT_EQ(reply.message.userData, data);
  EXPECT_EQ(http_replyUserData(&reply), data);
  reply.message.owner = &reply;
  EXPECT_EQ(http_replyOwner(&reply), &reply);

  ZelPeer* const peer = reinterpret_cast<ZelPeer*>(data);
  http_replyPeerSet(&reply, peer);
  EXPECT_EQ(reply.message.peer, peer);
  EXPECT_EQ(http_replyPeer(&reply), peer);

  MemoryOutput stream;
  http_replyStreamSet(&reply, stream.stream());
  EXPECT_EQ(reply.message.stream, stream.stream());
  EXPECT_EQ(http_replyStream(&reply), stream.stream());

  http_replyModeSet(&reply, 2);
  EXPECT_EQ(reply.message.mode, 2);

  for (const int flag : {0, 1, 8}) {
    reply.message.needMoreData = flag;
    EXPECT_EQ(http_replyNeedMoreData(&reply), flag != 0 ? 1 : 0);
  }
  for (const int type : {0, 3, 5}) {
    reply.message.bodyType = type;
    EXPECT_EQ(http_replyBodyType(&reply), type);
  }
}

TEST(ReplyForwarders, OfHeaders) {
  MemoryOutput output;
  const ReplyPtr reply = outgoing(output.stream());
  HttpReply* const it = reply.get();
  ASSERT_EQ(http_replyStatusCodeSet(it, 200, nullptr), 0);
  EXPECT_EQ(http_replyHeaderValueSet(it, "X-Thing", "%d-%s", 1, "a"), 0);
  EXPECT_EQ(http_replyHeaderValueSet(it, "a%%b", "c"), 0);
  TraceCapture trace;
  EXPECT_EQ(http_replyHeaderValueSet(it, "Accept", "%s", ""), -1);
  trace.clear();
  EXPECT_EQ(http_replyHeaderEmptySet(it, "Accept", "%s", ""), 0);
  EXPECT_EQ(trace.said(), TraceLines({"http-me[!]Adding http header without value"}));

  HttpHeader header{};
  header.code = HTTP_HEADER_CONTENT_LENGTH;
  EXPECT_EQ(http_replyHeader(it, &header), -1);
  header.contentLength.length = 0;
  EXPECT_EQ(http_replyHeaderSet(it, &header), 0);
  header.contentLength.length = 7;
  EXPECT_EQ(http_replyHeader(it, &header), 0);
  EXPECT_EQ(header.contentLength.length, 0u);
  http_hdrCleanup(&header);

  EXPECT_STREQ(http_replyHeaderValue(it, "x-thing"), "1-a");
  const char* name = nullptr;
  const char* value = nullptr;
  EXPECT_EQ(http_replyHeadersNext(it, &name, &value), 0);
  EXPECT_STREQ(name, "a%b");
  EXPECT_EQ(http_replyHeaderValue(it, "Host"), nullptr);
  EXPECT_EQ(headersOf(it), std::vector<std::string>({"X-Thing=1-a", "a%b=c", "Accept=", "Content-Length=0"}));
  EXPECT_EQ(http_replyHasBody(it), 0);
  EXPECT_EQ(http_replyHeaderValueSet(it, "Content-Type", "multipart/mixed"), 0);
  EXPECT_EQ(http_replyHasBody(it), 1) << "not the type";
}

TEST(ReplyForwarders, OfAnIncomingBody) {
  ScriptInput input;
  input.bytes("HTTP/1.1 20").hold().bytes("0 OK\r\nContent-Length: 5\r\n\r\nhel").hold().bytes("loHTTP");
  const ReplyPtr reply(http_replyCreate());
  HttpReply* const it = reply.get();
  http_replyModeSet(it, HTTP_MSG_READING);
  http_replyStreamSet(it, input.stream());
  EXPECT_EQ(http_replyParse(it), 0);
  EXPECT_EQ(http_replyNeedMoreData(it), 1);
  clearerr(input.stream());
  input.release();
  while (http_replyState(it) < HTTP_MSG_BODY) ASSERT_EQ(http_replyParse(it), 0);
  EXPECT_EQ(http_replyNeedMoreData(it), 0);
  EXPECT_EQ(http_replyParse(it), -1);
  EXPECT_EQ(http_replyBodyType(it), HTTP_BODY_CONTENT_LENGTH);

  EXPECT_EQ(http_replyBodyDiscard(it), 0);
  EXPECT_EQ(http_replyState(it), 2);
  EXPECT_EQ(http_replyNeedMoreData(it), 1);
  EXPECT_NE(http_replyBody(it), nullptr);
  clearerr(input.stream());
  input.release();
  EXPECT_EQ(http_replyBodyDiscard(it), 0);
  EXPECT_EQ(http_replyState(it), 3);
  EXPECT_EQ(http_replyDone(it), 0);
  EXPECT_EQ(input.rest(), "HTTP");
}

}  // namespace
