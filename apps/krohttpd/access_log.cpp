#include "access_log.h"

#include <zel/peer.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

namespace {

FILE* file = nullptr;

// Text from the network, with everything that could forge or garble a line escaped, and @p separator.
void putEscaped(const char* text, char separator = '"') {
  for (; *text != '\0'; ++text) {
    const auto c = static_cast<unsigned char>(*text);
    if (c < 32 || c >= 127 || c == '"' || c == '\\' || *text == separator)
      std::fprintf(file, "\\x%02x", c);
    else
      std::fputc(c, file);
  }
}

void putTime() {
  char text[40];
  const time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  std::strftime(text, sizeof text, "%d/%b/%Y:%H:%M:%S %z", &local);
  std::fputs(text, file);
}

// A field between blanks. "-" is what an empty one looks like.
void putUser(const std::string& user) {
  if (user == "-")
    std::fputs("\\x2d", file);
  else if (user.empty())
    std::fputc('-', file);
  else
    putEscaped(user.c_str(), ' ');
}

void putRequestLine(HttpRequest* request, bool withQuery) {
  const std::unique_ptr<char, decltype(&std::free)> target(
      http_requestPath(request) != nullptr ? http_uriSerialize(http_requestURI(request)) : nullptr, &std::free);
  if (!target) {
    std::fputc('-', file);
    return;
  }
  std::fprintf(file, "%s ", http_requestMethodString(request));
  if (!withQuery) target.get()[std::strcspn(target.get(), "?")] = '\0';
  putEscaped(target.get());
  std::fprintf(file, " HTTP/%u.%u", http_requestVersion(request)[0], http_requestVersion(request)[1]);
}

// That lines are lost is told at the first one, and again after some were written in between.
void tellFailure() {
  static bool told = false;
  const int error = errno;
  const bool failed = std::ferror(file) != 0;
  if (failed && !told) std::fprintf(stderr, "krohttpd: cannot write to the access log: %s\n", std::strerror(error));
  told = failed;
  std::clearerr(file);
}

}  // namespace

bool accessLogOpen(const std::string& path) {
  file = path == "-" ? stdout : std::fopen(path.c_str(), "ae");
  if (file == nullptr) return false;
  std::setvbuf(file, nullptr, _IOLBF, BUFSIZ);
  return true;
}

void accessLogWrite(HttpRequest* request, HttpReply* reply, const std::string& user, bool withQuery) {
  if (file == nullptr) return;
  const char* const address = peer_address(http_requestPeer(request));
  std::fprintf(file, "%s - ", *address != '\0' ? address : "-");
  putUser(user);
  std::fputs(" [", file);
  putTime();
  std::fputs("] \"", file);
  putRequestLine(request, withQuery);
  const char* const length = http_replyHeaderValue(reply, "Content-Length");
  std::fprintf(file, "\" %u %s\n", http_replyStatusCode(reply), length != nullptr ? length : "-");
  tellFailure();
}

void accessLogClose() {
  if (file != nullptr && file != stdout) std::fclose(file);
  file = nullptr;
}
