#include "login.h"

#include <krohttp/krohttp.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

#include "handles.h"
#include "text.h"

namespace {

// What the library hashes of "user:realm:password" and "method:uri", and of all that a response is made of.
constexpr size_t kLongestHashed = 600;
constexpr size_t kLongestNonce = 1000;

bool isBasic(const Challenge& challenge) { return sameWord(challenge.scheme, "Basic"); }
bool isDigest(const Challenge& challenge) { return sameWord(challenge.scheme, "Digest"); }

std::string valueOf(const Challenge& challenge, std::string_view name) {
  const std::string* const value = challenge.find(name);
  return value != nullptr ? *value : "";
}

// Without a list of them the response is that of RFC 2069, section 2.1.2.
bool hasQop(const Challenge& challenge) { return !valueOf(challenge, "qop").empty(); }

// --- the library's Authorization header ------------------------------------------------------------------------------

char* copyOf(const std::string& text) {
  char* const copy = strdup(text.c_str());
  if (copy == nullptr) throw std::bad_alloc();
  return copy;
}

class AuthorizationHeader {
 public:
  explicit AuthorizationHeader(HttpAuthScheme scheme) : request_(http_requestCreate()) {
    if (!request_) throw std::bad_alloc();
    header_.code = HTTP_HEADER_AUTHORIZATION;
    header_.authorization.scheme = scheme;
  }
  ~AuthorizationHeader() { http_hdrCleanup(&header_); }
  AuthorizationHeader(const AuthorizationHeader&) = delete;
  AuthorizationHeader& operator=(const AuthorizationHeader&) = delete;

  auth_authorization& fields() { return header_.authorization; }
  // Its value as the library writes it.
  std::string serialized() {
    if (http_requestHeaderSet(request_.get(), &header_) < 0) throw std::bad_alloc();
    return http_requestHeaderValue(request_.get(), "Authorization");
  }

 private:
  HttpHeader header_{};
  Request request_;
};

// The value of response="..." in what the library has written. It is the last but one: names from elsewhere stand
// before it.
std::string responseIn(const std::string& serialized) {
  constexpr std::string_view kStart = "response=\"";
  constexpr size_t kLength = 32;
  return serialized.substr(serialized.rfind(kStart) + kStart.size(), kLength);
}

std::string hashOf(const std::string& user, const std::string& realm, const std::string& password) {
  const std::unique_ptr<char, decltype(&std::free)> hash(
      http_generateDigestHash(user.c_str(), realm.c_str(), password.c_str()), &std::free);
  if (!hash) throw std::bad_alloc();
  return hash.get();
}

// --- parameters ------------------------------------------------------------------------------------------------------

std::string quoted(std::string_view text) {
  std::string result = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') result += '\\';
    result += c;
  }
  return result + "\"";
}

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : ", ") + word;
  return text;
}

}  // namespace

std::string Nonces::use(const std::string& nonce) {
  char count[9];
  std::snprintf(count, sizeof count, "%08x", ++counts_[nonce]);
  return count;
}

Login::Login(const std::string& credentials, Nonces& nonces) : nonces_(nonces) {
  const size_t colon = credentials.find(':');
  user_ = credentials.substr(0, colon);
  if (colon != std::string::npos) password_ = credentials.substr(colon + 1);
}

// --- choosing --------------------------------------------------------------------------------------------------------

// Digest does not tell the password, so it comes first.
std::string Login::choose(const std::vector<Challenge>& challenges, const std::string& method,
                          const std::string& target) {
  chosen_.reset();
  std::vector<std::string> obstacles;
  for (const Challenge& challenge : challenges) {
    const std::string why = obstacle(challenge, method, target);
    if (!why.empty())
      obstacles.push_back(why);
    else if (!chosen_ || (isBasic(*chosen_) && isDigest(challenge)))
      chosen_ = challenge;
  }
  if (chosen_) return "";
  return obstacles.empty() ? "the server does not say how to log in" : "kroget cannot answer " + joined(obstacles);
}

// Basic is the same whatever its parameters are, and not everybody escapes the quotes in a realm.
std::string Login::obstacle(const Challenge& challenge, const std::string& method, const std::string& target) const {
  if (isBasic(challenge)) return "";
  return isDigest(challenge) ? obstacleOfDigest(challenge, method, target) : escaped(challenge.scheme);
}

std::string Login::obstacleOfDigest(const Challenge& challenge, const std::string& method,
                                    const std::string& target) const {
  const std::string* const realm = challenge.find("realm");
  const std::string* const nonce = challenge.find("nonce");
  const std::string* const algorithm = challenge.find("algorithm");
  if (challenge.broken) return "Digest with a mistake in it";
  if (realm == nullptr || nonce == nullptr) return "Digest without realm or nonce";
  if (algorithm != nullptr && !sameWord(*algorithm, "MD5")) return "Digest with " + escaped(*algorithm);
  if (hasQop(challenge) && !listHas(valueOf(challenge, "qop"), "auth"))
    return "Digest with qop " + escaped(valueOf(challenge, "qop"));
  if (prot_methodCode(method.c_str()) == HTTP_METHOD_UNKNOWN) return "Digest for the method " + method;
  if (method.size() + target.size() + 1 > kLongestHashed) return "Digest for a URL of this length";
  if (user_.size() + realm->size() + password_.size() + 2 > kLongestHashed || nonce->size() > kLongestNonce)
    return "Digest with texts of this length";
  return "";
}

bool Login::isStale(const std::vector<Challenge>& challenges) const {
  if (!chosen_ || !isDigest(*chosen_)) return false;
  for (const Challenge& challenge : challenges)
    if (isDigest(challenge) && sameWord(valueOf(challenge, "stale"), "true")) return true;
  return false;
}

// --- answering -------------------------------------------------------------------------------------------------------

std::string Login::authorization(const std::string& method, const std::string& target) {
  if (!chosen_) return "";
  return isDigest(*chosen_) ? digest(method, target) : basic();
}

std::string Login::basic() const {
  AuthorizationHeader header(HTTP_AUTH_BASIC);
  header.fields().username = copyOf(user_);
  header.fields().password = copyOf(password_);
  return header.serialized();
}

// The library's own line always has all parameters, in the way its servers take them. Others want back what they asked
// for and no more (RFC 7616 section 3.4): only the response is the library's.
std::string Login::digest(const std::string& method, const std::string& target) {
  const std::string realm = valueOf(*chosen_, "realm");
  const std::string nonce = valueOf(*chosen_, "nonce");
  AuthorizationHeader header(HTTP_AUTH_DIGEST);
  auth_authorization& fields = header.fields();
  fields.username = copyOf(user_);
  fields.password = copyOf(hashOf(user_, realm, password_));
  fields.method = prot_methodCode(method.c_str());
  fields.realm = copyOf(realm);
  fields.nonce = copyOf(nonce);
  fields.uri = copyOf(target);
  fields.nc = copyOf(nonces_.use(nonce));
  if (hasQop(*chosen_)) fields.qop = copyOf("auth");
  const std::string response = responseIn(header.serialized());

  std::string line = "Digest username=" + quoted(user_) + ", realm=" + quoted(realm) + ", nonce=" + quoted(nonce) +
                     ", uri=" + quoted(target);
  if (chosen_->find("algorithm") != nullptr) line += ", algorithm=MD5";
  if (hasQop(*chosen_)) line += std::string(", qop=auth, nc=") + fields.nc + ", cnonce=" + quoted(fields.cnonce);
  line += ", response=" + quoted(response);
  if (const std::string* const opaque = chosen_->find("opaque")) line += ", opaque=" + quoted(*opaque);
  return line;
}
