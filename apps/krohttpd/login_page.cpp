#include "login_page.h"

#include "form.h"

namespace {

constexpr const char* kStyle = R"(
:root { color-scheme: light dark; --paper: #f7f8f6; --card: #fff; --ink: #1c2624; --soft: #56635f; --line: #dbe1dd;
  --accent: #0b6e5f; --on-accent: #fff; --alarm: #a3341a; }
@media (prefers-color-scheme: dark) {
  :root { --paper: #101615; --card: #182120; --ink: #e6edea; --soft: #9fb0aa; --line: #2a3735;
    --accent: #4fd1b5; --on-accent: #06231d; --alarm: #ff9b7d; }
}
* { box-sizing: border-box; }
body { margin: 0; min-height: 100vh; display: grid; place-items: center; padding: 1.25rem; background: var(--paper);
  color: var(--ink); font: 1rem/1.6 system-ui, "Segoe UI", "Liberation Sans", sans-serif; }
main { width: min(100%, 24rem); padding: 2rem; border: 1px solid var(--line); border-radius: 12px;
  background: var(--card); }
h1 { margin: 0; font-size: 1.6rem; line-height: 1.2; letter-spacing: -0.01em; }
.realm { margin: 0.25rem 0 1.5rem; color: var(--soft); overflow-wrap: anywhere; }
label { display: block; margin-bottom: 0.25rem; font-weight: 600; }
input { display: block; width: 100%; margin: 0 0 1.1rem; padding: 0.6rem 0.75rem; border: 1px solid var(--soft);
  border-radius: 8px; background: var(--paper); color: inherit; font: inherit; }
input[aria-invalid] { border-color: var(--alarm); }
button { width: 100%; padding: 0.7rem 1.1rem; border: 0; border-radius: 8px; background: var(--accent);
  color: var(--on-accent); font: inherit; font-weight: 600; cursor: pointer; }
button:hover { filter: brightness(1.1); }
a { color: var(--accent); }
:focus-visible { outline: 3px solid var(--accent); outline-offset: 2px; }
.error { margin: 0 0 1.25rem; padding: 0.6rem 0.9rem; border: 1px solid var(--alarm); border-left-width: 6px;
  border-radius: 8px; color: var(--alarm); font-weight: 600; }
)";

std::string page(const std::string& title, const std::string& realm, const std::string& content) {
  return "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
         "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
         "<meta name=\"color-scheme\" content=\"light dark\">\n<meta name=\"robots\" content=\"noindex\">\n"
         "<link rel=\"icon\" href=\"data:,\">\n<title>" +
         title + " - " + escapedForHtml(realm) + "</title>\n<style>" + kStyle + "</style>\n</head>\n<body>\n<main>\n" +
         content + "</main>\n</body>\n</html>\n";
}

std::string heading(const std::string& text, const std::string& line) {
  return "<h1>" + text + "</h1>\n<p class=\"realm\">" + line + "</p>\n";
}

}  // namespace

std::string loginForm(const std::string& realm, const std::string& next, const std::string& name,
                      const std::string& error) {
  const bool failed = !error.empty();
  // After a failure the keyboard is where the next try begins, and a screen reader says there what went wrong.
  const std::string marks = failed ? " aria-invalid=\"true\" aria-describedby=\"error\"" : "";
  std::string content = heading("Log in", escapedForHtml(realm));
  if (failed) content += "<p class=\"error\" id=\"error\" role=\"alert\">" + escapedForHtml(error) + "</p>\n";
  content += "<form method=\"post\" action=\"/login\">\n";
  if (!next.empty()) content += "<input type=\"hidden\" name=\"next\" value=\"" + escapedForHtml(next) + "\">\n";
  content +=
      "<label for=\"username\">User name</label>\n"
      "<input id=\"username\" name=\"username\" type=\"text\" autocomplete=\"username\" autocapitalize=\"none\" "
      "spellcheck=\"false\" required value=\"" +
      escapedForHtml(name) + "\"" + marks + (name.empty() ? " autofocus" : "") +
      ">\n"
      "<label for=\"password\">Password</label>\n"
      "<input id=\"password\" name=\"password\" type=\"password\" autocomplete=\"current-password\" required" +
      marks + (name.empty() ? "" : " autofocus") + ">\n<button type=\"submit\">Log in</button>\n</form>\n";
  return page(failed ? "Log in failed" : "Log in", realm, content);
}

std::string loggedInPage(const std::string& realm, const std::string& next, const std::string& name) {
  return page(
      "Logged in", realm,
      heading("Logged in", "You are <strong>" + escapedForHtml(name) + "</strong> in " + escapedForHtml(realm) + ".") +
          "<p><a href=\"" + escapedForHtml(next) +
          "\">Go on to the page</a></p>\n<form method=\"post\" action=\"/logout\">\n"
          "<button type=\"submit\">Log out</button>\n</form>\n");
}
