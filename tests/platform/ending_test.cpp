// How peers end: close handlers, the last bytes, and peers that vanish.
#include <stdio_ext.h>

#include "peer_support.h"

namespace {

std::string calls;

template <char kName>
bool closeHandler(ZelPeer*) {
  calls += kName;
  return true;
}

class EndingTest : public LoopTest {
 protected:
  void SetUp() override {
    LoopTest::SetUp();
    calls.clear();
  }
  void onClose(ZelPeer* peer) {
    probe_.on(peer, PEER_EVENT_CLOSE, [](ZelPeer*) {
      calls += '6';
      return true;
    });
  }
  bool ended() const { return probe_.count(PEER_EVENT_CLOSE) == 1; }
  size_t living() const { return llist_count(connection_peers(connection_)); }

  Probe probe_;
};

TEST_F(EndingTest, CloseHandlersRunInOrderAndOnce) {
  ZelPeer* peer = makePeer(&other_);
  EXPECT_TRUE(peer_addCloseHandler(peer, closeHandler<'a'>));
  EXPECT_TRUE(peer_addCloseHandler(peer, closeHandler<'b'>));
  onClose(peer);
  EXPECT_TRUE(peer_addCloseHandler(peer, closeHandler<'c'>));
  EXPECT_TRUE(peer_addCloseHandler(peer, closeHandler<'a'>)) << "it is there, and stays where it is";
  peer_close(peer);
  EXPECT_EQ(calls, "6abc") << "inside the call";
  peer_close(peer);
  peer_destroy(peer);
  settle();
  EXPECT_EQ(calls, "6abc");
}

TEST_F(EndingTest, RemovedCloseHandlersDoNotRun) {
  ZelPeer* peer = makePeer(&other_);
  EXPECT_FALSE(peer_removeCloseHandler(peer, closeHandler<'a'>));
  peer_addCloseHandler(peer, closeHandler<'a'>);
  peer_addCloseHandler(peer, closeHandler<'b'>);
  peer_addCloseHandler(peer, closeHandler<'c'>);
  EXPECT_TRUE(peer_removeCloseHandler(peer, closeHandler<'b'>));
  EXPECT_FALSE(peer_removeCloseHandler(peer, closeHandler<'b'>));
  onClose(peer);
  probe_.off(peer, PEER_EVENT_CLOSE);
  peer_destroy(peer);
  EXPECT_EQ(calls, "ac");
}

TEST_F(EndingTest, CloseHandlersMayRemoveOneAnother) {
  ZelPeer* peer = makePeer(&other_);
  peer_addCloseHandler(peer, [](ZelPeer* one) {
    calls += 'r';
    EXPECT_TRUE(peer_removeCloseHandler(one, closeHandler<'a'>));
    EXPECT_FALSE(peer_addCloseHandler(one, closeHandler<'x'>));
    peer_destroy(one);
    return false;
  });
  peer_addCloseHandler(peer, closeHandler<'a'>);
  peer_addCloseHandler(peer, closeHandler<'b'>);
  peer_destroy(peer);
  EXPECT_EQ(calls, "rb");
}

TEST_F(EndingTest, RefusesWhatIsNoCloseHandler) {
  ZelPeer* peer = makePeer(&other_);
  EXPECT_FALSE(peer_addCloseHandler(peer, nullptr));
  EXPECT_FALSE(peer_addCloseHandler(nullptr, closeHandler<'a'>));
  EXPECT_FALSE(peer_removeCloseHandler(nullptr, closeHandler<'a'>));
  peer_destroy(nullptr);
  peer_close(nullptr);
  peer_close(peer);
  EXPECT_FALSE(peer_addCloseHandler(peer, closeHandler<'a'>));
}

TEST_F(EndingTest, AnEndedPeerIsNotInTheListWhileItsHandlersRun) {
  ZelPeer* peer = makePeer(&other_);
  probe_.on(peer, PEER_EVENT_CLOSE, [&](ZelPeer* one) {
    EXPECT_EQ(peer_connection(one), connection_);
    EXPECT_EQ(living(), 0u);
    EXPECT_GE(peer_socket(one), 0) << "handlers may still name it";
    return true;
  });
  EXPECT_EQ(living(), 1u);
  peer_destroy(peer);
  EXPECT_TRUE(ended());
  EXPECT_EQ(peer_socket(peer), -1);
}

TEST_F(EndingTest, PeersMayBeEndedDuringAWalk) {
  std::array<Descriptor, 10> others;
  for (Descriptor& other : others) makePeer(&other);
  ZelListIterator walk;
  size_t seen = 0;
  ZelList* peers = connection_peers(connection_);
  for (void* one = llist_first(peers, &walk); one; one = llist_iterator_next(&walk)) {
    peer_destroy(static_cast<ZelPeer*>(one));
    zel_loop_turn(0);  // and their memory goes
    if (++seen != 3) continue;
    ZelListIterator inner;
    peer_destroy(static_cast<ZelPeer*>(llist_first(peers, &inner)));
    zel_loop_turn(0);
  }
  EXPECT_EQ(seen, 9u);
  EXPECT_EQ(living(), 0u);
}

TEST_F(EndingTest, OutputOfCloseHandlersIsSent) {
  ZelPeer* peer = makePeer(&other_);
  fputs("before ", peer_outStream(peer, PEER_STREAM_BUFFERED));
  probe_.on(peer, PEER_EVENT_CLOSE, [](ZelPeer* one) {
    fputs("inside", peer_outStream(one, PEER_STREAM_BUFFERED));
    return true;
  });
  peer_destroy(peer);
  EXPECT_EQ(received(other_), "before inside<end>");
}

TEST_F(EndingTest, CloseHandlersMayReadWhatIsLeft) {
  ZelPeer* peer = makePeer(&other_);
  std::string rest;
  probe_.on(peer, PEER_EVENT_CLOSE, [&](ZelPeer* one) {
    rest = readAll(peer_inStream(one));
    return true;
  });
  sendText(other_, "last words");
  settle();
  peer_close(peer);
  EXPECT_EQ(rest, "last words");
}

// A handler may rest while the other side sends its last bytes and goes: they wait for it, and cost nothing meanwhile.
TEST_F(EndingTest, WhatWasSentBeforeTheOtherSideWentIsStillRead) {
  ZelPeer* peer = makePeer(&other_);
  onClose(peer);
  const std::string last(100000, 'x');
  sendText(other_, last);
  other_.reset();
  settle();
  EXPECT_EQ(living(), 1u);
  zel_loop_turn(0);
  pollfd loop = {zel_loop_descriptor(), POLLIN, 0};
  EXPECT_EQ(poll(&loop, 1, 0), 0) << "the loop would never sleep";

  std::string got;
  probe_.on(peer, PEER_EVENT_DATA, [&](ZelPeer* one) {
    FILE* in = peer_inStream(one);
    char block[1000];
    const size_t count = fread(block, 1, sizeof(block), in);
    got.append(block, count);
    return count > 0;
  });
  ASSERT_TRUE(until([&] { return ended(); }));
  EXPECT_EQ(got, last);
  EXPECT_EQ(calls, "6");
}

TEST_F(EndingTest, AnOtherSideThatWentIsNoticedWhenItsLastBytesAreReadFromElsewhere) {
  for (const bool toTheEnd : {false, true}) {
    ZelPeer* peer = makePeer(&other_);
    onClose(peer);
    sendText(other_, "last");
    other_.reset();
    settle();
    ASSERT_EQ(living(), 1u);
    char text[5] = "";
    EXPECT_EQ(fread(text, 1, toTheEnd ? 5 : 4, peer_inStream(peer)), 4u);
    EXPECT_STREQ(text, "last");
    ASSERT_TRUE(until([&] { return living() == 0; }));
  }
  EXPECT_EQ(calls, "66");
}

// A socket whose other side is gone is writable.
TEST_F(EndingTest, WhoOnlyWaitsToWriteIsToldThatTheOtherSideWent) {
  for (const bool halfFirst : {false, true}) {
    ZelPeer* peer = makePeer(&other_);
    onClose(peer);
    probe_.on(peer, PEER_EVENT_WRITABLE, [](ZelPeer*) { return true; });
    settle();
    if (halfFirst) {
      shutdown(other_.get(), SHUT_WR);
      settle();
      EXPECT_EQ(living(), 1u) << "half a close means nothing";
    }
    other_.reset();
    for (int turn = 0; turn < 100 && living() > 0; ++turn) zel_loop_turn(0);
    EXPECT_EQ(living(), 0u);
  }
  EXPECT_EQ(calls, "66");
}

TEST_F(EndingTest, HalfACloseDoesNotWakeWhoWaitsForAFullSocket) {
  ZelPeer* peer = makePeer(&other_);
  const std::string sent = pattern(1 << 20);
  fwrite(sent.data(), 1, sent.size(), peer_outStream(peer, PEER_STREAM_BUFFERED));
  settle();
  shutdown(other_.get(), SHUT_WR);
  settle();
  EXPECT_EQ(living(), 1u);
  zel_loop_turn(0);
  pollfd loop = {zel_loop_descriptor(), POLLIN, 0};
  EXPECT_EQ(poll(&loop, 1, 0), 0) << "the loop would never sleep";
}

TEST_F(EndingTest, WritingToAnOtherSideThatWentEndsThePeerAlthoughSomethingIsUnread) {
  ZelPeer* peer = makePeer(&other_);
  onClose(peer);
  sendText(other_, "unread");
  other_.reset();
  settle();
  EXPECT_EQ(living(), 1u);
  fputs("anybody there?", peer_outStream(peer, PEER_STREAM_BUFFERED));
  ASSERT_TRUE(until([&] { return ended(); }));
  EXPECT_EQ(calls, "6");
}

// The system tells of a reset but once; whoever looked first must not take it away from the others.
TEST_F(EndingTest, AResetIsSeenByEveryLook) {
  ZelPeer* peer = makeTcpPeer(&other_);
  std::string seen;
  probe_.on(peer, PEER_EVENT_DATA, [&](ZelPeer* one) {
    char byte;
    for (int look = 0; look < 2; ++look) {
      errno = 0;
      seen += peer_peek(one, &byte, 1) < 0 && errno == ECONNRESET ? "p" : "-";
    }
    errno = 0;
    FILE* in = peer_inStream(one);
    seen += fread(&byte, 1, 1, in) == 0 && ferror(in) && errno == ECONNRESET ? "r" : "-";
    return false;
  });
  resetOnClose(other_);
  other_.reset();
  ASSERT_TRUE(until([&] { return !seen.empty(); }));
  EXPECT_EQ(seen, "ppr");
}

TEST_F(EndingTest, AFalseResultOfAHandlerEndsThePeer) {
  ZelPeer* peer = makePeer(&other_);
  onClose(peer);
  probe_.on(peer, PEER_EVENT_DATA, [](ZelPeer* one) {
    fputs("bye", peer_outStream(one, PEER_STREAM_BUFFERED));
    return false;
  });
  sendText(other_, "x");
  settle();
  EXPECT_EQ(calls, "6");
  EXPECT_EQ(received(other_), "bye<end>");
}

// What the other side does while nobody reads, and whether the peer ends.
enum class Act { HalfClose, Close, Reset, Nothing, Urgent };

struct VanishCase {
  const char* name;
  bool tcp;
  bool readBefore;  // a read handler was installed once
  bool queued;      // output that the socket does not take waits
  Act act;
  bool ends;
};

constexpr VanishCase kVanish[] = {
    {"UnixNothing", false, false, false, Act::Nothing, false},
    {"UnixHalfClose", false, false, false, Act::HalfClose, false},
    {"UnixClose", false, false, false, Act::Close, true},
    {"UnixCloseAfterReading", false, true, false, Act::Close, true},
    {"UnixHalfCloseQueued", false, false, true, Act::HalfClose, false},
    {"UnixCloseQueued", false, false, true, Act::Close, true},
    {"UnixUrgent", false, false, false, Act::Urgent, false},
    {"TcpNothing", true, false, false, Act::Nothing, false},
    {"TcpHalfClose", true, false, false, Act::HalfClose, false},
    {"TcpHalfCloseAfterReading", true, true, false, Act::HalfClose, false},
    {"TcpReset", true, false, false, Act::Reset, true},
    {"TcpResetAfterReading", true, true, false, Act::Reset, true},
    {"TcpResetQueued", true, false, true, Act::Reset, true},
    {"TcpUrgent", true, false, false, Act::Urgent, false},
    {"TcpUrgentQueued", true, false, true, Act::Urgent, false},
};

class VanishTest : public EndingTest, public ::testing::WithParamInterface<VanishCase> {
 protected:
  void act() {
    switch (GetParam().act) {
      case Act::Nothing:
        break;
      case Act::HalfClose:
        shutdown(other_.get(), SHUT_WR);
        break;
      case Act::Urgent:
        send(other_.get(), "!", 1, MSG_OOB | MSG_NOSIGNAL);
        break;
      case Act::Reset:
        resetOnClose(other_);
        [[fallthrough]];
      case Act::Close:
        other_.reset();
    }
  }
};

TEST_P(VanishTest, EndsInItsCloseEvent) {
  ZelPeer* peer = GetParam().tcp ? makeTcpPeer(&other_) : makePeer(&other_);
  onClose(peer);
  if (GetParam().readBefore) {
    probe_.on(peer, PEER_EVENT_DATA, [](ZelPeer*) { return true; });
    zel_loop_turn(0);
    probe_.off(peer, PEER_EVENT_DATA);
  }
  const std::string output(8 << 20, 'x');
  if (GetParam().queued) fwrite(output.data(), 1, output.size(), peer_outStream(peer, PEER_STREAM_BUFFERED));
  settle();
  ASSERT_EQ(peer_bytesQueued(peer) > 0, GetParam().queued);
  act();
  if (GetParam().ends) {
    ASSERT_TRUE(until([&] { return ended(); }));
    settle();
    EXPECT_EQ(living(), 0u);
  } else {
    settle();
    EXPECT_EQ(living(), 1u);
    zel_loop_turn(0);
    pollfd loop = {zel_loop_descriptor(), POLLIN, 0};
    EXPECT_EQ(poll(&loop, 1, 0), 0) << "the loop would never sleep";
  }
  EXPECT_EQ(calls, GetParam().ends ? "6" : "");
}

INSTANTIATE_TEST_SUITE_P(Platform, VanishTest, ::testing::ValuesIn(kVanish),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(EndingTest, WhoReadsIsToldOfAResetByReading) {
  ZelPeer* peer = makeTcpPeer(&other_);
  onClose(peer);
  int error = 0;
  probe_.on(peer, PEER_EVENT_DATA, [&](ZelPeer* one) {
    errno = 0;
    EXPECT_EQ(fgetc(peer_inStream(one)), EOF);
    error = errno;
    return false;
  });
  fputs("x", peer_outStream(peer, PEER_STREAM_BUFFERED));
  settle();
  resetOnClose(other_);
  other_.reset();
  const size_t open = openDescriptors().size();
  ASSERT_TRUE(until([&] { return ended(); }));
  EXPECT_EQ(error, ECONNRESET);
  EXPECT_EQ(openDescriptors().size(), open - 1) << "nobody is there to linger for";
}

TEST_F(EndingTest, WhoIgnoresAResetIsToldAgain) {
  ZelPeer* peer = makeTcpPeer(&other_);
  onClose(peer);
  std::string found;
  probe_.on(peer, PEER_EVENT_DATA, [&](ZelPeer* one) {
    errno = 0;
    EXPECT_EQ(fgetc(peer_inStream(one)), EOF);
    found += errno == ECONNRESET ? "reset " : feof(peer_inStream(one)) ? "end " : "nothing ";
    clearerr(peer_inStream(one));
    return probe_.count(PEER_EVENT_DATA) < 3;
  });
  resetOnClose(other_);
  other_.reset();
  ASSERT_TRUE(until([&] { return ended(); }));
  EXPECT_EQ(found, "reset reset reset ");
}

TEST_F(EndingTest, AWriteThatFailsForGoodEndsThePeerFromTheLoop) {
  ZelPeer* peer = makeTcpPeer(&other_);
  onClose(peer);
  resetOnClose(other_);
  other_.reset();
  fputs("nobody", peer_outStream(peer, PEER_STREAM_BUFFERED));
  EXPECT_EQ(calls, "");
  ASSERT_TRUE(until([&] { return ended(); }));
  EXPECT_EQ(living(), 0u);
}

TEST_F(EndingTest, ADirectWriteThatFailsEndsThePeerFromTheLoop) {
  ZelPeer* peer = makePeer(&other_);
  onClose(peer);
  ASSERT_TRUE(peer_setStreamType(peer, PEER_STREAM_DIRECT));
  other_.reset();
  errno = 0;
  EXPECT_EQ(fputs("nobody", peer_outStream(peer, PEER_STREAM_DIRECT)), EOF);
  EXPECT_EQ(errno, EPIPE);
  EXPECT_EQ(calls, "");
  errno = 0;
  EXPECT_EQ(fputs("nobody", peer_outStream(peer, PEER_STREAM_DIRECT)), EOF);
  EXPECT_EQ(errno, EPIPE);
  ASSERT_TRUE(until([&] { return ended(); }));
}

TEST_F(EndingTest, WhatCameInBeforeAFailedWriteIsStillRead) {
  ZelPeer* peer = makePeer(&other_);
  onClose(peer);
  std::string got;
  int refused = 0;
  probe_.on(peer, PEER_EVENT_DATA, [&](ZelPeer* one) {
    FILE* out = peer_outStream(one, PEER_STREAM_BUFFERED);
    got += static_cast<char>(fgetc(peer_inStream(one)));  // slowly
    EXPECT_EQ(__fpending(out), 0u);
    fputs("answer", out);
    refused += fflush(out) == EOF && errno == EPIPE;
    fputs("left in the buffer", out);
    return true;
  });
  sendText(other_, "too large");
  other_.reset();
  fputs("a long request", peer_outStream(peer, PEER_STREAM_BUFFERED));
  ASSERT_TRUE(until([&] { return ended(); }));
  EXPECT_EQ(got, "too large");
  EXPECT_EQ(refused, 9);
}

TEST_F(EndingTest, UnreadInputDoesNotResetTheReplyAway) {
  ZelPeer* peer = makeTcpPeer(&other_);
  const std::string request = pattern(100000);
  ASSERT_EQ(send(other_.get(), request.data(), request.size(), 0), static_cast<ssize_t>(request.size()));
  probe_.on(peer, PEER_EVENT_DATA, [](ZelPeer* one) {
    fgetc(peer_inStream(one));
    fputs("refused", peer_outStream(one, PEER_STREAM_BUFFERED));
    peer_destroy(one);
    return true;
  });
  ASSERT_TRUE(until([&] { return probe_.count(PEER_EVENT_DATA) == 1; }));
  settle();
  sendText(other_, "even more");
  settle();
  EXPECT_EQ(received(other_), "refused<end>");
  other_.reset();
  settle();
  zel_loop_drain(1000);
  EXPECT_FALSE(zel_loop_turn(0));
}

TEST_F(EndingTest, TheSocketGoesWhenTheOtherSideHasFinished) {
  ZelPeer* peer = makeTcpPeer(&other_);
  fputs("bye", peer_outStream(peer, PEER_STREAM_BUFFERED));
  const std::set<int> open = openDescriptors();
  peer_destroy(peer);
  settle();
  EXPECT_EQ(openDescriptors(), open) << "it lingers";
  EXPECT_EQ(received(other_), "bye<end>");
  shutdown(other_.get(), SHUT_WR);
  ASSERT_TRUE(until([&] { return openDescriptors().size() == open.size() - 1; }));
}

TEST_F(EndingTest, AfterTheOtherSidesEndTheSocketGoesAtOnce) {
  ZelPeer* peer = makeTcpPeer(&other_);
  shutdown(other_.get(), SHUT_WR);
  probe_.on(peer, PEER_EVENT_DATA, [](ZelPeer* one) {
    EXPECT_EQ(fgetc(peer_inStream(one)), EOF);
    fputs("bye", peer_outStream(one, PEER_STREAM_BUFFERED));
    peer_destroy(one);
    return true;
  });
  const size_t open = openDescriptors().size();
  ASSERT_TRUE(until([&] { return probe_.count(PEER_EVENT_DATA) == 1; }));
  EXPECT_EQ(openDescriptors().size(), open - 1);
  EXPECT_EQ(received(other_), "bye<end>");
}

TEST_F(EndingTest, WithoutOutputTheSocketGoesAtOnce) {
  ZelPeer* peer = makeTcpPeer(&other_);
  const size_t open = openDescriptors().size();
  peer_destroy(peer);
  EXPECT_EQ(openDescriptors().size(), open - 1);
}

TEST_F(EndingTest, TheNumberOfTheSocketMayBeUsedAgainAtOnce) {
  const std::function<void()> betweens[] = {[] {}, [] { zel_loop_turn(0); }};
  for (const auto& between : betweens) {
    Descriptor otherB;
    ZelPeer* peer = makePeer(&other_);
    zel_loop_turn(0);
    const int number = peer_socket(peer);
    shutdown(other_.get(), SHUT_WR);
    char byte;
    EXPECT_EQ(peer_peek(peer, &byte, 1), 0);
    peer_destroy(peer);
    between();
    ZelPeer* next = makePeer(&otherB);
    EXPECT_EQ(peer_socket(next), number);
    Probe probe;
    probe.on(next, PEER_EVENT_DATA, [](ZelPeer* one) { return readAll(peer_inStream(one)) == "x"; });
    zel_loop_turn(0);
    zel_loop_turn(0);
    sendText(otherB, "x");
    ASSERT_TRUE(until([&] { return probe.count(PEER_EVENT_DATA) == 1; }));
    EXPECT_EQ(living(), 1u);
    peer_destroy(next);
  }
}

TEST_F(EndingTest, ATalkativeOtherSideIsCutOff) {
  ZelPeer* peer = makeTcpPeer(&other_);
  fputs("bye", peer_outStream(peer, PEER_STREAM_BUFFERED));
  peer_destroy(peer);
  const std::string chatter(65536, 'x');
  size_t sent = 0;
  ASSERT_TRUE(until([&] {
    for (int i = 0; i < 4; ++i) {
      const ssize_t count = send(other_.get(), chatter.data(), chatter.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
      if (count > 0) sent += static_cast<size_t>(count);
      if (count < 0 && errno != EAGAIN) return true;
    }
    return false;
  }));
  EXPECT_GE(sent, 256u * 1024);
  EXPECT_LE(sent, 32u << 20) << "what the system keeps included";
}

TEST_F(EndingTest, QueuedOutputLeavesInTheBackground) {
  ZelPeer* peer = makePeer(&other_);
  const std::string sent = pattern(2 << 20);
  onClose(peer);
  fwrite(sent.data(), 1, sent.size(), peer_outStream(peer, PEER_STREAM_BUFFERED));
  peer_destroy(peer);
  EXPECT_EQ(calls, "6");
  EXPECT_EQ(living(), 0u);
  std::string got;
  ASSERT_TRUE(until([&] {
    got += received(other_, 100000);
    return got.size() > sent.size();
  }));
  EXPECT_TRUE(got == sent + "<end>");
}

TEST_F(EndingTest, DrainWaitsForTheLastBytes) {
  ZelPeer* peer = makePeer(&other_);
  fputs("farewell", peer_outStream(peer, PEER_STREAM_BUFFERED));
  peer_destroy(peer);
  shutdown(other_.get(), SHUT_WR);
  zel_loop_drain(10000);
  EXPECT_FALSE(zel_loop_turn(0));
  EXPECT_EQ(received(other_), "farewell<end>");
}

TEST_F(EndingTest, ASilentOtherSideIsGivenUp) {
  ZelPeer* peer = makeTcpPeer(&other_);
  zel_loop_turn(0);
  const size_t open = openDescriptors().size();
  fputs("bye", peer_outStream(peer, PEER_STREAM_BUFFERED));
  peer_destroy(peer);
  settle();
  letTimePass(1500);
  settle();
  EXPECT_EQ(openDescriptors().size(), open);
  letTimePass(600);
  settle();
  EXPECT_EQ(openDescriptors().size(), open - 1);
}

TEST_F(EndingTest, ASilentReaderIsGivenUp) {
  ZelPeer* peer = makePeer(&other_);
  zel_loop_turn(0);
  const size_t open = openDescriptors().size();
  const std::string sent = pattern(2 << 20);
  fwrite(sent.data(), 1, sent.size(), peer_outStream(peer, PEER_STREAM_BUFFERED));
  peer_destroy(peer);
  settle();
  EXPECT_EQ(openDescriptors().size(), open);
  letTimePass(2100);
  settle();
  EXPECT_EQ(openDescriptors().size(), open - 1);
}

TEST_F(EndingTest, ASlowReaderIsNotGivenUp) {
  ZelPeer* peer = makePeer(&other_);
  const std::string sent = pattern(2 << 20);
  fwrite(sent.data(), 1, sent.size(), peer_outStream(peer, PEER_STREAM_BUFFERED));
  peer_destroy(peer);
  std::string got;
  for (int i = 0; i < 200 && got.size() <= sent.size(); ++i) {
    settle();
    letTimePass(1500);
    got += received(other_, 200000);
  }
  EXPECT_TRUE(got == sent + "<end>");
}

// The system calls a socket writable only when much of its room is free again.
TEST_F(EndingTest, AReaderThatNeverStopsIsNotGivenUp) {
  const std::string sent = pattern(1 << 20);
  for (const bool tcp : {false, true}) {
    ZelPeer* peer = tcp ? makeTcpPeer(&other_) : makePeer(&other_);
    const int small = 65536;
    if (tcp) setsockopt(other_.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof(small));
    zel_loop_turn(0);
    fwrite(sent.data(), 1, sent.size(), peer_outStream(peer, PEER_STREAM_BUFFERED));
    peer_destroy(peer);
    std::string got;
    for (int i = 0; i < 200 && got.size() <= sent.size(); ++i) {
      settle();
      letTimePass(500);
      got += received(other_, 30000);
    }
    EXPECT_TRUE(got == sent + "<end>") << (tcp ? "TCP " : "local ") << got.size();
  }
}

TEST_F(EndingTest, AReaderIsAskedBeforeItIsGivenUp) {
  ZelPeer* peer = makePeer(&other_);
  const std::string sent = pattern(1 << 20);
  fwrite(sent.data(), 1, sent.size(), peer_outStream(peer, PEER_STREAM_BUFFERED));
  peer_destroy(peer);
  settle();
  std::string got = received(other_);
  letTimePass(2100);  // the loop was held up
  ASSERT_TRUE(until([&] {
    got += received(other_);
    return got.size() > sent.size();
  }));
  EXPECT_TRUE(got == sent + "<end>");
}

TEST_F(EndingTest, AHeldUpLoopDoesNotResetTheReplyAway) {
  ZelPeer* peer = makeTcpPeer(&other_);
  const int room = 1 << 20;
  const int small = 65536;
  ASSERT_EQ(setsockopt(peer_socket(peer), SOL_SOCKET, SO_SNDBUF, &room, sizeof(room)), 0);
  ASSERT_EQ(setsockopt(other_.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof(small)), 0);
  const std::string reply = pattern(400000);
  fwrite(reply.data(), 1, reply.size(), peer_outStream(peer, PEER_STREAM_BUFFERED));
  ASSERT_TRUE(until([&] { return peer_bytesQueued(peer) == 0; }));
  peer_destroy(peer);
  settle();
  sendText(other_, "even more");
  letTimePass(2100);
  settle();
  std::string got;
  ASSERT_TRUE(until([&] {
    got += received(other_);
    return got.size() > reply.size() || got.find("<reset>") != std::string::npos;
  }));
  EXPECT_TRUE(got == reply + "<end>");
}

TEST_F(EndingTest, WhoSendsEverythingBeforeReadingGetsItsReply) {
  ZelPeer* peer = makePeer(&other_);
  const std::string reply = pattern(1 << 20);
  probe_.on(peer, PEER_EVENT_DATA, [&](ZelPeer* one) {
    fgetc(peer_inStream(one));
    fwrite(reply.data(), 1, reply.size(), peer_outStream(one, PEER_STREAM_BUFFERED));
    peer_destroy(one);
    return true;
  });
  const std::string request = pattern(250000);
  size_t sent = 0;
  ASSERT_TRUE(until([&] {
    const ssize_t count = send(other_.get(), request.data() + sent, request.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count > 0) sent += static_cast<size_t>(count);
    return sent == request.size() || (count < 0 && errno != EAGAIN);
  }));
  ASSERT_EQ(sent, request.size());
  shutdown(other_.get(), SHUT_WR);
  settle();
  pollfd loop = {zel_loop_descriptor(), POLLIN, 0};
  EXPECT_EQ(poll(&loop, 1, 0), 0) << "the loop would never sleep";
  std::string got;
  ASSERT_TRUE(until([&] {
    got += received(other_);
    return got.size() > reply.size();
  }));
  EXPECT_TRUE(got == reply + "<end>");
}

TEST_F(EndingTest, EachThatLingersHasItsTime) {
  std::array<Descriptor, 3> others;
  zel_loop_turn(0);
  const size_t open = openDescriptors().size();
  for (Descriptor& other : others) {
    ZelPeer* peer = makePeer(&other);
    fputs("bye", peer_outStream(peer, PEER_STREAM_BUFFERED));
    peer_destroy(peer);
    settle();
    letTimePass(900);
  }
  for (const size_t left : {2, 1, 0}) {
    settle();
    EXPECT_EQ(openDescriptors().size(), open + others.size() + left);
    letTimePass(900);
  }
}

TEST_F(EndingTest, AfterAnEndTheLoopDoesNotSleepBeforeItHasTidiedUp) {
  ZelPeer* peer = makePeer(&other_);
  Descriptor otherB;
  makePeer(&otherB);
  probe_.on(peer, PEER_EVENT_DATA, [](ZelPeer*) { return true; });
  fputs("x", peer_outStream(peer, PEER_STREAM_BUFFERED));
  settle();
  ASSERT_EQ(zel_loop_timeout(), -1);
  peer_destroy(peer);
  EXPECT_EQ(zel_loop_timeout(), 0);
}

TEST_F(EndingTest, OutputPastTheStreamCountsInDirectMode) {
  ZelPeer* peer = makeTcpPeer(&other_);
  sendText(other_, "unread");
  ASSERT_TRUE(peer_setStreamType(peer, PEER_STREAM_DIRECT));
  ASSERT_EQ(write(peer_socket(peer), "sent", 4), 4);
  peer_destroy(peer);
  settle();
  EXPECT_EQ(received(other_), "sent<end>");
}

TEST_F(EndingTest, LingeringDoesNotKeepTheLoopRunning) {
  ZelPeer* peer = makeTcpPeer(&other_);
  fputs("bye", peer_outStream(peer, PEER_STREAM_BUFFERED));
  peer_destroy(peer);
  const size_t open = openDescriptors().size();
  EXPECT_EQ(zel_loop_run(), 0);
  EXPECT_EQ(openDescriptors().size(), open) << "it lingers still";
  EXPECT_EQ(received(other_), "bye<end>");
}

TEST_F(EndingTest, DestroyingAConnectionEndsItsPeers) {
  Descriptor otherB;
  ZelPeer* peer = makePeer(&other_);
  ZelPeer* second = makePeer(&otherB);
  peer_addCloseHandler(peer, closeHandler<'a'>);
  peer_addCloseHandler(second, closeHandler<'b'>);
  fputs("bye", peer_outStream(second, PEER_STREAM_BUFFERED));
  connection_destroy(std::exchange(connection_, nullptr));
  EXPECT_EQ(calls, "ab");
  EXPECT_EQ(peer_connection(peer), nullptr);
  EXPECT_EQ(received(otherB), "bye<end>");
  connection_destroy(nullptr);
}

TEST_F(EndingTest, AConnectionIsDestroyedOnce) {
  static ZelConnection* connection;
  connection = connection_;
  for (int i = 0; i < 2; ++i) {
    ZelPeer* peer = makePeer(&other_);
    peer_addCloseHandler(peer, [](ZelPeer*) {
      calls += 'd';
      connection_destroy(connection);
      return true;
    });
  }
  connection_destroy(std::exchange(connection_, nullptr));
  EXPECT_EQ(calls, "dd");
}

TEST_F(EndingTest, ACloseHandlerMayNotRunTheLoop) {
  for (const bool closing : {false, true}) {
    ZelPeer* peer = makePeer(&other_);
    zel_loop_turn(0);
    FILE* out = peer_outStream(peer, PEER_STREAM_BUFFERED);
    probe_.on(peer, PEER_EVENT_CLOSE, [&](ZelPeer*) {
      zel_error = 0;
      EXPECT_FALSE(zel_loop_turn(0));
      EXPECT_EQ(zel_error, static_cast<uint32_t>(EBUSY));
      zel_error = 0;
      EXPECT_EQ(zel_loop_run(), -1);
      EXPECT_EQ(zel_error, static_cast<uint32_t>(EBUSY));
      zel_loop_drain(100);
      zel_loop_close();
      EXPECT_GT(fputs("still there", out), 0);
      return true;
    });
    if (closing)
      zel_loop_close();
    else
      peer_close(peer);
    EXPECT_EQ(received(other_), "still there<end>");
  }
  EXPECT_EQ(probe_.count(PEER_EVENT_CLOSE), 2u);
  EXPECT_FALSE(zel_loop_turn(0));
  EXPECT_EQ(zel_loop_run(), 0) << "and it runs again";
}

TEST_F(EndingTest, AConnectionThatIsDestroyedTakesNoMorePeers) {
  const auto connectAgain = [this] { return connection_connectToTCP(connection_, "127.0.0.1", "1", 0); };
  int attempts = 0;
  probe_.on(connectAgain(), PEER_EVENT_CLOSE, [&](ZelPeer*) {
    zel_error = 0;
    ZelPeer* again = ++attempts < 5 ? connectAgain() : nullptr;
    EXPECT_EQ(again, nullptr);
    EXPECT_EQ(zel_error, static_cast<uint32_t>(ECANCELED));
    EXPECT_EQ(connection_listenOnTCP(connection_, "127.0.0.1", "0"), nullptr);
    EXPECT_EQ(connection_adopt(connection_, 0), nullptr);
    if (again) probe_.on(again, PEER_EVENT_CLOSE, [&](ZelPeer*) { return ++attempts > 0; });
    return true;
  });
  connection_destroy(connection_);
  connection_ = nullptr;
  EXPECT_EQ(attempts, 1);
}

TEST_F(EndingTest, ClosingTheLoopEndsEveryPeerAndItCanStartAgain) {
  for (int round = 0; round < 3; ++round) {
    Descriptor otherB;
    ZelPeer* peer = makePeer(&other_);
    ZelPeer* second = makePeer(&otherB);
    onClose(peer);
    peer_addCloseHandler(second, closeHandler<'b'>);
    fputs("bye", peer_outStream(peer, PEER_STREAM_BUFFERED));
    if (round == 1) settle();
    calls.clear();
    zel_loop_close();
    EXPECT_EQ(calls, "6b");
    EXPECT_EQ(received(other_), "bye<end>");
    EXPECT_EQ(living(), 0u);
  }
}

TEST_F(EndingTest, ConnectionsMayBeDestroyedWhileTheLoopCloses) {
  Descriptor otherB;
  ZelPeer* peer = makePeer(&other_);
  makePeer(&otherB);
  onClose(peer);
  static ZelConnection** connection;
  connection = &connection_;
  peer_addCloseHandler(peer, [](ZelPeer*) {
    connection_destroy(std::exchange(*connection, nullptr));
    return true;
  });
  zel_loop_close();
  EXPECT_TRUE(ended());
  EXPECT_EQ(received(otherB), "<end>");
}

TEST_F(EndingTest, NothingIsMadeWhileTheLoopCloses) {
  ZelPeer* peer = makePeer(&other_);
  probe_.on(peer, PEER_EVENT_CLOSE, [&](ZelPeer*) {
    zel_error = 0;
    EXPECT_EQ(connection_connectToTCP(connection_, "127.0.0.1", "9", 0), nullptr);
    EXPECT_EQ(zel_error, static_cast<uint32_t>(ECANCELED));
    EXPECT_EQ(connection_listenOnTCP(connection_, "127.0.0.1", "0"), nullptr);
    ZelTimer* timer = zel_timer_create();
    zel_timer_setHandler(timer, [](ZelTimer*, void*) {});
    EXPECT_FALSE(zel_timer_start(timer, 0));
    zel_timer_destroy(timer);
    return true;
  });
  zel_loop_close();
  EXPECT_TRUE(ended());
}

}  // namespace
