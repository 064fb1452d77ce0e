#include "Engine/utilities/AssertionMode.h"

#include <cstdlib>
#include <string_view>

namespace {

struct Word {
  std::string_view name;
  int bit;
  bool sets;
};

constexpr Word words[] = {{"EXCEPTION", assertionThrows, true},
                          {"NOEXCEPTION", assertionThrows, false},
                          {"POPUP", assertionPrints, true},
                          {"NOPOPUP", assertionPrints, false}};

constexpr std::string_view separators = ", ";
constexpr int defaultMode = 0;

const Word* find(std::string_view text) noexcept {
  for (const Word& word : words) {
    if (text == word.name) {
      return &word;
    }
  }
  return nullptr;
}

int modeFrom(std::string_view value) noexcept {
  int mode = 0;
  for (;;) {
    const std::size_t start = value.find_first_not_of(separators);
    if (start == std::string_view::npos) {
      return mode;
    }
    value.remove_prefix(start);
    const std::string_view text = value.substr(0, value.find_first_of(separators));
    value.remove_prefix(text.size());
    const Word* word = find(text);
    if (word == nullptr) {
      return defaultMode;
    }
    mode = word->sets ? mode | word->bit : mode & ~word->bit;
  }
}

int modeFromEnvironment() noexcept {
  const char* value = std::getenv("QVX_DBG_ASSERTION");
  return value != nullptr ? modeFrom(value) : defaultMode;
}

}  // namespace

int assertionMode() noexcept {
  static const int mode = modeFromEnvironment();
  return mode;
}
