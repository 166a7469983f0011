#include "memory_platform.h"

#include <stdio_ext.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>
#include <zel/error.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

MemoryOptions memoryOptions;
uint32_t zel_error = ZEL_ERROR_NONE;

struct ZelConnection {
  std::vector<ZelPeer*> peers;
};

struct ZelPeer {
  enum Kind { kListening, kConnecting, kConnected };

  ZelConnection* connection = nullptr;
  Kind kind = kConnected;
  std::shared_ptr<MemorySocket> socket;
  int number = 0;
  ZelPeerHandler handlers[PEER_EVENT_CLOSE + 1] = {};
  std::vector<ZelPeerHandler> closeHandlers;
  void* userData = nullptr;
  std::string queue;
  bool direct = false;
  bool undrained = false;
  bool writeDead = false;
  bool ending = false;
  bool ended = false;
  FILE* in = nullptr;
  FILE* out = nullptr;
  std::unique_ptr<char[]> buffers[2];
};

struct ZelTimer {
  ZelTimerHandler handler = nullptr;
  void* userData = nullptr;
  bool running = false;
  uint64_t due = 0;
  uint64_t started = 0;  // in which order
};

namespace {

constexpr int kFirstNumber = 1 << 20;  // no descriptor of this process
constexpr uint64_t kStart = 1000000000000;

std::vector<ZelPeer*> peers;  // until their memory goes
std::vector<ZelTimer*> timers;
std::vector<std::shared_ptr<MemorySocket>> connecting;
bool refusesConnecting = false;
uint64_t now = kStart;
uint64_t starts = 0;

bool fail(uint32_t error) {
  zel_error = error;
  return false;
}

ssize_t refuse(int error) {
  errno = error;
  return -1;
}

size_t unreadOf(const ZelPeer* peer) {
  return peer->in == nullptr ? 0 : static_cast<size_t>(peer->in->_IO_read_end - peer->in->_IO_read_ptr);
}

bool hasInput(const ZelPeer* peer) {
  const MemorySocket& socket = *peer->socket;
  return unreadOf(peer) > 0 || !socket.unread().empty() || socket.finished || socket.isReset;
}

void end(ZelPeer* peer, bool vanished);

// --- streams ---------------------------------------------------------------------------------------------------------

ssize_t lookAtSocket(const ZelPeer* peer, char* buffer, size_t size) {
  const MemorySocket& socket = *peer->socket;
  if (peer->kind == ZelPeer::kConnecting) return refuse(EAGAIN);
  if (!socket.unread().empty()) return static_cast<ssize_t>(socket.unread().copy(buffer, size));
  if (socket.isReset) return refuse(ECONNRESET);
  return socket.finished ? 0 : refuse(EAGAIN);
}

ssize_t readInput(void* cookie, char* buffer, size_t size) {
  auto* const peer = static_cast<ZelPeer*>(cookie);
  if (peer->ended) return 0;
  const ssize_t count = lookAtSocket(peer, buffer, size);
  if (count > 0) peer->socket->read += static_cast<size_t>(count);
  return count;
}

// @return what the other side takes
size_t offer(ZelPeer* peer, const char* data, size_t size) {
  MemorySocket& socket = *peer->socket;
  if (peer->kind != ZelPeer::kConnected) return 0;
  const size_t count = std::min(size, socket.room);
  socket.received.append(data, count);
  if (socket.room != SIZE_MAX) socket.room -= count;
  return count;
}

void flush(ZelPeer* peer) {
  if (peer->socket->isReset) {
    if (!peer->queue.empty()) peer->writeDead = true;
    peer->queue.clear();
  }
  peer->queue.erase(0, offer(peer, peer->queue.data(), peer->queue.size()));
}

ssize_t writeOutput(void* cookie, const char* data, size_t size) {
  auto* const peer = static_cast<ZelPeer*>(cookie);
  if (peer->ended || peer->writeDead) {
    errno = EPIPE;
    return 0;
  }
  peer->undrained = true;
  peer->queue.append(data, size);
  if (!peer->direct) return static_cast<ssize_t>(size);
  flush(peer);
  errno = peer->queue.empty() ? 0 : EAGAIN;
  if (!peer->writeDead) return static_cast<ssize_t>(size);
  errno = EPIPE;
  return 0;
}

FILE* openStream(ZelPeer* peer, const char* mode, const cookie_io_functions_t& functions,
                 std::unique_ptr<char[]>* buffer) {
  FILE* const stream = fopencookie(peer, mode, functions);
  if (stream == nullptr) abort();
  if (memoryOptions.streamBuffer == 0) {
    setvbuf(stream, nullptr, _IONBF, 0);
  } else {
    buffer->reset(new char[memoryOptions.streamBuffer]);
    setvbuf(stream, buffer->get(), _IOFBF, memoryOptions.streamBuffer);
  }
  return stream;
}

bool isUsable(const ZelPeer* peer) {
  if (peer != nullptr && !peer->ended && peer->kind != ZelPeer::kListening) return true;
  errno = ENOTCONN;
  return fail(ZEL_ERROR_BAD_PEER);
}

// --- the life of a peer ----------------------------------------------------------------------------------------------

ZelPeer* makePeer(ZelConnection* connection, ZelPeer::Kind kind) {
  auto* const peer = new ZelPeer;
  peer->connection = connection;
  peer->kind = kind;
  peer->socket = std::make_shared<MemorySocket>();
  static int made = 0;
  peer->number = kFirstNumber + made++ % kFirstNumber;
  peers.push_back(peer);
  connection->peers.push_back(peer);
  return peer;
}

void runCloseHandlers(ZelPeer* peer) {
  if (const ZelPeerHandler handler = peer->handlers[PEER_EVENT_CLOSE]) handler(peer);
  while (!peer->closeHandlers.empty()) {
    const ZelPeerHandler handler = peer->closeHandlers.front();
    peer->closeHandlers.erase(peer->closeHandlers.begin());
    handler(peer);
  }
}

// What was written leaves in any case, unless there is nobody any more.
void end(ZelPeer* peer, bool vanished) {
  if (peer->ending) return;
  peer->ending = true;
  std::erase(peer->connection->peers, peer);
  runCloseHandlers(peer);
  if (peer->out != nullptr) fflush(peer->out);
  peer->ended = true;
  MemorySocket& socket = *peer->socket;
  if (!vanished && !socket.isReset && peer->kind == ZelPeer::kConnected) socket.received.append(peer->queue);
  peer->queue.clear();
  socket.closed = true;
}

void releaseEnded() {
  std::vector<ZelPeer*> ended;
  for (ZelPeer* peer : peers)
    if (peer->ended) ended.push_back(peer);
  std::erase_if(peers, [](const ZelPeer* peer) { return peer->ended; });
  for (ZelPeer* peer : ended) {
    if (peer->in != nullptr) fclose(peer->in);
    if (peer->out != nullptr) fclose(peer->out);
    delete peer;
  }
}

// --- events ----------------------------------------------------------------------------------------------------------

// @return false when the peer has ended
bool raise(ZelPeer* peer, int event) {
  if (!peer->handlers[event](peer)) end(peer, false);
  if (peer->ended) return false;
  if (peer->out != nullptr) fflush(peer->out);
  return true;
}

bool settleConnecting(ZelPeer* peer) {
  if (peer->socket->refused) {
    zel_error = ECONNREFUSED;
    end(peer, true);
    return true;
  }
  if (!peer->socket->accepted) return false;
  peer->kind = ZelPeer::kConnected;
  return true;
}

// Nobody reads: whether there is anybody at all.
bool isAlive(ZelPeer* peer) {
  if (peer->handlers[PEER_EVENT_DATA] != nullptr || !peer->socket->isReset) return true;
  if (unreadOf(peer) > 0 || !peer->socket->unread().empty()) return true;
  end(peer, true);
  return false;
}

bool step(ZelPeer* peer) {
  bool worked = false;
  if (peer->ending || peer->kind == ZelPeer::kListening) return false;
  if (peer->kind == ZelPeer::kConnecting) return settleConnecting(peer);
  if (!isAlive(peer)) return true;
  if (peer->handlers[PEER_EVENT_DATA] != nullptr && hasInput(peer)) {
    worked = true;
    if (!raise(peer, PEER_EVENT_DATA)) return true;
  }
  if (peer->handlers[PEER_EVENT_WRITABLE] != nullptr && peer->queue.empty() && peer->socket->room > 0) {
    worked = true;
    if (!raise(peer, PEER_EVENT_WRITABLE)) return true;
  }
  const size_t queued = peer->queue.size();
  flush(peer);
  worked |= peer->queue.size() != queued;
  if (peer->writeDead && (peer->handlers[PEER_EVENT_DATA] == nullptr || !hasInput(peer))) {
    end(peer, true);
    return true;
  }
  if (peer->undrained && peer->queue.empty() && !peer->writeDead) {
    peer->undrained = false;
    if (peer->handlers[PEER_EVENT_DRAINED] == nullptr) return worked;
    raise(peer, PEER_EVENT_DRAINED);
    return true;
  }
  return worked;
}

// The one that is due first; of several, the one that was started first.
ZelTimer* firstTimer() {
  ZelTimer* first = nullptr;
  for (ZelTimer* timer : timers) {
    if (!timer->running) continue;
    if (first == nullptr || timer->due < first->due || (timer->due == first->due && timer->started < first->started))
      first = timer;
  }
  return first;
}

bool runTimers() {
  bool worked = false;
  const uint64_t begin = starts;
  for (size_t most = timers.size(); most > 0; --most) {
    ZelTimer* const timer = firstTimer();
    // One that was started in this very turn waits for the next.
    if (timer == nullptr || timer->due > now || timer->started > begin) break;
    timer->running = false;
    timer->handler(timer, timer->userData);
    worked = true;
  }
  for (ZelPeer* peer : peers)
    if (peer->out != nullptr && !peer->ended) fflush(peer->out);
  return worked;
}

ZelPeer* connectPeer(ZelConnection* connection) {
  if (refusesConnecting) {
    zel_error = ECONNREFUSED;
    return nullptr;
  }
  ZelPeer* const peer = makePeer(connection, ZelPeer::kConnecting);
  connecting.push_back(peer->socket);
  return peer;
}

ZelPeer* peerOf(int number) {
  for (ZelPeer* peer : peers)
    if (peer->number == number && !peer->ended) return peer;
  return nullptr;
}

}  // namespace

// --- whoever runs it -------------------------------------------------------------------------------------------------

ZelPeer* memory_listen(ZelConnection* connection) { return makePeer(connection, ZelPeer::kListening); }

std::shared_ptr<MemorySocket> memory_connectTo(ZelPeer* listening) {
  if (listening->ending || listening->handlers[PEER_EVENT_ACCEPT] == nullptr) return nullptr;
  ZelPeer* const peer = makePeer(listening->connection, ZelPeer::kConnected);
  peer->userData = listening->userData;
  const std::shared_ptr<MemorySocket> socket = peer->socket;
  if (!listening->handlers[PEER_EVENT_ACCEPT](peer)) end(peer, false);
  return socket;
}

MemorySocket* memory_socketOf(const ZelPeer* peer) { return peer->socket.get(); }

std::vector<std::shared_ptr<MemorySocket>> memory_takeConnecting() { return std::exchange(connecting, {}); }

void memory_refuseConnecting(bool refused) { refusesConnecting = refused; }

bool memory_turn() {
  bool worked = false;
  const std::vector<ZelPeer*> atBegin = peers;  // none of them is freed before the end
  for (ZelPeer* peer : atBegin) worked |= step(peer);
  worked |= runTimers();
  releaseEnded();
  return worked;
}

void memory_passTime(unsigned milliseconds) { now += milliseconds; }

int64_t memory_nextTimer() {
  const ZelTimer* const timer = firstTimer();
  if (timer == nullptr) return -1;
  return timer->due > now ? static_cast<int64_t>(timer->due - now) : 0;
}

size_t memory_livePeers() { return peers.size(); }

size_t memory_liveTimers() { return timers.size(); }

// --- the platform's functions ----------------------------------------------------------------------------------------

extern "C" {

const char* error_string(uint32_t) { return "an error"; }

ZelConnection* connection_create(void) { return new ZelConnection; }

void connection_destroy(ZelConnection* connection) {
  if (connection == nullptr) return;
  while (!connection->peers.empty()) end(connection->peers.front(), false);
  releaseEnded();
  delete connection;
}

ZelPeer* connection_connectToTCP(ZelConnection* connection, const char*, const char*, int) {
  return connectPeer(connection);
}

ZelPeer* connection_connectToIPC(ZelConnection* connection, const char*) { return connectPeer(connection); }

bool peer_setEventHandler(ZelPeer* peer, int event, int, ZelPeerHandler handler) {
  if (peer == nullptr || peer->ending) return fail(ZEL_ERROR_BAD_PEER);
  peer->handlers[event] = handler;
  return true;
}

bool peer_addCloseHandler(ZelPeer* peer, ZelPeerHandler handler) {
  if (peer == nullptr || peer->ending) return fail(ZEL_ERROR_BAD_PEER);
  auto& handlers = peer->closeHandlers;
  if (std::find(handlers.begin(), handlers.end(), handler) == handlers.end()) handlers.push_back(handler);
  return true;
}

bool peer_removeCloseHandler(ZelPeer* peer, ZelPeerHandler handler) {
  return peer != nullptr && std::erase(peer->closeHandlers, handler) > 0;
}

FILE* peer_inStream(ZelPeer* peer) {
  if (!isUsable(peer)) return nullptr;
  if (peer->in == nullptr) peer->in = openStream(peer, "r", {readInput, nullptr, nullptr, nullptr}, &peer->buffers[0]);
  return peer->in;
}

FILE* peer_outStream(ZelPeer* peer, int type) {
  if (!isUsable(peer)) return nullptr;
  if (type != PEER_STREAM_CURRENT && (type == PEER_STREAM_DIRECT) != peer->direct) {
    fail(EINVAL);
    return nullptr;
  }
  if (peer->out == nullptr)
    peer->out = openStream(peer, "w", {nullptr, writeOutput, nullptr, nullptr}, &peer->buffers[1]);
  return peer->out;
}

ssize_t peer_peek(ZelPeer* peer, void* buffer, size_t length) {
  if (!isUsable(peer)) return -1;
  auto* const to = static_cast<char*>(buffer);
  if (const size_t unread = std::min(unreadOf(peer), length)) {
    memcpy(to, peer->in->_IO_read_ptr, unread);
    return static_cast<ssize_t>(unread);
  }
  return lookAtSocket(peer, to, length);
}

size_t peer_bytesQueued(const ZelPeer* peer) {
  return peer == nullptr ? 0 : peer->queue.size() + (peer->out != nullptr ? __fpending(peer->out) : 0);
}

bool peer_setStreamType(ZelPeer* peer, int type) {
  if (peer == nullptr || peer->ending) return fail(ZEL_ERROR_BAD_PEER);
  if (type == PEER_STREAM_DIRECT && peer_bytesQueued(peer) > 0) return fail(EBUSY);
  peer->direct = type == PEER_STREAM_DIRECT;
  if (peer->out != nullptr) {
    fflush(peer->out);
    if (peer->direct) setvbuf(peer->out, nullptr, _IONBF, 0);
  }
  return true;
}

unsigned peer_capabilities(const ZelPeer*) { return memoryOptions.sendfile ? PEER_CAPABILITY_SENDFILE : 0; }

ZelConnection* peer_connection(const ZelPeer* peer) { return peer != nullptr ? peer->connection : nullptr; }

int peer_socket(const ZelPeer* peer) {
  if (peer != nullptr && !peer->ended) return peer->number;
  fail(ZEL_ERROR_BAD_PEER);
  return -1;
}

void* peer_userData(const ZelPeer* peer) { return peer != nullptr ? peer->userData : nullptr; }

void peer_setUserData(ZelPeer* peer, void* userData) {
  if (peer != nullptr) peer->userData = userData;
}

void peer_close(ZelPeer* peer) {
  if (peer != nullptr) end(peer, false);
}

void peer_destroy(ZelPeer* peer) { peer_close(peer); }

ZelTimer* zel_timer_create(void) {
  timers.push_back(new ZelTimer);
  return timers.back();
}

void zel_timer_setUserData(ZelTimer* timer, void* userData) { timer->userData = userData; }

void* zel_timer_userData(const ZelTimer* timer) { return timer->userData; }

void zel_timer_setHandler(ZelTimer* timer, ZelTimerHandler handler) { timer->handler = handler; }

bool zel_timer_start(ZelTimer* timer, unsigned milliseconds) {
  if (timer == nullptr || timer->handler == nullptr) return fail(ZEL_ERROR_NO_HANDLER);
  timer->running = true;
  timer->due = now + milliseconds;
  timer->started = ++starts;
  return true;
}

void zel_timer_stop(ZelTimer* timer) { timer->running = false; }

void zel_timer_destroy(ZelTimer* timer) {
  std::erase(timers, timer);
  delete timer;
}

// --- system calls, for numbers that are no descriptors and time that does not pass -----------------------------------

int setsockopt(int, int, int, const void*, socklen_t) noexcept { return 0; }

// Sends what can be read of a descriptor of this kind.
static ssize_t sendFrom(int number, int descriptor, size_t count, bool takesFiles) {
  struct stat status;
  if (fstat(descriptor, &status) != 0) return -1;
  if (takesFiles ? !S_ISREG(status.st_mode) : !S_ISFIFO(status.st_mode)) return refuse(EINVAL);
  ZelPeer* const peer = peerOf(number);
  if (peer == nullptr) return refuse(EBADF);
  if (peer->socket->isReset) return refuse(EPIPE);
  if (peer->socket->room == 0 || !peer->queue.empty()) return refuse(EAGAIN);
  char block[4096];
  const ssize_t read = ::read(descriptor, block, std::min({count, sizeof block, peer->socket->room}));
  if (read > 0) offer(peer, block, static_cast<size_t>(read));
  return read;
}

ssize_t sendfile(int to, int from, off_t*, size_t count) noexcept { return sendFrom(to, from, count, true); }

ssize_t splice(int from, off64_t*, int to, off64_t*, size_t count, unsigned) {
  return sendFrom(to, from, count, false);
}

int usleep(useconds_t microseconds) {
  now += microseconds / 1000;
  return 0;
}

// The clock that is looked at for time-outs. Others are the fuzzer's.
int clock_gettime(clockid_t clock, timespec* time) noexcept {
  if (clock != CLOCK_MONOTONIC_COARSE) return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
  time->tv_sec = static_cast<time_t>(now / 1000);
  time->tv_nsec = static_cast<long>(now % 1000) * 1000000;
  return 0;
}

}  // extern "C"
