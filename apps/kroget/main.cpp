// kroget: transfers data over HTTP.

#include <krotrace/krotrace.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "fetch.h"
#include "link.h"
#include "options.h"
#include "session.h"
#include "upload.h"

namespace {

int report(const Failure& failure) {
  if (!failure.text.empty()) std::fprintf(stderr, "kroget: %s\n", failure.text.c_str());
  return failure.status;
}

Failure openUpload(const Options& options, Upload* upload) {
  if (options.file) return upload->openFile(*options.file);
  return options.data ? upload->takeData(*options.data) : Failure();
}

Failure fetch(Session& session, Links& links, const Options& options, size_t index, Upload* upload) {
  Output output(options.outputs.empty() ? "-" : options.outputs[index]);
  if (Failure failure = output.open()) return failure;
  return Fetch(session, links, options, options.urls[index], upload, output).run();
}

// Fetches one URL after the other. Returns the status of the first one that failed.
int fetchAll(Session& session, const Options& options, Upload* upload) {
  Links links(session.connection());
  int status = kOk;
  for (size_t index = 0; index < options.urls.size() && session.signal() == 0; ++index) {
    const int one = report(fetch(session, links, options, index, upload));
    if (status == kOk) status = one;
  }
  return status;
}

// Ends as the signal would have ended it, so that a shell knows.
void endBy(int signal) {
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

}  // namespace

int main(int argc, char** argv) {
  const ParsedOptions parsed = parseOptions(argc, argv);
  if (!parsed.options) return parsed.status;
  std::signal(SIGPIPE, SIG_IGN);
  kroTraceToFunction(nullptr, nullptr);  // what the library has to say is said here, in one line
  const Options& options = *parsed.options;
  Upload upload;
  if (const Failure failure = openUpload(options, &upload)) return report(failure);
  int status = kOk;
  int signal = 0;
  bool leavesWork = false;
  {
    Session session;
    if (const Failure failure = session.failure()) return report(failure);
    status = fetchAll(session, options, options.file || options.data ? &upload : nullptr);
    signal = session.signal();
    leavesWork = session.leavesWork();
  }
  if (signal != 0) endBy(signal);
  if (leavesWork) std::_Exit(status);
  return status;
}
