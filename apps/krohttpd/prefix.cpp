#include "prefix.h"

bool covers(std::string_view prefix, std::string_view path) {
  if (!path.starts_with(prefix)) return false;
  return path.size() == prefix.size() || prefix.ends_with('/') || path[prefix.size()] == '/';
}

bool leadsUpwards(std::string_view path) {
  return path == ".." || path.starts_with("../") || path.find("/../") != std::string_view::npos ||
         path.ends_with("/..");
}

std::string normalizedPath(std::string_view path) {
  std::string normalized;
  bool endsInSlash = true;
  for (size_t at = 0; at < path.size();) {
    const size_t end = std::min(path.find('/', at), path.size());
    const std::string_view segment = path.substr(at, end - at);
    endsInSlash = end < path.size() || segment.empty() || segment == ".";
    if (!segment.empty() && segment != ".") normalized.append("/").append(segment);
    at = end + 1;
  }
  if (endsInSlash || normalized.empty()) normalized += '/';
  return normalized;
}

std::string asPrefix(std::string_view path) {
  std::string prefix = normalizedPath(path);
  if (prefix.size() > 1 && prefix.ends_with('/')) prefix.pop_back();
  return prefix;
}
