/* An application in C against the installed library: says what it saw, one fact a line. */
#include <krohttp/krohttp.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <zel/connection.h>
#include <zel/loop.h>

static int failures;

static void check(int holds, const char *what) {
  printf("%s - %s\n", holds ? "ok" : "NOT OK", what);
  if (!holds) failures++;
}

static void base64(void) {
  char *text = NULL;
  char *bytes = NULL;
  check(http_base64Encode("light work.", 11, &text) == 0 && strcmp(text, "bGlnaHQgd29yay4=") == 0, "base64 encodes");
  check(http_base64Decode("bGlnaHQgd29yay4=", 16, &bytes) == 0 && strcmp(bytes, "light work.") == 0, "base64 decodes");
  free(text);
  free(bytes);
}

static void uri(void) {
  char target[] = "/a%20b?x=1&y=%C3%A9";
  HttpUri parsed;
  char *value = NULL;
  memset(&parsed, 0, sizeof parsed);
  check(http_uriParse(&parsed, target) == 0 && strcmp(parsed.path, "/a b") == 0, "a target is parsed");
  check(http_uriGetParameter(&parsed, "y", &value) == 0 && strcmp(value, "\xC3\xA9") == 0, "a parameter is decoded");
}

static void request(void) {
  char wire[] = "POST /echo HTTP/1.1\r\nHost: example\r\nContent-Length: 5\r\n\r\nhello";
  FILE *stream = fmemopen(wire, sizeof wire - 1, "r");
  HttpRequest *parsed = http_requestCreate();
  char body[8] = "";
  int lines = 0;

  http_requestModeSet(parsed, HTTP_MSG_READING);
  http_requestStreamSet(parsed, stream);
  while (http_requestState(parsed) < HTTP_MSG_BODY && lines++ < 10 && http_requestParse(parsed) == 0) {
  }
  check(http_requestState(parsed) == HTTP_MSG_BODY, "a head is read from a memory stream");
  check(http_requestMethod(parsed) == HTTP_METHOD_POST && strcmp(http_requestMethodString(parsed), "POST") == 0,
        "its method");
  check(strcmp(http_requestPath(parsed), "/echo") == 0, "its path");
  check(strcmp(http_requestHeaderValue(parsed, "host"), "example") == 0, "its headers");
  check(fread(body, 1, sizeof body, http_requestBody(parsed)) == 5 && strcmp(body, "hello") == 0, "its body");
  http_requestDestroy(parsed);
  fclose(stream);
}

static int requests;

static int answer(HttpRequest *got, HttpReply *reply) {
  (void)got;
  requests++;
  return http_replyWithDefault(reply, 200);
}

static void stopped(HttpServer *server) {
  (void)server;
  zel_loop_stop();
}

/* The loop of the platform runs behind the server. */
static void serve(void) {
  HttpServer server;
  ZelConnection *connection = connection_create();
  ZelConnection *outgoing = connection_create();
  char port[8];
  char line[64] = "";
  ZelPeer *client;
  int turns;

  memset(&server, 0, sizeof server);
  server.requestHandler = answer;
  server.stoppedHandler = stopped;
  server.peer = connection_listenOnTCP(connection, "127.0.0.1", "0");
  check(server.peer != NULL && http_serverStart(&server) == 0, "a server starts");
  if (server.peer == NULL) return;
  snprintf(port, sizeof port, "%u", peer_localPort(server.peer));

  client = connection_connectToTCP(outgoing, "127.0.0.1", port, 0);
  fputs("GET / HTTP/1.0\r\n\r\n", peer_outStream(client, PEER_STREAM_BUFFERED));
  for (turns = 0; turns < 1000 && fgets(line, sizeof line, peer_inStream(client)) == NULL; turns++) {
    clearerr(peer_inStream(client));
    zel_loop_turn(100);
  }
  check(strcmp(line, "HTTP/1.0 200 OK\r\n") == 0 && requests == 1, "it answers");

  http_serverStop(&server);
  check(zel_loop_run() == 0 && server.connectionCount == 0, "it stops");
  connection_destroy(outgoing);
  connection_destroy(connection);
  zel_loop_close();
}

int main(void) {
  base64();
  uri();
  request();
  serve();
  return failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
