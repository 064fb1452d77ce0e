#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Engine/utilities/CharString.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/UNIX/UNIXDebuggerParameters.h"

#include "tests/support/PlainText.h"

/// Wide text of ASCII.
inline CharString wide(std::string_view ascii) {
  const std::wstring text(ascii.begin(), ascii.end());
  return {text.data(), static_cast<unsigned>(text.size())};
}

/// The pairs as "name=value".
inline std::vector<std::string> pairsOf(const DebuggerArgList& list) {
  std::vector<std::string> result;
  for (unsigned i = 1; i <= list.count(); ++i) {
    result.push_back(plain(list.name(i)) + '=' + plain(list.value(i)));
  }
  return result;
}

inline std::vector<std::string> invalidOf(const DebuggerParameters& parameters) {
  std::vector<std::string> result;
  for (const EncodedString* text : parameters.invalidArguments()) {
    result.push_back(plain(*text));
  }
  return result;
}

/// An argument vector as main() gets it.
class ArgumentVector {
 public:
  explicit ArgumentVector(std::vector<std::string> texts) : texts_(std::move(texts)) {
    for (std::string& text : texts_) {
      pointers_.push_back(text.data());
    }
    pointers_.push_back(nullptr);
  }
  ArgumentVector(const ArgumentVector&) = delete;
  ArgumentVector& operator=(const ArgumentVector&) = delete;
  ~ArgumentVector() = default;

  int argc() const { return static_cast<int>(texts_.size()); }
  char** argv() { return pointers_.data(); }

 private:
  std::vector<std::string> texts_;
  std::vector<char*> pointers_;
};

/// Parameters that have seen no argument yet.
struct NoParameters : UNIXDebuggerParameters {
  NoParameters() : UNIXDebuggerParameters(0, nullptr) {}

  /// Takes one argument in.
  unsigned add(std::string_view arg, std::string_view next = {}) {
    return addDebuggerArg(wide(arg), wide(next));
  }
};

/// Parameters from the command line "/bin/debugger" and `arguments`.
struct ParametersOf : private ArgumentVector, UNIXDebuggerParameters {
  explicit ParametersOf(std::vector<std::string> arguments)
      : ArgumentVector(withProgram(std::move(arguments))), UNIXDebuggerParameters(argc(), argv()) {}

 private:
  static std::vector<std::string> withProgram(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "/bin/debugger");
    return arguments;
  }
};
