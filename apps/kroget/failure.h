// What can go wrong, and the exit status that tells it.
#pragma once

#include <string>

// The exit statuses of kroget; docs/kroget.md lists them.
enum Status {
  kOk = 0,
  kInternalError = 1,
  kUsageError = 2,
  kCannotResolve = 3,
  kCannotConnect = 4,
  kTimedOut = 5,
  kCutShort = 6,
  kBadReply = 7,
  kHttpError = 8,
  kFileError = 9,
  kRedirectError = 10,
};

// A failure, and its line without "kroget: " in front; without a text nothing is said.
struct Failure {
  Status status = kOk;
  std::string text;

  explicit operator bool() const { return status != kOk; }
};
