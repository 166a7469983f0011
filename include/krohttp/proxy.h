/**
 * @file proxy.h
 * The forwarding proxy: hands a request that a server has received to another process, and its reply back.
 *
 * One proxy carries one exchange. The application creates it in its server's request handler and
 *
 * - calls http_proxyForwardRequest() there, and answers itself when that fails;
 * - calls http_proxyForwardRequestBody() in the server's body handler;
 * - calls http_proxyForwardReplyDone() and http_proxyDestroy() in the server's reply-done handler, and
 *   http_proxyDestroy() in its error handler.
 *
 * In between the proxy writes the server's reply: the target's, or 504 when the target gives none. No more than a
 * bounded part of a body is in memory: the side that sends faster is not read while the other one catches up.
 * A target that ends in the middle of its reply, or a proxy that gives up there, closes the connection of the browser,
 * so that it can tell. When the browser's connection ends, the one to the target is ended with it.
 */
#ifndef KROHTTP_PROXY_H
#define KROHTTP_PROXY_H

#include <krohttp/client.h>
#include <krohttp/server.h>
#include <zel/connection.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Where an exchange stands; "client" is the browser's side, "server" the target. */
typedef enum HttpProxyState {
  HTTP_PROXY_INIT = 0,
  HTTP_PROXY_RECEIVING_CLIENT_REQUEST = 1, /**< the head was forwarded, the body follows */
  HTTP_PROXY_CLIENT_REQUEST_RECEIVED = 2,
  HTTP_PROXY_SERVER_REQUEST_FORWARDED = 3, /**< waiting for the target's reply */
  HTTP_PROXY_RECEIVING_SERVER_REPLY = 4,
  HTTP_PROXY_SERVER_REPLY_RECEIVED = 5,   /**< not used */
  HTTP_PROXY_FORWARDING_CLIENT_REPLY = 6, /**< the reply is complete and on its way to the browser */
  HTTP_PROXY_CLIENT_REPLY_FORWARDED = 7,
  HTTP_PROXY_ERROR = 8
} HttpProxyState;

enum { HTTP_PROXY_STATE_COUNT = 9 };

/** The names of the states. */
extern KROHTTP_API const char *const proxyStateStrings[HTTP_PROXY_STATE_COUNT];

/** One exchange. Read-only but for what is marked. */
typedef struct HttpProxy {
  HttpProxyState state;
  HttpRequest *request;             /**< the received request, not owned; NULL once its connection has ended */
  HttpReply *reply;                 /**< the reply to it, not owned; NULL once its connection has ended */
  HttpRequest *forwardRequest;      /**< the request to the target, owned */
  HttpReply *forwardReply;          /**< the target's reply, owned */
  HttpServer *owner;                /**< the server of request */
  HttpClient client;                /**< drives the exchange with the target */
  const char *host;                 /**< of the target, borrowed; NULL or "ipc": a local socket */
  const char *port;                 /**< of the target, or the path of its local socket; borrowed */
  ZelConnection *connectionContext; /**< takes the connection to the target, borrowed */
  /**
   * Set by the application: the target's status and headers have been copied into @p reply and are about to be sent;
   * headers may be added. Optional.
   * @return 0, or negative to send nothing: the exchange with the target is then given up, and @p reply is the
   * application's
   */
  int (*replyFilter)(struct HttpProxy *proxy, HttpReply *reply);
  /** Set by the application before forwarding: after so many milliseconds without any progress the exchange is given up
   * (http_proxyAbort()). 0: never. */
  uint32_t timeout;
  struct HttpProxyExchange *exchange; /**< private */
} HttpProxy;

enum { HTTP_PROXY_TIMEOUT = 60000 /**< the timeout that a proxy begins with, in milliseconds */ };

/**
 * @param connection  takes the connection to the target
 * @param host        of the target; NULL or "ipc": a local socket
 * @param port        of the target, or the path of its local socket
 * All three must live as long as the proxy.
 * @return a new, initialized proxy, owned by the caller; NULL when memory is short (traced)
 */
KROHTTP_API HttpProxy *http_proxyCreate(ZelConnection *connection, const char *host, const char *port);
/** Makes zeroed memory a proxy: for embedded and static ones. */
KROHTTP_API void http_proxyInitialize(HttpProxy *proxy, ZelConnection *connection, const char *host, const char *port);
/** Ends the connection to the target and releases what the proxy owns; the counterpart of http_proxyInitialize(). */
KROHTTP_API void http_proxyCleanup(HttpProxy *proxy);
/** Cleans up and frees; the counterpart of http_proxyCreate(). NULL is allowed. Allowed in every handler. */
KROHTTP_API void http_proxyDestroy(HttpProxy *proxy);

/**
 * Connects to the target and sends it the head of @p request: as HTTP/1.1, with the target's Host, and without the
 * Connection header. A request that asks for it (Expect: 100-continue) is told to go on.
 * @return 0, or -1 (traced): the application answers
 */
KROHTTP_API int http_proxyForwardRequest(HttpProxy *proxy, HttpRequest *request, HttpReply *reply);

/** Forwards the body data that has arrived; once the target takes no more, it is read and dropped.
 * @return 0, or -1 when the exchange has failed (traced): drop the connection */
KROHTTP_API int http_proxyForwardRequestBody(HttpProxy *proxy);

/** Notes that the reply has left. @return 0 */
KROHTTP_API int http_proxyForwardReplyDone(HttpProxy *proxy);

/** Gives the exchange up: the browser gets 504, or its connection is closed if a part of the reply was sent. Does
 * nothing when the reply is complete. */
KROHTTP_API void http_proxyAbort(HttpProxy *proxy);

#ifdef __cplusplus
}
#endif
#endif
