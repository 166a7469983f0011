#include "exchange.h"

#include <zel/peer.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "reply.h"
#include "text.h"

namespace {

// With more than this on its way to a slow server, no more is read from the upload.
constexpr size_t kMostQueued = 256 * 1024;
// A longer body that nobody wants is not worth its connection.
constexpr uint64_t kMostDropped = 1024 * 1024;

// The library knows some methods. For the reply it matters only whether this is HEAD.
int knownMethod(const std::string& method) {
  const int code = prot_methodCode(method.c_str());
  return code != HTTP_METHOD_UNKNOWN ? code : static_cast<int>(HTTP_METHOD_POST);
}

bool asksToClose(const Query& query) {
  for (const HeaderLine& line : query.headers)
    if (sameWord(line.name, "Connection") && listHas(line.value, "close")) return true;
  return false;
}

std::string sizeOf(uint64_t received, std::optional<uint64_t> length) {
  const std::string size = std::to_string(received);
  return length ? size + " of " + std::to_string(*length) + " bytes" : size + (received == 1 ? " byte" : " bytes");
}

}  // namespace

Exchange::Exchange(Session& session, Link& link, const Query& query, Output& output, Progress& progress,
                   HeadHandler onHead)
    : session_(session),
      link_(link),
      query_(query),
      output_(output),
      progress_(progress),
      onHead_(std::move(onHead)),
      request_(http_requestCreate()),
      reply_(http_replyCreate()),
      uploadTimer_(makeTimer([](ZelTimer*, void* self) { static_cast<Exchange*>(self)->pumpUpload(); }, this)),
      outputTimer_(makeTimer([](ZelTimer*, void* self) { static_cast<Exchange*>(self)->pumpOutput(); }, this)) {
  link_.exchange = this;
  installHandlers();
}

Exchange::~Exchange() {
  link_.exchange = nullptr;
  progress_.end();
}

Exchange* Exchange::of(HttpReply* reply) {
  return static_cast<Link*>(static_cast<HttpClient*>(http_replyOwner(reply)))->exchange;
}

void Exchange::installHandlers() {
  link_.replyHeaderHandler = [](HttpReply* reply, HttpRequest*) { return of(reply)->takeHead(); };
  link_.bodyHandler = [](HttpReply* reply, HttpRequest*, FILE* body) { return of(reply)->takeBody(body); };
  link_.replyDoneHandler = [](HttpReply* reply, HttpRequest*) { of(reply)->replyDone(); };
  link_.errorHandler = [](HttpReply* reply, HttpRequest*) { of(reply)->errorHappened(); };
  link_.requestDrainedHandler = [](HttpReply* reply, HttpRequest*) { of(reply)->pumpUpload(); };
  link_.takesEarlyReply = true;
  link_.closedHandler = [](HttpClient* client) {
    if (Exchange* const exchange = static_cast<Link*>(client)->exchange) exchange->closed();
  };
}

Outcome Exchange::run() {
  if (!request_ || !reply_ || !uploadTimer_ || !outputTimer_ || !begin())
    finish(aboutUrl(kInternalError, "cannot send the request"));
  if (!finished_) session_.run();
  if (!finished_) finish(aboutUrl(kInternalError, "stopped"));  // its caller knows why
  outcome_.keep = !outcome_.failure && reusable_ && link_.state == HTTP_CLIENT_INIT && link_.peer != nullptr;
  if (outcome_.keep) link_.used = true;
  return outcome_;
}

void Exchange::finish(Failure failure) {
  if (finished_) return;
  finished_ = true;
  outcome_.failure = std::move(failure);
  session_.wake();
}

Failure Exchange::aboutUrl(Status status, const std::string& what) const { return {status, query_.url + ": " + what}; }

// --- the request -----------------------------------------------------------------------------------------------------

bool Exchange::begin() {
  http_requestVersionSet(request_.get(), 1, 1);
  if (http_requestMethodSet(request_.get(), knownMethod(query_.method), query_.target.c_str()) < 0 ||
      !addHeaders(request_.get(), query_.headers) || !http_clientRequest(&link_, request_.get(), reply_.get()) ||
      !writeHead())
    return false;
  return query_.body != nullptr && query_.body->length() != 0 ? beginBody() : http_requestDone(request_.get()) == 0;
}

// The library would decode the path and encode less of it again, and knows few methods: the request line is written
// as it was given.
bool Exchange::writeHead() {
  const std::string line = query_.method + " " + query_.target + " HTTP/1.1";
  if (query_.verbose) say('>', &request_->message, line);
  return std::fprintf(http_requestStream(request_.get()), "%s\r\n", line.c_str()) > 0 &&
         msg_headersSend(&request_->message) == 0;
}

bool Exchange::beginBody() {
  uploadBody_ = http_requestBody(request_.get());
  if (uploadBody_ == nullptr) return false;
  progress_.begin(query_.body->length());
  pumpUpload();
  return true;
}

// Sends as much as may wait in memory. Called again when that has left, and when a slow source may have more.
void Exchange::pumpUpload() {
  // A server that refuses the request before it is complete does not get the rest.
  if (link_.state != HTTP_CLIENT_SENDING_REQUEST) uploadBody_ = nullptr;
  if (finished_ || uploadBody_ == nullptr) return;
  bool more = true;
  while (more && uploadBody_ != nullptr && peer_bytesQueued(link_.peer) < kMostQueued) more = sendPiece();
  if (more || finished_ || uploadBody_ == nullptr) return;
  // What comes slowly does not wait for more, and the loop gets its turn in between.
  std::fflush(uploadBody_);
  zel_timer_start(uploadTimer_.get(), 0);
}

// @return false when the next piece may not be there yet
bool Exchange::sendPiece() {
  Failure failure;
  const ssize_t count = query_.body->read(block_.data(), block_.size(), &failure);
  if (failure) finish(std::move(failure));
  if (count < 0) return false;
  sent_ += static_cast<uint64_t>(count);
  if (!headCame_) progress_.add(static_cast<uint64_t>(count));
  // A failure ends the connection, which is told then.
  if (count > 0) std::fwrite(block_.data(), 1, static_cast<size_t>(count), uploadBody_);
  if (count == 0 || sent_ == query_.body->length()) endUpload();
  return static_cast<size_t>(count) == block_.size();
}

void Exchange::endUpload() {
  std::fclose(uploadBody_);
  uploadBody_ = nullptr;
  http_requestDone(request_.get());
}

// --- the reply -------------------------------------------------------------------------------------------------------

int Exchange::takeHead() {
  headCame_ = true;
  if (query_.verbose) say('<', &reply_->message, statusLine(reply_.get()));
  const std::string refusal = refusalOf(reply_.get(), query_.method == "HEAD", &length_);
  Failure failure = refusal.empty() ? onHead_(reply_.get(), &bodyWanted_) : aboutUrl(kBadReply, refusal);
  if (failure) return finish(std::move(failure)), -1;
  reusable_ = keepsConnection(reply_.get()) && !asksToClose(query_);
  progress_.end();
  // On the terminal, the body itself shows how far it has got.
  if (bodyWanted_ && !output_.isStandardOutput()) progress_.begin(length_);
  return 0;
}

int Exchange::takeBody(FILE* body) {
  size_t count = block_.size();
  while (count == block_.size() && !output_.waits()) {
    errno = 0;
    count = std::fread(block_.data(), 1, block_.size(), body);
    if (!take({block_.data(), count})) return -1;
  }
  if (count < block_.size() && !isWaiting()) return bodyStopped();
  if (!output_.waits()) return 0;
  zel_timer_start(outputTimer_.get(), 0);
  return http_clientPause(&link_);
}

bool Exchange::take(std::string_view bytes) {
  received_ += bytes.size();
  if (!bodyWanted_) {
    if (received_ <= kMostDropped) return true;
    finish({});
    reusable_ = false;
    return false;
  }
  progress_.add(bytes.size());
  Failure failure = output_.write(bytes);
  if (!failure) return true;
  finish(std::move(failure));
  return false;
}

// More of the body is to come.
bool Exchange::isWaiting() const {
  return http_replyState(reply_.get()) == HTTP_MSG_BODY && http_replyNeedMoreData(reply_.get());
}

// No more of the body can be read: it has ended, or is broken.
int Exchange::bodyStopped() {
  if (http_replyState(reply_.get()) == HTTP_MSG_DONE) return 0;
  if (http_replyState(reply_.get()) == HTTP_MSG_BODY)
    finish(aboutUrl(kCutShort, "the reply's chunks are malformed after " + sizeOf(received_, length_)));
  else
    finish(cutShort());
  return -1;
}

void Exchange::pumpOutput() {
  if (finished_) return;
  if (Failure failure = output_.pump()) return finish(std::move(failure));
  if (output_.waits())
    zel_timer_start(outputTimer_.get(), 1);
  else
    http_clientResume(&link_);
}

void Exchange::replyDone() { finish(reply_->message.bodyCut ? cutShort() : Failure()); }

// --- the end of the connection ---------------------------------------------------------------------------------------

Failure Exchange::cutShort() const {
  return aboutUrl(kCutShort, "the reply was cut short after " + sizeOf(received_, length_));
}

Failure Exchange::failureOfClose() const {
  if (Failure failure = link_.connectFailure()) return failure;
  if (reply_->message.refusal != HTTP_MSG_ACCEPTED) return aboutUrl(kBadReply, "the reply is not HTTP");
  if (headCame_) return cutShort();
  return aboutUrl(kCutShort, "the connection ended before the reply was complete");
}

void Exchange::errorHappened() {
  outcome_.nothingCame = reply_->message.refusal == HTTP_MSG_ACCEPTED && !link_.connectFailure();
  finish(failureOfClose());
}

void Exchange::closed() {
  if (!finished_) finish(failureOfClose());
}

// --- telling ---------------------------------------------------------------------------------------------------------

void Exchange::say(char mark, HttpMessage* message, const std::string& firstLine) const {
  std::fprintf(stderr, "%c %s\n", mark, escaped(firstLine).c_str());
  const char* name = nullptr;
  const char* value = nullptr;
  http_msgHeadersReset(message);
  while (http_msgHeadersNext(message, &name, &value) == 0)
    std::fprintf(stderr, "%c %s: %s\n", mark, escaped(name).c_str(), escaped(value).c_str());
  std::fprintf(stderr, "%c\n", mark);
}
