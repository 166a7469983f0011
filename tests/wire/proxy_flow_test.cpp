// Large bodies between two sides of which one is slower: what waits in between stays bounded, and nothing is lost.
#include <gtest/gtest.h>
#include <krohttp/krohttp.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "support/wire_proxy.h"

namespace {

constexpr size_t kSize = 32 << 20;
// What may wait for one side at any time.
constexpr size_t kBound = 512 << 10;

const std::string& content() {
  static const std::string bytes = pattern(kSize);
  return bytes;
}

struct FlowCase {
  const char* name;
  std::string headers;
  size_t chunk;  // 0 for none
  bool untilClose = false;
};
void PrintTo(const FlowCase& row, std::ostream* out) { *out << row.name; }
const std::string kLengthHeader = "Content-Length: " + std::to_string(kSize) + "\r\n";
const FlowCase kFlows[] = {
    {"Length", kLengthHeader, 0},
    {"OneChunk", "Transfer-Encoding: chunked\r\n", SIZE_MAX},
    {"SmallChunks", "Transfer-Encoding: chunked\r\n", 3000},
    {"Multipart", "Content-Type: multipart/mixed; boundary=b\r\n" + kLengthHeader, 0},
    {"UntilClose", "X-A: 1\r\n", 0, true},
};

class ProxyFlowTest : public WireProxyTest, public ::testing::WithParamInterface<FlowCase> {
 protected:
  std::string wire() const { return GetParam().chunk == 0 ? content() : chunked(content(), GetParam().chunk); }
  // Notes how much waits for either side now.
  void look() {
    if (proxy() == nullptr) return;
    if (proxy()->client.peer != nullptr) upwards = std::max(upwards, peer_bytesQueued(proxy()->client.peer));
    if (proxy()->request != nullptr)
      downwards = std::max(downwards, peer_bytesQueued(http_requestPeer(proxy()->request)));
  }
  template <typename Condition>
  bool lookUntil(Condition condition, int seconds = 60) {
    return until(
        [&] {
          look();
          return condition();
        },
        seconds);
  }
  // Lets the two sides do what they can until nothing moves any more.
  void rest(const std::function<size_t()>& moved) {
    size_t before = SIZE_MAX;
    while (before != moved()) {
      before = moved();
      for (int turn = 0; turn < 50; ++turn) {
        WireClient::pumpAll();
        WireTarget::pumpAll();
        zel_loop_turn(1);
        look();
      }
    }
  }
  void expectBounded() const {
    EXPECT_LT(upwards, kBound);
    EXPECT_LT(downwards, kBound);
  }
  void expectContent(const WireClient& browser) {
    const auto replies = takeReplies(browser.received());
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(replies[0].status(), 200u);
    EXPECT_TRUE(replies[0].body == content()) << replies[0].body.size();
  }
  WireScript download() const {
    WireScript script = WireScript().request().send("HTTP/1.1 200 OK\r\n" + GetParam().headers + "\r\n" + wire());
    if (GetParam().untilClose) script.leave();
    return script;
  }
  std::string upload() const { return "PUT /a HTTP/1.1\r\nHost: x\r\n" + GetParam().headers + "\r\n" + wire(); }

  size_t upwards = 0;
  size_t downwards = 0;
};

class ProxyDownloadFlowTest : public ProxyFlowTest {};
INSTANTIATE_TEST_SUITE_P(Flow, ProxyDownloadFlowTest, ::testing::ValuesIn(kFlows),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(ProxyDownloadFlowTest, BrowserThatLooksAway) {
  listen();
  startTarget().always(download());
  WireClient browser(address());
  browser.readAtMost(0);
  browser.send("GET /a HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(lookUntil([&] { return target().count() == 1 && target().last().sentCount() > 0; }));
  rest([&] { return target().last().sentCount(); });
  EXPECT_FALSE(target().last().allSent());
  EXPECT_EQ(state(), HTTP_PROXY_RECEIVING_SERVER_REPLY);
  expectBounded();
  EXPECT_GT(downwards, 0u);
  browser.readAtMost(SIZE_MAX);
  ASSERT_TRUE(lookUntil([&] { return browser.ended() || (browser.receivedCount() > kSize && proxyCount() == 0); }));
  expectBounded();
  expectContent(browser);
  EXPECT_FALSE(browser.ended());
}

// It looks again and again, for a moment.
TEST_P(ProxyDownloadFlowTest, BrowserThatReadsInSteps) {
  listen();
  startTarget().always(download());
  WireClient browser(address());
  browser.readAtMost(0);
  browser.send("GET /a HTTP/1.1\r\nHost: x\r\n\r\n");
  for (int i = 0; i < 60; ++i) {
    browser.readAtMost(i % 2 == 0 ? 0 : 300000);
    for (int turn = 0; turn < 10; ++turn) {
      WireClient::pumpAll();
      WireTarget::pumpAll();
      zel_loop_turn(0);
      look();
    }
  }
  browser.readAtMost(SIZE_MAX);
  ASSERT_TRUE(lookUntil([&] { return browser.ended() || (browser.receivedCount() > kSize && proxyCount() == 0); }));
  expectBounded();
  expectContent(browser);
}

TEST_P(ProxyDownloadFlowTest, FastBrowser) {
  listen();
  startTarget().always(download());
  WireClient browser(address());
  browser.send("GET /a HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(lookUntil([&] { return browser.ended() || (browser.receivedCount() > kSize && proxyCount() == 0); }));
  expectBounded();
  expectContent(browser);
}

TEST_P(ProxyDownloadFlowTest, OverLocalSockets) {
  listenLocally();
  TraceCapture trace;  // the options of TCP do not hold here
  startLocalTarget().always(download());
  WireClient browser(address());
  browser.readAtMost(0);
  browser.send("GET /a HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(lookUntil([&] { return target().count() == 1 && target().last().sentCount() > 0; }));
  rest([&] { return target().last().sentCount(); });
  EXPECT_FALSE(target().last().allSent());
  expectBounded();
  browser.readAtMost(SIZE_MAX);
  ASSERT_TRUE(lookUntil([&] { return browser.ended() || (browser.receivedCount() > kSize && proxyCount() == 0); }));
  expectBounded();
  expectContent(browser);
}

// The browser leaves while the target stands.
TEST_P(ProxyDownloadFlowTest, BrowserThatLooksAwayAndLeaves) {
  listen();
  startTarget().always(download());
  TraceCapture trace;
  WireClient browser(address());
  browser.readAtMost(0);
  browser.send("GET /a HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(lookUntil([&] { return target().count() == 1 && target().last().sentCount() > 0; }));
  rest([&] { return target().last().sentCount(); });
  browser.leave();
  ASSERT_TRUE(until([&] { return allGone(); }));
}

// The target leaves while the browser looks away: what it sent before arrives, and then the end.
TEST_P(ProxyDownloadFlowTest, TargetThatLeavesMeanwhile) {
  listen();
  startTarget().always(download());
  TraceCapture trace;
  WireClient browser(address());
  browser.readAtMost(0);
  browser.send("GET /a HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(lookUntil([&] { return target().count() == 1 && target().last().sentCount() > 0; }));
  rest([&] { return target().last().sentCount(); });
  target().last().leave();
  settle();
  browser.readAtMost(SIZE_MAX);
  ASSERT_TRUE(lookUntil([&] { return browser.ended() || proxyCount() == 0; }));
  settle();
  const std::string got = bodySoFar(browser.received());
  EXPECT_TRUE(content().compare(0, got.size(), got) == 0);
  EXPECT_LT(got.size(), kSize);
  // Where the body has no length its end is where the target left.
  EXPECT_EQ(outcome(browser), GetParam().untilClose ? "200" : "200 cut closed");
  browser.leave();
  ASSERT_TRUE(until([&] { return allGone(); }));
}

class ProxyUploadFlowTest : public ProxyFlowTest {};
INSTANTIATE_TEST_SUITE_P(Flow, ProxyUploadFlowTest,
                         ::testing::ValuesIn(std::vector<FlowCase>(std::begin(kFlows), std::end(kFlows) - 1)),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(ProxyUploadFlowTest, TargetThatLooksAway) {
  listen();
  startTarget().always(WireScript()
                           .head()
                           .call([](WireTargetConnection& side) { side.readAtMost(0); })
                           .received(kSize)
                           .request()
                           .send(okReply("got it")));
  WireClient browser(address());
  browser.send(upload());
  ASSERT_TRUE(lookUntil([&] { return target().count() == 1; }));
  rest([&] { return browser.sentCount(); });
  EXPECT_FALSE(browser.allSent());
  EXPECT_EQ(state(), HTTP_PROXY_RECEIVING_CLIENT_REQUEST);
  expectBounded();
  EXPECT_GT(upwards, 0u);
  target().last().readAtMost(SIZE_MAX);
  ASSERT_TRUE(lookUntil([&] { return browser.received() == okReply("got it") || browser.ended(); }));
  expectBounded();
  const auto requests = target().last().requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_TRUE(requests[0].body == content()) << requests[0].body.size();
  EXPECT_EQ(browser.received(), okReply("got it"));
}

TEST_P(ProxyUploadFlowTest, TargetThatReadsInSteps) {
  listen();
  startTarget().always(WireScript().received(kSize).request().send(okReply("got it")));
  WireClient browser(address());
  browser.send(upload());
  ASSERT_TRUE(lookUntil([&] { return target().count() == 1; }));
  for (int i = 0; i < 60; ++i) {
    target().last().readAtMost(i % 2 == 0 ? 0 : 300000);
    for (int turn = 0; turn < 10; ++turn) {
      WireClient::pumpAll();
      WireTarget::pumpAll();
      zel_loop_turn(0);
      look();
    }
  }
  target().last().readAtMost(SIZE_MAX);
  ASSERT_TRUE(lookUntil([&] { return browser.received() == okReply("got it") || browser.ended(); }));
  expectBounded();
  EXPECT_TRUE(target().last().requests().at(0).body == content());
}

TEST_P(ProxyUploadFlowTest, OverLocalSockets) {
  listenLocally();
  TraceCapture trace;  // the options of TCP do not hold here
  startLocalTarget().always(WireScript()
                                .head()
                                .call([](WireTargetConnection& side) { side.readAtMost(0); })
                                .received(kSize)
                                .request()
                                .send(okReply("got it")));
  WireClient browser(address());
  browser.send(upload());
  ASSERT_TRUE(lookUntil([&] { return target().count() == 1; }));
  rest([&] { return browser.sentCount(); });
  EXPECT_FALSE(browser.allSent());
  expectBounded();
  target().last().readAtMost(SIZE_MAX);
  ASSERT_TRUE(lookUntil([&] { return browser.received() == okReply("got it") || browser.ended(); }));
  expectBounded();
  EXPECT_TRUE(target().last().requests().at(0).body == content());
}

// A target that is not there yet holds the browser back, too.
TEST_P(ProxyUploadFlowTest, TargetThatDoesNotAccept) {
  listen();
  startTarget({.receiveBuffer = 4096}).always(WireScript().received(kSize).request().send(okReply("got it")));
  target().accepting(false);
  WireClient browser(address());
  browser.send(upload());
  ASSERT_TRUE(lookUntil([&] { return proxyCount() == 1; }));
  rest([&] { return browser.sentCount(); });
  EXPECT_FALSE(browser.allSent());
  expectBounded();
  target().accepting(true);
  ASSERT_TRUE(lookUntil([&] { return browser.received() == okReply("got it") || browser.ended(); }));
  expectBounded();
  EXPECT_TRUE(target().last().requests().at(0).body == content());
}

TEST_P(ProxyUploadFlowTest, BrowserThatResetsMeanwhile) {
  listen();
  startTarget().always(WireScript().head().call([](WireTargetConnection& side) { side.readAtMost(0); }));
  TraceCapture trace;
  WireClient browser(address());
  browser.send(upload());
  ASSERT_TRUE(lookUntil([&] { return target().count() == 1; }));
  rest([&] { return browser.sentCount(); });
  browser.reset();
  ASSERT_TRUE(until([&] { return http().connectionCount == 0 && proxyCount() == 0; }));
  target().last().readAtMost(SIZE_MAX);
  ASSERT_TRUE(until([&] { return allGone(); }));
  EXPECT_EQ(target().last().requests().at(0).line, "leftover");
}

class ProxyManyFlowsTest : public WireProxyTest {};

// Exchanges that stand do not hold up others.
TEST_F(ProxyManyFlowsTest, OneGoesOnWhileOthersStand) {
  listen();
  const std::string large = pattern(12 << 20);
  startTarget();
  for (int i = 0; i < 10; ++i) target().next(WireScript().request().send(okReply(large)));
  target().always(WireScript().request().send(okReply("hello")));
  std::vector<std::unique_ptr<WireClient>> standing;
  for (int i = 0; i < 10; ++i) {
    standing.push_back(std::make_unique<WireClient>(address(), WireClient::Options{.receiveBuffer = 4096}));
    standing.back()->readAtMost(0);
    standing.back()->send("GET /large HTTP/1.1\r\nHost: x\r\n\r\n");
    ASSERT_TRUE(until([&] { return target().count() == standing.size(); }));
  }
  settle();
  ASSERT_EQ(proxyCount(), 10u);
  WireClient browser(address());
  for (int i = 0; i < 20; ++i) {
    browser.send("GET /a HTTP/1.1\r\nHost: x\r\n\r\n");
    ASSERT_TRUE(until([&] { return browser.received() == okReply("hello"); })) << browser.received();
    browser.take();
  }
  EXPECT_EQ(proxyCount(), 10u);
  for (const auto& one : standing) one->readAtMost(SIZE_MAX);
  for (const auto& one : standing) {
    ASSERT_TRUE(until([&] { return one->receivedCount() == okReply(large).size(); }, 60));
    EXPECT_TRUE(one->received() == okReply(large));
  }
}

// The loop sleeps while nothing can move: no exchange that stands keeps it awake.
TEST_F(ProxyManyFlowsTest, StandingExchangesAreQuiet) {
  listen();
  startTarget();
  target().next(WireScript().request().send(okReply(pattern(16 << 20))));
  target().next(WireScript().head().call([](WireTargetConnection& side) { side.readAtMost(0); }));
  WireClient reader(address());
  reader.readAtMost(0);
  reader.send("GET /a HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(until([&] { return target().count() == 1; }));
  WireClient writer(address());
  writer.send("PUT /a HTTP/1.1\r\nHost: x\r\nContent-Length: " + std::to_string(16 << 20) + "\r\n\r\n" +
              pattern(16 << 20));
  ASSERT_TRUE(until([&] { return target().count() == 2; }));
  settle();
  size_t due = 0;
  for (int turn = 0; turn < 100; ++turn) {
    if (loopIsDue()) ++due;
    zel_loop_turn(0);
  }
  EXPECT_LE(due, 5u);
  EXPECT_EQ(proxyCount(), 2u);
  reader.leave();
  writer.reset();
  target().connection(1).readAtMost(SIZE_MAX);
  TraceCapture trace;
  ASSERT_TRUE(until([&] { return allGone(); }));
}

}  // namespace
