// Owners of what the system, the platform and the library hand out.
#pragma once

#include <krohttp/reply.h>
#include <krohttp/request.h>
#include <unistd.h>
#include <zel/connection.h>
#include <zel/timer.h>

#include <memory>

// A descriptor that closes itself.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  ~Descriptor() { reset(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const { return fd_; }
  void reset(int fd = -1) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }

 private:
  int fd_;
};

struct Releaser {
  void operator()(ZelConnection* connection) const { connection_destroy(connection); }
  void operator()(ZelTimer* timer) const { zel_timer_destroy(timer); }
  void operator()(HttpRequest* request) const { http_requestDestroy(request); }
  void operator()(HttpReply* reply) const { http_replyDestroy(reply); }
};
using Connection = std::unique_ptr<ZelConnection, Releaser>;
using Timer = std::unique_ptr<ZelTimer, Releaser>;
using Request = std::unique_ptr<HttpRequest, Releaser>;
using Reply = std::unique_ptr<HttpReply, Releaser>;

// A timer that calls @p handler with @p userData; null when memory is short.
inline Timer makeTimer(ZelTimerHandler handler, void* userData) {
  Timer timer(zel_timer_create());
  if (!timer) return timer;
  zel_timer_setUserData(timer.get(), userData);
  zel_timer_setHandler(timer.get(), handler);
  return timer;
}
