// The event loop as kroget uses it: run until something is done, a signal comes, or time is up.
#pragma once

#include <optional>
#include <string>

#include "failure.h"
#include "handles.h"

class Session {
 public:
  // Prepares the loop. failure() tells whether that worked.
  Session();
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  Failure failure() const;
  ZelConnection* connection() { return connection_.get(); }

  // From now on there are @p seconds left, if any are given.
  void beginTime(std::optional<double> seconds);
  // Runs until wake(), or until it is stopped.
  void run();
  // Does what is due, without waiting.
  void turn();
  void wake();

  // Time is up, or a signal came.
  bool stopped() const { return timedOut_ || signal_ != 0; }
  bool timedOut() const { return timedOut_; }
  int signal() const { return signal_; }
  // A look-up of a name may be under way that nobody can stop; the end of the process would wait for it.
  bool leavesWork() const { return leavesWork_; }

 private:
  void stop();

  Connection connection_;
  Timer deadline_;
  bool ready_ = false;
  bool awake_ = false;
  bool timedOut_ = false;
  bool leavesWork_ = false;
  int signal_ = 0;
};
