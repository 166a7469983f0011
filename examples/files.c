/* A static file server that ends in order on SIGINT and SIGTERM. Usage: files DIR [PORT] */
#include <krohttp/krohttp.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <zel/connection.h>
#include <zel/loop.h>

static char root[PATH_MAX + 1];

static int send_file(HttpRequest *request, HttpReply *reply) {
  const int method = http_requestMethod(request);
  if (method != HTTP_METHOD_GET && method != HTTP_METHOD_HEAD) return http_replyWithDefault(reply, 405);
  if (http_serverRequestSendFile(request, reply, root) == 0) return 0;
  return http_replyState(reply) == HTTP_MSG_FIRST_LINE ? -1 : 0; /* else it has refused with a page of its own */
}

static void stopped(HttpServer *server) {
  (void)server;
  zel_loop_stop();
}

static void stop(int signal, void *server) {
  (void)signal;
  http_serverStop(server);
}

int main(int argc, char **argv) {
  ZelConnection *connection = connection_create();
  HttpServer server = {.requestHandler = send_file, .stoppedHandler = stopped};
  if (argc < 2 || realpath(argv[1], root) == NULL) {
    fprintf(stderr, "usage: files DIR [PORT]\n");
    return 2;
  }
  strcat(root, "/"); /* so that DIR2 beside DIR stays out */
  server.peer = connection_listenOnTCP(connection, "127.0.0.1", argc > 2 ? argv[2] : "8080");
  if (server.peer == NULL || http_serverStart(&server) < 0) {
    perror("files: cannot listen");
    return 1;
  }
  zel_loop_onSignal(SIGINT, stop, &server);
  zel_loop_onSignal(SIGTERM, stop, &server);
  printf("serving %s on http://127.0.0.1:%u/\n", root, peer_localPort(server.peer));
  fflush(stdout);
  zel_loop_run();
  zel_loop_drain(1000);
  connection_destroy(connection);
  zel_loop_close();
  return 0;
}
