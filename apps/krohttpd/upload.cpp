#include "upload.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zel/peer.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "framing.h"
#include "media.h"
#include "prefix.h"
#include "receipt.h"
#include "refusal.h"
#include "replies.h"
#include "same_origin.h"
#include "upload_page.h"

namespace {

constexpr const char* kMethods = "GET, HEAD, POST, OPTIONS";
// What a form may well have beside its files: the heads of its parts, and fields.
constexpr uint64_t kUsualOverhead = 128 * 1024;

std::vector<Upload> uploads;
uint64_t limit = 0;

// What is being received, by connection.
std::unordered_map<ZelPeer*, std::unique_ptr<Receipt>> receipts;

// --- answers ---------------------------------------------------------------------------------------------------------

int send(HttpRequest* request, HttpReply* reply, unsigned code, const char* type, const std::string& text,
         const char* allow) {
  // One address, two answers: a cache must not mix them up, and nobody keeps either.
  if (forbidStoring(reply) < 0 || http_replyHeaderValueSet(reply, "Vary", "Accept") < 0 ||
      http_replyHeaderValueSet(reply, "X-Content-Type-Options", "nosniff") < 0)
    return -1;
  return replyWithText(request, reply, code, type, text, allow);
}

int sendPage(HttpRequest* request, HttpReply* reply, unsigned code, const std::string& page,
             const char* allow = nullptr) {
  if (http_replyHeaderValueSet(reply, "Content-Security-Policy", "%s", uploadPolicy().c_str()) < 0 ||
      http_replyHeaderValueSet(reply, "X-Frame-Options", "DENY") < 0 ||
      http_replyHeaderValueSet(reply, "Referrer-Policy", "same-origin") < 0)
    return -1;
  return send(request, reply, code, "text/html; charset=utf-8", page, allow);
}

const char* reasonOf(unsigned code) {
  switch (code) {
    case 400:
      return "The form could not be read to its end.";
    case 403:
      return "Another site made the browser send this.";
    case 405:
      return "Files are sent here by POST.";
    case 413:
      return "That is more than may be sent at once.";
    case 415:
      return "Files are sent as multipart/form-data.";
    case 503:
      return "Too much is going on; try again later.";
    case 507:
      return "There is no room left for the files.";
    default:
      return "The files could not be stored.";
  }
}

int sendRefusal(HttpRequest* request, HttpReply* reply, unsigned code, const char* allow) {
  if (acceptsHtml(request)) return sendPage(request, reply, code, uploadRefusedPage(reasonOf(code)), allow);
  return send(request, reply, code, "application/json", std::string("{\"error\":\"") + reasonOf(code) + "\"}\n", allow);
}

// A body is not read to its end, and so is the last one of its connection.
int refuseUpload(HttpRequest* request, HttpReply* reply, unsigned code, const char* allow = nullptr) {
  const bool hasBody = http_requestBodyType(request) != HTTP_BODY_NONE;
  if (hasBody && announceClose(reply) < 0) return -1;
  return sendRefusal(request, reply, code, allow) < 0 || hasBody ? -1 : 0;
}

int answerStored(HttpRequest* request, HttpReply* reply, const Receipt& receipt) {
  std::vector<StoredFile> files;
  for (const IncomingFile& file : receipt.files()) files.push_back({file.name(), file.size(), file.sha256()});
  if (acceptsHtml(request)) return sendPage(request, reply, 200, uploadStoredPage(files));
  return send(request, reply, 200, "application/json", uploadStoredJson(files), nullptr);
}

// --- receiving -------------------------------------------------------------------------------------------------------

// A server that was stopped tells nobody when a client leaves: its peer does.
bool forget(ZelPeer* peer) {
  receipts.erase(peer);
  return true;
}

// The status that refuses the request by its head alone, 0 when there is no reason to.
unsigned refusalOf(HttpRequest* request) {
  const uint64_t announced = announcedLength(request);
  // Anybody's page can have a browser post such a form without asking.
  if (isFromElsewhere(request)) return 403;
  if (!isOfType(request, "multipart/form-data")) return 415;
  if (limit != 0 && announced > limit && announced - limit > kUsualOverhead) return 413;
  const bool chunked = http_requestBodyType(request) == HTTP_BODY_CHUNKED;
  return announced == 0 && !chunked ? 400 : 0;
}

int receive(HttpRequest* request, HttpReply* reply, const Upload& upload) {
  if (const unsigned code = refusalOf(request); code != 0) return refuseUpload(request, reply, code);
  ZelPeer* const peer = http_requestPeer(request);
  auto receipt = std::make_unique<Receipt>(request, limit);
  if (const unsigned code = receipt->open(upload.directory); code != 0) return refuseUpload(request, reply, code);
  if (!peer_addCloseHandler(peer, forget) || http_serverContinue(request, reply) < 0) return -1;
  receipts.insert_or_assign(peer, std::move(receipt));
  return 0;
}

std::string problemWith(const Upload& upload) {
  struct stat status {};
  if (stat(upload.directory.c_str(), &status) != 0) return std::strerror(errno);
  if (!S_ISDIR(status.st_mode)) return std::strerror(ENOTDIR);
  if (access(upload.directory.c_str(), W_OK | X_OK) != 0) return std::strerror(errno);
  return "";
}

}  // namespace

bool uploadSetUp(const Options& options, std::string* error) {
  uploads = options.uploads;
  limit = options.maxUpload;
  for (const Upload& upload : uploads) {
    const std::string problem = problemWith(upload);
    if (problem.empty()) continue;
    *error = "cannot store files in " + upload.directory + ": " + problem;
    return false;
  }
  if (uploads.empty()) return true;
  // A file that grows too large for a resource limit is one upload's failure.
  std::signal(SIGXFSZ, SIG_IGN);
  uploadPageSetUp(limit);
  return true;
}

void uploadTearDown() { receipts.clear(); }

const Upload* uploadAt(const char* path) {
  if (path == nullptr || uploads.empty()) return nullptr;
  const std::string name = asPrefix(path);
  for (const Upload& upload : uploads)
    if (upload.prefix == name) return &upload;
  return nullptr;
}

int uploadBegin(HttpRequest* request, HttpReply* reply, const Upload& upload) {
  switch (http_requestMethod(request)) {
    case HTTP_METHOD_POST:
      return receive(request, reply, upload);
    case HTTP_METHOD_GET:
    case HTTP_METHOD_HEAD:
      return answerEarly(request, reply, [&] { return sendPage(request, reply, 200, uploadFormPage()); });
    case HTTP_METHOD_OPTIONS:
      return answerEarly(request, reply, [&] { return replyWithText(request, reply, 200, "", "", kMethods); });
    default:
      return refuseUpload(request, reply, 405, kMethods);
  }
}

bool isUploading(HttpRequest* request) { return receipts.contains(http_requestPeer(request)); }

int uploadBody(HttpRequest* request, HttpReply* reply) {
  const auto found = receipts.find(http_requestPeer(request));
  unsigned code = found->second->read();
  if (code == 0 && !found->second->isComplete()) return 0;
  if (code == 0) code = found->second->store();
  // Nothing is left of a refused one before its client hears of it.
  std::unique_ptr<Receipt> receipt = std::move(found->second);
  receipts.erase(found);
  if (code == 0) return answerStored(request, reply, *receipt);
  receipt.reset();
  return refuseUpload(request, reply, code);
}

void uploadEnd(HttpRequest* request) { receipts.erase(http_requestPeer(request)); }
