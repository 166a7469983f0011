#include "progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "text.h"

namespace {

constexpr unsigned kPatienceMilliseconds = 1000;
constexpr unsigned kIntervalMilliseconds = 200;
constexpr size_t kUsualWidth = 80;
constexpr size_t kBarWidth = 24;

size_t terminalWidth() {
  winsize size{};
  return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : kUsualWidth;
}

std::string bar(double part) {
  const auto full = static_cast<size_t>(part * kBarWidth);
  return "[" + std::string(full, '#') + std::string(kBarWidth - full, '-') + "]";
}

std::string rate(uint64_t done, double seconds) {
  return humanSize(static_cast<uint64_t>(static_cast<double>(done) / seconds)) + "/s";
}

}  // namespace

bool progressIsWelcome() { return isatty(STDOUT_FILENO) != 0 && isatty(STDERR_FILENO) != 0; }

std::string progressLine(uint64_t done, std::optional<uint64_t> total, double seconds, size_t width) {
  std::string line = humanSize(done);
  if (total && *total > 0) {
    const double part = std::min(1.0, static_cast<double>(done) / static_cast<double>(*total));
    char percent[8];
    std::snprintf(percent, sizeof percent, "%3d%%", static_cast<int>(part * 100));
    line = std::string(percent) + " " + bar(part) + " " + line + " of " + humanSize(*total);
  }
  line += ", " + rate(done, seconds);
  if (total && done > 0 && done <= *total)
    line += ", " +
            humanTime(static_cast<uint64_t>(static_cast<double>(*total - done) * seconds / static_cast<double>(done))) +
            " left";
  return line.substr(0, width);
}

void Progress::begin(std::optional<uint64_t> total) {
  end();
  if (!allowed_) return;
  total_ = total;
  done_ = 0;
  begun_ = std::chrono::steady_clock::now();
  timer_ = makeTimer([](ZelTimer*, void* progress) { static_cast<Progress*>(progress)->draw(); }, this);
  if (timer_) zel_timer_start(timer_.get(), kPatienceMilliseconds);
}

void Progress::draw() {
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - begun_;
  // The last column stays free: some terminals go to the next line behind it.
  const std::string line = progressLine(done_, total_, elapsed.count(), terminalWidth() - 1);
  std::fprintf(stderr, "\r%s\x1b[K", line.c_str());
  std::fflush(stderr);
  drawn_ = true;
  zel_timer_start(timer_.get(), kIntervalMilliseconds);
}

void Progress::end() {
  timer_.reset();
  if (drawn_) std::fputs("\r\x1b[K", stderr);
  drawn_ = false;
}
