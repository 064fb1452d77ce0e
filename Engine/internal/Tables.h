#pragma once

#include <algorithm>
#include <iterator>

/// \file
/// What the compiler holds against tables.

/// Whether no two rows have the same key.
/// \param rows what has a beginning and an end.
/// \param key  gives the key of a row, which can be compared.
template <class Rows, class Key>
[[nodiscard]] constexpr bool areDifferentBy(const Rows& rows, Key key) {
  for (auto row = std::begin(rows); row != std::end(rows); ++row) {
    if (std::any_of(std::begin(rows), row,
                    [&](const auto& earlier) { return key(earlier) == key(*row); })) {
      return false;
    }
  }
  return true;
}
