#include "Utf8.h"

namespace {

// The well-formed byte sequences of the Unicode standard, table 3-7: the first byte, the range
// of the second one and the size. All further bytes are 80 to BF.
struct Form {
  unsigned char first;
  unsigned char last;
  unsigned char secondFirst;
  unsigned char secondLast;
  unsigned char size;
};

constexpr Form forms[] = {
    {0x00, 0x7F, 0, 0, 1},       {0xC2, 0xDF, 0x80, 0xBF, 2}, {0xE0, 0xE0, 0xA0, 0xBF, 3},
    {0xE1, 0xEC, 0x80, 0xBF, 3}, {0xED, 0xED, 0x80, 0x9F, 3}, {0xEE, 0xEF, 0x80, 0xBF, 3},
    {0xF0, 0xF0, 0x90, 0xBF, 4}, {0xF1, 0xF3, 0x80, 0xBF, 4}, {0xF4, 0xF4, 0x80, 0x8F, 4},
};

bool isWithin(char byte, unsigned char first, unsigned char last) {
  const auto value = static_cast<unsigned char>(byte);
  return value >= first && value <= last;
}

bool has(std::string_view text, const Form& form) {
  if (text.size() < form.size || !isWithin(text[0], form.first, form.last) ||
      (form.size > 1 && !isWithin(text[1], form.secondFirst, form.secondLast))) {
    return false;
  }
  for (std::size_t i = 2; i < form.size; ++i) {
    if (!isWithin(text[i], 0x80, 0xBF)) {
      return false;
    }
  }
  return true;
}

}  // namespace

std::size_t characterSize(std::string_view text) {
  for (const Form& form : forms) {
    if (has(text, form)) {
      return form.size;
    }
  }
  return 0;
}

bool isUtf8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t size = characterSize(text);
    if (size == 0) {
      return false;
    }
    text.remove_prefix(size);
  }
  return true;
}
