#include "headers.h"

#include <algorithm>

#include "text.h"

namespace {

// Body streams count 32 bits; a longer body goes in chunks.
constexpr uint64_t kLongestCounted = UINT32_MAX;

// What says where a body ends must agree with the body.
bool isFraming(std::string_view name) {
  return sameWord(name, "Content-Length") || sameWord(name, "Transfer-Encoding");
}

bool isSecret(std::string_view name) { return sameWord(name, "Authorization") || sameWord(name, "Cookie"); }

bool isAboutBody(std::string_view name) { return name.size() > 8 && sameWord(name.substr(0, 8), "Content-"); }

bool isLeftOut(const HeaderPlan& plan, std::string_view name) {
  return (plan.elsewhere && (isSecret(name) || sameWord(name, "Host"))) || (plan.bodyDropped && isAboutBody(name));
}

void addFraming(const HeaderPlan& plan, std::vector<HeaderLine>* lines) {
  if (!plan.hasBody) return;
  if (plan.length && *plan.length <= kLongestCounted)
    lines->push_back({"Content-Length", std::to_string(*plan.length)});
  else
    lines->push_back({"Transfer-Encoding", "chunked"});
}

std::vector<HeaderLine> usualLines(const HeaderPlan& plan) {
  std::vector<HeaderLine> lines;
  lines.push_back({"Host", plan.authority});
  lines.push_back({"User-Agent", "kroget/" KROGET_VERSION});
  lines.push_back({"Accept", "*/*"});
  if (!plan.authorization.empty()) lines.push_back({"Authorization", plan.authorization});
  if (!plan.cookies.empty()) lines.push_back({"Cookie", plan.cookies});
  if (!plan.contentType.empty()) lines.push_back({"Content-Type", plan.contentType});
  return lines;
}

// The library takes a name as a part of a format.
std::string asFormat(const std::string& name) {
  std::string format;
  for (const char c : name) format.append(c == '%' ? 2 : 1, c);
  return format;
}

}  // namespace

std::string parseHeaderOption(std::string_view text, HeaderOption* option) {
  if (hasControls(text)) return "there is a control character in it";
  const size_t colon = text.find(':');
  const bool empty = colon == std::string_view::npos && text.ends_with(';');
  if (colon == std::string_view::npos && !empty) return "it is not 'Name: value'";
  const std::string_view name = text.substr(0, empty ? text.size() - 1 : colon);
  if (!isToken(name)) return "the name is not one that a header may have";
  if (isFraming(name)) return "kroget sets this header itself";
  option->line.name = name;
  option->line.value = empty ? std::string_view() : trimmed(text.substr(colon + 1));
  option->remove = !empty && option->line.value.empty();
  return "";
}

bool isGiven(const std::vector<HeaderOption>& options, std::string_view name) {
  return std::any_of(options.begin(), options.end(),
                     [&](const HeaderOption& option) { return sameWord(option.line.name, name); });
}

std::vector<HeaderLine> headerLines(const HeaderPlan& plan) {
  std::vector<HeaderLine> lines;
  for (HeaderLine& line : usualLines(plan))
    if (!isGiven(plan.options, line.name) || isLeftOut(plan, line.name)) lines.push_back(std::move(line));
  for (const HeaderOption& option : plan.options)
    if (!option.remove && !isLeftOut(plan, option.line.name)) lines.push_back(option.line);
  addFraming(plan, &lines);
  // RFC 9110 section 7.2: Host comes first.
  std::stable_partition(lines.begin(), lines.end(), [](const HeaderLine& line) { return sameWord(line.name, "Host"); });
  return lines;
}

bool addHeaders(HttpRequest* request, const std::vector<HeaderLine>& lines) {
  return std::all_of(lines.begin(), lines.end(), [&](const HeaderLine& line) {
    return http_requestHeaderEmptySet(request, asFormat(line.name).c_str(), "%s", line.value.c_str()) == 0;
  });
}
