// A proxy for a server with limits: what the target may answer, and what it is asked.
#include <gtest/gtest.h>
#include <krohttp/krohttp.h>

#include <ostream>
#include <string>
#include <string_view>

#include "support/wire_proxy.h"

namespace {

using namespace std::string_literals;

constexpr std::string_view kGet = "GET /a HTTP/1.1\r\nHost: x\r\n\r\n";
const std::string kBadGateway = cannedReply(502, "Bad Gateway");

class StrictProxyTest : public WireProxyTest {
 protected:
  void SetUp() override {
    WireProxyTest::SetUp();
    http_serverLimitsInitialize(&limits_);
  }
  void serve() {
    listen();
    ASSERT_EQ(http_serverLimitsSet(&http(), &limits_), 0);
  }

  HttpServerLimits limits_ = {};
  TraceCapture quiet_;
};

// --- replies ---------------------------------------------------------------------------------------------------------

struct ReplyCase {
  const char* name;
  std::string wire;
  int reason;
};
void PrintTo(const ReplyCase& row, std::ostream* out) { *out << row.name; }

const ReplyCase kRefusedReplies[] = {
    {"LengthAndCoding", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n",
     HTTP_MSG_LENGTH_AND_CODING},
    {"RepeatedLength", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nContent-Length: 5\r\n\r\nhello",
     HTTP_MSG_REPEATED_LENGTH},
    {"LengthInHex", "HTTP/1.1 200 OK\r\nContent-Length: 0x5\r\n\r\nhello", HTTP_MSG_BAD_LENGTH},
    {"LengthWithSign", "HTTP/1.1 200 OK\r\nContent-Length: +5\r\n\r\nhello", HTTP_MSG_BAD_LENGTH},
    {"LengthList", "HTTP/1.1 200 OK\r\nContent-Length: 5, 5\r\n\r\nhello", HTTP_MSG_BAD_LENGTH},
    {"LengthBeyond64Bits", "HTTP/1.1 200 OK\r\nContent-Length: 18446744073709551621\r\n\r\nhello", HTTP_MSG_BAD_LENGTH},
    {"LengthThatCannotBeCounted", "HTTP/1.1 200 OK\r\nContent-Length: 4294967296\r\n\r\nhello", HTTP_MSG_LARGE_BODY},
    {"OtherCoding", "HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip, chunked\r\n\r\n0\r\n\r\n", HTTP_MSG_BAD_CODING},
    {"CodingInHttp10", "HTTP/1.0 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", HTTP_MSG_BAD_CODING},
    {"LineFeedAlone", "HTTP/1.1 200 OK\nContent-Length: 5\r\n\r\nhello", HTTP_MSG_BARE_LINE_END},
    {"ReturnAlone", "HTTP/1.1 200 OK\r\nX: a\rb\r\nContent-Length: 5\r\n\r\nhello", HTTP_MSG_BARE_LINE_END},
    {"Nul", "HTTP/1.1 200 OK\r\nX: a\0b\r\nContent-Length: 5\r\n\r\nhello"s, HTTP_MSG_CONTROL_BYTE},
    {"BlankBeforeColon", "HTTP/1.1 200 OK\r\nContent-Length : 5\r\n\r\nhello", HTTP_MSG_BLANK_BEFORE_COLON},
    {"FoldedLine", "HTTP/1.1 200 OK\r\nX: a\r\n b\r\nContent-Length: 5\r\n\r\nhello", HTTP_MSG_FOLDED_LINE},
    {"NoToken", "HTTP/1.1 200 OK\r\nContent(Length: 5\r\n\r\nhello", HTTP_MSG_BAD_NAME},
    {"NoName", "HTTP/1.1 200 OK\r\n: 5\r\n\r\nhello", HTTP_MSG_BAD_NAME},
    {"NoColon", "HTTP/1.1 200 OK\r\nContent-Length 5\r\n\r\nhello", HTTP_MSG_BAD_HEADER},
    {"OtherVersion", "HTTP/2.0 200 OK\r\nContent-Length: 5\r\n\r\nhello", HTTP_MSG_OTHER_VERSION},
    {"NoVersion", "ICY 200 OK\r\nContent-Length: 5\r\n\r\nhello", HTTP_MSG_BAD_FIRST_LINE},
    {"NoCode", "HTTP/1.1 OK\r\nContent-Length: 5\r\n\r\nhello", HTTP_MSG_BAD_FIRST_LINE},
    {"LongCode", "HTTP/1.1 2000 OK\r\nContent-Length: 5\r\n\r\nhello", HTTP_MSG_BAD_FIRST_LINE},
    {"LongLine", "HTTP/1.1 200 " + std::string(8192, 'a') + "\r\nContent-Length: 5\r\n\r\nhello", HTTP_MSG_LONG_LINE},
    {"LargeHead",
     "HTTP/1.1 200 OK\r\nX: " + std::string(9000, 'a') + "\r\nY: " + std::string(9000, 'a') +
         "\r\nContent-Length: 5\r\n\r\nhello",
     HTTP_MSG_LARGE_HEAD},
    {"HeadWithoutEnd", "HTTP/1.1 200 OK\r\nX: " + std::string(100'000, 'a'), HTTP_MSG_LARGE_HEAD},
};

class RefusedReplyTest : public StrictProxyTest, public ::testing::WithParamInterface<ReplyCase> {
 protected:
  // The reply that the application finds refused at the end.
  void watchRefusals() {
    onReplyDone = [this, before = onReplyDone](HttpReply* reply, HttpRequest* request) {
      refusal_ = proxy()->forwardReply->message.refusal;
      before(reply, request);
    };
  }
  int refusal_ = -1;
};
INSTANTIATE_TEST_SUITE_P(Strict, RefusedReplyTest, ::testing::ValuesIn(kRefusedReplies),
                         [](const auto& row) { return row.param.name; });

TEST_P(RefusedReplyTest, BecomesBadGateway) {
  serve();
  watchRefusals();
  startTarget().always(WireScript().request().send(GetParam().wire));
  WireClient browser(address());
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return browser.received().size() >= kBadGateway.size(); }));
  EXPECT_EQ(browser.received(), kBadGateway);
  EXPECT_FALSE(browser.ended());
  EXPECT_EQ(refusal_, GetParam().reason);
}

TEST_P(RefusedReplyTest, LeavesTheConnectionForTheNext) {
  serve();
  startTarget();
  target().next(WireScript().request().send(GetParam().wire));
  target().next(WireScript().request().send(okReply("next")));
  WireClient browser(address());
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return browser.received() == kBadGateway; }));
  browser.send(kGet);
  EXPECT_TRUE(until([&] { return browser.received() == kBadGateway + okReply("next"); }));
}

// Without limits the same is guessed at, or waited for.
TEST_P(RefusedReplyTest, OtherwiseIsNoReason) {
  listen();
  startTarget().always(WireScript().request().send(GetParam().wire).finish());
  WireClient browser(address());
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return !browser.received().empty() || browser.ended(); }));
  settle();
  EXPECT_NE(browser.received().substr(0, 12), "HTTP/1.1 502");
}

// --- bodies of replies -----------------------------------------------------------------------------------------------

struct ChunksCase {
  const char* name;
  std::string chunks;
};
void PrintTo(const ChunksCase& row, std::ostream* out) { *out << row.name; }

const ChunksCase kRefusedChunks[] = {
    {"SizeBeyond64Bits", "5\r\nhello\r\n10000000000000005\r\nworld\r\n0\r\n\r\n"},
    {"SizeBeyond32Bits", "5\r\nhello\r\n100000005\r\nworld\r\n0\r\n\r\n"},
    {"Extension", "5\r\nhello\r\n5;a=b\r\nworld\r\n0\r\n\r\n"},
    {"BlankBehindSize", "5\r\nhello\r\n5 \r\nworld\r\n0\r\n\r\n"},
    {"LineFeedAlone", "5\r\nhello\r\n5\nworld\r\n0\r\n\r\n"},
    {"NoSize", "5\r\nhello\r\n\r\nworld\r\n0\r\n\r\n"},
    {"NoEnd", "5\r\nhello\r\n5\r\nworld!!0\r\n\r\n"},
};

class RefusedChunksTest : public StrictProxyTest, public ::testing::WithParamInterface<ChunksCase> {};
INSTANTIATE_TEST_SUITE_P(Strict, RefusedChunksTest, ::testing::ValuesIn(kRefusedChunks),
                         [](const auto& row) { return row.param.name; });

// The head is on its way already: the browser can tell that it has but a part.
TEST_P(RefusedChunksTest, CutTheReply) {
  serve();
  startTarget().always(
      WireScript().request().send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + GetParam().chunks));
  WireClient browser(address());
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return browser.ended(); }));
  const std::string& received = browser.received();
  EXPECT_EQ(received.find("0\r\n\r\n"), std::string::npos) << received;
  const std::string passed = bodySoFar(received);
  EXPECT_EQ(passed, std::string("helloworld").substr(0, passed.size())) << received;
}

// --- requests --------------------------------------------------------------------------------------------------------

struct RequestCase {
  const char* name;
  std::string wire;
  std::string length;  // as the target is told
  std::string coding;
  std::string body;
};
void PrintTo(const RequestCase& row, std::ostream* out) { *out << row.name; }

const RequestCase kForwarded[] = {
    {"Get", std::string(kGet), "", "", ""},
    {"PostWithoutBody", "POST /a HTTP/1.1\r\nHost: x\r\n\r\n", "0", "", ""},
    {"PutWithoutBody", "PUT /a HTTP/1.1\r\nHost: x\r\n\r\n", "0", "", ""},
    {"PostOfNothing", "POST /a HTTP/1.1\r\nHost: x\r\nContent-Length: 0\r\n\r\n", "0", "", ""},
    {"PostWithLength", "POST /a HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\n\r\nhello", "5", "", "hello"},
    {"PostInChunks",
     "POST /a HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nhel\r\n2\r\nlo\r\n0\r\n\r\n", "", "chunked",
     "hello"},
};

class ForwardedRequestTest : public StrictProxyTest, public ::testing::WithParamInterface<RequestCase> {};
INSTANTIATE_TEST_SUITE_P(Strict, ForwardedRequestTest, ::testing::ValuesIn(kForwarded),
                         [](const auto& row) { return row.param.name; });

// A second request behind it must arrive as one: neither of the two takes it for a body.
TEST_P(ForwardedRequestTest, SaysOnceHowItEnds) {
  serve();
  startTarget().always(WireScript().request().send(okReply("first")).repeat());
  WireClient browser(address());
  browser.send(GetParam().wire + std::string(kGet));
  ASSERT_TRUE(until([&] { return browser.received() == okReply("first") + okReply("first"); })) << browser.received();
  ASSERT_EQ(target().requests(), 2u);
  const WireRequest first = takeRequests(target().connection(0).received()).at(0);
  EXPECT_EQ(first.header("Content-Length"), GetParam().length);
  EXPECT_EQ(first.header("Transfer-Encoding"), GetParam().coding);
  EXPECT_EQ(first.body, GetParam().body);
}

// Without limits it is read, as a part of a value. The target could take it for the end of a line.
TEST_F(StrictProxyTest, ReturnInsideAHeaderIsNeverForwarded) {
  listen();
  startTarget().always(WireScript().request().send(okReply("first")).repeat());
  WireClient browser(address());
  browser.send("GET /a HTTP/1.1\r\nHost: x\r\nX: a\rContent-Length: 5\r\n\r\n");
  EXPECT_TRUE(until([&] { return browser.received() == ownAnswer(); })) << browser.received();
  settle();
  EXPECT_EQ(target().requests(), 0u);
}

TEST_F(StrictProxyTest, ReturnInsideAHeaderIsNeverPassedOn) {
  listen();
  startTarget().always(
      WireScript().request().send("HTTP/1.1 200 OK\r\nX: a\rSet-Cookie: b=c\r\nContent-Length: 5\r\n\r\nhello"));
  WireClient browser(address());
  browser.send(kGet);
  EXPECT_TRUE(until([&] { return outcome(browser) == "504"; })) << browser.received();
  EXPECT_EQ(browser.received(), cannedReply(504, "Gateway Timeout"));
}

// What is ambiguous never gets as far as the target.
TEST_F(StrictProxyTest, AmbiguousRequestIsNotForwarded) {
  serve();
  startTarget().always(WireScript().request().send(okReply("first")).repeat());
  WireClient browser(address());
  browser.send(
      "POST /a HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\nGET /b "
      "HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(until([&] { return browser.ended(); }));
  EXPECT_EQ(browser.received().substr(0, 12), "HTTP/1.1 400");
  EXPECT_EQ(target().count(), 0u);
}

// What is refused for its length is no matter of the target's.
TEST_F(StrictProxyTest, BodyThatIsTooLongIsNotForwarded) {
  limits_.bodyBytes = 100;
  serve();
  startLocalTarget().always(WireScript().request().send(okReply("hello")));
  WireClient browser(address());
  browser.send("POST /a HTTP/1.1\r\nHost: x\r\nContent-Length: 1000\r\n\r\n");
  EXPECT_TRUE(until([&] { return browser.ended(); }));
  EXPECT_EQ(browser.received(), ownAnswer());
  EXPECT_EQ(forwarded, (std::vector<int>{-1}));
  EXPECT_EQ(http().refused[HTTP_MSG_LARGE_BODY], 1u);
  EXPECT_EQ(target().count(), 0u);
}

}  // namespace
