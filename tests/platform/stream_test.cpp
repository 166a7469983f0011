// The streams of a peer: buffered and direct output, reading, peeking.
#include <stdio_ext.h>
#include <sys/ioctl.h>

#include "peer_support.h"

namespace {

class StreamTest : public LoopTest {
 protected:
  std::string peek(ZelPeer* peer, size_t length) {
    std::string text(length, '\0');
    errno = 0;
    const ssize_t count = peer_peek(peer, text.data(), length);
    if (count < 0) return errno == EAGAIN ? "<again>" : "<error>";
    if (count == 0) return "<end>";
    return text.substr(0, static_cast<size_t>(count));
  }

  Probe probe_;
};

TEST_F(StreamTest, ReadingNeverBlocks) {
  ZelPeer* peer = makePeer(&other_);
  FILE* in = peer_inStream(peer);
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(peer_inStream(peer), in);
  errno = 0;
  EXPECT_EQ(fgetc(in), EOF);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_TRUE(ferror(in));
  EXPECT_FALSE(feof(in));
  clearerr(in);
  sendText(other_, "abc");
  char text[8];
  errno = 0;
  EXPECT_EQ(fread(text, 1, sizeof(text), in), 3u);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(std::string_view(text, 3), "abc");
  clearerr(in);
  shutdown(other_.get(), SHUT_WR);
  EXPECT_EQ(fgetc(in), EOF);
  EXPECT_TRUE(feof(in));
  EXPECT_FALSE(ferror(in));
}

TEST_F(StreamTest, ReadingIsBinaryExact) {
  ZelPeer* peer = makePeer(&other_);
  const std::string sent = pattern(1 << 20);
  std::string got;
  size_t step = 1;
  probe_.on(peer, PEER_EVENT_DATA, [&](ZelPeer* one) {
    std::string part(step = step * 7 % 40000 + 1, '\0');
    const size_t count = fread(part.data(), 1, part.size(), peer_inStream(one));
    got.append(part, 0, count);
    clearerr(peer_inStream(one));
    return true;
  });
  size_t done = 0;
  ASSERT_TRUE(until([&] {
    const ssize_t count = send(other_.get(), sent.data() + done, sent.size() - done, MSG_DONTWAIT);
    if (count > 0) done += static_cast<size_t>(count);
    return got.size() == sent.size();
  }));
  EXPECT_TRUE(got == sent);
}

// A timer that lets a peer go on may read at once: in blocks, not byte by byte.
TEST_F(StreamTest, WhoGoesOnFromElsewhereReadsBlocks) {
  ZelPeer* peer = makePeer(&other_);
  std::string got;
  const Probe::Handler take = [&](ZelPeer* one) {
    got += readAll(peer_inStream(one));
    probe_.off(one, PEER_EVENT_DATA);
    return true;
  };
  probe_.on(peer, PEER_EVENT_DATA, take);
  sendText(other_, "first");
  ASSERT_TRUE(until([&] { return got == "first"; }));
  const std::string rest = pattern(5000);
  sendText(other_, rest);

  probe_.on(peer, PEER_EVENT_DATA, take);
  EXPECT_EQ(fgetc(peer_inStream(peer)), rest[0]);
  int unread = -1;
  EXPECT_EQ(ioctl(peer_socket(peer), FIONREAD, &unread), 0);
  EXPECT_EQ(unread, 0);
  ASSERT_TRUE(until([&] { return got.size() > 5; }));
  EXPECT_EQ(got.substr(5), rest.substr(1));
}

TEST_F(StreamTest, TheEndOfFileMarkSurvivesTheEvent) {
  ZelPeer* peer = makePeer(&other_);
  probe_.on(peer, PEER_EVENT_DATA, [&](ZelPeer* one) {
    readAll(peer_inStream(one));
    probe_.off(one, PEER_EVENT_DATA);
    return true;
  });
  sendText(other_, "x");
  shutdown(other_.get(), SHUT_WR);
  ASSERT_TRUE(until([&] { return probe_.count(PEER_EVENT_DATA) == 1; }));
  EXPECT_TRUE(feof(peer_inStream(peer)));
}

TEST_F(StreamTest, PeekLooksAtTheStreamFirst) {
  ZelPeer* peer = makePeer(&other_);
  EXPECT_EQ(peek(peer, 4), "<again>");
  sendText(other_, "abcdef");
  EXPECT_EQ(peek(peer, 1), "a");
  EXPECT_EQ(peek(peer, 4), "abcd") << "nothing was taken";
  std::vector<std::string> seen;
  probe_.on(peer, PEER_EVENT_DATA, [&](ZelPeer* one) {
    FILE* in = peer_inStream(one);
    EXPECT_EQ(fgetc(in), 'a');
    seen.push_back(peek(one, 3));
    sendText(other_, "later");
    seen.push_back(peek(one, 100));
    EXPECT_EQ(ungetc('z', in), 'z');
    seen.push_back(peek(one, 1));
    seen.push_back(peek(one, 3));
    EXPECT_EQ(readAll(in), "zbcdeflater");
    seen.push_back(peek(one, 3));
    shutdown(other_.get(), SHUT_WR);
    seen.push_back(peek(one, 3));
    probe_.off(one, PEER_EVENT_DATA);
    return true;
  });
  ASSERT_TRUE(until([&] { return probe_.count(PEER_EVENT_DATA) == 1; }));
  EXPECT_EQ(seen, (std::vector<std::string>{"bcd", "bcdef", "z", "zbc", "<again>", "<end>"}));
}

TEST_F(StreamTest, PeekRefusesWhatCannotBeRead) {
  ZelPeer* peer = makePeer(&other_);
  zel_error = 0;
  EXPECT_EQ(peek(peer, 0), "<error>");
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(zel_error, static_cast<uint32_t>(EINVAL));
  EXPECT_EQ(peek(nullptr, 1), "<error>");
  peer_close(peer);
  EXPECT_EQ(peek(peer, 1), "<error>");
  EXPECT_EQ(errno, ENOTCONN);
  ZelPeer* listener = connection_listenOnTCP(connection_, "127.0.0.1", "0");
  EXPECT_EQ(peek(listener, 1), "<error>");
}

TEST_F(StreamTest, PeekTellsOfAReset) {
  ZelPeer* peer = makeTcpPeer(&other_);
  resetOnClose(other_);
  other_.reset();
  char byte;
  EXPECT_EQ(peer_peek(peer, &byte, 1), -1);
  EXPECT_EQ(errno, ECONNRESET);
}

// The socket tells of a reset but once, and lets it look like the end of the input afterwards.
TEST_F(StreamTest, ReadsTellOfAResetThatAWriteWasTold) {
  ZelPeer* peer = makeTcpPeer(&other_);
  ASSERT_TRUE(peer_setStreamType(peer, PEER_STREAM_DIRECT));
  resetOnClose(other_);
  other_.reset();
  FILE* out = peer_outStream(peer, PEER_STREAM_DIRECT);
  EXPECT_EQ(fputs("x", out), EOF);
  char byte;
  EXPECT_EQ(peer_peek(peer, &byte, 1), -1);
  EXPECT_EQ(errno, ECONNRESET);
  errno = 0;
  EXPECT_EQ(fgetc(peer_inStream(peer)), EOF);
  EXPECT_EQ(errno, ECONNRESET);
  EXPECT_FALSE(feof(peer_inStream(peer)));
}

TEST_F(StreamTest, ReadsTellOfAResetThatQueuedOutputMet) {
  for (const size_t size : {1, 200000}) {
    ZelPeer* peer = makeTcpPeer(&other_);
    int told = 0;
    probe_.on(peer, PEER_EVENT_CLOSE, [&](ZelPeer* one) {
      char byte;
      told = peer_peek(one, &byte, 1) < 0 ? errno : -1;
      return true;
    });
    fputs(pattern(size).c_str(), peer_outStream(peer, PEER_STREAM_BUFFERED));
    resetOnClose(other_);
    other_.reset();
    ASSERT_TRUE(until([&] { return told != 0; }));
    EXPECT_EQ(told, ECONNRESET);
  }
}

// It has finished before: what it sent is whole, whatever becomes of what is sent to it.
TEST_F(StreamTest, EndBeforeAResetIsTheEnd) {
  ZelPeer* peer = makeTcpPeer(&other_);
  ASSERT_TRUE(peer_setStreamType(peer, PEER_STREAM_DIRECT));
  FILE* out = peer_outStream(peer, PEER_STREAM_DIRECT);
  other_.reset();
  EXPECT_EQ(fputs("one", out), 1);
  EXPECT_EQ(fputs("two", out), EOF);
  char byte;
  EXPECT_EQ(peer_peek(peer, &byte, 1), 0);
  EXPECT_EQ(fgetc(peer_inStream(peer)), EOF);
  EXPECT_TRUE(feof(peer_inStream(peer)));
}

TEST_F(StreamTest, BufferedOutputLeavesAtTheEndOfTheTurn) {
  ZelPeer* peer = makePeer(&other_);
  FILE* out = peer_outStream(peer, PEER_STREAM_BUFFERED);
  EXPECT_EQ(fputs("one ", out), 1);
  EXPECT_EQ(fprintf(out, "%d ", 2), 2);
  EXPECT_EQ(putc('3', out), '3');
  EXPECT_EQ(peer_bytesQueued(peer), 7u);
  EXPECT_EQ(received(other_), "");
  zel_loop_turn(0);
  EXPECT_EQ(peer_bytesQueued(peer), 0u);
  EXPECT_EQ(received(other_), "one 2 3");
}

TEST_F(StreamTest, BytesInStdiosBufferAreQueued) {
  ZelPeer* peer = makePeer(&other_);
  FILE* out = peer_outStream(peer, PEER_STREAM_BUFFERED);
  probe_.on(peer, PEER_EVENT_DATA, [&](ZelPeer* one) {
    readAll(peer_inStream(one));
    fputs("hello", out);
    EXPECT_EQ(__fpending(out), 5u) << "a buffer was lent for the handler";
    EXPECT_EQ(peer_bytesQueued(one), 5u);
    EXPECT_FALSE(peer_setStreamType(one, PEER_STREAM_DIRECT));
    fflush(out);
    EXPECT_EQ(peer_bytesQueued(one), 5u);
    return true;
  });
  sendText(other_, "x");
  ASSERT_TRUE(until([&] { return probe_.count(PEER_EVENT_DATA) == 1; }));
  EXPECT_EQ(received(other_), "hello");
}

TEST_F(StreamTest, OutputOfAnotherPeersHandlerKeepsItsOrder) {
  Descriptor otherB;
  ZelPeer* peer = makePeer(&other_);
  ZelPeer* target = makePeer(&otherB);
  Probe probeB;
  FILE* out = peer_outStream(target, PEER_STREAM_BUFFERED);
  probe_.on(peer, PEER_EVENT_DATA, [&](ZelPeer* one) {
    fprintf(out, "%s from elsewhere ", readAll(peer_inStream(one)).c_str());
    return true;
  });
  probeB.on(target, PEER_EVENT_DATA, [&](ZelPeer* one) {
    fprintf(out, "%s at home ", readAll(peer_inStream(one)).c_str());
    return true;
  });
  std::string got;
  for (const char* text : {"a", "b", "c"}) {
    sendText(other_, text);
    settle();
    sendText(otherB, text);
    settle();
    got += received(otherB);
  }
  EXPECT_EQ(got, "a from elsewhere a at home b from elsewhere b at home c from elsewhere c at home ");
}

struct TypeCase {
  const char* name;
  int mode;
  int asked;
  bool given;
};

constexpr TypeCase kTypes[] = {
    {"BufferedInBuffered", 0, 0, true}, {"DirectInBuffered", 0, 1, false}, {"CurrentInBuffered", 0, 2, true},
    {"BufferedInDirect", 1, 0, false},  {"DirectInDirect", 1, 1, true},    {"CurrentInDirect", 1, 2, true},
    {"Unknown", 0, 3, false},           {"Negative", 1, -1, false},
};

class StreamTypeTest : public StreamTest, public ::testing::WithParamInterface<TypeCase> {};

TEST_P(StreamTypeTest, OnlyTheModeInForceIsGiven) {
  ZelPeer* peer = makePeer(&other_);
  EXPECT_TRUE(peer_setStreamType(peer, GetParam().mode));
  zel_error = 0;
  EXPECT_EQ(peer_outStream(peer, GetParam().asked) != nullptr, GetParam().given);
  EXPECT_EQ(zel_error, GetParam().given ? 0u : static_cast<uint32_t>(EINVAL));
}

INSTANTIATE_TEST_SUITE_P(Platform, StreamTypeTest, ::testing::ValuesIn(kTypes),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(StreamTest, SwitchingToDirectFailsWhileBytesAreQueued) {
  ZelPeer* peer = makePeer(&other_);
  fputs("queued", peer_outStream(peer, PEER_STREAM_BUFFERED));
  EXPECT_FALSE(peer_setStreamType(peer, PEER_STREAM_DIRECT));
  EXPECT_TRUE(peer_setStreamType(peer, PEER_STREAM_BUFFERED));
  zel_loop_turn(0);
  EXPECT_TRUE(peer_setStreamType(peer, PEER_STREAM_DIRECT));
  EXPECT_FALSE(peer_setStreamType(peer, PEER_STREAM_CURRENT));
  EXPECT_FALSE(peer_setStreamType(nullptr, PEER_STREAM_BUFFERED));
  peer_close(peer);
  EXPECT_FALSE(peer_setStreamType(peer, PEER_STREAM_BUFFERED));
}

TEST_F(StreamTest, DirectOutputLeavesWithinTheWrite) {
  ZelPeer* peer = makePeer(&other_);
  EXPECT_TRUE(peer_setStreamType(peer, PEER_STREAM_DIRECT));
  FILE* out = peer_outStream(peer, PEER_STREAM_DIRECT);
  errno = EAGAIN;
  EXPECT_EQ(fwrite("now", 1, 3, out), 3u);
  EXPECT_EQ(errno, 0) << "nothing stale";
  EXPECT_EQ(received(other_), "now");
  EXPECT_EQ(peer_bytesQueued(peer), 0u);
  probe_.on(peer, PEER_EVENT_DRAINED, [](ZelPeer*) { return true; });
  EXPECT_EQ(probe_.count(PEER_EVENT_DRAINED), 0u);
  settle();
  EXPECT_EQ(probe_.count(PEER_EVENT_DRAINED), 1u);
  EXPECT_TRUE(peer_setStreamType(peer, PEER_STREAM_BUFFERED));
  fputs("then", out);
  EXPECT_EQ(received(other_), "");
  settle();
  EXPECT_EQ(received(other_), "then");
}

TEST_F(StreamTest, DirectOutputInAHandlerIsNotBuffered) {
  ZelPeer* peer = makePeer(&other_);
  FILE* out = peer_outStream(peer, PEER_STREAM_BUFFERED);
  probe_.on(peer, PEER_EVENT_DATA, [&](ZelPeer* one) {
    readAll(peer_inStream(one));
    EXPECT_TRUE(peer_setStreamType(one, PEER_STREAM_DIRECT));
    fputs("at once", out);
    EXPECT_EQ(received(other_), "at once");
    return true;
  });
  for (int i = 0; i < 2; ++i) {
    sendText(other_, "x");
    settle();
  }
  EXPECT_EQ(probe_.count(PEER_EVENT_DATA), 2u);
}

struct DirectCase {
  const char* name;
  bool tcp;
  size_t piece;  // written at once
  size_t taken;  // read by the other side in a turn
};

constexpr DirectCase kDirect[] = {
    {"UnixSmallPieces", false, 4096, 10000}, {"UnixLargePieces", false, 700001, 50000},
    {"UnixAtOnce", false, 5 << 20, 77777},   {"TcpSmallPieces", true, 4096, 60000},
    {"TcpLargePieces", true, 700001, 70001}, {"TcpAtOnce", true, 5 << 20, 100000},
};

class DirectTest : public StreamTest, public ::testing::WithParamInterface<DirectCase> {};

TEST_P(DirectTest, NoByteIsLostOrDoubled) {
  ZelPeer* peer = GetParam().tcp ? makeTcpPeer(&other_) : makePeer(&other_);
  const std::string sent = pattern(5 << 20);
  EXPECT_TRUE(peer_setStreamType(peer, PEER_STREAM_DIRECT));
  size_t done = 0;
  size_t refused = 0;
  probe_.on(peer, PEER_EVENT_WRITABLE, [&](ZelPeer* one) {
    EXPECT_EQ(peer_bytesQueued(one), 0u);
    FILE* out = peer_outStream(one, PEER_STREAM_CURRENT);
    errno = 0;
    while (done < sent.size() && errno == 0) {
      const size_t piece = std::min(GetParam().piece, sent.size() - done);
      EXPECT_EQ(fwrite(sent.data() + done, 1, piece, out), piece) << "what the socket does not take is kept";
      done += piece;
      EXPECT_EQ(errno, peer_bytesQueued(one) > 0 ? EAGAIN : 0);
      refused += errno == EAGAIN;
    }
    if (done == sent.size()) probe_.off(one, PEER_EVENT_WRITABLE);
    return true;
  });
  std::string got;
  ASSERT_TRUE(until([&] {
    got += received(other_, GetParam().taken);
    return got.size() == sent.size();
  })) << got.size();
  EXPECT_TRUE(got == sent);
  EXPECT_GT(refused, 0u);
}

INSTANTIATE_TEST_SUITE_P(Platform, DirectTest, ::testing::ValuesIn(kDirect),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(StreamTest, WhatIsKeptGoesAheadOfEverythingElse) {
  ZelPeer* peer = makePeer(&other_);
  const std::string large = pattern(1 << 20);
  EXPECT_TRUE(peer_setStreamType(peer, PEER_STREAM_DIRECT));
  fwrite(large.data(), 1, large.size(), peer_outStream(peer, PEER_STREAM_CURRENT));
  const size_t kept = peer_bytesQueued(peer);
  EXPECT_GT(kept, 0u);
  EXPECT_LT(kept, large.size());
  std::string got = received(other_, 4096);
  fputs("second", peer_outStream(peer, PEER_STREAM_CURRENT));
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_TRUE(peer_setStreamType(peer, PEER_STREAM_BUFFERED));
  fputs("third", peer_outStream(peer, PEER_STREAM_CURRENT));
  EXPECT_EQ(peer_bytesQueued(peer), kept + 11);
  ASSERT_TRUE(until([&] {
    got += received(other_);
    return got.size() == large.size() + 11;
  }));
  EXPECT_TRUE(got == large + "secondthird");
}

TEST_F(StreamTest, CapabilitiesAreThoseOfTheTransport) {
  ZelPeer* peer = makePeer(&other_);
  EXPECT_EQ(peer_capabilities(peer), static_cast<unsigned>(PEER_CAPABILITY_SENDFILE));
  EXPECT_EQ(peer_capabilities(nullptr), 0u);
  EXPECT_EQ(peer_bytesQueued(nullptr), 0u);
}

TEST_F(StreamTest, ListeningPeersHaveNoStreams) {
  ZelPeer* listener = connection_listenOnTCP(connection_, "127.0.0.1", "0");
  for (ZelPeer* peer : {listener, static_cast<ZelPeer*>(nullptr)}) {
    zel_error = 0;
    EXPECT_EQ(peer_inStream(peer), nullptr);
    EXPECT_EQ(zel_error, ZEL_ERROR_BAD_PEER);
    zel_error = 0;
    EXPECT_EQ(peer_outStream(peer, PEER_STREAM_BUFFERED), nullptr);
    EXPECT_EQ(zel_error, ZEL_ERROR_BAD_PEER);
  }
}

}  // namespace
