// A server that hands what it receives to a target: a browser (WireClient), the library in between, a WireTarget.
//
//   TEST_F(WireProxyTest, PassesOn) {
//     listen();
//     startTarget().always(WireScript().request().send(okReply("hello")).repeat());
//     WireClient browser(address());
//     browser.send("GET /a HTTP/1.1\r\nHost: x\r\n\r\n");
//     EXPECT_TRUE(until([&] { return browser.received() == okReply("hello"); }));
//   }
//
// The application is the one that proxy.h describes: a proxy for each request, destroyed in the reply-done and error
// handlers, and 502 from the application itself when a request cannot be forwarded. At the end of a test no proxy may
// be left that these handlers should have destroyed.
#pragma once

#include <gtest/gtest.h>
#include <krohttp/krohttp.h>
#include <sys/socket.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/wire_client.h"
#include "support/wire_server.h"
#include "support/wire_target.h"

// How a browser stands: "504", "200 closed", "200 cut closed", "waiting", "closed".
inline std::string outcome(const WireClient& browser, bool bodyless = false) {
  const std::string& bytes = browser.received();
  const std::string ended = browser.ended() ? "closed" : "";
  if (bytes.empty()) return browser.ended() ? "closed" : "waiting";
  size_t at = 0;
  const auto reply = takeReply(bytes, &at, bodyless);
  const auto with = [&](std::string text) { return ended.empty() ? text : std::move(text) + " " + ended; };
  if (reply && at == bytes.size()) return with(std::to_string(reply->status()));
  if (reply) return with(std::to_string(reply->status()) + " and more");
  if (bytes.find("\r\n\r\n") == std::string::npos) return with("head cut");
  return with(bytes.substr(9, 3) + " cut");
}

// What has arrived of the body of the only reply in bytes, complete or not.
inline std::string bodySoFar(std::string_view bytes) {
  const size_t headEnd = bytes.find("\r\n\r\n");
  if (headEnd == std::string_view::npos) return "";
  const std::string_view body = bytes.substr(headEnd + 4);
  if (bytes.substr(0, headEnd).find("Transfer-Encoding: chunked") == std::string_view::npos) return std::string(body);
  std::string decoded;
  for (size_t at = 0; at < body.size();) {
    const size_t lineEnd = body.find("\r\n", at);
    if (lineEnd == std::string_view::npos) break;
    const size_t size = strtoul(std::string(body.substr(at, lineEnd - at)).c_str(), nullptr, 16);
    decoded.append(body.substr(lineEnd + 2, size));
    at = lineEnd + 2 + size + 2;
  }
  return decoded;
}

// Whether text is like pattern, in which a '*' stands for any text.
inline bool isLike(std::string_view text, std::string_view pattern) {
  const size_t star = pattern.find('*');
  if (star == std::string_view::npos) return text == pattern;
  if (text.substr(0, star) != pattern.substr(0, star)) return false;
  const std::string_view rest = pattern.substr(star + 1);
  for (size_t at = star; at <= text.size(); ++at)
    if (isLike(text.substr(at), rest)) return true;
  return false;
}

// The proxy's own lines of a trace, without their zone.
inline TraceLines proxyLines(const TraceCapture& trace) {
  constexpr std::string_view kZone = "http-pr";
  TraceLines lines;
  for (const std::string& line : trace.said())
    if (line.compare(0, kZone.size(), kZone) == 0) lines.push_back(line.substr(kZone.size()));
  return lines;
}

// The states that a trace tells of: "INIT", and then each that was switched to.
inline TraceLines proxyStates(const TraceCapture& trace) {
  constexpr std::string_view kSwitch = "[i]switch proxy state from ";
  TraceLines states;
  for (const std::string& line : proxyLines(trace)) {
    if (line.compare(0, kSwitch.size(), kSwitch) != 0) continue;
    const size_t toAt = line.find(" to ");
    const std::string from = line.substr(kSwitch.size(), toAt - kSwitch.size());
    if (states.empty()) states.push_back(from);
    EXPECT_EQ(states.back(), from);
    states.push_back(line.substr(toAt + 4, line.find(" (", toAt) - toAt - 4));
  }
  return states;
}

class WireProxyTest : public WireTargetTest {
 public:
  // What the application does besides.
  std::function<void(HttpProxy*)> onMade;               // before the request is forwarded
  std::function<int(HttpProxy*, HttpReply*)> onFilter;  // as replyFilter, which is there when this is set
  std::function<void(HttpProxy*)> onForwarded;          // the request was forwarded
  std::vector<int> forwarded;                           // what http_proxyForwardRequest() returned
  std::vector<int> bodies;                              // what http_proxyForwardRequestBody() returned
  std::vector<std::string> endings;                     // "done STATE" or "error STATE", as handlers find the proxies
  uint32_t timeout = HTTP_PROXY_TIMEOUT;

  // The target that proxies are made for.
  const char* host = nullptr;
  std::string port;

 protected:
  void SetUp() override {
    WireTargetTest::SetUp();
    current_ = this;
    onRequest = [this](HttpRequest* request, HttpReply* reply) { return forward(request, reply); };
    onBody = [this](HttpRequest* request, HttpReply*, FILE* stream) { return forwardBody(request, stream); };
    onReplyDone = [this](HttpReply*, HttpRequest* request) { finish(request); };
    onError = [this](HttpRequest* request, HttpReply*) { fail(request); };
    onStopped = [this] { destroyAll(); };
  }
  void TearDown() override {
    if (!http().stopped && http().connectionCount == 0) {
      EXPECT_EQ(proxyCount(), 0u) << "a proxy was forgotten";
    }
    destroyAll();
    target_.reset();
    WireTargetTest::TearDown();
    current_ = nullptr;
  }

  // Starts the target on a TCP port.
  WireTarget& startTarget(WireTarget::Options options = {}) {
    target_ = std::make_unique<WireTarget>(WireAddress::tcp(0), options);
    host = "127.0.0.1";
    port = target_->port();
    return *target_;
  }
  // Starts the target on a Unix socket.
  WireTarget& startLocalTarget(WireTarget::Options options = {}) {
    if (!targetFolder_) targetFolder_ = std::make_unique<TemporaryFolder>();
    host = "ipc";
    port = targetFolder_->at("target" + std::to_string(targets_++));
    target_ = std::make_unique<WireTarget>(WireAddress::local(port), options);
    return *target_;
  }
  WireTarget& target() { return *target_; }
  void stopTarget() { target_.reset(); }

  // The proxy that was made last, if it still lives.
  HttpProxy* proxy() const { return newest_; }
  size_t proxyCount() const { return proxies_.size(); }
  // The request that it was made for.
  HttpRequest* request() const {
    for (const auto& [request, proxy] : proxies_)
      if (proxy == newest_) return request;
    return nullptr;
  }
  int state() const { return newest_ == nullptr ? -1 : static_cast<int>(newest_->state); }
  static std::string stateName(const HttpProxy* proxy) { return proxyStateStrings[proxy->state]; }
  // How many peers of the connection live, the listening one among them.
  size_t peerCount() { return llist_count(connection_peers(connection())); }
  // Nothing is left of any exchange.
  bool allGone() {
    return http().connectionCount == 0 && proxyCount() == 0 && (target_ == nullptr || target_->open() == 0);
  }

  HttpProxy* proxyOf(HttpRequest* request) const {
    const auto found = proxies_.find(request);
    return found == proxies_.end() ? nullptr : found->second;
  }
  void destroy(HttpRequest* request) {
    HttpProxy* const proxy = proxyOf(request);
    if (proxy == nullptr) return;
    proxies_.erase(request);
    if (newest_ == proxy) newest_ = nullptr;
    http_proxyDestroy(proxy);
  }
  void destroyAll() {
    while (!proxies_.empty()) destroy(proxies_.begin()->first);
  }
  // Destroys the proxy made last.
  void destroyNewest() {
    if (HttpRequest* const made = request()) destroy(made);
  }

  // What the application does in its handlers.
  HttpProxy* make(HttpRequest* request) {
    destroy(request);
    newest_ = http_proxyCreate(connection(), host, port.c_str());
    EXPECT_NE(newest_, nullptr);
    proxies_[request] = newest_;
    newest_->timeout = timeout;
    if (onFilter) newest_->replyFilter = filter;
    if (onMade) onMade(newest_);
    return newest_;
  }
  int forward(HttpRequest* request, HttpReply* reply) {
    HttpProxy* const proxy = make(request);
    forwarded.push_back(http_proxyForwardRequest(proxy, request, reply));
    if (forwarded.back() == 0) {
      if (onForwarded) onForwarded(proxy);
      return 0;
    }
    destroy(request);
    return answer(reply);
  }
  // The application answers itself.
  static int answer(HttpReply* reply) { return replyText(reply, 502, "no target"); }
  static std::string ownAnswer() { return textReply(502, "Bad Gateway", "no target"); }
  int forwardBody(HttpRequest* request, FILE* stream) {
    HttpProxy* const proxy = proxyOf(request);
    if (proxy == nullptr) {
      readBody(stream);
      return 0;
    }
    bodies.push_back(http_proxyForwardRequestBody(proxy));
    return bodies.back();
  }
  void finish(HttpRequest* request) {
    HttpProxy* const proxy = proxyOf(request);
    if (proxy == nullptr) return;
    endings.push_back("done " + stateName(proxy));
    EXPECT_EQ(http_proxyForwardReplyDone(proxy), 0);
    EXPECT_EQ(stateName(proxy), "CLIENT_REPLY_FORWARDED");
    destroy(request);
  }
  void fail(HttpRequest* request) {
    HttpProxy* const proxy = proxyOf(request);
    if (proxy == nullptr) return;
    endings.push_back("error " + stateName(proxy));
    destroy(request);
  }

  // Makes what is sent to a browser wait early.
  static void narrow(HttpRequest* request) {
    const int bytes = 4096;
    setsockopt(peer_socket(http_requestPeer(request)), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes));
  }

 private:
  static int filter(HttpProxy* proxy, HttpReply* reply) {
    // The test may replace or forget what is being called.
    const auto work = current_->onFilter;
    return work(proxy, reply);
  }

  static inline WireProxyTest* current_ = nullptr;
  std::unique_ptr<TemporaryFolder> targetFolder_;
  std::unique_ptr<WireTarget> target_;
  int targets_ = 0;
  HttpProxy* newest_ = nullptr;
  std::map<HttpRequest*, HttpProxy*> proxies_;
};
