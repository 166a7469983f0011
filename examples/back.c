/* A server on a Unix socket, for front.c: tells what it was asked. Usage: back SOCKET */
#include <krohttp/krohttp.h>
#include <stdint.h>
#include <zel/connection.h>
#include <zel/loop.h>

static int tell(HttpRequest *request, HttpReply *reply, size_t bytes) {
  if (http_replyStatusCodeSet(reply, 200, NULL) < 0) return -1;
  if (http_replyHeaderValueSet(reply, "Content-Type", "text/plain") < 0) return -1;
  if (http_replyHeaderValueSet(reply, "Transfer-Encoding", "chunked") < 0) return -1;
  if (http_replySend(reply) < 0) return -1;
  fprintf(http_replyBody(reply), "%s %s, %zu bytes\n", http_requestMethodString(request), http_requestPath(request),
          bytes);
  return http_replyDone(reply);
}

static int answer(HttpRequest *request, HttpReply *reply) {
  http_requestUserDataSet(request, NULL); /* nothing of its body has been read */
  return http_requestHasBody(request) ? 0 : tell(request, reply, 0);
}

static int count(HttpRequest *request, HttpReply *reply, FILE *body) {
  char block[4096];
  uintptr_t bytes = (uintptr_t)http_requestUserData(request);
  size_t taken;
  do {
    taken = fread(block, 1, sizeof block, body);
    bytes += taken;
  } while (taken == sizeof block);
  http_requestUserDataSet(request, (void *)bytes);
  return http_requestState(request) == HTTP_MSG_DONE ? tell(request, reply, bytes) : 0;
}

int main(int argc, char **argv) {
  ZelConnection *connection = connection_create();
  HttpServer server = {.requestHandler = answer, .bodyHandler = count};
  if (argc != 2) return fprintf(stderr, "usage: back SOCKET\n"), 2;
  server.peer = connection_listenOnIPC(connection, argv[1]);
  if (server.peer == NULL || http_serverStart(&server) < 0) {
    perror("back: cannot listen");
    return 1;
  }
  printf("listening on %s\n", argv[1]);
  fflush(stdout);
  return zel_loop_run() < 0;
}
