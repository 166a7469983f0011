#include "url.h"

#include <arpa/inet.h>

#include <algorithm>
#include <vector>

#include "text.h"

namespace {

constexpr size_t kLongestHost = 253;

bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isAlphanumeric(char c) { return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

int hexDigit(char c) {
  if (isDigit(c)) return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool isEscape(std::string_view text) {
  return text.size() >= 3 && text[0] == '%' && hexDigit(text[1]) >= 0 && hexDigit(text[2]) >= 0;
}

// What stands behind the last byte of @p text that comes before any of @p ends.
std::string_view cutAt(std::string_view* text, std::string_view ends) {
  const size_t end = std::min(text->find_first_of(ends), text->size());
  const std::string_view part = text->substr(0, end);
  text->remove_prefix(end);
  return part;
}

ParsedUrl refuse(std::string why) { return {std::nullopt, std::move(why)}; }

// --- paths and queries (RFC 3986 sections 3.3 and 3.4) ---------------------------------------------------------------

// Escapes what may not stand in a target as it is; what is escaped already stays.
std::string encoded(std::string_view text) {
  constexpr std::string_view kAllowed = "-._~!$&'()*+,;=:@/?";
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string result;
  for (size_t at = 0; at < text.size(); ++at) {
    const char c = text[at];
    if (isAlphanumeric(c) || kAllowed.find(c) != std::string_view::npos || isEscape(text.substr(at))) {
      result += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    result += '%';
    result += kDigits[byte >> 4];
    result += kDigits[byte & 15];
  }
  return result;
}

std::string decoded(std::string_view text) {
  std::string result;
  for (size_t at = 0; at < text.size(); ++at) {
    if (!isEscape(text.substr(at))) {
      result += text[at];
      continue;
    }
    result += static_cast<char>(hexDigit(text[at + 1]) * 16 + hexDigit(text[at + 2]));
    at += 2;
  }
  return result;
}

// RFC 3986 section 5.2.4, for a path that begins with a slash.
std::string withoutDots(std::string_view path) {
  std::vector<std::string_view> kept;
  bool open = false;  // the path ends in a slash
  while (!path.empty()) {
    path.remove_prefix(1);
    const std::string_view segment = cutAt(&path, "/");
    open = segment == "." || segment == "..";
    if (segment == ".." && !kept.empty()) kept.pop_back();
    if (!open) kept.push_back(segment);
  }
  std::string result;
  for (const std::string_view segment : kept) result.append("/").append(segment);
  return open || result.empty() ? result + "/" : result;
}

// --- host and port ---------------------------------------------------------------------------------------------------

bool isPort(std::string_view text) {
  return !text.empty() && text.size() <= 5 && std::all_of(text.begin(), text.end(), isDigit) &&
         std::stoi(std::string(text)) >= 1 && std::stoi(std::string(text)) <= 65535;
}

bool isHostName(std::string_view text) {
  return !text.empty() && text.size() <= kLongestHost && std::all_of(text.begin(), text.end(), [](char c) {
    return isAlphanumeric(c) || c == '-' || c == '.' || c == '_';
  });
}

std::string takeAddress(std::string_view text, Url* url) {
  in6_addr address;
  char normal[INET6_ADDRSTRLEN];
  if (inet_pton(AF_INET6, std::string(text).c_str(), &address) != 1 ||
      inet_ntop(AF_INET6, &address, normal, sizeof normal) == nullptr)
    return "'[" + escaped(text) + "]' is no IPv6 address";
  url->host = normal;
  return "";
}

// Takes the host off the front. @return what is wrong, or nothing
std::string takeHost(std::string_view* authority, Url* url) {
  if (authority->starts_with('[')) {
    const size_t end = authority->find(']');
    if (end == std::string_view::npos) return "']' is missing behind the IPv6 address";
    const std::string_view address = authority->substr(1, end - 1);
    authority->remove_prefix(end + 1);
    return takeAddress(address, url);
  }
  const std::string_view host = cutAt(authority, ":");
  if (host.empty()) return "there is no host name";
  if (!isHostName(host)) return "'" + escaped(host) + "' is no host name";
  url->host = lowerCase(host);
  return "";
}

// What is left of the authority behind the host. @return what is wrong, or nothing
std::string takePort(std::string_view rest, bool mayBeEmpty, Url* url) {
  if (rest.empty() || (rest == ":" && mayBeEmpty)) return "";
  if (rest.front() != ':' || !isPort(rest.substr(1))) return "'" + escaped(rest) + "' is no port";
  url->port = std::to_string(std::stoi(std::string(rest.substr(1))));
  return "";
}

std::string takeAuthority(std::string_view authority, bool hadScheme, Url* url) {
  if (const size_t at = authority.rfind('@'); at != std::string_view::npos) {
    if (at > 0) url->credentials = decoded(authority.substr(0, at));
    if (at > 0 && url->credentials.find(':') == std::string::npos) url->credentials += ':';
    if (hasControls(url->credentials)) return "there is a control character in its credentials";
    authority.remove_prefix(at + 1);
  }
  std::string error = takeHost(&authority, url);
  return error.empty() ? takePort(authority, hadScheme, url) : error;
}

// --- schemes ---------------------------------------------------------------------------------------------------------

// The scheme of "scheme:rest"; empty when there is none (RFC 3986 section 3.1).
std::string_view schemeOf(std::string_view text) {
  const size_t colon = text.find(':');
  if (colon == std::string_view::npos || colon == 0 || isDigit(text[0])) return {};
  const std::string_view scheme = text.substr(0, colon);
  const bool valid = std::all_of(scheme.begin(), scheme.end(),
                                 [](char c) { return isAlphanumeric(c) || c == '+' || c == '-' || c == '.'; });
  return valid ? scheme : std::string_view();
}

std::string refusalOf(std::string_view scheme) {
  if (sameWord(scheme, "http")) return "";
  if (sameWord(scheme, "https")) return "https is not supported, only http is";
  return "'" + escaped(scheme) + "' is not supported, only http is";
}

// "authority[/path][?query][#fragment]"
ParsedUrl parseHierarchy(std::string_view text, bool hadScheme) {
  Url url;
  const std::string_view authority = cutAt(&text, "/?#");
  if (std::string error = takeAuthority(authority, hadScheme, &url); !error.empty()) return refuse(std::move(error));
  url.target = encoded(cutAt(&text, "#"));
  if (!url.target.starts_with('/')) url.target.insert(0, "/");
  return {std::move(url), ""};
}

// The path that a relative one replaces, up to and with its last slash.
std::string directoryOf(std::string_view target) {
  const std::string_view path = target.substr(0, target.find('?'));
  return std::string(path.substr(0, path.rfind('/') + 1));
}

ParsedUrl withoutCredentials(ParsedUrl parsed) {
  if (parsed.url && !parsed.url->credentials.empty()) return refuse("it brings credentials of its own");
  return parsed;
}

}  // namespace

std::string Url::authority() const {
  const std::string name = host.find(':') != std::string::npos ? "[" + host + "]" : host;
  return port == "80" ? name : name + ":" + port;
}

ParsedUrl parseUrl(std::string_view text) {
  if (hasControls(text) || text.find('\t') != std::string_view::npos)
    return refuse("there is a control character in it");
  constexpr std::string_view kSeparator = "://";
  const size_t separator = text.find(kSeparator);
  if (separator == std::string_view::npos || separator > text.find_first_of("/?#@") || separator == 0)
    return parseHierarchy(text, false);
  if (std::string error = refusalOf(text.substr(0, separator)); !error.empty()) return refuse(std::move(error));
  return parseHierarchy(text.substr(separator + kSeparator.size()), true);
}

ParsedUrl resolveUrl(const Url& base, std::string_view reference) {
  reference = cutAt(&reference, "#");
  if (const std::string_view scheme = schemeOf(reference); !scheme.empty()) {
    if (std::string error = refusalOf(scheme); !error.empty()) return refuse(std::move(error));
    reference.remove_prefix(scheme.size() + 1);
    if (!reference.starts_with("//")) return refuse("there is no host name");
  }
  if (reference.starts_with("//")) return withoutCredentials(parseHierarchy(reference.substr(2), true));

  Url url = base;
  url.credentials.clear();
  if (reference.empty()) return {std::move(url), ""};
  std::string_view query = reference;
  const std::string path = encoded(cutAt(&query, "?"));
  if (path.empty())
    url.target = base.target.substr(0, base.target.find('?'));
  else
    url.target = withoutDots(path.starts_with('/') ? path : directoryOf(base.target) + path);
  url.target += encoded(query);
  return {std::move(url), ""};
}
