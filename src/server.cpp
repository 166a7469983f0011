#include <krohttp/server.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <strings.h>
#include <sys/socket.h>
#include <zel/connection.h>
#include <zel/error.h>
#include <zel/timer.h>

#include <cerrno>
#include <cstdlib>

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

}  // namespace

// Both checks look at the reply's owner type.
void srv_checkOwnership(const Connection* connection) {
  const HttpMessage& request = connection->request.message;
  const HttpMessage& reply = connection->reply.message;
  const bool owned = reply.ownerType == HTTP_MSG_OWNED_BY_SERVER;
  if (reply.owner != connection->server || !owned) TRACE_BROKEN("reply is not owned by server");
  if (request.owner != connection->server || !owned) TRACE_BROKEN("request is not owned by server");
}

namespace {

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
  if (connection->awaitsSource) {
    connection->awaitsSource = false;
    peer_setEventHandler(peer, PEER_EVENT_WRITABLE, PEER_DIRECTION_OUT, srv_handleWriteFile);
  }
  if (connection->state == HTTP_SERVER_RECEIVING_REQUEST && connection->request.message.paused == HTTP_MSG_RUNNING) {
    if (!readOn(connection, peer)) peer_destroy(peer);
    return;
  }
  if (connection->state != HTTP_SERVER_SENDING_REPLY || connection->staticFd >= 0) return;
  if (connection->reply.message.state == HTTP_MSG_DONE && peer_bytesQueued(peer) == 0 && !srv_handleWriteDone(peer))
    peer_destroy(peer);
}

}  // namespace

bool srv_startLater(Connection* connection, unsigned milliseconds) {
  if (connection->later == nullptr) connection->later = zel_timer_create();
  if (connection->later == nullptr) {
    TRACE_ERROR("unable to create timer: %s", error_string(zel_error));
    return false;
  }
  zel_timer_setUserData(connection->later, connection);
  zel_timer_setHandler(connection->later, goOnLater);
  return zel_timer_start(connection->later, milliseconds);
}

namespace {

// --- reading ---------------------------------------------------------------------------------------------------------

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
    if (!srv_checkBody(connection) || result < 0) return kDrop;
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
  return srv_startLater(connection, kPauseMilliseconds) ? kHandled : kDrop;
}

int srv_handleReadBody(Connection* connection, ZelPeer* peer) {
  HttpRequest* const request = &connection->request;
  expect(connection, HTTP_SERVER_RECEIVING_REQUEST);
  TRACE_INFO("should handle body (%d)", peer_socket(peer));
  FILE* const body = http_requestBody(request);
  if (body == nullptr) return kGoOn;  // failed, as the next look at its state finds

  forgetError(body);
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
  srv_checkOwnership(connection);
  TRACE_INFO("connection available for read (%d)", peer_socket(peer));
  if (connection->state >= HTTP_SERVER_SENDING_REPLY) return lookAhead(peer);

  const Watch watch(connection);
  const bool handled = readAvailable(connection, peer, watch);
  // A temporized request has sat this pass out; the next event goes on with it.
  if (!watch.gone() && connection->request.message.paused == HTTP_MSG_TEMPORIZED) {
    connection->request.message.paused = HTTP_MSG_RUNNING;
    if (hasBodyAtHand(connection)) srv_startLater(connection, connection->standsStill ? kPauseMilliseconds : 0);
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

}  // namespace

bool srv_handleWriteDone(ZelPeer* peer) {
  Connection* const connection = connectionOf(peer);
  HttpMessage* const reply = &connection->reply.message;
  pushOut(connection, peer);
  srv_checkOwnership(connection);
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
  int32_t* const sent = &connection->server->repliesSent;
  *sent = static_cast<int32_t>(static_cast<uint32_t>(*sent) + 1);  // after years it comes round

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

namespace {

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
  const bool refused = connection->refusedFor != HTTP_MSG_ACCEPTED;  // which has been told
  switch (connection->state) {
    case HTTP_SERVER_INIT:
    case HTTP_SERVER_ACCEPTED:
      TRACE_NOTICE("closing kept-alive connection");
      break;
    case HTTP_SERVER_RECEIVING_REQUEST:
      if (!refused) TRACE_ERROR("client closed connection while reading request");
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
      if (!refused) TRACE_ERROR("closed while in state %s", nameOf(connection->state));
      if (server->errorHandler == nullptr) break;
      if (!refused) TRACE_ERROR("calling error handler");
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
  srv_checkOwnership(connection);
  TRACE_NOTICE("connection closed (%d)", peer_socket(peer));
  if (!server->stopped) reportClose(connection, peer);
  srv_answerRefusal(connection);
  dismissFollower(connection);
  if (connection->staticFd >= 0) {
    TRACE_NOTICE("cleanup static file descriptor");
    srv_resetStatic(connection);
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
  srv_checkOwnership(connection);
  linkConnection(connection);
  ++server->connectionCount;
  srv_startSweeping(server);
  switchTo(connection, HTTP_SERVER_ACCEPTED);
  return true;
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

void srv_replyCompleted(HttpMessage* reply) {
  Connection* const connection = connectionOfReply(reply);
  if (connection == nullptr) return;
  // No event pushes out what is written before all of the request has come.
  if (connection->state == HTTP_SERVER_RECEIVING_REQUEST && connection->request.message.state == HTTP_MSG_BODY)
    uncork(connection);
  if (connection->state == HTTP_SERVER_SENDING_REPLY && connection->staticFd < 0 && peer_bytesQueued(reply->peer) == 0)
    srv_startLater(connection, 0);
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
         !srv_isBodyTooLong(&request->message);
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
    if (server->stopped) return;  // by a handler that one of these has called
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
  if (connection->state == HTTP_SERVER_RECEIVING_REQUEST) srv_startLater(connection, 0);
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

}  // extern "C"
