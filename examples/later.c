/* A server that replies later: each request waits for a timer, and the loop serves others meanwhile.
 * Usage: later [PORT]; then: curl http://127.0.0.1:8080/?ms=500 */
#include <krohttp/krohttp.h>
#include <stdlib.h>
#include <zel/connection.h>
#include <zel/loop.h>
#include <zel/timer.h>

static void reply_now(ZelTimer *timer, void *userData) {
  HttpReply *reply = userData;
  http_replyUserDataSet(reply, NULL);
  zel_timer_destroy(timer);
  http_replyWithDefaultAndBody(reply, 200, "<p>Sorry to have kept you waiting.</p>");
}

static int answer_later(HttpRequest *request, HttpReply *reply) {
  char *wait = NULL;
  ZelTimer *timer = zel_timer_create();
  if (timer == NULL) return -1;
  if (http_uriGetParameter(http_requestURI(request), "ms", &wait) < 0) wait = "100";
  zel_timer_setUserData(timer, reply);
  zel_timer_setHandler(timer, reply_now);
  http_replyUserDataSet(reply, timer);
  return zel_timer_start(timer, (unsigned)strtoul(wait, NULL, 10)) ? 0 : -1;
}

/* The reply has left, or its client has: then a timer that is still running must not touch it any more. */
static void forget(HttpReply *reply, HttpRequest *request) {
  (void)request;
  zel_timer_destroy(http_replyUserData(reply));
  http_replyUserDataSet(reply, NULL);
}

static void forget_failed(HttpRequest *request, HttpReply *reply) { forget(reply, request); }

int main(int argc, char **argv) {
  ZelConnection *connection = connection_create();
  HttpServer server = {.requestHandler = answer_later, .replyDoneHandler = forget, .errorHandler = forget_failed};
  server.peer = connection_listenOnTCP(connection, "127.0.0.1", argc > 1 ? argv[1] : "8080");
  if (server.peer == NULL || http_serverStart(&server) < 0) {
    perror("later: cannot listen");
    return 1;
  }
  printf("listening on http://127.0.0.1:%u/\n", peer_localPort(server.peer));
  fflush(stdout);
  return zel_loop_run() < 0;
}
