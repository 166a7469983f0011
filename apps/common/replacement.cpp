#include "common/replacement.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

std::string fileBehind(const std::string& path) {
  char real[PATH_MAX];
  return realpath(path.c_str(), real) != nullptr ? real : path;
}

Replacement::Replacement(const std::string& path) : path_(path), name_(path + ".XXXXXX") {
  descriptor_ = mkostemp(name_.data(), O_CLOEXEC);  // mode 0600
}

Replacement::~Replacement() {
  const int error = errno;
  if (descriptor_ >= 0) close(descriptor_);
  if (descriptor_ >= 0 && !done_) unlink(name_.c_str());
  errno = error;
}

bool Replacement::write(const std::string& text) {
  if (descriptor_ < 0) return false;
  keepOwner();
  if (!writeAll(text) || fchmod(descriptor_, S_IRUSR | S_IWUSR) != 0 || fsync(descriptor_) != 0) return false;
  done_ = rename(name_.c_str(), path_.c_str()) == 0;
  if (done_) syncDirectory();
  return done_;
}

bool Replacement::writeAll(const std::string& text) const {
  for (size_t at = 0; at < text.size();) {
    const ssize_t count = ::write(descriptor_, text.data() + at, text.size() - at);
    if (count < 0 && errno != EINTR) return false;
    if (count > 0) at += static_cast<size_t>(count);
  }
  return true;
}

// A file written by root is still to be read by whom it belongs to.
void Replacement::keepOwner() const {
  struct stat status {};
  if (stat(path_.c_str(), &status) == 0 && fchown(descriptor_, status.st_uid, status.st_gid) != 0) errno = 0;
}

// The new name is on the disk only with its directory.
void Replacement::syncDirectory() const {
  const size_t slash = path_.rfind('/');
  const std::string directory = slash == std::string::npos ? "." : path_.substr(0, slash + 1);
  const int descriptor = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) return;
  fsync(descriptor);
  close(descriptor);
}
