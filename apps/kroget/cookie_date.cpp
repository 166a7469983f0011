#include "cookie_date.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <string>

#include "text.h"

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool isDelimiter(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte == '\t' || (byte >= 0x20 && byte <= 0x2f) || (byte >= 0x3b && byte <= 0x40) ||
         (byte >= 0x5b && byte <= 0x60) || (byte >= 0x7b && byte <= 0x7e);
}

// A number of so many digits at the front of @p text, with no digit behind it. It is taken off.
std::optional<int> takeNumber(std::string_view* text, size_t least, size_t most) {
  const auto end = std::find_if_not(text->begin(), text->end(), isDigit);
  const auto digits = static_cast<size_t>(end - text->begin());
  if (digits < least || digits > most) return std::nullopt;
  const int number = std::stoi(std::string(text->substr(0, digits)));
  text->remove_prefix(digits);
  return number;
}

// The fields, in whatever order they come; the first of each kind counts.
class CookieDate {
 public:
  void take(std::string_view token) {
    if (!hour_ && takeTime(token)) return;
    if (!day_ && takeDay(token)) return;
    if (!month_ && takeMonth(token)) return;
    if (!year_) takeYear(token);
  }

  std::optional<int64_t> seconds() const {
    if (!hour_ || !day_ || !month_ || !year_) return std::nullopt;
    if (*day_ < 1 || *day_ > 31 || *year_ < 1601 || *hour_ > 23 || minute_ > 59 || second_ > 59) return std::nullopt;
    std::tm fields{};
    fields.tm_year = *year_ - 1900;
    fields.tm_mon = *month_;
    fields.tm_mday = *day_;
    fields.tm_hour = *hour_;
    fields.tm_min = minute_;
    fields.tm_sec = second_;
    const time_t seconds = timegm(&fields);
    if (fields.tm_mday != *day_) return std::nullopt;  // 30 February
    return seconds;
  }

 private:
  bool takeTime(std::string_view token) {
    const auto hour = takeNumber(&token, 1, 2);
    if (!hour || !token.starts_with(':')) return false;
    token.remove_prefix(1);
    const auto minute = takeNumber(&token, 1, 2);
    if (!minute || !token.starts_with(':')) return false;
    token.remove_prefix(1);
    const auto second = takeNumber(&token, 1, 2);
    if (!second) return false;
    hour_ = hour;
    minute_ = *minute;
    second_ = *second;
    return true;
  }

  bool takeDay(std::string_view token) {
    day_ = takeNumber(&token, 1, 2);
    return day_.has_value();
  }

  bool takeMonth(std::string_view token) {
    constexpr std::string_view kMonths = "janfebmaraprmayjunjulaugsepoctnovdec";
    if (token.size() < 3) return false;
    for (size_t at = 0; at < kMonths.size(); at += 3)
      if (sameWord(token.substr(0, 3), kMonths.substr(at, 3))) month_ = static_cast<int>(at / 3);
    return month_.has_value();
  }

  void takeYear(std::string_view token) {
    year_ = takeNumber(&token, 2, 4);
    if (year_ && *year_ < 100) *year_ += *year_ < 70 ? 2000 : 1900;
  }

  std::optional<int> hour_;
  int minute_ = 0;
  int second_ = 0;
  std::optional<int> day_;
  std::optional<int> month_;  // from 0
  std::optional<int> year_;
};

}  // namespace

std::optional<int64_t> parseCookieDate(std::string_view text) {
  CookieDate date;
  while (!text.empty()) {
    const auto end = std::find_if(text.begin(), text.end(), isDelimiter);
    const auto length = static_cast<size_t>(end - text.begin());
    date.take(text.substr(0, length));
    text.remove_prefix(std::min(length + 1, text.size()));
  }
  return date.seconds();
}
