// A server that hands its requests to a target: what the browsers and the target send, when they take what is sent to
// them, how time passes and what the application does, all said by the input. Nothing may be left in the end.
//
// Input: a byte of flags, a byte of options, the application's actions, the events, what every browser sends and,
// behind a line of "\n%\n", what the target sends on each connection to it.
#include <krohttp/krohttp.h>

#include <cstring>
#include <list>
#include <memory>
#include <utility>
#include <vector>

#include "fuzz_input.h"
#include "fuzz_replies.h"
#include "fuzz_support.h"
#include "memory_platform.h"

namespace {

enum Flag { kLimits = 1, kTcp = 2, kTraces = 0xc0, kFilter = 8, kNoTimeout = 16 };

class Application {
 public:
  Application(std::string_view actions, unsigned flags) : actions_(actions), flags_(flags) {
    FUZZ_CHECK(current == nullptr);
    current = this;
    connection = connection_create();
    server.requestHandler = handleRequest;
    server.bodyHandler = handleBody;
    server.replyDoneHandler = handleReplyDone;
    server.errorHandler = handleError;
    server.stoppedHandler = [](HttpServer*) { ++current->stops; };
    server.peer = memory_listen(connection);
    if ((flags & kLimits) != 0) {
      http_serverLimitsInitialize(&limits_);
      FUZZ_CHECK(http_serverLimitsSet(&server, &limits_) == 0);
    }
    FUZZ_CHECK(http_serverStart(&server) == 0);
  }
  ~Application() {
    connection_destroy(connection);
    current = nullptr;
  }

  void abortAll() {
    std::vector<HttpProxy*> open;
    for (const Exchange& exchange : exchanges_) open.push_back(exchange.proxy);
    for (HttpProxy* proxy : open)
      if (isOpen(proxy)) http_proxyAbort(proxy);
  }
  void endHandedOver() {
    std::vector<ZelPeer*> owed;
    for (const Exchange& exchange : exchanges_)
      if (exchange.handedOver) owed.push_back(exchange.peer);
    for (ZelPeer* peer : owed) peer_destroy(peer);
  }
  bool idle() const { return exchanges_.empty(); }

  HttpServer server = {};
  ZelConnection* connection;
  bool winding = false;  // lets everything pass from now on
  int stops = 0;
  size_t requests = 0;
  size_t forwarded = 0;

 private:
  struct Exchange {
    HttpProxy* proxy;
    ZelPeer* peer;
    bool handedOver;  // the reply is the application's, which has none
  };
  static Application* current;

  unsigned nextAction() { return winding ? 0 : actions_.next(); }
  bool isOpen(const HttpProxy* proxy) const {
    for (const Exchange& exchange : exchanges_)
      if (exchange.proxy == proxy) return true;
    return false;
  }
  static HttpProxy* proxyOf(HttpRequest* request) { return static_cast<HttpProxy*>(http_requestUserData(request)); }
  // The proxies of a connection end with it, also when the server has been stopped.
  static bool handleClose(ZelPeer* peer) {
    current->exchanges_.remove_if([peer](const Exchange& exchange) {
      if (exchange.peer != peer) return false;
      http_proxyDestroy(exchange.proxy);
      return true;
    });
    return true;
  }
  void release(HttpRequest* request) {
    HttpProxy* const proxy = proxyOf(request);
    http_requestUserDataSet(request, nullptr);
    exchanges_.remove_if([proxy](const Exchange& exchange) { return exchange.proxy == proxy; });
    http_proxyDestroy(proxy);
  }

  // What must be settled before a request may go on (docs/modules/proxy.md).
  static bool prepare(HttpRequest* request) {
    for (const char* c = http_requestPath(request); *c != '\0'; ++c)
      if (static_cast<unsigned char>(*c) < ' ' || *c == 127) return false;
    if (http_requestHeaderValue(request, "Host") == nullptr && http_requestHeaderValueSet(request, "Host", "own") < 0)
      return false;
    if (!http_requestHasBody(request) || http_requestBodyType(request) != HTTP_BODY_UNTIL_CLOSE) return true;
    return http_requestHeaderValueSet(request, "Content-Length", "0") == 0 && http_requestDone(request) == 0;
  }
  static int handleRequest(HttpRequest* request, HttpReply* reply) {
    Application* const application = current;
    ++application->requests;
    http_requestUserDataSet(request, nullptr);
    const unsigned action = application->nextAction();
    if (action % 16 == 15) return http_replyWithDefault(reply, 200);
    if (!prepare(request)) return http_replyWithDefault(reply, 400);
    ZelPeer* const peer = http_requestPeer(request);
    const bool tcp = (application->flags_ & kTcp) != 0;
    HttpProxy* const proxy = http_proxyCreate(application->connection, tcp ? "target" : nullptr, tcp ? "80" : "/path");
    proxy->timeout = (application->flags_ & kNoTimeout) != 0 ? 0 : 5000;
    if ((application->flags_ & kFilter) != 0) proxy->replyFilter = handleReply;
    if (http_proxyForwardRequest(proxy, request, reply) < 0) {
      http_proxyDestroy(proxy);
      return http_replyWithDefault(reply, 502);
    }
    ++application->forwarded;
    http_requestUserDataSet(request, proxy);
    application->exchanges_.push_back({proxy, peer, false});
    FUZZ_CHECK(peer_addCloseHandler(peer, handleClose));
    if (action % 16 == 14) http_proxyAbort(proxy);
    if (action % 16 == 13) http_serverStop(&application->server);
    if (action % 16 == 12) peer_destroy(peer);
    return 0;
  }
  static int handleBody(HttpRequest* request, HttpReply*, FILE* body) {
    HttpProxy* const proxy = proxyOf(request);
    if (proxy != nullptr) return http_proxyForwardRequestBody(proxy);
    char block[512];
    while (fread(block, 1, sizeof block, body) == sizeof block) {
    }
    return 0;
  }
  static void handleReplyDone(HttpReply*, HttpRequest* request) {
    if (proxyOf(request) != nullptr) http_proxyForwardReplyDone(proxyOf(request));
    current->release(request);
  }
  static void handleError(HttpRequest* request, HttpReply*) { current->release(request); }
  static int handleReply(HttpProxy* proxy, HttpReply* reply) {
    switch (current->nextAction() % 8) {
      case 1:
        http_replyHeaderValueSet(reply, "X-Filter", "%d", 1);
        return 0;
      case 2:
        for (Exchange& exchange : current->exchanges_) exchange.handedOver |= exchange.proxy == proxy;
        return -1;
      case 3:
        http_proxyAbort(proxy);
        return 0;
      case 4:
        http_replyReset(reply);
        reply->statusCode = 0;
        http_replyVersionSet(reply, 1, 1);
        http_replyWithDefault(reply, 403);
        return -1;
      case 5:
        peer_destroy(http_replyPeer(reply));
        return 0;
      default:
        return 0;
    }
  }

  FuzzScript actions_;
  unsigned flags_;
  HttpServerLimits limits_ = {};
  std::list<Exchange> exchanges_;
};

Application* Application::current = nullptr;

struct Side {
  std::shared_ptr<MemorySocket> socket;
  size_t sent = 0;
};

class World {
 public:
  World(FuzzInput* input, unsigned flags, unsigned options) {
    static constexpr size_t kBuffers[] = {4096, 0, 1024, 64};
    memoryOptions.streamBuffer = kBuffers[options % 4];
    memoryOptions.sendfile = false;
    memory_refuseConnecting(false);
    const std::string_view actions = input->bytes(32);
    events_ = input->bytes(96);
    request_ = input->until("\n%\n");
    reply_ = input->rest();
    application_ = std::make_unique<Application>(actions, flags);
    listening_ = application_->server.peer;
  }
  void run() {
    connect();
    for (const char event : events_) happen(static_cast<unsigned char>(event));
    // Everything is sent and taken.
    application_->winding = true;
    memory_refuseConnecting(false);
    for (int round = 0; round < 3; ++round) {
      for (Side& browser : browsers_) {
        browser.socket->take(SIZE_MAX);
        send(&browser, request_, SIZE_MAX);
      }
      settle();
    }
    for (Side& browser : browsers_) browser.socket->finish();
    // As often as it takes to go through all that was sent at once.
    constexpr int kMostRounds = 1000;
    for (int round = 0; round < kMostRounds; ++round) {
      settle();
      if (application_->server.connectionCount == 0 && application_->idle()) break;
    }
    FUZZ_CHECK(application_->server.connectionCount == 0 && application_->idle());
    application_->abortAll();
    http_serverStop(&application_->server);
    settle();
    check();
  }

 private:
  void connect() {
    if (browsers_.size() == 3 || application_->server.peer == nullptr) return;
    if (auto socket = memory_connectTo(listening_)) {
      socket->take(2000);
      browsers_.push_back({socket});
    }
  }
  static void send(Side* side, std::string_view text, size_t most) {
    const std::string_view bytes = text.substr(side->sent, most);
    side->socket->send(bytes);
    side->sent += bytes.size();
  }
  // Of a body, to fill the queues with; once, as it takes its time. In lines: a head ends with the first of them.
  void sendMuch(Side* side, std::string_view text) {
    if (side == nullptr || much_ || memoryOptions.streamBuffer < 1024 ||
        text.substr(0, side->sent).find("\r\n\r\n") == std::string_view::npos)
      return;
    much_ = true;
    for (int line = 0; line < 4200; ++line)
      side->socket->send("0123456789012345678901234567890123456789012345678901234567890\r\n");
  }
  void turn() {
    memory_turn();
    for (auto& socket : memory_takeConnecting()) targets_.push_back({socket});
  }
  // Targets send and take everything, and end: what is still under way is settled by that.
  void settle() {
    for (int turns = 0; turns < 60; ++turns) {
      application_->endHandedOver();
      const bool worked = memory_turn();
      for (auto& socket : memory_takeConnecting()) targets_.push_back({socket});
      for (Side& target : targets_) {
        target.socket->accepted = true;
        target.socket->take(SIZE_MAX);
        send(&target, reply_, SIZE_MAX);
        if (turns > 20) target.socket->finish();
      }
      if (!worked && turns > 22 && application_->idle()) break;
      if (!worked && turns > 22) memory_passTime(1000);
    }
    while (memory_turn() && ++spare_ < 1000) {
    }
  }
  void happen(unsigned event) {
    const unsigned argument = event >> 4;
    Side* const browser = browsers_.empty() ? nullptr : &browsers_[which_ % browsers_.size()];
    Side* const target = targets_.empty() ? nullptr : &targets_.back();
    switch (event % 16) {
      case 0:
        if (browser != nullptr) send(browser, request_, argument + 1);
        break;
      case 1:
        if (browser != nullptr) send(browser, request_, (argument + 1) * 40);
        break;
      case 2:
        if (target != nullptr) send(target, reply_, argument + 1);
        break;
      case 3:
        if (target != nullptr) send(target, reply_, (argument + 1) * 40);
        break;
      case 4:
        if (browser != nullptr) browser->socket->take(argument * 200);
        break;
      case 5:
        if (target == nullptr) break;
        if (argument == 15)
          target->socket->refused = true;
        else
          target->socket->accepted = true;
        target->socket->take(argument * 100);
        break;
      case 6:
        memory_passTime(argument * 300);
        break;
      case 7:
        if (browser != nullptr) browser->socket->end(argument);
        break;
      case 8:
        if (target != nullptr) target->socket->end(argument);
        break;
      case 9:
        which_ = argument;
        if (argument > 11) connect();
        break;
      case 10:
        if (argument == 15) http_serverStop(&application_->server);
        if (argument == 14) application_->abortAll();
        if (argument == 13) memory_refuseConnecting(true);
        break;
      case 11:
        if (argument == 15) sendMuch(target, reply_);
        if (argument == 14) sendMuch(browser, request_);
        break;
      default:
        break;
    }
    turn();
  }
  void check() {
    FUZZ_CHECK(application_->stops == 1 && application_->server.connectionCount == 0);
    FUZZ_CHECK(application_->idle());
    size_t finals = 0;
    for (const Side& browser : browsers_) {
      FUZZ_CHECK(browser.socket->closed);
      showWire("to the browser", browser.socket->received);
      finals += countReplies(browser.socket->received);
    }
    // One that was refused before it became a request has a reply, too.
    FUZZ_CHECK(finals <= application_->requests + browsers_.size());
    for (const Side& target : targets_) {
      FUZZ_CHECK(target.socket->closed);
      showWire("to the target", target.socket->received);
    }
    FUZZ_CHECK(targets_.size() >= application_->forwarded);
    application_.reset();
    FUZZ_CHECK(memory_livePeers() == 0);
    FUZZ_CHECK(memory_liveTimers() == 0);
  }
  // What the target sends is not told apart: the first reply at least must be one.
  static size_t countReplies(std::string_view wire) {
    constexpr std::string_view kBegin = "HTTP/";
    FUZZ_CHECK(wire.substr(0, kBegin.size()) == kBegin.substr(0, wire.size()));
    return !wire.empty();
  }

  std::string_view events_;
  std::string_view request_;
  std::string_view reply_;
  std::unique_ptr<Application> application_;
  ZelPeer* listening_;
  std::vector<Side> browsers_;
  std::vector<Side> targets_;
  unsigned which_ = 0;
  int spare_ = 0;
  bool much_ = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput input(data, size);
  const unsigned flags = input.byte();
  traceIf((flags & kTraces) == kTraces && size <= kMostTraced);
  World(&input, flags, input.byte()).run();
  return 0;
}
