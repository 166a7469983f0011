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
};

// By HttpMessageRefusal.
constexpr Refusal kRefusals[] = {{"none", 0},
                                 {"first-line", 400},
                                 {"version", 505},
                                 {"method", 501},
                                 {"target", 400},
                                 {"header", 400},
                                 {"long-line", 414},
                                 {"large-head", 431},
                                 {"many-headers", 431},
                                 {"large-body", 413},
                                 {"slow-head", 408},
                                 {"stalled", 408},
                                 {"slow", 408},
                                 {"idle", 0},
                                 {"many-requests", 0},
                                 {"many-connections", 503},
                                 {"forgotten", 0},
                                 {"length-and-coding", 400},
                                 {"repeated-length", 400},
                                 {"length", 400},
                                 {"coding", 400},
                                 {"chunk", 400},
                                 {"bare-line-end", 400},
                                 {"control-byte", 400},
                                 {"blank-before-colon", 400},
                                 {"folded-line", 400},
                                 {"name", 400},
                                 {"no-host", 400},
                                 {"repeated-host", 400},
                                 {"other-host", 400},
                                 {"other-version", 505},
                                 {"method-no-token", 400}};
static_assert(std::size(kRefusals) == HTTP_MSG_REFUSALS);

// RFC 9110 section 15 and RFC 6585 section 5; the standard phrases of the library are older.
constexpr std::string_view phraseOf(unsigned code) {
  switch (code) {
    case 400:
      return "Bad Request";
    case 408:
      return "Request Timeout";
    case 413:
      return "Content Too Large";
    case 414:
      return "URI Too Long";
    case 431:
      return "Request Header Fields Too Large";
    case 501:
      return "Not Implemented";
    case 503:
      return "Service Unavailable";
    default:
      return "HTTP Version Not Supported";
  }
}

// A request is there, or has begun, and nothing of its reply has been sent.
bool isUnanswered(const Connection* connection) {
  const bool begun = connection->state > HTTP_SERVER_ACCEPTED || connection->request.message.fill > 0;
  return begun && connection->reply.message.state < HTTP_MSG_BODY;
}

void answer(HttpReply* reply, unsigned code) {
  http_replyReset(reply);
  reply->statusCode = 0;
  http_replyVersionSet(reply, 1, 1);
  HttpHeader date{};
  date.code = HTTP_HEADER_DATE;
  date.date.time = std::time(nullptr);
  const std::string_view phrase = phraseOf(code);
  const bool headSent =
      http_replyStatusCodeSet(reply, code, phrase.data()) == 0 && http_replyHeaderSet(reply, &date) == 0 &&
      http_replyHeaderValueSet(reply, "Connection", "close") == 0 &&
      http_replyHeaderValueSet(reply, "Content-Type", "text/plain; charset=utf-8") == 0 &&
      http_replyHeaderValueSet(reply, "Content-Length", "%zu", phrase.size() + 1) == 0 && http_replySend(reply) == 0;
  if (!headSent) return;
  if (FILE* const body = http_replyBody(reply)) std::fprintf(body, "%s\n", phrase.data());
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
  if (connection->sendsFile) return queued + connection->staticRemaining;
  return srv_isSourceEmpty(connection) ? queued : kFarAway - connection->staticSent;
}

// The client has sent what its request's handler does not take.
bool awaitsApplication(Connection* connection) {
  char next = 0;
  return heldOfBody(connection->request.message) > 0 || peer_peek(peerOf(connection), &next, 1) > 0;
}

// What a connection is doing, and how far it is with that.
struct Look {
  Phase phase;
  uint64_t position;  // of a body read, or left of a reply; 0 in the other phases
};

Look lookAtReply(const Connection* connection, Phase otherwise) {
  const uint64_t left = leftOfReply(connection);
  return left > 0 ? Look{kReply, left} : Look{otherwise, 0};
}

Look lookAt(Connection* connection) {
  const HttpMessage& request = connection->request.message;
  const bool isPaused = request.paused != HTTP_MSG_RUNNING;
  if (connection->state <= HTTP_SERVER_ACCEPTED) {
    if (request.fill > 0) return {kHead, 0};
    // Nothing has been written since.
    const bool wasIdle = connection->clock.phase == kIdle && connection->clock.request == connection->requests;
    return wasIdle ? Look{kIdle, 0} : lookAtReply(connection, kIdle);
  }
  if (connection->state == HTTP_SERVER_RECEIVING_REQUEST) {
    if (request.state < HTTP_MSG_BODY) return {kHead, 0};
    if (request.state == HTTP_MSG_BODY && !isPaused)
      return awaitsApplication(connection) ? Look{kApplication, 0} : Look{kBody, request.bodyCount};
  }
  // A request that is paused until its reply has been taken waits for the client.
  return lookAtReply(connection, connection->state < HTTP_SERVER_SENDING_REPLY && isPaused ? kPaused : kApplication);
}

void addMoved(ConnectionClock* clock, uint64_t bytes) {
  uint32_t* const moved = &clock->moved[clock->part];
  *moved = static_cast<uint32_t>(std::min<uint64_t>(*moved + bytes, UINT32_MAX));
}

// Measures what the last second has moved.
void measure(Connection* connection, const Look& look) {
  ConnectionClock* const clock = &connection->clock;
  if (clock->phase != look.phase || clock->request != connection->requests) {
    *clock = {};
    clock->phase = look.phase;
    clock->request = connection->requests;
    clock->position = look.position;
    return;
  }
  ++clock->seconds;
  clock->still = look.position == clock->position ? clock->still + 1 : 0;
  if (look.phase == kBody)
    addMoved(clock, look.position - clock->position);
  else  // what was added to a reply meanwhile hides what has left
    addMoved(clock, look.position > clock->position ? UINT32_MAX : clock->position - look.position);
  clock->position = look.position;
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
    const Look look = lookAt(connection);
    measure(connection, look);
    const uint8_t reason = overdue(connection, look.phase, *server->limits);
    if (reason == HTTP_MSG_ACCEPTED) continue;
    srv_refuse(connection, reason);
    if (look.phase == kReply) dropUnacknowledged(peerOf(connection));
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
  const unsigned code = kRefusals[connection->refusedFor].code;
  if (code != 0 && isUnanswered(connection)) answer(&connection->reply, code);
}

void srv_limitRequest(Connection* connection) {
  static constexpr HttpServerLimits kNone{};
  const HttpServerLimits& limits = connection->server->limits != nullptr ? *connection->server->limits : kNone;
  HttpMessage* const request = &connection->request.message;
  request->lineLimit = limits.lineBytes;
  request->headLimit = limits.headBytes;
  request->headerLimit = limits.headers;
  request->bodyLimit = limits.bodyBytes;
  request->strict = limits.strict;
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
