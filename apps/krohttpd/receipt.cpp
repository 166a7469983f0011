#include "receipt.h"

#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string_view>

#include "disposition.h"
#include "upload_name.h"

namespace {

// A descriptor is open for each file until all of them are there.
constexpr size_t kMostFiles = 100;
constexpr unsigned kMostParts = 1000;
// Of what is sent beside files, and read for nothing.
constexpr uint64_t kMostFieldBytes = 64 * 1024;
// What a turn of the loop may read for one client while there are others.
constexpr size_t kMostAtOnce = 256 * 1024;

unsigned statusOf(int error) {
  switch (error) {
    case ENOSPC:
    case EDQUOT:
    case EFBIG:  // for this file system, or by a resource limit
      return 507;
    case EMFILE:
    case ENFILE:
    case ENOMEM:
      return 503;
    default:
      return 500;
  }
}

std::string withoutQuotes(std::string_view value) {
  if (value.size() < 2 || value.front() != '"' || value.back() != '"') return std::string(value);
  std::string text;
  value = value.substr(1, value.size() - 2);
  for (size_t i = 0; i < value.size(); ++i) {
    if (value[i] == '\\' && i + 1 < value.size()) ++i;
    text += value[i];
  }
  return text;
}

// The boundary, out of its quotes (RFC 9110 section 5.6.6); empty when there is none.
std::string boundaryOf(HttpRequest* request) {
  HttpHeader type{};
  type.code = HTTP_HEADER_CONTENT_TYPE;
  std::string boundary;
  if (http_requestHeader(request, &type) == 0)
    for (const HttpHeaderParameter* one = type.contentType.parameters; one != nullptr; one = one->next)
      if (one->value != nullptr && strcasecmp(one->name, "boundary") == 0) boundary = withoutQuotes(one->value);
  http_hdrCleanup(&type);
  return boundary;
}

}  // namespace

Receipt::Receipt(HttpRequest* request, uint64_t limit) : request_(request), limit_(limit) {}

Receipt::~Receipt() {
  if (reader_.receipt != nullptr) http_msgMultipartCleanup(&reader_);
}

unsigned Receipt::open(const std::string& directory) {
  directory_ = OwnedDescriptor(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory_.get() < 0) return statusOf(errno);
  const std::string boundary = boundaryOf(request_);
  if (http_msgMultipartInitializeWithBoundary(&reader_, &request_->message,
                                              boundary.empty() ? nullptr : boundary.c_str(), onPart, onPartBody) < 0)
    return 400;
  reader_.receipt = this;
  return 0;
}

unsigned Receipt::read() {
  turnBytes_ = 0;
  const bool failed = http_msgMultipartHandleRead(&reader_) < 0 && !isComplete();
  if (failed) return refusal_ != 0 ? refusal_ : 400;
  const bool ended = http_requestState(request_) >= HTTP_MSG_DONE;
  return ended && request_->message.paused == HTTP_MSG_RUNNING && !isComplete() ? 400 : 0;
}

// A form that ends right behind its last delimiter is as good as one with a line end there.
bool Receipt::isComplete() const {
  return reader_.complete && refusal_ == 0 && reader_.state != HTTP_MULTIPART_END &&
         http_requestState(request_) == HTTP_MSG_DONE && !request_->message.bodyCut;
}

unsigned Receipt::store() {
  bool stored = true;
  for (IncomingFile& file : files_) {
    stored = file.publish();
    if (!stored) break;
  }
  // The names are on the disk only with their directory. Some file systems have no need for that.
  stored = stored && (files_.empty() || fsync(directory_.get()) == 0 || errno == EINVAL);
  if (stored) return 0;
  const unsigned status = statusOf(errno);
  for (IncomingFile& file : files_) file.withdraw();
  return status;
}

// --- parts -----------------------------------------------------------------------------------------------------------

int Receipt::onPart(HttpRequest* part) {
  Receipt* const receipt = static_cast<Reader*>(static_cast<HttpMultipart*>(http_requestUserData(part)))->receipt;
  receipt->refusal_ = receipt->begin(part);
  return receipt->refusal_ == 0 ? 0 : -1;
}

unsigned Receipt::begin(HttpRequest* part) {
  if (++parts_ > kMostParts) return 413;
  const char* const disposition = http_requestHeaderValue(part, "Content-Disposition");
  const auto name = disposition != nullptr ? fileNameOf(disposition) : std::nullopt;
  part_ = name ? Part::kFile : Part::kField;
  name_ = name.value_or("");
  created_ = false;
  return 0;
}

int Receipt::onPartBody(HttpRequest* part, FILE* body) {
  static std::array<char, 65536> block;  // there is one thread, and nothing stays in it
  Receipt* const receipt = static_cast<Reader*>(static_cast<HttpMultipart*>(http_requestUserData(part)))->receipt;
  size_t count = 0;
  do {
    count = fread(block.data(), 1, block.size(), body);
    receipt->refusal_ = receipt->take(block.data(), count);
    if (receipt->refusal_ != 0) return -1;
    receipt->giveWay();
  } while (count == block.size() && receipt->request_->message.paused == HTTP_MSG_RUNNING);
  // The stream reads ahead: before a short read its part may be complete, and not all of it here.
  if (count == block.size() || http_requestState(part) != HTTP_MSG_DONE) return 0;
  receipt->refusal_ = receipt->endPart();
  return receipt->refusal_ == 0 ? 0 : -1;
}

unsigned Receipt::take(const char* bytes, size_t count) {
  if (count == 0) return 0;
  turnBytes_ += count;
  if (part_ == Part::kFile) return takeOfFile(bytes, count);
  fieldBytes_ += count;
  return fieldBytes_ <= kMostFieldBytes ? 0 : 413;
}

unsigned Receipt::takeOfFile(const char* bytes, size_t count) {
  fileBytes_ += count;
  if (limit_ != 0 && fileBytes_ > limit_) return 413;
  if (const unsigned status = createFile(); status != 0) return status;
  return files_.back().write(bytes, count) ? 0 : statusOf(errno);
}

unsigned Receipt::createFile() {
  if (created_) return 0;
  if (files_.size() == kMostFiles) return 413;
  files_.emplace_back(directory_.get(), safeUploadName(name_));
  created_ = true;
  return files_.back().create() ? 0 : statusOf(errno);
}

unsigned Receipt::endPart() {
  if (part_ == Part::kField) return 0;
  // A form in which no file was chosen has a part without name and content.
  if (name_.empty() && !created_) return 0;
  if (const unsigned status = createFile(); status != 0) return status;
  const bool complete = files_.back().complete();
  const unsigned status = complete ? 0 : statusOf(errno);
  turnBytes_ = kMostAtOnce;  // while the disk was waited for, so did the others
  giveWay();
  return status;
}

void Receipt::giveWay() {
  if (turnBytes_ < kMostAtOnce) return;
  turnBytes_ = 0;
  http_serverTemporizeRequest(request_);
}
