// krohttpd: serves files, and a few demonstration pages, over HTTP.

#include "daemon.h"
#include "options.h"

int main(int argc, char** argv) {
  const ParsedOptions parsed = parseOptions(argc, argv);
  return parsed.options ? daemonRun(*parsed.options) : parsed.status;
}
