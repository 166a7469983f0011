// A form with fields and files (RFC 7578), read as it is sent.
#pragma once

#include <memory>
#include <vector>

#include "body.h"
#include "form_part.h"
#include "upload.h"

class Form : public Body {
 public:
  // Opens the files of @p parts.
  Failure open(const std::vector<FormPart>& parts);

  Failure begin() override;
  std::string unrepeatable() const override;
  std::optional<uint64_t> length() const override { return length_; }
  std::string contentType() const override;
  ssize_t read(char* buffer, size_t size, Failure* failure) override;

 private:
  Failure chooseBoundary();
  void addText(std::string text);

  std::string boundary_;
  std::vector<std::unique_ptr<Upload>> pieces_;  // what stands between the files, and the files
  size_t at_ = 0;                                // the piece that is being read
  std::optional<uint64_t> length_;
};
