// Which events are raised, when, and what handlers may do.
#include "peer_support.h"

namespace {

class EventTest : public LoopTest {
 protected:
  Probe probe_;
  std::string read_;

  Probe::Handler reading() {
    return [this](ZelPeer* peer) {
      read_ += readAll(peer_inStream(peer));
      if (feof(peer_inStream(peer))) {
        read_ += "<end>";
        probe_.off(peer, PEER_EVENT_DATA);
      }
      return true;
    };
  }
};

TEST_F(EventTest, DataIsRaisedWhenBytesArrive) {
  ZelPeer* peer = makePeer(&other_);
  probe_.on(peer, PEER_EVENT_DATA, reading());
  settle();
  EXPECT_EQ(probe_.count(PEER_EVENT_DATA), 0u) << "nothing to read yet";
  sendText(other_, "hello");
  ASSERT_TRUE(until([&] { return read_ == "hello"; }));
  settle();
  EXPECT_EQ(probe_.count(PEER_EVENT_DATA), 1u);
}

TEST_F(EventTest, DataIsRaisedAtTheEnd) {
  ZelPeer* peer = makePeer(&other_);
  probe_.on(peer, PEER_EVENT_DATA, reading());
  shutdown(other_.get(), SHUT_WR);
  ASSERT_TRUE(until([&] { return read_ == "<end>"; }));
  settle();
  EXPECT_EQ(llist_count(connection_peers(connection_)), 1u) << "half a close is not an end";
}

TEST_F(EventTest, BufferedBytesRaiseDataWithoutNewOnes) {
  ZelPeer* peer = makePeer(&other_);
  std::vector<std::string> lines;
  probe_.on(peer, PEER_EVENT_DATA, [&](ZelPeer* one) {
    char line[16];
    if (fgets(line, sizeof(line), peer_inStream(one))) lines.push_back(line);
    return true;
  });
  sendText(other_, "one\ntwo\nthree\n");
  ASSERT_TRUE(until([&] { return lines.size() == 3; }));
  EXPECT_EQ(lines, (std::vector<std::string>{"one\n", "two\n", "three\n"}));
  settle();
  EXPECT_EQ(probe_.count(PEER_EVENT_DATA), 3u) << "never with nothing to read";
}

TEST_F(EventTest, BufferedBytesWaitForAHandler) {
  ZelPeer* peer = makePeer(&other_);
  const Probe::Handler readByte = [&](ZelPeer* one) {
    read_ += static_cast<char>(fgetc(peer_inStream(one)));
    probe_.off(one, PEER_EVENT_DATA);
    return true;
  };
  probe_.on(peer, PEER_EVENT_DATA, readByte);
  sendText(other_, "abc");
  ASSERT_TRUE(until([&] { return read_ == "a"; }));
  settle();
  EXPECT_EQ(read_, "a");
  probe_.on(peer, PEER_EVENT_DATA, readByte);
  ASSERT_TRUE(until([&] { return read_ == "ab"; }));
  settle();
  EXPECT_EQ(read_, "ab");
  probe_.on(peer, PEER_EVENT_DATA, readByte);
  ASSERT_TRUE(until([&] { return read_ == "abc"; }));
  probe_.on(peer, PEER_EVENT_DATA, readByte);
  settle();
  EXPECT_EQ(probe_.count(PEER_EVENT_DATA), 3u);
}

TEST_F(EventTest, PushedBackBytesCountAsBuffered) {
  ZelPeer* peer = makePeer(&other_);
  int raised = 0;
  probe_.on(peer, PEER_EVENT_DATA, [&](ZelPeer* one) {
    FILE* in = peer_inStream(one);
    if (++raised == 1) {
      EXPECT_EQ(readAll(in), "ab");
      ungetc('z', in);  // another character than the one read: stdio keeps it elsewhere
      ungetc('y', in);
    } else {
      read_ = readAll(in);
    }
    return true;
  });
  sendText(other_, "ab");
  ASSERT_TRUE(until([&] { return read_ == "yz"; }));
  sendText(other_, "more");
  ASSERT_TRUE(until([&] { return read_ == "more"; }));
}

TEST_F(EventTest, BytesBehindPushedBackOnesCountAsBuffered) {
  ZelPeer* peer = makePeer(&other_);
  probe_.on(peer, PEER_EVENT_DATA, [&](ZelPeer* one) {
    FILE* in = peer_inStream(one);
    read_ += static_cast<char>(fgetc(in));
    ungetc('z', in);
    EXPECT_EQ(fgetc(in), 'z');  // what is left lies where stdio does not look yet
    return true;
  });
  for (const std::string text : {"abc", "d", "efg", "h"}) {
    read_.clear();
    sendText(other_, text);
    ASSERT_TRUE(until([&] { return read_ == text; })) << read_;
    settle();
  }
  EXPECT_EQ(probe_.count(PEER_EVENT_DATA), 8u);
}

TEST_F(EventTest, AHandlerInstalledAfterTheEndIsTold) {
  ZelPeer* peer = makePeer(&other_);
  probe_.on(peer, PEER_EVENT_DATA, reading());
  shutdown(other_.get(), SHUT_WR);
  ASSERT_TRUE(until([&] { return read_ == "<end>"; }));
  read_.clear();
  probe_.on(peer, PEER_EVENT_DATA, reading());
  ASSERT_TRUE(until([&] { return read_ == "<end>"; }));
}

TEST_F(EventTest, BytesThatAnotherHandlerTookRaiseNothing) {
  Descriptor otherB;
  ZelPeer* a = makePeer(&other_);
  ZelPeer* b = makePeer(&otherB);
  Probe probeB;
  const Probe::Handler readBoth = [&](ZelPeer*) {
    read_ += readAll(peer_inStream(a)) + readAll(peer_inStream(b));
    return true;
  };
  probe_.on(a, PEER_EVENT_DATA, readBoth);
  probeB.on(b, PEER_EVENT_DATA, readBoth);
  zel_loop_turn(0);
  sendText(other_, "x");
  sendText(otherB, "y");
  ASSERT_TRUE(until([&] { return read_.size() == 2; }));
  settle();
  EXPECT_EQ(probe_.count(PEER_EVENT_DATA) + probeB.count(PEER_EVENT_DATA), 1u);
}

TEST_F(EventTest, DrainedIsRaisedOnceAndFromTheLoop) {
  ZelPeer* peer = makePeer(&other_);
  bool writing = false;
  probe_.on(peer, PEER_EVENT_DRAINED, [&](ZelPeer* one) {
    EXPECT_FALSE(writing);
    EXPECT_EQ(peer_bytesQueued(one), 0u);
    EXPECT_EQ(received(other_), "hello world");
    return true;
  });
  writing = true;
  fputs("hello ", peer_outStream(peer, PEER_STREAM_BUFFERED));
  fputs("world", peer_outStream(peer, PEER_STREAM_BUFFERED));
  fflush(peer_outStream(peer, PEER_STREAM_BUFFERED));
  EXPECT_EQ(peer_bytesQueued(peer), 11u);
  writing = false;
  EXPECT_EQ(probe_.count(PEER_EVENT_DRAINED), 0u);
  settle();
  EXPECT_EQ(probe_.count(PEER_EVENT_DRAINED), 1u);
  fputs("again", peer_outStream(peer, PEER_STREAM_BUFFERED));
  probe_.on(peer, PEER_EVENT_DRAINED, [&](ZelPeer*) { return true; });
  settle();
  EXPECT_EQ(probe_.count(PEER_EVENT_DRAINED), 2u);
}

TEST_F(EventTest, DrainedIsNotRaisedWithoutOutput) {
  ZelPeer* peer = makePeer(&other_);
  probe_.on(peer, PEER_EVENT_DRAINED, [](ZelPeer*) { return true; });
  settle();
  fputs("before", peer_outStream(peer, PEER_STREAM_BUFFERED));
  probe_.off(peer, PEER_EVENT_DRAINED);
  settle();
  probe_.on(peer, PEER_EVENT_DRAINED, [](ZelPeer*) { return true; });
  settle();
  EXPECT_EQ(probe_.count(PEER_EVENT_DRAINED), 0u) << "that output had left before";
}

TEST_F(EventTest, DrainedWaitsForASlowReader) {
  ZelPeer* peer = makePeer(&other_);
  const std::string sent = pattern(3 << 20);
  probe_.on(peer, PEER_EVENT_DRAINED, [](ZelPeer*) { return true; });
  EXPECT_EQ(fwrite(sent.data(), 1, sent.size(), peer_outStream(peer, PEER_STREAM_BUFFERED)), sent.size());
  EXPECT_EQ(peer_bytesQueued(peer), sent.size());
  settle();
  EXPECT_EQ(probe_.count(PEER_EVENT_DRAINED), 0u);
  std::string got;
  ASSERT_TRUE(until([&] {
    EXPECT_TRUE(probe_.count(PEER_EVENT_DRAINED) == 0 || peer_bytesQueued(peer) == 0);
    got += received(other_, 50000);
    return got.size() == sent.size();
  }));
  EXPECT_TRUE(got == sent);
  settle();
  EXPECT_EQ(probe_.count(PEER_EVENT_DRAINED), 1u);
}

TEST_F(EventTest, DrainedHandlersMayWriteAgain) {
  ZelPeer* peer = makePeer(&other_);
  int left = 100;  // more than the rounds of a turn
  probe_.on(peer, PEER_EVENT_DRAINED, [&](ZelPeer* one) {
    if (left-- > 0) fputc('x', peer_outStream(one, PEER_STREAM_BUFFERED));
    return true;
  });
  fputc('x', peer_outStream(peer, PEER_STREAM_BUFFERED));
  ASSERT_TRUE(until([&] { return left < 0; }));
  EXPECT_EQ(received(other_), std::string(101, 'x'));
  EXPECT_EQ(probe_.count(PEER_EVENT_DRAINED), 101u);
}

TEST_F(EventTest, ABusyPeerDoesNotStarveOthers) {
  Descriptor otherB;
  ZelPeer* busy = makePeer(&other_);
  ZelPeer* quiet = makePeer(&otherB);
  probe_.on(busy, PEER_EVENT_DRAINED, [&](ZelPeer* one) {
    received(other_);
    fputc('x', peer_outStream(one, PEER_STREAM_BUFFERED));
    return true;
  });
  fputc('x', peer_outStream(busy, PEER_STREAM_BUFFERED));
  Probe probeB;
  probeB.on(quiet, PEER_EVENT_DATA, reading());
  zel_loop_turn(0);
  sendText(otherB, "me too");
  for (int turn = 0; turn < 3; ++turn) zel_loop_turn(-1);
  EXPECT_EQ(read_, "me too");
  EXPECT_LE(probe_.count(PEER_EVENT_DRAINED), 200u);
}

// There is always more to read.
TEST_F(EventTest, APeerThatSendsFasterThanItIsReadDoesNotStarveOthers) {
  constexpr size_t kMostAtOnce = 4 << 20;
  ZelPeer* peer = makePeer(&other_);
  Descriptor quietOther;
  ZelPeer* quiet = makePeer(&quietOther);
  Probe quietProbe;
  size_t most = 0;
  size_t whenQuiet = 0;
  size_t total = 0;
  quietProbe.on(quiet, PEER_EVENT_DATA, [&](ZelPeer* one) {
    readAll(peer_inStream(one));
    whenQuiet = total;
    return true;
  });
  probe_.on(peer, PEER_EVENT_DATA, [&](ZelPeer* one) {
    if (total == 0) sendText(quietOther, "x");
    char block[4096];
    size_t count = 0;
    size_t atOnce = 0;
    do {
      sendText(other_, std::string(sizeof block, 'y'));
      count = fread(block, 1, sizeof block, peer_inStream(one));
      atOnce += count;
    } while (count == sizeof block && atOnce <= kMostAtOnce);
    EXPECT_EQ(errno, EAGAIN);
    clearerr(peer_inStream(one));
    total += atOnce;
    most = std::max(most, atOnce);
    return true;
  });
  sendText(other_, "y");
  ASSERT_TRUE(until([&] { return whenQuiet > 0 && total > 3 * kMostAtOnce; }));
  EXPECT_LT(most, kMostAtOnce);
  EXPECT_LT(whenQuiet, kMostAtOnce);
}

TEST_F(EventTest, WritableIsRaisedWhileTheSocketTakesDataAndNothingIsQueued) {
  ZelPeer* peer = makePeer(&other_);
  probe_.on(peer, PEER_EVENT_WRITABLE, [](ZelPeer*) { return true; });
  ASSERT_TRUE(until([&] { return probe_.count(PEER_EVENT_WRITABLE) >= 3; })) << "as long as it is installed";
  probe_.off(peer, PEER_EVENT_WRITABLE);
  const size_t before = probe_.count(PEER_EVENT_WRITABLE);
  settle();
  EXPECT_EQ(probe_.count(PEER_EVENT_WRITABLE), before);

  const std::string sent = pattern(1 << 20);
  fwrite(sent.data(), 1, sent.size(), peer_outStream(peer, PEER_STREAM_BUFFERED));
  probe_.on(peer, PEER_EVENT_WRITABLE, [](ZelPeer* one) {
    EXPECT_EQ(peer_bytesQueued(one), 0u);
    return true;
  });
  settle();
  EXPECT_EQ(probe_.count(PEER_EVENT_WRITABLE), before) << "while output waits";
  std::string got;
  ASSERT_TRUE(until([&] {
    got += received(other_);
    return got.size() == sent.size() && probe_.count(PEER_EVENT_WRITABLE) > before;
  }));
  EXPECT_TRUE(got == sent);
}

TEST_F(EventTest, WritableIsNotRaisedWhileTheSocketIsFull) {
  ZelPeer* peer = makePeer(&other_);
  const std::string filling(65536, 'x');
  while (send(peer_socket(peer), filling.data(), filling.size(), MSG_DONTWAIT) > 0) continue;
  probe_.on(peer, PEER_EVENT_WRITABLE, [](ZelPeer*) { return true; });
  settle();
  EXPECT_EQ(probe_.count(PEER_EVENT_WRITABLE), 0u);
  ASSERT_TRUE(until([&] {
    received(other_);
    return probe_.count(PEER_EVENT_WRITABLE) > 0;
  }));
}

struct HandlerCase {
  const char* name;
  int event;
  int direction;
  bool holds;
};

constexpr HandlerCase kHandlers[] = {
    {"Accept", 1, 1, true},          {"Data", 3, 1, true},
    {"Writable", 4, 2, true},        {"Drained", 5, 2, true},
    {"Close", 6, 0, true},           {"None", 0, 0, false},
    {"Unknown2", 2, 2, false},       {"Unknown7", 7, 0, false},
    {"Negative", -1, 1, false},      {"DataOutwards", 3, 2, false},
    {"DrainedInwards", 5, 1, false}, {"CloseInwards", 6, 1, false},
};

class HandlerTest : public LoopTest, public ::testing::WithParamInterface<HandlerCase> {};

TEST_P(HandlerTest, HoldsForKnownEventsOfLivingPeers) {
  const HandlerCase& row = GetParam();
  const ZelPeerHandler handler = [](ZelPeer*) { return true; };
  Descriptor other;
  ZelPeer* peer = makePeer(&other);
  EXPECT_EQ(peer_setEventHandler(peer, row.event, row.direction, handler), row.holds);
  if (!row.holds) {
    EXPECT_EQ(zel_error, ZEL_ERROR_NO_HANDLER);
  }
  EXPECT_EQ(peer_setEventHandler(peer, row.event, row.direction, nullptr), row.holds);
  peer_close(peer);
  zel_error = 0;
  EXPECT_FALSE(peer_setEventHandler(peer, row.event, row.direction, handler));
  EXPECT_EQ(zel_error, ZEL_ERROR_BAD_PEER);
  zel_error = 0;
  EXPECT_FALSE(peer_setEventHandler(nullptr, row.event, row.direction, handler));
  EXPECT_EQ(zel_error, ZEL_ERROR_BAD_PEER);
}

INSTANTIATE_TEST_SUITE_P(Platform, HandlerTest, ::testing::ValuesIn(kHandlers),
                         [](const auto& row) { return std::string(row.param.name); });

// In a handler of each event a peer ends, in each way; what was ended raises nothing any more.
enum class Way { Close, Destroy, ReturnFalse, CloseTwice, DestroyOther, DestroyConnection };

struct EndCase {
  const char* name;
  int event;
  Way way;
};

std::vector<EndCase> endCases() {
  std::vector<EndCase> cases;
  static std::vector<std::string> names;
  names.reserve(64);
  const std::pair<int, const char*> events[] = {{3, "Data"}, {4, "Writable"}, {5, "Drained"}, {6, "Close"}};
  const std::pair<Way, const char*> ways[] = {
      {Way::Close, "Close"},           {Way::Destroy, "Destroy"},    {Way::ReturnFalse, "False"},
      {Way::CloseTwice, "CloseTwice"}, {Way::DestroyOther, "Other"}, {Way::DestroyConnection, "Connection"},
  };
  for (const auto& [event, eventName] : events)
    for (const auto& [way, wayName] : ways) {
      names.push_back(std::string("In") + eventName + "By" + wayName);
      cases.push_back({names.back().c_str(), event, way});
    }
  return cases;
}

class EndInHandlerTest : public LoopTest, public ::testing::WithParamInterface<EndCase> {};

TEST_P(EndInHandlerTest, RaisesNothingAnyMore) {
  static int closed;
  closed = 0;
  Descriptor other;
  Descriptor otherB;
  ZelConnection* separate = connection_create();
  std::swap(separate, connection_);
  ZelPeer* peer = makePeer(&other);
  ZelPeer* bystander = makePeer(&otherB);
  std::swap(separate, connection_);
  Probe probe;
  Probe probeB;
  const auto end = [&](ZelPeer* one) {
    switch (GetParam().way) {
      case Way::Close:
        peer_close(one);
        return true;
      case Way::Destroy:
        peer_destroy(one);
        return true;
      case Way::ReturnFalse:
        return false;
      case Way::CloseTwice:
        peer_close(one);
        peer_destroy(one);
        return false;
      case Way::DestroyOther:
        peer_destroy(one == peer ? bystander : peer);
        return true;
      case Way::DestroyConnection:
        connection_destroy(std::exchange(separate, nullptr));
        return true;
    }
    return true;
  };
  const ZelPeerHandler count = [](ZelPeer*) { return ++closed > 0; };
  for (ZelPeer* one : {peer, bystander}) {
    Probe& its = one == peer ? probe : probeB;
    for (const int event : {PEER_EVENT_DATA, PEER_EVENT_WRITABLE, PEER_EVENT_DRAINED, PEER_EVENT_CLOSE})
      its.on(one, event, [&, event](ZelPeer* raised) { return event == GetParam().event ? end(raised) : true; });
    EXPECT_TRUE(peer_addCloseHandler(one, count));
    fputs("output", peer_outStream(one, PEER_STREAM_BUFFERED));
  }
  sendText(other, "input");
  sendText(otherB, "input");
  if (GetParam().event == PEER_EVENT_CLOSE) {
    zel_loop_turn(0);
    peer_close(peer);
  }
  ASSERT_TRUE(until([&] { return closed > 0; }));
  settle();
  const size_t ended = static_cast<size_t>(closed);
  EXPECT_EQ(probe.count(PEER_EVENT_CLOSE) + probeB.count(PEER_EVENT_CLOSE), ended) << "each peer ends once";
  if (separate) {
    EXPECT_EQ(llist_count(connection_peers(separate)), 2 - ended);
  }
  connection_destroy(separate);
  EXPECT_EQ(closed, 2);
}

INSTANTIATE_TEST_SUITE_P(Platform, EndInHandlerTest, ::testing::ValuesIn(endCases()),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(EventTest, StreamsOfAnEndedPeerStayValidUntilTheEndOfTheTurn) {
  ZelPeer* peer = makePeer(&other_);
  probe_.on(peer, PEER_EVENT_DATA, [&](ZelPeer* one) {
    FILE* in = peer_inStream(one);
    FILE* out = peer_outStream(one, PEER_STREAM_BUFFERED);
    EXPECT_EQ(fgetc(in), 'a');
    fputs("kept", out);
    peer_destroy(one);
    EXPECT_EQ(fgetc(in), 'b') << "what stdio had read ahead";
    EXPECT_EQ(fgetc(in), EOF);
    EXPECT_TRUE(feof(in));
    errno = 0;
    EXPECT_EQ(fputs("lost", out), EOF);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(peer_inStream(one), nullptr);
    EXPECT_EQ(peer_outStream(one, PEER_STREAM_CURRENT), nullptr);
    EXPECT_EQ(peer_socket(one), -1);
    EXPECT_EQ(peer_userData(one), &probe_);
    return true;
  });
  sendText(other_, "ab");
  settle();
  EXPECT_EQ(probe_.count(PEER_EVENT_DATA), 1u);
  EXPECT_EQ(received(other_), "kept<end>");
}

TEST_F(EventTest, TurnsAreNotNested) {
  ZelPeer* peer = makePeer(&other_);
  probe_.on(peer, PEER_EVENT_DATA, [&](ZelPeer* one) {
    zel_error = 0;
    EXPECT_FALSE(zel_loop_turn(0));
    EXPECT_EQ(zel_error, static_cast<uint32_t>(EBUSY));
    EXPECT_EQ(zel_loop_run(), -1);
    zel_loop_drain(1000);
    zel_loop_close();  // not from inside: nothing happens
    read_ += readAll(peer_inStream(one));
    return true;
  });
  sendText(other_, "x");
  settle();
  EXPECT_EQ(read_, "x");
}

}  // namespace
