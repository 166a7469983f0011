// Whole connections of a client: what the server sends, and when it takes what is sent to it, and what the application
// does in each of its handlers, all said by the input. Nothing may be left in the end.
//
// Input: a byte of flags, a byte of options, the application's actions, the events, what the server sends.
#include <krohttp/krohttp.h>

#include <cstring>
#include <memory>
#include <vector>

#include "fuzz_input.h"
#include "fuzz_replies.h"
#include "fuzz_support.h"
#include "memory_platform.h"

namespace {

enum Flag { kEarly = 1, kStrict = 2, kTraces = 0xc0, kNoDrained = 8, kNoBodyHandler = 16, kRefused = 32 };

class Application {
 public:
  Application(std::string_view actions, unsigned flags) : actions_(actions), flags_(flags) {
    FUZZ_CHECK(current == nullptr);
    current = this;
    connection_ = connection_create();
    client_ = static_cast<HttpClient*>(calloc(1, sizeof *client_));
    client_->replyHeaderHandler = handleHead;
    if ((flags & kNoBodyHandler) == 0) client_->bodyHandler = handleBody;
    client_->replyDoneHandler = handleDone;
    client_->readyHandler = [](HttpReply*, HttpRequest*) { current->ready(); };
    client_->errorHandler = [](HttpReply*, HttpRequest*) { current->failed(); };
    client_->closedHandler = [](HttpClient*) { current->closed(); };
    if ((flags & kNoDrained) == 0)
      client_->requestDrainedHandler = [](HttpReply*, HttpRequest*) { current->drained(); };
    client_->takesEarlyReply = (flags & kEarly) != 0;
  }
  ~Application() {
    stop();
    destroyMessages();
    free(client_);
    connection_destroy(connection_);
    current = nullptr;
  }

  void start() {
    stage_ = kNone;
    ++connections_;
    ZelPeer* const peer = connection_connectToTCP(connection_, "host", "80", 0);
    FUZZ_CHECK(http_clientStart(client_, peer) == 0);
    connected_ = true;
    request();
  }
  void resume() {
    if (connected_) http_clientResume(client_);
  }
  void stop() {
    if (client_ == nullptr) return;
    connected_ = false;
    body_ = nullptr;
    http_clientStop(client_);
  }
  void writeMore() {
    if (connected_ && body_ != nullptr) drained();
  }
  void destroyMessages() {
    body_ = nullptr;
    http_requestDestroy(request_);
    http_replyDestroy(reply_);
    request_ = nullptr;
    reply_ = nullptr;
  }
  bool isConnected() const { return connected_; }

  bool winding = false;  // takes everything, and writes all of its bodies, from now on
  size_t requests = 0;   // that have been begun
  std::vector<bool> heads;

 private:
  static constexpr size_t kMostRequests = 8;
  enum Stage { kNone, kSending, kHead, kBody, kDone };
  static Application* current;

  unsigned nextAction() { return winding ? 15 : actions_.next(); }

  // --- requests ---

  void request() {
    if (!connected_ || requests >= kMostRequests) return;
    if (request_ == nullptr) request_ = http_requestCreate();
    if (reply_ == nullptr) reply_ = http_replyCreate();
    const unsigned action = nextAction();
    stage_ = kSending;
    FUZZ_CHECK(http_clientRequest(client_, request_, reply_));
    reply_->message.strict = (flags_ & kStrict) != 0;
    ++requests;
    http_requestVersionSet(request_, 1, 1);
    static constexpr int kMethods[] = {HTTP_METHOD_GET, HTTP_METHOD_HEAD, HTTP_METHOD_POST, HTTP_METHOD_PUT};
    const int method = kMethods[action % 4];
    heads.push_back(method == HTTP_METHOD_HEAD);
    FUZZ_CHECK(http_requestMethodSet(request_, method, "/path%20x?q=1") == 0);
    FUZZ_CHECK(http_requestHeaderValueSet(request_, "Host", "%s", "host") == 0);
    const bool chunked = (action & 4) != 0;
    const bool hasBody = method == HTTP_METHOD_POST || method == HTTP_METHOD_PUT;
    left_ = hasBody ? (action >> 3) * 41 : 0;
    if (hasBody && chunked)
      http_requestHeaderValueSet(request_, "Transfer-Encoding", "chunked");
    else if (hasBody)
      http_requestHeaderValueSet(request_, "Content-Length", "%zu", left_);
    if (http_requestSend(request_) < 0) return;  // the server may have gone by now
    body_ = hasBody ? http_requestBody(request_) : nullptr;
    if (body_ == nullptr)
      http_requestDone(request_);
    else
      drained();
  }
  // Writes some of the body, and ends it when that was all.
  void drained() {
    if (body_ == nullptr || client_->state != HTTP_CLIENT_SENDING_REQUEST) return;
    if (act(nextAction())) return;
    const size_t count = winding ? left_ : std::min<size_t>(left_, 300);
    const std::string piece(count, 'b');
    if (fwrite(piece.data(), 1, count, body_) != count) return;
    left_ -= count;
    if (left_ > 0) {
      fflush(body_);
      return;
    }
    FILE* const body = body_;
    body_ = nullptr;
    fclose(body);
    http_requestDone(request_);
    if (peer_bytesQueued(client_->peer) == 0) http_clientRequestSent(client_);
  }

  // --- handlers ---

  // @return whether the exchange is over for the application
  bool act(unsigned action) {
    switch (action) {
      case 0x10:
        http_clientPause(client_);
        return false;
      case 0x20:
        stop();
        return true;
      case 0x30:
        peer_destroy(client_->peer);
        return true;
      case 0x40:
        destroyMessages();
        return true;
      case 0x50:
        stop();
        destroyMessages();
        free(client_);
        client_ = nullptr;
        return true;
      case 0x60:
        http_requestDestroy(request_);
        request_ = nullptr;
        body_ = nullptr;
        return true;
      case 0x70:
        http_replyDestroy(reply_);
        reply_ = nullptr;
        return true;
      case 0x80:
        http_clientPause(client_);
        http_clientResume(client_);
        return false;
      default:
        return false;
    }
  }
  static int handleHead(HttpReply* reply, HttpRequest* request) {
    Application* const application = current;
    FUZZ_CHECK(application->connected_ && application->stage_ == kSending);
    FUZZ_CHECK(reply == application->reply_ && request == application->request_);
    application->stage_ = kHead;
    const unsigned status = http_replyStatusCode(reply);
    FUZZ_CHECK(status < 100 || status >= 200 || status == 101);
    if (application->client_->state != HTTP_CLIENT_SENDING_REQUEST) application->body_ = nullptr;
    const unsigned action = application->nextAction();
    if (action == 0xf0) return -1;
    return application->act(action) && action == 0x30 ? -1 : 0;
  }
  static int handleBody(HttpReply* reply, HttpRequest* request, FILE* body) {
    Application* const application = current;
    FUZZ_CHECK(application->connected_ && (application->stage_ == kHead || application->stage_ == kBody));
    FUZZ_CHECK(reply == application->reply_ && request == application->request_);
    application->stage_ = kBody;
    const unsigned action = application->nextAction();
    if (action == 0xf0) return -1;
    if (action == 0x90) return 0;
    if (action == 0xa0) return fclose(body), 0;
    if (application->act(action)) return 0;
    char block[300];
    const size_t wanted = action < 16 ? action + 1 : sizeof block;
    while (fread(block, 1, wanted, body) == wanted && wanted == sizeof block) {
    }
    return 0;
  }
  static void handleDone(HttpReply* reply, HttpRequest* request) {
    Application* const application = current;
    FUZZ_CHECK(application->connected_);
    FUZZ_CHECK(application->stage_ == kHead || application->stage_ == kBody);
    FUZZ_CHECK(reply == application->reply_ && request == application->request_);
    FUZZ_CHECK(http_replyState(reply) == HTTP_MSG_DONE);
    application->stage_ = kDone;
    application->body_ = nullptr;
    application->act(application->nextAction());
  }
  void ready() {
    FUZZ_CHECK(connected_ && stage_ == kDone);
    const unsigned action = nextAction();
    if (!act(action) && action % 4 != 1) request();
  }
  void failed() {
    FUZZ_CHECK(connected_ && stage_ == kSending);
    body_ = nullptr;
    act(nextAction());
  }
  void closed() {
    FUZZ_CHECK(connected_ && client_->peer == nullptr);
    connected_ = false;
    body_ = nullptr;
    FUZZ_CHECK(request_ == nullptr || (request_->message.peer == nullptr && request_->message.body == nullptr));
    FUZZ_CHECK(reply_ == nullptr || (reply_->message.peer == nullptr && reply_->message.body == nullptr));
    const unsigned action = nextAction();
    if (action == 0x40) destroyMessages();
    if (action == 0x50) {
      free(client_);
      client_ = nullptr;
    }
    // A connection without a request would not see its end.
    if (action == 0xb0 && connections_ < 3 && requests < kMostRequests) {
      // Messages of an exchange that was cut are used again as they are told to be: reset.
      destroyMessages();
      start();
    }
  }

  FuzzScript actions_;
  unsigned flags_;
  ZelConnection* connection_;
  HttpClient* client_;
  HttpRequest* request_ = nullptr;
  HttpReply* reply_ = nullptr;
  FILE* body_ = nullptr;
  size_t left_ = 0;
  Stage stage_ = kNone;
  bool connected_ = false;
  int connections_ = 0;
};

Application* Application::current = nullptr;

class World {
 public:
  World(FuzzInput* input, unsigned flags, unsigned options) {
    static constexpr size_t kBuffers[] = {4096, 0, 1024, 64};
    memoryOptions.streamBuffer = kBuffers[options % 4];
    memoryOptions.sendfile = false;
    memory_refuseConnecting(false);
    const std::string_view actions = input->bytes(48);
    events_ = input->bytes(96);
    text_ = input->rest();
    application_ = std::make_unique<Application>(actions, flags);
    application_->start();
    server_ = memory_takeConnecting().back();
    server_->refused = (flags & kRefused) != 0;
    server_->take((options >> 2) * 20);
  }
  void run() {
    for (const char event : events_) happen(static_cast<unsigned char>(event));
    application_->winding = true;
    accept();
    server_->take(SIZE_MAX);
    send(SIZE_MAX);
    settle();
    for (int connections = 0; connections < 3; ++connections) {
      server_->finish();
      settle();
    }
    FUZZ_CHECK(!application_->isConnected());
    application_->stop();
    settle();
    showWire("sent", server_->received);
    FUZZ_CHECK(server_->closed);
    constexpr std::string_view kBegin = " /path%20x?q=1 HTTP/1.1\r\nHost: host\r\n";
    const std::string_view begin = std::string_view(server_->received).substr(server_->received.find_first_of(' ') + 1);
    const size_t compared = std::min(begin.size(), kBegin.size() - 1);
    FUZZ_CHECK(server_->received.size() < 5 || begin.substr(0, compared) == kBegin.substr(1, compared));
    application_.reset();
    FUZZ_CHECK(memory_livePeers() == 0);
    FUZZ_CHECK(memory_liveTimers() == 0);
  }

 private:
  void accept() { server_->accepted = true; }
  void send(size_t most) {
    const std::string_view bytes = text_.substr(sent_, most);
    server_->send(bytes);
    sent_ += bytes.size();
  }
  // Connections that were begun again get the rest.
  void follow() {
    auto connecting = memory_takeConnecting();
    if (connecting.empty()) return;
    server_ = connecting.back();
    server_->accepted = true;
    server_->take(SIZE_MAX);
  }
  void settle() {
    for (int turns = 0; turns < 300; ++turns) {
      const bool worked = memory_turn();
      follow();
      application_->resume();
      application_->writeMore();
      const int64_t next = memory_nextTimer();
      if (next > 0) memory_passTime(static_cast<unsigned>(next));
      if (!worked && next < 0) break;
    }
  }
  void happen(unsigned event) {
    const unsigned argument = event >> 4;
    switch (event % 16) {
      case 0:
      case 1:
        send(argument + 1);
        break;
      case 2:
      case 3:
        send((argument + 1) * 40);
        break;
      case 4:
        server_->take(argument * 100);
        break;
      case 5:
        memory_passTime(argument * 5);
        break;
      case 6:
        application_->resume();
        break;
      case 7:
        accept();
        break;
      case 8:
        server_->end(argument);
        break;
      case 9:
        application_->writeMore();
        break;
      case 10:
        if (argument == 15) application_->stop();
        break;
      default:
        break;
    }
    memory_turn();
    follow();
  }

  std::string_view events_;
  std::string_view text_;
  std::unique_ptr<Application> application_;
  std::shared_ptr<MemorySocket> server_;
  size_t sent_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput input(data, size);
  const unsigned flags = input.byte();
  traceIf((flags & kTraces) == kTraces && size <= kMostTraced);
  World(&input, flags, input.byte()).run();
  return 0;
}
