#include "upload_page.h"

#include <openssl/evp.h>

#include <array>
#include <cstring>
#include <string_view>

#include "form.h"
#include "upload_site.h"

namespace {

std::string policy;
std::string form;

std::string replaced(std::string text, std::string_view what, std::string_view with) {
  const size_t at = text.find(what);
  return at == std::string::npos ? text : text.replace(at, what.size(), with);
}

// 'sha256-...': admits exactly this text between its tags.
std::string sourceOf(std::string_view text) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
  unsigned length = 0;
  EVP_Digest(text.data(), text.size(), digest.data(), &length, EVP_sha256(), nullptr);
  std::array<unsigned char, 4 * EVP_MAX_MD_SIZE / 3 + 4> encoded;
  EVP_EncodeBlock(encoded.data(), digest.data(), static_cast<int>(length));
  return std::string("'sha256-").append(reinterpret_cast<const char*>(encoded.data())) + "'";
}

std::string styleElement() { return std::string("<style>") + kUploadStyle + "</style>"; }

std::string page(const std::string& title, const std::string& content) {
  return "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
         "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
         "<meta name=\"color-scheme\" content=\"light dark\">\n<link rel=\"icon\" href=\"data:,\">\n<title>" +
         title + " - krohttpd</title>\n" + styleElement() + "\n</head>\n<body>\n<main>\n<h1>" + title + "</h1>\n" +
         content + "<p><a href=\"\">Send more files</a></p>\n</main>\n</body>\n</html>\n";
}

// Safe names have neither backslashes nor control characters; quotes they may have.
std::string quotedForJson(std::string_view text) {
  std::string out = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + '"';
}

}  // namespace

void uploadPageSetUp(uint64_t limit) {
  form = kUploadPage;
  form = replaced(form, kUploadPolicyElement, "");
  form = replaced(form, kUploadIconElement, "<link rel=\"icon\" href=\"data:,\">");
  form = replaced(form, kUploadStyleElement, styleElement());
  form = replaced(form, kUploadScriptElement, std::string("<script>") + kUploadScript + "</script>");
  form = replaced(form, kUploadAction, "");
  form = replaced(form, kUploadLimit, "data-limit=\"" + std::to_string(limit) + "\"");
  policy = "default-src 'none'; style-src " + sourceOf(kUploadStyle) + "; script-src " + sourceOf(kUploadScript) +
           "; connect-src 'self'; img-src data:; form-action 'self'; base-uri 'none'; frame-ancestors 'none'";
}

const std::string& uploadPolicy() { return policy; }

const std::string& uploadFormPage() { return form; }

std::string uploadStoredPage(const std::vector<StoredFile>& files) {
  if (files.empty()) return page("Nothing was stored", "<p>There was no file in the form.</p>\n");
  std::string rows;
  for (const StoredFile& file : files)
    rows += "<tr><th scope=\"row\">" + escapedForHtml(file.name) + "</th><td>" + std::to_string(file.bytes) +
            "</td><td><code>" + file.sha256 + "</code></td></tr>\n";
  return page("Stored",
              "<div class=\"scroll\" role=\"region\" aria-label=\"Stored files\" tabindex=\"0\">\n<table>\n<thead><tr>"
              "<th scope=\"col\">Name</th><th scope=\"col\">Bytes</th><th scope=\"col\">SHA-256</th></tr></thead>\n"
              "<tbody>\n" +
                  rows + "</tbody>\n</table>\n</div>\n");
}

std::string uploadRefusedPage(const std::string& reason) {
  return page("Nothing was stored", "<p class=\"error\" role=\"alert\">" + escapedForHtml(reason) + "</p>\n");
}

std::string uploadStoredJson(const std::vector<StoredFile>& files) {
  std::string json = "{\"files\":[";
  for (const StoredFile& file : files) {
    if (json.ends_with('}')) json += ',';
    json += "{\"name\":" + quotedForJson(file.name) + ",\"bytes\":" + std::to_string(file.bytes) +
            ",\"sha256\":" + quotedForJson(file.sha256) + "}";
  }
  return json + "]}\n";
}
