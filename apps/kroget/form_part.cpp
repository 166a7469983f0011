#include "form_part.h"

#include <algorithm>

#include "text.h"

namespace {

constexpr std::string_view kType = ";type=";
constexpr std::string_view kFilename = ";filename=";

// --- names and types -------------------------------------------------------------------------------------------------

// The encoding of names in forms that browsers agree on.
std::string quotedName(std::string_view name) {
  std::string result = "\"";
  for (const char c : name) {
    if (c == '"')
      result += "%22";
    else if (c == '\r')
      result += "%0D";
    else if (c == '\n')
      result += "%0A";
    else
      result += c;
  }
  return result + "\"";
}

std::string typeBySuffix(std::string_view filename) {
  struct Suffix {
    std::string_view text;
    const char* type;
  };
  static constexpr Suffix kSuffixes[] = {
      {".bmp", "image/bmp"},         {".css", "text/css"},          {".csv", "text/csv"},
      {".gif", "image/gif"},         {".gz", "application/gzip"},   {".htm", "text/html"},
      {".html", "text/html"},        {".jpeg", "image/jpeg"},       {".jpg", "image/jpeg"},
      {".js", "text/javascript"},    {".json", "application/json"}, {".log", "text/plain"},
      {".md", "text/markdown"},      {".mp3", "audio/mpeg"},        {".mp4", "video/mp4"},
      {".pdf", "application/pdf"},   {".png", "image/png"},         {".svg", "image/svg+xml"},
      {".tar", "application/x-tar"}, {".txt", "text/plain"},        {".wav", "audio/wav"},
      {".webp", "image/webp"},       {".xml", "application/xml"},   {".zip", "application/zip"},
  };
  const size_t dot = std::min(filename.rfind('.'), filename.size());
  for (const Suffix& suffix : kSuffixes)
    if (sameWord(filename.substr(dot), suffix.text)) return suffix.type;
  return "application/octet-stream";
}

// RFC 9110 section 8.3.1, with parameters as they come.
bool isMediaType(std::string_view text) {
  const std::string_view type = trimmed(text.substr(0, text.find(';')));
  const size_t slash = std::min(type.find('/'), type.size());
  return !hasControls(text) && isToken(type.substr(0, slash)) && slash < type.size() && isToken(type.substr(slash + 1));
}

// --- words -----------------------------------------------------------------------------------------------------------

// Takes "..." off @p rest; in it \" and \\ stand for themselves. @return false when the end is missing
bool takeQuoted(std::string_view* rest, std::string* word) {
  for (size_t at = 1; at < rest->size(); ++at) {
    if ((*rest)[at] == '"') {
      rest->remove_prefix(at + 1);
      return true;
    }
    const std::string_view next = rest->substr(at + 1, 1);
    if ((*rest)[at] == '\\' && (next == "\"" || next == "\\")) ++at;
    *word += (*rest)[at];
  }
  return false;
}

// Takes a word off @p rest, in quotes or up to what may follow it. @return what is wrong, or nothing
std::string takeWord(std::string_view* rest, std::string* word) {
  if (rest->starts_with('"')) {
    if (!takeQuoted(rest, word)) return "a quote is missing at the end";
    const bool followed = rest->starts_with(kType) || rest->starts_with(kFilename);
    return rest->empty() || followed ? "" : "neither ;type= nor ;filename= is '" + escaped(*rest) + "'";
  }
  const size_t end = std::min({rest->find(kType), rest->find(kFilename), rest->size()});
  *word = rest->substr(0, end);
  rest->remove_prefix(end);
  return "";
}

std::string takeType(std::string_view* rest, FormPart* part) {
  if (!part->type.empty()) return "there are two types";
  rest->remove_prefix(kType.size());
  const std::string error = takeWord(rest, &part->type);
  if (!error.empty()) return error;
  return isMediaType(part->type) ? "" : "'" + escaped(part->type) + "' is no media type";
}

std::string takeFilename(std::string_view* rest, FormPart* part) {
  if (part->filename) return "there are two file names";
  rest->remove_prefix(kFilename.size());
  return takeWord(rest, &part->filename.emplace());
}

// What stands behind @ or <.
std::string parseFile(std::string_view rest, FormPart* part) {
  std::string error = takeWord(&rest, &part->value);
  while (error.empty() && !rest.empty())
    error = rest.starts_with(kType) ? takeType(&rest, part) : takeFilename(&rest, part);
  return error.empty() && part->value.empty() ? "there is no file in it" : error;
}

}  // namespace

std::string parseFormString(std::string_view text, FormPart* part) {
  const size_t equals = text.find('=');
  if (equals == std::string_view::npos || equals == 0) return "it is not NAME=VALUE";
  part->name = text.substr(0, equals);
  part->value = text.substr(equals + 1);
  return "";
}

std::string parseFormPart(std::string_view text, FormPart* part) {
  std::string error = parseFormString(text, part);
  const char mark = part->value.empty() ? '\0' : part->value[0];
  if (!error.empty() || (mark != '@' && mark != '<')) return error;
  part->file = true;
  part->value.clear();
  error = parseFile(text.substr(text.find('=') + 2), part);
  if (!error.empty() || mark == '<') return error;
  if (!part->filename) part->filename = part->value.substr(part->value.rfind('/') + 1);
  if (part->type.empty()) part->type = typeBySuffix(*part->filename);
  return "";
}

std::string headOf(const FormPart& part) {
  std::string head = "Content-Disposition: form-data; name=" + quotedName(part.name);
  if (part.filename) head += "; filename=" + quotedName(*part.filename);
  if (!part.type.empty()) head += "\r\nContent-Type: " + part.type;
  return head + "\r\n\r\n";
}
