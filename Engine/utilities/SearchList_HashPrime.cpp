#include "Engine/utilities/SearchList_HashPrime.h"

#include <algorithm>
#include <iterator>

namespace {

constexpr unsigned int primes[] = {3,     3,     7,     17,    31,    61,    127,   251,
                                   499,   997,   1999,  3001,  4001,  4999,  5987,  7001,
                                   7993,  9001,  10007, 11003, 11987, 13001, 13999, 14983,
                                   16001, 16993, 17989, 19001, 19997};

}  // namespace

unsigned int SearchList_HashPrime::getPrime(unsigned int n) noexcept {
  const unsigned int* const above = std::upper_bound(std::begin(primes), std::end(primes), n);
  return above == std::begin(primes) ? primes[0] : above[-1];
}
