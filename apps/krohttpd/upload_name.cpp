#include "upload_name.h"

#include <algorithm>
#include <cstdint>

namespace {

// A longer one is a part of the name.
constexpr size_t kLongestExtension = 32;
constexpr char kReplacement = '_';

struct Character {
  size_t length;  // bytes
  bool allowed;
};

// C0 and C1 controls, and the line ends and direction marks that could make a name look like another one.
bool isConfusing(uint32_t code) {
  return code < 0x20 || (code >= 0x7f && code < 0xa0) || (code >= 0x2028 && code <= 0x202e) ||
         (code >= 0x2066 && code <= 0x2069) || code == 0x200e || code == 0x200f || code == 0xfeff;
}

// The first character of @p text (RFC 3629 section 3). A byte that begins none is one by itself.
Character characterOf(std::string_view text) {
  const auto first = static_cast<unsigned char>(text[0]);
  if (first < 0x80) return {1, !isConfusing(first)};
  const size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  if (first < 0xc2 || first > 0xf4 || text.size() < length) return {1, false};
  uint32_t code = first & (0x7fU >> length);
  for (size_t i = 1; i < length; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if ((byte & 0xc0) != 0x80) return {1, false};
    code = code << 6 | (byte & 0x3f);
  }
  constexpr uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
  if (code < kLeast[length] || code > 0x10ffff || (code >= 0xd800 && code <= 0xdfff)) return {1, false};
  return {length, !isConfusing(code)};
}

std::string cleaned(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const Character character = characterOf(text);
    if (character.allowed)
      out.append(text.substr(0, character.length));
    else
      out += kReplacement;
    text.remove_prefix(character.length);
  }
  return out;
}

// Of valid UTF-8, whole characters.
std::string_view cutTo(std::string_view text, size_t length) {
  if (text.size() <= length) return text;
  while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xc0) == 0x80) --length;
  return text.substr(0, length);
}

// With the dot; empty when there is none.
std::string_view extensionOf(std::string_view name) {
  const size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0 || name.size() - dot > kLongestExtension) return {};
  return name.substr(dot);
}

std::string composed(std::string_view name, const std::string& suffix) {
  const std::string_view extension = extensionOf(name);
  const std::string_view stem = name.substr(0, name.size() - extension.size());
  std::string out(cutTo(stem, kLongestUploadName - suffix.size() - extension.size()));
  return out.append(suffix).append(extension);
}

}  // namespace

std::string safeUploadName(std::string_view name) {
  const size_t separator = name.find_last_of("/\\");
  std::string safe = cleaned(separator == std::string_view::npos ? name : name.substr(separator + 1));
  safe.erase(0, std::min(safe.find_first_not_of(". "), safe.size()));
  safe.erase(safe.find_last_not_of(' ') + 1);
  return safe.empty() ? "upload" : composed(safe, "");
}

std::string numberedUploadName(std::string_view name, unsigned number) {
  return composed(name, "-" + std::to_string(number));
}
