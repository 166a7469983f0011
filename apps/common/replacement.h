// Replacing a file as a whole: whoever reads it sees the old one or the new one.
#pragma once

#include <string>

// The file that a link leads to, which is the one to replace.
std::string fileBehind(const std::string& path);

// A file that takes the place of another when it is complete, and is gone otherwise.
class Replacement {
 public:
  // @param path  without links, see fileBehind()
  explicit Replacement(const std::string& path);
  ~Replacement();
  Replacement(const Replacement&) = delete;
  Replacement& operator=(const Replacement&) = delete;

  // Writes @p text, mode 0600, onto the disk, and changes its name. @return false with errno
  bool write(const std::string& text);

 private:
  bool writeAll(const std::string& text) const;
  void keepOwner() const;
  void syncDirectory() const;

  std::string path_;
  std::string name_;
  int descriptor_ = -1;
  bool done_ = false;
};
