#include "form.h"

#include <sys/random.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace {

// No file can be made to contain it: 160 random bits. RFC 2046 section 5.1.1 allows 70 characters.
constexpr std::string_view kBoundaryStart = "kroget-form-";
constexpr size_t kRandomCharacters = 32;
constexpr std::string_view kCharacters = "0123456789abcdefghijklmnopqrstuv";

}  // namespace

Failure Form::chooseBoundary() {
  std::array<unsigned char, kRandomCharacters> random;
  if (getrandom(random.data(), random.size(), 0) != static_cast<ssize_t>(random.size()))
    return {kInternalError, std::string("cannot get random numbers: ") + std::strerror(errno)};
  boundary_ = kBoundaryStart;
  for (const unsigned char byte : random) boundary_ += kCharacters[byte % kCharacters.size()];
  return {};
}

void Form::addText(std::string text) {
  pieces_.push_back(std::make_unique<Upload>());
  pieces_.back()->takeText(std::move(text));
}

Failure Form::open(const std::vector<FormPart>& parts) {
  if (Failure failure = chooseBoundary()) return failure;
  std::string text;
  for (const FormPart& part : parts) {
    text += "--" + boundary_ + "\r\n" + headOf(part);
    if (part.file) {
      addText(std::exchange(text, ""));
      pieces_.push_back(std::make_unique<Upload>());
      if (Failure failure = pieces_.back()->openFile(part.value)) return failure;
    } else {
      text += part.value;
    }
    text += "\r\n";
  }
  addText(text + "--" + boundary_ + "--\r\n");
  return {};
}

std::string Form::contentType() const { return "multipart/form-data; boundary=" + boundary_; }

std::string Form::unrepeatable() const {
  for (const auto& piece : pieces_)
    if (std::string name = piece->unrepeatable(); !name.empty()) return name;
  return "";
}

Failure Form::begin() {
  at_ = 0;
  uint64_t sum = 0;
  bool known = true;
  for (const auto& piece : pieces_) {
    if (Failure failure = piece->begin()) return failure;
    known = known && piece->length() && !__builtin_add_overflow(sum, *piece->length(), &sum);
  }
  length_ = known ? std::optional(sum) : std::nullopt;
  return {};
}

ssize_t Form::read(char* buffer, size_t size, Failure* failure) {
  size_t filled = 0;
  while (filled < size && at_ < pieces_.size()) {
    Upload& piece = *pieces_[at_];
    const ssize_t count = piece.read(buffer + filled, size - filled, failure);
    if (count < 0) return filled > 0 && !*failure ? static_cast<ssize_t>(filled) : -1;
    filled += static_cast<size_t>(count);
    if (count == 0) ++at_;
    // What comes slowly does not wait for more.
    if (count > 0 && !piece.length()) break;
  }
  return static_cast<ssize_t>(filled);
}
