#include "upload.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace {

// How long to wait for a slow source before the loop gets its turn.
constexpr int kWaitMilliseconds = 20;

int openSource(const std::string& path) {
  return path == "-" ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3) : open(path.c_str(), O_RDONLY | O_CLOEXEC);
}

std::string nameOf(const std::string& path) { return path == "-" ? "standard input" : path; }

bool isDirectory(int fd) {
  struct stat status;
  return fstat(fd, &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

Failure Upload::failure(const std::string& reason) const {
  return {kFileError, "cannot read " + name_ + ": " + reason};
}

Failure Upload::failureOfErrno() const { return failure(std::strerror(errno)); }

Failure Upload::openFile(const std::string& path) {
  name_ = nameOf(path);
  source_.reset(openSource(path));
  if (source_.get() < 0) return failureOfErrno();
  struct stat status;
  if (fstat(source_.get(), &status) < 0) return failureOfErrno();
  if (S_ISDIR(status.st_mode)) return failure(std::strerror(EISDIR));
  regular_ = S_ISREG(status.st_mode) && path != "-";
  return {};
}

Failure Upload::takeData(const std::string& argument) {
  type_ = "application/x-www-form-urlencoded";
  if (!argument.starts_with('@')) {
    text_ = argument;
    return {};
  }
  const std::string path = argument.substr(1);
  name_ = nameOf(path);
  const Descriptor file(openSource(path));
  if (file.get() < 0) return failureOfErrno();
  return isDirectory(file.get()) ? failure(std::strerror(EISDIR)) : readAll(file.get());
}

Failure Upload::readAll(int fd) {
  std::array<char, 65536> block;
  ssize_t count;
  while ((count = ::read(fd, block.data(), block.size())) != 0) {
    if (count > 0)
      text_.append(block.data(), static_cast<size_t>(count));
    else if (errno != EINTR)
      return failureOfErrno();
  }
  return {};
}

std::string Upload::unrepeatable() const { return source_.get() < 0 || regular_ || !consumed_ ? "" : name_; }

Failure Upload::begin() {
  at_ = 0;
  length_.reset();
  if (source_.get() < 0) {
    length_ = text_.size();
    return {};
  }
  if (!unrepeatable().empty()) return failure("it cannot be read a second time");
  if (!regular_) return {};
  struct stat status;
  if (lseek(source_.get(), 0, SEEK_SET) < 0 || fstat(source_.get(), &status) < 0) return failureOfErrno();
  length_ = static_cast<uint64_t>(status.st_size);
  return {};
}

ssize_t Upload::read(char* buffer, size_t size, Failure* failure) {
  if (length_ && *length_ - at_ < size) size = static_cast<size_t>(*length_ - at_);
  if (size == 0) return 0;
  const ssize_t count = source_.get() < 0 ? readText(buffer, size) : readSource(buffer, size, failure);
  if (count > 0) at_ += static_cast<uint64_t>(count);
  return count;
}

ssize_t Upload::readText(char* buffer, size_t size) {
  return static_cast<ssize_t>(text_.copy(buffer, size, static_cast<size_t>(at_)));
}

ssize_t Upload::readSource(char* buffer, size_t size, Failure* failure) {
  pollfd source = {source_.get(), POLLIN, 0};
  if (!regular_ && poll(&source, 1, kWaitMilliseconds) <= 0) return -1;
  const ssize_t count = ::read(source_.get(), buffer, size);
  if (count >= 0) consumed_ = true;
  if (count < 0 && errno != EINTR && errno != EAGAIN) *failure = failureOfErrno();
  if (count > 0 || (count == 0 && !length_)) return count;
  if (count == 0) *failure = this->failure("it became shorter while it was sent");
  return -1;
}
