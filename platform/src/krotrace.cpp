#include <krotrace/krotrace.h>

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

int kroTraceZonesLevel = -1;

namespace {

enum class Output { Descriptor, Syslog, Function };

struct Zone {
  Zone* next;
  int level;
  char name[];
};

Output output = Output::Descriptor;
int descriptor = STDERR_FILENO;
int type = -1; /**< of the output; -1: standard error, not looked at yet */
KroTraceFunction function;
void* functionData;
bool inFunction;
bool cut; /**< the end of the last line was not taken: it is ended before the next one */
char* syslogName;
Zone* zones;

/** Restores errno at the end of every public function. */
class ErrnoKeeper {
 public:
  ErrnoKeeper() : _kept(errno) {}
  ~ErrnoKeeper() { errno = _kept; }
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;
  int kept() const { return _kept; }

 private:
  int _kept;
};

/** Text that stands on the stack unless it is long. */
class Text {
 public:
  Text() = default;
  ~Text() {
    if (_data != _small) free(_data);
  }
  Text(const Text&) = delete;
  Text& operator=(const Text&) = delete;

  char* data() { return _data; }

  /** What is longer than memory allows is cut. */
  size_t reserve(size_t wanted) {
    if (wanted <= _room) return _room;
    char* bigger = static_cast<char*>(malloc(wanted));
    if (!bigger) return _room;
    if (_data != _small) free(_data);
    _data = bigger;
    return _room = wanted;
  }

 private:
  char _small[1024];
  char* _data = _small;
  size_t _room = sizeof(_small);
};

int priority(int level) {
  if (level < KROTRACE_ERROR) return LOG_CRIT;
  if (level < KROTRACE_WARNING) return LOG_ERR;
  if (level < KROTRACE_NOTICE) return LOG_WARNING;
  return level < KROTRACE_INFO ? LOG_NOTICE : LOG_INFO;
}

/** @return how much was taken: a pipe that was made non-blocking may be full */
size_t writeAll(const char* data, size_t length) {
  size_t done = 0;
  while (done < length) {
    const ssize_t written = write(descriptor, data + done, length - done);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) break;
    done += static_cast<size_t>(written);
  }
  return done;
}

void writeLine(const char* line, size_t length) {
  if (cut && writeAll("\n", 1) == 0) return;
  const size_t done = writeAll(line, length);
  cut = done > 0 && done < length;
}

/** @p line has room for a line end in place of its NUL. */
void emit(int level, char* line, size_t length) {
  switch (output) {
    case Output::Descriptor:
      line[length] = '\n';
      return writeLine(line, length + 1);
    case Output::Syslog:
      return syslog(priority(level), "%s", line);
    case Output::Function:
      if (!function || inFunction) return;  // a line about handling a line would never end
      inFunction = true;
      function(level, line, functionData);
      inFunction = false;
  }
}

size_t countLineEnds(const char* text) {
  size_t count = 0;
  for (text += strcspn(text, "\r\n"); *text; text += strcspn(text, "\r\n")) ++count, ++text;
  return count;
}

/** Line ends become visible: what came in from outside must not look like lines of its own. */
void emitOneLine(int level, Text* text) {
  const size_t length = strlen(text->data());
  const size_t ends = countLineEnds(text->data());
  if (ends == 0) return emit(level, text->data(), length);
  Text shown;
  const size_t room = shown.reserve(length + ends + 1);
  size_t used = 0;
  for (const char* from = text->data(); *from && used + 2 < room; ++from) {
    const bool isEnd = *from == '\n' || *from == '\r';
    if (isEnd) shown.data()[used++] = '\\';
    shown.data()[used++] = *from == '\n' ? 'n' : *from == '\r' ? 'r' : *from;
  }
  shown.data()[used] = '\0';
  emit(level, shown.data(), used);
}

void trace(int error, int level, const char* format, va_list arguments) {
  Text text;
  va_list again;
  va_copy(again, arguments);
  errno = error;
  const size_t room = text.reserve(0);
  const int length = vsnprintf(text.data(), room, format, arguments);
  errno = error;
  if (length >= 0 && static_cast<size_t>(length) >= room) {
    const size_t enough = text.reserve(static_cast<size_t>(length) + 1);
    vsnprintf(text.data(), enough, format, again);
  }
  va_end(again);
  if (length >= 0) emitOneLine(level, &text);
}

Zone* findZone(const char* name) {
  Zone* zone = zones;
  while (zone && strcmp(zone->name, name) != 0) zone = zone->next;
  return zone;
}

bool isEnabled(const char* name, int level) {
  const Zone* zone = findZone(name);
  if (!zone) zone = findZone("*");
  return zone && level <= zone->level;
}

Zone* makeZone(const char* name) {
  const size_t length = strlen(name) + 1;
  Zone* zone = static_cast<Zone*>(malloc(sizeof(Zone) + length));
  if (!zone) return nullptr;
  memcpy(zone->name, name, length);
  zone->next = zones;
  return zones = zone;
}

/** Leaves whatever output is in force. */
void setOutput(Output wanted, int newDescriptor, int newType) {
  if (output == Output::Descriptor && descriptor != STDERR_FILENO) close(descriptor);
  if (output == Output::Syslog) closelog();
  free(syslogName);
  syslogName = nullptr;
  output = wanted;
  descriptor = newDescriptor;
  cut = false;
  type = newType;
}

int typeOfStderr() { return isatty(STDERR_FILENO) ? KROTRACE_TYPE_TERMINAL : KROTRACE_TYPE_PLAIN; }

}  // namespace

extern "C" void kroTrace(int level, const char* format, ...) {
  const ErrnoKeeper keeper;
  va_list arguments;
  va_start(arguments, format);
  trace(keeper.kept(), level, format, arguments);
  va_end(arguments);
}

extern "C" void kroTraceZone(const char* zone, int level, const char* format, ...) {
  const ErrnoKeeper keeper;
  if (!zone || !isEnabled(zone, level)) return;
  va_list arguments;
  va_start(arguments, format);
  trace(keeper.kept(), level, format, arguments);
  va_end(arguments);
}

extern "C" int kroTraceType(void) {
  const ErrnoKeeper keeper;
  if (type < 0) type = typeOfStderr();
  return type;
}

extern "C" bool kroTraceEnable(const char* name, int level) {
  const ErrnoKeeper keeper;
  if (!name || !*name) return false;
  Zone* zone = findZone(name);
  if (!zone) zone = makeZone(name);
  if (!zone) return false;
  zone->level = level < 0 ? -1 : level;
  kroTraceZonesLevel = -1;
  for (const Zone* one = zones; one; one = one->next)
    if (one->level > kroTraceZonesLevel) kroTraceZonesLevel = one->level;
  return true;
}

extern "C" void kroTraceToStderr(void) {
  const ErrnoKeeper keeper;
  setOutput(Output::Descriptor, STDERR_FILENO, typeOfStderr());
}

extern "C" bool kroTraceToFile(const char* path) {
  const int kept = errno;
  const int file = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY, 0600);
  if (file < 0) return false;
  setOutput(Output::Descriptor, file, KROTRACE_TYPE_PLAIN);
  errno = kept;
  return true;
}

extern "C" void kroTraceToSyslog(const char* identity) {
  const ErrnoKeeper keeper;
  char* name = identity ? strdup(identity) : nullptr;
  setOutput(Output::Syslog, STDERR_FILENO, KROTRACE_TYPE_PLAIN);
  syslogName = name;
  openlog(syslogName, LOG_PID, LOG_DAEMON);
}

extern "C" void kroTraceToFunction(KroTraceFunction newFunction, void* userData) {
  const ErrnoKeeper keeper;
  setOutput(Output::Function, STDERR_FILENO, newFunction ? KROTRACE_TYPE_PLAIN : KROTRACE_TYPE_NONE);
  function = newFunction;
  functionData = userData;
}
