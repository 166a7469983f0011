// A list of pairs, cut up.
//
// Input: the separator, the list.
#include <krohttp/utils.h>

#include <vector>

#include "fuzz_input.h"
#include "fuzz_support.h"

namespace {

// The next token of the list as it should be cut. The rest of the list shrinks.
struct Pair {
  std::string key;
  std::string value;
  bool hasValue;

  Pair(std::string_view* rest, char separator) {
    const size_t end = rest->find(separator);
    std::string_view token = rest->substr(0, end);
    rest->remove_prefix(end == std::string_view::npos ? rest->size() : end + 1);
    token.remove_prefix(std::min(token.find_first_not_of(" \t"), token.size()));
    const size_t sign = token.find('=');
    hasValue = sign != std::string_view::npos;
    key = token.substr(0, sign);
    if (hasValue) value = token.substr(sign + 1);
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput input(data, size);
  const char separator = static_cast<char>(input.byte());
  const std::string list(input.rest().substr(0, input.rest().find('\0')));
  traceIf(size % 8 == 0);
  std::vector<char> text(list.begin(), list.end());
  text.push_back('\0');

  std::string_view rest = list;
  char* key = nullptr;
  char* value = nullptr;
  char* cursor = nullptr;
  for (char* from = text.data(); utils_keyvalue(from, &key, &value, &cursor, separator) == 1; from = nullptr) {
    FUZZ_CHECK(!rest.empty());
    const Pair expected(&rest, separator);
    FUZZ_CHECK(expected.key == key && expected.hasValue == (value != nullptr));
    FUZZ_CHECK(value == nullptr || expected.value == value);
  }
  FUZZ_CHECK(rest.empty());
  return 0;
}
