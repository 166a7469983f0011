#include "fault/inject.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

// Nothing here allocates: the allocator itself comes by.
Fault current;
unsigned seen;
bool armed;
bool hit;
long live;

bool isHit(Call call) {
  if (!armed || call != current.call) return false;
  ++seen;
  if (seen != current.nth && !(current.forGood && seen > current.nth)) return false;
  hit = true;
  return true;
}

// The function behind ours: the sanitizer's, or that of the C library.
template <typename Function>
Function* next(Function*, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

bool isShort(Call call) { return current.call == call && current.error == kOneByte; }

// A call that moves bytes.
template <typename Work>
ssize_t moveBytes(Call call, size_t size, Work work) {
  if (!isHit(call)) return work(size);
  if (isShort(call)) return work(std::min<size_t>(size, 1));
  errno = current.error;
  return -1;
}

// Any other call that returns a number, negative when it fails.
template <typename Work>
auto call(Call which, Work work) -> decltype(work()) {
  if (!isHit(which)) return work();
  errno = current.error;
  return -1;
}

// A call that has its effect, although it says otherwise.
template <typename Work>
int failAfter(Call which, Work work) {
  const bool fails = isHit(which);
  const int result = work();
  if (!fails) return result;
  errno = current.error;
  return -1;
}

bool failsToAllocate() {
  if (!isHit(Call::Allocate)) return false;
  errno = ENOMEM;
  return true;
}

}  // namespace

unsigned callsSeen() { return seen; }
bool faultHit() { return hit; }
long liveBlocks() { return live; }

void setFault(const Fault& fault) {
  current = fault;
  seen = 0;
  hit = false;
}

Armed::Armed() { armed = true; }
Armed::~Armed() { armed = false; }
Spared::Spared() : was_(armed) { armed = false; }
Spared::~Spared() { armed = was_; }

// --- the allocator ---------------------------------------------------------------------------------------------------

#ifdef KROHTTP_FAULT_ADDRESS_SANITIZER
#define REAL(name) __interceptor_##name
#else
#define REAL(name) __libc_##name
#endif

extern "C" {

void* REAL(malloc)(size_t size) noexcept;
void* REAL(calloc)(size_t count, size_t size) noexcept;
void* REAL(realloc)(void* block, size_t size) noexcept;
void REAL(free)(void* block) noexcept;

void* malloc(size_t size) noexcept {
  if (failsToAllocate()) return nullptr;
  void* const block = REAL(malloc)(size);
  live += block != nullptr;
  return block;
}

void* calloc(size_t count, size_t size) noexcept {
  if (failsToAllocate()) return nullptr;
  void* const block = REAL(calloc)(count, size);
  live += block != nullptr;
  return block;
}

void* realloc(void* block, size_t size) noexcept {
  if (size != 0 && failsToAllocate()) return nullptr;
  void* const moved = REAL(realloc)(block, size);
  live += block == nullptr && moved != nullptr;
  live -= block != nullptr && size == 0;
  return moved;
}

void free(void* block) noexcept {
  live -= block != nullptr;
  REAL(free)(block);
}

// These go by malloc() in the C library, but not in a sanitizer.

void* reallocarray(void* block, size_t count, size_t size) noexcept {
  size_t bytes;
  if (!__builtin_mul_overflow(count, size, &bytes)) return realloc(block, bytes);
  errno = ENOMEM;
  return nullptr;
}

char* strdup(const char* text) noexcept {
  const size_t size = strlen(text) + 1;
  auto* const copy = static_cast<char*>(malloc(size));
  return copy != nullptr ? static_cast<char*>(memcpy(copy, text, size)) : nullptr;
}

char* strndup(const char* text, size_t size) noexcept {
  const size_t length = strnlen(text, size);
  auto* const copy = static_cast<char*>(malloc(length + 1));
  if (copy == nullptr) return nullptr;
  memcpy(copy, text, length);
  copy[length] = '\0';
  return copy;
}

// --- the system ------------------------------------------------------------------------------------------------------

#define NEXT(name) static const auto real = next(&name, #name)

ssize_t read(int fd, void* buffer, size_t size) {
  NEXT(read);
  return moveBytes(Call::Read, size, [=](size_t most) { return real(fd, buffer, most); });
}

ssize_t write(int fd, const void* data, size_t size) {
  NEXT(write);
  return moveBytes(Call::Write, size, [=](size_t most) { return real(fd, data, most); });
}

ssize_t recv(int fd, void* buffer, size_t size, int flags) {
  NEXT(recv);
  return moveBytes(Call::Recv, size, [=](size_t most) { return real(fd, buffer, most, flags); });
}

ssize_t send(int fd, const void* data, size_t size, int flags) {
  NEXT(send);
  return moveBytes(Call::Send, size, [=](size_t most) { return real(fd, data, most, flags); });
}

ssize_t sendmsg(int fd, const msghdr* message, int flags) {
  NEXT(sendmsg);
  return moveBytes(Call::SendMsg, SIZE_MAX, [=](size_t most) {
    if (most == SIZE_MAX || message->msg_iovlen == 0) return real(fd, message, flags);
    iovec part = message->msg_iov[0];
    part.iov_len = std::min(part.iov_len, most);
    msghdr shortened = *message;
    shortened.msg_iov = &part;
    shortened.msg_iovlen = 1;
    return real(fd, &shortened, flags);
  });
}

ssize_t sendfile(int out, int in, off_t* offset, size_t size) noexcept {
  NEXT(sendfile);
  return moveBytes(Call::SendFile, size, [=](size_t most) { return real(out, in, offset, most); });
}

ssize_t splice(int in, off64_t* inOffset, int out, off64_t* outOffset, size_t size, unsigned flags) {
  NEXT(splice);
  return moveBytes(Call::Splice, size, [=](size_t most) { return real(in, inOffset, out, outOffset, most, flags); });
}

int accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
  NEXT(accept4);
  return call(Call::Accept, [=] { return real(fd, address, length, flags); });
}

int socket(int family, int type, int protocol) noexcept {
  NEXT(socket);
  return call(Call::Socket, [=] { return real(family, type, protocol); });
}

// One that is interrupted goes on in the background.
int connect(int fd, const sockaddr* address, socklen_t length) {
  NEXT(connect);
  const auto work = [=] { return real(fd, address, length); };
  return current.error == EINTR ? failAfter(Call::Connect, work) : call(Call::Connect, work);
}

int bind(int fd, const sockaddr* address, socklen_t length) noexcept {
  NEXT(bind);
  return call(Call::Bind, [=] { return real(fd, address, length); });
}

int listen(int fd, int backlog) noexcept {
  NEXT(listen);
  return call(Call::Listen, [=] { return real(fd, backlog); });
}

int setsockopt(int fd, int level, int name, const void* value, socklen_t length) noexcept {
  NEXT(setsockopt);
  return call(Call::SetSockOpt, [=] { return real(fd, level, name, value, length); });
}

int getsockopt(int fd, int level, int name, void* value, socklen_t* length) noexcept {
  NEXT(getsockopt);
  return call(Call::GetSockOpt, [=] { return real(fd, level, name, value, length); });
}

int shutdown(int fd, int how) noexcept {
  NEXT(shutdown);
  return call(Call::Shutdown, [=] { return real(fd, how); });
}

int open(const char* path, int flags, ...) {
  NEXT(open);
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return call(Call::Open, [=] { return real(path, flags, mode); });
}

int stat(const char* path, struct stat* status) noexcept {
  static const auto real = next(static_cast<int (*)(const char*, struct stat*)>(nullptr), "stat");
  return call(Call::Stat, [=] { return real(path, status); });
}

int lstat(const char* path, struct stat* status) noexcept {
  NEXT(lstat);
  return call(Call::Stat, [=] { return real(path, status); });
}

int fstat(int fd, struct stat* status) noexcept {
  NEXT(fstat);
  return call(Call::Stat, [=] { return real(fd, status); });
}

char* realpath(const char* path, char* resolved) noexcept {
  NEXT(realpath);
  if (isHit(Call::RealPath)) {
    errno = current.error;
    return nullptr;
  }
  if (resolved != nullptr) return real(path, resolved);
  // A sanitizer would take the block past our malloc().
  auto* const block = static_cast<char*>(malloc(PATH_MAX));
  if (block == nullptr || real(path, block) != nullptr) return block;
  free(block);
  return nullptr;
}

off_t lseek(int fd, off_t offset, int whence) noexcept {
  NEXT(lseek);
  return call(Call::Lseek, [=] { return real(fd, offset, whence); });
}

int fcntl(int fd, int command, ...) {
  NEXT(fcntl);
  va_list arguments;
  va_start(arguments, command);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  return call(Call::Fcntl, [=] { return real(fd, command, argument); });
}

int poll(pollfd* descriptors, nfds_t count, int milliseconds) {
  NEXT(poll);
  return call(Call::Poll, [=] { return real(descriptors, count, milliseconds); });
}

// The descriptor is gone in any case.
int close(int fd) {
  NEXT(close);
  return failAfter(Call::Close, [=] { return real(fd); });
}

int epoll_create1(int flags) noexcept {
  NEXT(epoll_create1);
  return call(Call::EpollCreate, [=] { return real(flags); });
}

// Only the call by which libuv finds out whether a descriptor can be polled: after the others it ends the process.
int epoll_ctl(int epoll, int operation, int fd, epoll_event* event) noexcept {
  NEXT(epoll_ctl);
  const auto work = [=] { return real(epoll, operation, fd, event); };
  const bool isCheck = operation == EPOLL_CTL_ADD && event != nullptr && event->data.fd == -1;
  return isCheck ? call(Call::EpollCheck, work) : work();
}

int epoll_pwait(int epoll, epoll_event* events, int most, int milliseconds, const sigset_t* signals) {
  NEXT(epoll_pwait);
  return call(Call::EpollWait, [=] { return real(epoll, events, most, milliseconds, signals); });
}

int epoll_wait(int epoll, epoll_event* events, int most, int milliseconds) {
  NEXT(epoll_wait);
  return call(Call::EpollWait, [=] { return real(epoll, events, most, milliseconds); });
}

}  // extern "C"
