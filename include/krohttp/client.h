/**
 * @file client.h
 * The client side of one connection: one exchange at a time, over a peer that the application has connected.
 *
 *     http_clientStart(&client, peer);                 once per connection
 *     http_requestVersionSet(), http_requestMethodSet(), http_requestHeaderValueSet()
 *     http_clientRequest(&client, request, reply);     attaches both to the connection
 *     http_requestSend(), http_requestBody(), http_requestDone()
 *
 * The handlers run on the event loop, in this order for each exchange: replyHeaderHandler once, when the reply's head
 * is complete; bodyHandler each time body data can be read; replyDoneHandler; readyHandler, in which the next request
 * may be begun. Interim replies (100 to 199, but 101) are skipped. The reply to HEAD, and one with status 204 or 304,
 * is complete after its head (RFC 9112 section 6.3). A body that ended before its announced end, or by a reset, shows
 * as reply->message.bodyCut; a broken chunked body, and a head that ends early or is none, end the connection.
 *
 * When the connection ends: errorHandler if nothing of the reply had come; the rest of a body that lasts until then,
 * with replyDoneHandler and readyHandler; in any case closedHandler. Request and reply are detached by then: an open
 * body stream has been closed, and their streams and peer are NULL.
 *
 * Every handler may stop the client, end its peer, and destroy the request, the reply and the client itself.
 */
#ifndef KROHTTP_CLIENT_H
#define KROHTTP_CLIENT_H

#include <krohttp/reply.h>
#include <krohttp/request.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Where a client stands. */
typedef enum HttpClientState {
  HTTP_CLIENT_INIT = 0, /**< ready for a request */
  HTTP_CLIENT_SENDING_REQUEST = 1,
  HTTP_CLIENT_REQUEST_SENT = 2, /**< waiting for the reply */
  HTTP_CLIENT_RECEIVING_REPLY = 3,
  HTTP_CLIENT_REPLY_RECEIVED = 4,
  HTTP_CLIENT_CLOSED = 5, /**< not used */
  HTTP_CLIENT_ERROR = 6
} HttpClientState;

enum { HTTP_CLIENT_STATE_COUNT = 7 };

/** The names of the states. */
extern KROHTTP_API const char *const clientStateStrings[HTTP_CLIENT_STATE_COUNT];

/** A client. Owned and zeroed by the application, which sets the handlers. */
typedef struct HttpClient {
  HttpClientState state; /**< read-only */
  ZelPeer *peer;         /**< read-only: the connection, NULL when there is none (any more) */
  uint32_t userWords[3]; /**< the application's, not touched by the library */

  /* set by the application */

  /** The reply's head is complete. Mandatory. @return 0, or negative to end the connection */
  int (*replyHeaderHandler)(HttpReply *reply, HttpRequest *request);
  /**
   * Body data can be read: read until a short count, which ends the body or asks to wait. Mandatory for replies with a
   * body. One that cannot take more for now calls http_clientPause().
   * @return 0, or negative to end the connection
   */
  int (*bodyHandler)(HttpReply *reply, HttpRequest *request, FILE *body);
  /** The reply is complete. Optional. */
  void (*replyDoneHandler)(HttpReply *reply, HttpRequest *request);
  /** The connection ended before any of the reply came. The platform's zel_error tells why it could not be made.
   * Optional. */
  void (*errorHandler)(HttpReply *reply, HttpRequest *request);
  /** Request and reply have been reset: the client can take the next request. Not called when one of them was destroyed
   * in replyDoneHandler. Optional. */
  void (*readyHandler)(HttpReply *reply, HttpRequest *request);
  /** What was written of the request has left and the request is not done: write more of its body. Optional: without
   * it everything can be written at once, and waits in memory. */
  void (*requestDrainedHandler)(HttpReply *reply, HttpRequest *request);
  /** Whether a reply may be read, and its handlers called, while the request is still being sent: otherwise it waits
   * until the request is complete. One that refuses (status 400 and more) then ends the sending, and its connection
   * ends with it; any other one is done when both are complete. */
  bool takesEarlyReply;
  /** The connection has ended, by the other side or by a failure, at any point; runs last. Not called for
   * http_clientStop(). The client may be started again here. Optional. */
  void (*closedHandler)(struct HttpClient *client);
} HttpClient;

/** What a started client keeps with its peer, as the peer's user data. Read-only. */
typedef struct HttpClientConnection {
  HttpClient *client;
  HttpRequest *request; /**< the outgoing message, not owned */
  HttpReply *reply;     /**< the incoming message, not owned */
  FILE *requestStream;  /**< the peer's output stream */
  FILE *replyStream;    /**< the peer's input stream */
} HttpClientConnection;

/**
 * Puts @p client on @p peer, connected or connecting, whose user data is the client's from then on. A peer that
 * the client was on before is left alone, so stop the client first.
 * @return 0, or -1 when memory is short (traced)
 */
KROHTTP_API int http_clientStart(HttpClient *client, ZelPeer *peer);

/**
 * Begins an exchange. @p request keeps what the application has set already and is written by it afterwards; @p reply
 * is reset. Both stay the application's and must live until the exchange or the connection is over.
 * @return true, or false when there is no connection (traced; state HTTP_CLIENT_ERROR)
 */
KROHTTP_API bool http_clientRequest(HttpClient *client, HttpRequest *request, HttpReply *reply);

/** Tells that the request is complete although nothing of it is left to send, so that no event will come: after a body
 * of which the last bytes had left before it was closed. @return 0, or -1 when there is no exchange or it failed */
KROHTTP_API int http_clientRequestSent(HttpClient *client);

/** Stops reading the reply until http_clientResume(); what arrives meanwhile stays with the connection.
 * @return 0, or -1 when there is no connection */
KROHTTP_API int http_clientPause(HttpClient *client);

/** Goes on reading with the peer's next read event; nothing runs inside this call. @return 0, or -1 when there is no
 * connection */
KROHTTP_API int http_clientResume(HttpClient *client);

/** Ends the connection, if there is one. No handler is called any more. Allowed in any handler, and again. */
KROHTTP_API void http_clientStop(HttpClient *client);

#ifdef __cplusplus
}
#endif
#endif
