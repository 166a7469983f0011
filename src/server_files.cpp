// Descriptors and files as bodies of replies, without copying where the kernel can do that.
#include <krohttp/server.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "message_internal.h"
#include "server_connection.h"

#define TRACE_ZONE "http-server"
#include "trace.h"

// --- sending a descriptor --------------------------------------------------------------------------------------------

void srv_resetStatic(Connection* connection) {
  if (connection->staticFd >= 0) close(connection->staticFd);
  connection->staticFd = -1;
  connection->staticSize = 0;
  connection->staticWriter = nullptr;
  connection->staticRemaining = 0;
  connection->staticSent = 0;
  connection->sendsFile = false;
  connection->awaitsSource = false;
}

bool srv_isSourceEmpty(const Connection* connection) {
  pollfd source{connection->staticFd, POLLIN, 0};
  return !connection->sendsFile && poll(&source, 1, 0) == 0;
}

namespace {

constexpr size_t kBlock = 4096;

// How much one step may send.
size_t stepSize(const Connection* connection) {
  return connection->sendsFile ? std::min<uint64_t>(kBlock, connection->staticRemaining) : kBlock;
}

// Every way to send takes one step and leaves its errno, 0 after a success.

bool allSent(const Connection* connection) {
  return connection->sendsFile && connection->staticRemaining == 0 && connection->staticWriter != nullptr;
}

// A signal is no failure. errno is 0 after a success.
template <typename Call>
ssize_t retried(Call call) {
  ssize_t count = 0;
  do {
    errno = 0;
    count = call();
  } while (count < 0 && errno == EINTR);
  return count;
}

ssize_t srv_writeWithSendfile(ZelPeer* peer, HttpServerConnection* connection) {
  const size_t size = stepSize(static_cast<Connection*>(connection));
  const ssize_t count = retried([&] { return sendfile(peer_socket(peer), connection->staticFd, nullptr, size); });
  if (count < 0 && errno != EAGAIN) TRACE_ERROR("unable to execute sendfile: %m");
  return count;
}

ssize_t srv_writeWithSplice(ZelPeer* peer, HttpServerConnection* connection) {
  const size_t size = stepSize(static_cast<Connection*>(connection));
  const ssize_t count = retried([&] {
    return splice(connection->staticFd, nullptr, peer_socket(peer), nullptr, size,
                  SPLICE_F_MOVE | SPLICE_F_NONBLOCK | SPLICE_F_MORE);
  });
  if (count < 0 && errno != EAGAIN) TRACE_ERROR("unable to execute splice: %m");
  return count;
}

ssize_t srv_writeByCopy(ZelPeer* peer, HttpServerConnection* connection) {
  char block[kBlock];
  const size_t size = stepSize(static_cast<Connection*>(connection));
  const ssize_t count = retried([&] { return read(connection->staticFd, block, size); });
  if (count < 0) {
    if (errno != EAGAIN) TRACE_ERROR("unable to execute read: %m");
    return count;
  }
  TRACE_INFO("read %u bytes from file", static_cast<unsigned>(count));
  if (count > 0) {
    // What the socket does not take is kept by the stream: nothing is lost, and errno tells to wait.
    fwrite_unlocked(block, 1, static_cast<size_t>(count), peer_outStream(peer, PEER_STREAM_CURRENT));
    if (errno != 0 && errno != EAGAIN) TRACE_ERROR("unable to execute write: %m");
  }
  return count;
}

struct SendMethod {
  HttpServerStaticWriter step;
  const char* trying;
  const char* name;
};

// Zero-copy first. Every trial sends from the beginning; the first step that does not fail settles it.
ssize_t detectSendMethod(ZelPeer* peer, Connection* connection) {
  static constexpr SendMethod kMethods[] = {{srv_writeWithSendfile, "send file", "sendfile"},
                                            {srv_writeWithSplice, "splice", "splice"},
                                            {srv_writeByCopy, "copy", "buffer copy"}};
  TRACE_NOTICE("detecting send method");
  const bool zeroCopy = (peer_capabilities(peer) & PEER_CAPABILITY_SENDFILE) != 0;
  ssize_t count = -1;
  for (const SendMethod& method : kMethods) {
    if (!zeroCopy && method.step != srv_writeByCopy) continue;
    TRACE_NOTICE("trying %s", method.trying);
    lseek(connection->staticFd, 0, SEEK_SET);
    count = method.step(peer, connection);
    if (count < 0) continue;
    const int error = errno;
    TRACE_NOTICE("using %s to send fd", method.name);
    connection->staticWriter = method.step;
    errno = error;
    break;
  }
  return count;
}

// The step could not send everything: waits for whoever holds it up.
bool awaitWritable(Connection* connection, ZelPeer* peer) {
  TRACE_INFO("need to send more data for static file");
  connection->lagging = true;
  if (!srv_isSourceEmpty(connection)) return true;
  // The socket is ready all the time: without a pause the loop would spin until the descriptor is.
  peer_setEventHandler(peer, PEER_EVENT_WRITABLE, PEER_DIRECTION_OUT, nullptr);
  connection->awaitsSource = true;
  return srv_startLater(connection, kPauseMilliseconds);
}

bool staticFileSent(Connection* connection, ZelPeer* peer) {
  TRACE_NOTICE("static file sent");
  http_replyDone(&connection->reply);
  const bool buffered = peer_setStreamType(peer, PEER_STREAM_BUFFERED);
  if (!buffered) TRACE_ERROR("unable to switch stream type to buffered, closing connection");
  srv_resetStatic(connection);
  if (buffered && connection->state < HTTP_SERVER_SENDING_REPLY) {
    // Answered before all of the request has come: its end goes on with the reply.
    peer_setEventHandler(peer, PEER_EVENT_WRITABLE, PEER_DIRECTION_OUT, nullptr);
    peer_setEventHandler(peer, PEER_EVENT_DRAINED, PEER_DIRECTION_OUT, nullptr);
    return true;
  }
  return buffered && srv_handleWriteDone(peer);
}

bool giveUpStaticFile(Connection* connection) {
  TRACE_NOTICE("cleanup static file descriptor");
  srv_resetStatic(connection);
  return false;
}

}  // namespace

bool srv_handleWriteFile(ZelPeer* peer) {
  Connection* const connection = connectionOf(peer);
  srv_checkOwnership(connection);
  TRACE_INFO("sending static file");
  if (connection->staticFd < 0) {
    TRACE_ERROR("requested to send static file when none is defined");
    return false;
  }
  ssize_t count = 0;
  do {
    if (allSent(connection)) break;
    count = connection->staticWriter != nullptr ? connection->staticWriter(peer, connection)
                                                : detectSendMethod(peer, connection);
    if (count > 0) connection->staticSent += static_cast<uint64_t>(count);
    if (count > 0 && connection->sendsFile) connection->staticRemaining -= static_cast<uint64_t>(count);
    if (count < 0 || errno != 0) {
      if (errno == EAGAIN) return awaitWritable(connection, peer);
      TRACE_ERROR("unable to write to socket: %m");
      return giveUpStaticFile(connection);
    }
  } while (count > 0);

  if (connection->staticRemaining > 0) {
    TRACE_ERROR("static file is shorter than announced, closing connection");
    return giveUpStaticFile(connection);
  }
  return staticFileSent(connection, peer);
}

bool srv_handleWriteFileReplyDone(ZelPeer* peer) {
  TRACE_NOTICE("reply header sent, sending body");
  if (!peer_setStreamType(peer, PEER_STREAM_DIRECT)) {
    TRACE_ERROR("unable to switch stream to direct io");
    return false;
  }
  peer_setEventHandler(peer, PEER_EVENT_WRITABLE, PEER_DIRECTION_OUT, srv_handleWriteFile);
  return true;
}

namespace {

// Says in the reply's head how its body will end. False when it cannot be said.
bool announceDescriptor(Connection* connection, HttpReply* reply, int descriptor) {
  struct stat status;
  if (fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode)) {
    TRACE_NOTICE("fd is backed by a file (%lu), Content-Length: %li", static_cast<unsigned long>(status.st_ino),
                 static_cast<long>(status.st_size));
    HttpHeader length{};
    length.code = HTTP_HEADER_CONTENT_LENGTH;
    length.contentLength.length = static_cast<uint64_t>(status.st_size);
    connection->staticSize = static_cast<int32_t>(status.st_size);
    connection->staticRemaining = static_cast<uint64_t>(status.st_size);
    connection->sendsFile = true;
    return http_replyHeaderSet(reply, &length) == 0;
  }
  TRACE_NOTICE("fd is not backed by a file, will close connection on EOF");
  connection->staticSize = -1;
  connection->staticRemaining = 0;
  return http_replyHeaderValueSet(reply, "Connection", "close") == 0;
}

// Opens for reading without ever waiting, should the path name a pipe meanwhile.
int openFile(const char* path) {
  TRACE_NOTICE("sending file %s", path);
  const int descriptor = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (descriptor < 0) TRACE_ERROR("unable to open path %s: %m", path);
  return descriptor;
}

// --- files below a root directory ------------------------------------------------------------------------------------

using PathBuffer = char[PATH_MAX];

int answer(HttpReply* reply, unsigned code) {
  http_replyWithDefault(reply, code);
  return -1;
}

bool isPrintable(std::string_view path) {
  return std::all_of(path.begin(), path.end(), [](char c) { return std::isprint(static_cast<unsigned char>(c)) != 0; });
}

bool takesGzip(HttpRequest* request) {
  const char* const agent = http_requestHeaderValue(request, "User-Agent");
  if (agent == nullptr || std::strstr(agent, "MSIE 6.") == nullptr) return true;
  TRACE_NOTICE("cannot serve gzipped file to ie6 (too buggy)");
  return false;
}

// Puts the parts together; a path that is too long becomes the empty one, which names no file.
void setPath(PathBuffer& path, const char* directory, const char* name, const char* suffix) {
  const int length = std::snprintf(path, sizeof path, "%s%s%s", directory, name, suffix);
  if (length < 0 || static_cast<size_t>(length) >= sizeof path) path[0] = '\0';
}

void appendIndex(PathBuffer& path, bool gzip) {
  TRACE_NOTICE("%s", gzip ? "asking for a directory, checking for index.html.gz"
                          : "asking for a directory, checking for index.html");
  PathBuffer directory;
  std::memcpy(directory, path, sizeof path);
  setPath(path, directory, "/index.html", gzip ? ".gz" : "");
}

// Finds the file to send for @p name below @p root. Returns 0, or the status code of the refusal. The ".gz" variant is
// given up at the first miss, so "index.html.gz" is found only below a directory whose own name ends in ".gz".
unsigned findFile(const char* root, const char* name, bool* gzip, PathBuffer& path) {
  setPath(path, root, name, *gzip ? ".gz" : "");
  for (;;) {
    TRACE_NOTICE("checking for availability of %s", path);
    struct stat status;
    if (stat(path, &status) < 0) {
      if (!*gzip) return 404;
      *gzip = false;
      setPath(path, root, name, "");
    } else if (S_ISDIR(status.st_mode)) {
      appendIndex(path, *gzip);
    } else if (S_ISREG(status.st_mode)) {
      if (*gzip) TRACE_NOTICE("serving gzipped file");
      return 0;
    } else {
      TRACE_ERROR("unable to find file %s", path);
      return 404;
    }
  }
}

unsigned resolveBelow(const char* root, const PathBuffer& path, PathBuffer& resolved) {
  if (realpath(path, resolved) == nullptr) {
    TRACE_ERROR("invalid uri %s: %m", path);
    return 400;
  }
  if (std::strncmp(resolved, root, std::strlen(root)) == 0) return 0;
  TRACE_ERROR("trying to access a file out of the root dir (\"%s\" is not in \"%s\")", resolved, root);
  return 404;
}

// The type that the last suffix but ".gz" stands for, null when it is not known.
const char* contentTypeOf(std::string_view path) {
  struct Suffix {
    std::string_view text;
    const char* type;
  };
  static constexpr Suffix kSuffixes[] = {{".png", "image/png"},
                                         {".htm", "text/html; charset=utf-8"},
                                         {".css", "text/css; charset=utf-8"},
                                         {".js", "application/javascript; charset=utf-8"},
                                         {".gif", "image/gif"},
                                         {".jpg", "image/jpeg"}};
  if (path.ends_with(".gz")) path.remove_suffix(3);
  const size_t dot = path.rfind('.');
  if (dot == std::string_view::npos) return nullptr;
  for (const Suffix& suffix : kSuffixes)
    if (path.substr(dot).starts_with(suffix.text)) return suffix.type;
  return nullptr;
}

int sendResolved(HttpReply* reply, const char* path, bool gzip) {
  // Opened before the head says what it is: the file may be gone by now, and the refusal is not gzipped.
  const int descriptor = openFile(path);
  if (descriptor < 0) return answer(reply, 404);
  const char* const type = contentTypeOf(path);
  if ((!gzip || http_replyHeaderValueSet(reply, "Content-Encoding", "gzip") == 0) &&
      (type == nullptr || http_replyHeaderValueSet(reply, "Content-Type", "%s", type) == 0))
    return http_serverSendFd(reply, descriptor);
  close(descriptor);
  return -1;
}

}  // namespace

extern "C" {

int http_serverSendFd(HttpReply* reply, int descriptor) {
  TRACE_NOTICE("sending file descriptor %d", descriptor);
  ZelPeer* const peer = http_replyPeer(reply);
  Connection* const connection = peer != nullptr ? connectionOf(peer) : nullptr;
  if (connection == nullptr) {
    TRACE_ERROR("unable to send reply");
    close(descriptor);
    return -1;
  }
  srv_resetStatic(connection);
  if (!announceDescriptor(connection, reply, descriptor)) {
    TRACE_ERROR("unable to send reply");
    close(descriptor);
    srv_resetStatic(connection);
    return -1;
  }
  if (reply->message.bodyless) {
    // The answer to HEAD is the head alone.
    close(descriptor);
    connection->staticSize = 0;
    connection->staticRemaining = 0;
    if (http_replySend(reply) == 0) return http_replyDone(reply);
    TRACE_ERROR("unable to send reply");
    return -1;
  }
  peer_setEventHandler(peer, PEER_EVENT_DRAINED, PEER_DIRECTION_OUT, srv_handleWriteFileReplyDone);
  if (http_replySend(reply) < 0) {
    TRACE_ERROR("unable to send reply");
    close(descriptor);
    return -1;
  }
  connection->staticFd = descriptor;
  const int flags = fcntl(descriptor, F_GETFL);
  if ((flags & O_NONBLOCK) == 0) fcntl(descriptor, F_SETFL, flags | O_NONBLOCK);
  return 0;
}

int http_serverSendFile(HttpReply* reply, const char* path) {
  const int descriptor = openFile(path);
  return descriptor < 0 ? answer(reply, 404) : http_serverSendFd(reply, descriptor);
}

int http_serverRequestSendFile(HttpRequest* request, HttpReply* reply, const char* root) {
  TRACE_NOTICE("sending static file");
  if (http_replyStatusCodeSet(reply, 200, nullptr) < 0) return -1;
  const char* const name = http_requestPath(request);
  if (name == nullptr || !isPrintable(name)) return answer(reply, 400);

  bool gzip = takesGzip(request);
  PathBuffer path;
  PathBuffer resolved;
  unsigned refusal = findFile(root, name, &gzip, path);
  if (refusal == 0) refusal = resolveBelow(root, path, resolved);
  if (refusal != 0) return answer(reply, refusal);
  if (sendResolved(reply, resolved, gzip) == 0) return 0;
  TRACE_ERROR("unable to send file");
  return -1;
}

}  // extern "C"
