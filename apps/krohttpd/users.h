// --auth-file: who may log in, and by what.
//
// A line is "user:realm:HA1", as htdigest writes it. The realm of the first line is the daemon's: users of other realms
// do not match.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct User {
  std::string name;
  std::string realm;
  std::string ha1;  // http_generateDigestHash() of the two and the password
};

// Nothing, or why @p text cannot be a user name or a realm in the file.
std::optional<std::string> refusalOfName(std::string_view text);

// More than this the library does not hash of "user:realm:password".
constexpr size_t kLongestHashed = 600;

struct UserFileLine {
  std::string text;
  std::optional<User> user;  // none in blank lines and comments
};

// Reads the file at @p path. Returns false with one line that names the file and what is wrong with it, and where.
bool readUserFile(const std::string& path, std::vector<UserFileLine>* lines, std::string* error);

class Users {
 public:
  // As readUserFile(); a file without users is refused.
  bool load(const std::string& path, std::string* error);

  const std::string& realm() const { return realm_; }
  // Null when there is no such user.
  const std::string* ha1Of(std::string_view name) const;
  // In a time that tells nothing about the password's hash.
  bool accept(const std::string& name, const std::string& password) const;

 private:
  std::string realm_;
  std::map<std::string, std::string, std::less<>> ha1s_;
};
