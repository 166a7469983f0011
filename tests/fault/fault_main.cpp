// Lets one call after the other fail, in a process of its own each, until a scenario gets by untouched. Whatever fails,
// the program lives on, a reply is right as far as it comes, nothing hangs, the next client is served as ever, and in
// the end neither memory nor a descriptor is left behind.
//
// Usage: fault_tests SCENARIO [CALL ERROR N]    with these, this fault alone and all that is said
#include <fcntl.h>
#include <krotrace/krotrace.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <uv.h>
#include <zel/loop.h>

#include <algorithm>
#include <array>
#include <bitset>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fault/inject.h"
#include "fault/scenarios.h"

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

#ifdef KROHTTP_COVERAGE
extern "C" void __gcov_dump();
#endif

namespace {

struct Kind {
  Call call;
  const char* name;
  std::vector<int> errors;
};

const std::vector<Kind>& kinds() {
  static const std::vector<Kind> all = {
      {Call::Allocate, "malloc", {ENOMEM}},
      {Call::Read, "read", {EINTR, EAGAIN, EIO, kOneByte}},
      {Call::Write, "write", {EINTR, EAGAIN, ENOSPC, EPIPE, kOneByte}},
      {Call::Recv, "recv", {EINTR, EAGAIN, ECONNRESET, ETIMEDOUT, ENOMEM, kOneByte}},
      {Call::Send, "send", {EINTR, EAGAIN, EPIPE, ECONNRESET, ENOBUFS, ENOMEM, kOneByte}},
      {Call::SendMsg, "sendmsg", {EINTR, EAGAIN, EPIPE, ECONNRESET, ENOBUFS, ENOMEM, kOneByte}},
      {Call::Accept, "accept4", {EINTR, EAGAIN, ECONNABORTED, EPROTO, EPERM, EMFILE, ENFILE, ENOBUFS, ENOMEM}},
      {Call::Socket, "socket", {EMFILE, ENFILE, ENOBUFS, ENOMEM, EACCES, EAFNOSUPPORT}},
      {Call::Connect, "connect", {EINTR, EAGAIN, ECONNREFUSED, ENETUNREACH, ETIMEDOUT, EADDRNOTAVAIL}},
      {Call::Bind, "bind", {EADDRINUSE, EACCES, EADDRNOTAVAIL, ENOMEM}},
      {Call::Listen, "listen", {EADDRINUSE}},
      {Call::SetSockOpt, "setsockopt", {ENOPROTOOPT, EINVAL, ENOMEM}},
      {Call::GetSockOpt, "getsockopt", {ENOBUFS}},
      {Call::Shutdown, "shutdown", {ENOTCONN}},
      {Call::SendFile, "sendfile", {EINTR, EAGAIN, EINVAL, ENOSYS, EIO, ENOMEM, EPIPE, ECONNRESET, kOneByte}},
      {Call::Splice, "splice", {EINTR, EAGAIN, EINVAL, ENOMEM, EPIPE, ECONNRESET, kOneByte}},
      {Call::Open, "open", {EINTR, EMFILE, ENFILE, ENOENT, EACCES, ENOMEM, EIO}},
      {Call::Stat, "stat", {ENOENT, EACCES, ELOOP, ENOMEM, EIO}},
      {Call::RealPath, "realpath", {ENOENT, EACCES, ELOOP, ENOMEM, EIO}},
      {Call::Lseek, "lseek", {EINVAL}},
      {Call::Fcntl, "fcntl", {EINVAL}},
      {Call::Poll, "poll", {EINTR, ENOMEM}},
      {Call::Close, "close", {EINTR, EIO}},
      {Call::EpollCreate, "epoll_create1", {EMFILE, ENFILE, ENOMEM}},
      {Call::EpollCheck, "epoll_ctl", {ENOMEM, ENOSPC, EPERM}},
      {Call::EpollWait, "epoll_wait", {EINTR}},
  };
  return all;
}

const char* errorName(int error) { return error == kOneByte ? "one byte" : strerrorname_np(error); }

// Whoever is told this tries again, or does without: a client sees nothing of it.
bool isHarmless(const Fault& fault) {
  const bool again = fault.error == EINTR || fault.error == EAGAIN || fault.error == kOneByte;
  switch (fault.call) {
    case Call::Recv:
    case Call::Send:
    case Call::SendMsg:
    case Call::SendFile:
    case Call::Splice:
      return again;
    case Call::Write:  // of the trace
    case Call::Accept:
    case Call::SetSockOpt:
    case Call::Shutdown:
    case Call::Fcntl:
    case Call::Poll:
    case Call::Close:
    case Call::EpollWait:
      return true;
    default:
      return false;
  }
}

// --- judging ---------------------------------------------------------------------------------------------------------

std::string quoted(const std::string& text) {
  constexpr size_t kMost = 200;
  std::string shown = "\"";
  for (const char c : text.substr(0, kMost)) {
    if (c == '\r') continue;
    shown += c == '\n' ? std::string("\\n") : std::string(1, c >= ' ' && c <= '~' ? c : '.');
  }
  return shown + (text.size() > kMost ? "\"... " : "\" ") + std::to_string(text.size()) + " bytes";
}

// From the reply @p first on.
std::string told(const Visit& visit, size_t first = 0) {
  std::string text;
  for (size_t i = first; i < visit.pieces.size() && i < first + 2; ++i)
    text += "\n      reply " + std::to_string(i) + ": " + quoted(visit.pieces[i].text) +
            (visit.pieces[i].whole ? "" : ", cut");
  return text + (visit.ended ? "\n      ended" : "");
}

bool isCutFrom(const std::string& part, const std::vector<std::string>& wholes) {
  return std::any_of(wholes.begin(), wholes.end(),
                     [&](const std::string& whole) { return whole.compare(0, part.size(), part) == 0; });
}

// What is wrong with a visit under a fault, "" when nothing is.
std::string complaintOf(const Scenario& scenario, const Visit& visit, const std::vector<Piece>& expected) {
  if (visit.hung)
    return "hangs: neither a reply nor the end of the connection, after" +
           told(visit, visit.pieces.empty() ? 0 : visit.pieces.size() - 1);
  if (!visit.offence.empty()) return visit.offence;
  if (visit.held) return "holds on to a connection that its client has left";
  for (size_t i = 0; i < visit.pieces.size(); ++i) {
    const Piece& piece = visit.pieces[i];
    if (i == expected.size()) return "says more than it was asked" + told(visit, i);
    std::vector<std::string> right = scenario.instead;
    right.push_back(expected[i].text);
    if (scenario.firstInstead) right.push_back(expected[0].text);
    if (!isCutFrom(piece.text, right)) return "gives a wrong reply" + told(visit, i);
    if (piece.whole && std::find(right.begin(), right.end(), piece.text) == right.end())
      return "gives a reply that only seems complete" + told(visit, i);
    if (!piece.whole && !visit.ended) return "leaves a reply incomplete" + told(visit, i);
  }
  if (visit.pieces.size() < expected.size() && !visit.ended && !visit.stopped) return "gives no reply" + told(visit);
  return "";
}

// --- one fault -------------------------------------------------------------------------------------------------------

// Without memory of its own, which would be counted.
struct Left {
  long blocks = liveBlocks();
  std::bitset<1024> descriptors = openDescriptors();

  static std::bitset<1024> openDescriptors() {
    std::bitset<1024> open;
    for (size_t fd = 0; fd < open.size(); ++fd) open[fd] = fcntl(static_cast<int>(fd), F_GETFD) >= 0;
    return open;
  }
  friend bool operator==(const Left& a, const Left& b) {
    return a.blocks == b.blocks && a.descriptors == b.descriptors;
  }
};

// What the child tells. Of a fixed size, so that it needs no memory that would be missed.
struct Report {
  unsigned calls;
  bool hit;
  std::array<char, 4096> complaint;
};

Report* report;

void attempt(const Scenario& scenario, const Fault& fault, const std::vector<Piece>& expected) {
  const auto complain = [](const std::string& text) {
    text.copy(report->complaint.data(), report->complaint.size() - 1);
  };
  scenario.open();
  setFault(fault);
  {
    const Visit visit = scenario.visit();
    report->calls = callsSeen();
    report->hit = faultHit();
    setFault({});
    const std::string complaint = complaintOf(scenario, visit, expected);
    if (!complaint.empty()) {
      complain(complaint);
    } else if (!report->hit && visit.pieces != expected) {
      complain("does not answer as before although nothing has failed" + told(visit));
    } else if (isHarmless(fault) && visit.pieces != expected) {
      complain("does not get over it" + told(visit));
    } else {
      const Visit next = scenario.visit();
      if (next.pieces != expected || next.hung || next.held) complain("does not serve the next client" + told(next));
    }
  }
  closeSite();
}

void compare(const Left& before, const Left& after) {
  if (report->complaint[0] != '\0') return;
  if (before.blocks != after.blocks) {
    snprintf(report->complaint.data(), report->complaint.size(), "leaves %ld blocks of memory behind",
             after.blocks - before.blocks);
#ifdef __SANITIZE_ADDRESS__
    __lsan_do_recoverable_leak_check();
#endif
  } else if (before.descriptors != after.descriptors) {
    snprintf(report->complaint.data(), report->complaint.size(), "leaves %zu descriptors open, not %zu",
             after.descriptors.count(), before.descriptors.count());
  }
}

// What lasts as long as the process, and is made at its first failure, is there before the second attempt.
void runInChild(const Scenario& scenario, const Fault& fault, const std::vector<Piece>& expected) {
  constexpr unsigned kSeconds = 15;  // for a call that never returns
  alarm(kSeconds);
  kroTraceToStderr();
  const Left before;
  attempt(scenario, fault, expected);
  const Left after;
  if (before == after || report->complaint[0] != '\0') return;
  attempt(scenario, fault, expected);
  compare(after, Left());
}

struct Outcome {
  unsigned calls = 0;
  bool hit = false;
  std::string complaint;  // "" when there is none
};

std::string endOf(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status) == 0 ? "" : "exits with " + std::to_string(WEXITSTATUS(status));
  return WTERMSIG(status) == SIGALRM ? "never returns" : std::string("dies: ") + strsignal(WTERMSIG(status));
}

std::string readAll(int fd) {
  std::string text;
  std::array<char, 4096> block;
  lseek(fd, 0, SEEK_SET);
  for (ssize_t count; (count = read(fd, block.data(), block.size())) > 0;)
    text.append(block.data(), static_cast<size_t>(count));
  return text;
}

Outcome run(const Scenario& scenario, const Fault& fault, const std::vector<Piece>& expected) {
  *report = {};
  const int said = memfd_create("said", MFD_CLOEXEC);
  const pid_t child = fork();
  if (child == 0) {
    dup2(said, STDOUT_FILENO);
    dup2(said, STDERR_FILENO);
    runInChild(scenario, fault, expected);
#ifdef KROHTTP_COVERAGE
    __gcov_dump();
#endif
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  Outcome outcome{report->calls, report->hit, endOf(status)};
  if (outcome.complaint.empty()) outcome.complaint = report->complaint.data();
  if (!outcome.complaint.empty()) outcome.complaint += "\n" + readAll(said);
  close(said);
  return outcome;
}

// Of a reply as it came, or as the library's own client tells of it.
std::string statusOf(const Piece& piece) {
  return piece.text.compare(0, 5, "HTTP/") == 0 ? piece.text.substr(9, 3) : piece.text.substr(0, 3);
}

// --- all faults of a scenario ----------------------------------------------------------------------------------------

class Campaign {
 public:
  explicit Campaign(const Scenario& scenario) : scenario_(scenario) {
    // What lasts as long as the process is made here.
    kroTraceToFunction(nullptr, nullptr);
    scenario.open();
    expected_ = scenario.visit().pieces;
    closeSite();
    std::string statuses;
    for (const Piece& piece : expected_) statuses += (statuses.empty() ? "" : " ") + statusOf(piece);
    right_ = statuses == scenario.statuses;
    printf("%s: replies %s%s\n", scenario.name, statuses.c_str(), right_ ? "" : ", which is not what it should be");
  }

  bool runAll() {
    for (const Kind& kind : kinds()) runKind(kind);
    printf("%s: %u faults in all, %u failures\n", scenario_.name, faults_, failures_);
    return failures_ == 0 && faults_ > 0 && right_;
  }

  bool runOne(const Fault& fault) {
    const Outcome outcome = run(scenario_, fault, expected_);
    printf("%s after %u calls\n%s\n", outcome.hit ? "failed" : "did not fail", outcome.calls,
           outcome.complaint.c_str());
    return outcome.complaint.empty();
  }

 private:
  static constexpr unsigned kStride = 16;
  static constexpr unsigned kMostFailures = 12;

  void runKind(const Kind& kind) {
    const Outcome untouched = run(scenario_, {kind.call, 0, 0, false}, expected_);
    if (!untouched.complaint.empty()) tell(kind, {}, untouched);
    if (untouched.calls == 0) return;
    const unsigned before = faults_;
    for (const int error : kind.errors) runError(kind, {kind.call, error, 1, false});
    if (kind.call == Call::Allocate) runError(kind, {kind.call, ENOMEM, 1, true});
    printf("  %-13s %3u calls, %4u faults%s\n", kind.name, untouched.calls, faults_ - before,
           untouched.calls > scenario_.each ? ", of the later calls each 16th" : "");
  }

  void runError(const Kind& kind, Fault fault) {
    for (; failures_ < kMostFailures; fault.nth += fault.nth < scenario_.each ? 1 : kStride) {
      const Outcome outcome = run(scenario_, fault, expected_);
      if (!outcome.complaint.empty()) tell(kind, fault, outcome);
      if (!outcome.hit) return;
      ++faults_;
    }
  }

  void tell(const Kind& kind, const Fault& fault, const Outcome& outcome) {
    ++failures_;
    printf("FAILURE %s: %s %u %s%s: %s\n", scenario_.name, kind.name, fault.nth,
           fault.nth == 0 ? "(none)" : errorName(fault.error), fault.forGood ? " and all later ones" : "",
           outcome.complaint.c_str());
  }

  const Scenario& scenario_;
  std::vector<Piece> expected_;
  bool right_ = false;
  unsigned faults_ = 0;
  unsigned failures_ = 0;
};

// libuv ends the process when its table of descriptors cannot grow.
void* growSpared(void* block, size_t size) {
  const Spared spared;
  return realloc(block, size);
}

bool parseFault(char** arguments, Fault* fault) {
  for (const Kind& kind : kinds()) {
    if (std::strcmp(kind.name, arguments[0]) != 0) continue;
    fault->call = kind.call;
    for (const int error : kind.errors)
      if (std::strcmp(errorName(error), arguments[1]) == 0) fault->error = error;
    fault->nth = static_cast<unsigned>(atoi(arguments[2]));
    fault->forGood = std::strchr(arguments[2], '+') != nullptr;
    return fault->error != 0 && fault->nth > 0;
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  setlinebuf(stdout);  // nothing of it may come once more from a child
  const bool single = argc == 5;
  if (single || argc == 2)
    for (const Scenario& scenario : scenarios()) {
      if (std::strcmp(scenario.name, argv[1]) != 0) continue;
      uv_replace_allocator(malloc, growSpared, calloc, free);
      report = static_cast<Report*>(
          mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
      Fault fault;
      if (single && !parseFault(argv + 2, &fault)) break;
      Campaign campaign(scenario);
      return (single ? campaign.runOne(fault) : campaign.runAll()) ? 0 : 1;
    }
  fprintf(stderr, "usage: fault_tests SCENARIO [CALL ERROR N[+]]\n");
  return 2;
}
