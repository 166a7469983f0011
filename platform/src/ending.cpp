// The end of a peer: its close handlers, its last bytes, and the time its socket stays open after them. Closing a
// socket with unread input resets the connection, and the reset may overtake a reply that is still on its way.
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "platform_internal.h"

namespace zel {

namespace {

bool isGone(const ZelPeer* peer, Ending ending) { return ending == Ending::Vanished || peer->reset || peer->writeDead; }

Flush flushAll(ZelPeer* peer) {
  Flush result;
  do result = stream_flush(peer);
  while (result == Flush::More);
  return result;
}

/** A transport that is not the socket's own may be taken down by the handlers that were added: its last chance. */
void flushForeignTransport(ZelPeer* peer) {
  if (stream_takeBack(peer) && peer->socket == Socket::Connected && !peer->writeDead) flushAll(peer);
}

void runCloseHandlers(ZelPeer* peer, Ending ending) {
  if (peer->handlers[kOnClose]) peer->handlers[kOnClose](peer);
  if (peer->transport != &kSocketTransport && !isGone(peer, ending)) flushForeignTransport(peer);
  while (peer->closeHandlers) {
    CloseHandler* first = peer->closeHandlers;
    peer->closeHandlers = first->next;  // each runs once, whatever it does to the list
    const ZelPeerHandler handler = first->handler;
    free(first);
    handler(peer);
  }
  if (peer->transport != &kSocketTransport) stream_dropOutput(peer);
}

void freeReleased(ZelPeer* peer) {
  if (peer->released && !peer->polled) free(peer);
}

void onPollClosed(uv_handle_t* handle) {
  ZelPeer* peer = static_cast<ZelPeer*>(handle->data);
  peer->polled = false;
  freeReleased(peer);
}

/** Nothing but the poll handle, which closes in its own time, needs the peer any more. */
void release(ZelPeer* peer) {
  peer->link.leave();
  queue_clear(&peer->output);
  free(peer->address);
  peer->address = nullptr;
  peer->released = true;
  freeReleased(peer);
}

bool holdsSocket(const ZelPeer* peer) {
  return peer->fd >= 0 || (peer->socket == Socket::Connecting && peer->connecting);
}

void armLingerEnd() {
  if (loop.lingering.alone()) return;
  loop_startTimer(&loop.lingerEnd, peer_lingerExpired, linked<ZelPeer>(loop.lingering.next)->deadline);
}

/** Output that the socket has taken, and the other side has not. */
uint32_t bytesInSocket(const ZelPeer* peer) {
  int bytes = 0;
  return peer->fd >= 0 && ioctl(peer->fd, SIOCOUTQ, &bytes) == 0 ? static_cast<uint32_t>(bytes) : 0;
}

/** The list stays in order of the deadlines because every stay has the same length. */
void linger(ZelPeer* peer) {
  const bool wasEmpty = loop.lingering.alone();
  peer->deadline = loop_now() + kLingerMilliseconds;
  if (peer->output.bytes > 0) peer->unsent = bytesInSocket(peer);
  loop.lingering.append(&peer->link);
  if (wasEmpty) armLingerEnd();
}

void waitFor(ZelPeer* peer, int interest) {
  if (peer->interest == interest) return;
  peer->interest = static_cast<uint8_t>(interest);
  uv_poll_start(&peer->poll, interest, peer_onPoll);
}

bool takesInput(const ZelPeer* peer) { return !peer->eof && !peer->reset && peer->dropped < kLingerBytes; }

/** @return false when nothing more is to be expected from the other side */
bool dropInput(ZelPeer* peer) {
  char* scratch = loop_takeBuffer();
  if (!scratch) {
    peer->dropped = kLingerBytes;
    return false;
  }
  ssize_t count;
  do {
    count = recv(peer->fd, scratch, kStreamBufferSize, MSG_DONTWAIT);
    if (count > 0) peer->dropped += static_cast<uint32_t>(count);
  } while (count > 0 && peer->dropped < kLingerBytes);
  peer->eof = count == 0;
  peer->reset = count < 0 && errno != EAGAIN && errno != EINTR;
  loop_returnBuffer(scratch);
  return takesInput(peer);
}

void continueEnding(ZelPeer* peer) {
  const Flush result = flushAll(peer);
  if (result == Flush::Dead) return peer_closeSocket(peer);
  // The other side may want to get rid of what it sends before it reads.
  if (result == Flush::Blocked) return waitFor(peer, takesInput(peer) ? UV_WRITABLE | UV_READABLE : UV_WRITABLE);
  if (peer->eof || !peer->wrote) return peer_closeSocket(peer);
  shutdown(peer->fd, SHUT_WR);
  peer->dropped = 0;
  waitFor(peer, UV_READABLE);
}

/** The time of @p peer is up, and perhaps nobody asked its socket meanwhile. @return whether it gets more time */
bool getsOn(ZelPeer* peer) {
  if (peer->socket == Socket::Connecting) return ++peer->looks <= kLingerConnecting;
  const size_t queued = peer->output.bytes;
  const uint32_t dropped = peer->dropped;
  if (takesInput(peer)) dropInput(peer);
  if (queued == 0 || peer->reset) return false;
  peer->blocked = false;
  continueEnding(peer);
  if (peer->fd < 0) return false;
  return peer->output.bytes < queued || peer->dropped != dropped || bytesInSocket(peer) < peer->unsent;
}

void abandon(ZelPeer* peer) {
  if (peer->socket == Socket::Connecting) connect_abandon(peer);
  peer_closeSocket(peer);
}

void finish(ZelPeer* peer, bool gone) {
  switch (peer->socket) {
    case Socket::Listening:
      return peer_closeSocket(peer);
    case Socket::Connecting:
      if (gone || peer->output.bytes == 0) abandon(peer);
      return;
    case Socket::Connected:
      if (gone)
        peer_closeSocket(peer);
      else
        continueEnding(peer);
  }
}

}  // namespace

void peer_end(ZelPeer* peer, Ending ending) {
  if (peer->ending) return;
  peer->ending = true;
  peer->heldByTurn = true;
  ++loop.endings;
  loop.ended.append(&peer->link);
  loop_stayAwake();
  llist_removeSerial(peer->connection->peers, peer->serial);
  runCloseHandlers(peer, ending);
  stream_takeBack(peer);
  peer->ended = true;
  finish(peer, isGone(peer, ending));
  --loop.endings;
}

void peer_endConnected(ZelPeer* peer) {
  continueEnding(peer);
  if (peer->heldByTurn) return;
  if (peer->fd >= 0) linger(peer);
  peer_releaseIfDone(peer);
}

void peer_closeSocket(ZelPeer* peer) {
  queue_clear(&peer->output);
  if (peer->fd < 0) return;
  // Before the descriptor, whose number may be another socket's soon.
  if (peer->polled) uv_close(reinterpret_cast<uv_handle_t*>(&peer->poll), onPollClosed);
  close(peer->fd);
  peer->fd = -1;
  if (peer->socket == Socket::Listening) listener_free(peer);
  listener_descriptorFreed();
}

void peer_lingerEvent(ZelPeer* peer, bool failed, int events) {
  if (peer->fd < 0) return;
  const size_t queued = peer->output.bytes;
  const uint32_t dropped = peer->dropped;
  const bool finished = (events & UV_READABLE) && takesInput(peer) && !dropInput(peer);
  if (failed || peer->reset || (finished && queued == 0)) {
    peer_closeSocket(peer);
  } else if (queued > 0) {
    if (events & UV_WRITABLE) peer->blocked = false;
    continueEnding(peer);
  }
  if (peer->heldByTurn) return;
  // It gets on.
  if (peer->fd >= 0 && queued > 0 && (peer->output.bytes < queued || peer->dropped != dropped)) linger(peer);
  peer_releaseIfDone(peer);
}

void peer_releaseIfDone(ZelPeer* peer) {
  if (!peer->heldByTurn && !holdsSocket(peer)) release(peer);
}

void peer_releaseEnded() {
  while (!loop.ended.alone()) {
    ZelPeer* peer = linked<ZelPeer>(loop.ended.next);
    peer->heldByTurn = false;
    stream_close(peer);
    if (!holdsSocket(peer)) {
      release(peer);
      continue;
    }
    // What lingers raises no event: the loop need not run on for it.
    if (peer->polled) uv_unref(reinterpret_cast<uv_handle_t*>(&peer->poll));
    if (peer->socket == Socket::Connecting) connect_unref(peer);
    linger(peer);
  }
}

void peer_lingerExpired(uv_timer_t*) {
  const uint64_t now = loop_now();
  while (!loop.lingering.alone() && linked<ZelPeer>(loop.lingering.next)->deadline <= now) {
    ZelPeer* peer = linked<ZelPeer>(loop.lingering.next);
    if (getsOn(peer))
      linger(peer);
    else
      peer_dropOldestLingering();
  }
  armLingerEnd();
}

void peer_dropOldestLingering() {
  ZelPeer* peer = linked<ZelPeer>(loop.lingering.next);
  abandon(peer);
  release(peer);
}

void peer_dropAllLingering() {
  while (!loop.lingering.alone()) peer_dropOldestLingering();
}

}  // namespace zel
