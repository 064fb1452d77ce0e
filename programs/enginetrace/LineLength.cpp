#include "programs/enginetrace/LineLength.h"

#include "programs/enginetrace/LineStart.h"

std::size_t lengthOfLine(std::string_view text) noexcept {
  for (std::size_t end = 0;;) {
    const std::size_t newline = text.find('\n', end);
    if (newline == std::string_view::npos || newline + 1 == text.size()) {
      return text.size();
    }
    end = newline + 1;
    const std::string_view rest = text.substr(end);
    if (beginsLine(rest) || beginsSeparator(rest)) {
      return end;
    }
  }
}
