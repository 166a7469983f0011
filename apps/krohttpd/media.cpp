#include "media.h"

#include <strings.h>

#include <cstring>

bool isOfType(HttpRequest* request, std::string_view type) {
  const char* const value = http_requestHeaderValue(request, "Content-Type");
  if (value == nullptr || strncasecmp(value, type.data(), type.size()) != 0) return false;
  return std::strchr("; \t", value[type.size()]) != nullptr;  // parameters, or the end
}

bool acceptsHtml(HttpRequest* request) {
  const char* const accept = http_requestHeaderValue(request, "Accept");
  return accept != nullptr && strcasestr(accept, "text/html") != nullptr;
}
