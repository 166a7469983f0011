// What a server says of the ways to log in: the WWW-Authenticate header.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct Challenge {
  std::string scheme;                                           // as it was written
  std::vector<std::pair<std::string, std::string>> parameters;  // quoted ones without their quotes and escapes

  bool broken = false;  // there is a mistake in it, and nothing is known of what stands behind that

  // The value of the first parameter of this name, whatever its case; null when there is none.
  const std::string* find(std::string_view name) const;
};

// The challenges of one header, in their order, up to the first mistake.
std::vector<Challenge> parseChallenges(std::string_view header);
