// What a server puts up with: each limit to the byte, what a client is told that goes beyond it, and who is not blamed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <krohttp/krohttp.h>
#include <sys/resource.h>

#include <cerrno>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include "support/wire_server.h"

namespace {

using namespace std::string_literals;

constexpr int kSoon = 5;  // seconds that a time limit of one second may take here

std::string refusal(unsigned status) {
  const std::string phrase = status == 400   ? "Bad Request"
                             : status == 408 ? "Request Timeout"
                             : status == 413 ? "Content Too Large"
                             : status == 414 ? "URI Too Long"
                             : status == 431 ? "Request Header Fields Too Large"
                             : status == 501 ? "Not Implemented"
                                             : "HTTP Version Not Supported";
  return "HTTP/1.1 " + std::to_string(status) + " " + phrase +
         " (dated)\r\nConnection: close\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Length: " +
         std::to_string(phrase.size() + 1) + "\r\n\r\n" + phrase + "\n";
}

// What was received, but for the dates of refusals: each has one, behind its status line.
std::string dateless(std::string text) {
  constexpr std::string_view kDate = "\r\nDate: ";
  for (size_t at = text.find(kDate); at != std::string::npos; at = text.find(kDate)) {
    const size_t end = text.find("\r\n", at + kDate.size());
    text.replace(at, end - at, " (dated)");
  }
  return text;
}

std::string get(const std::string& path, const std::string& headers = "") {
  return "GET " + path + " HTTP/1.1\r\nHost: x\r\n" + headers + "\r\n";
}
std::string put(const std::string& body, const std::string& headers = "") {
  return "PUT /put HTTP/1.1\r\nHost: x\r\n" + headers + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
         body;
}
std::string putChunked(const std::string& chunks) {
  return "PUT /put HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n" + chunks;
}
std::string filled(const std::string& before, const std::string& after, size_t size) {
  return before + std::string(size - before.size() - after.size(), 'a') + after;
}

// Only what a test sets is limited.
class LimitsTest : public WireServerTest {
 protected:
  void SetUp() override {
    WireServerTest::SetUp();
    limits_.size = sizeof limits_;
  }
  void serve() {
    listen();
    ASSERT_EQ(http_serverLimitsSet(&http(), &limits_), 0);
  }
  // This reason once, and no other.
  void expectRefused(int reason, uint32_t times = 1) {
    for (int other = 1; other < HTTP_MSG_REFUSALS; ++other)
      EXPECT_EQ(http().refused[other], other == reason ? times : 0u) << "reason " << other;
  }
  void expectServed(const std::string& path = "/next") {
    WireClient client(address());
    client.send(get(path, "Connection: close\r\n"));
    EXPECT_TRUE(until([&] { return client.ended(); }));
    EXPECT_EQ(client.received(), okReply(path));
  }
  void expectAnswered(const std::string& path) {
    WireClient client(address());
    client.send(get(path));
    EXPECT_TRUE(until([&] { return countReplies(client.received()) == 1; }));
  }
  // Begins a reply, which feed() goes on with.
  void answerInPieces() {
    onRequest = [this](HttpRequest*, HttpReply* reply) {
      feeding_ = reply;
      http_replyStatusCodeSet(reply, 200, nullptr);
      http_replyHeaderValueSet(reply, "Transfer-Encoding", "chunked");
      return http_replySend(reply);
    };
  }
  void feed(const std::string& piece) {
    FILE* const stream = http_replyBody(feeding_);
    ASSERT_NE(stream, nullptr);
    fputs(piece.c_str(), stream);
    fflush(stream);
  }
  // Lets real time pass.
  void pass(int milliseconds) {
    bool passed = false;
    later(static_cast<unsigned>(milliseconds), [&] { passed = true; });
    ASSERT_TRUE(until([&] { return passed; }));
  }
  // Sends a byte now and then until condition holds. @return whether that was soon
  template <typename Condition>
  bool trickle(WireClient& client, Condition condition) {
    int turn = 0;
    return until(
        [&] {
          if (++turn % 20 == 0) client.send("a");
          return condition();
        },
        kSoon);
  }

  HttpServerLimits limits_ = {};
  HttpReply* feeding_ = nullptr;
  TraceCapture quiet_;
};

// --- the settings ----------------------------------------------------------------------------------------------------

TEST_F(LimitsTest, WhatIsRecommended) {
  HttpServerLimits limits;
  memset(&limits, 0xFF, sizeof limits);
  http_serverLimitsInitialize(&limits);
  EXPECT_EQ(limits.size, sizeof limits);
  EXPECT_EQ(limits.lineBytes, 8192u);
  EXPECT_EQ(limits.headBytes, 16384u);
  EXPECT_EQ(limits.headers, 100u);
  EXPECT_EQ(limits.bodyBytes, 0u);
  EXPECT_EQ(limits.headSeconds, 10u);
  EXPECT_EQ(limits.stallSeconds, 60u);
  EXPECT_EQ(limits.minimumRate, 512u);
  EXPECT_EQ(limits.rateSeconds, 10u);
  EXPECT_EQ(limits.idleSeconds, 15u);
  EXPECT_EQ(limits.pausedSeconds, 0u);
  EXPECT_EQ(limits.requests, 1000u);
  EXPECT_EQ(limits.strict, 1);
  rlimit descriptors{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &descriptors), 0);
  EXPECT_EQ(limits.connections, descriptors.rlim_cur / 2);
}

TEST_F(LimitsTest, SizeThatIsNotKnown) {
  serve();
  for (const size_t size : {size_t{0}, sizeof limits_ - 1, sizeof limits_ + 1, SIZE_MAX}) {
    HttpServerLimits other = limits_;
    other.size = size;
    TraceCapture trace;
    errno = 0;
    EXPECT_EQ(http_serverLimitsSet(&http(), &other), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(trace.errors().size(), 1u);
    EXPECT_EQ(http().limits, &limits_);
  }
  EXPECT_EQ(http_serverLimitsSet(&http(), nullptr), 0);
  EXPECT_EQ(http().limits, nullptr);
}

// --- what is refused -------------------------------------------------------------------------------------------------

struct RefusalCase {
  const char* name;
  std::function<void(HttpServerLimits&)> set;
  std::string wire;
  unsigned status;
  int reason;
  size_t requests = 0;  // how often the request handler runs
};
void PrintTo(const RefusalCase& row, std::ostream* out) { *out << row.name; }

void strictly(HttpServerLimits& limits) { limits.strict = 1; }
void smallBody(HttpServerLimits& limits) { limits.bodyBytes = 10; }

const RefusalCase kRefusals[] = {
    {"LongLine", [](HttpServerLimits& limits) { limits.lineBytes = 50; }, get("/" + std::string(100, 'a')), 414,
     HTTP_MSG_LONG_LINE},
    {"LargeHead", [](HttpServerLimits& limits) { limits.headBytes = 50; }, get("/", "A: " + std::string(99, 'a')), 431,
     HTTP_MSG_LARGE_HEAD},
    {"ManyHeaders", [](HttpServerLimits& limits) { limits.headers = 2; }, get("/", "A: b\r\nC: d\r\n"), 431,
     HTTP_MSG_MANY_HEADERS},
    {"LargeBody", smallBody, put("hello world"), 413, HTTP_MSG_LARGE_BODY, 1},
    {"LargeBodyToBeSent", smallBody, "PUT / HTTP/1.1\r\nHost: x\r\nContent-Length: 1000000\r\n\r\n", 413,
     HTTP_MSG_LARGE_BODY, 1},
    {"LargeChunk", smallBody, putChunked("b\r\nhello world\r\n0\r\n\r\n"), 413, HTTP_MSG_LARGE_BODY, 1},
    {"LargeChunks", smallBody, putChunked("6\r\nhello \r\n5\r\nworld\r\n0\r\n\r\n"), 413, HTTP_MSG_LARGE_BODY, 1},
    {"UnknownMethod", strictly, "BREW / HTTP/1.1\r\nHost: x\r\n\r\n", 501, HTTP_MSG_BAD_METHOD},
    {"UnknownMethodWithoutStrictness", [](HttpServerLimits&) {}, "BREW / HTTP/1.1\r\nHost: x\r\n\r\n", 501,
     HTTP_MSG_BAD_METHOD},
    {"MethodNoToken", strictly, "G(T / HTTP/1.1\r\nHost: x\r\n\r\n", 400, HTTP_MSG_METHOD_NO_TOKEN},
    {"Version20", strictly, "GET / HTTP/2.0\r\nHost: x\r\n\r\n", 505, HTTP_MSG_OTHER_VERSION},
    {"Version12", strictly, "GET / HTTP/1.2\r\nHost: x\r\n\r\n", 505, HTTP_MSG_OTHER_VERSION},
    {"NoVersion", strictly, "GET / HTTP\r\nHost: x\r\n\r\n", 505, HTTP_MSG_BAD_VERSION},
    {"TwoWords", strictly, "GET /\r\nHost: x\r\n\r\n", 400, HTTP_MSG_BAD_FIRST_LINE},
    {"NoTarget", strictly, "GET a HTTP/1.1\r\nHost: x\r\n\r\n", 400, HTTP_MSG_BAD_TARGET},
    {"PathBehindAWord", strictly, "GET x/a HTTP/1.1\r\nHost: x\r\n\r\n", 400, HTTP_MSG_BAD_TARGET},
    {"BrokenEscape", strictly, "GET /a%zz HTTP/1.1\r\nHost: x\r\n\r\n", 400, HTTP_MSG_BAD_TARGET},
    {"NoHostAtAll", strictly, "GET / HTTP/1.1\r\nHost: a/b\r\n\r\n", 400, HTTP_MSG_BAD_HOST},
    {"NoColon", strictly, get("/", "A\r\n"), 400, HTTP_MSG_BAD_HEADER},
    {"CodingAndLength", strictly, put("hello", "Transfer-Encoding: chunked\r\n"), 400, HTTP_MSG_LENGTH_AND_CODING},
    {"RepeatedLength", strictly, put("hello", "Content-Length: 5\r\n"), 400, HTTP_MSG_REPEATED_LENGTH},
    {"BadLength", strictly, get("/", "Content-Length: +5\r\n"), 400, HTTP_MSG_BAD_LENGTH},
    {"OverflowingLength", strictly, get("/", "Content-Length: 18446744073709551616\r\n"), 400, HTTP_MSG_BAD_LENGTH},
    {"UncountableLength", strictly, get("/", "Content-Length: 4294967296\r\n"), 413, HTTP_MSG_LARGE_BODY},
    {"OtherCoding", strictly, get("/", "Transfer-Encoding: gzip, chunked\r\n"), 400, HTTP_MSG_BAD_CODING},
    {"CodingOfOldRequest", strictly, "PUT / HTTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", 400,
     HTTP_MSG_BAD_CODING},
    {"ChunkExtension", strictly, putChunked("5;a\r\nhello\r\n0\r\n\r\n"), 400, HTTP_MSG_BAD_CHUNK, 1},
    {"ChunkBeyond64Bits", strictly, putChunked("10000000000000005\r\nhello\r\n0\r\n\r\n"), 400, HTTP_MSG_BAD_CHUNK, 1},
    {"ChunkBeyond32Bits", strictly, putChunked("100000005\r\nhello\r\n0\r\n\r\n"), 400, HTTP_MSG_BAD_CHUNK, 1},
    {"SecondChunkBad", strictly, putChunked("5\r\nhello\r\nx\r\n0\r\n\r\n"), 400, HTTP_MSG_BAD_CHUNK, 1},
    {"ChunkWithBareLineFeed", strictly, putChunked("5\nhello\r\n0\r\n\r\n"), 400, HTTP_MSG_BAD_CHUNK, 1},
    {"Trailer", strictly, putChunked("0\r\nA: b\r\n\r\n"), 400, HTTP_MSG_BAD_CHUNK, 1},
    {"BareLineFeed", strictly, "GET / HTTP/1.1\nHost: x\r\n\r\n", 400, HTTP_MSG_BARE_LINE_END},
    {"BareLineFeedAtTheEnd", strictly, "GET / HTTP/1.1\r\nHost: x\r\n\n", 400, HTTP_MSG_BARE_LINE_END},
    {"BareCarriageReturn", strictly, get("/", "A: b\rc\r\n"), 400, HTTP_MSG_BARE_LINE_END},
    {"Nul", strictly, get("/", "A: b\0c\r\n"s), 400, HTTP_MSG_CONTROL_BYTE},
    {"ControlByte", strictly, get("/a\x01"), 400, HTTP_MSG_CONTROL_BYTE},
    {"BlankBeforeColon", strictly, get("/", "A : b\r\n"), 400, HTTP_MSG_BLANK_BEFORE_COLON},
    {"FoldedLine", strictly, get("/", " A: b\r\n"), 400, HTTP_MSG_FOLDED_LINE},
    {"BadName", strictly, get("/", "A(b): c\r\n"), 400, HTTP_MSG_BAD_NAME},
    {"NoHost", strictly, "GET / HTTP/1.1\r\n\r\n", 400, HTTP_MSG_NO_HOST},
    {"RepeatedHost", strictly, get("/", "Host: x\r\n"), 400, HTTP_MSG_REPEATED_HOST},
    {"OtherHost", strictly, get("http://y/"), 400, HTTP_MSG_OTHER_HOST},
};

class RefusalTest : public LimitsTest, public ::testing::WithParamInterface<RefusalCase> {
 protected:
  void SetUp() override {
    LimitsTest::SetUp();
    GetParam().set(limits_);
  }
  void expectRefusal(WireClient& client) {
    EXPECT_TRUE(until([&] { return client.ended(); }));
    EXPECT_FALSE(client.wasReset());
    EXPECT_EQ(dateless(client.received()), refusal(GetParam().status));
    expectRefused(GetParam().reason);
    EXPECT_EQ(callsOf("request"), GetParam().requests);
    EXPECT_EQ(callsOf("request GET /behind"), 0u);
    EXPECT_EQ(callsOf("done"), 0u);
    EXPECT_EQ(callsOf("error"), 1u);
  }
};
INSTANTIATE_TEST_SUITE_P(Limits, RefusalTest, ::testing::ValuesIn(kRefusals),
                         [](const auto& parameter) { return std::string(parameter.param.name); });

TEST_P(RefusalTest, AtOnce) {
  serve();
  WireClient client(address());
  client.send(GetParam().wire + get("/behind"));
  expectRefusal(client);
  limits_ = {};
  expectServed();
}

TEST_P(RefusalTest, OctetByOctet) {
  serve();
  WireClient client(address());
  for (const char byte : GetParam().wire + get("/behind")) {
    client.send(std::string_view(&byte, 1));
    settle();
  }
  expectRefusal(client);
}

TEST_P(RefusalTest, BehindAServedRequest) {
  serve();
  WireClient client(address());
  client.send("GET / HTTP/1.0\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(until([&] { return client.ended(); }));
  calls.clear();
  WireClient other(address());
  other.send(get("/"));
  ASSERT_TRUE(until([&] { return other.received() == okReply("/"); }));
  calls.clear();
  other.take();
  other.send(GetParam().wire + get("/behind"));
  expectRefusal(other);
}

TEST_P(RefusalTest, ClientThatHasFinishedSending) {
  serve();
  WireClient client(address());
  client.send(GetParam().wire).finish();
  expectRefusal(client);
}

// The answer arrives although much of what was sent is never read.
TEST_P(RefusalTest, ClientThatGoesOnSending) {
  serve();
  WireClient client(address());
  client.send(GetParam().wire + std::string(200000, 'a'));
  expectRefusal(client);
}

TEST_P(RefusalTest, ErrorHandlerThatAnswers) {
  onError = [](HttpRequest* request, HttpReply* reply) {
    EXPECT_EQ(request->message.refusal, GetParam().reason);
    http_replyVersionSet(reply, 1, 1);
    replyText(reply, 403, "mine");
  };
  serve();
  WireClient client(address());
  client.send(GetParam().wire);
  EXPECT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(client.received(), textReply(403, "Forbidden", "mine"));
  expectRefused(GetParam().reason);
}

// --- to the byte -----------------------------------------------------------------------------------------------------

struct BoundaryCase {
  const char* name;
  std::function<void(HttpServerLimits&, uint32_t)> set;
  uint32_t most;
  std::function<std::string(size_t)> wire;
  unsigned status;
  int reason;
};
void PrintTo(const BoundaryCase& row, std::ostream* out) { *out << row.name; }

void recommended(HttpServerLimits& limits, uint32_t) { http_serverLimitsInitialize(&limits); }
std::string lineOf(size_t size) { return filled("GET /", " HTTP/1.1\r\n", size) + "Host: x\r\n\r\n"; }
std::string headOf(size_t size) { return filled("GET / HTTP/1.1\r\nHost: x\r\nA: ", "\r\n\r\n", size); }
std::string headersOf(size_t count) {
  std::string headers;
  for (size_t header = 1; header < count; ++header) headers += "A: b\r\n";
  return get("/", headers);
}
std::string bodyOf(size_t size) { return put(std::string(size, 'b')); }
std::string chunksOf(size_t size) { return putChunked(chunked(std::string(size, 'b'), 7)); }
void setBody(HttpServerLimits& limits, uint32_t most) { limits.bodyBytes = most; }

const BoundaryCase kBoundaries[] = {
    {"Line", [](HttpServerLimits& limits, uint32_t most) { limits.lineBytes = most; }, 100, lineOf, 414,
     HTTP_MSG_LONG_LINE},
    {"Head", [](HttpServerLimits& limits, uint32_t most) { limits.headBytes = most; }, 100, headOf, 431,
     HTTP_MSG_LARGE_HEAD},
    {"Headers", [](HttpServerLimits& limits, uint32_t most) { limits.headers = most; }, 3, headersOf, 431,
     HTTP_MSG_MANY_HEADERS},
    {"Body", setBody, 1000, bodyOf, 413, HTTP_MSG_LARGE_BODY},
    {"BodyOfOneByte", setBody, 1, bodyOf, 413, HTTP_MSG_LARGE_BODY},
    {"Chunks", setBody, 1000, chunksOf, 413, HTTP_MSG_LARGE_BODY},
    {"LargeChunks", setBody, 100000, chunksOf, 413, HTTP_MSG_LARGE_BODY},
    {"RecommendedLine", recommended, 8192, lineOf, 414, HTTP_MSG_LONG_LINE},
    {"RecommendedHead", recommended, 16384, headOf, 431, HTTP_MSG_LARGE_HEAD},
    {"RecommendedHeaders", recommended, 100, headersOf, 431, HTTP_MSG_MANY_HEADERS},
};

class BoundaryTest : public LimitsTest, public ::testing::WithParamInterface<BoundaryCase> {
 protected:
  void SetUp() override {
    LimitsTest::SetUp();
    GetParam().set(limits_, GetParam().most);
  }
};
INSTANTIATE_TEST_SUITE_P(Limits, BoundaryTest, ::testing::ValuesIn(kBoundaries),
                         [](const auto& parameter) { return std::string(parameter.param.name); });

TEST_P(BoundaryTest, JustThatMuchIsServedAgainAndAgain) {
  serve();
  WireClient client(address());
  for (int request = 0; request < 3; ++request) client.send(GetParam().wire(GetParam().most));
  EXPECT_TRUE(until([&] { return countReplies(client.received()) == 3; }));
  for (const WireReply& reply : takeReplies(client.received())) EXPECT_EQ(reply.status(), 200u);
  expectRefused(HTTP_MSG_ACCEPTED);
}

TEST_P(BoundaryTest, OneMoreIsNot) {
  serve();
  WireClient client(address());
  client.send(GetParam().wire(GetParam().most + 1));
  EXPECT_TRUE(until([&] { return client.ended(); }));
  EXPECT_FALSE(client.wasReset());
  EXPECT_EQ(dateless(client.received()), refusal(GetParam().status));
  expectRefused(GetParam().reason);
}

TEST_P(BoundaryTest, NothingIsLimitedWithoutLimits) {
  listen();
  WireClient client(address());
  client.send(GetParam().wire(3 * GetParam().most));
  EXPECT_TRUE(until([&] { return countReplies(client.received()) == 1; }));
  EXPECT_EQ(takeReplies(client.received()).at(0).status(), 200u);
}

// --- bodies ----------------------------------------------------------------------------------------------------------

struct OwnLimitCase {
  const char* name;
  uint64_t ofServer;
  uint64_t ofRequest;
  bool served;  // a body of 100 bytes
};
void PrintTo(const OwnLimitCase& row, std::ostream* out) { *out << row.name; }

class OwnLimitTest : public LimitsTest, public ::testing::WithParamInterface<OwnLimitCase> {};
INSTANTIATE_TEST_SUITE_P(
    Limits, OwnLimitTest,
    ::testing::Values(OwnLimitCase{"None", 0, 0, true}, OwnLimitCase{"Enough", 0, 100, true},
                      OwnLimitCase{"OneShort", 0, 99, false}, OwnLimitCase{"Raised", 10, 100, true},
                      OwnLimitCase{"RaisedTooLittle", 10, 99, false}, OwnLimitCase{"Lowered", 1000, 99, false},
                      OwnLimitCase{"TakenAway", 10, 0, true}, OwnLimitCase{"Beyond32Bits", 10, 0x100000000, true}),
    [](const auto& parameter) { return std::string(parameter.param.name); });

TEST_P(OwnLimitTest, HoldsForItsRequest) {
  const std::string bytes(100, 'b');
  for (const std::string& wire : {put(bytes), putChunked(chunked(bytes)), putChunked(chunked(bytes, 3))}) {
    for (const bool dropped : {false, true}) {
      if (http().peer == nullptr) {
        limits_.bodyBytes = GetParam().ofServer;
        serve();
      }
      onRequest = [&](HttpRequest* request, HttpReply* reply) {
        http_serverBodyLimitSet(request, GetParam().ofRequest);
        return dropped && GetParam().served ? replyText(reply, 200, bytes) : 0;
      };
      const auto handler = http().bodyHandler;
      if (dropped) http().bodyHandler = nullptr;
      const uint32_t before = http().refused[HTTP_MSG_LARGE_BODY];
      WireClient client(address());
      client.send(wire);
      EXPECT_TRUE(until([&] { return countReplies(client.received()) == 1; }));
      EXPECT_EQ(dateless(client.received()), GetParam().served ? okReply(bytes) : refusal(413));
      EXPECT_EQ(http().refused[HTTP_MSG_LARGE_BODY] - before, GetParam().served ? 0u : 1u);
      settle();
      http().bodyHandler = handler;
      body.clear();
    }
  }
}

TEST_F(LimitsTest, NobodyIsToldToSendABodyThatIsTooLarge) {
  limits_.bodyBytes = 10;
  onRequest = [](HttpRequest* request, HttpReply* reply) { return http_serverContinue(request, reply); };
  serve();
  WireClient client(address());
  client.send("PUT / HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\nContent-Length: 11\r\n\r\n");
  EXPECT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(dateless(client.received()), refusal(413));
  WireClient other(address());
  other.send("PUT / HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\nContent-Length: 10\r\n\r\n");
  EXPECT_TRUE(until([&] { return other.received() == "HTTP/1.1 100 Continue\r\n\r\n"; }));
  other.send("0123456789");
  EXPECT_TRUE(until([&] { return countReplies(other.received()) == 2 || other.received().ends_with("0123456789"); }));
}

// What the application has said already is all that the client gets.
// One that minds its clients does not sleep for one of them.
TEST_F(LimitsTest, NobodyWaitsForAMultipartBody) {
  std::vector<int> neverWaits;
  onRequest = [&](HttpRequest* request, HttpReply* reply) {
    neverWaits.push_back(request->message.neverWaits);
    return replyText(reply, 200, "x");
  };
  listen();
  expectAnswered("/plain");
  ASSERT_EQ(http_serverLimitsSet(&http(), &limits_), 0);
  expectAnswered("/limited");
  EXPECT_EQ(neverWaits, (std::vector<int>{0, 1}));
}

// The application says that it is done with a request that it has not read.
TEST_F(LimitsTest, BodyThatNobodyHasOpenedIsNoRequest) {
  for (const bool limited : {false, true}) {
    listen();
    ASSERT_EQ(http_serverLimitsSet(&http(), limited ? &limits_ : nullptr), 0);
    calls.clear();
    onRequest = [](HttpRequest* request, HttpReply* reply) {
      http_requestDone(request);
      return replyText(reply, 200, "done");
    };
    WireClient client(address());
    client.send(put(get("/smuggled")) + get("/next"));
    EXPECT_TRUE(until([&] { return client.ended(); }));
    EXPECT_EQ(countReplies(client.received(), true), 1u);
    EXPECT_EQ(callsOf("request"), 1u);
  }
}

TEST_F(LimitsTest, AnswerOfTheApplicationStays) {
  limits_.bodyBytes = 10;
  onRequest = [](HttpRequest*, HttpReply* reply) { return replyText(reply, 403, "no"); };
  serve();
  WireClient client(address());
  client.send(put("hello world"));
  EXPECT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(client.received(), textReply(403, "Forbidden", "no"));
  expectRefused(HTTP_MSG_LARGE_BODY);
}

TEST_F(LimitsTest, BodyTooLargeWhileItsHandlerPauses) {
  limits_.bodyBytes = 10;
  HttpRequest* paused = nullptr;
  onBody = [&](HttpRequest* request, HttpReply*, FILE* stream) {
    readBody(stream);
    if (paused == nullptr) {
      http_serverPauseRequest(request);
      paused = request;
    }
    return 0;
  };
  serve();
  WireClient client(address());
  client.send(putChunked(chunked("hello world")));
  ASSERT_TRUE(until([&] { return paused != nullptr; }));
  settle();
  if (!client.ended()) http_serverResumeRequest(paused);
  EXPECT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(dateless(client.received()), refusal(413));
  expectRefused(HTTP_MSG_LARGE_BODY);
}

// --- time ------------------------------------------------------------------------------------------------------------

TEST_F(LimitsTest, HeadThatDoesNotGoOn) {
  limits_.headSeconds = 1;
  serve();
  WireClient client(address());
  client.send("GET / HT");
  EXPECT_TRUE(until([&] { return client.ended(); }, kSoon));
  EXPECT_EQ(dateless(client.received()), refusal(408));
  expectRefused(HTTP_MSG_SLOW_HEAD);
  EXPECT_EQ(callsOf("error"), 1u);
  expectServed();
}

TEST_F(LimitsTest, HeadThatTrickles) {
  limits_.headSeconds = 1;
  serve();
  WireClient client(address());
  client.send("GET / HTTP/1.1\r\nHost: x\r\nA: ");
  EXPECT_TRUE(trickle(client, [&] { return client.ended(); }));
  EXPECT_EQ(dateless(client.received()), refusal(408));
  expectRefused(HTTP_MSG_SLOW_HEAD);
}

TEST_F(LimitsTest, SecondHeadThatDoesNotGoOn) {
  limits_.headSeconds = 1;
  serve();
  WireClient client(address());
  client.send(get("/one") + "GET /tw");
  EXPECT_TRUE(until([&] { return client.ended(); }, kSoon));
  EXPECT_EQ(dateless(client.received()), okReply("/one") + refusal(408));
  expectRefused(HTTP_MSG_SLOW_HEAD);
}

// Each head has its own time.
TEST_F(LimitsTest, ManyHeadsInALongTime) {
  limits_.headSeconds = 1;
  serve();
  WireClient client(address());
  for (int request = 0; request < 6; ++request) {
    client.send("GET /a HTTP/1.1\r\nHo");
    pass(400);
    client.send("st: x\r\n\r\n");
    ASSERT_TRUE(until([&] { return client.received() == okReply("/a"); }));
    client.take();
  }
  expectRefused(HTTP_MSG_ACCEPTED);
}

TEST_F(LimitsTest, BodyThatDoesNotGoOn) {
  limits_.stallSeconds = 1;
  for (const std::string& wire : {put(std::string(100, 'b')).substr(0, 100), putChunked("64\r\nhello")}) {
    if (http().peer == nullptr) serve();
    http().refused[HTTP_MSG_STALLED] = 0;
    WireClient client(address());
    client.send(wire);
    EXPECT_TRUE(until([&] { return client.ended(); }, kSoon));
    EXPECT_EQ(dateless(client.received()), refusal(408));
    expectRefused(HTTP_MSG_STALLED);
  }
  expectServed();
}

TEST_F(LimitsTest, BodyThatTrickles) {
  limits_.minimumRate = 10000;
  limits_.rateSeconds = 1;
  limits_.stallSeconds = 3;
  serve();
  WireClient client(address());
  client.send("PUT / HTTP/1.1\r\nHost: x\r\nContent-Length: 1000000\r\n\r\n");
  EXPECT_TRUE(trickle(client, [&] { return client.ended(); }));
  EXPECT_EQ(dateless(client.received()), refusal(408));
  expectRefused(HTTP_MSG_SLOW);
}

TEST_F(LimitsTest, BodyThatTricklesFastEnough) {
  limits_.minimumRate = 1;
  limits_.rateSeconds = 1;
  limits_.stallSeconds = 1;
  serve();
  bool passed = false;
  later(3500, [&] { passed = true; });
  WireClient client(address());
  client.send("PUT / HTTP/1.1\r\nHost: x\r\nContent-Length: 100000\r\n\r\n");
  EXPECT_TRUE(trickle(client, [&] { return passed; }));
  EXPECT_FALSE(client.ended());
  expectRefused(HTTP_MSG_ACCEPTED);
}

struct ReplyCase {
  const char* name;
  std::function<int(HttpReply*, const std::string& file)> make;
};
void PrintTo(const ReplyCase& row, std::ostream* out) { *out << row.name; }

class ReplyLimitTest : public LimitsTest, public ::testing::WithParamInterface<ReplyCase> {
 protected:
  void SetUp() override {
    LimitsTest::SetUp();
    file_ = folder_.file("large", std::string(20000000, 'f'));
    onRequest = [this](HttpRequest*, HttpReply* reply) { return GetParam().make(reply, file_); };
  }
  TemporaryFolder folder_;
  std::string file_;
};
INSTANTIATE_TEST_SUITE_P(Limits, ReplyLimitTest,
                         ::testing::Values(ReplyCase{"Text",
                                                     [](HttpReply* reply, const std::string&) {
                                                       return replyText(reply, 200, std::string(20000000, 't'));
                                                     }},
                                           ReplyCase{"File",
                                                     [](HttpReply* reply, const std::string& file) {
                                                       http_replyStatusCodeSet(reply, 200, nullptr);
                                                       return http_serverSendFile(reply, file.c_str());
                                                     }},
                                           ReplyCase{"Device",
                                                     [](HttpReply* reply, const std::string&) {
                                                       http_replyStatusCodeSet(reply, 200, nullptr);
                                                       return http_serverSendFd(
                                                           reply, open("/dev/zero", O_RDONLY | O_CLOEXEC));
                                                     }}),
                         [](const auto& parameter) { return std::string(parameter.param.name); });

TEST_P(ReplyLimitTest, ClientThatDoesNotRead) {
  limits_.stallSeconds = 1;
  serve();
  WireClient client(address(), {4096});
  client.readAtMost(0);
  client.send(get("/"));
  EXPECT_TRUE(until([&] { return http().connectionCount == 1; }));
  EXPECT_TRUE(until([&] { return http().connectionCount == 0; }, kSoon));
  expectRefused(HTTP_MSG_STALLED);
  EXPECT_EQ(callsOf("done"), 1u);
  EXPECT_EQ(callsOf("error"), 0u);
  onRequest = nullptr;
  expectServed();
}

TEST_P(ReplyLimitTest, ClientThatReadsTooSlowly) {
  limits_.minimumRate = 100000000;
  limits_.rateSeconds = 1;
  serve();
  WireClient client(address(), {4096});
  client.readAtMost(500);
  client.readInto([](std::string_view) {});
  client.send(get("/"));
  EXPECT_TRUE(until([&] { return http().connectionCount == 1; }));
  EXPECT_TRUE(until([&] { return http().connectionCount == 0; }, kSoon));
  expectRefused(HTTP_MSG_SLOW);
}

// Each two seconds that are counted off have enough, but not the two in the middle of them.
TEST_F(LimitsTest, BodyThatRestsBetweenTwoBursts) {
  limits_.minimumRate = 1000;
  limits_.rateSeconds = 2;
  serve();
  WireClient client(address());
  const std::string burst(10'000, 'b');
  client.send("PUT /put HTTP/1.1\r\nHost: x\r\nContent-Length: 1000000\r\n\r\n" + burst);
  pass(3500);
  client.send(burst);
  pass(1000);
  EXPECT_FALSE(client.ended());
  EXPECT_TRUE(until([&] { return client.ended(); }, 2));
  expectRefused(HTTP_MSG_SLOW);
}

// The kernel has taken all of it, but the client has not.
TEST_F(LimitsTest, ShortReplyThatIsNotTaken) {
  limits_.stallSeconds = limits_.idleSeconds = 1;
  onRequest = [](HttpRequest*, HttpReply* reply) { return replyText(reply, 200, std::string(100'000, 't')); };
  serve();
  WireClient client(address(), {4096});
  client.readAtMost(0);
  client.send(get("/"));
  EXPECT_TRUE(until([&] { return callsOf("done") == 1; }));
  EXPECT_TRUE(until([&] { return http().connectionCount == 0; }, kSoon));
  expectRefused(HTTP_MSG_STALLED);
  pass(2500);  // the connection lingers
  client.readAtMost(SIZE_MAX);
  EXPECT_TRUE(until([&] { return client.ended(); }, kSoon));
  EXPECT_TRUE(client.wasReset());
  EXPECT_LT(client.received().size(), 100'000u);
}

// The application waits for the client, not the other way round.
TEST_F(LimitsTest, ReplyThatIsNotTakenWhileItsRequestIsPaused) {
  limits_.stallSeconds = 1;
  onRequest = [](HttpRequest* request, HttpReply* reply) {
    const std::string text(8'000'000, 't');
    http_replyStatusCodeSet(reply, 200, nullptr);
    http_replyHeaderValueSet(reply, "Content-Length", "9000000");
    http_replySend(reply);
    fwrite(text.data(), 1, text.size(), http_replyBody(reply));
    return http_serverPauseRequest(request);
  };
  serve();
  WireClient client(address(), {4096});
  client.readAtMost(0);
  client.send(put("hello"));
  EXPECT_TRUE(until([&] { return http().connectionCount == 1; }));
  EXPECT_TRUE(until([&] { return http().connectionCount == 0; }, kSoon));
  expectRefused(HTTP_MSG_STALLED);
}

// Each request begins something new, but not what is to be taken.
TEST_F(LimitsTest, RepliesToPipelinedRequestsAreNotTaken) {
  limits_.stallSeconds = 1;
  onRequest = [](HttpRequest*, HttpReply* reply) { return replyText(reply, 200, std::string(50'000, 't')); };
  for (const bool local : {false, true}) {
    SCOPED_TRACE(local ? "Unix socket" : "TCP");
    local ? listenLocally() : listen();
    ASSERT_EQ(http_serverLimitsSet(&http(), &limits_), 0);
    WireClient client(address(), {4096});
    client.readAtMost(0);
    int turn = 0;
    EXPECT_TRUE(until([&] {
      if (++turn % 100 == 0) client.send(get("/"));
      return http().refused[HTTP_MSG_STALLED] == 1;
    }));
    http().refused[HTTP_MSG_STALLED] = 0;
  }
}

TEST_F(LimitsTest, ReplyThatIsNotTakenWhileItsRequestComes) {
  limits_.stallSeconds = 1;
  onRequest = [](HttpRequest*, HttpReply* reply) { return replyText(reply, 200, std::string(8'000'000, 't')); };
  onBody = [](HttpRequest* request, HttpReply*, FILE*) { return http_msgBodyDiscard(&request->message); };
  serve();
  WireClient client(address(), {4096});
  client.readAtMost(0);
  client.send("PUT /put HTTP/1.1\r\nHost: x\r\nContent-Length: 1000000\r\n\r\n");
  EXPECT_TRUE(trickle(client, [&] { return http().refused[HTTP_MSG_STALLED] == 1; }));
}

TEST_F(LimitsTest, ReplyThatGrowsIsNotTaken) {
  limits_.stallSeconds = 1;
  answerInPieces();
  serve();
  WireClient client(address(), {4096});
  client.readAtMost(0);
  client.send(get("/"));
  ASSERT_TRUE(until([&] { return feeding_ != nullptr; }));
  int turn = 0;
  EXPECT_TRUE(until([&] {
    if (callsOf("done") == 0 && ++turn % 10 == 0) feed(std::string(3000, 'p'));
    return http().refused[HTTP_MSG_STALLED] == 1;
  }));
}

// --- who is not blamed -----------------------------------------------------------------------------------------------

class PatienceTest : public LimitsTest {
 protected:
  void SetUp() override {
    LimitsTest::SetUp();
    limits_.headSeconds = limits_.stallSeconds = limits_.idleSeconds = limits_.rateSeconds = 1;
    limits_.minimumRate = 10000;
  }
};

TEST_F(PatienceTest, ApplicationThatPausesABody) {
  HttpRequest* paused = nullptr;
  onRequest = [&](HttpRequest* request, HttpReply*) {
    paused = request;
    return http_serverPauseRequest(request);
  };
  serve();
  WireClient client(address());
  client.send(put("hello").substr(0, put("hello").size() - 1));
  ASSERT_TRUE(until([&] { return paused != nullptr; }));
  pass(3500);
  EXPECT_FALSE(client.ended());
  http_serverResumeRequest(paused);
  client.send("o");
  EXPECT_TRUE(until([&] { return client.received() == okReply("hello"); }));
  expectRefused(HTTP_MSG_ACCEPTED);
}

TEST_F(PatienceTest, ApplicationThatAnswersLate) {
  onRequest = [&](HttpRequest*, HttpReply* reply) {
    later(3500, [=] { replyText(reply, 200, "late"); });
    return 0;
  };
  serve();
  WireClient client(address());
  client.send(get("/"));
  EXPECT_TRUE(until([&] { return client.received() == okReply("late"); }));
  expectRefused(HTTP_MSG_ACCEPTED);
}

TEST_F(PatienceTest, ApplicationThatDoesNotRead) {
  bool reads = false;
  later(3500, [&] { reads = true; });
  onBody = [&](HttpRequest* request, HttpReply* reply, FILE* stream) {
    if (!reads) return 0;
    body += readBody(stream);
    return http_requestState(request) == HTTP_MSG_DONE ? replyText(reply, 200, body) : 0;
  };
  serve();
  WireClient client(address());
  client.send(put("hello"));
  EXPECT_TRUE(until([&] { return client.received() == okReply("hello") || client.ended(); }));
  EXPECT_EQ(client.received(), okReply("hello"));
  expectRefused(HTTP_MSG_ACCEPTED);
}

// Little is all that there is to be taken; what is on its way at each look is always as much.
TEST_F(PatienceTest, ClientThatIsAMessageBehind) {
  answerInPieces();
  listenLocally();
  ASSERT_EQ(http_serverLimitsSet(&http(), &limits_), 0);
  WireClient client(address());
  client.readAtMost(0);  // but by hand
  client.send(get("/"));
  ASSERT_TRUE(until([&] { return feeding_ != nullptr; }));
  settle();
  std::string head;
  for (char byte = 0; !head.ends_with("\r\n\r\n") && read(client.socket(), &byte, 1) == 1;) head += byte;
  const std::string piece(100, 'p');
  feed(piece);
  for (int round = 0; round < 20 && callsOf("done") == 0; ++round) {
    feed(piece);
    pass(200);
    char taken[106];
    EXPECT_EQ(read(client.socket(), taken, sizeof taken), static_cast<ssize_t>(sizeof taken));
  }
  expectRefused(HTTP_MSG_ACCEPTED);
}

TEST_F(PatienceTest, ApplicationThatFeedsItsReplySlowly) {
  answerInPieces();
  serve();
  WireClient client(address());
  client.send(get("/"));
  ASSERT_TRUE(until([&] { return feeding_ != nullptr; }));
  for (int piece = 0; piece < 3; ++piece) {
    pass(1200);
    ASSERT_FALSE(client.ended());
    feed("piece");
  }
  http_replyDone(feeding_);
  EXPECT_TRUE(until([&] { return countReplies(client.received()) == 1; }));
  EXPECT_EQ(takeReplies(client.received()).at(0).body, "piecepiecepiece");
  expectRefused(HTTP_MSG_ACCEPTED);
}

TEST_F(LimitsTest, BodyThatIsPausedForTooLong) {
  limits_.pausedSeconds = 1;
  onRequest = [](HttpRequest* request, HttpReply*) { return http_serverPauseRequest(request); };
  serve();
  WireClient client(address());
  client.send(put("hello"));
  EXPECT_TRUE(until([&] { return client.ended(); }, kSoon));
  EXPECT_EQ(client.received(), "");
  expectRefused(HTTP_MSG_FORGOTTEN);
}

TEST_F(LimitsTest, RequestWithoutBodyThatIsPausedForTooLong) {
  limits_.pausedSeconds = 1;
  onRequest = [](HttpRequest* request, HttpReply*) { return http_serverPauseRequest(request); };
  serve();
  WireClient client(address());
  client.send(get("/"));
  EXPECT_TRUE(until([&] { return client.ended(); }, kSoon));
  EXPECT_EQ(client.received(), "");
  expectRefused(HTTP_MSG_FORGOTTEN);
}

// --- idle connections ------------------------------------------------------------------------------------------------

TEST_F(LimitsTest, IdleFromTheBeginning) {
  limits_.idleSeconds = 1;
  serve();
  WireClient client(address());
  EXPECT_TRUE(until([&] { return client.ended(); }, kSoon));
  EXPECT_FALSE(client.wasReset());
  EXPECT_EQ(client.received(), "");
  expectRefused(HTTP_MSG_IDLE);
  EXPECT_EQ(calls, std::vector<std::string>());
  expectServed();
}

TEST_F(LimitsTest, IdleBehindARequest) {
  limits_.idleSeconds = 1;
  serve();
  WireClient client(address());
  client.send(get("/a"));
  EXPECT_TRUE(until([&] { return client.ended(); }, kSoon));
  EXPECT_FALSE(client.wasReset());
  EXPECT_EQ(client.received(), okReply("/a"));
  expectRefused(HTTP_MSG_IDLE);
  EXPECT_EQ(callsOf("error"), 0u);
}

TEST_F(LimitsTest, NeverIdleForLong) {
  limits_.idleSeconds = 1;
  serve();
  WireClient client(address());
  for (int request = 0; request < 6; ++request) {
    client.send(get("/a"));
    ASSERT_TRUE(until([&] { return client.received() == okReply("/a"); }));
    client.take();
    pass(500);
  }
  EXPECT_FALSE(client.ended());
  expectRefused(HTTP_MSG_ACCEPTED);
}

// --- how many --------------------------------------------------------------------------------------------------------

std::string lastReply(const std::string& body) {
  return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}

TEST_F(LimitsTest, RequestsOnAConnection) {
  limits_.requests = 3;
  serve();
  for (const bool pipelined : {true, false}) {
    http().refused[HTTP_MSG_MANY_REQUESTS] = 0;
    calls.clear();
    WireClient client(address());
    for (const char* path : {"/1", "/2", "/3", "/4"}) {
      client.send(get(path));
      if (!pipelined) settle();
    }
    EXPECT_TRUE(until([&] { return client.ended(); }));
    EXPECT_FALSE(client.wasReset());
    EXPECT_EQ(client.received(), okReply("/1") + okReply("/2") + lastReply("/3"));
    EXPECT_EQ(callsOf("request"), 3u);
    expectRefused(HTTP_MSG_MANY_REQUESTS);
  }
  expectServed();
}

TEST_F(LimitsTest, OneRequestAConnection) {
  limits_.requests = 1;
  serve();
  WireClient client(address());
  client.send(put("hello") + get("/2"));
  EXPECT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(client.received(), lastReply("hello"));
}

// Whatever becomes of the first attempt to answer.
TEST_F(LimitsTest, LastReplyThatIsBegunAgain) {
  limits_.requests = 1;
  serve();
  onRequest = [](HttpRequest*, HttpReply* reply) {
    http_replyStatusCodeSet(reply, 200, nullptr);
    http_replyReset(reply);
    http_replyVersionSet(reply, 1, 1);
    return replyText(reply, 200, "again");
  };
  WireClient client(address());
  client.send(get("/") + get("/2"));
  EXPECT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(client.received(), lastReply("again"));
}

TEST_F(LimitsTest, LastReplyOfEveryKind) {
  limits_.requests = 1;
  serve();
  for (const auto& make : {+[](HttpReply* reply) { return http_replyWithDefault(reply, 404); },
                           +[](HttpReply* reply) { return http_replyWithRedirect(reply, 302, "/else"); },
                           +[](HttpReply* reply) {
                             return replyText(reply, 200, "x", {{"Connection", "keep-alive"}});
                           },
                           +[](HttpReply* reply) { return http_serverSendFile(reply, "/nowhere"), 0; }}) {
    onRequest = [&](HttpRequest*, HttpReply* reply) { return make(reply); };
    WireClient client(address());
    client.send(get("/") + get("/2"));
    EXPECT_TRUE(until([&] { return client.ended(); }));
    ASSERT_EQ(countReplies(client.received(), true), 1u);
    EXPECT_EQ(takeReplies(client.received()).at(0).header("Connection"), "close");
  }
}

TEST_F(LimitsTest, TheThousandthRequest) {
  http_serverLimitsInitialize(&limits_);
  serve();
  WireClient client(address());
  std::string expected;
  for (int request = 1; request <= 1001; ++request) client.send(get("/" + std::to_string(request)));
  for (int request = 1; request < 1000; ++request) expected += okReply("/" + std::to_string(request));
  EXPECT_TRUE(until([&] { return client.ended(); }));
  EXPECT_TRUE(client.received() == expected + lastReply("/1000"));
  expectRefused(HTTP_MSG_MANY_REQUESTS);
}

TEST_F(LimitsTest, Connections) {
  limits_.connections = 2;
  serve();
  WireClient first(address());
  auto second = std::make_unique<WireClient>(address());
  ASSERT_TRUE(until([&] { return http().connectionCount == 2; }));
  for (uint32_t more = 1; more <= 3; ++more) {
    WireClient third(address());
    third.send(get("/third"));
    EXPECT_TRUE(until([&] { return third.ended(); }));
    EXPECT_FALSE(third.wasReset());
    EXPECT_EQ(third.received(),
              "HTTP/1.1 503 Service Unavailable\r\nConnection: close\r\nRetry-After: 1\r\nContent-Length: 0\r\n\r\n");
    EXPECT_EQ(http().connectionCount, 2);
    expectRefused(HTTP_MSG_MANY_CONNECTIONS, more);
  }
  EXPECT_EQ(calls, std::vector<std::string>());
  first.send(get("/first"));
  EXPECT_TRUE(until([&] { return first.received() == okReply("/first"); }));
  second.reset();
  ASSERT_TRUE(until([&] { return http().connectionCount == 1; }));
  expectServed();
  expectRefused(HTTP_MSG_MANY_CONNECTIONS, 3);
}

// --- limits that change ----------------------------------------------------------------------------------------------

TEST_F(LimitsTest, SetWhileAConnectionIsIdle) {
  limits_.lineBytes = 20;
  for (const bool fresh : {true, false}) {
    if (http().peer == nullptr) listen();
    http_serverLimitsSet(&http(), nullptr);
    WireClient client(address());
    if (!fresh) client.send(get("/a"));
    ASSERT_TRUE(until([&] { return http().connectionCount == 1 && (fresh || client.received() == okReply("/a")); }));
    client.take();
    ASSERT_EQ(http_serverLimitsSet(&http(), &limits_), 0);
    client.send(get("/too-long-for-this"));
    EXPECT_TRUE(until([&] { return countReplies(client.received()) == 1; }));
    EXPECT_EQ(dateless(client.received()), refusal(414)) << (fresh ? "fresh" : "kept alive");
    client.leave();
    EXPECT_TRUE(until([&] { return http().connectionCount == 0; }));
  }
}

TEST_F(LimitsTest, TakenAwayWhileAConnectionIsIdle) {
  limits_.lineBytes = 20;
  limits_.idleSeconds = 1;
  for (const bool fresh : {true, false}) {
    if (http().peer == nullptr) listen();
    ASSERT_EQ(http_serverLimitsSet(&http(), &limits_), 0);
    WireClient client(address());
    if (!fresh) client.send(get("/a"));
    ASSERT_TRUE(until([&] { return http().connectionCount == 1 && (fresh || client.received() == okReply("/a")); }));
    client.take();
    ASSERT_EQ(http_serverLimitsSet(&http(), nullptr), 0);
    EXPECT_EQ(http().sweeper, nullptr);
    client.send(get("/too-long-for-this"));
    EXPECT_TRUE(until([&] { return countReplies(client.received()) == 1 || client.ended(); }));
    EXPECT_EQ(client.received(), okReply("/too-long-for-this")) << (fresh ? "fresh" : "kept alive");
    client.leave();
    EXPECT_TRUE(until([&] { return http().connectionCount == 0; }));
  }
}

TEST_F(LimitsTest, TimeThatIsTakenAway) {
  limits_.headSeconds = 1;
  serve();
  WireClient client(address());
  client.send("GET /a HTTP/1.1\r\nHo");
  settle();
  ASSERT_EQ(http_serverLimitsSet(&http(), nullptr), 0);
  pass(2500);
  client.send("st: x\r\n\r\n");
  EXPECT_TRUE(until([&] { return client.received() == okReply("/a"); }));
  expectRefused(HTTP_MSG_ACCEPTED);
}

TEST_F(LimitsTest, TimeThatIsSetLater) {
  listen();
  limits_.idleSeconds = 1;
  WireClient client(address());
  ASSERT_TRUE(until([&] { return http().connectionCount == 1; }));
  ASSERT_EQ(http_serverLimitsSet(&http(), &limits_), 0);
  EXPECT_TRUE(until([&] { return client.ended(); }, kSoon));
  expectRefused(HTTP_MSG_IDLE);
}

TEST_F(LimitsTest, TakenAwayByTheErrorHandlerOfWhatTheyEnd) {
  limits_.headSeconds = 1;
  onError = [&](HttpRequest*, HttpReply*) { http_serverLimitsSet(&http(), nullptr); };
  serve();
  WireClient client(address());
  WireClient other(address());
  client.send("GET / HT");
  other.send("GET / HT");
  EXPECT_TRUE(until([&] { return client.ended() || other.ended(); }, kSoon));
  settle();
  expectRefused(HTTP_MSG_SLOW_HEAD);
  EXPECT_EQ(http().connectionCount, 1);
}

// --- stopping --------------------------------------------------------------------------------------------------------

TEST_F(LimitsTest, StopEndsTheClock) {
  http_serverLimitsInitialize(&limits_);
  serve();
  WireClient client(address());
  ASSERT_TRUE(until([&] { return http().connectionCount == 1; }));
  EXPECT_NE(http().sweeper, nullptr);
  http_serverStop(&http());
  EXPECT_TRUE(until([&] { return callsOf("stopped") == 1; }));
  EXPECT_EQ(http().sweeper, nullptr);
  EXPECT_TRUE(until([&] { return client.ended(); }));
}

TEST_F(LimitsTest, StoppedServerDoesNotWaitForASlowHead) {
  limits_.headSeconds = 1;
  serve();
  WireClient client(address());
  client.send("GET / HTTP/1.1\r\nHo");
  ASSERT_TRUE(until([&] { return http().connectionCount == 1; }));
  settle();
  http_serverStop(&http());
  EXPECT_TRUE(until([&] { return callsOf("stopped") == 1; }, kSoon));
  EXPECT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(dateless(client.received()), refusal(408));
  expectRefused(HTTP_MSG_SLOW_HEAD);
  EXPECT_EQ(http().sweeper, nullptr);
}

TEST_F(LimitsTest, StopInTheErrorHandlerOfARefusal) {
  limits_.headSeconds = 1;
  onError = [&](HttpRequest*, HttpReply*) { http_serverStop(&http()); };
  serve();
  WireClient client(address());
  WireClient other(address());
  client.send("GET / HT");
  ASSERT_TRUE(until([&] { return http().connectionCount == 2; }));
  EXPECT_TRUE(until([&] { return callsOf("stopped") == 1; }, kSoon));
  EXPECT_TRUE(until([&] { return client.ended() && other.ended(); }));
  EXPECT_EQ(dateless(client.received()), refusal(408));
}

}  // namespace
