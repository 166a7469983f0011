// What a server puts up with: the limits, and the clock that watches them.
#include <krohttp/server.h>

#include <linux/sockios.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <zel/error.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
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
                                 {"method-no-token", 400},
                                 {"host", 400}};
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
  rp_startOver(reply, 1, 1);
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

// The client has sent what its request's handler does not take.
bool awaitsApplication(Connection* connection) {
  char next = 0;
  return heldOfBody(connection->request.message) > 0 || peer_peek(peerOf(connection), &next, 1) > 0;
}

// What a connection is doing, but for its output, which has a clock of its own.
Phase phaseOf(Connection* connection, bool hasOutput) {
  const HttpMessage& request = connection->request.message;
  const bool isPaused = request.paused != HTTP_MSG_RUNNING;
  if (connection->state <= HTTP_SERVER_ACCEPTED) return request.fill > 0 ? kHead : hasOutput ? kReply : kIdle;
  if (connection->state == HTTP_SERVER_RECEIVING_REQUEST) {
    if (request.state < HTTP_MSG_BODY) return kHead;
    if (request.state == HTTP_MSG_BODY && !isPaused) return awaitsApplication(connection) ? kApplication : kBody;
  }
  // A request that is paused until its reply has been taken waits for the client.
  return connection->state < HTTP_SERVER_SENDING_REPLY && isPaused && !hasOutput ? kPaused : kApplication;
}

void keptUp(Progress* progress, uint64_t position) {
  *progress = {};
  progress->runs = true;
  progress->position = position;
}

// Measures what the last second has moved.
void measure(Progress* progress, uint64_t position, uint64_t bytes) {
  progress->still = bytes == 0 ? progress->still + 1 : 0;
  uint32_t* const moved = &progress->moved[progress->part];
  *moved = static_cast<uint32_t>(std::min<uint64_t>(*moved + bytes, UINT32_MAX));
  progress->position = position;
}

// --- what is sent ---

// What the kernel still holds because the client has not taken it.
uint64_t unacknowledged(const ZelPeer* peer) {
  int bytes = 0;
  return ioctl(peer_socket(peer), SIOCOUTQ, &bytes) == 0 && bytes > 0 ? static_cast<uint64_t>(bytes) : 0;
}

// What the client still has to take. A descriptor without an end has more than anybody takes, as long as it has any.
uint64_t leftOfOutput(const Connection* connection) {
  constexpr uint64_t kEndless = UINT64_MAX / 2;
  const ZelPeer* const peer = connection->reply.message.peer;
  const uint64_t queued = peer_bytesQueued(peer) + unacknowledged(peer);
  if (connection->staticFd < 0) return queued;
  return queued + (connection->sendsFile ? connection->staticRemaining : srv_isSourceEmpty(connection) ? 0 : kEndless);
}

// How much the client's system has acknowledged since the connection began. False where nobody knows: over a Unix
// socket, or on an old kernel.
bool acknowledged(const ZelPeer* peer, uint64_t* bytes) {
  tcp_info info{};
  socklen_t length = sizeof info;
  constexpr socklen_t kNeeded = offsetof(tcp_info, tcpi_bytes_acked) + sizeof info.tcpi_bytes_acked;
  if (getsockopt(peer_socket(peer), IPPROTO_TCP, TCP_INFO, &info, &length) < 0 || length < kNeeded) return false;
  *bytes = info.tcpi_bytes_acked;
  return true;
}

// Looks at how the client takes what is sent to it. Who has taken all that was there a second ago keeps up, however
// little that was: the rest is the application's pace.
void lookAtOutput(Connection* connection, uint64_t left) {
  ConnectionClock* const clock = &connection->clock;
  Progress* const output = &clock->output;
  if (left == 0) {
    output->runs = false;
    return;
  }
  uint64_t taken = 0;
  const bool counted = acknowledged(peerOf(connection), &taken);
  const uint64_t written = connection->staticSent + connection->reply.message.bodyWrites;
  if (!output->runs) {
    keptUp(output, taken);
  } else if (counted) {
    if (taken - output->position >= clock->left)
      keptUp(output, taken);
    else
      measure(output, taken, taken - output->position);
  } else if (left > clock->left || (left == clock->left && written != clock->written)) {
    keptUp(output, taken);  // what was added hides what has been taken
  } else {
    measure(output, taken, clock->left - left);
  }
  clock->left = left;
  clock->written = written;
}

// --- what is overdue ---

void lookAtRequest(Connection* connection, Phase phase) {
  ConnectionClock* const clock = &connection->clock;
  const uint64_t position = connection->request.message.bodyCount;
  if (clock->phase != phase || clock->request != connection->requests) {
    clock->phase = phase;
    clock->request = connection->requests;
    clock->seconds = 0;
    keptUp(&clock->body, position);
    return;
  }
  ++clock->seconds;
  measure(&clock->body, position, position - clock->body.position);
}

bool isReached(uint32_t seconds, uint32_t limit) { return limit != 0 && seconds >= limit; }

// Looks at the last rateSeconds whenever a part of them, a second at least, is over. The first ones are free.
bool isTooSlow(Progress* progress, const HttpServerLimits& limits) {
  if (limits.minimumRate == 0 || limits.rateSeconds == 0) return false;
  const uint32_t parts = std::min(limits.rateSeconds, Progress::kParts);
  const uint32_t secondsOfPart = (limits.rateSeconds + parts - 1) / parts;
  if (++progress->partSeconds < secondsOfPart) return false;
  progress->partSeconds = 0;
  const uint64_t moved = std::accumulate(progress->moved, progress->moved + parts, uint64_t{0});
  const bool slow = ++progress->partsDone >= 2 * parts && moved < uint64_t{limits.minimumRate} * secondsOfPart * parts;
  progress->part = (progress->part + 1) % parts;
  progress->moved[progress->part] = 0;
  return slow;
}

uint8_t overdue(Progress* progress, const HttpServerLimits& limits) {
  if (isReached(progress->still, limits.stallSeconds)) return HTTP_MSG_STALLED;
  return isTooSlow(progress, limits) ? HTTP_MSG_SLOW : HTTP_MSG_ACCEPTED;
}

uint8_t overdueRequest(ConnectionClock* clock, const HttpServerLimits& limits) {
  switch (clock->phase) {
    case kIdle:
      return isReached(clock->seconds, limits.idleSeconds) ? HTTP_MSG_IDLE : HTTP_MSG_ACCEPTED;
    case kHead:
      return isReached(clock->seconds, limits.headSeconds) ? HTTP_MSG_SLOW_HEAD : HTTP_MSG_ACCEPTED;
    case kPaused:
      return isReached(clock->seconds, limits.pausedSeconds) ? HTTP_MSG_FORGOTTEN : HTTP_MSG_ACCEPTED;
    case kBody:
      return overdue(&clock->body, limits);
    default:
      return HTTP_MSG_ACCEPTED;
  }
}

// What a client has not taken until now is not worth the kernel's memory, for minutes after the end.
void dropUnacknowledged(const ZelPeer* peer) {
  constexpr linger kReset = {1, 0};
  setsockopt(peer_socket(peer), SOL_SOCKET, SO_LINGER, &kReset, sizeof kReset);
}

// The connection has been idle since the last look: nothing is on its way.
bool isStillIdle(const Connection* connection) {
  const ConnectionClock& clock = connection->clock;
  return connection->state <= HTTP_SERVER_ACCEPTED && connection->request.message.fill == 0 && clock.phase == kIdle &&
         clock.request == connection->requests;
}

void sweep(ZelTimer* timer, void* userData) {
  auto* const server = static_cast<HttpServer*>(userData);
  zel_timer_start(timer, kSweepMilliseconds);
  Walk walk;
  while (Connection* const connection = walk.next()) {
    if (connection->server != server || server->limits == nullptr) continue;
    ConnectionClock* const clock = &connection->clock;
    const uint64_t left = isStillIdle(connection) ? 0 : leftOfOutput(connection);
    lookAtOutput(connection, left);
    lookAtRequest(connection, phaseOf(connection, left > 0));
    uint8_t reason = HTTP_MSG_ACCEPTED;
    if (clock->output.runs) reason = overdue(&clock->output, *server->limits);
    const bool isUntaken = reason != HTTP_MSG_ACCEPTED;
    if (!isUntaken) reason = overdueRequest(clock, *server->limits);
    if (reason == HTTP_MSG_ACCEPTED) continue;
    srv_refuse(connection, reason);
    if (isUntaken) dropUnacknowledged(peerOf(connection));
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
  request->neverWaits = connection->server->limits != nullptr;
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

bool srv_isBodyTooLong(const HttpMessage* request) {
  return request->bodyLimit != 0 && announcedLength(request) > request->bodyLimit;
}

bool srv_checkBody(Connection* connection) {
  const HttpMessage* const request = &connection->request.message;
  if (request->state != HTTP_MSG_BODY || !srv_isBodyTooLong(request)) return true;
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
