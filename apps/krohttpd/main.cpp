// krohttpd: serves files, and a few demonstration pages, over HTTP.

#include "add_user.h"
#include "daemon.h"
#include "options.h"

int main(int argc, char** argv) {
  const ParsedOptions parsed = parseOptions(argc, argv);
  if (!parsed.options) return parsed.status;
  return parsed.options->newUser ? addUser(*parsed.options->newUser) : daemonRun(*parsed.options);
}
