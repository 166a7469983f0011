#include "incoming_file.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "upload_name.h"

namespace {

constexpr mode_t kMode = 0666;  // less what the umask takes away
constexpr unsigned kMostNumbers = 10000;
constexpr unsigned kMostHiddenNames = 100;

// Writing to the disk begins in steps of this size, long before the end ...
constexpr uint64_t kStep = 1024 * 1024;
// ... and no more than this may be on its way: what is left for the end, which has to wait for it, is short.
constexpr uint64_t kMostUnderWay = 8 * kStep;

// File systems that write in their own way; complete() is enough for them.
bool isUnsupported(int error) { return error == EINVAL || error == ESPIPE || error == ENOSYS || error == EOPNOTSUPP; }

bool syncRange(int file, uint64_t from, uint64_t to, unsigned flags) {
  return sync_file_range(file, static_cast<off64_t>(from), static_cast<off64_t>(to - from), flags) == 0 ||
         isUnsupported(errno);
}

// The kernel knows a file without a name by its descriptor.
std::string pathOf(int descriptor) { return "/proc/self/fd/" + std::to_string(descriptor); }

bool canBeNamed(int descriptor) { return access(pathOf(descriptor).c_str(), F_OK) == 0; }

// Files that are being received, of all clients.
unsigned filesUnderWay = 0;

// More would leave too few descriptors for connections. The others have three quarters, as many as wanted.
bool areTooMany() {
  rlimit limit{};
  return getrlimit(RLIMIT_NOFILE, &limit) == 0 && filesUnderWay > limit.rlim_cur / 4;
}

// Only for names nobody else may take first: they are told apart by the kernel, not by chance.
std::string hiddenName() {
  static unsigned count = 0;
  return ".krohttpd-upload-" + std::to_string(getpid()) + "-" + std::to_string(count++);
}

}  // namespace

OwnedDescriptor::~OwnedDescriptor() {
  if (descriptor_ >= 0) close(descriptor_);
}

OwnedDescriptor::OwnedDescriptor(OwnedDescriptor&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)) {}

OwnedDescriptor& OwnedDescriptor::operator=(OwnedDescriptor&& other) noexcept {
  std::swap(descriptor_, other.descriptor_);
  return *this;
}

IncomingFile::IncomingFile(int directory, std::string name)
    : directory_(directory), name_(std::move(name)), hash_(EVP_MD_CTX_new(), &EVP_MD_CTX_free) {
  ++filesUnderWay;
}

IncomingFile::~IncomingFile() {
  --filesUnderWay;
  if (!hiddenName_.empty()) unlinkat(directory_, hiddenName_.c_str(), 0);
}

bool IncomingFile::create() {
  if (areTooMany()) {
    errno = EMFILE;
    return false;
  }
  if (!hash_ || EVP_DigestInit_ex(hash_.get(), EVP_sha256(), nullptr) != 1) {
    errno = ENOMEM;
    return false;
  }
  file_ = OwnedDescriptor(openat(directory_, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, kMode));
  if (file_.get() >= 0 && canBeNamed(file_.get())) return true;
  // Not every file system has files without a name.
  if (file_.get() < 0 && errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL && errno != ENOENT) return false;
  return createHidden();
}

bool IncomingFile::createHidden() {
  for (unsigned i = 0; i < kMostHiddenNames; ++i) {
    const std::string name = hiddenName();
    file_ = OwnedDescriptor(openat(directory_, name.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, kMode));
    if (file_.get() >= 0) {
      hiddenName_ = name;
      return true;
    }
    if (errno != EEXIST) return false;
  }
  return false;
}

bool IncomingFile::write(const char* bytes, size_t count) {
  if (EVP_DigestUpdate(hash_.get(), bytes, count) != 1) {
    errno = ENOMEM;
    return false;
  }
  while (count > 0) {
    const ssize_t written = ::write(file_.get(), bytes, count);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    bytes += written;
    count -= static_cast<size_t>(written);
    size_ += static_cast<uint64_t>(written);
  }
  return size_ - started_ < kStep || startWriting();
}

bool IncomingFile::startWriting() {
  if (!syncRange(file_.get(), started_, size_, SYNC_FILE_RANGE_WRITE)) return false;
  started_ = size_;
  if (started_ - awaited_ <= kMostUnderWay) return true;
  const uint64_t until = started_ - kMostUnderWay;
  if (!syncRange(file_.get(), awaited_, until, SYNC_FILE_RANGE_WAIT_BEFORE)) return false;
  awaited_ = until;
  return true;
}

bool IncomingFile::complete() {
  if (EVP_DigestFinal_ex(hash_.get(), digest_, nullptr) != 1) {
    errno = ENOMEM;
    return false;
  }
  return fdatasync(file_.get()) == 0;
}

// Never in place of another file.
bool IncomingFile::giveName(const std::string& name) {
  if (hiddenName_.empty())
    return linkat(AT_FDCWD, pathOf(file_.get()).c_str(), directory_, name.c_str(), AT_SYMLINK_FOLLOW) == 0;
  if (renameat2(directory_, hiddenName_.c_str(), directory_, name.c_str(), RENAME_NOREPLACE) == 0) {
    hiddenName_.clear();
    return true;
  }
  // The hidden name then goes with the object.
  return (errno == EINVAL || errno == ENOSYS) &&
         linkat(directory_, hiddenName_.c_str(), directory_, name.c_str(), 0) == 0;
}

bool IncomingFile::publish() {
  const std::string wanted = name_;
  for (unsigned number = 0; number <= kMostNumbers; ++number) {
    if (number > 0) name_ = numberedUploadName(wanted, number);
    published_ = giveName(name_);
    if (published_) return true;
    if (errno != EEXIST) return false;
  }
  return false;
}

void IncomingFile::withdraw() {
  if (published_) unlinkat(directory_, name_.c_str(), 0);
  published_ = false;
}

std::string IncomingFile::sha256() const {
  std::string text;
  std::array<char, 3> digits;
  for (int i = 0; i < EVP_MD_get_size(EVP_sha256()); ++i) {
    std::snprintf(digits.data(), digits.size(), "%02x", digest_[i]);
    text += digits.data();
  }
  return text;
}
