#include "users.h"

#include <krohttp/krohttp.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <utility>

namespace {

constexpr size_t kHashLength = 32;
// Leaves room for a password in what is hashed.
constexpr size_t kLongestName = 200;

bool isControl(char c) { return static_cast<unsigned char>(c) < 32 || c == 127; }

bool isHash(std::string_view text) {
  return text.size() == kHashLength && text.find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos;
}

std::string lowered(std::string_view hex) {
  std::string text(hex);
  for (char& c : text)
    if (c >= 'A' && c <= 'F') c = static_cast<char>(c - 'A' + 'a');
  return text;
}

// Takes a line apart. Nothing, with the reason, when it is malformed.
std::optional<User> parseUser(std::string_view line, std::string* reason) {
  const size_t first = line.find(':');
  const size_t second = first != std::string_view::npos ? line.find(':', first + 1) : first;
  if (second == std::string_view::npos) {
    *reason = "not USER:REALM:HA1";
    return std::nullopt;
  }
  const std::string_view name = line.substr(0, first);
  const std::string_view realm = line.substr(first + 1, second - first - 1);
  const std::string_view ha1 = line.substr(second + 1);
  if (const auto refusal = refusalOfName(name)) *reason = "the user " + *refusal;
  if (const auto refusal = refusalOfName(realm)) *reason = "the realm " + *refusal;
  if (!isHash(ha1)) *reason = "HA1 is not 32 hexadecimal digits";
  if (!reason->empty()) return std::nullopt;
  return User{std::string(name), std::string(realm), lowered(ha1)};
}

struct FileCloser {
  void operator()(FILE* file) const { std::fclose(file); }
};

bool readLines(const std::string& path, std::vector<UserFileLine>* lines) {
  const std::unique_ptr<FILE, FileCloser> file(std::fopen(path.c_str(), "re"));
  if (!file) return false;
  char* buffer = nullptr;
  size_t size = 0;
  ssize_t length = 0;
  while ((length = getline(&buffer, &size, file.get())) >= 0) {
    std::string text(buffer, static_cast<size_t>(length));
    if (text.ends_with('\n')) text.pop_back();
    lines->push_back({std::move(text), std::nullopt});
  }
  const int error = errno;
  std::free(buffer);
  errno = error;
  return std::ferror(file.get()) == 0;
}

bool isSkipped(std::string_view line) {
  return line.starts_with('#') || line.find_first_not_of(" \t") == std::string_view::npos;
}

// Of two hashes: every character counts, wherever the first difference is.
bool equal(std::string_view a, std::string_view b) {
  volatile unsigned difference = 0;
  for (size_t i = 0; i < kHashLength; ++i) difference = difference | static_cast<unsigned char>(a[i] ^ b[i]);
  return difference == 0;
}

}  // namespace

std::optional<std::string> refusalOfName(std::string_view text) {
  if (text.empty()) return "is empty";
  if (text.size() > kLongestName) return "is longer than " + std::to_string(kLongestName) + " bytes";
  if (text.find(':') != std::string_view::npos) return "has a ':' in it";
  if (std::any_of(text.begin(), text.end(), isControl)) return "has a control character in it";
  // Both stand between quotes in Digest headers, where nothing undoes an escape.
  if (text.find_first_of("\"\\") != std::string_view::npos) return "has a quote or a backslash in it";
  return std::nullopt;
}

bool readUserFile(const std::string& path, std::vector<UserFileLine>* lines, std::string* error) {
  if (!readLines(path, lines)) {
    *error = "cannot read " + path + ": " + std::strerror(errno);
    return false;
  }
  std::set<std::pair<std::string, std::string>> known;
  for (size_t i = 0; i < lines->size(); ++i) {
    UserFileLine& line = (*lines)[i];
    if (isSkipped(line.text)) continue;
    std::string reason;
    line.user = parseUser(line.text, &reason);
    if (line.user && !known.emplace(line.user->name, line.user->realm).second) reason = "the user has a line already";
    if (reason.empty()) continue;
    *error = path + ":" + std::to_string(i + 1) + ": " + reason;
    return false;
  }
  return true;
}

bool Users::load(const std::string& path, std::string* error) {
  std::vector<UserFileLine> lines;
  if (!readUserFile(path, &lines, error)) return false;
  for (const UserFileLine& line : lines) {
    if (!line.user) continue;
    if (realm_.empty()) realm_ = line.user->realm;
    if (line.user->realm == realm_) ha1s_[line.user->name] = line.user->ha1;
  }
  if (!ha1s_.empty()) return true;
  *error = path + ":" + std::to_string(lines.size()) + ": no user up to the end of the file";
  return false;
}

const std::string* Users::ha1Of(std::string_view name) const {
  const auto found = ha1s_.find(name);
  return found != ha1s_.end() ? &found->second : nullptr;
}

bool Users::accept(const std::string& name, const std::string& password) const {
  // Otherwise not all of the password would count.
  if (password.find('\0') != std::string::npos) return false;
  if (name.size() + realm_.size() + password.size() + 2 > kLongestHashed) return false;
  const std::unique_ptr<char, decltype(&std::free)> given(
      http_generateDigestHash(name.c_str(), realm_.c_str(), password.c_str()), &std::free);
  static const std::string kNobody(kHashLength, '-');
  const std::string* const known = ha1Of(name);
  return given && equal(given.get(), known != nullptr ? *known : kNobody);
}
