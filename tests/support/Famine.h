#pragma once

/// \file
/// A process without memory, for a while. Not with the sanitizers, whose allocators end the
/// process then.

#include <cstddef>
#include <stdlib.h>
#include <sys/resource.h>

#include <gtest/gtest.h>

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

/// Takes all memory until the end of the scope.
class Famine {
 public:
  Famine() {
    EXPECT_EQ(getrlimit(RLIMIT_AS, &before_), 0);
    const rlimit none = {0, before_.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_AS, &none), 0);
    for (std::size_t size = std::size_t{1} << 20; size >= sizeof(void*); size /= 2) {
      while (void* const block = malloc(size)) {
        *static_cast<void**>(block) = hoard_;
        hoard_ = block;
      }
    }
  }
  Famine(const Famine&) = delete;
  Famine& operator=(const Famine&) = delete;
  ~Famine() {
    while (hoard_ != nullptr) {
      void* const next = *static_cast<void**>(hoard_);
      free(hoard_);
      hoard_ = next;
    }
    EXPECT_EQ(setrlimit(RLIMIT_AS, &before_), 0);
  }

 private:
  rlimit before_ = {};
  void* hoard_ = nullptr;
};

#endif
