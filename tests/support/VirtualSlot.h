#pragma once

#include <cstddef>

/// \file
/// Where the virtual operations of a class stand. Modules of the engine call them by their
/// place, so these do not move.

/// The position of a virtual operation in the table of its class, 0-based; a virtual destructor
/// takes two.
template <typename Operation>
std::size_t virtualSlot(Operation operation) {
  // Itanium C++ ABI: a pointer to a virtual member function is 1 plus the offset.
  std::size_t words[2];
  static_assert(sizeof operation == sizeof words);
  __builtin_memcpy(words, &operation, sizeof words);
  return (words[0] - 1) / sizeof(void*);
}
