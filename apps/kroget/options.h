// The command line of kroget.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "form_part.h"
#include "headers.h"
#include "url.h"

struct Options {
  std::vector<Url> urls;
  std::vector<std::string> outputs;  // one for each URL, or none; "-" is standard output
  std::string method;
  std::vector<HeaderOption> headers;
  std::optional<std::string> data;
  std::vector<FormPart> form;              // empty: there is none
  std::optional<std::string> file;         // what -T sends; "-" is standard input
  std::optional<std::string> credentials;  // "user:password"
  std::string cookieJar;                   // empty: cookies are not kept
  std::optional<double> maxTime;           // seconds
  std::string socket;                      // empty: TCP
  bool headOnly = false;                   // -I
  bool includeHead = false;
  bool follow = false;
  bool fail = false;
  bool verbose = false;
};

// What to do after the command line was read: run with options, or end with a status (help was printed, or an error in
// one line).
struct ParsedOptions {
  std::optional<Options> options;
  int status = 0;
};

ParsedOptions parseOptions(int argc, char** argv);
