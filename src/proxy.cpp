#include <krohttp/body.h>
#include <krohttp/proxy.h>

#include <zel/error.h>
#include <zel/timer.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "memory.h"
#include "message_internal.h"
#include "reading.h"
#include "server_internal.h"
#include "watch.h"

#define TRACE_ZONE "http-proxy"
#include "trace.h"

extern "C" const char* const proxyStateStrings[HTTP_PROXY_STATE_COUNT] = {"INIT",
                                                                          "RECEIVING_CLIENT_REQUEST",
                                                                          "CLIENT_REQUEST_RECEIVED",
                                                                          "SERVER_REQUEST_FORWARDED",
                                                                          "RECEIVING_SERVER_REPLY",
                                                                          "SERVER_REPLY_RECEIVED",
                                                                          "FORWARDING_CLIENT_REPLY",
                                                                          "CLIENT_REPLY_FORWARDED",
                                                                          "ERROR"};

// What only this file needs to know of an exchange under way.
struct HttpProxyExchange : ReplyFollower {
  HttpProxy* proxy;
  ZelTimer* timer;      // looks after the progress, null without a time-out
  uint64_t progressAt;  // milliseconds of the monotonic clock
  bool following;       // told about the reply's connection
  bool handedOver;      // the reply is the application's
  bool requestPaused;   // the target takes no more for now
};

namespace {

constexpr size_t kBlock = 4096;
// With more than this on its way to one side, the other one is not read.
constexpr size_t kMostQueued = 256 * 1024;

// --- small steps -----------------------------------------------------------------------------------------------------

const char* hostOf(const HttpProxy* proxy) { return proxy->host != nullptr ? proxy->host : "ipc"; }
const char* portOf(const HttpProxy* proxy) { return proxy->port != nullptr ? proxy->port : ""; }
bool isLocal(const HttpProxy* proxy) { return std::strcmp(hostOf(proxy), "ipc") == 0; }

const char* pathOf(const HttpProxy* proxy) {
  const char* const path = proxy->forwardRequest != nullptr ? http_requestPath(proxy->forwardRequest) : nullptr;
  return path != nullptr ? path : "unknown";
}

void switchTo(HttpProxy* proxy, HttpProxyState state) {
  TRACE_INFO("switch proxy state from %s to %s (http://%s%s)", proxyStateStrings[proxy->state],
             proxyStateStrings[state], hostOf(proxy), pathOf(proxy));
  proxy->state = state;
}

bool isIn(const HttpProxy* proxy, HttpProxyState state) {
  if (proxy->state == state) return true;
  TRACE_ERROR("wrong proxy state: %s, should be %s", proxyStateStrings[proxy->state], proxyStateStrings[state]);
  return false;
}

bool isExiting(const HttpProxy* proxy) { return proxy->owner != nullptr && proxy->owner->stopped != 0; }

HttpProxy* proxyOf(HttpRequest* forwardRequest) {
  return static_cast<HttpProxy*>(http_requestUserData(forwardRequest));
}

HttpProxy* proxyOf(HttpClient* client) {
  return reinterpret_cast<HttpProxy*>(reinterpret_cast<char*>(client) - offsetof(HttpProxy, client));
}

int fail(HttpProxy* proxy) {
  switchTo(proxy, HTTP_PROXY_ERROR);
  return -1;
}

// Nothing is left to be done for the reply.
bool isOver(const HttpProxy* proxy) {
  return proxy->exchange == nullptr || proxy->exchange->handedOver || proxy->reply == nullptr ||
         proxy->state == HTTP_PROXY_FORWARDING_CLIENT_REPLY || proxy->state == HTTP_PROXY_CLIENT_REPLY_FORWARDED;
}

// --- giving up -------------------------------------------------------------------------------------------------------

void resumeRequest(HttpProxy* proxy) {
  HttpProxyExchange* const exchange = proxy->exchange;
  if (exchange == nullptr || !exchange->requestPaused) return;
  exchange->requestPaused = false;
  if (proxy->request != nullptr) http_serverResumeRequest(proxy->request);
}

// Whether a strict reader refused what the target sent.
bool isRefused(const HttpMessage& forwardReply) {
  return forwardReply.strict && forwardReply.refusal != HTTP_MSG_ACCEPTED;
}

bool answerForTarget(HttpProxy* proxy) {
  if (http_replyState(proxy->reply) != HTTP_MSG_FIRST_LINE) return false;
  if (http_replyWithDefault(proxy->reply, isRefused(proxy->forwardReply->message) ? 502 : 504) < 0) return false;
  switchTo(proxy, HTTP_PROXY_FORWARDING_CLIENT_REPLY);
  return true;
}

// The target gives no more: the browser gets an answer, or can tell that it has but a part of one. The proxy may be
// gone afterwards.
void giveUp(HttpProxy* proxy) {
  resumeRequest(proxy);
  if (!isExiting(proxy) && answerForTarget(proxy)) return;
  proxy->exchange->handedOver = true;
  switchTo(proxy, HTTP_PROXY_ERROR);
  srv_cut(proxy->reply);
}

// --- progress --------------------------------------------------------------------------------------------------------

uint64_t nowMilliseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

void noteProgress(const HttpProxy* proxy) {
  if (proxy->exchange != nullptr && proxy->exchange->timer != nullptr) proxy->exchange->progressAt = nowMilliseconds();
}

void checkProgress(ZelTimer* timer, void* userData) {
  auto* const proxy = static_cast<HttpProxy*>(userData);
  if (isOver(proxy)) return;
  const uint64_t idle = nowMilliseconds() - proxy->exchange->progressAt;
  if (idle < proxy->timeout) {
    zel_timer_start(timer, static_cast<unsigned>(proxy->timeout - idle));
    return;
  }
  TRACE_ERROR("no progress for %u ms, giving up", proxy->timeout);
  http_proxyAbort(proxy);
}

bool startTimeout(HttpProxy* proxy) {
  if (proxy->timeout == 0) return true;
  HttpProxyExchange* const exchange = proxy->exchange;
  exchange->timer = zel_timer_create();
  if (exchange->timer == nullptr) return false;
  zel_timer_setUserData(exchange->timer, proxy);
  zel_timer_setHandler(exchange->timer, checkProgress);
  noteProgress(proxy);
  return zel_timer_start(exchange->timer, proxy->timeout);
}

// --- copying bodies --------------------------------------------------------------------------------------------------

// A body on its way from one side to the other.
struct Transfer {
  FILE* input;
  const HttpMessage* source;
  FILE* output;         // null: what is read is dropped
  const ZelPeer* sink;  // takes the output
};

bool sinkIsFull(const Transfer& transfer) {
  return transfer.output != nullptr && peer_bytesQueued(transfer.sink) > kMostQueued;
}

// How much to copy at once: with a full sink only what the body's own stream holds, which no event would come for.
size_t blockSize(const Transfer& transfer) {
  if (!sinkIsFull(transfer)) return kBlock;
  return std::min(kBlock, heldBytes(transfer.input));
}

// The rest of the source has to wait for the sink.
bool mustWait(const Transfer& transfer) { return transfer.source->state == HTTP_MSG_BODY && blockSize(transfer) == 0; }

// Copies one block. Returns how much was read, 0 when that is all for now.
size_t copyBlock(HttpProxy* proxy, const Transfer& transfer) {
  char block[kBlock];
  const size_t wanted = transfer.source->state == HTTP_MSG_BODY ? blockSize(transfer) : kBlock;
  TRACE_INFO("read");
  errno = 0;
  const size_t count = fread_unlocked(block, 1, wanted, transfer.input);
  const int error = errno;
  TRACE_INFO("read %u: %.*s", static_cast<unsigned>(count), static_cast<int>(count), block);
  size_t written = count;
  if (count > 0 && transfer.output != nullptr) written = fwrite_unlocked(block, 1, count, transfer.output);
  const int writeError = errno;
  const bool shortRead = count < wanted;
  if (shortRead && !feof_unlocked(transfer.input) && error != EAGAIN) {
    errno = error;
    TRACE_ERROR("unable to read body: %m");
    switchTo(proxy, HTTP_PROXY_ERROR);
  }
  if (written < count) {
    errno = writeError;
    TRACE_ERROR("unable to write body: %m");
    switchTo(proxy, HTTP_PROXY_ERROR);
  }
  return shortRead ? 0 : count;
}

int proxy_copyBody(HttpProxy* proxy, const Transfer& transfer) {
  TRACE_INFO("do copying body");
  noteProgress(proxy);
  while (!mustWait(transfer) && copyBlock(proxy, transfer) > 0 && proxy->state != HTTP_PROXY_ERROR) {
  }
  if (transfer.output != nullptr && fflush_unlocked(transfer.output) != 0) {
    TRACE_ERROR("unable to write body: %m");
    switchTo(proxy, HTTP_PROXY_ERROR);
  }
  TRACE_INFO("copied body");
  return proxy->state == HTTP_PROXY_ERROR ? -1 : 0;
}

// --- the target's reply ----------------------------------------------------------------------------------------------

int failWith(HttpProxy* proxy, const char* what) {
  TRACE_ERROR("%s", what);
  return fail(proxy);
}

// Whether the reply is still to be sent, by the application's leave.
bool passesFilter(HttpProxy* proxy) {
  if (proxy->replyFilter == nullptr) return true;
  const Watch watch(proxy);
  const int result = proxy->replyFilter(proxy, proxy->reply);
  if (watch.gone()) return false;
  if (result >= 0) return !isOver(proxy);
  TRACE_ERROR("before sending reply errored, do nothing anymore");
  proxy->exchange->handedOver = true;
  http_clientStop(&proxy->client);
  return false;
}

// RFC 9112 section 6.3.
bool isWithoutBody(const HttpReply* reply) { return reply->statusCode == 204 || reply->statusCode == 304; }

int sendReplyHead(HttpProxy* proxy) {
  HttpReply* const reply = proxy->reply;
  // The browser's connection lives on: it needs another way to tell the end.
  const bool sent = (proxy->forwardReply->message.bodyType != HTTP_BODY_UNTIL_CLOSE ||
                     msg_headerCopy(&reply->message, "Transfer-Encoding", "chunked") == 0) &&
                    http_replySend(reply) == 0;
  if (!sent) return failWith(proxy, "unable to forward reply");
  switchTo(proxy, HTTP_PROXY_RECEIVING_SERVER_REPLY);
  TRACE_INFO("reply message as been forwarded");
  return 0;
}

// A part of a reply that cannot be copied does not stand in the way of another.
int copyReply(HttpReply* from, HttpReply* to) {
  const uint8_t major = to->message.versionMajor;
  const uint8_t minor = to->message.versionMinor;
  if (http_replyCopy(from, to) == 0) return 0;
  rp_startOver(to, major, minor);
  return -1;
}

int proxy_handleServerReply(HttpReply* forwardReply, HttpRequest* forwardRequest) {
  HttpProxy* const proxy = proxyOf(forwardRequest);
  if (isExiting(proxy) || proxy->reply == nullptr) return -1;
  noteProgress(proxy);
  TRACE_INFO("handling reply %s for request %s", forwardReply->reason, pathOf(proxy));
  // A target may answer while it reads, or refuse the request and not read its end.
  if (proxy->state == HTTP_PROXY_RECEIVING_CLIENT_REQUEST) {
    switchTo(proxy, HTTP_PROXY_SERVER_REQUEST_FORWARDED);
    resumeRequest(proxy);
  }
  if (!isIn(proxy, HTTP_PROXY_SERVER_REQUEST_FORWARDED)) return -1;
  if (forwardReply->message.bodyType == HTTP_BODY_UNKNOWN)
    return failWith(proxy, "unable to forward reply: unknown transfer encoding");
  if (copyReply(forwardReply, proxy->reply) < 0) return failWith(proxy, "unable to copy reply");
  forwardReply->message.relayed = 1;
  if (isWithoutBody(forwardReply)) proxy->reply->message.bodyless = 1;
  return passesFilter(proxy) ? sendReplyHead(proxy) : -1;
}

int proxy_handleServerReplyBody(HttpReply* forwardReply, HttpRequest* forwardRequest, FILE* body) {
  HttpProxy* const proxy = proxyOf(forwardRequest);
  TRACE_INFO("handling reply body for request %s", pathOf(proxy));
  if (!isIn(proxy, HTTP_PROXY_RECEIVING_SERVER_REPLY) || proxy->reply == nullptr) return -1;
  FILE* const output = http_replyBody(proxy->reply);
  if (output == nullptr) return failWith(proxy, "unable to write body: no body");

  const Transfer transfer{body, &forwardReply->message, output, http_replyPeer(proxy->reply)};
  const int result = proxy_copyBody(proxy, transfer);
  if (mustWait(transfer)) {
    http_clientPause(&proxy->client);
    srv_tellDrained(proxy->reply);
  } else if (http_replyNeedMoreData(forwardReply)) {
    srv_uncork(proxy->reply);  // who knows when the rest comes
  }
  return result;
}

void proxy_handleServerReplyDone(HttpReply* forwardReply, HttpRequest* forwardRequest) {
  HttpProxy* const proxy = proxyOf(forwardRequest);
  TRACE_INFO("reply has been received: %s", pathOf(proxy));
  if (!isIn(proxy, HTTP_PROXY_RECEIVING_SERVER_REPLY) || proxy->reply == nullptr) return;
  if (forwardReply->message.bodyCut) {
    TRACE_ERROR("reply body is shorter than announced");
    return giveUp(proxy);
  }
  FILE* const body = http_replyBody(proxy->reply);
  const bool closed = body == nullptr || std::fclose(body) == 0;
  if (http_replyDone(proxy->reply) < 0 || !closed) {
    TRACE_ERROR("unable to forward reply body");
    return giveUp(proxy);
  }
  switchTo(proxy, HTTP_PROXY_FORWARDING_CLIENT_REPLY);
}

void proxy_handleServerError(HttpReply*, HttpRequest* forwardRequest) {
  HttpProxy* const proxy = proxyOf(forwardRequest);
  if (isExiting(proxy)) return;
  TRACE_ERROR("server error %s", pathOf(proxy));
  if (proxy->reply != nullptr) answerForTarget(proxy);
}

// The last that is heard of the target, whatever happened to it.
void proxy_handleTargetClosed(HttpClient* client) {
  HttpProxy* const proxy = proxyOf(client);
  resumeRequest(proxy);
  if (!isOver(proxy)) giveUp(proxy);
}

void proxy_handleRequestDrained(HttpReply*, HttpRequest* forwardRequest) { resumeRequest(proxyOf(forwardRequest)); }

// --- the browser's connection ----------------------------------------------------------------------------------------

void proxy_handleReplyDrained(ReplyFollower* follower) {
  HttpProxy* const proxy = static_cast<HttpProxyExchange*>(follower)->proxy;
  noteProgress(proxy);
  http_clientResume(&proxy->client);
}

// The exchange goes no further than this.
void proxy_handleReplyGone(ReplyFollower* follower) {
  auto* const exchange = static_cast<HttpProxyExchange*>(follower);
  HttpProxy* const proxy = exchange->proxy;
  const bool over = isOver(proxy);
  exchange->following = false;
  proxy->request = nullptr;
  proxy->reply = nullptr;
  http_clientStop(&proxy->client);
  if (!over) switchTo(proxy, HTTP_PROXY_ERROR);
}

// --- forwarding the request ------------------------------------------------------------------------------------------

int makeExchange(HttpProxy* proxy) {
  proxy->exchange = makeZeroed<HttpProxyExchange>().release();
  if (proxy->exchange == nullptr) return -1;
  proxy->exchange->proxy = proxy;
  proxy->exchange->drained = proxy_handleReplyDrained;
  proxy->exchange->gone = proxy_handleReplyGone;
  return startTimeout(proxy) ? 0 : -1;
}

// The target may do to the proxy what the browser may.
void limitReply(const HttpProxy* proxy) {
  const HttpMessage& request = proxy->request->message;
  HttpMessage* const forwardReply = &proxy->forwardReply->message;
  forwardReply->strict = request.strict;
  forwardReply->lineLimit = request.lineLimit;
  forwardReply->headLimit = request.headLimit;
  forwardReply->headerLimit = request.headerLimit;
}

int makeMessages(HttpProxy* proxy) {
  proxy->forwardRequest = http_requestCreate();
  if (proxy->forwardRequest == nullptr) {
    TRACE_ERROR("unable to allocate ws request: %m");
    return -1;
  }
  proxy->forwardReply = http_replyCreate();
  if (proxy->forwardReply == nullptr || makeExchange(proxy) < 0) {
    TRACE_ERROR("unable to allocate ws reply: %m");
    return -1;
  }
  limitReply(proxy);
  http_requestUserDataSet(proxy->forwardRequest, proxy);
  http_replyUserDataSet(proxy->forwardReply, proxy);
  return 0;
}

ZelPeer* connectTarget(const HttpProxy* proxy) {
  TRACE_INFO("connecting using zel://%s:[%s]", hostOf(proxy), portOf(proxy));
  ZelPeer* const peer = isLocal(proxy)
                            ? connection_connectToIPC(proxy->connectionContext, portOf(proxy))
                            : connection_connectToTCP(proxy->connectionContext, proxy->host, portOf(proxy), 0);
  if (peer == nullptr) TRACE_ERROR("unable to connect to %s:%s", hostOf(proxy), portOf(proxy));
  return peer;
}

int startClient(HttpProxy* proxy) {
  ZelPeer* const peer = connectTarget(proxy);
  if (peer == nullptr) return -1;
  if (http_clientStart(&proxy->client, peer) < 0) {
    TRACE_ERROR("unable to connect to client");
    peer_destroy(peer);
    return -1;
  }
  if (http_clientRequest(&proxy->client, proxy->forwardRequest, proxy->forwardReply)) return 0;
  TRACE_ERROR("unable to forward request to client");
  return -1;
}

int copyHeaders(HttpProxy* proxy) {
  int code = HTTP_HEADER_NONE;
  const char* name = nullptr;
  const char* value = nullptr;
  http_requestHeadersReset(proxy->request);
  while (msg_headersNext(&proxy->request->message, &code, &name, &value) == 0) {
    if (code == HTTP_HEADER_CONNECTION) continue;
    if (code == HTTP_HEADER_HOST) value = hostOf(proxy);
    // Names and values came from the network: they are data, never a format.
    if (msg_headerCopy(&proxy->forwardRequest->message, name, value, true) < 0) return -1;
  }
  return 0;
}

// To a strict reader a request that says nothing of a body has none. The target is told so.
int announceNoBody(HttpProxy* proxy) {
  HttpMessage* const request = &proxy->request->message;
  const bool isTold = !request->strict || !msg_hasBody(request) || http_msgHasBody(request) ||
                      msg_headerText(request, HTTP_HEADER_CONTENT_LENGTH) != nullptr;
  return isTold ? 0 : msg_headerCopy(&proxy->forwardRequest->message, "Content-Length", "0");
}

int sendHead(HttpProxy* proxy) {
  const CString uri(http_uriSerialize(http_requestURI(proxy->request)));
  if (!uri) {
    TRACE_ERROR("unable to forward request: %m");
    return -1;
  }
  http_requestVersionSet(proxy->forwardRequest, 1, 1);
  TRACE_INFO("forwarding request for %s", uri.get());
  if (http_requestMethodSet(proxy->forwardRequest, http_requestMethod(proxy->request), uri.get()) < 0 ||
      copyHeaders(proxy) < 0 || announceNoBody(proxy) < 0)
    return -1;
  if (http_requestSend(proxy->forwardRequest) == 0) return 0;
  TRACE_ERROR("unable to send request");
  return -1;
}

// The head is on its way; what follows it is the body, or nothing.
void headForwarded(HttpProxy* proxy) {
  // A request that the application has completed has none, whatever its headers call for.
  if (proxy->request->message.state == HTTP_MSG_DONE || !http_requestHasBody(proxy->request)) {
    http_requestDone(proxy->forwardRequest);
    switchTo(proxy, HTTP_PROXY_SERVER_REQUEST_FORWARDED);
    return;
  }
  proxy->request->message.relayed = 1;
  switchTo(proxy, HTTP_PROXY_RECEIVING_CLIENT_REQUEST);
  http_serverContinue(proxy->request, proxy->reply);
}

void destroyExchange(HttpProxy* proxy) {
  const CPointer<HttpProxyExchange> exchange(proxy->exchange);
  if (!exchange) return;
  if (exchange->following) resumeRequest(proxy);
  proxy->exchange = nullptr;
  if (exchange->following) srv_unfollow(proxy->reply, exchange.get());
  zel_timer_destroy(exchange->timer);
}

void undo(HttpProxy* proxy) {
  http_clientStop(&proxy->client);
  http_replyDestroy(proxy->forwardReply);
  proxy->forwardReply = nullptr;
  http_requestDestroy(proxy->forwardRequest);
  proxy->forwardRequest = nullptr;
  destroyExchange(proxy);
}

// The body has been read to its end. What has come is not what was announced, if the browser left in the middle.
int requestReceived(HttpProxy* proxy, FILE* output) {
  if (proxy->request->message.bodyCut) {
    http_clientStop(&proxy->client);
    return failWith(proxy, "request body is shorter than announced");
  }
  TRACE_INFO("request have been forwared");
  if (proxy->state == HTTP_PROXY_RECEIVING_CLIENT_REQUEST) switchTo(proxy, HTTP_PROXY_SERVER_REQUEST_FORWARDED);
  if (output == nullptr) return 0;
  std::fclose(output);
  // No event comes for a request that has left already.
  if (peer_bytesQueued(proxy->client.peer) == 0) http_clientRequestSent(&proxy->client);
  return 0;
}

}  // namespace

extern "C" {

HttpProxy* http_proxyCreate(ZelConnection* connection, const char* host, const char* port) {
  HttpProxy* const proxy = makeZeroed<HttpProxy>().release();
  if (proxy == nullptr) {
    TRACE_ERROR("unable to create proxy: %m");
    return nullptr;
  }
  http_proxyInitialize(proxy, connection, host, port);
  return proxy;
}

void http_proxyInitialize(HttpProxy* proxy, ZelConnection* connection, const char* host, const char* port) {
  proxy->state = HTTP_PROXY_INIT;
  proxy->connectionContext = connection;
  proxy->host = host;
  proxy->port = port;
  proxy->timeout = HTTP_PROXY_TIMEOUT;
  proxy->client.replyHeaderHandler = proxy_handleServerReply;
  proxy->client.bodyHandler = proxy_handleServerReplyBody;
  proxy->client.replyDoneHandler = proxy_handleServerReplyDone;
  proxy->client.errorHandler = proxy_handleServerError;
  proxy->client.requestDrainedHandler = proxy_handleRequestDrained;
  proxy->client.closedHandler = proxy_handleTargetClosed;
  proxy->client.takesEarlyReply = true;
}

void http_proxyCleanup(HttpProxy* proxy) {
  Watch<HttpProxy>::tellGone(proxy);
  undo(proxy);
}

void http_proxyDestroy(HttpProxy* proxy) {
  if (proxy == nullptr) return;
  TRACE_INFO("destroying proxy instance");
  http_proxyCleanup(proxy);
  std::free(proxy);
}

int http_proxyForwardRequest(HttpProxy* proxy, HttpRequest* request, HttpReply* reply) {
  TRACE_INFO("forwarding request");
  if (proxy->state != HTTP_PROXY_INIT) {
    TRACE_ERROR("wrong proxy state, should be INIT: %d", static_cast<int>(proxy->state));
    return -1;
  }
  switchTo(proxy, HTTP_PROXY_CLIENT_REQUEST_RECEIVED);
  proxy->owner = static_cast<HttpServer*>(http_requestOwner(request));
  proxy->request = request;
  proxy->reply = reply;
  if (isExiting(proxy)) {
    switchTo(proxy, HTTP_PROXY_ERROR);
    TRACE_ERROR("server is exiting");
    return -1;
  }
  if (srv_isBodyTooLong(&request->message)) {
    TRACE_ERROR("body is longer than allowed");
    fail(proxy);
    errno = EFBIG;
    return -1;
  }
  if (makeMessages(proxy) == 0 && startClient(proxy) == 0 && sendHead(proxy) == 0) {
    proxy->exchange->following = srv_follow(reply, proxy->exchange);
    headForwarded(proxy);
    return 0;
  }
  undo(proxy);
  return fail(proxy);
}

int http_proxyForwardRequestBody(HttpProxy* proxy) {
  if (isExiting(proxy) || proxy->request == nullptr || proxy->forwardRequest == nullptr) return -1;
  const bool sending = proxy->client.state == HTTP_CLIENT_SENDING_REQUEST && proxy->client.peer != nullptr;
  FILE* const input = http_requestBody(proxy->request);
  if (input == nullptr) return failWith(proxy, "unable to read body: no body");
  FILE* const output = sending ? http_requestBody(proxy->forwardRequest) : nullptr;

  const Transfer transfer{input, &proxy->request->message, output, proxy->client.peer};
  if (proxy_copyBody(proxy, transfer) < 0) return -1;
  if (http_requestState(proxy->request) == HTTP_MSG_DONE) return requestReceived(proxy, output);
  if (mustWait(transfer)) proxy->exchange->requestPaused = http_serverPauseRequest(proxy->request) == 0;
  return 0;
}

int http_proxyForwardReplyDone(HttpProxy* proxy) {
  switchTo(proxy, HTTP_PROXY_CLIENT_REPLY_FORWARDED);
  return 0;
}

void http_proxyAbort(HttpProxy* proxy) {
  if (isOver(proxy)) return;
  http_clientStop(&proxy->client);
  giveUp(proxy);
}

}  // extern "C"
