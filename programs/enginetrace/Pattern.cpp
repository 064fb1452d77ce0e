#include "programs/enginetrace/Pattern.h"

#include <cstddef>
#include <re2/re2.h>

namespace {

// In front of an expression: "^" and "$" are the ends of each line.
constexpr std::string_view linesHaveEnds = "(?m)";

// A set such as "[a-z]" or "[!0-9]" at the front of a pattern, and its length; 0 when it has no
// end.
struct Set {
  std::size_t length = 0;
  std::string regex = "[";
};

Set takeSet(std::string_view glob) {
  Set set;
  std::size_t at = 1;
  if (glob.substr(at).starts_with('!') || glob.substr(at).starts_with('^')) {
    set.regex += '^';
    ++at;
  }
  // A bracket at the start is one of the set.
  for (const std::size_t start = at; at < glob.size() && (glob[at] != ']' || at == start); ++at) {
    if (glob[at] == '\\' && ++at == glob.size()) {
      break;
    }
    const bool isRange = glob[at] == '-' && glob[at - 1] != '\\';
    set.regex += isRange ? "-" : RE2::QuoteMeta(re2::StringPiece(glob.data() + at, 1));
  }
  set.regex += ']';
  set.length = at < glob.size() ? at + 1 : 0;
  return set;
}

std::string regexOfGlob(std::string_view glob) {
  std::string result = "(?s)\\A";
  while (!glob.empty()) {
    const char c = glob.front();
    const Set set = c == '[' ? takeSet(glob) : Set();
    std::size_t length = 1;
    if (c == '*') {
      result += "\\C*";
    } else if (c == '?') {
      result += '.';
    } else if (set.length > 0) {
      result += set.regex;
      length = set.length;
    } else {
      // A backslash takes the next character for itself.
      length = c == '\\' && glob.size() > 1 ? 2 : 1;
      result += RE2::QuoteMeta(re2::StringPiece(glob.data() + length - 1, 1));
    }
    glob.remove_prefix(length);
  }
  return result + "\\z";
}

RE2::Options quiet(bool ignoresCase) {
  RE2::Options options;
  options.set_log_errors(false);
  options.set_case_sensitive(!ignoresCase);
  return options;
}

}  // namespace

Pattern::Pattern(const std::string& regex, bool ignoresCase)
    : regex_(std::make_unique<RE2>(std::string(linesHaveEnds) + regex, quiet(ignoresCase))) {}

Pattern Pattern::glob(std::string_view glob) { return Pattern(regexOfGlob(glob)); }

Pattern::Pattern(Pattern&&) noexcept = default;
Pattern& Pattern::operator=(Pattern&&) noexcept = default;
Pattern::~Pattern() = default;

std::string Pattern::error() const {
  std::string error = regex_->error();
  if (const std::size_t at = error.find(linesHaveEnds); at != std::string::npos) {
    error.erase(at, linesHaveEnds.size());
  }
  return error;
}

bool Pattern::matches(std::string_view text) const {
  return regex_->ok() && RE2::PartialMatch(re2::StringPiece(text.data(), text.size()), *regex_);
}
