#pragma once

#include <cstdlib>
#include <type_traits>

/// \file
/// How the library reads decimal numbers.

/// Reads a zero-terminated text by the steps of `sscanf` with "%d%c", "%u%c", "%lld%c" or
/// "%llu%c": white space and a sign may stand in front of the digits, also in front of those of
/// an unsigned number. A number too great for 64 bits becomes the nearest one, and one of more
/// bits than `value` has loses them.
/// \param value changed when there is a number, whatever follows it.
/// \return whether there is a number and nothing behind it.
template <class Integer>
[[nodiscard]] bool readNumber(const char* text, Integer& value) {
  char* end = nullptr;
  Integer number = 0;
  if constexpr (std::is_signed_v<Integer>) {
    number = static_cast<Integer>(std::strtol(text, &end, 10));
  } else {
    number = static_cast<Integer>(std::strtoul(text, &end, 10));
  }
  if (end == text) {
    return false;
  }
  value = number;
  return *end == 0;
}
