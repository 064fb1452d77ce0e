#pragma once

#include "Engine/utilities/Export.h"

/// \file
/// Bucket counts for hashed search lists, from a table of primes.

/// A set of static functions; there are no objects of this class.
class CUL_EXPORT SearchList_HashPrime {
 public:
  SearchList_HashPrime() = delete;

  /// A bucket count for about `n` elements: the largest of 3, 7, 17, 31, 61, 127, 251, 499,
  /// 997, 1999, 3001, 4001, 4999, 5987, 7001, 7993, 9001, 10007, 11003, 11987, 13001, 13999,
  /// 14983, 16001, 16993, 17989, 19001 and 19997 that is not above `n`; at least 3.
  [[nodiscard]] static unsigned int getPrime(unsigned int n) noexcept;
};
