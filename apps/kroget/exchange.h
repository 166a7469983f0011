// One request and its reply, on a connection.
#pragma once

#include <krohttp/client.h>

#include <array>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "body.h"
#include "failure.h"
#include "handles.h"
#include "headers.h"
#include "link.h"
#include "output.h"
#include "progress.h"
#include "session.h"

// What is asked.
struct Query {
  std::string url;  // for messages
  std::string method;
  std::string target;
  std::vector<HeaderLine> headers;
  Body* body = nullptr;  // begun; none when null
  bool verbose = false;
};

// What came of it.
struct Outcome {
  Failure failure;
  bool nothingCame = false;  // the connection ended before any of the reply came
  bool keep = false;         // the connection can take another request
};

class Exchange {
 public:
  // Looks at the head of the reply, and says whether its body is wanted.
  using HeadHandler = std::function<Failure(HttpReply* reply, bool* bodyWanted)>;

  Exchange(Session& session, Link& link, const Query& query, Output& output, Progress& progress, HeadHandler onHead);
  ~Exchange();
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  // Runs the loop until the exchange is over.
  Outcome run();

 private:
  static Exchange* of(HttpReply* reply);
  void installHandlers();

  bool begin();
  bool writeHead();
  bool beginBody();
  void pumpUpload();
  bool sendPiece();
  void endUpload();

  int takeHead();
  int takeBody(FILE* body);
  bool take(std::string_view bytes);
  bool isWaiting() const;
  int bodyStopped();
  void pumpOutput();
  void replyDone();
  void errorHappened();
  void closed();

  void finish(Failure failure);
  Failure aboutUrl(Status status, const std::string& what) const;
  Failure cutShort() const;
  Failure failureOfClose() const;
  void say(char mark, HttpMessage* message, const std::string& firstLine) const;

  Session& session_;
  Link& link_;
  const Query& query_;
  Output& output_;
  Progress& progress_;
  HeadHandler onHead_;
  Request request_;
  Reply reply_;
  Timer uploadTimer_;
  Timer outputTimer_;

  FILE* uploadBody_ = nullptr;  // while there is something left to send
  uint64_t sent_ = 0;
  bool headCame_ = false;
  bool bodyWanted_ = false;
  bool reusable_ = false;
  std::optional<uint64_t> length_;  // of the reply's body
  uint64_t received_ = 0;
  bool finished_ = false;
  Outcome outcome_;
  std::array<char, 65536> block_;
};
