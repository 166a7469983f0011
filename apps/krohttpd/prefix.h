// Which paths a prefix covers: for --proxy, --protect and --upload.
#pragma once

#include <string>
#include <string_view>

// Whether @p prefix covers @p path: "/api" covers "/api" and "/api/x", but not "/apix".
bool covers(std::string_view prefix, std::string_view path);

// Whether a segment of @p path is "..".
bool leadsUpwards(std::string_view path);

// @p path without its empty and "." segments; a slash at its end stays.
std::string normalizedPath(std::string_view path);

// normalizedPath(), as the prefix of a rule: without a slash at its end, but for that of the root.
std::string asPrefix(std::string_view path);

// The element of @p rules, each with a prefix, whose prefix is the longest that covers @p path; null when there is
// none.
template <typename Rules>
auto longestMatch(const Rules& rules, std::string_view path) -> decltype(rules.data()) {
  decltype(rules.data()) best = nullptr;
  for (const auto& rule : rules)
    if (covers(rule.prefix, path) && (best == nullptr || rule.prefix.size() > best->prefix.size())) best = &rule;
  return best;
}
