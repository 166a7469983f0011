#include "challenge.h"

#include <algorithm>

#include "text.h"

namespace {

constexpr std::string_view kBlanks = " \t";
constexpr std::string_view kBlanksAndCommas = " \t,";

bool isTokenCharacter(char c) { return isToken({&c, 1}); }

// RFC 9110 section 11.2, without the "=" at its end.
bool isToken68Character(char c) {
  constexpr std::string_view kMarks = "-._~+/";
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
         kMarks.find(c) != std::string_view::npos;
}

// Reads a header from its front:
//   challenges = *( *"," challenge )
//   challenge  = token [ 1*SP ( token68 / [ parameter *( OWS "," OWS parameter ) ] ) ]
//   parameter  = token BWS "=" BWS ( token / quoted-string )
// A token is a parameter's name when "=" follows, else it is the next challenge's scheme.
class ChallengeReader {
 public:
  explicit ChallengeReader(std::string_view text) : rest_(text) {}

  std::vector<Challenge> read() {
    while (skip(kBlanksAndCommas), !rest_.empty())
      if (!readItem()) break;
    if (!rest_.empty() && !challenges_.empty()) challenges_.back().broken = true;
    return std::move(challenges_);
  }

 private:
  void skip(std::string_view what) { rest_.remove_prefix(std::min(rest_.find_first_not_of(what), rest_.size())); }

  bool takeMark(char mark) {
    if (!rest_.starts_with(mark)) return false;
    rest_.remove_prefix(1);
    return true;
  }

  // Whether the item is over.
  bool atEnd() const { return rest_.empty() || rest_.front() == ','; }

  template <typename Predicate>
  std::string take(Predicate predicate) {
    const auto end = std::find_if_not(rest_.begin(), rest_.end(), predicate);
    const std::string taken(rest_.begin(), end);
    rest_.remove_prefix(taken.size());
    return taken;
  }

  // @return false at a mistake; something is left then
  bool readItem() {
    const std::string name = take(isTokenCharacter);
    if (name.empty()) return false;
    skip(kBlanks);
    if (rest_.starts_with('=')) return readParameter(name);
    challenges_.push_back({name, {}, false});
    skipToken68();
    return true;
  }

  bool readParameter(const std::string& name) {
    if (challenges_.empty()) return false;
    takeMark('=');
    skip(kBlanks);
    std::string value;
    if (!(rest_.starts_with('"') ? readQuoted(&value) : readToken(&value))) return false;
    challenges_.back().parameters.emplace_back(name, std::move(value));
    skip(kBlanks);
    return atEnd();
  }

  bool readToken(std::string* value) {
    *value = take(isTokenCharacter);
    return !value->empty();
  }

  // RFC 9110 section 5.6.4. A quote that does not end leaves it unread.
  bool readQuoted(std::string* value) {
    for (size_t at = 1; at < rest_.size(); ++at) {
      if (rest_[at] == '"') {
        rest_.remove_prefix(at + 1);
        return true;
      }
      if (rest_[at] == '\\' && at + 1 < rest_.size()) ++at;
      *value += rest_[at];
    }
    return false;
  }

  // The schemes that use one are not for us.
  void skipToken68() {
    const std::string_view before = rest_;
    take(isToken68Character);
    skip("=");
    skip(kBlanks);
    if (!atEnd()) rest_ = before;
  }

  std::string_view rest_;
  std::vector<Challenge> challenges_;
};

}  // namespace

const std::string* Challenge::find(std::string_view name) const {
  const auto found =
      std::find_if(parameters.begin(), parameters.end(), [&](const auto& one) { return sameWord(one.first, name); });
  return found != parameters.end() ? &found->second : nullptr;
}

std::vector<Challenge> parseChallenges(std::string_view header) { return ChallengeReader(header).read(); }
