#include "options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "failure.h"
#include "password.h"
#include "text.h"

namespace {

// What the command line says, before it is looked at more closely.
struct Given {
  std::string firstUrl;
  std::vector<std::string> headers;
  std::vector<std::string> form;
  std::vector<std::string> formStrings;
};

constexpr double kLongestTime = 4'000'000;  // seconds: timers count milliseconds in 32 bits
constexpr size_t kLongestSocketPath = 107;

[[noreturn]] void refuse(const std::string& what) { throw CLI::ValidationError(what); }

// A list of which each element needs its own option.
CLI::Option* addList(CLI::App& app, const std::string& name, std::vector<std::string>& list, const std::string& help) {
  return app.add_option(name, list, help)
      ->expected(1)
      ->allow_extra_args(false)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

void declareRequest(CLI::App& app, Options* options, Given* given) {
  app.add_option("-X,--request", options->method, "The method; GET, or as other options need it")->type_name("METHOD");
  addList(app, "-H,--header", given->headers,
          "Send this header. 'Name:' leaves a usual one out, 'Name;' sends it empty; repeatable")
      ->type_name("'NAME: VALUE'");
  app.add_option("-d,--data", options->data, "POST this text, or the content of a file; @- is standard input")
      ->type_name("TEXT|@FILE");
  addList(
      app, "-F,--form", given->form,
      "POST a form with this field, or this file; @- is standard input. NAME=<FILE: a field of its content; repeatable")
      ->type_name("NAME=VALUE|NAME=@FILE[;type=TYPE][;filename=NAME]");
  addList(app, "--form-string", given->formStrings, "Like -F, but any VALUE is sent as it is; repeatable")
      ->type_name("NAME=VALUE");
  app.add_option("-T,--upload-file", options->file, "PUT this file; - is standard input")->type_name("FILE");
  app.add_option("-u,--user", options->credentials,
                 "Log in when the server asks for it, by Digest or else Basic; without a password it is asked for")
      ->type_name("USER[:PASSWORD]");
  app.add_option("-c,--cookie-jar", options->cookieJar, "Take the cookies of this file, and keep them there")
      ->type_name("FILE");
  app.add_flag("-I,--head", options->headOnly, "HEAD: ask for the head alone, and print it");
}

void declareReply(CLI::App& app, Options* options) {
  addList(app, "-o,--output", options->outputs,
          "Write the body to this file, which appears when it is complete; once for each URL, or never")
      ->type_name("FILE");
  app.add_flag("-i,--include", options->includeHead, "Print the head before the body");
  app.add_flag("-L,--location", options->follow, "Follow redirects, ten at most");
  app.add_flag("-f,--fail", options->fail, "Take a status of 400 or more for a failure, and print no body");
  app.add_option("--max-time", options->maxTime, "Give each URL up after so many seconds")->type_name("SECONDS");
}

// A list of positional arguments would take "[::1]" for a list written out. So the first one is an option by itself,
// and the others are what is left over.
void declareUrls(CLI::App& app, Given* given) {
  app.add_option("URL", given->firstUrl,
                 "[http://][USER:PASSWORD@]HOST[:PORT][/PATH][?QUERY]; several are fetched in turn")
      ->required()
      ->type_name("...");
  app.allow_extras();
}

std::vector<std::string> urlsOf(const CLI::App& app, const Given& given) {
  std::vector<std::string> urls = {given.firstUrl};
  for (const std::string& url : app.remaining()) {
    if (url.starts_with('-')) refuse("there is no option '" + url + "'");
    urls.push_back(url);
  }
  return urls;
}

void declare(CLI::App& app, Options* options, Given* given) {
  declareUrls(app, given);
  declareRequest(app, options, given);
  declareReply(app, options);
  app.add_option("--unix", options->socket, "Connect to this Unix socket, whatever the host")->type_name("PATH");
  app.add_flag("-v,--verbose", options->verbose, "Tell on standard error what is sent and received");
  app.set_version_flag("--version", "kroget " KROGET_VERSION);
}

// What each option is worth by itself.
void checkValues(const Options& options) {
  if (!options.method.empty() && (!isToken(options.method) || options.method == "CONNECT"))
    refuse("-X: '" + escaped(options.method) + "' is no method that can be used");
  if (options.credentials && options.credentials->empty()) refuse("-u: give USER or USER:PASSWORD");
  if (options.credentials && hasControls(*options.credentials)) refuse("-u: there is a control character in it");
  if (options.maxTime && !(*options.maxTime > 0 && *options.maxTime <= kLongestTime))
    refuse("--max-time: give more than 0 seconds, and at most 4000000");
  if (options.socket.size() > kLongestSocketPath) refuse("--unix: the path is too long for a socket");
}

// What options are worth together.
void checkTogether(const Options& options, const CLI::App& app) {
  const bool body = options.data || options.file;
  if (options.data && options.file) refuse("-d and -T exclude each other");
  if (options.headOnly && body) refuse("-I sends no body: leave -d and -T out");
  if (options.headOnly && !options.method.empty() && options.method != "HEAD")
    refuse("-I is the method HEAD: leave -X out");
  if (!options.headOnly && options.method == "HEAD" && body) refuse("HEAD sends no body: leave -d and -T out");
  if (!options.outputs.empty() && options.outputs.size() != options.urls.size())
    refuse("-o: give one for each URL, or none");
  if (options.file == "-" && options.urls.size() > 1) refuse("-T -: standard input can be sent to one URL only");
  if (app.count("-X") > 0 && options.method.empty()) refuse("-X: give a method");
  if (app.count("-c") > 0 && options.cookieJar.empty()) refuse("-c: give a file");
  if (app.count("--unix") > 0 && options.socket.empty()) refuse("--unix: give a path");
}

// A form tells what it is, and is read as it is sent.
void checkForm(const Options& options) {
  if (options.form.empty()) return;
  if (options.data) refuse("-F and -d exclude each other");
  if (options.file) refuse("-F and -T exclude each other");
  if (options.headOnly) refuse("-I sends no form: leave -F out");
  if (options.method == "GET" || options.method == "HEAD")
    refuse(options.method + " sends no form: leave -F or -X out");
  if (isGiven(options.headers, "Content-Type")) refuse("-H 'Content-Type': a form has one of its own");
  const auto inputs = std::count_if(options.form.begin(), options.form.end(),
                                    [](const FormPart& part) { return part.isStandardInput(); });
  if (inputs > 1) refuse("-F: standard input can be sent only once");
  if (inputs > 0 && options.urls.size() > 1) refuse("-F: standard input can be sent to one URL only");
}

std::string methodFor(const Options& options) {
  if (!options.method.empty()) return options.method;
  if (options.headOnly) return "HEAD";
  if (options.file) return "PUT";
  return options.data || !options.form.empty() ? "POST" : "GET";
}

Url takeUrl(const std::string& text) {
  ParsedUrl parsed = parseUrl(text);
  if (!parsed.url) refuse("URL '" + escaped(text) + "': " + parsed.error);
  return std::move(*parsed.url);
}

HeaderOption takeHeader(const std::string& text) {
  HeaderOption header;
  const std::string error = parseHeaderOption(text, &header);
  if (!error.empty()) refuse("-H '" + escaped(text) + "': " + error);
  return header;
}

FormPart takeFormPart(const std::string& option, const std::string& text) {
  FormPart part;
  const std::string error = option == "-F" ? parseFormPart(text, &part) : parseFormString(text, &part);
  if (!error.empty()) refuse(option + " '" + escaped(text) + "': " + error);
  return part;
}

// Their order is that of the command line, whichever option gave them.
std::vector<FormPart> takeForm(CLI::App& app, const Given& given) {
  std::vector<FormPart> form;
  auto part = given.form.begin();
  auto formString = given.formStrings.begin();
  for (const CLI::Option* option : app.parse_order()) {
    if (option == app.get_option("--form")) form.push_back(takeFormPart("-F", *part++));
    if (option == app.get_option("--form-string")) form.push_back(takeFormPart("--form-string", *formString++));
  }
  return form;
}

Options parse(CLI::App& app, int argc, char** argv) {
  Options options;
  Given given;
  declare(app, &options, &given);
  app.parse(argc, argv);
  const std::vector<std::string> urls = urlsOf(app, given);
  if (options.credentials) hideCredentials(argc, argv, *options.credentials);
  for (const std::string& url : urls) hideUrlCredentials(argc, argv, url);
  for (const std::string& url : urls) options.urls.push_back(takeUrl(url));
  for (const std::string& header : given.headers) options.headers.push_back(takeHeader(header));
  options.form = takeForm(app, given);
  checkValues(options);
  checkForm(options);
  checkTogether(options, app);
  options.method = methodFor(options);
  return options;
}

}  // namespace

ParsedOptions parseOptions(int argc, char** argv) {
  CLI::App app("kroget: transfers data over HTTP.", "kroget");
  try {
    return {parse(app, argc, argv), kOk};
  } catch (const CLI::Success& done) {
    return {std::nullopt, app.exit(done)};
  } catch (const CLI::ParseError& error) {
    std::fprintf(stderr, "kroget: %s (see kroget --help)\n", escaped(error.what()).c_str());
    return {std::nullopt, kUsageError};
  }
}
