/* A server that hands every request to another one, behind a Unix socket (back.c). Usage: front SOCKET [PORT]
 * Where clients are not trusted, refuse requests with more than one way to tell their end first
 * (docs/modules/proxy.md). */
#include <ctype.h>
#include <krohttp/krohttp.h>
#include <zel/connection.h>
#include <zel/loop.h>

static ZelConnection *connection;
static const char *target;

/* What must be settled before a request may go on: the path travels decoded, HTTP/1.1 needs a host, and each body an
 * end that is known. */
static bool prepare(HttpRequest *request) {
  for (const char *c = http_requestPath(request); *c != '\0'; ++c)
    if (iscntrl((unsigned char)*c)) return false;
  if (http_requestHeaderValue(request, "Host") == NULL && http_requestHeaderValueSet(request, "Host", "ipc") < 0)
    return false;
  if (!http_requestHasBody(request) || http_requestBodyType(request) != HTTP_BODY_UNTIL_CLOSE) return true;
  return http_requestHeaderValueSet(request, "Content-Length", "0") == 0 && http_requestDone(request) == 0;
}

static int forward(HttpRequest *request, HttpReply *reply) {
  HttpProxy *proxy;
  if (!prepare(request)) return http_replyWithDefault(reply, 400);
  proxy = http_proxyCreate(connection, NULL, target);
  http_requestUserDataSet(request, proxy);
  if (proxy != NULL && http_proxyForwardRequest(proxy, request, reply) == 0) return 0;
  http_proxyDestroy(proxy);
  http_requestUserDataSet(request, NULL);
  return http_replyWithDefault(reply, 502);
}

static int forward_body(HttpRequest *request, HttpReply *reply, FILE *body) {
  HttpProxy *proxy = http_requestUserData(request);
  (void)reply, (void)body;
  return proxy != NULL ? http_proxyForwardRequestBody(proxy) : -1; /* answered here: nobody reads the body */
}

static void release(HttpRequest *request, HttpReply *reply) {
  (void)reply;
  http_proxyDestroy(http_requestUserData(request));
  http_requestUserDataSet(request, NULL);
}

static void finish(HttpReply *reply, HttpRequest *request) {
  HttpProxy *proxy = http_requestUserData(request);
  if (proxy != NULL) http_proxyForwardReplyDone(proxy);
  release(request, reply);
}

int main(int argc, char **argv) {
  HttpServer server = {
      .requestHandler = forward, .bodyHandler = forward_body, .replyDoneHandler = finish, .errorHandler = release};
  if (argc < 2) return fprintf(stderr, "usage: front SOCKET [PORT]\n"), 2;
  target = argv[1];
  connection = connection_create();
  server.peer = connection_listenOnTCP(connection, "127.0.0.1", argc > 2 ? argv[2] : "8080");
  if (server.peer == NULL || http_serverStart(&server) < 0) {
    perror("front: cannot listen");
    return 1;
  }
  printf("listening on http://127.0.0.1:%u/\n", peer_localPort(server.peer));
  fflush(stdout);
  return zel_loop_run() < 0;
}
