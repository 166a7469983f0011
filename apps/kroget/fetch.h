// One URL from its first request to its last: redirects, and connections that turn out to be closed.
#pragma once

#include <string>

#include "exchange.h"
#include "failure.h"
#include "link.h"
#include "options.h"
#include "output.h"
#include "session.h"
#include "upload.h"

class Fetch {
 public:
  // @param upload  the body to send, null when there is none
  // @param output  open
  Fetch(Session& session, Links& links, const Options& options, const Url& url, Upload* upload, Output& output);

  Failure run();

 private:
  Failure ask();
  Outcome exchange(Link& link, const Query& query);
  Query query() const;
  bool canBeRepeated() const;
  Failure takeHead(HttpReply* reply, bool* bodyWanted);
  Failure follow();
  Failure settle();
  Failure aboutUrl(Status status, const std::string& what) const;
  Failure stopFailure() const;

  Session& session_;
  Links& links_;
  const Options& options_;
  const Url& first_;
  Url url_;  // where the redirects have led to
  std::string method_;
  Upload* upload_;
  Output& output_;
  bool bodyDropped_ = false;
  unsigned status_ = 0;
  std::string reason_;
  bool redirected_ = false;
  std::string location_;
};
