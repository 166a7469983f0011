#include "routes.h"

#include <strings.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <string_view>

#include "access_log.h"
#include "echo.h"
#include "forward.h"
#include "framing.h"
#include "heap.h"
#include "identity.h"
#include "limits.h"
#include "login.h"
#include "protection.h"
#include "refusal.h"
#include "replies.h"
#include "upload.h"
#include "waiting.h"

namespace {

constexpr const char* kText = "text/plain; charset=utf-8";
constexpr const char* kReadMethods = "GET, HEAD, OPTIONS";
constexpr const char* kEchoMethods = "POST, OPTIONS";

std::string root;
bool demo = false;
bool strict = true;
std::function<Counters()> currentCounters;

// --- single answers --------------------------------------------------------------------------------------------------

long residentMemory() {
  long total = 0;
  long resident = 0;
  FILE* const file = std::fopen("/proc/self/statm", "re");
  if (file == nullptr) return 0;
  const bool read = std::fscanf(file, "%ld %ld", &total, &resident) == 2;
  std::fclose(file);
  return read ? resident * sysconf(_SC_PAGESIZE) : 0;
}

int replyWithCounters(HttpRequest* request, HttpReply* reply) {
  const Counters counters = currentCounters();
  char counts[256];
  std::snprintf(counts, sizeof counts,
                "{\"version\":\"%s\",\"connections\":%ld,\"replies\":%ld,\"uptime\":%ld,\"memory\":%ld,",
                KROHTTPD_VERSION, counters.connections, counters.replies, counters.uptime, residentMemory());
  const std::string json = counts + ("\"refused\":" + refusalsAsJson(counters.refused)) + "}\n";
  return replyWithText(request, reply, 200, "application/json", json);
}

int replyWithFile(HttpRequest* request, HttpReply* reply) {
  if (root.empty()) return replyWithStatus(request, reply, 404);
  if (addCommonHeaders(request, reply) < 0) return -1;
  const int result = http_serverRequestSendFile(request, reply, root.c_str());
  // A refusal has been sent by then: only a reply that could not be begun drops the connection.
  return result == 0 || http_replyState(reply) >= HTTP_MSG_BODY ? 0 : -1;
}

// --- what is wrong with a request before its target matters ----------------------------------------------------------

bool hasUnknownExpectation(HttpRequest* request) {
  if (http_requestVersion(request)[1] == 0) return false;  // HTTP/1.0 has no expectations
  const char* const expectation = http_requestHeaderValue(request, "Expect");
  return expectation != nullptr && strcasecmp(expectation, "100-continue") != 0;
}

// What a strict server has refused by then.
unsigned refusalOfFraming(HttpRequest* request) {
  const uint8_t* const version = http_requestVersion(request);
  if (version[0] != 1) return 505;
  const Framing framing = framingOf(&request->message);
  if (isAmbiguous(framing)) return 400;
  if (version[1] > 0 && framing.hosts != 1) return 400;  // RFC 9112 section 3.2
  if (http_requestBodyType(request) == HTTP_BODY_UNKNOWN) return 501;
  return framing.tooLong ? 413 : 0;
}

// The status that refuses the request, 0 when there is no reason to.
unsigned refusalOf(HttpRequest* request) {
  const unsigned code = strict ? 0 : refusalOfFraming(request);
  if (code != 0) return code;
  if (hasUnknownExpectation(request)) return 417;
  switch (http_requestMethod(request)) {
    case HTTP_METHOD_CONNECT:
    case HTTP_METHOD_TRACE:
      return 501;
    default:
      return 0;
  }
}

// --- routing ---------------------------------------------------------------------------------------------------------

bool wantsEcho(HttpRequest* request) { return demo && std::string_view(http_requestPath(request)) == "/echo"; }

bool isAllowed(HttpRequest* request) {
  const int method = http_requestMethod(request);
  if (wantsEcho(request)) return method == HTTP_METHOD_POST;
  return method == HTTP_METHOD_GET || method == HTTP_METHOD_HEAD;
}

// What depends on who asks is kept by nobody: after a logout nothing is left of it.
int forbidStoringOf(HttpRequest* request, HttpReply* reply) {
  return identityOf(request).empty() ? 0 : forbidStoring(reply);
}

int serve(HttpRequest* request, HttpReply* reply) {
  if (const Upload* const upload = uploadAt(http_requestPath(request)); upload != nullptr)
    return uploadBegin(request, reply, *upload);
  const char* const allow = wantsEcho(request) ? kEchoMethods : kReadMethods;
  if (const ProxyTarget* const target = forwardTarget(http_requestPath(request)); target != nullptr)
    return forwardBegin(request, reply, *target);
  if (forbidStoringOf(request, reply) < 0) return -1;
  if (http_requestMethod(request) == HTTP_METHOD_OPTIONS) return replyWithText(request, reply, 200, kText, "", allow);
  if (!isAllowed(request)) return refuse(request, reply, 405, allow);
  if (wantsEcho(request)) return echoBegin(request, reply);

  const std::string_view path = http_requestPath(request);
  if (demo && path == "/hello") return replyWithText(request, reply, 200, kText, "Hello, world!");
  if (demo && path == "/status") return replyWithCounters(request, reply);
  return replyWithFile(request, reply);
}

int answer(HttpRequest* request, HttpReply* reply) {
  if (const unsigned code = refusalOf(request); code != 0) return refuse(request, reply, code);
  if (isLoginPath(http_requestPath(request))) return loginBegin(request, reply);
  int result = 0;
  return protectionAdmits(request, reply, &result) ? serve(request, reply) : result;
}

// --- handlers --------------------------------------------------------------------------------------------------------

int onRequest(HttpRequest* request, HttpReply* reply) {
  heapTrimLater();
  // This server speaks HTTP/1.1, whatever higher version was asked for.
  if (http_requestVersion(request)[0] != 1 || http_requestVersion(request)[1] > 1) http_replyVersionSet(reply, 1, 1);
  return answer(request, reply);
}

int dropBody(FILE* body) {
  char block[4096];
  while (fread(block, 1, sizeof block, body) == sizeof block) {
  }
  return 0;
}

int onBody(HttpRequest* request, HttpReply* reply, FILE* body) {
  if (isForwarding(request)) return forwardBody(request);
  if (isLoggingIn(request)) return loginBody(request, reply, body);
  if (isUploading(request)) return uploadBody(request, reply);
  return isEchoing(request) ? echoBody(request, reply, body) : dropBody(body);
}

void endExchange(HttpRequest* request) {
  echoEnd(request);
  forwardEnd(request);
  loginEnd(request);
  uploadEnd(request);
  identityEnd(request);
}

void writeLog(HttpRequest* request, HttpReply* reply) {
  accessLogWrite(request, reply, identityOf(request), !isLoginPath(http_requestPath(request)));
}

void onReplyDone(HttpReply* reply, HttpRequest* request) {
  writeLog(request, reply);
  endExchange(request);
}

// A head that could not be parsed is answered before its connection closes.
void onError(HttpRequest* request, HttpReply* reply) {
  const unsigned status = http_serverRefusalStatus(request->message.refusal);
  if (status != 0 && http_replyState(reply) == HTTP_MSG_FIRST_LINE) {
    http_replyVersionSet(reply, 1, 1);
    if (announceClose(reply) == 0) replyWithStatus(request, reply, status);
  }
  if (http_replyStatusCode(reply) != 0) writeLog(request, reply);
  endExchange(request);
}

}  // namespace

void routesSetUp(const Options& options, const Users& users, std::function<Counters()> counters,
                 ZelConnection* connection) {
  root = options.root;
  demo = options.demo;
  strict = options.limits.strict != 0;
  currentCounters = std::move(counters);
  protectionSetUp(options, users);
  loginSetUp(options, users);
  forwardSetUp(options, connection);
}

void routesStop() { waitingStop(); }

void routesTearDown() {
  waitingTearDown();
  uploadTearDown();
  forwardTearDown();
  loginTearDown();
}

void routesInstall(HttpServer* server) {
  server->requestHandler = onRequest;
  server->bodyHandler = onBody;
  server->replyDoneHandler = onReplyDone;
  server->errorHandler = onError;
}
