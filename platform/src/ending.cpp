// The end of a peer: its close handlers, its last bytes, and the time its socket stays open after them. Closing a
// socket with unread input resets the connection, and the reset may overtake a reply that is still on its way.
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
  const uint64_t deadline = linked<ZelPeer>(loop.lingering.next)->deadline;
  const uint64_t now = loop_now();
  uv_timer_start(&loop.lingerEnd, peer_lingerExpired, deadline > now ? deadline - now : 0, 0);
}

/** The list stays in order of the deadlines because every stay has the same length. */
void linger(ZelPeer* peer) {
  const bool wasEmpty = loop.lingering.alone();
  peer->deadline = loop_now() + kLingerMilliseconds;
  loop.lingering.append(&peer->link);
  if (wasEmpty) armLingerEnd();
}

void waitFor(ZelPeer* peer, int interest) {
  if (peer->interest == interest) return;
  peer->interest = static_cast<uint8_t>(interest);
  uv_poll_start(&peer->poll, interest, peer_onPoll);
}

/** @return false when nothing more is to be expected from the other side */
bool dropInput(ZelPeer* peer) {
  char* scratch = loop_takeBuffer();
  if (!scratch) return false;
  ssize_t count;
  do {
    count = recv(peer->fd, scratch, kStreamBufferSize, MSG_DONTWAIT);
    if (count > 0) peer->dropped += static_cast<uint32_t>(count);
  } while (count > 0 && peer->dropped < kLingerBytes);
  const bool waiting = count < 0 && (errno == EAGAIN || errno == EINTR);
  loop_returnBuffer(scratch);
  return waiting;
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
        peer_continueEnding(peer);
  }
}

}  // namespace

void peer_end(ZelPeer* peer, Ending ending) {
  if (peer->ending) return;
  peer->ending = true;
  peer->heldByTurn = true;
  loop.ended.append(&peer->link);
  loop_stayAwake();
  llist_removeSerial(peer->connection->peers, peer->serial);
  runCloseHandlers(peer, ending);
  stream_takeBack(peer);
  peer->ended = true;
  finish(peer, isGone(peer, ending));
}

void peer_continueEnding(ZelPeer* peer) {
  const Flush result = flushAll(peer);
  if (result == Flush::Dead) return peer_closeSocket(peer);
  if (result == Flush::Blocked) return waitFor(peer, UV_WRITABLE);
  if (peer->eof || !peer->wrote) return peer_closeSocket(peer);
  shutdown(peer->fd, SHUT_WR);
  waitFor(peer, UV_READABLE);
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
  if (!failed && queued > 0) {
    if (events & UV_WRITABLE) peer->blocked = false;
    peer_continueEnding(peer);
  } else if (failed || !dropInput(peer)) {
    peer_closeSocket(peer);
  }
  if (peer->heldByTurn) return;
  if (peer->fd >= 0 && peer->output.bytes < queued) linger(peer);  // it gets on
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
  while (!loop.lingering.alone() && linked<ZelPeer>(loop.lingering.next)->deadline <= now) peer_dropOldestLingering();
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
