#include "strict.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <cstring>

#define TRACE_ZONE "http-strict"
#include "trace.h"

namespace {

uint8_t refused(HttpMessageRefusal reason, const char* text) {
  TRACE_ERROR("message is refused: %s", text);
  return static_cast<uint8_t>(reason);
}

constexpr bool isDigit(char c) { return c >= '0' && c <= '9'; }

using CharacterSet = std::array<bool, 256>;

// Letters, digits, and these.
constexpr CharacterSet lettersDigitsAnd(std::string_view others) {
  CharacterSet is{};
  for (const char c : others) is[static_cast<unsigned char>(c)] = true;
  for (unsigned char c = '0'; c <= '9'; ++c) is[c] = true;
  for (unsigned char c = 'a'; c <= 'z'; ++c) is[c] = is[c - 'a' + 'A'] = true;
  return is;
}

constexpr CharacterSet kTokenCharacters = lettersDigitsAnd("!#$%&'*+-.^_`|~");     // RFC 9110 section 5.6.2
constexpr CharacterSet kSchemeCharacters = lettersDigitsAnd("+-.");                // RFC 3986 section 3.1
constexpr CharacterSet kHostCharacters = lettersDigitsAnd("-._~%!$&'()*+,;=:[]");  // section 3.2, with its port

bool consistsOf(const CharacterSet& set, std::string_view text) {
  return std::all_of(text.begin(), text.end(), [&](char c) { return set[static_cast<unsigned char>(c)]; });
}

bool isToken(std::string_view text) { return !text.empty() && consistsOf(kTokenCharacters, text); }

// Whether one of eight bytes is below ' ' or DEL. Those from 0x80 on are not.
constexpr bool hasControl(uint64_t bytes) {
  constexpr uint64_t kEach = 0x0101010101010101;
  constexpr uint64_t kHigh = 0x80 * kEach;
  const uint64_t sevenBits = bytes & ~kHigh;
  const uint64_t notBelow = sevenBits + 0x60 * kEach;  // a high bit for each byte from ' ' on
  const uint64_t isDel = sevenBits + kEach;            // and for 0x7F
  return ((~notBelow | isDel) & ~bytes & kHigh) != 0;
}
static_assert(!hasControl(0x2020202020202020) && !hasControl(0x7e7e7e7e7e7e7e7e) && !hasControl(0xff80ff80ff80ff80));
static_assert(hasControl(0x207f202020202020) && hasControl(0x1fffffffffffffff) && hasControl(0x7e7e7e7e7e7e7e00));

// Where the first control byte may be, in a step of eight bytes.
size_t skipPlain(std::string_view text) {
  size_t at = 0;
  for (uint64_t bytes = 0; at + sizeof bytes <= text.size(); at += sizeof bytes) {
    std::memcpy(&bytes, text.data() + at, sizeof bytes);
    if (hasControl(bytes)) break;
  }
  return at;
}

constexpr bool isBlank(char c) { return c == ' ' || c == '\t'; }

// "HTTP/1.1", but for its digits.
constexpr bool looksLikeVersion(std::string_view text) {
  return text.size() == 8 && text.starts_with("HTTP/") && isDigit(text[5]) && text[6] == '.' && isDigit(text[7]);
}

uint8_t checkVersion(std::string_view text) {
  if (!looksLikeVersion(text)) return refused(HTTP_MSG_BAD_VERSION, "version");
  if (text[5] != '1' || text[7] > '1') return refused(HTTP_MSG_OTHER_VERSION, "neither HTTP/1.0 nor HTTP/1.1");
  return HTTP_MSG_ACCEPTED;
}

// Of an absolute target (RFC 9112 section 3.2.2); none, not even an empty one, in the other forms.
std::string_view authorityOf(std::string_view target) {
  constexpr std::string_view kMark = "://";
  if (target.starts_with('/')) return {};
  const size_t mark = target.find(kMark);
  if (mark == std::string_view::npos) return {};
  target.remove_prefix(mark + kMark.size());
  return target.substr(0, target.find_first_of("/?#"));
}

// Path and query, or a scheme and an authority in front of them (RFC 9112 section 3.2). What else stands before a path,
// or behind a '#', is a part of it to some and nothing to others.
bool isTarget(std::string_view target) {
  if (target.find('#') != std::string_view::npos) return false;
  if (target.starts_with('/') || target == "*") return true;
  const size_t mark = target.find("://");
  if (mark == std::string_view::npos || mark == 0) return false;
  const std::string_view scheme = target.substr(0, mark);
  return std::isalpha(static_cast<unsigned char>(scheme[0])) && consistsOf(kSchemeCharacters, scheme);
}

// Escapes that name a byte, but not the one that ends a text: what is none is cut off, or passed on, by others.
bool hasEscapesInOrder(std::string_view path) {
  for (size_t at = path.find('%'); at != std::string_view::npos; at = path.find('%', at + 3)) {
    if (at + 2 >= path.size() || !std::isxdigit(static_cast<unsigned char>(path[at + 1])) ||
        !std::isxdigit(static_cast<unsigned char>(path[at + 2])) || path.substr(at + 1, 2) == "00")
      return false;
  }
  return true;
}

bool equalsWithoutCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// What decides where a message ends, and for whom it is.
struct Framing {
  unsigned lengths = 0;
  unsigned codings = 0;
  unsigned hosts = 0;
  const char* length = nullptr;
  const char* coding = nullptr;
  const char* host = nullptr;
};

Framing framingOf(HttpMessage* message) {
  Framing framing;
  int code = HTTP_HEADER_NONE;
  const char* name = nullptr;
  const char* value = nullptr;
  http_msgHeadersReset(message);
  while (msg_headersNext(message, &code, &name, &value) == 0) {
    if (code == HTTP_HEADER_CONTENT_LENGTH && ++framing.lengths > 0) framing.length = value;
    if (code == HTTP_HEADER_TRANSFER_ENCODING && ++framing.codings > 0) framing.coding = value;
    if (code == HTTP_HEADER_HOST && ++framing.hosts > 0) framing.host = value;
  }
  http_msgHeadersReset(message);
  return framing;
}

// Digits only, of a number that fits into 64 bits.
bool isLength(std::string_view text, uint64_t* length) {
  if (text.empty()) return false;
  *length = 0;
  for (const char c : text) {
    if (!isDigit(c) || __builtin_mul_overflow(*length, 10, length) ||
        __builtin_add_overflow(*length, static_cast<uint64_t>(c - '0'), length))
      return false;
  }
  return true;
}

uint8_t checkBodyLength(const HttpMessage* message, const Framing& framing) {
  if (framing.lengths > 0 && framing.codings > 0)
    return refused(HTTP_MSG_LENGTH_AND_CODING, "Content-Length with Transfer-Encoding");
  if (framing.lengths > 1) return refused(HTTP_MSG_REPEATED_LENGTH, "more than one Content-Length");
  uint64_t length = 0;
  if (framing.length != nullptr && !isLength(framing.length, &length))
    return refused(HTTP_MSG_BAD_LENGTH, "Content-Length");
  if (length > UINT32_MAX) return refused(HTTP_MSG_LARGE_BODY, "body beyond what can be counted");
  if (framing.codings == 0) return HTTP_MSG_ACCEPTED;
  const bool chunked = framing.codings == 1 && strcasecmp(framing.coding, "chunked") == 0;
  if (!chunked || message->versionMinor == 0) return refused(HTTP_MSG_BAD_CODING, "Transfer-Encoding");
  return HTTP_MSG_ACCEPTED;
}

// RFC 9112 section 3.2.
uint8_t checkHost(const HttpMessage* message, const Framing& framing) {
  if (framing.hosts > 1) return refused(HTTP_MSG_REPEATED_HOST, "more than one Host");
  if (framing.hosts == 0 && message->versionMinor > 0) return refused(HTTP_MSG_NO_HOST, "no Host");
  if (framing.hosts == 1 && !consistsOf(kHostCharacters, framing.host)) return refused(HTTP_MSG_BAD_HOST, "Host");
  const bool isAbsolute = message->authorityStart != 0;
  const std::string_view authority(message->buffer + message->authorityStart, message->authorityLength);
  if (framing.hosts == 1 && isAbsolute && !equalsWithoutCase(authority, framing.host))
    return refused(HTTP_MSG_OTHER_HOST, "the target is for another host");
  return HTTP_MSG_ACCEPTED;
}

}  // namespace

uint8_t strict_line(std::string_view line) {
  if (line.size() < 2 || line[line.size() - 2] != '\r') return refused(HTTP_MSG_BARE_LINE_END, "LF without CR");
  line.remove_suffix(2);
  for (const char c : line.substr(skipPlain(line))) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte == '\r') return refused(HTTP_MSG_BARE_LINE_END, "CR without LF");
    if ((byte < ' ' && byte != '\t') || byte == 0x7F) return refused(HTTP_MSG_CONTROL_BYTE, "control byte");
  }
  return HTTP_MSG_ACCEPTED;
}

uint8_t strict_requestLine(std::string_view line, std::string_view* authority) {
  const size_t first = line.find(' ');
  const size_t second = first == std::string_view::npos ? first : line.find(' ', first + 1);
  const bool isThreeWords = second != std::string_view::npos && first > 0 && second > first + 1 &&
                            line.find_first_of(" \t", second + 1) == std::string_view::npos &&
                            line.substr(0, second).find('\t') == std::string_view::npos;
  if (!isThreeWords) return refused(HTTP_MSG_BAD_FIRST_LINE, "request line");
  if (!isToken(line.substr(0, first))) return refused(HTTP_MSG_METHOD_NO_TOKEN, "method");
  const uint8_t version = checkVersion(line.substr(second + 1));
  if (version != HTTP_MSG_ACCEPTED) return version;
  const std::string_view target = line.substr(first + 1, second - first - 1);
  if (!isTarget(target)) return refused(HTTP_MSG_BAD_TARGET, "target");
  if (!hasEscapesInOrder(target.substr(0, target.find('?'))))
    return refused(HTTP_MSG_BAD_TARGET, "escape in the target");
  *authority = authorityOf(target);
  // It is compared with the Host header after its escapes, which no host needs, have been decoded where they stand.
  if (authority->find('%') != std::string_view::npos) return refused(HTTP_MSG_BAD_TARGET, "authority");
  return HTTP_MSG_ACCEPTED;
}

uint8_t strict_statusLine(std::string_view line) {
  const std::string_view code = line.size() > 9 ? line.substr(9, 3) : std::string_view();
  const bool isThreeWords = line.size() >= 13 && line[8] == ' ' && std::all_of(code.begin(), code.end(), isDigit) &&
                            code[0] != '0' && line[12] == ' ';
  if (!isThreeWords) return refused(HTTP_MSG_BAD_FIRST_LINE, "status line");
  return checkVersion(line.substr(0, 8));
}

uint8_t strict_headerLine(std::string_view line) {
  if (isBlank(line.front())) return refused(HTTP_MSG_FOLDED_LINE, "header line that begins with a blank");
  const size_t colon = line.find(':');
  if (colon == std::string_view::npos) return refused(HTTP_MSG_BAD_HEADER, "header line without a colon");
  const std::string_view name = line.substr(0, colon);
  if (!name.empty() && isBlank(name.back())) return refused(HTTP_MSG_BLANK_BEFORE_COLON, "blank before a colon");
  if (!isToken(name)) return refused(HTTP_MSG_BAD_NAME, "name of a header");
  return HTTP_MSG_ACCEPTED;
}

uint8_t strict_head(HttpMessage* message) {
  const Framing framing = framingOf(message);
  if (const uint8_t reason = checkBodyLength(message, framing); reason != HTTP_MSG_ACCEPTED) return reason;
  return message->type == HTTP_MSG_REQUEST ? checkHost(message, framing) : static_cast<uint8_t>(HTTP_MSG_ACCEPTED);
}
