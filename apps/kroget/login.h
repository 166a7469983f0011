// Answering a server that asks for a user and a password.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "challenge.h"

// How often each nonce was used: a server may refuse a count that it has seen.
class Nonces {
 public:
  // The next count, as eight hexadecimal digits.
  std::string use(const std::string& nonce);

 private:
  std::map<std::string, unsigned> counts_;
};

// The credentials for one server. Nothing is told before it has asked.
class Login {
 public:
  // @param credentials  "user:password"
  Login(const std::string& credentials, Nonces& nonces);

  // Takes the best of @p challenges for requests with @p method for @p target.
  // @return why there is no answer; nothing when there is one
  std::string choose(const std::vector<Challenge>& challenges, const std::string& method, const std::string& target);
  // It was told a nonce that has become too old.
  bool isStale(const std::vector<Challenge>& challenges) const;
  // What was chosen is for another request.
  void forget() { chosen_.reset(); }

  bool isChosen() const { return chosen_.has_value(); }
  // The value of the Authorization header for one request; empty when nothing was chosen.
  std::string authorization(const std::string& method, const std::string& target);

 private:
  std::string obstacle(const Challenge& challenge, const std::string& method, const std::string& target) const;
  std::string obstacleOfDigest(const Challenge& challenge, const std::string& method, const std::string& target) const;
  std::string basic() const;
  std::string digest(const std::string& method, const std::string& target);

  std::string user_;
  std::string password_;
  Nonces& nonces_;
  std::optional<Challenge> chosen_;
};
