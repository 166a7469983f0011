#include <krohttp/utils.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string_view>

#define TRACE_ZONE "http-utils"
#include "trace.h"

#include "memory.h"

namespace {

constexpr std::string_view kBase64 = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::string_view kRandomAlphabet = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ1234567890";

constexpr uint8_t kNoSextet = 0xFF;

// The value of each character of the alphabet.
constexpr std::array<uint8_t, 256> kSextets = [] {
  std::array<uint8_t, 256> sextets{};
  sextets.fill(kNoSextet);
  for (size_t value = 0; value < kBase64.size(); ++value)
    sextets[static_cast<unsigned char>(kBase64[value])] = static_cast<uint8_t>(value);
  return sextets;
}();

constexpr bool isBlank(char c) { return c == ' ' || c == '\t'; }

// One group of up to four characters: how many of them belong to the alphabet, and their bits.
struct Quartet {
  unsigned count = 0;
  uint32_t bits = 0;
  bool truncated = false;
};

Quartet readQuartet(std::string_view input) {
  Quartet quartet;
  for (; quartet.count < 4; ++quartet.count) {
    if (quartet.count == input.size()) {
      quartet.truncated = true;
      break;
    }
    const uint8_t sextet = kSextets[static_cast<unsigned char>(input[quartet.count])];
    if (sextet == kNoSextet) break;
    quartet.bits = quartet.bits << 6 | sextet;
  }
  return quartet;
}

int refuse(char** output) {
  *output = nullptr;
  return -1;
}

}  // namespace

extern "C" {

int utils_keyvalue(char* string, char** key, char** value, char** cursor, char separator) {
  if (string != nullptr) *cursor = string;
  *key = *cursor;
  if (*key == nullptr || **key == '\0') return 0;

  *cursor = strchrnul(*key, separator);
  if (**cursor != '\0') *(*cursor)++ = '\0';
  while (isBlank(**key)) ++*key;

  *value = std::strchr(*key, '=');
  if (*value != nullptr)
    *(*value)++ = '\0';
  else
    TRACE_WARNING("unable to parse cookie %s", textOrNull(string));
  TRACE_INFO("found key value pair: %s=%s", *key, textOrNull(*value));
  return 1;
}

// RFC 4648 section 4.
int http_base64Encode(const void* input, unsigned length, char** output) {
  const size_t groups = (static_cast<size_t>(length) + 2) / 3;
  const bool representable = groups * 4 + 1 <= UINT_MAX;
  if (!representable) errno = EOVERFLOW;
  CString text(representable ? static_cast<char*>(std::calloc(groups * 4 + 1, 1)) : nullptr);
  if (!text) {
    TRACE_ERROR("unable to encode binary data: %m");
    return refuse(output);
  }

  const auto* bytes = static_cast<const unsigned char*>(input);
  char* out = text.get();
  for (size_t at = 0; at < length; at += 3, out += 4) {
    const size_t count = length - at < 3 ? length - at : 3;
    uint32_t bits = 0;
    for (size_t i = 0; i < 3; ++i) bits = bits << 8 | (i < count ? bytes[at + i] : 0u);
    for (size_t i = 0; i < 4; ++i) out[i] = i <= count ? kBase64[bits >> (18 - 6 * i) & 63] : '=';
  }
  *output = text.release();
  return 0;
}

int http_base64Decode(const char* input, unsigned length, char** output) {
  // One byte at least, and one more than can be decoded: calloc(0) may give NULL, and callers read it as text.
  CString text(static_cast<char*>(std::calloc(static_cast<size_t>(length) + 1, 1)));
  if (!text) {
    TRACE_ERROR("unable to decode base64 data: %m");
    return refuse(output);
  }

  char* out = text.get();
  for (size_t at = 0; at < length; at += 4) {
    const Quartet quartet = readQuartet({input + at, length - at});
    if (quartet.truncated) {
      TRACE_ERROR("unable to decode base64 data: input seems to be truncated");
      return refuse(output);
    }
    if (quartet.count == 0) break;
    if (quartet.count == 1) return refuse(output);
    // n characters hold n - 1 whole bytes; the bits below them are padding.
    const uint32_t bits = quartet.bits << 6 * (4 - quartet.count);
    for (unsigned i = 0; i + 1 < quartet.count; ++i) *out++ = static_cast<char>(bits >> (16 - 8 * i));
  }
  *output = text.release();
  return 0;
}

int http_generateRandomString(char* buffer, unsigned length) {
  static unsigned counter = 0;
  if (buffer == nullptr) {
    TRACE_ERROR("Invalid Parameters");
    return -1;
  }
  std::memset(buffer, 0, length);
  // The counter keeps two strings of the same second apart.
  std::srand(static_cast<unsigned>(std::time(nullptr)) + counter++);
  for (unsigned i = 0; i < length; ++i)
    buffer[i] = kRandomAlphabet[static_cast<size_t>(std::rand()) % kRandomAlphabet.size()];
  buffer[length] = '\0';
  TRACE_INFO("GENERATED RANDOM STRING:%s", buffer);
  return 0;
}

}  // extern "C"
