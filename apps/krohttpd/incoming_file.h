// A file that is being received: it has no name, or a hidden one, until all of it is there.
#pragma once

#include <openssl/evp.h>

#include <cstdint>
#include <memory>
#include <string>

// A descriptor that closes itself.
class OwnedDescriptor {
 public:
  explicit OwnedDescriptor(int descriptor = -1) : descriptor_(descriptor) {}
  ~OwnedDescriptor();
  OwnedDescriptor(OwnedDescriptor&& other) noexcept;
  OwnedDescriptor& operator=(OwnedDescriptor&& other) noexcept;
  int get() const { return descriptor_; }

 private:
  int descriptor_;
};

// What fails does so with errno. Whatever happens, nothing but published files is left when the object goes.
class IncomingFile {
 public:
  // @param directory  where it will stand, borrowed: outlives the object
  // @param name       a safe one, see upload_name.h
  IncomingFile(int directory, std::string name);
  ~IncomingFile();
  IncomingFile(const IncomingFile&) = delete;
  IncomingFile& operator=(const IncomingFile&) = delete;

  bool create();
  // Appends; begins to put on the disk what has been written so far.
  bool write(const char* bytes, size_t count);
  // All has been written: puts the rest on the disk.
  bool complete();
  // Gives the file its name, or a numbered one when there is a file of that name already.
  bool publish();
  // Takes the name back.
  void withdraw();

  const std::string& name() const { return name_; }
  uint64_t size() const { return size_; }
  std::string sha256() const;  // hexadecimal, when it is complete

 private:
  bool createHidden();
  bool giveName(const std::string& name);
  bool startWriting();

  int directory_;
  std::string name_;
  std::string hiddenName_;  // empty: the file has none, and goes by itself
  OwnedDescriptor file_;
  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> hash_;
  unsigned char digest_[EVP_MAX_MD_SIZE] = {};
  uint64_t size_ = 0;
  uint64_t started_ = 0;  // bytes that are on their way to the disk
  uint64_t awaited_ = 0;  // bytes that have arrived there
  bool published_ = false;
};
