// A text, a file, or standard input, to be sent.
#pragma once

#include "body.h"
#include "handles.h"

class Upload : public Body {
 public:
  // Opens this file, "-" being standard input.
  Failure openFile(const std::string& path);
  // Takes what -d gives: the text itself, or with "@" in front the content of the file it names, "-" being standard
  // input.
  Failure takeData(const std::string& argument);
  void takeText(std::string text) { text_ = std::move(text); }

  Failure begin() override;
  std::string unrepeatable() const override;
  std::optional<uint64_t> length() const override { return length_; }
  std::string contentType() const override { return type_; }
  // A file ends where it did at begin(), even if it has grown; if it has become shorter that is a failure.
  ssize_t read(char* buffer, size_t size, Failure* failure) override;

 private:
  Failure failure(const std::string& reason) const;
  Failure failureOfErrno() const;
  Failure readAll(int fd);
  ssize_t readText(char* buffer, size_t size);
  ssize_t readSource(char* buffer, size_t size, Failure* failure);

  std::string name_;
  std::string type_;
  Descriptor source_;  // none for a text
  bool regular_ = false;
  bool consumed_ = false;  // something was read
  std::string text_;
  uint64_t at_ = 0;
  std::optional<uint64_t> length_;
};
