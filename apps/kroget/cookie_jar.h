// The cookies of all servers, and the file that they are kept in.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "cookie.h"
#include "failure.h"

class CookieJar {
 public:
  // Takes the cookies of the file, if there is one, and keeps its name.
  Failure open(const std::string& path);
  // Whether there is a file. Without one no cookies are kept.
  bool isOpen() const { return !path_.empty(); }
  // Replaces the file.
  Failure save() const;

  // The value of the Cookie header for @p url; empty when there are none.
  std::string cookiesFor(const Url& url) const;
  // Takes what a Set-Cookie header of a reply from @p url says.
  void take(std::string_view setCookie, const Url& url);

 private:
  Failure read();
  void put(Cookie cookie, int64_t now);

  std::string path_;
  std::vector<Cookie> cookies_;  // the oldest first
};
