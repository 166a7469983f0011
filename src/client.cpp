#include <krohttp/body.h>
#include <krohttp/client.h>

#include <zel/error.h>
#include <zel/timer.h>

#include <cerrno>
#include <cstdlib>

#include "memory.h"
#include "message_internal.h"
#include "reading.h"
#include "watch.h"

#define TRACE_ZONE "http-client"
#include "trace.h"

extern "C" const char* const clientStateStrings[HTTP_CLIENT_STATE_COUNT] = {
    "INIT", "SENDING_REQUEST", "REQUEST_SENT", "RECEIVING_REPLY", "REPLY_RECEIVED", "CLOSED", "ERROR"};

namespace {

// --- connections -----------------------------------------------------------------------------------------------------

// A connection with what only this file needs to know.
struct Connection : HttpClientConnection {
  ZelPeer* peer;
  bool watchesClose;  // cl_handleClose() is among the peer's close handlers
  bool paused;
  bool early;       // the reply has begun before the request was complete
  bool requestCut;  // the request will never be complete: the connection ends with the reply
  ZelTimer* later;  // runs goOnLater(), null until it is needed
  Connection* previous;
  Connection* next;
};

Connection* connections = nullptr;

void link(Connection* connection) {
  connection->next = connections;
  if (connections != nullptr) connections->previous = connection;
  connections = connection;
}

void unlink(Connection* connection) {
  (connection->previous != nullptr ? connection->previous->next : connections) = connection->next;
  if (connection->next != nullptr) connection->next->previous = connection->previous;
}

Connection* connectionOf(const ZelPeer* peer) {
  return static_cast<Connection*>(static_cast<HttpClientConnection*>(peer_userData(peer)));
}

// The connection that the client is on, null when it has none.
Connection* connectionOf(const HttpClient* client) {
  return client->peer != nullptr ? connectionOf(client->peer) : nullptr;
}

// Whether the client is still on this connection, with an exchange that still has its messages.
bool isInUse(const Connection* connection) {
  return connection->client->peer == connection->peer && connection->request != nullptr && connection->reply != nullptr;
}

// --- states ----------------------------------------------------------------------------------------------------------

void switchTo(HttpClient* client, HttpClientState state) {
  TRACE_INFO("switch client state from %s to %s", clientStateStrings[client->state], clientStateStrings[state]);
  client->state = state;
}

void expect(const HttpClient* client, HttpClientState state) {
  if (client->state != state)
    TRACE_ERROR("wrong client state: %s, should be %s", clientStateStrings[client->state], clientStateStrings[state]);
}

// Both checks look at the reply's owner type.
void checkOwnership(const Connection* connection) {
  if (connection == nullptr || connection->request == nullptr || connection->reply == nullptr) return;
  const HttpMessage& request = connection->request->message;
  const HttpMessage& reply = connection->reply->message;
  const bool owned = reply.ownerType == HTTP_MSG_OWNED_BY_CLIENT;
  if (reply.owner != connection->client || !owned) TRACE_BROKEN("reply is not owned by client");
  if (request.owner != connection->client || !owned) TRACE_BROKEN("request is not owned by client");
}

bool cl_handleRead(ZelPeer* peer);

// --- messages --------------------------------------------------------------------------------------------------------

// A body that is still open ends here, without anything that would make it look complete.
void closeOpenBody(HttpMessage* message) {
  if (message->body == nullptr) return;
  const bool transferring = message->state == HTTP_MSG_BODY;
  if (transferring) message->state = HTTP_MSG_FAILED;
  std::fclose(message->body);
  message->body = nullptr;
  if (transferring) message->state = HTTP_MSG_FAILED;
}

// The message outlives the connection: nothing of it may be reached through the message any more.
void detach(const Connection* connection, HttpMessage* message) {
  if (message->owner != connection->client || message->peer != connection->peer) return;
  closeOpenBody(message);
  message->stream = nullptr;
  message->peer = nullptr;
}

void detachMessages(Connection* connection) {
  if (connection->request != nullptr) detach(connection, &connection->request->message);
  if (connection->reply != nullptr) detach(connection, &connection->reply->message);
  connection->request = nullptr;
  connection->reply = nullptr;
}

// Nobody goes on with an exchange that has lost one of its messages: the next event ends its connection. It must come,
// also where reading was to wait.
void awaitTheEnd(const Connection* connection) {
  const HttpClient* const client = connection->client;
  const bool underWay = client->state >= HTTP_CLIENT_SENDING_REQUEST && client->state <= HTTP_CLIENT_RECEIVING_REPLY;
  if (underWay && client->peer == connection->peer)
    peer_setEventHandler(connection->peer, PEER_EVENT_DATA, PEER_DIRECTION_IN, cl_handleRead);
}

bool isElsewhere(const Connection* connection, const HttpMessage& message) {
  return message.ownerType == HTTP_MSG_OWNED_BY_CLIENT && message.peer != nullptr && message.peer != connection->peer;
}

// A message belongs to one exchange at a time: whoever used it before has lost it, also where nothing was left to do.
void takeFromOthers(const Connection* connection, const HttpRequest* request, const HttpReply* reply) {
  if (!isElsewhere(connection, request->message) && !isElsewhere(connection, reply->message)) return;
  for (Connection* other = connections; other != nullptr; other = other->next) {
    if (other == connection || (other->request != request && other->reply != reply)) continue;
    detachMessages(other);
    awaitTheEnd(other);
  }
}

void attach(const Connection* connection, HttpMessage* message, HttpMessageMode mode, FILE* stream) {
  message->mode = mode;
  message->owner = connection->client;
  message->ownerType = HTTP_MSG_OWNED_BY_CLIENT;
  http_msgStreamSet(message, stream);
  msg_setPeer(message, connection->peer);
}

void resetMessages(Connection* connection) {
  if (connection->request != nullptr) {
    closeOpenBody(&connection->request->message);
    http_requestReset(connection->request);
  }
  if (connection->reply != nullptr) {
    closeOpenBody(&connection->reply->message);
    http_replyReset(connection->reply);
  }
}

void release(Connection* connection) {
  Watch<Connection>::tellGone(connection);
  detachMessages(connection);
  zel_timer_destroy(connection->later);
  unlink(connection);
  std::free(connection);
}

// --- sending ---------------------------------------------------------------------------------------------------------

bool earlyRequestSent(Connection* connection);

void listenForReply(const Connection* connection) {
  if (!connection->paused) peer_setEventHandler(connection->peer, PEER_EVENT_DATA, PEER_DIRECTION_IN, cl_handleRead);
}

bool cl_handleWriteDone(ZelPeer* peer) {
  Connection* const connection = connectionOf(peer);
  checkOwnership(connection);
  TRACE_INFO("data written");
  if (connection == nullptr || !isInUse(connection)) return false;
  HttpClient* const client = connection->client;
  const int state = connection->request->message.state;
  expect(client, HTTP_CLIENT_SENDING_REQUEST);
  TRACE_INFO("rq state: %i", state);
  if (state == HTTP_MSG_FAILED) {
    switchTo(client, HTTP_CLIENT_ERROR);
    return false;
  }
  if (state == HTTP_MSG_DONE) {
    TRACE_INFO("request sent");
    if (connection->early) return earlyRequestSent(connection);
    peer_setEventHandler(peer, PEER_EVENT_DRAINED, PEER_DIRECTION_OUT, nullptr);
    listenForReply(connection);
    switchTo(client, HTTP_CLIENT_REQUEST_SENT);
  } else if (client->requestDrainedHandler != nullptr && client->state == HTTP_CLIENT_SENDING_REQUEST) {
    const Watch watch(connection);
    client->requestDrainedHandler(connection->reply, connection->request);
    if (!watch.gone()) return isInUse(connection);
  }
  return true;
}

// How long to leave alone what is ready all the time but does not get on.
constexpr unsigned kPauseMilliseconds = 10;

// Takes up what no event would come for.
void goOnLater(ZelTimer*, void* userData);

// The reply is being waited for or read.
bool isReading(const Connection* connection) {
  const HttpClientState state = connection->client->state;
  return state == HTTP_CLIENT_REQUEST_SENT || state == HTTP_CLIENT_RECEIVING_REPLY || connection->early;
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

// While the request is being sent nothing has to come; the end says that nothing will.
bool cl_handleEarlyRead(ZelPeer* peer) {
  Connection* const connection = connectionOf(peer);
  if (connection == nullptr || !isInUse(connection)) return false;
  char next;
  const ssize_t count = peer_peek(peer, &next, 1);
  if (count <= 0) return count < 0 && errno == EAGAIN;
  connection->early = connection->client->takesEarlyReply;
  peer_setEventHandler(peer, PEER_EVENT_DATA, PEER_DIRECTION_IN, connection->early ? cl_handleRead : nullptr);
  return !connection->early || cl_handleRead(peer);
}

void listenForEarlyReply(const Connection* connection) {
  peer_setEventHandler(connection->peer, PEER_EVENT_DATA, PEER_DIRECTION_IN, cl_handleEarlyRead);
}

// The request is complete, or will never be: the reply that was begun early is like any other from here on.
void endEarlyPhase(Connection* connection) {
  connection->early = false;
  peer_setEventHandler(connection->peer, PEER_EVENT_DRAINED, PEER_DIRECTION_OUT, nullptr);
  switchTo(connection->client, HTTP_CLIENT_REQUEST_SENT);
  if (connection->reply->message.state > HTTP_MSG_FIRST_LINE) switchTo(connection->client, HTTP_CLIENT_RECEIVING_REPLY);
}

// --- receiving -------------------------------------------------------------------------------------------------------

// What a step of reading tells cl_handleRead(): to go on with the next one, or what to return.
constexpr int kGoOn = -1;
constexpr int kDrop = 0;
constexpr int kHandled = 1;

void goOnLater(ZelTimer*, void* userData) {
  auto* const connection = static_cast<Connection*>(userData);
  ZelPeer* const peer = connection->peer;
  if (connection->paused || !isReading(connection)) return;
  listenForReply(connection);
  // Only what the body's own stream holds is taken from here: the rest has its event, which reads at a better rate.
  char next;
  if (peer_peek(peer, &next, 1) < 0 && errno == EAGAIN && !cl_handleRead(peer)) peer_destroy(peer);
}

// A reply that came early does not change the state before the request is complete.
void expectReading(const Connection* connection, HttpClientState state) {
  expect(connection->client, connection->early ? HTTP_CLIENT_SENDING_REQUEST : state);
}

int readFirstLine(Connection* connection) {
  expectReading(connection, HTTP_CLIENT_REQUEST_SENT);
  if (http_replyParse(connection->reply) < 0) return kDrop;
  if (!connection->early) switchTo(connection->client, HTTP_CLIENT_RECEIVING_REPLY);
  return kGoOn;
}

// RFC 9110 section 15.2; 101 ends HTTP on the connection and is a reply like the others.
bool isInterim(const HttpReply* reply) {
  return reply->statusCode >= 100 && reply->statusCode < 200 && reply->statusCode != 101;
}

// The reply itself follows, with the next event.
int skipInterim(Connection* connection) {
  TRACE_INFO("skipping interim reply %u", connection->reply->statusCode);
  http_replyReset(connection->reply);
  connection->reply->message.bodyType = HTTP_BODY_UNKNOWN;
  if (!connection->early) switchTo(connection->client, HTTP_CLIENT_REQUEST_SENT);
  return kHandled;
}

// RFC 9112 section 6.3: whatever the headers say.
bool isWithoutBody(const HttpRequest* request, const HttpReply* reply) {
  return request->method == HTTP_METHOD_HEAD || reply->statusCode == 204 || reply->statusCode == 304;
}

int handleHead(Connection* connection) {
  HttpClient* const client = connection->client;
  if (client->replyHeaderHandler == nullptr) {
    TRACE_ERROR("reply header handler is not set");
    return kDrop;
  }
  const Watch watch(connection);
  const int result = client->replyHeaderHandler(connection->reply, connection->request);
  if (watch.gone()) return kHandled;
  return result < 0 ? kDrop : kGoOn;
}

// Whoever refuses a request need not read the rest of it (RFC 9112 section 9.5): nothing more of it is sent.
void abandonRequest(Connection* connection) {
  TRACE_WARNING("request was refused before it was complete");
  connection->requestCut = connection->request->message.state != HTTP_MSG_DONE;
  connection->request->message.state = HTTP_MSG_DONE;
  endEarlyPhase(connection);
}

int readHead(Connection* connection) {
  HttpReply* const reply = connection->reply;
  expectReading(connection, HTTP_CLIENT_RECEIVING_REPLY);
  TRACE_INFO("reading enveloppe");
  if (http_replyParse(reply) < 0) return kDrop;
  if (reply->message.state <= HTTP_MSG_HEADERS) return kGoOn;
  if (isInterim(reply)) return skipInterim(connection);
  if (isWithoutBody(connection->request, reply)) {
    reply->message.bodyType = HTTP_BODY_NONE;
    reply->message.state = HTTP_MSG_DONE;
  }
  if (connection->early && reply->statusCode >= 400) abandonRequest(connection);
  return handleHead(connection);
}

// The stream of a body that lasts until the connection closes takes a first read that would block for that end.
bool awaitsData(const Connection* connection) {
  const HttpMessage& reply = connection->reply->message;
  if (reply.bodyType != HTTP_BODY_UNTIL_CLOSE || heldOfBody(reply) > 0 || heldBytes(reply.stream) > 0) return false;
  char next;
  return peer_peek(connection->peer, &next, 1) < 0 && errno == EAGAIN;
}

int callBodyHandler(const Connection* connection, FILE* body) {
  if (connection->client->bodyHandler != nullptr)
    return connection->client->bodyHandler(connection->reply, connection->request, body);
  TRACE_ERROR("body handler is not set");
  return -1;
}

// The handler was offered data and has read none. Offering it again at once would never end.
int bodyStandsStill(Connection* connection) {
  FILE* const body = connection->reply->message.body;
  if (body != nullptr && ferror_unlocked(body)) {
    TRACE_ERROR("unable to read reply body");
    return kDrop;
  }
  peer_setEventHandler(connection->peer, PEER_EVENT_DATA, PEER_DIRECTION_IN, nullptr);
  return startLater(connection, kPauseMilliseconds) ? kHandled : kDrop;
}

int bodyHandled(Connection* connection, int result, const ReadMark& before) {
  HttpMessage* const reply = &connection->reply->message;
  if (http_replyNeedMoreData(connection->reply) && reply->body != nullptr) clearerr_unlocked(reply->body);
  TRACE_INFO("handled body state is now %u", static_cast<unsigned>(reply->state));
  // A handler that has paused comes back for what its stream still holds.
  if (result >= 0 && connection->paused && (reply->state == HTTP_MSG_BODY || heldOfBody(*reply) > 0)) return kHandled;
  if (result < 0 || reply->state == HTTP_MSG_DONE) {
    closeOpenBody(reply);
    if (!connection->early) switchTo(connection->client, HTTP_CLIENT_REPLY_RECEIVED);
  } else if (reply->state == HTTP_MSG_BODY && !http_replyNeedMoreData(connection->reply) &&
             readMark(*reply) == before) {
    return bodyStandsStill(connection);
  }
  return result < 0 ? kDrop : kGoOn;
}

int readBody(Connection* connection) {
  expectReading(connection, HTTP_CLIENT_RECEIVING_REPLY);
  TRACE_INFO("should handle body");
  if (awaitsData(connection)) return kHandled;
  FILE* const body = http_replyBody(connection->reply);
  if (body == nullptr) return kGoOn;  // failed, as the next look at its state finds

  forgetError(body);
  const ReadMark before = readMark(connection->reply->message);
  const Watch watch(connection);
  const int result = callBodyHandler(connection, body);
  if (watch.gone()) return kHandled;
  return isInUse(connection) ? bodyHandled(connection, result, before) : kDrop;
}

// Between exchanges there is nothing to come but the end of the connection: it is of no use any more.
bool cl_handleIdleRead(ZelPeer* peer) {
  TRACE_INFO("kept-alive connection closed (socket %d)", peer_socket(peer));
  return false;
}

int replyDone(Connection* connection) {
  HttpClient* const client = connection->client;
  if (connection->early) {
    // The exchange is over when the request is complete as well.
    peer_setEventHandler(connection->peer, PEER_EVENT_DATA, PEER_DIRECTION_IN, nullptr);
    return kHandled;
  }
  switchTo(client, HTTP_CLIENT_REPLY_RECEIVED);
  TRACE_INFO("finished processing message");
  peer_setEventHandler(connection->peer, PEER_EVENT_DATA, PEER_DIRECTION_IN, nullptr);
  peer_setEventHandler(connection->peer, PEER_EVENT_DRAINED, PEER_DIRECTION_OUT, cl_handleWriteDone);
  const Watch watch(connection);
  if (client->replyDoneHandler != nullptr) {
    TRACE_INFO("calling reply done handler");
    client->replyDoneHandler(connection->reply, connection->request);
    if (watch.gone()) return kHandled;
  }
  resetMessages(connection);
  switchTo(client, HTTP_CLIENT_INIT);
  if (connection->requestCut) return kDrop;
  peer_setEventHandler(connection->peer, PEER_EVENT_DATA, PEER_DIRECTION_IN, cl_handleIdleRead);
  // Messages that were destroyed meanwhile cannot be handed out any more.
  if (client->readyHandler != nullptr && isInUse(connection)) {
    TRACE_INFO("calling ready handler");
    client->readyHandler(connection->reply, connection->request);
  }
  return kHandled;
}

bool earlyRequestSent(Connection* connection) {
  endEarlyPhase(connection);
  return connection->reply->message.state != HTTP_MSG_DONE || cl_handleRead(connection->peer);
}

int readStep(Connection* connection) {
  switch (connection->reply->message.state) {
    case HTTP_MSG_FIRST_LINE:
      return readFirstLine(connection);
    case HTTP_MSG_HEADERS:
      return readHead(connection);
    case HTTP_MSG_BODY:
      return readBody(connection);
    case HTTP_MSG_DONE:
      // A handler that paused has not seen the end of what the body's own stream holds.
      if (heldOfBody(connection->reply->message) > 0) return readBody(connection);
      return replyDone(connection);
    default:
      TRACE_ERROR("unknown state: %i", connection->reply->message.state);
      return kDrop;
  }
}

bool cl_handleRead(ZelPeer* peer) {
  Connection* const connection = connectionOf(peer);
  checkOwnership(connection);
  if (connection == nullptr || !isInUse(connection)) return false;
  TRACE_INFO("connection available for read (socket %d %d)", peer_socket(peer),
             fileno_unlocked(connection->reply->message.stream));
  for (;;) {
    const bool head = connection->reply->message.state <= HTTP_MSG_HEADERS;
    const int result = readStep(connection);
    if (result != kGoOn) return result != kDrop;
    if (!isInUse(connection)) return false;
    if (http_replyNeedMoreData(connection->reply)) return true;
    // A head that is complete can be paused before its body is looked at.
    if (head && connection->paused && connection->reply->message.state == HTTP_MSG_BODY) return true;
  }
}

// --- closing ---------------------------------------------------------------------------------------------------------

// As of read(): 0 when the other side has finished, below when it has not, or was reset.
ssize_t peekByte(ZelPeer* peer) {
  char next;
  return peer_peek(peer, &next, 1);
}

bool hasInput(ZelPeer* peer) { return peekByte(peer) > 0; }

// Gives the handler what is left of the body. Its stream reads on only while the message is not done.
void offerRest(Connection* connection, ZelPeer* peer) {
  HttpMessage* const reply = &connection->reply->message;
  FILE* const body = hasInput(peer) ? http_replyBody(connection->reply) : reply->body;
  if (!hasInput(peer)) reply->state = HTTP_MSG_DONE;
  if (body != nullptr) callBodyHandler(connection, body);
}

void endBodyAtClose(Connection* connection, ZelPeer* peer) {
  HttpMessage* const reply = &connection->reply->message;
  TRACE_ERROR("client closed connection while receiving reply, assume reply is complete");
  if (reply->state == HTTP_MSG_BODY) {
    const Watch watch(connection);
    offerRest(connection, peer);
    if (watch.gone() || !isInUse(connection)) return;
    // Only the end of the input is the end of the body.
    if (peekByte(peer) != 0) reply->bodyCut = 1;
    if (reply->state == HTTP_MSG_BODY) reply->state = HTTP_MSG_DONE;
    closeOpenBody(reply);
  }
  if (reply->state == HTTP_MSG_FAILED) reply->bodyCut = 1;
  http_replyDone(connection->reply);
  switchTo(connection->client, HTTP_CLIENT_REPLY_RECEIVED);
  cl_handleRead(peer);
}

// Tells the application what the end of the connection means to the exchange.
void reportClose(Connection* connection, ZelPeer* peer) {
  HttpClient* const client = connection->client;
  if (connection->early && connection->reply->message.state > HTTP_MSG_FIRST_LINE) endEarlyPhase(connection);
  switch (client->state) {
    case HTTP_CLIENT_SENDING_REQUEST:
    case HTTP_CLIENT_REQUEST_SENT:
      TRACE_ERROR("client closed the connection and we received nothing from it");
      client->state = HTTP_CLIENT_ERROR;
      if (client->errorHandler != nullptr) client->errorHandler(connection->reply, connection->request);
      break;
    case HTTP_CLIENT_RECEIVING_REPLY:
      if (connection->reply->message.bodyType == HTTP_BODY_UNTIL_CLOSE) endBodyAtClose(connection, peer);
      break;
    case HTTP_CLIENT_INIT:
    case HTTP_CLIENT_REPLY_RECEIVED:
    case HTTP_CLIENT_CLOSED:
    case HTTP_CLIENT_ERROR:
      break;
  }
}

bool cl_handleClose(ZelPeer* peer) {
  Connection* const connection = connectionOf(peer);
  checkOwnership(connection);
  TRACE_INFO("connection closed");
  if (connection == nullptr) {
    TRACE_INFO("everything has already been handled");
    return true;
  }
  const Watch watch(connection);
  if (isInUse(connection)) reportClose(connection, peer);
  if (watch.gone()) return true;

  HttpClient* const client = connection->client;
  const bool current = client->peer == peer;
  if (current) client->peer = nullptr;
  peer_setUserData(peer, nullptr);
  release(connection);
  if (current && client->closedHandler != nullptr) client->closedHandler(client);
  return true;
}

}  // namespace

// --- the seam --------------------------------------------------------------------------------------------------------

void cl_messageGone(HttpMessage* message) {
  for (Connection* connection = connections; connection != nullptr; connection = connection->next) {
    const bool isRequest = connection->request != nullptr && &connection->request->message == message;
    const bool isReply = connection->reply != nullptr && &connection->reply->message == message;
    if (isRequest || isReply) detach(connection, message);
    if (isRequest) connection->request = nullptr;
    if (isReply) connection->reply = nullptr;
    if (isRequest || isReply) awaitTheEnd(connection);
  }
}

// --- the application's calls -----------------------------------------------------------------------------------------

namespace {

// What is found as a peer's user data may be anything: only what is one of ours is.
void releaseFormer(const HttpClient* successor, const void* userData) {
  Connection* connection = connections;
  while (connection != nullptr && static_cast<HttpClientConnection*>(connection) != userData)
    connection = connection->next;
  if (connection == nullptr) return;
  if (connection->client != successor && connection->client->peer == connection->peer)
    connection->client->peer = nullptr;
  peer_removeCloseHandler(connection->peer, cl_handleClose);
  release(connection);
}

bool openStreams(Connection* connection) {
  connection->requestStream = peer_outStream(connection->peer, PEER_STREAM_BUFFERED);
  if (connection->requestStream != nullptr) connection->replyStream = peer_inStream(connection->peer);
  return connection->requestStream != nullptr && connection->replyStream != nullptr;
}

void armMessages(Connection* connection) {
  HttpMessage* const reply = &connection->reply->message;
  closeOpenBody(reply);
  http_replyReset(connection->reply);
  reply->bodyType = HTTP_BODY_UNKNOWN;
  reply->needMoreData = 0;
  attach(connection, &connection->request->message, HTTP_MSG_WRITING, connection->requestStream);
  attach(connection, reply, HTTP_MSG_READING, connection->replyStream);
}

// Once is enough for all exchanges of the connection.
void watchClose(Connection* connection) {
  if (!connection->watchesClose) connection->watchesClose = peer_addCloseHandler(connection->peer, cl_handleClose);
}

void awaitEvents(Connection* connection) {
  peer_setEventHandler(connection->peer, PEER_EVENT_DRAINED, PEER_DIRECTION_OUT, cl_handleWriteDone);
  listenForEarlyReply(connection);
  watchClose(connection);
}

}  // namespace

extern "C" {

int http_clientStart(HttpClient* client, ZelPeer* peer) {
  client->peer = peer;
  client->state = HTTP_CLIENT_INIT;
  if (peer == nullptr) {
    TRACE_ERROR("no peer to start on");
    return -1;
  }
  auto owned = makeZeroed<Connection>();
  if (!owned) {
    TRACE_ERROR("unable to allocate resource for peer context: %m");
    client->peer = nullptr;
    return -1;
  }
  Connection* const connection = owned.release();
  connection->client = client;
  connection->peer = peer;
  if (const void* const former = peer_userData(peer)) {
    TRACE_WARNING("overwriting peer user data");
    releaseFormer(client, former);
  }
  link(connection);
  peer_setUserData(peer, static_cast<HttpClientConnection*>(connection));
  watchClose(connection);
  return 0;
}

bool http_clientRequest(HttpClient* client, HttpRequest* request, HttpReply* reply) {
  TRACE_INFO("making connection");
  expect(client, HTTP_CLIENT_INIT);
  Connection* const connection = connectionOf(client);
  if (connection != nullptr) {
    if (connection->request != request || connection->reply != reply) detachMessages(connection);
    takeFromOthers(connection, request, reply);
    connection->request = request;
    connection->reply = reply;
    connection->paused = false;
    connection->early = false;
    connection->requestCut = false;
  }
  if (connection == nullptr || !openStreams(connection)) {
    TRACE_ERROR("unable to open reply stream: %m");
    switchTo(client, HTTP_CLIENT_ERROR);
    return false;
  }
  armMessages(connection);
  awaitEvents(connection);
  switchTo(client, HTTP_CLIENT_SENDING_REQUEST);
  return true;
}

int http_clientRequestSent(HttpClient* client) {
  const Connection* const connection = connectionOf(client);
  if (connection == nullptr || connection->request == nullptr) return -1;
  connection->request->message.state = HTTP_MSG_DONE;
  return cl_handleWriteDone(client->peer) ? 0 : -1;
}

int http_clientPause(HttpClient* client) {
  Connection* const connection = connectionOf(client);
  if (connection == nullptr) return -1;
  connection->paused = true;
  peer_setEventHandler(client->peer, PEER_EVENT_DATA, PEER_DIRECTION_IN, nullptr);
  return 0;
}

int http_clientResume(HttpClient* client) {
  Connection* const connection = connectionOf(client);
  if (connection == nullptr) return -1;
  connection->paused = false;
  if (!isReading(connection)) return 0;
  listenForReply(connection);
  // What the body's own stream holds raises no event.
  const bool held = connection->reply != nullptr && heldOfBody(connection->reply->message) > 0;
  return held && !startLater(connection, 0) ? -1 : 0;
}

void http_clientStop(HttpClient* client) {
  TRACE_INFO("stopping client");
  ZelPeer* const peer = client->peer;
  if (peer == nullptr) return;
  TRACE_INFO("removing client peer");
  Connection* const connection = connectionOf(peer);
  client->peer = nullptr;
  peer_removeCloseHandler(peer, cl_handleClose);
  peer_setUserData(peer, nullptr);
  if (connection != nullptr) release(connection);
  peer_destroy(peer);
}

}  // extern "C"
