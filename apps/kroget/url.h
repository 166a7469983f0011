// URLs: what is given on the command line, and where a redirect leads.
#pragma once

#include <optional>
#include <string>
#include <string_view>

// An http URL, ready for use: everything in it may stand in a request.
struct Url {
  std::string host;  // lower case; an IPv6 address without its brackets
  std::string port = "80";
  std::string target;       // path and query as they go onto the wire, "/a%20b?x"
  std::string credentials;  // "user:password", decoded; empty when there are none

  // "host" or "host:port", as the Host header wants it.
  std::string authority() const;
  // For people; without the credentials.
  std::string text() const { return "http://" + authority() + target; }
  bool sameOrigin(const Url& other) const { return host == other.host && port == other.port; }
};

// A URL, or why there is none.
struct ParsedUrl {
  std::optional<Url> url;
  std::string error;
};

// Parses "[http://][user:password@]host[:port][/path][?query][#fragment]".
ParsedUrl parseUrl(std::string_view text);

// Where @p reference leads from @p base (RFC 3986 section 5.2). Credentials are neither taken over nor accepted.
ParsedUrl resolveUrl(const Url& base, std::string_view reference);
