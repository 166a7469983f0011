/* A client: prints what a server has at a path. Usage: get HOST PORT PATH */
#include <krohttp/krohttp.h>
#include <krotrace/krotrace.h>
#include <zel/connection.h>
#include <zel/error.h>
#include <zel/loop.h>

static const char *problem = "the reply is not whole"; /* until it is */
static int take_head(HttpReply *reply, HttpRequest *request) { return (void)reply, (void)request, 0; }

static int take_body(HttpReply *reply, HttpRequest *request, FILE *body) {
  char block[4096];
  for (size_t count = sizeof block; count == sizeof block;) {
    count = fread(block, 1, sizeof block, body);
    fwrite(block, 1, count, stdout);
  }
  return (void)reply, (void)request, 0;
}

static void finish(HttpReply *reply, HttpRequest *request) {
  if (!reply->message.bodyCut) problem = NULL;
  http_clientStop(http_requestOwner(request)); /* the loop returns when no connection is left */
}

static void fail(HttpReply *reply, HttpRequest *request) {
  (void)reply, (void)request;
  if (zel_error != 0) problem = error_string(zel_error);
}

int main(int argc, char **argv) {
  HttpClient client = {
      .replyHeaderHandler = take_head, .bodyHandler = take_body, .replyDoneHandler = finish, .errorHandler = fail};
  HttpRequest *request = http_requestCreate();
  HttpReply *reply = http_replyCreate();
  ZelConnection *connection = connection_create();
  ZelPeer *peer = argc == 4 ? connection_connectToTCP(connection, argv[1], argv[2], 0) : NULL;
  kroTraceToFunction(NULL, NULL); /* what goes wrong is told below */
  if (argc != 4) problem = "usage: get HOST PORT PATH";
  if (peer && http_clientStart(&client, peer) == 0 && http_clientRequest(&client, request, reply)) {
    http_requestVersionSet(request, 1, 1);
    http_requestMethodSet(request, HTTP_METHOD_GET, argv[3]);
    http_requestHeaderValueSet(request, "Host", "%s:%s", argv[1], argv[2]);
    if (http_requestSend(request) == 0 && http_requestDone(request) == 0) zel_loop_run();
  }
  connection_destroy(connection); /* ends what is left of the exchange */
  http_requestDestroy(request);
  http_replyDestroy(reply);
  zel_loop_close();
  return problem ? fprintf(stderr, "get: %s\n", problem), 1 : 0;
}
