// One cookie: what a server sets, and where it goes back to (RFC 6265).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "url.h"

struct Cookie {
  std::string name;
  std::string value;
  std::string domain;  // lower case, without a leading dot
  bool hostOnly = true;
  std::string path;
  bool secure = false;
  bool httpOnly = false;
  int64_t expires = 0;  // seconds since the epoch; 0: with the session

  // One of them takes the place of the other.
  bool isSame(const Cookie& other) const {
    return name == other.name && domain == other.domain && hostOnly == other.hostOnly && path == other.path;
  }
  bool isExpired(int64_t now) const { return expires != 0 && expires <= now; }
  // It is to be sent with a request for @p url. A secure one never is: there is no secure connection here.
  bool isFor(const Url& url) const;
};

// Reads the Set-Cookie header of a reply from @p url. @return nothing when it is to be ignored
std::optional<Cookie> parseSetCookie(std::string_view text, const Url& url, int64_t now);
