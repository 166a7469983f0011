// Exchanges through a proxy that one side ends at any octet: what the other side sees, and that nothing is left.
#include <gtest/gtest.h>
#include <krohttp/krohttp.h>

#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "support/wire_proxy.h"

namespace {

const std::string kGatewayTimeout = cannedReply(504, "Gateway Timeout");
constexpr std::string_view kHello = "hello world";

// --- the target ends its reply at any octet --------------------------------------------------------------------------

struct RequestKind {
  const char* name;
  std::string_view wire;
};
constexpr RequestKind kGet = {"Get", "GET /a HTTP/1.1\r\nHost: x\r\n\r\n"};
constexpr RequestKind kUpload = {"Upload", "POST /a HTTP/1.1\r\nHost: x\r\nContent-Length: 7\r\n\r\ncontent"};
constexpr RequestKind kChunkedUpload = {
    "ChunkedUpload",
    "POST /a HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n3\r\ncon\r\n4\r\ntent\r\n0\r\n\r\n"};

struct ReplyKind {
  const char* name;
  std::string_view wire;
  bool untilClose = false;
};
constexpr ReplyKind kLength = {"Length", "HTTP/1.1 200 OK\r\nX-A: 1\r\nContent-Length: 11\r\n\r\nhello world"};
constexpr ReplyKind kChunked = {
    "Chunked", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n006\r\n world\r\n0\r\n\r\n"};
constexpr ReplyKind kUntilClose = {"UntilClose", "HTTP/1.1 200 OK\r\nX-A: 1\r\n\r\nhello world", true};
constexpr ReplyKind kInterim = {
    "Interim", "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 11\r\n\r\nhello world"};
constexpr ReplyKind kRanges = {
    "Ranges",
    "HTTP/1.1 206 Partial Content\r\nContent-Type: multipart/byteranges; boundary=b\r\nContent-Length: 11\r\n\r\nhello "
    "world"};

struct TargetCutCase {
  RequestKind request;
  ReplyKind reply;

  std::string name() const { return std::string(request.name) + reply.name; }
  size_t headEnd() const {
    const size_t first = reply.wire.find("\r\n\r\n") + 4;
    return reply.wire.substr(first, 4) == "HTTP" ? reply.wire.find("\r\n\r\n", first) + 4 : first;
  }
  std::string status() const {
    return std::string(reply.wire.substr(headEnd() == reply.wire.find("\r\n\r\n") + 4 ? 9 : 34, 3));
  }
};
void PrintTo(const TargetCutCase& row, std::ostream* out) { *out << row.name(); }
constexpr TargetCutCase kTargetCuts[] = {
    {kGet, kLength}, {kGet, kChunked},   {kGet, kUntilClose},        {kGet, kInterim},
    {kGet, kRanges}, {kUpload, kLength}, {kChunkedUpload, kChunked}, {kChunkedUpload, kUntilClose},
};
class ProxyTargetCutTest : public WireProxyTest, public ::testing::WithParamInterface<TargetCutCase> {
 protected:
  std::string part(size_t cut) const { return std::string(GetParam().reply.wire.substr(0, cut)); }
  // What the browser has once the target has ended its reply behind so many octets.
  std::string expectedOutcome(size_t cut) const {
    if (cut < GetParam().headEnd()) return "504";
    if (cut == GetParam().reply.wire.size() || GetParam().reply.untilClose) return GetParam().status();
    return GetParam().status() + " cut closed";
  }
  // What it may have of the body.
  static bool isPart(std::string_view text) { return kHello.substr(0, text.size()) == text; }

  // Behind each of the ends: nothing is left, and the browser's connection goes on unless the reply was cut.
  void expectOutcome(WireClient& browser, const std::string& expected) {
    ASSERT_TRUE(until([&] { return outcome(browser) == expected; })) << outcome(browser) << ": " << browser.received();
    settle();
    EXPECT_EQ(outcome(browser), expected);
    if (expected == "504") {
      EXPECT_EQ(browser.received(), kGatewayTimeout);
    } else {
      EXPECT_TRUE(isPart(bodySoFar(browser.received()))) << browser.received();
    }
    ASSERT_TRUE(until([&] { return proxyCount() == 0 && target().open() == 0; }));
    if (expected.find("cut") != std::string::npos) {
      EXPECT_EQ(http().connectionCount, 0);
      return;
    }
    browser.take();
    target().next(WireScript().request().send(okReply("next")));
    browser.send("GET /next HTTP/1.1\r\nHost: x\r\n\r\n");
    ASSERT_TRUE(until([&] { return browser.received() == okReply("next"); })) << browser.received();
  }
  void leaveNothing(WireClient& browser) {
    browser.leave();
    ASSERT_TRUE(until([&] { return allGone(); }));
    endings.clear();
  }
};
INSTANTIATE_TEST_SUITE_P(Cuts, ProxyTargetCutTest, ::testing::ValuesIn(kTargetCuts),
                         [](const auto& parameter) { return parameter.param.name(); });

// The end comes together with the octets before it.
TEST_P(ProxyTargetCutTest, LeavesAtEveryOctet) {
  listen();
  startTarget();
  TraceCapture trace;
  for (size_t cut = 0; cut <= GetParam().reply.wire.size(); ++cut) {
    SCOPED_TRACE("cut at octet " + std::to_string(cut));
    target().next(WireScript().request().send(part(cut)).leave());
    WireClient browser(address());
    browser.send(GetParam().request.wire);
    expectOutcome(browser, expectedOutcome(cut));
    if (HasFatalFailure()) return;
    leaveNothing(browser);
  }
}

// What came before the end has been relayed already.
TEST_P(ProxyTargetCutTest, LeavesAfterAPauseAtEveryOctet) {
  listen();
  startTarget();
  TraceCapture trace;
  for (size_t cut = 0; cut <= GetParam().reply.wire.size(); ++cut) {
    SCOPED_TRACE("cut at octet " + std::to_string(cut));
    target().next(WireScript().request().send(part(cut)));
    WireClient browser(address());
    browser.send(GetParam().request.wire);
    settle();
    EXPECT_EQ(browser.received().empty(), cut < GetParam().headEnd());
    if (cut >= GetParam().headEnd()) {
      // All that came of the body has been passed on.
      const std::string sent =
          GetParam().reply.untilClose
              ? std::string(kHello.substr(0, cut - GetParam().headEnd()))
              : bodySoFar(part(cut).substr(GetParam().headEnd() == part(cut).find("\r\n\r\n") + 4 ? 0 : 25));
      EXPECT_EQ(bodySoFar(browser.received()), sent);
    }
    target().last().leave();
    expectOutcome(browser, expectedOutcome(cut));
    if (HasFatalFailure()) return;
    leaveNothing(browser);
  }
}

TEST_P(ProxyTargetCutTest, ResetsAfterAPauseAtEveryOctet) {
  listen();
  startTarget();
  TraceCapture trace;
  for (size_t cut = 0; cut <= GetParam().reply.wire.size(); ++cut) {
    SCOPED_TRACE("cut at octet " + std::to_string(cut));
    target().next(WireScript().request().send(part(cut)));
    WireClient browser(address());
    browser.send(GetParam().request.wire);
    settle();
    target().last().reset();
    // A reset is not the end of a body that lasts until there is one.
    const bool cuts = GetParam().reply.untilClose && cut >= GetParam().headEnd();
    expectOutcome(browser, cuts ? GetParam().status() + " cut closed" : expectedOutcome(cut));
    if (HasFatalFailure()) return;
    leaveNothing(browser);
  }
}

// The reset may overtake what was sent before it; the browser is told in any case.
TEST_P(ProxyTargetCutTest, ResetsAtEveryOctet) {
  listen();
  startTarget();
  TraceCapture trace;
  for (size_t cut = 0; cut <= GetParam().reply.wire.size(); ++cut) {
    SCOPED_TRACE("cut at octet " + std::to_string(cut));
    target().next(WireScript().request().send(part(cut)).reset());
    WireClient browser(address());
    browser.send(GetParam().request.wire);
    const std::string status = GetParam().status();
    ASSERT_TRUE(until([&] { return outcome(browser) == "504" || outcome(browser) == status || browser.ended(); }))
        << browser.received();
    settle();
    const std::string found = outcome(browser);
    EXPECT_TRUE(found == "504" || found == status || found == status + " cut closed") << found;
    if (cut < GetParam().headEnd()) {
      EXPECT_EQ(found, "504");
    } else if (found == status && !GetParam().reply.untilClose) {
      EXPECT_EQ(cut, GetParam().reply.wire.size());
    }
    ASSERT_TRUE(until([&] { return proxyCount() == 0; }));
    leaveNothing(browser);
  }
}

// The target falls silent; the application gives the exchange up.
TEST_P(ProxyTargetCutTest, StallsAtEveryOctetAndIsGivenUp) {
  listen();
  startTarget();
  TraceCapture trace;
  for (size_t cut = 0; cut <= GetParam().reply.wire.size(); ++cut) {
    SCOPED_TRACE("cut at octet " + std::to_string(cut));
    target().next(WireScript().request().send(part(cut)));
    WireClient browser(address());
    browser.send(GetParam().request.wire);
    settle();
    const bool complete = cut == GetParam().reply.wire.size() && !GetParam().reply.untilClose;
    ASSERT_EQ(proxyCount(), complete ? 0u : 1u);
    if (!complete) later(0, [this] { http_proxyAbort(proxy()); });
    if (GetParam().reply.untilClose && cut >= GetParam().headEnd()) {
      expectOutcome(browser, GetParam().status() + " cut closed");
    } else {
      expectOutcome(browser, expectedOutcome(cut));
    }
    if (HasFatalFailure()) return;
    leaveNothing(browser);
  }
}

// The same with the end of the stream only: the target could still read.
TEST_P(ProxyTargetCutTest, FinishesAtEveryOctet) {
  listen();
  startTarget();
  TraceCapture trace;
  for (size_t cut = 0; cut <= GetParam().reply.wire.size(); ++cut) {
    SCOPED_TRACE("cut at octet " + std::to_string(cut));
    target().next(WireScript().request().send(part(cut)).finish());
    WireClient browser(address());
    browser.send(GetParam().request.wire);
    expectOutcome(browser, expectedOutcome(cut));
    if (HasFatalFailure()) return;
    leaveNothing(browser);
  }
}

// --- the target ends while the request is on its way -----------------------------------------------------------------

struct TargetLeavesCase {
  const char* name;
  std::function<void(WireTargetConnection&)> leave;
  std::string reply;  // what it says before, whole or in part
};
void PrintTo(const TargetLeavesCase& row, std::ostream* out) { *out << row.name; }
const TargetLeavesCase kTargetLeaves[] = {
    {"Leaves", [](WireTargetConnection& connection) { connection.leave(); }, ""},
    {"Resets", [](WireTargetConnection& connection) { connection.reset(); }, ""},
    {"Finishes", [](WireTargetConnection& connection) { connection.finish(); }, ""},
    {"AnswersAndLeaves", [](WireTargetConnection& connection) { connection.leave(); },
     textReply(413, "Content Too Large", "no")},
    {"AnswersAndFinishes", [](WireTargetConnection& connection) { connection.finish(); },
     textReply(413, "Content Too Large", "no")},
    {"AnswersInPartAndLeaves", [](WireTargetConnection& connection) { connection.leave(); },
     "HTTP/1.1 413 Content Too Large\r\nContent-Le"},
    {"AnswersInPartOfTheBodyAndLeaves", [](WireTargetConnection& connection) { connection.leave(); },
     "HTTP/1.1 413 Content Too Large\r\nContent-Length: 10\r\n\r\nno"},
};
class ProxyTargetLeavesTest : public WireProxyTest, public ::testing::WithParamInterface<TargetLeavesCase> {
 protected:
  // The browser has an answer, or its connection has ended.
  static bool isTold(const WireClient& browser) {
    return browser.ended() || outcome(browser) == "504" || outcome(browser) == "413";
  }
};
INSTANTIATE_TEST_SUITE_P(Cuts, ProxyTargetLeavesTest, ::testing::ValuesIn(kTargetLeaves),
                         [](const auto& parameter) { return parameter.param.name; });

// At every octet of the request that has been forwarded.
TEST_P(ProxyTargetLeavesTest, InTheMiddleOfTheRequest) {
  listen();
  startTarget();
  TraceCapture trace;
  for (const RequestKind& request : {kUpload, kChunkedUpload}) {
    const size_t headEnd = request.wire.find("\r\n\r\n") + 4;
    for (size_t cut = headEnd; cut < request.wire.size(); ++cut) {
      SCOPED_TRACE(std::string(request.name) + ", cut at octet " + std::to_string(cut));
      WireClient browser(address());
      browser.send(request.wire.substr(0, cut));
      settle();
      ASSERT_EQ(proxyCount(), 1u);
      target().last().send(GetParam().reply);
      GetParam().leave(target().last());
      ASSERT_TRUE(until([&] { return isTold(browser); })) << browser.received();
      settle();
      if (GetParam().reply.empty()) {
        EXPECT_EQ(browser.received(), kGatewayTimeout);
      }
      // The rest is read and dropped, and the connection can be used again if the reply was whole.
      browser.send(request.wire.substr(cut));
      settle();
      EXPECT_EQ(proxyCount(), 0u);
      if (!browser.ended()) {
        browser.take();
        target().next(WireScript().request().send(okReply("next")));
        browser.send("GET /next HTTP/1.1\r\nHost: x\r\n\r\n");
        ASSERT_TRUE(until([&] { return browser.received() == okReply("next"); })) << browser.received();
      }
      browser.leave();
      ASSERT_TRUE(until([&] { return allGone(); }));
    }
  }
}

// While more of the body comes than the sockets take.
TEST_P(ProxyTargetLeavesTest, InTheMiddleOfALargeRequest) {
  listen();
  startTarget({.receiveBuffer = 4096});
  target().always(WireScript().head().call([](WireTargetConnection& connection) { connection.readAtMost(0); }));
  TraceCapture trace;
  const std::string content = pattern(16 << 20);
  WireClient browser(address());
  browser.send("POST /a HTTP/1.1\r\nHost: x\r\nContent-Length: " + std::to_string(content.size()) + "\r\n\r\n" +
               content);
  settle();
  ASSERT_EQ(target().count(), 1u);
  EXPECT_FALSE(browser.allSent());
  target().last().send(GetParam().reply);
  GetParam().leave(target().last());
  if (!target().last().left()) {
    target().last().readAtMost(SIZE_MAX);  // it has finished but still reads
  }
  ASSERT_TRUE(until([&] { return isTold(browser); })) << browser.received();
  ASSERT_TRUE(until([&] { return browser.ended() || browser.allSent(); }));
  settle();
  browser.leave();
  ASSERT_TRUE(until([&] { return allGone(); }));
}

TEST_P(ProxyTargetLeavesTest, WhileItIsConnectedTo) {
  listen();
  startTarget();
  target().next(WireScript().send(GetParam().reply).call(GetParam().leave));  // before it has read anything
  TraceCapture trace;
  WireClient browser(address());
  browser.send(kGet.wire);
  ASSERT_TRUE(until([&] { return isTold(browser); })) << browser.received();
  browser.leave();
  ASSERT_TRUE(until([&] { return allGone(); }));
}

// --- answers before the request is complete --------------------------------------------------------------------------

class ProxyEarlyReplyTest : public WireProxyTest, public ::testing::WithParamInterface<TargetCutCase> {};
constexpr TargetCutCase kEarlyReplies[] = {
    {kUpload, kLength}, {kUpload, kChunked}, {kChunkedUpload, kLength}, {kChunkedUpload, kRanges}};
INSTANTIATE_TEST_SUITE_P(Cuts, ProxyEarlyReplyTest, ::testing::ValuesIn(kEarlyReplies),
                         [](const auto& parameter) { return parameter.param.name(); });

// A target that answers behind the head and goes on reading: its answer arrives, whole.
TEST_P(ProxyEarlyReplyTest, AtEveryOctetOfTheBody) {
  const std::string_view wire = GetParam().request.wire;
  listen();
  startTarget();
  TraceCapture trace;
  for (size_t cut = wire.find("\r\n\r\n") + 4; cut < wire.size(); ++cut) {
    SCOPED_TRACE("cut at octet " + std::to_string(cut));
    WireClient browser(address());
    browser.send(wire.substr(0, cut));
    settle();
    target().last().send(GetParam().reply.wire);
    settle();
    browser.send(wire.substr(cut));
    ASSERT_TRUE(until([&] { return outcome(browser) == GetParam().status(); })) << browser.received();
    EXPECT_EQ(bodySoFar(browser.received()), kHello);
    settle();
    EXPECT_EQ(proxyCount(), 0u);
    browser.take();
    target().next(WireScript().request().send(okReply("next")));
    browser.send("GET /next HTTP/1.1\r\nHost: x\r\n\r\n");
    ASSERT_TRUE(until([&] { return browser.received() == okReply("next"); })) << browser.received();
    browser.leave();
    ASSERT_TRUE(until([&] { return allGone(); }));
  }
}

// A target that answers and does not read any more.
TEST_P(ProxyEarlyReplyTest, TargetThatLooksAway) {
  listen();
  startTarget({.receiveBuffer = 4096});
  timeout = 1000;
  target().always(WireScript()
                      .head()
                      .call([](WireTargetConnection& connection) { connection.readAtMost(0); })
                      .turns(20)
                      .send(std::string(GetParam().reply.wire)));
  TraceCapture trace;
  const std::string content = pattern(16 << 20);
  WireClient browser(address());
  browser.send("POST /a HTTP/1.1\r\nHost: x\r\nContent-Length: " + std::to_string(content.size()) + "\r\n\r\n" +
               content);
  // The answer, or 504 when nothing moves any more.
  ASSERT_TRUE(until([&] {
    const std::string found = outcome(browser);
    return found == "504" || found == GetParam().status() || browser.ended();
  })) << browser.received();
  target().last().readAtMost(SIZE_MAX);
  browser.leave();
  ASSERT_TRUE(until([&] { return allGone(); }));
}

// A refusal of an upload that is too large arrives although nobody reads the upload any more.
TEST_P(ProxyEarlyReplyTest, RefusalOfATargetThatLooksAway) {
  const std::string refusal = "HTTP/1.1 413 " + std::string(GetParam().reply.wire.substr(13));
  listen();
  startTarget({.receiveBuffer = 4096});
  target().next(WireScript()
                    .head()
                    .call([](WireTargetConnection& connection) { connection.readAtMost(0); })
                    .turns(20)
                    .send(refusal));
  TraceCapture trace;
  const std::string content = pattern(16 << 20);
  WireClient browser(address());
  browser.send("POST /a HTTP/1.1\r\nHost: x\r\nContent-Length: " + std::to_string(content.size()) + "\r\n\r\n" +
               content);
  ASSERT_TRUE(until([&] { return outcome(browser) == "413" || browser.ended(); })) << browser.received();
  EXPECT_EQ(outcome(browser).substr(0, 4), "413");
  EXPECT_EQ(bodySoFar(browser.received()), kHello);
  target().last().readAtMost(SIZE_MAX);
  // What is left of the upload is dropped, and the connection goes on; or it ends.
  ASSERT_TRUE(until([&] { return browser.ended() || (browser.allSent() && proxyCount() == 0); }));
  if (!browser.ended()) {
    browser.take();
    target().next(WireScript().request().send(okReply("next")));
    browser.send("GET /next HTTP/1.1\r\nHost: x\r\n\r\n");
    ASSERT_TRUE(until([&] { return browser.received() == okReply("next"); })) << browser.received();
  }
  browser.leave();
  ASSERT_TRUE(until([&] { return allGone(); }));
}

// --- the browser leaves ----------------------------------------------------------------------------------------------

struct Way {
  const char* name;
  void (*leave)(WireClient&);
};
constexpr Way kLeave = {"Leaves", [](WireClient& browser) { browser.leave(); }};
constexpr Way kReset = {"Resets", [](WireClient& browser) { browser.reset(); }};
constexpr Way kFinish = {"Finishes", [](WireClient& browser) { browser.finish(); }};

struct BrowserLeavesCase {
  Way way;
  RequestKind request;
  ReplyKind reply;

  std::string name() const { return std::string(way.name) + request.name + reply.name; }
};
void PrintTo(const BrowserLeavesCase& row, std::ostream* out) { *out << row.name(); }
constexpr BrowserLeavesCase kBrowserLeaves[] = {
    {kLeave, kGet, kLength},
    {kReset, kGet, kLength},
    {kFinish, kGet, kLength},
    {kLeave, kUpload, kChunked},
    {kReset, kUpload, kChunked},
    {kFinish, kUpload, kChunked},
    {kLeave, kChunkedUpload, kUntilClose},
    {kReset, kChunkedUpload, kUntilClose},
    {kFinish, kChunkedUpload, kUntilClose},
    {kReset, kGet, kInterim},
    {kReset, kUpload, kRanges},
};
class ProxyBrowserLeavesTest : public WireProxyTest, public ::testing::WithParamInterface<BrowserLeavesCase> {};
INSTANTIATE_TEST_SUITE_P(Cuts, ProxyBrowserLeavesTest, ::testing::ValuesIn(kBrowserLeaves),
                         [](const auto& parameter) { return parameter.param.name(); });

// The target has what was forwarded, and says nothing.
TEST_P(ProxyBrowserLeavesTest, AtEveryOctetOfItsRequest) {
  const std::string_view wire = GetParam().request.wire;
  listen();
  startTarget();
  TraceCapture trace;
  for (const bool paused : {true, false}) {
    for (size_t cut = 1; cut <= wire.size(); ++cut) {
      SCOPED_TRACE("cut at octet " + std::to_string(cut) + (paused ? " after a pause" : ""));
      WireClient browser(address());
      browser.send(wire.substr(0, cut));
      if (paused) {
        settle();
        ASSERT_EQ(proxyCount(), cut < wire.find("\r\n\r\n") + 4 ? 0u : 1u);
      }
      GetParam().way.leave(browser);
      ASSERT_TRUE(until([&] { return allGone(); })) << browser.received();
      settle();
      ASSERT_TRUE(allGone());
    }
  }
}

// The target leaves at the same time.
TEST_P(ProxyBrowserLeavesTest, TogetherWithTheTargetAtEveryOctetOfItsRequest) {
  const std::string_view wire = GetParam().request.wire;
  listen();
  startTarget();
  TraceCapture trace;
  for (const bool browserFirst : {true, false}) {
    for (size_t cut = wire.find("\r\n\r\n") + 4; cut <= wire.size(); ++cut) {
      SCOPED_TRACE("cut at octet " + std::to_string(cut) + (browserFirst ? ", browser first" : ""));
      WireClient browser(address());
      browser.send(wire.substr(0, cut));
      settle();
      ASSERT_EQ(proxyCount(), 1u);
      if (browserFirst) GetParam().way.leave(browser);
      target().last().reset();
      if (!browserFirst) GetParam().way.leave(browser);
      ASSERT_TRUE(until([&] { return allGone(); })) << browser.received();
    }
  }
}

// Behind every octet of the reply that the target has sent; what could be relayed has been.
TEST_P(ProxyBrowserLeavesTest, AtEveryOctetOfTheReply) {
  const std::string_view wire = GetParam().reply.wire;
  listen();
  startTarget();
  TraceCapture trace;
  for (size_t cut = 0; cut <= wire.size(); ++cut) {
    SCOPED_TRACE("behind octet " + std::to_string(cut));
    target().next(WireScript().request().send(std::string(wire.substr(0, cut))));
    WireClient browser(address());
    browser.send(GetParam().request.wire);
    settle();
    GetParam().way.leave(browser);
    ASSERT_TRUE(until([&] { return allGone(); })) << browser.received();
    settle();
    ASSERT_TRUE(allGone());
  }
}

// It leaves, and the target goes on as if nothing had happened.
TEST_P(ProxyBrowserLeavesTest, AtEveryOctetOfTheReplyWhileTheTargetGoesOn) {
  const std::string_view wire = GetParam().reply.wire;
  listen();
  startTarget();
  TraceCapture trace;
  for (size_t cut = 0; cut <= wire.size(); ++cut) {
    SCOPED_TRACE("behind octet " + std::to_string(cut));
    target().next(WireScript().request().send(std::string(wire.substr(0, cut))));
    WireClient browser(address());
    browser.send(GetParam().request.wire);
    settle();
    target().last().send(wire.substr(cut));
    GetParam().way.leave(browser);
    target().last().leave();
    ASSERT_TRUE(until([&] { return allGone(); })) << browser.received();
  }
}

// It reads a part of what was relayed, and leaves.
TEST_P(ProxyBrowserLeavesTest, HavingReadAnyNumberOfOctets) {
  listen();
  startTarget();
  TraceCapture trace;
  WireScript script = WireScript().request().send(std::string(GetParam().reply.wire));
  if (GetParam().reply.untilClose) script.leave();
  target().always(script);
  size_t relayed = SIZE_MAX;
  for (size_t count = 0; count <= relayed; ++count) {
    SCOPED_TRACE("having read " + std::to_string(count) + " octets");
    WireClient browser(address());
    browser.readAtMost(relayed == SIZE_MAX ? SIZE_MAX : 0);
    browser.send(GetParam().request.wire);
    settle();
    if (relayed == SIZE_MAX) relayed = browser.receivedCount();
    browser.readAtMost(count);
    browser.pump();
    browser.readAtMost(0);
    GetParam().way.leave(browser);
    ASSERT_TRUE(until([&] { return allGone(); }));
  }
  EXPECT_GE(relayed, 50u);
}

}  // namespace
