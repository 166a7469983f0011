/* Takes firmware images out of an upload form, at the pace of the flash they go to: after each block that it takes the
 * client has to wait, and the loop serves others meanwhile.
 * Usage: receive FILE [PORT]; then: curl -F image=@firmware.bin http://127.0.0.1:8080/ */
#include <krohttp/krohttp.h>
#include <stdlib.h>
#include <zel/connection.h>
#include <zel/loop.h>
#include <zel/timer.h>

enum { BLOCK = 65536, MILLISECONDS_PER_BLOCK = 2 };

typedef struct Upload {
  HttpMultipart form;
  HttpRequest *request;
  ZelTimer *flashing; /* runs while a block is being written */
  unsigned long long size;
} Upload;

static const char *path;
static char block[BLOCK];

static void block_written(ZelTimer *timer, void *userData) {
  Upload *upload = userData;
  (void)timer;
  http_serverResumeRequest(upload->request);
}

/* Appends to the image; starts it anew with the first block. */
static int flash(Upload *upload, size_t count) {
  FILE *file = fopen(path, upload->size == 0 ? "wb" : "ab");
  size_t written;
  if (file == NULL) return -1;
  written = fwrite(block, 1, count, file);
  upload->size += written;
  return fclose(file) == 0 && written == count ? 0 : -1;
}

static int on_part_body(HttpRequest *part, FILE *body) {
  HttpMultipart *form = http_requestUserData(part);
  Upload *upload = http_msgMultipartMessage(form)->userData;
  size_t count = fread(block, 1, sizeof block, body);
  if (count == 0) return 0; /* no more now, or the end of the part */
  if (flash(upload, count) < 0 || http_msgMultipartPause(form) < 0) return -1;
  return zel_timer_start(upload->flashing, MILLISECONDS_PER_BLOCK) ? 0 : -1;
}

static void forget(HttpReply *reply, HttpRequest *request) {
  Upload *upload = http_requestUserData(request);
  (void)reply;
  if (upload == NULL) return;
  zel_timer_destroy(upload->flashing);
  http_msgMultipartCleanup(&upload->form);
  free(upload);
  http_requestUserDataSet(request, NULL);
}

/* The client has left in the middle, or its form was refused. */
static void forget_failed(HttpRequest *request, HttpReply *reply) { forget(reply, request); }

static int begin(HttpRequest *request, HttpReply *reply) {
  Upload *upload;
  if (http_requestMethod(request) != HTTP_METHOD_POST) return http_replyWithDefault(reply, 405);
  upload = calloc(1, sizeof *upload);
  if (upload == NULL) return -1;
  upload->request = request;
  upload->flashing = zel_timer_create();
  http_requestUserDataSet(request, upload);
  if (upload->flashing == NULL || http_msgMultipartInitialize(&upload->form, &request->message, NULL, on_part_body) < 0)
    return -1;
  zel_timer_setUserData(upload->flashing, upload);
  zel_timer_setHandler(upload->flashing, block_written);
  return http_serverContinue(request, reply);
}

static int go_on(HttpRequest *request, HttpReply *reply, FILE *body) {
  Upload *upload = http_requestUserData(request);
  char text[64];
  (void)body;
  if (upload == NULL || http_msgMultipartHandleRead(&upload->form) < 0) return -1;
  if (upload->form.state != HTTP_MULTIPART_DONE) return 0;
  snprintf(text, sizeof text, "<p>%llu bytes</p>", upload->size);
  return http_replyWithDefaultAndBody(reply, 200, text);
}

int main(int argc, char **argv) {
  ZelConnection *connection = connection_create();
  HttpServer server = {
      .requestHandler = begin, .bodyHandler = go_on, .replyDoneHandler = forget, .errorHandler = forget_failed};
  if (argc < 2) {
    fprintf(stderr, "usage: receive FILE [PORT]\n");
    return 2;
  }
  path = argv[1];
  server.peer = connection_listenOnTCP(connection, "127.0.0.1", argc > 2 ? argv[2] : "8080");
  if (server.peer == NULL || http_serverStart(&server) < 0) {
    perror("receive: cannot listen");
    return 1;
  }
  printf("listening on http://127.0.0.1:%u/\n", peer_localPort(server.peer));
  fflush(stdout);
  return zel_loop_run() < 0;
}
