// The body of a request: a text, a file, or standard input.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "failure.h"
#include "handles.h"

class Upload {
 public:
  // Opens what -T names, "-" being standard input.
  Failure openFile(const std::string& path);
  // Takes what -d gives: the text itself, or with "@" in front the content of the file it names, "-" being standard
  // input.
  Failure takeData(const std::string& argument);

  // Goes (back) to the beginning; once for each request. What cannot go back is still at it until something was read.
  Failure begin();
  bool canBeRepeated() const { return seekable_ || source_.get() < 0 || !consumed_; }
  // Its length as of begin(); nothing when only the end tells.
  std::optional<uint64_t> length() const { return length_; }

  // Reads the next piece, waiting a moment at most. @return its size, 0 at the end, -1 with errno (EAGAIN: nothing yet)
  ssize_t read(char* buffer, size_t size);

  // For messages.
  const std::string& name() const { return name_; }
  Failure failure(const std::string& reason) const;

 private:
  Failure failureOfErrno() const;
  Failure readAll(int fd);

  std::string name_;
  Descriptor source_;  // none for a text
  bool regular_ = false;
  bool seekable_ = false;
  bool consumed_ = false;  // something was read
  std::string text_;
  size_t textAt_ = 0;
  std::optional<uint64_t> length_;
};
