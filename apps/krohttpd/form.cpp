#include "form.h"

#include <algorithm>

namespace {

constexpr size_t kLongestTarget = 2048;

int digitOf(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string decoded(std::string_view text) { return percentDecoded(text, ' '); }

bool isPlain(char c) {
  constexpr std::string_view kSigns = "-._~/";
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         kSigns.find(c) != std::string_view::npos;
}

}  // namespace

std::optional<std::string> formField(std::string_view form, std::string_view name) {
  for (size_t at = 0; at < form.size();) {
    const size_t end = std::min(form.find('&', at), form.size());
    const std::string_view pair = form.substr(at, end - at);
    const size_t equals = std::min(pair.find('='), pair.size());
    if (decoded(pair.substr(0, equals)) == name)
      return equals < pair.size() ? decoded(pair.substr(equals + 1)) : std::string();
    at = end + 1;
  }
  return std::nullopt;
}

std::string percentDecoded(std::string_view text, char plus) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    const int high = text[i] == '%' && i + 2 < text.size() ? digitOf(text[i + 1]) : -1;
    const int low = high >= 0 ? digitOf(text[i + 2]) : -1;
    if (low >= 0) {
      out += static_cast<char>(high * 16 + low);
      i += 2;
    } else {
      out += text[i] == '+' ? plus : text[i];
    }
  }
  return out;
}

std::string escapedForUrl(std::string_view text) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (isPlain(c))
      out += c;
    else
      out.append({'%', kDigits[byte >> 4], kDigits[byte & 15]});
  }
  return out;
}

std::string escapedForHtml(std::string_view text) {
  std::string out;
  for (const char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

bool isLocalTarget(std::string_view target) {
  if (!target.starts_with('/') || target.starts_with("//") || target.size() > kLongestTarget) return false;
  return std::all_of(target.begin(), target.end(), [](char c) { return c > ' ' && c < 127 && c != '\\'; });
}
