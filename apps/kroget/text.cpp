#include "text.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdio>

std::string escaped(std::string_view text) {
  std::string result;
  for (const char c : text) {
    if (c >= 32 && c < 127) {
      result += c;
      continue;
    }
    char escape[8];
    std::snprintf(escape, sizeof escape, "\\x%02x", static_cast<unsigned char>(c));
    result += escape;
  }
  return result;
}

bool sameWord(std::string_view one, std::string_view other) {
  return one.size() == other.size() && strncasecmp(one.data(), other.data(), one.size()) == 0;
}

std::string lowerCase(std::string_view text) {
  std::string result(text);
  for (char& c : result)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return result;
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t";
  const size_t first = text.find_first_not_of(kBlanks);
  return first == std::string_view::npos ? std::string_view()
                                         : text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

bool isToken(std::string_view text) {
  constexpr std::string_view kMarks = "!#$%&'*+-.^_`|~";
  const auto allowed = [kMarks](char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
           kMarks.find(c) != std::string_view::npos;
  };
  return !text.empty() && std::all_of(text.begin(), text.end(), allowed);
}

bool hasControls(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return (byte < 32 && byte != '\t') || byte == 127;
  });
}

bool listHas(std::string_view list, std::string_view word) {
  while (!list.empty()) {
    const size_t comma = std::min(list.find(','), list.size());
    const std::string_view item = list.substr(0, comma);
    list.remove_prefix(std::min(comma + 1, list.size()));
    if (sameWord(trimmed(item), word)) return true;
  }
  return false;
}

std::string humanSize(uint64_t bytes) {
  constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  auto value = static_cast<double>(bytes);
  size_t unit = 0;
  for (; value >= 1023.95 && unit + 1 < std::size(kUnits); ++unit) value /= 1024;
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", value, kUnits[unit]);
  return text;
}

std::string humanTime(uint64_t seconds) {
  char text[48];
  const auto number = [](uint64_t value) { return static_cast<unsigned long long>(value); };
  if (seconds < 3600)
    std::snprintf(text, sizeof text, "%llu:%02llu", number(seconds / 60), number(seconds % 60));
  else
    std::snprintf(text, sizeof text, "%llu:%02llu:%02llu", number(seconds / 3600), number(seconds / 60 % 60),
                  number(seconds % 60));
  return text;
}
