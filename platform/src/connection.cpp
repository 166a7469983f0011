#include <zel/connection.h>

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "platform_internal.h"

namespace zel {

namespace {

constexpr int kMostUnsent = 256 * 1024;

bool bindTo(int fd, const sockaddr* address, socklen_t length) {
  const int on = 1;
  const int off = 0;
  if (address->sa_family != AF_UNIX) setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  if (address->sa_family == AF_INET6) setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof(off));
  // Accepted sockets take it over. The kernel would keep megabytes for each client that does not read.
  if (address->sa_family != AF_UNIX) setsockopt(fd, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &kMostUnsent, sizeof(kMostUnsent));
  return bind(fd, address, length) == 0;
}

/** @return the socket, or -1 with errno */
int makeListening(const sockaddr* address, socklen_t length) {
  const int fd = socket(address->sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  if (bindTo(fd, address, length) && listen(fd, SOMAXCONN) == 0) return fd;
  const int error = errno;
  close(fd);
  errno = error;
  return -1;
}

/** A listening peer, which takes @p fd; closes it when it cannot be made. */
ZelPeer* makeListener(ZelConnection* connection, int fd) {
  Listener* listener = static_cast<Listener*>(calloc(1, sizeof(Listener)));
  ZelPeer* peer = listener ? peer_create(connection, fd, Socket::Listening) : failWithErrno<ZelPeer>();
  if (!peer) {
    close(fd);
    free(listener);
    return nullptr;
  }
  listener->link.init();
  listener->peer = peer;
  peer->listener = listener;
  if (peer_openPoll(peer)) return peer;
  peer_end(peer, Ending::Here);
  return nullptr;
}

/** Every address of the machine: both families through one socket where the system can do that. */
int listenEverywhere(const char* port) {
  for (const char* host : {"::", "0.0.0.0"}) {
    addrinfo* found = socketAddress_find(host, port, AI_NUMERICHOST);
    if (!found) return -1;
    const int fd = makeListening(found->ai_addr, found->ai_addrlen);
    const int error = errno;
    freeaddrinfo(found);
    errno = error;
    if (fd >= 0 || errno == EADDRINUSE || errno == EACCES) return fd;
  }
  return -1;
}

int listenOn(const char* host, const char* port) {
  addrinfo* found = socketAddress_find(host, port, 0);
  if (!found) return -1;
  int fd = -1;
  for (const addrinfo* one = found; one && fd < 0; one = one->ai_next)
    fd = makeListening(one->ai_addr, one->ai_addrlen);
  const int error = errno;
  freeaddrinfo(found);
  errno = error;
  return fd;
}

/** The file at the address is a socket that nobody listens on any more. */
bool isStale(const sockaddr_un* address) {
  struct stat status;
  if (lstat(address->sun_path, &status) < 0 || !S_ISSOCK(status.st_mode)) return false;
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  const bool refused =
      connect(fd, reinterpret_cast<const sockaddr*>(address), sizeof(*address)) < 0 && errno == ECONNREFUSED;
  close(fd);
  return refused;
}

int listenLocally(const sockaddr_un* address) {
  const sockaddr* generic = reinterpret_cast<const sockaddr*>(address);
  const int fd = makeListening(generic, sizeof(*address));
  if (fd >= 0 || errno != EADDRINUSE) return fd;
  if (!isStale(address) || unlink(address->sun_path) < 0) {
    errno = EADDRINUSE;
    return -1;
  }
  return makeListening(generic, sizeof(*address));
}

/** @return false when memory is short, with zel_error */
bool rememberFile(Listener* listener, const char* path) {
  struct stat status;
  if (lstat(path, &status) < 0) return true;  // somebody has removed it
  listener->device = status.st_dev;
  listener->inode = status.st_ino;
  listener->path = realpath(path, nullptr);
  if (!listener->path) listener->path = strdup(path);
  return listener->path || failWithErrno<char>();
}

/** Unless another listener has taken the path over. */
void removeFile(const Listener* listener) {
  struct stat status;
  if (!listener->path || lstat(listener->path, &status) < 0) return;
  if (status.st_dev == listener->device && status.st_ino == listener->inode) unlink(listener->path);
}

bool isShortage(int error) { return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM; }

/** Stops polling until a descriptor has been freed. */
void starve(ZelPeer* peer) {
  if (loop.starved.alone())
    uv_timer_start(&loop.acceptAgain, listener_acceptAgain, kAcceptRetryMilliseconds, kAcceptRetryMilliseconds);
  loop.starved.append(&peer->listener->link);
  loop_markWork(peer);
}

enum class Accepted { One, Skipped, NoMore };

Accepted acceptFailed(ZelPeer* peer) {
  if (errno == EAGAIN || errno == EBADF || errno == EINVAL) return Accepted::NoMore;
  if (!isShortage(errno)) return Accepted::Skipped;
  if (!loop.lingering.alone()) {
    peer_dropOldestLingering();
    return Accepted::Skipped;
  }
  starve(peer);
  return Accepted::NoMore;
}

Accepted acceptOne(ZelPeer* peer) {
  sockaddr_storage address;
  socklen_t length = sizeof(address);
  sockaddr* generic = reinterpret_cast<sockaddr*>(&address);
  const int fd = accept4(peer->fd, generic, &length, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd < 0) return acceptFailed(peer);
  ZelPeer* accepted = peer_create(peer->connection, fd, Socket::Connected);
  if (!accepted) {
    close(fd);
    return Accepted::Skipped;
  }
  peer_rememberRemote(accepted, generic, length);
  accepted->userData = peer->userData;
  if (peer_openPoll(accepted))
    peer_raise(accepted, peer->handlers[kOnAccept], false);
  else
    peer_end(accepted, Ending::Vanished);
  return Accepted::One;
}

bool isStreamSocket(int fd) {
  int type = 0;
  socklen_t length = sizeof(type);
  return getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_STREAM;
}

}  // namespace

bool connection_isUsable(const ZelConnection* connection) {
  if (!connection) return fail(EINVAL);
  return connection->destroyed ? fail(ECANCELED) : loop_open();
}

void listener_accept(ZelPeer* peer) {
  for (int i = 0; i < kAcceptsPerTurn && !peer->ending && peer->handlers[kOnAccept]; ++i)
    if (acceptOne(peer) == Accepted::NoMore) return;
}

void listener_free(ZelPeer* peer) {
  Listener* listener = peer->listener;
  if (!listener) return;
  removeFile(listener);
  free(listener->path);
  listener->link.leave();
  free(listener);
  peer->listener = nullptr;
}

void listener_descriptorFreed() {
  if (!loop.starved.alone()) uv_timer_start(&loop.acceptAgain, listener_acceptAgain, 0, kAcceptRetryMilliseconds);
}

void listener_acceptAgain(uv_timer_t* timer) {
  uv_timer_stop(timer);
  Link batch;
  batch.takeAll(&loop.starved);
  while (!batch.alone()) {
    ZelPeer* peer = linked<Listener>(batch.next)->peer;
    batch.next->leave();
    loop_markWork(peer);  // polled again; accepting finds out whether there is room
  }
}

}  // namespace zel

using namespace zel;

extern "C" ZelConnection* connection_create(void) {
  ZelConnection* connection = static_cast<ZelConnection*>(calloc(1, sizeof(ZelConnection)));
  if (!connection) return failWithErrno<ZelConnection>();
  connection->peers = llist_create();
  if (!connection->peers) {
    free(connection);
    return nullptr;
  }
  connection->link.init();
  connections.append(&connection->link);
  return connection;
}

extern "C" void connection_destroy(ZelConnection* connection) {
  if (!connection || connection->destroyed) return;
  connection->destroyed = true;
  ZelListIterator walk;
  while (ZelPeer* peer = static_cast<ZelPeer*>(llist_first(connection->peers, &walk))) peer_end(peer, Ending::Here);
  if (loop.open)
    for (Link* link = loop.ended.next; link != &loop.ended; link = link->next)
      if (linked<ZelPeer>(link)->connection == connection) linked<ZelPeer>(link)->connection = nullptr;
  connection->link.leave();
  llist_destroy(connection->peers);
  free(connection);
}

extern "C" ZelList* connection_peers(ZelConnection* connection) { return connection ? connection->peers : nullptr; }

extern "C" ZelPeer* connection_listenOnTCP(ZelConnection* connection, const char* host, const char* port) {
  if (!connection_isUsable(connection)) return nullptr;
  const bool everywhere = !host || strcmp(host, "*") == 0;
  errno = 0;
  const int fd = everywhere ? listenEverywhere(port) : listenOn(host, port);
  if (fd >= 0) return makeListener(connection, fd);
  return errno ? failWithErrno<ZelPeer>() : nullptr;  // without errno the address was not usable, as zel_error tells
}

extern "C" ZelPeer* connection_listenOnIPC(ZelConnection* connection, const char* path) {
  sockaddr_un address;
  if (!connection_isUsable(connection) || !socketAddress_ofPath(path, &address)) return nullptr;
  const int fd = listenLocally(&address);
  if (fd < 0) return failWithErrno<ZelPeer>();
  ZelPeer* peer = makeListener(connection, fd);
  if (!peer || rememberFile(peer->listener, path)) return peer;
  const uint32_t reason = zel_error;
  unlink(path);
  peer_end(peer, Ending::Here);
  zel_error = reason;
  return nullptr;
}

extern "C" ZelPeer* connection_adopt(ZelConnection* connection, int descriptor) {
  if (!connection_isUsable(connection)) return nullptr;
  if (!isStreamSocket(descriptor)) {
    fail(ZEL_ERROR_ADDRESS);
    return nullptr;
  }
  const int flags = fcntl(descriptor, F_GETFL);
  if (flags < 0 || fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) < 0 || fcntl(descriptor, F_SETFD, FD_CLOEXEC) < 0)
    return failWithErrno<ZelPeer>();
  ZelPeer* peer = peer_create(connection, descriptor, Socket::Connected);
  if (!peer) return nullptr;
  sockaddr_storage address;
  socklen_t length = sizeof(address);
  if (getpeername(descriptor, reinterpret_cast<sockaddr*>(&address), &length) == 0)
    peer_rememberRemote(peer, reinterpret_cast<sockaddr*>(&address), length);
  if (peer_openPoll(peer)) return peer;
  peer->fd = -1;  // it stays the caller's
  peer_end(peer, Ending::Vanished);
  return nullptr;
}
