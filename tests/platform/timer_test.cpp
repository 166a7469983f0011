#include <ctime>

#include "peer_support.h"

namespace {

class TimerTest : public LoopTest {
 protected:
  using Handler = std::function<void(ZelTimer*)>;

  ZelTimer* make(Handler* handler) {
    ZelTimer* timer = zel_timer_create();
    zel_timer_setUserData(timer, handler);
    zel_timer_setHandler(timer, [](ZelTimer* one, void* userData) { (*static_cast<Handler*>(userData))(one); });
    EXPECT_EQ(zel_timer_userData(timer), handler);
    return timer;
  }
  int fired_ = 0;
};

TEST_F(TimerTest, FiresOnceAndNeverInsideTheCall) {
  Handler handler = [&](ZelTimer*) { ++fired_; };
  ZelTimer* timer = make(&handler);
  for (const unsigned milliseconds : {0u, 1u, 3u}) {
    fired_ = 0;
    EXPECT_TRUE(zel_timer_start(timer, milliseconds));
    EXPECT_EQ(fired_, 0);
    EXPECT_EQ(zel_loop_run(), 0);
    EXPECT_EQ(fired_, 1);
  }
  zel_timer_destroy(timer);
}

TEST_F(TimerTest, FiresInTheOrderOfItsTimes) {
  std::string order;
  Handler handlers[] = {[&](ZelTimer*) { order += 'a'; }, [&](ZelTimer*) { order += 'b'; },
                        [&](ZelTimer*) { order += 'c'; }};
  ZelTimer* timers[] = {make(&handlers[0]), make(&handlers[1]), make(&handlers[2])};
  zel_timer_start(timers[0], 30);
  zel_timer_start(timers[1], 1);
  zel_timer_start(timers[2], 15);
  zel_loop_run();
  EXPECT_EQ(order, "bca");
  for (ZelTimer* timer : timers) zel_timer_destroy(timer);
}

TEST_F(TimerTest, StoppedTimersDoNotFire) {
  Handler handler = [&](ZelTimer*) { ++fired_; };
  ZelTimer* timer = make(&handler);
  for (const unsigned milliseconds : {0u, 1u}) {
    zel_timer_start(timer, milliseconds);
    zel_timer_stop(timer);
    EXPECT_FALSE(zel_loop_turn(5));
  }
  zel_timer_stop(timer);
  EXPECT_EQ(fired_, 0);
  zel_timer_destroy(timer);
}

TEST_F(TimerTest, RestartingReplacesTheTime) {
  Handler handler = [&](ZelTimer*) { ++fired_; };
  ZelTimer* timer = make(&handler);
  const unsigned times[][2] = {{0, 1}, {1, 0}, {1000000, 0}, {1000000, 1}, {0, 0}};
  for (const auto& [first, second] : times) {
    fired_ = 0;
    zel_timer_start(timer, first);
    zel_timer_start(timer, second);
    zel_loop_run();
    EXPECT_EQ(fired_, 1) << first << " then " << second;
  }
  zel_timer_destroy(timer);
}

TEST_F(TimerTest, HandlersMayStartTheirTimerAgain) {
  for (const unsigned milliseconds : {0u, 1u}) {
    fired_ = 0;
    Handler handler = [&](ZelTimer* timer) {
      if (++fired_ < 5) zel_timer_start(timer, milliseconds);
    };
    ZelTimer* timer = make(&handler);
    zel_timer_start(timer, milliseconds);
    zel_loop_run();
    EXPECT_EQ(fired_, 5);
    zel_timer_destroy(timer);
  }
}

TEST_F(TimerTest, HandlersMayDestroyTheirTimerAndOthers) {
  for (const unsigned milliseconds : {0u, 1u}) {
    fired_ = 0;
    ZelTimer* timers[3];
    Handler handler = [&](ZelTimer*) {
      ++fired_;
      for (ZelTimer* timer : timers) zel_timer_destroy(timer);
    };
    for (ZelTimer*& timer : timers) {
      timer = make(&handler);
      zel_timer_start(timer, milliseconds);
    }
    zel_loop_run();
    EXPECT_EQ(fired_, 1);
  }
  zel_timer_destroy(nullptr);
}

TEST_F(TimerTest, ATimerThatRestartsAtOnceDoesNotStarvePeers) {
  ZelPeer* peer = makePeer(&other_);
  Probe probe;
  probe.on(peer, PEER_EVENT_DATA, [&](ZelPeer*) {
    zel_loop_stop();
    return true;
  });
  Handler handler = [&](ZelTimer* timer) {
    if (++fired_ < 1000) zel_timer_start(timer, 0);
  };
  ZelTimer* timer = make(&handler);
  zel_timer_start(timer, 0);
  sendText(other_, "x");
  zel_loop_run();
  EXPECT_LT(fired_, 10);
  zel_timer_destroy(timer);
}

TEST_F(TimerTest, ZeroIsTheNextTurnForHandlersOfTimersToo) {
  Handler second = [&](ZelTimer*) { ++fired_; };
  ZelTimer* next = make(&second);
  bool rang = false;
  Handler first = [&](ZelTimer*) { rang = zel_timer_start(next, 0); };
  ZelTimer* timer = make(&first);
  makePeer(&other_);
  settle();  // nothing else is to be done
  zel_timer_start(timer, 1);
  while (zel_loop_timeout() > 0) usleep(1000);  // due before the turn begins
  zel_loop_turn(0);
  EXPECT_TRUE(rang);
  EXPECT_EQ(fired_, 0);
  zel_loop_turn(0);
  EXPECT_EQ(fired_, 1);
  zel_timer_destroy(timer);
  zel_timer_destroy(next);
}

TEST_F(TimerTest, TimeCountsFromTheCall) {
  const auto now = [] {
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000 + time.tv_nsec / 1000000;
  };
  Handler handler = [](ZelTimer*) {};
  ZelTimer* timer = make(&handler);
  makePeer(&other_);
  settle();
  usleep(100000);  // the loop's own clock stands still
  const long before = now();
  zel_timer_start(timer, 100000);
  const int left = zel_loop_timeout();
  EXPECT_GE(left, 100000 - (now() - before) - 10) << "give or take a tick of the clock";
  EXPECT_LE(left, 100002);
  zel_timer_destroy(timer);
}

TEST_F(TimerTest, NeverFiresBeforeItsTime) {
  const auto now = [] {
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000000000L + time.tv_nsec;
  };
  Handler handler = [&](ZelTimer*) { ++fired_; };
  ZelTimer* timer = make(&handler);
  for (int round = 0; round < 40; ++round) {
    usleep(300);  // somewhere within a millisecond
    fired_ = 0;
    const long before = now();
    zel_timer_start(timer, 2);
    while (fired_ == 0) zel_loop_turn(0);
    EXPECT_GE(now() - before, 2000000);
  }
  zel_timer_destroy(timer);
}

TEST_F(TimerTest, HandlersThatTakeLongerThanTheirTimeDoNotHoldTheTurn) {
  ZelPeer* peer = makePeer(&other_);
  Probe probe;
  probe.on(peer, PEER_EVENT_DATA, [&](ZelPeer*) {
    zel_loop_stop();
    return true;
  });
  zel_loop_turn(0);
  Handler handler = [&](ZelTimer* timer) {
    letTimePass(2);
    if (++fired_ >= 1000) return;
    zel_timer_start(timer, 1);
    zel_loop_timeout();
  };
  ZelTimer* timers[] = {make(&handler), make(&handler)};
  for (ZelTimer* timer : timers) zel_timer_start(timer, 1);
  letTimePass(5);
  sendText(other_, "x");
  zel_loop_run();
  EXPECT_LT(fired_, 20);
  for (ZelTimer* timer : timers) zel_timer_destroy(timer);
}

TEST_F(TimerTest, PeersEndedInATurnStayValidForItsLastTimers) {
  ZelPeer* peer = makePeer(&other_);
  zel_loop_turn(0);
  FILE* out = peer_outStream(peer, PEER_STREAM_BUFFERED);
  int turn = 0;
  int endedIn = 0;
  Probe probe;
  probe.on(peer, PEER_EVENT_DATA, [&](ZelPeer* one) {
    endedIn = turn;
    peer_destroy(one);
    letTimePass(20000);
    return true;
  });
  Handler handler = [&](ZelTimer*) {
    EXPECT_EQ(turn, endedIn);
    errno = 0;
    EXPECT_EQ(fputs("x", out), EOF);
    EXPECT_EQ(errno, EPIPE);
    ++fired_;
  };
  ZelTimer* timer = make(&handler);
  zel_timer_start(timer, 10000);
  sendText(other_, "x");
  while (fired_ == 0 && turn < 100) {
    ++turn;
    zel_loop_turn(-1);
  }
  EXPECT_EQ(fired_, 1);
  zel_timer_destroy(timer);
}

TEST_F(TimerTest, WhatTimersWriteLeavesInTheSameTurn) {
  ZelPeer* peer = makePeer(&other_);
  FILE* out = peer_outStream(peer, PEER_STREAM_BUFFERED);
  Handler handler = [&](ZelTimer*) {
    ++fired_;
    fputs("tick", out);
  };
  ZelTimer* timer = make(&handler);
  for (const unsigned milliseconds : {0u, 1u}) {
    fired_ = 0;
    zel_timer_start(timer, milliseconds);
    while (fired_ == 0) zel_loop_turn(1000);
    EXPECT_EQ(received(other_), "tick");
  }
  zel_timer_destroy(timer);
}

TEST_F(TimerTest, PeersEndedByTimersStayValidForTheTurn) {
  ZelPeer* peer = makePeer(&other_);
  FILE* in = peer_inStream(peer);
  Handler handlers[] = {[&](ZelTimer*) { peer_destroy(peer); },
                        [&](ZelTimer*) {
                          EXPECT_EQ(fgetc(in), EOF);
                          ++fired_;
                        }};
  ZelTimer* timers[] = {make(&handlers[0]), make(&handlers[1])};
  for (ZelTimer* timer : timers) zel_timer_start(timer, 0);
  zel_loop_run();
  EXPECT_EQ(fired_, 1);
  for (ZelTimer* timer : timers) zel_timer_destroy(timer);
}

TEST_F(TimerTest, NeedsAHandler) {
  ZelTimer* timer = zel_timer_create();
  zel_error = 0;
  EXPECT_FALSE(zel_timer_start(timer, 0));
  EXPECT_EQ(zel_error, ZEL_ERROR_NO_HANDLER);
  EXPECT_FALSE(zel_timer_start(nullptr, 0));
  zel_timer_destroy(timer);
}

TEST_F(TimerTest, OutlivesTheLoop) {
  Handler handler = [&](ZelTimer*) { ++fired_; };
  ZelTimer* timers[] = {make(&handler), make(&handler), make(&handler)};
  zel_timer_start(timers[0], 0);
  zel_timer_start(timers[1], 1);
  zel_loop_close();
  EXPECT_EQ(fired_, 0);
  zel_loop_turn(5);
  EXPECT_EQ(fired_, 0);
  for (ZelTimer* timer : timers) zel_timer_start(timer, 1);
  zel_loop_run();
  EXPECT_EQ(fired_, 3);
  zel_loop_close();
  for (ZelTimer* timer : timers) zel_timer_destroy(timer);
}

}  // namespace
