#include <zel/loop.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <initializer_list>

#include "platform_internal.h"

namespace zel {

Loop loop;
Link connections = {&connections, &connections};

namespace {

struct SignalSlot {
  uv_signal_t handle;
  ZelSignalHandler handler;
  void* userData;
};

SignalSlot* signals[_NSIG];

uv_handle_t* asHandle(void* handle) { return static_cast<uv_handle_t*>(handle); }

/** Peers are looked at in rounds: a handler may give others, or its own peer, something to do. */
void work() {
  for (int round = 0; round < kRoundsPerTurn && !loop.work.alone(); ++round) {
    Link batch;
    batch.takeAll(&loop.work);
    while (!batch.alone()) {
      ZelPeer* peer = linked<ZelPeer>(batch.next);
      loop.settled.append(&peer->link);
      peer_step(peer);
    }
  }
  while (!loop.settled.alone()) {
    ZelPeer* peer = linked<ZelPeer>(loop.settled.next);
    peer->link.leave();
    peer_applyInterest(peer);
  }
}

void restIfIdle() {
  if (loop.work.alone() && loop.due.alone() && loop.ended.alone()) uv_idle_stop(&loop.idle);
}

void onIdle(uv_idle_t*) { timer_runDue(); }

void onPrepare(uv_prepare_t*) {
  work();
  restIfIdle();
}

void onCheck(uv_check_t*) {
  work();
  restIfIdle();
}

/** The timer may run out before the turn has come to its wait, which must be none then. */
void onLimit(uv_timer_t*) { uv_stop(&loop.uv); }

void ignoreSigpipe() {
  struct sigaction action;
  if (sigaction(SIGPIPE, nullptr, &action) == 0 && !(action.sa_flags & SA_SIGINFO) && action.sa_handler == SIG_DFL)
    signal(SIGPIPE, SIG_IGN);
}

void initTimer(uv_timer_t* timer) {
  uv_timer_init(&loop.uv, timer);
  uv_unref(asHandle(timer));
}

void initHandles() {
  uv_prepare_init(&loop.uv, &loop.prepare);
  uv_check_init(&loop.uv, &loop.check);
  uv_idle_init(&loop.uv, &loop.idle);
  uv_prepare_start(&loop.prepare, onPrepare);
  uv_check_start(&loop.check, onCheck);
  uv_unref(asHandle(&loop.prepare));
  uv_unref(asHandle(&loop.check));
  initTimer(&loop.limit);
  initTimer(&loop.lingerEnd);
  uv_timer_init(&loop.uv, &loop.acceptAgain);
}

void closeHandles() {
  uv_close(asHandle(&loop.prepare), nullptr);
  uv_close(asHandle(&loop.check), nullptr);
  uv_close(asHandle(&loop.idle), nullptr);
  uv_close(asHandle(&loop.limit), nullptr);
  uv_close(asHandle(&loop.lingerEnd), nullptr);
  uv_close(asHandle(&loop.acceptAgain), nullptr);
}

void initLists() {
  for (Link* list : {&loop.work, &loop.settled, &loop.ended, &loop.lingering, &loop.timers, &loop.due, &loop.starved})
    list->init();
}

/** Close handlers may end peers of any connection, and destroy connections. */
void endEveryPeer() {
  bool found = true;
  while (found) {
    found = false;
    for (Link* link = connections.next; link != &connections; link = link->next) {
      ZelListIterator walk;
      ZelPeer* peer = static_cast<ZelPeer*>(llist_first(linked<ZelConnection>(link)->peers, &walk));
      if (!peer) continue;
      found = true;
      peer_end(peer, Ending::Here);
      break;
    }
  }
}

void onSignal(uv_signal_t* handle, int number) {
  const SignalSlot* slot = reinterpret_cast<SignalSlot*>(handle);
  slot->handler(number, slot->userData);
}

void freeSlot(uv_handle_t* handle) { free(handle); }

void dropSignal(int number) {
  if (!signals[number]) return;
  uv_close(asHandle(&signals[number]->handle), freeSlot);
  signals[number] = nullptr;
}

SignalSlot* makeSignal(int number) {
  SignalSlot* slot = static_cast<SignalSlot*>(calloc(1, sizeof(SignalSlot)));
  if (!slot) return failWithErrno<SignalSlot>();
  uv_signal_init(&loop.uv, &slot->handle);
  const int status = uv_signal_start(&slot->handle, onSignal, number);
  if (status == 0) return signals[number] = slot;
  fail(static_cast<uint32_t>(-status));
  uv_close(asHandle(&slot->handle), freeSlot);
  return nullptr;
}

/** As uv_loop_alive(), but for look-ups that nothing waits for: libuv cannot leave a request uncounted. */
bool isAlive() {
  const bool onlyRequests = loop.uv.active_handles == 0 && !loop.uv.closing_handles;
  return uv_loop_alive(&loop.uv) && !(onlyRequests && loop.uv.active_reqs.count <= loop.unwaited);
}

/** libuv does nothing for what lingers alone: its timer stands in for it. */
template <typename Call>
int withLingering(Call call) {
  const bool lingersAlone = !loop.lingering.alone() && !uv_loop_alive(&loop.uv);
  if (lingersAlone) uv_ref(asHandle(&loop.lingerEnd));
  const int result = call();
  if (lingersAlone) uv_unref(asHandle(&loop.lingerEnd));
  return result;
}

void runOnce(uv_run_mode mode) {
  loop.inWait = true;
  withLingering([=] { return uv_run(&loop.uv, mode); });
  loop.inWait = false;
}

/** A handler runs, or the loop ends: a turn would free what its caller still has in hand. */
bool isBusy() { return loop.inTurn || loop.endings > 0 || loop.closing; }

uint64_t milliseconds(uint64_t from, uint64_t to) { return to > from ? to - from : 0; }

}  // namespace

bool loop_open() {
  if (loop.closing) return fail(ECANCELED);
  if (loop.open) return true;
  const int status = uv_loop_init(&loop.uv);
  if (status < 0) return fail(static_cast<uint32_t>(-status));
  ignoreSigpipe();
  initLists();
  initHandles();
  return loop.open = true;
}

void loop_stayAwake() { uv_idle_start(&loop.idle, onIdle); }

void loop_markWork(ZelPeer* peer) {
  if (peer->ending) return;
  loop.work.append(&peer->link);
  loop_stayAwake();
}

uint64_t loop_now() { return uv_hrtime() / 1000000; }

// libuv's own clock stands still between turns and during handlers. It must not be put forward inside a turn: timers
// run while one of them is due.
void loop_startTimer(uv_timer_t* timer, uv_timer_cb callback, uint64_t due) {
  uv_timer_start(timer, callback, milliseconds(uv_now(&loop.uv), due), 0);
}

char* loop_takeBuffer() {
  if (loop.bufferCount > 0) return loop.buffers[--loop.bufferCount];
  return static_cast<char*>(malloc(kStreamBufferSize));
}

void loop_returnBuffer(char* buffer) {
  if (loop.bufferCount < kPooledBuffers)
    loop.buffers[loop.bufferCount++] = buffer;
  else
    free(buffer);
}

}  // namespace zel

using zel::loop;

extern "C" bool zel_loop_turn(int milliseconds) {
  if (zel::isBusy()) return zel::fail(EBUSY);
  if (!zel::loop_open()) return false;
  loop.inTurn = true;
  ++loop.turn;
  if (milliseconds > 0) {
    uv_update_time(&loop.uv);
    uv_timer_start(&loop.limit, zel::onLimit, static_cast<uint64_t>(milliseconds), 0);
  }
  zel::runOnce(milliseconds == 0 ? UV_RUN_NOWAIT : UV_RUN_ONCE);
  uv_timer_stop(&loop.limit);
  zel::work();  // of the timers that ran last
  zel::peer_releaseEnded();
  zel::restIfIdle();
  loop.inTurn = false;
  return zel::isAlive();
}

extern "C" int zel_loop_run(void) {
  if (zel::isBusy()) {
    zel::fail(EBUSY);
    return -1;
  }
  if (!zel::loop_open()) return -1;
  loop.stopped = false;
  while (!loop.stopped && zel::isAlive()) zel_loop_turn(-1);
  return 0;
}

extern "C" void zel_loop_stop(void) {
  loop.stopped = true;
  if (loop.inWait) uv_stop(&loop.uv);  // or this turn would go on to wait for the next event
}

extern "C" int zel_loop_descriptor(void) { return zel::loop_open() ? uv_backend_fd(&loop.uv) : -1; }

extern "C" int zel_loop_timeout(void) {
  if (!loop.open) return -1;
  if (loop.lingering.alone() && !uv_loop_alive(&loop.uv)) return -1;
  if (!loop.inTurn) uv_update_time(&loop.uv);
  return zel::withLingering([] { return uv_backend_timeout(&loop.uv); });
}

extern "C" void zel_loop_drain(unsigned milliseconds) {
  if (!loop.open || zel::isBusy()) return;
  const uint64_t end = zel::loop_now() + milliseconds;
  while (!loop.ended.alone() || !loop.lingering.alone()) {
    const uint64_t left = zel::milliseconds(zel::loop_now(), end);
    if (left == 0) break;
    zel_loop_turn(static_cast<int>(std::min<uint64_t>(left, INT32_MAX)));
  }
}

extern "C" bool zel_loop_onSignal(int signal, ZelSignalHandler handler, void* userData) {
  if (signal <= 0 || signal >= _NSIG) return zel::fail(EINVAL);
  if (!zel::loop_open()) return false;
  if (!handler) {
    zel::dropSignal(signal);
    if (signal == SIGPIPE) zel::ignoreSigpipe();
    return true;
  }
  zel::SignalSlot* slot = zel::signals[signal] ? zel::signals[signal] : zel::makeSignal(signal);
  if (!slot) return false;
  slot->handler = handler;
  slot->userData = userData;
  return true;
}

extern "C" void zel_loop_close(void) {
  if (!loop.open || zel::isBusy()) return;
  loop.closing = true;
  zel::endEveryPeer();
  zel::peer_releaseEnded();
  zel::peer_dropAllLingering();
  zel::timer_detachAll();
  for (int signal = 1; signal < _NSIG; ++signal) zel::dropSignal(signal);
  zel::closeHandles();
  uv_run(&loop.uv, UV_RUN_DEFAULT);
  uv_loop_close(&loop.uv);
  while (loop.bufferCount > 0) free(loop.buffers[--loop.bufferCount]);
  zel::queue_freePool();
  loop.open = loop.closing = false;
}
