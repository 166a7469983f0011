// Dates of cookies: any text read, any time written, and both ways round.
//
// Input: eight bytes of a time, a text.
#include <krohttp/protocol.h>

#include <cstring>
#include <ctime>

#include "fuzz_input.h"
#include "fuzz_support.h"

namespace {

// The largest and the smallest time that four digits of a year can tell.
constexpr time_t kLast = 253402300799;
constexpr time_t kFirst = -62135596800;

void writeAndRead(time_t date) {
  char text[64];
  if (prot_serializeDate(date, text, sizeof text) != 0) {
    FUZZ_CHECK(date < kFirst || date > kLast);
    return;
  }
  FUZZ_CHECK(strlen(text) < sizeof text);
  for (size_t room = strlen(text); room > strlen(text) - 3; --room) {
    char tight[64];
    FUZZ_CHECK(prot_serializeDate(date, tight, room) == -1);
  }
  if (date >= kFirst && date <= kLast) FUZZ_CHECK(prot_parseDate(text) == date);

  CollectingStream output;
  FUZZ_CHECK(prot_serializeDateToStream(date, output.stream()) == 0);
  FUZZ_CHECK(output.text() == text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  traceIf(size % 8 == 0);
  int64_t number = 0;
  if (size < sizeof number) return 0;
  memcpy(&number, data, sizeof number);
  writeAndRead(number);
  writeAndRead(number % kLast);

  const std::string text(data + sizeof number, data + size);
  const time_t date = prot_parseDate(text.c_str());
  if (date != -1) writeAndRead(date);
  return 0;
}
