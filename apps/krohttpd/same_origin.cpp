#include "same_origin.h"

#include <strings.h>

#include <string_view>

namespace {

// "http://HOST" or "https://HOST": this server does not know what stands in front of it.
bool names(std::string_view origin, std::string_view host) {
  for (const std::string_view scheme : {"http://", "https://"})
    if (origin.starts_with(scheme) && origin.size() - scheme.size() == host.size() &&
        strncasecmp(origin.data() + scheme.size(), host.data(), host.size()) == 0)
      return true;
  return false;
}

}  // namespace

bool isFromElsewhere(HttpRequest* request) {
  const char* const site = http_requestHeaderValue(request, "Sec-Fetch-Site");
  if (site != nullptr) return std::string_view(site) != "same-origin" && std::string_view(site) != "none";
  const char* const origin = http_requestHeaderValue(request, "Origin");
  if (origin == nullptr) return false;
  const char* const host = http_requestHeaderValue(request, "Host");
  return host == nullptr || !names(origin, host);
}
