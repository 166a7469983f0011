#include <krohttp/server.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <strings.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zel/connection.h>
#include <zel/error.h>
#include <zel/timer.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "memory.h"
#include "message_internal.h"
#include "reading.h"
#include "server_connection.h"
#include "watch.h"

#define TRACE_ZONE "http-server"
#include "trace.h"

namespace {

constexpr size_t kBlock = 4096;
// A message buffer that has grown beyond this is not kept for the next request of its connection.
constexpr uint32_t kKeptBuffer = 2048;
// More than a socket is sure to take at once.
constexpr size_t kLargeReply = 65536;

// --- states ----------------------------------------------------------------------------------------------------------

const char* nameOf(HttpServerState state) {
  static constexpr const char* kNames[] = {
      "INIT", "ACCEPTED", "RECEIVING_REQUEST", "REQUEST_RECEIVED", "SENDING_REPLY", "REPLY_SENT", "CLOSED", "ERROR"};
  return kNames[state];
}

void switchTo(Connection* connection, HttpServerState state) {
  TRACE_INFO("switch server state from %s to %s", nameOf(connection->state), nameOf(state));
  connection->state = state;
}

void expect(const Connection* connection, HttpServerState state) {
  if (connection->state != state)
    TRACE_ERROR("wrong server state: %s, should be %s", nameOf(connection->state), nameOf(state));
}

// Both checks look at the reply's owner type.
void checkOwnership(const Connection* connection) {
  const HttpMessage& request = connection->request.message;
  const HttpMessage& reply = connection->reply.message;
  const bool owned = reply.ownerType == HTTP_MSG_OWNED_BY_SERVER;
  if (reply.owner != connection->server || !owned) TRACE_BROKEN("reply is not owned by server");
  if (request.owner != connection->server || !owned) TRACE_BROKEN("request is not owned by server");
}

// --- small steps -----------------------------------------------------------------------------------------------------

bool setTcpOption(int socket, int option, int value) {
  return setsockopt(socket, IPPROTO_TCP, option, &value, sizeof value) == 0;
}

void uncork(Connection* connection) {
  if (!connection->corked || connection->uncorked) return;
  connection->uncorked = true;
  setTcpOption(peer_socket(peerOf(connection)), TCP_CORK, 0);
}

// Sends a partial segment at once, and holds the next one back again. One that has to wait for its reader would be held
// back as well, for the 200 ms of the cork.
void pushOut(Connection* connection, ZelPeer* peer) {
  if (connection->lagging) return uncork(connection);
  if (!connection->corked || connection->uncorked) return;
  const int socket = peer_socket(peer);
  setTcpOption(socket, TCP_CORK, 0);
  setTcpOption(socket, TCP_CORK, 1);
}

void recork(Connection* connection) {
  if (!connection->uncorked) return;
  connection->uncorked = false;
  setTcpOption(peer_socket(peerOf(connection)), TCP_CORK, 1);
}

// Nobody else writes this reply any more.
void dismissFollower(Connection* connection) {
  ReplyFollower* const follower = connection->follower;
  connection->follower = nullptr;
  if (follower != nullptr) follower->gone(follower);
}

void closeOpenBody(HttpMessage* message) {
  if (message->body != nullptr) std::fclose(message->body);
  message->body = nullptr;
}

void resetStatic(Connection* connection) {
  if (connection->staticFd >= 0) close(connection->staticFd);
  connection->staticFd = -1;
  connection->staticSize = 0;
  connection->staticWriter = nullptr;
  connection->staticRemaining = 0;
  connection->staticSent = 0;
}

bool asksToClose(HttpMessage* message, HttpHeader* header) {
  const char* const text = msg_headerText(message, HTTP_HEADER_CONNECTION);
  if (text == nullptr || strcasecmp(text, "keep-alive") == 0) return false;  // what nearly all messages say
  header->code = HTTP_HEADER_CONNECTION;
  // Who cannot read it, for want of memory, must not let the other side wait for an end that was announced.
  const bool asked = http_hdrFactory(header, text) < 0 || (header->connection.flags & HTTP_CONNECTION_CLOSE) != 0;
  http_hdrCleanup(header);
  return asked;
}

// RFC 9112 section 9.3. What is left of a body that was not read to its end would pass for a request.
bool keepsAlive(Connection* connection) {
  HttpHeader header{};
  return !connection->server->stopped && !connection->reply.message.last &&
         !asksToClose(&connection->request.message, &header) && connection->request.message.versionMinor != 0 &&
         !asksToClose(&connection->reply.message, &header) && !connection->request.message.bodyCut;
}

// Without a handler of the application's, bodies are read and dropped.
int dropBody(FILE* body) {
  char block[kBlock];
  while (fread_unlocked(block, 1, sizeof block, body) == sizeof block) {
  }
  return 0;
}

void prepareMessages(Connection* connection) {
  HttpMessage* const messages[] = {&connection->request.message, &connection->reply.message};
  for (HttpMessage* message : messages) message->owner = connection->server;
  connection->request.message.mode = HTTP_MSG_READING;
  connection->reply.message.mode = HTTP_MSG_WRITING;
  srv_limitRequest(connection);
}

// --- stopping --------------------------------------------------------------------------------------------------------

void notifyStopped(ZelTimer* timer, void* userData) {
  auto* const server = static_cast<HttpServer*>(userData);
  zel_timer_destroy(timer);
  if (server->stoppedHandler != nullptr) server->stoppedHandler(server);
}

// From the loop, never from inside the close handler of the last connection.
void srv_hasStopped(HttpServer* server) {
  if (!server->stopped || server->connectionCount != 0 || server->stoppedHandler == nullptr) return;
  ZelTimer* const timer = zel_timer_create();
  if (timer == nullptr) {
    TRACE_ERROR("unable to create timer: %s", error_string(zel_error));
    return;
  }
  zel_timer_setUserData(timer, server);
  zel_timer_setHandler(timer, notifyStopped);
  zel_timer_start(timer, 0);
}

bool srv_handleRead(ZelPeer* peer);
bool srv_handleWriteDone(ZelPeer* peer);
bool srv_handleWriteFile(ZelPeer* peer);
bool srv_handleWriteFileReplyDone(ZelPeer* peer);

// --- going on without an event ---------------------------------------------------------------------------------------

// No read event comes any more for these.
bool hasBodyAtHand(const Connection* connection) {
  const HttpMessage& request = connection->request.message;
  return request.state >= HTTP_MSG_DONE || heldOfBody(request) > 0;
}

bool readOn(Connection* connection, ZelPeer* peer) {
  peer_setEventHandler(peer, PEER_EVENT_DATA, PEER_DIRECTION_IN, srv_handleRead);
  return !hasBodyAtHand(connection) || srv_handleRead(peer);
}

// No event comes for a reply that is completed after all of it has left, for what has been read of a body before its
// request was paused, nor from a descriptor that has nothing to send yet, and those for a body whose handler does not
// read would come all the time: a timer goes on with them.
void goOnLater(ZelTimer*, void* userData) {
  auto* const connection = static_cast<Connection*>(userData);
  ZelPeer* const peer = peerOf(connection);
  if (connection->state == HTTP_SERVER_RECEIVING_REQUEST && connection->request.message.paused == HTTP_MSG_RUNNING) {
    if (!readOn(connection, peer)) peer_destroy(peer);
    return;
  }
  if (connection->state != HTTP_SERVER_SENDING_REPLY) return;
  if (connection->staticFd >= 0) {
    peer_setEventHandler(peer, PEER_EVENT_WRITABLE, PEER_DIRECTION_OUT, srv_handleWriteFile);
  } else if (connection->reply.message.state == HTTP_MSG_DONE && peer_bytesQueued(peer) == 0) {
    if (!srv_handleWriteDone(peer)) peer_destroy(peer);
  }
}

bool startLater(Connection* connection, unsigned milliseconds) {
  if (connection->later == nullptr) connection->later = zel_timer_create();
  if (connection->later == nullptr) {
    TRACE_ERROR("unable to create timer: %s", error_string(zel_error));
    return false;
  }
  zel_timer_setUserData(connection->later, connection);
  zel_timer_setHandler(connection->later, goOnLater);
  return zel_timer_start(connection->later, milliseconds);
}

// --- reading ---------------------------------------------------------------------------------------------------------

// How long to leave alone what is ready all the time but does not get on.
constexpr unsigned kPauseMilliseconds = 10;

// What a step of reading tells srv_handleRead(): to go on with the next one, or what to return.
constexpr int kGoOn = -1;
constexpr int kDrop = 0;
constexpr int kHandled = 1;

int srv_handleReadInit(Connection* connection, ZelPeer* peer) {
  expect(connection, HTTP_SERVER_ACCEPTED);
  errno = 0;
  if (http_requestParse(&connection->request) == 0) {
    recork(connection);
    switchTo(connection, HTTP_SERVER_RECEIVING_REQUEST);
    return kGoOn;
  }
  if (errno == ECONNRESET || feof_unlocked(connection->request.message.stream)) {
    TRACE_NOTICE("keep-alive connection closed (%d)", peer_socket(peer));
    peer_destroy(peer);
    return kHandled;
  }
  srv_refuse(connection, connection->request.message.refusal);
  switchTo(connection, HTTP_SERVER_ERROR);
  return kDrop;
}

int srv_handleReadHeader(Connection* connection, ZelPeer* peer) {
  HttpRequest* const request = &connection->request;
  HttpReply* const reply = &connection->reply;
  expect(connection, HTTP_SERVER_RECEIVING_REQUEST);
  TRACE_INFO("reading enveloppe (%d)", peer_socket(peer));
  if (http_requestParse(request) < 0) {
    TRACE_ERROR("unable to parse request");
    srv_refuse(connection, request->message.refusal);
    return kDrop;
  }
  if (request->message.state > HTTP_MSG_HEADERS) {
    srv_countRequest(connection);
    http_replyVersionSet(reply, request->message.versionMajor, request->message.versionMinor);
    reply->message.bodyless = request->method == HTTP_METHOD_HEAD;
    const Watch watch(connection);
    const int result =
        connection->server->requestHandler != nullptr ? connection->server->requestHandler(request, reply) : -1;
    if (watch.gone()) return kHandled;
    if (result < 0 || !srv_checkBody(connection)) return kDrop;
  }
  if (request->message.state == HTTP_MSG_DONE) switchTo(connection, HTTP_SERVER_REQUEST_RECEIVED);
  return kGoOn;
}

// The body's handler was offered data and has read none. Offering it again at once would never end.
int bodyStandsStill(Connection* connection, ZelPeer* peer) {
  FILE* const body = connection->request.message.body;
  if (body != nullptr && (ferror_unlocked(body) || feof_unlocked(body))) {
    TRACE_ERROR("unable to read request body");
    return kDrop;
  }
  peer_setEventHandler(peer, PEER_EVENT_DATA, PEER_DIRECTION_IN, nullptr);
  return startLater(connection, kPauseMilliseconds) ? kHandled : kDrop;
}

int srv_handleReadBody(Connection* connection, ZelPeer* peer) {
  HttpRequest* const request = &connection->request;
  expect(connection, HTTP_SERVER_RECEIVING_REQUEST);
  TRACE_INFO("should handle body (%d)", peer_socket(peer));
  FILE* const body = http_requestBody(request);
  if (body == nullptr) return kGoOn;  // failed, as the next look at its state finds

  const ReadMark before = readMark(request->message);
  const Watch watch(connection);
  const int result = connection->server->bodyHandler != nullptr
                         ? connection->server->bodyHandler(request, &connection->reply, body)
                         : dropBody(body);
  if (watch.gone()) return kHandled;

  if (http_requestNeedMoreData(request) && request->message.body != nullptr) clearerr_unlocked(request->message.body);
  if (request->message.refusal != HTTP_MSG_ACCEPTED) {
    srv_refuse(connection, request->message.refusal);
    return kDrop;
  }
  connection->standsStill = readMark(request->message) == before;
  if (request->message.paused != HTTP_MSG_RUNNING) {
    TRACE_INFO("request is paused, stop processing it");
    return kHandled;
  }
  TRACE_INFO("handled body state is now %u", static_cast<unsigned>(request->message.state));
  if (result < 0 || request->message.state == HTTP_MSG_DONE) {
    closeOpenBody(&request->message);
    switchTo(connection, HTTP_SERVER_REQUEST_RECEIVED);
  } else if (!http_requestNeedMoreData(request) && connection->standsStill) {
    return bodyStandsStill(connection, peer);
  }
  return result < 0 ? kDrop : kGoOn;
}

int srv_handleReadDone(Connection* connection, ZelPeer* peer) {
  const HttpMessage& reply = connection->reply.message;
  expect(connection, HTTP_SERVER_REQUEST_RECEIVED);
  TRACE_NOTICE("finished processing message (%d)", peer_socket(peer));
  peer_setEventHandler(peer, PEER_EVENT_DRAINED, PEER_DIRECTION_OUT, srv_handleWriteDone);
  switchTo(connection, HTTP_SERVER_SENDING_REPLY);
  const size_t queued = peer_bytesQueued(peer);
  if (queued > kLargeReply) connection->lagging = true;
  TRACE_NOTICE("reply was already sent ? %d %u", static_cast<int>(queued), static_cast<unsigned>(reply.state));
  if (queued == 0 && reply.state > HTTP_MSG_BODY) {
    TRACE_NOTICE("reply was already sent");
    // No event would come for a failed reply either.
    return srv_handleWriteDone(peer) ? kHandled : kDrop;
  }
  // What was written before this has left without an event.
  if (queued == 0 && connection->follower != nullptr) connection->follower->drained(connection->follower);
  return kHandled;
}

// A request is being answered: what can be read now is the end of the connection, or a request to keep for later.
bool lookAhead(ZelPeer* peer) {
  char next = '\0';
  if (peer_peek(peer, &next, 1) < 1) {
    TRACE_NOTICE("client closed the connection");
    peer_destroy(peer);
  } else {
    TRACE_NOTICE("client is pipelining request (%c), make it wait", next);
    peer_setEventHandler(peer, PEER_EVENT_DATA, PEER_DIRECTION_IN, nullptr);
  }
  return true;
}

int readStep(Connection* connection, ZelPeer* peer) {
  switch (connection->request.message.state) {
    case HTTP_MSG_FIRST_LINE:
      if (connection->server->stopped) {
        peer_destroy(peer);
        return kHandled;
      }
      if (connection->state == HTTP_SERVER_ACCEPTED) {
        const int result = srv_handleReadInit(connection, peer);
        if (result != kGoOn) return result;
      }
      return srv_handleReadHeader(connection, peer);
    case HTTP_MSG_HEADERS:
      return srv_handleReadHeader(connection, peer);
    case HTTP_MSG_BODY:
      return srv_handleReadBody(connection, peer);
    case HTTP_MSG_DONE:
      // All of the body had been read when its handler paused, but not all of it had been taken.
      if (heldOfBody(connection->request.message) > 0) return srv_handleReadBody(connection, peer);
      if (connection->state == HTTP_SERVER_RECEIVING_REQUEST) {
        closeOpenBody(&connection->request.message);
        switchTo(connection, HTTP_SERVER_REQUEST_RECEIVED);
      }
      return srv_handleReadDone(connection, peer);
    default:
      TRACE_ERROR("unknown state");
      return kDrop;
  }
}

bool readAvailable(Connection* connection, ZelPeer* peer, const Watch<Connection>& watch) {
  while (connection->request.message.paused == HTTP_MSG_RUNNING) {
    const int result = readStep(connection, peer);
    if (result != kGoOn) return result != kDrop;
    if (watch.gone()) return true;
    if (http_requestNeedMoreData(&connection->request)) {
      TRACE_INFO("more data is needed");
      break;
    }
  }
  return true;
}

bool srv_handleRead(ZelPeer* peer) {
  Connection* const connection = connectionOf(peer);
  checkOwnership(connection);
  TRACE_INFO("connection available for read (%d)", peer_socket(peer));
  if (connection->state >= HTTP_SERVER_SENDING_REPLY) return lookAhead(peer);

  const Watch watch(connection);
  const bool handled = readAvailable(connection, peer, watch);
  // A temporized request has sat this pass out; the next event goes on with it.
  if (!watch.gone() && connection->request.message.paused == HTTP_MSG_TEMPORIZED) {
    connection->request.message.paused = HTTP_MSG_RUNNING;
    if (hasBodyAtHand(connection)) startLater(connection, connection->standsStill ? kPauseMilliseconds : 0);
  }
  return handled;
}

// --- the reply has left ----------------------------------------------------------------------------------------------

// The next request begins with what the last one left of the buffers, unless it was an unusually large one.
void trimBuffer(HttpMessage* message) {
  if (message->bufferSize > kKeptBuffer) msg_bufferRelease(message);
}

void awaitNextRequest(Connection* connection, ZelPeer* peer) {
  HttpMessage* const request = &connection->request.message;
  HttpMessage* const reply = &connection->reply.message;
  TRACE_NOTICE("no, prepare to handle new request");
  dismissFollower(connection);
  closeOpenBody(request);
  closeOpenBody(reply);
  http_requestReset(&connection->request);
  http_replyReset(&connection->reply);
  trimBuffer(request);
  trimBuffer(reply);
  prepareMessages(connection);
  reply->bodyless = 0;
  connection->replyDoneTold = false;
  connection->lagging = false;
  // A request that was paused and never resumed keeps its connection paused.
  if (request->paused != HTTP_MSG_PAUSED)
    peer_setEventHandler(peer, PEER_EVENT_DATA, PEER_DIRECTION_IN, srv_handleRead);
  peer_setEventHandler(peer, PEER_EVENT_DRAINED, PEER_DIRECTION_OUT, nullptr);
  peer_setEventHandler(peer, PEER_EVENT_WRITABLE, PEER_DIRECTION_OUT, nullptr);
  switchTo(connection, HTTP_SERVER_ACCEPTED);
}

bool srv_handleWriteDone(ZelPeer* peer) {
  Connection* const connection = connectionOf(peer);
  HttpMessage* const reply = &connection->reply.message;
  pushOut(connection, peer);
  checkOwnership(connection);
  TRACE_NOTICE("connection output buffer is empty (%d)", peer_socket(peer));
  expect(connection, HTTP_SERVER_SENDING_REPLY);
  if (connection->staticFd >= 0) return srv_handleWriteFileReplyDone(peer);
  if (reply->state == HTTP_MSG_FAILED) return false;
  if (reply->state != HTTP_MSG_DONE) {
    connection->lagging = true;
    if (connection->follower != nullptr) connection->follower->drained(connection->follower);
    return true;
  }

  TRACE_NOTICE("response sent");
  http_replyDone(&connection->reply);
  if (connection->server->replyDoneHandler != nullptr) {
    TRACE_NOTICE("calling reply done handler");
    connection->replyDoneTold = true;
    const Watch watch(connection);
    connection->server->replyDoneHandler(&connection->reply, &connection->request);
    if (watch.gone()) return true;
  }
  reply->state = HTTP_MSG_ACKNOWLEDGED;
  switchTo(connection, HTTP_SERVER_REPLY_SENT);
  ++connection->server->repliesSent;

  TRACE_NOTICE("do we need to close connection ? ");
  if (keepsAlive(connection)) {
    awaitNextRequest(connection, peer);
  } else {
    TRACE_NOTICE("yes, closing connection");
    switchTo(connection, HTTP_SERVER_CLOSED);
    peer_destroy(peer);
  }
  return true;
}

// Before the request is complete the event is of no use to anybody but a follower.
bool srv_handleEarlyDrained(ZelPeer* peer) {
  Connection* const connection = connectionOf(peer);
  peer_setEventHandler(peer, PEER_EVENT_DRAINED, PEER_DIRECTION_OUT, nullptr);
  connection->lagging = true;
  if (connection->follower != nullptr) connection->follower->drained(connection->follower);
  return true;
}

// --- closing ---------------------------------------------------------------------------------------------------------

// Tells the application that its request or reply was cut off.
void reportClose(Connection* connection, ZelPeer* peer) {
  HttpServer* const server = connection->server;
  HttpRequest* const request = &connection->request;
  HttpReply* const reply = &connection->reply;
  switch (connection->state) {
    case HTTP_SERVER_INIT:
    case HTTP_SERVER_ACCEPTED:
      TRACE_NOTICE("closing kept-alive connection");
      break;
    case HTTP_SERVER_RECEIVING_REQUEST:
      if (connection->refusedFor == HTTP_MSG_ACCEPTED) TRACE_ERROR("client closed connection while reading request");
      if (server->errorHandler != nullptr) server->errorHandler(request, reply);
      break;
    case HTTP_SERVER_SENDING_REPLY:
      TRACE_NOTICE("client closed connection while sending reply");
      reply->message.state = HTTP_MSG_ACKNOWLEDGED;
      peer_setEventHandler(peer, PEER_EVENT_DRAINED, PEER_DIRECTION_OUT, nullptr);
      switchTo(connection, HTTP_SERVER_REPLY_SENT);
      if (server->replyDoneHandler != nullptr && !connection->replyDoneTold) server->replyDoneHandler(reply, request);
      break;
    case HTTP_SERVER_CLOSED:
      TRACE_NOTICE("server was already closed");
      break;
    case HTTP_SERVER_REQUEST_RECEIVED:
    case HTTP_SERVER_REPLY_SENT:
    case HTTP_SERVER_ERROR:
      if (connection->refusedFor == HTTP_MSG_ACCEPTED)
        TRACE_ERROR("closed while in state %s", nameOf(connection->state));
      if (server->errorHandler == nullptr) break;
      if (connection->refusedFor == HTTP_MSG_ACCEPTED) TRACE_ERROR("calling error handler");
      server->errorHandler(request, reply);
      break;
  }
}

// Nothing may make a reply that was cut off look complete: a chunked body gets no last chunk any more.
void releaseMessages(Connection* connection) {
  HttpMessage* const reply = &connection->reply.message;
  if (reply->state == HTTP_MSG_BODY) reply->state = HTTP_MSG_FAILED;
  closeOpenBody(&connection->request.message);
  closeOpenBody(reply);
  http_requestCleanup(&connection->request);
  http_replyCleanup(&connection->reply);
}

bool srv_handleClose(ZelPeer* peer) {
  Connection* const connection = connectionOf(peer);
  HttpServer* const server = connection->server;
  Watch<Connection>::tellGone(connection);
  checkOwnership(connection);
  TRACE_NOTICE("connection closed (%d)", peer_socket(peer));
  if (!server->stopped) reportClose(connection, peer);
  srv_answerRefusal(connection);
  dismissFollower(connection);
  if (connection->staticFd >= 0) {
    TRACE_NOTICE("cleanup static file descriptor");
    resetStatic(connection);
  }
  releaseMessages(connection);
  zel_timer_destroy(connection->later);
  unlinkConnection(connection);
  std::free(connection);
  if (--server->connectionCount == 0) srv_stopSweeping(server);
  srv_hasStopped(server);
  return true;
}

// --- accepting -------------------------------------------------------------------------------------------------------

void setSocketOptions(Connection* connection, ZelPeer* peer) {
  const int socket = peer_socket(peer);
  if (!setTcpOption(socket, TCP_NODELAY, 1)) TRACE_ERROR("unable to enable TCP_NODELAY: %m");
  connection->corked = setTcpOption(socket, TCP_CORK, 1);
  if (!connection->corked) TRACE_ERROR("unable to enable TCP_CORK: %m");
}

bool attachStreams(Connection* connection, ZelPeer* peer) {
  FILE* const in = peer_inStream(peer);
  if (in == nullptr) {
    TRACE_ERROR("unable to open request stream: %m");
    return false;
  }
  FILE* const out = peer_outStream(peer, PEER_STREAM_BUFFERED);
  if (out == nullptr) {
    TRACE_ERROR("unable to open reply stream: %m");
    return false;
  }
  http_replyInitialize(&connection->reply);
  http_requestInitialize(&connection->request);
  prepareMessages(connection);
  connection->reply.message.ownerType = HTTP_MSG_OWNED_BY_SERVER;
  connection->request.message.ownerType = HTTP_MSG_OWNED_BY_SERVER;
  http_msgStreamSet(&connection->request.message, in);
  http_msgStreamSet(&connection->reply.message, out);
  msg_setPeer(&connection->request.message, peer);
  msg_setPeer(&connection->reply.message, peer);
  return true;
}

bool srv_handleAccept(ZelPeer* peer) {
  auto* const server = static_cast<HttpServer*>(peer_userData(peer));
  TRACE_NOTICE("accepting connection (%d)", peer_socket(peer));
  if (!srv_admit(server, peer)) return false;
  auto owned = makeZeroed<Connection>();
  if (!owned) {
    TRACE_ERROR("unable to allocate resource for peer context: %m");
    return false;
  }
  Connection* const connection = owned.get();
  connection->server = server;
  connection->staticFd = -1;
  setSocketOptions(connection, peer);
  if (!attachStreams(connection, peer)) return false;

  peer_setUserData(peer, static_cast<HttpServerConnection*>(owned.release()));
  peer_setEventHandler(peer, PEER_EVENT_DATA, PEER_DIRECTION_IN, srv_handleRead);
  peer_setEventHandler(peer, PEER_EVENT_WRITABLE, PEER_DIRECTION_OUT, nullptr);
  peer_setEventHandler(peer, PEER_EVENT_CLOSE, PEER_DIRECTION_NONE, srv_handleClose);
  checkOwnership(connection);
  linkConnection(connection);
  ++server->connectionCount;
  srv_startSweeping(server);
  switchTo(connection, HTTP_SERVER_ACCEPTED);
  return true;
}

// --- files and descriptors -------------------------------------------------------------------------------------------

// How much one step may send.
size_t stepSize(const Connection* connection) {
  return connection->staticSize == -1 ? kBlock : std::min<uint64_t>(kBlock, connection->staticRemaining);
}

// Every way to send takes one step and leaves its errno, 0 after a success.

bool allSent(const Connection* connection) {
  return connection->staticSize != -1 && connection->staticRemaining == 0 && connection->staticWriter != nullptr;
}

// A signal is no failure. errno is 0 after a success.
template <typename Call>
ssize_t retried(Call call) {
  ssize_t count = 0;
  do {
    errno = 0;
    count = call();
  } while (count < 0 && errno == EINTR);
  return count;
}

ssize_t srv_writeWithSendfile(ZelPeer* peer, HttpServerConnection* connection) {
  const size_t size = stepSize(static_cast<Connection*>(connection));
  const ssize_t count = retried([&] { return sendfile(peer_socket(peer), connection->staticFd, nullptr, size); });
  if (count < 0 && errno != EAGAIN) TRACE_ERROR("unable to execute sendfile: %m");
  return count;
}

ssize_t srv_writeWithSplice(ZelPeer* peer, HttpServerConnection* connection) {
  const size_t size = stepSize(static_cast<Connection*>(connection));
  const ssize_t count = retried([&] {
    return splice(connection->staticFd, nullptr, peer_socket(peer), nullptr, size,
                  SPLICE_F_MOVE | SPLICE_F_NONBLOCK | SPLICE_F_MORE);
  });
  if (count < 0 && errno != EAGAIN) TRACE_ERROR("unable to execute splice: %m");
  return count;
}

ssize_t srv_writeByCopy(ZelPeer* peer, HttpServerConnection* connection) {
  char block[kBlock];
  const size_t size = stepSize(static_cast<Connection*>(connection));
  const ssize_t count = retried([&] { return read(connection->staticFd, block, size); });
  if (count < 0) {
    if (errno != EAGAIN) TRACE_ERROR("unable to execute read: %m");
    return count;
  }
  TRACE_INFO("read %u bytes from file", static_cast<unsigned>(count));
  if (count > 0) {
    // What the socket does not take is kept by the stream: nothing is lost, and errno tells to wait.
    fwrite_unlocked(block, 1, static_cast<size_t>(count), peer_outStream(peer, PEER_STREAM_CURRENT));
    if (errno != 0 && errno != EAGAIN) TRACE_ERROR("unable to execute write: %m");
  }
  return count;
}

struct SendMethod {
  HttpServerStaticWriter step;
  const char* trying;
  const char* name;
};

// Zero-copy first. Every trial sends from the beginning; the first step that does not fail settles it.
ssize_t detectSendMethod(ZelPeer* peer, Connection* connection) {
  static constexpr SendMethod kMethods[] = {{srv_writeWithSendfile, "send file", "sendfile"},
                                            {srv_writeWithSplice, "splice", "splice"},
                                            {srv_writeByCopy, "copy", "buffer copy"}};
  TRACE_NOTICE("detecting send method");
  const bool zeroCopy = (peer_capabilities(peer) & PEER_CAPABILITY_SENDFILE) != 0;
  ssize_t count = -1;
  for (const SendMethod& method : kMethods) {
    if (!zeroCopy && method.step != srv_writeByCopy) continue;
    TRACE_NOTICE("trying %s", method.trying);
    lseek(connection->staticFd, 0, SEEK_SET);
    count = method.step(peer, connection);
    if (count < 0) continue;
    const int error = errno;
    TRACE_NOTICE("using %s to send fd", method.name);
    connection->staticWriter = method.step;
    errno = error;
    break;
  }
  return count;
}

bool sourceIsEmpty(const Connection* connection) {
  pollfd source{connection->staticFd, POLLIN, 0};
  return connection->staticSize == -1 && poll(&source, 1, 0) == 0;
}

// The step could not send everything: waits for whoever holds it up.
bool awaitWritable(Connection* connection, ZelPeer* peer) {
  TRACE_INFO("need to send more data for static file");
  connection->lagging = true;
  if (!sourceIsEmpty(connection)) return true;
  // The socket is ready all the time: without a pause the loop would spin until the descriptor is.
  peer_setEventHandler(peer, PEER_EVENT_WRITABLE, PEER_DIRECTION_OUT, nullptr);
  return startLater(connection, kPauseMilliseconds);
}

bool staticFileSent(Connection* connection, ZelPeer* peer) {
  TRACE_NOTICE("static file sent");
  http_replyDone(&connection->reply);
  const bool buffered = peer_setStreamType(peer, PEER_STREAM_BUFFERED);
  if (!buffered) TRACE_ERROR("unable to switch stream type to buffered, closing connection");
  resetStatic(connection);
  if (buffered && connection->state < HTTP_SERVER_SENDING_REPLY) {
    // Answered before all of the request has come: its end goes on with the reply.
    peer_setEventHandler(peer, PEER_EVENT_WRITABLE, PEER_DIRECTION_OUT, nullptr);
    peer_setEventHandler(peer, PEER_EVENT_DRAINED, PEER_DIRECTION_OUT, nullptr);
    return true;
  }
  return buffered && srv_handleWriteDone(peer);
}

bool giveUpStaticFile(Connection* connection) {
  TRACE_NOTICE("cleanup static file descriptor");
  resetStatic(connection);
  return false;
}

bool srv_handleWriteFile(ZelPeer* peer) {
  Connection* const connection = connectionOf(peer);
  checkOwnership(connection);
  TRACE_INFO("sending static file");
  if (connection->staticFd < 0) {
    TRACE_ERROR("requested to send static file when none is defined");
    return false;
  }
  ssize_t count = 0;
  do {
    if (allSent(connection)) break;
    count = connection->staticWriter != nullptr ? connection->staticWriter(peer, connection)
                                                : detectSendMethod(peer, connection);
    if (count > 0) connection->staticSent += static_cast<uint64_t>(count);
    if (count > 0 && connection->staticSize != -1) connection->staticRemaining -= static_cast<uint64_t>(count);
    if (count < 0 || errno != 0) {
      if (errno == EAGAIN) return awaitWritable(connection, peer);
      TRACE_ERROR("unable to write to socket: %m");
      return giveUpStaticFile(connection);
    }
  } while (count > 0);

  if (connection->staticRemaining > 0) {
    TRACE_ERROR("static file is shorter than announced, closing connection");
    return giveUpStaticFile(connection);
  }
  return staticFileSent(connection, peer);
}

bool srv_handleWriteFileReplyDone(ZelPeer* peer) {
  TRACE_NOTICE("reply header sent, sending body");
  if (!peer_setStreamType(peer, PEER_STREAM_DIRECT)) {
    TRACE_ERROR("unable to switch stream to direct io");
    return false;
  }
  peer_setEventHandler(peer, PEER_EVENT_WRITABLE, PEER_DIRECTION_OUT, srv_handleWriteFile);
  return true;
}

// Says in the reply's head how its body will end. False when it cannot be said.
bool announceDescriptor(Connection* connection, HttpReply* reply, int descriptor) {
  struct stat status;
  if (fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode)) {
    TRACE_NOTICE("fd is backed by a file (%lu), Content-Length: %li", static_cast<unsigned long>(status.st_ino),
                 static_cast<long>(status.st_size));
    HttpHeader length{};
    length.code = HTTP_HEADER_CONTENT_LENGTH;
    length.contentLength.length = static_cast<uint64_t>(status.st_size);
    connection->staticSize = static_cast<int32_t>(status.st_size);
    connection->staticRemaining = static_cast<uint64_t>(status.st_size);
    return http_replyHeaderSet(reply, &length) == 0;
  }
  TRACE_NOTICE("fd is not backed by a file, will close connection on EOF");
  connection->staticSize = -1;
  connection->staticRemaining = 0;
  return http_replyHeaderValueSet(reply, "Connection", "close") == 0;
}

// Opens for reading without ever waiting, should the path name a pipe meanwhile.
int openFile(const char* path) {
  TRACE_NOTICE("sending file %s", path);
  const int descriptor = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (descriptor < 0) TRACE_ERROR("unable to open path %s: %m", path);
  return descriptor;
}

// --- files below a root directory ------------------------------------------------------------------------------------

using PathBuffer = char[PATH_MAX];

int answer(HttpReply* reply, unsigned code) {
  http_replyWithDefault(reply, code);
  return -1;
}

bool isPrintable(std::string_view path) {
  return std::all_of(path.begin(), path.end(), [](char c) { return std::isprint(static_cast<unsigned char>(c)) != 0; });
}

bool takesGzip(HttpRequest* request) {
  const char* const agent = http_requestHeaderValue(request, "User-Agent");
  if (agent == nullptr || std::strstr(agent, "MSIE 6.") == nullptr) return true;
  TRACE_NOTICE("cannot serve gzipped file to ie6 (too buggy)");
  return false;
}

// Puts the parts together; a path that is too long becomes the empty one, which names no file.
void setPath(PathBuffer& path, const char* directory, const char* name, const char* suffix) {
  const int length = std::snprintf(path, sizeof path, "%s%s%s", directory, name, suffix);
  if (length < 0 || static_cast<size_t>(length) >= sizeof path) path[0] = '\0';
}

void appendIndex(PathBuffer& path, bool gzip) {
  TRACE_NOTICE("%s", gzip ? "asking for a directory, checking for index.html.gz"
                          : "asking for a directory, checking for index.html");
  PathBuffer directory;
  std::memcpy(directory, path, sizeof path);
  setPath(path, directory, "/index.html", gzip ? ".gz" : "");
}

// Finds the file to send for @p name below @p root. Returns 0, or the status code of the refusal. The ".gz" variant is
// given up at the first miss, so "index.html.gz" is found only below a directory whose own name ends in ".gz".
unsigned findFile(const char* root, const char* name, bool* gzip, PathBuffer& path) {
  setPath(path, root, name, *gzip ? ".gz" : "");
  for (;;) {
    TRACE_NOTICE("checking for availability of %s", path);
    struct stat status;
    if (stat(path, &status) < 0) {
      if (!*gzip) return 404;
      *gzip = false;
      setPath(path, root, name, "");
    } else if (S_ISDIR(status.st_mode)) {
      appendIndex(path, *gzip);
    } else if (S_ISREG(status.st_mode)) {
      if (*gzip) TRACE_NOTICE("serving gzipped file");
      return 0;
    } else {
      TRACE_ERROR("unable to find file %s", path);
      return 404;
    }
  }
}

unsigned resolveBelow(const char* root, const PathBuffer& path, PathBuffer& resolved) {
  if (realpath(path, resolved) == nullptr) {
    TRACE_ERROR("invalid uri %s: %m", path);
    return 400;
  }
  if (std::strncmp(resolved, root, std::strlen(root)) == 0) return 0;
  TRACE_ERROR("trying to access a file out of the root dir (\"%s\" is not in \"%s\")", resolved, root);
  return 404;
}

// The type that the last suffix but ".gz" stands for, null when it is not known.
const char* contentTypeOf(std::string_view path) {
  struct Suffix {
    std::string_view text;
    const char* type;
  };
  static constexpr Suffix kSuffixes[] = {{".png", "image/png"},
                                         {".htm", "text/html; charset=utf-8"},
                                         {".css", "text/css; charset=utf-8"},
                                         {".js", "application/javascript; charset=utf-8"},
                                         {".gif", "image/gif"},
                                         {".jpg", "image/jpeg"}};
  if (path.ends_with(".gz")) path.remove_suffix(3);
  const size_t dot = path.rfind('.');
  if (dot == std::string_view::npos) return nullptr;
  for (const Suffix& suffix : kSuffixes)
    if (path.substr(dot).starts_with(suffix.text)) return suffix.type;
  return nullptr;
}

int sendResolved(HttpReply* reply, const char* path, bool gzip) {
  // Opened before the head says what it is: the file may be gone by now, and the refusal is not gzipped.
  const int descriptor = openFile(path);
  if (descriptor < 0) return answer(reply, 404);
  const char* const type = contentTypeOf(path);
  if ((!gzip || http_replyHeaderValueSet(reply, "Content-Encoding", "gzip") == 0) &&
      (type == nullptr || http_replyHeaderValueSet(reply, "Content-Type", "%s", type) == 0))
    return http_serverSendFd(reply, descriptor);
  close(descriptor);
  return -1;
}

}  // namespace

// --- the seams -------------------------------------------------------------------------------------------------------

namespace {

// The connection that @p reply belongs to, null when it is not a server's.
Connection* connectionOfReply(const HttpMessage* reply) {
  if (reply->peer == nullptr || reply->ownerType != HTTP_MSG_OWNED_BY_SERVER) return nullptr;
  Connection* const connection = connectionOf(reply->peer);
  return connection != nullptr && reply == &connection->reply.message ? connection : nullptr;
}

}  // namespace

bool srv_isSourceEmpty(const Connection* connection) { return sourceIsEmpty(connection); }

void srv_replyCompleted(HttpMessage* reply) {
  Connection* const connection = connectionOfReply(reply);
  if (connection == nullptr) return;
  // No event pushes out what is written before all of the request has come.
  if (connection->state == HTTP_SERVER_RECEIVING_REQUEST && connection->request.message.state == HTTP_MSG_BODY)
    uncork(connection);
  if (connection->state == HTTP_SERVER_SENDING_REPLY && connection->staticFd < 0 && peer_bytesQueued(reply->peer) == 0)
    startLater(connection, 0);
}

bool srv_follow(HttpReply* reply, ReplyFollower* follower) {
  Connection* const connection = connectionOfReply(&reply->message);
  if (connection == nullptr) return false;
  dismissFollower(connection);
  connection->follower = follower;
  return true;
}

void srv_unfollow(HttpReply* reply, const ReplyFollower* follower) {
  Connection* const connection = connectionOfReply(&reply->message);
  if (connection != nullptr && connection->follower == follower) connection->follower = nullptr;
}

void srv_tellDrained(HttpReply* reply) {
  Connection* const connection = connectionOfReply(&reply->message);
  if (connection != nullptr && connection->state < HTTP_SERVER_SENDING_REPLY)
    peer_setEventHandler(peerOf(connection), PEER_EVENT_DRAINED, PEER_DIRECTION_OUT, srv_handleEarlyDrained);
}

void srv_uncork(HttpReply* reply) {
  if (Connection* const connection = connectionOfReply(&reply->message)) uncork(connection);
}

void srv_cut(HttpReply* reply) {
  if (Connection* const connection = connectionOfReply(&reply->message)) peer_destroy(peerOf(connection));
}

namespace {

bool expectsContinue(HttpRequest* request, const HttpReply* reply) {
  const char* const expectation = msg_headerText(&request->message, HTTP_HEADER_EXPECT);
  return expectation != nullptr && strcasecmp(expectation, "100-continue") == 0 && request->message.versionMinor > 0 &&
         request->message.state == HTTP_MSG_BODY && reply->message.state < HTTP_MSG_BODY &&
         !isLongerThanAllowed(&request->message);
}

}  // namespace

extern "C" {

int http_serverStart(HttpServer* server) {
  server->stopped = 0;
  peer_setUserData(server->peer, server);
  return peer_setEventHandler(server->peer, PEER_EVENT_ACCEPT, PEER_DIRECTION_IN, srv_handleAccept) ? 0 : -1;
}

void http_serverStop(HttpServer* server) {
  if (server->stopped) return;
  if (server->peer != nullptr) {
    ZelPeer* const listening = server->peer;
    peer_close(listening);
    Walk walk;
    while (Connection* const connection = walk.next()) {
      if (connection->server != server || connection->state > HTTP_SERVER_ACCEPTED) continue;
      TRACE_NOTICE("closing client connection %i", peer_socket(peerOf(connection)));
      peer_close(peerOf(connection));
    }
    peer_destroy(listening);
  }
  server->peer = nullptr;
  server->stopped = 1;
  srv_hasStopped(server);
}

int http_serverContinue(HttpRequest* request, HttpReply* reply) {
  if (!expectsContinue(request, reply)) return 0;
  srv_uncork(reply);
  FILE* const stream = reply->message.stream;
  if (msg_writeText(stream, "HTTP/1.1 100 Continue\r\n\r\n") && fflush_unlocked(stream) == 0) return 0;
  TRACE_ERROR("unable to send interim reply: %m");
  return -1;
}

int http_serverPauseRequest(HttpRequest* request) {
  ZelPeer* const peer = http_requestPeer(request);
  TRACE_NOTICE("pausing request");
  if (peer == nullptr) {
    TRACE_ERROR("request is not being processed");
    return -1;
  }
  if (!peer_setEventHandler(peer, PEER_EVENT_DATA, PEER_DIRECTION_IN, nullptr)) {
    TRACE_ERROR("unable to pause request");
    return -1;
  }
  request->message.paused = HTTP_MSG_PAUSED;
  return 0;
}

int http_serverResumeRequest(HttpRequest* request) {
  ZelPeer* const peer = http_requestPeer(request);
  TRACE_NOTICE("resuming request");
  if (peer == nullptr) {
    TRACE_ERROR("request is not being processed");
    return -1;
  }
  if (!peer_setEventHandler(peer, PEER_EVENT_DATA, PEER_DIRECTION_IN, srv_handleRead)) {
    TRACE_ERROR("unable to resume request");
    return -1;
  }
  request->message.paused = HTTP_MSG_RUNNING;
  // The loop runs the timer, not this call; by then somebody may have read what an event was to tell of.
  Connection* const connection = connectionOf(peer);
  if (connection->state == HTTP_SERVER_RECEIVING_REQUEST) startLater(connection, 0);
  return 0;
}

int http_serverTemporizeRequest(HttpRequest* request) {
  TRACE_NOTICE("pausing request");
  if (http_requestPeer(request) == nullptr) {
    TRACE_ERROR("request is not being processed");
    return -1;
  }
  request->message.paused = HTTP_MSG_TEMPORIZED;
  return 0;
}

int http_serverSendFd(HttpReply* reply, int descriptor) {
  TRACE_NOTICE("sending file descriptor %d", descriptor);
  ZelPeer* const peer = http_replyPeer(reply);
  Connection* const connection = peer != nullptr ? connectionOf(peer) : nullptr;
  if (connection == nullptr) {
    TRACE_ERROR("unable to send reply");
    close(descriptor);
    return -1;
  }
  resetStatic(connection);
  if (!announceDescriptor(connection, reply, descriptor)) {
    TRACE_ERROR("unable to send reply");
    close(descriptor);
    resetStatic(connection);
    return -1;
  }
  if (reply->message.bodyless) {
    // The answer to HEAD is the head alone.
    close(descriptor);
    connection->staticSize = 0;
    connection->staticRemaining = 0;
    if (http_replySend(reply) == 0) return http_replyDone(reply);
    TRACE_ERROR("unable to send reply");
    return -1;
  }
  peer_setEventHandler(peer, PEER_EVENT_DRAINED, PEER_DIRECTION_OUT, srv_handleWriteFileReplyDone);
  if (http_replySend(reply) < 0) {
    TRACE_ERROR("unable to send reply");
    close(descriptor);
    return -1;
  }
  connection->staticFd = descriptor;
  const int flags = fcntl(descriptor, F_GETFL);
  if ((flags & O_NONBLOCK) == 0) fcntl(descriptor, F_SETFL, flags | O_NONBLOCK);
  return 0;
}

int http_serverSendFile(HttpReply* reply, const char* path) {
  const int descriptor = openFile(path);
  return descriptor < 0 ? answer(reply, 404) : http_serverSendFd(reply, descriptor);
}

int http_serverRequestSendFile(HttpRequest* request, HttpReply* reply, const char* root) {
  TRACE_NOTICE("sending static file");
  if (http_replyStatusCodeSet(reply, 200, nullptr) < 0) return -1;
  const char* const name = http_requestPath(request);
  if (name == nullptr || !isPrintable(name)) return answer(reply, 400);

  bool gzip = takesGzip(request);
  PathBuffer path;
  PathBuffer resolved;
  unsigned refusal = findFile(root, name, &gzip, path);
  if (refusal == 0) refusal = resolveBelow(root, path, resolved);
  if (refusal != 0) return answer(reply, refusal);
  if (sendResolved(reply, resolved, gzip) == 0) return 0;
  TRACE_ERROR("unable to send file");
  return -1;
}

}  // extern "C"
