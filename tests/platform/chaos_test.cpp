// Pairs of peers that do what they like, for many turns. Whatever happens, no byte is lost, doubled or out of order, no
// event comes without its reason, and each peer ends once.
#include "peer_support.h"

namespace {

class Chaos;

// One end of a pair. Its output is the sequence of bytes that byteAt() gives.
struct End {
  Chaos* chaos = nullptr;
  End* other = nullptr;
  ZelPeer* peer = nullptr;  // nullptr once it has ended
  size_t number = 0;
  size_t written = 0;
  size_t read = 0;
  size_t closed = 0;
  bool atEnd = false;  // it has read all there ever was
};

class Chaos {
 public:
  Chaos(ZelConnection* connection, uint32_t seed, bool tcpLike) : connection_(connection), state_(seed) {
    ends_.resize(kPairs * 2);
    for (size_t i = 0; i < ends_.size(); ++i) {
      ends_[i].chaos = this;
      ends_[i].number = i;
      ends_[i].other = &ends_[i ^ 1];
    }
    for (size_t i = 0; i < ends_.size(); i += 2) connectPair(i, tcpLike);
  }

  uint32_t random(uint32_t limit) {
    state_ = state_ * 1664525 + 1013904223;
    return (state_ >> 8) % limit;
  }

  bool onData(End& end) {
    char byte;
    const ssize_t next = peer_peek(end.peer, &byte, 1);
    EXPECT_TRUE(next >= 0 || errno != EAGAIN) << "nothing to read";
    readSome(end);
    return act(end);
  }
  bool onWritable(End& end) {
    EXPECT_EQ(peer_bytesQueued(end.peer), 0u);
    writeSome(end);
    return act(end);
  }
  bool onDrained(End& end) {
    EXPECT_EQ(peer_bytesQueued(end.peer), 0u);
    return act(end);
  }
  bool onClose(End& end) {
    EXPECT_EQ(++end.closed, 1u);
    if (random(3) == 0) writeSome(end);
    if (random(3) == 0) readSome(end);
    end.peer = nullptr;
    if (random(8) == 0) finish(ends_[random(static_cast<uint32_t>(ends_.size()))]);
    return random(2);
  }

  // From outside of every handler.
  void poke() {
    End& end = ends_[random(static_cast<uint32_t>(ends_.size()))];
    if (!end.peer) return;
    switch (random(4)) {
      case 0:
        writeSome(end);
        break;
      case 1:
        readSome(end);
        break;
      default:
        toggle(end);
    }
  }

  // Everyone reads to the end now.
  void calm() {
    calm_ = true;
    for (size_t i = 0; i < ends_.size(); i += 2) finish(ends_[i + random(2)]);
    for (End& end : ends_)
      if (end.peer) install(end, PEER_EVENT_DATA, true);
  }
  bool over() const {
    for (const End& end : ends_)
      if (end.peer) return false;
    return true;
  }
  void check() const {
    for (const End& end : ends_) {
      EXPECT_EQ(end.closed, 1u) << end.number;
      EXPECT_LE(end.read, end.other->written) << end.number;
      EXPECT_TRUE(!end.atEnd || end.read == end.other->written) << end.number;
    }
  }
  size_t complete() const {
    size_t count = 0;
    for (const End& end : ends_) count += end.atEnd && end.read > 0;
    return count;
  }

 private:
  static constexpr size_t kPairs = 12;

  template <bool (Chaos::*kMethod)(End&)>
  static bool handle(ZelPeer* peer) {
    End* end = static_cast<End*>(peer_userData(peer));
    return (end->chaos->*kMethod)(*end);
  }

  void connectPair(size_t first, bool small) {
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    for (const size_t side : {0, 1}) {
      const int size = 4096;
      if (small) setsockopt(fds[side], SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
      End& end = ends_[first + side];
      end.peer = connection_adopt(connection_, fds[side]);
      ASSERT_NE(end.peer, nullptr);
      peer_setUserData(end.peer, &end);
      ASSERT_NE(peer_inStream(end.peer), nullptr);
      ASSERT_NE(peer_outStream(end.peer, PEER_STREAM_CURRENT), nullptr);
      peer_setEventHandler(end.peer, PEER_EVENT_CLOSE, PEER_DIRECTION_NONE, handle<&Chaos::onClose>);
      install(end, PEER_EVENT_DATA, true);
      install(end, PEER_EVENT_DRAINED, true);
      writeSome(end);
    }
  }

  static void install(End& end, int event, bool wanted) {
    ZelPeerHandler handler = handle<&Chaos::onDrained>;
    if (event == PEER_EVENT_DATA) handler = handle<&Chaos::onData>;
    if (event == PEER_EVENT_WRITABLE) handler = handle<&Chaos::onWritable>;
    EXPECT_TRUE(peer_setEventHandler(end.peer, event, Probe::directionOf(event), wanted ? handler : nullptr));
  }

  static char byteAt(const End& writer, size_t offset) {
    return static_cast<char>((offset * 131 + offset / 251 + writer.number * 17) & 0xff);
  }

  void writeSome(End& end) {
    FILE* out = peer_outStream(end.peer, PEER_STREAM_CURRENT);
    size_t length = random(4) ? random(300) : random(30000);
    while (out && length-- > 0) {
      if (putc_unlocked(byteAt(end, end.written), out) == EOF) return;
      ++end.written;
    }
  }

  void readSome(End& end) {
    FILE* in = peer_inStream(end.peer);
    for (size_t left = random(4) && !calm_ ? random(500) : SIZE_MAX; left > 0; --left) {
      const int c = getc_unlocked(in);
      if (c == EOF) break;
      ASSERT_EQ(static_cast<char>(c), byteAt(*end.other, end.read)) << end.number << " at " << end.read;
      ++end.read;
    }
    if (feof_unlocked(in)) end.atEnd = true;
    clearerr_unlocked(in);
  }

  void toggle(End& end) {
    const int events[] = {PEER_EVENT_DATA, PEER_EVENT_WRITABLE, PEER_EVENT_DRAINED};
    install(end, events[random(3)], random(2));
    if (random(4) == 0) peer_setStreamType(end.peer, static_cast<int>(random(2)));
  }

  void finish(End& end) {
    if (!end.peer || end.closed) return;
    peer_destroy(end.peer);
  }

  // What a handler does besides. @return its result
  bool act(End& end) {
    if (calm_) return !end.atEnd;
    if (end.atEnd && random(4) == 0) return false;
    switch (random(40)) {
      case 0:
        finish(end);
        return random(2);
      case 1:
        return false;
      case 2:
        finish(ends_[random(static_cast<uint32_t>(ends_.size()))]);
        return true;
      case 3:
      case 4:
      case 5:
      case 6:
        toggle(end);
        return true;
      case 7:
        writeSome(*end.other->chaos->living(end));
        return true;
      default:
        if (random(2)) writeSome(end);
        return true;
    }
  }
  End* living(End& fallback) {
    End& end = ends_[random(static_cast<uint32_t>(ends_.size()))];
    return end.peer ? &end : &fallback;
  }

  ZelConnection* connection_;
  uint32_t state_;
  std::vector<End> ends_;
  bool calm_ = false;
};

class ChaosTest : public LoopTest, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(ChaosTest, NoByteIsLostDoubledOrOutOfOrder) {
  size_t complete = 0;
  for (uint32_t round = 0; round < 20; ++round) {
    Chaos chaos(connection_, GetParam() * 1000 + round, round % 2);
    for (int turn = 0; turn < 60; ++turn) {
      chaos.poke();
      zel_loop_turn(0);
    }
    chaos.calm();
    ASSERT_TRUE(until([&] { return chaos.over(); }));
    chaos.check();
    complete += chaos.complete();
    settle();
    ASSERT_FALSE(HasFailure());
  }
  EXPECT_GT(complete, 20u) << "or nothing was put to the test";
}

INSTANTIATE_TEST_SUITE_P(Platform, ChaosTest, ::testing::Range(1u, 9u));

}  // namespace
