#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace re2 {
class RE2;
}

/// \file
/// A pattern that texts are compared with, in time that grows with the text and with no more than
/// a few megabytes whatever the pattern is. Texts may be any bytes.

class Pattern {
 public:
  /// A regular expression in the syntax of RE2, which may be found anywhere in a text; "^" and "$"
  /// are the ends of a line. When it is none, that has an error() and matches nothing.
  explicit Pattern(const std::string& regex, bool ignoresCase = false);

  /// A pattern as fnmatch() has them, of "*", "?", "[a-z]", "[!a-z]" and "\", for a text as a
  /// whole.
  [[nodiscard]] static Pattern glob(std::string_view glob);

  Pattern(Pattern&&) noexcept;
  Pattern& operator=(Pattern&&) noexcept;
  ~Pattern();

  /// What is wrong; empty when nothing is.
  [[nodiscard]] std::string error() const;

  [[nodiscard]] bool matches(std::string_view text) const;

 private:
  std::unique_ptr<re2::RE2> regex_;
};
