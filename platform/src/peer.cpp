#include <zel/peer.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform_internal.h"

namespace zel {

namespace {

struct EventSlot {
  int event;
  int direction;
  Slot slot;
};

constexpr EventSlot kEvents[] = {
    {PEER_EVENT_ACCEPT, PEER_DIRECTION_IN, kOnAccept},      {PEER_EVENT_DATA, PEER_DIRECTION_IN, kOnData},
    {PEER_EVENT_WRITABLE, PEER_DIRECTION_OUT, kOnWritable}, {PEER_EVENT_DRAINED, PEER_DIRECTION_OUT, kOnDrained},
    {PEER_EVENT_CLOSE, PEER_DIRECTION_NONE, kOnClose},
};

const EventSlot* findEvent(int event, int direction) {
  for (const EventSlot& known : kEvents)
    if (known.event == event && known.direction == direction) return &known;
  return nullptr;
}

int pollNow(const ZelPeer* peer, short events) {
  pollfd state = {peer->fd, events, 0};
  return poll(&state, 1, 0) > 0 ? state.revents : 0;
}

/** Asks the transport, which may hold bytes of its own. @return as recv() */
ssize_t peekOne(ZelPeer* peer) {
  char byte;
  return retried([&] { return peer->transport->peek(peer, &byte, 1); });
}

/** Something can be read without waiting for the socket. */
bool hasInputAtHand(ZelPeer* peer) {
  const bool wasAsked = peer->tryRead;
  peer->tryRead = false;
  if (stream_unread(peer) > 0 || (wasAsked && peer->eof)) return true;
  return wasAsked && peer->transport != &kSocketTransport && (peekOne(peer) >= 0 || errno != EAGAIN);
}

/** The socket refused output for good; whoever reads may still take what came in before. */
bool isWorthReading(ZelPeer* peer) { return peer->handlers[kOnData] && (stream_unread(peer) > 0 || peekOne(peer) > 0); }

/**
 * The socket was found readable, and there is nothing to read: another peer's handler may have read it meanwhile, or a
 * transport has not got enough to make anything of it.
 */
bool isReadableInVain(ZelPeer* peer) {
  const bool mayBe = peer->readTurn == loop.turn || peer->transport != &kSocketTransport;
  return mayBe && stream_unread(peer) == 0 && peekOne(peer) < 0 && errno == EAGAIN;
}

bool offerInput(ZelPeer* peer) {
  if (isReadableInVain(peer)) return true;
  return peer_raise(peer, peer->handlers[kOnData], true);
}

/** Nobody reads: tells a peer that is gone from one that sent urgent data. @return false when it has ended */
bool checkAlive(ZelPeer* peer, int events) {
  const int state = pollNow(peer, 0);
  // What it sent before it went is still to be read, by a handler that may only be resting.
  peer->hungUp = state == POLLHUP && (stream_unread(peer) > 0 || peekOne(peer) > 0);
  if (peer->hungUp) return true;
  if (state & (POLLHUP | POLLERR | POLLNVAL)) {
    peer_end(peer, Ending::Vanished);
    return false;
  }
  if (events & UV_DISCONNECT) peer->finished = true;
  char urgent;
  if (events & UV_PRIORITIZED) recv(peer->fd, &urgent, 1, MSG_OOB | MSG_DONTWAIT);  // or it would be reported for ever
  return true;
}

bool takesOutput(const ZelPeer* peer) { return !peer->blocked && peer->output.bytes == 0; }

void onSocket(ZelPeer* peer, bool failed, int events) {
  if (failed || (events & UV_WRITABLE)) peer->blocked = false;
  if (peer->handlers[kOnData]) {
    if ((failed || (events & UV_READABLE)) && !offerInput(peer)) return;
  } else if (failed || (events & (UV_PRIORITIZED | UV_DISCONNECT)) || (peer->finished && takesOutput(peer))) {
    if (!checkAlive(peer, events)) return;
  }
  if ((events & UV_WRITABLE) && peer->handlers[kOnWritable] && takesOutput(peer) &&
      !peer_raise(peer, peer->handlers[kOnWritable], false))
    return;
  // What the handlers wrote goes out while it is still in the cache.
  loop.settled.append(&peer->link);
  peer_step(peer);
}

uint8_t wantedInterest(const ZelPeer* peer) {
  if (peer->socket == Socket::Listening)
    return peer->handlers[kOnAccept] && peer->listener->link.alone() ? UV_READABLE : 0;
  int wanted = 0;
  if (peer->handlers[kOnData]) wanted |= UV_READABLE;
  if (peer->output.bytes > 0 ? peer->blocked : peer->handlers[kOnWritable] != nullptr) wanted |= UV_WRITABLE;
  // A socket whose other side is gone takes data, and drops it: the poll set tells by the end of the input.
  if (wanted == UV_WRITABLE && !peer->finished && !peer->hungUp) wanted |= UV_DISCONNECT;
  // With nothing to wait for the descriptor stays in the poll set: a peer that vanishes is reported all the same. One
  // that has would be reported all the time.
  return static_cast<uint8_t>(wanted || peer->hungUp ? wanted : UV_PRIORITIZED);
}

/** @return false when the peer has ended */
bool flush(ZelPeer* peer) {
  switch (stream_flush(peer)) {
    case Flush::Done:
    case Flush::Blocked:
      break;
    case Flush::More:
      loop_markWork(peer);
      break;
    case Flush::Dead:
      peer->writeDead = true;
      break;
  }
  if (!peer->writeDead || isWorthReading(peer)) return true;
  peer_end(peer, Ending::Vanished);
  return false;
}

bool raiseDrained(ZelPeer* peer) {
  if (!peer->undrained || peer->output.bytes > 0 || peer->writeDead) return true;
  peer->undrained = false;
  return !peer->handlers[kOnDrained] || peer_raise(peer, peer->handlers[kOnDrained], false);
}

bool raiseInput(ZelPeer* peer) {
  if (!peer->handlers[kOnData] || !hasInputAtHand(peer)) return true;
  return peer_raise(peer, peer->handlers[kOnData], true);
}

/** Spares a new handler of event 4 the way through the poll set. */
bool raiseWritable(ZelPeer* peer) {
  if (!peer->tryWritable) return true;
  peer->tryWritable = false;
  if (!peer->handlers[kOnWritable] || !takesOutput(peer) || !(pollNow(peer, POLLOUT) & POLLOUT)) return true;
  return peer_raise(peer, peer->handlers[kOnWritable], false);
}

CloseHandler** findCloseHandler(ZelPeer* peer, ZelPeerHandler handler) {
  CloseHandler** place = &peer->closeHandlers;
  while (*place && (*place)->handler != handler) place = &(*place)->next;
  return place;
}

}  // namespace

ZelPeer* peer_create(ZelConnection* connection, int fd, Socket socket) {
  ZelPeer* peer = static_cast<ZelPeer*>(calloc(1, sizeof(ZelPeer)));
  if (!peer) return failWithErrno<ZelPeer>();
  peer->link.init();
  peer->connection = connection;
  peer->transport = &kSocketTransport;
  peer->fd = fd;
  peer->socket = socket;
  peer->serial = llist_appendSerial(connection->peers, peer);
  if (peer->serial) return peer;
  fail(ENOMEM);
  free(peer);
  return nullptr;
}

bool peer_openPoll(ZelPeer* peer) {
  const int status = uv_poll_init(&loop.uv, &peer->poll, peer->fd);
  if (status < 0) return fail(static_cast<uint32_t>(-status));
  peer->poll.data = peer;
  peer->polled = true;
  loop_markWork(peer);
  return true;
}

void peer_onPoll(uv_poll_t* handle, int status, int events) {
  ZelPeer* peer = static_cast<ZelPeer*>(handle->data);
  if (status < 0) peer->interest = 0;  // libuv has stopped the handle
  if (peer->ended)
    peer_lingerEvent(peer, status < 0, events);
  else if (peer->socket == Socket::Listening)
    listener_accept(peer);
  else
    onSocket(peer, status < 0, events);
}

bool peer_raise(ZelPeer* peer, ZelPeerHandler handler, bool reading) {
  stream_lend(peer, reading);
  loop.current = peer;
  loop.currentReads = reading;
  const bool handled = handler(peer);
  loop.current = nullptr;
  if (!handled) peer_end(peer, Ending::Here);
  if (peer->ended) return false;
  if (!stream_takeBack(peer)) peer_failLater(peer, ENOMEM);
  if (reading) stream_askTransport(peer);
  loop_markWork(peer);
  return true;
}

void peer_failLater(ZelPeer* peer, uint32_t reason) {
  peer->failed = true;
  peer->reason = reason;
  loop_markWork(peer);
}

void peer_step(ZelPeer* peer) {
  if (peer->failed) {
    zel_error = peer->reason;
    return peer_end(peer, Ending::Vanished);
  }
  if (peer->socket != Socket::Connected) return;
  if (loop.current != peer) stream_takeInputBack(peer);
  if (flush(peer) && raiseDrained(peer) && raiseInput(peer)) raiseWritable(peer);
}

void peer_applyInterest(ZelPeer* peer) {
  if (!peer->polled || peer->ending) return;
  const uint8_t wanted = wantedInterest(peer);
  if (wanted == peer->interest) return;
  peer->interest = wanted;
  if (wanted)
    uv_poll_start(&peer->poll, wanted, peer_onPoll);
  else
    uv_poll_stop(&peer->poll);
}

void peer_rememberRemote(ZelPeer* peer, const sockaddr* address, socklen_t length) {
  peer->remoteFamily = length >= sizeof(sa_family_t) ? static_cast<uint8_t>(address->sa_family) : 0;
  if (peer->remoteFamily == AF_INET)
    memcpy(peer->remote, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, sizeof(in_addr));
  if (peer->remoteFamily != AF_INET6) return;
  const in6_addr* ip = &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
  if (IN6_IS_ADDR_V4MAPPED(ip)) {
    peer->remoteFamily = AF_INET;
    memcpy(peer->remote, ip->s6_addr + 12, sizeof(in_addr));
  } else {
    memcpy(peer->remote, ip, sizeof(in6_addr));
  }
}

}  // namespace zel

using namespace zel;

extern "C" bool peer_setEventHandler(ZelPeer* peer, int event, int direction, ZelPeerHandler handler) {
  if (!peer || peer->ending) return fail(ZEL_ERROR_BAD_PEER);
  const EventSlot* known = findEvent(event, direction);
  if (!known) return fail(ZEL_ERROR_NO_HANDLER);
  peer->handlers[known->slot] = handler;
  if (known->slot == kOnData) peer->tryRead = handler != nullptr;
  // Who goes on with a peer from elsewhere may read at once: without a buffer it would do so byte by byte.
  if (known->slot == kOnData && handler && loop.current != peer && peer->readTurn > 0) stream_lendInput(peer);
  if (known->slot == kOnWritable) peer->tryWritable = handler && !(peer->interest & UV_WRITABLE);
  if (known->slot != kOnClose) loop_markWork(peer);
  return true;
}

extern "C" bool peer_addCloseHandler(ZelPeer* peer, ZelPeerHandler handler) {
  if (!peer || peer->ending) return fail(ZEL_ERROR_BAD_PEER);
  if (!handler) return fail(ZEL_ERROR_NO_HANDLER);
  CloseHandler** place = findCloseHandler(peer, handler);
  if (*place) return true;
  CloseHandler* added = static_cast<CloseHandler*>(malloc(sizeof(CloseHandler)));
  if (!added) return fail(ENOMEM);
  *added = CloseHandler{nullptr, handler};
  *place = added;
  return true;
}

extern "C" bool peer_removeCloseHandler(ZelPeer* peer, ZelPeerHandler handler) {
  if (!peer) return fail(ZEL_ERROR_BAD_PEER);
  CloseHandler** place = findCloseHandler(peer, handler);
  CloseHandler* found = *place;
  if (!found) return false;
  *place = found->next;
  free(found);
  return true;
}

extern "C" ZelConnection* peer_connection(const ZelPeer* peer) { return peer ? peer->connection : nullptr; }

extern "C" int peer_socket(const ZelPeer* peer) {
  if (peer && !peer->ended && !peer->failed && peer->fd >= 0) return peer->fd;
  fail(ZEL_ERROR_BAD_PEER);
  return -1;
}

extern "C" const char* peer_address(ZelPeer* peer) {
  if (!peer || peer->remoteFamily == 0) return "";
  if (peer->remoteFamily == AF_UNIX) return "unix";
  if (!peer->address) peer->address = static_cast<char*>(malloc(INET6_ADDRSTRLEN));
  if (!peer->address || !inet_ntop(peer->remoteFamily, peer->remote, peer->address, INET6_ADDRSTRLEN)) return "";
  return peer->address;
}

extern "C" unsigned peer_localPort(const ZelPeer* peer) {
  sockaddr_storage address;
  socklen_t length = sizeof(address);
  if (!peer || peer->fd < 0 || getsockname(peer->fd, reinterpret_cast<sockaddr*>(&address), &length) < 0) return 0;
  if (address.ss_family == AF_INET) return ntohs(reinterpret_cast<sockaddr_in*>(&address)->sin_port);
  if (address.ss_family == AF_INET6) return ntohs(reinterpret_cast<sockaddr_in6*>(&address)->sin6_port);
  return 0;
}

extern "C" void* peer_userData(const ZelPeer* peer) { return peer ? peer->userData : nullptr; }

extern "C" void peer_setUserData(ZelPeer* peer, void* userData) {
  if (peer) peer->userData = userData;
}

extern "C" void peer_close(ZelPeer* peer) {
  if (peer) peer_end(peer, Ending::Here);
}

extern "C" void peer_destroy(ZelPeer* peer) { peer_close(peer); }
