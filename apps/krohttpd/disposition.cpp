#include "disposition.h"

#include <strings.h>

#include <algorithm>

#include "form.h"

namespace {

bool isBlank(char c) { return c == ' ' || c == '\t'; }

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  return text;
}

bool isSame(std::string_view text, std::string_view word) {
  return text.size() == word.size() && strncasecmp(text.data(), word.data(), word.size()) == 0;
}

struct Parameter {
  std::string_view name;
  std::string value;
};

// ';' name '=' (token / quoted-string), one after the other.
class Parameters {
 public:
  explicit Parameters(std::string_view value) : rest_(value) { takeUntil(";"); }

  bool next(Parameter* parameter) {
    if (rest_.empty()) return false;
    rest_.remove_prefix(1);
    parameter->name = trimmed(takeUntil(";="));
    parameter->value.clear();
    if (rest_.empty() || rest_.front() == ';') return true;
    rest_.remove_prefix(1);
    while (!rest_.empty() && isBlank(rest_.front())) rest_.remove_prefix(1);
    if (!rest_.empty() && rest_.front() == '"') {
      parameter->value = takeQuoted();
      takeUntil(";");
    } else {
      parameter->value = trimmed(takeUntil(";"));
    }
    return true;
  }

 private:
  std::string_view takeUntil(std::string_view ends) {
    const std::string_view taken = rest_.substr(0, std::min(rest_.find_first_of(ends), rest_.size()));
    rest_.remove_prefix(taken.size());
    return taken;
  }

  // A backslash escapes a quote or another backslash only: before anything else it stands for itself, as in the paths
  // that old browsers send.
  std::string takeQuoted() {
    std::string text;
    size_t at = 1;
    for (; at < rest_.size() && rest_[at] != '"'; ++at) {
      const bool escapes =
          rest_[at] == '\\' && at + 1 < rest_.size() && (rest_[at + 1] == '"' || rest_[at + 1] == '\\');
      if (escapes) ++at;
      text += rest_[at];
    }
    rest_.remove_prefix(std::min(at + 1, rest_.size()));
    return text;
  }

  std::string_view rest_;
};

std::string utf8OfLatin1(std::string_view text) {
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x80) {
      out += c;
    } else {
      out += static_cast<char>(0xc0 | byte >> 6);
      out += static_cast<char>(0x80 | (byte & 0x3f));
    }
  }
  return out;
}

// RFC 8187: charset ' language ' text. Nothing for a charset that nobody has to know.
std::optional<std::string> extendedValue(std::string_view value) {
  const size_t charset = value.find('\'');
  const size_t language = charset != std::string_view::npos ? value.find('\'', charset + 1) : charset;
  if (language == std::string_view::npos) return std::nullopt;
  const std::string text = percentDecoded(value.substr(language + 1));
  if (isSame(value.substr(0, charset), "UTF-8")) return text;
  if (isSame(value.substr(0, charset), "ISO-8859-1")) return utf8OfLatin1(text);
  return std::nullopt;
}

}  // namespace

std::optional<std::string> fileNameOf(std::string_view value) {
  std::optional<std::string> plain;
  std::optional<std::string> extended;
  bool isFile = false;
  Parameters parameters(value);
  for (Parameter parameter; parameters.next(&parameter);) {
    // RFC 7578 section 2.
    if (isSame(parameter.name, "filename") && !plain) plain = percentDecoded(parameter.value);
    if (isSame(parameter.name, "filename*")) {
      isFile = true;
      if (!extended) extended = extendedValue(parameter.value);
    }
  }
  if (extended) return extended;
  if (plain || !isFile) return plain;
  return "";
}
