// Catches the library's trace lines for the length of a scope.
//
//   TraceCapture trace{"http-uri"};      // errors and warnings, and every line of zone http-uri
//   EXPECT_EQ(http_uriParse(&uri, text), -1);
//   EXPECT_EQ(trace.said(), TraceLines({"http-ur[x]invalid url *"}));
//
// said() gives each line as its zone (cut to 7 characters, as in the line), its mark and its message, and checks the
// form of the whole line on the way: one that differs is given as "malformed: ...".
#pragma once

#include <krotrace/krotrace.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

using TraceLines = std::vector<std::string>;

// A plain line, taken apart: "zone    - [m]message - (function@file:line)".
struct TraceLine {
  int level = 0;
  std::string text;  // as it was received
  bool wellFormed = false;
  std::string zone;  // without its padding
  char mark = 0;     // 'x', '!', 'n' or 'i'
  std::string message;
  std::string function;
  std::string file;
  int line = 0;

  TraceLine(int levelOfLine, std::string_view received) : level(levelOfLine), text(received) { wellFormed = parse(); }

  // "zone[m]message"; a line of level 0, which has the mark of an error, is "zone[x0]message".
  std::string brief() const {
    if (!wellFormed) return "malformed: level " + std::to_string(level) + ": " + text;
    return zone + "[" + mark + (level == KROTRACE_FATAL ? "0]" : "]") + message;
  }

 private:
  bool parse() {
    constexpr size_t kZoneWidth = 7;
    constexpr std::string_view kMark = " - [";
    const std::string_view line_ = text;
    if (line_.size() < kZoneWidth || line_.substr(kZoneWidth, kMark.size()) != kMark) return false;
    zone = line_.substr(0, kZoneWidth);
    zone.erase(zone.find_last_not_of(' ') + 1);
    const size_t markAt = kZoneWidth + kMark.size();
    if (markAt + 1 >= line_.size() || line_[markAt + 1] != ']') return false;
    mark = line_[markAt];

    const size_t messageAt = markAt + 2;
    const size_t locationAt = line_.rfind(" - (");
    if (locationAt == std::string_view::npos || locationAt < messageAt || line_.back() != ')') return false;
    message = line_.substr(messageAt, locationAt - messageAt);
    return levelHasMark() && parseLocation(line_.substr(locationAt + 4, line_.size() - locationAt - 5));
  }

  bool levelHasMark() const {
    switch (level) {
      case KROTRACE_FATAL:
      case KROTRACE_ERROR:
        return mark == 'x';
      case KROTRACE_WARNING:
        return mark == '!';
      case KROTRACE_NOTICE:
        return mark == 'n';
      case KROTRACE_INFO:
        return mark == 'i';
      default:
        return false;
    }
  }

  // function@file:line
  bool parseLocation(std::string_view location) {
    const size_t at = location.find('@');
    const size_t colon = location.rfind(':');
    if (at == std::string_view::npos || colon == std::string_view::npos || at == 0 || colon <= at + 1) return false;
    function = location.substr(0, at);
    file = location.substr(at + 1, colon - at - 1);
    const std::string digits(location.substr(colon + 1));
    const bool isNumber =
        !digits.empty() && digits.size() < 8 &&
        std::all_of(digits.begin(), digits.end(), [](unsigned char digit) { return std::isdigit(digit) != 0; });
    if (!isNumber || file.find('/') != std::string::npos) return false;
    line = std::stoi(digits);
    return line > 0;
  }
};

// Receives trace lines while it lives. Captures nest: the innermost one receives. When the outermost ends, lines go to
// standard error again, and the zones it had switched on are off.
class TraceCapture {
 public:
  TraceCapture() : TraceCapture(std::initializer_list<const char*>{}) {}
  explicit TraceCapture(std::initializer_list<const char*> zones, int level = KROTRACE_INFO) : outer_(innermost()) {
    innermost() = this;
    kroTraceToFunction(receive, this);
    for (const char* zone : zones) enable(zone, level);
  }
  ~TraceCapture() {
    for (const std::string& zone : enabled_) kroTraceEnable(zone.c_str(), -1);
    innermost() = outer_;
    if (outer_ != nullptr) {
      kroTraceToFunction(receive, outer_);
    } else {
      kroTraceToStderr();
    }
  }
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  // Shows the lines of zone up to level; a negative level hides them. Name each zone: one that was named once no longer
  // follows "*".
  void enable(const char* zone, int level = KROTRACE_INFO) {
    enabled_.emplace_back(zone);
    kroTraceEnable(zone, level);
  }

  const std::vector<TraceLine>& lines() const { return lines_; }
  void clear() { lines_.clear(); }

  // Every line in order, as TraceLine::brief() gives it.
  TraceLines said() const {
    TraceLines said;
    for (const TraceLine& line : lines_) said.push_back(line.brief());
    return said;
  }

  // As said(), of one level only.
  TraceLines said(int level) const {
    TraceLines said;
    for (const TraceLine& line : lines_) {
      if (line.level == level) said.push_back(line.brief());
    }
    return said;
  }
  TraceLines errors() const { return said(KROTRACE_ERROR); }
  TraceLines warnings() const { return said(KROTRACE_WARNING); }

  // How many lines are exactly this ("http-ur[x]invalid url *").
  size_t count(std::string_view brief) const {
    return static_cast<size_t>(
        std::count_if(lines_.begin(), lines_.end(), [&](const TraceLine& line) { return line.brief() == brief; }));
  }
  bool has(std::string_view brief) const { return count(brief) > 0; }

  // How many lines begin like this: for messages that end in what %m gives.
  size_t countStarting(std::string_view brief) const {
    return static_cast<size_t>(std::count_if(lines_.begin(), lines_.end(), [&](const TraceLine& line) {
      return std::string_view(line.brief()).substr(0, brief.size()) == brief;
    }));
  }

 private:
  static void receive(int level, const char* line, void* capture) {
    static_cast<TraceCapture*>(capture)->lines_.emplace_back(level, line);
  }
  static TraceCapture*& innermost() {
    static TraceCapture* capture = nullptr;
    return capture;
  }

  TraceCapture* outer_;
  std::vector<TraceLine> lines_;
  std::vector<std::string> enabled_;
};
