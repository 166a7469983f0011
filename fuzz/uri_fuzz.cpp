// A target: taken apart, its parameters iterated, looked up, and put together again.
//
// Input: a byte that tells how many parameters are handed out when the target is put together, the target.
#include <krohttp/uri.h>

#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "fuzz_input.h"
#include "fuzz_support.h"

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

struct Free {
  void operator()(char* memory) const { free(memory); }
};

// A target in a buffer of its own size.
class Parsed {
 public:
  explicit Parsed(const std::string& target) : text_(target.begin(), target.end()) {
    text_.push_back('\0');
    result = http_uriParse(&uri, text_.data());
  }
  std::string serialize() {
    const std::unique_ptr<char, Free> text(http_uriSerialize(&uri));
    FUZZ_CHECK(text != nullptr);
    return text.get();
  }
  Pairs pairs(size_t most = SIZE_MAX) {
    Pairs pairs;
    char* name = nullptr;
    char* value = nullptr;
    while (pairs.size() < most && http_uriNextParameter(&uri, &name, &value) == 0) pairs.emplace_back(name, value);
    FUZZ_CHECK(pairs.size() == most || (name == nullptr && value == nullptr));
    return pairs;
  }

  HttpUri uri;
  int result;

 private:
  std::vector<char> text_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput input(data, size);
  const unsigned steps = input.byte();
  traceIf(steps >= 0x80);
  const std::string target(input.rest().substr(0, input.rest().find('\0')));
  Parsed parsed(target);
  FUZZ_CHECK((parsed.result == 0) == (target.find('/') != std::string::npos));
  if (parsed.result != 0) {
    FUZZ_CHECK(parsed.uri.path == nullptr && http_uriSerialize(&parsed.uri) == nullptr);
    return 0;
  }

  // Written and read again it is the same.
  const std::string written = parsed.serialize();
  Parsed again(written);
  FUZZ_CHECK(again.result == 0);
  FUZZ_CHECK(strcmp(again.uri.path, parsed.uri.path) == 0);
  FUZZ_CHECK(strcmp(again.uri.query, parsed.uri.query) == 0);
  FUZZ_CHECK(again.serialize() == written);

  // An iteration leaves the query as it was, in other words at most; wherever it stands, too.
  const Pairs pairs = parsed.pairs();
  FUZZ_CHECK(again.pairs(steps % 8).size() == std::min<size_t>(steps % 8, pairs.size()));
  const std::string meanwhile = again.serialize();
  http_uriResetParameterIterator(&again.uri);
  FUZZ_CHECK(again.pairs() == pairs);
  FUZZ_CHECK(again.serialize() == meanwhile || steps % 8 < pairs.size());
  http_uriResetParameterIterator(&parsed.uri);
  for (size_t at = 0; at < pairs.size() && at < 8; ++at) {
    char* value = nullptr;
    FUZZ_CHECK(http_uriGetParameter(&parsed.uri, pairs[at].first.c_str(), &value) == 0);
    size_t first = 0;
    while (pairs[first].first != pairs[at].first) ++first;
    FUZZ_CHECK(pairs[first].second == value);
  }
  return 0;
}
