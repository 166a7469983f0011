#include "fault/scenarios.h"

#include <fcntl.h>
#include <krohttp/krohttp.h>
#include <unistd.h>
#include <zel/connection.h>
#include <zel/timer.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <utility>

#include "support/wire_server.h"

namespace {

// Handlers take no memory of C++: it ends the program when there is none.

// The text of what is being received, or is to be sent.
struct Text {
  size_t length = 0;
  std::array<char, 1 << 16> bytes;

  size_t room() const { return bytes.size() - length; }
  void append(std::string_view more) { length += more.copy(bytes.data() + length, room()); }
  // @return whether that was all that can be read now
  bool readFrom(FILE* stream) {
    const size_t wanted = std::min<size_t>(4096, room());
    const size_t count = fread(bytes.data() + length, 1, wanted, stream);
    length += count;
    return count < wanted || wanted == 0;
  }
  std::string_view view() const { return {bytes.data(), length}; }
};

struct Site {
  ZelConnection* connection = nullptr;
  HttpServer server = {};
  HttpServer back = {};  // behind the proxy
  HttpServerLimits limits = {};
  http_auth_cookie sessions = {};
  WireAddress address;
  std::string target;  // path of the back's socket, or its port
  std::string root;
  Text body;
  Text backBody;
};

std::unique_ptr<Site> site;

const TemporaryFolder& folder() {
  static const auto* const made = [] {
    static TemporaryFolder files;
    files.file("style.css", pattern(30000));
    files.file("large.bin", pattern(120000));
    files.file("packed.js", pattern(5000));
    files.file("packed.js.gz", pattern(2000));
    files.file("index.html", "<p>index</p>\n");
    return &files;
  }();
  return *made;
}

void makeSite() {
  folder();
  site = std::make_unique<Site>();
  site->connection = connection_create();
}

void listen(HttpServer* server) {
  server->peer = connection_listenOnTCP(site->connection, "127.0.0.1", "0");
  site->address = WireAddress::tcp(peer_localPort(server->peer));
  http_serverStart(server);
}

// --- visits ----------------------------------------------------------------------------------------------------------

bool isAlone() { return site->server.connectionCount == 0 && site->back.connectionCount == 0; }

// What a client sends next, made of what it has received so far; "" when it cannot go on. What it finds there that may
// not be it notes.
struct Step {
  std::function<std::string(const std::string& received, std::string* offence)> request;
  size_t replies = 1;
};

size_t countWhole(const std::string& wire) {
  const std::vector<Piece> pieces = piecesOf(wire);
  return static_cast<size_t>(
      std::count_if(pieces.begin(), pieces.end(), [](const Piece& piece) { return piece.whole; }));
}

Visit browse(const std::vector<Step>& steps, WireClient::Options options = {}) {
  WireClient client(site->address, options);
  Visit visit;
  size_t wanted = 0;
  for (const Step& step : steps) {
    const std::string request = step.request(client.received(), &visit.offence);
    visit.stopped = request.empty();
    if (visit.stopped) break;
    client.send(request);
    wanted += step.replies;
    visit.hung = !until([&] { return client.ended() || countWhole(client.received()) >= wanted; });
    if (visit.hung || client.ended()) break;
  }
  visit.pieces = piecesOf(client.received());
  visit.ended = client.ended();
  client.leave();
  visit.held = !until(isAlone);
  return visit;
}

// Each request on a connection of its own.
Visit browseAnew(const std::vector<std::string>& requests) {
  Visit all;
  for (const std::string& request : requests) {
    Visit visit = browse({{[&](const std::string&, std::string*) { return request; }}});
    const bool whole = visit.pieces.size() == 1 && visit.pieces[0].whole;
    visit.pieces.insert(visit.pieces.begin(), all.pieces.begin(), all.pieces.end());
    all = std::move(visit);
    if (!whole) break;
  }
  return all;
}

Step step(std::string request, size_t replies = 1) {
  return {[request = std::move(request)](const std::string&, std::string*) { return request; }, replies};
}

std::string get(const std::string& path, const std::string& headers = "") {
  return "GET " + path + " HTTP/1.1\r\nHost: x\r\n" + headers + "\r\n";
}

std::string post(const std::string& path, std::string_view body, const std::string& headers = "") {
  return "POST " + path + " HTTP/1.1\r\nHost: x\r\n" + headers + "Content-Length: " + std::to_string(body.size()) +
         "\r\n\r\n" + std::string(body);
}

std::string postChunked(const std::string& path, std::string_view body, size_t chunk) {
  return "POST " + path + " HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n" + chunked(body, chunk);
}

// A canned page as Piece::text.
std::string page(unsigned status, const std::string& reason) {
  return piecesOf(cannedReply(status, reason)).at(0).text;
}

// --- short replies ---------------------------------------------------------------------------------------------------

int answerShortly(HttpRequest* request, HttpReply* reply) {
  const std::string_view path = http_requestPath(request);
  if (path == "/text") return replyText(reply, 200, "hello");
  if (path == "/page") return http_replyWithDefaultAndBody(reply, 200, "<p>%s</p>", "page");
  if (path == "/moved") return http_replyWithRedirect(reply, 302, "%s", "/there");
  return http_replyWithDefault(reply, 404);
}

void openShort() {
  makeSite();
  site->server.requestHandler = answerShortly;
  listen(&site->server);
}

Visit visitKept() { return browse({step(get("/text")), step(get("/page")), step(get("/moved")), step(get("/none"))}); }

Visit visitPipelined() { return browse({step(get("/text") + get("/page"), 2), step(get("/text") + get("/text"), 2)}); }

// --- limits ----------------------------------------------------------------------------------------------------------

void openLimited() {
  makeSite();
  http_serverLimitsInitialize(&site->limits);
  site->server.requestHandler = answerShortly;
  http_serverLimitsSet(&site->server, &site->limits);
  listen(&site->server);
}

Visit visitLimited() {
  return browse({step(get("/text")), step(get("/page")), step("GET /text HTTP/1.1\r\nHost : x\r\n\r\n")});
}

// One more than may come at once.
Visit visitCrowded() {
  site->limits.connections = 1;
  WireClient first(site->address);
  first.send(get("/text"));
  Visit visit;
  visit.hung = !until([&] { return first.ended() || countWhole(first.received()) == 1; });
  WireClient second(site->address);
  second.send(get("/text"));
  visit.hung |= !until([&] { return second.ended() || countWhole(second.received()) == 1; });
  visit.pieces = piecesOf(second.received());
  visit.ended = second.ended();
  first.leave();
  second.leave();
  visit.held = !until(isAlone);
  return visit;
}

// --- files -----------------------------------------------------------------------------------------------------------

// As the socket's own, but for zero-copy sending.
const ZelTransport kCopying = {
    [](ZelPeer* peer, void* buffer, size_t size) {
      return TEMP_FAILURE_RETRY(recv(peer_socket(peer), buffer, size, MSG_DONTWAIT));
    },
    [](ZelPeer* peer, const void* buffer, size_t size) {
      return TEMP_FAILURE_RETRY(send(peer_socket(peer), buffer, size, MSG_DONTWAIT | MSG_NOSIGNAL));
    },
    [](ZelPeer* peer, void* buffer, size_t size) {
      return TEMP_FAILURE_RETRY(recv(peer_socket(peer), buffer, size, MSG_DONTWAIT | MSG_PEEK));
    },
    0};

int sendCopied(HttpRequest* request, HttpReply* reply) {
  peer_setTransport(http_requestPeer(request), &kCopying);
  return http_serverRequestSendFile(request, reply, site->root.c_str());
}

// With so many more bytes in its head.
int pad(HttpRequest* request, HttpReply* reply) {
  const char* const width = http_requestHeaderValue(request, "X-Pad");
  return width != nullptr ? http_replyHeaderValueSet(reply, "X-Pad", "%0*d", atoi(width), 0) : 0;
}

int sendFile(HttpRequest* request, HttpReply* reply) {
  const std::string_view path = http_requestPath(request);
  if (pad(request, reply) < 0) return -1;
  if (path != "/named") return http_serverRequestSendFile(request, reply, site->root.c_str());
  if (http_replyStatusCodeSet(reply, 200, nullptr) < 0) return -1;
  return http_serverSendFile(reply, site->target.c_str());
}

void openFiles() {
  makeSite();
  site->root = folder().path() + "/";
  site->target = folder().at("index.html");
  site->server.requestHandler = sendFile;
  listen(&site->server);
}

void openCopied() {
  openFiles();
  site->server.requestHandler = sendCopied;
}

Visit visitCopied() { return browse({step(get("/style.css")), step(get("/packed.js"))}); }

// A reader that does not take all of it at once.
Visit visitSlowly() { return browse({step(get("/large.bin"))}, {.receiveBuffer = 4096}); }

Visit visitFiles() {
  return browse({step(get("/style.css")), step(get("/packed.js")), step(get("/")), step(get("/named"))});
}

// With each of these widths another header is the one that needs more memory. The padding is left out of what is seen.
Visit visitPadded() {
  std::vector<std::string> requests;
  for (const int width : {410, 438, 466})
    requests.push_back(get("/packed.js", "X-Pad: " + std::to_string(width) + "\r\n"));
  Visit visit = browseAnew(requests);
  for (Piece& piece : visit.pieces)
    if (const size_t at = piece.text.find("X-Pad: "); at != std::string::npos)
      piece.text.erase(at, piece.text.find('\n', at) + 1 - at);
  return visit;
}

// A file that cannot be looked at is sent as what is no file, until the connection ends, and one whose packed variant
// cannot be found as it is.
std::vector<std::string> insteadOfFiles() {
  constexpr const char* kScript = "Content-Type: application/javascript; charset=utf-8\r\n";
  const std::string ok = "HTTP/1.1 200 OK\r\n";
  const std::string close = "Connection: close\r\n\r\n";
  return {page(404, "Not Found"),
          page(400, "Bad Request"),
          ok + "Content-Type: text/css; charset=utf-8\r\n" + close + pattern(30000),
          ok + "Content-Encoding: gzip\r\n" + kScript + close + pattern(2000),
          ok + kScript + "Content-Length: 5000\r\n\r\n" + pattern(5000),
          ok + "Content-Type: text/html; charset=utf-8\r\n" + close + "<p>index</p>\n",
          ok + close + "<p>index</p>\n",
          ok + close + pattern(120000)};
}

int sendPipe(HttpRequest*, HttpReply* reply) {
  int ends[2];
  {
    const Spared spared;
    if (pipe2(ends, O_CLOEXEC) < 0) return -1;
    const std::string content = pattern(9000);
    const ssize_t written = write(ends[1], content.data(), content.size());
    close(ends[1]);
    if (written < static_cast<ssize_t>(content.size())) abort();
  }
  if (http_replyStatusCodeSet(reply, 200, nullptr) == 0) return http_serverSendFd(reply, ends[0]);
  close(ends[0]);
  return -1;
}

void openPipe() {
  makeSite();
  site->server.requestHandler = sendPipe;
  listen(&site->server);
}

Visit visitPipe() { return browse({step(get("/pipe"))}); }

// --- bodies ----------------------------------------------------------------------------------------------------------

int expectBody(HttpRequest* request, HttpReply* reply) {
  site->body.length = 0;
  return http_requestHasBody(request) ? http_serverContinue(request, reply) : replyText(reply, 200, "no body");
}

int echoBody(HttpRequest* request, HttpReply* reply, FILE* body) {
  while (!site->body.readFrom(body)) {
  }
  if (http_requestState(request) != HTTP_MSG_DONE) return 0;
  return request->message.bodyCut ? -1 : replyText(reply, 200, site->body.view());
}

void openUpload() {
  makeSite();
  site->server.requestHandler = expectBody;
  site->server.bodyHandler = echoBody;
  listen(&site->server);
}

Visit visitUpload() {
  return browse({step(post("/a", pattern(12000))), step(postChunked("/b", pattern(9000), 4000)),
                 step(post("/c", "small", "Expect: 100-continue\r\n"))});
}

void openRefusing() {
  openLimited();
  site->limits.bodyBytes = 1000;
  site->limits.requests = 2;
  site->server.requestHandler = expectBody;
  site->server.bodyHandler = echoBody;
}

// Refused before it is read, refused while it is read, and the last request that is taken.
Visit visitRefused() {
  Visit visit = browseAnew({post("/", pattern(2000)), postChunked("/", pattern(2000), 500)});
  if (visit.hung || visit.held || visit.pieces.size() < 2) return visit;
  Visit last = browse({step(get("/") + get("/") + get("/"), 3)});
  last.pieces.insert(last.pieces.begin(), visit.pieces.begin(), visit.pieces.end());
  return last;
}

// --- forms -----------------------------------------------------------------------------------------------------------

HttpMultipart form;

int onPart(HttpRequest* part) {
  const char* const disposition = http_requestHeaderValue(part, "Content-Disposition");
  site->body.append("[");
  site->body.append(disposition != nullptr ? disposition : "?");
  site->body.append("]");
  return 0;
}

int onPartBody(HttpRequest*, FILE* body) {
  while (!site->body.readFrom(body)) {
  }
  return 0;
}

int beginForm(HttpRequest* request, HttpReply* reply) {
  site->body.length = 0;
  if (http_msgMultipartInitialize(&form, &request->message, onPart, onPartBody) < 0) return -1;
  http_requestUserDataSet(request, &form);
  return http_serverContinue(request, reply);
}

int readForm(HttpRequest* request, HttpReply* reply, FILE*) {
  if (http_requestUserData(request) == nullptr || http_msgMultipartHandleRead(&form) < 0) return -1;
  if (form.state != HTTP_MULTIPART_DONE || http_requestState(request) != HTTP_MSG_DONE) return 0;
  return replyText(reply, 200, site->body.view());
}

void releaseForm(HttpReply*, HttpRequest* request) {
  if (http_requestUserData(request) == nullptr) return;
  http_requestUserDataSet(request, nullptr);
  http_msgMultipartCleanup(&form);
}

void openForms() {
  makeSite();
  site->server.requestHandler = beginForm;
  site->server.bodyHandler = readForm;
  site->server.replyDoneHandler = releaseForm;
  site->server.errorHandler = [](HttpRequest* request, HttpReply* reply) { releaseForm(reply, request); };
  listen(&site->server);
}

Visit visitForms() {
  const std::string content = pattern(9000);
  const std::string body = "--cut\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\n" + content +
                           "\r\n--cut\r\nContent-Disposition: form-data; name=\"b\"\r\n\r\nsmall\r\n--cut--\r\n";
  const std::string type = "Content-Type: multipart/form-data; boundary=cut\r\n";
  return browse({step(post("/a", body, type)), step("POST /b HTTP/1.1\r\nHost: x\r\n" + type +
                                                    "Transfer-Encoding: chunked\r\n\r\n" + chunked(body, 3000))});
}

// --- logins ----------------------------------------------------------------------------------------------------------

constexpr const char* kRealm = "fault";

int findHa1(const char* username, char** ha1, void*) {
  const bool known = username != nullptr && std::strcmp(username, "alice") == 0;
  *ha1 = known ? http_generateDigestHash("alice", kRealm, "wonderland") : nullptr;
  return *ha1 != nullptr ? 0 : -1;
}

int answerDigest(HttpRequest* request, HttpReply* reply) {
  if (http_requestAuthenticate(request, nullptr, findHa1, nullptr) == 0) return replyText(reply, 200, "welcome");
  return http_replyWithAuthDigestFailed(reply, kRealm, "auth");
}

void openDigest() {
  makeSite();
  site->server.requestHandler = answerDigest;
  listen(&site->server);
}

std::string hash(const std::string& a, const std::string& b, const std::string& c) {
  char* const digest = http_generateDigestHash(a.c_str(), b.c_str(), c.c_str());
  std::string text = digest;
  free(digest);
  return text;
}

std::string withDigest(const std::string& password) {
  HttpRequest* const request = http_requestCreate();
  http_requestVersionSet(request, 1, 1);
  http_requestMethodSet(request, HTTP_METHOD_GET, "/digest");
  std::string realm = kRealm;
  std::string ha1 = hash("alice", kRealm, password);
  std::string user = "alice";
  std::string nonce = "some";
  std::string uri = "/digest";
  std::string qop = "auth";
  HttpHeader header = {};
  header.code = HTTP_HEADER_AUTHORIZATION;
  header.authorization = {HTTP_AUTH_DIGEST, user.data(), ha1.data(), HTTP_METHOD_GET, realm.data(), nonce.data(),
                          uri.data(),       qop.data(),  nullptr,    nullptr,         nullptr,      nullptr};
  http_requestHeaderSet(request, &header);
  const std::string value = http_requestHeaderValue(request, "Authorization");
  // What was set stays the test's; what was made for it goes.
  header.authorization.username = header.authorization.password = header.authorization.realm = nullptr;
  header.authorization.nonce = header.authorization.uri = header.authorization.qop = nullptr;
  http_hdrCleanup(&header);
  http_requestDestroy(request);
  return get("/digest", "Authorization: " + value + "\r\n");
}

Visit visitDigest() {
  return browse({step(get("/digest")), step(withDigest("wonderland")), step(withDigest("rabbit"))});
}

int checkPassword(const char* username, const char* password, void*) {
  const bool right = username != nullptr && password != nullptr && std::strcmp(username, "alice") == 0 &&
                     std::strcmp(password, "wonderland") == 0;
  return right ? 0 : -1;
}

int askForPassword(HttpReply* reply) { return replyText(reply, 403, "who is there?"); }

int answerSession(HttpRequest* request, HttpReply* reply) {
  const std::string_view path = http_requestPath(request);
  if (path == "/login") {
    http_auth_session* const session = http_authCookieAuthenticate(&site->sessions, request, reply, nullptr);
    return session != nullptr ? replyText(reply, 200, "logged in") : askForPassword(reply);
  }
  if (path == "/logout")
    return http_authCookieCloseSession(&site->sessions, request, reply) == 0 ? replyText(reply, 200, "bye") : -1;
  http_auth_session* const session = http_authCookieCheckSession(&site->sessions, request, reply);
  return session != nullptr ? replyText(reply, 200, http_authSessionUsername(session)) : askForPassword(reply);
}

void openSession() {
  makeSite();
  http_authCookieInit(&site->sessions, "/", 600);
  site->sessions.check = checkPassword;
  site->server.requestHandler = answerSession;
  listen(&site->server);
}

// With the cookie that was set first.
Step stepWithCookie(const std::string& path) {
  return {[path](const std::string& received, std::string* offence) -> std::string {
    constexpr std::string_view kName = "kro/sessid=";
    const size_t at = received.find(kName);
    if (at == std::string::npos) return "";
    const std::string id = received.substr(at + kName.size(), 24);
    if (id.find("AAAAAA") != std::string::npos) *offence = "opens a session with known bytes in its name: " + id;
    return get(path, "Cookie: kro/sessid=" + id + "\r\n");
  }};
}

std::string refusalWith(const std::string& cookie) {
  return textReply(403, "Forbidden", "who is there?", "1.1", "Set-Cookie: " + cookie + "\r\n");
}

Visit visitSession() {
  return browse({step(get("/in")), step(get("/login?username=alice&password=rabbit")),
                 step(get("/login?username=alice&password=wonderland")), stepWithCookie("/in"),
                 stepWithCookie("/logout"), stepWithCookie("/in")});
}

// --- replies that come later -----------------------------------------------------------------------------------------

ZelTimer* waiting;

void replyNow(ZelTimer*, void* userData) {
  if (replyText(static_cast<HttpReply*>(userData), 200, "at last") < 0)
    peer_destroy(http_replyPeer(static_cast<HttpReply*>(userData)));
}

void resumeNow(ZelTimer*, void* userData) {
  auto* const request = static_cast<HttpRequest*>(userData);
  if (http_serverResumeRequest(request) < 0) peer_destroy(http_requestPeer(request));
}

bool startWaiting(ZelTimerHandler handler, void* userData) {
  zel_timer_setHandler(waiting, handler);
  zel_timer_setUserData(waiting, userData);
  return zel_timer_start(waiting, 1);
}

int answerLater(HttpRequest* request, HttpReply* reply) {
  if (waiting == nullptr) waiting = zel_timer_create();
  if (waiting == nullptr) return -1;
  site->body.length = 0;
  if (!http_requestHasBody(request)) return startWaiting(replyNow, reply) ? 0 : -1;
  return http_serverPauseRequest(request) == 0 && startWaiting(resumeNow, request) ? 0 : -1;
}

void stopWaiting(HttpReply*, HttpRequest*) {
  zel_timer_destroy(waiting);
  waiting = nullptr;
}

void openLater() {
  makeSite();
  site->server.requestHandler = answerLater;
  site->server.bodyHandler = echoBody;
  site->server.replyDoneHandler = stopWaiting;
  site->server.errorHandler = [](HttpRequest* request, HttpReply* reply) { stopWaiting(reply, request); };
  listen(&site->server);
}

Visit visitLater() {
  return browse({step("GET /a HTTP/1.1\r\nHost: x\r\nContent-Length: 0\r\n\r\n"), step(post("/b", pattern(9000)))});
}

// --- proxies ---------------------------------------------------------------------------------------------------------

int answerBehind(HttpRequest* request, HttpReply* reply) {
  site->backBody.length = 0;
  if (http_requestHasBody(request)) return 0;
  if (std::strcmp(http_requestPath(request), "/page") == 0)
    return http_replyWithDefaultAndBody(reply, 200, "<p>%s</p>", "page");
  return replyText(reply, 200, "from behind");
}

const std::string& large() {
  static const std::string text = pattern(300000);
  return text;
}

int answerLargely(HttpRequest* request, HttpReply* reply) {
  site->backBody.length = 0;
  return http_requestHasBody(request) ? 0 : replyText(reply, 200, large());
}

// Tells how long the body is and what it is, without keeping it.
int sumUp(HttpRequest* request, HttpReply* reply, FILE* body) {
  std::array<unsigned char, 4096> block;
  size_t count;
  unsigned long sums[2] = {};
  memcpy(sums, site->backBody.bytes.data(), site->backBody.length);
  do {
    count = fread(block.data(), 1, block.size(), body);
    for (size_t i = 0; i < count; ++i) sums[1] = sums[1] * 31 + block[i];
    sums[0] += count;
  } while (count == block.size());
  site->backBody.length = sizeof sums;
  memcpy(site->backBody.bytes.data(), sums, sizeof sums);
  if (http_requestState(request) != HTTP_MSG_DONE) return 0;
  std::array<char, 64> text;
  snprintf(text.data(), text.size(), "%lu bytes, %lx", sums[0], sums[1]);
  return request->message.bodyCut ? -1 : replyText(reply, 200, text.data());
}

int echoBehind(HttpRequest* request, HttpReply* reply, FILE* body) {
  while (!site->backBody.readFrom(body)) {
  }
  if (http_requestState(request) != HTTP_MSG_DONE) return 0;
  return request->message.bodyCut ? -1 : replyText(reply, 200, site->backBody.view());
}

int answerInstead(HttpReply* reply) { return replyText(reply, 502, "no target"); }

const char* targetHost;

int forward(HttpRequest* request, HttpReply* reply) {
  HttpProxy* const proxy = http_proxyCreate(site->connection, targetHost, site->target.c_str());
  http_requestUserDataSet(request, proxy);
  if (proxy != nullptr && http_proxyForwardRequest(proxy, request, reply) == 0) return 0;
  http_proxyDestroy(proxy);
  http_requestUserDataSet(request, nullptr);
  return answerInstead(reply);
}

int forwardBody(HttpRequest* request, HttpReply*, FILE*) {
  auto* const proxy = static_cast<HttpProxy*>(http_requestUserData(request));
  return proxy != nullptr ? http_proxyForwardRequestBody(proxy) : -1;
}

void releaseProxy(HttpRequest* request, HttpReply*) {
  http_proxyDestroy(static_cast<HttpProxy*>(http_requestUserData(request)));
  http_requestUserDataSet(request, nullptr);
}

void finishProxy(HttpReply* reply, HttpRequest* request) {
  auto* const proxy = static_cast<HttpProxy*>(http_requestUserData(request));
  if (proxy != nullptr) http_proxyForwardReplyDone(proxy);
  releaseProxy(request, reply);
}

void openFront() {
  site->server.requestHandler = forward;
  site->server.bodyHandler = forwardBody;
  site->server.replyDoneHandler = finishProxy;
  site->server.errorHandler = releaseProxy;
  site->back.requestHandler = answerBehind;
  site->back.bodyHandler = echoBehind;
  listen(&site->server);
}

void openProxied() {
  makeSite();
  openFront();
  targetHost = nullptr;
  site->target = folder().at("socket");
  site->back.peer = connection_listenOnIPC(site->connection, site->target.c_str());
  http_serverStart(&site->back);
}

void openProxiedOverTcp() {
  makeSite();
  openFront();
  targetHost = "127.0.0.1";
  site->back.peer = connection_listenOnTCP(site->connection, "127.0.0.1", "0");
  site->target = std::to_string(peer_localPort(site->back.peer));
  http_serverStart(&site->back);
}

void openRelayed() {
  openProxied();
  site->back.requestHandler = answerLargely;
  site->back.bodyHandler = sumUp;
}

// More than the proxy keeps for a slow reader.
Visit visitRelayedReply() { return browse({step(get("/large"))}, {.receiveBuffer = 4096}); }

Visit visitRelayedBody() { return browse({step(post("/sum", large())), step(postChunked("/sum", large(), 50000))}); }

Visit visitProxied() {
  const std::string noBody = "Content-Length: 0\r\n";
  return browse({step(get("/text", noBody)), step(get("/page", noBody)), step(post("/echo", pattern(9000)))});
}

// --- the client ------------------------------------------------------------------------------------------------------

// Two exchanges on one connection, one after the other.
struct Exchange {
  HttpClient client = {};
  HttpRequest* request = nullptr;
  HttpReply* reply = nullptr;
  std::array<Text, 2> got;
  std::array<bool, 2> whole = {};
  size_t round = 0;
  bool over = false;
};

std::unique_ptr<Exchange> exchange;

int takeHead(HttpReply* reply, HttpRequest*) {
  std::array<char, 32> line;
  snprintf(line.data(), line.size(), "%u:", http_replyStatusCode(reply));
  exchange->got[exchange->round].append(line.data());
  return 0;
}

int takeBody(HttpReply*, HttpRequest*, FILE* body) {
  while (!exchange->got[exchange->round].readFrom(body)) {
  }
  return 0;
}

void takeEnd(HttpReply* reply, HttpRequest*) {
  const bool whole = !reply->message.bodyCut;
  exchange->whole[exchange->round] = whole;
  exchange->over = !whole || exchange->round == 1;
}

// @return false when nothing can come any more
bool sendRequest() {
  static const std::string kBody = pattern(12000);
  HttpRequest* const request = exchange->request;
  http_requestVersionSet(request, 1, 1);
  const bool chunks = exchange->round == 1;
  if (http_requestMethodSet(request, HTTP_METHOD_POST, "/echo") < 0 ||
      http_requestHeaderValueSet(request, "Host", "x") < 0 ||
      (chunks ? http_requestHeaderValueSet(request, "Transfer-Encoding", "chunked")
              : http_requestHeaderValueSet(request, "Content-Length", "%zu", kBody.size())) < 0 ||
      http_requestSend(request) < 0)
    return false;
  FILE* const body = http_requestBody(request);
  if (body == nullptr) return false;
  const bool written = fwrite(kBody.data(), 1, kBody.size(), body) == kBody.size();
  return fclose(body) == 0 && written && http_requestDone(request) == 0;
}

void goOn(HttpReply*, HttpRequest*) {
  if (exchange->over) return;
  ++exchange->round;
  if (http_clientRequest(&exchange->client, exchange->request, exchange->reply) && sendRequest()) return;
  exchange->over = true;
  http_clientStop(&exchange->client);
}

bool beginExchange() {
  exchange->request = http_requestCreate();
  exchange->reply = http_replyCreate();
  if (exchange->request == nullptr || exchange->reply == nullptr) return false;
  ZelPeer* const peer = connection_connectToTCP(site->connection, "127.0.0.1", site->target.c_str(), 0);
  if (peer == nullptr) return false;
  if (http_clientStart(&exchange->client, peer) < 0) {
    peer_destroy(peer);
    return false;
  }
  return http_clientRequest(&exchange->client, exchange->request, exchange->reply) && sendRequest();
}

Visit visitAsClient() {
  exchange = std::make_unique<Exchange>();
  exchange->client.replyHeaderHandler = takeHead;
  exchange->client.bodyHandler = takeBody;
  exchange->client.replyDoneHandler = takeEnd;
  exchange->client.readyHandler = goOn;
  exchange->client.errorHandler = [](HttpReply*, HttpRequest*) { exchange->over = true; };
  exchange->client.closedHandler = [](HttpClient*) { exchange->over = true; };
  {
    const Armed armed;
    exchange->over = !beginExchange();
  }
  Visit visit;
  visit.hung = !until([] { return exchange->over; });
  http_clientStop(&exchange->client);
  http_requestDestroy(exchange->request);
  http_replyDestroy(exchange->reply);
  visit.ended = exchange->over;
  for (size_t i = 0; i < exchange->got.size(); ++i)
    if (exchange->got[i].length > 0) visit.pieces.push_back({std::string(exchange->got[i].view()), exchange->whole[i]});
  visit.held = !until(isAlone);
  exchange.reset();
  return visit;
}

void openForClient() {
  openUpload();
  site->target = std::to_string(site->address.port);
}

// --- starting --------------------------------------------------------------------------------------------------------

// All is made while calls fail, and taken down again.
Visit visitStart() {
  Visit visit;
  {
    const Armed armed;
    site->connection = connection_create();
    ZelPeer* const local = connection_listenOnIPC(site->connection, site->target.c_str());
    ZelPeer* const tcp = connection_listenOnTCP(site->connection, "127.0.0.1", "0");
    ZelPeer* const everywhere = connection_listenOnTCP(site->connection, nullptr, "0");
    site->server.peer = tcp;
    visit.stopped = local == nullptr || tcp == nullptr || everywhere == nullptr || http_serverStart(&site->server) < 0;
  }
  if (!visit.stopped) {
    site->address = WireAddress::tcp(peer_localPort(site->server.peer));
    visit = browse({step(get("/text"))});
  }
  connection_destroy(std::exchange(site->connection, nullptr));
  zel_loop_close();
  site->server.peer = nullptr;
  return visit;
}

void openStart() {
  folder();
  site = std::make_unique<Site>();
  site->target = folder().at("socket");
  site->server.requestHandler = answerShortly;
}

}  // namespace

void closeSite() {
  zel_timer_destroy(std::exchange(waiting, nullptr));
  if (site->connection != nullptr) connection_destroy(site->connection);
  if (site->sessions.cookieName != nullptr) http_authCookieCleanup(&site->sessions);
  zel_loop_close();
  site.reset();
}

const std::vector<Scenario>& scenarios() {
  static const std::vector<std::string> otherFiles = insteadOfFiles();
  static const std::vector<std::string> noTarget = {page(504, "Gateway Timeout"),
                                                    textReply(502, "Bad Gateway", "no target")};
  // The cookie is in the reply before there is memory for its session. Nobody is let in with it, and it is taken back.
  static const std::vector<std::string> noSession = {
      refusalWith("kro/sessid=" + std::string(24, '?') + "; path=/"),
      refusalWith("kro/sessid=; expires=Thu, 01-Jan-1970 00:00:01 GMT; path=/")};
  static const std::vector<Scenario> all = {
      {"start", openStart, visitStart, "200", {}},
      {"kept", openShort, visitKept, "200 200 302 404", {}},
      {"pipelined", openShort, visitPipelined, "200 200 200 200", {}},
      {"limits", openLimited, visitLimited, "200 200 400", {}},
      {"refused", openRefusing, visitRefused, "413 413 200 200", {}},
      {"crowded", openLimited, visitCrowded, "503", {piecesOf(okReply("hello")).at(0).text}},
      {"files", openFiles, visitFiles, "200 200 200 200", otherFiles},
      {"copied", openCopied, visitCopied, "200 200", otherFiles},
      {"slow", openFiles, visitSlowly, "200", otherFiles},
      {"padded", openFiles, visitPadded, "200 200 200", otherFiles},
      {"pipe", openPipe, visitPipe, "200", {}},
      {"upload", openUpload, visitUpload, "200 200 200", {}},
      {"form", openForms, visitForms, "200 200", {}},
      {"digest", openDigest, visitDigest, "401 200 401", {}, true},
      {"session", openSession, visitSession, "403 403 200 200 200 403", noSession, true},
      {"later", openLater, visitLater, "200 200", {}},
      {"proxied", openProxied, visitProxied, "200 200 200", noTarget},
      {"proxied_tcp", openProxiedOverTcp, visitProxied, "200 200 200", noTarget},
      {"relayed_reply", openRelayed, visitRelayedReply, "200", noTarget, false, 10},
      {"relayed_body", openRelayed, visitRelayedBody, "200 200", noTarget, false, 10},
      {"client", openForClient, visitAsClient, "200 200", {}},
  };
  static_assert(KROHTTP_FAULT_SCENARIOS == 21);
  return all;
}
