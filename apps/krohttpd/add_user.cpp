#include "add_user.h"

#include <krohttp/krohttp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/password_prompt.h"
#include "common/replacement.h"
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
  std::optional<std::string> password = terminal ? askPassword("Password: ", STDIN_FILENO) : readLine();
  if (!password || password->empty()) {
    *reason = "no password was given";
    return std::nullopt;
  }
  if (!terminal) return password;
  std::optional<std::string> again = askPassword("The same again: ", STDIN_FILENO);
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

// A device or a pipe, which has no end, or is gone once it was read.
bool isSpecial(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode);
}

bool exists(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 || errno != ENOENT;
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
  const std::string path = fileBehind(user.file);
  if (isSpecial(path)) return failed("cannot write " + user.file + ": it is no regular file");
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
