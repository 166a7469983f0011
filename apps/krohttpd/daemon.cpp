#include "daemon.h"

#include <krohttp/krohttp.h>
#include <krotrace/krotrace.h>
#include <zel/connection.h>
#include <zel/error.h>
#include <zel/loop.h>
#include <zel/timer.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "access_log.h"
#include "heap.h"
#include "routes.h"
#include "upload.h"
#include "users.h"

namespace {

constexpr int kFailed = 1;
constexpr unsigned kStopMilliseconds = 5000;
constexpr unsigned kDrainMilliseconds = 2000;

struct ConnectionDeleter {
  void operator()(ZelConnection* connection) const { connection_destroy(connection); }
};

struct TimerDeleter {
  void operator()(ZelTimer* timer) const { zel_timer_destroy(timer); }
};

// One process, one daemon: the handlers of the loop find it here.
struct Daemon {
  std::unique_ptr<ZelConnection, ConnectionDeleter> connection;
  std::vector<std::unique_ptr<HttpServer>> servers;
  std::unique_ptr<ZelTimer, TimerDeleter> deadline;
  size_t running = 0;
  bool stopping = false;
  timespec started{};
};

Daemon* daemon_ = nullptr;

Counters count() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  Counters counters;
  counters.uptime = static_cast<long>(now.tv_sec - daemon_->started.tv_sec);
  for (const auto& server : daemon_->servers) {
    counters.connections += server->connectionCount;
    counters.replies += server->repliesSent;
    for (int reason = 0; reason < HTTP_MSG_REFUSALS; ++reason) counters.refused[reason] += server->refused[reason];
  }
  return counters;
}

std::string describe(const ListenAddress& address, unsigned port) {
  if (address.local) return "unix:" + address.host;
  const bool brackets = address.host.find(':') != std::string::npos;
  const std::string host = address.host == "*" ? "0.0.0.0" : brackets ? "[" + address.host + "]" : address.host;
  return "http://" + host + ":" + std::to_string(port) + "/";
}

bool listenOn(const ListenAddress& address, const HttpServerLimits& limits) {
  ZelConnection* const connection = daemon_->connection.get();
  errno = 0;
  ZelPeer* const peer = address.local ? connection_listenOnIPC(connection, address.host.c_str())
                                      : connection_listenOnTCP(connection, address.host.c_str(), address.port.c_str());
  if (peer == nullptr) {
    const char* const reason = errno != 0 ? std::strerror(errno) : error_string(zel_error);
    std::fprintf(stderr, "krohttpd: cannot listen on %s%s%s: %s\n", address.host.c_str(), address.local ? "" : ":",
                 address.port.c_str(), reason);
    return false;
  }
  auto server = std::make_unique<HttpServer>();
  server->peer = peer;
  routesInstall(server.get());
  server->stoppedHandler = [](HttpServer*) {
    if (--daemon_->running == 0) zel_loop_stop();
  };
  if (http_serverLimitsSet(server.get(), &limits) < 0 || http_serverStart(server.get()) < 0) return false;
  std::printf("krohttpd: listening on %s\n", describe(address, peer_localPort(peer)).c_str());
  std::fflush(stdout);
  daemon_->servers.push_back(std::move(server));
  ++daemon_->running;
  return true;
}

// The first signal lets replies under way finish, for a while; the second one does not wait.
void onSignal(int, void*) {
  if (daemon_->stopping) {
    zel_loop_stop();
    return;
  }
  daemon_->stopping = true;
  daemon_->deadline.reset(zel_timer_create());
  if (daemon_->deadline) {
    zel_timer_setHandler(daemon_->deadline.get(), [](ZelTimer*, void*) { zel_loop_stop(); });
    zel_timer_start(daemon_->deadline.get(), kStopMilliseconds);
  }
  for (const auto& server : daemon_->servers) http_serverStop(server.get());
  routesStop();
}

int serve(const Options& options) {
  for (const ListenAddress& address : options.listen)
    if (!listenOn(address, options.limits)) return kFailed;
  if (!zel_loop_onSignal(SIGINT, onSignal, nullptr) || !zel_loop_onSignal(SIGTERM, onSignal, nullptr)) {
    std::fprintf(stderr, "krohttpd: cannot handle signals: %s\n", error_string(zel_error));
    return kFailed;
  }
  if (zel_loop_run() < 0) {
    std::fprintf(stderr, "krohttpd: cannot run: %s\n", error_string(zel_error));
    return kFailed;
  }
  zel_loop_drain(daemon_->running == 0 ? kDrainMilliseconds : 0);
  return 0;
}

}  // namespace

int daemonRun(const Options& options) {
  for (const TraceZone& trace : options.traces) kroTraceEnable(trace.zone.c_str(), trace.level);
  if (!options.accessLog.empty() && !accessLogOpen(options.accessLog)) {
    std::fprintf(stderr, "krohttpd: cannot open %s: %s\n", options.accessLog.c_str(), std::strerror(errno));
    return kFailed;
  }
  Users users;
  std::string error;
  if (!options.authFile.empty() && !users.load(options.authFile, &error)) {
    std::fprintf(stderr, "krohttpd: %s\n", error.c_str());
    return kFailed;
  }
  if (!uploadSetUp(options, &error)) {
    std::fprintf(stderr, "krohttpd: %s\n", error.c_str());
    return kFailed;
  }
  Daemon daemon;
  daemon_ = &daemon;
  clock_gettime(CLOCK_MONOTONIC, &daemon.started);
  daemon.connection.reset(connection_create());
  routesSetUp(options, users, count, daemon.connection.get());
  const int status = serve(options);
  routesTearDown();
  heapTearDown();
  daemon.deadline.reset();
  // The loop has ended: nobody would be told, and what it takes to tell would be left over.
  for (const auto& server : daemon.servers) {
    server->stoppedHandler = nullptr;
    http_serverLimitsSet(server.get(), nullptr);
  }
  daemon.connection.reset();
  zel_loop_close();
  accessLogClose();
  return status;
}
