// The stdio streams of a peer. Both are unbuffered at rest, so that an idle peer holds no buffers; while one of its
// handlers runs they work in buffers lent by the loop.
#include <stdio_ext.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform_internal.h"

// glibc: takes a stream from the list of all streams, which fclose() otherwise searches for it from the newest on.
extern "C" void _IO_un_link(void* stream) __attribute__((weak));

namespace zel {

namespace {

constexpr int kPartsPerFlush = 64;
constexpr uint32_t kInputPerTurn = 1 << 20;

ssize_t socketRead(ZelPeer* peer, void* buffer, size_t length) { return recv(peer->fd, buffer, length, MSG_DONTWAIT); }

ssize_t socketWrite(ZelPeer* peer, const void* buffer, size_t length) {
  return send(peer->fd, buffer, length, MSG_DONTWAIT | MSG_NOSIGNAL);
}

ssize_t socketPeek(ZelPeer* peer, void* buffer, size_t length) {
  return recv(peer->fd, buffer, length, MSG_DONTWAIT | MSG_PEEK);
}

/** Somebody reads outside of event 3: there may be nothing left to wait for, or more than the socket tells of. */
void lookAgain(ZelPeer* peer) {
  peer->hungUp = false;
  stream_askTransport(peer);
  loop_markWork(peer);
}

bool wouldBlock() { return errno == EAGAIN || errno == EWOULDBLOCK; }

ssize_t refuse(int error) {
  errno = error;
  return -1;
}

/** Keeps what a read or peek has told about the other side. */
ssize_t noteInput(ZelPeer* peer, ssize_t result) {
  if (result == 0 && peer->broken) result = refuse(ECONNRESET);
  if (result == 0) peer->eof = true;
  if (result < 0 && !wouldBlock()) peer->reset = true;
  if (peer->hungUp || peer->transport != &kSocketTransport) lookAgain(peer);
  return result;
}

/** Keeps what a write has told about the other side. EPIPE tells of one that has finished in good order before. */
ssize_t noteOutput(ZelPeer* peer, ssize_t result) {
  if (result < 0 && !wouldBlock() && errno != EPIPE) peer->broken = true;
  return result;
}

ssize_t writeTo(ZelPeer* peer, const void* data, size_t size) {
  return noteOutput(peer, retried([=] { return peer->transport->write(peer, data, size); }));
}

ssize_t sendTo(ZelPeer* peer, const msghdr& message) {
  return noteOutput(peer, retried([&] { return sendmsg(peer->fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL); }));
}

ssize_t readInput(void* cookie, char* buffer, size_t size) {
  ZelPeer* peer = static_cast<ZelPeer*>(cookie);
  if (peer->ended || peer->fd < 0) return peer->ended ? 0 : refuse(EAGAIN);
  if (peer->socket == Socket::Connecting) return refuse(EAGAIN);
  if (peer->reset) return refuse(ECONNRESET);  // the socket tells it but once
  if (peer->readTurn != loop.turn) peer->turnBytes = 0;
  // Who sends faster than it is read would keep all others waiting. The poll set offers the rest in the next turn; who
  // cannot wait for that asks again.
  if (peer->turnBytes >= kInputPerTurn && peer->transport == &kSocketTransport) {
    peer->turnBytes = 0;
    return refuse(EAGAIN);
  }
  peer->readTurn = loop.turn;
  const ssize_t count = noteInput(peer, retried([=] { return peer->transport->read(peer, buffer, size); }));
  if (count > 0) peer->turnBytes += static_cast<uint32_t>(count);
  return count;
}

/** stdio drops what is not kept. Nothing may follow the gap: the other side would take it for what is missing. */
size_t keep(ZelPeer* peer, const char* data, size_t size) {
  const size_t kept = queue_append(&peer->output, data, size);
  if (kept == size) return kept;
  peer->writeDead = true;
  peer_failLater(peer, ENOMEM);
  errno = ENOMEM;
  return kept;
}

ssize_t writeQueued(ZelPeer* peer, const char* data, size_t size) {
  return static_cast<ssize_t>(keep(peer, data, size));
}

/** What the socket takes of @p data at once. @return -1 when it will never take anything again */
ssize_t offerToSocket(ZelPeer* peer, const char* data, size_t size) {
  if (peer->blocked || peer->socket != Socket::Connected) return 0;
  const ssize_t sent = writeTo(peer, data, size);
  if (sent < 0 && !wouldBlock()) return -1;
  const ssize_t taken = std::max<ssize_t>(sent, 0);
  // A socket that takes less is full; another transport may have reasons of its own.
  peer->blocked = sent < 0 || (peer->transport == &kSocketTransport && static_cast<size_t>(taken) < size);
  return taken;
}

ssize_t writeDirect(ZelPeer* peer, const char* data, size_t size) {
  ssize_t sent = 0;
  if (peer->output.bytes == 0) sent = offerToSocket(peer, data, size);
  if (sent < 0) {
    peer->writeDead = true;
    return 0;
  }
  const size_t rest = size - static_cast<size_t>(sent);
  const size_t kept = keep(peer, data + sent, rest);
  if (kept < rest) return sent + static_cast<ssize_t>(kept);
  if (peer->socket == Socket::Connected && stream_flush(peer) == Flush::Dead) {
    peer->writeDead = true;
    return 0;
  }
  errno = peer->output.bytes > 0 ? EAGAIN : 0;
  return static_cast<ssize_t>(size);
}

ssize_t writeOutput(void* cookie, const char* data, size_t size) {
  ZelPeer* peer = static_cast<ZelPeer*>(cookie);
  if (peer->ended || peer->writeDead) {
    errno = EPIPE;
    return 0;
  }
  peer->wrote = peer->undrained = true;
  loop_markWork(peer);
  return peer->direct ? writeDirect(peer, data, size) : writeQueued(peer, data, size);
}

FILE* openStream(ZelPeer* peer, const char* mode, cookie_io_functions_t functions) {
  FILE* stream = fopencookie(peer, mode, functions);
  if (!stream) return failWithErrno<FILE>();
  __fsetlocking(stream, FSETLOCKING_BYCALLER);
  setvbuf(stream, nullptr, _IONBF, 0);
  if (_IO_un_link) _IO_un_link(stream);
  return stream;
}

/** stdio reads from a place of its own while pushed back characters wait. */
bool isPushedBack(const FILE* stream) {
  constexpr int kInBackup = 0x0100;
  return stream->_flags & kInBackup;
}

/** Whether the buffer of the input stream may be changed: nothing may be in it. */
bool isInputEmpty(const ZelPeer* peer) { return stream_unread(peer) == 0 && !isPushedBack(peer->in); }

/** glibc goes on as with the buffer before, of which nothing is left, until it believes that writing begins anew. */
void beginWriting(FILE* stream) {
  constexpr int kCurrentlyPutting = 0x0800;
  stream->_flags &= ~kCurrentlyPutting;
}

char* lend(FILE* stream) {
  char* buffer = loop_takeBuffer();
  if (!buffer) return nullptr;
  setvbuf(stream, buffer, _IOFBF, kStreamBufferSize);
  beginWriting(stream);
  return buffer;
}

void takeBack(FILE* stream, char** buffer) {
  setvbuf(stream, nullptr, _IONBF, 0);
  loop_returnBuffer(*buffer);
  *buffer = nullptr;
}

bool takeBackOutput(ZelPeer* peer) {
  if (!peer->outBuffer) return true;
  const bool kept = fflush_unlocked(peer->out) == 0;
  if (!kept) __fpurge(peer->out);  // setvbuf() refuses while something is left in the buffer
  takeBack(peer->out, &peer->outBuffer);
  return kept || peer->writeDead;
}

Flush flushParts(ZelPeer* peer) {
  iovec parts[kPartsPerFlush];
  msghdr message = {};
  message.msg_iov = parts;
  message.msg_iovlen = static_cast<size_t>(queue_front(&peer->output, parts, kPartsPerFlush));
  size_t offered = 0;
  for (size_t i = 0; i < message.msg_iovlen; ++i) offered += parts[i].iov_len;
  const ssize_t sent =
      message.msg_iovlen == 1 ? writeTo(peer, parts[0].iov_base, parts[0].iov_len) : sendTo(peer, message);
  if (sent < 0) return wouldBlock() ? Flush::Blocked : Flush::Dead;
  queue_consume(&peer->output, static_cast<size_t>(sent));
  if (static_cast<size_t>(sent) < offered) return Flush::Blocked;
  return peer->output.bytes > 0 ? Flush::More : Flush::Done;
}

Flush flushPart(ZelPeer* peer) {
  iovec part;
  queue_front(&peer->output, &part, 1);
  const ssize_t sent = writeTo(peer, part.iov_base, part.iov_len);
  if (sent < 0) return wouldBlock() ? Flush::Blocked : Flush::Dead;
  queue_consume(&peer->output, static_cast<size_t>(sent));
  return peer->output.bytes > 0 ? Flush::More : Flush::Done;
}

size_t copyOut(char** to, size_t room, const char* from, const char* end) {
  const size_t part = std::min(room, static_cast<size_t>(end - from));
  memcpy(*to, from, part);
  *to += part;
  return part;
}

}  // namespace

const ZelTransport kSocketTransport = {socketRead, socketWrite, socketPeek, PEER_CAPABILITY_SENDFILE};

void stream_askTransport(ZelPeer* peer) {
  if (peer->transport != &kSocketTransport) peer->tryRead = true;
}

size_t stream_unread(const ZelPeer* peer) {
  const FILE* stream = peer->in;
  if (!stream) return 0;
  ptrdiff_t unread = stream->_IO_read_end - stream->_IO_read_ptr;
  if (isPushedBack(stream)) unread += stream->_IO_save_end - stream->_IO_save_base;
  return static_cast<size_t>(unread);
}

void stream_lendInput(ZelPeer* peer) {
  if (peer->in && !peer->inBuffer && isInputEmpty(peer)) peer->inBuffer = lend(peer->in);
}

void stream_takeInputBack(ZelPeer* peer) {
  if (peer->inBuffer && isInputEmpty(peer)) takeBack(peer->in, &peer->inBuffer);
}

void stream_lend(ZelPeer* peer, bool reading) {
  if (reading) stream_lendInput(peer);
  if (peer->out && !peer->outBuffer && !peer->direct) peer->outBuffer = lend(peer->out);
}

bool stream_takeBack(ZelPeer* peer) {
  stream_takeInputBack(peer);
  return takeBackOutput(peer);
}

void stream_dropOutput(ZelPeer* peer) {
  if (peer->out) __fpurge(peer->out);
  queue_clear(&peer->output);
}

void stream_close(ZelPeer* peer) {
  if (peer->in) fclose(peer->in);
  if (peer->out) fclose(peer->out);
  peer->in = peer->out = nullptr;
  if (peer->inBuffer) loop_returnBuffer(peer->inBuffer);
  if (peer->outBuffer) loop_returnBuffer(peer->outBuffer);
  peer->inBuffer = peer->outBuffer = nullptr;
}

Flush stream_flush(ZelPeer* peer) {
  if (peer->output.bytes == 0) return Flush::Done;
  if (peer->blocked) return Flush::Blocked;
  const Flush result = peer->transport == &kSocketTransport ? flushParts(peer) : flushPart(peer);
  peer->blocked = result == Flush::Blocked;
  if (result == Flush::Dead) queue_clear(&peer->output);
  return result;
}

}  // namespace zel

using namespace zel;

extern "C" FILE* peer_inStream(ZelPeer* peer) {
  if (!peer || peer->ended || peer->socket == Socket::Listening) {
    errno = ENOTCONN;
    fail(ZEL_ERROR_BAD_PEER);
    return nullptr;
  }
  if (!peer->in) {
    peer->in = openStream(peer, "r", {readInput, nullptr, nullptr, nullptr});
    if (loop.current == peer) stream_lend(peer, loop.currentReads);
  }
  return peer->in;
}

extern "C" FILE* peer_outStream(ZelPeer* peer, int type) {
  if (!peer || peer->ended || peer->socket == Socket::Listening) {
    errno = ENOTCONN;
    fail(ZEL_ERROR_BAD_PEER);
    return nullptr;
  }
  if (type != PEER_STREAM_CURRENT && type != (peer->direct ? PEER_STREAM_DIRECT : PEER_STREAM_BUFFERED)) {
    errno = EINVAL;
    return failWithErrno<FILE>();
  }
  if (!peer->out) {
    peer->out = openStream(peer, "w", {nullptr, writeOutput, nullptr, nullptr});
    if (loop.current == peer) stream_lend(peer, false);
  }
  return peer->out;
}

extern "C" ssize_t peer_peek(ZelPeer* peer, void* buffer, size_t length) {
  if (!peer || peer->ended || peer->socket == Socket::Listening) {
    fail(ZEL_ERROR_BAD_PEER);
    return refuse(ENOTCONN);
  }
  if (length == 0) {
    fail(EINVAL);
    return refuse(EINVAL);
  }
  if (stream_unread(peer) > 0) {
    const FILE* in = peer->in;
    char* to = static_cast<char*>(buffer);
    size_t done = copyOut(&to, length, in->_IO_read_ptr, in->_IO_read_end);
    if (isPushedBack(in)) done += copyOut(&to, length - done, in->_IO_save_base, in->_IO_save_end);
    return static_cast<ssize_t>(done);
  }
  if (peer->socket == Socket::Connecting) return refuse(EAGAIN);
  if (peer->reset) return refuse(ECONNRESET);
  return noteInput(peer, retried([=] { return peer->transport->peek(peer, buffer, length); }));
}

extern "C" size_t peer_bytesQueued(const ZelPeer* peer) {
  if (!peer) return 0;
  return peer->output.bytes + (peer->out ? __fpending(peer->out) : 0);
}

extern "C" bool peer_setStreamType(ZelPeer* peer, int type) {
  if (!peer || peer->ending) return fail(ZEL_ERROR_BAD_PEER);
  if (type != PEER_STREAM_BUFFERED && type != PEER_STREAM_DIRECT) return fail(EINVAL);
  if (type == PEER_STREAM_DIRECT) {
    if (peer_bytesQueued(peer) > 0) return fail(EBUSY);
    takeBackOutput(peer);
    peer->wrote = true;  // whoever asks for this mode may write to the descriptor itself
  }
  peer->direct = type == PEER_STREAM_DIRECT;
  return true;
}

extern "C" unsigned peer_capabilities(const ZelPeer* peer) { return peer ? peer->transport->capabilities : 0; }

extern "C" void peer_setTransport(ZelPeer* peer, const ZelTransport* transport) {
  if (!peer || peer->ending) return;
  peer->transport = transport ? transport : &kSocketTransport;
  peer->tryRead = true;
  loop_markWork(peer);
}
