#include "fetch.h"

#include <cstdio>

#include "reply.h"
#include "text.h"

namespace {

constexpr int kMostRedirects = 10;
// A nonce that is too old at once, again and again, is no use to anybody.
constexpr int kMostStaleAnswers = 3;

bool isRedirect(unsigned status) {
  return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

// RFC 9110 section 15.4: POST becomes GET where it always has been, and 303 asks for another resource.
bool becomesGet(unsigned status, const std::string& method) {
  if (status == 303) return method != "GET" && method != "HEAD";
  return (status == 301 || status == 302) && method == "POST";
}

// RFC 9110 section 9.2.2.
bool isIdempotent(const std::string& method) {
  for (const char* known : {"GET", "HEAD", "PUT", "DELETE", "OPTIONS", "TRACE"})
    if (method == known) return true;
  return false;
}

// RFC 9110 section 8.6: says that a request that usually has a body has none.
bool announcesNoBody(const std::string& method) { return method == "POST" || method == "PUT" || method == "PATCH"; }

std::string seconds(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%g s", value);
  return text;
}

}  // namespace

Fetch::Fetch(Session& session, Client& client, const Options& options, const Url& url, Body* body, Output& output)
    : session_(session),
      client_(client),
      options_(options),
      first_(url),
      url_(url),
      method_(options.method),
      body_(body),
      output_(output),
      login_(url.credentials.empty() ? options.credentials.value_or("") : url.credentials, client.nonces) {}

Failure Fetch::run() {
  session_.beginTime(options_.maxTime);
  for (int redirects = 0;;) {
    if (Failure failure = ask()) return failure;
    if (challenged_) {
      if (Failure failure = logIn()) return failure;
      continue;
    }
    if (!redirected_) return settle();
    if (redirects++ == kMostRedirects)
      return {kRedirectError, first_.text() + ": more than " + std::to_string(kMostRedirects) + " redirects"};
    if (Failure failure = follow()) return failure;
  }
}

Failure Fetch::aboutUrl(Status status, const std::string& what) const { return {status, url_.text() + ": " + what}; }

Failure Fetch::stopFailure() const {
  if (!session_.timedOut()) return {kInternalError, ""};  // a signal, which speaks for itself
  return aboutUrl(kTimedOut, "timed out after " + seconds(*options_.maxTime));
}

// --- asking ----------------------------------------------------------------------------------------------------------

Query Fetch::query() {
  HeaderPlan plan(options_.headers);
  plan.authority = url_.authority();
  plan.authorization = login_.authorization(method_, url_.target);
  plan.cookies = client_.cookies.cookiesFor(url_);
  plan.elsewhere = !url_.sameOrigin(first_);
  plan.bodyDropped = bodyDropped_;
  plan.contentType = body_ != nullptr ? body_->contentType() : "";
  plan.hasBody = body_ != nullptr || announcesNoBody(method_);
  plan.length = body_ != nullptr ? body_->length() : 0;
  return {url_.text(), method_, url_.target, headerLines(plan), body_, options_.verbose};
}

bool Fetch::canBeRepeated() const {
  return isIdempotent(method_) && (body_ == nullptr || body_->unrepeatable().empty());
}

// A connection that was kept may have been closed meanwhile, which shows only when it is used: a new one takes its
// place then.
Failure Fetch::ask() {
  Failure failure;
  const Place place = options_.socket.empty() ? Place{"", url_.host, url_.port} : Place{options_.socket, "", ""};
  for (std::unique_ptr<Link> link = client_.links.take(place, &failure); link;
       link = client_.links.open(place, &failure)) {
    if (body_ != nullptr && (failure = body_->begin())) return failure;
    const bool kept = link->used;
    const Outcome outcome = exchange(*link, query());
    if (session_.stopped()) return stopFailure();
    if (outcome.keep) client_.links.keep(std::move(link));
    if (!outcome.nothingCame || !kept || !canBeRepeated()) return outcome.failure;
  }
  return failure;
}

Outcome Fetch::exchange(Link& link, const Query& query) {
  if (options_.verbose)
    std::fprintf(stderr, "* %s %s\n", link.used ? "using the connection to" : "connecting to",
                 link.place().text().c_str());
  Progress progress(progressIsWelcome());
  const auto onHead = [this](HttpReply* reply, bool* bodyWanted) { return takeHead(reply, bodyWanted); };
  return Exchange(session_, link, query, output_, progress, onHead).run();
}

Failure Fetch::takeHead(HttpReply* reply, bool* bodyWanted) {
  const char* const location = http_replyHeaderValue(reply, "Location");
  status_ = http_replyStatusCode(reply);
  reason_ = reply->reason != nullptr ? reply->reason : "";
  takeCookies(reply);
  takeChallenges(reply);
  redirected_ = options_.follow && isRedirect(status_) && location != nullptr;
  if (redirected_) location_ = location;
  *bodyWanted = !redirected_ && !challenged_ && !(options_.fail && status_ >= 400);
  return options_.includeHead || options_.headOnly ? output_.write(headText(reply)) : Failure();
}

void Fetch::takeCookies(HttpReply* reply) {
  if (!client_.cookies.isOpen()) return;
  for (const std::string& cookie : headerValues(reply, "Set-Cookie")) client_.cookies.take(cookie, url_);
}

void Fetch::takeChallenges(HttpReply* reply) {
  challenged_ = status_ == 401 && mayLogIn();
  challenges_.clear();
  if (!challenged_) return;
  for (const std::string& header : headerValues(reply, "WWW-Authenticate"))
    for (Challenge& challenge : parseChallenges(header)) challenges_.push_back(std::move(challenge));
}

// --- going on --------------------------------------------------------------------------------------------------------

// There is something to tell, and it is for this server.
bool Fetch::mayLogIn() const {
  return (options_.credentials || !first_.credentials.empty()) && url_.sameOrigin(first_) &&
         !isGiven(options_.headers, "Authorization");
}

Failure Fetch::logIn() {
  const std::string refusal = "401 " + escaped(reason_) + ": ";
  const bool stale = login_.isStale(challenges_) && staleAnswers_++ < kMostStaleAnswers;
  if (login_.isChosen() && !stale) return aboutUrl(kHttpError, refusal + "the credentials are refused");
  const std::string obstacle = login_.choose(challenges_, method_, url_.target);
  if (!obstacle.empty()) return aboutUrl(kHttpError, refusal + obstacle);
  const std::string unrepeatable = body_ != nullptr ? body_->unrepeatable() : "";
  if (!unrepeatable.empty()) return aboutUrl(kFileError, refusal + unrepeatable + " cannot be sent a second time");
  return {};
}

Failure Fetch::follow() {
  ParsedUrl next = resolveUrl(url_, location_);
  if (!next.url)
    return aboutUrl(kRedirectError, "cannot follow the redirect to '" + escaped(location_) + "': " + next.error);
  url_ = std::move(*next.url);
  login_.forget();
  if (!becomesGet(status_, method_)) return {};
  method_ = "GET";
  body_ = nullptr;
  bodyDropped_ = true;
  return {};
}

// The last reply is complete: sees its output through, and judges it.
Failure Fetch::settle() {
  while (output_.waits()) {
    session_.turn();
    if (session_.stopped()) return stopFailure();
    if (Failure failure = output_.pump()) return failure;
  }
  if (options_.fail && status_ >= 400) return aboutUrl(kHttpError, std::to_string(status_) + " " + escaped(reason_));
  return output_.commit();
}
