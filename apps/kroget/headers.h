// The header lines of a request: the usual ones, and what -H makes of them.
#pragma once

#include <krohttp/request.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct HeaderLine {
  std::string name;
  std::string value;  // may be empty
};

// One -H: a line to send, or the name of a usual one to leave out.
struct HeaderOption {
  HeaderLine line;
  bool remove = false;
};

// Parses "Name: value", "Name;" (sent empty) or "Name:" (left out). @return what is wrong, or nothing
std::string parseHeaderOption(std::string_view text, HeaderOption* option);

// What the header lines of one request depend on.
struct HeaderPlan {
  explicit HeaderPlan(const std::vector<HeaderOption>& given) : options(given) {}

  const std::vector<HeaderOption>& options;
  std::string authority;
  std::string authorization;  // empty when there is none, like the cookies
  std::string cookies;
  std::string contentType;   // of the body, unless -H says otherwise
  bool elsewhere = false;    // a redirect led to another host, which is told no secrets
  bool bodyDropped = false;  // a redirect made this a request without the body
  bool hasBody = false;
  std::optional<uint64_t> length;  // of the body; without one it goes in chunks
};

// Whether -H gives this header, or leaves it out.
bool isGiven(const std::vector<HeaderOption>& options, std::string_view name);

std::vector<HeaderLine> headerLines(const HeaderPlan& plan);

// Adds @p lines to @p request. @return false when memory is short
bool addHeaders(HttpRequest* request, const std::vector<HeaderLine>& lines);
