// What peers cost: memory at rest, system calls and allocations of a request. And what a lack of memory does.
#include <malloc.h>
#include <stdio_ext.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <uv.h>

#include <csignal>

#include "peer_support.h"

namespace {

struct Counters {
  size_t reads;   // recv
  size_t writes;  // send, sendmsg
  size_t epollCtls;
  size_t polls;
  size_t allocations;  // always 0 in sanitized builds
};

Counters counters;

}  // namespace

extern "C" ssize_t recv(int fd, void* buffer, size_t length, int flags) {
  ++counters.reads;
  return syscall(SYS_recvfrom, fd, buffer, length, flags, nullptr, nullptr);
}

extern "C" ssize_t send(int fd, const void* buffer, size_t length, int flags) {
  ++counters.writes;
  return syscall(SYS_sendto, fd, buffer, length, flags, nullptr, 0);
}

extern "C" ssize_t sendmsg(int fd, const msghdr* message, int flags) {
  ++counters.writes;
  return syscall(SYS_sendmsg, fd, message, flags);
}

extern "C" int epoll_ctl(int fd, int operation, int other, epoll_event* event) noexcept {
  ++counters.epollCtls;
  return static_cast<int>(syscall(SYS_epoll_ctl, fd, operation, other, event));
}

extern "C" int poll(pollfd* descriptors, nfds_t count, int timeout) {
  ++counters.polls;
  return static_cast<int>(syscall(SYS_poll, descriptors, count, timeout));
}

namespace {

class CostTest : public LoopTest {
 protected:
  // Answers every line with a line.
  void answerLines(ZelPeer* peer) {
    probe_.on(peer, PEER_EVENT_DATA, [](ZelPeer* one) {
      char line[128];
      while (fgets(line, sizeof(line), peer_inStream(one)))
        if (line[0] == '\n') fprintf(peer_outStream(one, PEER_STREAM_BUFFERED), "HTTP/1.1 200 OK\r\n\r\n");
      clearerr_unlocked(peer_inStream(one));
      return true;
    });
    probe_.on(peer, PEER_EVENT_DRAINED, [](ZelPeer*) { return true; });
  }
  // One request and its answer.
  void exchange() {
    const char request[] = "GET / HTTP/1.1\nHost: localhost\nAccept: */*\n\n";
    char answer[64];
    ASSERT_EQ(write(other_.get(), request, sizeof(request) - 1), static_cast<ssize_t>(sizeof(request) - 1));
    const size_t before = probe_.count(PEER_EVENT_DRAINED);
    for (int turn = 0; turn < 5 && probe_.count(PEER_EVENT_DRAINED) == before; ++turn) zel_loop_turn(100);
    ASSERT_EQ(read(other_.get(), answer, sizeof(answer)), 19);
  }
  Probe probe_;
};

TEST_F(CostTest, ARequestTakesTwoReadsOneWriteAndNothingElse) {
  answerLines(makePeer(&other_));
  exchange();
  counters = {};
  for (int i = 0; i < 10; ++i) exchange();
  EXPECT_EQ(counters.reads, 20u) << "the handler reads until there is nothing more";
  EXPECT_EQ(counters.writes, 10u);
  EXPECT_EQ(counters.epollCtls, 0u);
  EXPECT_EQ(counters.allocations, 0u);
}

TEST_F(CostTest, AHandlerThatKnowsItsEndReadsOnce) {
  ZelPeer* peer = makePeer(&other_);
  probe_.on(peer, PEER_EVENT_DATA, [](ZelPeer* one) {
    char line[128];
    do fgets(line, sizeof(line), peer_inStream(one));
    while (line[0] != '\n');
    fputs("HTTP/1.1 200 OK\r\n\r\n", peer_outStream(one, PEER_STREAM_BUFFERED));
    return true;
  });
  probe_.on(peer, PEER_EVENT_DRAINED, [](ZelPeer*) { return true; });
  exchange();
  counters = {};
  for (int i = 0; i < 10; ++i) exchange();
  EXPECT_EQ(counters.reads, 10u);
  EXPECT_EQ(counters.writes, 10u);
  EXPECT_EQ(counters.epollCtls, 0u);
}

TEST_F(CostTest, ManySmallWritesLeaveInOneCall) {
  ZelPeer* peer = makePeer(&other_);
  settle();
  FILE* out = peer_outStream(peer, PEER_STREAM_BUFFERED);
  counters = {};
  for (int i = 0; i < 20000; ++i) putc('x', out);
  settle();
  EXPECT_EQ(counters.writes, 1u);
  EXPECT_EQ(received(other_).size(), 20000u);
}

TEST_F(CostTest, AHandlerTakenAwayAndPutBackCostsNothing) {
  ZelPeer* peer = makePeer(&other_);
  answerLines(peer);
  settle();
  counters = {};
  for (int i = 0; i < 10; ++i) {
    probe_.off(peer, PEER_EVENT_DATA);
    answerLines(peer);
    zel_loop_turn(0);
  }
  EXPECT_EQ(counters.epollCtls, 0u);
  EXPECT_EQ(counters.reads, 0u);
}

TEST_F(CostTest, AHandlerOfEvent4TakenAwayAndPutBackCostsNothing) {
  ZelPeer* peer = makePeer(&other_);
  const Probe::Handler handler = [](ZelPeer*) { return true; };
  probe_.on(peer, PEER_EVENT_WRITABLE, handler);
  settle();
  counters = {};
  for (int i = 0; i < 10; ++i) {
    probe_.off(peer, PEER_EVENT_WRITABLE);
    probe_.on(peer, PEER_EVENT_WRITABLE, handler);
    zel_loop_turn(0);
  }
  EXPECT_GE(probe_.count(PEER_EVENT_WRITABLE), 10u);
  EXPECT_EQ(counters.polls, 0u);
  EXPECT_EQ(counters.epollCtls, 0u);
}

TEST_F(CostTest, AFullSocketIsNotTriedAgainBeforeItTakesData) {
  ZelPeer* peer = makePeer(&other_);
  const std::string large(4 << 20, 'x');
  const int small = 32768;
  ASSERT_EQ(setsockopt(peer_socket(peer), SOL_SOCKET, SO_SNDBUF, &small, sizeof(small)), 0);
  settle();
  counters = {};
  fwrite(large.data(), 1, large.size(), peer_outStream(peer, PEER_STREAM_BUFFERED));
  settle();
  for (int i = 0; i < 10; ++i) zel_loop_turn(0);
  EXPECT_EQ(counters.writes, 1u);
}

// stdio keeps the end of the room for output with the buffer; without it every character is a call.
TEST_F(CostTest, StdioKnowsTheRoomOfALentBuffer) {
  ZelPeer* peer = makePeer(&other_);
  probe_.on(peer, PEER_EVENT_DATA, [](ZelPeer* one) {
    FILE* out = peer_outStream(one, PEER_STREAM_BUFFERED);
    fputc(fgetc(peer_inStream(one)), out);
    EXPECT_GT(out->_IO_write_end - out->_IO_write_ptr, 16000);
    return true;
  });
  for (int i = 0; i < 3; ++i) {
    sendText(other_, "x");
    settle();
  }
  EXPECT_EQ(probe_.count(PEER_EVENT_DATA), 3u);
  EXPECT_EQ(received(other_), "xxx");
}

// fclose() searches that list from its newest member on: closing many peers would take time by the square of their
// number.
TEST_F(CostTest, StreamsArePutOutOfStdiosList) {
  ZelPeer* peer = makePeer(&other_);
  probe_.on(peer, PEER_EVENT_DATA, [](ZelPeer* one) {
    FILE* out = peer_outStream(one, PEER_STREAM_BUFFERED);
    fputc(fgetc(peer_inStream(one)), out);
    fflush(nullptr);
    EXPECT_EQ(__fpending(out), 1u);
    return true;
  });
  sendText(other_, "x");
  settle();
  EXPECT_EQ(received(other_), "x");
}

}  // namespace

#if !defined(__SANITIZE_ADDRESS__)  // allocations belong to the sanitizer there

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void __libc_free(void* block);

static size_t allocationsLeft = SIZE_MAX;  // then they fail

static bool mayAllocate() {
  ++counters.allocations;
  if (allocationsLeft == SIZE_MAX) return true;
  if (allocationsLeft > 0) return --allocationsLeft, true;
  errno = ENOMEM;
  return false;
}

void* malloc(size_t size) { return mayAllocate() ? __libc_malloc(size) : nullptr; }
void* calloc(size_t count, size_t size) { return mayAllocate() ? __libc_calloc(count, size) : nullptr; }
void* realloc(void* block, size_t size) { return mayAllocate() ? __libc_realloc(block, size) : nullptr; }
void free(void* block) { __libc_free(block); }
}

namespace {

// libuv itself gives up the process when it cannot grow its tables.
const int kLibuvHasItsOwnMemory = uv_replace_allocator(__libc_malloc, __libc_realloc, __libc_calloc, __libc_free);

bool readAway(ZelPeer* peer) {
  while (getc_unlocked(peer_inStream(peer)) != EOF) continue;
  clearerr_unlocked(peer_inStream(peer));
  putc_unlocked('y', peer_outStream(peer, PEER_STREAM_BUFFERED));
  return true;
}

TEST_F(CostTest, AnIdlePeerIsSmall) {
  constexpr size_t kPeers = 1000;
  constexpr size_t kLimit = 1100;
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  std::vector<Descriptor> others(kPeers);
  zel_loop_turn(0);
  const size_t before = mallinfo2().uordblks;
  for (Descriptor& other : others) {
    ZelPeer* peer = makePeer(&other);
    ASSERT_NE(peer_inStream(peer), nullptr);
    ASSERT_NE(peer_outStream(peer, PEER_STREAM_BUFFERED), nullptr);
    peer_setEventHandler(peer, PEER_EVENT_DATA, PEER_DIRECTION_IN, readAway);
    peer_setEventHandler(peer, PEER_EVENT_CLOSE, PEER_DIRECTION_NONE, readAway);
  }
  settle();
  EXPECT_LT((mallinfo2().uordblks - before) / kPeers, kLimit) << "as it was made";
  for (const Descriptor& other : others) ASSERT_EQ(write(other.get(), "x", 1), 1);
  for (int turn = 0; turn < 20; ++turn) zel_loop_turn(0);
  for (const Descriptor& other : others) ASSERT_EQ(received(other), "y");
  constexpr size_t kPools = 8 * 16384 + 64 * 4096;
  EXPECT_LT((mallinfo2().uordblks - before - kPools) / kPeers, kLimit) << "after it was used";
}

TEST_F(CostTest, APeakIsNotKept) {
  ZelPeer* peer = makePeer(&other_);
  FILE* out = peer_outStream(peer, PEER_STREAM_BUFFERED);
  const std::string large(4 << 20, 'x');
  settle();
  const size_t before = mallinfo2().uordblks;
  fwrite(large.data(), 1, large.size(), out);
  EXPECT_GT(mallinfo2().uordblks - before, large.size());
  size_t got = 0;
  ASSERT_TRUE(until([&] { return (got += received(other_).size()) == large.size() && peer_bytesQueued(peer) == 0; }));
  EXPECT_LT(mallinfo2().uordblks - before, 300000u);
}

// A server and a client of it, without any allocation of their own.
namespace scarce {

constexpr size_t kLength = 50000;
constexpr size_t kTimes = 8;
char sent[kLength];
char got[kLength * kTimes + 1];
size_t gotLength;
size_t taken;  // by fwrite
bool noticed;  // something reported a failure, or an end
size_t ends;
size_t peersMade;

bool onEnd(ZelPeer*) {
  ++ends;
  return noticed = true;
}

// More output than the pool has room for, and the last of it still in stdio's buffer when the handler returns.
bool multiply(ZelPeer* peer) {
  FILE* in = peer_inStream(peer);
  FILE* out = peer_outStream(peer, PEER_STREAM_BUFFERED);
  for (int c; (c = getc_unlocked(in)) != EOF;)
    for (size_t i = 0; i < kTimes; ++i)
      if (putc_unlocked(c, out) == EOF) return false;
  const bool atEnd = feof_unlocked(in);
  clearerr_unlocked(in);
  return !atEnd;
}

bool collect(ZelPeer* peer) {
  const size_t count = fread(got + gotLength, 1, sizeof(got) - gotLength, peer_inStream(peer));
  gotLength += count;
  if (feof(peer_inStream(peer))) return false;
  clearerr(peer_inStream(peer));
  return true;
}

bool prepare(ZelPeer* peer, ZelPeerHandler onData) {
  ++peersMade;
  peer_setEventHandler(peer, PEER_EVENT_CLOSE, PEER_DIRECTION_NONE, onEnd);
  return peer_inStream(peer) && peer_outStream(peer, PEER_STREAM_BUFFERED) && peer_address(peer) &&
         peer_setEventHandler(peer, PEER_EVENT_DATA, PEER_DIRECTION_IN, onData);
}

bool onAccept(ZelPeer* peer) {
  return prepare(peer, multiply) && peer_addCloseHandler(peer, [](ZelPeer*) { return true; });
}

void ring(ZelTimer*, void* rang) { *static_cast<bool*>(rang) = true; }

void exchange(ZelConnection* connection) {
  ZelPeer* listener = connection_listenOnTCP(connection, "127.0.0.1", "0");
  if (!listener || !peer_setEventHandler(listener, PEER_EVENT_ACCEPT, PEER_DIRECTION_IN, onAccept)) {
    noticed = true;
    return;
  }
  char port[8];
  snprintf(port, sizeof(port), "%u", peer_localPort(listener));
  ZelPeer* client = connection_connectToTCP(connection, "127.0.0.1", port, 0);
  if (!client || !prepare(client, collect)) {
    noticed = true;
    return;
  }
  taken = fwrite(sent, 1, kLength, peer_outStream(client, PEER_STREAM_BUFFERED));
  if (taken < kLength) noticed = true;
  for (int turn = 0; turn < 2000 && !noticed && gotLength < kLength * kTimes; ++turn) zel_loop_turn(5);
}

void run() {
  gotLength = taken = ends = peersMade = 0;
  noticed = false;
  bool rang = false;
  ZelConnection* connection = connection_create();
  ZelTimer* timer = zel_timer_create();
  if (timer) {
    zel_timer_setUserData(timer, &rang);
    zel_timer_setHandler(timer, ring);
  }
  if (!timer || !zel_timer_start(timer, 1)) noticed = true;
  if (!zel_loop_onSignal(
          SIGUSR2, [](int, void*) {}, nullptr))
    noticed = true;
  if (connection)
    exchange(connection);
  else
    noticed = true;
  const bool inTime = noticed;
  connection_destroy(connection);
  noticed = inTime;
  zel_timer_destroy(timer);
}

}  // namespace scarce

TEST_F(CostTest, AListWithoutMemoryTellsWhy) {
  ZelList* list = llist_create();
  zel_error = 0;
  allocationsLeft = 0;
  const bool appended = llist_append(list, list);
  allocationsLeft = SIZE_MAX;
  EXPECT_FALSE(appended);
  EXPECT_EQ(zel_error, static_cast<uint32_t>(ENOMEM));
  llist_destroy(list);
}

// Lets every allocation of a whole exchange be the first that fails: nothing crashes, leaks, or is lost without notice.
TEST_F(CostTest, EveryLackOfMemoryIsNoticed) {
  const std::string bytes = pattern(scarce::kLength);
  memcpy(scarce::sent, bytes.data(), bytes.size());
  bool complete = false;
  size_t failed = 0;
  for (size_t n = 0; !complete && n < 500; ++n) {
    zel_loop_close();
    allocationsLeft = n;
    scarce::run();
    complete = allocationsLeft > 0;
    allocationsLeft = SIZE_MAX;
    failed += scarce::noticed;
    EXPECT_TRUE(scarce::noticed || scarce::gotLength == scarce::kLength * scarce::kTimes) << "allocation " << n;
    size_t right = 0;
    while (right < scarce::gotLength && scarce::got[right] == scarce::sent[right / scarce::kTimes]) ++right;
    EXPECT_EQ(right, scarce::gotLength) << "allocation " << n;
    EXPECT_EQ(scarce::ends, scarce::peersMade) << "allocation " << n;
  }
  EXPECT_TRUE(complete);
  EXPECT_FALSE(scarce::noticed);
  EXPECT_EQ(scarce::gotLength, scarce::kLength * scarce::kTimes);
  EXPECT_GT(failed, 10u);
}

}  // namespace
#endif
