#include "add_user.h"

#include <fcntl.h>
#include <krohttp/krohttp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "password_prompt.h"
#include "users.h"

namespace {

int failed(const std::string& what) {
  std::fprintf(stderr, "krohttpd: %s\n", what.c_str());
  return 1;
}

void wipe(std::string* text) { explicit_bzero(text->data(), text->size()); }

// --- the password ----------------------------------------------------------------------------------------------------

// Nothing, with the reason, when it cannot be had.
std::optional<std::string> newPassword(std::string* reason) {
  const bool terminal = isatty(STDIN_FILENO) == 1;
  std::optional<std::string> password = terminal ? askPassword("Password: ") : readLine();
  if (!password || password->empty()) {
    *reason = "no password was given";
    return std::nullopt;
  }
  if (!terminal) return password;
  std::optional<std::string> again = askPassword("The same again: ");
  const bool same = again == password;
  if (again) wipe(&*again);
  if (same) return password;
  wipe(&*password);
  *reason = "the passwords differ";
  return std::nullopt;
}

std::optional<std::string> hashOf(const NewUser& user, const std::string& password, std::string* reason) {
  if (password.find('\0') != std::string::npos) *reason = "the password has a NUL in it";
  if (user.name.size() + user.realm.size() + password.size() + 2 > kLongestHashed) *reason = "the password is too long";
  if (!reason->empty()) return std::nullopt;
  const std::unique_ptr<char, decltype(&std::free)> hash(
      http_generateDigestHash(user.name.c_str(), user.realm.c_str(), password.c_str()), &std::free);
  if (hash) return hash.get();
  *reason = "out of memory";
  return std::nullopt;
}

// --- the file --------------------------------------------------------------------------------------------------------

// A file that takes the place of another when it is complete, and is gone otherwise.
class Replacement {
 public:
  explicit Replacement(const std::string& path) : path_(path), name_(path + ".XXXXXX") {
    descriptor_ = mkostemp(name_.data(), O_CLOEXEC);  // mode 0600
  }
  ~Replacement() {
    const int error = errno;
    if (descriptor_ >= 0) close(descriptor_);
    if (descriptor_ >= 0 && !done_) unlink(name_.c_str());
    errno = error;
  }
  Replacement(const Replacement&) = delete;
  Replacement& operator=(const Replacement&) = delete;

  // Returns false with errno.
  bool write(const std::string& text) {
    if (descriptor_ < 0) return false;
    keepOwner();
    for (size_t at = 0; at < text.size();) {
      const ssize_t count = ::write(descriptor_, text.data() + at, text.size() - at);
      if (count < 0 && errno != EINTR) return false;
      if (count > 0) at += static_cast<size_t>(count);
    }
    if (fchmod(descriptor_, S_IRUSR | S_IWUSR) != 0 || fsync(descriptor_) != 0) return false;
    done_ = rename(name_.c_str(), path_.c_str()) == 0;
    if (done_) syncDirectory();
    return done_;
  }

 private:
  // A file written by root is still to be read by the daemon's user.
  void keepOwner() const {
    struct stat status {};
    if (stat(path_.c_str(), &status) == 0 && fchown(descriptor_, status.st_uid, status.st_gid) != 0) errno = 0;
  }
  // The new name is on the disk only with its directory.
  void syncDirectory() const {
    const size_t slash = path_.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : path_.substr(0, slash + 1);
    const int descriptor = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0) return;
    fsync(descriptor);
    close(descriptor);
  }

  std::string path_;
  std::string name_;
  int descriptor_ = -1;
  bool done_ = false;
};

bool exists(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 || errno != ENOENT;
}

// The file that a link leads to is the one to replace.
std::string resolved(const std::string& path) {
  char real[PATH_MAX];
  return realpath(path.c_str(), real) != nullptr ? real : path;
}

// The lines as they stand, with that of the user replaced or added.
std::string contentWith(const std::vector<UserFileLine>& lines, const NewUser& user, const std::string& ha1) {
  const std::string own = user.name + ":" + user.realm + ":" + ha1 + "\n";
  std::string content;
  bool replaced = false;
  for (const UserFileLine& line : lines) {
    const bool isOwn = line.user && line.user->name == user.name && line.user->realm == user.realm;
    content += isOwn ? own : line.text + "\n";
    replaced = replaced || isOwn;
  }
  return replaced ? content : content + own;
}

// The realm of the daemon that reads the file, empty when there is none yet.
std::string realmOf(const std::vector<UserFileLine>& lines) {
  for (const UserFileLine& line : lines)
    if (line.user) return line.user->realm;
  return "";
}

}  // namespace

int addUser(const NewUser& user) {
  if (const auto refusal = refusalOfName(user.name)) return failed("--add-user: the user name " + *refusal);
  if (user.name.starts_with('#')) return failed("--add-user: the user name begins a comment");
  if (const auto refusal = refusalOfName(user.realm)) return failed("--add-user: the realm " + *refusal);
  // What is wrong with the file is told before anybody types.
  const std::string path = resolved(user.file);
  std::vector<UserFileLine> lines;
  std::string reason;
  if (exists(path) && !readUserFile(path, &lines, &reason)) return failed(reason);

  std::optional<std::string> password = newPassword(&reason);
  if (!password) return failed(reason);
  const std::optional<std::string> hash = hashOf(user, *password, &reason);
  wipe(&*password);
  if (!hash) return failed(reason);
  if (!Replacement(path).write(contentWith(lines, user, *hash)))
    return failed("cannot write " + user.file + ": " + std::strerror(errno));
  const std::string realm = realmOf(lines);
  if (!realm.empty() && realm != user.realm)
    std::fprintf(stderr, "krohttpd: the realm of %s is that of its first line, '%s': '%s' cannot log in there\n",
                 user.file.c_str(), realm.c_str(), user.name.c_str());
  return 0;
}
