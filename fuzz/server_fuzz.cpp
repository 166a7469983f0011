// Whole connections of a server: what clients send, when they take what is sent to them, how time passes, and what the
// application does with each request, all said by the input. Nothing may be left in the end.
//
// Input: a byte of flags, a byte of options, the application's actions, the events, what every client sends.
#include <fcntl.h>
#include <krohttp/krohttp.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <list>
#include <map>
#include <set>
#include <vector>

#include "fuzz_input.h"
#include "fuzz_replies.h"
#include "fuzz_support.h"
#include "memory_platform.h"

namespace {

enum Flag { kLimits = 1, kStrict = 2, kTraces = 0xc0, kSendfile = 8, kNoBodyHandler = 16, kBodyLimit = 32 };
constexpr size_t kMostTurns = 400;

class Application;

// One request of the application, from its handler on.
struct Exchange {
  Application* application = nullptr;
  HttpRequest* request = nullptr;
  HttpReply* reply = nullptr;
  ZelPeer* peer = nullptr;
  ZelTimer* timer = nullptr;
  FILE* body = nullptr;  // of a reply that is written little by little
  unsigned pieces = 0;   // of it still to come
  bool replied = false;
  bool paused = false;
  bool hasReader = false;
  HttpMultipart reader = {};

  ~Exchange() {
    if (hasReader) http_msgMultipartCleanup(&reader);
    zel_timer_destroy(timer);
  }
};

class Application {
 public:
  Application(std::string_view actions, unsigned flags) : actions_(actions) {
    FUZZ_CHECK(current == nullptr);
    current = this;
    server.requestHandler = handleRequest;
    if ((flags & kNoBodyHandler) == 0) server.bodyHandler = handleBody;
    server.replyDoneHandler = handleReplyDone;
    server.errorHandler = handleError;
    server.stoppedHandler = [](HttpServer*) { ++current->stops; };
    http_authCookieInit(&sessions_, "/", 3);
    sessions_.check = [](const char* name, const char*, void*) { return name[0] == 'x' ? -1 : 0; };
    if ((flags & kLimits) != 0) {
      http_serverLimitsInitialize(&limits);
      limits.lineBytes = 200;
      limits.headBytes = 600;
      limits.headers = 8;
      limits.bodyBytes = (flags & kBodyLimit) != 0 ? 100 : 0;
      limits.headSeconds = 3;
      limits.stallSeconds = 4;
      limits.minimumRate = 20;
      limits.rateSeconds = 2;
      limits.idleSeconds = 3;
      limits.pausedSeconds = 5;
      limits.requests = 4;
      limits.connections = 2;
      limits.strict = (flags & kStrict) != 0;
      FUZZ_CHECK(http_serverLimitsSet(&server, &limits) == 0);
    }
  }
  ~Application() {
    http_authCookieCleanup(&sessions_);
    current = nullptr;
  }

  bool idle() const { return exchanges_.empty(); }
  void stop() { http_serverStop(&server); }
  void resumeAll() {
    for (Exchange& exchange : exchanges_) {
      if (!exchange.paused) continue;
      exchange.paused = false;
      http_serverResumeRequest(exchange.request);
    }
  }
  // Answers whatever is still open.
  void finishAll() {
    resumeAll();
    std::vector<Exchange*> open;
    for (Exchange& exchange : exchanges_) open.push_back(&exchange);
    for (Exchange* exchange : open)
      if (isOpen(exchange) && exchange->timer == nullptr) finish(exchange);
  }
  void destroyOne(unsigned which) {
    if (exchanges_.empty()) return;
    auto exchange = exchanges_.begin();
    std::advance(exchange, which % exchanges_.size());
    peer_destroy(exchange->peer);
  }

  HttpServer server = {};
  HttpServerLimits limits = {};
  bool winding = false;  // takes everything, and answers it, from now on
  int stops = 0;
  std::set<const MemorySocket*> over;                         // clients that no request may come from any more
  std::map<const MemorySocket*, std::vector<bool>> requests;  // of each client: whether it was HEAD

 private:
  static Application* current;
  static Application* of(HttpRequest* request) {
    FUZZ_CHECK(http_requestOwner(request) == &current->server);
    return current;
  }

  unsigned nextAction() { return winding ? 15 : actions_.next(); }
  bool isOpen(const Exchange* wanted) const {
    for (const Exchange& exchange : exchanges_)
      if (&exchange == wanted) return true;
    return false;
  }
  Exchange* find(HttpRequest* request) {
    for (Exchange& exchange : exchanges_)
      if (exchange.request == request) return &exchange;
    return nullptr;
  }
  void forget(const ZelPeer* peer) {
    exchanges_.remove_if([peer](const Exchange& exchange) { return exchange.peer == peer; });
  }

  static bool handleClose(ZelPeer* peer) {
    current->forget(peer);
    return true;
  }

  static int handleRequest(HttpRequest* request, HttpReply* reply) {
    Application* const application = of(request);
    FUZZ_CHECK(application->find(request) == nullptr);
    FUZZ_CHECK(http_requestPath(request) != nullptr && http_replyState(reply) == HTTP_MSG_FIRST_LINE);
    Exchange& exchange = application->exchanges_.emplace_back();
    exchange.application = application;
    exchange.request = request;
    exchange.reply = reply;
    exchange.peer = http_requestPeer(request);
    FUZZ_CHECK(peer_addCloseHandler(exchange.peer, handleClose));
    FUZZ_CHECK(!application->over.contains(memory_socketOf(exchange.peer)));
    application->requests[memory_socketOf(exchange.peer)].push_back(http_requestMethod(request) == HTTP_METHOD_HEAD);
    return application->act(&exchange);
  }
  static int handleBody(HttpRequest* request, HttpReply*, FILE* body) {
    Application* const application = of(request);
    Exchange* const exchange = application->find(request);
    FUZZ_CHECK(exchange != nullptr);
    return application->actOnBody(exchange, body);
  }
  static void handleReplyDone(HttpReply* reply, HttpRequest* request) {
    Application* const application = of(request);
    Exchange* const exchange = application->find(request);
    FUZZ_CHECK(exchange != nullptr && exchange->reply == reply);
    application->forget(exchange->peer);
  }
  static void handleError(HttpRequest* request, HttpReply* reply) {
    Application* const application = of(request);
    if (Exchange* const exchange = application->find(request)) application->forget(exchange->peer);
    if (http_replyState(reply) == HTTP_MSG_FIRST_LINE && application->nextAction() % 4 == 0) {
      const unsigned status = http_serverRefusalStatus(request->message.refusal);
      if (reply->message.versionMajor == 0) http_replyVersionSet(reply, 1, 1);
      http_replyHeaderValueSet(reply, "Connection", "close");
      http_replyWithDefault(reply, status != 0 ? status : 400);
    }
  }

  // --- replies ---

  void finish(Exchange* exchange) {
    if (exchange->replied) {
      if (exchange->body != nullptr) fclose(exchange->body);
      exchange->body = nullptr;
      if (exchange->pieces > 0) http_replyDone(exchange->reply);
      exchange->pieces = 0;
      return;
    }
    exchange->replied = true;
    http_replyWithDefault(exchange->reply, 200);
  }
  void replyWithLength(Exchange* exchange, size_t size) {
    HttpReply* const reply = exchange->reply;
    exchange->replied = true;
    http_replyStatusCodeSet(reply, 404, "Own");
    http_replyHeaderValueSet(reply, "Content-Length", "%zu", size);
    http_replyHeaderEmptySet(reply, "X-Empty", "%s", "");
    if (http_replySend(reply) != 0) return;
    const std::string content(size, 'L');
    if (FILE* const body = http_replyBody(reply)) FUZZ_CHECK(fwrite(content.data(), 1, size, body) == size);
    http_replyDone(reply);
  }
  // Chunked, or until the end of the connection, some of it at once and the rest from a timer.
  void replyInPieces(Exchange* exchange, unsigned pieces, bool chunked) {
    HttpReply* const reply = exchange->reply;
    exchange->replied = true;
    http_replyStatusCodeSet(reply, 200, nullptr);
    if (chunked)
      http_replyHeaderValueSet(reply, "Transfer-Encoding", "chunked");
    else
      http_replyHeaderValueSet(reply, "Connection", "close");
    if (http_replySend(reply) != 0) return;
    exchange->body = http_replyBody(reply);
    exchange->pieces = pieces + 1;
    writePiece(exchange);
  }
  void writePiece(Exchange* exchange) {
    if (exchange->pieces == 0) return;
    if (exchange->body != nullptr) {
      const std::string piece(50 * exchange->pieces, 'P');
      fwrite(piece.data(), 1, piece.size(), exchange->body);
      if (exchange->pieces % 2 == 0) fflush(exchange->body);
    }
    if (--exchange->pieces > 0) return startTimer(exchange, exchange->pieces * 7);
    if (exchange->body != nullptr) fclose(exchange->body);
    exchange->body = nullptr;
    http_replyDone(exchange->reply);
  }
  void sendDescriptor(Exchange* exchange, unsigned kind) {
    exchange->replied = true;
    http_replyStatusCodeSet(exchange->reply, 200, nullptr);
    http_serverSendFd(exchange->reply, descriptor(kind));
  }
  static int descriptor(unsigned kind) {
    if (kind % 4 == 0) return open("/dev/null", O_RDONLY | O_CLOEXEC);
    const std::string content(kind * 700, 'F');
    if (kind % 4 == 1) {
      int ends[2];
      FUZZ_CHECK(pipe2(ends, O_CLOEXEC) == 0);
      FUZZ_CHECK(write(ends[1], content.data(), content.size()) == static_cast<ssize_t>(content.size()));
      close(ends[1]);
      return ends[0];
    }
    const int file = memfd_create("file", MFD_CLOEXEC);
    FUZZ_CHECK(file >= 0 && write(file, content.data(), content.size()) == static_cast<ssize_t>(content.size()));
    return file;
  }
  void replyWithSession(Exchange* exchange) {
    exchange->replied = true;
    http_auth_session* const session =
        http_authCookieAuthenticate(&sessions_, exchange->request, exchange->reply, nullptr);
    if (session == nullptr) {
      http_authCookieCloseSession(&sessions_, exchange->request, exchange->reply);
      http_replyWithAuthDigestFailed(exchange->reply, "realm", "auth");
    } else {
      http_replyWithDefaultAndBody(exchange->reply, 200, "%s", http_authSessionUsername(session));
    }
  }
  // Looks at everything that can be known of the request.
  void replyWithEverything(Exchange* exchange) {
    exchange->replied = true;
    HttpRequest* const request = exchange->request;
    HttpReply* const copy = http_replyCreate();
    size_t length = 0;
    char* name = nullptr;
    char* value = nullptr;
    while (http_uriNextParameter(http_requestURI(request), &name, &value) == 0) length += strlen(name) + strlen(value);
    for (int code = 0; code < HTTP_HEADER_COUNT; ++code) {
      HttpHeader header{};
      header.code = code;
      if (http_requestHeader(request, &header) == 0) http_replyHeaderSet(copy, &header);
      http_hdrCleanup(&header);
    }
    http_replyDestroy(copy);
    char* const target = http_uriSerialize(http_requestURI(request));
    http_replyWithRedirect(exchange->reply, 302, "/%zu%s", length, target != nullptr && length % 2 == 0 ? "" : "?%s%%");
    free(target);
  }

  void startTimer(Exchange* exchange, unsigned milliseconds) {
    if (exchange->timer == nullptr) exchange->timer = zel_timer_create();
    zel_timer_setUserData(exchange->timer, exchange);
    zel_timer_setHandler(exchange->timer, handleTimer);
    zel_timer_start(exchange->timer, milliseconds);
  }
  static void handleTimer(ZelTimer* timer, void* userData) {
    auto* const exchange = static_cast<Exchange*>(userData);
    zel_timer_destroy(timer);
    exchange->timer = nullptr;
    if (exchange->paused) {
      exchange->paused = false;
      if (exchange->hasReader)
        http_msgMultipartResume(&exchange->reader);
      else
        http_serverResumeRequest(exchange->request);
    } else if (exchange->pieces > 0) {
      exchange->application->writePiece(exchange);
    } else {
      exchange->application->finish(exchange);
    }
  }

  // --- actions ---

  int pause(Exchange* exchange, unsigned milliseconds) {
    exchange->paused = http_serverPauseRequest(exchange->request) == 0;
    startTimer(exchange, milliseconds);
    return 0;
  }
  int act(Exchange* exchange) {
    const unsigned action = nextAction();
    const unsigned argument = action >> 4;
    switch (action % 16) {
      case 0:
        finish(exchange);
        return 0;
      case 1:
        replyWithLength(exchange, argument * argument * 40);
        return 0;
      case 2:
        replyInPieces(exchange, argument % 8, argument < 8 && exchange->request->message.versionMinor > 0);
        return 0;
      case 3:
        startTimer(exchange, argument * 100);
        return 0;
      case 4:
        http_serverContinue(exchange->request, exchange->reply);
        return replyIfComplete(exchange);
      case 5:
        return pause(exchange, argument * 300);
      case 6:
        http_serverTemporizeRequest(exchange->request);
        return replyIfComplete(exchange);
      case 7:
        return drop(exchange, argument > 7);
      case 8:
        if (argument > 7) finish(exchange);
        stop();
        return 0;
      case 9:
        if (argument > 7) finish(exchange);
        peer_destroy(exchange->peer);
        return argument % 2 == 0 ? 0 : -1;
      case 10:
        sendDescriptor(exchange, argument);
        return 0;
      case 11:
        return beginMultipart(exchange);
      case 12:
        replyWithSession(exchange);
        return 0;
      case 13:
        replyWithEverything(exchange);
        return 0;
      case 14:
        http_serverBodyLimitSet(exchange->request, argument * 8);
        return replyIfComplete(exchange);
      default:
        return replyIfComplete(exchange);
    }
  }
  int drop(Exchange* exchange, bool answered) {
    if (answered) finish(exchange);
    over.insert(memory_socketOf(exchange->peer));
    return -1;
  }
  int replyIfComplete(Exchange* exchange) {
    if (http_requestState(exchange->request) == HTTP_MSG_DONE) finish(exchange);
    return 0;
  }
  // Reads at most @p most bytes. Whoever has read all of it answers.
  int readBody(Exchange* exchange, FILE* body, size_t most) {
    char block[300];
    size_t count = 0;
    size_t wanted = 0;
    do {
      wanted = std::min(most, sizeof block);
      count = fread(block, 1, wanted, body);
      most -= count;
    } while (count == wanted && most > 0);
    return replyIfComplete(exchange);
  }
  int actOnBody(Exchange* exchange, FILE* body) {
    FUZZ_CHECK(!exchange->paused);
    if (exchange->hasReader) {
      const int result = http_msgMultipartHandleRead(&exchange->reader);
      return isOpen(exchange) && result == 0 ? replyIfComplete(exchange) : result;
    }
    const unsigned action = nextAction();
    const unsigned argument = action >> 4;
    switch (action % 16) {
      case 0:
        return readBody(exchange, body, argument + 1);
      case 1:
        return 0;
      case 2:
        readBody(exchange, body, argument * 5);
        return pause(exchange, argument * 300);
      case 3:
        return pause(exchange, argument);
      case 4:
        readBody(exchange, body, argument * 3);
        return http_serverTemporizeRequest(exchange->request);
      case 5:
        return drop(exchange, argument > 7);
      case 6:
        if (argument > 7) finish(exchange);
        peer_destroy(exchange->peer);
        return 0;
      case 7:
        stop();
        return readBody(exchange, body, SIZE_MAX);
      case 8:
        // The rest of it would pass for a request.
        if (http_requestState(exchange->request) == HTTP_MSG_BODY) over.insert(memory_socketOf(exchange->peer));
        fclose(body);
        return replyIfComplete(exchange);
      case 9:
        if (!exchange->replied) finish(exchange);
        return readBody(exchange, body, SIZE_MAX);
      case 10:
        http_requestBodyDiscard(exchange->request);
        return replyIfComplete(exchange);
      case 11:
        if (!exchange->replied) sendDescriptor(exchange, argument);
        return readBody(exchange, body, SIZE_MAX);
      case 12:
        if (fread(&exchange->pieces, 0, 0, body) == 0 && getc(body) != EOF) fseek(body, -1, SEEK_CUR);
        return readBody(exchange, body, SIZE_MAX);
      default:
        return readBody(exchange, body, SIZE_MAX);
    }
  }

  // --- parts ---

  static Exchange* exchangeOfPart(HttpRequest* part) {
    auto* const reader = static_cast<HttpMultipart*>(http_requestUserData(part));
    for (Exchange& exchange : current->exchanges_)
      if (&exchange.reader == reader) return &exchange;
    abort();
  }
  int beginMultipart(Exchange* exchange) {
    if (http_requestState(exchange->request) != HTTP_MSG_BODY) return replyIfComplete(exchange);
    exchange->hasReader =
        http_msgMultipartInitialize(&exchange->reader, &exchange->request->message, handlePart, handlePartBody) == 0;
    if (!exchange->hasReader) finish(exchange);
    return 0;
  }
  static int handlePart(HttpRequest*) { return current->nextAction() == 0xff ? -1 : 0; }
  static int handlePartBody(HttpRequest* part, FILE* body) {
    Exchange* const exchange = exchangeOfPart(part);
    const unsigned action = current->nextAction();
    const unsigned argument = action >> 4;
    char block[300];
    switch (action % 8) {
      case 0:
        return fread(block, 1, argument + 1, body), 0;
      case 1:
        return 0;
      case 2:
        exchange->paused = http_msgMultipartPause(&exchange->reader) == 0;
        current->startTimer(exchange, argument * 100);
        return 0;
      case 3:
        fclose(body);
        return 0;
      case 4:
        if (argument > 12) return -1;
        if (argument == 12) peer_destroy(exchange->peer);
        if (argument == 11) {
          exchange->hasReader = false;
          http_msgMultipartCleanup(&exchange->reader);
        }
        return 0;
      default:
        while (fread(block, 1, sizeof block, body) == sizeof block) {
        }
        return 0;
    }
  }

  FuzzScript actions_;
  std::list<Exchange> exchanges_;
  http_auth_cookie sessions_ = {};
};

Application* Application::current = nullptr;

// A client: how much of its text it has sent.
struct Client {
  std::shared_ptr<MemorySocket> socket;
  size_t sent = 0;
};

class World {
 public:
  World(FuzzInput* input, unsigned flags, unsigned options) : flags_(flags) {
    static constexpr size_t kBuffers[] = {4096, 0, 1024, 64};
    memoryOptions.streamBuffer = kBuffers[options % 4];
    memoryOptions.sendfile = (flags & kSendfile) != 0;
    const std::string_view actions = input->bytes(48);
    events_ = input->bytes(96);
    text_ = input->rest();
    application_ = std::make_unique<Application>(actions, flags);
    connection_ = connection_create();
    listening_ = application_->server.peer = memory_listen(connection_);
    FUZZ_CHECK(http_serverStart(&application_->server) == 0);
  }

  void run() {
    connect();
    for (const char event : events_) happen(static_cast<unsigned char>(event));
    // Everything is sent, taken and answered.
    application_->winding = true;
    for (Client& client : clients_) {
      client.socket->take(SIZE_MAX);
      send(&client, SIZE_MAX);
    }
    settle();
    for (Client& client : clients_) client.socket->finish();
    settle();
    FUZZ_CHECK(application_->server.connectionCount == 0);
    application_->stop();
    settle();
    check();
  }

 private:
  void connect() {
    if (clients_.size() == 4 || application_->server.peer == nullptr) return;
    if (auto socket = memory_connectTo(listening_)) {
      socket->take(1500);
      clients_.push_back({socket, 0});
    }
  }
  void send(Client* client, size_t most) {
    const std::string_view bytes = text_.substr(client->sent, most);
    client->socket->send(bytes);
    client->sent += bytes.size();
  }
  void turn() { memory_turn(); }
  void settle() {
    for (size_t turns = 0; turns < kMostTurns; ++turns) {
      if (memory_turn()) continue;
      const int64_t next = memory_nextTimer();
      if (next > 0 && next < 1000) {
        memory_passTime(static_cast<unsigned>(next));
        continue;
      }
      if (application_->idle() || turns > kMostTurns - 100) break;
      application_->finishAll();
      if (!memory_turn()) memory_passTime(1000);
    }
    application_->finishAll();
    turn();
  }
  void happen(unsigned event) {
    const unsigned argument = event >> 4;
    Client* const client = clients_.empty() ? nullptr : &clients_[which_ % clients_.size()];
    switch (event % 16) {
      case 0:
      case 1:
        if (client != nullptr) send(client, argument + 1);
        break;
      case 2:
      case 3:
        if (client != nullptr) send(client, (argument + 1) * 40);
        break;
      case 4:
        if (client != nullptr) client->socket->take(argument * 200);
        break;
      case 5:
        memory_passTime(argument * 10);
        break;
      case 6:
        memory_passTime(1000);
        break;
      case 7:
        if (client != nullptr) client->socket->end(argument);
        break;
      case 8:
        which_ = argument;
        if (argument > 11) connect();
        break;
      case 9:
        application_->resumeAll();
        break;
      case 10:
        if (argument == 15) application_->stop();
        if (argument == 14) application_->destroyOne(which_);
        if (argument == 13) http_serverLimitsSet(&application_->server, nullptr);
        if (argument == 12 && (flags_ & kLimits) != 0)
          http_serverLimitsSet(&application_->server, &application_->limits);
        if (argument == 11) application_->finishAll();
        break;
      default:
        break;
    }
    turn();
  }
  void check() {
    FUZZ_CHECK(application_->stops == 1);
    FUZZ_CHECK(application_->server.connectionCount == 0 && application_->server.peer == nullptr);
    FUZZ_CHECK(application_->idle());
    for (const Client& client : clients_) {
      FUZZ_CHECK(client.socket->closed);
      const std::vector<bool>& requests = application_->requests[client.socket.get()];
      showWire("received", client.socket->received);
      const WireReplies replies = readReplies(client.socket->received, requests);
      // One that was refused before it became a request has a reply, too.
      FUZZ_CHECK(replies.finals <= requests.size() + 1);
      FUZZ_CHECK(!replies.behindLast);
    }
    application_.reset();
    connection_destroy(connection_);
    FUZZ_CHECK(memory_livePeers() == 0);
    FUZZ_CHECK(memory_liveTimers() == 0);
  }

  unsigned flags_;
  std::string_view events_;
  std::string_view text_;
  std::unique_ptr<Application> application_;
  ZelConnection* connection_;
  ZelPeer* listening_;
  std::vector<Client> clients_;
  unsigned which_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput input(data, size);
  const unsigned flags = input.byte();
  traceIf((flags & kTraces) == kTraces && size <= kMostTraced);
  World(&input, flags, input.byte()).run();
  return 0;
}
