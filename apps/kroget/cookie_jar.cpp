#include "cookie_jar.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "common/replacement.h"
#include "handles.h"
#include "text.h"

namespace {

constexpr std::string_view kHttpOnly = "#HttpOnly_";

// --- lines -----------------------------------------------------------------------------------------------------------

// DOMAIN, TRUE when it is for hosts below as well, PATH, TRUE when it is secure, EXPIRY (0: none), NAME, VALUE; with
// tabs in between.
std::string lineOf(const Cookie& cookie) {
  const auto flag = [](bool value) { return value ? "\tTRUE\t" : "\tFALSE\t"; };
  std::string line(cookie.httpOnly ? kHttpOnly : "");
  line += (cookie.hostOnly ? "" : ".") + cookie.domain + flag(!cookie.hostOnly) + cookie.path + flag(cookie.secure);
  return line + std::to_string(cookie.expires) + "\t" + cookie.name + "\t" + cookie.value + "\n";
}

std::vector<std::string_view> fieldsOf(std::string_view line) {
  std::vector<std::string_view> fields;
  for (size_t tab; (tab = line.find('\t')) != std::string_view::npos; line.remove_prefix(tab + 1))
    fields.push_back(line.substr(0, tab));
  fields.push_back(line);
  return fields;
}

bool takeFlag(std::string_view field, bool* flag) {
  *flag = sameWord(field, "TRUE");
  return *flag || sameWord(field, "FALSE");
}

bool takeExpiry(std::string_view field, int64_t* expires) {
  if (field.empty() || field.size() > 18 || field.find_first_not_of("0123456789") != std::string_view::npos)
    return false;
  *expires = std::stoll(std::string(field));
  return true;
}

// @return what is wrong with the line, or nothing
std::string takeLine(std::string_view line, Cookie* cookie) {
  cookie->httpOnly = line.starts_with(kHttpOnly);
  if (cookie->httpOnly) line.remove_prefix(kHttpOnly.size());
  std::vector<std::string_view> fields = fieldsOf(line);
  if (fields.size() == 6) fields.emplace_back();  // an editor has removed the tab before an empty value
  if (fields.size() != 7) return "a cookie has 7 fields with tabs in between";
  if (hasControls(line)) return "there is a control character in it";
  if (fields[0].starts_with('.')) fields[0].remove_prefix(1);
  if (fields[0].empty()) return "there is no domain";
  bool below = false;
  if (!takeFlag(fields[1], &below)) return "the second field is neither TRUE nor FALSE";
  if (!fields[2].starts_with('/')) return "the path does not begin with a slash";
  if (!takeFlag(fields[3], &cookie->secure)) return "the fourth field is neither TRUE nor FALSE";
  if (!takeExpiry(fields[4], &cookie->expires)) return "the expiry is no number";
  if (fields[5].empty()) return "there is no name";
  if (line.find(';') != std::string_view::npos) return "there is a semicolon in it";
  cookie->domain = lowerCase(fields[0]);
  cookie->hostOnly = !below;
  cookie->path = fields[2];
  cookie->name = fields[5];
  cookie->value = fields[6];
  return "";
}

bool isComment(std::string_view line) {
  return line.empty() || (line.starts_with('#') && !line.starts_with(kHttpOnly));
}

// --- the file --------------------------------------------------------------------------------------------------------

Failure cannot(const char* what, const std::string& path, const std::string& why) {
  return {kFileError, std::string("cannot ") + what + " " + path + ": " + why};
}

Failure readWhole(const Descriptor& file, const std::string& path, std::string* text) {
  std::array<char, 65536> block;
  ssize_t count;
  while ((count = ::read(file.get(), block.data(), block.size())) != 0) {
    if (count < 0 && errno != EINTR) return cannot("read", path, std::strerror(errno));
    if (count > 0) text->append(block.data(), static_cast<size_t>(count));
  }
  return {};
}

}  // namespace

Failure CookieJar::open(const std::string& path) {
  path_ = path;
  return read();
}

Failure CookieJar::read() {
  // A pipe would keep us waiting, and a device would be replaced.
  struct stat status {};
  if (stat(path_.c_str(), &status) != 0 && errno == ENOENT) return {};
  const Descriptor file(::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (file.get() < 0 || fstat(file.get(), &status) != 0) return cannot("read", path_, std::strerror(errno));
  if (!S_ISREG(status.st_mode)) return cannot("read", path_, "it is no regular file");
  std::string text;
  if (Failure failure = readWhole(file, path_, &text)) return failure;
  const int64_t now = std::time(nullptr);
  int number = 0;
  for (std::string_view rest = text; !rest.empty();) {
    const size_t end = std::min(rest.find('\n'), rest.size());
    std::string_view line = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    ++number;
    if (line.ends_with('\r')) line.remove_suffix(1);
    if (isComment(line)) continue;
    Cookie cookie;
    const std::string error = takeLine(line, &cookie);
    if (!error.empty()) return {kFileError, path_ + ":" + std::to_string(number) + ": " + error};
    put(std::move(cookie), now);
  }
  return {};
}

Failure CookieJar::save() const {
  const int64_t now = std::time(nullptr);
  std::string text = "# Netscape HTTP Cookie File\n# Written by kroget, and replaced as a whole each time.\n\n";
  for (const Cookie& cookie : cookies_)
    if (!cookie.isExpired(now)) text += lineOf(cookie);
  if (!Replacement(fileBehind(path_)).write(text)) return cannot("write", path_, std::strerror(errno));
  return {};
}

// --- cookies ---------------------------------------------------------------------------------------------------------

// One that is replaced keeps its place: it is as old as before.
void CookieJar::put(Cookie cookie, int64_t now) {
  const auto found =
      std::find_if(cookies_.begin(), cookies_.end(), [&](const Cookie& one) { return one.isSame(cookie); });
  const bool known = found != cookies_.end();
  if (cookie.isExpired(now)) {
    if (known) cookies_.erase(found);
  } else if (known) {
    *found = std::move(cookie);
  } else {
    cookies_.push_back(std::move(cookie));
  }
}

// RFC 6265 section 5.4: longer paths come first, then those that are older.
std::string CookieJar::cookiesFor(const Url& url) const {
  const int64_t now = std::time(nullptr);
  std::vector<const Cookie*> chosen;
  for (const Cookie& cookie : cookies_)
    if (!cookie.isExpired(now) && cookie.isFor(url)) chosen.push_back(&cookie);
  std::stable_sort(chosen.begin(), chosen.end(),
                   [](const Cookie* one, const Cookie* other) { return one->path.size() > other->path.size(); });
  std::string text;
  for (const Cookie* cookie : chosen) text += (text.empty() ? "" : "; ") + cookie->name + "=" + cookie->value;
  return text;
}

// What was set over a secure connection is not changed over one that anybody can write to.
void CookieJar::take(std::string_view setCookie, const Url& url) {
  const int64_t now = std::time(nullptr);
  std::optional<Cookie> cookie = parseSetCookie(setCookie, url, now);
  if (!cookie) return;
  const bool guarded = std::any_of(cookies_.begin(), cookies_.end(),
                                   [&](const Cookie& one) { return one.secure && one.isSame(*cookie); });
  if (!guarded) put(std::move(*cookie), now);
}
