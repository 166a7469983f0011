// What a proxy sends to its target and what it sends back: heads, bodies, and the states it goes through.
#include <gtest/gtest.h>
#include <krohttp/krohttp.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/wire_proxy.h"

namespace {

using Calls = std::vector<std::string>;

// --- the object ------------------------------------------------------------------------------------------------------

TEST(ProxyStateStringsTest, NameEveryState) {
  const Calls names(std::begin(proxyStateStrings), std::end(proxyStateStrings));
  EXPECT_EQ(names, (Calls{"INIT", "RECEIVING_CLIENT_REQUEST", "CLIENT_REQUEST_RECEIVED", "SERVER_REQUEST_FORWARDED",
                          "RECEIVING_SERVER_REPLY", "SERVER_REPLY_RECEIVED", "FORWARDING_CLIENT_REPLY",
                          "CLIENT_REPLY_FORWARDED", "ERROR"}));
  EXPECT_STREQ(proxyStateStrings[HTTP_PROXY_INIT], "INIT");
  EXPECT_STREQ(proxyStateStrings[HTTP_PROXY_RECEIVING_CLIENT_REQUEST], "RECEIVING_CLIENT_REQUEST");
  EXPECT_STREQ(proxyStateStrings[HTTP_PROXY_CLIENT_REQUEST_RECEIVED], "CLIENT_REQUEST_RECEIVED");
  EXPECT_STREQ(proxyStateStrings[HTTP_PROXY_SERVER_REQUEST_FORWARDED], "SERVER_REQUEST_FORWARDED");
  EXPECT_STREQ(proxyStateStrings[HTTP_PROXY_RECEIVING_SERVER_REPLY], "RECEIVING_SERVER_REPLY");
  EXPECT_STREQ(proxyStateStrings[HTTP_PROXY_SERVER_REPLY_RECEIVED], "SERVER_REPLY_RECEIVED");
  EXPECT_STREQ(proxyStateStrings[HTTP_PROXY_FORWARDING_CLIENT_REPLY], "FORWARDING_CLIENT_REPLY");
  EXPECT_STREQ(proxyStateStrings[HTTP_PROXY_CLIENT_REPLY_FORWARDED], "CLIENT_REPLY_FORWARDED");
  EXPECT_STREQ(proxyStateStrings[HTTP_PROXY_ERROR], "ERROR");
}

void expectNew(const HttpProxy& proxy, const ZelConnection* connection, const char* host, const char* port) {
  EXPECT_EQ(proxy.state, HTTP_PROXY_INIT);
  EXPECT_EQ(proxy.connectionContext, connection);
  EXPECT_EQ(proxy.host, host);
  EXPECT_EQ(proxy.port, port);
  EXPECT_EQ(proxy.request, nullptr);
  EXPECT_EQ(proxy.reply, nullptr);
  EXPECT_EQ(proxy.forwardRequest, nullptr);
  EXPECT_EQ(proxy.forwardReply, nullptr);
  EXPECT_EQ(proxy.owner, nullptr);
  EXPECT_EQ(proxy.replyFilter, nullptr);
  EXPECT_EQ(proxy.client.peer, nullptr);
  EXPECT_EQ(proxy.client.state, HTTP_CLIENT_INIT);
  EXPECT_NE(proxy.client.replyHeaderHandler, nullptr);
  EXPECT_NE(proxy.client.bodyHandler, nullptr);
  EXPECT_NE(proxy.client.replyDoneHandler, nullptr);
  EXPECT_NE(proxy.client.errorHandler, nullptr);
  EXPECT_EQ(proxy.timeout, 60000u);
  EXPECT_EQ(HTTP_PROXY_TIMEOUT, 60000);
}

class ProxyObjectTest : public WireProxyTest {};

TEST_F(ProxyObjectTest, CreatedAndDestroyed) {
  const char* const host_ = "localhost";
  const char* const port_ = "80";
  HttpProxy* const proxy = http_proxyCreate(connection(), host_, port_);
  ASSERT_NE(proxy, nullptr);
  expectNew(*proxy, connection(), host_, port_);
  TraceCapture trace{"http-proxy"};
  http_proxyDestroy(proxy);
  EXPECT_EQ(trace.said(), (TraceLines{"http-pr[i]destroying proxy instance"}));
}

TEST_F(ProxyObjectTest, InitializedAndCleanedUp) {
  HttpProxy proxy = {};
  const char* const path = "/run/target";
  http_proxyInitialize(&proxy, connection(), nullptr, path);
  expectNew(proxy, connection(), nullptr, path);
  TraceCapture trace{"http-proxy", "http-client"};
  http_proxyCleanup(&proxy);
  EXPECT_EQ(trace.said(), (TraceLines{"http-cl[i]stopping client"}));
}

TEST_F(ProxyObjectTest, NullIsNotDestroyed) {
  TraceCapture trace;
  http_proxyDestroy(nullptr);
  EXPECT_EQ(trace.errors(), TraceLines{});
}

TEST_F(ProxyObjectTest, AbortedBeforeItForwards) {
  HttpProxy* const proxy = http_proxyCreate(connection(), "ipc", "/run/target");
  TraceCapture trace;
  http_proxyAbort(proxy);
  EXPECT_EQ(trace.errors(), TraceLines{});
  http_proxyDestroy(proxy);
}

// An embedded proxy carries one exchange after another, initialized anew for each.
TEST_F(ProxyObjectTest, EmbeddedProxyIsUsedAgain) {
  listen();
  startLocalTarget().always(WireScript().request().send(okReply("hello")).repeat());
  HttpProxy embedded = {};
  onRequest = [&](HttpRequest* request, HttpReply* reply) {
    http_proxyInitialize(&embedded, connection(), host, port.c_str());
    return http_proxyForwardRequest(&embedded, request, reply);
  };
  onReplyDone = [&](HttpReply*, HttpRequest*) {
    EXPECT_EQ(http_proxyForwardReplyDone(&embedded), 0);
    http_proxyCleanup(&embedded);
    EXPECT_EQ(embedded.client.peer, nullptr);
    embedded = {};
  };
  WireClient browser(address());
  for (int i = 0; i < 3; ++i) {
    browser.send("GET /a HTTP/1.1\r\nHost: x\r\n\r\n");
    ASSERT_TRUE(until([&] { return browser.received() == okReply("hello"); })) << browser.received();
    ASSERT_TRUE(until([&] { return callsOf("done") == static_cast<size_t>(i) + 1; }));
    browser.take();
  }
  EXPECT_EQ(target().count(), 3u);
  EXPECT_TRUE(until([&] { return target().open() == 0; }));
}

// --- the head of the request -----------------------------------------------------------------------------------------

struct HeadCase {
  const char* name;
  std::string browser;  // without the blank line
  std::string target;   // "HOST" stands for the target's
};
void PrintTo(const HeadCase& row, std::ostream* out) { *out << row.name; }

std::string manyHeaders() {
  std::string lines;
  for (int i = 0; i < 100; ++i)
    lines += "X-Number-" + std::to_string(i) + ": " + std::string(static_cast<size_t>(i) + 1, 'v') + "\r\n";
  return lines;
}

const HeadCase kHeads[] = {
    {"Get", "GET /a HTTP/1.1\r\nHost: x\r\n", "GET /a HTTP/1.1\r\nHost: HOST\r\n"},
    {"Head", "HEAD /a HTTP/1.1\r\nHost: x\r\n", "HEAD /a HTTP/1.1\r\nHost: HOST\r\n"},
    {"Delete", "DELETE /a HTTP/1.1\r\nHost: x\r\n", "DELETE /a HTTP/1.1\r\nHost: HOST\r\n"},
    {"Options", "OPTIONS /a HTTP/1.1\r\nHost: x\r\n", "OPTIONS /a HTTP/1.1\r\nHost: HOST\r\n"},
    {"PostOfNothing", "POST /a HTTP/1.1\r\nHost: x\r\nContent-Length: 0\r\n",
     "POST /a HTTP/1.1\r\nHost: HOST\r\nContent-Length: 0\r\n"},
    {"PutOfNothing", "PUT /a HTTP/1.1\r\nContent-Length: 0\r\nHost: x\r\n",
     "PUT /a HTTP/1.1\r\nContent-Length: 0\r\nHost: HOST\r\n"},
    {"Http10BecomesHttp11", "GET /a HTTP/1.0\r\nHost: x\r\nX-A: 1\r\n", "GET /a HTTP/1.1\r\nHost: HOST\r\nX-A: 1\r\n"},
    {"Root", "GET / HTTP/1.1\r\nHost: x\r\n", "GET / HTTP/1.1\r\nHost: HOST\r\n"},
    {"Query", "GET /a/b?x=1&y=%2F%20z&&=&w=%zz HTTP/1.1\r\nHost: x\r\n",
     "GET /a/b?x=1&y=%2F%20z&&=&w=%zz HTTP/1.1\r\nHost: HOST\r\n"},
    {"QueryWithConversions", "GET /a?%s%n%d%%=%99999999s HTTP/1.1\r\nHost: x\r\n",
     "GET /a?%s%n%d%%=%99999999s HTTP/1.1\r\nHost: HOST\r\n"},
    {"EscapedPath", "GET /a%20b/%23%26%3d%25%3F HTTP/1.1\r\nHost: x\r\n",
     "GET /a%20b/%23%26%3D%25%3F HTTP/1.1\r\nHost: HOST\r\n"},
    {"PathThatDecodesToConversions", "GET /%25s%25n/%2525d HTTP/1.1\r\nHost: x\r\n",
     "GET /%25s%25n/%2525d HTTP/1.1\r\nHost: HOST\r\n"},
    {"LongPath", "GET /" + std::string(3000, 'p') + "?" + std::string(3000, 'q') + " HTTP/1.1\r\nHost: x\r\n",
     "GET /" + std::string(3000, 'p') + "?" + std::string(3000, 'q') + " HTTP/1.1\r\nHost: HOST\r\n"},
    {"InOrder", "GET /a HTTP/1.1\r\nX-First: 1\r\nAccept: a\r\nHost: x\r\nX-Last: 2\r\nUser-Agent: u\r\n",
     "GET /a HTTP/1.1\r\nX-First: 1\r\nAccept: a\r\nHost: HOST\r\nX-Last: 2\r\nUser-Agent: u\r\n"},
    {"HostWithPort", "GET /a HTTP/1.1\r\nhost: www.example.org:8080\r\n", "GET /a HTTP/1.1\r\nHost: HOST\r\n"},
    {"HostLast", "GET /a HTTP/1.1\r\nAccept: a\r\nHost: x\r\n", "GET /a HTTP/1.1\r\nAccept: a\r\nHost: HOST\r\n"},
    {"ConnectionClose", "GET /a HTTP/1.1\r\nHost: x\r\nConnection: close\r\nAccept: a\r\n",
     "GET /a HTTP/1.1\r\nHost: HOST\r\nAccept: a\r\n"},
    {"ConnectionKeepAlive", "GET /a HTTP/1.1\r\nCONNECTION: Keep-Alive\r\nHost: x\r\n",
     "GET /a HTTP/1.1\r\nHost: HOST\r\n"},
    {"ConnectionTwice", "GET /a HTTP/1.1\r\nConnection: TE\r\nHost: x\r\nconnection: close\r\nTE: trailers\r\n",
     "GET /a HTTP/1.1\r\nHost: HOST\r\nTE: trailers\r\n"},
    {"NamesLikeConnection", "GET /a HTTP/1.1\r\nHost: x\r\nProxy-Connection: a\r\nConnections: b\r\nKeep-Alive: c\r\n",
     "GET /a HTTP/1.1\r\nHost: HOST\r\nProxy-Connection: a\r\nConnections: b\r\nKeep-Alive: c\r\n"},
    {"Repeated", "GET /a HTTP/1.1\r\nHost: x\r\nAccept: a\r\nX-A: 1\r\nAccept: b\r\nX-A: 2\r\nAccept: a\r\nX-A: 1\r\n",
     "GET /a HTTP/1.1\r\nHost: HOST\r\nAccept: a\r\nX-A: 1\r\nAccept: b\r\nX-A: 2\r\nAccept: a\r\nX-A: 1\r\n"},
    {"KnownNamesInTheirSpelling", "GET /a HTTP/1.1\r\nhost: x\r\naccept-encoding: gzip\r\nREFERER: r\r\n",
     "GET /a HTTP/1.1\r\nHost: HOST\r\nAccept-Encoding: gzip\r\nReferer: r\r\n"},
    {"CustomNamesAsTheyCame", "GET /a HTTP/1.1\r\nHost: x\r\nx-cUSTOM_name: V a l\r\n!#$&'*+.^`|~: t\r\n",
     "GET /a HTTP/1.1\r\nHost: HOST\r\nx-cUSTOM_name: V a l\r\n!#$&'*+.^`|~: t\r\n"},
    {"Credentials",
     "GET /a HTTP/1.1\r\nHost: x\r\nAuthorization: Basic YTpi\r\nCookie: a=b; c=\"d\"\r\nProxy-Authorization: x\r\n",
     "GET /a HTTP/1.1\r\nHost: HOST\r\nAuthorization: Basic YTpi\r\nCookie: a=b; c=\"d\"\r\nProxy-Authorization: "
     "x\r\n"},
    {"RangesAndConditions",
     "GET /a HTTP/1.1\r\nHost: x\r\nRange: bytes=0-1,3-\r\nIf-Range: \"e\"\r\nIf-Modified-Since: Sun, 06 Nov 1994 "
     "08:49:37 GMT\r\n",
     "GET /a HTTP/1.1\r\nHost: HOST\r\nRange: bytes=0-1,3-\r\nIf-Range: \"e\"\r\nIf-Modified-Since: Sun, 06 Nov 1994 "
     "08:49:37 GMT\r\n"},
    {"ConversionsInValues", "GET /a HTTP/1.1\r\nHost: x\r\nX-A: %s%n%d 100%\r\nUser-Agent: %x%99999d%*s%%\r\n",
     "GET /a HTTP/1.1\r\nHost: HOST\r\nX-A: %s%n%d 100%\r\nUser-Agent: %x%99999d%*s%%\r\n"},
    {"ConversionsInNames", "GET /a HTTP/1.1\r\nHost: x\r\nX-%s%n: 1\r\n%d: %d\r\n%%: 2\r\nX-100%: 3\r\n",
     "GET /a HTTP/1.1\r\nHost: HOST\r\nX-%s%n: 1\r\n%d: %d\r\n%%: 2\r\nX-100%: 3\r\n"},
    {"ConversionsInHost", "GET /a HTTP/1.1\r\nHost: %s%n\r\n", "GET /a HTTP/1.1\r\nHost: HOST\r\n"},
    {"LongValues",
     "GET /a HTTP/1.1\r\nHost: x\r\nX-Long: " + std::string(6000, 'v') + "\r\nCookie: " + std::string(5000, 'c') +
         "\r\n",
     "GET /a HTTP/1.1\r\nHost: HOST\r\nX-Long: " + std::string(6000, 'v') + "\r\nCookie: " + std::string(5000, 'c') +
         "\r\n"},
    {"ManyHeaders", "GET /a HTTP/1.1\r\nHost: x\r\n" + manyHeaders(),
     "GET /a HTTP/1.1\r\nHost: HOST\r\n" + manyHeaders()},
    {"BlanksAroundValues", "GET /a HTTP/1.1\r\nHost: x\r\nX-A: \t  v  w \t \r\n",
     "GET /a HTTP/1.1\r\nHost: HOST\r\nX-A: v  w\r\n"},
    {"HighOctets", "GET /a HTTP/1.1\r\nHost: x\r\nX-\xC3\xA9: \xFF\xFE\x80\r\n",
     "GET /a HTTP/1.1\r\nHost: HOST\r\nX-\xC3\xA9: \xFF\xFE\x80\r\n"},
};
class ProxyHeadTest : public WireProxyTest, public ::testing::WithParamInterface<HeadCase> {
 protected:
  void expectForwarded(const std::string& hostValue) {
    std::string expected = GetParam().target + "\r\n";
    const size_t at = expected.find("Host: HOST");
    if (at != std::string::npos) expected.replace(at, 10, "Host: " + hostValue);
    listen();
    target().always(WireScript().head().send("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"));
    WireClient browser(address());
    browser.send(GetParam().browser + "\r\n");
    ASSERT_TRUE(until([&] { return countReplies(browser.received()) == 1 || browser.ended(); }));
    ASSERT_EQ(target().count(), 1u) << browser.received();
    EXPECT_EQ(target().last().received(), expected);
    EXPECT_EQ(forwarded, (std::vector<int>{0}));
  }
};
INSTANTIATE_TEST_SUITE_P(Heads, ProxyHeadTest, ::testing::ValuesIn(kHeads),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(ProxyHeadTest, ReachesALocalTarget) {
  startLocalTarget();
  expectForwarded("ipc");
}
TEST_P(ProxyHeadTest, ReachesATargetOverTcp) {
  startTarget();
  expectForwarded("127.0.0.1");
}

class ProxyHostTest : public WireProxyTest {};

TEST_F(ProxyHostTest, NoneMeansALocalTarget) {
  listen();
  startLocalTarget().always(WireScript().request().send(okReply("hello")));
  host = nullptr;
  WireClient browser(address());
  browser.send("GET /a HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(until([&] { return browser.received() == okReply("hello"); })) << browser.received();
  const auto requests = target().last().requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].line, "GET /a HTTP/1.1");
  ASSERT_EQ(requests[0].headers.size(), 1u);
  EXPECT_EQ(requests[0].headers[0].first, "Host");
}

TEST_F(ProxyHostTest, NameIsLookedUp) {
  listen();
  startTarget().always(WireScript().request().send(okReply("hello")));
  host = "localhost";
  WireClient browser(address());
  browser.send("GET /a HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(until([&] { return browser.received() == okReply("hello"); })) << browser.received();
  EXPECT_EQ(target().last().received(), "GET /a HTTP/1.1\r\nHost: localhost\r\n\r\n");
}

// A name that only looks like the word for the local socket.
TEST_F(ProxyHostTest, WordForLocalTargetsIsComparedWithCase) {
  listen();
  startLocalTarget();
  host = "IPC";
  TraceCapture trace;
  WireClient browser(address());
  browser.send("GET /a HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(until([&] { return countReplies(browser.received()) == 1; }));
  EXPECT_EQ(target().count(), 0u);
}

// Line ends that a path or query decodes to must not become line ends of the forwarded head.
struct InjectionCase {
  const char* name;
  std::string target;
};
void PrintTo(const InjectionCase& row, std::ostream* out) { *out << row.name; }
const InjectionCase kInjections[] = {
    {"LineEndInPath", "/a%20HTTP/1.1%0D%0AX-Injected:%20y%0D%0AX-Rest:"},
    {"LineFeedInPath", "/a%20HTTP/1.1%0AX-Injected:%20y%0AX-Rest:"},
    {"RequestInPath", "/a%20HTTP/1.1%0d%0a%0d%0aGET%20/injected"},
    {"LineEndInQuery", "/a?%20HTTP/1.1%0D%0AX-Injected:%20y"},
    {"TabInPath", "/a%09HTTP/1.1"},
    {"ZeroInPath", "/a%00b"},
};
class ProxyInjectionTest : public WireProxyTest, public ::testing::WithParamInterface<InjectionCase> {};
INSTANTIATE_TEST_SUITE_P(Heads, ProxyInjectionTest, ::testing::ValuesIn(kInjections),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(ProxyInjectionTest, PutsNothingIntoTheForwardedHead) {
  listen();
  startLocalTarget().always(WireScript().head().send(okReply("hello")));
  TraceCapture trace;
  WireClient browser(address());
  browser.send("GET " + GetParam().target + " HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(until([&] { return countReplies(browser.received()) == 1 || browser.ended(); }));
  if (target().count() == 0 || target().last().received().empty()) {  // it was refused
    EXPECT_EQ(browser.received(), ownAnswer());
    EXPECT_EQ(forwarded, (std::vector<int>{-1}));
    return;
  }
  const auto requests = target().last().requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(std::count(requests[0].line.begin(), requests[0].line.end(), ' '), 2) << requests[0].line;
  EXPECT_EQ(requests[0].wire.find('\t'), std::string::npos);
  EXPECT_EQ(std::count(requests[0].wire.begin(), requests[0].wire.end(), '\n'), 3);
  EXPECT_EQ(requests[0].headers, (std::vector<std::pair<std::string, std::string>>{{"Host", "ipc"}}));
}

// --- the head of the reply -------------------------------------------------------------------------------------------

struct ReplyHeadCase {
  const char* name;
  std::string target;  // without the blank line; the body "hello" follows
  std::string browser;
  const char* version = "1.1";  // of the browser's request
};
void PrintTo(const ReplyHeadCase& row, std::ostream* out) { *out << row.name; }
const ReplyHeadCase kReplyHeads[] = {
    {"Ok", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n"},
    {"StandardPhrase", "HTTP/1.1 404 Nothing here\r\nContent-Length: 5\r\n",
     "HTTP/1.1 404 Not Found\r\nContent-Length: 5\r\n"},
    {"ServerError", "HTTP/1.1 500 Internal Server Error\r\nContent-Length: 5\r\n",
     "HTTP/1.1 500 Internal Server Error\r\nContent-Length: 5\r\n"},
    {"Redirect", "HTTP/1.1 302 Found\r\nLocation: http://x/%73%25s?a=%d\r\nContent-Length: 5\r\n",
     "HTTP/1.1 302 Found\r\nLocation: http://x/%73%25s?a=%d\r\nContent-Length: 5\r\n"},
    {"TargetOfHttp10", "HTTP/1.0 200 OK\r\nContent-Length: 5\r\n", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n"},
    {"BrowserOfHttp10", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n", "HTTP/1.0 200 OK\r\nContent-Length: 5\r\n", "1.0"},
    {"ConnectionDropped", "HTTP/1.1 200 OK\r\nServer: s\r\nconnection: close\r\nContent-Length: 5\r\nX-A: 1\r\n",
     "HTTP/1.1 200 OK\r\nServer: s\r\nContent-Length: 5\r\nX-A: 1\r\n"},
    {"InOrder", "HTTP/1.1 200 OK\r\nX-Z: 1\r\nServer: s\r\nX-A: 2\r\nContent-Length: 5\r\nDate: d\r\nX-B: 3\r\n",
     "HTTP/1.1 200 OK\r\nX-Z: 1\r\nServer: s\r\nX-A: 2\r\nContent-Length: 5\r\nDate: d\r\nX-B: 3\r\n"},
    {"Repeated",
     "HTTP/1.1 200 OK\r\nSet-Cookie: a=1\r\nSet-Cookie: b=2; Path=/\r\nX-A: 1\r\nContent-Length: 5\r\nX-A: 1\r\n",
     "HTTP/1.1 200 OK\r\nSet-Cookie: a=1\r\nSet-Cookie: b=2; Path=/\r\nX-A: 1\r\nContent-Length: 5\r\nX-A: 1\r\n"},
    {"Conversions", "HTTP/1.1 200 %s%n\r\nContent-Length: 5\r\nX-%s%n: %s%n%d\r\nServer: 100%\r\n%: %99999d\r\n",
     "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nX-%s%n: %s%n%d\r\nServer: 100%\r\n%: %99999d\r\n"},
    {"KnownAndCustomNames", "HTTP/1.1 200 OK\r\ncontent-length: 5\r\netag: \"e\"\r\nx-cUSTOM: C\r\n",
     "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nETAG: \"e\"\r\nx-cUSTOM: C\r\n"},
    {"Authenticate", "HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Basic realm=\"r\"\r\nContent-Length: 5\r\n",
     "HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Basic realm=\"r\"\r\nContent-Length: 5\r\n"},
    {"LongValues",
     "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nX-Long: " + std::string(6000, 'v') +
         "\r\nETAG: " + std::string(5000, 'c') + "\r\n",
     "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nX-Long: " + std::string(6000, 'v') +
         "\r\nETAG: " + std::string(5000, 'c') + "\r\n"},
    {"ManyHeaders", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n" + manyHeaders(),
     "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n" + manyHeaders()},
    {"LargeHead", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n" + manyHeaders() + manyHeaders() + manyHeaders(),
     "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n" + manyHeaders() + manyHeaders() + manyHeaders()},
};
class ProxyReplyHeadTest : public WireProxyTest, public ::testing::WithParamInterface<ReplyHeadCase> {};
INSTANTIATE_TEST_SUITE_P(Heads, ProxyReplyHeadTest, ::testing::ValuesIn(kReplyHeads),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(ProxyReplyHeadTest, ReachesTheBrowser) {
  const std::string expected = GetParam().browser + "\r\nhello";
  listen();
  startLocalTarget().always(WireScript().request().send(GetParam().target + "\r\nhello"));
  WireClient browser(address());
  browser.send(std::string("GET /a HTTP/") + GetParam().version + "\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(until([&] { return browser.received().size() >= expected.size() || browser.ended(); }));
  settle();
  EXPECT_EQ(browser.received(), expected);
  EXPECT_EQ(endings, (Calls{"done FORWARDING_CLIENT_REPLY"}));
}

TEST_P(ProxyReplyHeadTest, ReachesTheBrowserWhenItComesInSmallPieces) {
  const std::string expected = GetParam().browser + "\r\nhello";
  const std::string wire = GetParam().target + "\r\nhello";
  listen();
  startLocalTarget().always(WireScript().request().pieces(wire, std::max<size_t>(1, wire.size() / 100)));
  WireClient browser(address());
  browser.send(std::string("GET /a HTTP/") + GetParam().version + "\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(until([&] { return browser.received().size() >= expected.size() || browser.ended(); }));
  settle();
  EXPECT_EQ(browser.received(), expected);
}

// --- bodies to the target --------------------------------------------------------------------------------------------

constexpr size_t kLarge = 5 << 20;

// What stands before, and how it is written.
struct Coding {
  const char* name;
  std::string (*headers)(size_t length);
  std::string (*wire)(std::string_view body);
};
std::string lengthHeader(size_t length) { return "Content-Length: " + std::to_string(length) + "\r\n"; }
std::string chunkedHeader(size_t) { return "Transfer-Encoding: chunked\r\n"; }
std::string formHeaders(size_t length) {
  return "Content-Type: multipart/form-data; boundary=b\r\n" + lengthHeader(length);
}
std::string rangesHeaders(size_t length) {
  return "Content-Type: multipart/byteranges; boundary=b\r\n" + lengthHeader(length);
}
std::string chunkedFormHeaders(size_t) {
  return "Content-Type: multipart/form-data; boundary=b\r\nTransfer-Encoding: chunked\r\n";
}
std::string noHeader(size_t) { return ""; }
std::string asItIs(std::string_view body) { return std::string(body); }
std::string inOneChunk(std::string_view body) { return chunked(body); }
std::string inSmallChunks(std::string_view body) { return chunked(body, 1000); }
std::string inChunksOfABlock(std::string_view body) { return chunked(body, 4096); }

struct BodyCase {
  const char* name;
  Coding coding;
  size_t size;
};
void PrintTo(const BodyCase& row, std::ostream* out) { *out << row.name; }

constexpr Coding kLength = {"Length", lengthHeader, asItIs};
constexpr Coding kOneChunk = {"OneChunk", chunkedHeader, inOneChunk};
constexpr Coding kSmallChunks = {"SmallChunks", chunkedHeader, inSmallChunks};
constexpr Coding kBlockChunks = {"BlockChunks", chunkedHeader, inChunksOfABlock};
constexpr Coding kForm = {"Form", formHeaders, asItIs};
constexpr Coding kChunkedForm = {"ChunkedForm", chunkedFormHeaders, inSmallChunks};
constexpr Coding kRanges = {"Ranges", rangesHeaders, asItIs};
constexpr Coding kUntilClose = {"UntilClose", noHeader, asItIs};

const BodyCase kUploads[] = {
    {"LengthOfNone", kLength, 0},
    {"LengthOfOne", kLength, 1},
    {"LengthOfABlock", kLength, 4096},
    {"LengthOfABlockAndOne", kLength, 4097},
    {"LengthOfTwoBlocks", kLength, 8192},
    {"LengthLarge", kLength, kLarge},
    {"ChunkedOfNone", kOneChunk, 0},
    {"ChunkedOfOne", kOneChunk, 1},
    {"ChunkedOfABlock", kOneChunk, 4096},
    {"ChunkedOfBlocks", kBlockChunks, 3 * 4096},
    {"ChunkedLarge", kOneChunk, kLarge},
    {"SmallChunksLarge", kSmallChunks, kLarge},
    {"FormOfNone", kForm, 0},
    {"FormOfOne", kForm, 1},
    {"FormOfABlock", kForm, 4096},
    {"FormLarge", kForm, kLarge},
    {"ChunkedFormOfOne", kChunkedForm, 1},
    {"ChunkedFormLarge", kChunkedForm, kLarge},
};
class ProxyUploadTest : public WireProxyTest, public ::testing::WithParamInterface<BodyCase> {
 protected:
  std::string head() const {
    return "POST /up HTTP/1.1\r\nHost: x\r\n" + GetParam().coding.headers(GetParam().size) + "\r\n";
  }
  void expectUploaded(WireClient& browser, std::string_view content) {
    ASSERT_TRUE(until([&] { return browser.received() == okReply("got it") || browser.ended(); }, 60));
    EXPECT_EQ(browser.received(), okReply("got it"));
    ASSERT_EQ(target().count(), 1u);
    const auto requests = target().last().requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].head(),
              "POST /up HTTP/1.1\r\nHost: ipc\r\n" + GetParam().coding.headers(GetParam().size) + "\r\n");
    EXPECT_TRUE(requests[0].body == content) << requests[0].body.size();
  }
};
INSTANTIATE_TEST_SUITE_P(Bodies, ProxyUploadTest, ::testing::ValuesIn(kUploads),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(ProxyUploadTest, ArrivesUnchanged) {
  const std::string content = pattern(GetParam().size);
  listen();
  startLocalTarget().always(WireScript().request().send(okReply("got it")));
  WireClient browser(address());
  browser.send(head() + GetParam().coding.wire(content));
  expectUploaded(browser, content);
}

// The head has been forwarded before the body comes.
TEST_P(ProxyUploadTest, ArrivesUnchangedBehindItsHead) {
  const std::string content = pattern(GetParam().size);
  listen();
  startLocalTarget().always(WireScript().request().send(okReply("got it")));
  WireClient browser(address());
  browser.send(head());
  settle();
  ASSERT_EQ(target().count(), 1u);
  browser.send(GetParam().coding.wire(content));
  expectUploaded(browser, content);
}

class ProxyUploadPiecesTest : public ProxyUploadTest {};
const BodyCase kSmallUploads[] = {
    {"Length", kLength, 40},
    {"OneChunk", kOneChunk, 40},
    {"SmallChunks", {"", chunkedHeader, [](std::string_view body) { return chunked(body, 7); }}, 40},
    {"Form", kForm, 40},
    {"None", kLength, 0},
};
INSTANTIATE_TEST_SUITE_P(Bodies, ProxyUploadPiecesTest, ::testing::ValuesIn(kSmallUploads),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(ProxyUploadPiecesTest, OneOctetAtATime) {
  const std::string content = pattern(GetParam().size);
  listen();
  startLocalTarget().always(WireScript().request().send(okReply("got it")));
  WireClient browser(address());
  for (const char octet : head() + GetParam().coding.wire(content)) {
    browser.send(std::string_view(&octet, 1));
    settle();
  }
  expectUploaded(browser, content);
}

TEST_P(ProxyUploadPiecesTest, PauseAtEveryOctet) {
  const std::string content = pattern(GetParam().size);
  const std::string wire = head() + GetParam().coding.wire(content);
  listen();
  for (size_t cut = 1; cut < wire.size(); ++cut) {
    SCOPED_TRACE("cut at octet " + std::to_string(cut));
    startLocalTarget().always(WireScript().request().send(okReply("got it")));
    WireClient browser(address());
    browser.send(wire.substr(0, cut));
    settle();
    browser.send(wire.substr(cut));
    expectUploaded(browser, content);
    if (HasFatalFailure()) return;
    browser.leave();
    ASSERT_TRUE(until([&] { return allGone(); }));
  }
}

// --- bodies to the browser -------------------------------------------------------------------------------------------

const BodyCase kDownloads[] = {
    {"LengthOfNone", kLength, 0},
    {"LengthOfOne", kLength, 1},
    {"LengthOfABlock", kLength, 4096},
    {"LengthOfABlockAndOne", kLength, 4097},
    {"LengthLarge", kLength, kLarge},
    {"ChunkedOfNone", kOneChunk, 0},
    {"ChunkedOfOne", kOneChunk, 1},
    {"ChunkedOfABlock", kOneChunk, 4096},
    {"ChunkedOfBlocks", kBlockChunks, 3 * 4096},
    {"ChunkedLarge", kOneChunk, kLarge},
    {"SmallChunksLarge", kSmallChunks, kLarge},
    {"UntilCloseOfNone", kUntilClose, 0},
    {"UntilCloseOfOne", kUntilClose, 1},
    {"UntilCloseOfABlock", kUntilClose, 4096},
    {"UntilCloseOfTwoBlocks", kUntilClose, 8192},
    {"UntilCloseLarge", kUntilClose, kLarge},
    {"RangesOfNone", kRanges, 0},
    {"RangesOfOne", kRanges, 1},
    {"RangesOfABlock", kRanges, 4096},
    {"RangesLarge", kRanges, kLarge},
};
class ProxyDownloadTest : public WireProxyTest, public ::testing::WithParamInterface<BodyCase> {
 protected:
  bool untilClose() const { return GetParam().coding.headers == noHeader; }
  std::string targetHead() const {
    return "HTTP/1.1 200 OK\r\nX-A: 1\r\n" + GetParam().coding.headers(GetParam().size) + "\r\n";
  }
  std::string expectedHead() const {
    return "HTTP/1.1 200 OK\r\nX-A: 1\r\n" +
           (untilClose() ? chunkedHeader(0) : GetParam().coding.headers(GetParam().size)) + "\r\n";
  }
  WireScript script(WireScript begun) const { return untilClose() ? begun.leave() : begun; }
  // The browser gets the body, and then another one over the same connection.
  void expectDownloaded(WireClient& browser, const std::string& content) {
    ASSERT_TRUE(until([&] { return countReplies(browser.received()) == 1 || browser.ended(); }, 60));
    settle();
    const auto replies = takeReplies(browser.received());
    ASSERT_EQ(replies.size(), 1u) << browser.received().size();
    EXPECT_EQ(replies[0].head(), expectedHead());
    EXPECT_TRUE(replies[0].body == content) << replies[0].body.size();
    EXPECT_FALSE(browser.ended());
    EXPECT_EQ(proxyCount(), 0u);
    EXPECT_TRUE(until([&] { return target().open() == 0; }));
    browser.take();
    target().always(WireScript().request().send(okReply("next")));
    browser.send("GET /next HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_TRUE(until([&] { return browser.received() == okReply("next"); })) << browser.received();
    EXPECT_EQ(endings, (Calls{"done FORWARDING_CLIENT_REPLY", "done FORWARDING_CLIENT_REPLY"}));
  }
};
INSTANTIATE_TEST_SUITE_P(Bodies, ProxyDownloadTest, ::testing::ValuesIn(kDownloads),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(ProxyDownloadTest, ArrivesUnchanged) {
  const std::string content = pattern(GetParam().size);
  listen();
  startTarget().always(script(WireScript().request().send(targetHead() + GetParam().coding.wire(content))));
  WireClient browser(address());
  browser.send("GET /a HTTP/1.1\r\nHost: x\r\n\r\n");
  expectDownloaded(browser, content);
}

// The head has been relayed before the body comes.
TEST_P(ProxyDownloadTest, ArrivesUnchangedBehindItsHead) {
  const std::string content = pattern(GetParam().size);
  listen();
  startTarget().always(
      script(WireScript().request().send(targetHead()).turns(20).send(GetParam().coding.wire(content)).turns(20)));
  WireClient browser(address());
  browser.send("GET /a HTTP/1.1\r\nHost: x\r\n\r\n");
  expectDownloaded(browser, content);
}

// The browser sees the head while the first octet of the body is still awaited.
TEST_P(ProxyDownloadTest, HeadArrivesAtOnce) {
  const std::string content = pattern(GetParam().size);
  const std::string wire = GetParam().coding.wire(content);
  listen();
  startTarget().always(WireScript().request().send(targetHead()));
  WireClient browser(address());
  browser.send("GET /a HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(until([&] { return browser.received() == expectedHead(); })) << browser.received();
  if (!wire.empty()) target().last().send(wire);
  if (untilClose()) {
    ASSERT_TRUE(until([&] { return target().last().allSent(); }));
    settle();
    target().last().leave();
  }
  expectDownloaded(browser, content);
}

class ProxyDownloadPiecesTest : public ProxyDownloadTest {};
const BodyCase kSmallDownloads[] = {
    {"Length", kLength, 40},
    {"OneChunk", kOneChunk, 40},
    {"SmallChunks", {"", chunkedHeader, [](std::string_view body) { return chunked(body, 7); }}, 40},
    {"UntilClose", kUntilClose, 40},
    {"Ranges", kRanges, 40},
    {"None", kLength, 0},
    {"NoneChunked", kOneChunk, 0},
    {"NoneUntilClose", kUntilClose, 0},
};
INSTANTIATE_TEST_SUITE_P(Bodies, ProxyDownloadPiecesTest, ::testing::ValuesIn(kSmallDownloads),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(ProxyDownloadPiecesTest, OneOctetAtATime) {
  const std::string content = pattern(GetParam().size);
  listen();
  startTarget().always(
      script(WireScript().request().pieces(targetHead() + GetParam().coding.wire(content), 1).turns(1)));
  WireClient browser(address());
  browser.send("GET /a HTTP/1.1\r\nHost: x\r\n\r\n");
  expectDownloaded(browser, content);
}

TEST_P(ProxyDownloadPiecesTest, PauseAtEveryOctet) {
  const std::string content = pattern(GetParam().size);
  const std::string wire = targetHead() + GetParam().coding.wire(content);
  listen();
  startTarget();
  for (size_t cut = 1; cut < wire.size(); ++cut) {
    SCOPED_TRACE("cut at octet " + std::to_string(cut));
    endings.clear();
    target().always(script(WireScript().request().send(wire.substr(0, cut)).turns(8).send(wire.substr(cut))));
    WireClient browser(address());
    browser.send("GET /a HTTP/1.1\r\nHost: x\r\n\r\n");
    expectDownloaded(browser, content);
    if (HasFatalFailure()) return;
  }
}

// --- replies without a body ------------------------------------------------------------------------------------------

struct BodylessCase {
  const char* name;
  const char* method;
  std::string target;   // the reply's head
  std::string browser;  // what is relayed of it; "" where only the status counts
};
void PrintTo(const BodylessCase& row, std::ostream* out) { *out << row.name; }
const BodylessCase kBodyless[] = {
    {"HeadWithLength", "HEAD", "HTTP/1.1 200 OK\r\nContent-Length: 1234\r\n\r\n",
     "HTTP/1.1 200 OK\r\nContent-Length: 1234\r\n\r\n"},
    {"HeadWithLargeLength", "HEAD", "HTTP/1.1 200 OK\r\nContent-Length: 99999999999\r\n\r\n",
     "HTTP/1.1 200 OK\r\nContent-Length: 99999999999\r\n\r\n"},
    {"HeadWithLengthZero", "HEAD", "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n",
     "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"},
    {"HeadChunked", "HEAD", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n",
     "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"},
    {"HeadWithoutLength", "HEAD", "HTTP/1.1 200 OK\r\nX-A: 1\r\n\r\n", ""},
    {"HeadMultipart", "HEAD",
     "HTTP/1.1 206 Partial Content\r\nContent-Type: multipart/byteranges; boundary=b\r\nContent-Length: 9\r\n\r\n",
     "HTTP/1.1 206 Partial Content\r\nContent-Type: multipart/byteranges; boundary=b\r\nContent-Length: 9\r\n\r\n"},
    {"HeadNotFound", "HEAD", "HTTP/1.1 404 Not Found\r\nContent-Length: 7\r\n\r\n",
     "HTTP/1.1 404 Not Found\r\nContent-Length: 7\r\n\r\n"},
    {"NoContent", "GET", "HTTP/1.1 204 No Content\r\nX-A: 1\r\n\r\n", ""},
    {"NoContentToADelete", "DELETE", "HTTP/1.1 204 No Content\r\nX-A: 1\r\n\r\n", ""},
    {"NotModified", "GET", "HTTP/1.1 304 Not Modified\r\nETAG: \"e\"\r\n\r\n", ""},
    {"NotModifiedWithLength", "GET", "HTTP/1.1 304 Not Modified\r\nContent-Length: 1234\r\n\r\n",
     "HTTP/1.1 304 Not Modified\r\nContent-Length: 1234\r\n\r\n"},
    {"NotModifiedChunked", "GET", "HTTP/1.1 304 Not Modified\r\nTransfer-Encoding: chunked\r\n\r\n",
     "HTTP/1.1 304 Not Modified\r\nTransfer-Encoding: chunked\r\n\r\n"},
    {"HeadNoContent", "HEAD", "HTTP/1.1 204 No Content\r\nX-A: 1\r\n\r\n", ""},
    {"HeadNotModified", "HEAD", "HTTP/1.1 304 Not Modified\r\nContent-Length: 5\r\n\r\n",
     "HTTP/1.1 304 Not Modified\r\nContent-Length: 5\r\n\r\n"},
};
class ProxyBodylessTest : public WireProxyTest, public ::testing::WithParamInterface<BodylessCase> {
 protected:
  // Head after head, over one connection of the browser's, with a body behind each reply that has one.
  void expectRelayed(WireClient& browser) {
    const std::string head = GetParam().target.substr(0, 12);
    ASSERT_TRUE(until([&] { return browser.received().find("\r\n\r\n") != std::string::npos || browser.ended(); }));
    ASSERT_TRUE(until([&] { return proxyCount() == 0; })) << "the reply is not complete after its head";
    settle();
    const std::string received = browser.take();
    EXPECT_EQ(received.substr(0, 12), head);
    EXPECT_EQ(received.find("\r\n\r\n") + 4, received.size()) << received;
    if (!GetParam().browser.empty()) {
      EXPECT_EQ(received, GetParam().browser);
    }
    EXPECT_EQ(received.find("X-A") == std::string::npos, GetParam().target.find("X-A") == std::string::npos);
    EXPECT_FALSE(browser.ended());
  }
};
INSTANTIATE_TEST_SUITE_P(Bodyless, ProxyBodylessTest, ::testing::ValuesIn(kBodyless),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(ProxyBodylessTest, IsCompleteAfterItsHead) {
  listen();
  startLocalTarget().always(WireScript().request().send(GetParam().target));
  WireClient browser(address());
  const std::string request = std::string(GetParam().method) + " /a HTTP/1.1\r\nHost: x\r\n\r\n";
  browser.send(request);
  expectRelayed(browser);
  EXPECT_EQ(endings, (Calls{"done FORWARDING_CLIENT_REPLY"}));

  target().next(WireScript().request().send(okReply("next")));
  browser.send("GET /next HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(until([&] { return browser.received() == okReply("next"); })) << browser.received();
  browser.take();
  browser.send(request);
  expectRelayed(browser);
}

TEST_P(ProxyBodylessTest, IsCompleteThoughItsTargetLeaves) {
  listen();
  startLocalTarget().always(WireScript().request().send(GetParam().target).leave());
  WireClient browser(address());
  browser.send(std::string(GetParam().method) + " /a HTTP/1.1\r\nHost: x\r\n\r\n");
  expectRelayed(browser);
  target().next(WireScript().request().send(okReply("next")));
  browser.send("GET /next HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(until([&] { return browser.received() == okReply("next"); })) << browser.received();
}

// A target that sends a body all the same does not get it through.
TEST_P(ProxyBodylessTest, ABodyBehindItIsNotRelayed) {
  listen();
  startLocalTarget().always(WireScript().request().send(GetParam().target + "5\r\nhello\r\n0\r\n\r\n"));
  TraceCapture trace;
  WireClient browser(address());
  browser.send(std::string(GetParam().method) + " /a HTTP/1.1\r\nHost: x\r\n\r\n");
  expectRelayed(browser);
  target().next(WireScript().request().send(okReply("next")));
  browser.send("GET /next HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(until([&] { return browser.received() == okReply("next"); })) << browser.received();
}

// --- one exchange after another --------------------------------------------------------------------------------------

class ProxySequenceTest : public WireProxyTest {
 protected:
  // The target answers with the request's own line.
  static WireScript echo() {
    return WireScript()
        .request()
        .call([](WireTargetConnection& connection) {
          const WireRequest request = connection.requests()[connection.requestsTaken() - 1];
          connection.send(okReply(request.line + " " + request.body));
        })
        .repeat();
  }
};

TEST_F(ProxySequenceTest, PipelinedRequestsAreForwardedInOrder) {
  listen();
  startLocalTarget().always(echo());
  WireClient browser(address());
  browser.send(
      "GET /1 HTTP/1.1\r\nHost: x\r\n\r\n"
      "POST /2 HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\n\r\nhello"
      "POST /3 HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n1\r\n!\r\n0\r\n\r\n"
      "GET /4 HTTP/1.1\r\nHost: x\r\n\r\n");
  const std::string expected = okReply("GET /1 HTTP/1.1 ") + okReply("POST /2 HTTP/1.1 hello") +
                               okReply("POST /3 HTTP/1.1 hello!") + okReply("GET /4 HTTP/1.1 ");
  ASSERT_TRUE(until([&] { return browser.received() == expected; })) << browser.received();
  EXPECT_EQ(target().count(), 4u);
  EXPECT_FALSE(browser.ended());
}

TEST_F(ProxySequenceTest, PipelinedRequestWaitsForTheReplyBeforeIt) {
  listen();
  startLocalTarget();
  WireClient browser(address());
  browser.send("GET /1 HTTP/1.1\r\nHost: x\r\n\r\nGET /2 HTTP/1.1\r\nHost: x\r\n\r\n");
  settle();
  ASSERT_EQ(target().count(), 1u);
  EXPECT_EQ(callsOf("request"), 1u);
  target().last().send("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\na");
  settle();
  EXPECT_EQ(target().count(), 1u);
  target().last().send("b");
  settle();
  ASSERT_EQ(target().count(), 2u);
  target().last().send(okReply("c"));
  ASSERT_TRUE(until([&] { return browser.received() == okReply("ab") + okReply("c"); })) << browser.received();
}

TEST_F(ProxySequenceTest, TwoHundredExchangesOnOneConnection) {
  listen();
  startLocalTarget().always(echo());
  WireClient browser(address());
  const size_t peers = [&] {
    settle();
    return peerCount();
  }();
  for (int i = 0; i < 200; ++i) {
    const std::string path = "/" + std::to_string(i);
    browser.send("GET " + path + " HTTP/1.1\r\nHost: x\r\n\r\n");
    ASSERT_TRUE(until([&] { return browser.received() == okReply("GET " + path + " HTTP/1.1 "); }));
    browser.take();
    ASSERT_TRUE(until([&] { return proxyCount() == 0; }));
    EXPECT_EQ(peerCount(), peers);
  }
  EXPECT_EQ(target().count(), 200u);
}

TEST_F(ProxySequenceTest, ManyBrowsersAtOnce) {
  listen();
  startLocalTarget().always(echo());
  std::vector<std::unique_ptr<WireClient>> browsers;
  for (int i = 0; i < 50; ++i) {
    browsers.push_back(std::make_unique<WireClient>(address()));
    browsers.back()->send("POST /" + std::to_string(i) + " HTTP/1.1\r\nHost: x\r\nContent-Length: 4\r\n\r\nab");
  }
  settle();
  EXPECT_EQ(proxyCount(), 50u);
  for (const auto& browser : browsers) browser->send("cd");
  for (size_t i = 0; i < browsers.size(); ++i) {
    const std::string expected = okReply("POST /" + std::to_string(i) + " HTTP/1.1 abcd");
    EXPECT_TRUE(until([&] { return browsers[i]->received() == expected; })) << i << browsers[i]->received();
  }
}

TEST_F(ProxySequenceTest, ConnectionCloseOfTheBrowserIsItsOwn) {
  listen();
  startLocalTarget().always(echo());
  WireClient browser(address());
  browser.send("GET /a HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
  ASSERT_TRUE(until([&] { return browser.ended(); }));
  EXPECT_EQ(browser.received(), okReply("GET /a HTTP/1.1 "));
}

// --- interim replies and Expect --------------------------------------------------------------------------------------

struct InterimCase {
  const char* name;
  std::string interim;
};
void PrintTo(const InterimCase& row, std::ostream* out) { *out << row.name; }
const InterimCase kInterim[] = {
    {"Continue", "HTTP/1.1 100 Continue\r\n\r\n"},
    {"Processing", "HTTP/1.1 102 Processing\r\n\r\n"},
    {"EarlyHints", "HTTP/1.1 103 Early Hints\r\nLink: </a>\r\nX-Hint: 1\r\n\r\n"},
    {"Last", "HTTP/1.1 199 Odd\r\n\r\n"},
    {"Several", "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 103 Early Hints\r\nX-Hint: 1\r\n\r\nHTTP/1.1 102 P\r\n\r\n"},
    {"WithLength", "HTTP/1.1 100 Continue\r\nContent-Length: 0\r\n\r\n"},
};
class ProxyInterimTest : public WireProxyTest, public ::testing::WithParamInterface<InterimCase> {};
INSTANTIATE_TEST_SUITE_P(Interim, ProxyInterimTest, ::testing::ValuesIn(kInterim),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(ProxyInterimTest, IsSkipped) {
  listen();
  startLocalTarget().always(WireScript().request().send(GetParam().interim + okReply("hello")));
  int filtered = 0;
  onFilter = [&](HttpProxy*, HttpReply* reply) {
    ++filtered;
    EXPECT_EQ(http_replyStatusCode(reply), 200u);
    return 0;
  };
  WireClient browser(address());
  browser.send("GET /a HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(until([&] { return browser.received() == okReply("hello"); })) << browser.received();
  EXPECT_EQ(filtered, 1);
}

TEST_P(ProxyInterimTest, IsSkippedInPieces) {
  listen();
  startLocalTarget().always(WireScript().request().pieces(GetParam().interim + okReply("hello"), 1));
  WireClient browser(address());
  browser.send("GET /a HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(until([&] { return browser.received() == okReply("hello"); })) << browser.received();
}

TEST_P(ProxyInterimTest, IsSkippedLongBeforeTheReply) {
  listen();
  startLocalTarget().always(WireScript().request().send(GetParam().interim));
  WireClient browser(address());
  browser.send("GET /a HTTP/1.1\r\nHost: x\r\n\r\n");
  settle();
  EXPECT_EQ(browser.received(), "");
  EXPECT_EQ(state(), HTTP_PROXY_SERVER_REQUEST_FORWARDED);
  target().last().send("HTTP/1.1 204 No Content\r\nX-A: 1\r\n\r\n");
  ASSERT_TRUE(until([&] { return browser.received().find("X-A: 1\r\n\r\n") != std::string::npos; }));
  EXPECT_EQ(browser.received().substr(0, 12), "HTTP/1.1 204");
}

TEST_P(ProxyInterimTest, TargetThatLeavesBehindItGivesAnError) {
  listen();
  startLocalTarget().always(WireScript().request().send(GetParam().interim).leave());
  TraceCapture trace;
  WireClient browser(address());
  browser.send("GET /a HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(until([&] { return browser.received() == cannedReply(504, "Gateway Timeout"); })) << browser.received();
}

// The reply to a body that was announced may begin while the body is still sent.
TEST_P(ProxyInterimTest, MayComeBeforeTheBody) {
  listen();
  startLocalTarget().always(WireScript().head().send(GetParam().interim).request().send(okReply("hello")));
  WireClient browser(address());
  browser.send("POST /a HTTP/1.1\r\nHost: x\r\nContent-Length: 10\r\n\r\n");
  settle();
  browser.send("01234");
  settle();
  browser.send("56789");
  ASSERT_TRUE(until([&] { return browser.received() == okReply("hello"); })) << browser.received();
  EXPECT_EQ(target().last().requests().at(0).body, "0123456789");
}

constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";

struct ExpectCase {
  const char* name;
  const char* expect;    // the header's line
  bool targetContinues;  // sends its own 100
  const char* coding = "Content-Length: 10\r\n";
  const char* wire = "0123456789";
};
void PrintTo(const ExpectCase& row, std::ostream* out) { *out << row.name; }
constexpr ExpectCase kExpects[] = {
    {"TargetContinues", "Expect: 100-continue\r\n", true},
    {"TargetDoesNot", "Expect: 100-continue\r\n", false},
    {"InAnyCase", "Expect: 100-Continue\r\n", true},
    {"Chunked", "Expect: 100-continue\r\n", true, "Transfer-Encoding: chunked\r\n",
     "5\r\n01234\r\n5\r\n56789\r\n0\r\n\r\n"},
};
class ProxyExpectTest : public WireProxyTest, public ::testing::WithParamInterface<ExpectCase> {};
INSTANTIATE_TEST_SUITE_P(Interim, ProxyExpectTest, ::testing::ValuesIn(kExpects),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(ProxyExpectTest, BrowserIsToldToGoOnAtOnce) {
  const ExpectCase& row = GetParam();
  listen();
  startLocalTarget().always(
      WireScript().head().send(std::string(row.targetContinues ? kContinue : "")).request().send(okReply("hello")));
  WireClient browser(address());
  browser.send(std::string("POST /a HTTP/1.1\r\nHost: x\r\n") + row.expect + row.coding + "\r\n");
  ASSERT_TRUE(until([&] { return browser.received() == kContinue; })) << browser.received();
  settle();
  EXPECT_EQ(browser.take(), kContinue);
  browser.send(row.wire);
  ASSERT_TRUE(until([&] { return browser.received() == okReply("hello"); })) << browser.received();
  const auto requests = target().last().requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].body, "0123456789");
  EXPECT_EQ(requests[0].head(),
            std::string("POST /a HTTP/1.1\r\nHost: ipc\r\nExpect: ") + (row.expect + 8) + row.coding + "\r\n");
}

TEST_P(ProxyExpectTest, ImpatientBrowserIsForwardedToo) {
  const ExpectCase& row = GetParam();
  listen();
  startLocalTarget().always(
      WireScript().head().send(std::string(row.targetContinues ? kContinue : "")).request().send(okReply("hello")));
  WireClient browser(address());
  browser.send(std::string("POST /a HTTP/1.1\r\nHost: x\r\n") + row.expect + row.coding + "\r\n" + row.wire);
  ASSERT_TRUE(until([&] {
    const std::string& received = browser.received();
    return received == okReply("hello") || received == std::string(kContinue) + okReply("hello");
  })) << browser.received();
  EXPECT_EQ(target().last().requests().at(0).body, "0123456789");
}

class ProxyNoExpectTest : public WireProxyTest {};

TEST_F(ProxyNoExpectTest, OtherBrowsersAreToldNothing) {
  listen();
  startLocalTarget().always(WireScript().request().send(okReply("hello")));
  WireClient browser(address());
  browser.send("POST /a HTTP/1.1\r\nHost: x\r\nContent-Length: 1\r\n\r\n");
  settle();
  EXPECT_EQ(browser.received(), "");
  browser.send("0");
  ASSERT_TRUE(until([&] { return browser.received() == okReply("hello"); })) << browser.received();
}

TEST_F(ProxyNoExpectTest, BrowserIsNotToldToSendWhatCannotBeForwarded) {
  listen();
  host = "ipc";
  port = "/" + std::string(200, 'p');
  TraceCapture trace;
  WireClient browser(address());
  browser.send("POST /a HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\nContent-Length: 10\r\n\r\n");
  ASSERT_TRUE(until([&] { return browser.received() == ownAnswer(); })) << browser.received();
}

}  // namespace
