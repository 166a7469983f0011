// Exchanges that are ended from this side: the proxy is destroyed or gives up, time runs out, the server stops.
#include <gtest/gtest.h>
#include <krohttp/krohttp.h>

#include <algorithm>
#include <initializer_list>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "support/wire_proxy.h"

namespace {

using Calls = std::vector<std::string>;
using Results = std::vector<int>;

constexpr std::string_view kGet = "GET /a HTTP/1.1\r\nHost: x\r\n\r\n";
constexpr std::string_view kPost = "POST /a HTTP/1.1\r\nHost: x\r\nContent-Length: 10\r\n\r\n0123456789";
const std::string kGatewayTimeout = cannedReply(504, "Gateway Timeout");

// --- exchanges that are brought to a state ---------------------------------------------------------------------------

enum class Stage {
  NotForwarded,   // the proxy was made
  Connecting,     // nobody has accepted the connection to the target
  HeadForwarded,  // of an upload, before the first octet of its body
  InTheBody,      // of an upload
  InTheChunkedBody,
  UploadStands,  // the target does not take more
  Forwarded,     // the target has said nothing
  InTheHead,     // of the reply
  BehindTheHead,
  InTheReply,  // in its body
  InTheChunkedReply,
  InTheReplyUntilClose,
  DownloadStands,  // the browser does not take more
  ReplyComplete,   // and on its way to the browser
};

struct StageCase {
  const char* name;
  Stage stage;
  int state;
  bool headRelayed;
};
void PrintTo(const StageCase& row, std::ostream* out) { *out << row.name; }
constexpr StageCase kStages[] = {
    {"NotForwarded", Stage::NotForwarded, HTTP_PROXY_INIT, false},
    {"Connecting", Stage::Connecting, HTTP_PROXY_SERVER_REQUEST_FORWARDED, false},
    {"HeadForwarded", Stage::HeadForwarded, HTTP_PROXY_RECEIVING_CLIENT_REQUEST, false},
    {"InTheBody", Stage::InTheBody, HTTP_PROXY_RECEIVING_CLIENT_REQUEST, false},
    {"InTheChunkedBody", Stage::InTheChunkedBody, HTTP_PROXY_RECEIVING_CLIENT_REQUEST, false},
    {"UploadStands", Stage::UploadStands, HTTP_PROXY_RECEIVING_CLIENT_REQUEST, false},
    {"Forwarded", Stage::Forwarded, HTTP_PROXY_SERVER_REQUEST_FORWARDED, false},
    {"InTheHead", Stage::InTheHead, HTTP_PROXY_SERVER_REQUEST_FORWARDED, false},
    {"BehindTheHead", Stage::BehindTheHead, HTTP_PROXY_RECEIVING_SERVER_REPLY, true},
    {"InTheReply", Stage::InTheReply, HTTP_PROXY_RECEIVING_SERVER_REPLY, true},
    {"InTheChunkedReply", Stage::InTheChunkedReply, HTTP_PROXY_RECEIVING_SERVER_REPLY, true},
    {"InTheReplyUntilClose", Stage::InTheReplyUntilClose, HTTP_PROXY_RECEIVING_SERVER_REPLY, true},
    {"DownloadStands", Stage::DownloadStands, HTTP_PROXY_RECEIVING_SERVER_REPLY, true},
    {"ReplyComplete", Stage::ReplyComplete, HTTP_PROXY_FORWARDING_CLIENT_REPLY, true},
};

class StagedTest : public WireProxyTest {
 protected:
  static constexpr size_t kLarge = 16 << 20;

  virtual const StageCase& row() const = 0;
  Stage stage() const { return row().stage; }
  static bool isIn(Stage stage, std::initializer_list<Stage> stages) {
    return std::find(stages.begin(), stages.end(), stage) != stages.end();
  }
  bool uploads() const {
    return isIn(stage(), {Stage::HeadForwarded, Stage::InTheBody, Stage::InTheChunkedBody, Stage::UploadStands});
  }

  // Starts an exchange and lets it come to the stage.
  void reach() {
    listen();
    if (isIn(stage(), {Stage::UploadStands})) {
      startTarget({.receiveBuffer = 4096});
    } else {
      startTarget();
    }
    target().always(script());
    target().accepting(stage() != Stage::Connecting);
    if (stage() == Stage::NotForwarded) {
      onRequest = [this](HttpRequest* request, HttpReply*) {
        make(request);
        return 0;
      };
    }
    onForwarded = [this](HttpProxy* forwarded_) {
      if (isIn(stage(), {Stage::ReplyComplete, Stage::DownloadStands})) narrow(forwarded_->request);
    };
    WireClient::Options options;
    if (isIn(stage(), {Stage::ReplyComplete, Stage::DownloadStands})) options.receiveBuffer = 4096;
    browser = std::make_unique<WireClient>(address(), options);
    if (stage() == Stage::DownloadStands) browser->readAtMost(0);
    if (stage() == Stage::ReplyComplete) browser->readAtMost(512);
    browser->send(requestPart());
    if (stage() == Stage::ReplyComplete) {
      ASSERT_TRUE(until([&] { return state() == HTTP_PROXY_FORWARDING_CLIENT_REPLY; }));
      browser->readAtMost(0);
    }
    settle();
    ASSERT_EQ(state(), row().state);
    if (stage() == Stage::UploadStands) {
      ASSERT_FALSE(browser->allSent());
    }
    if (stage() == Stage::DownloadStands) {
      ASSERT_FALSE(target().last().allSent());
    }
    EXPECT_EQ(browser->received().find("\r\n\r\n") != std::string::npos || stage() == Stage::DownloadStands,
              row().headRelayed);
  }
  void TearDown() override {
    browser.reset();
    WireProxyTest::TearDown();
  }

  std::string requestPart() const {
    switch (stage()) {
      case Stage::HeadForwarded:
        return std::string(kPost.substr(0, kPost.size() - 10));
      case Stage::InTheBody:
        return std::string(kPost.substr(0, kPost.size() - 5));
      case Stage::InTheChunkedBody:
        return "POST /a HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n5\r\n01234\r\n5\r\n56";
      case Stage::UploadStands:
        return "POST /a HTTP/1.1\r\nHost: x\r\nContent-Length: " + std::to_string(kLarge) + "\r\n\r\n" +
               pattern(kLarge);
      default:
        return std::string(kGet);
    }
  }
  std::string requestRest() const {
    switch (stage()) {
      case Stage::HeadForwarded:
        return "0123456789";
      case Stage::InTheBody:
        return "56789";
      case Stage::InTheChunkedBody:
        return "789\r\n0\r\n\r\n";
      default:
        return "";
    }
  }
  WireScript script() const {
    switch (stage()) {
      case Stage::UploadStands:
        return WireScript().head().call([](WireTargetConnection& connection) { connection.readAtMost(0); });
      case Stage::InTheHead:
        return WireScript().request().send("HTTP/1.1 200 OK\r\nContent-Le");
      case Stage::BehindTheHead:
        return WireScript().request().send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n");
      case Stage::InTheReply:
        return WireScript().request().send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n01234");
      case Stage::InTheChunkedReply:
        return WireScript().request().send(
            "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\n01234\r\n5\r\n56");
      case Stage::InTheReplyUntilClose:
        return WireScript().request().send("HTTP/1.1 200 OK\r\nX-A: 1\r\n\r\n01234");
      case Stage::DownloadStands:
        return WireScript().request().send(okReply(pattern(kLarge)));
      case Stage::ReplyComplete:
        return WireScript().request().send(okReply(pattern(100000)));
      default:
        return {};
    }
  }
  // The rest of the target's reply, or all of it.
  void targetGoesOn() {
    target().accepting(true);
    if (stage() == Stage::NotForwarded) return;
    ASSERT_TRUE(until([&] { return target().count() > 0; }));
    WireTargetConnection& side = target().last();
    side.readAtMost(SIZE_MAX);
    switch (stage()) {
      case Stage::InTheHead:
        side.send("ngth: 10\r\n\r\n0123456789");
        break;
      case Stage::BehindTheHead:
        side.send("0123456789");
        break;
      case Stage::InTheReply:
        side.send("56789");
        break;
      case Stage::InTheChunkedReply:
        side.send("789\r\n0\r\n\r\n");
        break;
      case Stage::InTheReplyUntilClose:
        side.send("56789").finish();
        break;
      case Stage::DownloadStands:
      case Stage::ReplyComplete:
        break;
      default:
        side.send(okReply("0123456789"));
        break;
    }
  }
  void browserGoesOn() {
    browser->readAtMost(SIZE_MAX);
    browser->send(requestRest());
  }

  std::unique_ptr<WireClient> browser;
};

class EveryStageTest : public StagedTest, public ::testing::WithParamInterface<StageCase> {
 protected:
  const StageCase& row() const override { return GetParam(); }
};

// --- the proxy is destroyed ------------------------------------------------------------------------------------------

class ProxyDestroyTest : public EveryStageTest {};
INSTANTIATE_TEST_SUITE_P(Destroy, ProxyDestroyTest, ::testing::ValuesIn(kStages),
                         [](const auto& parameter) { return parameter.param.name; });

// From a timer, as an application does that has found something better to do; it answers itself where it still can.
TEST_P(ProxyDestroyTest, FromATimer) {
  reach();
  if (HasFatalFailure()) return;
  TraceCapture trace;
  HttpRequest* const received = request();
  later(0, [&] {
    HttpReply* const reply = proxy()->reply;
    destroyNewest();
    if (http().connectionCount == 0) return;
    if (GetParam().headRelayed) {
      peer_destroy(http_requestPeer(received));
    } else if (reply != nullptr) {
      EXPECT_EQ(answer(reply), 0);
    }
  });
  ASSERT_TRUE(until([&] { return proxyCount() == 0; }));
  target().accepting(true);
  settle();
  for (size_t i = 0; i < target().count(); ++i) target().connection(i).readAtMost(SIZE_MAX);
  ASSERT_TRUE(until([&] { return target().open() == 0; }));
  browserGoesOn();
  if (GetParam().headRelayed) {
    ASSERT_TRUE(until([&] { return browser->ended(); }));
    if (stage() == Stage::ReplyComplete) {
      // All of it had been handed over.
      EXPECT_TRUE(browser->received() == okReply(pattern(100000)) || outcome(*browser) == "200 cut closed");
    } else {
      EXPECT_EQ(outcome(*browser), "200 cut closed");
    }
  } else if (stage() != Stage::NotForwarded) {
    ASSERT_TRUE(until([&] { return browser->received() == ownAnswer(); })) << browser->received();
    settle();
    browser->take();
    onRequest = [](HttpRequest*, HttpReply* reply) { return replyText(reply, 200, "next"); };
    browser->send(kGet);
    ASSERT_TRUE(until([&] { return browser->received() == okReply("next"); })) << browser->received();
  }
  browser->leave();
  ASSERT_TRUE(until([&] { return allGone(); }));
}

// The connection to the browser is ended, with the proxy's own handlers running into it.
TEST_P(ProxyDestroyTest, WhileTheBrowserIsClosed) {
  reach();
  if (HasFatalFailure()) return;
  TraceCapture trace;
  ZelPeer* const peer = http_requestPeer(request());
  later(0, [&] { peer_destroy(peer); });
  ASSERT_TRUE(until([&] { return proxyCount() == 0 && http().connectionCount == 0; }));
  target().accepting(true);
  settle();
  for (size_t i = 0; i < target().count(); ++i) target().connection(i).readAtMost(SIZE_MAX);
  ASSERT_TRUE(until([&] { return target().open() == 0; }));
}

// The connection to the target is ended under the proxy by the application.
TEST_P(ProxyDestroyTest, WhileTheTargetIsClosed) {
  reach();
  if (HasFatalFailure() || stage() == Stage::NotForwarded) return;
  TraceCapture trace;
  ZelPeer* const peer = proxy()->client.peer;
  if (peer != nullptr) later(0, [&] { peer_destroy(peer); });
  browserGoesOn();
  ASSERT_TRUE(until([&] { return browser->ended() || outcome(*browser) == "504" || outcome(*browser) == "200"; }))
      << browser->received().size();
  if (!GetParam().headRelayed) {
    EXPECT_EQ(outcome(*browser), "504");
  }
  browser->leave();
  target().accepting(true);
  settle();
  for (size_t i = 0; i < target().count(); ++i) target().connection(i).readAtMost(SIZE_MAX);
  ASSERT_TRUE(until([&] { return allGone(); }));
}

// Handlers in which the application destroys the proxy.
class ProxyDestroyInTest : public WireProxyTest {
 protected:
  // The application's answer arrives, and the next request is forwarded by another proxy.
  void expectOwnAnswer(WireClient& browser) {
    ASSERT_TRUE(until([&] { return browser.received() == ownAnswer(); })) << browser.received();
    settle();
    EXPECT_EQ(browser.take(), ownAnswer());
    EXPECT_EQ(proxyCount(), 0u);
    EXPECT_TRUE(until([&] { return target().open() == 0; }));
    onRequest = [this](HttpRequest* request, HttpReply* reply) { return forward(request, reply); };
    onBody = [this](HttpRequest* request, HttpReply*, FILE* stream) { return forwardBody(request, stream); };
    target().always(WireScript().request().send(okReply("next")));
    browser.send(kPost);
    ASSERT_TRUE(until([&] { return browser.received() == okReply("next"); })) << browser.received();
  }
};

TEST_F(ProxyDestroyInTest, RequestHandlerBehindForwarding) {
  listen();
  startLocalTarget();
  onRequest = [&](HttpRequest* request, HttpReply* reply) {
    EXPECT_EQ(http_proxyForwardRequest(make(request), request, reply), 0);
    destroy(request);
    return answer(reply);
  };
  WireClient browser(address());
  browser.send(kGet);
  expectOwnAnswer(browser);
}

TEST_F(ProxyDestroyInTest, RequestHandlerBehindForwardingAnUpload) {
  listen();
  startLocalTarget();
  onRequest = [&](HttpRequest* request, HttpReply* reply) {
    EXPECT_EQ(http_proxyForwardRequest(make(request), request, reply), 0);
    destroy(request);
    return answer(reply);
  };
  WireClient browser(address());
  browser.send(kPost);
  expectOwnAnswer(browser);
}

TEST_F(ProxyDestroyInTest, BodyHandlerBeforeForwarding) {
  listen();
  startLocalTarget();
  onBody = [&](HttpRequest* request, HttpReply* reply, FILE* stream) {
    readBody(stream);
    if (proxyOf(request) == nullptr) return 0;
    destroy(request);
    return answer(reply);
  };
  WireClient browser(address());
  browser.send(kPost.substr(0, kPost.size() - 5));
  settle();
  browser.send(kPost.substr(kPost.size() - 5));
  expectOwnAnswer(browser);
}

TEST_F(ProxyDestroyInTest, BodyHandlerBehindForwarding) {
  listen();
  startLocalTarget();
  onBody = [&](HttpRequest* request, HttpReply* reply, FILE*) {
    EXPECT_EQ(http_proxyForwardRequestBody(proxyOf(request)), 0);
    if (http_requestState(request) != HTTP_MSG_DONE) return 0;
    destroy(request);
    return answer(reply);
  };
  WireClient browser(address());
  browser.send(kPost.substr(0, kPost.size() - 5));
  settle();
  browser.send(kPost.substr(kPost.size() - 5));
  expectOwnAnswer(browser);
}

TEST_F(ProxyDestroyInTest, ReplyDoneHandlerWithoutATellingCall) {
  listen();
  startLocalTarget().always(WireScript().request().send(okReply("hello")));
  onReplyDone = [&](HttpReply*, HttpRequest* request) { destroy(request); };
  WireClient browser(address());
  for (int i = 0; i < 3; ++i) {
    browser.send(kGet);
    ASSERT_TRUE(until([&] { return browser.received() == okReply("hello"); }));
    browser.take();
    settle();
    EXPECT_EQ(proxyCount(), 0u);
  }
}

TEST_F(ProxyDestroyInTest, ErrorHandler) {
  listen();
  startLocalTarget();
  TraceCapture trace;
  WireClient browser(address());
  browser.send(kPost.substr(0, kPost.size() - 5));
  settle();
  browser.reset();
  ASSERT_TRUE(until([&] { return allGone(); }));
  ASSERT_EQ(endings.size(), 1u);
  EXPECT_EQ(endings[0].substr(0, 6), "error ");
}

// The proxy ends the connection of the browser in the middle of its work; the error or reply-done handler, which runs
// inside that, destroys the proxy.
TEST_F(ProxyDestroyInTest, HandlersThatTheProxyItselfCauses) {
  listen();
  startTarget().always(WireScript().request().send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n01234").leave());
  TraceCapture trace;
  WireClient browser(address());
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return browser.ended(); }));
  ASSERT_TRUE(until([&] { return allGone(); }));
  ASSERT_EQ(endings.size(), 1u);
}

TEST_F(ProxyDestroyInTest, HandlersThatAbortingCauses) {
  listen();
  startTarget().always(WireScript().request().send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n01234"));
  TraceCapture trace;
  WireClient browser(address());
  browser.send(kGet);
  settle();
  ASSERT_EQ(state(), HTTP_PROXY_RECEIVING_SERVER_REPLY);
  http_proxyAbort(proxy());  // outside of the loop
  EXPECT_EQ(proxyCount(), 0u);
  ASSERT_TRUE(until([&] { return browser.ended() && allGone(); }));
}

// Another exchange's handler destroys it.
TEST_F(ProxyDestroyInTest, HandlerOfAnotherExchange) {
  listen();
  startLocalTarget();
  WireClient first(address());
  first.send(kGet);
  settle();
  HttpRequest* const request = proxy()->request;
  HttpReply* const reply = proxy()->reply;
  onFilter = [&](HttpProxy*, HttpReply*) {
    destroy(request);
    return answer(reply);
  };
  WireClient second(address());
  second.send(kGet);
  settle();
  ASSERT_EQ(target().count(), 2u);
  target().connection(1).send(okReply("second"));
  ASSERT_TRUE(until([&] { return second.received() == okReply("second"); })) << second.received();
  ASSERT_TRUE(until([&] { return first.received() == ownAnswer(); })) << first.received();
  EXPECT_TRUE(until([&] { return target().open() == 0; }));
}

// --- the proxy gives up ----------------------------------------------------------------------------------------------

class ProxyAbortTest : public EveryStageTest {
 protected:
  std::string expected() const {
    if (GetParam().stage == Stage::ReplyComplete) return "200";
    return GetParam().headRelayed ? "200 cut closed" : "504";
  }
};
INSTANTIATE_TEST_SUITE_P(Abort, ProxyAbortTest, ::testing::ValuesIn(kStages),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(ProxyAbortTest, TellsTheBrowser) {
  reach();
  if (HasFatalFailure()) return;
  TraceCapture trace;
  later(0, [&] { http_proxyAbort(proxy()); });
  if (stage() == Stage::NotForwarded) {
    settle();
    EXPECT_EQ(browser->received(), "");
    browser->leave();
    ASSERT_TRUE(until([&] { return allGone(); }));
    return;
  }
  settle();
  browserGoesOn();
  ASSERT_TRUE(until([&] { return outcome(*browser) == expected(); })) << outcome(*browser);
  settle();
  EXPECT_EQ(outcome(*browser), expected());
  if (expected() == "504") {
    EXPECT_EQ(browser->received(), kGatewayTimeout);
  }
  ASSERT_TRUE(until([&] { return proxyCount() == 0; }));
  target().accepting(true);
  settle();
  for (size_t i = 0; i < target().count(); ++i) target().connection(i).readAtMost(SIZE_MAX);
  ASSERT_TRUE(until([&] { return target().open() == 0; }));
  if (browser->ended()) return;
  // The connection can be used for another exchange.
  ASSERT_TRUE(until([&] { return browser->allSent(); }));
  settle();
  browser->take();
  onForwarded = nullptr;
  target().always(WireScript().request().send(okReply("next")));
  browser->send(kGet);
  ASSERT_TRUE(until([&] { return browser->received() == okReply("next"); })) << browser->received().size();
}

TEST_P(ProxyAbortTest, TwiceIsAsOnce) {
  reach();
  if (HasFatalFailure()) return;
  TraceCapture trace;
  later(0, [&] {
    http_proxyAbort(proxy());
    if (proxy() != nullptr) http_proxyAbort(proxy());
  });
  settle();
  browserGoesOn();
  if (stage() != Stage::NotForwarded) {
    ASSERT_TRUE(until([&] { return outcome(*browser) == expected(); })) << outcome(*browser);
  }
  browser->leave();
  target().accepting(true);
  settle();
  for (size_t i = 0; i < target().count(); ++i) target().connection(i).readAtMost(SIZE_MAX);
  ASSERT_TRUE(until([&] { return allGone(); }));
}

TEST_P(ProxyAbortTest, ThenDestroyedAtOnce) {
  reach();
  if (HasFatalFailure()) return;
  TraceCapture trace;
  later(0, [&] {
    http_proxyAbort(proxy());
    destroyNewest();
  });
  settle();
  EXPECT_EQ(proxyCount(), 0u);
  browserGoesOn();
  if (stage() != Stage::NotForwarded) {
    ASSERT_TRUE(until([&] { return outcome(*browser) == expected(); })) << outcome(*browser);
  }
  browser->leave();
  target().accepting(true);
  settle();
  for (size_t i = 0; i < target().count(); ++i) target().connection(i).readAtMost(SIZE_MAX);
  ASSERT_TRUE(until([&] { return allGone(); }));
}

class ProxyAbortDoneTest : public WireProxyTest {};

TEST_F(ProxyAbortDoneTest, CompleteReplyIsLeftAlone) {
  listen();
  startLocalTarget().always(WireScript().request().send(okReply("hello")));
  onReplyDone = [&](HttpReply*, HttpRequest* request) {
    HttpProxy* const done = proxyOf(request);
    http_proxyAbort(done);
    EXPECT_EQ(done->state, HTTP_PROXY_FORWARDING_CLIENT_REPLY);
    EXPECT_EQ(http_proxyForwardReplyDone(done), 0);
    http_proxyAbort(done);
    EXPECT_EQ(done->state, HTTP_PROXY_CLIENT_REPLY_FORWARDED);
    destroy(request);
  };
  TraceCapture trace;
  WireClient browser(address());
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return browser.received() == okReply("hello"); }));
  settle();
  EXPECT_EQ(browser.received(), okReply("hello"));
  EXPECT_FALSE(browser.ended());
  EXPECT_EQ(trace.said(), TraceLines{});
}

TEST_F(ProxyAbortDoneTest, InTheRequestHandler) {
  listen();
  startLocalTarget();
  onForwarded = [](HttpProxy* forwarded_) { http_proxyAbort(forwarded_); };
  TraceCapture trace;
  WireClient browser(address());
  for (int i = 0; i < 2; ++i) {
    browser.send(kPost);
    ASSERT_TRUE(until([&] { return browser.received() == kGatewayTimeout; })) << browser.received();
    settle();
    EXPECT_EQ(browser.take(), kGatewayTimeout);
    EXPECT_EQ(proxyCount(), 0u);
  }
  EXPECT_EQ(endings, (Calls{"done FORWARDING_CLIENT_REPLY", "done FORWARDING_CLIENT_REPLY"}));
}

TEST_F(ProxyAbortDoneTest, InTheBodyHandler) {
  listen();
  startLocalTarget();
  onBody = [&](HttpRequest* request, HttpReply*, FILE*) {
    http_proxyAbort(proxyOf(request));
    return http_proxyForwardRequestBody(proxyOf(request));
  };
  TraceCapture trace;
  WireClient browser(address());
  browser.send(kPost.substr(0, kPost.size() - 5));
  settle();
  browser.send(kPost.substr(kPost.size() - 5));
  ASSERT_TRUE(until([&] { return browser.received() == kGatewayTimeout; })) << browser.received();
  settle();
  EXPECT_FALSE(browser.ended());
  EXPECT_EQ(proxyCount(), 0u);
}

// --- body data that nobody wants any more ----------------------------------------------------------------------------

class ProxyDroppedBodyTest : public WireProxyTest {};

// 504 was sent in the middle of the body; all the rest is read, in either coding, and the connection goes on.
TEST_F(ProxyDroppedBodyTest, IsReadAndDropped) {
  listen();
  startTarget();
  TraceCapture trace;
  const std::string content = pattern(3 << 20);
  const std::string requests[] = {
      "POST /a HTTP/1.1\r\nHost: x\r\nContent-Length: " + std::to_string(content.size()) + "\r\n\r\n" + content,
      "POST /a HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n" + chunked(content, 5000)};
  WireClient browser(address());
  for (const std::string& request : requests) {
    bodies.clear();
    browser.send(request.substr(0, 50000));
    settle();
    target().last().leave();
    ASSERT_TRUE(until([&] { return browser.received() == kGatewayTimeout; })) << browser.received();
    const size_t bodyCalls = bodies.size();
    browser.send(request.substr(50000));
    ASSERT_TRUE(until([&] { return proxyCount() == 0; }));
    EXPECT_TRUE(browser.allSent());
    EXPECT_GT(bodies.size(), bodyCalls);
    EXPECT_EQ(bodies, Results(bodies.size(), 0));
    EXPECT_FALSE(browser.ended());
    EXPECT_EQ(browser.take(), kGatewayTimeout);
  }
  target().always(WireScript().request().send(okReply("next")));
  browser.send(kPost);
  ASSERT_TRUE(until([&] { return browser.received() == okReply("next"); })) << browser.received();
}

// --- time runs out ---------------------------------------------------------------------------------------------------

class ProxyTimeoutTest : public EveryStageTest {};
INSTANTIATE_TEST_SUITE_P(Timeout, ProxyTimeoutTest, ::testing::ValuesIn(kStages),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(ProxyTimeoutTest, GivesTheExchangeUp) {
  if (stage() == Stage::NotForwarded || stage() == Stage::ReplyComplete) return;  // nothing to give up
  timeout = 700;
  TraceCapture trace;
  reach();
  if (HasFatalFailure()) return;
  const bool stands = stage() == Stage::DownloadStands;
  ASSERT_TRUE(until([&] { return GetParam().headRelayed ? http().connectionCount == 0 : outcome(*browser) == "504"; }))
      << outcome(*browser);
  browserGoesOn();
  if (GetParam().headRelayed) {
    ASSERT_TRUE(until([&] { return browser->ended(); }));
    if (!stands || !browser->received().empty()) {
      EXPECT_EQ(outcome(*browser), "200 cut closed");
    }
  } else {
    settle();
    EXPECT_EQ(browser->received(), kGatewayTimeout);
  }
  browser->leave();
  target().accepting(true);
  settle();
  for (size_t i = 0; i < target().count(); ++i) target().connection(i).readAtMost(SIZE_MAX);
  ASSERT_TRUE(until([&] { return allGone(); }));
}

class ProxyProgressTest : public WireProxyTest {};

// Slower than the time-out in all, but never in one step.
TEST_F(ProxyProgressTest, SlowReplyIsNotGivenUp) {
  listen();
  startLocalTarget().always(WireScript().request().send("HTTP/1.1 200 OK\r\nContent-Length: 12\r\n\r\n"));
  timeout = 1000;
  WireClient browser(address());
  browser.send(kGet);
  settle();
  for (int i = 0; i < 12; ++i) {
    bool due = false;
    later(120, [&] { due = true; });
    ASSERT_TRUE(until([&] { return due; }));
    target().last().send("x");
  }
  ASSERT_TRUE(until([&] { return outcome(browser) == "200"; })) << browser.received();
}

TEST_F(ProxyProgressTest, SlowUploadIsNotGivenUp) {
  listen();
  startLocalTarget().always(WireScript().request().send(okReply("hello")));
  timeout = 1000;
  WireClient browser(address());
  browser.send(kPost.substr(0, kPost.size() - 10));
  settle();
  for (int i = 0; i < 10; ++i) {
    bool due = false;
    later(140, [&] { due = true; });
    ASSERT_TRUE(until([&] { return due; }));
    browser.send("x");
  }
  ASSERT_TRUE(until([&] { return browser.received() == okReply("hello"); })) << browser.received();
}

// A browser that reads slowly what the proxy holds back.
TEST_F(ProxyProgressTest, SlowBrowserIsNotGivenUp) {
  listen();
  onForwarded = [](HttpProxy* forwarded_) { narrow(forwarded_->request); };
  const std::string content = pattern(1 << 20);
  startLocalTarget().always(WireScript().request().send(okReply(content)));
  timeout = 1000;
  WireClient browser(address(), {.receiveBuffer = 8192});
  browser.readAtMost(0);
  browser.send(kGet);
  for (int i = 0; i < 15; ++i) {
    bool due = false;
    later(100, [&] { due = true; });
    ASSERT_TRUE(until([&] { return due; }));
    for (int j = 0; j < 20; ++j) {
      browser.readAtMost(2000);
      browser.pump();
      browser.readAtMost(0);
      zel_loop_turn(0);
    }
  }
  EXPECT_EQ(browser.received().find("504"), std::string::npos);
  browser.readAtMost(SIZE_MAX);
  ASSERT_TRUE(until([&] { return browser.received().size() == okReply(content).size(); })) << browser.received().size();
  EXPECT_TRUE(browser.received() == okReply(content));
}

// Nothing runs behind an exchange that is over, whatever its time-out was.
TEST_F(ProxyProgressTest, TimeoutEndsWithTheExchange) {
  listen();
  startLocalTarget().always(WireScript().request().send(okReply("hello")));
  timeout = 50;
  WireClient browser(address());
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return browser.received() == okReply("hello"); })) << browser.received();
  bool due = false;
  later(200, [&] { due = true; });
  ASSERT_TRUE(until([&] { return due; }));
  EXPECT_EQ(browser.received(), okReply("hello"));
  EXPECT_FALSE(browser.ended());
}

TEST_F(ProxyProgressTest, NoTimeoutWaits) {
  listen();
  startLocalTarget();
  timeout = 0;
  WireClient browser(address());
  browser.send(kGet);
  bool due = false;
  later(300, [&] { due = true; });
  ASSERT_TRUE(until([&] { return due; }));
  EXPECT_EQ(state(), HTTP_PROXY_SERVER_REQUEST_FORWARDED);
  target().last().send(okReply("hello"));
  ASSERT_TRUE(until([&] { return browser.received() == okReply("hello"); })) << browser.received();
}

// --- the server stops ------------------------------------------------------------------------------------------------

// What happens behind the stop.
struct StopCase {
  StageCase stage;
  const char* name;
  bool targetGoesOn = false, targetLeaves = false, browserGoesOn = false, browserLeaves = false;
};
void PrintTo(const StopCase& row, std::ostream* out) { *out << row.stage.name << row.name; }

std::vector<StopCase> stopCases() {
  std::vector<StopCase> cases;
  for (const StageCase& stage : kStages) {
    cases.push_back({stage, "ThenBothGoOn", true, false, true, false});
    cases.push_back({stage, "ThenTheTargetLeaves", false, true, true, false});
    cases.push_back({stage, "ThenTheBrowserLeaves", false, false, false, true});
    cases.push_back({stage, "ThenBothLeave", false, true, false, true});
  }
  return cases;
}

class ProxyStopTest : public StagedTest, public ::testing::WithParamInterface<StopCase> {
 protected:
  const StageCase& row() const override { return GetParam().stage; }
};
INSTANTIATE_TEST_SUITE_P(Stop, ProxyStopTest, ::testing::ValuesIn(stopCases()), [](const auto& parameter) {
  return std::string(parameter.param.stage.name) + parameter.param.name;
});

TEST_P(ProxyStopTest, ComesToItsEnd) {
  TraceCapture trace;
  reach();
  if (HasFatalFailure()) return;
  later(0, [&] { http_serverStop(&http()); });
  settle();
  if (GetParam().targetLeaves) {
    target().accepting(true);
    settle();
    for (size_t i = 0; i < target().count(); ++i) target().connection(i).reset();
  }
  if (GetParam().targetGoesOn) targetGoesOn();
  if (GetParam().browserGoesOn) browserGoesOn();
  // A request that was never forwarded is the application's, which does not answer it.
  if (GetParam().browserLeaves || stage() == Stage::NotForwarded) browser->reset();
  ASSERT_TRUE(until([&] { return callsOf("stopped") == 1; })) << "still " << http().connectionCount;
  settle();
  EXPECT_EQ(callsOf("stopped"), 1u);
  EXPECT_EQ(http().connectionCount, 0);
  EXPECT_EQ(proxyCount(), 0u);
  target().accepting(true);
  settle();
  for (size_t i = 0; i < target().count(); ++i) target().connection(i).readAtMost(SIZE_MAX);
  ASSERT_TRUE(until([&] { return target().open() == 0; }));
}

// The proxies outlive the connections: the application destroys them long afterwards.
TEST_P(ProxyStopTest, ProxyIsDestroyedLongAfterIt) {
  TraceCapture trace;
  // Nobody sees the end of a browser whose body is not read, but for the time that passes.
  if (stage() == Stage::UploadStands && GetParam().browserLeaves) timeout = 1000;
  reach();
  if (HasFatalFailure()) return;
  onStopped = nullptr;
  later(0, [&] { http_serverStop(&http()); });
  settle();
  if (GetParam().targetGoesOn) targetGoesOn();
  if (GetParam().targetLeaves) {
    target().accepting(true);
    settle();
    for (size_t i = 0; i < target().count(); ++i) target().connection(i).leave();
  }
  if (GetParam().browserGoesOn) browserGoesOn();
  if (GetParam().browserLeaves || stage() == Stage::NotForwarded) browser->leave();
  ASSERT_TRUE(until([&] { return callsOf("stopped") == 1; })) << "still " << http().connectionCount;
  settle();
  if (proxyCount() > 0) {
    EXPECT_EQ(proxy()->request, nullptr);
    EXPECT_EQ(proxy()->reply, nullptr);
    http_proxyAbort(proxy());
  }
  destroyAll();
}

class ProxyStoppedTest : public WireProxyTest {};

// The server is stopped inside a handler of the exchange.
TEST_F(ProxyStoppedTest, InTheFilter) {
  listen();
  startLocalTarget().always(WireScript().request().send(okReply("hello")));
  onFilter = [&](HttpProxy*, HttpReply*) {
    http_serverStop(&http());
    return 0;
  };
  TraceCapture trace;
  WireClient browser(address());
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return callsOf("stopped") == 1; })) << browser.received();
  EXPECT_TRUE(until([&] { return browser.ended(); }));
  EXPECT_TRUE(browser.received() == okReply("hello") || outcome(browser) != "200") << browser.received();
}

TEST_F(ProxyStoppedTest, BehindForwarding) {
  listen();
  startLocalTarget().always(WireScript().request().send(okReply("hello")));
  onForwarded = [&](HttpProxy*) { http_serverStop(&http()); };
  TraceCapture trace;
  WireClient browser(address());
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return callsOf("stopped") == 1; })) << browser.received();
  EXPECT_TRUE(until([&] { return browser.ended(); }));
}

TEST_F(ProxyStoppedTest, InTheReplyDoneHandler) {
  listen();
  startLocalTarget().always(WireScript().request().send(okReply("hello")));
  onReplyDone = [&](HttpReply*, HttpRequest* request) {
    http_serverStop(&http());
    finish(request);
  };
  WireClient browser(address());
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return callsOf("stopped") == 1; })) << browser.received();
  EXPECT_TRUE(until([&] { return browser.ended(); }));
  EXPECT_EQ(browser.received(), okReply("hello"));
}

TEST_F(ProxyStoppedTest, InTheBodyHandler) {
  listen();
  startLocalTarget().always(WireScript().request().send(okReply("hello")));
  onBody = [&](HttpRequest* request, HttpReply*, FILE* stream) {
    http_serverStop(&http());
    return forwardBody(request, stream);
  };
  TraceCapture trace;
  WireClient browser(address());
  browser.send(kPost);
  ASSERT_TRUE(until([&] { return callsOf("stopped") == 1; })) << browser.received();
  EXPECT_TRUE(until([&] { return browser.ended(); }));
}

// Every peer ends at once.
TEST_F(ProxyStoppedTest, LoopIsClosedInTheMiddle) {
  listen();
  startLocalTarget().always(WireScript().request().send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n01234"));
  TraceCapture trace;
  WireClient first(address());
  first.send(kGet);
  WireClient second(address());
  second.send(kPost.substr(0, kPost.size() - 5));
  settle();
  ASSERT_EQ(proxyCount(), 2u);
  zel_loop_close();  // ends every peer, those of the proxies among them
  EXPECT_EQ(proxyCount(), 0u);
  EXPECT_EQ(http().connectionCount, 0);
}

}  // namespace
