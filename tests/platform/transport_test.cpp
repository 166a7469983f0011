// Another transport in place of the socket's own: one that stutters, refuses and holds bytes of its own.
#include "peer_support.h"

namespace {

struct Stutter {
  size_t writePiece = SIZE_MAX;  // at most this many bytes in one write
  size_t refuseEvery = 0;        // every n-th write is refused with EAGAIN
  size_t writes = 0;
  size_t breaksAfter = SIZE_MAX;  // this many writes
  size_t afterEnd = 0;            // calls after the peer's last close handler
  bool down = false;
  std::string held;  // taken from the socket, not yet given out
  size_t readPiece = SIZE_MAX;
  bool atEnd = false;  // whatever the socket says
  size_t record = 1;   // nothing is given out before so many bytes are there
};

Stutter stutter;

ssize_t refuse(int error) {
  errno = error;
  return -1;
}

void fillHeld(ZelPeer* peer) {
  char buffer[65536];
  const ssize_t count = recv(peer_socket(peer), buffer, sizeof(buffer), MSG_DONTWAIT);
  if (count > 0) stutter.held.append(buffer, static_cast<size_t>(count));
}

ssize_t stutterPeek(ZelPeer* peer, void* buffer, size_t length) {
  stutter.afterEnd += stutter.down;
  if (stutter.held.size() < stutter.record) fillHeld(peer);
  if (stutter.held.size() < stutter.record) return stutter.atEnd ? 0 : refuse(EAGAIN);
  const size_t count = std::min({length, stutter.readPiece, stutter.held.size()});
  memcpy(buffer, stutter.held.data(), count);
  return static_cast<ssize_t>(count);
}

ssize_t stutterRead(ZelPeer* peer, void* buffer, size_t length) {
  const ssize_t count = stutterPeek(peer, buffer, length);
  if (count > 0) stutter.held.erase(0, static_cast<size_t>(count));
  return count;
}

ssize_t stutterWrite(ZelPeer* peer, const void* buffer, size_t length) {
  stutter.afterEnd += stutter.down;
  ++stutter.writes;
  if (stutter.writes > stutter.breaksAfter) return refuse(EPIPE);
  if (stutter.refuseEvery && stutter.writes % stutter.refuseEvery == 0) return refuse(EAGAIN);
  return send(peer_socket(peer), buffer, std::min(length, stutter.writePiece), MSG_DONTWAIT | MSG_NOSIGNAL);
}

const ZelTransport kStutter = {stutterRead, stutterWrite, stutterPeek, 0};

class TransportTest : public LoopTest {
 protected:
  void SetUp() override {
    LoopTest::SetUp();
    stutter = Stutter();
  }
  Probe probe_;
};

struct WriteCase {
  const char* name;
  bool direct;
  size_t length;
  size_t piece;
  size_t refuseEvery;
};

constexpr WriteCase kWrites[] = {
    {"BufferedWhole", false, 100000, SIZE_MAX, 0}, {"BufferedByteByByte", false, 5000, 1, 0},
    {"BufferedOdd", false, 300000, 1021, 3},       {"BufferedEverySecondRefused", false, 20000, 997, 2},
    {"DirectWhole", true, 100000, SIZE_MAX, 0},    {"DirectByteByByte", true, 5000, 1, 0},
    {"DirectOdd", true, 300000, 1021, 3},          {"DirectEverySecondRefused", true, 20000, 997, 2},
};

class TransportWriteTest : public TransportTest, public ::testing::WithParamInterface<WriteCase> {};

TEST_P(TransportWriteTest, EveryByteArrivesOnce) {
  ZelPeer* peer = makePeer(&other_);
  peer_setTransport(peer, &kStutter);
  EXPECT_EQ(peer_capabilities(peer), 0u);
  stutter.writePiece = GetParam().piece;
  stutter.refuseEvery = GetParam().refuseEvery;
  EXPECT_TRUE(peer_setStreamType(peer, GetParam().direct));
  probe_.on(peer, PEER_EVENT_DRAINED, [](ZelPeer* one) {
    EXPECT_EQ(peer_bytesQueued(one), 0u);
    return true;
  });
  const std::string sent = pattern(GetParam().length);
  for (const size_t third : {0, 1, 2}) {
    const size_t from = sent.size() * third / 3;
    const size_t length = sent.size() * (third + 1) / 3 - from;
    EXPECT_EQ(fwrite(sent.data() + from, 1, length, peer_outStream(peer, PEER_STREAM_CURRENT)), length);
  }
  std::string got;
  ASSERT_TRUE(until([&] {
    got += received(other_);
    return got.size() == sent.size() && probe_.count(PEER_EVENT_DRAINED) > 0;
  })) << got.size();
  EXPECT_TRUE(got == sent);
  settle();
  EXPECT_EQ(probe_.count(PEER_EVENT_DRAINED), 1u);
}

INSTANTIATE_TEST_SUITE_P(Platform, TransportWriteTest, ::testing::ValuesIn(kWrites),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(TransportTest, ADirectWriteThatBreaksInTheMiddleFails) {
  ZelPeer* peer = makePeer(&other_);
  peer_setTransport(peer, &kStutter);
  stutter.writePiece = 10;
  stutter.breaksAfter = 1;
  probe_.on(peer, PEER_EVENT_CLOSE, [](ZelPeer*) { return true; });
  EXPECT_TRUE(peer_setStreamType(peer, PEER_STREAM_DIRECT));
  const std::string sent = pattern(100);
  errno = 0;
  EXPECT_LT(fwrite(sent.data(), 1, sent.size(), peer_outStream(peer, PEER_STREAM_DIRECT)), sent.size());
  EXPECT_EQ(errno, EPIPE);
  EXPECT_EQ(probe_.count(PEER_EVENT_CLOSE), 0u);
  ASSERT_TRUE(until([&] { return probe_.count(PEER_EVENT_CLOSE) == 1; }));
}

TEST_F(TransportTest, BytesThatTheTransportHoldsRaiseData) {
  ZelPeer* peer = makePeer(&other_);
  peer_setTransport(peer, &kStutter);
  stutter.readPiece = 3;
  std::string got;
  probe_.on(peer, PEER_EVENT_DATA, [&](ZelPeer* one) {
    char text[3];
    const size_t count = fread(text, 1, sizeof(text), peer_inStream(one));
    EXPECT_GT(count, 0u) << "never with nothing to read";
    got.append(text, count);
    return true;
  });
  sendText(other_, "abcdefghijklmnopqrstuvwxy");
  ASSERT_TRUE(until([&] { return got.size() == 25; }));
  EXPECT_EQ(got, "abcdefghijklmnopqrstuvwxy");
  settle();
  EXPECT_EQ(probe_.count(PEER_EVENT_DATA), 9u);
}

TEST_F(TransportTest, BytesThatTheTransportCannotUseYetRaiseNothing) {
  ZelPeer* peer = makePeer(&other_);
  peer_setTransport(peer, &kStutter);
  stutter.record = 10;
  std::string got;
  probe_.on(peer, PEER_EVENT_DATA, [&](ZelPeer* one) {
    got += readAll(peer_inStream(one));
    return true;
  });
  sendText(other_, "a part");
  settle();
  EXPECT_EQ(probe_.count(PEER_EVENT_DATA), 0u);
  sendText(other_, " and the rest");
  stutter.record = 1;
  ASSERT_TRUE(until([&] { return !got.empty(); }));
  EXPECT_EQ(got, "a part and the rest");
}

TEST_F(TransportTest, BytesThatTheTransportHoldsWaitForAHandler) {
  ZelPeer* peer = makePeer(&other_);
  peer_setTransport(peer, &kStutter);
  stutter.held = "from the handshake";
  settle();
  std::string got;
  probe_.on(peer, PEER_EVENT_DATA, [&](ZelPeer* one) {
    got += readAll(peer_inStream(one));
    return true;
  });
  ASSERT_TRUE(until([&] { return !got.empty(); }));
  EXPECT_EQ(got, "from the handshake");
}

TEST_F(TransportTest, BytesThatAHandlerLeavesWithTheTransportAreOfferedAgain) {
  ZelPeer* peer = makePeer(&other_);
  peer_setTransport(peer, &kStutter);
  std::string got;
  probe_.on(peer, PEER_EVENT_DATA, [&](ZelPeer* one) {
    if (probe_.count(PEER_EVENT_DATA) > 50) got += readAll(peer_inStream(one));
    return true;
  });
  sendText(other_, "later");
  ASSERT_TRUE(until([&] { return !got.empty(); }));
  EXPECT_EQ(got, "later");
}

TEST_F(TransportTest, WhatTheTransportHoldsOutlastsTheTurn) {
  ZelPeer* peer = makePeer(&other_);
  peer_setTransport(peer, &kStutter);
  stutter.readPiece = 3;
  std::string got;
  bool ended = false;
  probe_.on(peer, PEER_EVENT_DATA, [&](ZelPeer* one) {
    FILE* in = peer_inStream(one);
    char text[3];
    got.append(text, fread(text, 1, sizeof(text), in));
    ended = feof(in);
    return !ended;
  });
  zel_loop_turn(0);
  const std::string sent = pattern(300);
  sendText(other_, sent);
  stutter.atEnd = true;
  ASSERT_TRUE(until([&] { return ended; })) << got.size();
  EXPECT_TRUE(got == sent);
  EXPECT_EQ(probe_.count(PEER_EVENT_DATA), 101u);
}

TEST_F(TransportTest, WhatIsReadFromElsewhereLeavesTheRestToTheHandler) {
  ZelPeer* peer = makePeer(&other_);
  peer_setTransport(peer, &kStutter);
  stutter.readPiece = 1;
  std::string got;
  probe_.on(peer, PEER_EVENT_DATA, [&](ZelPeer* one) {
    got += readAll(peer_inStream(one));
    return true;
  });
  settle();
  sendText(other_, "first");
  EXPECT_EQ(fgetc(peer_inStream(peer)), 'f');
  ASSERT_TRUE(until([&] { return !got.empty(); }));
  EXPECT_EQ(got, "irst");
}

TEST_F(TransportTest, TheEndThatOnlyTheTransportSawIsToldAgain) {
  ZelPeer* peer = makePeer(&other_);
  peer_setTransport(peer, &kStutter);
  int ends = 0;
  const Probe::Handler onData = [&](ZelPeer* one) {
    stutter.atEnd = true;
    readAll(peer_inStream(one));
    ends += feof(peer_inStream(one)) != 0;
    probe_.off(one, PEER_EVENT_DATA);
    return true;
  };
  probe_.on(peer, PEER_EVENT_DATA, onData);
  sendText(other_, "x");
  ASSERT_TRUE(until([&] { return ends == 1; }));
  settle();
  probe_.on(peer, PEER_EVENT_DATA, onData);
  ASSERT_TRUE(until([&] { return ends == 2; }));
}

TEST_F(TransportTest, IsNotUsedAfterTheLastCloseHandler) {
  ZelPeer* peer = makePeer(&other_);
  peer_setTransport(peer, &kStutter);
  probe_.on(peer, PEER_EVENT_CLOSE, [](ZelPeer* one) {
    fputs("and the close handler's", peer_outStream(one, PEER_STREAM_BUFFERED));
    return true;
  });
  peer_addCloseHandler(peer, [](ZelPeer*) { return stutter.down = true; });
  fputs("last words ", peer_outStream(peer, PEER_STREAM_BUFFERED));
  peer_destroy(peer);
  settle();
  EXPECT_EQ(received(other_), "last words and the close handler's<end>");
  EXPECT_EQ(stutter.afterEnd, 0u);
}

TEST_F(TransportTest, TheSocketsOwnComesBack) {
  ZelPeer* peer = makePeer(&other_);
  peer_setTransport(peer, &kStutter);
  peer_setTransport(peer, nullptr);
  EXPECT_EQ(peer_capabilities(peer), static_cast<unsigned>(PEER_CAPABILITY_SENDFILE));
  fputs("plain", peer_outStream(peer, PEER_STREAM_BUFFERED));
  settle();
  EXPECT_EQ(received(other_), "plain");
  EXPECT_EQ(stutter.writes, 0u);
}

}  // namespace
