// kroget: transfers data over HTTP.

#include <krotrace/krotrace.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "cookie_jar.h"
#include "fetch.h"
#include "form.h"
#include "options.h"
#include "password.h"
#include "session.h"
#include "upload.h"

namespace {

int report(const Failure& failure) {
  if (!failure.text.empty()) std::fprintf(stderr, "kroget: %s\n", failure.text.c_str());
  return failure.status;
}

// What the requests send: one of them, or neither.
struct Content {
  Upload upload;
  Form form;
  Body* body = nullptr;
};

Failure openContent(const Options& options, Content* content) {
  if (!options.form.empty()) {
    content->body = &content->form;
    return content->form.open(options.form);
  }
  if (!options.file && !options.data) return {};
  content->body = &content->upload;
  return options.file ? content->upload.openFile(*options.file) : content->upload.takeData(*options.data);
}

// What can fail before anything is sent.
Failure prepare(Options* options, Content* content, CookieJar* cookies) {
  if (!options->cookieJar.empty())
    if (Failure failure = cookies->open(options->cookieJar)) return failure;
  if (Failure failure = openContent(*options, content)) return failure;
  return options->credentials ? completeCredentials(&*options->credentials) : Failure();
}

Failure fetch(Session& session, Client& client, const Options& options, size_t index, Body* body) {
  Output output(options.outputs.empty() ? "-" : options.outputs[index]);
  if (Failure failure = output.open()) return failure;
  return Fetch(session, client, options, options.urls[index], body, output).run();
}

// Fetches one URL after the other. Returns the status of the first one that failed.
int fetchAll(Session& session, CookieJar& cookies, const Options& options, Body* body) {
  Client client{Links(session.connection()), Nonces(), cookies};
  int status = kOk;
  for (size_t index = 0; index < options.urls.size() && session.signal() == 0; ++index) {
    const int one = report(fetch(session, client, options, index, body));
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
  ParsedOptions parsed = parseOptions(argc, argv);
  if (!parsed.options) return parsed.status;
  std::signal(SIGPIPE, SIG_IGN);
  kroTraceToFunction(nullptr, nullptr);  // what the library has to say is said here, in one line
  Content content;
  CookieJar cookies;
  if (const Failure failure = prepare(&*parsed.options, &content, &cookies)) return report(failure);
  const Options& options = *parsed.options;
  int status = kOk;
  int signal = 0;
  bool leavesWork = false;
  {
    Session session;
    if (const Failure failure = session.failure()) return report(failure);
    status = fetchAll(session, cookies, options, content.body);
    const int saved = cookies.isOpen() ? report(cookies.save()) : kOk;
    if (status == kOk) status = saved;
    signal = session.signal();
    leavesWork = session.leavesWork();
  }
  if (signal != 0) endBy(signal);
  if (leavesWork) std::_Exit(status);
  return status;
}
