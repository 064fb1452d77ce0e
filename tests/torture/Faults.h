#pragma once

#include <span>
#include <vector>

/// \file
/// Failures of allocations and of calls of the C library, one at a time or for good, in the order
/// in which the whole process makes them while a fault is armed. This program's own definitions
/// stand before those of the C library, also for calls from the library under test; for what the C
/// library does inside itself only its allocations count.
///
/// A forked child counts for itself from where its parent was.

/// A function of the C library that can fail.
struct FallibleCall {
  const char* name;
  /// What its manual page names, and `shortly` for one that may do part of its work.
  std::vector<int> errors;
};

/// Instead of an error: less is read or written than was asked for.
inline constexpr int shortly = -1;

/// All that this program stands in for. What they are numbered by stays.
std::span<const FallibleCall> fallibleCalls();

/// What is to fail.
struct Fault {
  enum Kind : unsigned { none, allocation, call };

  Kind kind = none;
  unsigned first = 0;    ///< The number of the first that fails, from 1.
  bool forGood = false;  ///< Also those behind it: all allocations, all calls of that function.
  unsigned error = 0;    ///< The place of the error among those of the function; the last if less.
};

/// What was counted, in memory that outlives the process.
struct Count {
  static constexpr unsigned most = 8192;

  unsigned allocations = 0;
  unsigned calls = 0;
  unsigned failed = 0;            ///< How many had to fail.
  int failedCall = -1;            ///< Which one first, by its number; -1: an allocation.
  unsigned char made[most] = {};  ///< The calls by number, in order.
};

/// From now on calls are counted in `count`, and fail as said.
void arm(const Fault& fault, Count& count);
void disarm();

/// Until the end of the scope, what the calling thread calls and allocates neither counts nor
/// fails.
class Spared {
 public:
  Spared();
  Spared(const Spared&) = delete;
  Spared& operator=(const Spared&) = delete;
  ~Spared();

 private:
  bool before_;
};

/// What is allocated at the moment.
struct Allocated {
  long blocks = 0;     ///< Given out and not freed.
  long poolBytes = 0;  ///< Of the chunks of the string pool, which are not among them.
};
Allocated allocated();
