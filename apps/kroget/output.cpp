#include "output.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

// How long to wait for a slow reader before the loop gets its turn.
constexpr int kWaitMilliseconds = 20;

// What a pipe that is ready for anything takes at once.
constexpr size_t kPiece = PIPE_BUF;

std::string resolved(const std::string& path) {
  char text[PATH_MAX];
  return realpath(path.c_str(), text) != nullptr ? text : path;
}

// ".NAME.kroget-XXXXXX", in the same directory: only there can it be renamed.
std::string temporaryFor(const std::string& path) {
  const size_t name = path.rfind('/') + 1;
  return path.substr(0, name) + "." + path.substr(name, NAME_MAX - 32) + ".kroget-XXXXXX";
}

mode_t modeOfNewFiles() {
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

}  // namespace

Output::~Output() {
  if (!temporary_.empty()) unlink(temporary_.c_str());
}

Failure Output::failureOfErrno() const {
  const int error = errno;
  if (isStandardOutput() && error == EPIPE) return {kFileError, ""};  // the reader has had enough
  return {kFileError, "cannot write " + (isStandardOutput() ? "standard output" : path_) + ": " + std::strerror(error)};
}

Failure Output::open() {
  if (isStandardOutput()) {
    file_.reset(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3));
    return file_.get() < 0 ? failureOfErrno() : Failure();
  }
  struct stat status;
  target_ = resolved(path_);
  const bool exists = stat(target_.c_str(), &status) == 0;
  if (!exists || S_ISREG(status.st_mode)) return openTemporary();
  file_.reset(::open(target_.c_str(), O_WRONLY | O_CLOEXEC));
  return file_.get() < 0 ? failureOfErrno() : Failure();
}

Failure Output::openTemporary() {
  struct stat status;
  const bool exists = stat(target_.c_str(), &status) == 0;
  std::string name = temporaryFor(target_);
  file_.reset(mkostemp(name.data(), O_CLOEXEC));
  if (file_.get() < 0) return failureOfErrno();
  temporary_ = name;
  mayBlock_ = false;
  if (fchmod(file_.get(), exists ? status.st_mode & 07777 : modeOfNewFiles()) < 0) return failureOfErrno();
  return {};
}

// Takes what was written off @p bytes; what is left would block.
Failure Output::writeNow(std::string_view* bytes, int milliseconds) {
  while (!bytes->empty()) {
    pollfd file = {file_.get(), POLLOUT, 0};
    if (mayBlock_ && poll(&file, 1, milliseconds) <= 0) return {};
    const size_t size = mayBlock_ ? std::min(bytes->size(), kPiece) : bytes->size();
    const ssize_t count = ::write(file_.get(), bytes->data(), size);
    if (count >= 0)
      bytes->remove_prefix(static_cast<size_t>(count));
    else if (errno == EAGAIN)
      return {};
    else if (errno != EINTR)
      return failureOfErrno();
  }
  return {};
}

Failure Output::write(std::string_view bytes) {
  Failure failure;
  if (kept_.empty()) failure = writeNow(&bytes, kWaitMilliseconds);
  kept_.append(bytes);
  return failure;
}

Failure Output::pump() {
  std::string_view rest = kept_;
  Failure failure = writeNow(&rest, kWaitMilliseconds);
  kept_.erase(0, kept_.size() - rest.size());
  return failure;
}

Failure Output::commit() {
  if (temporary_.empty()) return {};
  if (rename(temporary_.c_str(), target_.c_str()) < 0) return failureOfErrno();
  temporary_.clear();
  return {};
}
