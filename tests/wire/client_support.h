// What the tests of the client share: an application that makes requests of a WireTarget.
#pragma once

#include <gtest/gtest.h>
#include <krohttp/krohttp.h>
#include <zel/connection.h>
#include <zel/peer.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/trace_capture.h"
#include "support/wire_target.h"

// A client with its request and its reply. Each of the three is allocated by itself, and a test may free any of them at
// any time.
class Party {
 public:
  using Handler = std::function<void()>;

  // Every call of a handler: "header 200", "body hello", "done", "ready", "error", "drained", "closed". Calls of the
  // body handler that follow each other are one, with what they read together; "... cut" when the body ended too early.
  std::vector<std::string> calls;
  size_t bodyCalls = 0;
  std::string body;  // of the last reply

  // What the handlers do besides. One that is not set does nothing; that of the body reads all there is.
  std::function<int()> onHeader;
  std::function<int(FILE*)> onBody;
  Handler onDone;
  Handler onReady;
  Handler onError;
  Handler onDrained;
  Handler onClosed;

  HttpClient* client;
  HttpRequest* request = http_requestCreate();
  HttpReply* reply = http_replyCreate();

  Party() : client(&(new Owned{{}, this})->http) {
    http_requestUserDataSet(request, this);
    http_replyUserDataSet(reply, this);
    client->replyHeaderHandler = handleHeader;
    client->bodyHandler = handleBody;
    client->replyDoneHandler = handleDone;
    client->errorHandler = handleError;
    client->readyHandler = handleReady;
    client->closedHandler = handleClosed;
  }
  ~Party() {
    freeClient();
    freeMessages();
  }
  Party(const Party&) = delete;
  Party& operator=(const Party&) = delete;

  static void handleDrained(HttpReply* reply_, HttpRequest*) {
    Party* const party = of(reply_);
    party->calls.emplace_back("drained");
    run(party->onDrained);
  }

  void stop() { http_clientStop(client); }
  void freeRequest() { http_requestDestroy(std::exchange(request, nullptr)); }
  void freeReply() { http_replyDestroy(std::exchange(reply, nullptr)); }
  void freeMessages() {
    freeRequest();
    freeReply();
  }
  // Stops the client and frees it.
  void freeClient() {
    if (client == nullptr) return;
    stop();
    delete reinterpret_cast<Owned*>(std::exchange(client, nullptr));
  }

  int start(ZelPeer* peer) { return http_clientStart(client, peer); }
  ZelPeer* peer() const { return client->peer; }
  HttpClientState state() const { return client->state; }
  std::string stateName() const { return clientStateStrings[client->state]; }
  HttpClientConnection* context() const { return static_cast<HttpClientConnection*>(peer_userData(client->peer)); }

  // A request line and a Host, and the exchange begun.
  bool begin(int method = HTTP_METHOD_GET, const char* uri = "/") {
    http_requestVersionSet(request, 1, 1);
    EXPECT_EQ(http_requestMethodSet(request, method, uri), 0);
    EXPECT_EQ(http_requestHeaderValueSet(request, "Host", "x"), 0);
    return http_clientRequest(client, request, reply);
  }
  // A complete request without a body.
  void ask(int method = HTTP_METHOD_GET, const char* uri = "/") {
    ASSERT_TRUE(begin(method, uri));
    ASSERT_EQ(http_requestSend(request), 0);
    ASSERT_EQ(http_requestDone(request), 0);
  }
  // A complete request with a body.
  void post(std::string_view content, const char* uri = "/") {
    ASSERT_TRUE(begin(HTTP_METHOD_POST, uri));
    ASSERT_EQ(http_requestHeaderValueSet(request, "Content-Length", "%zu", content.size()), 0);
    ASSERT_EQ(http_requestSend(request), 0);
    if (!content.empty()) {
      write(content);
      ASSERT_EQ(fclose(http_requestBody(request)), 0);
    }
    ASSERT_EQ(http_requestDone(request), 0);
  }
  void write(std::string_view content) {
    FILE* const stream = http_requestBody(request);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(fwrite(content.data(), 1, content.size(), stream), content.size());
    EXPECT_EQ(fflush(stream), 0);
  }

  size_t count(std::string_view call) const {
    return static_cast<size_t>(std::count(calls.begin(), calls.end(), call));
  }
  bool has(std::string_view call) const { return count(call) > 0; }
  // All calls, joined with "; ".
  std::string said() const {
    std::string said;
    for (const std::string& call : calls) said += (said.empty() ? "" : "; ") + call;
    return said;
  }

 private:
  struct Owned {
    HttpClient http;  // first: closedHandler gets this
    Party* party;
  };

  static Party* of(HttpReply* reply) {
    static Party* last = nullptr;
    EXPECT_NE(reply, nullptr) << "a handler was called for a reply that has been destroyed";
    return last = reply == nullptr ? last : static_cast<Party*>(http_replyUserData(reply));
  }
  // The handler may change itself.
  static void run(Handler handler) {
    if (handler) handler();
  }
  void sayBody(const std::string& text) {
    constexpr std::string_view kBody = "body ";
    if (calls.empty() || calls.back().compare(0, kBody.size(), kBody) != 0) calls.emplace_back(kBody);
    calls.back() += text;
  }

  static int handleHeader(HttpReply* reply_, HttpRequest* request_) {
    Party* const party = of(reply_);
    EXPECT_EQ(reply_, party->reply);
    EXPECT_EQ(request_, party->request);
    party->calls.push_back("header " + std::to_string(http_replyStatusCode(reply_)));
    party->body.clear();
    const auto handler = party->onHeader;
    return handler ? handler() : 0;
  }
  static int handleBody(HttpReply* reply_, HttpRequest* request_, FILE* stream) {
    Party* const party = of(reply_);
    EXPECT_EQ(reply_, party->reply);
    EXPECT_EQ(request_, party->request);
    EXPECT_EQ(stream, http_replyBody(reply_));
    ++party->bodyCalls;
    if (const auto handler = party->onBody) {
      party->sayBody("");
      return handler(stream);
    }
    const std::string text = readBody(stream);
    party->body += text;
    party->sayBody(text);
    return 0;
  }
  static void handleDone(HttpReply* reply_, HttpRequest* request_) {
    Party* const party = of(reply_);
    EXPECT_EQ(request_, party->request);
    party->calls.emplace_back(reply_->message.bodyCut ? "done cut" : "done");
    run(party->onDone);
  }
  static void handleReady(HttpReply* reply_, HttpRequest* request_) {
    Party* const party = of(reply_);
    EXPECT_EQ(request_, party->request);
    party->calls.emplace_back("ready");
    run(party->onReady);
  }
  static void handleError(HttpReply* reply_, HttpRequest* request_) {
    Party* const party = of(reply_);
    EXPECT_EQ(request_, party->request);
    party->calls.emplace_back("error");
    run(party->onError);
  }
  static void handleClosed(HttpClient* client_) {
    Party* const party = reinterpret_cast<Owned*>(client_)->party;
    EXPECT_EQ(client_, party->client);
    party->calls.emplace_back("closed");
    run(party->onClosed);
  }
};

class ClientTest : public WireTargetTest {
 protected:
  // A peer on its way to the target.
  ZelPeer* connectTo(const WireAddress& address) {
    if (!address.path.empty()) return connection_connectToIPC(connection(), address.path.c_str());
    return connection_connectToTCP(connection(), address.host.c_str(), std::to_string(address.port).c_str(), 0);
  }
  void startOn(Party& party, const WireTarget& target) {
    ZelPeer* const peer = connectTo(target.address());
    ASSERT_NE(peer, nullptr);
    ASSERT_EQ(party.start(peer), 0);
  }
};

// The lines of the client's zone, without the zone; descriptors stand as #.
inline TraceLines clientLines(const TraceCapture& trace) {
  constexpr std::string_view kZone = "http-cl";
  constexpr std::string_view kReadable = "[i]connection available for read (socket ";
  TraceLines lines;
  for (const std::string& line : trace.said()) {
    if (line.compare(0, kZone.size(), kZone) != 0) continue;
    lines.push_back(line.substr(kZone.size()));
    if (lines.back().compare(0, kReadable.size(), kReadable) == 0) lines.back() = std::string(kReadable) + "# #)";
  }
  return lines;
}
inline TraceLines joinedLines(std::initializer_list<TraceLines> parts) {
  TraceLines lines;
  for (const TraceLines& part : parts) lines.insert(lines.end(), part.begin(), part.end());
  return lines;
}
inline std::string clientSwitched(std::string_view from, std::string_view to) {
  return "[i]switch client state from " + std::string(from) + " to " + std::string(to);
}
inline std::string clientWrong(std::string_view is, std::string_view shouldBe) {
  return "[x]wrong client state: " + std::string(is) + ", should be " + std::string(shouldBe);
}

// The steps of an exchange.

inline TraceLines exchangeBegun() { return {"[i]making connection", clientSwitched("INIT", "SENDING_REQUEST")}; }
inline TraceLines requestLeft() {
  return {"[i]data written", "[i]rq state: 3", "[i]request sent", clientSwitched("SENDING_REQUEST", "REQUEST_SENT")};
}
inline TraceLines readable() { return {"[i]connection available for read (socket # #)"}; }
// A whole head of so many header lines, in one read event.
inline TraceLines replyHead(int headers) {
  TraceLines lines = {readable()[0], clientSwitched("REQUEST_SENT", "RECEIVING_REPLY")};
  lines.insert(lines.end(), static_cast<size_t>(headers) + 1, "[i]reading enveloppe");
  return lines;
}
inline TraceLines bodyHandled(int state) {
  return {"[i]should handle body", "[i]handled body state is now " + std::to_string(state)};
}
inline TraceLines bodyEnded() { return {clientSwitched("RECEIVING_REPLY", "REPLY_RECEIVED")}; }
inline TraceLines replyFinished(std::string_view from) {
  return {clientSwitched(from, "REPLY_RECEIVED"), "[i]finished processing message", "[i]calling reply done handler",
          clientSwitched("REPLY_RECEIVED", "INIT"), "[i]calling ready handler"};
}

// Replies.

inline std::string replyWith(std::string_view statusLine, std::string_view headers, std::string_view body = "") {
  return "HTTP/1.1 " + std::string(statusLine) + "\r\n" + std::string(headers) + "\r\n" + std::string(body);
}
inline std::string closeDelimited(std::string_view body) { return replyWith("200 OK", "Server: t\r\n", body); }
inline std::string chunkedReply(std::string_view body, size_t chunk = SIZE_MAX) {
  return replyWith("200 OK", "Transfer-Encoding: chunked\r\n", chunked(body, chunk));
}
inline std::string multipartReply(std::string_view body) {
  return replyWith(
      "200 OK", "Content-Type: multipart/mixed; boundary=b\r\nContent-Length: " + std::to_string(body.size()) + "\r\n",
      body);
}
inline std::string emptyReply() { return replyWith("200 OK", "Content-Length: 0\r\n"); }
