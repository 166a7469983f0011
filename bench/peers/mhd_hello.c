/* The same small server as the others, on libmicrohttpd: GET /hello, and the files of a folder. One thread, epoll.
 * usage: mhd_hello PORT ROOT */
#include <arpa/inet.h>
#include <fcntl.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

enum { CONNECTION_LIMIT = 1000000 };

static char greeting[] = "Hello, world!";
static struct MHD_Response *hello;
static struct MHD_Response *notFound;
static int rootFd = -1;

static struct MHD_Response *withHeaders(struct MHD_Response *response, const char *contentType) {
  if (response == NULL) return NULL;
  MHD_add_response_header(response, MHD_HTTP_HEADER_SERVER, "mhd_hello");
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, contentType);
  return response;
}

static struct MHD_Response *fromText(char *text) {
  return withHeaders(MHD_create_response_from_buffer(strlen(text), text, MHD_RESPMEM_PERSISTENT), "text/plain");
}

/** The response owns the descriptor. NULL when there is no such file. */
static struct MHD_Response *fromFile(const char *path) {
  if (*path == '\0' || *path == '/' || strstr(path, "..") != NULL) return NULL;
  const int fd = openat(rootFd, path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return NULL;
  struct stat status;
  struct MHD_Response *response = NULL;
  if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode))
    response = MHD_create_response_from_fd64((uint64_t)status.st_size, fd);
  if (response == NULL) close(fd);
  return withHeaders(response, "application/octet-stream");
}

static enum MHD_Result answer(void *userData, struct MHD_Connection *connection, const char *url, const char *method,
                              const char *version, const char *body, size_t *bodySize, void **requestData) {
  static int seen;
  (void)userData;
  (void)version;
  (void)body;
  /* The first call is for the head alone: answering there would close the connection. */
  if (*requestData == NULL) {
    *requestData = &seen;
    return MHD_YES;
  }
  if (*bodySize > 0) {
    *bodySize = 0;
    return MHD_YES;
  }
  if (strcmp(method, MHD_HTTP_METHOD_GET) != 0) return MHD_queue_response(connection, MHD_HTTP_NOT_FOUND, notFound);
  if (strcmp(url, "/hello") == 0) return MHD_queue_response(connection, MHD_HTTP_OK, hello);
  struct MHD_Response *file = fromFile(url + 1);
  if (file == NULL) return MHD_queue_response(connection, MHD_HTTP_NOT_FOUND, notFound);
  const enum MHD_Result result = MHD_queue_response(connection, MHD_HTTP_OK, file);
  MHD_destroy_response(file);
  return result;
}

int main(int argc, char **argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: mhd_hello PORT ROOT\n");
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);
  rootFd = open(argv[2], O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  hello = fromText(greeting);
  notFound = fromText("");
  struct sockaddr_in address;
  memset(&address, 0, sizeof address);
  address.sin_family = AF_INET;
  address.sin_port = htons((uint16_t)strtoul(argv[1], NULL, 10));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  struct MHD_Daemon *daemon =
      MHD_start_daemon(MHD_USE_EPOLL | MHD_USE_TURBO, 0, NULL, NULL, answer, NULL, MHD_OPTION_SOCK_ADDR, &address,
                       MHD_OPTION_CONNECTION_LIMIT, (unsigned)CONNECTION_LIMIT, MHD_OPTION_LISTEN_BACKLOG_SIZE,
                       (unsigned)SOMAXCONN, MHD_OPTION_END);
  if (rootFd < 0 || hello == NULL || notFound == NULL || daemon == NULL) {
    perror("mhd_hello");
    return 1;
  }
  while (MHD_run_wait(daemon, -1) == MHD_YES) continue;
  return 1;
}
