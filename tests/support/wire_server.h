// A server inside the test: the library on the bundled platform's loop, in the test's own thread.
//
//   class CycleTest : public WireServerTest {};
//   TEST_F(CycleTest, AnswersWithTheLength) {
//     listen();
//     onRequest = [](HttpRequest*, HttpReply* reply) { return replyText(reply, 200, "hello"); };
//     WireClient client(address());
//     client.send("GET / HTTP/1.1\r\nHost: x\r\n\r\n");
//     EXPECT_TRUE(until([&] { return client.received() == "HTTP/1.1 200 OK\r\n..."; }));
//   }
//
// Time passes only inside until() and settle(). When the test ends, no descriptor may be left behind.
#pragma once

#include <dirent.h>
#include <gtest/gtest.h>
#include <krohttp/krohttp.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zel/connection.h>
#include <zel/loop.h>
#include <zel/peer.h>
#include <zel/timer.h>

#include <array>
#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/trace_capture.h"
#include "support/wire_client.h"

// --- what handlers do ------------------------------------------------------------------------------------------------

// Sends a complete reply with a Content-Length, and more headers if given. @return 0 or -1, as a request handler does
inline int replyText(HttpReply* reply, unsigned status, std::string_view body,
                     const std::vector<std::pair<std::string, std::string>>& headers = {}) {
  if (http_replyStatusCodeSet(reply, status, nullptr) < 0) return -1;
  for (const auto& [name, value] : headers)
    if (http_replyHeaderValueSet(reply, name.c_str(), "%s", value.c_str()) < 0) return -1;
  if (http_replyHeaderValueSet(reply, "Content-Length", "%zu", body.size()) < 0) return -1;
  if (http_replySend(reply) < 0) return -1;
  if (!body.empty()) {
    FILE* stream = http_replyBody(reply);
    if (stream == nullptr) return -1;
    if (fwrite(body.data(), 1, body.size(), stream) != body.size()) return -1;
    if (fclose(stream) != 0) return -1;
  }
  return http_replyDone(reply);
}

// The bytes that replyText() makes.
inline std::string textReply(unsigned status, std::string_view reason, std::string_view body,
                             std::string_view version = "1.1", std::string_view headers = "") {
  return "HTTP/" + std::string(version) + " " + std::to_string(status) + " " + std::string(reason) + "\r\n" +
         std::string(headers) + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + std::string(body);
}
inline std::string okReply(std::string_view body) { return textReply(200, "OK", body); }

// The bytes of a canned reply to a request of HTTP/1.1.
inline std::string cannedReply(unsigned status, const std::string& reason) {
  const std::string page = "<html><head><title>" + reason + "</title></head><body><h1>" + std::to_string(status) +
                           " - " + reason + "</h1></body></html>\n";
  return "HTTP/1.1 " + std::to_string(status) + " " + reason +
         "\r\nTE: chunked\r\nTransfer-Encoding: chunked\r\nContent-Type: text/html\r\n\r\n" + chunked(page);
}

// What can be read from a body now; a body that has to wait is ready to be read again.
inline std::string readBody(FILE* body) {
  std::string text;
  std::array<char, 4096> block;
  size_t count;
  while ((count = fread(block.data(), 1, block.size(), body)) > 0) {
    text.append(block.data(), count);
    if (count < block.size()) break;
  }
  return text;
}

// Waits until a peer's socket has input, inside a handler. @return whether it came
inline bool awaitInput(const ZelPeer* peer) {
  pollfd socket = {peer_socket(peer), POLLIN, 0};
  return poll(&socket, 1, 5000) == 1;
}

// A transport that does what the socket does, without zero-copy sending.
inline const ZelTransport& plainTransport() {
  static const ZelTransport transport = {
      [](ZelPeer* peer, void* buffer, size_t length) { return recv(peer_socket(peer), buffer, length, MSG_DONTWAIT); },
      [](ZelPeer* peer, const void* buffer, size_t length) {
        return send(peer_socket(peer), buffer, length, MSG_DONTWAIT | MSG_NOSIGNAL);
      },
      [](ZelPeer* peer, void* buffer, size_t length) {
        return recv(peer_socket(peer), buffer, length, MSG_DONTWAIT | MSG_PEEK);
      },
      0};
  return transport;
}

// --- the fixture -----------------------------------------------------------------------------------------------------

class WireServerTest : public ::testing::Test {
 public:
  using RequestHandler = std::function<int(HttpRequest*, HttpReply*)>;
  using BodyHandler = std::function<int(HttpRequest*, HttpReply*, FILE*)>;
  using ReplyDoneHandler = std::function<void(HttpReply*, HttpRequest*)>;
  using ErrorHandler = std::function<void(HttpRequest*, HttpReply*)>;

  // What the handlers of the test do. Each call is also written to calls. One that is not set does what is usual.
  RequestHandler onRequest;      // a request without a body is answered with its path
  BodyHandler onBody;            // keeps the body in body, and answers with it at its end
  ReplyDoneHandler onReplyDone;  // nothing
  ErrorHandler onError;          // nothing
  std::function<void()> onStopped;

  std::vector<std::string> calls;
  std::string body;

 protected:
  void SetUp() override {
    alarm(100);        // for a call that never returns
    zel_loop_turn(0);  // what lasts as long as the process is made by the first loop
    zel_loop_close();
    before_ = openDescriptors();
    connection_ = connection_create();
    server_.test = this;
    server_.http.requestHandler = handleRequest;
    server_.http.bodyHandler = handleBody;
    server_.http.replyDoneHandler = handleReplyDone;
    server_.http.errorHandler = handleError;
    server_.http.stoppedHandler = handleStopped;
  }
  void TearDown() override {
    for (Later& later : laters_) zel_timer_destroy(later.timer);
    connection_destroy(connection_);
    zel_loop_close();
    EXPECT_EQ(server_.http.connectionCount, 0);
    EXPECT_EQ(openDescriptors(), before_);
    alarm(0);
  }

  // Starts the server on a TCP port of the loopback interface.
  void listen() { start(connection_listenOnTCP(connection_, "127.0.0.1", "0")); }
  // Starts the server on a Unix socket.
  void listenLocally() {
    folder_ = std::make_unique<TemporaryFolder>();
    start(connection_listenOnIPC(connection_, folder_->at("socket").c_str()));
    address_ = WireAddress::local(folder_->at("socket"));
  }
  const WireAddress& address() const { return address_; }
  HttpServer& http() { return server_.http; }
  ZelConnection* connection() { return connection_; }

  // Runs turns until condition holds; clients send and receive meanwhile. The bound is for tests that fail.
  template <typename Condition>
  static bool until(Condition condition, int seconds = 15) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (true) {
      WireClient::pumpAll();
      if (condition()) return true;
      if (std::chrono::steady_clock::now() > limit) return false;
      zel_loop_turn(2);
    }
  }

  // Lets everything happen that can happen without new bytes or time passing.
  // @return how many turns that took; a loop that never comes to rest is a failure of the test
  static int settle() {
    constexpr int kLimit = 400;
    constexpr int kQuietTurns = 4;
    int quiet = 0;
    for (int turn = 0; turn < kLimit; ++turn) {
      WireClient::pumpAll();
      quiet = loopIsDue() ? 0 : quiet + 1;
      if (quiet > kQuietTurns) return turn;
      zel_loop_turn(0);
    }
    ADD_FAILURE() << "the loop does not come to rest";
    return kLimit;
  }
  // Whether the loop has something to do right now.
  static bool loopIsDue() {
    if (zel_loop_timeout() == 0) return true;
    pollfd descriptor = {zel_loop_descriptor(), POLLIN, 0};
    return poll(&descriptor, 1, 0) == 1;
  }

  // Runs work from a timer.
  void later(unsigned milliseconds, std::function<void()> work) {
    laters_.push_back({zel_timer_create(), std::move(work)});
    Later* later = &laters_.back();
    zel_timer_setUserData(later->timer, later);
    zel_timer_setHandler(later->timer, [](ZelTimer*, void* userData) { static_cast<Later*>(userData)->work(); });
    ASSERT_TRUE(zel_timer_start(later->timer, milliseconds));
  }

  size_t callsOf(std::string_view kind) const {
    return static_cast<size_t>(std::count_if(calls.begin(), calls.end(), [&](const std::string& call) {
      return call == kind || call.compare(0, kind.size() + 1, std::string(kind) + " ") == 0;
    }));
  }

  static std::set<int> openDescriptors() {
    std::set<int> open;
    DIR* folder = opendir("/proc/self/fd");
    while (const dirent* entry = readdir(folder))
      if (entry->d_name[0] != '.') open.insert(atoi(entry->d_name));
    open.erase(dirfd(folder));
    closedir(folder);
    return open;
  }

 private:
  struct Server {
    HttpServer http;  // first: a request's owner is this
    WireServerTest* test;
  };
  struct Later {
    ZelTimer* timer;
    std::function<void()> work;
  };

  void start(ZelPeer* listener) {
    ASSERT_NE(listener, nullptr);
    address_ = WireAddress::tcp(peer_localPort(listener));
    server_.http.peer = listener;
    ASSERT_EQ(http_serverStart(&server_.http), 0);
  }

  static WireServerTest* of(void* server) { return static_cast<Server*>(server)->test; }
  static std::string name(HttpRequest* request) {
    const char* path = http_requestPath(request);
    return std::string(http_requestMethodString(request)) + " " + (path == nullptr ? "" : path);
  }

  static int handleRequest(HttpRequest* request, HttpReply* reply) {
    WireServerTest* test = of(http_requestOwner(request));
    test->calls.push_back("request " + name(request));
    if (test->onRequest) return RequestHandler(test->onRequest)(request, reply);
    return http_requestHasBody(request) ? 0 : replyText(reply, 200, http_requestPath(request));
  }
  static int handleBody(HttpRequest* request, HttpReply* reply, FILE* stream) {
    WireServerTest* test = of(http_requestOwner(request));
    test->calls.emplace_back("body");
    if (test->onBody) return BodyHandler(test->onBody)(request, reply, stream);
    test->body += readBody(stream);
    if (http_requestState(request) != HTTP_MSG_DONE) return 0;
    return replyText(reply, 200, std::exchange(test->body, std::string()));
  }
  static void handleReplyDone(HttpReply* reply, HttpRequest* request) {
    WireServerTest* test = of(http_replyOwner(reply));
    test->calls.push_back("done " + std::to_string(http_replyStatusCode(reply)));
    if (test->onReplyDone) ReplyDoneHandler(test->onReplyDone)(reply, request);
  }
  static void handleError(HttpRequest* request, HttpReply* reply) {
    WireServerTest* test = of(http_requestOwner(request));
    test->calls.emplace_back("error");
    if (test->onError) ErrorHandler(test->onError)(request, reply);
  }
  static void handleStopped(HttpServer* server) {
    WireServerTest* test = of(server);
    test->calls.emplace_back("stopped");
    if (test->onStopped) test->onStopped();
  }

  Server server_ = {};
  ZelConnection* connection_ = nullptr;
  WireAddress address_;
  std::unique_ptr<TemporaryFolder> folder_;
  std::list<Later> laters_;
  std::set<int> before_;
};
