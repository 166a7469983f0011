// One URL from its first request to its last: logins, redirects, and connections that turn out to be closed.
#pragma once

#include <string>
#include <vector>

#include "body.h"
#include "cookie_jar.h"
#include "exchange.h"
#include "failure.h"
#include "link.h"
#include "login.h"
#include "options.h"
#include "output.h"
#include "session.h"

// What outlives one URL.
struct Client {
  Links links;
  Nonces nonces;
  CookieJar& cookies;
};

class Fetch {
 public:
  // @param body    what to send, null when there is nothing
  // @param output  open
  Fetch(Session& session, Client& client, const Options& options, const Url& url, Body* body, Output& output);

  Failure run();

 private:
  Failure ask();
  Outcome exchange(Link& link, const Query& query);
  Query query();
  bool canBeRepeated() const;
  Failure takeHead(HttpReply* reply, bool* bodyWanted);
  void takeCookies(HttpReply* reply);
  bool mayLogIn() const;
  void takeChallenges(HttpReply* reply);
  Failure logIn();
  Failure follow();
  Failure settle();
  Failure aboutUrl(Status status, const std::string& what) const;
  Failure stopFailure() const;

  Session& session_;
  Client& client_;
  const Options& options_;
  const Url& first_;
  Url url_;  // where the redirects have led to
  std::string method_;
  Body* body_;
  Output& output_;
  bool bodyDropped_ = false;
  Login login_;
  int staleAnswers_ = 0;
  unsigned status_ = 0;
  std::string reason_;
  bool challenged_ = false;
  std::vector<Challenge> challenges_;
  bool redirected_ = false;
  std::string location_;
};
