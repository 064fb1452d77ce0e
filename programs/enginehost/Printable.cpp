#include "Printable.h"

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
