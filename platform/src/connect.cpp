// Connecting: names are resolved and addresses tried one after the other while the loop runs.
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform_internal.h"

namespace zel {

namespace {

struct Target {
  sockaddr_storage address;
  socklen_t length;
};

/** What the loop waits for: the outcome of one attempt, or the time for another. Outlives the peer if need be. */
struct Attempt {
  union {
    uv_handle_t handle;
    uv_poll_t poll;
    uv_timer_t timer;
  };
  ZelPeer* peer;
};

/** A look-up on its way in another thread. Outlives the peer if need be. */
struct Resolution {
  uv_getaddrinfo_t request;
  ZelPeer* peer;
  bool unwaited; /**< counted by the loop as such */
};

}  // namespace

struct ConnectJob {
  Resolution* resolution;
  Attempt* attempt;
  size_t count;
  size_t next;
  uint32_t error; /**< of the last address that was tried */
  Target* targets;
};

namespace {

void tryNext(ZelPeer* peer);

void freeAttempt(uv_handle_t* handle) { free(handle); }

void dropAttempt(ConnectJob* job) {
  if (job->attempt) uv_close(&job->attempt->handle, freeAttempt);
  job->attempt = nullptr;
}

void unwait(Resolution* resolution) {
  if (!resolution->unwaited) ++loop.unwaited;
  resolution->unwaited = true;
}

void freeJob(ZelPeer* peer) {
  ConnectJob* job = peer->connecting;
  if (!job) return;
  dropAttempt(job);
  if (job->resolution) {
    unwait(job->resolution);
    job->resolution->peer = nullptr;
    uv_cancel(reinterpret_cast<uv_req_t*>(&job->resolution->request));
  }
  free(job->targets);
  free(job);
  peer->connecting = nullptr;
}

void closeDescriptor(ZelPeer* peer) {
  if (peer->fd >= 0) close(peer->fd);
  peer->fd = -1;
}

void giveUp(ZelPeer* peer, uint32_t error) {
  closeDescriptor(peer);
  if (!peer->ended) return peer_failLater(peer, error);
  freeJob(peer);
  peer_releaseIfDone(peer);
}

void established(ZelPeer* peer) {
  const Target* target = &peer->connecting->targets[peer->connecting->next - 1];
  peer_rememberRemote(peer, reinterpret_cast<const sockaddr*>(&target->address), target->length);
  freeJob(peer);
  peer->socket = Socket::Connected;
  if (!peer_openPoll(peer)) return giveUp(peer, zel_error);
  if (!peer->ended) return;
  if (!peer->heldByTurn) uv_unref(reinterpret_cast<uv_handle_t*>(&peer->poll));
  peer_endConnected(peer);
}

void onAttempt(uv_poll_t* handle, int, int) {
  ZelPeer* peer = static_cast<ZelPeer*>(handle->data);
  int error = 0;
  socklen_t length = sizeof(error);
  if (getsockopt(peer->fd, SOL_SOCKET, SO_ERROR, &error, &length) < 0) error = errno;
  dropAttempt(peer->connecting);
  if (error == 0) return established(peer);
  peer->connecting->error = static_cast<uint32_t>(error);
  closeDescriptor(peer);
  tryNext(peer);
}

void onRetry(uv_timer_t* timer) {
  ZelPeer* peer = static_cast<ZelPeer*>(timer->data);
  dropAttempt(peer->connecting);
  tryNext(peer);
}

/** The attempt and its peer find each other. @return false when memory is short */
bool makeAttempt(ZelPeer* peer) {
  Attempt* attempt = static_cast<Attempt*>(calloc(1, sizeof(Attempt)));
  peer->connecting->attempt = attempt;
  return attempt != nullptr;
}

void await(ZelPeer* peer) {
  ConnectJob* job = peer->connecting;
  if (!makeAttempt(peer)) return giveUp(peer, ENOMEM);
  const int status = uv_poll_init(&loop.uv, &job->attempt->poll, peer->fd);
  if (status < 0) {
    free(job->attempt);
    job->attempt = nullptr;
    return giveUp(peer, static_cast<uint32_t>(-status));
  }
  job->attempt->poll.data = peer;
  uv_poll_start(&job->attempt->poll, UV_WRITABLE, onAttempt);
  if (peer->ended && !peer->heldByTurn) uv_unref(&job->attempt->handle);
}

/** The other side's backlog is full, which local sockets do not wait for. */
void retryLater(ZelPeer* peer) {
  ConnectJob* job = peer->connecting;
  --job->next;
  closeDescriptor(peer);
  if (!makeAttempt(peer)) return giveUp(peer, ENOMEM);
  uv_timer_init(&loop.uv, &job->attempt->timer);
  job->attempt->timer.data = peer;
  loop_startTimer(&job->attempt->timer, onRetry, loop_now() + kConnectRetryMilliseconds);
  if (peer->ended && !peer->heldByTurn) uv_unref(&job->attempt->handle);
}

bool openSocket(ZelPeer* peer, const Target* target) {
  const int family = target->address.ss_family;
  peer->fd = socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (peer->fd < 0) return false;
  const int on = 1;
  if (family != AF_UNIX) setsockopt(peer->fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  return true;
}

void tryNext(ZelPeer* peer) {
  ConnectJob* job = peer->connecting;
  while (job->next < job->count) {
    const Target* target = &job->targets[job->next++];
    if (openSocket(peer, target)) {
      if (connect(peer->fd, reinterpret_cast<const sockaddr*>(&target->address), target->length) == 0)
        return established(peer);
      if (errno == EINPROGRESS || errno == EINTR) return await(peer);
      if (errno == EAGAIN && target->address.ss_family == AF_UNIX) return retryLater(peer);
    }
    job->error = static_cast<uint32_t>(errno);
    closeDescriptor(peer);
  }
  giveUp(peer, job->error);
}

bool takeTargets(ConnectJob* job, const addrinfo* found) {
  size_t count = 0;
  for (const addrinfo* one = found; one; one = one->ai_next) ++count;
  job->targets = static_cast<Target*>(calloc(count, sizeof(Target)));
  if (!job->targets) return fail(ENOMEM);
  for (const addrinfo* one = found; one; one = one->ai_next) {
    memcpy(&job->targets[job->count].address, one->ai_addr, one->ai_addrlen);
    job->targets[job->count++].length = one->ai_addrlen;
  }
  return true;
}

void onResolved(uv_getaddrinfo_t* request, int status, addrinfo* found) {
  Resolution* resolution = reinterpret_cast<Resolution*>(request);
  ZelPeer* peer = resolution->peer;
  if (resolution->unwaited) --loop.unwaited;
  free(resolution);
  if (peer) {
    peer->connecting->resolution = nullptr;
    if (status < 0)
      giveUp(peer, ZEL_ERROR_RESOLVE);
    else if (!takeTargets(peer->connecting, found))
      giveUp(peer, ENOMEM);
    else
      tryNext(peer);
  }
  uv_freeaddrinfo(found);
}

void resolve(ZelPeer* peer, const char* host, const char* port) {
  Resolution* resolution = static_cast<Resolution*>(calloc(1, sizeof(Resolution)));
  if (!resolution) return giveUp(peer, ENOMEM);
  resolution->peer = peer;
  addrinfo hints = {};
  hints.ai_socktype = SOCK_STREAM;
  if (uv_getaddrinfo(&loop.uv, &resolution->request, onResolved, host, port, &hints) == 0) {
    peer->connecting->resolution = resolution;
  } else {
    free(resolution);
    giveUp(peer, ZEL_ERROR_RESOLVE);
  }
}

ZelPeer* makePeer(ZelConnection* connection) {
  if (!connection_isUsable(connection)) return nullptr;
  ConnectJob* job = static_cast<ConnectJob*>(calloc(1, sizeof(ConnectJob)));
  if (!job) return failWithErrno<ZelPeer>();
  ZelPeer* peer = peer_create(connection, -1, Socket::Connecting);
  if (peer)
    peer->connecting = job;
  else
    free(job);
  return peer;
}

/** A number in range, or a name that only the system can judge. */
bool isPort(const char* port) {
  if (!port || !*port) return false;
  const size_t digits = strspn(port, "0123456789");
  if (port[digits]) return true;
  return digits <= 5 && strtoul(port, nullptr, 10) <= UINT16_MAX;
}

bool isNumeric(const char* host) {
  unsigned char address[sizeof(in6_addr)];
  char plain[INET6_ADDRSTRLEN];
  const size_t length = strcspn(host, "%");
  if (length >= sizeof(plain)) return false;
  memcpy(plain, host, length);
  plain[length] = '\0';
  return inet_pton(AF_INET, host, address) == 1 || inet_pton(AF_INET6, plain, address) == 1;
}

}  // namespace

void connect_abandon(ZelPeer* peer) { freeJob(peer); }

void connect_unref(ZelPeer* peer) {
  if (peer->connecting && peer->connecting->attempt) uv_unref(&peer->connecting->attempt->handle);
  if (peer->connecting && peer->connecting->resolution) unwait(peer->connecting->resolution);
}

bool socketAddress_ofPath(const char* path, sockaddr_un* address) {
  *address = {};
  address->sun_family = AF_UNIX;
  const size_t length = path ? strlen(path) : 0;
  if (length == 0 || length >= sizeof(address->sun_path)) return fail(ZEL_ERROR_ADDRESS);
  memcpy(address->sun_path, path, length);
  return true;
}

addrinfo* socketAddress_find(const char* host, const char* port, int flags) {
  addrinfo hints = {};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = flags;
  addrinfo* found = nullptr;
  const int status = isPort(port) ? getaddrinfo(host, port, &hints, &found) : EAI_SERVICE;
  errno = 0;
  if (status == 0) return found;
  fail(status == EAI_NONAME || status == EAI_AGAIN || status == EAI_FAIL ? ZEL_ERROR_RESOLVE : ZEL_ERROR_ADDRESS);
  return nullptr;
}

}  // namespace zel

using namespace zel;

extern "C" ZelPeer* connection_connectToTCP(ZelConnection* connection, const char* host, const char* port, int) {
  if (!host || !*host || !isPort(port)) {
    fail(ZEL_ERROR_ADDRESS);
    return nullptr;
  }
  const bool numeric = isNumeric(host);
  addrinfo* found = numeric ? socketAddress_find(host, port, AI_NUMERICHOST) : nullptr;
  if (numeric && !found) return nullptr;
  ZelPeer* peer = makePeer(connection);
  if (!peer)
    ;
  else if (!numeric)
    resolve(peer, host, port);
  else if (takeTargets(peer->connecting, found))
    tryNext(peer);
  else
    giveUp(peer, ENOMEM);
  if (found) freeaddrinfo(found);
  return peer;
}

extern "C" ZelPeer* connection_connectToIPC(ZelConnection* connection, const char* path) {
  sockaddr_un address;
  if (!socketAddress_ofPath(path, &address)) return nullptr;
  ZelPeer* peer = makePeer(connection);
  if (!peer) return nullptr;
  addrinfo found = {};
  found.ai_addr = reinterpret_cast<sockaddr*>(&address);
  found.ai_addrlen = sizeof(address);
  if (takeTargets(peer->connecting, &found))
    tryNext(peer);
  else
    giveUp(peer, ENOMEM);
  return peer;
}
