/* Holds many connections open that have each made one request, until its standard input ends.
 * usage: idle PORT COUNT
 * Writes "ready" when all have been answered and wait, and at the end "open N": how many the server has not closed. */
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

/* One source address has some 28000 ports. */
enum { CONNECTIONS_PER_ADDRESS = 20000, TIMEOUT_SECONDS = 20, SPARE_DESCRIPTORS = 32 };

static const char request[] = "GET /hello HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
static const char greeting[] = "Hello, world!";

static _Noreturn void fail(const char *what, long number) {
  fprintf(stderr, "idle: connection %ld: %s: %s\n", number, what, strerror(errno));
  exit(1);
}

static void raiseLimit(rlim_t wanted) {
  struct rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur >= wanted) return;
  limit.rlim_cur = wanted;
  if (limit.rlim_max < wanted) limit.rlim_max = wanted;
  if (setrlimit(RLIMIT_NOFILE, &limit) == 0) return;
  fprintf(stderr, "idle: cannot have %lu descriptors: %s\n", (unsigned long)wanted, strerror(errno));
  exit(1);
}

static struct sockaddr_in loopback(uint32_t host, uint16_t port) {
  struct sockaddr_in address;
  memset(&address, 0, sizeof address);
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl((UINT32_C(127) << 24) + host);
  return address;
}

static int openConnection(uint16_t port, long number) {
  const int on = 1;
  const struct timeval timeout = {TIMEOUT_SECONDS, 0};
  const struct sockaddr_in from = loopback(1 + (uint32_t)(number / CONNECTIONS_PER_ADDRESS), 0);
  const struct sockaddr_in to = loopback(1, port);
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) fail("socket", number);
  setsockopt(fd, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
  if (bind(fd, (const struct sockaddr *)&from, sizeof from) < 0) fail("bind", number);
  if (connect(fd, (const struct sockaddr *)&to, sizeof to) < 0) fail("connect", number);
  return fd;
}

/* The reply has been received when it ends with the greeting. */
static void exchange(int fd, long number) {
  char reply[4096];
  size_t length = 0;
  const size_t tail = sizeof greeting - 1;
  if (send(fd, request, sizeof request - 1, MSG_NOSIGNAL) != (ssize_t)sizeof request - 1) fail("send", number);
  while (length < tail || memcmp(reply + length - tail, greeting, tail) != 0) {
    const ssize_t count = recv(fd, reply + length, sizeof reply - length, 0);
    if (count == 0) errno = ECONNRESET;
    if (count <= 0) fail("receive", number);
    length += (size_t)count;
  }
  if (memcmp(reply, "HTTP/1.1 200 ", 13) == 0) return;
  errno = EPROTO;
  fail("reply", number);
}

static int isOpen(int fd) {
  char byte;
  return recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0 && errno == EAGAIN;
}

int main(int argc, char **argv) {
  const long port = argc == 3 ? strtol(argv[1], NULL, 10) : 0;
  const long count = argc == 3 ? strtol(argv[2], NULL, 10) : 0;
  if (port < 1 || port > 65535 || count < 1 || count > 1000000) {
    fprintf(stderr, "usage: idle PORT COUNT\n");
    return 2;
  }
  raiseLimit((rlim_t)count + SPARE_DESCRIPTORS);
  int *connections = calloc((size_t)count, sizeof *connections);
  if (connections == NULL) fail("memory", 0);
  for (long i = 0; i < count; ++i) {
    connections[i] = openConnection((uint16_t)port, i);
    exchange(connections[i], i);
  }
  puts("ready");
  fflush(stdout);
  while (getchar() != EOF) continue;

  long open = 0;
  for (long i = 0; i < count; ++i) open += isOpen(connections[i]);
  printf("open %ld\n", open);
  free(connections);
  return 0;
}
