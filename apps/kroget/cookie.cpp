#include "cookie.h"

#include <arpa/inet.h>

#include <algorithm>

#include "cookie_date.h"
#include "text.h"

namespace {

// What others take, too.
constexpr size_t kLongestPair = 4096;
constexpr size_t kLongestAttribute = 1024;
constexpr int64_t kLongAgo = 1;

bool isAddress(const std::string& host) {
  in_addr address;
  return host.find(':') != std::string::npos || inet_pton(AF_INET, host.c_str(), &address) == 1;
}

// RFC 6265 section 5.1.3.
bool domainMatches(const std::string& host, const std::string& domain) {
  if (host == domain) return true;
  return host.size() > domain.size() && host.ends_with(domain) && host[host.size() - domain.size() - 1] == '.' &&
         !isAddress(host);
}

// RFC 6265 section 5.1.4.
bool pathMatches(std::string_view requested, std::string_view path) {
  if (!requested.starts_with(path)) return false;
  return requested.size() == path.size() || path.ends_with('/') || requested[path.size()] == '/';
}

std::string_view pathOf(const Url& url) {
  const std::string_view target = url.target;
  return target.substr(0, target.find('?'));
}

// RFC 6265 section 5.1.4.
std::string defaultPath(const Url& url) {
  const std::string_view path = pathOf(url);
  return std::string(path.substr(0, std::max<size_t>(path.rfind('/'), 1)));
}

// A top-level domain, or a name without one. Longer suffixes that are everybody's, like "co.uk", are not known here.
bool isSingleLabel(std::string_view domain) {
  if (domain.ends_with('.')) domain.remove_suffix(1);
  return domain.find('.') == std::string_view::npos;
}

// RFC 6265 section 5.3, steps 4 to 6. @return false when the domain is another's
bool applyDomain(std::string_view attribute, const Url& url, Cookie* cookie) {
  cookie->domain = url.host;
  if (attribute.starts_with('.')) attribute.remove_prefix(1);
  if (attribute.empty()) return true;
  const std::string domain = lowerCase(attribute);
  if (domain == url.host && (isSingleLabel(domain) || isAddress(domain))) return true;
  if (isSingleLabel(domain) || !domainMatches(url.host, domain)) return false;
  cookie->domain = domain;
  cookie->hostOnly = false;
  return true;
}

// RFC 6265 section 5.2.2. Nothing when it is no number.
std::optional<int64_t> expiryOfMaxAge(std::string_view text, int64_t now) {
  constexpr int64_t kLongest = 400LL * 24 * 60 * 60 * 100;
  const bool negative = text.starts_with('-');
  const std::string digits(text.substr(negative ? 1 : 0));
  if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos) return std::nullopt;
  const int64_t seconds = digits.size() > 12 ? kLongest : std::min<int64_t>(std::stoll(digits), kLongest);
  return negative || seconds == 0 ? kLongAgo : now + seconds;
}

struct Attributes {
  std::string_view domain;
  std::string_view path;
  std::optional<int64_t> maxAge;   // as the time when it is over
  std::optional<int64_t> expires;  // Max-Age comes before it
  bool secure = false;
  bool httpOnly = false;

  void take(std::string_view name, std::string_view value, int64_t now) {
    if (value.size() > kLongestAttribute) return;
    if (sameWord(name, "Domain")) domain = value;
    if (sameWord(name, "Path")) path = value;
    if (sameWord(name, "Secure")) secure = true;
    if (sameWord(name, "HttpOnly")) httpOnly = true;
    if (sameWord(name, "Max-Age"))
      if (const auto expiry = expiryOfMaxAge(value, now)) maxAge = expiry;
    if (sameWord(name, "Expires"))
      if (const auto expiry = parseCookieDate(value)) expires = std::max(*expiry, kLongAgo);
  }
};

// Takes "name=value" off the front, up to and with the next semicolon. @return false without a "="
bool takePair(std::string_view* text, std::string_view* name, std::string_view* value) {
  const size_t end = std::min(text->find(';'), text->size());
  const std::string_view pair = text->substr(0, end);
  text->remove_prefix(std::min(end + 1, text->size()));
  const size_t equals = pair.find('=');
  *name = trimmed(pair.substr(0, equals));
  *value = equals != std::string_view::npos ? trimmed(pair.substr(equals + 1)) : std::string_view();
  return equals != std::string_view::npos;
}

}  // namespace

bool Cookie::isFor(const Url& url) const {
  return !secure && (hostOnly ? url.host == domain : domainMatches(url.host, domain)) && pathMatches(pathOf(url), path);
}

std::optional<Cookie> parseSetCookie(std::string_view text, const Url& url, int64_t now) {
  // A tab separates the fields of a jar.
  if (hasControls(text) || text.find('\t') != std::string_view::npos) return std::nullopt;
  std::string_view name;
  std::string_view value;
  if (!takePair(&text, &name, &value) || name.empty() || name.size() + value.size() > kLongestPair) return std::nullopt;
  Cookie cookie;
  cookie.name = name;
  cookie.value = value;
  Attributes attributes;
  while (!text.empty()) {
    takePair(&text, &name, &value);
    attributes.take(name, value, now);
  }
  if (!applyDomain(attributes.domain, url, &cookie)) return std::nullopt;
  cookie.path = attributes.path.starts_with('/') ? std::string(attributes.path) : defaultPath(url);
  cookie.secure = attributes.secure;
  cookie.httpOnly = attributes.httpOnly;
  cookie.expires = attributes.maxAge ? *attributes.maxAge : attributes.expires.value_or(0);
  return cookie;
}
