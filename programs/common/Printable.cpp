#include "programs/common/Printable.h"

#include <cstdio>

std::string printable(std::string_view text) {
  std::string result;
  for (const char c : text) {
    const unsigned code = static_cast<unsigned char>(c);
    if (code < 0x20 || code == 0x7F) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\x%02X", code);
      result += escape;
    } else {
      result += c;
    }
  }
  return result;
}

std::size_t columnsOf(std::string_view text) {
  std::size_t columns = 0;
  for (const char c : text) {
    const unsigned byte = static_cast<unsigned char>(c);
    const bool isFirst = (byte & 0xC0) != 0x80;
    // The first byte of U+3000 and of all above.
    columns += isFirst ? (byte >= 0xE3 ? 2 : 1) : 0;
  }
  return columns;
}
