// The body of a request, whatever it is made of.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "failure.h"

class Body {
 public:
  Body() = default;
  virtual ~Body() = default;
  Body(const Body&) = delete;
  Body& operator=(const Body&) = delete;

  // Goes (back) to the beginning; once for each request. What cannot go back is still at it until something was read.
  virtual Failure begin() = 0;
  // What of it cannot be read again, as messages call it; empty when all of it can.
  virtual std::string unrepeatable() const = 0;
  // Its length as of begin(); nothing when only the end tells.
  virtual std::optional<uint64_t> length() const = 0;
  // What it is, for its header; empty when nobody knows.
  virtual std::string contentType() const = 0;

  // Reads the next piece, waiting a moment at most.
  // @return its size, 0 at the end; -1 when there is nothing yet, or with a @p failure
  virtual ssize_t read(char* buffer, size_t size, Failure* failure) = 0;
};
