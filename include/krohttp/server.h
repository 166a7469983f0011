/**
 * @file server.h
 * The server side of connections: accepting, reading requests, sending replies and files, keep-alive, stopping.
 *
 * The handlers run on the event loop, in this order for each request: requestHandler once, when its head is complete;
 * bodyHandler each time body data can be read; replyDoneHandler once the reply has left, or the connection closed under
 * it. errorHandler runs instead when the connection closes in the middle of anything else. A handler may reply at once,
 * or return and reply later from any other handler; it may stop the server and destroy the peer of its own request
 * (and must not touch request and reply afterwards). Request and reply may not be used past the reply-done or error
 * handler.
 */
#ifndef KROHTTP_SERVER_H
#define KROHTTP_SERVER_H

#include <krohttp/reply.h>
#include <krohttp/request.h>
#include <stddef.h>
#include <zel/timer.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Where a server connection stands. */
typedef enum HttpServerState {
  HTTP_SERVER_INIT = 0,
  HTTP_SERVER_ACCEPTED = 1, /**< idle: no byte of a request has arrived */
  HTTP_SERVER_RECEIVING_REQUEST = 2,
  HTTP_SERVER_REQUEST_RECEIVED = 3,
  HTTP_SERVER_SENDING_REPLY = 4, /**< waiting for the reply to be complete and to leave */
  HTTP_SERVER_REPLY_SENT = 5,
  HTTP_SERVER_CLOSED = 6,
  HTTP_SERVER_ERROR = 7
} HttpServerState;

/**
 * What a server puts up with. Filled by http_serverLimitsInitialize(), changed as wanted, and set with
 * http_serverLimitsSet(). 0 switches a limit off. Time is looked at once a second.
 */
typedef struct HttpServerLimits {
  size_t size;            /**< of this structure, as the application knows it */
  uint32_t lineBytes;     /**< request line: 8 KiB, else 414 */
  uint32_t headBytes;     /**< request line and headers: 16 KiB, else 431 */
  uint32_t headers;       /**< 100, else 431 */
  uint64_t bodyBytes;     /**< of requests that http_serverBodyLimitSet() was not called for: 0, else 413 */
  uint32_t headSeconds;   /**< from a head's first byte to its last: 10, else 408 */
  uint32_t stallSeconds;  /**< without progress of a body or a reply: 60, else 408 or the end */
  uint32_t minimumRate;   /**< bytes a second, of a body or a reply, over rateSeconds: 512, else 408 or the end */
  uint32_t rateSeconds;   /**< 10, of which the first ones are free; beyond 10 rounded up to a multiple of 10 */
  uint32_t idleSeconds;   /**< between requests: 15, then the connection ends */
  uint32_t pausedSeconds; /**< until a paused request goes on: 0, else the connection ends */
  uint32_t requests;      /**< on a connection: 1000, then it ends with the last one's reply */
  uint32_t connections;   /**< half of the descriptors that the process may have, else 503 */
  uint8_t strict;         /**< 1: what is ambiguous is answered with 400, 501 or 505 (see HttpMessageRefusal) */
} HttpServerLimits;

/**
 * A server. Owned and zeroed by the application, which sets peer and the handlers and calls http_serverStart(); it must
 * outlive its connections (see stoppedHandler).
 */
typedef struct HttpServer {
  ZelPeer *peer;           /**< set by the application: the listening peer; NULL once stopped */
  uint32_t userWords[3];   /**< the application's, not touched by the library */
  int32_t connectionCount; /**< read-only: live connections */
  int32_t repliesSent;     /**< read-only: replies completed */
  uint32_t stopped;        /**< read-only: 1 after http_serverStop() */

  /* set by the application */

  /**
   * The head of @p request is complete.
   * @return 0, or negative to drop the connection: what was written is still sent
   */
  int (*requestHandler)(HttpRequest *request, HttpReply *reply);
  /**
   * Body data can be read: read until a short count, which ends the body or asks to wait. Without this handler bodies
   * are read and dropped.
   * @return 0, or negative to drop the connection: what was written is still sent
   */
  int (*bodyHandler)(HttpRequest *request, HttpReply *reply, FILE *body);
  /** The reply has been handed to the socket, or its connection closed. Optional. */
  void (*replyDoneHandler)(HttpReply *reply, HttpRequest *request);
  /**
   * The connection is closing in the middle of a request, or after one that could not be parsed
   * (request->message.refusal tells why). A reply that was not begun may still be sent here: it goes out before the
   * close. Optional.
   */
  void (*errorHandler)(HttpRequest *request, HttpReply *reply);
  /** The server was stopped and its last connection has closed. Runs once, from the loop. Optional. */
  void (*stoppedHandler)(struct HttpServer *server);

  const HttpServerLimits *limits;      /**< read-only: NULL without limits; set with http_serverLimitsSet() */
  uint32_t refused[HTTP_MSG_REFUSALS]; /**< read-only: how often each HttpMessageRefusal was the end of a request */
  ZelTimer *sweeper;                   /**< private: looks at the time while there are connections and limits */
} HttpServer;

typedef struct HttpServerConnection HttpServerConnection;

/** Sends one step of a descriptor. @return bytes, 0 at the end of the file, negative with errno */
typedef ssize_t (*HttpServerStaticWriter)(ZelPeer *peer, HttpServerConnection *connection);

/** One connection of a server: the user data of its peer, made at accept, freed at close. Read-only. */
struct HttpServerConnection {
  HttpServer *server;
  HttpServerState state;
  HttpRequest request;
  HttpReply reply;
  int32_t staticSize;                  /**< size of the file being sent, -1 for other descriptors, 0 when idle */
  int32_t staticFd;                    /**< descriptor being sent, -1 when none */
  HttpServerStaticWriter staticWriter; /**< how it is sent, NULL until found out */
};

/** Starts serving on server->peer. @return 0, or -1 when the peer does not take the accept handler */
KROHTTP_API int http_serverStart(HttpServer *server);

/**
 * Stops: ends the listening peer and idle connections at once; requests under way are finished first. Allowed in any
 * handler, and again. From here on neither replyDoneHandler nor errorHandler runs for a connection that closes: what
 * the application keeps for a request it releases itself (peer_addCloseHandler()). stoppedHandler tells when all is
 * done.
 */
KROHTTP_API void http_serverStop(HttpServer *server);

/** Fills in what is recommended, strictness included. */
KROHTTP_API void http_serverLimitsInitialize(HttpServerLimits *limits);

/**
 * Sets the limits of @p server, for requests that are not yet begun.
 * @param limits  borrowed: must outlive the server's connections; NULL for none
 * @return 0, or -1 with EINVAL when limits->size is not known here (traced)
 */
KROHTTP_API int http_serverLimitsSet(HttpServer *server, const HttpServerLimits *limits);

/** @return a word for an HttpMessageRefusal, for counters; NULL for other numbers */
KROHTTP_API const char *http_serverRefusalName(int refusal);

/** @return the status that an HttpMessageRefusal is answered with, 0 when the connection ends without an answer */
KROHTTP_API unsigned http_serverRefusalStatus(int refusal);

/**
 * Limits the body of one request, announced or not; call it in requestHandler.
 * @param bytes  0: no limit
 */
KROHTTP_API void http_serverBodyLimitSet(HttpRequest *request, uint64_t bytes);

/**
 * Tells a client that waits for it to send the body of @p request: writes "100 Continue" if the request came with
 * "Expect: 100-continue" (RFC 9110 section 10.1.1) and its body is still to be read. Call it before the reply is begun;
 * whoever has to think about it pauses the request, or the client's time for the body runs (see HttpServerLimits).
 * @return 0, or -1 when it could not be written (traced)
 */
KROHTTP_API int http_serverContinue(HttpRequest *request, HttpReply *reply);

/**
 * Stops reading @p request until http_serverResumeRequest(); unread data stays with the connection.
 * @return 0, or -1 when the request has no peer or the peer refuses (traced)
 */
KROHTTP_API int http_serverPauseRequest(HttpRequest *request);

/** Goes on reading with the peer's next read event; nothing runs inside this call. @return 0 or -1 (traced) */
KROHTTP_API int http_serverResumeRequest(HttpRequest *request);

/** Ends the current pass over @p request; the next read event goes on with it. @return 0 or -1 (traced) */
KROHTTP_API int http_serverTemporizeRequest(HttpRequest *request);

/**
 * Sends the reply's head and then what @p descriptor yields until its end, as the reply's body. The status must have
 * been set. A regular file gets a Content-Length and is sent from its beginning; for other descriptors the connection
 * closes at the end.
 * @param descriptor  owned by the server from this call on, also when it fails
 * @return 0, or -1 when the head could not be sent (traced)
 */
KROHTTP_API int http_serverSendFd(HttpReply *reply, int descriptor);

/**
 * As http_serverSendFd(), for the file at @p path.
 * @return 0, or -1: a 404 reply was sent if the file could not be opened
 */
KROHTTP_API int http_serverSendFile(HttpReply *reply, const char *path);

/**
 * Answers @p request with the file under @p root that its path names: index.html for a directory, the ".gz" variant
 * beside a file if there is one.
 * @param root  compared as text with the resolved path: give it resolved (realpath()), and with a slash at its end
 * unless its siblings may be served too
 * @return 0, or -1: a 400 or 404 reply was sent (traced), or the status could not be set
 */
KROHTTP_API int http_serverRequestSendFile(HttpRequest *request, HttpReply *reply, const char *root);

#ifdef __cplusplus
}
#endif
#endif
