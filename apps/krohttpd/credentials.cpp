#include "credentials.h"

#include <cstring>
#include <string_view>

namespace {

// The header that the library judges.
const char* textOf(HttpRequest* request) {
  const char* const own = http_requestHeaderValue(request, "X-KRO-Authorization");
  return own != nullptr ? own : http_requestHeaderValue(request, "Authorization");
}

bool isOfScheme(std::string_view text, AuthScheme scheme) {
  if (scheme == AuthScheme::kDigest) return text.starts_with("Digest ");
  return scheme == AuthScheme::kBasic && (text.starts_with("Basic ") || text.starts_with("Kro "));
}

struct Inquiry {
  const Users& users;
  std::string user;
};

int checkBasic(const char* username, const char* password, void* data) {
  auto* const inquiry = static_cast<Inquiry*>(data);
  if (username == nullptr || password == nullptr || !inquiry->users.accept(username, password)) return -1;
  inquiry->user = username;
  return 0;
}

int findHa1(const char* username, char** ha1, void* data) {
  auto* const inquiry = static_cast<Inquiry*>(data);
  const std::string* const known = username != nullptr ? inquiry->users.ha1Of(username) : nullptr;
  if (known == nullptr) return -1;
  *ha1 = strdup(known->c_str());
  if (*ha1 == nullptr) return -1;
  inquiry->user = username;
  return 0;
}

// A copy of a target, parsed.
class Target {
 public:
  explicit Target(std::string text) : text_(std::move(text)) { parsed_ = http_uriParse(&uri_, text_.data()) == 0; }
  Target(const Target&) = delete;
  Target& operator=(const Target&) = delete;

  // The query as it stands: decoding could join what an escape keeps apart.
  bool matches(HttpUri* uri) {
    return parsed_ && std::strcmp(uri_.path, uri->path) == 0 &&
           std::strcmp(http_uriQueryString(&uri_), http_uriQueryString(uri)) == 0;
  }

 private:
  std::string text_;
  HttpUri uri_{};
  bool parsed_;
};

// RFC 7616 section 3.4.6: credentials that were made for another target must not open this one.
bool isMadeForTarget(HttpRequest* request, const char* text) {
  HttpHeader header{};
  header.code = HTTP_HEADER_AUTHORIZATION;
  std::string copy = text;
  const bool read = auth_hdrFactoryAuthorization(&header, copy.data()) == 0;
  const char* const uri = read ? header.authorization.uri : nullptr;
  const bool matches = uri != nullptr && *uri != '\0' && Target(uri).matches(http_requestURI(request));
  http_hdrCleanup(&header);
  return matches;
}

}  // namespace

bool hasCredentials(HttpRequest* request, AuthScheme scheme) {
  const char* const text = textOf(request);
  return text != nullptr && isOfScheme(text, scheme);
}

Credentials judgeCredentials(HttpRequest* request, AuthScheme scheme, const Users& users, std::string* user) {
  if (!hasCredentials(request, scheme)) return Credentials::kNone;
  if (scheme == AuthScheme::kDigest && !isMadeForTarget(request, textOf(request))) return Credentials::kMisdirected;
  Inquiry inquiry{users, ""};
  if (http_requestAuthenticate(request, checkBasic, findHa1, &inquiry) != 0) return Credentials::kRefused;
  *user = inquiry.user;
  return Credentials::kAccepted;
}
