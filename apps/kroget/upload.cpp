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
  seekable_ = regular_;
  return {};
}

Failure Upload::takeData(const std::string& argument) {
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

Failure Upload::begin() {
  textAt_ = 0;
  length_.reset();
  if (source_.get() < 0) {
    length_ = text_.size();
    return {};
  }
  if (!canBeRepeated()) return failure("it cannot be read a second time");
  if (!regular_) return {};
  struct stat status;
  if (lseek(source_.get(), 0, SEEK_SET) < 0 || fstat(source_.get(), &status) < 0) return failureOfErrno();
  length_ = static_cast<uint64_t>(status.st_size);
  return {};
}

ssize_t Upload::read(char* buffer, size_t size) {
  if (source_.get() < 0) {
    const size_t count = text_.copy(buffer, size, textAt_);
    textAt_ += count;
    return static_cast<ssize_t>(count);
  }
  pollfd source = {source_.get(), POLLIN, 0};
  if (!regular_ && poll(&source, 1, kWaitMilliseconds) <= 0) {
    errno = EAGAIN;
    return -1;
  }
  const ssize_t count = ::read(source_.get(), buffer, size);
  if (count >= 0) consumed_ = true;
  if (count < 0 && errno == EINTR) errno = EAGAIN;
  return count;
}
