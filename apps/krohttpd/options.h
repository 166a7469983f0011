// The command line of krohttpd.
#pragma once

#include <optional>
#include <string>
#include <vector>

struct ListenAddress {
  bool local = false;  // a Unix socket at host
  std::string host;
  std::string port;
};

struct TraceZone {
  std::string zone;
  int level = 0;
};

struct Options {
  std::vector<ListenAddress> listen;
  std::string root;  // resolved, with a slash at its end; empty: no files are served
  bool demo = false;
  std::string accessLog;  // "-" for standard output, empty: none
  std::vector<TraceZone> traces;
};

// What to do after the command line was read: run with options, or end with a status (help was printed, or an error in
// one line).
struct ParsedOptions {
  std::optional<Options> options;
  int status = 0;
};

ParsedOptions parseOptions(int argc, char** argv);
