/* The smallest server: answers every request with a line of text. Usage: hello [PORT] */
#include <krohttp/krohttp.h>
#include <zel/connection.h>
#include <zel/loop.h>

static int answer(HttpRequest *request, HttpReply *reply) {
  static const char text[] = "Hello, world!\n";
  (void)request;
  if (http_replyStatusCodeSet(reply, 200, NULL) < 0) return -1;
  if (http_replyHeaderValueSet(reply, "Content-Type", "text/plain") < 0) return -1;
  if (http_replyHeaderValueSet(reply, "Content-Length", "%zu", sizeof text - 1) < 0) return -1;
  if (http_replySend(reply) < 0) return -1;
  fputs(text, http_replyBody(reply));
  return http_replyDone(reply);
}

int main(int argc, char **argv) {
  ZelConnection *connection = connection_create();
  HttpServer server = {.requestHandler = answer};
  server.peer = connection_listenOnTCP(connection, "127.0.0.1", argc > 1 ? argv[1] : "8080");
  if (server.peer == NULL || http_serverStart(&server) < 0) {
    perror("hello: cannot listen");
    return 1;
  }
  printf("listening on http://127.0.0.1:%u/\n", peer_localPort(server.peer));
  fflush(stdout);
  return zel_loop_run() < 0;
}
