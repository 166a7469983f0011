#include "options.h"

#include <krotrace/krotrace.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <CLI/CLI.hpp>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "limits.h"
#include "prefix.h"

namespace {

constexpr int kUsageError = 2;

[[noreturn]] void refuse(const std::string& what) { throw CLI::ValidationError(what); }

bool isPort(const std::string& text) {
  return !text.empty() && text.size() <= 5 && text.find_first_not_of("0123456789") == std::string::npos &&
         std::stoi(text) <= 65535;
}

// The brackets around an IPv6 address are not a part of it. @return whether there were any
bool stripBrackets(std::string* host) {
  if (!host->starts_with('[') || !host->ends_with(']')) return false;
  *host = host->substr(1, host->size() - 2);
  return true;
}

[[noreturn]] void refuseListen(const std::string& text) {
  refuse("--listen: '" + text + "' is not HOST:PORT or unix:PATH");
}

// "HOST:PORT", "[IPv6]:PORT" or "unix:PATH".
ListenAddress parseListen(const std::string& text) {
  const std::string local = "unix:";
  if (text.starts_with(local)) {
    if (text.size() == local.size()) refuse("--listen: unix: needs a path");
    return {true, text.substr(local.size()), ""};
  }
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos || !isPort(text.substr(colon + 1))) refuseListen(text);
  const std::string port = text.substr(colon + 1);
  std::string host = text.substr(0, colon);
  if (stripBrackets(&host)) {
    if (host.empty()) refuse("--listen: '" + text + "' has no address in its brackets");
  } else if (host.find_first_of("[]") != std::string::npos) {
    refuseListen(text);
  } else if (host.find(':') != std::string::npos) {
    refuse("--listen: put an IPv6 address in brackets: [" + host + "]:" + port);
  }
  return {false, host.empty() ? "*" : host, port};
}

[[noreturn]] void refuseProxy(const std::string& text) {
  refuse("--proxy: '" + text + "' is not PREFIX=tcp:HOST:PORT or PREFIX=ipc:PATH");
}

// "PREFIX=tcp:HOST:PORT", "PREFIX=tcp:[IPv6]:PORT" or "PREFIX=ipc:PATH".
ProxyTarget parseProxy(const std::string& text) {
  const size_t equals = text.find('=');
  if (!text.starts_with('/') || equals == std::string::npos) refuseProxy(text);
  const std::string prefix = text.substr(0, equals);
  const std::string target = text.substr(equals + 1);
  if (target.starts_with("ipc:") && target.size() > 4) {
    if (target.size() - 4 >= sizeof sockaddr_un::sun_path) refuse("--proxy: the path is too long for a socket");
    return {prefix, "ipc", target.substr(4)};
  }
  const size_t colon = target.rfind(':');
  if (!target.starts_with("tcp:") || colon < 5 || !isPort(target.substr(colon + 1))) refuseProxy(text);
  const std::string port = target.substr(colon + 1);
  if (std::stoi(port) == 0) refuse("--proxy: '" + text + "' has no port to connect to");
  std::string host = target.substr(4, colon - 4);
  const bool bracketed = stripBrackets(&host);
  if (host.empty() || (!bracketed && host.find(':') != std::string::npos)) refuseProxy(text);
  return {prefix, host, port};
}

// "ZONE" or "ZONE=LEVEL", the level by name or number.
TraceZone parseTrace(const std::string& text) {
  const size_t equals = text.find('=');
  const std::string zone = text.substr(0, equals);
  if (zone.empty()) refuse("--trace: '" + text + "' names no zone");
  if (equals == std::string::npos) return {zone, KROTRACE_INFO};
  const std::string level = text.substr(equals + 1);
  if (level == "notice") return {zone, KROTRACE_NOTICE};
  if (level == "info") return {zone, KROTRACE_INFO};
  if (level.empty() || level.size() > 6 || level.find_first_not_of("0123456789") != std::string::npos)
    refuse("--trace: level '" + level + "' is neither 'notice' nor 'info' nor a number");
  return {zone, std::stoi(level)};
}

// "PREFIX=basic", "PREFIX=digest" or "PREFIX=session".
Protection parseProtection(const std::string& text) {
  const size_t equals = text.rfind('=');
  const std::string prefix = text.substr(0, equals);
  if (!text.starts_with('/') || equals == std::string::npos || leadsUpwards(prefix))
    refuse("--protect: '" + text + "' is not PREFIX=basic, PREFIX=digest or PREFIX=session");
  Protection protection{asPrefix(prefix), AuthScheme::kBasic};
  const std::string scheme = text.substr(equals + 1);
  if (scheme == "digest")
    protection.scheme = AuthScheme::kDigest;
  else if (scheme == "session")
    protection.scheme = AuthScheme::kSession;
  else if (scheme != "basic")
    refuse("--protect: '" + scheme + "' is neither 'basic' nor 'digest' nor 'session'");
  return protection;
}

// "PREFIX=DIR".
Upload parseUpload(const std::string& text) {
  const size_t equals = text.find('=');
  const std::string prefix = text.substr(0, equals);
  if (!text.starts_with('/') || equals == std::string::npos || equals + 1 == text.size() || leadsUpwards(prefix))
    refuse("--upload: '" + text + "' is not PREFIX=DIR");
  return {asPrefix(prefix), text.substr(equals + 1)};
}

// Adds a rule; each has a prefix of its own.
template <typename Rule>
void addRule(const char* option, const Rule& added, std::vector<Rule>* rules) {
  for (const Rule& rule : *rules)
    if (rule.prefix == added.prefix) refuse(std::string(option) + ": '" + added.prefix + "' is there twice");
  rules->push_back(added);
}

// "N", or "NK", "NM" or "NG" for so many KiB, MiB or GiB.
uint64_t parseSize(const std::string& text) {
  constexpr std::string_view kUnits = "KMG";
  constexpr size_t kMostDigits = 9;  // with a unit that still fits
  const size_t unit = text.empty() ? std::string_view::npos : kUnits.find(text.back());
  const std::string digits = unit == std::string_view::npos ? text : text.substr(0, text.size() - 1);
  const size_t most = unit == std::string_view::npos ? 2 * kMostDigits : kMostDigits;
  if (digits.empty() || digits.size() > most || digits.find_first_not_of("0123456789") != std::string::npos)
    refuse("--max-upload: '" + text + "' is no number of bytes");
  return std::stoull(digits) << (unit == std::string_view::npos ? 0 : 10 * (unit + 1));
}

// The root as the file sender compares it: resolved, and with a slash, so that its siblings stay out.
std::string resolveRoot(const std::string& directory) {
  char resolved[PATH_MAX];
  struct stat status;
  if (realpath(directory.c_str(), resolved) == nullptr || stat(resolved, &status) != 0 || !S_ISDIR(status.st_mode))
    refuse("--root: '" + directory + "' is no directory");
  std::string root = resolved;
  if (!root.ends_with('/')) root += '/';
  return root;
}

void addLoginOptions(CLI::App& app, Options* options, std::vector<std::string>* protections,
                     std::vector<std::string>* newUser) {
  app.add_option("--auth-file", options->authFile,
                 "The users: lines USER:REALM:HA1 as htdigest writes them; the realm is that of the first line")
      ->type_name("FILE");
  app.add_option("--protect", *protections,
                 "Let only users get at what is below PREFIX: PREFIX=basic, PREFIX=digest, or PREFIX=session for a "
                 "login page; repeatable, the longest prefix wins")
      ->type_name("PREFIX=SCHEME")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_option("--session-timeout", options->sessionTimeout,
                 "Log users of the login page out after so many seconds without a request, 0 for never")
      ->type_name("SECONDS")
      ->capture_default_str()
      ->check(CLI::Range(0U, 31536000U));
  app.add_option("--add-user", *newUser,
                 "Ask for a password (or read a line from standard input), write the user into FILE, and end")
      ->type_name("FILE USER REALM")
      ->expected(3);
}

void addUploadOptions(CLI::App& app, std::vector<std::string>* uploads, std::string* maxUpload) {
  app.add_option("--upload", *uploads,
                 "Store the files of forms (multipart/form-data) that are posted to PREFIX in DIR, and show a page to "
                 "send them from there; repeatable")
      ->type_name("PREFIX=DIR")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_option("--max-upload", *maxUpload,
                 "Refuse forms whose files have more bytes than this together; K, M or G behind the number multiply "
                 "it; 0 for no limit")
      ->type_name("BYTES")
      ->default_str("0");
}

void addLimitOptions(CLI::App& app, Options* options, std::vector<std::string>* limits) {
  app.add_option("--limit", *limits,
                 "Change what clients may do; 0 for no limit; repeatable. Names and defaults: " + describeLimits())
      ->type_name("NAME=VALUE")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_flag_callback(
      "--lenient", [options] { options->limits.strict = 0; },
      "Take requests that another server could read in another way; only for clients that are known");
}

// Adding a user is all that is done then.
NewUser parseNewUser(const CLI::App& app, const std::vector<std::string>& values) {
  for (const CLI::Option* option : app.get_options())
    if (option->count() > 0 && !option->check_name("--add-user"))
      refuse("--add-user goes without " + option->get_name());
  return {values[0], values[1], values[2]};
}

Options parse(CLI::App& app, int argc, char** argv) {
  Options options;
  std::vector<std::string> protections;
  std::vector<std::string> newUser;
  std::vector<std::string> listen;
  std::vector<std::string> traces;
  std::vector<std::string> proxies;
  std::vector<std::string> uploads;
  std::vector<std::string> limits;
  std::string maxUpload = "0";
  std::string root;
  app.add_option("--listen", listen, "Where to listen: HOST:PORT, [IPv6]:PORT or unix:PATH; repeatable")
      ->type_name("ADDRESS")
      ->default_str("127.0.0.1:8080")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_option("--root", root, "Serve the files below this directory")->type_name("DIR");
  app.add_flag("--demo", options.demo, "Add GET /hello, POST /echo and GET /status");
  app.add_option("--proxy", proxies,
                 "Hand requests below PREFIX to another process: PREFIX=tcp:HOST:PORT or PREFIX=ipc:PATH; repeatable, "
                 "the longest prefix wins")
      ->type_name("PREFIX=TARGET")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_option("--proxy-timeout", options.proxyTimeout,
                 "Give up after so many seconds without progress, 0 for no limit")
      ->type_name("SECONDS")
      ->capture_default_str()
      ->check(CLI::Range(0U, 86400U));
  app.add_option("--access-log", options.accessLog, "Append a line per request to this file, - for standard output")
      ->type_name("FILE");
  app.add_option("--trace", traces,
                 "Trace a zone (http-server, http-message, ..., * for all) up to a level: "
                 "notice, info or a number; repeatable. At info it shows what users send, their passwords too")
      ->type_name("ZONE[=LEVEL]")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  addUploadOptions(app, &uploads, &maxUpload);
  addLimitOptions(app, &options, &limits);
  addLoginOptions(app, &options, &protections, &newUser);
  app.set_version_flag("--version", "krohttpd " KROHTTPD_VERSION);
  app.parse(argc, argv);
  if (!newUser.empty()) {
    options.newUser = parseNewUser(app, newUser);
    return options;
  }

  if (listen.empty()) listen.push_back("127.0.0.1:8080");
  for (const std::string& address : listen) options.listen.push_back(parseListen(address));
  for (const std::string& trace : traces) options.traces.push_back(parseTrace(trace));
  for (const std::string& proxy : proxies) addRule("--proxy", parseProxy(proxy), &options.proxies);
  for (const std::string& upload : uploads) addRule("--upload", parseUpload(upload), &options.uploads);
  options.maxUpload = parseSize(maxUpload);
  for (const std::string& limit : limits)
    if (const std::string problem = changeLimit(&options.limits, limit); !problem.empty())
      refuse("--limit: " + problem);
  for (const std::string& protection : protections)
    addRule("--protect", parseProtection(protection), &options.protections);
  if (!protections.empty() && options.authFile.empty()) refuse("--protect: who may log in? give --auth-file FILE");
  if (root.empty() && !options.demo && proxies.empty() && uploads.empty())
    refuse("nothing to serve: give --root DIR, --demo, --proxy PREFIX=TARGET or --upload PREFIX=DIR");
  if (app.count("--access-log") > 0 && options.accessLog.empty()) refuse("--access-log: give FILE, or -");
  if (!root.empty()) options.root = resolveRoot(root);
  return options;
}

}  // namespace

ParsedOptions parseOptions(int argc, char** argv) {
  CLI::App app("krohttpd: serves files and a few demonstration pages over HTTP.", "krohttpd");
  try {
    return {parse(app, argc, argv), 0};
  } catch (const CLI::Success& done) {
    return {std::nullopt, app.exit(done)};
  } catch (const CLI::ParseError& error) {
    std::fprintf(stderr, "krohttpd: %s (see krohttpd --help)\n", error.what());
    return {std::nullopt, kUsageError};
  }
}
