// The states of a proxy, what it traces, and what each step that fails leaves behind.
#include <gtest/gtest.h>
#include <krohttp/krohttp.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "support/wire_proxy.h"

namespace {

using Calls = std::vector<std::string>;
using Results = std::vector<int>;

constexpr std::string_view kGet = "GET /a?x=1 HTTP/1.1\r\nHost: x\r\n\r\n";
constexpr std::string_view kPost = "POST /a HTTP/1.1\r\nHost: x\r\nContent-Length: 10\r\n\r\n0123456789";
const std::string kGatewayTimeout = cannedReply(504, "Gateway Timeout");

// --- the way of an exchange ------------------------------------------------------------------------------------------

class ProxyStateTest : public WireProxyTest {};

TEST_F(ProxyStateTest, RequestWithoutBody) {
  listen();
  startLocalTarget();
  TraceCapture trace{"http-proxy"};
  WireClient browser(address());
  browser.send(kGet);
  settle();
  EXPECT_EQ(proxyStates(trace), (TraceLines{"INIT", "CLIENT_REQUEST_RECEIVED", "SERVER_REQUEST_FORWARDED"}));
  EXPECT_EQ(state(), HTTP_PROXY_SERVER_REQUEST_FORWARDED);

  target().last().send("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhel");
  settle();
  EXPECT_EQ(state(), HTTP_PROXY_RECEIVING_SERVER_REPLY);
  EXPECT_EQ(browser.received(), "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhel");

  target().last().send("lo");
  settle();
  EXPECT_EQ(proxyStates(trace),
            (TraceLines{"INIT", "CLIENT_REQUEST_RECEIVED", "SERVER_REQUEST_FORWARDED", "RECEIVING_SERVER_REPLY",
                        "FORWARDING_CLIENT_REPLY", "CLIENT_REPLY_FORWARDED"}));
  EXPECT_EQ(endings, (Calls{"done FORWARDING_CLIENT_REPLY"}));
  EXPECT_EQ(browser.received(), okReply("hello"));
  EXPECT_EQ(trace.errors(), TraceLines{});
}

TEST_F(ProxyStateTest, RequestWithBody) {
  listen();
  startLocalTarget();
  TraceCapture trace{"http-proxy"};
  WireClient browser(address());
  browser.send(kPost.substr(0, kPost.size() - 10));
  settle();
  EXPECT_EQ(state(), HTTP_PROXY_RECEIVING_CLIENT_REQUEST);
  browser.send("01234");
  settle();
  EXPECT_EQ(state(), HTTP_PROXY_RECEIVING_CLIENT_REQUEST);
  EXPECT_EQ(target().last().received().substr(target().last().received().size() - 9), "\r\n\r\n01234");
  browser.send("56789");
  settle();
  EXPECT_EQ(state(), HTTP_PROXY_SERVER_REQUEST_FORWARDED);
  target().last().send(okReply("hello"));
  settle();
  EXPECT_EQ(proxyStates(trace),
            (TraceLines{"INIT", "CLIENT_REQUEST_RECEIVED", "RECEIVING_CLIENT_REQUEST", "SERVER_REQUEST_FORWARDED",
                        "RECEIVING_SERVER_REPLY", "FORWARDING_CLIENT_REPLY", "CLIENT_REPLY_FORWARDED"}));
  EXPECT_EQ(bodies, (Results{0, 0, 0}));  // the first one with nothing to read
  EXPECT_EQ(trace.errors(), TraceLines{});
}

// The whole reply has come and waits for the browser.
TEST_F(ProxyStateTest, ReplyOnItsWayToASlowBrowser) {
  listen();
  onForwarded = [](HttpProxy* proxy) { narrow(proxy->request); };
  startLocalTarget().always(WireScript().request().send(okReply(pattern(100000))));
  WireClient browser(address(), {.receiveBuffer = 4096});
  browser.readAtMost(512);
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return state() == HTTP_PROXY_FORWARDING_CLIENT_REPLY; }));
  browser.readAtMost(0);
  settle();
  EXPECT_EQ(state(), HTTP_PROXY_FORWARDING_CLIENT_REPLY);
  EXPECT_EQ(endings, Calls{});
  browser.readAtMost(SIZE_MAX);
  ASSERT_TRUE(until([&] { return browser.received() == okReply(pattern(100000)); }));
  settle();
  EXPECT_EQ(endings, (Calls{"done FORWARDING_CLIENT_REPLY"}));
}

TEST_F(ProxyStateTest, MessagesKnowTheirProxy) {
  listen();
  startLocalTarget().always(WireScript().request().send(okReply("hello")));
  onForwarded = [&](HttpProxy* proxy) {
    EXPECT_EQ(http_requestUserData(proxy->forwardRequest), proxy);
    EXPECT_EQ(http_replyUserData(proxy->forwardReply), proxy);
    EXPECT_EQ(http_requestOwner(proxy->forwardRequest), &proxy->client);
    EXPECT_EQ(proxy->owner, &http());
    EXPECT_EQ(proxyOf(proxy->request), proxy);
    EXPECT_EQ(http_replyPeer(proxy->reply), http_requestPeer(proxy->request));
    EXPECT_EQ(peer_connection(proxy->client.peer), connection());
  };
  WireClient browser(address());
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return browser.received() == okReply("hello"); }));
}

TEST_F(ProxyStateTest, ReplyDoneIsNotedInAnyState) {
  HttpProxy* const proxy = http_proxyCreate(connection(), "ipc", "/run/target");
  TraceCapture trace{"http-proxy"};
  EXPECT_EQ(http_proxyForwardReplyDone(proxy), 0);
  EXPECT_EQ(proxy->state, HTTP_PROXY_CLIENT_REPLY_FORWARDED);
  EXPECT_EQ(trace.said(),
            (TraceLines{"http-pr[i]switch proxy state from INIT to CLIENT_REPLY_FORWARDED (http://ipcunknown)"}));
  http_proxyDestroy(proxy);
}

// --- traces ----------------------------------------------------------------------------------------------------------

class ProxyTraceTest : public WireProxyTest {
 protected:
  static std::string switched(std::string_view from, std::string_view to, std::string_view where) {
    return "[i]switch proxy state from " + std::string(from) + " to " + std::string(to) + " (http://" +
           std::string(where) + ")";
  }
  // The lines until the request's head was forwarded.
  TraceLines headForwarded(std::string_view uri) const {
    return {"[i]forwarding request", switched("INIT", "CLIENT_REQUEST_RECEIVED", std::string(host) + "unknown"),
            "[i]connecting using zel://" + std::string(host) + ":[" + port + "]",
            "[i]forwarding request for " + std::string(uri)};
  }
  TraceLines replied(std::string_view content) const {
    const std::string where = std::string(host) + "/a";
    TraceLines lines = {"[i]handling reply OK for request /a",
                        switched("SERVER_REQUEST_FORWARDED", "RECEIVING_SERVER_REPLY", where),
                        "[i]reply message as been forwarded"};
    if (!content.empty()) {
      lines.emplace_back("[i]handling reply body for request /a");
      const TraceLines copied = copy({std::string(content)});
      lines.insert(lines.end(), copied.begin(), copied.end());
    }
    const TraceLines ended = {
        "[i]reply has been received: /a", switched("RECEIVING_SERVER_REPLY", "FORWARDING_CLIENT_REPLY", where),
        switched("FORWARDING_CLIENT_REPLY", "CLIENT_REPLY_FORWARDED", where), "[i]destroying proxy instance"};
    lines.insert(lines.end(), ended.begin(), ended.end());
    return lines;
  }
  static TraceLines copy(const std::vector<std::string>& reads) {
    TraceLines lines = {"[i]do copying body"};
    for (const std::string& read : reads) {
      lines.emplace_back("[i]read");
      lines.push_back("[i]read " + std::to_string(read.size()) + ": " + read);
    }
    lines.emplace_back("[i]copied body");
    return lines;
  }
  static TraceLines joined(std::initializer_list<TraceLines> parts) {
    TraceLines lines;
    for (const TraceLines& part : parts) lines.insert(lines.end(), part.begin(), part.end());
    return lines;
  }
};

TEST_F(ProxyTraceTest, ExchangeOverALocalSocket) {
  listen();
  startLocalTarget().always(WireScript().request().send(okReply("hello")));
  TraceCapture trace{"http-proxy"};
  WireClient browser(address());
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return browser.received() == okReply("hello"); }));
  settle();
  EXPECT_EQ(proxyLines(trace), joined({headForwarded("/a?x=1"),
                                       {switched("CLIENT_REQUEST_RECEIVED", "SERVER_REQUEST_FORWARDED", "ipc/a")},
                                       replied("hello")}));
  EXPECT_EQ(trace.said().size(), proxyLines(trace).size());
}

TEST_F(ProxyTraceTest, ExchangeOverTcp) {
  listen();
  startTarget().always(WireScript().request().send(okReply("")));
  TraceCapture trace{"http-proxy"};
  WireClient browser(address());
  browser.send("GET /a HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(until([&] { return browser.received() == okReply(""); }));
  settle();
  EXPECT_EQ(proxyLines(trace), joined({headForwarded("/a"),
                                       {switched("CLIENT_REQUEST_RECEIVED", "SERVER_REQUEST_FORWARDED", "127.0.0.1/a")},
                                       replied("")}));
}

TEST_F(ProxyTraceTest, BodyInTwoParts) {
  listen();
  startLocalTarget().always(WireScript().request().send(okReply("hello")));
  TraceCapture trace{"http-proxy"};
  WireClient browser(address());
  browser.send(kPost.substr(0, kPost.size() - 7));
  settle();
  browser.send(kPost.substr(kPost.size() - 7));
  ASSERT_TRUE(until([&] { return browser.received() == okReply("hello"); }));
  settle();
  EXPECT_EQ(proxyLines(trace), joined({headForwarded("/a"),
                                       {switched("CLIENT_REQUEST_RECEIVED", "RECEIVING_CLIENT_REQUEST", "ipc/a")},
                                       copy({"012"}),
                                       copy({"3456789"}),
                                       {"[i]request have been forwared",
                                        switched("RECEIVING_CLIENT_REQUEST", "SERVER_REQUEST_FORWARDED", "ipc/a")},
                                       replied("hello")}));
}

// Four times the work buffer, in both directions: every line names what was read.
TEST_F(ProxyTraceTest, BodiesAreReadInBlocks) {
  listen();
  const std::string content(3 * 4096, 'b');
  startLocalTarget().always(WireScript().request().send(okReply(content)));
  TraceCapture trace{"http-proxy"};
  WireClient browser(address());
  browser.send("POST /a HTTP/1.1\r\nHost: x\r\nContent-Length: " + std::to_string(content.size()) + "\r\n\r\n" +
               content);
  ASSERT_TRUE(until([&] { return browser.received() == okReply(content); }));
  settle();
  size_t total = 0;
  for (const std::string& line : proxyLines(trace)) {
    if (line.compare(0, 8, "[i]read ") != 0) continue;
    const size_t count = strtoul(line.c_str() + 8, nullptr, 10);
    total += count;
    EXPECT_LE(count, 4096u);
    EXPECT_EQ(line.substr(0, line.find(": ")), "[i]read " + std::to_string(count));
  }
  EXPECT_EQ(total, 2 * content.size());
}

TEST_F(ProxyTraceTest, TargetThatLeaves) {
  listen();
  startLocalTarget().always(WireScript().request().leave());
  TraceCapture trace{"http-proxy"};
  WireClient browser(address());
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return browser.received() == kGatewayTimeout; })) << browser.received();
  settle();
  const TraceLines lines = proxyLines(trace);
  ASSERT_EQ(lines.size(), 9u) << ::testing::PrintToString(lines);
  EXPECT_TRUE(isLike(lines[5], "[x]server error *")) << lines[5];
  EXPECT_EQ(lines[6], switched("SERVER_REQUEST_FORWARDED", "FORWARDING_CLIENT_REPLY", "ipc/a"));
  EXPECT_EQ(lines[7], switched("FORWARDING_CLIENT_REPLY", "CLIENT_REPLY_FORWARDED", "ipc/a"));
  EXPECT_EQ(lines[8], "[i]destroying proxy instance");
}

TEST_F(ProxyTraceTest, NothingButErrorsWhileTheZoneIsOff) {
  listen();
  startLocalTarget().always(WireScript().request().send(okReply("hello")));
  TraceCapture trace;
  WireClient browser(address());
  browser.send(kPost);
  ASSERT_TRUE(until([&] { return browser.received() == okReply("hello"); }));
  settle();
  EXPECT_EQ(trace.said(), TraceLines{});
}

// --- requests that cannot be forwarded -------------------------------------------------------------------------------

struct RefusedCase {
  const char* name;
  std::function<void(WireServerTest&, std::string& port, const char*& host)> prepare;
  std::function<void(WireServerTest&, HttpRequest*)> spoil;  // in the request handler, before it is forwarded
  TraceLines errors;                                         // the proxy's; "PORT" stands for the target's
  TraceLines states;
  bool makesPeer = false;  // a connection to the target is made and undone
};
void PrintTo(const RefusedCase& row, std::ostream* out) { *out << row.name; }

const std::string kLongPath = "/" + std::string(107, 'p');
const RefusedCase kRefused[] = {
    {"PathTooLong",
     [](WireServerTest&, std::string& port, const char*& host) {
       host = "ipc";
       port = kLongPath;
     },
     nullptr,
     {"[x]unable to connect to ipc:PORT"},
     {"INIT", "CLIENT_REQUEST_RECEIVED", "ERROR"}},
    {"EmptyPath",
     [](WireServerTest&, std::string& port, const char*& host) {
       host = "ipc";
       port = "";
     },
     nullptr,
     {"[x]unable to connect to ipc:PORT"},
     {"INIT", "CLIENT_REQUEST_RECEIVED", "ERROR"}},
    {"PortTooLarge",
     [](WireServerTest&, std::string& port, const char*& host) {
       host = "127.0.0.1";
       port = "65536";
     },
     nullptr,
     {"[x]unable to connect to 127.0.0.1:PORT"},
     {"INIT", "CLIENT_REQUEST_RECEIVED", "ERROR"}},
    {"PortUnknown",
     [](WireServerTest&, std::string& port, const char*& host) {
       host = "127.0.0.1";
       port = "no-such-service";
     },
     nullptr,
     {"[x]unable to connect to 127.0.0.1:PORT"},
     {"INIT", "CLIENT_REQUEST_RECEIVED", "ERROR"}},
    {"HostEmpty",
     [](WireServerTest&, std::string& port, const char*& host) {
       host = "";
       port = "80";
     },
     nullptr,
     {"[x]unable to connect to :PORT"},
     {"INIT", "CLIENT_REQUEST_RECEIVED", "ERROR"}},
    {"UriWithoutPath",
     nullptr,
     [](WireServerTest&, HttpRequest* request) { http_requestURI(request)->path = nullptr; },
     {"[x]unable to forward request: *"},
     {"INIT", "CLIENT_REQUEST_RECEIVED", "ERROR"},
     true},
};
class ProxyRefusedTest : public WireProxyTest, public ::testing::WithParamInterface<RefusedCase> {
 protected:
  void prepare() {
    listen();
    startLocalTarget();
    if (GetParam().prepare) GetParam().prepare(*this, port, host);
  }
};
INSTANTIATE_TEST_SUITE_P(Failures, ProxyRefusedTest, ::testing::ValuesIn(kRefused),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(ProxyRefusedTest, IsUndoneAndAnsweredByTheApplication) {
  prepare();
  size_t before = 0;
  TraceCapture trace{"http-proxy"};
  onRequest = [&](HttpRequest* request, HttpReply* reply) {
    HttpProxy* const made = make(request);
    if (GetParam().spoil) GetParam().spoil(*this, request);
    before = peerCount();
    EXPECT_EQ(http_proxyForwardRequest(made, request, reply), -1);
    EXPECT_EQ(made->state, HTTP_PROXY_ERROR);
    EXPECT_EQ(made->forwardRequest, nullptr);
    EXPECT_EQ(made->forwardReply, nullptr);
    EXPECT_EQ(made->client.peer, nullptr);
    EXPECT_EQ(peerCount(), before);
    EXPECT_EQ(http_replyState(reply), HTTP_MSG_FIRST_LINE);
    destroy(request);
    return answer(reply);
  };
  WireClient browser(address());
  browser.send("GET /a HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(until([&] { return browser.received() == ownAnswer(); })) << browser.received();
  EXPECT_EQ(proxyStates(trace), GetParam().states);
  TraceLines errors;
  for (const std::string& line : trace.errors())
    if (line.compare(0, 7, "http-pr") == 0) errors.push_back(line.substr(7));
  ASSERT_EQ(errors.size(), GetParam().errors.size()) << ::testing::PrintToString(errors);
  for (size_t i = 0; i < errors.size(); ++i) {
    std::string expected = GetParam().errors[i];
    if (const size_t at = expected.find("PORT"); at != std::string::npos) expected.replace(at, 4, port);
    EXPECT_TRUE(isLike(errors[i], expected)) << errors[i];
  }
  EXPECT_EQ(trace.count("http-pr[i]destroying proxy instance"), 1u);
  EXPECT_TRUE(until([&] { return target().open() == 0; }));
  for (size_t i = 0; i < target().count(); ++i) EXPECT_EQ(target().connection(i).received(), "");
  settle();
  browser.take();
  browser.send("GET /b HTTP/1.1\r\nHost: x\r\n\r\n");  // the connection goes on
  ASSERT_TRUE(until([&] { return browser.received() == ownAnswer(); })) << browser.received();
}

TEST_P(ProxyRefusedTest, StopsTheClientThenSwitchesToError) {
  prepare();
  TraceCapture trace{"http-proxy", "http-client"};
  onRequest = [&](HttpRequest* request, HttpReply* reply) {
    HttpProxy* const made = make(request);
    if (GetParam().spoil) GetParam().spoil(*this, request);
    trace.clear();
    EXPECT_EQ(http_proxyForwardRequest(made, request, reply), -1);
    const TraceLines said = trace.said();
    const auto at = [&](std::string_view line) {
      return std::find_if(said.begin(), said.end(), [&](const std::string& text) { return isLike(text, line); }) -
             said.begin();
    };
    const auto end = static_cast<ptrdiff_t>(said.size());
    const auto error = at("http-pr" + GetParam().errors[0].substr(0, 12) + "*");
    const auto toError = at("http-pr[i]switch proxy state from * to ERROR (http://*unknown)");
    EXPECT_LT(error, toError);
    EXPECT_LT(toError, end) << ::testing::PrintToString(said);
    if (GetParam().makesPeer) {
      EXPECT_LT(error, at("http-cl[i]stopping client"));
      EXPECT_LT(at("http-cl[i]stopping client"), at("http-cl[i]removing client peer"));
      EXPECT_LT(at("http-cl[i]removing client peer"), toError);
    } else {
      EXPECT_EQ(at("http-cl[i]removing client peer"), end);
    }
    destroy(request);
    return answer(reply);
  };
  WireClient browser(address());
  browser.send("GET /a HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(until([&] { return browser.received() == ownAnswer(); })) << browser.received();
}

// Its body has to be read by somebody: the application drops it.
TEST_P(ProxyRefusedTest, BodyOfTheRequestIsDropped) {
  prepare();
  onMade = [&](HttpProxy*) {};
  onRequest = [&](HttpRequest* request, HttpReply* reply) {
    if (GetParam().spoil) GetParam().spoil(*this, request);
    return forward(request, reply);
  };
  TraceCapture trace;
  WireClient browser(address());
  browser.send("POST /a HTTP/1.1\r\nHost: x\r\nContent-Length: 10\r\n\r\n01234");
  settle();
  browser.send("56789");
  ASSERT_TRUE(until([&] { return browser.received() == ownAnswer(); })) << browser.received();
  EXPECT_EQ(forwarded, (Results{-1}));
  EXPECT_FALSE(browser.ended());
}

// A failed proxy can still be asked for everything.
TEST_P(ProxyRefusedTest, FailedProxyTakesEveryCall) {
  prepare();
  TraceCapture trace;
  onRequest = [&](HttpRequest* request, HttpReply* reply) {
    HttpProxy* const made = make(request);
    if (GetParam().spoil) GetParam().spoil(*this, request);
    EXPECT_EQ(http_proxyForwardRequest(made, request, reply), -1);
    trace.clear();
    EXPECT_EQ(http_proxyForwardRequest(made, request, reply), -1);
    EXPECT_EQ(trace.errors(), (TraceLines{"http-pr[x]wrong proxy state, should be INIT: 8"}));
    EXPECT_EQ(made->state, HTTP_PROXY_ERROR);
    http_proxyAbort(made);
    http_proxyCleanup(made);
    http_proxyCleanup(made);
    return http_replyState(reply) == HTTP_MSG_FIRST_LINE ? answer(reply) : 0;
  };
  WireClient browser(address());
  browser.send("GET /a HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(until([&] { return browser.received().size() > 20 || browser.ended(); }));
  settle();
}

class ProxyMisuseTest : public WireProxyTest {};

TEST_F(ProxyMisuseTest, ForwardingTwiceChangesNothing) {
  listen();
  startLocalTarget().always(WireScript().request().send(okReply("hello")));
  TraceCapture trace{"http-proxy"};
  onRequest = [&](HttpRequest* request, HttpReply* reply) {
    HttpProxy* const made = make(request);
    EXPECT_EQ(http_proxyForwardRequest(made, request, reply), 0);
    const HttpProxy before = *made;
    const size_t peers = peerCount();
    trace.clear();
    EXPECT_EQ(http_proxyForwardRequest(made, request, reply), -1);
    EXPECT_EQ(trace.said(),
              (TraceLines{"http-pr[i]forwarding request", "http-pr[x]wrong proxy state, should be INIT: 3"}));
    EXPECT_EQ(memcmp(&before, made, sizeof(before)), 0);
    EXPECT_EQ(peerCount(), peers);
    return 0;
  };
  WireClient browser(address());
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return browser.received() == okReply("hello"); })) << browser.received();
  EXPECT_EQ(target().count(), 1u);
}

struct WrongStateCase {
  const char* name;
  int state;
};
void PrintTo(const WrongStateCase& row, std::ostream* out) { *out << row.name; }
constexpr WrongStateCase kWrongStates[] = {
    {"ReceivingClientRequest", HTTP_PROXY_RECEIVING_CLIENT_REQUEST},
    {"ClientRequestReceived", HTTP_PROXY_CLIENT_REQUEST_RECEIVED},
    {"ServerRequestForwarded", HTTP_PROXY_SERVER_REQUEST_FORWARDED},
    {"ReceivingServerReply", HTTP_PROXY_RECEIVING_SERVER_REPLY},
    {"ServerReplyReceived", HTTP_PROXY_SERVER_REPLY_RECEIVED},
    {"ForwardingClientReply", HTTP_PROXY_FORWARDING_CLIENT_REPLY},
    {"ClientReplyForwarded", HTTP_PROXY_CLIENT_REPLY_FORWARDED},
    {"Error", HTTP_PROXY_ERROR},
};
class ProxyWrongStateTest : public WireProxyTest, public ::testing::WithParamInterface<WrongStateCase> {};
INSTANTIATE_TEST_SUITE_P(Failures, ProxyWrongStateTest, ::testing::ValuesIn(kWrongStates),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(ProxyWrongStateTest, DoesNotForward) {
  listen();
  startLocalTarget();
  TraceCapture trace{"http-proxy"};
  onRequest = [&](HttpRequest* request, HttpReply* reply) {
    HttpProxy* const made = make(request);
    made->state = static_cast<HttpProxyState>(GetParam().state);
    const HttpProxy before = *made;
    EXPECT_EQ(http_proxyForwardRequest(made, request, reply), -1);
    EXPECT_EQ(memcmp(&before, made, sizeof(before)), 0);
    EXPECT_EQ(trace.said(),
              (TraceLines{"http-pr[i]forwarding request",
                          "http-pr[x]wrong proxy state, should be INIT: " + std::to_string(GetParam().state)}));
    made->state = HTTP_PROXY_INIT;
    destroy(request);
    return answer(reply);
  };
  WireClient browser(address());
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return browser.received() == ownAnswer(); })) << browser.received();
  EXPECT_EQ(target().count(), 0u);
}

TEST_F(ProxyMisuseTest, NothingIsForwardedForAServerThatStops) {
  listen();
  startLocalTarget();
  TraceCapture trace{"http-proxy"};
  onRequest = [&](HttpRequest* request, HttpReply* reply) {
    http_serverStop(&http());
    HttpProxy* const made = make(request);
    EXPECT_EQ(http_proxyForwardRequest(made, request, reply), -1);
    EXPECT_EQ(made->state, HTTP_PROXY_ERROR);
    EXPECT_EQ(made->owner, &http());
    EXPECT_EQ(made->forwardRequest, nullptr);
    EXPECT_EQ(made->forwardReply, nullptr);
    EXPECT_EQ(made->client.peer, nullptr);
    EXPECT_EQ(trace.said(),
              (TraceLines{"http-pr[i]forwarding request",
                          "http-pr[i]switch proxy state from INIT to CLIENT_REQUEST_RECEIVED (http://ipcunknown)",
                          "http-pr[i]switch proxy state from CLIENT_REQUEST_RECEIVED to ERROR (http://ipcunknown)",
                          "http-pr[x]server is exiting"}));
    destroy(request);
    return answer(reply);
  };
  WireClient browser(address());
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return browser.ended(); }));
  EXPECT_EQ(browser.received(), ownAnswer());
  EXPECT_TRUE(until([&] { return callsOf("stopped") == 1; }));
  EXPECT_EQ(target().count(), 0u);
}

TEST_F(ProxyMisuseTest, BodyBeforeTheRequestWasForwarded) {
  listen();
  startLocalTarget();
  TraceCapture trace;
  int results = 0;
  onRequest = [&](HttpRequest* request, HttpReply*) {
    make(request);
    return 0;
  };
  onBody = [&](HttpRequest* request, HttpReply* reply, FILE* stream) {
    results += http_proxyForwardRequestBody(proxyOf(request));
    readBody(stream);
    destroy(request);
    return http_replyState(reply) == HTTP_MSG_FIRST_LINE ? answer(reply) : 0;
  };
  WireClient browser(address());
  browser.send(kPost);
  ASSERT_TRUE(until([&] { return browser.received() == ownAnswer() || browser.ended(); })) << browser.received();
  EXPECT_LE(results, 0);
}

// --- targets that cannot be reached ----------------------------------------------------------------------------------

struct UnreachableCase {
  const char* name;
  std::function<void(std::string& port, const char*& host, WireTarget& target)> prepare;
};
void PrintTo(const UnreachableCase& row, std::ostream* out) { *out << row.name; }
const UnreachableCase kUnreachable[] = {
    {"PortRefuses", [](std::string&, const char*&, WireTarget& target) { target.refuse(); }},
    {"NoSuchPath",
     [](std::string& port, const char*& host, WireTarget&) {
       host = "ipc";
       port = "/nonexistent/socket";
     }},
    {"NoSuchPathWithoutHost",
     [](std::string& port, const char*& host, WireTarget&) {
       host = nullptr;
       port = "/nonexistent/socket";
     }},
    {"NotASocket",
     [](std::string& port, const char*& host, WireTarget&) {
       host = "ipc";
       port = "/dev/null";
     }},
    {"NoSuchName",
     [](std::string&, const char*& host, WireTarget&) {
       host = "this-label-is-longer-than-any-label-of-a-name-may-be-so-nobody-has-it.example";
     }},
    {"NoSuchService",
     [](std::string& port, const char*& host, WireTarget&) {
       host = "localhost";
       port = "no-such-service";
     }},
};
class ProxyUnreachableTest : public WireProxyTest, public ::testing::WithParamInterface<UnreachableCase> {
 protected:
  void prepare() {
    listen();
    startTarget();
    GetParam().prepare(port, host, target());
  }
};
INSTANTIATE_TEST_SUITE_P(Failures, ProxyUnreachableTest, ::testing::ValuesIn(kUnreachable),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(ProxyUnreachableTest, GivesGatewayTimeout) {
  prepare();
  TraceCapture trace;
  WireClient browser(address());
  for (int i = 0; i < 2; ++i) {
    browser.send(kGet);
    ASSERT_TRUE(until([&] { return browser.received() == kGatewayTimeout; })) << browser.received();
    settle();
    EXPECT_EQ(proxyCount(), 0u);
    browser.take();
  }
  EXPECT_EQ(endings, (Calls{"done FORWARDING_CLIENT_REPLY", "done FORWARDING_CLIENT_REPLY"}));
  EXPECT_FALSE(browser.ended());
  EXPECT_EQ(trace.countStarting("http-pr[x]server error "), 2u);
}

TEST_P(ProxyUnreachableTest, GivesGatewayTimeoutToAnUpload) {
  prepare();
  TraceCapture trace;
  WireClient browser(address());
  browser.send(kPost.substr(0, kPost.size() - 5));
  ASSERT_TRUE(until([&] { return browser.received() == kGatewayTimeout; })) << browser.received();
  settle();
  browser.send("56789");
  settle();
  EXPECT_EQ(browser.take(), kGatewayTimeout);
  EXPECT_EQ(proxyCount(), 0u);
  EXPECT_EQ(endings, (Calls{"done FORWARDING_CLIENT_REPLY"}));
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return browser.received() == kGatewayTimeout; })) << browser.received();
}

TEST_P(ProxyUnreachableTest, BrowserThatLeavesMeanwhile) {
  prepare();
  TraceCapture trace;
  WireClient browser(address());
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return callsOf("request") == 1; }));
  browser.reset();
  ASSERT_TRUE(until([&] { return allGone(); }));
}

// --- bodies that cannot be copied ------------------------------------------------------------------------------------

class ProxyCopyTest : public WireProxyTest {};

TEST_F(ProxyCopyTest, MalformedChunkOfTheBrowser) {
  listen();
  startLocalTarget();
  TraceCapture trace;
  WireClient browser(address());
  browser.send("POST /a HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n");
  settle();
  EXPECT_EQ(bodies, (Results{0}));
  browser.send("xyz\r\nhello\r\n0\r\n\r\n");
  ASSERT_TRUE(until([&] { return browser.ended(); }));
  EXPECT_EQ(bodies, (Results{0, -1}));
  EXPECT_TRUE(trace.has("http-pr[x]unable to read body: Bad message")) << ::testing::PrintToString(trace.errors());
  EXPECT_EQ(endings, (Calls{"error ERROR"}));
  ASSERT_TRUE(until([&] { return allGone(); }));
  // The target must not take what it got for a whole request.
  EXPECT_EQ(target().last().requests().at(0).line, "leftover");
}

TEST_F(ProxyCopyTest, MalformedChunkOfTheTarget) {
  listen();
  startLocalTarget().always(WireScript().request().send(
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\nxyz\r\nhello\r\n0\r\n\r\n"));
  TraceCapture trace{"http-proxy"};
  WireClient browser(address());
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return browser.ended(); }));
  EXPECT_EQ(outcome(browser), "200 cut closed");
  EXPECT_EQ(bodySoFar(browser.received()), "hello");
  EXPECT_TRUE(trace.has("http-pr[x]unable to read body: Bad message")) << ::testing::PrintToString(trace.errors());
  EXPECT_EQ(proxyStates(trace)[4], "ERROR");
  ASSERT_TRUE(until([&] { return allGone(); }));
}

// Streams on which nothing can be written stand for connections that fail in the middle.
TEST_F(ProxyCopyTest, BodyThatCannotBeWrittenToTheTarget) {
  listen();
  startLocalTarget();
  FILE* const full = fopen("/dev/full", "we");
  onForwarded = [&](HttpProxy* proxy) { http_requestStreamSet(proxy->forwardRequest, full); };
  TraceCapture trace;
  WireClient browser(address());
  browser.send("POST /a HTTP/1.1\r\nHost: x\r\nContent-Length: 100000\r\n\r\n" + std::string(50000, 'b'));
  ASSERT_TRUE(until([&] { return !bodies.empty(); }));
  settle();
  EXPECT_EQ(bodies.front(), -1);
  EXPECT_TRUE(trace.has("http-pr[x]unable to write body: No space left on device"))
      << ::testing::PrintToString(trace.errors());
  ASSERT_TRUE(until([&] { return browser.ended() || outcome(browser) == "504"; }));
  browser.leave();
  ASSERT_TRUE(until([&] { return allGone(); }));
  fclose(full);
}

TEST_F(ProxyCopyTest, ReplyThatCannotBeWrittenToTheBrowser) {
  listen();
  startLocalTarget().always(WireScript().request().send(okReply("hello")));
  FILE* const full = fopen("/dev/full", "we");
  onFilter = [&](HttpProxy*, HttpReply* reply) {
    http_replyStreamSet(reply, full);
    return 0;
  };
  TraceCapture trace{"http-proxy"};
  WireClient browser(address());
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return browser.ended(); })) << browser.received();
  EXPECT_TRUE(trace.has("http-pr[x]unable to forward reply")) << ::testing::PrintToString(trace.errors());
  EXPECT_EQ(proxyStates(trace)[3], "ERROR");
  ASSERT_TRUE(until([&] { return allGone(); }));
  fclose(full);
}

TEST_F(ProxyCopyTest, ReplyThatCannotBeCopied) {
  listen();
  startLocalTarget().always(WireScript().request().send(okReply("hello")));
  onForwarded = [](HttpProxy* proxy) { http_replyVersionSet(proxy->reply, 0, 0); };  // no status line can be made
  TraceCapture trace{"http-proxy"};
  WireClient browser(address());
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return browser.ended() || trace.has("http-pr[x]unable to copy reply"); }));
  EXPECT_TRUE(trace.has("http-pr[x]unable to copy reply")) << ::testing::PrintToString(trace.errors());
  EXPECT_EQ(proxyStates(trace)[3], "ERROR");
  ASSERT_TRUE(until([&] { return browser.ended(); }));
  ASSERT_TRUE(until([&] { return allGone(); }));
}

struct BadReplyCase {
  const char* name;
  std::string_view reply;
};
void PrintTo(const BadReplyCase& row, std::ostream* out) { *out << row.name; }
constexpr BadReplyCase kBadReplies[] = {
    {"NotHttp", "SSH-2.0-OpenSSH_9.2\r\n"},
    {"ARequest", "GET / HTTP/1.1\r\nHost: x\r\n\r\n"},
    {"EmptyLine", "\r\n\r\n"},
    {"NoColon", "HTTP/1.1 200 OK\r\nContent-Length\r\n\r\n"},
    {"NoVersion", "HTTP 200 OK\r\n\r\n"},
    {"Binary", "\x16\x03\x01\x02\x01\xfc\x03\x03\r\n\r\n"},
};
class ProxyBadReplyTest : public WireProxyTest, public ::testing::WithParamInterface<BadReplyCase> {};
INSTANTIATE_TEST_SUITE_P(Failures, ProxyBadReplyTest, ::testing::ValuesIn(kBadReplies),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(ProxyBadReplyTest, GivesGatewayTimeout) {
  listen();
  startLocalTarget().always(WireScript().request().send(std::string(GetParam().reply)));
  TraceCapture trace;
  WireClient browser(address());
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return browser.received() == kGatewayTimeout; })) << browser.received();
  settle();
  EXPECT_EQ(proxyCount(), 0u);
  EXPECT_TRUE(until([&] { return target().open() == 0; }));
}

// A body whose end cannot be told is not relayed as if it were complete.
TEST_F(ProxyCopyTest, UnknownCodingOfTheTarget) {
  listen();
  startLocalTarget().always(
      WireScript().request().send("HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip\r\n\r\nhello").leave());
  TraceCapture trace;
  WireClient browser(address());
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return browser.ended() || browser.received() == kGatewayTimeout; })) << browser.received();
  EXPECT_TRUE(browser.received() == kGatewayTimeout || outcome(browser) == "200 cut closed") << browser.received();
  browser.leave();
  ASSERT_TRUE(until([&] { return allGone(); }));
}

// --- handlers called at the wrong time -------------------------------------------------------------------------------

TEST_F(ProxyMisuseTest, HeadBehindTheHead) {
  listen();
  startLocalTarget().always(WireScript().request().send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhello"));
  TraceCapture trace{"http-proxy"};
  WireClient browser(address());
  browser.send(kGet);
  settle();
  ASSERT_EQ(state(), HTTP_PROXY_RECEIVING_SERVER_REPLY);
  trace.clear();
  EXPECT_LT(proxy()->client.replyHeaderHandler(proxy()->forwardReply, proxy()->forwardRequest), 0);
  const TraceLines lines = proxyLines(trace);
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[0], "[i]handling reply OK for request /a");
  EXPECT_EQ(lines[1], "[x]wrong proxy state: RECEIVING_SERVER_REPLY, should be SERVER_REQUEST_FORWARDED");
  EXPECT_EQ(browser.received(), "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhello");
  browser.reset();
  ASSERT_TRUE(until([&] { return allGone(); }));
}

TEST_F(ProxyMisuseTest, BodyBeforeTheReplyWasForwarded) {
  listen();
  startLocalTarget();
  TraceCapture trace{"http-proxy"};
  WireClient browser(address());
  browser.send(kGet);
  settle();
  ASSERT_EQ(state(), HTTP_PROXY_SERVER_REQUEST_FORWARDED);
  trace.clear();
  FILE* const empty = fopen("/dev/null", "re");
  EXPECT_LT(proxy()->client.bodyHandler(proxy()->forwardReply, proxy()->forwardRequest, empty), 0);
  fclose(empty);
  EXPECT_TRUE(trace.has("http-pr[x]wrong proxy state: SERVER_REQUEST_FORWARDED, should be RECEIVING_SERVER_REPLY"))
      << ::testing::PrintToString(trace.said());
  browser.reset();
  ASSERT_TRUE(until([&] { return allGone(); }));
}

TEST_F(ProxyMisuseTest, DoneBeforeTheReplyWasForwarded) {
  listen();
  startLocalTarget();
  TraceCapture trace{"http-proxy"};
  WireClient browser(address());
  browser.send(kGet);
  settle();
  ASSERT_EQ(state(), HTTP_PROXY_SERVER_REQUEST_FORWARDED);
  trace.clear();
  proxy()->client.replyDoneHandler(proxy()->forwardReply, proxy()->forwardRequest);
  const TraceLines lines = proxyLines(trace);
  ASSERT_GE(lines.size(), 2u);
  EXPECT_TRUE(isLike(lines[0], "[i]reply has been received: *")) << lines[0];
  EXPECT_EQ(lines[1], "[x]wrong proxy state: SERVER_REQUEST_FORWARDED, should be RECEIVING_SERVER_REPLY");
  browser.reset();
  ASSERT_TRUE(until([&] { return allGone(); }));
}

// The target fails once a part of its reply has been relayed: the reply is left as it is.
TEST_F(ProxyMisuseTest, ErrorBehindTheHeadAddsNoReply) {
  listen();
  startLocalTarget().always(WireScript().request().send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhello").leave());
  TraceCapture trace;
  WireClient browser(address());
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return browser.ended(); }));
  EXPECT_EQ(browser.received(), "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhello");
}

// Handlers of an exchange whose server stops do nothing.
TEST_F(ProxyMisuseTest, HandlersOfAServerThatStopsDoNothing) {
  listen();
  startLocalTarget();
  WireClient browser(address());
  browser.send(kGet);
  settle();
  ASSERT_EQ(state(), HTTP_PROXY_SERVER_REQUEST_FORWARDED);
  http().stopped = 1;  // as while http_serverStop() runs
  TraceCapture trace{"http-proxy"};
  HttpProxy* const exiting = proxy();
  exiting->client.replyHeaderHandler(exiting->forwardReply, exiting->forwardRequest);
  exiting->client.errorHandler(exiting->forwardReply, exiting->forwardRequest);
  EXPECT_EQ(trace.said(), TraceLines{});
  EXPECT_EQ(exiting->state, HTTP_PROXY_SERVER_REQUEST_FORWARDED);
  http().stopped = 0;
  settle();
  EXPECT_EQ(browser.received(), "");
  browser.reset();
  ASSERT_TRUE(until([&] { return allGone(); }));
}

// --- the filter ------------------------------------------------------------------------------------------------------

class ProxyFilterTest : public WireProxyTest {};

TEST_F(ProxyFilterTest, SeesTheReplyBeforeItIsSent) {
  listen();
  startLocalTarget().always(
      WireScript().request().send("HTTP/1.1 404 Gone away\r\nX-A: 1\r\nContent-Length: 5\r\n\r\nhello"));
  WireClient browser(address());
  int called = 0;
  onFilter = [&](HttpProxy* filtered, HttpReply* reply) {
    ++called;
    EXPECT_EQ(filtered, proxy());
    EXPECT_EQ(reply, filtered->reply);
    EXPECT_EQ(filtered->state, HTTP_PROXY_SERVER_REQUEST_FORWARDED);
    EXPECT_EQ(http_replyStatusCode(reply), 404u);
    EXPECT_STREQ(http_replyHeaderValue(reply, "X-A"), "1");
    EXPECT_STREQ(http_replyHeaderValue(reply, "Content-Length"), "5");
    EXPECT_EQ(peer_bytesQueued(http_replyPeer(reply)), 0u);
    EXPECT_EQ(http_replyState(reply), HTTP_MSG_HEADERS);
    return 0;
  };
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return browser.received() == textReply(404, "Not Found", "hello", "1.1", "X-A: 1\r\n"); }))
      << browser.received();
  EXPECT_EQ(called, 1);
}

TEST_F(ProxyFilterTest, AddsHeaders) {
  listen();
  startLocalTarget().always(WireScript().request().send(okReply("hello")));
  onFilter = [](HttpProxy*, HttpReply* reply) {
    EXPECT_EQ(http_replyHeaderValueSet(reply, "X-Filter", "%s", "yes"), 0);
    return http_replyHeaderValueSet(reply, "Via", "1.1 %s", "proxy");
  };
  WireClient browser(address());
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return countReplies(browser.received()) == 1; }));
  EXPECT_EQ(browser.received(), "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nX-Filter: yes\r\nVia: 1.1 proxy\r\n\r\nhello");
}

// Its coding is added behind what the filter adds.
TEST_F(ProxyFilterTest, AddsHeadersToAReplyWithoutLength) {
  listen();
  startLocalTarget().always(WireScript().request().send("HTTP/1.1 200 OK\r\nX-A: 1\r\n\r\nhello").leave());
  onFilter = [](HttpProxy*, HttpReply* reply) {
    EXPECT_EQ(http_replyHeaderValue(reply, "Transfer-Encoding"), nullptr);
    return http_replyHeaderValueSet(reply, "X-Filter", "yes");
  };
  WireClient browser(address());
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return countReplies(browser.received()) == 1; })) << browser.received();
  const auto replies = takeReplies(browser.received());
  EXPECT_EQ(replies[0].head(), "HTTP/1.1 200 OK\r\nX-A: 1\r\nX-Filter: yes\r\nTransfer-Encoding: chunked\r\n\r\n");
  EXPECT_EQ(replies[0].body, "hello");
}

struct FilterRefusesCase {
  const char* name;
  std::string_view reply;
  bool leaves = false;
};
void PrintTo(const FilterRefusesCase& row, std::ostream* out) { *out << row.name; }
constexpr FilterRefusesCase kFilterRefuses[] = {
    {"Length", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello"},
    {"LengthInPart", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhel"},
    {"None", "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"},
    {"Chunked", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n"},
    {"UntilClose", "HTTP/1.1 200 OK\r\nX-A: 1\r\n\r\nhello"},
    {"UntilCloseClosed", "HTTP/1.1 200 OK\r\nX-A: 1\r\n\r\nhello", true},
};
class ProxyFilterRefusesTest : public WireProxyTest, public ::testing::WithParamInterface<FilterRefusesCase> {
 protected:
  void start() {
    listen();
    WireScript script = WireScript().request().send(std::string(GetParam().reply));
    if (GetParam().leaves) script.leave();
    startTarget().always(script);
  }
  // Makes the copied reply a new one.
  static int answerAnew(HttpReply* reply) {
    const uint8_t minor = http_replyVersion(reply)[1];
    http_replyReset(reply);
    http_replyVersionSet(reply, 1, minor);
    return answer(reply);
  }
};
INSTANTIATE_TEST_SUITE_P(Filter, ProxyFilterRefusesTest, ::testing::ValuesIn(kFilterRefuses),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(ProxyFilterRefusesTest, SendsNothing) {
  start();
  onFilter = [](HttpProxy*, HttpReply*) { return -1; };
  TraceCapture trace{"http-proxy"};
  WireClient browser(address());
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return trace.has("http-pr[x]before sending reply errored, do nothing anymore"); }));
  settle();
  EXPECT_EQ(browser.received(), "");
  EXPECT_FALSE(browser.ended());
  EXPECT_EQ(state(), HTTP_PROXY_SERVER_REQUEST_FORWARDED);
  EXPECT_TRUE(until([&] { return target().open() == 0; }));
  EXPECT_EQ(trace.countStarting("http-pr[x]server error"), 0u);
  // The reply is the application's: it answers when it likes.
  HttpReply* const reply = http().stopped ? nullptr : proxy()->reply;
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(answerAnew(reply), 0);
  ASSERT_TRUE(until([&] { return browser.received() == ownAnswer(); })) << browser.received();
  ASSERT_TRUE(until([&] { return proxyCount() == 0; }));
  browser.take();
  onFilter = nullptr;
  target().always(WireScript().request().send(okReply("next")));
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return browser.received() == okReply("next"); })) << browser.received();
}

TEST_P(ProxyFilterRefusesTest, ApplicationAnswersInIt) {
  start();
  onFilter = [](HttpProxy*, HttpReply* reply) {
    EXPECT_EQ(answerAnew(reply), 0);
    return -1;
  };
  TraceCapture trace;
  WireClient browser(address());
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return browser.received() == ownAnswer(); })) << browser.received();
  settle();
  EXPECT_EQ(browser.received(), ownAnswer());
  EXPECT_EQ(proxyCount(), 0u);
  EXPECT_TRUE(until([&] { return target().open() == 0; }));
  EXPECT_FALSE(browser.ended());
}

TEST_P(ProxyFilterRefusesTest, ApplicationDestroysTheProxyInIt) {
  start();
  onFilter = [&](HttpProxy* filtered, HttpReply* reply) {
    EXPECT_EQ(filtered, proxy());
    destroyNewest();
    EXPECT_EQ(answerAnew(reply), 0);
    return -1;
  };
  TraceCapture trace;
  WireClient browser(address());
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return browser.received() == ownAnswer(); })) << browser.received();
  settle();
  EXPECT_EQ(browser.received(), ownAnswer());
  EXPECT_TRUE(until([&] { return target().open() == 0; }));
}

// Nothing is touched even if the filter says to go on.
TEST_P(ProxyFilterRefusesTest, ApplicationDestroysTheProxyInItAndSaysYes) {
  start();
  onFilter = [&](HttpProxy*, HttpReply* reply) {
    destroyNewest();
    EXPECT_EQ(answerAnew(reply), 0);
    return 0;
  };
  TraceCapture trace;
  WireClient browser(address());
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return browser.received() == ownAnswer(); })) << browser.received();
  settle();
  EXPECT_EQ(browser.received(), ownAnswer());
  EXPECT_TRUE(until([&] { return target().open() == 0; }));
}

TEST_P(ProxyFilterRefusesTest, ApplicationAbortsInIt) {
  start();
  onFilter = [&](HttpProxy* filtered, HttpReply*) {
    http_proxyAbort(filtered);
    return -1;
  };
  TraceCapture trace;
  WireClient browser(address());
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return target().count() == 1 && target().open() == 0; }));
  settle();
  // 504, or the connection was closed because a reply had been put together.
  EXPECT_TRUE(outcome(browser) == "504" || outcome(browser) == "closed") << browser.received();
}

TEST_P(ProxyFilterRefusesTest, ApplicationClosesTheConnectionInIt) {
  start();
  onFilter = [](HttpProxy* filtered, HttpReply*) {
    peer_destroy(http_requestPeer(filtered->request));
    return -1;
  };
  TraceCapture trace;
  WireClient browser(address());
  browser.send(kGet);
  ASSERT_TRUE(until([&] { return browser.ended(); }));
  EXPECT_EQ(browser.received(), "");
  ASSERT_TRUE(until([&] { return allGone(); }));
}

}  // namespace
