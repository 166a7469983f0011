#include <sys/syscall.h>

#include <csignal>
#include <ctime>

#include "peer_support.h"

// The system's clock, which can be put forward, and can be told to run ahead whenever it is read.
static long millisecondsAhead;
static long millisecondsPerLook;

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
  const int result = static_cast<int>(syscall(SYS_clock_gettime, clock, time));
  millisecondsAhead += millisecondsPerLook;
  time->tv_sec += millisecondsAhead / 1000;
  time->tv_nsec += millisecondsAhead % 1000 * 1000000;
  if (time->tv_nsec >= 1000000000) ++time->tv_sec, time->tv_nsec -= 1000000000;
  return result;
}

void letTimePass(long milliseconds) { millisecondsAhead += milliseconds; }

namespace {

class LoopOnlyTest : public LoopTest {
 protected:
  Probe probe_;
};

TEST_F(LoopOnlyTest, RunReturnsWhenNothingIsLeft) {
  EXPECT_EQ(zel_loop_run(), 0);
  EXPECT_FALSE(zel_loop_turn(-1));
  EXPECT_FALSE(zel_loop_turn(0));
  EXPECT_EQ(zel_loop_timeout(), -1);
  ZelPeer* peer = makePeer(&other_);
  EXPECT_TRUE(zel_loop_turn(0)) << "it could vanish";
  peer_destroy(peer);
  EXPECT_EQ(zel_loop_run(), 0);
}

TEST_F(LoopOnlyTest, StopEndsTheRunAtTheEndOfTheTurn) {
  ZelPeer* peer = makePeer(&other_);
  probe_.on(peer, PEER_EVENT_DATA, [](ZelPeer* one) {
    zel_loop_stop();
    fputs(readAll(peer_inStream(one)).c_str(), peer_outStream(one, PEER_STREAM_BUFFERED));
    return true;
  });
  for (const char* text : {"once", "twice"}) {
    sendText(other_, text);
    EXPECT_EQ(zel_loop_run(), 0);
    EXPECT_EQ(received(other_), text) << "output of the turn is handed over";
  }
  EXPECT_EQ(probe_.count(PEER_EVENT_DATA), 2u);
}

TEST_F(LoopOnlyTest, ATurnWaitsNoLongerThanAsked) {
  makePeer(&other_);
  EXPECT_TRUE(zel_loop_turn(1));
  EXPECT_TRUE(zel_loop_turn(0));
}

TEST_F(LoopOnlyTest, ATurnDoesNotOversleepWhenItsTimeIsUpBeforeItWaits) {
  makePeer(&other_);
  settle();
  millisecondsPerLook = 3;
  for (int turn = 0; turn < 5; ++turn) EXPECT_TRUE(zel_loop_turn(1));
  millisecondsPerLook = 0;
}

TEST_F(LoopOnlyTest, StopInATimersHandlerDoesNotWaitForAnotherEvent) {
  makePeer(&other_);
  settle();
  for (const unsigned milliseconds : {0u, 1u}) {
    ZelTimer* timer = zel_timer_create();
    zel_timer_setHandler(timer, [](ZelTimer*, void*) { zel_loop_stop(); });
    zel_timer_start(timer, milliseconds);
    while (zel_loop_timeout() > 0) usleep(1000);  // due before the turn begins
    EXPECT_EQ(zel_loop_run(), 0);
    zel_timer_destroy(timer);
  }
}

TEST_F(LoopOnlyTest, StopInADrainedHandlerDoesNotWaitForAnotherEvent) {
  ZelPeer* peer = makePeer(&other_);
  settle();
  probe_.on(peer, PEER_EVENT_DRAINED, [](ZelPeer*) {
    zel_loop_stop();
    return true;
  });
  fputs("x", peer_outStream(peer, PEER_STREAM_BUFFERED));
  EXPECT_EQ(zel_loop_run(), 0);
  EXPECT_EQ(received(other_), "x");
}

TEST_F(LoopOnlyTest, StopWithoutARunChangesNothing) {
  ZelPeer* peer = makePeer(&other_);
  probe_.on(peer, PEER_EVENT_DATA, [](ZelPeer* one) {
    zel_loop_stop();
    return !readAll(peer_inStream(one)).empty();
  });
  zel_loop_stop();
  sendText(other_, "x");
  EXPECT_EQ(zel_loop_run(), 0);
  EXPECT_EQ(probe_.count(PEER_EVENT_DATA), 1u);
}

TEST_F(LoopOnlyTest, SitsInsideAnApplicationsOwnLoop) {
  ZelTimer* timer = zel_timer_create();
  bool rang = false;
  zel_timer_setUserData(timer, &rang);
  zel_timer_setHandler(timer, [](ZelTimer*, void* userData) { *static_cast<bool*>(userData) = true; });
  std::string got;
  size_t sleeps = 0;
  // One step of the application: sleeps until the platform has something to do, then lets it do that.
  const auto step = [&] {
    pollfd loop = {zel_loop_descriptor(), POLLIN, 0};
    const int timeout = zel_loop_timeout();
    EXPECT_TRUE(timeout >= 0 || llist_count(connection_peers(connection_)) > 0);
    sleeps += timeout != 0;
    poll(&loop, 1, timeout < 0 ? 10000 : timeout);
    zel_loop_turn(0);
  };

  ZelPeer* peer = makePeer(&other_);
  probe_.on(peer, PEER_EVENT_DATA, [&](ZelPeer* one) {
    got += readAll(peer_inStream(one));
    fputs("answer", peer_outStream(one, PEER_STREAM_BUFFERED));
    return true;
  });
  EXPECT_EQ(zel_loop_timeout(), 0) << "the descriptor does not know of the peer yet";
  step();
  sendText(other_, "question");
  for (int i = 0; i < 10 && got.empty(); ++i) step();
  EXPECT_EQ(got, "question");
  EXPECT_EQ(received(other_), "answer");
  for (int i = 0; i < 10 && zel_loop_timeout() == 0; ++i) zel_loop_turn(0);
  EXPECT_EQ(zel_loop_timeout(), -1);

  fputs("unasked", peer_outStream(peer, PEER_STREAM_BUFFERED));
  EXPECT_EQ(zel_loop_timeout(), 0);
  step();
  EXPECT_EQ(received(other_), "unasked");

  zel_timer_start(timer, 5);
  EXPECT_GT(zel_loop_timeout(), 0);
  EXPECT_LE(zel_loop_timeout(), 7);
  for (int i = 0; i < 10 && !rang; ++i) step();
  EXPECT_TRUE(rang);
  EXPECT_LE(sleeps, 12u);
  zel_timer_destroy(timer);
}

TEST_F(LoopOnlyTest, AnApplicationsOwnLoopSeesLingeringThrough) {
  ZelPeer* peer = makeTcpPeer(&other_);
  zel_loop_turn(0);
  const size_t open = openDescriptors().size();
  fputs("bye", peer_outStream(peer, PEER_STREAM_BUFFERED));
  peer_destroy(peer);
  for (int i = 0; i < 5 && zel_loop_timeout() == 0; ++i) zel_loop_turn(0);
  EXPECT_GT(zel_loop_timeout(), 0);
  EXPECT_LE(zel_loop_timeout(), 2002);
  EXPECT_EQ(openDescriptors().size(), open);
  shutdown(other_.get(), SHUT_WR);
  pollfd loop = {zel_loop_descriptor(), POLLIN, 0};
  EXPECT_EQ(poll(&loop, 1, 10000), 1);
  zel_loop_turn(0);
  EXPECT_EQ(openDescriptors().size(), open - 1);
}

TEST_F(LoopOnlyTest, AnApplicationsOwnLoopDoesNotSleepPastTheLastOutput) {
  ZelPeer* peer = makePeer(&other_);
  const std::string sent = pattern(1 << 20);
  probe_.on(peer, PEER_EVENT_DATA, [&](ZelPeer* one) {
    fwrite(sent.data(), 1, sent.size(), peer_outStream(one, PEER_STREAM_BUFFERED));
    peer_destroy(one);
    return true;
  });
  settle();
  sendText(other_, "x");
  std::string got;
  for (int step = 0; step < 1000 && got.size() <= sent.size(); ++step) {
    pollfd loop = {zel_loop_descriptor(), POLLIN, 0};
    ASSERT_TRUE(zel_loop_timeout() == 0 || poll(&loop, 1, 0) == 1) << "it would sleep after " << got.size();
    zel_loop_turn(0);
    got += received(other_);
  }
  EXPECT_TRUE(got == sent + "<end>");
}

TEST_F(LoopOnlyTest, WithoutALoopThereIsNothingToWaitFor) {
  zel_loop_close();
  EXPECT_EQ(zel_loop_timeout(), -1);
  zel_loop_close();
  zel_loop_drain(10);
  EXPECT_GE(zel_loop_descriptor(), 0) << "asking makes it";
}

int lastSignal;

TEST_F(LoopOnlyTest, SignalsReachTheirHandler) {
  lastSignal = 0;
  int context = 0;
  const ZelSignalHandler handler = [](int signal, void* userData) {
    lastSignal = signal;
    ++*static_cast<int*>(userData);
    zel_loop_stop();
  };
  ASSERT_TRUE(zel_loop_onSignal(SIGUSR1, handler, &context));
  ASSERT_TRUE(zel_loop_onSignal(SIGHUP, handler, &context));
  raise(SIGUSR1);
  EXPECT_EQ(context, 0) << "from the loop only";
  zel_loop_run();
  EXPECT_EQ(lastSignal, SIGUSR1);
  raise(SIGHUP);
  zel_loop_run();
  EXPECT_EQ(lastSignal, SIGHUP);
  EXPECT_EQ(context, 2);
  ASSERT_TRUE(zel_loop_onSignal(SIGUSR1, nullptr, nullptr));
  ASSERT_TRUE(zel_loop_onSignal(SIGUSR1, nullptr, nullptr));
  struct sigaction action;
  sigaction(SIGUSR1, nullptr, &action);
  EXPECT_EQ(action.sa_handler, SIG_DFL);
  zel_loop_close();
  sigaction(SIGHUP, nullptr, &action);
  EXPECT_EQ(action.sa_handler, SIG_DFL);
}

TEST_F(LoopOnlyTest, RefusesWhatIsNoSignal) {
  const ZelSignalHandler handler = [](int, void*) {};
  for (const int number : {0, -1, 1000, SIGKILL}) {
    zel_error = 0;
    EXPECT_FALSE(zel_loop_onSignal(number, handler, nullptr)) << number;
    EXPECT_EQ(zel_error, static_cast<uint32_t>(EINVAL));
  }
}

TEST_F(LoopOnlyTest, BrokenPipesKillNobody) {
  ZelPeer* peer = makePeer(&other_);
  probe_.on(peer, PEER_EVENT_CLOSE, [](ZelPeer*) { return true; });
  other_.reset();
  fputs("x", peer_outStream(peer, PEER_STREAM_BUFFERED));
  ASSERT_TRUE(until([&] { return probe_.count(PEER_EVENT_CLOSE) == 1; }));
  raise(SIGPIPE);
  ASSERT_TRUE(zel_loop_onSignal(
      SIGPIPE, [](int, void*) {}, nullptr));
  ASSERT_TRUE(zel_loop_onSignal(SIGPIPE, nullptr, nullptr));
  struct sigaction action;
  sigaction(SIGPIPE, nullptr, &action);
  EXPECT_EQ(action.sa_handler, SIG_IGN) << "after a handler of it, too";
}

TEST_F(LoopOnlyTest, AHandlerOfSigpipeStays) {
  zel_loop_close();
  struct sigaction before;
  struct sigaction mine = {};
  mine.sa_handler = [](int signal) { lastSignal = signal; };
  sigaction(SIGPIPE, &mine, &before);
  zel_loop_turn(0);
  lastSignal = 0;
  raise(SIGPIPE);
  EXPECT_EQ(lastSignal, SIGPIPE);
  sigaction(SIGPIPE, &before, nullptr);
}

}  // namespace
