// What a server puts up with: the limits, and the clock that watches them.
#include <krohttp/server.h>

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <zel/error.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <iterator>
#include <numeric>
#include <string_view>

#include "message_internal.h"
#include "reading.h"
#include "server_connection.h"

#define TRACE_ZONE "http-limits"
#include "trace.h"

namespace {

constexpr unsigned kSweepMilliseconds = 1000;

struct Refusal {
  const char* name;
  unsigned code;  // 0: the connection ends without an answer
  const char* phrase;
};

// By HttpMessageRefusal.
constexpr Refusal kRefusals[] = {{"none", 0, nullptr},
                                 {"first-line", 400, "Bad Request"},
                                 {"version", 505, "HTTP Version Not Supported"},
                                 {"method", 501, "Not Implemented"},
                                 {"target", 400, "Bad Request"},
                                 {"header", 400, "Bad Request"},
                                 {"long-line", 414, "URI Too Long"},
                                 {"large-head", 431, "Request Header Fields Too Large"},
                                 {"many-headers", 431, "Request Header Fields Too Large"},
                                 {"large-body", 413, "Content Too Large"},
                                 {"slow-head", 408, "Request Timeout"},
                                 {"stalled", 408, "Request Timeout"},
                                 {"slow", 408, "Request Timeout"},
                                 {"idle", 0, nullptr},
                                 {"many-requests", 0, nullptr},
                                 {"many-connections", 503, "Service Unavailable"},
                                 {"forgotten", 0, nullptr},
                                 {"length-and-coding", 400, "Bad Request"},
                                 {"repeated-length", 400, "Bad Request"},
                                 {"length", 400, "Bad Request"},
                                 {"coding", 400, "Bad Request"},
                                 {"chunk", 400, "Bad Request"},
                                 {"bare-line-end", 400, "Bad Request"},
                                 {"control-byte", 400, "Bad Request"},
                                 {"blank-before-colon", 400, "Bad Request"},
                                 {"folded-line", 400, "Bad Request"},
                                 {"name", 400, "Bad Request"},
                                 {"no-host", 400, "Bad Request"},
                                 {"repeated-host", 400, "Bad Request"},
                                 {"other-host", 400, "Bad Request"},
                                 {"other-version", 505, "HTTP Version Not Supported"},
                                 {"method-no-token", 400, "Bad Request"}};
static_assert(std::size(kRefusals) == HTTP_MSG_REFUSALS);

// A request is there, or has begun, and nothing of its reply has been sent.
bool isUnanswered(const Connection* connection) {
  const bool begun = connection->state > HTTP_SERVER_ACCEPTED || connection->request.message.fill > 0;
  return begun && connection->reply.message.state < HTTP_MSG_BODY;
}

void answer(HttpReply* reply, const Refusal& with) {
  http_replyReset(reply);
  reply->statusCode = 0;
  http_replyVersionSet(reply, 1, 1);
  HttpHeader date{};
  date.code = HTTP_HEADER_DATE;
  date.date.time = std::time(nullptr);
  const std::string_view text = with.phrase;
  const bool headSent =
      http_replyStatusCodeSet(reply, with.code, with.phrase) == 0 && http_replyHeaderSet(reply, &date) == 0 &&
      http_replyHeaderValueSet(reply, "Connection", "close") == 0 &&
      http_replyHeaderValueSet(reply, "Content-Type", "text/plain; charset=utf-8") == 0 &&
      http_replyHeaderValueSet(reply, "Content-Length", "%zu", text.size() + 1) == 0 && http_replySend(reply) == 0;
  if (!headSent) return;
  if (FILE* const body = http_replyBody(reply)) std::fprintf(body, "%s\n", with.phrase);
  http_replyDone(reply);
}

// --- the clock -------------------------------------------------------------------------------------------------------

enum Phase : int { kIdle = 1, kHead, kBody, kReply, kPaused, kApplication };

// What the kernel still holds because the client has not taken it.
uint64_t unacknowledged(const ZelPeer* peer) {
  int bytes = 0;
  return ioctl(peer_socket(peer), SIOCOUTQ, &bytes) == 0 && bytes > 0 ? static_cast<uint64_t>(bytes) : 0;
}

// What the client still has to take. Of a descriptor without an end nobody knows: it counts down from far away, as long
// as there is something to send.
uint64_t leftOfReply(const Connection* connection) {
  constexpr uint64_t kFarAway = UINT64_MAX / 2;
  const ZelPeer* const peer = connection->reply.message.peer;
  const uint64_t queued = peer_bytesQueued(peer) + unacknowledged(peer);
  if (connection->staticFd < 0) return queued;
  if (connection->staticSize != -1) return queued + connection->staticRemaining;
  return srv_isSourceEmpty(connection) ? queued : kFarAway - connection->staticSent;
}

// The client has sent what its request's handler does not take.
bool awaitsApplication(Connection* connection) {
  char next = 0;
  return heldOfBody(connection->request.message) > 0 || peer_peek(peerOf(connection), &next, 1) > 0;
}

Phase phaseOf(Connection* connection) {
  const HttpMessage& request = connection->request.message;
  if (connection->state <= HTTP_SERVER_ACCEPTED) {
    if (request.fill > 0) return kHead;
    const bool wasIdle = connection->clock.phase == kIdle && connection->clock.request == connection->requests;
    return wasIdle || unacknowledged(peerOf(connection)) == 0 ? kIdle : kReply;
  }
  if (connection->state == HTTP_SERVER_RECEIVING_REQUEST) {
    if (request.state < HTTP_MSG_BODY) return kHead;
    if (request.state == HTTP_MSG_BODY && request.paused == HTTP_MSG_RUNNING)
      return awaitsApplication(connection) ? kApplication : kBody;
  }
  // A request that is paused until its reply has been taken waits for the client.
  if (leftOfReply(connection) > 0) return kReply;
  const bool isPaused = connection->state < HTTP_SERVER_SENDING_REPLY && request.paused != HTTP_MSG_RUNNING;
  return isPaused ? kPaused : kApplication;
}

void addMoved(ConnectionClock* clock, uint64_t bytes) {
  uint32_t* const moved = &clock->moved[clock->part];
  *moved = static_cast<uint32_t>(std::min<uint64_t>(*moved + bytes, UINT32_MAX));
}

// Measures what the last second has moved.
void measure(Connection* connection, Phase phase) {
  ConnectionClock* const clock = &connection->clock;
  const uint64_t position = phase == kBody    ? connection->request.message.bodyCount
                            : phase == kReply ? leftOfReply(connection)
                                              : 0;
  if (clock->phase != phase || clock->request != connection->requests) {
    *clock = {};
    clock->phase = phase;
    clock->request = connection->requests;
    clock->position = position;
    return;
  }
  ++clock->seconds;
  clock->still = position == clock->position ? clock->still + 1 : 0;
  if (phase == kBody)
    addMoved(clock, position - clock->position);
  else  // what was added to a reply meanwhile hides what has left
    addMoved(clock, position > clock->position ? UINT32_MAX : clock->position - position);
  clock->position = position;
}

bool isReached(uint32_t seconds, uint32_t limit) { return limit != 0 && seconds >= limit; }

// Looks at the last rateSeconds whenever a part of them, a second at least, is over. The first ones are free.
bool isTooSlow(ConnectionClock* clock, const HttpServerLimits& limits) {
  if (limits.minimumRate == 0 || limits.rateSeconds == 0) return false;
  const uint32_t parts = std::min(limits.rateSeconds, ConnectionClock::kParts);
  const uint32_t secondsOfPart = (limits.rateSeconds + parts - 1) / parts;
  if (++clock->partSeconds < secondsOfPart) return false;
  clock->partSeconds = 0;
  const uint64_t moved = std::accumulate(clock->moved, clock->moved + parts, uint64_t{0});
  const bool slow = ++clock->partsDone >= 2 * parts && moved < uint64_t{limits.minimumRate} * secondsOfPart * parts;
  clock->part = (clock->part + 1) % parts;
  clock->moved[clock->part] = 0;
  return slow;
}

uint8_t overdue(Connection* connection, Phase phase, const HttpServerLimits& limits) {
  ConnectionClock* const clock = &connection->clock;
  switch (phase) {
    case kIdle:
      return isReached(clock->seconds, limits.idleSeconds) ? HTTP_MSG_IDLE : HTTP_MSG_ACCEPTED;
    case kHead:
      return isReached(clock->seconds, limits.headSeconds) ? HTTP_MSG_SLOW_HEAD : HTTP_MSG_ACCEPTED;
    case kPaused:
      return isReached(clock->seconds, limits.pausedSeconds) ? HTTP_MSG_FORGOTTEN : HTTP_MSG_ACCEPTED;
    case kBody:
    case kReply:
      if (isReached(clock->still, limits.stallSeconds)) return HTTP_MSG_STALLED;
      return isTooSlow(clock, limits) ? HTTP_MSG_SLOW : HTTP_MSG_ACCEPTED;
    case kApplication:
      return HTTP_MSG_ACCEPTED;
  }
  return HTTP_MSG_ACCEPTED;
}

// What a client has not taken until now is not worth the kernel's memory, for minutes after the end.
void dropUnacknowledged(const ZelPeer* peer) {
  constexpr linger kReset = {1, 0};
  setsockopt(peer_socket(peer), SOL_SOCKET, SO_LINGER, &kReset, sizeof kReset);
}

void sweep(ZelTimer* timer, void* userData) {
  auto* const server = static_cast<HttpServer*>(userData);
  zel_timer_start(timer, kSweepMilliseconds);
  Walk walk;
  while (Connection* const connection = walk.next()) {
    if (connection->server != server || server->limits == nullptr) continue;
    const Phase phase = phaseOf(connection);
    measure(connection, phase);
    const uint8_t reason = overdue(connection, phase, *server->limits);
    if (reason == HTTP_MSG_ACCEPTED) continue;
    srv_refuse(connection, reason);
    if (phase == kReply) dropUnacknowledged(peerOf(connection));
    peer_destroy(peerOf(connection));
  }
}

uint32_t halfOfTheDescriptors() {
  rlimit limit{};
  constexpr rlim_t kUnknown = 1024;
  const rlim_t descriptors = getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : kUnknown;
  return static_cast<uint32_t>(std::clamp<rlim_t>(descriptors / 2, 1, UINT32_MAX));
}

uint64_t announcedLength(const HttpMessage* request) {
  const char* const text = msg_headerText(request, HTTP_HEADER_CONTENT_LENGTH);
  return text != nullptr ? std::strtoull(text, nullptr, 10) : 0;
}

}  // namespace

void srv_refuse(Connection* connection, uint8_t reason) {
  if (reason == HTTP_MSG_ACCEPTED) return;
  ++connection->server->refused[reason];
  connection->request.message.refusal = reason;
  if (connection->server->limits == nullptr) return;
  connection->refusedFor = reason;
  // A head that was refused has left the reply without a version.
  if (isUnanswered(connection) && connection->reply.message.versionMajor == 0)
    http_replyVersionSet(&connection->reply, 1, 1);
  TRACE_NOTICE("connection is ended: %s (%d)", kRefusals[reason].name, peer_socket(peerOf(connection)));
}

void srv_answerRefusal(Connection* connection) {
  const Refusal& refusal = kRefusals[connection->refusedFor];
  if (refusal.code != 0 && isUnanswered(connection)) answer(&connection->reply, refusal);
}

void srv_limitRequest(Connection* connection) {
  const HttpServerLimits* const limits = connection->server->limits;
  HttpMessage* const request = &connection->request.message;
  request->lineLimit = limits != nullptr ? limits->lineBytes : 0;
  request->headLimit = limits != nullptr ? limits->headBytes : 0;
  request->headerLimit = limits != nullptr ? limits->headers : 0;
  request->bodyLimit = limits != nullptr ? limits->bodyBytes : 0;
  request->strict = limits != nullptr ? limits->strict : 0;
}

bool srv_admit(HttpServer* server, ZelPeer* peer) {
  const HttpServerLimits* const limits = server->limits;
  if (limits == nullptr || limits->connections == 0) return true;
  if (static_cast<uint32_t>(server->connectionCount) < limits->connections) return true;
  TRACE_ERROR("connection is refused: there are %d already", server->connectionCount);
  ++server->refused[HTTP_MSG_MANY_CONNECTIONS];
  msg_writeText(peer_outStream(peer, PEER_STREAM_BUFFERED),
                "HTTP/1.1 503 Service Unavailable\r\nConnection: close\r\nRetry-After: 1\r\nContent-Length: 0\r\n\r\n");
  return false;
}

void srv_countRequest(Connection* connection) {
  ++connection->requests;
  const HttpServerLimits* const limits = connection->server->limits;
  if (limits == nullptr || limits->requests == 0 || connection->requests < limits->requests) return;
  ++connection->server->refused[HTTP_MSG_MANY_REQUESTS];
  TRACE_NOTICE("connection ends with its request number %u (%d)", connection->requests,
               peer_socket(peerOf(connection)));
  connection->reply.message.last = 1;
}

bool isLongerThanAllowed(const HttpMessage* request) {
  return request->bodyLimit != 0 && announcedLength(request) > request->bodyLimit;
}

bool srv_checkBody(Connection* connection) {
  const HttpMessage* const request = &connection->request.message;
  if (request->state != HTTP_MSG_BODY || !isLongerThanAllowed(request)) return true;
  srv_refuse(connection, HTTP_MSG_LARGE_BODY);
  return false;
}

void srv_startSweeping(HttpServer* server) {
  if (server->limits == nullptr || server->sweeper != nullptr) return;
  server->sweeper = zel_timer_create();
  if (server->sweeper == nullptr) {
    TRACE_ERROR("unable to create timer: %s", error_string(zel_error));
    return;
  }
  zel_timer_setUserData(server->sweeper, server);
  zel_timer_setHandler(server->sweeper, sweep);
  zel_timer_start(server->sweeper, kSweepMilliseconds);
}

void srv_stopSweeping(HttpServer* server) {
  zel_timer_destroy(server->sweeper);
  server->sweeper = nullptr;
}

extern "C" {

void http_serverLimitsInitialize(HttpServerLimits* limits) {
  *limits = {};
  limits->size = sizeof *limits;
  limits->lineBytes = 8 * 1024;
  limits->headBytes = 16 * 1024;
  limits->headers = 100;
  limits->headSeconds = 10;
  limits->stallSeconds = 60;
  limits->minimumRate = 512;
  limits->rateSeconds = 10;
  limits->idleSeconds = 15;
  limits->requests = 1000;
  limits->connections = halfOfTheDescriptors();
  limits->strict = 1;
}

int http_serverLimitsSet(HttpServer* server, const HttpServerLimits* limits) {
  if (limits != nullptr && limits->size != sizeof *limits) {
    errno = EINVAL;
    TRACE_ERROR("unable to set limits: %m");
    return -1;
  }
  server->limits = limits;
  Walk walk;
  while (Connection* const connection = walk.next())
    if (connection->server == server && connection->state <= HTTP_SERVER_ACCEPTED &&
        connection->request.message.fill == 0)
      srv_limitRequest(connection);
  if (limits == nullptr)
    srv_stopSweeping(server);
  else if (server->connectionCount > 0)
    srv_startSweeping(server);
  return 0;
}

const char* http_serverRefusalName(int refusal) {
  return refusal >= 0 && refusal < HTTP_MSG_REFUSALS ? kRefusals[refusal].name : nullptr;
}

unsigned http_serverRefusalStatus(int refusal) {
  return refusal >= 0 && refusal < HTTP_MSG_REFUSALS ? kRefusals[refusal].code : 0;
}

void http_serverBodyLimitSet(HttpRequest* request, uint64_t bytes) { request->message.bodyLimit = bytes; }

}  // extern "C"
