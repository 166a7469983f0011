#include "session.h"

#include <zel/error.h>
#include <zel/loop.h>

#include <cmath>
#include <csignal>

Session::Session() : connection_(connection_create()) {
  const auto onSignal = [](int signal, void* session) {
    static_cast<Session*>(session)->signal_ = signal;
    static_cast<Session*>(session)->stop();
  };
  const auto onDeadline = [](ZelTimer*, void* session) {
    static_cast<Session*>(session)->timedOut_ = true;
    static_cast<Session*>(session)->stop();
  };
  deadline_ = makeTimer(onDeadline, this);
  ready_ = connection_ && deadline_ && zel_loop_onSignal(SIGINT, onSignal, this) &&
           zel_loop_onSignal(SIGTERM, onSignal, this);
}

Session::~Session() {
  deadline_.reset();
  connection_.reset();
  if (!leavesWork_) zel_loop_close();
}

Failure Session::failure() const {
  return ready_ ? Failure()
                : Failure{kInternalError, std::string("cannot set the event loop up: ") + error_string(zel_error)};
}

void Session::beginTime(std::optional<double> seconds) {
  timedOut_ = false;
  zel_timer_stop(deadline_.get());
  if (seconds) zel_timer_start(deadline_.get(), static_cast<unsigned>(std::ceil(*seconds * 1000)));
}

void Session::run() {
  awake_ = false;
  while (!awake_ && !stopped() && zel_loop_run() == 0) {
  }
}

void Session::turn() { zel_loop_turn(0); }

void Session::wake() {
  awake_ = true;
  zel_loop_stop();
}

void Session::stop() {
  leavesWork_ = true;
  zel_loop_stop();
}
