#include "Engine/utilities/SearchList_HashPrime.h"

#include <climits>
#include <iterator>

#include <gtest/gtest.h>

TEST(SearchList_HashPrime, GivesTheLargestPrimeOfItsTableThatIsNotAboveTheNumber) {
  constexpr unsigned primes[] = {3,     7,     17,    31,    61,    127,   251,
                                 499,   997,   1999,  3001,  4001,  4999,  5987,
                                 7001,  7993,  9001,  10007, 11003, 11987, 13001,
                                 13999, 14983, 16001, 16993, 17989, 19001, 19997};
  for (size_t i = 1; i < std::size(primes); ++i) {
    EXPECT_EQ(SearchList_HashPrime::getPrime(primes[i] - 1), primes[i - 1]);
    EXPECT_EQ(SearchList_HashPrime::getPrime(primes[i]), primes[i]);
    EXPECT_EQ(SearchList_HashPrime::getPrime(primes[i] + 1), primes[i]);
  }
  EXPECT_EQ(SearchList_HashPrime::getPrime(1000), 997U);
}

TEST(SearchList_HashPrime, GivesAtLeastThree) {
  for (unsigned n = 0; n < 7; ++n) {
    EXPECT_EQ(SearchList_HashPrime::getPrime(n), 3U) << n;
  }
}

TEST(SearchList_HashPrime, GivesAtMostTheEndOfItsTable) {
  EXPECT_EQ(SearchList_HashPrime::getPrime(100000), 19997U);
  EXPECT_EQ(SearchList_HashPrime::getPrime(UINT_MAX), 19997U);
}
