// Where a body goes: standard output, or a file that appears when it is complete.
#pragma once

#include <string>
#include <string_view>

#include "failure.h"
#include "handles.h"

class Output {
 public:
  // @param path  "-" for standard output
  explicit Output(std::string path) : path_(std::move(path)) {}
  ~Output();
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  // A file is written under a temporary name beside it, which commit() changes to its own. What is there already and
  // is no regular file (a device, a pipe) is written to directly.
  Failure open();
  // Writes, or keeps what cannot be written now.
  Failure write(std::string_view bytes);
  // Something was kept: pump() until it has gone, and write no more meanwhile.
  bool waits() const { return !kept_.empty(); }
  // Writes what was kept, waiting a moment at most.
  Failure pump();
  // The file is complete.
  Failure commit();

  bool isStandardOutput() const { return path_ == "-"; }

 private:
  Failure openTemporary();
  Failure failureOfErrno() const;
  Failure writeNow(std::string_view* bytes, int milliseconds);

  std::string path_;
  std::string target_;     // path_ with its links resolved
  std::string temporary_;  // empty when there is none
  Descriptor file_;
  bool mayBlock_ = true;
  std::string kept_;
};
