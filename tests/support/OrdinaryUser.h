#pragma once

/// \file
/// A process without the rights of root, for a while.

#include <cstdlib>
#include <unistd.h>

/// The process acts as an ordinary user while this lives. What a build writes about itself at
/// the end of the process (the coverage, say) is written with its first rights again.
class OrdinaryUser {
 public:
  OrdinaryUser() {
    if (isRoot_ && setresuid(nobody, nobody, 0) != 0) {
      std::abort();
    }
  }
  ~OrdinaryUser() {
    if (isRoot_ && setresuid(0, 0, 0) != 0) {
      std::abort();
    }
  }
  OrdinaryUser(const OrdinaryUser&) = delete;
  OrdinaryUser& operator=(const OrdinaryUser&) = delete;

 private:
  static constexpr uid_t nobody = 65534;
  const bool isRoot_ = geteuid() == 0;
};
