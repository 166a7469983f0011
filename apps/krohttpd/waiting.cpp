#include "waiting.h"

#include <zel/peer.h>
#include <zel/timer.h>

#include <algorithm>
#include <memory>
#include <unordered_map>
#include <utility>

namespace {

constexpr size_t kMostBySource = 8;
constexpr size_t kMostInAll = 256;

struct TimerDeleter {
  void operator()(ZelTimer* timer) const { zel_timer_destroy(timer); }
};

struct Waiter {
  HttpRequest* request;
  HttpReply* reply;
  std::string source;
  bool paused;
  Answer answer;
  std::unique_ptr<ZelTimer, TimerDeleter> timer;
};

std::unordered_map<ZelPeer*, Waiter> waiters;
bool stopping = false;

// A server that was stopped tells nobody when a client leaves: its peer does.
bool forget(ZelPeer* peer) {
  waiters.erase(peer);
  return true;
}

void run(ZelPeer* peer) {
  const auto waiter = waiters.extract(peer);
  const Waiter& due = waiter.mapped();
  const bool resumed = !due.paused || http_serverResumeRequest(due.request) == 0;
  if (!resumed || due.answer(due.request, due.reply) < 0) peer_destroy(peer);
}

void onDue(ZelTimer*, void* peer) { run(static_cast<ZelPeer*>(peer)); }

bool start(ZelTimer* timer, ZelPeer* peer, unsigned milliseconds) {
  if (timer == nullptr) return false;
  zel_timer_setUserData(timer, peer);
  zel_timer_setHandler(timer, onDue);
  return zel_timer_start(timer, milliseconds);
}

}  // namespace

bool isWaitingFull(const std::string& source) {
  if (waiters.size() >= kMostInAll) return true;
  const auto ofSource =
      std::count_if(waiters.begin(), waiters.end(), [&](const auto& waiter) { return waiter.second.source == source; });
  return static_cast<size_t>(ofSource) >= kMostBySource;
}

int answerLater(HttpRequest* request, HttpReply* reply, const std::string& source, unsigned milliseconds,
                Answer answer) {
  if (milliseconds == 0 || stopping) return answer(request, reply);
  ZelPeer* const peer = http_requestPeer(request);
  const bool paused = http_requestState(request) == HTTP_MSG_BODY;
  std::unique_ptr<ZelTimer, TimerDeleter> timer(zel_timer_create());
  if (!peer_addCloseHandler(peer, forget) || !start(timer.get(), peer, milliseconds)) return -1;
  if (paused && http_serverPauseRequest(request) < 0) return -1;
  waiters.insert_or_assign(peer, Waiter{request, reply, source, paused, std::move(answer), std::move(timer)});
  return 0;
}

void waitingStop() {
  stopping = true;
  while (!waiters.empty()) run(waiters.begin()->first);
}

void waitingTearDown() { waiters.clear(); }
