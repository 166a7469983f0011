#include <krohttp/auth.h>
#include <krohttp/utils.h>

#include <openssl/md5.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "auth_internal.h"
#include "memory.h"

#define TRACE_ZONE "http-auth"
#include "trace.h"

namespace {

int failed(const char* what) {
  TRACE_ERROR("%s", what);
  return -1;
}

// --- digests ---------------------------------------------------------------------------------------------------------

constexpr size_t kLongestInput = 600;
constexpr size_t kLongestResponseInput = 1200;

// A text of bounded length, put together piece by piece. What does not fit is cut off.
template <size_t kCapacity>
class BoundedText {
 public:
  BoundedText& add(std::string_view piece, size_t bound = kCapacity) {
    const size_t count = std::min(piece.size(), std::min(bound, kCapacity) - std::min(bound, length_));
    std::memcpy(text_ + length_, piece.data(), count);
    length_ += count;
    return *this;
  }
  std::string_view view() const { return {text_, length_}; }

 private:
  size_t length_ = 0;
  char text_[kCapacity];
};

constexpr size_t kHexLength = 2 * MD5_DIGEST_LENGTH;

// Returns whether there is something to print, and somewhere to print it to.
int printHex(const unsigned char* digest, char* output) {
  if (digest == nullptr || output == nullptr) return 0;
  for (int i = 0; i < MD5_DIGEST_LENGTH; ++i) std::snprintf(output + 2 * i, 3, "%02x", digest[i]);
  return 1;
}

// MD5 is what the scheme is made of.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
void hashInto(std::string_view text, char (&hex)[kHexLength + 1]) {
  unsigned char digest[MD5_DIGEST_LENGTH] = {};
  MD5_CTX context;
  MD5_Init(&context);
  MD5_Update(&context, text.data(), text.size());
  MD5_Final(digest, &context);
  printHex(digest, hex);
}
#pragma GCC diagnostic pop

char* copyOf(const char* hex) {
  char* const copy = strdup(hex);
  if (copy == nullptr) TRACE_ERROR("unable to create digest: %m");
  return copy;
}

const char* methodName(int method) {
  switch (method) {
    case HTTP_METHOD_CONNECT:
      return "CONNECT";
    case HTTP_METHOD_DELETE:
      return "DELETE";
    case HTTP_METHOD_GET:
      return "GET";
    case HTTP_METHOD_HEAD:
      return "HEAD";
    case HTTP_METHOD_OPTIONS:
      return "OPTIONS";
    case HTTP_METHOD_POST:
      return "POST";
    case HTTP_METHOD_PUT:
      return "PUT";
    case HTTP_METHOD_TRACE:
      return "TRACE";
    case 9:
      return "COUNT";
    default:
      return "ERROR";
  }
}

// What the response is computed from is there.
bool isComputable(const auth_authorization* value) {
  return value->password != nullptr && value->nonce != nullptr && value->uri != nullptr &&
         (value->qop == nullptr || (value->nc != nullptr && value->cnonce != nullptr));
}

// --- reading ---------------------------------------------------------------------------------------------------------

int auth_hdrFactoryAuthorizationBasic(HttpHeader* header, const char* text) {
  auth_authorization& value = header->authorization;
  TRACE_INFO("handling basic authorization (%s)", text);
  const char* const blank = std::strchr(text, ' ');
  if (blank == nullptr) {
    TRACE_ERROR("unable to parse basic Authorization header %s", text);
    return -1;
  }
  value.username = value.password = nullptr;
  char* decoded = nullptr;
  if (http_base64Decode(blank + 1, static_cast<unsigned>(std::strlen(blank + 1)), &decoded) < 0) {
    TRACE_INFO("Client authentification header");
    return 0;
  }
  TRACE_INFO("Server authentification header");
  CString credentials(decoded);
  char* const colon = std::strchr(decoded, ':');
  if (colon == nullptr) return failed("no ':' found in string, this is not a valid base64 encoded string");
  *colon = '\0';
  value.password = strdup(colon + 1);
  if (value.password == nullptr) return failed("unable to create basic authorization header");
  value.username = credentials.release();
  return 0;
}

// A value without its quotes and what stands behind them, of bounded length. One whose closing quote is missing is
// empty.
CString unquoted(const char* quoted) {
  std::string_view text = quoted;
  if (!text.starts_with('"')) return CString(strndup(quoted, kLongestInput));
  text = text.substr(1, kLongestInput);
  const size_t closing = text.rfind('"');
  if (closing == std::string_view::npos) TRACE_WARNING("quoted value does not end");
  return CString(strndup(text.data(), closing == std::string_view::npos ? 0 : closing));
}

// The field that a Digest parameter fills, null for the parameters that do not matter.
char** fieldOf(auth_authorization* value, std::string_view key) {
  struct Field {
    std::string_view key;
    char* auth_authorization::*field;
  };
  static constexpr Field kFields[] = {
      {"username", &auth_authorization::username}, {"realm", &auth_authorization::realm},
      {"nonce", &auth_authorization::nonce},       {"uri", &auth_authorization::uri},
      {"qop", &auth_authorization::qop},           {"nc", &auth_authorization::nc},
      {"cnonce", &auth_authorization::cnonce},     {"response", &auth_authorization::response},
      {"opaque", &auth_authorization::opaque}};
  for (const Field& field : kFields)
    if (key == field.key) return &(value->*field.field);
  return nullptr;
}

bool storeParameter(auth_authorization* value, const char* key, const char* text) {
  char** const field = fieldOf(value, key);
  if (field == nullptr || text == nullptr) return true;
  CString copy = unquoted(text);
  if (!copy) return false;
  std::free(*field);
  *field = copy.release();
  return true;
}

int auth_hdrFactoryAuthorizationDigest(HttpHeader* header, const char* text) {
  auth_authorization& value = header->authorization;
  value.realm = value.nonce = value.uri = value.qop = nullptr;
  value.nc = value.cnonce = value.response = value.opaque = nullptr;
  const CString copy(strdup(text));
  if (!copy) {
    TRACE_ERROR("unable to create digest authorization header: %m");
    return -1;
  }
  char* key = nullptr;
  char* parameter = nullptr;
  char* cursor = nullptr;
  for (char* rest = copy.get() + std::strlen("Digest"); utils_keyvalue(rest, &key, &parameter, &cursor, ',') > 0;
       rest = nullptr) {
    if (storeParameter(&value, key, parameter)) continue;
    TRACE_ERROR("unable to create digest authorization header: %m");
    return -1;
  }
  return 0;
}

// --- writing ---------------------------------------------------------------------------------------------------------

int auth_hdrSerializeAuthorizationBasic(HttpHeader* header, HttpMessage* message) {
  const auth_authorization& value = header->authorization;
  char* text = nullptr;
  const int length = asprintf(&text, "%s:%s", value.username != nullptr ? value.username : "",
                              value.password != nullptr ? value.password : "");
  if (length < 0) {
    TRACE_ERROR("unable to create basic digest: %m");
    return -1;
  }
  const CString credentials(text);
  char* encoded = nullptr;
  if (http_base64Encode(text, static_cast<unsigned>(length), &encoded) < 0)
    return failed("unable to base64 encode digest");
  const CString owned(encoded);
  return msg_setHeaderLine(message, "%s: Basic %s", "Authorization", encoded);
}

bool replaceField(char** field, const char* text) {
  char* const copy = strdup(text);
  if (copy == nullptr) return false;
  std::free(*field);
  *field = copy;
  return true;
}

int auth_hdrSerializeAuthorizationDigest(HttpHeader* header, HttpMessage* message) {
  auth_authorization& value = header->authorization;
  char cnonce[35] = {};
  if (http_generateRandomString(cnonce, sizeof cnonce - 1) < 0) return failed("unable to generate random string");
  if (!replaceField(&value.cnonce, cnonce) || (value.nc == nullptr && !replaceField(&value.nc, "00000001"))) {
    TRACE_ERROR("unable to create digest authorization header: %m");
    return -1;
  }
  if (value.username == nullptr || value.realm == nullptr)
    return failed("unable to serialize digest authorization header: a field is missing");
  const CString response(http_generateDigestCompleteHash(&value));
  if (!response) return -1;
  return msg_setHeaderLine(message,
                           "Authorization: Digest username=\"%s\", realm=\"%s\", algorithm=\"MD5\", nonce=\"%s\", "
                           "uri=\"%s\", qop=auth, nc=%s, cnonce=\"%s\", response=\"%s\", opaque=\"%s\"",
                           value.username, value.realm, value.nonce, value.uri, value.nc, value.cnonce, response.get(),
                           value.opaque != nullptr ? value.opaque : "");
}

}  // namespace

bool auth_equal(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  unsigned difference = 0;
  for (size_t at = 0; at < a.size(); ++at) difference |= static_cast<unsigned char>(a[at] ^ b[at]);
  return difference == 0;
}

char* http_generateDigestCompleteHash(const auth_authorization* value) {
  const char* const method = methodName(value->method);
  TRACE_INFO(" ha2   = %s:%s", method, textOrNull(value->uri));
  if (!isComputable(value)) {
    TRACE_ERROR("unable to compute digest response: a field is missing");
    return nullptr;
  }
  BoundedText<kLongestInput> input2;
  char ha2[kHexLength + 1];
  hashInto(input2.add(method, kLongestInput - 1).add(":").add(value->uri).view(), ha2);
  TRACE_INFO(" total = %s:%s:%s:%s:%s:%s", value->password, value->nonce, textOrNull(value->nc),
             textOrNull(value->cnonce), textOrNull(value->qop), ha2);

  BoundedText<kLongestResponseInput> input;
  input.add(value->password, kLongestResponseInput - 1).add(":").add(value->nonce);
  if (value->qop != nullptr) input.add(":").add(value->nc).add(":").add(value->cnonce).add(":").add(value->qop);
  char response[kHexLength + 1];
  hashInto(input.add(":").add(ha2).view(), response);
  return copyOf(response);
}

int http_digestAuthenticate(const auth_authorization* value) {
  const CString computed(http_generateDigestCompleteHash(value));
  if (!computed) return -1;
  if (value->response != nullptr && auth_equal(computed.get(), value->response)) {
    TRACE_INFO("DIGEST AUTH - AUTHENTICATION OK");
    return 0;
  }
  TRACE_WARNING("DIGEST AUTH - Computed Result:%s", computed.get());
  TRACE_WARNING("DIGEST AUTH - Transmitted Result:%s", textOrNull(value->response));
  TRACE_WARNING("DIGEST AUTH - AUTHENTICATION NOK");
  return -1;
}

extern "C" {

// --- the registry's rows ---------------------------------------------------------------------------------------------

int auth_hdrFactoryAuthorization(HttpHeader* header, char* text) {
  TRACE_INFO("initializing authorization (%s)", textOrNull(text));
  const std::string_view value = text != nullptr ? text : "";
  if (value.starts_with("Basic") || value.starts_with("Kro")) {
    header->authorization.scheme = HTTP_AUTH_BASIC;
    return auth_hdrFactoryAuthorizationBasic(header, text);
  }
  if (value.starts_with("Digest")) {
    header->authorization.scheme = HTTP_AUTH_DIGEST;
    return auth_hdrFactoryAuthorizationDigest(header, text);
  }
  return 0;
}

int auth_hdrSerializeAuthorization(HttpHeader* header, HttpMessage* message) {
  switch (header->authorization.scheme) {
    case HTTP_AUTH_BASIC:
      return auth_hdrSerializeAuthorizationBasic(header, message);
    case HTTP_AUTH_DIGEST:
      return auth_hdrSerializeAuthorizationDigest(header, message);
    default:
      return -1;
  }
}

void auth_hdrFreeAuthorization(HttpHeader* header) {
  auth_authorization& value = header->authorization;
  if (value.scheme != HTTP_AUTH_BASIC && value.scheme != HTTP_AUTH_DIGEST) return;
  std::free(value.username);
  std::free(value.password);
  if (value.scheme == HTTP_AUTH_DIGEST)
    for (char* const text :
         {value.realm, value.nonce, value.uri, value.qop, value.nc, value.cnonce, value.response, value.opaque})
      std::free(text);
  value = auth_authorization{};
}

char* http_generateDigestHash(const char* user, const char* realm, const char* password) {
  TRACE_INFO("hash1=%s:%s:%s", textOrNull(user), textOrNull(realm), textOrNull(password));
  if (user == nullptr || realm == nullptr || password == nullptr) {
    TRACE_ERROR("unable to create digest: a part is missing");
    return nullptr;
  }
  BoundedText<kLongestInput> input;
  char ha1[kHexLength + 1];
  hashInto(input.add(user).add(":").add(realm).add(":").add(password).view(), ha1);
  return copyOf(ha1);
}

// --- checking requests -----------------------------------------------------------------------------------------------

}  // extern "C"

namespace {

constexpr const char* kOwnHeader = "X-KRO-Authorization";

// A header that is cleaned up whatever happens.
class Credentials {
 public:
  Credentials() { header_.code = HTTP_HEADER_AUTHORIZATION; }
  ~Credentials() { http_hdrCleanup(&header_); }
  Credentials(const Credentials&) = delete;
  Credentials& operator=(const Credentials&) = delete;

  // As the message's own header or that of the library.
  int readFrom(HttpRequest* request) {
    const char* const own = http_requestHeaderValue(request, kOwnHeader);
    return own != nullptr ? auth_hdrFactoryAuthorization(&header_, const_cast<char*>(own)) : readStandard(request);
  }
  int readStandard(HttpRequest* request) { return http_requestHeader(request, &header_); }
  auth_authorization& value() { return header_.authorization; }

 private:
  HttpHeader header_{};
};

int checkDigest(HttpRequest* request, auth_authorization* value, auth_digest_ha1 digestHa1, void* data) {
  value->method = http_requestMethod(request);
  if (digestHa1 == nullptr || digestHa1(value->username, &value->password, data) < 0)
    return failed("Digest verifier failed");
  return http_digestAuthenticate(value);
}

int checkBasic(const auth_authorization& value, auth_basic_check basicCheck, void* data) {
  return basicCheck != nullptr ? basicCheck(value.username, value.password, data) : failed("Basic verifier is not set");
}

// What both refusals have in common: the head with its challenge, and the page.
int sendChallenge(HttpReply* reply, const char* challenge) {
  if (http_replyHeaderValueSet(reply, "WWW-Authenticate", "%s", challenge) < 0)
    return failed("unable to send authenticate header");
  if (http_replySend(reply) < 0) return failed("unable to send status code");
  if (rp_bodyWithDefault(reply, 401) < 0) return failed("unable to send reply body");
  http_replyDone(reply);
  return 0;
}

template <typename... Arguments>
int sendFormattedChallenge(HttpReply* reply, const char* format, Arguments... arguments) {
  char* text = nullptr;
  if (asprintf(&text, format, arguments...) < 0) return failed("unable to send authenticate header");
  const CString challenge(text);
  return sendChallenge(reply, text);
}

}  // namespace

extern "C" {

int http_requestTryingToAuthenticate(HttpRequest* request) {
  Credentials credentials;
  return credentials.readStandard(request) == 0 || http_requestHeaderValue(request, kOwnHeader) != nullptr ? 1 : 0;
}

int http_requestAuthenticate(HttpRequest* request, auth_basic_check basicCheck, auth_digest_ha1 digestHa1, void* data) {
  Credentials credentials;
  if (credentials.readFrom(request) < 0) return failed("unable to fetch Authorization header");
  switch (credentials.value().scheme) {
    case HTTP_AUTH_BASIC:
      return checkBasic(credentials.value(), basicCheck, data);
    case HTTP_AUTH_DIGEST:
      return checkDigest(request, &credentials.value(), digestHa1, data);
    default:
      return -1;
  }
}

int http_replyWithAuthBasicFailed(HttpReply* reply, const char* realm) {
  if (rp_messageWithDefault(reply, 401) < 0) return failed("unable to send default reply message");
  return sendFormattedChallenge(reply, "Basic realm=\"%s\"", realm);
}

int http_replyWithAuthDigestFailed(HttpReply* reply, const char* realm, const char* qop) {
  if (rp_messageWithDefault(reply, 401) < 0) return failed("unable to send default reply message");
  char nonce[35] = {};
  char opaque[33] = {};
  if (http_generateRandomString(nonce, sizeof nonce - 1) < 0 ||
      http_generateRandomString(opaque, sizeof opaque - 1) < 0)
    return failed("unable to generate random string");
  return sendFormattedChallenge(reply,
                                "Digest realm=\"%s\", nonce=\"%s\", opaque=\"%s\", algorithm=\"MD5\", qop=\"%s\"",
                                realm, nonce, opaque, qop);
}

}  // extern "C"
