// The command line of krohttpd.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "limits.h"

struct ListenAddress {
  bool local = false;  // a Unix socket at host
  std::string host;
  std::string port;
};

struct TraceZone {
  std::string zone;
  int level = 0;
};

// Requests below prefix go to host and port; for a local socket host is "ipc" and port its path.
struct ProxyTarget {
  std::string prefix;
  std::string host;
  std::string port;
};

enum class AuthScheme { kBasic, kDigest, kSession };

// Requests below prefix are for users only.
struct Protection {
  std::string prefix;  // without empty segments, and without a slash at its end
  AuthScheme scheme = AuthScheme::kBasic;
};

// Files of forms that are posted to prefix are stored in directory.
struct Upload {
  std::string prefix;  // as that of a protection
  std::string directory;
};

// Whom to add to which file, instead of serving.
struct NewUser {
  std::string file;
  std::string name;
  std::string realm;
};

struct Options {
  std::vector<ListenAddress> listen;
  std::string root;  // resolved, with a slash at its end; empty: no files are served
  bool demo = false;
  std::vector<ProxyTarget> proxies;
  unsigned proxyTimeout = 60;  // seconds without progress; 0: no limit
  std::string accessLog;       // "-" for standard output, empty: none
  std::vector<TraceZone> traces;
  std::string authFile;  // empty: none
  std::vector<Protection> protections;
  std::vector<Upload> uploads;
  uint64_t maxUpload = 0;  // bytes of the files of one form; 0: no limit
  HttpServerLimits limits = defaultLimits();
  unsigned sessionTimeout = 1800;  // seconds without activity; 0: no limit
  std::optional<NewUser> newUser;
};

// What to do after the command line was read: run with options, or end with a status (help was printed, or an error in
// one line).
struct ParsedOptions {
  std::optional<Options> options;
  int status = 0;
};

ParsedOptions parseOptions(int argc, char** argv);
